# SPDX-License-Identifier: Apache-2.0
"""qelctl's changing commands against the real agent: what the switch was told, what it became, and
what qelctl says of it."""

import socket

import pytest
from labkit import Lab
from qelctl_user import DESK, Qelctl, quiet_board

WHO = "desk-sw (0a:1b:2c:3d:4e:10): "


@pytest.fixture(scope="module")
def qelctl(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        yield Qelctl(lab, switch=DESK)


def requests_since(lab, count):
    return [entry["request"] for entry in lab.queries()[count:]]


def test_a_port_is_disabled_and_enabled(qelctl):
    before = len(qelctl.lab.queries())
    assert qelctl("--yes", "port", "disable", "ge1").stdout == WHO + "port ge1 disable: took: the port is disabled\n"
    assert '{"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":0}}' in requests_since(
        qelctl.lab, before
    )
    assert qelctl("port", "enable", "ge1").stdout == WHO + "port ge1 enable: took: the port is enabled\n"


def test_json_tells_the_effect(qelctl):
    assert qelctl.json("--yes", "port", "disable", "ge1") == [
        {
            "mac": "0a:1b:2c:3d:4e:10", "name": "desk-sw", "command": "port ge1 disable", "result": "took",
            "detail": "the port is disabled", "port": "ge1",
        }
    ]  # fmt: skip
    qelctl("port", "enable", "ge1")


def test_a_speed_is_seen_in_the_link(qelctl):
    assert qelctl("port", "speed", "ge1", "100M-F").stdout == (
        WHO + "port ge1 speed 100M-F: took: the link runs at 100 Mbit/s full duplex\n"
    )
    assert qelctl("port", "speed", "ge5", "100M-F").stdout == (
        WHO + "port ge5 speed 100M-F: unseen: sent; the port has no link, so its speed cannot be seen\n"
    )
    assert "says nothing about negotiation" in qelctl("port", "speed", "ge1", "AN").stdout


def test_a_speed_that_the_port_cannot_run_is_not_said_to_have_been_taken(qelctl):
    result = qelctl("--timeout", "1", "port", "speed", "ge1", "10G", status=1)
    assert result.stdout == WHO + "port ge1 speed 10G: not taken: the link runs at 1000 Mbit/s full duplex\n"
    qelctl("port", "speed", "ge1", "AN")


def test_a_restarted_port_comes_back(qelctl):
    assert qelctl("--yes", "port", "restart", "ge2", "--seconds", "2", "--wait").stdout == (
        WHO + "port ge2 restart: took: enabled again; the link runs at 1000 Mbit/s full duplex\n"
    )


def test_an_unknown_port_is_not_sent(qelctl):
    before = len(qelctl.lab.queries())
    result = qelctl("port", "disable", "ge99", status=1)
    assert result.stderr == (
        "qelctl: " + WHO + 'no port "ge99"; there are: ge1 ge2 ge3 ge4 ge5 ge6 ge7 ge8 ge9 ge10\n'
    )
    assert not [text for text in requests_since(qelctl.lab, before) if "qel_port_enable_set" in text]


def test_a_port_is_configured(qelctl):
    assert qelctl("port", "config", "ge3", "eee=on", "poe=off", "iso=1").stdout == (
        WHO + "port ge3 config: took: the switch reports it so\n"
    )
    (one,) = qelctl.json("ports")
    config = one["ports"][2]["config"]
    assert (config["eee"], config["poe"], config["iso"]) == (True, False, True)
    qelctl("port", "config", "ge3", "eee=off", "poe=on", "iso=0")


def test_the_way_to_the_switch_is_not_cut_unasked(qelctl):
    mac = qelctl.lab.run("cat", "/sys/class/net/gw0/address").stdout.strip()
    qelctl.lab.morvactl(
        "event", f'{{"type":"lldp_add","mac":"{mac}","local_interface":"ge4","management_address":"192.168.1.1"}}'
    )
    result = qelctl("port", "restart", "ge4", status=2)
    assert "is reached through its port ge4. Take it down?" in result.stderr
    assert "--yes" in result.stderr
    assert "took" in qelctl("port", "disable", "ge3").stdout, "the way is known, and it is another"
    qelctl("port", "enable", "ge3")
    assert "took" in qelctl("--yes", "port", "restart", "ge4", "--seconds", "2", "--wait").stdout


@pytest.mark.parametrize(
    "words",
    [("port", "disable", "ge1"), ("port", "restart", "ge1"), ("port", "config", "ge1", "eee=on", "enable=off")],
)
def test_any_link_may_be_the_way_while_the_switch_knows_none(tmp_path, words):
    with Lab("--board", quiet_board(tmp_path)) as lab:
        qelctl = Qelctl(lab, switch=DESK)
        before = len(lab.queries())
        question = WHO.removesuffix(": ") + " may be reached through its port ge1. Take it down?"
        assert qelctl(*words, status=2).stderr == (
            f"qelctl: {question} Nobody is there to be asked; --yes answers beforehand\n"
        )
        status, screen, _ = qelctl.on_terminal(*words, columns=100, steps=[("[y/N]", "n\n")])
        assert (status, screen.text()) == (1, f"{question} [y/N] n\nqelctl: nothing was done")
        sent = " ".join(requests_since(lab, before))
        assert "_set" not in sent
        assert "took" in qelctl("--yes", *words).stdout
        no_link = [word.replace("ge1", "ge7") for word in words]
        assert "took" in qelctl(*no_link).stdout, "a port without link is no way"


def test_the_address_is_changed(qelctl):
    assert qelctl("ip", "192.168.1.77/24").stdout == WHO + "ip: took: the switch has 192.168.1.77/24\n"
    assert qelctl.json("show")[0]["ip"] == "192.168.1.77"
    assert qelctl("ip", "192.168.1.77/24").stdout == WHO + "ip: took: the switch has that address already\n"
    assert "ignores a change of the prefix alone" in qelctl("ip", "192.168.1.77/16", status=1).stdout
    qelctl("ip", "192.168.1.11/24")


def test_the_clock_that_cannot_be_set_is_told(qelctl):
    # The lab has no power over the clock of the machine.
    assert ": time: took: the switch's clock says " in qelctl("time", "now").stdout
    assert ": time: not taken: the switch's clock says " in qelctl("time", "1600000000", status=1).stdout


def test_the_name_is_changed(qelctl):
    assert qelctl("name", "Büro 3").stdout == WHO + 'name: took: the switch is called "Büro 3"\n'
    assert qelctl.json("--switch", "Büro 3", "show")[0]["name"] == "Büro 3"
    qelctl("name", "desk-sw")
    for wrong in ('a"b', "a\\b", "x" * 64):
        assert qelctl("name", wrong, status=2).stderr.startswith("qelctl: a name ")


def test_the_countdown_is_set(qelctl):
    assert qelctl("active", "600").stdout.startswith(WHO + "active: took: the switch counts down from ")
    assert 590 <= qelctl.json("show")[0]["sys_active"] <= 600
    qelctl("active", "0")


def test_reboot_and_reset_ask_first(qelctl):
    for command in ("reboot", "reset"):
        result = qelctl(command, status=2)
        assert "Nobody is there to be asked; --yes answers beforehand" in result.stderr
    assert qelctl.lab.log("qel").count("starting") == 1


def test_reboot_and_reset(tmp_path):
    with Lab("--board", quiet_board(tmp_path)) as lab:
        qelctl = Qelctl(lab, switch=DESK)
        lab.morvactl("counters", "ge1", "tx_bytes=1000", "rx_bytes=1000")
        result = qelctl("--yes", "reboot", "--wait", "20", timeout=60)
        assert result.stdout == WHO + "reboot: took: the switch restarted and answers again\n"
        qelctl("name", "other")
        lab.morvactl("counters", "ge1", "tx_bytes=1000", "rx_bytes=1000")
        result = qelctl("--yes", "reset", "--wait", "20", timeout=60)
        assert result.stdout == (
            "other (0a:1b:2c:3d:4e:10): reset: took: the switch restarted and answers again\n"
        )
        assert qelctl.json("show")[0]["name"] == "desk-sw"


def test_a_question_is_asked_on_a_terminal(tmp_path):
    with Lab("--board", quiet_board(tmp_path)) as lab:
        qelctl = Qelctl(lab, switch=DESK)
        status, screen, _ = qelctl.on_terminal("reboot", steps=[("[y/N]", "n\n")])
        assert status == 1
        assert screen.text() == (
            "Restart desk-sw (0a:1b:2c:3d:4e:10)? [y/N] n\nqelctl: nothing was done"
        )
        status, _, _ = qelctl.on_terminal("reboot", steps=[("[y/N]", "signal:INT")])
        assert status == 130
        assert lab.log("qel").count("starting") == 1


def test_a_dry_run_sends_nothing(qelctl):
    wire = qelctl.lab.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x9301), inside=1)
    wire.setblocking(False)
    assert qelctl("--dry-run", "-s", "0a1b2c3d4e10", "port", "restart", "ge1").stdout == (
        'to 0a:1b:2c:3d:4e:10: {"mac":"0a1b2c3d4e10","cmd":"set","subcmd":"port_restart","data":{"ge1":5}}\n'
    )
    assert Qelctl(qelctl.lab)("-n", "--json", "reboot").stdout == (
        '{"to":"the only switch","message":"{\\"mac\\":\\"<mac>\\",\\"cmd\\":\\"set\\",'
        '\\"subcmd\\":\\"sys_reboot\\",\\"data\\":{}}"}\n'
    )
    assert len(qelctl("-n", "ports").stdout.splitlines()) == 6
    assert qelctl("-n", "discover").stdout == (
        'to every switch: {"mac":"<own mac>","cmd":"probe","subcmd":"probe","data":{"ntick":1}}\n'
    )
    with wire, pytest.raises(BlockingIOError):
        wire.recv(2000)


def test_over_udp(tmp_path):
    with Lab("--board", quiet_board(tmp_path), settings={"qel_udp_enable": "1"}) as lab:
        lab.run("ip", "address", "add", "192.168.1.2/24", "dev", "gw0", check=False)
        qelctl = Qelctl(lab, "--udp", "192.168.1.11")
        assert qelctl.json("discover")[0]["name"] == "desk-sw"
        habit = {"environment": ["QELCTL_INTERFACE=gw0"]}  # does not contradict what is typed
        assert qelctl.json("discover", **habit)[0]["name"] == "desk-sw"
        assert len(qelctl.json("ports")[0]["ports"]) == 10
        assert "took" in qelctl("--yes", "port", "disable", "ge1").stdout
        assert "saved" in qelctl("backup", str(tmp_path / "u.tar.gz")).stdout
        result = qelctl("--yes", "restore", str(tmp_path / "u.tar.gz"), status=1)
        assert "a switch takes no files over UDP; use -i and Ethernet" in result.stdout
        # The machine's name server may have an address of the lab's network, where nobody answers.
        hasty = ["RES_OPTIONS=timeout:1 attempts:1"]
        result = Qelctl(lab)("--udp", "no.such.host.invalid", "show", status=1, environment=hasty)
        assert result.stderr.startswith("qelctl: no host ")
