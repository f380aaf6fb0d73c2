# SPDX-License-Identifier: Apache-2.0
"""The lab itself: it runs a command between a switch and a gateway, leaves the machine as it was,
and leaves nothing behind."""

import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import pytest

from labkit import BOARDS, TOP, Lab, own_environment, wait_until

SCRIPT = TOP / "script/lab"
NOBODY = 65534


def run_lab(*arguments, script=SCRIPT, wrapper=(), environment=None, timeout=180):
    return subprocess.run(
        [*wrapper, str(script), *arguments],
        env=own_environment(environment),
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=timeout,
        check=False,
    )


# --- the machine stays as it was ----------------------------------------------------------------


def host_state():
    """What a lab could change of the machine, as a dict to compare."""

    def listing(folder):
        try:
            return sorted(entry.name for entry in os.scandir(folder))
        except FileNotFoundError:
            return None

    def text(path):
        return pathlib.Path(path).read_text(encoding="utf-8")

    links = subprocess.check_output(["ip", "-o", "address"], text=True)
    # Mount ids and lifetimes of addresses move by themselves.
    mounts = sorted(line.split(" ", 2)[2] for line in text("/proc/self/mountinfo").splitlines())
    return {
        "run": listing("/var/run"),
        "conf": listing("/var/conf"),
        "morva": listing("/morva"),
        "root": listing("/"),
        "image": os.path.exists("/tmp/linux.trx"),
        "console": os.stat("/dev/console").st_mtime_ns if os.path.exists("/dev/console") else None,
        "links": [line.split("valid_lft")[0] for line in links.splitlines()],
        "names": listing("/sys/class/net"),
        "mounts": mounts,
        "boot": text("/proc/sys/kernel/random/boot_id"),
        "host": os.uname().nodename,
    }


def clock_offset():
    return time.clock_gettime(time.CLOCK_REALTIME) - time.clock_gettime(time.CLOCK_BOOTTIME)


MISCHIEF = """
$LAB_SWITCH sh -c '
  date -s "2001-02-03 04:05:06"; hostname mischief
  echo x > /var/run/x; echo x > /var/conf/x; echo x > /tmp/linux.trx; echo x > /dev/console
  echo x > /usr/x; echo x > /etc/x; echo x > /morva/bin/x
  mount -t tmpfs none /mnt; ip link add mischief0 type dummy; ip address add 10.1.2.3/8 dev vlanif1
  morvactl link ge3 down
'
date -s "2001-02-03 04:05:06"
ip link add mischief1 type dummy
mount -t tmpfs none /mnt
exit 0
"""


def test_nothing_of_the_machine_changes():
    before, offset = host_state(), clock_offset()
    result = run_lab("--", "sh", "-c", MISCHIEF)
    assert result.returncode == 0, result.stderr
    assert "cannot set date" in result.stderr
    assert host_state() == before
    assert abs(clock_offset() - offset) < 1.0


def test_the_kernels_settings_cannot_be_changed_from_a_lab(lab):
    # Appending nothing: where it were allowed, it would change nothing either.
    for path in ("/proc/sys/kernel/panic", "/proc/sysrq-trigger", "/sys/power/state"):
        attempt = ["sh", "-c", f"test ! -e {path} || ! (: >>{path})"]
        assert lab.run(*attempt, check=False).returncode == 0, path
        assert lab.switch(*attempt, check=False).returncode == 0, path


REBOOT = """
import ctypes, os, sys
libc = ctypes.CDLL(None, use_errno=True)
def reboot(command):
    return libc.syscall({"x86_64": 169, "aarch64": 142}[os.uname().machine],
                        0xFEE1DEAD, 672274793, ctypes.c_uint(command), None), ctypes.get_errno()
# Turning the reboot keys off is refused where the kernel takes a reboot for the lab's own affair,
# and does no harm where it does not: only then is the real thing tried.
assert reboot(0) in ((-1, 22), (-1, 1)), "the lab has power over the machine"
print("tame", flush=True)
print(reboot(0x01234567))
"""


@pytest.mark.skipif(os.uname().machine not in ("x86_64", "aarch64"), reason="call number unknown")
def test_a_reboot_ends_the_lab_and_not_the_machine():
    before = host_state()
    result = run_lab("--", sys.executable, "-c", REBOOT)
    assert result.stdout == "tame\n"
    assert result.returncode == 128 + signal.SIGHUP
    assert host_state() == before


# --- the command --------------------------------------------------------------------------------


@pytest.mark.parametrize("status", [0, 1, 7, 75, 255])
def test_the_exit_status_is_the_commands(status):
    assert run_lab("--", "sh", "-c", f"exit {status}").returncode == status


def test_a_command_that_is_ended_by_a_signal():
    assert run_lab("--", "sh", "-c", "kill -TERM $$").returncode == 128 + signal.SIGTERM


def test_a_command_that_does_not_exist():
    result = run_lab("--", "qel-no-such-command")
    assert result.returncode == 127
    assert "qel-no-such-command" in result.stderr


def test_arguments_reach_the_command_as_they_are():
    result = run_lab("--", "printf", "%s|", "a b", "", "--board", "$x", "--", "*")
    assert result.stdout == "a b||--board|$x|--|*|"


def test_what_the_command_finds():
    script = """
    cd "$LAB_DIR"; ls; cat nvram.conf
    $LAB_SWITCH cat /var/conf/nvram.conf >inside; cmp nvram.conf inside
    command -v qelctl
    """
    result = run_lab("--", "sh", "-ec", script)
    assert result.returncode == 0, result.stderr
    names = result.stdout.split("\n")
    assert {"console.log", "qel.log", "morvad.log", "queries.jsonl", "nvram.conf"} <= set(names)
    assert "product_model=QM4410_MODEL" in names
    assert result.stdout.endswith("/bin/qelctl\n")


def test_both_ends_of_the_cable(lab):
    gateway = lab.run("ip", "-o", "link", "show", "dev", "gw0").stdout
    switch = lab.switch("ip", "-o", "link", "show", "dev", "vlanif1").stdout
    assert "mtu 2000" in gateway and ",UP," in gateway
    assert "mtu 2000" in switch and ",UP," in switch
    assert "link/ether 0a:1b:2c:3d:4e:5f" in switch
    with lab.socket(socket.AF_INET, socket.SOCK_DGRAM) as link:
        link.connect(("192.168.1.10", 1))  # a network in common
        assert link.getsockname()[0] == "192.168.1.254"


def test_the_console_gathers_every_line(lab):
    lab.switch("sh", "-c", "for i in 1 2 3; do echo line $i >/dev/console; done")
    wait_until(lambda: "line 1\nline 2\nline 3\n" in lab.console(), "three lines on the console")


def test_module_queries_are_written_down(lab):
    first = lab.queries()[0]
    assert first["module"] == "statistics"
    assert first["request"] == '{"mdl":"statistics","cmd":"port_basic_statistic_get_all"}'
    assert first["reply_bytes"] > 0 and first["us"] >= 0


def test_the_platforms_programs_come_first(lab):
    assert lab.switch("sh", "-c", "PATH=/morva/bin command -v conf").stdout == "/morva/bin/conf\n"
    environment = lab.switch("sh", "-c", f"tr '\\0' '\\n' </proc/{lab.pid('qel')}/environ").stdout
    path = next(line for line in environment.splitlines() if line.startswith("PATH="))
    assert path.startswith("PATH=/morva/bin:")


# --- going away ---------------------------------------------------------------------------------


def lab_processes(marker):
    """Processes on this machine whose environment holds `marker`."""
    found = []
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if marker.encode() in (entry / "environ").read_bytes():
                found.append(int(entry.name))
        except OSError:
            continue
    return found


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGKILL])
def test_a_signal_takes_everything_down(tmp_path, number):
    marker = f"QEL_TEST_MARKER={tmp_path}"
    environment = own_environment({"QEL_TEST_MARKER": str(tmp_path), "TMPDIR": str(tmp_path)})
    with subprocess.Popen(
        [str(SCRIPT), "--", "sh", "-c", "echo up; exec sleep 1000"],
        env=environment,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        text=True,
        start_new_session=True,
    ) as process:
        assert process.stdout.readline() == "up\n"
        assert len(lab_processes(marker)) >= 5
        process.send_signal(number)
        status = process.wait(timeout=60)
    wait_until(lambda: not lab_processes(marker), "the end of every process")
    if number != signal.SIGKILL:
        assert status == 128 + number
        assert list(tmp_path.iterdir()) == []


def test_a_background_process_ends_with_the_lab(tmp_path):
    marker = f"QEL_TEST_MARKER={tmp_path}"
    script = "$LAB_SWITCH sleep 1000 >/dev/null 2>&1 & setsid sleep 1000 >/dev/null 2>&1 & exit 0"
    run_lab("--", "sh", "-c", script, environment={"QEL_TEST_MARKER": str(tmp_path)})
    assert lab_processes(marker) == []


def test_the_directory_goes_unless_it_was_given_or_kept(tmp_path):
    plain = {"TMPDIR": str(tmp_path)}
    assert run_lab("--", "sh", "-c", 'test -d "$LAB_DIR"', environment=plain).returncode == 0
    assert list(tmp_path.iterdir()) == []

    kept = run_lab("--keep", "--", "true", environment=plain)
    (directory,) = tmp_path.iterdir()
    assert str(directory) in kept.stderr
    assert (directory / "nvram.conf").read_text(encoding="utf-8").count("product_sn=") == 1

    given = tmp_path / "given"
    run_lab("--", "true", environment={"LAB_DIR": str(given)})
    assert "starting" in (given / "qel.log").read_text(encoding="utf-8")


def test_qelctl_is_told_the_wire():
    machines = {"QELCTL_INTERFACE": "eth0"}
    result = run_lab("--switches", "3", "--", "qelctl", "discover", "--expect", "3", environment=machines)
    assert (result.returncode, result.stderr) == (0, "")
    assert [line.split()[0] for line in result.stdout.splitlines()] == [
        *("MAC", "0a:1b:2c:3d:4e:5f", "0a:1b:2c:3d:4e:60", "0a:1b:2c:3d:4e:61")
    ]


# --- failing ------------------------------------------------------------------------------------


def test_a_wrong_board_ends_with_morvads_own_words(tmp_path):
    board = tmp_path / "wrong.json"
    text = (BOARDS / "ge10.json").read_text(encoding="utf-8")
    board.write_text(text.replace('"mask": 24', '"mask": 99'), encoding="utf-8")
    result = run_lab("--board", str(board), "--", "true")
    assert result.returncode == 125
    assert str(board) in result.stderr and "mask" in result.stderr


@pytest.mark.parametrize("name", ["sw1", "vlanif1", "a/b"])
def test_wrong_interfaces_of_a_board_are_told_by_morvad(tmp_path, name):
    board = json.loads((BOARDS / "bridge.json").read_text(encoding="utf-8"))
    board["ports"][0]["interface"], board["ports"][1]["interface"] = "sw1", name
    path = tmp_path / "wrong.json"
    path.write_text(json.dumps(board), encoding="utf-8")
    result = run_lab("--board", str(path), "--", "true")
    assert result.returncode == 125
    assert f"{path}: ports[1].interface: expected " in result.stderr and "RTNETLINK" not in result.stderr


def test_a_board_that_does_not_exist():
    result = run_lab("--board", "/no/such/board.json", "--", "true")
    assert result.returncode == 125
    assert result.stderr == "lab: /no/such/board.json: no such board file, or not readable\n"


def test_programs_that_do_not_exist():
    result = run_lab("--", "true", environment={"QEL_BUILD_DIR": "/no/such/build"})
    assert result.returncode == 125
    assert result.stderr == "lab: no qel and morvad in /no/such/build: run script/build first\n"


def test_a_directory_that_cannot_be_made():
    result = run_lab("--", "true", environment={"LAB_DIR": "/proc/no/such/lab"})
    assert result.returncode == 125
    assert result.stderr.startswith("lab: ") and "/proc/no" in result.stderr
    assert "Traceback" not in result.stderr


def test_a_tool_that_is_missing(tmp_path):
    for tool in ("bash", "dirname", "ip"):
        (tmp_path / tool).symlink_to(shutil.which(tool))
    result = run_lab("--", "true", environment={"PATH": str(tmp_path)})
    assert result.returncode == 125
    assert result.stderr == "lab: nsenter is missing: run script/bootstrap\n"


def test_an_agent_that_ends_at_once_is_reported_with_its_log(tmp_path):
    build = tmp_path / "build"
    (build / "bin").mkdir(parents=True)
    for name, text in (("qel", "echo cannot start; exit 3"), ("morvad", "exec sleep 1000")):
        program = build / "bin" / name
        program.write_text(f"#!/bin/sh\n{text}\n", encoding="utf-8")
        program.chmod(0o755)
    result = run_lab("--", "true", environment={"QEL_BUILD_DIR": str(build)})
    assert result.returncode == 125
    assert "qel ended with status 3" in result.stderr
    assert "cannot start" in result.stderr


# --- restart ------------------------------------------------------------------------------------


def test_a_restart_of_the_switch_starts_both_daemons_again(make_lab):
    lab = make_lab()
    before = lab.pid("morvad"), lab.pid("qel")
    lab.gateway.probe()
    lab.morvactl("restart")

    def restarted():
        now = lab.pid("morvad"), lab.pid("qel")
        return None not in now and now[0] != before[0] and now[1] != before[1]

    wait_until(restarted, "new daemons")
    wait_until(lambda: lab.log("qel").count("starting") == 2, "the second start")
    assert lab.gateway.probe().json["mac"] == "0a1b2c3d4e5f"


# --- several, elsewhere, and as somebody else -----------------------------------------------------


def test_several_labs_at_once(make_lab):
    labs = [make_lab("--board", str(BOARDS / f"{name}.json")) for name in ("ge10", "ge28", "ge52")]
    macs = [lab.gateway.probe().json["mac"] for lab in labs]
    assert macs == ["0a1b2c3d4e10", "0a1b2c3d4e5f", "0a1b2c3d4e52"]


@pytest.fixture(scope="module")
def checkout_under_tmp(lab):
    """As much of a checkout as a lab needs, under /tmp, readable to everybody."""
    top = pathlib.Path(tempfile.mkdtemp(prefix="qel-checkout.", dir="/tmp"))
    shutil.copytree(TOP / "script", top / "script")
    shutil.copytree(TOP / "platform/linux/boards", top / "platform/linux/boards")
    shutil.copytree(TOP / "platform/linux/programs", top / "platform/linux/programs")
    programs = pathlib.Path(lab.run("sh", "-c", "command -v qel").stdout.strip()).parent
    (top / "build/dev/bin").mkdir(parents=True)
    for name in ("qel", "morvad", "morvactl"):
        shutil.copy(programs / name, top / "build/dev/bin")
    # Whoever made the checkout may have kept its files to himself.
    subprocess.run(["chmod", "-R", "a+rX", str(top)], check=True)
    yield top
    shutil.rmtree(top)


def test_a_checkout_under_tmp(make_lab, checkout_under_tmp):
    lab = make_lab(script=checkout_under_tmp / "script/lab", environment={"QEL_BUILD_DIR": ""})
    assert lab.gateway.probe().json["mac"] == "0a1b2c3d4e5f"
    lab.switch("sh", "-c", "echo mine >/tmp/mine")
    assert not os.path.exists("/tmp/mine")
    assert lab.switch("cat", "/tmp/mine").stdout == "mine\n"


def ordinary_user():
    return ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]


def user_namespaces_for_everybody():
    if os.geteuid() != 0:
        return True
    attempt = [*ordinary_user(), "unshare", "-Urmpnf", "true"]
    return subprocess.run(attempt, check=False).returncode == 0


@pytest.mark.skipif(not user_namespaces_for_everybody(), reason="user namespaces are for root here")
@pytest.mark.skipif(os.geteuid() != 0, reason="every other test already runs as an ordinary user")
def test_a_lab_of_an_ordinary_user(make_lab, checkout_under_tmp):
    before = host_state()
    script = checkout_under_tmp / "script/lab"
    lab = make_lab(script=script, wrapper=ordinary_user(), environment={"QEL_BUILD_DIR": ""})
    assert lab.gateway.probe().json["mac"] == "0a1b2c3d4e5f"
    assert lab.run("cat", "/proc/self/uid_map").stdout.split() == ["0", str(NOBODY), "1"]
    assert lab.morvactl("link", "ge3", "down").returncode == 0
    lab.close()
    assert host_state() == before


@pytest.mark.skipif(os.geteuid() != 0, reason="an ordinary user has one id only")
def test_roots_lab_has_every_id(lab):
    own = pathlib.Path("/proc/self/uid_map").read_text(encoding="ascii")
    assert lab.run("cat", "/proc/self/uid_map").stdout == own
    drop = ["setpriv", "--reuid=1234", "--regid=1234", "--clear-groups", "id", "-u"]
    assert lab.switch(*drop).stdout == "1234\n"
