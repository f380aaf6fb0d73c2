# SPDX-License-Identifier: Apache-2.0
"""Starts the agent on a switch whose rest hangs, and tells it to end in the middle of its start.

start_and_end.py PLACE [SIGNAL]: runs inside a switch without daemons. PLACE is what the start hangs
in when the signal is sent:

    a number N    the N-th query to a module, which is never answered (those before it are refused)
    backlog       the first query: the module's queue of callers is full
    manager       the connection to the interface manager, whose queue of callers is full
    nobody        nobody is there at all

It prints one line of JSON: where the agent was, its exit status, its log, and how long its end took.
Nothing sleeps: it acts when the kernel shows that the agent is where it should be.
"""

import json
import os
import pathlib
import selectors
import signal
import socket
import subprocess
import sys
import time

RUN = pathlib.Path("/var/run/morva")
MODULES = ("hal", "ifmgr", "sys", "mono", "poe", "statistics", "zebra")
PATIENCE = 40.0  # until a process that does not end counts as one that never does
SYN_SENT, MANAGER_PORT = "02", f":{30000:04X}"


class Platform:
    """The modules and the interface manager, as far as they are there."""

    def __init__(self, hang_at):
        self.hang_at = hang_at
        self.asked = []
        self.kept = []
        self.selector = selectors.DefaultSelector()
        RUN.mkdir(mode=0o750, exist_ok=True)

    def listen(self, family, address, backlog=64):
        listener = socket.socket(family, socket.SOCK_STREAM)
        if family == socket.AF_INET:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(address)
        listener.listen(backlog)
        self.kept.append(listener)
        return listener

    def serve_modules(self):
        for module in MODULES:
            path = RUN / f"{module}.sock"
            path.unlink(missing_ok=True)
            self.selector.register(self.listen(socket.AF_UNIX, str(path)), selectors.EVENT_READ)

    def serve_manager(self):
        self.listen(socket.AF_INET, ("127.0.0.1", 30000))  # callers wait in its queue, connected

    def fill_queue(self, family, address):
        """A listener that takes nobody, with as many callers as it has room for."""
        (RUN / "hal.sock").unlink(missing_ok=True)
        self.listen(family, address, 0)
        for _ in range(4):
            caller = socket.socket(family, socket.SOCK_STREAM)
            caller.setblocking(False)
            caller.connect_ex(address)
            self.kept.append(caller)

    def until_hanging(self, alive):
        """Refuses queries up to the one that is to hang. False when the agent ended before it."""
        while alive():
            for key, _ in self.selector.select(0.01):
                client, _ = key.fileobj.accept()
                request = b""
                while part := client.recv(65536):
                    request += part
                asked = json.loads(request)
                self.asked.append(f"{asked['mdl']} {asked['cmd']}")
                if len(self.asked) == self.hang_at:
                    self.kept.append(client)
                    return True
                client.sendall(b'{"ret":-1}')
                client.close()
        return False


def field(pid, key):
    """A field of /proc/PID/status."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith(key + ":"):
            return line.split(":", 1)[1].split()[0]
    raise LookupError(key)


def is_waiting(pid):
    """Whether a process that catches SIGTERM has nothing to do but to wait."""
    caught = int(field(pid, "SigCgt"), 16)
    return caught >> (signal.SIGTERM - 1) & 1 and field(pid, "State") == "S"


def is_connecting():
    """Whether somebody in this network waits for the interface manager to take the call."""
    rows = pathlib.Path("/proc/net/tcp").read_text(encoding="ascii").splitlines()[1:]
    ours = [row.split() for row in rows]
    # Those that filled the queue wait too: the agent's is the one that came last.
    waiting = [row for row in ours if row[2].endswith(MANAGER_PORT) and row[3] == SYN_SENT]
    return len(waiting)


def poll(condition, alive):
    while alive():
        if condition():
            return True
    return False


def hang(place, platform):
    """Makes the platform hang in `place`; returns what waits for the agent to be there."""
    if place == "nobody":
        return lambda alive, pid: poll(lambda: is_waiting(pid), alive)
    if place == "backlog":
        platform.fill_queue(socket.AF_UNIX, str(RUN / "hal.sock"))
        return lambda alive, pid: poll(lambda: is_waiting(pid), alive)
    platform.serve_modules()
    if place == "manager":
        platform.fill_queue(socket.AF_INET, ("127.0.0.1", 30000))
        before = is_connecting()
        platform.hang_at = -1

        def connecting(alive, _):
            while alive() and is_connecting() <= before:
                platform.until_hanging(lambda: alive() and is_connecting() <= before)
            return alive()

        return connecting
    platform.serve_manager()
    return lambda alive, _: platform.until_hanging(alive)


def main(place, number=signal.SIGTERM):
    platform = Platform(int(place) if place.isdigit() else 0)
    reached = hang(place, platform)
    log = open("/run/start_and_end.log", "w+b")
    agent = subprocess.Popen(["qel"], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    arrived = reached(lambda: agent.poll() is None, agent.pid)
    start = time.monotonic()
    if arrived:
        os.kill(agent.pid, number)
    try:
        agent.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        agent.kill()
        agent.wait()
    seconds = time.monotonic() - start
    log.seek(0)
    told = {"arrived": arrived, "asked": platform.asked, "status": agent.returncode}
    told |= {"seconds": seconds, "log": log.read().decode(errors="replace")}
    print(json.dumps(told))


if __name__ == "__main__":
    main(sys.argv[1], *map(int, sys.argv[2:]))
