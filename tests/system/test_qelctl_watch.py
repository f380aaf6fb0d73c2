# SPDX-License-Identifier: Apache-2.0
"""qelctl watch against the real agent: every trap, and switches that come and go."""

import json

import pytest
from labkit import Lab, wait_until
from qelctl_user import DESK, Qelctl, quiet_board

NEIGHBOUR = {
    "type": "lldp_add", "mac": "00:11:22:33:44:55", "local_interface": "ge5",
    "management_address": "192.168.1.20", "system_capability": "Switch",
}  # fmt: skip

@pytest.fixture(scope="module")
def qelctl(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        yield Qelctl(lab, switch=DESK)


class Watching:
    """`qelctl watch` beside the test, with its output in a file of the lab."""

    def __init__(self, qelctl, directory, *arguments):
        self.out = directory / "watch.txt"
        self.err = directory / "watch.err"
        words = " ".join(arguments)
        qelctl.lab.run("sh", "-c", f"qelctl {words} >{self.out} 2>{self.err} & echo $! >{directory}/watch.pid")
        self.pid = (directory / "watch.pid").read_text().strip()
        self.lab = qelctl.lab
        wait_until(lambda: "watching" in self.err.read_text(), "watch to begin")

    def lines(self):
        return self.out.read_text(encoding="utf-8").splitlines()

    def end(self, number="INT"):
        self.lab.run("kill", f"-{number}", self.pid, check=False)
        wait_until(
            lambda: self.lab.run("kill", "-0", self.pid, check=False).returncode != 0, "watch to end"
        )


def test_watch_tells_each_trap(qelctl, tmp_path):
    watching = Watching(qelctl, tmp_path, "watch")
    qelctl.lab.morvactl("event", json.dumps(NEIGHBOUR))
    wait_until(lambda: len(watching.lines()) == 1, "the first trap")
    qelctl.lab.morvactl("link", "ge1", "down")
    wait_until(lambda: len(watching.lines()) == 2, "the second trap")
    qelctl.lab.morvactl("link", "ge1", "up")
    wait_until(lambda: len(watching.lines()) == 3, "the third trap")
    watching.end()
    told = [line[10:] for line in watching.lines()]
    assert told == [
        "desk-sw  ge5  client OFF  00:11:22:33:44:55  192.168.1.20  SW",
        "desk-sw  ge1  client NONE",
        "desk-sw  ge1  client NONE",
    ]
    assert watching.err.read_text() == "qelctl: watching 1 switch; Ctrl-C ends\n"


def test_watch_tells_traps_and_not_what_other_commands_are_answered(qelctl, tmp_path):
    """Two commands on one interface have one address, so that each hears the other's answers."""
    watching = Watching(qelctl, tmp_path, "watch")
    for command in (["ports"], ["clients"], ["time"], ["query", "poe", "poe_qel_port_config_get_all"]):
        qelctl(*command)
    qelctl("backup", tmp_path / "a.tar.gz")
    qelctl.lab.morvactl("link", "ge2", "down")
    wait_until(lambda: watching.lines(), "a trap between the answers")
    qelctl("clients")
    qelctl.lab.morvactl("link", "ge2", "up")
    wait_until(lambda: len(watching.lines()) == 2, "a trap after the answers")
    watching.end()
    assert [line[10:] for line in watching.lines()] == ["desk-sw  ge2  client NONE"] * 2


def test_watch_in_json_ends_after_a_count(qelctl, tmp_path):
    watching = Watching(qelctl, tmp_path, "--json", "watch", "--count", "2")
    qelctl.lab.morvactl("link", "ge3", "down")
    qelctl.lab.morvactl("link", "ge3", "up")
    wait_until(
        lambda: qelctl.lab.run("kill", "-0", watching.pid, check=False).returncode != 0, "watch to end by itself"
    )
    events = [json.loads(line) for line in watching.lines()]
    for event in events:
        assert event.pop("time") > 1_600_000_000
    assert events == [
        {
            "mac": "0a:1b:2c:3d:4e:10", "name": "desk-sw", "event": "ports_client", "port": "ge3",
            "client": {"state": "NONE", "mac": "", "ip": "", "type": "UN"},
        }
    ] * 2  # fmt: skip


def test_watch_keeps_the_gateway_present_and_tells_silence(make_lab, tmp_path):
    """Longer than a gateway without a probe stays present; and a switch that goes is missed."""
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab)
    watching = Watching(qelctl, tmp_path, "watch")
    started = lab.run("cut", "-d.", "-f1", "/proc/uptime").stdout
    wait_until(
        lambda: int(lab.run("cut", "-d.", "-f1", "/proc/uptime").stdout) >= int(started) + 13,
        "13 seconds",
        seconds=30,
    )
    lab.morvactl("link", "ge3", "down")
    wait_until(lambda: len(watching.lines()) == 1, "a trap after 13 seconds")
    lab.switch("ip", "link", "set", "vlanif1", "down")
    wait_until(lambda: len(watching.lines()) == 2, "silence to be told", seconds=30)
    assert watching.lines()[1][10:] == "desk-sw  does not answer"
    lab.switch("ip", "link", "set", "vlanif1", "up")
    wait_until(lambda: len(watching.lines()) >= 3, "the return to be told", seconds=30)
    assert "desk-sw  answers again" in [line[10:] for line in watching.lines()]
    watching.end("TERM")
