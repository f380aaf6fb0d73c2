# SPDX-License-Identifier: Apache-2.0
"""What all commands of qelctl have in common, command by command: dry runs, JSON, exit statuses."""

import io
import json
import os
import re
import socket
import tarfile

import pytest
from labkit import BOARDS, Lab
from qelctl_user import DESK, Qelctl, quiet_board

MAC = "0a:1b:2c:3d:4e:10"
WHO = {"mac": MAC, "name": "desk-sw"}
CLASSES = ["ports", "port enable ge1", "time now", "reboot", "query poe x", "backup {out}", "firmware push {image}"]

PROBE = '{"mac":"<own mac>","cmd":"probe","subcmd":"probe","data":{"ntick":1}}'


def get(subject):
    return '{"mac":"0a1b2c3d4e10","cmd":"get","subcmd":"' + subject + '","data":{}}'


def put(subject, data):
    return '{"mac":"0a1b2c3d4e10","cmd":"set","subcmd":"' + subject + '","data":' + data + "}"


REPORTS = [
    get("ports_info"), get("ports_conf"), get("ports_link"), get("ports_poe"), get("ports_stats"), get("ports_client")
]  # fmt: skip

CHUNK = '{"mac":"0a1b2c3d4e10","cmd":"update","subcmd":"%s_download","data":{"index":%d,"next":%d,"file":"%s",'

DRY_RUNS = {
    "show": [PROBE],
    "ports": REPORTS,
    "ports --panel": REPORTS[:3],
    "stats": [REPORTS[0], REPORTS[4]],
    "poe": [REPORTS[0], REPORTS[2], REPORTS[3]],
    "clients": [REPORTS[0], REPORTS[5]],
    "top": REPORTS,
    "watch": [PROBE],
    "port enable ge1": [put("port_enable", '{"ge1":1}')],
    "port disable ge1": [put("port_enable", '{"ge1":0}')],
    "port speed ge1 100M-F": [put("port_speed", '{"ge1":"100M-F"}')],
    "port restart ge1 --seconds 7": [put("port_restart", '{"ge1":7}')],
    "port config ge1 eee=on speed=AN": [put("ports_conf", '{"ge1":{"speed":"AN","eee":1}}')],
    "ip 10.0.0.1/8": [put("sys_ip", '{"sys_ip":"10.0.0.1","sys_mask":8,"dhcp":0}')],
    "time": [put("sys_time", "{}")],
    "time 1700000000": [put("sys_time", '{"timestamp":"1700000000"}')],
    "name x": [put("name", '{"name":"x"}')],
    "active 5": [put("sys_active", '{"sys_active":5}')],
    "reboot": [put("sys_reboot", "{}")],
    "reset": [put("config_reset", "{}")],
    "query poe x": [
        '{"mac":"0a1b2c3d4e10","cmd":"get","subcmd":"qelipc","data":{"mdl":"poe","cmd":"x","cfg_flag":0}}'
    ],
    "backup {out}": [put("config_upload", '{"index":0}')],
    # The first message makes the switch forget what another gateway may have left open.
    "restore {archive}": [
        CHUNK % ("config", 2147483646, 1, "a.tar.gz") + '"total_length":2147483647,"crc":0,"length":2000}}',
        CHUNK % ("config", 0, 0, "a.tar.gz") + '"total_length":SIZE,"crc":CRC,"length":SIZE}} and SIZE bytes',
    ],
    "firmware push {image}": [
        CHUNK % ("firm", 0, 1, "i.trx") + '"total_length":2000,"crc":46789700,"length":1024}} and 1024 bytes',
        CHUNK % ("firm", 1, 0, "i.trx") + '"total_length":2000,"crc":46789700,"length":976}} and 976 bytes',
    ],
    "firmware pull http://h/i.trx": [put("hfs_upgrade", '{"upgrade_serverinfo":"http://h/i.trx"}')],
}  # fmt: skip

EVERY_COMMAND = [command for command in DRY_RUNS if command not in ("ports --panel", "top")]


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    """{archive}, {image} and {out} of the commands."""
    folder = tmp_path_factory.mktemp("files")
    with tarfile.open(folder / "a.tar.gz", "w:gz", format=tarfile.USTAR_FORMAT) as tar:
        member = tarfile.TarInfo("a.conf")
        member.size = 4
        tar.addfile(member, io.BytesIO(b"a=b\n"))
    (folder / "i.trx").write_bytes(bytes(2000))
    (folder / "out").mkdir()
    return {"archive": folder / "a.tar.gz", "image": folder / "i.trx", "out": folder / "out"}


@pytest.fixture(scope="module")
def qelctl(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        yield Qelctl(lab, switch=DESK)


@pytest.fixture(scope="module")
def dead_wire(tmp_path_factory):
    """A wire on which nobody answers."""
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        lab.switch("ip", "link", "set", "vlanif1", "down")
        yield Qelctl(lab, "--yes", "--timeout", "0.2")


def words(command, files):
    return [word.format(**files) for word in command.split()]


@pytest.mark.parametrize("command", DRY_RUNS)
def test_a_dry_run_tells_every_message_and_sends_none(qelctl, files, command):
    archive = files["archive"].read_bytes()
    crc = int.from_bytes(archive_crc(archive).to_bytes(4, "big"), "big", signed=True)
    expected = [line.replace("SIZE", str(len(archive))).replace("CRC", str(crc)) for line in DRY_RUNS[command]]
    wire = qelctl.lab.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x9301), inside=1)
    wire.setblocking(False)
    said = qelctl("--dry-run", "--switch", MAC, *words(command, files)).stdout
    assert said.splitlines() == [f"to {MAC}: {line}" for line in expected]
    if command != "ports --panel":  # in JSON there is no panel
        as_json = qelctl.json("--dry-run", "--switch", MAC, *words(command, files))
        assert as_json == [{"to": MAC, "message": line} for line in expected]
    with wire, pytest.raises(BlockingIOError):
        wire.recv(2000)


def archive_crc(data):
    """CRC-32, bit by bit."""
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0xEDB88320 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


RANGE = "a clock goes from 0 to 2147483647 seconds since 1970, which is to 2038-01-19 03:14:07 (UTC)"
NO_TIME = "there is no such date or time of day"


@pytest.mark.parametrize(
    "word, sent",
    [
        ("0", 0), ("2147483647", 2147483647), ("1970-01-01 00:00:00", 0), ("2038-01-19 03:14:07", 2147483647),
        ("2024-02-29 23:59:59", 1709251199),
    ],
)  # fmt: skip
def test_times_that_a_clock_can_be_set_to(qelctl, word, sent):
    expected = put("sys_time", f'{{"timestamp":"{sent}"}}')
    assert qelctl("-n", "-s", MAC, "time", word).stdout == f"to {MAC}: {expected}\n"


@pytest.mark.parametrize(
    "word, why",
    [
        ("2026-02-31 12:00:00", NO_TIME), ("2025-02-29 00:00:00", NO_TIME), ("2026-04-31 00:00:00", NO_TIME),
        ("2026-01-31 12:00:60", NO_TIME), ("1969-12-31 23:59:59", RANGE), ("1900-01-01 00:00:00", RANGE),
        ("2038-01-19 03:14:08", RANGE), ("2147483648", RANGE), ("99999999999999999999", RANGE),
        ("2026-01-31", 'expected now, seconds since 1970 or "2026-01-31 12:00:00" (UTC)'),
    ],
)  # fmt: skip
def test_times_that_no_clock_can_be_set_to(qelctl, word, why):
    assert qelctl("-n", "time", word, status=2).stderr == f'qelctl: "{word}": {why}\n'


def test_who_a_probe_goes_to_in_a_dry_run(qelctl):
    qelctl = Qelctl(qelctl.lab)
    for command in ("discover", "show", "watch"):
        assert qelctl("-n", command).stdout == f"to every switch: {PROBE}\n"
    assert qelctl("-n", "-s", "desk-sw", "reboot").stdout.startswith('to the switch called "desk-sw": ')


@pytest.mark.parametrize("command", EVERY_COMMAND)
def test_silence_ends_with_3(dead_wire, files, command):
    result = dead_wire(*words(command, files), status=3)
    assert result.stdout == ""
    assert result.stderr == "qelctl: no answer from any switch\n"
    assert os.listdir(files["out"]) == []


@pytest.mark.parametrize("command", CLASSES + ["discover", "watch"])
def test_a_wire_that_is_not_there_ends_with_1(qelctl, files, command):
    result = qelctl("--yes", "-i", "eth9", *words(command, files), status=1)
    assert result.stdout == ""
    assert result.stderr == 'qelctl: no interface "eth9"; this machine has: gw0 lo\n'


@pytest.mark.parametrize("command", CLASSES + ["discover", "watch"])
def test_an_option_that_is_not_there_ends_with_2(qelctl, files, command):
    result = qelctl(*words(command, files), "--frobnicate", status=2)
    assert result.stdout == "" and "--frobnicate" in result.stderr


def test_what_is_no_regular_file_is_refused_before_anybody_is_asked(dead_wire, tmp_path):
    os.mkfifo(tmp_path / "pipe")
    os.symlink("pipe", tmp_path / "link")
    for name in ("pipe", "link"):
        file = tmp_path / name
        assert dead_wire("backup", file, status=1).stderr == f"qelctl: {file} is no regular file\n"
        assert dead_wire("restore", file, status=1).stderr == f"qelctl: {file} is no regular file\n"
    assert (tmp_path / "pipe").is_fifo()


def test_a_restore_asks_with_the_number_of_files(qelctl, files):
    said = qelctl("restore", files["archive"], status=2).stderr
    assert f"of desk-sw ({MAC}) by {files['archive']} (1 file) and restart? Nobody is there" in said


def test_a_backup_goes_where_a_link_leads(qelctl, tmp_path):
    os.symlink("target.tar.gz", tmp_path / "link.tar.gz")
    qelctl("backup", tmp_path / "link.tar.gz")
    assert (tmp_path / "link.tar.gz").is_symlink()
    assert tarfile.open(tmp_path / "target.tar.gz").getnames() == ["nvram.conf"]


def test_refusals_end_with_1(qelctl):
    """What a switch refuses or does not do: a set, a transfer, a query."""
    assert "not taken" in qelctl("--timeout", "1.5", "port", "speed", "ge1", "10G", status=1).stdout
    assert "failed" in qelctl("backup", "/nonexistent/file", status=1).stdout
    qelctl("port", "speed", "ge1", "AN")
    refusal = {"ret": -1, "error": 'cmd: poe has no command "nosuch"'}
    assert json.loads(qelctl("query", "poe", "nosuch", status=1).stdout) == refusal
    assert json.loads(qelctl("--json", "query", "poe", "nosuch", status=1).stdout) == {**WHO, "reply": refusal}


@pytest.mark.parametrize("board", ["bridge", "ge10", "ge28", "ge52"])
def test_the_examples_of_query_work_on_every_board(board):
    board = BOARDS / f"{board}.json"
    mac = json.loads(board.read_text(encoding="utf-8"))["mac"]
    with Lab("--board", str(board)) as lab:
        told = lab.run("qelctl", "query", "--help").stdout
        examples = re.findall("^  (qelctl -i eth1 query .*)$", told, re.MULTILINE)
        assert len(examples) == 2
        for example in examples:
            reply = lab.run("env", f"QELCTL_SWITCH={mac}", "sh", "-c", example.replace("eth1", "gw0"))
            assert json.loads(reply.stdout)["ret"] == 0, example


@pytest.mark.parametrize(
    "command, member",
    [
        ("stats", "stats"), ("poe", "poe"), ("clients", "client"), ("ports --panel", "x"),
    ],
)  # fmt: skip
def test_a_view_in_json_has_its_ports_named(qelctl, command, member):
    (one,) = qelctl.json(*command.split())
    assert one["mac"] == MAC and one["name"] == "desk-sw" and "missing" not in one
    assert [port["name"] for port in one["ports"]] == [f"ge{n}" for n in range(1, 11)]
    assert member in one["ports"][0]


def test_changes_in_json(qelctl):
    took = {"result": "took"}
    for command, expected in {
        "port enable ge1": {"command": "port ge1 enable", "detail": "the port is enabled", "port": "ge1", **took},
        "port speed ge1 100M-F": {
            "command": "port ge1 speed 100M-F", "detail": "the link runs at 100 Mbit/s full duplex", "port": "ge1",
            **took,
        },
        "port config ge1 iso=off": {
            "command": "port ge1 config", "detail": "the switch reports it so", "port": "ge1", **took
        },
        "port restart ge2 --seconds 2 --wait": {
            "command": "port ge2 restart", "detail": "enabled again; the link runs at 1000 Mbit/s full duplex",
            "port": "ge2", **took,
        },
        "ip 192.168.1.11/24": {"command": "ip", "detail": "the switch has that address already", **took},
        "name desk-sw": {"command": "name", "detail": 'the switch is called "desk-sw"', **took},
        "active 0": {"command": "active", "detail": "the switch counts down from 0", **took},
    }.items():  # fmt: skip
        assert qelctl.json("--yes", *command.split()) == [{**WHO, **expected}], command
    (clock,) = qelctl.json("time", "now")
    assert (clock["command"], clock["result"]) == ("time", "took")
    qelctl("port", "speed", "ge1", "AN")


def test_transfers_and_restarts_in_json(make_lab, files, tmp_path):
    lab = make_lab("--board", quiet_board(tmp_path))
    qelctl = Qelctl(lab, "--yes", switch=DESK)
    file = tmp_path / "desk.tar.gz"
    (saved,) = qelctl.json("backup", file)
    assert saved.pop("crc") == f"{archive_crc(file.read_bytes()):08x}"
    assert saved == {
        **WHO, "command": "backup", "status": "done", "file": str(file), "bytes": file.stat().st_size, "members": 1
    }  # fmt: skip
    lab.morvactl("counters", "ge1", "tx_bytes=1000")
    assert qelctl.json("restore", file, "--wait", "20", timeout=90) == [
        {
            **WHO, "command": "restore", "status": "done", "bytes": file.stat().st_size, "members": 1,
            "restart": "took", "differences": [],
        }
    ]  # fmt: skip
    assert qelctl.json("firmware", "push", files["image"]) == [
        {**WHO, "command": "firmware push", "status": "done", "bytes": 2000}
    ]
    assert qelctl.json("firmware", "pull", "http://192.168.1.2:9/none.trx", timeout=60) == [
        {**WHO, "command": "firmware pull", "status": "done", "result": "unseen"}
    ]
    for command in ("reboot", "reset"):
        lab.morvactl("counters", "ge1", "tx_bytes=1000")
        assert qelctl.json(command, "--wait", "20", timeout=60) == [
            {
                **WHO, "command": command, "result": "took",
                "detail": "the switch restarted and answers again",
            }
        ]  # fmt: skip


@pytest.mark.parametrize("command", ["ports", "stats", "top"])
def test_the_help_says_the_unit_of_the_rates(qelctl, command):
    assert re.search(r"TX/s and RX/s (are )?bytes a second", qelctl(command, "--help").stdout)


def test_an_option_given_twice_is_said_to_be(qelctl):
    said = 'qelctl: --interface: given more than once\n"qelctl --help" says more\n'
    assert qelctl("-i", "gw0", "-i", "gw0", "show", status=2).stderr == said


def test_a_failure_in_json_names_the_switch_and_the_reason(qelctl):
    (one,) = [json.loads(line) for line in qelctl("--json", "port", "enable", "ge99", status=1).stdout.splitlines()]
    assert one == {**WHO, "error": 'no port "ge99"; there are: ge1 ge2 ge3 ge4 ge5 ge6 ge7 ge8 ge9 ge10'}


def test_top_has_no_json(qelctl):
    assert qelctl("--json", "top", status=2).stderr == (
        'qelctl: top draws a screen; "qelctl ports --json" has the same as JSON\n'
    )


def test_output_that_cannot_be_written_is_not_called_done(qelctl):
    result = qelctl.lab.run("sh", "-c", "qelctl ports >/dev/full", check=False)
    assert (result.returncode, result.stderr) == (1, "qelctl: not all of the output could be written\n")


def test_a_message_that_no_switch_would_read_whole_is_not_sent(qelctl):
    data = json.dumps({"x": "y" * 1600})
    result = qelctl("query", "mono", "x", data, status=1)
    assert "a message of " in result.stderr and ": switches read 1568 at the most\n" in result.stderr
