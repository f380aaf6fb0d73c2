# SPDX-License-Identifier: Apache-2.0
"""qelctl where something is wrong: with the wire, with the rights, with the switches, with the words."""

import contextlib
import io
import json
import os
import re
import socket
import subprocess
import tarfile
import threading

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


# The lab names the wire; this takes the name away again.
UNNAMED = {"environment": ["-u", "QELCTL_INTERFACE"]}


def test_without_a_name_the_only_interface_is_meant(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab)
    assert [one["mac"] for one in qelctl.json("discover", **UNNAMED)] == [MAC]
    lab.run("ip", "link", "set", "gw0", "down")
    assert qelctl("discover", status=2, **UNNAMED).stderr == (
        "qelctl: no network interface is up; name one with -i, or a host with --udp\n"
    )


def test_without_a_name_none_of_several_interfaces_is_meant(make_lab):
    qelctl = Qelctl(make_lab("--switches", "2"))
    assert qelctl("discover", status=2, **UNNAMED).stderr == (
        "qelctl: several network interfaces are up; name one with -i: br gw0 gw0p sw1 sw2\n"
    )


def test_no_permission_says_which_and_how(qelctl):
    result = qelctl.lab.run(
        "setpriv", "--bounding-set", "-net_raw", "--inh-caps", "-net_raw", "qelctl", "discover", check=False
    )
    assert result.returncode == 1
    assert result.stderr == (
        "qelctl: raw Ethernet needs the capability CAP_NET_RAW: run as root, or grant it once with "
        '"sudo setcap cap_net_raw+ep $(command -v qelctl)"\n'
    )


def test_an_ordinary_user_is_told_the_same(qelctl):
    result = qelctl.lab.run(
        "setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "qelctl", "-i", "gw0", "show", check=False
    )
    if "setpriv" in result.stderr:
        pytest.skip("this machine gives a lab no second user")
    assert result.returncode == 1 and result.stdout == ""
    assert "needs the capability CAP_NET_RAW" in result.stderr and "sudo setcap cap_net_raw+ep" in result.stderr


def test_an_interface_that_is_down(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    lab.run("ip", "link", "set", "gw0", "down")
    assert Qelctl(lab)("-i", "gw0", "discover", status=1).stderr == (
        'qelctl: interface gw0 is down; "ip link set gw0 up" brings it up\n'
    )


def test_an_interface_that_goes_down_while_one_watches(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    result = beside(lab, tmp_path, "watch")
    wait_until(lambda: "watching 1 switch" in (tmp_path / "err").read_text(), "watch to begin")
    lab.run("ip", "link", "set", "gw0", "down")
    status, _, err = result()
    assert (status, err) == (1, "qelctl: watching 1 switch; Ctrl-C ends\nqelctl: interface gw0 went down\n")


def test_a_small_mtu_is_told_when_answers_stay_away(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab)
    file = tmp_path / "a.tar.gz"
    qelctl("backup", file)
    lab.run("ip", "link", "set", "gw0", "mtu", "600")
    lab.morvactl("counters", "ge1", "tx_bytes=1000")
    # Chunks are cut to what fits.
    result = qelctl("--yes", "restore", file, "--wait", "20", timeout=90)
    assert result.stdout.endswith("restore: done: the switch restarted and holds the file sent\n")
    long = json.dumps({"x": "y" * 700})
    assert "does not fit the MTU 600 of gw0; \"ip link set gw0 mtu 1618\" makes room" in (
        qelctl("query", "mono", "x", long, status=1).stderr
    )
    result = qelctl("--timeout", "0.5", "query", "nobody", "x", status=3)
    assert (
        "qelctl: gw0 has an MTU of 600: answers of more than 582 bytes may get lost; "
        '"ip link set gw0 mtu 1618" makes room for all\n'
    ) in result.stderr


def test_nobody_answers(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    lab.switch("ip", "link", "set", "vlanif1", "down")
    result = Qelctl(lab, "--timeout", "0.5")("discover", status=3)
    assert (result.stdout, result.stderr) == ("", "qelctl: no switch answered\n")


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

    def forget(self):
        """Drops what came in so far."""
        self.socket.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                self.socket.recv(2000)

    def serve(self, probes, act):
        """Calls act(sender, tick) for each of so many probes."""
        self.socket.settimeout(30)
        while probes:
            frame = self.socket.recv(2000)
            if b'"probe"' in frame:
                act(frame[6:12], json.loads(frame[32:].split(b"\0")[0])["data"]["ntick"])
                probes -= 1


def beside(lab, directory, *arguments):
    """Starts qelctl beside the test; returns what waits for (status, stdout, stderr)."""
    for name in ("out", "err", "pid"):
        (directory / name).touch()
    words = " ".join(f"'{word}'" for word in arguments)
    command = f"sh -c 'echo $$ >{directory}/pid; exec qelctl \"$@\"' sh {words} >{directory}/out 2>{directory}/err"
    lab.run("sh", "-c", f"( {command}; echo $? >{directory}/status ) >/dev/null 2>&1 &")

    def result():
        status = wait_until(
            lambda: (directory / "status").exists() and (directory / "status").read_text(), "qelctl to end", seconds=60
        )
        return int(status), (directory / "out").read_text(), (directory / "err").read_text()

    return result


UNREAD = """
for inode in $(ls -l /proc/$0/fd | sed -n 's/.*socket:.\\([0-9]*\\).*/\\1/p'); do
  awk -v inode="$inode" '$9 == inode { print $7 }' /proc/net/packet
done
"""


def wait_until_read(lab, pid):
    """Returns when the process has taken in every frame that came for it."""
    wait_until(lambda: lab.run("sh", "-c", UNREAD, pid).stdout.split() == ["0"], "frames to be read")


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
        result = beside(qelctl.lab, tmp_path, "discover", "--timeout", "1.5")
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
        result = beside(qelctl.lab, tmp_path, "discover", "--json", "--timeout", "1.5")
        other.serve(1, act)
        status, out, err = result()
    assert status == 0
    assert len(out.splitlines()) == 1
    assert f"two switches call themselves {MAC}; the second is left out" in err


STRANGER = "0a:1b:2c:3d:4e:99"
SILENT_PORTS = "the switch does not say which ports it has"
DYING = {
    "ports": SILENT_PORTS, "stats": SILENT_PORTS, "poe": SILENT_PORTS, "clients": SILENT_PORTS,
    "port enable ge1": SILENT_PORTS, "port disable ge1": SILENT_PORTS, "port speed ge1 1G": SILENT_PORTS,
    "port restart ge1": SILENT_PORTS, "port config ge1 eee=on": SILENT_PORTS,
    "ip 10.0.0.1/8": "sent, but the switch does not answer any more",
    "time": "the switch does not tell its clock", "time now": "sent, but the switch does not answer",
    "name x": "sent, but the switch does not answer any more",
    "active 5": "sent, but the switch does not answer any more",
    "reboot": "no answer; nothing was sent", "reset": "no answer; nothing was sent",
    "query poe x": "no reply; empty ones and those of more than 1600 bytes never come",
    "backup {folder}/a.tar.gz": "backup: no answer: no answer\n",
    "restore {archive}": "restore: no answer: no answer; nothing was sent\n",
    "firmware push {archive}": "firmware push: no answer: no answer to the last chunk: whether the upgrade began is not "
    "known\n",
    "firmware pull http://h/x": "firmware pull: no answer: sent; the switch has not answered since\n",
}  # fmt: skip


def archive(path, size):
    """A configuration archive of about `size` bytes, so many that it is under way for a while."""
    content = os.urandom(size)
    with tarfile.open(path, "w:gz", format=tarfile.USTAR_FORMAT) as tar:
        member = tarfile.TarInfo("big.conf")
        member.size = size
        tar.addfile(member, io.BytesIO(content))
    return str(path)


@pytest.mark.parametrize("command", DYING)
def test_a_switch_that_answers_the_probe_and_dies(qelctl, tmp_path, command):
    folder = tmp_path / "folder"
    folder.mkdir()
    words = command.format(folder=folder, archive=archive(tmp_path / "a.tar.gz", 100)).split()
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))
    with other.socket:
        result = beside(qelctl.lab, tmp_path, "--yes", "-s", STRANGER, "--timeout", "1.5", *words)
        other.serve(1, lambda to, tick: other.answer(to, tick, "ghost"))
        status, out, err = result()
    assert status == 3, out + err
    assert DYING[command] in out + err
    assert f"ghost ({STRANGER}): " in out + err
    assert os.listdir(folder) == []


def test_of_several_switches_each_is_told_the_truth(make_lab, tmp_path):
    """Three that work and one that dies: three are done, one is not, and the status says so."""
    lab = make_lab("--switches", "3")
    other = Impostor(lab, bytes.fromhex("0a1b2c3d4e99"))
    macs = ["0a:1b:2c:3d:4e:5f", "0a:1b:2c:3d:4e:60", "0a:1b:2c:3d:4e:61", STRANGER]
    folder = tmp_path / "folder"
    folder.mkdir()

    def told(*words):
        (tmp_path / "status").unlink(missing_ok=True)
        other.forget()
        arguments = ["-i", "gw0", "-s", "all", "--yes", "--json", "--timeout", "1.5", *words]
        result = beside(lab, tmp_path, *arguments)
        other.serve(1, lambda to, tick: other.answer(to, tick, "ghost"))
        status, out, _ = result()
        lines = [json.loads(line) for line in out.splitlines()]
        assert [line["mac"] for line in lines] == macs
        return status, lines

    with other.socket:
        status, lines = told("ports")
        assert status == 3
        assert [len(line.get("ports", [])) for line in lines] == [28, 28, 28, 0]
        assert lines[3] == {"mac": STRANGER, "name": "ghost", "error": SILENT_PORTS}
        status, lines = told("port", "disable", "ge2")
        assert status == 3
        assert [line.get("result") for line in lines] == ["took"] * 3 + [None]
        status, lines = told("backup", str(folder))
        assert status == 3
        assert [line["status"] for line in lines] == ["done"] * 3 + ["no answer"]
    assert sorted(os.listdir(folder)) == [f"{mac.replace(':', '')}.tar.gz" for mac in macs[:3]]


def test_top_shows_that_a_switch_died(qelctl):
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))
    answering = threading.Thread(
        target=other.serve, args=(1, lambda to, tick: other.answer(to, tick, "ghost"))
    )
    with other.socket:
        answering.start()
        status, _, output = qelctl.on_terminal("-s", STRANGER, "--timeout", "1.5", "top", "--rounds", "1")
        answering.join()
    assert status == 0
    assert "1 switch, 0 ports, 0 up  sorted by rx\033[31m  1 silent\033[0m" in output


def cut_after(lab, condition, what):
    """Takes the switch off the wire as soon as `condition` holds."""
    wait_until(condition, what)
    lab.switch("ip", "link", "set", "vlanif1", "down")


@pytest.fixture
def big(make_lab, tmp_path):
    """A lab whose switch has a large configuration, and an archive nearly as large as one may be: so large
    that three quarters of either are under way for longer than it takes a busy machine to act on the first."""
    lab = make_lab("--board", quiet_board(tmp_path))
    (lab.dir / "conf/big.conf").write_bytes(os.urandom(8_000_000))
    folder = tmp_path / "folder"
    folder.mkdir()
    return lab, folder, archive(tmp_path / "big.tar.gz", 3_900_000)


def cut_chunks(lab):
    """Has an archive go in more and smaller chunks than it would otherwise."""
    lab.run("ip", "link", "set", "gw0", "mtu", "600")


def test_a_switch_that_dies_in_the_middle_of_a_backup(big, tmp_path):
    lab, folder, _ = big
    result = beside(lab, tmp_path, "--timeout", "4", "backup", str(folder / "a.tar.gz"))
    cut_after(lab, lambda: "25% of 8.0 MB" in (tmp_path / "err").read_text(), "a quarter of it")
    status, out, _ = result()
    assert status == 3
    assert re.fullmatch(r"desk-sw \(0a:1b:2c:3d:4e:10\): backup: no answer: no answer for chunk \d+\n", out), out
    assert os.listdir(folder) == []


def test_a_switch_that_dies_in_the_middle_of_a_restore(big, tmp_path):
    lab, _, file = big
    cut_chunks(lab)
    result = beside(lab, tmp_path, "--timeout", "4", "--yes", "restore", file)
    cut_after(lab, lambda: "25% of 3.9 MB" in (tmp_path / "err").read_text(), "a quarter of it")
    status, out, _ = result()
    assert status == 3
    assert re.fullmatch(
        r"desk-sw \(0a:1b:2c:3d:4e:10\): restore: no answer: no answer after \d+ bytes; the switch may hold a part of "
        r"the archive, but applies none of it before another restore\n", out,
    ), out  # fmt: skip
    lab.switch("ip", "link", "set", "vlanif1", "up")
    wait_until(lambda: Qelctl(lab).json("--timeout", "5", "show")[0]["name"] == "desk-sw")


def test_a_switch_that_dies_in_the_middle_of_an_upgrade(big, tmp_path):
    lab, _, _ = big
    image = tmp_path / "image.trx"
    image.write_bytes(os.urandom(8_000_000))
    result = beside(lab, tmp_path, "--timeout", "4", "--yes", "firmware", "push", str(image))
    cut_after(lab, lambda: "25% of 8.0 MB" in (tmp_path / "err").read_text(), "a quarter of it")
    status, out, _ = result()
    assert status == 3
    assert re.fullmatch(
        r"desk-sw \(0a:1b:2c:3d:4e:10\): firmware push: no answer: no answer after \d+ bytes; nothing was upgraded\n", out
    ), out
    lab.switch("ip", "link", "set", "vlanif1", "up")
    wait_until(lambda: Qelctl(lab).json("--timeout", "5", "show")[0]["name"] == "desk-sw")
    # A transfer that has begun and not ended; nothing was handed on, and nothing kept.
    assert json.loads(lab.morvactl("fw", "show", "--json").stdout)["state"] == 1
    assert lab.switch("ls", "/var/lib/morva/firmware", check=False).stdout == ""


@pytest.mark.parametrize("number, status", [("INT", 130), ("TERM", 143), ("HUP", 129)])
def test_a_signal_in_a_backup_leaves_no_file(big, tmp_path, number, status):
    lab, folder, _ = big
    (folder / "a.tar.gz").write_bytes(b"yesterday's")
    result = beside(lab, tmp_path, "backup", str(folder / "a.tar.gz"))
    wait_until(lambda: "25% of 8.0 MB" in (tmp_path / "err").read_text(), "a quarter of it")
    lab.run("kill", f"-{number}", (tmp_path / "pid").read_text().strip())
    ended, out, _ = result()
    assert ended == status
    assert out == f"desk-sw ({MAC}): backup: failed: interrupted\n"
    assert os.listdir(folder) == ["a.tar.gz"]
    assert (folder / "a.tar.gz").read_bytes() == b"yesterday's"


def test_a_signal_in_a_restore_makes_the_switch_forget_it(big, tmp_path):
    lab, _, file = big
    pid = lab.pid("qel")
    cut_chunks(lab)
    result = beside(lab, tmp_path, "--yes", "restore", file)
    wait_until(lambda: "25% of 3.9 MB" in (tmp_path / "err").read_text(), "a quarter of it")
    lab.run("kill", "-INT", (tmp_path / "pid").read_text().strip())
    status, out, _ = result()
    assert status == 130
    assert out == (
        f"desk-sw ({MAC}): restore: failed: interrupted; the switch was told to forget what it had, nothing was applied\n"
    )
    assert Qelctl(lab).json("show")[0]["name"] == "desk-sw"
    # The agent's word for it, behind the last chunk that it took.
    wait_until(
        lambda: "[qel_api_download_reset," in lab.console().rpartition("downloadlen[")[2], "the transfer's end"
    )
    assert lab.console().count("downloadlen[") > 400 and "crc32[" not in lab.console()
    assert lab.pid("qel") == pid


def test_a_signal_in_a_discovery_ends_it_with_what_was_found(qelctl, tmp_path):
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))

    def act(to, tick):
        pid = (tmp_path / "pid").read_text().strip()
        other.answer(to, tick, "ghost")
        wait_until(lambda: b"ghost" in gateway.receive().text, "the answer to cross the cable")
        wait_until_read(qelctl.lab, pid)
        qelctl.lab.run("kill", "-INT", pid)

    gateway = qelctl.lab.gateway  # hears what qelctl hears

    with other.socket:
        result = beside(qelctl.lab, tmp_path, "discover", "--timeout", "60")
        other.serve(1, act)
        status, out, err = result()
    assert status == 130 and err == ""
    assert "ghost" in out


@pytest.mark.parametrize("command", ["ports", "port enable ge1", "name x", "query poe x", "reboot", "watch"])
def test_a_signal_while_an_answer_is_waited_for(qelctl, tmp_path, command):
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))
    with other.socket:
        words = ["--yes", "-s", STRANGER, "--timeout", "60", *command.split()]
        result = beside(qelctl.lab, tmp_path, *words)
        other.serve(1, lambda to, tick: other.answer(to, tick, "ghost"))
        other.socket.recv(2000)  # what the command asks next
        qelctl.lab.run("kill", "-INT", (tmp_path / "pid").read_text().strip())
        status, out, _ = result()
    assert status == (0 if command == "watch" else 130)
    assert out == ""


def test_reports_cut_repeated_late_and_out_of_order(qelctl, tmp_path):
    """The ports of a switch that gets everything wrong and yet says all of it once."""
    other = Impostor(qelctl.lab, bytes.fromhex("0a1b2c3d4e99"))

    def report(subject, data, mac="0a1b2c3d4e99"):
        return f'{{"mac":"{mac}","cmd":"update","subcmd":"{subject}","data":{data}}}'.encode()

    def client(port, state, **options):
        mac, ip = ("001122334455", "192.168.1.20") if state == "ON" else ("", "")
        members = f'"client_state":"{state}","client_mac":"{mac}","client_ip":"{ip}","client_type":"UN"'
        return report("ports_client", f'{{"{port}":{{{members}}}}}', **options)

    info, places = report("ports_info", '{"b":[1,1,"G",1],"a":[0,1,"G",0]}'), report("ports_pos", '{"a":[1,1],"b":[1,2]}')
    answers = {
        b'"ports_info"': [places, info[:-9], client("a", "ON"), info, info, places, info],
        b'"ports_client"': [
            info, client("b", "ON"), client("b", "ON"), client("c", "ON"), client("a", "ON", mac="0a1b2c3d4e98"),
            client("a", "ON")[:-1], b"\xff\xfe", b"", client("a", "NONE"), client("a", "ON"),
        ],
    }  # fmt: skip
    with other.socket:
        result = beside(qelctl.lab, tmp_path, "-s", STRANGER, "clients")
        other.serve(1, lambda to, tick: other.answer(to, tick, "ghost"))
        while answers:
            frame = other.socket.recv(2000)
            for subject in [name for name in answers if name in frame]:
                for text in answers.pop(subject):
                    other.send(frame[6:12], text)
        status, out, err = result()
    assert (status, err) == (0, "")
    assert out == (
        "PORT  STATE  MAC                IP            TYPE\n"
        "b     ON     00:11:22:33:44:55  192.168.1.20  UN\n"
    )


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
        ["watch", "--for", "1e300"], ["watch", "--for", "0"], ["watch", "--for", "nan"], ["--timeout", "nan", "show"],
    ],
)  # fmt: skip
def test_wrong_usage_ends_with_2(qelctl, arguments):
    result = qelctl(*arguments, status=2)
    assert result.stdout == "" and result.stderr


LEAVES = [
    "port enable", "port disable", "port speed", "port restart", "port config", "firmware push", "firmware pull"
]  # fmt: skip


def test_wrong_usage_says_what_is_right(qelctl):
    for arguments, said in {
        (): 'qelctl needs a command: discover show ports stats poe clients port watch top ip time name active reboot '
        'reset query backup restore firmware\n"qelctl --help" says more\n',
        ("port",): 'qelctl port needs a command: enable disable speed restart config\n"qelctl port --help" says more\n',
        ("firmware",): 'qelctl firmware needs a command: push pull\n"qelctl firmware --help" says more\n',
        ("frob",): 'qelctl: The following argument was not expected: frob\n"qelctl --help" says more\n',
        ("port", "speed", "ge1", "7G"): "qelctl: SPEED: 7G not in {AN,10M,10M-H,10M-F,100M,100M-H,100M-F,1G,1G-F,2.5G,"
        '5G,10G,25G,40G,100G}\n"qelctl --help" says more\n',
        ("query", "poe", "x", "{"): "qelctl: DATA: no JSON from byte 2 on\n",
        ("watch", "--for", "nan"): "qelctl: --for: nan is no number of seconds from 0.1 to 31536000\n"
        '"qelctl --help" says more\n',
    }.items():
        assert qelctl(*arguments, status=2).stderr == said


HELP = """\
Finds, watches and runs the switches on a wire.
Usage: qelctl [OPTIONS] [SUBCOMMAND]

Options:
  -h,--help                   Print this help message and exit
  --version                   Display program version information and exit
  -i,--interface NAME (Env:QELCTL_INTERFACE)
                              Network interface on the switches' wire
  --udp HOST                  Talk UDP to this one host instead of Ethernet
  -s,--switch WHICH (Env:QELCTL_SWITCH)
                              MAC or name of a switch, or "all"
  -t,--timeout SECONDS        Seconds to wait for an answer
  --color WHEN                Colours: auto, always, never
  --json                      One JSON object a line, a line for each switch
  -y,--yes                    Do not ask before service is interrupted
  -n,--dry-run                Show the messages and send none
"""


def test_the_help_fits_a_terminal_and_points_to_the_shared_options(qelctl):
    text = qelctl("--help").stdout
    assert text.startswith(HELP)
    assert max(map(len, text.splitlines())) <= 80
    assert qelctl("port", "speed", "--help").stdout.rstrip().endswith("Options of all commands: qelctl --help")


COMMANDS = re.findall(r'^_qelctl_commands="(.*)"$', (TOP / "gateway/completion/qelctl.bash").read_text(), re.M)[0]


@pytest.mark.parametrize("command", COMMANDS.split() + LEAVES)
def test_every_command_has_help_with_an_example(qelctl, command):
    text = qelctl(*command.split(), "--help").stdout
    assert "Example:\n  qelctl " in text
    assert max(map(len, text.splitlines())) <= 80


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
