# SPDX-License-Identifier: Apache-2.0
"""The switch as a system over real Ethernet: address, clock, name, countdown, restart and factory
reset, the agent's own switch, a second agent, and a settings store that is torn, read-only or full."""

import json
import re
import socket
import time

import pytest

from labkit import wait_until

BAD_ADDRESSES = {
    "no number": ("office", 24),
    "empty": ("", 24),
    "out of range": ("300.1.1.1", 24),
    "three parts": ("10.1.1", 24),
    "version six": ("fe80::1", 64),
    "no host": ("224.0.0.1", 24),
    "prefix of 33": ("10.0.0.1", 33),
    "prefix below zero": ("10.0.0.1", -1),
    "prefix of its own": ("10.0.0.1/8", 24),
    "quotes": ('10.0.0.1", "method":1, "x":"', 24),
    "a thousand letters": ("x" * 1000, 24),
}


# ---- looking at the switch ---------------------------------------------------------------------


def sys_info(answer):
    """Checks a "sys_info" report and returns its address, prefix and time."""
    found = re.fullmatch(
        rb'\{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":\{"dhcp":0,'
        rb'"sys_ip":"(?P<ip>[0-9.]*)","sys_mask":(?P<mask>[0-9]+),"timestamp":(?P<time>[0-9]+)\}\}',
        answer.text,
    )
    assert found, answer.text
    return found["ip"].decode(), int(found["mask"]), int(found["time"])


def kernel_address(lab):
    """The addresses of the management interface as the switch's kernel has them."""
    text = lab.switch("ip", "-4", "-o", "addr", "show", "dev", "vlanif1").stdout
    return re.findall(r" inet ([0-9./]+)", text)


def probed(lab):
    return lab.gateway.probe().json["data"]


def answers(lab):
    """Waits until the agent answers probes again; other frames are dropped."""

    def answered():
        try:
            lab.gateway.command("probe", "probe", {"ntick": 7})
            return b'"ntick":7}' in lab.gateway.receive(0.3).text
        except AssertionError:
            return False

    wait_until(answered, "an answered probe")


def restarted(lab, cause):
    """Calls `cause`, which restarts the switch, and waits for two new daemons at work."""
    before = lab.pid("morvad"), lab.pid("qel")
    starts = lab.log("qel").count(" starting")
    cause()

    def both_new():
        now = lab.pid("morvad"), lab.pid("qel")
        return None not in now and now[0] != before[0] and now[1] != before[1]

    wait_until(both_new, "new daemons")
    wait_until(lambda: lab.log("qel").count(" starting") > starts, "the agent's start")
    answers(lab)


def settings(lab):
    """The settings file's lines as the switch sees them, by key."""
    text = lab.switch("cat", "/var/conf/nvram.conf").stdout
    assert text.endswith("\n")
    return dict(line.split("=", 1) for line in text[:-1].split("\n"))


def frames_to_cpu(lab):
    return json.loads(lab.morvactl("show", "--json").stdout)["frames_to_cpu"]


def event(lab, **members):
    lab.morvactl("event", json.dumps(members))


# ---- address and clock -------------------------------------------------------------------------


def test_address_is_changed_and_the_talk_goes_on(make_lab):
    lab = make_lab(settings={"qel_udp_enable": "1"})
    gateway = lab.gateway
    gateway.command("set", "sys_ip", {"sys_ip": "192.168.7.77", "sys_mask": 20, "dhcp": 1})
    ip, mask, now = sys_info(gateway.receive())
    assert (ip, mask) == ("192.168.7.77", 20)
    assert abs(now - time.time()) < 10
    assert [one["request"] for one in lab.queries() if one["module"] == "zebra"] == [
        '{"mdl":"zebra","cmd":"manage_L3IF_info_set","config":[{"manage_L3IF":"vlanif1",'
        '"old_ip_address": "192.168.1.10/24", "ip_address":"192.168.7.77/20", "method":0, "gateway":""}]}',
        '{"mdl":"zebra","cmd":"manage_L3IF_info_get"}',
    ]
    assert kernel_address(lab) == ["192.168.7.77/20"]
    assert (probed(lab)["sys_ip"], probed(lab)["sys_mask"]) == ("192.168.7.77", 20)

    # The new address is one that a neighbour can talk to.
    lab.run("ip", "addr", "add", "192.168.0.1/20", "dev", "gw0")
    link = lab.socket(socket.AF_INET, socket.SOCK_DGRAM)
    link.settimeout(30.0)
    link.sendto(b'{"cmd":"probe","subcmd":"probe","mac":"u","data":{"ntick":3}}', ("192.168.7.77", 20682))
    assert b'"sys_ip":"192.168.7.77","sys_mask":20' in link.recv(2000)
    link.close()

    # And back again, from there.
    gateway.command("set", "sys_ip", {"sys_ip": "192.168.1.10", "sys_mask": 24})
    assert sys_info(gateway.receive())[:2] == ("192.168.1.10", 24)
    assert kernel_address(lab) == ["192.168.1.10/24"]


def test_address_survives_a_restart(make_lab):
    lab = make_lab()
    lab.gateway.command("set", "sys_ip", {"sys_ip": "10.20.30.40", "sys_mask": 8})
    assert sys_info(lab.gateway.receive())[:2] == ("10.20.30.40", 8)
    restarted(lab, lambda: lab.gateway.command("set", "sys_reboot", {}))
    assert kernel_address(lab) == ["10.20.30.40/8"]
    assert probed(lab)["sys_ip"] == "10.20.30.40"


def test_address_that_holds_already_is_not_answered(lab):
    lab.gateway.command("set", "sys_ip", {"sys_ip": "192.168.1.10", "sys_mask": 16})
    assert len(lab.gateway.until_probe()) == 1
    wait_until(
        lambda: "Set the same ip[192.168.1.10] ipstr[192.168.1.10]\n" in lab.console(), "the console"
    )
    assert kernel_address(lab) == ["192.168.1.10/24"]


@pytest.mark.parametrize("name", BAD_ADDRESSES)
def test_what_is_no_address_is_answered_with_the_one_that_holds(lab, name):
    ip, mask = BAD_ADDRESSES[name]
    before = settings(lab)
    lab.gateway.command("set", "sys_ip", {"sys_ip": ip, "sys_mask": mask})
    assert sys_info(lab.gateway.receive())[:2] == ("192.168.1.10", 24)
    assert kernel_address(lab) == ["192.168.1.10/24"]
    assert settings(lab) == before


def test_missing_address_is_answered_as_failed(lab):
    lab.gateway.command("set", "sys_ip", {"sys_mask": 24})
    assert lab.gateway.receive().text == (
        b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"ret":"failed"}}'
    )


def test_method_that_the_platform_keeps_is_reported(make_lab):
    lab = make_lab(settings={"vlanif1.method": "1"})
    lab.gateway.command("set", "sys_time", {})
    assert b'"data":{"dhcp":1,"sys_ip":"192.168.1.10",' in lab.gateway.receive().text


def test_clock_is_set_by_the_program_of_that_name(make_lab):
    lab = make_lab()
    lab.switch("sh", "-c", "cp -a /morva/bin /run/own && mount --bind /run/own /morva/bin")
    program = '#!/bin/sh\nprintf "%s|" "$@" >> /run/dates\n'
    lab.switch("sh", "-c", "cat > /morva/bin/date && chmod 755 /morva/bin/date", text=program)
    lab.gateway.command("set", "sys_time", {"timestamp": "1700000000"})
    assert abs(sys_info(lab.gateway.receive())[2] - time.time()) < 10
    lab.gateway.command("set", "sys_time", {"timestamp": "1; touch /run/hostile"})
    lab.gateway.command("set", "sys_time", {"timestamp": 5})
    lab.gateway.until_probe()
    assert lab.switch("cat", "/run/dates").stdout == "-s|@1700000000|-s|@1|"
    assert lab.switch("ls", "/run/hostile", check=False).returncode != 0


def test_ping_is_answered_by_its_data_in_the_formatted_layout(lab):
    lab.gateway.command("ping", "ping", {"seq": 3, "list": [1, 2]})
    assert lab.gateway.receive().text == (
        b'{"mac":"0a1b2c3d4e5f","cmd":"pong","subcmd":"pong","data":'
        b'{\n\t"seq":\t3,\n\t"list":\t[1, 2]\n}}'
    )
    lab.gateway.command("ping", "ping", {"list": [{}] * 400})  # too long only when it is printed
    assert len(lab.gateway.until_probe()) == 1


# ---- name --------------------------------------------------------------------------------------


def test_name_stands_in_the_store_and_in_the_next_probe_and_survives_a_restart(make_lab):
    lab = make_lab()
    lab.gateway.command("set", "name", {"name": "attic switch"})
    assert len(lab.gateway.until_probe()) == 1  # no answer but the probe's
    assert probed(lab)["name"] == "attic switch"
    assert lab.nvram("product_description") == "attic switch"
    restarted(lab, lambda: lab.gateway.command("set", "sys_reboot", {}))
    assert probed(lab)["name"] == "attic switch"
    assert lab.nvram("product_description") == "attic switch"


@pytest.mark.parametrize("name", ["n" * 64, "ü" * 32])
def test_name_that_the_module_refuses_changes_nothing(lab, name):
    before = settings(lab)
    lab.gateway.command("set", "name", {"name": name})
    assert probed(lab)["name"] == "office-sw"
    assert settings(lab) == before


# ---- countdown ---------------------------------------------------------------------------------


def test_countdown_steps_through_the_store_to_zero(make_lab):
    lab = make_lab()
    lab.gateway.command("set", "sys_active", {"sys_active": 3})
    seen = []

    def at_zero():
        value = lab.nvram("qel_sys_active")
        if value is not None and value not in seen[-1:]:
            seen.append(value)
        return value == "0"

    wait_until(at_zero, "the end of the countdown")
    # Whoever pauses misses steps.
    assert seen == [value for value in ("3", "2", "1", "0") if value in seen]
    assert probed(lab)["sys_active"] == 0


def test_stored_countdown_is_not_read_back_and_is_kept_for_others(make_lab):
    lab = make_lab(settings={"qel_sys_active": "50"})
    assert probed(lab)["sys_active"] == 0
    assert lab.nvram("qel_sys_active") == "50"


# ---- restart and factory reset -----------------------------------------------------------------


def test_reboot_restarts_both_daemons_and_keeps_what_is_stored(make_lab):
    lab = make_lab()
    lab.gateway.command("set", "name", {"name": "kept"})
    lab.gateway.command("set", "port_enable", {"ge3": 0})
    event(lab, type="cldm_conf", qel_enable=0)
    wait_until(lambda: (lab.dir / "conf/qel.conf").exists(), "the saved configuration")
    event(lab, type="cldm_conf", qel_enable=1)
    wait_until(lambda: (lab.dir / "conf/qel.conf").read_text() == "qel enable\n!\n", "the saved configuration")
    probed(lab)
    before = {path.name: path.read_bytes() for path in (lab.dir / "conf").glob("*.conf")}
    assert set(before) == {"nvram.conf", "qel.conf"}
    restarted(lab, lambda: lab.gateway.command("set", "sys_reboot"))
    assert {path.name: path.read_bytes() for path in (lab.dir / "conf").glob("*.conf")} == before
    assert "Vlog terminating on signal" in lab.log("qel")
    assert probed(lab)["name"] == "kept"
    port = next(one for one in json.loads(lab.morvactl("show", "--json").stdout)["ports"] if one["name"] == "ge3")
    assert not port["enable"]


def test_factory_reset_brings_the_boards_settings_back_and_restarts(make_lab):
    lab = make_lab()
    factory = settings(lab)
    lab.gateway.command("set", "name", {"name": "changed"})
    lab.gateway.command("set", "port_enable", {"ge3": 0})
    lab.gateway.command("set", "sys_active", {"sys_active": 0})
    lab.gateway.command("set", "sys_ip", {"sys_ip": "10.0.0.7", "sys_mask": 8})
    lab.gateway.until_probe()
    event(lab, type="cldm_conf", qel_enable=1)
    wait_until(lambda: (lab.dir / "conf/qel.conf").exists(), "the saved configuration")
    assert settings(lab) != factory
    restarted(lab, lambda: lab.gateway.command("set", "config_reset", {}))
    assert settings(lab) == factory
    assert not (lab.dir / "conf/qel.conf").exists()
    assert probed(lab)["name"] == "office-sw"
    assert probed(lab)["sys_ip"] == "192.168.1.10"
    assert kernel_address(lab) == ["192.168.1.10/24"]


# ---- the agent's own switch, and a second agent ------------------------------------------------


def test_agent_is_switched_off_by_a_local_event_and_stays_off_over_a_restart(make_lab):
    lab = make_lab()
    assert frames_to_cpu(lab) == 1
    event(lab, type="cldm_conf", qel_enable=0)
    wait_until(lambda: frames_to_cpu(lab) == 0, "the hardware's switch")
    wait_until(lambda: (lab.dir / "conf/qel.conf").exists(), "the saved configuration")
    assert (lab.dir / "conf/qel.conf").read_text(encoding="ascii") == "qel disable\n!\n"
    assert lab.switch("cat", "/var/run/morva/nvram.tmp.conf").stdout == "qel_enable=0\n"
    assert lab.nvram("qel_enable") is None

    before = lab.pid("qel")
    lab.morvactl("restart")
    wait_until(lambda: lab.pid("qel") not in (None, before), "the restart", 20.0)
    wait_until(lambda: lab.log("qel").count(" starting") == 2, "the agent's start")
    wait_until(lambda: frames_to_cpu(lab) == 0, "the hardware's switch")
    event(lab, type="cldm_conf", qel_enable=1)
    wait_until(lambda: frames_to_cpu(lab) == 1, "the hardware's switch")
    answers(lab)


@pytest.mark.parametrize("options", [[], ["-d"]], ids=["foreground", "daemon"])
def test_second_agent_ends_and_the_first_goes_on_undisturbed(make_lab, options):
    lab = make_lab()
    pid = lab.pid("qel")
    lab.gateway.probe()
    second = lab.switch("qel", *options, check=False)  # standard error is no terminal
    assert second.returncode == 1, second
    assert "client 23 is another process that runs already" in second.stderr
    assert lab.pid("qel") == pid
    assert lab.switch("cat", "/var/run/qel.pid").stdout.strip() == str(pid)
    assert probed(lab)["name"] == "office-sw"
    # Its local socket, its shell and its interface-manager connection are its own still.
    event(lab, type="lldp_add", mac="00:11:22:33:44:55", local_interface="ge1")
    assert lab.gateway.receive().json["data"]["ge1"]["client_mac"] == "001122334455"
    with lab.socket(socket.AF_INET, socket.SOCK_STREAM, inside=1) as shell:
        shell.settimeout(30.0)
        shell.connect(("127.0.0.1", 2625))
        assert shell.recv(100)
    lab.morvactl("link", "ge1", "down")
    assert lab.gateway.receive().json["data"]["ge1"]["client_state"] == "OFF"


@pytest.mark.parametrize(
    ("option", "streams"),
    [("-d", ""), ("--daemon", ""), ("-d", "<&-"), ("--daemon", "<&- >&- 2>&-")],
    ids=["short", "long", "no standard input", "no standard streams"],
)
def test_agent_as_a_daemon_detaches_and_answers(make_lab, option, streams):
    lab = make_lab()
    first = lab.pid("qel")
    lab.switch("kill", "-TERM", str(first))
    wait_until(lambda: lab.pid("qel") is None, "the end of the first agent")
    # Its caller goes on: the program ends, and so does what it would say where it was started.
    started = lab.switch("sh", "-c", f"exec qel {option} {streams}")
    assert (started.stdout, started.stderr) == ("", "")

    def in_the_file():
        text = lab.switch("cat", "/var/run/qel.pid", check=False).stdout
        return int(text) if re.fullmatch(r"[0-9]+\n", text) and int(text) != first else None

    pid = wait_until(in_the_file, "the daemon's pid file")
    answers(lab)
    shown = lab.run("ps", "-o", "pid=,sid=,tty=,comm=", "-C", "qel").stdout
    (line,) = shown.splitlines()  # the one that was called is gone
    own, session, terminal, name = line.split()
    assert (int(own), terminal, name) == (pid, "?", "qel")
    caller = lab.run("ps", "-o", "sid=", "-p", "1").stdout
    assert session != caller.strip() and session != "0"
    assert lab.switch("readlink", f"/proc/{pid}/cwd").stdout == "/\n"
    ends = [lab.run("readlink", f"/proc/{pid}/fd/{number}").stdout for number in range(3)]
    assert ends == ["/dev/null\n"] * 3
    assert "cannot be registered" not in lab.log("syslog")
    assert probed(lab)["name"] == "office-sw"


def test_agent_that_was_killed_makes_room_for_the_next(make_lab):
    lab = make_lab(environment={"LAB_RESPAWN": "1"})
    pid = lab.pid("qel")
    lab.run("kill", "-KILL", str(pid))
    wait_until(lambda: lab.pid("qel") not in (None, pid), "a new agent")
    answers(lab)


# ---- a settings store in trouble ---------------------------------------------------------------


def test_torn_store_loses_what_was_torn_and_nothing_else(make_lab):
    lab = make_lab()
    path = lab.dir / "conf/nvram.conf"
    whole = settings(lab)
    text = path.read_bytes()
    half = text[: text.index(b"\n", len(text) // 2) - 3]  # in the middle of a line
    path.write_bytes(half)
    kept = dict(line.split("=", 1) for line in half.decode().split("\n")[:-1])
    assert 20 < len(kept) < len(whole)

    lab.gateway.command("set", "name", {"name": "after the storm"})
    assert probed(lab)["name"] == "after the storm"
    assert settings(lab) == {**kept, "product_description": "after the storm"}

    # What is lost is the factory's again at the next start.
    restarted(lab, lambda: lab.gateway.command("set", "sys_reboot", {}))
    assert settings(lab) == {**whole, "product_description": "after the storm"}


def test_rubbish_in_the_middle_of_the_store_costs_only_its_own_lines(make_lab):
    lab = make_lab()
    path = lab.dir / "conf/nvram.conf"
    lines = path.read_bytes().split(b"\n")
    lines[len(lines) // 2] = bytes(range(128, 256)) + b"\0\1\2=%s%n"
    lines[len(lines) // 2 + 1] = b"x" * 5000
    lines[3:3] = [b"=", b"\0" * 600, b"no line of settings", b"= =", b"a b=c"]
    path.write_bytes(b"\n".join(lines))
    lab.gateway.command("set", "sys_active", {"sys_active": -1})
    lab.gateway.until_probe()
    good = [line for at, line in enumerate(lines[:-1]) if re.fullmatch(rb"[\w.-]{1,63}=[^\0-\x1f]{0,255}", line)]
    kept = dict(line.decode().split("=", 1) for line in good)
    found = settings(lab)
    assert int(found.pop("qel_sys_active")) < 0
    assert found == kept


def test_empty_store_is_filled_again_at_the_next_start(make_lab):
    lab = make_lab()
    factory = settings(lab)
    (lab.dir / "conf/nvram.conf").write_bytes(b"")
    assert probed(lab)["name"] == ""
    restarted(lab, lambda: lab.gateway.command("set", "sys_reboot", {}))
    assert settings(lab) == factory


def make_read_only(lab):
    lab.switch("mount", "-o", "remount,bind,ro", "/var/conf")


def make_writable(lab):
    lab.switch("mount", "-o", "remount,bind,rw", "/var/conf")


def fill_disk(lab):
    lab.switch(
        "sh", "-c",
        "mkdir /run/keep && cp -a /var/conf/. /run/keep && "
        "mount -t tmpfs -o size=32k,mode=755 none /var/conf && cp -a /run/keep/. /var/conf && "
        "! cat /dev/zero > /var/conf/ballast 2>/dev/null",
    )


def empty_disk(lab):
    lab.switch("rm", "/var/conf/ballast")


@pytest.mark.parametrize(
    ("spoil", "mend", "error"),
    [
        (make_read_only, make_writable, "Read-only file system"),
        (fill_disk, empty_disk, "No space left on device"),
    ],
    ids=["read-only", "full"],
)
def test_store_that_cannot_be_written_keeps_the_old_values_and_the_agent_runs_on(make_lab, spoil, mend, error):
    lab = make_lab()
    gateway = lab.gateway
    gateway.command("set", "name", {"name": "before"})
    gateway.until_probe()
    spoil(lab)
    before = settings(lab)
    pids = lab.pid("morvad"), lab.pid("qel")

    gateway.command("set", "sys_active", {"sys_active": 1000})
    wait_until(lambda: probed(lab)["sys_active"] <= 998, "two steps of the countdown")
    said = f"settings cannot be stored in /var/conf/nvram.conf: {error}"
    assert lab.log("qel").count(said) == 1  # not of every second
    gateway.command("set", "name", {"name": "during"})
    assert probed(lab)["name"] == "before"
    assert f"settings not stored: {error}" in lab.log("morvad")
    gateway.command("set", "sys_ip", {"sys_ip": "10.0.0.9", "sys_mask": 8})
    assert sys_info(gateway.receive())[:2] == ("192.168.1.10", 24)
    assert kernel_address(lab) == ["192.168.1.10/24"]
    assert settings(lab) == before

    mend(lab)
    wait_until(lambda: "settings can be stored in /var/conf/nvram.conf again" in lab.log("qel"), "the good news")
    gateway.command("set", "name", {"name": "after"})
    assert probed(lab)["name"] == "after"
    found = settings(lab)
    assert 0 < int(found.pop("qel_sys_active")) < 1000
    assert found == {**before, "product_description": "after"}
    assert (lab.pid("morvad"), lab.pid("qel")) == pids


def test_configuration_that_cannot_be_saved_is_told_and_the_switch_moves_all_the_same(make_lab):
    lab = make_lab()
    make_read_only(lab)
    event(lab, type="cldm_conf", qel_enable=0)
    wait_until(lambda: "the running configuration could not be saved" in lab.log("qel"), "the log")
    assert frames_to_cpu(lab) == 0
    assert not (lab.dir / "conf/qel.conf").exists()
    event(lab, type="cldm_conf", qel_enable=1)
    answers(lab)
