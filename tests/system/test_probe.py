# SPDX-License-Identifier: Apache-2.0
"""The probe and its answer over real Ethernet, byte for byte, on the 28-port board."""

import json
import re

import pytest
from gateway import GROUP, frame
from labkit import BOARDS, wait_until

SYSTEM_MAC = bytes.fromhex("0a1b2c3d4e5f")

# The answer's text; what changes with time and machine is a group.
ANSWER = re.compile(
    rb'\{"mac":"0a1b2c3d4e5f","cmd":"answer","subcmd":"answer","data":\{'
    rb'"mac":"0a1b2c3d4e5f","sys_ip":"192\.168\.1\.10","sys_mask":24,"name":"office-sw",'
    rb'"model":"QM4410_MODEL","type":"switch","uptime":(?P<uptime>[0-9]+),"hw_version":"V1\.0",'
    rb'"sw_version":"V2\.1","active":1,"sys_active":0,"cpu":(?P<cpu>[0-9]{1,3}),'
    rb'"mem":(?P<mem>[0-9]{1,3}),"ntick":12\}\}\x00'
)

# An operator at the switch: says the words of the command line to its shell.
SHELL = """
import socket, sys
shell = socket.socket(socket.AF_UNIX)
shell.connect("/var/run/qel.vty")
shell.settimeout(30)
shell.sendall("\\n".join(["enable", "configure terminal", *sys.argv[1:], "end", "exit", ""]).encode())
while part := shell.recv(65536):
    sys.stdout.write(part.decode())
"""


def probe_frame(gateway, destination):
    """A probe as a controller sends it."""
    text = b'{"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":12}}'
    assert len(text) == 73
    header = bytes.fromhex("9301 0000 babe 0059 000000000000000000000000")
    return destination + gateway.mac + header + text


def check_answer(answer, gateway):
    assert answer.raw[0:6] == gateway.mac
    assert answer.raw[6:12] == SYSTEM_MAC
    assert answer.raw[12:18] == bytes.fromhex("9303 0000 babe")
    assert answer.raw[20:32] == bytes(12)
    found = ANSWER.fullmatch(answer.raw[32:])
    assert found, answer.raw[32:]
    assert answer.raw[18:20] == (len(answer.raw) - 32 + 16).to_bytes(2, "big")
    return found


def test_a_probe_to_the_group_address_is_answered(lab):
    lab.gateway.send_raw(probe_frame(lab.gateway, bytes.fromhex("0180c200001f")))
    check_answer(lab.gateway.receive(), lab.gateway)


def test_a_probe_to_the_switch_itself_is_answered(lab):
    lab.gateway.send_raw(probe_frame(lab.gateway, SYSTEM_MAC))
    check_answer(lab.gateway.receive(), lab.gateway)


def test_the_answer_tells_the_load_and_the_uptime_of_the_machine(lab):
    lab.gateway.send_raw(probe_frame(lab.gateway, GROUP))
    found = check_answer(lab.gateway.receive(), lab.gateway)
    assert int(found["cpu"]) <= 100
    assert 0 < int(found["mem"]) <= 100
    with open("/proc/uptime", encoding="ascii") as file:
        uptime = float(file.read().split()[0])
    assert uptime - 30 <= int(found["uptime"]) <= uptime + 1


def test_the_answer_goes_to_the_address_that_the_probe_came_from(lab):
    sender = bytes.fromhex("020000abcdef")
    lab.run("ip", "link", "set", "dev", "gw0", "promisc", "on")
    probe = probe_frame(lab.gateway, GROUP)
    lab.gateway.send_raw(probe[0:6] + sender + probe[12:])
    assert lab.gateway.receive().destination == sender


def test_header_bytes_that_are_not_examined_may_hold_anything(lab):
    probe = probe_frame(lab.gateway, GROUP)
    lab.gateway.send_raw(probe[0:14] + bytes([0xA5]) * 18 + probe[32:])
    check_answer(lab.gateway.receive(), lab.gateway)


def test_frames_for_somebody_else_go_unanswered(lab):
    gateway = lab.gateway
    probe = probe_frame(gateway, GROUP)
    gateway.send_raw(probe_frame(gateway, bytes.fromhex("0a1b2c3d4e60")))
    gateway.send_raw(probe_frame(gateway, bytes.fromhex("ffffffffffff")))
    gateway.send_raw(probe_frame(gateway, bytes.fromhex("0180c200001e")))
    gateway.send_raw(probe[0:12] + bytes.fromhex("9303") + probe[14:])
    gateway.send_raw(probe[0:12] + bytes.fromhex("9302") + probe[14:])
    assert len(gateway.until_probe()) == 1


def test_a_frame_on_another_interface_goes_unanswered(lab):
    """Only the management network is trusted, although the socket hears every interface."""
    lab.switch("ip", "link", "add", "port0", "type", "veth", "peer", "name", "port0peer")
    lab.switch("ip", "link", "set", "dev", "port0", "up")
    lab.switch("ip", "link", "set", "dev", "port0peer", "up")
    with lab.socket(17, 3, inside=1) as other:
        other.bind(("port0peer", 0))
        text = b'{"mac":"m","cmd":"probe","subcmd":"probe","data":{"ntick":77}}'
        other.send(frame(GROUP, lab.gateway.mac, text))
        answers = lab.gateway.until_probe()
    assert len(answers) == 1


def test_ntick_comes_back_as_it_was_sent(lab):
    for ntick in (0, 1, -1, 2147483647, -2147483648):
        assert lab.gateway.probe(ntick).json["data"]["ntick"] == ntick


def test_the_management_interface_may_be_made_anew(make_lab):
    """The interface is looked up for each frame, not once."""
    lab = make_lab()
    before = lab.gateway.probe().json["data"]["sys_ip"]
    assert before == "192.168.1.10"
    lab.switch("ip", "address", "flush", "dev", "vlanif1")
    assert lab.gateway.probe().json["data"]["sys_ip"] == ""
    lab.switch("ip", "link", "set", "dev", "vlanif1", "down")
    lab.switch("ip", "link", "set", "dev", "vlanif1", "address", "0a:1b:2c:00:00:01", "up")
    lab.switch("ip", "address", "add", "10.9.8.7/20", "dev", "vlanif1")
    answer = lab.gateway.probe()
    assert answer.source == bytes.fromhex("0a1b2c000001")
    assert answer.json["data"]["sys_ip"] == "10.9.8.7"
    assert answer.json["data"]["sys_mask"] == 20
    assert answer.json["mac"] == "0a1b2c3d4e5f"


def test_the_other_boards_answer_too(make_lab):
    for name, mac in (("ge10", "0a1b2c3d4e10"), ("ge52", "0a1b2c3d4e52")):
        lab = make_lab("--board", str(BOARDS / f"{name}.json"))
        assert lab.gateway.probe().json["mac"] == mac


def shell(lab, *lines):
    assert "%" not in lab.switch("python3", "-c", SHELL, *lines).stdout


def rule(lab):
    """The rule that stops the gateway's frames, as the switch's kernel has it; "" when there is none."""
    return lab.switch("nft", "list", "chain", "netdev", "morva", "frames", check=False).stdout


def frames_to_cpu(lab):
    return json.loads(lab.morvactl("show", "--json").stdout)["frames_to_cpu"]


def stopped(lab, ntick):
    """Sends a probe and sees it end in the rule that stops it."""
    assert frames_to_cpu(lab) == 0
    before = int(re.search("counter packets ([0-9]+)", rule(lab))[1])
    lab.gateway.command("probe", "probe", {"ntick": ntick})
    wait_until(lambda: f"counter packets {before + 1} " in rule(lab), "the probe in the rule's counter")


@pytest.mark.parametrize("board", ["ge10", "ge28", "ge52"])
def test_an_agent_that_is_disabled_is_out_of_the_gateways_reach(make_lab, board):
    lab = make_lab("--board", str(BOARDS / f"{board}.json"))
    gateway = lab.gateway
    gateway.probe()
    assert rule(lab) == ""
    shell(lab, "qel disable", "write")
    stopped(lab, 101)

    before = lab.pid("morvad"), lab.pid("qel")
    lab.morvactl("restart")
    wait_until(lambda: None not in (now := (lab.pid("morvad"), lab.pid("qel"))) and now != before, "the restart")
    wait_until(lambda: lab.log("qel").count(" starting") == 2, "the agent's start")
    wait_until(lambda: lab.switch("test", "-S", "/var/run/qel.vty", check=False).returncode == 0, "the shell")
    shell(lab)  # is answered after the agent has applied the file
    stopped(lab, 102)

    shell(lab, "qel enable")
    assert frames_to_cpu(lab) == 1
    assert rule(lab) == ""
    # An answer to one of those before would come before this one's.
    assert [one.json["data"].get("ntick") for one in gateway.until_probe(103)] == [103]


def test_the_interface_that_is_made_anew_is_as_shut_as_the_one_before(make_lab):
    lab = make_lab()
    shell(lab, "qel disable")
    wait_until(lambda: 'device "vlanif1"' in rule(lab), "the rule")
    lab.switch("ip", "link", "del", "vlanif1")
    wait_until(lambda: "vlanif1 is gone" in lab.log("morvad"), "morvad to hear of it")
    assert frames_to_cpu(lab) == 0
    lab.switch("nft", "delete", "table", "netdev", "morva", check=False)  # some kernels keep what is left of it
    lab.switch("ip", "link", "add", "vlanif1", "type", "veth", "peer", "name", "far0")
    wait_until(lambda: 'device "vlanif1"' in rule(lab), "the rule")
    address = ["ip", "-4", "-o", "address", "show", "dev", "vlanif1"]
    wait_until(lambda: " inet 192.168.1.10/24 " in lab.switch(*address).stdout, "the address")
    shell(lab, "qel enable")
    assert rule(lab) == ""


def test_three_switches_on_one_network(make_lab):
    lab = make_lab("--switches", "3")
    lab.gateway.command("probe", "probe", {"ntick": 5})
    answers = [lab.gateway.receive() for _ in range(3)]
    rows = [(one.source.hex(), one.json["mac"], one.json["data"]["sys_ip"]) for one in answers]
    assert sorted(rows) == [
        ("0a1b2c3d4e5f", "0a1b2c3d4e5f", "192.168.1.10"),
        ("0a1b2c3d4e60", "0a1b2c3d4e60", "192.168.1.11"),
        ("0a1b2c3d4e61", "0a1b2c3d4e61", "192.168.1.12"),
    ]
