# SPDX-License-Identifier: Apache-2.0
"""qelctl where something is wrong: with the wire, with the rights, with the switches, with the words."""

import json
import os
import re
import socket
import subprocess

import pytest
from labkit import TOP, Lab, wait_until
from qelctl_user import Qelctl, quiet_board

MAC = "0a:1b:2c:3d:4e:10"
SWITCH_MAC = bytes.fromhex("0a1b2c3d4e10")


@pytest.fixture(scope="module")
def qelctl(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        yield Qelctl(lab)


def test_no_such_interface(qelctl):
    result = qelctl("-i", "eth9", "discover", status=1)
    assert result.stderr == 'qelctl: no interface "eth9"; this machine has: gw0 lo\n'
    assert qelctl("-i", "lo", "discover", status=1).stderr == "qelctl: interface lo is not Ethernet\n"


def test_no_permission_says_which_and_how(qelctl):
    result = qelctl.lab.run(
        "setpriv", "--bounding-set", "-net_raw", "--inh-caps", "-net_raw", "qelctl", "discover", check=False
    )
    assert result.returncode == 1
    assert result.stderr == (
        "qelctl: raw Ethernet needs the capability CAP_NET_RAW: run as root, or grant it once with "
        '"sudo setcap cap_net_raw+ep $(command -v qelctl)"\n'
    )


def test_an_interface_that_is_down(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    lab.run("ip", "link", "set", "gw0", "down")
    assert Qelctl(lab)("-i", "gw0", "discover", status=1).stderr == (
        'qelctl: interface gw0 is down; "ip link set gw0 up" brings it up\n'
    )


def test_a_small_mtu_is_told_when_answers_stay_away(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab)
    file = tmp_path / "a.tar.gz"
    qelctl("backup", file)
    lab.run("ip", "link", "set", "gw0", "mtu", "600")
    lab.morvactl("counters", "ge1", "tx_bytes=1000")
    # Chunks are cut to what fits.
    assert "the switch has all of the archive" in qelctl("--yes", "restore", file, timeout=60).stdout
    wait_until(lambda: qelctl.json("show"), "the switch")
    result = qelctl("--timeout", "0.5", "query", "nobody", "x", status=3)
    assert (
        "qelctl: gw0 has an MTU of 600: answers of more than 582 bytes may get lost; "
        '"ip link set gw0 mtu 1618" makes room for all\n'
    ) in result.stderr


def test_nobody_answers(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    lab.switch("ip", "link", "set", "vlanif1", "down")
    qelctl = Qelctl(lab, "--timeout", "0.5")
    for command in (["discover"], ["show"], ["ports"], ["port", "enable", "ge1"], ["watch"], ["--yes", "reboot"]):
        result = qelctl(*command, status=3)
        assert result.stdout == ""
        assert result.stderr in ("qelctl: no switch answered\n", "qelctl: no answer from any switch\n")


class Impostor:
    """Something on the switch's end of the cable that answers as a test wants."""

    def __init__(self, lab, mac):
        self.socket = lab.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x9301), inside=1)
        self.socket.bind(("vlanif1", 0x9301))
        self.mac = mac

    def send(self, to, text):
        head = to + self.mac + bytes.fromhex("93030000babe") + (len(text) + 16).to_bytes(2, "big") + bytes(12)
        self.socket.send(head + text)

    def answer(self, to, tick, name, mac=None):
        mac = (mac or self.mac).hex()
        text = (
            f'{{"mac":"{mac}","cmd":"answer","subcmd":"answer","data":{{"mac":"{mac}","sys_ip":"192.168.1.99",'
            f'"sys_mask":24,"name":"{name}","model":"m","type":"switch","uptime":1,"hw_version":"h",'
            f'"sw_version":"s","active":1,"sys_active":0,"cpu":1,"mem":1,"ntick":{tick}}}}}'
        )
        self.send(to, text.encode())

    def serve(self, probes, act):
        """Calls act(sender, tick) for each of so many probes."""
        self.socket.settimeout(10)
        while probes:
            frame = self.socket.recv(2000)
            if b'"probe"' in frame:
                act(frame[6:12], json.loads(frame[32:].split(b"\0")[0])["data"]["ntick"])
                probes -= 1


def beside(lab, directory, *arguments):
    """Starts qelctl beside the test; returns what waits for (status, stdout, stderr)."""
    words = " ".join(f"'{word}'" for word in arguments)
    lab.run("sh", "-c", f"( qelctl {words} >{directory}/out 2>{directory}/err; echo $? >{directory}/status ) >/dev/null 2>&1 &")

    def result():
        status = wait_until(
            lambda: (directory / "status").exists() and (directory / "status").read_text(), "qelctl to end"
        )
        return int(status), (directory / "out").read_text(), (directory / "err").read_text()

    return result


def test_two_switches_of_one_name_are_not_guessed_between(qelctl, tmp_path):
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))
    with other.socket:
        result = beside(qelctl.lab, tmp_path, "--switch", "desk-sw", "show")
        other.serve(1, lambda to, tick: other.answer(to, tick, "desk-sw"))
        status, out, err = result()
    assert (status, out) == (2, "")
    assert err == (
        'qelctl: 2 switches are called "desk-sw"; choose by MAC:\n'
        "  0a:1b:2c:3d:4e:10  desk-sw\n  0a:1b:2c:3d:4e:99  desk-sw\n"
    )


def test_hostile_names_and_answers_do_not_reach_the_terminal(qelctl, tmp_path):
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))

    def act(to, tick):
        other.answer(to, tick, r"\u001b[2J\u001b]0;owned\u0007")
        other.send(to, b'{"mac":"0a1b2c3d4e98","cmd":"answer","subcmd":"answer","data":{"mac":"\x1b[31m"}}')
        other.send(to, b"[" * 1500)

    with other.socket:
        result = beside(qelctl.lab, tmp_path, "discover", "--timeout", "1")
        other.serve(2, act)
        status, out, err = result()
    assert status == 0
    assert "?[2J?]0;owned?" in out and "desk-sw" in out
    assert "\x1b" not in out + err
    assert "an answer of 0a:1b:2c:3d:4e:99 cannot be read" in err


def test_answers_nobody_asked_for_are_not_believed(qelctl, tmp_path):
    """A stranger that answers in the switch's name, and answers to other probes."""
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))

    def act(to, tick):
        other.answer(to, tick + 1, "late")
        other.answer(to, tick, "liar", mac=SWITCH_MAC)

    with other.socket:
        result = beside(qelctl.lab, tmp_path, "discover", "--json", "--timeout", "1")
        other.serve(1, act)
        status, out, err = result()
    assert status == 0
    assert len(out.splitlines()) == 1
    assert f"two switches call themselves {MAC}; the second is left out" in err


def test_a_switch_that_dies_after_the_question(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab, "--timeout", "1")
    lab.switch("sh", "-c", f"kill -STOP {lab.pid('morvad')}", check=False)
    try:
        result = qelctl("ports", status=3, timeout=60)
    finally:
        lab.switch("sh", "-c", f"kill -CONT {lab.pid('morvad')}", check=False)
    assert "no answer to" in result.stderr or "no answer from" in result.stderr


@pytest.mark.parametrize(
    "arguments",
    [
        [], ["nonsense"], ["port"], ["port", "speed", "ge1", "7G"], ["port", "restart", "ge1", "--seconds", "0"],
        ["port", "restart", "ge1", "--seconds", "256"], ["port", "config", "ge1", "eee=maybe"], ["ip", "1.2.3.4"],
        ["ip", "300.1.1.1/24"], ["ip", "127.0.0.1/8"], ["ip", "10.0.0.1/33"], ["time", "yesterday"],
        ["active", "-1"], ["--timeout", "0", "show"], ["--color", "pink", "show"], ["query", "poe"],
        ["query", "poe", "x", "{not json"], ["-i", "gw0", "--udp", "192.168.1.11", "show"], ["firmware"],
    ],
)  # fmt: skip
def test_wrong_usage_ends_with_2(qelctl, arguments):
    result = qelctl(*arguments, status=2)
    assert result.stdout == "" and result.stderr


COMMANDS = re.findall(r'^_qelctl_commands="(.*)"$', (TOP / "gateway/completion/qelctl.bash").read_text(), re.M)[0]


@pytest.mark.parametrize("command", COMMANDS.split() + ["port restart", "firmware push"])
def test_every_command_has_help_with_an_example(qelctl, command):
    text = qelctl(*command.split(), "--help").stdout
    assert "Example:\n  qelctl " in text


def test_the_completion_knows_every_command_and_option(qelctl):
    listed = qelctl("--help").stdout.split("Subcommands:\n")[1].split("\n\n")[0]
    assert sorted(re.findall(r"^  (\w+)", listed, re.M)) == sorted(COMMANDS.split())
    for command in COMMANDS.split():
        options = set(re.findall(r"(--[a-z]+)", qelctl(command, "--help").stdout.split("Options:")[1].split("\n\n")[0]))
        assert options - {"--yes", "--json", "--switch"} <= set(complete(command, "--")) | {"--help"}, command


def complete(*words):
    script = (
        f"source {TOP}/gateway/completion/qelctl.bash; COMP_WORDS=(qelctl \"$@\"); "
        'COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _qelctl 2>/dev/null; printf "%s\\n" "${COMPREPLY[@]}"'
    )
    result = subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True, check=True)
    return result.stdout.split()


def test_completion():
    assert complete("p") == ["ports", "poe", "port"]
    assert complete("-i", "l") == ["lo"]
    assert complete("port", "") == ["enable", "disable", "speed", "restart", "config"]
    assert complete("port", "speed", "ge1", "100M") == ["100M", "100M-H", "100M-F"]
    assert complete("--json", "port", "config", "ge1", "l") == ["llpp=", "lldp="]
    assert complete("firmware", "") == ["push", "pull"]
    assert os.path.basename(complete("restore", __file__[:-2])[0]) == os.path.basename(__file__)
