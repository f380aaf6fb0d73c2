# SPDX-License-Identifier: Apache-2.0
"""A saved "qel disable" is tight: through every start, with frames that come all the while or that
waited for the agent, not one is answered."""

import socket
import threading

import pytest

from gateway import GROUP, frame, message
from labkit import wait_until

STARTS = 5
FLOOD_TICK = 555
PAUSE = 0.0005  # between the frames of a flood, so that the machine gets on with the start

# An operator at the switch: says the words of the command line to its shell.
SHELL = """
import socket, sys
shell = socket.socket(socket.AF_UNIX)
shell.connect("/var/run/qel.vty")
shell.settimeout(60)
shell.sendall("\\n".join(["enable", "configure terminal", *sys.argv[1:], "end", "exit", ""]).encode())
while part := shell.recv(65536):
    sys.stdout.write(part.decode())
"""


def shell(lab, *lines):
    """True when the shell was there and took `lines`."""
    done = lab.switch("python3", "-c", SHELL, *lines, check=False)
    return done.returncode == 0 and "%" not in done.stdout


class Flood:
    """Probes without end, from before the start to after it."""

    def __init__(self, send):
        self._send = send
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def _run(self):
        while not self._stop.wait(PAUSE):
            self._send()

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join()


def probes(lab):
    """A flood of probes over Ethernet."""
    text = message("probe", "probe", {"ntick": FLOOD_TICK}, mac=lab.gateway.mac.hex())
    whole = frame(GROUP, lab.gateway.mac, text)
    return Flood(lambda: lab.gateway.send_raw(whole))


def waiting(lab):
    """Bytes of frames that the agent has not read yet."""
    rows = lab.switch("cat", "/proc/self/net/packet").stdout.split("\n")[1:-1]
    raw = [row.split() for row in rows]
    return sum(int(row[6]) for row in raw if row[3] == "9301")


def started(lab, before):
    """Waits until the agent after the processes `before` serves its shell."""
    wait_until(lambda: (lab.pid("qel") or before) != before, "another agent")
    wait_until(lambda: shell(lab), "its shell", 60.0)


def expect_no_answer_until_enabled(lab):
    wait_until(lambda: waiting(lab) == 0, "the agent to read what came in")
    assert shell(lab, "qel enable")
    # An answer to one of those before would come before this one's.
    assert [one.json["data"].get("ntick") for one in lab.gateway.until_probe(7)] == [7]


def restart_agent(lab):
    pid = lab.pid("qel")
    lab.run("kill", "-KILL", str(pid))
    started(lab, pid)


def restart_agent_without_its_rule(lab):
    """Nothing but the agent itself keeps the frames from it until it has shut the gate again."""
    pid = lab.pid("qel")
    lab.run("kill", "-STOP", str(pid))
    lab.switch("nft", "delete", "table", "netdev", "morva")
    wait_until(lambda: waiting(lab) > 0, "frames at the agent's socket")
    lab.run("kill", "-KILL", str(pid))
    started(lab, pid)


def restart_switch(lab):
    pid = lab.pid("qel")
    lab.morvactl("restart")
    started(lab, pid)


@pytest.mark.parametrize(
    "restart", [restart_agent, restart_agent_without_its_rule, restart_switch], ids=lambda one: one.__name__
)
def test_a_saved_disable_answers_nobody_at_any_start(make_lab, restart):
    lab = make_lab(environment={"LAB_RESPAWN": "1"})
    lab.gateway.probe()
    assert shell(lab, "qel disable", "write")
    with probes(lab):
        for _ in range(STARTS):
            restart(lab)
    assert lab.switch("cat", "/var/conf/qel.conf").stdout == "qel disable\n!\n"
    expect_no_answer_until_enabled(lab)


def datagrams_waiting(lab):
    """Bytes at the agent's UDP port, 20682, that it has not read yet."""
    rows = [row.split() for row in lab.switch("cat", "/proc/self/net/udp").stdout.split("\n")[1:-1]]
    return sum(int(row[4].split(":")[1], 16) for row in rows if row[1].endswith(":50CA"))


def test_a_disabled_agent_answers_no_datagrams_either(make_lab):
    lab = make_lab(settings={"qel_udp_enable": "1"})
    with lab.socket(socket.AF_INET, socket.SOCK_DGRAM) as link:
        link.settimeout(30.0)
        link.connect(("192.168.1.10", 20682))
        link.send(message("probe", "probe", {"ntick": 1}))
        assert b'"ntick":1}' in link.recv(65536)
        assert shell(lab, "qel disable")
        for _ in range(3):
            link.send(message("probe", "probe", {"ntick": 2}))
        wait_until(lambda: datagrams_waiting(lab) == 0, "the agent to read them")
        assert shell(lab, "qel enable")
        link.send(message("probe", "probe", {"ntick": 3}))
        assert b'"ntick":3}' in link.recv(65536)
