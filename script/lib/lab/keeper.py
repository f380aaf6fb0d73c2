# SPDX-License-Identifier: Apache-2.0
"""Process 1 of the lab: starts the switches and the command, and keeps both.

One loop on one thread: it moves console and log lines into files, reaps every process of the lab,
restarts switches, and ends when the command has ended and the daemons had their chance to. When
process 1 goes, the kernel ends whatever else is left in the lab.
"""

import os
import selectors
import shlex
import shutil
import signal
import sys
import time

import bridge
import filesystem
import namespaces as ns
import network
from switch import LOGS, Switch

EXIT_LAB = 125  # the lab itself failed; everything else is the command's own
EXIT_NOT_FOUND = 127
FROM_TERMINAL = 0x80  # beside a signal's number: the terminal sent it to everybody
TICK_SECONDS = 0.02
STOP_SECONDS = 3.0  # what the command gets to end after a signal, and the daemons at the end


class Keeper:
    def __init__(self, options, control):
        self.options = options
        self.control = control  # carries signal numbers from outside; its end means: end at once
        self.switches = []
        self.hosts = []  # the client hosts of a switch whose ports are interfaces
        self.command = 0  # pid of the command while it runs
        self.exit_status = EXIT_LAB
        self.stopping = False
        self.stop_at = None  # monotonic time at which waiting ends
        self.selector = selectors.DefaultSelector()

    def run(self):
        """The whole life of the lab; returns its exit status."""
        try:
            self._build()
        except (OSError, ValueError) as error:
            print(f"lab: {error}", file=sys.stderr)
            return EXIT_LAB
        self._watch()
        if self._await_ready():
            self._start_command()
        self._await_end()
        return self.exit_status

    # --- building -------------------------------------------------------------------------------

    def _build(self):
        options = self.options
        ns.make_private()
        filesystem.mount_kernel_views()
        for number in range(1, options.switches + 1):
            directory = options.dir
            if options.switches > 1:
                directory = os.path.join(options.dir, f"switch{number}")
            self.switches.append(
                Switch(number, directory, options.board, options.build_dir, options.programs)
            )
        if options.switches > 1:
            link_first_switch(options.dir)
        visible = [options.checkout, options.build_dir]
        for switch in self.switches:
            switch.open_pipes()
            switch.fork_holder(visible)
        interfaces = self.switches[0].interfaces
        if interfaces and len(self.switches) > 1:
            raise ValueError("a board with interfaces behind its ports makes one switch")
        if interfaces:
            self.hosts = bridge.connect(self.switches[0], interfaces)
        else:
            network.connect(self.switches)
        for switch in self.switches:
            switch.release_holder()
        for switch in self.switches:
            switch.await_holder()

    def _watch(self):
        wakeup_read, wakeup_write = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        signal.set_wakeup_fd(wakeup_write, warn_on_full_buffer=False)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        forget = lambda: os.read(wakeup_read, 4096)
        self.selector.register(wakeup_read, selectors.EVENT_READ, forget)
        self.selector.register(self.control, selectors.EVENT_READ, self._obey)
        for switch in self.switches:
            for descriptor in switch.pipes():
                self.selector.register(
                    descriptor, selectors.EVENT_READ, lambda s=switch, d=descriptor: s.pump(d)
                )

    # --- the loop -------------------------------------------------------------------------------

    def _turn(self, seconds):
        """One turn of the loop, at most `seconds` long."""
        for key, _ in self.selector.select(seconds):
            key.data()
        self._reap()
        for switch in self.switches:
            switch.tick()

    def _reap(self):
        while True:
            try:
                pid, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return
            if pid == self.command:
                self.command = 0
                code = os.waitstatus_to_exitcode(status)
                self.exit_status = code if code >= 0 else 128 - code
            for switch in self.switches:
                switch.child_ended(pid, status, self.stopping)

    def _obey(self):
        """The outside asks the lab to end: by a signal for the command, or by going away."""
        data = os.read(self.control, 1)
        if not data:
            os._exit(EXIT_LAB)
        number = data[0] & ~FROM_TERMINAL
        if self.command and data[0] & FROM_TERMINAL:
            return  # the command got it too, and says itself whether it ends
        self.exit_status = 128 + number
        if self.command:
            os.kill(self.command, number)
            self.stop_at = time.monotonic() + STOP_SECONDS
        else:
            self.stopping = True

    def _await_ready(self):
        for switch in self.switches:
            switch.start_daemons()
        deadline = time.monotonic() + self.options.ready_seconds
        while not self.stopping:
            self._turn(TICK_SECONDS)
            with open("/sys/class/net/gw0/operstate", encoding="ascii") as file:
                cable = file.read().strip() == "up"
            failed = [switch for switch in self.switches if switch.failure]
            waiting = [switch for switch in self.switches if not switch.ready()]
            if cable and not failed and not waiting:
                return True
            if failed or time.monotonic() > deadline:
                self._report_failed_start(failed, waiting)
                return False
        return False

    def _report_failed_start(self, failed, waiting):
        for switch in (failed or waiting)[:3]:
            late = f"the agent was not ready within {self.options.ready_seconds:g} s"
            reason = switch.failure or late
            print(f"lab: switch {switch.number}: {reason}", file=sys.stderr)
            switch.show_logs()

    def _await_end(self):
        """Waits for the command, then gives the daemons time to end in good order."""
        while self.command:
            self._turn(1.0 if self.stop_at is None else TICK_SECONDS)
            if self.stop_at is not None and time.monotonic() > self.stop_at and self.command:
                os.kill(self.command, signal.SIGKILL)
                self.stop_at = None
        self.stopping = True
        for switch in self.switches:
            switch.stop_daemons()
        deadline = time.monotonic() + STOP_SECONDS
        while time.monotonic() < deadline:
            if not any(any(switch.daemons.values()) for switch in self.switches):
                break
            self._turn(TICK_SECONDS)
        for switch in self.switches:
            switch.pump_all()
            switch.remove_plumbing()

    # --- the command ----------------------------------------------------------------------------

    def _start_command(self):
        environment = dict(os.environ)
        environment["LAB_DIR"] = self.options.dir
        environment["LAB_SWITCH"] = shlex.join(self.switches[0].prefix())
        for switch in self.switches:
            environment[f"LAB_SWITCH_{switch.number}"] = shlex.join(switch.prefix())
        environment.update(bridge.environment(self.hosts))
        # Where the switches are, also when the wire has more ends on this side. A name that the
        # caller has set is one of the machine's and means nothing here.
        environment["QELCTL_INTERFACE"] = "gw0"
        environment["PATH"] = f"{self.options.build_dir}/bin:{environment['PATH']}"
        if self.options.interactive:
            environment.setdefault("PS1", "lab$ ")
            print(f"lab: gw0 leads to the switch, LAB_DIR is {self.options.dir};", file=sys.stderr)
            print("lab: $LAB_SWITCH runs a command in it, `exit` ends it all", file=sys.stderr)
        signals = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGPIPE, signal.SIGCHLD]
        # Looked up on the command's own PATH: posix_spawnp would search ours.
        name = self.options.command[0]
        program = shutil.which(name, path=environment["PATH"]) or name
        try:
            self.command = os.posix_spawn(
                program, self.options.command, environment, setsigdef=signals
            )
        except OSError as error:
            print(f"lab: {self.options.command[0]}: {error.strerror}", file=sys.stderr)
            self.exit_status = EXIT_NOT_FOUND


def link_first_switch(directory):
    """Shows the first switch's files where they are with one switch."""
    for name in (*LOGS, "nvram.conf", "conf", "qel.pid", "morvad.pid"):
        if not os.path.lexists(os.path.join(directory, name)):
            os.symlink(f"switch1/{name}", os.path.join(directory, name))
