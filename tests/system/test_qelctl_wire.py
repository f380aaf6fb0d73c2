# SPDX-License-Identifier: Apache-2.0
"""qelctl where the wire plays tricks: switches that answer late, an interface that goes down, output that
nobody takes. What it does must hold, and what it says must be true."""

import contextlib
import json
import socket
import time

from labkit import PYTHON, wait_until
from qelctl_user import Qelctl, quiet_board
from test_qelctl_faults import STRANGER, Impostor, archive, beside, cut_chunks

FIRST = "0a:1b:2c:3d:4e:5f"
SECOND = "0a:1b:2c:3d:4e:60"
THIRD = "0a:1b:2c:3d:4e:61"


def hear_probes(lab):
    """A socket that is shown what is asked of the switches."""
    heard = lab.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x9301), inside=1)
    heard.bind(("vlanif1", 0x9301))
    heard.settimeout(10)
    return heard


def wait_for(heard, part, count=1):
    """Returns when so many requests with `part` in them have come."""
    while count:
        count -= part in heard.recv(2000)


def kill(lab, signal, name, number=1):
    lab.switch("sh", "-c", f"kill -{signal} {lab.pid(name, number)}", number=number)


def late_second(lab, directory, *arguments):
    """Runs qelctl while the second switch answers nothing before the second probe."""
    (directory / "status").unlink(missing_ok=True)
    kill(lab, "STOP", "qel", 2)
    with hear_probes(lab) as heard:
        result = beside(lab, directory, "-i", "gw0", *arguments)
        wait_for(heard, b'"probe"', 2)
        kill(lab, "CONT", "qel", 2)
    return result()


def test_what_changes_something_waits_for_switches_that_answer_late(make_lab, tmp_path):
    lab = make_lab("--switches", "2")
    qelctl = Qelctl(lab, "-i", "gw0")
    name = qelctl.json("-s", FIRST, "show")[0]["name"]
    assert qelctl.json("-s", SECOND, "show")[0]["name"] == name
    both = f"  {FIRST}  {name}\n  {SECOND}  {name}\n"
    assert late_second(lab, tmp_path, "name", "gotcha") == (
        2, "", "qelctl: 2 switches answered; choose with --switch:\n" + both
    )  # fmt: skip
    assert late_second(lab, tmp_path, "-s", name, "name", "gotcha") == (
        2, "", f'qelctl: 2 switches are called "{name}"; choose by MAC:\n' + both
    )  # fmt: skip
    assert [one["name"] for one in qelctl.json("discover", "--expect", "2")] == [name, name]


def cut_while_pushing(lab, directory, subject, state, *arguments):
    """Takes the gateway's interface down in the middle of a push to three switches, when a fourth has refused
    it with `state`. Returns what qelctl told of each."""
    ghost = Impostor(lab, bytes.fromhex("0a1b2c3d4e99"))
    refusal = f'{{"mac":"0a1b2c3d4e99","cmd":"update","subcmd":"{subject}","data":{{"state":{state},"index":0}}}}'
    err = directory / "err"
    with ghost.socket:
        result = beside(lab, directory, "-i", "gw0", "--yes", "--json", "-s", "all", *arguments)
        ghost.serve(1, lambda to, tick: ghost.answer(to, tick, "ghost"))
        ghost.socket.settimeout(0.1)
        end = time.monotonic() + 60  # the checked build has much to plan before its first chunk
        while "ghost: failed" not in err.read_text():
            assert time.monotonic() < end, err.read_text()
            with contextlib.suppress(TimeoutError):  # what is told comes behind the last frame
                frame = ghost.socket.recv(2000)
                if subject.encode() in frame and frame.startswith(ghost.mac):
                    ghost.send(frame[6:12], refusal.encode())
        wait_until(lambda: err.read_text().count(": 25% of") == 3, "the middle", seconds=60)
        lab.run("ip", "link", "set", "gw0", "down")
        status, out, _ = result()
    assert status == 1
    return [json.loads(line) for line in out.splitlines()]


def told(command, cut_short, refused):
    words = {FIRST: cut_short, SECOND: cut_short, THIRD: cut_short, STRANGER: refused}
    return [
        {"mac": mac, "name": "ghost" if mac == STRANGER else "office-sw", "command": command, "status": "failed",
         "error": error} for mac, error in words.items()
    ]  # fmt: skip


def test_an_interface_that_goes_down_in_a_restore_leaves_nobody_untold(make_lab, tmp_path):
    lab = make_lab("--switches", "3")
    cut_chunks(lab)
    file = archive(tmp_path / "big.tar.gz", 3_900_000)
    assert cut_while_pushing(lab, tmp_path, "config_download", 0, "restore", file) == told(
        "restore",
        "interface gw0 went down; the switch may hold a part of the archive, but applies none of it before "
        "another restore",
        "the switch could not store the archive after 0 bytes; nothing was applied",
    )


def test_an_interface_that_goes_down_in_an_upgrade_leaves_nobody_untold(make_lab, tmp_path):
    lab = make_lab("--switches", "3")
    image = tmp_path / "image.trx"
    image.write_bytes(bytes(12_000_000))
    assert cut_while_pushing(lab, tmp_path, "firm_download", -1, "firmware", "push", str(image)) == told(
        "firmware push", "interface gw0 went down; nothing was upgraded", "the switch is upgrading already"
    )


def answer_alive(ghost, to, tick, uptime):
    text = (
        '{"mac":"0a1b2c3d4e99","cmd":"answer","subcmd":"answer","data":{"mac":"0a1b2c3d4e99","sys_ip":"192.168.1.99",'
        f'"sys_mask":24,"name":"ghost","model":"m","type":"switch","uptime":{uptime},"hw_version":"h",'
        f'"sw_version":"s","active":1,"sys_active":0,"cpu":1,"mem":1,"ntick":{tick}}}}}'
    )
    ghost.send(to, text.encode())


def test_a_switch_that_was_only_slow_is_not_said_to_have_restarted(make_lab, tmp_path):
    """It is told to reboot, does not, and answers nothing for four probes."""
    lab = make_lab()
    ghost = Impostor(lab, bytes.fromhex("0a1b2c3d4e99"))
    reboots = ignored = 0
    started = time.monotonic()
    with ghost.socket:
        result = beside(lab, tmp_path, "--yes", "--timeout", "2", "-s", STRANGER, "reboot", "--wait", "60")
        ghost.socket.settimeout(0.1)
        while not (tmp_path / "status").exists():
            with contextlib.suppress(TimeoutError):
                frame = ghost.socket.recv(2000)
                reboots += b'"sys_reboot"' in frame
                if b'"probe"' in frame and reboots and ignored < 4:
                    ignored += 1
                elif b'"probe"' in frame:
                    tick = json.loads(frame[32:].split(b"\0")[0])["data"]["ntick"]
                    answer_alive(ghost, frame[6:12], tick, 5000 + int(time.monotonic() - started))
        status, out, err = result()
    assert (reboots, ignored, status, err) == (1, 4, 0, "")
    assert out == (
        f"ghost ({STRANGER}): reboot: unseen: the switch was silent for a while and answers again; neither its "
        "uptime nor its counters began anew\n"
    )


TAKE_SLOWLY = """
import fcntl, os, signal, subprocess, sys, time

def state(of):
    rows = dict(line.split(":", 1) for line in open(f"/proc/{of.pid}/status") if ":" in line)
    return rows["State"].split()[0], int(rows["SigPnd"], 16) | int(rows["ShdPnd"], 16)

def wait_until_blocked(of):
    while of.poll() is None and state(of) != ("S", 0):
        pass

reading, writing = os.pipe()
fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
child = subprocess.Popen(sys.argv[1:], stdout=writing)
os.close(writing)
full = bytearray(4)
while int.from_bytes(full, sys.byteorder) < 4096:
    fcntl.ioctl(reading, 0x541B, full)  # FIONREAD
for _ in range(3):
    wait_until_blocked(child)
    child.send_signal(signal.SIGWINCH)
wait_until_blocked(child)
sys.stdout.write(open(reading).read())
sys.exit(child.wait())
"""


def test_a_change_of_the_window_does_not_cut_output_short(make_lab):
    lab = make_lab()
    result = lab.run(PYTHON, "-c", TAKE_SLOWLY, "qelctl", "--json", "ports", check=False)
    assert (result.returncode, result.stderr) == (0, "")
    assert len(result.stdout) > 2 * 4096
    (one,) = [json.loads(line) for line in result.stdout.splitlines()]
    assert len(one["ports"]) == 28


def test_watch_with_a_count_probes_no_more_often(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    beside(lab, tmp_path, "watch", "--count", "9")
    wait_until(lambda: "watching" in (tmp_path / "err").read_text(), "watch to begin")
    started = time.monotonic()
    with hear_probes(lab) as heard:
        for event in range(1, 9):
            lab.morvactl("link", "ge1", "up" if event % 2 == 0 else "down")
            wait_until(lambda: len((tmp_path / "out").read_text().splitlines()) == event, f"event {event}")  # noqa: B023
        took = time.monotonic() - started
        heard.setblocking(False)
        probes = 0
        with contextlib.suppress(BlockingIOError):
            while True:
                probes += b'"probe"' in heard.recv(2000)
    assert probes <= 1 + took / 5
