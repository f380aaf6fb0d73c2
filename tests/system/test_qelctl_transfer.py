# SPDX-License-Identifier: Apache-2.0
"""qelctl's transfers against the real agent: what arrives, what is refused, what is left behind."""

import gzip
import io
import os
import re
import tarfile
import zlib

import pytest
from gateway import message
from labkit import Lab, wait_until
from qelctl_user import DESK, Qelctl, quiet_board

# What the agent has computed of what it stored, and what it was told.
CHECKED = re.compile(r"crc32\[0x([0-9a-f]+)\], loadcrc32\[0x([0-9a-f]+)\]")
WHO = "desk-sw (0a:1b:2c:3d:4e:10): "


@pytest.fixture
def qelctl(tmp_path):
    with Lab("--board", quiet_board(tmp_path)) as lab:
        yield Qelctl(lab, switch=DESK)


def archive(path, *names, kind=tarfile.REGTYPE):
    with tarfile.open(path, "w:gz", format=tarfile.USTAR_FORMAT) as tar:
        for name in names:
            member = tarfile.TarInfo(name)
            member.type = kind
            content = b"key=value\n" if kind == tarfile.REGTYPE else b""
            member.size = len(content)
            tar.addfile(member, io.BytesIO(content))
    return str(path)


def test_backup_change_restore(qelctl, tmp_path):
    file = tmp_path / "desk.tar.gz"
    result = qelctl("backup", file)
    size = file.stat().st_size
    assert result.stdout == WHO + f"backup: done: saved {size} B in {file}\n"
    assert result.stderr == "desk-sw: done\n"
    assert file.stat().st_mode & 0o777 == 0o640
    with tarfile.open(file) as tar:
        assert tar.getnames() == ["nvram.conf"]
    before = qelctl.json("ports")
    qelctl("name", "changed")
    qelctl("--yes", "port", "disable", "ge1")
    qelctl("port", "config", "ge2", "eee=on", "poe=off")
    qelctl.lab.morvactl("counters", "ge1", "tx_bytes=1000")
    result = qelctl("--yes", "restore", file, "--wait", "20", timeout=90)
    assert result.stdout == (
        "changed (0a:1b:2c:3d:4e:10): restore: done: the switch restarted and holds the file sent\n"
    )
    wait_until(lambda: qelctl.json("show")[0]["name"] == "desk-sw")
    wait_until(lambda: qelctl.json("ports") == before, "every report as it was")


def test_backup_of_several_goes_into_a_folder(make_lab, tmp_path):
    qelctl = Qelctl(make_lab("--switches", "3"), "-i", "gw0")
    macs = [one["mac"].replace(":", "") for one in qelctl.json("discover", "--expect", "3")]
    result = qelctl("-s", "all", "backup", tmp_path / "one.tar.gz", status=2)
    assert "FILE has to be a folder that exists" in result.stderr
    told = qelctl.json("-s", "all", "backup", tmp_path)
    assert [one["status"] for one in told] == ["done"] * 3
    assert sorted(os.listdir(tmp_path)) == sorted(f"{mac}.tar.gz" for mac in macs)


def test_a_folder_that_is_not_there_fails_and_says_so(qelctl):
    result = qelctl("backup", "/nonexistent/file", status=1)
    assert result.stdout.startswith(WHO + "backup: failed: cannot create /nonexistent/file.part-")


@pytest.mark.parametrize(
    "make, why",
    [
        (lambda path: path.write_bytes(b"hello"), "not packed with gzip"),
        (lambda path: path.write_bytes(gzip.compress(b"hello")), "the tar has no end"),
        (lambda path: path.write_bytes(gzip.compress(bytes(1024))), "it is empty"),
        (lambda path: archive(path, "a.txt"), 'not a configuration archive: "a.txt" is no ".conf" file'),
        (lambda path: archive(path, "../a.conf"), '"../a.conf" lies in a folder'),
        (lambda path: archive(path, "/etc/a.conf"), '"/etc/a.conf" lies in a folder'),
        (lambda path: archive(path, "a.conf", kind=tarfile.SYMTYPE), '"a.conf" is no plain file'),
        (lambda path: archive(path, "a.conf", "a.conf"), '"a.conf" is in it twice'),
        (lambda path: archive(path, "a.conf", "a b.conf"), '"a b.conf" is no name for it; expected letters, digits'),
        (lambda path: path.write_bytes(gzip.compress(bytes(5_000_000))), "more than 4 MiB unpacked"),
    ],
)
def test_what_is_no_archive_is_not_sent(qelctl, tmp_path, make, why):
    file = tmp_path / "bad.tar.gz"
    make(file)
    result = qelctl("--yes", "restore", file, status=1)
    assert why in result.stderr and result.stdout == ""
    # The agent says so of every chunk: ours, which holds nothing, is the only one.
    nothing = {"index": 0, "next": 1, "file": "x", "total_length": 1, "crc": 0, "length": -1}
    qelctl.lab.gateway.command("update", "config_download", nothing)
    assert qelctl.lab.gateway.receive().json["data"]["state"] == 0
    wait_until(lambda: "[qel_cmd_handle_conf_download," in qelctl.lab.console(), "the console's line")
    assert qelctl.lab.console().count("[qel_cmd_handle_conf_download,") == 1


def test_a_restore_is_not_appended_to_one_that_was_left_open(qelctl, tmp_path):
    qelctl("name", "saved")
    file = tmp_path / "desk.tar.gz"
    qelctl("backup", file)
    qelctl("name", "changed")
    # Another gateway begins a download and goes away.
    left_open = {"index": 0, "next": 1, "file": "x", "total_length": 60000, "crc": 0, "length": 4}
    text = message("update", "config_download", left_open)
    qelctl.lab.gateway.send(text + b"\0abcd", length=len(text) + 17)
    assert qelctl.lab.gateway.receive().json["data"]["state"] == 2
    qelctl.lab.morvactl("counters", "ge1", "tx_bytes=1000")
    qelctl("--yes", "restore", file, "--wait", "20", timeout=90)
    assert qelctl.json("show")[0]["name"] == "saved"
    sums = wait_until(lambda: CHECKED.findall(qelctl.lab.console()), "the console's line about the sum")
    assert sums == [(f"{zlib.crc32(file.read_bytes()):x}",) * 2]


def test_firmware_is_pushed_byte_for_byte(qelctl, tmp_path):
    image = tmp_path / "image.trx"
    image.write_bytes(os.urandom(300_001))
    result = qelctl("--yes", "firmware", "push", image, timeout=60)
    assert result.stdout == WHO + "firmware push: done: the switch has all of the image and upgrades\n"
    assert result.stderr.splitlines() == [
        "desk-sw: 25% of 300 KB", "desk-sw: 50% of 300 KB", "desk-sw: 75% of 300 KB", "desk-sw: done",
    ]  # fmt: skip
    copy = qelctl.lab.switch("sha256sum", "/tmp/linux.trx").stdout.split()[0]
    assert copy == qelctl.lab.run("sha256sum", str(image)).stdout.split()[0]
    log = ["cat", "/var/lib/morva/firmware/upgrades.log"]
    told = f"upgraded: size=300001 sha256={copy}"
    wait_until(lambda: told in qelctl.lab.switch(*log, check=False).stdout, "the upgrade")


def test_firmware_that_is_no_file_is_refused(qelctl, tmp_path):
    (tmp_path / "empty").write_bytes(b"")
    assert "has 0 bytes" in qelctl("--yes", "firmware", "push", tmp_path / "empty", status=1).stderr
    assert "is no regular file" in qelctl("--yes", "firmware", "push", tmp_path, status=1).stderr


def test_firmware_locations_are_checked_before_anybody_is_told(qelctl):
    for location in ("http://h/$(reboot)", "-O/etc/passwd", "~root/x", "http://h/a b", "x" * 233):
        assert qelctl("--yes", "firmware", "pull", "--", location, status=2).stderr.startswith("qelctl: ")
    # The agent says so of whatever location it is told, a bad one too: ours is the only one.
    qelctl.lab.gateway.command("set", "hfs_upgrade", {"upgrade_serverinfo": "$"})
    wait_until(lambda: "Upgrading ....." in qelctl.lab.console(), "the console's line")
    assert qelctl.lab.console().count("Upgrading .....") == 1


def test_firmware_is_pulled(qelctl):
    lab = qelctl.lab
    lab.run("ip", "address", "add", "192.168.1.2/24", "dev", "gw0", check=False)
    result = qelctl("--yes", "firmware", "pull", "http://192.168.1.2:9/none.trx", timeout=60)
    assert result.stdout == (
        WHO + "firmware pull: done: sent; the switch answers again, and does not say whether it fetched the image\n"
    )
    wait_until(lambda: "Upgrading ....." in lab.console(), "the console's line")


def test_the_bar_on_a_terminal(qelctl, tmp_path):
    image = tmp_path / "image.trx"
    image.write_bytes(bytes(10_000_000))
    status, screen, output = qelctl.on_terminal(
        "--yes", "firmware", "push", str(image), columns=100, seconds=60
    )
    assert status == 0
    assert screen.text() == (
        "desk-sw: done\n" + WHO + "firmware push: done: the switch has all of the image and upgrades"
    )
    bars = [line for line in output.split("\r\033[K") if line.startswith("desk-sw ")]
    assert len(bars) > 2
    drawn = bars[-1].split("\r\n")[0]
    assert len(drawn) == 99 and re.fullmatch(
        r"desk-sw {18}\[#+\.*\] +\d+%  +\d[\d.]* [KM]?B/s  +\d+:\d\d", drawn
    ), drawn


def test_ctrl_c_in_a_push_leaves_terminal_and_switch_whole(qelctl, tmp_path):
    image = tmp_path / "image.trx"
    image.write_bytes(bytes(30_000_000))
    status, screen, _ = qelctl.on_terminal(
        "--yes", "firmware", "push", str(image), columns=100, steps=[("[#", "\x03")], seconds=60
    )
    assert status == 130
    assert "firmware push: failed: interrupted; nothing was upgraded" in screen.text()
    assert qelctl.json("show")[0]["name"] == "desk-sw"


def test_a_switch_that_dies_in_a_backup_leaves_no_file(make_lab, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab, "--timeout", "1")
    mac = "0a:1b:2c:3d:4e:10"
    folder = tmp_path / "out"
    folder.mkdir()
    lab.switch("ip", "link", "set", "vlanif1", "down")
    result = qelctl("-s", mac, "backup", folder / "a.tar.gz", status=3)
    assert result.stderr == f"qelctl: no answer from {mac}\n"
    assert os.listdir(folder) == []
