# SPDX-License-Identifier: Apache-2.0
"""The probe and its answer over real Ethernet, byte for byte, on the 28-port board."""

import re

from gateway import GROUP, frame
from labkit import BOARDS

SYSTEM_MAC = bytes.fromhex("0a1b2c3d4e5f")

# The answer's text; what changes with time and machine is a group.
ANSWER = re.compile(
    rb'\{"mac":"0a1b2c3d4e5f","cmd":"answer","subcmd":"answer","data":\{'
    rb'"mac":"0a1b2c3d4e5f","sys_ip":"192\.168\.1\.10","sys_mask":24,"name":"office-sw",'
    rb'"model":"QM4410_MODEL","type":"switch","uptime":(?P<uptime>[0-9]+),"hw_version":"V1\.0",'
    rb'"sw_version":"V2\.1","active":1,"sys_active":0,"cpu":(?P<cpu>[0-9]{1,3}),'
    rb'"mem":(?P<mem>[0-9]{1,3}),"ntick":12\}\}\x00'
)

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
