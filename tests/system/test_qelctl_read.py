# SPDX-License-Identifier: Apache-2.0
"""qelctl's reading commands against the real agent: what they print, letter by letter."""

import json
import re

import pytest
from labkit import Lab, wait_until
from qelctl_user import DESK, Qelctl, quiet_board, without_colour

MAC = "0a:1b:2c:3d:4e:10"

PORTS_80 = """\
PORT  MEDIA  STATE  LINK      SPEED  POE  TX/s  RX/s  CLIENT
ge1   G      on     up    1000 full  on      0     0  00:11:22:33:44:55
ge2   G      on     up    1000 full  on     10    20
ge3   G      on     up     100 full  on      0     0
ge4   G      on     up      10 half  on      0     0
ge5   G      on     down             on      0     0
ge6   G      on     down             on      0     0
ge7   G      on     down             on      0     0
ge8   G      on     down             on      0     0
ge9   2.5GF  on     up    2500 full          0     0
ge10  2.5GF  on     down                     0     0
"""

PORTS_200 = """\
PORT  MEDIA  STATE  LINK      SPEED  POE  TX/s  RX/s  CLIENT             IP            TYPE  FEATURES  TX BYTES  RX BYTES
ge1   G      on     up    1000 full  on      0     0  00:11:22:33:44:55  192.168.1.20  UN    lldp             0         0
ge2   G      on     up    1000 full  on     10    20                                         lldp          1.2M      2.0k
ge3   G      on     up     100 full  on      0     0                                         lldp             0         0
ge4   G      on     up      10 half  on      0     0                                         lldp             0         0
ge5   G      on     down             on      0     0                                         lldp             0         0
ge6   G      on     down             on      0     0                                         lldp             0         0
ge7   G      on     down             on      0     0                                         lldp             0         0
ge8   G      on     down             on      0     0                                         lldp             0         0
ge9   2.5GF  on     up    2500 full          0     0                                         lldp             0         0
ge10  2.5GF  on     down                     0     0                                         lldp             0         0
"""

PORTS_80_COLOUR_START = (
    "\033[1mPORT\033[0m  \033[1mMEDIA\033[0m  \033[1mSTATE\033[0m  \033[1mLINK\033[0m      \033[1mSPEED\033[0m  "
    "\033[1mPOE\033[0m  \033[1mTX/s\033[0m  \033[1mRX/s\033[0m  \033[1mCLIENT\033[0m\n"
    "\033[36mge1\033[0m   G      on     \033[32mup\033[0m    1000 full  on      0     0  00:11:22:33:44:55\n"
)

PANEL = """\
┌─────┬─────┬─────┬─────┐  ┌─────┐
│ge1 ●│ge3 ●│ge5 ○│ge7 ○│  │ge9 ●│
├─────┼─────┼─────┼─────┤  ├─────┤
│ge2 ●│ge4 ●│ge6 ○│ge8 ○│  │ge10○│
└─────┴─────┴─────┴─────┘  └─────┘
● link  ○ no link  × off  ↻ restarting
"""

STATS = """\
PORT  TX/s  RX/s  TX BYTES  RX BYTES
ge1      0     0         0         0
ge2     10    20   1234567      2000
ge3      0     0         0         0
ge4      0     0         0         0
ge5      0     0         0         0
ge6      0     0         0         0
ge7      0     0         0         0
ge8      0     0         0         0
ge9      0     0         0         0
ge10     0     0         0         0
"""

POE = """\
PORT  POE  PRIORITY  LINK
ge1   on          0  up
ge2   on          0  up
ge3   on          0  up
ge4   on          0  up
ge5   on          0  down
ge6   on          0  down
ge7   on          0  down
ge8   on          0  down
"""

CLIENTS = """\
PORT  STATE  MAC                IP            TYPE
ge1   ON     00:11:22:33:44:55  192.168.1.20  UN
"""


@pytest.fixture(scope="module")
def qelctl(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        control = Qelctl(lab, switch=DESK)
        lab.morvactl(
            "counters", "ge2", "tx_bytes=1234567", "rx_bytes=2000", "tx_rate=10", "rx_rate=20"
        )
        neighbour = {
            "type": "lldp_add", "mac": "00:11:22:33:44:55", "local_interface": "ge1",
            "management_address": "192.168.1.20",
        }  # fmt: skip
        lab.morvactl("event", json.dumps(neighbour))
        wait_until(lambda: "ON" in control("clients").stdout, "the client")
        yield control


def test_discover_prints_a_table(qelctl):
    lines = qelctl("discover", columns=200).stdout.splitlines()
    assert lines[0].split() == "MAC NAME ADDRESS MODEL SOFTWARE HARDWARE UPTIME CPU MEM ACTIVE".split()
    assert len(lines) == 2
    assert re.fullmatch(
        r"0a:1b:2c:3d:4e:10  desk-sw  192\.168\.1\.11/24  QM4410_MODEL  V2\.1      V1\.0      "
        r" *\d+\w( \d+\w)?  +\d+%  +\d+%       0",
        lines[1],
    )


def test_discover_json_has_named_members(qelctl):
    (one,) = qelctl.json("discover", "--expect", "1")
    assert {key: one[key] for key in ("mac", "name", "ip", "prefix", "model", "type", "sw_version")} == {
        "mac": MAC, "name": "desk-sw", "ip": "192.168.1.11", "prefix": 24, "model": "QM4410_MODEL",
        "type": "switch", "sw_version": "V2.1",
    }  # fmt: skip
    assert 0 <= one["cpu"] <= 100 and 0 <= one["mem"] <= 100 and one["uptime"] > 0


def test_show_names_the_switch(qelctl):
    text = qelctl("show").stdout
    assert text.startswith(f"name      desk-sw\nmac       {MAC}\naddress   192.168.1.11/24\n")


def test_ports_at_two_widths(qelctl):
    assert qelctl("ports", columns=80).stdout == PORTS_80
    assert qelctl("ports", columns=200).stdout == PORTS_200


def test_ports_in_colour(qelctl):
    coloured = qelctl("--color", "always", "ports", columns=80).stdout
    assert coloured.startswith(PORTS_80_COLOUR_START)
    assert without_colour(coloured) == PORTS_80
    assert without_colour(qelctl("--color", "always", "ports", columns=200).stdout) == PORTS_200
    assert qelctl("--color", "never", "ports", columns=80).stdout == PORTS_80


def test_a_terminal_gets_colour_unless_told_otherwise(qelctl):
    _, terminal, output = qelctl.on_terminal("ports")
    assert "\033[32mup\033[0m" in output
    assert terminal.text() == PORTS_80.rstrip("\n")
    for variable in ("NO_COLOR=1", "TERM=dumb"):
        _, terminal, output = qelctl.on_terminal("ports", environment=[variable])
        assert "\033[" not in output and terminal.text() == PORTS_80.rstrip("\n")


def test_ports_json_is_one_object_with_an_array_of_ports(qelctl):
    (one,) = qelctl.json("ports")
    assert [port["name"] for port in one["ports"]] == [f"ge{n}" for n in range(1, 11)]
    assert one["ports"][0] == {
        "name": "ge1", "index": 0, "medium": "copper", "media": "G", "x": 1, "y": 1, "link": True, "speed": 1000,
        "duplex": "full", "restart_left": 0, "enabled": True,
        "config": {"speed": "AN", "iso": False, "eee": False, "llpp": False, "mstp": False, "lldp": True, "poe": True},
        "poe": {"enable": 1, "priority": 0},
        "stats": {"tx_sum": 0, "rx_sum": 0, "tx_rate": 0, "rx_rate": 0},
        "client": {"state": "ON", "mac": "00:11:22:33:44:55", "ip": "192.168.1.20", "type": "UN"},
    }  # fmt: skip
    assert one["ports"][8]["medium"] == "fibre" and "poe" not in one["ports"][8]
    assert one["ports"][1]["stats"] == {"tx_sum": 1234567, "rx_sum": 2000, "tx_rate": 10, "rx_rate": 20}


def test_the_front_panel(qelctl):
    assert qelctl("ports", "--panel", columns=80).stdout == PANEL


def test_stats_poe_and_clients(qelctl):
    assert qelctl("stats", columns=80).stdout == STATS
    assert qelctl("poe", columns=80).stdout == POE
    assert qelctl("clients", columns=80).stdout == CLIENTS


def test_a_port_that_is_off_and_one_that_restarts_are_told_apart(qelctl):
    qelctl("port", "disable", "ge7")
    qelctl("port", "restart", "ge8", "--seconds", "200")
    try:
        text = qelctl("ports", "--panel", columns=80).stdout
        assert "│ge7 ×│" in text and "│ge8 ↻│" in text
    finally:
        qelctl("port", "enable", "ge7")
        qelctl("port", "restart", "ge8", "--seconds", "2", "--wait")


def test_a_module_is_queried(qelctl):
    (one,) = qelctl.json("query", "poe", "poe_qel_port_config_get_all")
    assert one["reply"]["ret"] == 0
    assert {row["name"] for row in one["reply"]["data"]} == {f"ge{n}" for n in range(1, 9)}
    assert qelctl("query", "nobody", "anything", status=3).stderr.startswith("qelctl: desk-sw (")


def test_the_clock_is_read_without_being_set(qelctl):
    before = len(qelctl.lab.queries())
    (one,) = qelctl.json("time")
    assert one["ip"] == "192.168.1.11" and one["timestamp"] > 1_600_000_000
    asked = [entry["module"] for entry in qelctl.lab.queries()[before:]]
    assert asked == ["zebra"]


def test_three_switches_are_told_one_by_one(make_lab):
    control = Qelctl(make_lab("--switches", "3"), "-i", "gw0")
    found = control.json("discover")
    assert len(found) == 3 and len({one["mac"] for one in found}) == 3
    reports = control.json("--switch", "all", "ports")
    assert [one["mac"] for one in reports] == sorted(one["mac"] for one in found)
    assert all(len(one["ports"]) == 28 for one in reports)
    text = control("-s", "all", "stats", columns=80).stdout
    assert [line for line in text.splitlines() if "QM4410_MODEL" in line] == [
        f"{one['name']}  {one['mac']}  QM4410_MODEL" for one in reports
    ]
    (only,) = control.json("--switch", found[1]["mac"], "show")
    assert only["mac"] == found[1]["mac"]
