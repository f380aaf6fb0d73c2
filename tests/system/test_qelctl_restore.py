# SPDX-License-Identifier: Apache-2.0
"""What qelctl calls a restore: the switch restarted, and a backup taken then equals what was sent. A
switch that says "complete" and does something else fails the restore: the real one, and doubles."""

import contextlib
import io
import json
import re
import tarfile
import time
import zlib

import pytest
from labkit import Lab
from qelctl_user import DESK, Qelctl, quiet_board
from test_qelctl_faults import STRANGER, Impostor, beside
from test_transfers import put_program

GHOST = f"ghost ({STRANGER}): restore: "
DESK_SW = f"desk-sw ({DESK}): restore: "


def archive(path, **files):
    """A gzip'd tar of `files`: content by name without its ".conf"."""
    with tarfile.open(path, "w:gz", format=tarfile.USTAR_FORMAT) as tar:
        for name, content in files.items():
            member = tarfile.TarInfo(name + ".conf")
            member.size = len(content)
            tar.addfile(member, io.BytesIO(content))
    return path


def conf(lab, number=1):
    """The files that a switch has, by name."""
    return {path.name: path.read_bytes() for path in (lab.switch_dir(number) / "conf").glob("*.conf")}


def before_the_restart(lab, script, number=1):
    """Has a switch run `script` when it has unpacked an archive and stores what it holds."""
    inside = ["cp -a /morva/bin /run/own", "mount --bind /run/own /morva/bin", "cat >/morva/bin/conf"]
    lab.switch("sh", "-c", " && ".join(inside), text=f"#!/bin/sh\n{script}\n", number=number)


# ---- the real switch -----------------------------------------------------------------------------


def test_a_restore_is_done_when_the_switch_holds_every_file(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab, "--yes", switch=DESK)
    (lab.dir / "conf/qel.conf").write_bytes(b"qel debug 1\n")
    qelctl("active", "100000")  # goes on while the archive is under way; its end shows the restart
    qelctl("backup", tmp_path / "desk.tar.gz")
    with tarfile.open(tmp_path / "desk.tar.gz") as tar:
        saved = {name: tar.extractfile(name).read() for name in tar.getnames()}
    assert sorted(saved) == ["nvram.conf", "qel.conf"]
    (lab.dir / "conf/qel.conf").write_bytes(b"qel debug 2\n")
    (lab.dir / "conf/other.conf").write_bytes(b"x\n")
    qelctl("port", "disable", "ge1")
    result = qelctl("restore", tmp_path / "desk.tar.gz", timeout=90)
    assert result.stdout == DESK_SW + "done: the switch restarted and holds the 2 files sent\n"
    countdown = re.compile(rb"qel_sys_active=\d+\n")
    held = conf(lab)
    assert sorted(held) == ["nvram.conf", "qel.conf"] and held["qel.conf"] == saved["qel.conf"]
    assert countdown.sub(b"", held["nvram.conf"]) == countdown.sub(b"", saved["nvram.conf"])


KEEP = "cp /run/kept/* /var/conf/"


def test_a_switch_that_restarts_and_keeps_its_files_is_not_restored(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab, "--yes", switch=DESK)
    qelctl("backup", tmp_path / "desk.tar.gz")
    qelctl("port", "disable", "ge1")
    qelctl("name", "changed")
    lab.switch("sh", "-c", "mkdir /run/kept && cp /var/conf/*.conf /run/kept")
    before_the_restart(lab, KEEP)
    lab.morvactl("counters", "ge1", "tx_bytes=1000")
    (told,) = qelctl.json("restore", tmp_path / "desk.tar.gz", status=1, timeout=90)
    assert told["status"] == "failed" and told["restart"] == "took"
    assert told["differences"] == [
        {"file": "nvram.conf", "key": "port.ge1.enable", "difference": "extra"},
        {"file": "nvram.conf", "key": "product_description", "difference": "changed"},
    ]
    assert told["error"] == (
        "the switch restarted; it does not hold what was sent: nvram.conf: port.ge1.enable was not sent, "
        "nvram.conf: product_description differs"
    )


def test_a_switch_that_takes_some_files_only_is_not_restored(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    settings = conf(lab)["nvram.conf"]
    file = archive(tmp_path / "a.tar.gz", nvram=settings, qel=b"qel debug 1\n", vlan=b"1\n")
    before_the_restart(lab, "rm /var/conf/vlan.conf; echo 2 >>/var/conf/qel.conf; echo x >/var/conf/old.conf")
    lab.morvactl("counters", "ge1", "tx_bytes=1000")
    result = Qelctl(lab, "--yes", switch=DESK)("restore", file, status=1, timeout=90)
    assert result.stdout == (
        DESK_SW + "failed: the switch restarted; it does not hold what was sent: old.conf was not sent, "
        "qel.conf differs, vlan.conf is missing\n"
    )


def test_of_several_switches_the_one_that_kept_its_files_is_named(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path), "--switches", "2")
    file = archive(tmp_path / "a.tar.gz", vlan=b"1\n")
    before_the_restart(lab, "echo 2 >/var/conf/vlan.conf", number=2)
    for number in (1, 2):
        lab.morvactl("counters", "ge1", "tx_bytes=1000", number=number)
    told = Qelctl(lab, "-i", "gw0", "--yes").json("-s", "all", "restore", file, status=1, timeout=120)
    assert [(one["mac"], one["status"], one["differences"]) for one in told] == [
        (DESK, "done", []),
        ("0a:1b:2c:3d:4e:11", "failed", [{"file": "vlan.conf", "difference": "changed"}]),
    ]


def test_a_switch_that_does_not_come_back_is_no_answer(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    before_the_restart(lab, "ip link set vlanif1 down")
    file = archive(tmp_path / "a.tar.gz", vlan=b"1\n")
    arguments = ["--yes", "--timeout", "2", "restore", file, "--wait", "1"]
    result = Qelctl(lab, switch=DESK)(*arguments, status=3, timeout=60)
    assert result.stdout == (
        DESK_SW + "no answer: the switch fell silent and did not come back in time; whether it holds what was "
        "sent is not known\n"
    )


def test_a_backup_that_no_switch_would_take_is_kept_and_said_to_be(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    # The switch packs with a tar that adds a file.
    put_program(
        lab, "tar",
        "#!/bin/sh\nmkdir /run/odd && cp *.conf /run/odd && echo x >'/run/odd/with blank.conf' && "
        "cd /run/odd && exec /usr/bin/tar -zcf /var/conf/getconf.tar.gz -- *.conf\n",
    )
    result = Qelctl(lab, switch=DESK)("backup", tmp_path / "desk.tar.gz")
    assert result.stdout.endswith(
        '; it could not be restored: not a configuration archive: "with blank.conf" is no name for it; '
        'expected letters, digits, "_", "." and "-"\n'
    )
    assert tarfile.open(tmp_path / "desk.tar.gz").getnames() == ["nvram.conf", "with blank.conf"]


# ---- doubles -------------------------------------------------------------------------------------


class Taker(Impostor):
    """Takes an archive as a switch does, answers its last chunk with `state`, and gives the backup `held`."""

    def __init__(self, lab, held=b"", state=3, restarts=True, ignores=0):
        """`ignores`: how many frames it leaves unanswered once it has taken the archive."""
        super().__init__(lab, bytes.fromhex("0a1b2c3d4e99"))
        self.held, self.state, self.restarts, self.ignores = held, state, restarts, ignores
        self.complete = False
        self.started = time.monotonic() - 5000
        self.taken = b""

    def update(self, to, subject, data, chunk=None):
        text = json.dumps({"mac": self.mac.hex(), "cmd": "update", "subcmd": subject, "data": data}).encode()
        behind = b"" if chunk is None else b"\0" + chunk
        length = len(text) + (16 if chunk is None else 17)
        head = to + self.mac + bytes.fromhex("93030000babe") + length.to_bytes(2, "big") + bytes(12)
        self.socket.send(head + text + behind)

    def pong(self, to, tick):
        data = {"mac": self.mac.hex(), "sys_ip": "192.168.1.99", "sys_mask": 24, "name": "ghost", "model": "m"}
        data |= {"type": "switch", "uptime": int(time.monotonic() - self.started), "hw_version": "h"}
        data |= {"sw_version": "s", "active": 1, "sys_active": 0, "cpu": 1, "mem": 1, "ntick": tick}
        text = {"mac": self.mac.hex(), "cmd": "answer", "subcmd": "answer", "data": data}
        self.send(to, json.dumps(text).encode())

    def take(self, to, data, chunk):
        if data["length"] == 2000:  # the one that makes a switch forget
            self.update(to, "config_download", {"state": 0, "index": data["index"] + 1, "file": data["file"]})
            return
        self.taken += chunk[: data["length"]]
        state = 2 if data["next"] else self.state
        self.update(
            to, "config_download",
            {"state": state, "index": data["index"] + 1 if data["next"] else 0, "file": data["file"]},
        )  # fmt: skip
        self.complete = state == 3
        if self.complete and self.restarts:
            self.started = time.monotonic()

    def give(self, to, index):
        chunk = self.held[index * 1024 :][:1024]
        crc = int.from_bytes(zlib.crc32(self.held).to_bytes(4, "big"), "big", signed=True)
        data = {"state": 1, "idx": index, "length": len(chunk), "next": int(index * 1024 + 1024 < len(self.held))}
        data |= {"total_length": len(self.held), "crc": crc}
        self.update(to, "config_upload", data, chunk)

    def obey(self, frame):
        if self.complete and self.ignores:
            self.ignores -= 1
            return
        text, _, chunk = frame[32:].partition(b"\0")
        with contextlib.suppress(ValueError, KeyError):
            message = json.loads(text)
            if message["subcmd"] == "probe":
                self.pong(frame[6:12], message["data"]["ntick"])
            elif frame[:6] != self.mac:
                return
            elif message["subcmd"] == "config_download":
                self.take(frame[6:12], message["data"], chunk)
            elif message["subcmd"] == "config_upload":
                self.give(frame[6:12], message["data"]["index"])


@pytest.fixture(scope="module")
def lab(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as running:
        yield running


def restored(lab, tmp_path, file, double):
    """(status, stdout) of a restore of `file` by `double`, which takes all of it."""
    arguments = ["--yes", "--timeout", "2", "-s", STRANGER, "restore", str(file), "--wait", "5"]
    with double.socket:
        double.socket.settimeout(0.1)
        result = beside(lab, tmp_path, *arguments)
        end = time.monotonic() + 60
        while not (tmp_path / "status").exists():
            assert time.monotonic() < end
            with contextlib.suppress(TimeoutError):
                double.obey(double.socket.recv(2000))
        status, out, err = result()
    assert double.taken == file.read_bytes(), (status, out, err)
    return status, out


def test_a_double_that_does_all_is_restored(lab, tmp_path):
    file = archive(tmp_path / "a.tar.gz", vlan=bytes(range(256)) * 20)
    status, out = restored(lab, tmp_path, file, Taker(lab, held=file.read_bytes()))
    assert (status, out) == (0, GHOST + "done: the switch restarted and holds the file sent\n")


def test_a_switch_that_does_not_restart_is_not_restored(lab, tmp_path):
    file = archive(tmp_path / "a.tar.gz", vlan=b"1\n")
    double = Taker(lab, held=file.read_bytes(), restarts=False)
    assert restored(lab, tmp_path, file, double) == (
        1,
        GHOST + "failed: the switch was not seen to restart; whether it holds what was sent is not known\n",
    )


def test_a_switch_that_was_only_silent_is_not_restored(lab, tmp_path):
    file = archive(tmp_path / "a.tar.gz", vlan=b"1\n")
    double = Taker(lab, held=file.read_bytes(), restarts=False, ignores=4)
    assert restored(lab, tmp_path, file, double) == (
        1,
        GHOST + "failed: the switch was silent for a while and answers again; neither its uptime nor its "
        "counters began anew; whether it holds what was sent is not known\n",
    )


def test_a_switch_that_restarts_with_another_file_is_not_restored(lab, tmp_path):
    file = archive(tmp_path / "a.tar.gz", vlan=b"1\n")
    old = archive(tmp_path / "old.tar.gz", vlan=b"2\n")
    assert restored(lab, tmp_path, file, Taker(lab, held=old.read_bytes())) == (
        1,
        GHOST + "failed: the switch restarted; it does not hold what was sent: vlan.conf differs\n",
    )


def test_a_switch_that_gives_no_archive_back_is_not_restored(lab, tmp_path):
    file = archive(tmp_path / "a.tar.gz", vlan=b"1\n")
    assert restored(lab, tmp_path, file, Taker(lab, held=b"hello")) == (
        1,
        GHOST + "failed: the switch restarted; what it holds could not be read back: not a configuration "
        "archive: not packed with gzip\n",
    )


@pytest.mark.parametrize("size", [10, 5000], ids=["one chunk", "several chunks"])
def test_a_switch_that_refuses_the_archive_is_told_as_that(lab, tmp_path, size):
    content = b"".join(zlib.crc32(b"%d" % i).to_bytes(4, "big") for i in range(size))
    file = archive(tmp_path / "a.tar.gz", vlan=content)
    assert restored(lab, tmp_path, file, Taker(lab, state=0)) == (
        1,
        GHOST + "failed: the switch refused the archive; nothing was changed\n",
    )
