# SPDX-License-Identifier: Apache-2.0
"""Ports that are network interfaces: the kernel's state is what the gateway reads, and the gateway's
commands are what the kernel does."""

import json
import os
import socket
import subprocess
import time
from itertools import pairwise

import pytest

from gateway import frame, message
from kernelkit import KernelLab, own_memory
from labkit import PYTHON, wait_until

CAPABLE = os.geteuid() == 0


@pytest.fixture(scope="module")
def lab():
    running = KernelLab()
    yield running
    running.close()


@pytest.fixture
def fresh_lab():
    running = KernelLab()
    yield running
    running.close()


def row_until(lab, subcmd, name, condition, seconds=30.0):
    """Asks for a report until the row of `name` is as `condition` wants it; returns the row."""
    rows = []

    def good():
        rows.append(lab.report(subcmd, name, seconds))
        return condition(rows[-1])

    try:
        wait_until(good, f"{subcmd} of {name}", seconds)
    except AssertionError as error:
        raise AssertionError(f"{error}, it was {rows[-1:]}") from error
    return rows[-1]


# --- state and commands ---------------------------------------------------------------------------


def test_a_port_tells_what_the_kernel_says(lab):
    row_until(lab, "ports_link", "ge1", lambda row: row == [1, 10000, 1, 0])
    lab.host(1, "ip", "link", "set", "eth0", "down")
    row_until(lab, "ports_link", "ge1", lambda row: row == [0, 0, 0, 0])
    assert lab.report("ports_conf", "ge1")[0] == 1  # the port itself is enabled all the while
    lab.host(1, "ip", "link", "set", "eth0", "up")
    row_until(lab, "ports_link", "ge1", lambda row: row == [1, 10000, 1, 0])


def test_port_enable_takes_the_clients_carrier_away_and_brings_it_back(lab):
    wait_until(lambda: lab.carrier(1), "the carrier")
    lab.command("port_enable", {"ge1": 0})
    wait_until(lambda: not lab.carrier(1), "the carrier's end")
    assert lab.report("ports_conf", "ge1")[0] == 0
    row_until(lab, "ports_link", "ge1", lambda row: row == [0, 0, 0, 0])
    assert lab.nvram("port.ge1.enable") == "0"
    lab.command("port_enable", {"ge1": 1})
    wait_until(lambda: lab.carrier(1), "the carrier")
    assert lab.report("ports_conf", "ge1")[0] == 1


def test_port_restart_does_both_on_time(lab):
    start = time.monotonic()
    lab.command("port_restart", {"ge2": 3})
    taken = lab.carrier(2)
    seen = time.monotonic()
    # The third tick of a one-second timer: from two to three seconds after the command.
    assert not taken or seen - start > 1.8
    wait_until(lambda: lab.carrier(2), "the carrier")
    assert time.monotonic() - start > 1.8


def test_state_that_others_set_is_reported(lab):
    lab.switch("ip", "link", "set", "swp3", "down")
    row_until(lab, "ports_conf", "ge3", lambda row: row[0] == 0)
    lab.switch("ip", "link", "set", "swp3", "up")
    row_until(lab, "ports_conf", "ge3", lambda row: row[0] == 1)


def test_what_the_kernel_refuses_is_logged_and_shows(lab):
    lab.command("port_speed", {"ge3": "100M-F"})  # a veth has no speed to set
    wait_until(lambda: "ge3: speed 100M-F not set: Operation not supported" in lab.log("morvad"))
    assert lab.port("ge3")["speed_name"] == "AN"
    row_until(lab, "ports_link", "ge3", lambda row: row == [1, 10000, 1, 0])


def test_a_status_change_reaches_the_gateway_by_itself(lab):
    lab.gateway.probe()
    lab.host(4, "ip", "link", "set", "eth0", "down")
    while True:
        text = lab.gateway.receive().json
        if text.get("subcmd") == "ports_client" and "ge4" in text["data"]:
            break
    lab.host(4, "ip", "link", "set", "eth0", "up")
    wait_until(lambda: lab.port("ge4")["link"] == 1)


def test_morvactl_leaves_the_kernels_ports_to_the_kernel(lab):
    result = lab.morvactl("link", "ge1", "down", check=False)
    assert result.returncode == 1 and "swp1" in result.stderr
    assert lab.port("ge1")["link"] == 1


# --- figures --------------------------------------------------------------------------------------


def test_counters_equal_those_of_the_kernel_to_the_byte(lab):
    before = lab.link("swp4")["stats64"]
    lab.host(4, "ping", "-c", "20", "-i", "0.01", "-s", "1400", "-q", "192.168.1.10")

    def equal():
        first = lab.link("swp4")["stats64"]
        row = lab.report("ports_stats", "ge4")
        second = lab.link("swp4")["stats64"]
        if (first["tx"]["bytes"], first["rx"]["bytes"]) != (
            second["tx"]["bytes"],
            second["rx"]["bytes"],
        ):
            return False  # something else was sent in between
        assert row[:2] == [second["tx"]["bytes"], second["rx"]["bytes"]]
        return second

    after = wait_until(equal, "a moment without traffic")
    # 20 times 1400 bytes and 42 of headers, each way, and what the neighbour tables ask meanwhile.
    for way in ("rx", "tx"):
        assert 28840 <= after[way]["bytes"] - before[way]["bytes"] < 28840 + 28840 / 2


def test_rates_are_those_of_the_last_interval(lab):
    ping = 'ping -i 0.01 -s 1400 -q 192.168.1.10 >/dev/null 2>&1 & echo "$!"'
    pid = lab.host(4, "sh", "-c", ping).stdout.strip()
    # 100 packets a second of 1442 bytes at the most, over an interval that may not have been all traffic.
    row = row_until(lab, "ports_stats", "ge4", lambda row: row[3] > 10000)
    assert row[3] < 200000
    lab.host(4, "kill", pid)
    row_until(lab, "ports_stats", "ge4", lambda row: row[3] < 2000)


# --- addresses ------------------------------------------------------------------------------------


class Scanner:
    """The agent's scan for moved addresses, run in the switch whenever it is asked."""

    def __init__(self, lab):
        build = pathlib_build(lab)
        self._lab = lab
        self._program = f"{build}/bin/mac_scan"

    def scans(self, between):
        """Scans, calls `between`, scans twice; returns the text of all three."""
        fifo = "/tmp/scan"
        script = 'rm -f "$1" "$1.out"; mkfifo "$1"; "$0" <"$1" >"$1.out" 2>&1 & exec 3>"$1"; '
        lab = self._lab
        lab.switch("sh", "-c", f"{script} sleep 60 >&3 2>/dev/null & ", self._program, fifo)
        texts = []
        for step in range(3):
            if step == 1:
                between()
            lab.switch("sh", "-c", 'echo >"$0"', fifo)
            read = lambda: lab.switch("cat", fifo + ".out").stdout
            wait_until(lambda n=step: read().count("end\n") > n, "the scan")
            texts.append(read().split("end\n")[step])
        return texts


def pathlib_build(lab):
    return os.path.dirname(lab.environment["PATH"].split(":")[0])


def test_a_mac_that_moves_is_found_by_the_scan(lab):
    mac = "02:00:00:00:77:01"

    def appear(number):
        lab.host(number, "ip", "link", "add", "mv0", "link", "eth0", "type", "macvlan")
        lab.host(number, "ip", "link", "set", "mv0", "address", mac, "up")
        lab.host(number, "ip", "address", "add", f"192.168.1.{70 + number}/24", "dev", "mv0")
        lab.host(number, "ping", "-c", "1", "-W", "2", "-I", "mv0", "192.168.1.10", check=False)
        wait_until(lambda: f"{mac}  vlan 1  ge{number}" in lab.morvactl("l2", "list").stdout)

    def move():
        lab.host(5, "ip", "link", "del", "mv0")
        appear(6)

    appear(5)
    first, second, third = Scanner(lab).scans(move)
    assert "scan 0" in first and f"{mac} ge5" in first and "alarm \n" in first
    assert 'alarm {"ports":"ge5,ge6","value":"02:00:00:00:77:01 "}' in second
    assert mac not in second.split("alarm")[0]  # the old place is dropped
    assert f"{mac} ge6" in third
    lab.host(6, "ip", "link", "del", "mv0")


def test_the_layer_2_table_comes_in_batches_without_gaps(lab):
    macs = {f"02:00:00:01:{i // 256:02x}:{i % 256:02x}" for i in range(600)}
    lines = [f"fdb add {mac} dev swp7 master dynamic" for mac in sorted(macs)]
    lab.switch("bridge", "-batch", "-", text="\n".join(lines) + "\n")
    listed = [line.split() for line in lab.morvactl("l2", "list").stdout.splitlines()]
    ours = [row for row in listed if row[0] in macs]
    assert {row[0] for row in ours} == macs and len(ours) == 600
    assert {row[3] for row in ours} == {"ge7"}
    first = Scanner(lab).scans(lambda: None)[0]
    assert first.count(" ge7") >= 500  # the scan keeps 512 at the most, all ports together


# --- neighbours -----------------------------------------------------------------------------------


@pytest.mark.skipif(not CAPABLE, reason="lldpd gives up its privileges, for which it needs them")
def test_lldp_neighbours_show_and_move(fresh_lab):
    lab = fresh_lab
    lab.host(1, "ip", "link", "add", "br0", "type", "bridge")  # host 1 is one that bridges
    lab.host(1, "ip", "link", "set", "br0", "up")
    lab.host(1, "ip", "link", "set", "eth0", "master", "br0")
    lab.start_lldpd(*lab.switch_prefix(), options=["-I", "swp*,!swp9"])
    wait_until(lambda: "lldpd: listening" in lab.log("morvad"))
    for number in (1, 2):
        lab.start_lldpd(*lab.host_prefix(number), options=["-I", "eth*"])
    switch = row_until(lab, "ports_client", "ge1", lambda row: row["client_state"] == "ON")
    assert switch["client_mac"] == "020000000a01" and switch["client_type"] == "SW"
    host = row_until(lab, "ports_client", "ge2", lambda row: row["client_ip"] == "192.168.1.102")
    assert host["client_mac"] == "020000000a02" and host["client_type"] == "UN"
    assert host["client_state"] == "ON"

    # Host 3 tells no address by LLDP, but ARP has it, which being heard does not take away.
    lab.host(3, "ping", "-c", "1", "-W", "2", "192.168.1.10")
    lab.start_lldpd(*lab.host_prefix(3), options=["-I", "eth*", "-m", "!*"])
    silent = row_until(lab, "ports_client", "ge3", lambda row: row["client_ip"] == "192.168.1.103")
    assert silent["client_mac"] == "020000000a03" and silent["client_state"] == "ON"

    # The cable of host 2 goes to port 5: what was host 5's end becomes its interface.
    lab.host(2, "ip", "link", "set", "eth0", "down")
    lab.host(2, "ip", "link", "set", "eth0", "name", "old0")
    lab.host(5, "ip", "link", "set", "eth0", "down")
    lab.host(5, "ip", "link", "set", "eth0", "netns", lab.host_pid(2))
    lab.host(2, "ip", "link", "set", "old0", "address", "02:00:00:00:0a:05")
    lab.host(2, "ip", "link", "set", "eth0", "address", "02:00:00:00:0a:02", "up")
    moved = row_until(lab, "ports_client", "ge5", lambda row: row["client_state"] == "ON")
    assert moved["client_mac"] == "020000000a02"
    row_until(lab, "ports_client", "ge2", lambda row: row["client_state"] == "NONE")


def test_a_pinging_host_is_stored_by_its_address(lab):
    lab.host(3, "ping", "-c", "1", "-W", "2", "192.168.1.10")
    # Without LLDP there is a record of the address and no client: the report stays NONE.
    event = {"type": "lldp_add", "mac": "02:00:00:00:0a:03", "local_interface": "ge3"}
    row = lab.report("ports_client", "ge3")
    assert row == {"client_state": "NONE", "client_mac": "", "client_ip": "", "client_type": "UN"}
    # An LLDP neighbour on the port makes a client of it, whose address is the one that was learnt.
    lab.morvactl("event", json.dumps(event))
    shown = ("ON", "192.168.1.103")
    row = row_until(lab, "ports_client", "ge3", lambda row: (row["client_state"], row["client_ip"]) == shown)
    assert row["client_mac"] == "020000000a03"


# --- management -----------------------------------------------------------------------------------


def test_sys_ip_changes_the_address_and_the_gateway_goes_on(fresh_lab):
    lab = fresh_lab
    lab.command("sys_ip", {"sys_ip": "192.168.7.9", "sys_mask": 20, "dhcp": 0})
    rows = json.loads(lab.switch("ip", "-j", "-4", "address", "show", "dev", "vlanif1").stdout)
    addresses = [(row["local"], row["prefixlen"]) for row in rows[0]["addr_info"]]
    assert addresses == [("192.168.7.9", 20)]
    assert lab.gateway.probe().json["cmd"] == "answer"


def test_frames_are_kept_from_the_agent_and_let_in_again(fresh_lab):
    lab = fresh_lab
    groups = lambda: lab.switch("ip", "maddr", "show", "dev", "vlanif1").stdout
    assert "01:80:c2:00:00:1f" in groups()
    lab.gateway.probe()
    query = '{"mdl":"hal","cmd":"qel_enable","data":{"enable":%d}}'
    ask = lambda on: lab.switch("python3", "-c", ASK, query % on).stdout
    assert ask(0) == '{"ret":0}'
    assert "01:80:c2:00:00:1f" not in groups()
    seen = lab.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x9301), inside=1)
    for _ in range(3):
        lab.gateway.command("probe", "probe", {"ntick": 7})
    dropped = lambda: "packets 3" in lab.switch("nft", "list", "ruleset").stdout
    wait_until(dropped, "the frames in the rule's counter")
    seen.settimeout(0.0)
    with pytest.raises(BlockingIOError):
        while seen.recvfrom(2048)[1][0] != "vlanif1":
            pass
    assert ask(1) == '{"ret":0}'
    assert "01:80:c2:00:00:1f" in groups()
    assert lab.gateway.probe(ntick=8).json["data"]["ntick"] == 8


ASK = """
import socket, sys
ask = socket.socket(socket.AF_UNIX)
ask.connect("/var/run/morva/hal.sock")
ask.sendall(sys.argv[1].encode())
ask.shutdown(socket.SHUT_WR)
print(ask.recv(65536).decode(), end="")
"""


# --- spanning tree --------------------------------------------------------------------------------


def test_ports_that_spanning_tree_blocks_are_told(fresh_lab):
    lab = fresh_lab
    lab.switch("ip", "link", "set", "vlanif1", "type", "bridge", "stp_state", "1")
    for name in ("swp7", "swp8"):
        lab.switch("ip", "link", "del", name)
    wait_until(lambda: "interface swp8 is gone" in lab.log("morvad"))
    # A cable from port 7 to port 8: one of them has to be blocked.
    lab.switch("ip", "link", "add", "swp7", "type", "veth", "peer", "name", "swp8")
    for name in ("swp7", "swp8"):
        lab.switch("ip", "link", "set", name, "master", "vlanif1", "up")
    wait_until(lambda: lab.port("ge8")["stp_blocked"] == 1, "a blocked port", seconds=60.0)
    wait_until(lambda: lab.port("ge7")["stp_blocked"] == 0, "a port that is not", seconds=60.0)
    query = '{"mdl":"mstp","cmd":"mstp_qel_alarm_info_get"}'
    answer = lab.switch("python3", "-c", ASK.replace("hal", "mstp"), query).stdout
    assert json.loads(answer)["ports"] == "ge8"


# --- interfaces that come and go ------------------------------------------------------------------


def test_interfaces_are_renamed_vanish_and_come_back(fresh_lab):
    lab = fresh_lab
    lab.switch("ip", "link", "set", "swp5", "name", "other")
    wait_until(lambda: lab.port("ge5")["link"] == 0)
    assert "ge5: interface swp5 is now called other" in lab.log("morvad")
    lab.switch("ip", "link", "set", "other", "name", "swp5")
    wait_until(lambda: lab.port("ge5")["link"] == 1)
    lab.command("port_enable", {"ge6": 0})
    lab.switch("ip", "link", "del", "swp6")
    wait_until(lambda: "ge6: interface swp6 is gone" in lab.log("morvad"))
    assert lab.report("ports_link", "ge6") == [0, 0, 0, 0]
    lab.command("port_enable", {"ge6": 1})  # counts for the interface that will come
    lab.switch("ip", "link", "add", "swp6", "type", "veth", "peer", "name", "far6")
    wait_until(lambda: "UP" in lab.link("swp6")["flags"], "the configured state")
    lab.switch("ip", "link", "set", "far6", "up")
    row_until(lab, "ports_link", "ge6", lambda row: row[0] == 1)
    assert "ge6: interface swp6 does not belong to vlanif1" in lab.log("morvad")


def test_the_bridge_vanishes_and_comes_back(fresh_lab):
    lab = fresh_lab
    lab.gateway.probe()
    lab.switch("ip", "link", "del", "vlanif1")
    wait_until(lambda: "vlanif1 is gone" in lab.log("morvad"))
    add = "link add vlanif1 address 0a:1b:2c:3d:4e:09 mtu 2000 type bridge forward_delay 0"
    lab.switch("ip", *add.split())
    lab.switch("ip", "link", "set", "swp9", "master", "vlanif1")
    lab.switch("ip", "link", "set", "vlanif1", "up")
    shown = lambda: lab.switch("ip", "address", "show", "dev", "vlanif1").stdout
    wait_until(lambda: "192.168.1.10/24" in shown(), "the management address")
    assert "01:80:c2:00:00:1f" in lab.switch("ip", "maddr", "show", "dev", "vlanif1").stdout
    text = message("probe", "probe", {"ntick": 9}, mac=lab.gateway.mac.hex())

    def answered():
        lab.gateway.send_raw(frame(bytes.fromhex("0180c200001f"), lab.gateway.mac, text))
        lab.gateway.socket.settimeout(0.2)
        try:
            return b'"ntick":9}' in lab.gateway.socket.recv(65535)
        except TimeoutError:
            return False

    wait_until(answered, "an answer over the new bridge")


def test_storms_of_flaps_and_removals_leave_nothing_behind():
    flap = "link set swp1 down\nlink set swp1 up\n"
    remove = "link del swp2\nlink add swp2 type veth peer name far2\n"
    # A sanitizer keeps what was freed for a while, unless it is told not to.
    options = "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"
    with KernelLab(environment={"ASAN_OPTIONS": options}) as lab:

        def disturb(flaps, removals):
            text = flap * flaps + remove * removals + "link set far2 up\nlink set swp2 up\n"
            lab.switch("ip", "-batch", "-", text=text, timeout=120)
            for name in ("ge1", "ge2"):
                row_until(lab, "ports_link", name, lambda row: row == [1, 10000, 1, 0], 60.0)
            return {name: own_memory(lab, name) for name in ("qel", "morvad")}

        # A heap has what the longest backlog took, and any round's may be longer than those before;
        # what is left behind is there in every one.
        rounds = [disturb(500, 250) for _ in range(4)]
        for name in ("qel", "morvad"):
            growths = [later[name] - earlier[name] for earlier, later in pairwise(rounds)]
            assert min(growths) < 256, rounds
        assert lab.report("ports_link", "ge3") == [1, 10000, 1, 0]
        shown = {name: lab.port(name)["link"] for name in ("ge1", "ge2", "ge3")}
        assert shown == {"ge1": 1, "ge2": 1, "ge3": 1}
        lab.switch("ip", "link", "set", "far2", "down")
        row_until(lab, "ports_link", "ge2", lambda row: row == [0, 0, 0, 0])


# --- without a lab --------------------------------------------------------------------------------


def test_a_board_of_a_host_with_an_odd_name_is_a_board(lab):
    """The kernel takes any bytes for a host's name; a board file does not."""
    script = (
        "import os, socket\n"
        "socket.sethostname('attic\"},\\n\\\\\\x7f-sw')\n"
        "os.execvp('morvactl', ['morvactl', 'board', '--from-bridge', 'vlanif1'])\n"
    )
    text = lab.switch("unshare", "--uts", PYTHON, "-c", script).stdout
    assert json.loads(text)["nvram"]["product_description"] == "attic},-sw"


def test_a_board_is_made_from_a_bridge(lab):
    text = lab.morvactl("board", "--from-bridge", "vlanif1").stdout
    board = json.loads(text)
    assert board["mac"] == "0a:1b:2c:3d:4e:09"
    assert [row["interface"] for row in board["ports"]] == [f"swp{i}" for i in range(1, 10)]
    assert [row["number"] for row in board["ports"]] == list(range(1, 10))
    assert board["management"] == {"interface": "vlanif1"}
    path = lab.dir / "made.json"
    path.write_text(text, encoding="utf-8")
    result = subprocess.run(
        [f"{pathlib_build(lab)}/bin/morvad", "--board", str(path), "--help"],
        capture_output=True,
        check=False,
    )
    assert result.returncode == 0
