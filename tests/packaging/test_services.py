# SPDX-License-Identifier: Apache-2.0
"""The services under systemd, booted in a clean Debian: all that their hardening must still allow.

Setting the clock is the one thing left out: it would be the machine's, so systemd itself must not.
"""

import subprocess
import sys

import cleanroot
import installed
import pytest

NEXT_VERSION = "1.0.99"


@pytest.fixture(name="installation", scope="module")
def _installation(tmp_path_factory):
    with installed.clean_installation(tmp_path_factory.mktemp("services"), boot=True) as made:
        running = ["systemctl", "is-system-running"]
        cleanroot.poll(
            lambda: made.root.attempt(*running)[1].strip() in ("running", "degraded"), 60, "booted"
        )
        yield made


def state(installation, name, *properties):
    """The values of a unit's properties."""
    wanted = ",".join(properties)
    text = installation.root.run("systemctl", "show", "-p", wanted, f"{name}.service")
    values = dict(line.split("=", 1) for line in text.splitlines())
    return tuple(values[each] for each in properties)


def journal(installation, name):
    return installation.root.run("journalctl", "--no-pager", "-o", "cat", "-u", name)


def vty(installation, *lines):
    """Types lines into the agent's command shell on loopback; the last one ends the session."""
    text = "".join(f"{line}\r\n" for line in lines)
    script = (
        "import socket, sys\n"
        "session = socket.create_connection(('127.0.0.1', 2625), 5)\n"
        "session.sendall(sys.argv[1].encode())\n"
        "while session.recv(4096): pass\n"
    )
    # The machine's own Python: the clean root has none.
    command = ["nsenter", "--target", str(installation.root.pid), "--net", "--"]
    cleanroot.run([*command, sys.executable, "-c", script, text])


# ---------------------------------------------------------------------------------------------
# Starting


def test_without_a_board_file_nothing_starts_and_nothing_failed(installation):
    installation.install()
    for name in ("morvad", "qel"):
        assert state(installation, name, "UnitFileState", "ActiveState", "ConditionResult") == (
            *("enabled", "inactive", "no"),
        )
    assert installation.root.run("systemctl", "--failed", "--no-legend", "--plain") == ""


def test_with_a_board_file_the_switch_is_there(installation):
    installation.lay_cables()
    installation.make_board()
    installation.add_users()
    installation.root.run("systemctl", "start", "morvad", "qel")
    assert "192.168.1.10/24" in installation.discovered()


def test_lldpd_is_heard(installation):
    cleanroot.poll(
        lambda: "listening to its news" in journal(installation, "morvad"), 30, "lldpd is heard"
    )


# ---------------------------------------------------------------------------------------------
# What the gateway commands


def test_a_restored_configuration_restarts_both_services(installation):
    before = [state(installation, name, "MainPID")[0] for name in ("morvad", "qel")]
    installation.root.shell("install -d -o alice -m 755 /home/alice")
    for words in (
        ("name", "before"),
        ("backup", "/home/alice/conf.tar.gz"),
        ("name", "after"),
        ("active", "600"),  # ends with the agent: the machine's uptime and counters go on
        ("--yes", "restore", "/home/alice/conf.tar.gz"),
    ):
        status, output = installation.qelctl(*words)
        assert status == 0, output
    assert "the switch restarted and holds the file sent" in output

    def both_are_new():
        now = [state(installation, name, "MainPID")[0] for name in ("morvad", "qel")]
        return all(pid not in ("0", old) for pid, old in zip(now, before))

    cleanroot.poll(both_are_new, 30, "both services were started again")
    assert "before" in installation.discovered()
    assert installation.root.run("ls", "/var/lib/morva/flash") == "nvram.conf\n"


def test_a_pushed_image_reaches_the_upgrade_program(installation):
    installation.root.shell("head -c 20000 /dev/zero > /home/alice/image")
    status, output = installation.qelctl("--yes", "firmware", "push", "/home/alice/image")
    assert status == 0, output
    check_image(installation, 20000)


def test_an_image_is_fetched_from_a_server(installation):
    folder = installation.work / "server"
    folder.mkdir()
    (folder / "image").write_bytes(bytes(30000))
    beside = ["nsenter", "--target", str(installation.root.gateway), "--net", "--"]
    server = [sys.executable, "-m", "http.server", "--directory", str(folder), "8099"]
    with open(installation.work / "server.log", "wb") as log:
        process = subprocess.Popen([*beside, *server], stdout=log, stderr=log)
    fetch = ["wget", "-qO/dev/null", "http://192.168.1.20:8099/"]
    try:
        cleanroot.poll(
            lambda: installation.root.attempt(*fetch)[0] == 0, 20, "the server serves"
        )
        url = "http://192.168.1.20:8099/image"
        status, output = installation.qelctl("--yes", "firmware", "pull", url)
        assert status == 0, output
        check_image(installation, 30000)
    finally:
        process.kill()
        process.wait()


def check_image(installation, size):
    info = "/var/lib/morva/firmware/linux.trx.info"

    def kept():
        return f"size={size}\n" in installation.root.attempt("cat", info)[1]

    cleanroot.poll(kept, 20, f"an image of {size} bytes is kept")
    cleanroot.poll(
        lambda: installation.root.run("morvactl", "fw", "show").startswith("idle"), 20, "idle again"
    )


def test_frames_are_shut_out_and_let_in_by_the_kernel(installation):
    def rules():
        return installation.root.run("nft", "list", "ruleset")

    vty(installation, "enable", "configure terminal", "qel disable", "end", "exit")
    cleanroot.poll(lambda: "meta protocol 0x9301 counter" in rules(), 10, "the rule is there")
    status, _ = installation.qelctl("discover")
    assert status != 0
    vty(installation, "enable", "configure terminal", "qel enable", "end", "exit")
    cleanroot.poll(lambda: "0x9301" not in rules(), 10, "the rule is gone")
    installation.discovered()


# ---------------------------------------------------------------------------------------------
# Ending


@pytest.mark.parametrize("name", ["morvad", "qel"])
def test_a_service_that_crashes_starts_again(installation, name):
    pid = state(installation, name, "MainPID")[0]
    installation.root.run("systemctl", "kill", "--signal=KILL", name)
    cleanroot.poll(
        lambda: state(installation, name, "MainPID")[0] not in ("0", pid), 20, f"{name} is back"
    )
    installation.discovered()


def test_what_is_stopped_stays_stopped(installation):
    installation.root.run("systemctl", "stop", "qel")
    assert state(installation, "qel", "ActiveState", "Result") == ("inactive", "success")
    installation.root.run("systemctl", "start", "qel")
    installation.discovered()


def test_an_upgrade_restarts_the_services(installation):
    before = [state(installation, name, "MainPID")[0] for name in ("morvad", "qel")]
    installation.raise_version(NEXT_VERSION)
    after = [state(installation, name, "MainPID")[0] for name in ("morvad", "qel")]
    assert not set(before) & set(after) and "0" not in after
    installation.discovered()


def test_removing_stops_the_services_and_purging_forgets_them(installation):
    installation.root.run("dpkg", "--remove", *installed.debs.NAMES)
    assert installation.root.attempt("pidof", "qel", "morvad")[0] != 0
    installation.root.run("dpkg", "--purge", *installed.debs.NAMES)
    listed = installation.root.run("systemctl", "list-unit-files", "--no-legend")
    assert "qel.service" not in listed and "morvad.service" not in listed
    # What systemd itself keeps while it runs.
    own = ("/var/lib/systemd/timers", "/var/tmp/systemd-private-")
    assert {path for path in installation.added() if not path.startswith(own)} == set()
