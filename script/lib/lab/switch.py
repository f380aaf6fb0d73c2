# SPDX-License-Identifier: Apache-2.0
"""One switch of the lab: its directory, its namespaces, and the two daemons in them.

A process that only sleeps holds the namespaces. The daemons run beside it and are kept the way an
init system of the device keeps them: when morvad ends with EXIT_RESTART, both are started again.
"""

import os
import re
import signal
import socket
import sys
import time

import boards
import bridge
import filesystem
import namespaces as ns
import network

EXIT_RESTART = 75  # morvad's exit status when the switch was asked to reboot
STOP_SECONDS = 5.0  # what a daemon gets to end after SIGTERM
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
APPEND = os.O_WRONLY | os.O_APPEND | os.O_CREAT
AT_WORK = re.compile(rb"qel \S+ starting\n")  # the last that the agent logs before it serves anybody
LOGS = ("console.log", "qel.log", "morvad.log", "queries.jsonl", "syslog.log")


class Switch:
    """`number` counts from 1; `directory` is the switch's own below the lab's."""

    def __init__(self, number, directory, board_file, build_dir, programs):
        self.number = number
        self.directory = directory
        self.build_dir = build_dir
        self.programs = programs
        self.pid = 0  # of the process that holds the namespaces
        self.daemons = {"morvad": 0, "qel": 0}
        self.restarting = False
        self.kill_at = None  # monotonic time at which what still runs is killed
        self.log_start = 0  # how much of the agent's log is of those before this one
        self.failure = None  # set when a daemon ended before the agent was ready
        self._pipes = {}  # descriptor -> where to read from and the file that takes it

        board = boards.read(board_file)
        self.mac = boards.mac(board, number)
        self.address = boards.address(board, number)
        self.interfaces = bridge.ports(board)  # behind its ports; none: they live in memory
        self.board_file = board_file
        self._prepare_directory()
        if number > 1:
            self.board_file = self._path("board.json")
            boards.write_variant(board, self.board_file, self.mac, self.address)

    def _prepare_directory(self):
        os.makedirs(os.path.join(self.directory, "conf"), exist_ok=True)
        if not os.path.lexists(self._path("nvram.conf")):
            os.symlink("conf/nvram.conf", self._path("nvram.conf"))
        for name in LOGS:
            open(self._path(name), "ab").close()
        for name in (".console", ".syslog"):
            if os.path.lexists(self._path(name)):
                os.unlink(self._path(name))
        os.mkfifo(self._path(".console"), 0o622)
        os.chmod(self._path(".console"), 0o622)
        os.makedirs(self._path(".root"), exist_ok=True)

    def _path(self, name):
        return os.path.join(self.directory, name)

    # --- namespaces -----------------------------------------------------------------------------

    def fork_holder(self, keep_visible):
        """Starts the process that holds the namespaces; it waits for `release_holder`."""
        report_read, report_write = os.pipe()
        go_read, go_write = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            status = 1
            try:
                os.close(go_write)
                os.close(report_read)
                self._hold(report_write, go_read, keep_visible)
            except BaseException as error:  # whatever it is, the lab must hear of it
                os.write(report_write, f"!{error}".encode())
            os._exit(status)
        os.close(report_write)
        os.close(go_read)
        self._report, self._go = report_read, go_write
        self._await_report("its namespaces")

    def release_holder(self):
        """Lets the holder build the switch's inside; `await_holder` waits for it."""
        os.write(self._go, b"g")
        os.close(self._go)

    def await_holder(self):
        self._await_report("its file system")
        os.close(self._report)

    def _await_report(self, what):
        answer = os.read(self._report, 4096).decode(errors="replace")
        if answer != "k":
            raise OSError(f"switch {self.number}: {what}: {answer.lstrip('!') or 'ended early'}")

    def _hold(self, report, go, keep_visible):
        os.setsid()
        ns.unshare(ns.CLONE_NEWNS | ns.CLONE_NEWNET)
        os.write(report, b"k")
        if os.read(go, 1) != b"g":
            return
        if self.interfaces:
            bridge.start_switch_side(self.interfaces, self.mac)
        else:
            network.start_switch_side()
        visible = [*keep_visible, self.board_file, self.directory]
        filesystem.build_switch_root(self._path(".root"), self.directory, visible, self.programs)
        os.write(report, b"k")
        null = os.open("/dev/null", os.O_RDWR)
        for descriptor in range(3):
            os.dup2(null, descriptor)
        os.closerange(3, 256)
        os.execvp("sleep", ["sleep", "infinity"])

    def prefix(self):
        """The command prefix that runs its arguments inside the switch."""
        return ["nsenter", "-t", str(self.pid), "-m", "-n", "-r", "-w", "--"]

    # --- console and log ------------------------------------------------------------------------

    def open_pipes(self):
        """Opens the reading ends of what the switch will see as /dev/console and /dev/log."""
        console = os.open(self._path(".console"), os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
        self._pipes[console] = (console, self._append("console.log"))
        log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        # The path of the lab may be longer than a socket address takes; the way over /proc is not.
        directory = os.open(self.directory, os.O_PATH | os.O_DIRECTORY)
        log.bind(f"/proc/self/fd/{directory}/.syslog")
        os.close(directory)
        os.chmod(self._path(".syslog"), 0o666)
        self._pipes[log.fileno()] = (log, self._append("syslog.log"))

    def pipes(self):
        return list(self._pipes)

    def _append(self, name):
        return os.open(self._path(name), APPEND | os.O_CLOEXEC, 0o644)

    def pump(self, descriptor):
        """Moves what waits at `descriptor` into its file."""
        source, target = self._pipes[descriptor]
        while True:
            try:
                if source == descriptor:
                    data = os.read(descriptor, 65536)
                else:
                    data = source.recv(65536) + b"\n"
            except BlockingIOError:
                return
            if not data:
                return
            os.write(target, data)

    def pump_all(self):
        for descriptor in self._pipes:
            self.pump(descriptor)

    # --- daemons --------------------------------------------------------------------------------

    def start_daemons(self):
        self.restarting = False
        self.kill_at = None
        self._start("morvad")
        self._start("qel")

    def _start(self, name):
        arguments = ["--board", self.board_file, "--foreground"] if name == "morvad" else []
        environment = dict(os.environ)
        environment["PATH"] = f"/morva/bin:{self.build_dir}/bin:{PATH}"
        environment["MORVA_LOG"] = "stderr"
        environment.setdefault("MORVA_QUERY_LOG", self._path("queries.jsonl"))
        if name == "qel":
            self.log_start = os.path.getsize(self._path("qel.log"))
        self.daemons[name] = os.posix_spawnp(
            "nsenter",
            self.prefix() + [name] + arguments,
            environment,
            file_actions=[
                (os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
                (os.POSIX_SPAWN_OPEN, 1, self._path(name + ".log"), APPEND, 0o644),
                (os.POSIX_SPAWN_DUP2, 1, 2),
                *((os.POSIX_SPAWN_CLOSE, descriptor) for descriptor in inherited_descriptors()),
            ],
            setsid=True,
            setsigdef=[signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGPIPE],
        )
        with open(self._path(name + ".pid"), "w", encoding="ascii") as file:
            file.write(f"{self.daemons[name]}\n")

    def ready(self):
        """Whether the cable carries, the agent has its vty socket, and it is through with its start."""
        root = f"/proc/{self.pid}/root"
        with open(root + "/sys/class/net/vlanif1/operstate", encoding="ascii") as file:
            cable = file.read().strip() == "up"
        return cable and os.path.exists(f"{root}/run/qel.vty") and self._agent_at_work()

    def _agent_at_work(self):
        with open(self._path("qel.log"), "rb") as file:
            file.seek(self.log_start)
            return AT_WORK.search(file.read()) is not None

    def child_ended(self, pid, status, stopping):
        """Takes note that the process `pid` ended with wait status `status`."""
        for name, daemon in self.daemons.items():
            if daemon == pid:
                self.daemons[name] = 0
                self._daemon_ended(name, os.waitstatus_to_exitcode(status), stopping)
                return

    def _daemon_ended(self, name, code, stopping):
        if os.path.exists(self._path(name + ".pid")):
            os.unlink(self._path(name + ".pid"))
        if stopping:
            return
        how = f"ended with status {code}"
        if code < 0:
            how = f"was ended by {signal.Signals(-code).name}"
        if name == "morvad" and code == EXIT_RESTART:
            self.restarting = True
            self.stop_daemons()
        elif not self.restarting:
            self._note(name, how)
            self.failure = f"{name} {how}"
        if self.restarting and not any(self.daemons.values()):
            self._note(name, "restart of the switch")
            self._forget_run_files()
            self.start_daemons()
        elif not self.restarting and os.environ.get("LAB_RESPAWN") == "1":
            self._start(name)

    def _forget_run_files(self):
        for name in ("qel.pid", "qel.vty"):
            try:
                os.unlink(f"/proc/{self.pid}/root/run/{name}")
            except FileNotFoundError:
                pass

    def _note(self, name, text):
        with open(self._path(name + ".log"), "a", encoding="utf-8") as file:
            file.write(f"lab: {text}\n")

    def stop_daemons(self):
        """Asks the daemons to end; `tick` kills them when they do not."""
        for pid in self.daemons.values():
            if pid:
                os.kill(pid, signal.SIGTERM)
        self.kill_at = time.monotonic() + STOP_SECONDS

    def tick(self):
        if self.kill_at is None or time.monotonic() < self.kill_at:
            return
        self.kill_at = None
        for name, pid in self.daemons.items():
            if pid:
                self._note(name, f"did not end within {STOP_SECONDS:g} s")
                os.kill(pid, signal.SIGKILL)

    def remove_plumbing(self):
        """Leaves nothing in the switch's directory but what is worth reading."""
        for name in (".console", ".syslog"):
            os.unlink(self._path(name))
        os.rmdir(self._path(".root"))

    def show_logs(self):
        """Prints the ends of the daemons' logs, for the reader of a failed start."""
        for name in ("morvad.log", "qel.log", "console.log"):
            with open(self._path(name), encoding="utf-8", errors="replace") as file:
                lines = file.readlines()[-30:]
            print(f"--- switch {self.number}, {name}:", file=sys.stderr)
            sys.stderr.writelines("    " + line.rstrip("\n") + "\n" for line in lines)


def inherited_descriptors():
    """What the lab's caller left open for the command; the daemons have no business with it."""
    numbers = [int(name) for name in os.listdir("/proc/self/fd")]
    return [number for number in numbers if number > 2 and _inheritable(number)]


def _inheritable(descriptor):
    try:
        return os.get_inheritable(descriptor)
    except OSError:
        return False  # the one that listed the directory
