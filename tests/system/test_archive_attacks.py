# SPDX-License-Identifier: Apache-2.0
"""Configuration archives and chunks as an attacker on the management network would send them."""

import gzip
import io
import itertools
import tarfile
import zlib

import pytest

from gateway import message
from labkit import wait_until
from test_transfers import (
    agent_restarted, answer_to, answers_again, archive_of, ask_chunk, conf_files, fetch_archive, push,
    put_program, send_chunk,
)  # fmt: skip

REFUSED = {"state": 0, "index": 0, "file": "f"}
APPLYING = {"state": 3, "index": 0, "file": "f"}


def member(name, kind=tarfile.REGTYPE, content=b"", target="", mode=0o640):
    info = tarfile.TarInfo(name)
    info.type, info.linkname, info.mode = kind, target, mode
    info.size = len(content)
    return info, content


def tar_of(*members):
    """A gzip'd tar of members as `member` makes them, in their order and whatever they are."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w:gz") as tar:
        for info, content in members:
            tar.addfile(info, io.BytesIO(content))
    return out.getvalue()


GOOD = member("good.conf", content=b"good")
OWN = b"touch /run/owned\n"

ATTACKS = {
    "a name that tar takes for an option": tar_of(
        member("e.conf", content=OWN), member("--checkpoint=1.conf"),
        member("--checkpoint-action=exec=sh e.conf")),
    "a name that tar does not know as an option": tar_of(GOOD, member("-x.conf")),
    "a folder among the files": tar_of(GOOD, member("d.conf", tarfile.DIRTYPE, mode=0o755)),
    "a folder in the archive's place": tar_of(
        GOOD, member("downlconf.tar.gz", tarfile.DIRTYPE, mode=0o755)),
    "a FIFO in the backup's place": tar_of(GOOD, member("getconf.tar.gz", tarfile.FIFOTYPE)),
    "a link in the backup's place": tar_of(
        GOOD, member("getconf.tar.gz", tarfile.SYMTYPE, target="/run/owned")),
    "the folder itself, closed": tar_of(member("./", tarfile.DIRTYPE, mode=0), GOOD),
    "the folder itself, read-only": tar_of(member("./", tarfile.DIRTYPE, mode=0o555), GOOD),
    "the folder itself, open to all": tar_of(member("./", tarfile.DIRTYPE, mode=0o2777), GOOD),
    "a link": tar_of(GOOD, member("l.conf", tarfile.SYMTYPE, target="/etc/passwd")),
    "a file through a link of the archive": tar_of(
        member("l.conf", tarfile.SYMTYPE, target="/run"), member("l.conf/owned", content=b"x")),
    "a file over a link of the archive": tar_of(
        member("l.conf", tarfile.SYMTYPE, target="/run/owned"), member("l.conf", content=b"x")),
    "a second name of a file outside": tar_of(
        GOOD, member("h.conf", tarfile.LNKTYPE, target="/etc/passwd")),
    "two names of one file": tar_of(GOOD, member("h.conf", tarfile.LNKTYPE, target="good.conf")),
    "a device": tar_of(GOOD, member("z.conf", tarfile.CHRTYPE)),
    "a setuid file": tar_of(GOOD, member("s.conf", content=b"#!/bin/sh\n", mode=0o4755)),
    "a file that its owner may not read": tar_of(GOOD, member("u.conf", content=b"x", mode=0)),
    "a name that climbs out": tar_of(GOOD, member("../climbed.conf", content=b"x")),
    "an absolute name": tar_of(GOOD, member("/run/owned", content=b"x")),
    "a name in a folder": tar_of(GOOD, member("a/b.conf", content=b"x")),
    "a name with a line end": tar_of(GOOD, member("a.conf\nb.conf", content=b"x")),
    "a hidden name": tar_of(GOOD, member(".nvram.lock", content=b"x")),
    "a name of another kind": tar_of(GOOD, member("notes.txt", content=b"x")),
    "a file larger than settings can be": tar_of(GOOD, member("big.conf", content=bytes((1 << 20) + 1))),
    "a file larger than all may be": tar_of(GOOD, member("big.conf", content=bytes(5 << 20))),
    "files that are too large together": tar_of(
        *[member(f"f{i}.conf", content=bytes(1 << 20)) for i in range(5)]),
    "too many files": tar_of(*[member(f"f{i}.conf") for i in range(513)]),
    "compressed twice": gzip.compress(tar_of(GOOD)),
    "no file at all": tar_of(),
    "bytes that are no archive": b"this is no archive\n" * 7,
    "an archive that was cut off": tar_of(GOOD)[:-12],
    "one byte": b"x",
}  # fmt: skip


def outside(lab):
    return lab.switch("sh", "-c", "ls -a /run/owned /var/climbed.conf; ls -A /var/conf", check=False).stdout


@pytest.mark.parametrize("attack", ATTACKS)
def test_hostile_archive_is_refused_and_changes_nothing(lab, attack):
    archive = ATTACKS[attack]
    files, seen, agent = conf_files(lab), outside(lab), lab.pid("qel")
    refusals = lab.log("syslog").count("configuration archive refused: ")
    assert push(lab.gateway, "config_download", archive) == REFUSED
    lab.gateway.probe()
    assert (conf_files(lab), outside(lab), lab.pid("qel")) == (files, seen, agent)
    assert lab.log("syslog").count("configuration archive refused: ") == refusals + 1
    # Nor does what the switch does next run or hang on anything.
    data, _ = ask_chunk(lab.gateway, 0)
    assert data["state"] == 1
    assert outside(lab).replace("getconf.tar.gz\n", "") == seen.replace("getconf.tar.gz\n", "")


@pytest.mark.parametrize("attack, entry", [
    ("a name that tar takes for an option", "--checkpoint=1.conf"),
    ("a folder among the files", "d.conf/"),
    ("a link", "l.conf"),
    ("a setuid file", "s.conf"),
])  # fmt: skip
def test_refusal_names_the_entry(lab, attack, entry):
    push(lab.gateway, "config_download", ATTACKS[attack])
    assert f'configuration archive refused: entry "{entry}": expected' in lab.log("syslog")


@pytest.mark.parametrize("data", [{}, {"index": 0, "next": 0, "total_length": 0, "length": 0}])
def test_archive_of_no_bytes_is_refused_and_wipes_nothing(lab, data):
    files, agent = conf_files(lab), lab.pid("qel")
    text = message("update", "config_download", data)
    lab.gateway.send(text + b"\0", length=len(text) + 17)
    assert answer_to(lab.gateway, "config_download").json["data"]["state"] == 0
    lab.gateway.probe()
    assert (conf_files(lab), lab.pid("qel")) == (files, agent)


@pytest.mark.parametrize("subcmd", ["config_upload", "config_download", "firm_download"])
@pytest.mark.parametrize("data", ["x", 7, [5], True])
def test_data_that_is_no_object_is_not_answered(lab, subcmd, data):
    files, agent = conf_files(lab), lab.pid("qel")
    text = message("update", subcmd, data)
    lab.gateway.send(text + b"\0", length=len(text) + 17)
    answers = lab.gateway.until_probe()
    assert [one for one in answers if one.json["subcmd"] == subcmd] == []
    assert (conf_files(lab), lab.pid("qel")) == (files, agent)


def test_chunk_that_did_not_arrive_whole_is_refused(lab):
    """Its missing bytes would be zeros, or what an earlier frame left in the buffer."""
    archive = tar_of(GOOD)
    files, agent = conf_files(lab), lab.pid("qel")
    send_chunk(lab.gateway, "config_download", 0, False, len(archive), archive[:-1], length=len(archive))
    assert answer_to(lab.gateway, "config_download").json["data"] == REFUSED
    send_chunk(lab.gateway, "firm_download", 0, False, 6, b"image", length=6)
    assert answer_to(lab.gateway, "firm_download").json["data"]["state"] == -2
    lab.gateway.probe()
    assert (conf_files(lab), lab.pid("qel")) == (files, agent)
    assert lab.switch("ls", "/var/lib/morva/firmware/linux.trx", check=False).returncode != 0


# ---- a switch that was attacked before ------------------------------------------------------------

RESPAWN = {"LAB_RESPAWN": "1"}  # an agent that died is started again

DEAD_ENDS = {
    "an option as a name": "cd /var/conf && : >'--checkpoint-action=exec=sh e.conf' && echo 'touch /run/owned' >e.conf",
    "an unknown option as a name": "cd /var/conf && : >./-x.conf",
    "a folder among the files": "mkdir -p /var/conf/d.conf/deep && : >/var/conf/d.conf/deep/file",
    "a folder in the archive's place": "mkdir -p /var/conf/downlconf.tar.gz/deep",
    "a FIFO in the backup's place": "mkfifo /var/conf/getconf.tar.gz",
    "a link in the backup's place": "echo kept >/run/there && ln -s /run/there /var/conf/getconf.tar.gz",
    "a link where archives are unpacked": "mkdir /run/there2 && ln -s /run/there2 /var/conf/.incoming",
}  # fmt: skip


@pytest.mark.parametrize("dead_end", DEAD_ENDS)
def test_switch_in_a_dead_end_recovers_with_the_next_start(make_lab, dead_end):
    lab = make_lab(environment=RESPAWN)
    files = conf_files(lab)
    lab.switch("sh", "-c", DEAD_ENDS[dead_end])
    old = lab.pid("qel")
    lab.switch("sh", "-c", "kill -KILL $(cat /var/run/qel.pid)")
    agent_restarted(lab, old)
    answers_again(lab)
    kept = {name: content for name, content in conf_files(lab).items() if name != "e.conf"}
    assert kept == files
    archive = fetch_archive(lab.gateway)
    restart = lab.pid("qel")
    assert push(lab.gateway, "config_download", archive) == APPLYING
    agent_restarted(lab, restart)
    answers_again(lab)
    left = lab.switch("sh", "-c", "ls -A /var/conf; ls -A /run/owned /run/there2; cat /run/there", check=False)
    listed = left.stdout.replace("/run/there2:\n", "").split()
    assert [name for name in listed if not name.endswith(".conf")] in (
        [".nvram.lock"], [".nvram.lock", "kept"])  # fmt: skip
    assert all(name in [*files, "e.conf", ".nvram.lock", "kept"] for name in listed)


def test_backup_is_not_written_through_a_link_that_came_meanwhile(make_lab):
    lab = make_lab()
    lab.switch("sh", "-c", "echo kept >/run/there && ln -s /run/there /var/conf/getconf.tar.gz")
    assert fetch_archive(lab.gateway)[:2] == b"\x1f\x8b"
    assert lab.switch("cat", "/run/there").stdout == "kept\n"


def test_backup_is_not_held_up_by_a_fifo_that_came_meanwhile(make_lab):
    lab = make_lab()
    lab.switch("mkfifo", "/var/conf/getconf.tar.gz")
    assert fetch_archive(lab.gateway)[:2] == b"\x1f\x8b"


@pytest.mark.parametrize("query", [
    {"mdl": "hal", "cmd": "qel_enable", "data": {"enable": 0}},
    {"mdl": "sys", "cmd": "fw_upgrade", "data": {"path": "/etc/passwd"}},
    {"mdl": "morvad", "cmd": "oem_set", "data": {"word": 1, "value": 1}},
    {"mdl": "ifmgr", "cmd": "interfaces", "data": {}},
])  # fmt: skip
def test_query_from_outside_does_not_reach_internal_modules(lab, query):
    lab.gateway.command("get", "qelipc", query)
    answers = lab.gateway.until_probe()
    assert [one for one in answers if b'"ret"' in one.text] == []
    assert lab.switch("ls", "/var/lib/morva/firmware", check=False).stdout == ""
    assert lab.nvram("oem.1") is None


# ---- around the restart ---------------------------------------------------------------------------


def test_frames_behind_the_last_chunk_change_nothing(make_lab):
    lab = make_lab()
    old = lab.pid("qel")
    archive = fetch_archive(lab.gateway)
    files = conf_files(lab)
    gateway = lab.gateway
    send_chunk(gateway, "config_download", 0, False, len(archive), archive, crc=zlib.crc32(archive))
    for number in range(50):
        gateway.command("set", "name", {"name": f"late {number}"})
        gateway.command("set", "port_enable", {"ge2": 0})
    assert answer_to(gateway, "config_download").json["data"]["state"] == 3
    agent_restarted(lab, old)
    answers_again(lab)
    assert conf_files(lab) == files


def test_frames_behind_a_restart_that_is_late_change_nothing(make_lab):
    lab = make_lab()
    files = conf_files(lab)
    old, morvad = lab.pid("qel"), lab.pid("morvad")
    lab.switch("sh", "-c", f"kill -STOP {morvad}")
    try:
        lab.gateway.command("set", "sys_reboot", {})
        for number in range(20):
            lab.gateway.command("set", "sys_active", {"sys_active": 100 + number})
        wait_until(lambda: "no good answer to reboot" in lab.log("syslog"), "a morvad that is late")
    finally:
        lab.switch("sh", "-c", f"kill -CONT {morvad}")
    agent_restarted(lab, old)  # morvad finds the order when it goes on
    answers_again(lab)
    assert conf_files(lab) == files


# ---- killed while an archive is applied -----------------------------------------------------------

# What applies an archive, each as the kernel's call that it comes down to here: strace counts the
# calls of each kind.
CALLS = ["rename", "unlink", "rmdir", "mkdir", "clone,clone3,vfork"]
OLD = {"a.conf": b"old a", "b.conf": b"old b", "c.conf": b"old c"}
NEW = {"b.conf": b"new b", "d.conf": b"new d"}


def put_files(lab, files):
    folder = lab.dir / "conf"
    for path in folder.glob("?.conf"):
        path.unlink()
    for name, content in files.items():
        (folder / name).write_bytes(content)


def own_files(lab):
    return {name: content for name, content in conf_files(lab).items() if len(name) == len("a.conf")}


def die_at_call(lab, calls, number):
    """strace ends the agent at its call number `number` of that kind from now on. Returns its pid."""

    def attached():
        agent = lab.pid("qel")
        result = agent and lab.switch(
            "sh", "-c",
            f"strace -qq -o /run/strace.out -p {agent} -e trace={calls} "
            f"-e inject={calls}:signal=KILL:when={number} >/dev/null 2>&1 & "
            f"while [ -d /proc/{agent} ]; do grep -q 'TracerPid:.[1-9]' /proc/{agent}/status && exit; done; exit 1",
            check=False,
        )
        return agent if result and result.returncode == 0 else None

    return wait_until(attached, "a traced agent")


def was_killed(lab):
    return "+++ killed by SIGKILL" in lab.switch("cat", "/run/strace.out").stdout


def test_agent_killed_at_each_call_leaves_old_or_new_files(make_lab):
    # The search for leaks at the end of a process does not work while strace looks on.
    lab = make_lab(environment=RESPAWN | {"ASAN_OPTIONS": "detect_leaks=0"})
    archive = archive_of({**conf_files(lab), **NEW})
    kills = 0
    for calls in CALLS:
        seen_new = False
        for number in itertools.count(1):
            put_files(lab, OLD)
            old = die_at_call(lab, calls, number)
            send_chunk(lab.gateway, "config_download", 0, False, len(archive), archive)
            agent_restarted(lab, old)
            answers_again(lab)
            files, place = own_files(lab), f"{calls} {number}"
            assert files in (OLD, NEW), place
            assert files == NEW or not seen_new, f"{place}: the old files came back"
            seen_new = files == NEW
            left = lab.switch("ls", "-A", "/var/conf").stdout.split()
            assert {".incoming", ".accepted", ".installing", "downlconf.tar.gz"}.isdisjoint(left), place
            if not was_killed(lab):
                break
            kills += 1
        assert seen_new, f"{calls}: never applied"
    assert kills >= 20


@pytest.mark.parametrize("step, expected", [("gzip", OLD), ("tar", OLD), ("conf", NEW)])
def test_agent_killed_while_a_command_runs_leaves_old_or_new_files(make_lab, step, expected):
    lab = make_lab(environment=RESPAWN)
    settings = conf_files(lab)
    put_files(lab, OLD)
    put_program(
        lab, step, f"#!/bin/sh\nrm -f /morva/bin/{step}\nkill -KILL $(cat /var/run/qel.pid)\nexit 1\n"
    )
    old = lab.pid("qel")
    archive = archive_of({**settings, **NEW})
    send_chunk(lab.gateway, "config_download", 0, False, len(archive), archive)
    agent_restarted(lab, old)
    answers_again(lab)
    assert own_files(lab) == expected


def test_restored_files_are_not_open_to_others(make_lab):
    lab = make_lab()
    members = [member(name, content=content, mode=0o666) for name, content in conf_files(lab).items()]
    old = lab.pid("qel")
    assert push(lab.gateway, "config_download", tar_of(*members)) == APPLYING
    agent_restarted(lab, old)
    answers_again(lab)
    assert lab.switch("sh", "-c", "stat -c %a /var/conf/*.conf").stdout.split() == ["640"] * len(members)


def test_parallel_runs_of_conf_flash_all_succeed(make_lab):
    lab = make_lab()
    runs = "for n in 1 2 3 4 5 6 7 8; do (/morva/bin/conf flash || echo failed) & done; wait"
    for _ in range(5):
        assert lab.switch("sh", "-c", runs).stdout == ""
    assert lab.switch("/morva/bin/conf", "list").stdout.split() == sorted(conf_files(lab))


