# SPDX-License-Identifier: Apache-2.0
"""script/lab: the part that stays outside of the lab.

It reads the command line, makes the lab's directory, starts process 1 (keeper.py) in new
namespaces, hands signals on to it, and tidies up when it has ended.
"""

import argparse
import os
import shutil
import signal
import sys
import tempfile

import keeper
import namespaces as ns

CHECKOUT = os.path.realpath(os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../.."))
DEFAULT_BOARD = "platform/linux/boards/ge28.json"
READY_SECONDS = 30.0
READY_SECONDS_PER_SWITCH = 0.5  # each switch beyond the first


DESCRIPTION = """Builds a switch and a gateway out of namespaces, runs COMMAND (an interactive shell
without one) in the gateway's network namespace. The cable's ends are gw0 (gateway) and vlanif1
(switch). COMMAND finds $LAB_DIR (console.log, qel.log, morvad.log, queries.jsonl, nvram.conf, ...)
and $LAB_SWITCH, a prefix that runs its arguments inside the switch; qelctl finds $QELCTL_INTERFACE.
A LAB_DIR from the environment
is used and left behind; files in its conf/ are the switch's /var/conf. QEL_BUILD_DIR names another
folder whose bin/ holds the programs. With LAB_RESPAWN=1 a daemon that ended is started again."""

EPILOG = """Exit status: COMMAND's; 128 + N after signal N; 125 when the lab did not come up; 2 for a wrong
command line."""


def fail(reason):
    """Ends the program with the status that stands for a lab that did not come up."""
    print(f"lab: {reason}", file=sys.stderr)
    sys.exit(keeper.EXIT_LAB)


def parse(arguments):
    parser = argparse.ArgumentParser(
        prog="script/lab",
        usage="%(prog)s [options] [-- COMMAND ...]",
        description=DESCRIPTION,
        epilog=EPILOG,
    )
    add = parser.add_argument
    add("--board", metavar="FILE", help="the switch's board file (default: the 28-port board)")
    add("--preset", choices=("dev", "release"), help="whose programs (default: dev, else release)")
    add("--switches", metavar="N", type=int, default=1, help="how many; $LAB_SWITCH_K is the K-th")
    add("--keep", action="store_true", help="leave $LAB_DIR behind and say where it is")
    add("command", nargs="*", metavar="COMMAND", help="what runs on the gateway's side")
    options = parser.parse_args(arguments)
    if not 1 <= options.switches <= 250:
        parser.error("--switches takes 1 to 250")
    return options


def complete(options):
    """Fills in what the command line left open; ends the program where that cannot be done."""
    options.checkout = CHECKOUT
    options.build_dir = find_build(options.preset)
    options.programs = os.path.join(CHECKOUT, "platform/linux/programs")
    options.board = os.path.realpath(options.board or os.path.join(CHECKOUT, DEFAULT_BOARD))
    if not os.access(options.board, os.R_OK):
        fail(f"{options.board}: no such board file, or not readable")
    options.interactive = not options.command
    if options.interactive:
        options.command = [os.environ.get("SHELL", "/bin/bash")]
    options.ready_seconds = READY_SECONDS + READY_SECONDS_PER_SWITCH * (options.switches - 1)


def find_build(preset):
    """The folder whose bin/ holds the programs; QEL_BUILD_DIR wins over everything."""
    candidates = [os.environ.get("QEL_BUILD_DIR")]
    if not candidates[0]:
        presets = [preset] if preset else ["dev", "release"]
        candidates = [os.path.join(CHECKOUT, "build", name) for name in presets]
    for candidate in candidates:
        programs = [os.path.join(candidate, "bin", name) for name in ("qel", "morvad")]
        if all(os.access(program, os.X_OK) for program in programs):
            return os.path.realpath(candidate)
    fail(f"no qel and morvad in {' or '.join(candidates)}: run script/build first")


def make_directory():
    """The lab's directory, and whether it is the lab's to remove."""
    given = os.environ.get("LAB_DIR")
    if given:
        os.makedirs(given, exist_ok=True)
        return os.path.realpath(given), False
    return os.path.realpath(tempfile.mkdtemp(prefix="qel-lab.")), True


def start_keeper(options):
    """Forks process 1 behind one that waits for it; returns the waiter's pid and a control pipe."""
    control_read, control_write = os.pipe()
    ready_read, ready_write = os.pipe()
    mapped_read, mapped_write = os.pipe()
    sys.stdout.flush()
    waiter = os.fork()
    if waiter == 0:
        os.close(control_write)
        os.close(mapped_write)
        os._exit(wait_for_keeper(options, control_read, ready_write, mapped_read))
    for descriptor in (control_read, ready_write, mapped_read):
        os.close(descriptor)
    if os.read(ready_read, 1) == b"u":
        ns.write_id_maps(waiter)
        os.write(mapped_write, b"m")
    os.close(ready_read)
    os.close(mapped_write)
    return waiter, control_write


def wait_for_keeper(options, control, ready, mapped):
    """In the child: enters the namespaces, forks process 1, and ends with its exit status."""
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: None)  # the terminal's; the outside hands them on
    try:
        ns.unshare(ns.CLONE_LAB)
    except OSError as error:
        print(f"lab: {error}: user namespaces are not allowed here;", file=sys.stderr)
        print("lab: a chroot, a container or a kernel setting may keep them away", file=sys.stderr)
        return keeper.EXIT_LAB
    os.write(ready, b"u")
    if os.read(mapped, 1) != b"m":
        return keeper.EXIT_LAB
    pid = os.fork()
    if pid == 0:
        status = keeper.EXIT_LAB
        try:
            os.close(ready)
            os.close(mapped)
            os.set_inheritable(control, False)
            status = keeper.Keeper(options, control).run()
        finally:
            sys.stdout.flush()
            sys.stderr.flush()
            os._exit(status)
    os.close(control)
    return exit_status(pid)


def in_foreground():
    """Whether what is typed at the terminal, Ctrl-C included, reaches the command by itself."""
    try:
        return os.tcgetpgrp(sys.stdin.fileno()) == os.getpgrp()
    except OSError:
        return False


def exit_status(pid):
    _, status = os.waitpid(pid, 0)
    code = os.waitstatus_to_exitcode(status)
    return code if code >= 0 else 128 - code


def main():
    options = parse(sys.argv[1:])
    complete(options)
    options.dir, ours = make_directory()
    control = None
    # Installed before anything starts: a signal must never leave a lab or a directory behind.
    pending = []

    def hand_on(number, _frame):
        byte = number | (keeper.FROM_TERMINAL if number == signal.SIGINT and in_foreground() else 0)
        pending.append(byte)
        if control is not None:
            os.write(control, bytes([byte]))

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, hand_on)
    try:
        waiter, control = start_keeper(options)
        if pending:
            os.write(control, bytes([pending[0]]))
        status = exit_status(waiter)
    finally:
        if ours and not options.keep:
            shutil.rmtree(options.dir, ignore_errors=True)
        elif options.keep:
            print(f"lab: left behind: {options.dir}", file=sys.stderr)
    return status


if __name__ == "__main__":
    try:
        sys.exit(main())
    except OSError as error:  # no room for the lab's directory, no process to be had
        fail(error)
