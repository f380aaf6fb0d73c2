# SPDX-License-Identifier: Apache-2.0
"""A lab as an object of a test: starts script/lab, reaches into it, and looks after it at the end.

    lab.gateway                 the controller's end of the cable (gateway.Gateway)
    lab.switch("cmd", "arg")    runs a program inside the switch
    lab.run("cmd", "arg")       runs a program in the gateway's network
    lab.console(), lab.log(..), lab.queries(), lab.nvram(..)   what the switch left in $LAB_DIR
    wait_until(condition)       polls; tests never sleep for a length of time
"""

import json
import os
import pathlib
import re
import shlex
import signal
import socket
import subprocess
import tempfile
import time

from gateway import Gateway

TOP = pathlib.Path(__file__).resolve().parents[2]
BOARDS = TOP / "platform/linux/boards"
GATEWAY_END = pathlib.Path(__file__).with_name("gateway_end.py")
PYTHON = "/usr/bin/python3"
START_SECONDS = 180.0  # with many switches
RUN_SECONDS = 60.0
SANITIZER_REPORT = re.compile(r"ERROR: \w+Sanitizer|runtime error:|DEADLYSIGNAL")


# What whoever starts the tests may have set for programs of their own, and a test would not expect.
FOREIGN = re.compile(
    r"NO_COLOR|COLUMNS|LINES|(LAB|MORVA|QELCTL)_.*|(http|https|ftp|all|no)_proxy", re.IGNORECASE
)


def own_environment(environment=None):
    """The environment for what a test starts: the machine's without what is FOREIGN, and `environment`."""
    kept = {key: value for key, value in os.environ.items() if not FOREIGN.fullmatch(key)}
    return kept | (environment or {})


def wait_until(condition, what="the condition", seconds=30.0):
    """Calls `condition` until it returns something true, and returns that."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < deadline, f"{what} did not come true within {seconds:g} s"
        time.sleep(0.01)


class Lab:
    """A running lab. Use it as a context manager, or through the fixtures `lab` and `make_lab`."""

    def __init__(
        self, *arguments, script=TOP / "script/lab", wrapper=(), environment=None, settings=None
    ):
        """`arguments` go to the script `script` as they are; `wrapper` is put before the command
        line; `settings` is what the switch finds in its nvram at start."""
        self._directory = tempfile.TemporaryDirectory(prefix="qel-test.")
        self.dir = pathlib.Path(self._directory.name)
        self.dir.chmod(0o1777)  # an ordinary user's lab writes here too
        if settings:
            (self.dir / "lab/conf").mkdir(parents=True)
            rows = "".join(f"{key}={value}\n" for key, value in settings.items())
            (self.dir / "lab/conf/nvram.conf").write_text(rows, encoding="utf-8")
        ours, theirs = socket.socketpair()
        command = [*wrapper, str(script), *arguments, "--", "bash", "-c", 'exec "$@" 3<&"$0"']
        command += [str(theirs.fileno()), PYTHON, self._readable_to_all(GATEWAY_END)]
        self._output = open(self.dir / "output.txt", "w+b")
        self.process = subprocess.Popen(
            command,
            env=own_environment({"LAB_DIR": str(self.dir / "lab"), **(environment or {})}),
            umask=0o022,
            pass_fds=[theirs.fileno()],
            stdin=subprocess.DEVNULL,
            stdout=self._output,
            stderr=self._output,
        )
        theirs.close()
        self._control = ours
        self._gateway = None
        self.dir = self.dir / "lab"
        self._control.settimeout(START_SECONDS)
        self.environment = self._ask({"op": "environment"})["environment"]

    def _readable_to_all(self, program):
        """A copy of `program` that an ordinary user's lab can run: the checkout may be root's alone."""
        copy = self.dir / program.name
        copy.write_bytes(program.read_bytes())
        copy.chmod(0o644)
        return str(copy)

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        self.close(check=kind is None)

    def _ask(self, request, descriptors=0):
        data, received = b"", []
        try:
            self._control.sendall(json.dumps(request).encode() + b"\n")
            while not data.endswith(b"\n"):
                part, new, _, _ = socket.recv_fds(self._control, 65536, descriptors)
                if not part:
                    raise ConnectionError("the lab ended")
                data += part
                received += new
        except OSError as error:
            raise AssertionError(f"{error}; the lab said:\n{self.output()}") from error
        reply = json.loads(data)
        assert "error" not in reply, reply["error"]
        return received if descriptors else reply

    def output(self):
        """What script/lab itself printed."""
        self._output.flush()
        with open(self._output.name, encoding="utf-8", errors="replace") as file:
            return file.read()

    # --- running and sockets --------------------------------------------------------------------

    def run(self, *argv, text="", timeout=RUN_SECONDS, check=True):
        """Runs a program in the gateway's network; with `check` it must end with status 0."""
        self._control.settimeout(timeout + 5.0)
        reply = self._ask({"op": "run", "argv": list(argv), "input": text, "timeout": timeout})
        result = subprocess.CompletedProcess(
            argv, reply["status"], reply["stdout"], reply["stderr"]
        )
        assert not check or result.returncode == 0, f"{argv}: {result}"
        return result

    def switch(self, *argv, number=1, **options):
        """Runs a program inside the switch `number`; options as `run` takes them."""
        return self.run(*self.switch_prefix(number), *argv, **options)

    def switch_prefix(self, number=1):
        return shlex.split(self.environment[f"LAB_SWITCH_{number}"])

    def morvactl(self, *arguments, number=1, **options):
        return self.switch("morvactl", *arguments, number=number, **options)

    def socket(self, family, kind, protocol=0, inside=0):
        """A socket in the gateway's network, or in that of the switch number `inside`."""
        pid = 0
        if inside:
            prefix = self.switch_prefix(inside)
            pid = int(prefix[prefix.index("-t") + 1])
        request = {"op": "socket", "family": int(family), "type": int(kind)}
        request |= {"protocol": protocol, "pid": pid}
        return socket.socket(fileno=self._ask(request, descriptors=1)[0])

    @property
    def gateway(self):
        if self._gateway is None:
            self._gateway = Gateway(self)
        return self._gateway

    # --- what the switch left behind ------------------------------------------------------------

    def switch_dir(self, number=1):
        directory = self.dir / f"switch{number}"
        return directory if directory.exists() else self.dir

    def log(self, name, number=1):
        """The text of qel.log, morvad.log or syslog.log so far."""
        return self._text(f"{name}.log", number)

    def _text(self, name, number):
        path = self.switch_dir(number) / name
        return path.read_text(encoding="utf-8", errors="surrogateescape")

    def console(self, number=1):
        return self.log("console", number)

    def queries(self, number=1):
        """The module queries so far, oldest first."""
        return [json.loads(line) for line in self._text("queries.jsonl", number).split("\n")[:-1]]

    def nvram(self, key, number=1):
        """The persistent setting `key`, or None."""
        lines = self._text("nvram.conf", number).split("\n")
        rows = dict(line.split("=", 1) for line in lines if "=" in line)
        return rows.get(key)

    def pid(self, name, number=1):
        """The pid inside the lab of qel or morvad, or None while it does not run."""
        try:
            return int(self._text(f"{name}.pid", number))
        except (FileNotFoundError, ValueError):
            return None

    # --- the end --------------------------------------------------------------------------------

    def close(self, check=True):
        """Ends the lab; with `check` it must have gone well: status 0 and no sanitizer report."""
        if self.process is None:
            return
        self._control.close()
        if self._gateway is not None:
            self._gateway.close()
        try:
            status = self.process.wait(timeout=60.0)
        except subprocess.TimeoutExpired:
            self.process.send_signal(signal.SIGKILL)
            status = self.process.wait()
        self.process = None
        reports = self._sanitizer_reports()  # before the directory goes
        output = self.output()
        self._output.close()
        self._directory.cleanup()
        if check:
            assert not reports, "\n".join(reports)
            assert status == 0, f"script/lab ended with {status}:\n{output}"

    def _sanitizer_reports(self):
        reports = []
        for log in self.dir.glob("**/*.log"):
            text = log.read_text(encoding="utf-8", errors="replace")
            found = SANITIZER_REPORT.search(text)
            if found:
                start = max(0, found.start() - 200)
                reports.append(f"{log.name}:\n{text[start : start + 4200]}")
        return reports
