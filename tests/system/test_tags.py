# SPDX-License-Identifier: Apache-2.0
"""Frames of another VLAN, and frames of which nobody can say where they came in, are not obeyed.

The kernel takes the tag off before the agent reads the frame, with or without help of the cable's
ends, and differently for each kind of management interface; so all of them are tried.
"""

import array
import fcntl
import socket
import struct

import pytest

from gateway import GROUP, frame, message
from kernelkit import KernelLab
from labkit import Lab, wait_until

SWITCH = bytes.fromhex("0a1b2c3d4e5f")  # the system MAC of the 28-port board
BRIDGE = bytes.fromhex("0a1b2c3d4e09")  # and of the board on a bridge

SIOCETHTOOL = 0x8946
ETHTOOL_GFLAGS, ETHTOOL_SFLAGS = 0x25, 0x26
VLAN_FLAGS = 0x180  # tags are put in and taken off by the interface


def q(vlan, priority=0):
    """An 802.1Q tag."""
    return struct.pack("!HH", 0x8100, priority << 13 | vlan)


def ad(vlan, priority=0):
    """An 802.1ad tag."""
    return struct.pack("!HH", 0x88A8, priority << 13 | vlan)


OTHER_VLANS = {
    "802.1Q": q(5),
    "802.1Q of the default VLAN": q(1),
    "802.1Q of the last VLAN": q(4095, 7),
    "802.1ad": ad(5),
    "priority, then VLAN": q(0) + q(5),
    "VLAN, then priority": q(5) + q(0),
    "VLAN in VLAN": q(5) + q(5),
    "802.1ad priority, then VLAN": ad(0) + q(5),
    "802.1ad, then priority": ad(5) + q(0),
    "802.1ad, then VLAN": ad(5) + q(5),
    "priority, then 802.1ad": q(0) + ad(5),
    "three tags": q(0) + q(0) + q(5),
}
PRIORITIES = {
    "no tag": b"",
    "priority": q(0, 3),
    "priority 0": q(0),
    "802.1ad priority": ad(0, 7),
    "priority in priority": q(0, 3) + q(0, 1),
    "802.1ad priority, then priority": ad(0) + q(0),
}


def without_offload(lab, interface, inside):
    """Has `interface` leave tags in the frame instead of handing them on beside it."""
    with lab.socket(socket.AF_INET, socket.SOCK_DGRAM, inside=inside) as control:

        def flags(command, value=0):
            record = array.array("I", [command, value])
            name = interface.encode()
            request = struct.pack("16sP", name, record.buffer_info()[0]) + bytes(16)
            fcntl.ioctl(control, SIOCETHTOOL, request)
            return record[1]

        flags(ETHTOOL_SFLAGS, flags(ETHTOOL_GFLAGS) & ~VLAN_FLAGS)
        assert flags(ETHTOOL_GFLAGS) & VLAN_FLAGS == 0


def plain():
    return Lab(), SWITCH


def cable_without_offload():
    lab = Lab()
    without_offload(lab, "gw0", inside=0)
    without_offload(lab, "vlanif1", inside=1)
    return lab, SWITCH


def promiscuous():
    lab = Lab()
    lab.switch("ip", "link", "set", "dev", "vlanif1", "promisc", "on")
    return lab, SWITCH


def bridge():
    return KernelLab(), BRIDGE


def bridge_without_offload():
    lab = KernelLab()
    without_offload(lab, "gw0", inside=0)
    without_offload(lab, "swp9", inside=1)
    return lab, BRIDGE


ARRANGEMENTS = [plain, cable_without_offload, promiscuous, bridge, bridge_without_offload]


@pytest.fixture(scope="module", params=ARRANGEMENTS, ids=lambda one: one.__name__)
def arranged(request):
    """A lab and the system MAC of its switch."""
    lab, mac = request.param()
    lab.gateway.probe(destination=mac)
    yield lab, mac
    lab.close()


def tagged_probe(gateway, destination, tags, ntick):
    text = message("probe", "probe", {"ntick": ntick}, mac=gateway.mac.hex())
    whole = frame(destination, gateway.mac, text)
    return whole[0:12] + tags + whole[12:]


def nticks(answers):
    return [one.json["data"].get("ntick") for one in answers]


@pytest.mark.parametrize("to_group", [False, True], ids=["to the switch", "to the group"])
def test_frames_of_other_vlans_are_not_obeyed(arranged, to_group):
    lab, mac = arranged
    destination = GROUP if to_group else mac
    for ntick, tags in enumerate(OTHER_VLANS.values(), 100):
        lab.gateway.send_raw(tagged_probe(lab.gateway, destination, tags, ntick))
    assert nticks(lab.gateway.until_probe(7, destination)) == [7]


@pytest.mark.parametrize("to_group", [False, True], ids=["to the switch", "to the group"])
def test_frames_without_a_vlan_are_answered(arranged, to_group):
    lab, mac = arranged
    destination = GROUP if to_group else mac
    for ntick, tags in enumerate(PRIORITIES.values(), 100):
        lab.gateway.send_raw(tagged_probe(lab.gateway, destination, tags, ntick))
    answers = nticks(lab.gateway.until_probe(7, destination))
    assert answers == [*range(100, 100 + len(PRIORITIES)), 7]


def test_a_command_of_another_vlan_changes_nothing(arranged):
    lab, mac = arranged
    text = message("set", "sys_active", {"sys_active": 60000})
    whole = frame(mac, lab.gateway.mac, text)
    lab.gateway.send_raw(whole[0:12] + q(5) + whole[12:])
    assert lab.gateway.probe(destination=mac).json["data"]["sys_active"] == 0
    assert lab.nvram("qel_sys_active") in (None, "0")


def other_mac():
    lab = Lab()
    lab.switch("ip", "link", "set", "dev", "vlanif1", "down")
    lab.switch("ip", "link", "set", "dev", "vlanif1", "address", "0a:1b:2c:00:00:01", "up")
    return lab


def other_mac_bridge():
    lab = KernelLab()
    lab.switch("ip", "link", "set", "dev", "vlanif1", "address", "0a:1b:2c:00:00:01")
    lab.switch("ip", "link", "set", "dev", "vlanif1", "promisc", "on")
    return lab


@pytest.mark.parametrize(
    ("build", "mac"), [(other_mac, SWITCH), (other_mac_bridge, BRIDGE)], ids=["cable", "bridge"]
)
def test_an_interface_of_another_mac_answers_what_has_no_vlan(build, mac):
    """There the kernel calls each frame to the switch another host's, whether it had a tag or not."""
    with build() as lab:
        gateway = lab.gateway
        gateway.probe()
        for ntick, tags in enumerate(OTHER_VLANS.values(), 100):
            gateway.send_raw(tagged_probe(gateway, GROUP, tags, ntick))
        for ntick, tags in enumerate(PRIORITIES.values(), 200):
            gateway.send_raw(tagged_probe(gateway, mac, tags, ntick))
            gateway.send_raw(tagged_probe(gateway, GROUP, tags, ntick))
        expected = [ntick for ntick in range(200, 200 + len(PRIORITIES)) for _ in range(2)]
        assert nticks(gateway.until_probe(7, mac)) == [*expected, 7]


def test_without_the_management_interface_no_command_is_carried_out():
    """The agent finds no "vlanif1", so it cannot tell that the frame came in through another one."""
    with Lab() as lab:
        gateway = lab.gateway
        assert gateway.probe(destination=SWITCH).json["data"]["sys_active"] == 0
        lab.switch("ip", "link", "set", "dev", "vlanif1", "name", "other0")
        looked = lab.log("qel").count("SIOCGIFINDEX ioctl error")
        gateway.command("set", "sys_active", {"sys_active": 60000}, SWITCH)
        # The look-up that fails is that of our frame.
        wait_until(lambda: lab.log("qel").count("SIOCGIFINDEX ioctl error") > looked, "the look-up")
        lab.switch("ip", "link", "set", "dev", "other0", "name", "vlanif1")
        assert gateway.probe(destination=SWITCH).json["data"]["sys_active"] == 0
        assert lab.nvram("qel_sys_active") in (None, "0")
