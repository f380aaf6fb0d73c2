# SPDX-License-Identifier: Apache-2.0
"""The ports over real Ethernet on the 28-port board: every report byte for byte, commands that the
next report shows, restarts as seen from outside, and what a gateway hears when a link changes."""

import json
import socket
import time

import pytest

import ports28
from gateway import frame, message
from labkit import wait_until

SWITCH = bytes.fromhex("0a1b2c3d4e5f")


# ---- looking at the switch ---------------------------------------------------------------------


def header(gateway, length):
    """The 32 bytes before a message of that length field."""
    return (
        gateway.mac + SWITCH + bytes.fromhex("9303 0000 babe") + length.to_bytes(2, "big") + bytes(12)
    )


def answers(lab, cmd, subcmd, data=None):
    """What answers a message. A gateway that has probed is also told of links, which is no answer."""
    lab.gateway.command(cmd, subcmd, data)
    found = lab.gateway.until_probe()[:-1]
    told = b'"cmd":"update","subcmd":"ports_client"'
    return [one for one in found if told not in one.text or subcmd == "ports_client"]


def frames(lab, subcmd):
    """The frames that answer a question, whole."""
    return [one.raw for one in answers(lab, "get", subcmd)]


def rows(lab, subcmd):
    """The rows of a report by port, of all its pages."""
    found = {}
    for one in answers(lab, "get", subcmd):
        assert one.json["subcmd"] == {"ports_poe": "ports_poe_conf"}.get(subcmd, subcmd)
        found.update(one.json["data"])
    return found


def link(lab, port):
    return rows(lab, "ports_link")[port]


def until_link(lab, port, row):
    """Waits until the link report shows that row: the interface manager tells the agent later."""
    wait_until(lambda: link(lab, port) == row, f"{port} {row}")


def command(lab, subcmd, data):
    """Sends a command that nobody answers."""
    assert answers(lab, "set", subcmd, data) == []


def requests(lab, since):
    """The texts of the module queries after the first `since`, those for probes left out."""
    return [
        one["request"]
        for one in lab.queries()[since:]
        if one["request"] != '{"mdl":"statistics","cmd":"port_basic_statistic_get_all"}'
    ]


# ---- reports -----------------------------------------------------------------------------------


def test_ports_info_is_two_frames(lab):
    assert frames(lab, "ports_info") == [
        header(lab.gateway, 633) + ports28.INFO,
        header(lab.gateway, 444) + ports28.POSITIONS,
    ]


def test_ports_conf_is_two_pages(lab):
    assert frames(lab, "ports_conf") == [
        header(lab.gateway, 635) + ports28.CONF_1,
        header(lab.gateway, 304) + ports28.CONF_2,
    ]


def test_ports_link_is_one_frame(lab):
    assert frames(lab, "ports_link") == [header(lab.gateway, 584) + ports28.LINK]


def test_ports_poe_is_one_frame(lab):
    assert frames(lab, "ports_poe") == [header(lab.gateway, 391) + ports28.POE]


def test_ports_client_is_a_frame_for_each_port(lab):
    names = [f"ge{i}" for i in range(1, 25)] + [f"xe{i}" for i in range(1, 5)]
    found = frames(lab, "ports_client")
    assert [one[32:] for one in found] == [
        b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"' + name.encode()
        + b'":{"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}}'
        for name in names
    ]
    assert found[0][:32] == header(lab.gateway, 166)


def test_ports_stats_is_two_pages_the_first_in_two_frames(make_lab):
    lab = make_lab()
    script = "".join(
        f"morvactl counters {'ge' if i <= 24 else 'xe'}{i if i <= 24 else i - 24}"
        f" tx_bytes={9000000000000 + i} rx_bytes={800000000000 + i}"
        f" tx_rate={125000000000 + i} rx_rate={425000000000 + i} || exit\n"
        for i in range(1, 29)
    )
    lab.switch("sh", "-c", script)
    assert frames(lab, "ports_stats") == [
        header(lab.gateway, 1316) + ports28.STATS_1,
        header(lab.gateway, 1316) + b"0020,425000000020]}}" + bytes(1280),
        header(lab.gateway, 577) + ports28.STATS_2,
    ]


def test_counters_grow_by_the_rates_of_the_board_while_there_is_link(lab):
    before, first = time.monotonic(), rows(lab, "ports_stats")
    wait_until(lambda: rows(lab, "ports_stats")["ge1"][0] >= first["ge1"][0] + 10000, "traffic on ge1")
    second, seconds = rows(lab, "ports_stats"), time.monotonic() - before
    assert second["ge1"][2:] == [25000, 10000]
    assert second["ge1"][0] - first["ge1"][0] <= 25000 * (seconds + 0.5)
    assert second["ge1"][1] > first["ge1"][1]
    assert second["ge13"] == [0, 0, 0, 0]


def test_switch_of_52_ports_sends_three_pages(make_lab):
    lab = make_lab("--board", str(ports28.BOARD_52))
    for subcmd in ("ports_conf", "ports_stats"):
        pages = [one.json["data"] for one in answers(lab, "get", subcmd)]
        assert [len(one) for one in pages] == [20, 20, 12]


# ---- commands ----------------------------------------------------------------------------------


def test_disabled_port_is_down_in_the_next_report(make_lab):
    lab = make_lab()
    since = len(lab.queries())
    command(lab, "port_enable", {"ge3": 0, "ge4": 0})
    assert requests(lab, since) == [
        '{"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge3","enable":0}}'
    ]
    until_link(lab, "ge3", [0, 0, 0, 0])
    assert rows(lab, "ports_conf")["ge3"] == [0, "AN", 0, 0, 0, 0, 1, 1]
    assert link(lab, "ge4") == [1, 1000, 1, 0]
    command(lab, "port_enable", {"ge3": 7})
    until_link(lab, "ge3", [1, 1000, 1, 0])
    assert rows(lab, "ports_conf")["ge3"] == [1, "AN", 0, 0, 0, 0, 1, 1]


def test_speed_is_the_links_in_the_next_report(make_lab):
    lab = make_lab()
    since = len(lab.queries())
    command(lab, "port_speed", {"ge3": "100M", "ge4": "10M"})
    until_link(lab, "ge3", [1, 100, 1, 0])
    command(lab, "port_speed", {"ge3": "10M-H"})
    until_link(lab, "ge3", [1, 10, 0, 0])
    assert rows(lab, "ports_conf")["ge3"][1] == "5G"  # 10 Mbit/s by the table of codes
    command(lab, "port_speed", {"ge3": "AN"})
    until_link(lab, "ge3", [1, 1000, 1, 0])
    assert link(lab, "ge4") == [1, 1000, 1, 0]
    assert [one for one in requests(lab, since) if "speed_set" in one] == [
        '{"mdl":"mono","cmd":"qel_port_speed_set","data":{"port":"ge3","speed":4}}',
        '{"mdl":"mono","cmd":"qel_port_speed_set","data":{"port":"ge3","speed":2}}',
        '{"mdl":"mono","cmd":"qel_port_speed_set","data":{"port":"ge3","speed":0}}',
    ]


def test_speed_that_has_no_name_is_refused_by_the_module(lab):
    since = len(lab.queries())
    before = rows(lab, "ports_link")
    command(lab, "port_speed", {"ge3": "1000M"})
    assert requests(lab, since) == [
        '{"mdl":"mono","cmd":"qel_port_speed_set","data":{"port":"ge3","speed":15}}'
    ]
    assert rows(lab, "ports_link") == before


def test_restart_is_down_at_once_and_up_on_the_fifth_tick(make_lab):
    lab = make_lab()
    since = len(lab.queries())
    start = time.monotonic()
    command(lab, "port_restart", {"ge2": 5})
    seen = []  # each row of ge2 that is new, with the time of its sight

    def back():
        row = link(lab, "ge2")
        if not seen or seen[-1][0] != row:
            seen.append((row, time.monotonic() - start))
        return row[0] == 1 and row[3] == 0

    wait_until(back, "ge2 to come back")
    down = [row for row, _ in seen if row[0] == 0]
    left = [row[3] for row, _ in seen if row[3] != 0]
    assert all(row[:3] == [0, 0, 0] for row in down)
    # Whoever paused may have seen little of it, but what was seen counts down from five. At first the
    # interface manager's word that the link went may not have come yet.
    assert set(left) <= {5, 4, 3, 2, 1} and left == sorted(left, reverse=True), seen
    assert all(row[0] == 0 for row, _ in seen[2:] if row[3] != 0), seen
    assert seen[-1][0] == [1, 1000, 1, 0]
    assert seen[-1][1] > 3.9, seen  # five ticks, the first of them at any moment
    assert [one for one in requests(lab, since) if "enable_set" in one] == [
        '{"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":0}}',
        '{"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":1}}',
    ]
    assert lab.console() == "qel_cmd_handle_port_restart,629 string[ge2] valueint[5] \n"


def test_restart_of_an_unknown_port_only_says_so(lab):
    since = len(lab.queries())
    before = rows(lab, "ports_link")
    command(lab, "port_restart", {"ge99": 5})
    line = "qel_cmd_handle_port_restart,629 string[ge99] valueint[5] \n"
    wait_until(lambda: line in lab.console(), "the console line")
    assert requests(lab, since) == []
    assert rows(lab, "ports_link") == before


def test_configuration_of_ports_goes_to_five_modules_and_comes_back(make_lab):
    lab = make_lab()
    since = len(lab.queries())
    command(lab, "ports_conf", {"ge3": [0, "100M", 1, 1, 1, 1, 0, 0], "ge4": {"mstp": 1}})
    data = '{\n\t"ge3":\t[0, "100M", 1, 1, 1, 1, 0, 0],\n\t"ge4":\t{\n\t\t"mstp":\t1\n\t}\n}'
    assert requests(lab, since) == [
        '{"mdl":"mono","cmd":"qel_common_update_mono_portinfo","data":' + data + "}",
        '{"mdl":"llpp","cmd":"qel_common_update_llpp_portinfo","data":' + data + "}",
        '{"mdl":"stp","cmd":"qel_common_update_stp_portinfo","data":' + data + "}",
        '{"mdl":"lldp","cmd":"qel_common_update_lldp_portinfo","data":' + data + "}",
        '{"mdl":"lldp","cmd":"qel_common_update_poe_portinfo","data":' + data + "}",
    ]
    until_link(lab, "ge3", [0, 0, 0, 0])
    conf = rows(lab, "ports_conf")
    assert conf["ge3"] == [0, "AN", 1, 1, 1, 1, 0, 0]
    assert conf["ge4"] == [1, "AN", 0, 0, 0, 1, 1, 1]
    assert conf["ge5"] == [1, "AN", 0, 0, 0, 0, 1, 1]
    assert rows(lab, "ports_poe")["ge3"] == [0, 0]
    assert [lab.nvram(f"{key}.ge3.enable") for key in ("iso", "eee", "llpp", "mstp", "lldp", "poe")] == [
        "1", "1", "1", "1", "0", "0",
    ]
    command(lab, "ports_conf", {"ge3": [1]})
    until_link(lab, "ge3", [1, 100, 1, 0])
    assert rows(lab, "ports_conf")["ge3"] == [1, "AN", 1, 1, 1, 1, 0, 0]


def test_without_poe_the_configuration_goes_to_four_modules(make_lab):
    lab = make_lab(settings={"have_poe": "0"})
    since = len(lab.queries())
    command(lab, "ports_conf", {"ge3": {"poe": 0, "lldp": 0}})
    assert [json.loads(one)["cmd"] for one in requests(lab, since)] == [
        "qel_common_update_mono_portinfo",
        "qel_common_update_llpp_portinfo",
        "qel_common_update_stp_portinfo",
        "qel_common_update_lldp_portinfo",
    ]
    assert rows(lab, "ports_conf")["ge3"] == [1, "AN", 0, 0, 0, 0, 0, 1]


@pytest.mark.parametrize(
    "data", [{"ge3": [0], "ge99": [0]}, {"ge3": [0, "1000M"]}, [1, 2], "ge3", 5, {"ge3": 0}]
)
def test_configuration_that_a_module_refuses_changes_nothing(lab, data):
    before = frames(lab, "ports_conf"), frames(lab, "ports_link")
    command(lab, "ports_conf", data)
    assert (frames(lab, "ports_conf"), frames(lab, "ports_link")) == before


def test_power_priority_is_reported(make_lab):
    lab = make_lab()
    lab.morvactl("poe", "ge7", "priority=3", "enable=0")
    assert rows(lab, "ports_poe")["ge7"] == [0, 3]


def test_power_is_told_to_an_agent_that_starts_and_by_a_morvad_that_starts(make_lab):
    lab = make_lab(environment={"LAB_RESPAWN": "1"})
    (lab.dir / "conf/qel.conf").write_text("qel debug 4\n!\n", encoding="ascii")  # for the next agent
    for name, times in (("qel", 1), ("morvad", 2)):
        lab.run("kill", "-KILL", str(lab.pid(name)))
        told = lambda: lab.console().count("[qel_ipc_cmd_handle,370] typestr[poe_update] \n")
        wait_until(lambda n=times, now=told: now() == n, f"the figures after the start of {name}")


# ---- port names that no honest gateway sends -----------------------------------------------------


NAMES = ["", " ", "g" * 31, "g" * 32, "g" * 1400, '"', 'ge1"}},{"x":"', "\\", "%n%s%n", "\u00e9\u4e16", "../ge1"]


@pytest.mark.parametrize("subcmd", ["port_enable", "port_speed", "port_restart", "ports_conf"])
def test_hostile_port_names_change_nothing(lab, subcmd):
    before = frames(lab, "ports_link"), frames(lab, "ports_conf")
    for name in NAMES:
        for value in (0, "10M", [0], {"enable": 0}):
            command(lab, subcmd, {name: value})
    assert (frames(lab, "ports_link"), frames(lab, "ports_conf")) == before


def test_port_name_of_10000_bytes_over_udp(make_lab):
    lab = make_lab(settings={"qel_udp_enable": "1"})
    with lab.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        udp.settimeout(30.0)
        for subcmd in ("port_enable", "port_speed", "port_restart", "ports_conf"):
            udp.sendto(message("set", subcmd, {"g" * 10000: 0}), ("192.168.1.10", 20682))
            udp.sendto(message("set", subcmd, {"g" * 60000: "1G"}), ("192.168.1.10", 20682))
        udp.sendto(message("get", "ports_link"), ("192.168.1.10", 20682))
        assert udp.recv(65535) == ports28.LINK


# ---- qelipc ------------------------------------------------------------------------------------


def test_pass_through_sends_the_reply_back_raw(lab):
    asked = {"mdl": "poe", "cmd": "poe_qel_alarm_info_get"}
    assert [one.raw for one in answers(lab, "get", "qelipc", asked)] == [
        header(lab.gateway, 62) + b'{"ret":0,"totalpower":370000,"usepower":39000}'
    ]


def test_pass_through_uses_the_config_form_when_asked(lab):
    since = len(lab.queries())
    inner = {"mdl": "zebra", "cmd": "manage_L3IF_info_get", "data": {"a": 1}}
    assert len(answers(lab, "get", "qelipc", {**inner, "cfg_flag": 1})) == 1
    assert len(answers(lab, "get", "qelipc", inner)) == 1
    assert requests(lab, since) == [
        '{"mdl":"zebra","cmd":"manage_L3IF_info_get","config":{\n\t"a":\t1\n}}',
        '{"mdl":"zebra","cmd":"manage_L3IF_info_get","data":{\n\t"a":\t1\n}}',
    ]


def test_pass_through_of_a_long_reply_is_refused(lab):
    asked = {"mdl": "statistics", "cmd": "port_statistic_qel_get_all"}
    assert answers(lab, "get", "qelipc", asked) == []
    wait_until(lambda: "argc error" in lab.console(), "the console line")


def test_pass_through_that_names_nobody_is_an_empty_answer(make_lab):
    lab = make_lab(settings={"qel_udp_enable": "1"})
    since = len(lab.queries())
    with lab.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        udp.settimeout(30.0)
        for data in ({}, {"mdl": "mono"}, {"cmd": "x"}, {"mdl": 5, "cmd": "x"}, {"mdl": "mono", "cmd": None}):
            udp.sendto(message("get", "qelipc", data), ("192.168.1.10", 20682))
            assert udp.recv(65535) == b"", data
        assert lab.queries()[since:] == []
        # Names that could lead out of the modules' folder reach nobody either.
        for name in ("../../conf/nvram", "/dev/console", "MONO", "m" * 5000, "nosuch", "%n"):
            udp.sendto(message("get", "qelipc", {"mdl": name, "cmd": "x"}), ("192.168.1.10", 20682))
            assert udp.recv(65535) == b"", name


# ---- what gateways are told of links -----------------------------------------------------------


ANOTHER = bytes.fromhex("020000000b0b")  # the MAC of a second gateway on the same cable


def probe_as(lab, mac, ntick):
    """A probe of the gateway with that MAC; waits for its answer."""
    data = {"ntick": ntick}
    lab.gateway.send_raw(frame(SWITCH, mac, message("probe", "probe", data, mac=mac.hex())))
    answer = lab.gateway.receive()
    assert answer.destination == mac and answer.json["data"]["ntick"] == ntick


def none_on(port):
    return (
        b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"' + port
        + b'":{"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}}'
    )


def debug(lab, mask):
    """Sets the agent's debug mask by the shell."""
    with lab.socket(socket.AF_INET, socket.SOCK_STREAM, inside=1) as shell:
        shell.settimeout(30.0)
        shell.connect(("127.0.0.1", 2625))
        shell.sendall(f"enable\r\nconfigure terminal\r\nqel debug {mask}\r\nend\r\nexit\r\n".encode())
        while shell.recv(65536):
            pass


def test_link_down_is_told_to_a_gateway_that_has_probed_and_to_no_other(make_lab):
    lab = make_lab()
    lab.run("ip", "link", "set", "dev", "gw0", "promisc", "on")
    lab.gateway.send_raw(frame(SWITCH, ANOTHER, message("get", "ports_link", {}, mac=ANOTHER.hex())))
    assert lab.gateway.receive().destination == ANOTHER  # heard of, but no probe of it
    lab.gateway.probe()
    lab.morvactl("link", "ge3", "down")
    trap = lab.gateway.receive()
    assert trap.raw == header(lab.gateway, 166) + none_on(b"ge3")
    assert link(lab, "ge3") == [0, 0, 0, 0]  # and nothing came before the answer
    # A second gateway that probes is told from then on.
    probe_as(lab, ANOTHER, 5)
    lab.morvactl("link", "ge3", "up")
    traps = [lab.gateway.receive(), lab.gateway.receive()]
    assert sorted(one.destination for one in traps) == sorted([lab.gateway.mac, ANOTHER])
    assert [one.text for one in traps] == [none_on(b"ge3")] * 2


def test_link_change_is_told_to_nobody_without_a_probe(make_lab):
    lab = make_lab()
    lab.morvactl("link", "ge3", "down")

    def down():
        lab.gateway.command("get", "ports_link")
        answer = lab.gateway.receive()
        assert answer.json["subcmd"] == "ports_link"  # nobody probed, so that nothing else is told
        return b'"ge2":[1,1000,1,0],"ge3":[0,0,0,0],' in answer.text

    wait_until(down, "the link's end")
    assert len(lab.gateway.until_probe()) == 1


def test_gateway_that_was_silent_for_11_seconds_is_not_told(make_lab):
    lab = make_lab()
    debug(lab, 4)
    start = time.monotonic()
    lab.gateway.probe()
    lab.morvactl("link", "ge3", "down")
    assert lab.gateway.receive().text == none_on(b"ge3")
    line = f"gw [{lab.gateway.mac.hex()}] become offline\n"
    wait_until(lambda: line in lab.console(), "the gateway to go offline", 60.0)
    assert time.monotonic() - start > 9.9  # whole seconds are counted
    lab.morvactl("link", "ge3", "up")

    def up():
        lab.gateway.command("get", "ports_link")
        answer = lab.gateway.receive()
        assert answer.json["subcmd"] == "ports_link"  # and nothing was told before it
        return b'"ge3":[1,1000,1,0],' in answer.text

    wait_until(up, "the link")
    # It probes again and is told again.
    assert len(lab.gateway.until_probe()) == 1
    lab.morvactl("link", "ge3", "down")
    assert lab.gateway.receive().text == none_on(b"ge3")


def test_client_is_told_when_it_comes_and_when_its_link_goes(make_lab):
    lab = make_lab()
    lab.gateway.probe()
    neighbour = {
        "type": "lldp_add", "mac": "00:11:22:33:44:55", "local_interface": "ge5",
        "management_address": "192.168.1.20", "system_capability": "Switch",
    }
    lab.morvactl("event", json.dumps(neighbour))
    head = b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":{"client_state":'
    tail = b',"client_mac":"001122334455","client_ip":"192.168.1.20","client_type":"SW"}}}'
    assert lab.gateway.receive().text == head + b'"ON"' + tail
    lab.morvactl("link", "ge5", "down")
    assert lab.gateway.receive().text == head + b'"OFF"' + tail
    assert answers(lab, "get", "ports_client")[4].text == head + b'"OFF"' + tail
    lab.morvactl("link", "ge5", "up")
    assert lab.gateway.receive().text == head + b'"ON"' + tail


def test_port_that_the_gateway_disables_is_told_as_a_link_change(make_lab):
    lab = make_lab()
    lab.gateway.probe()
    lab.gateway.command("set", "port_enable", {"ge3": 0})
    assert lab.gateway.receive().text == none_on(b"ge3")
    assert link(lab, "ge3") == [0, 0, 0, 0]
