# SPDX-License-Identifier: Apache-2.0
"""Processes that are stopped or stuck: a restart of the switch ends them, a successor takes their
place, a service manager gets no sign of life from them; and a start that hangs ends at SIGTERM."""

import array
import json
import pathlib
import signal
import socket
import time

import pytest

from labkit import BOARDS, PYTHON, Lab, wait_until
from test_kill import name
from test_switch import answers, probed

HERE = pathlib.Path(__file__).parent
HOLDER = HERE / "stuck_holder.py"
START_AND_END = HERE / "start_and_end.py"

# A query that hangs holds a start for this long; a process that SIGTERM ends is gone
# long before that, on a busy machine too.
HANG_MS = 30000
PROMPT = 15.0


def in_background(lab, *argv):
    """Starts a program inside the switch; its pid there. What it says goes to /run/background.log."""
    script = '"$@" </dev/null >>/run/background.log 2>&1 & echo $!'
    return int(lab.switch("sh", "-c", script, "sh", *argv).stdout)


def background_log(lab):
    return lab.switch("cat", "/run/background.log").stdout


def stat(lab, pid):
    """The state letter of a process of the lab; Z or X also when it is gone."""
    text = lab.run("cat", f"/proc/{pid}/stat", check=False).stdout
    return text.rsplit(")", 1)[1].split()[0] if text else "X"


def is_gone(lab, pid):
    return stat(lab, pid) in "ZX"


def stop(lab, pid):
    lab.run("kill", "-STOP", str(pid))
    wait_until(lambda: stat(lab, pid) == "T", "the stop")


def end(lab, daemon):
    """Ends a daemon of the lab, which does not start it again."""
    lab.run("kill", "-TERM", str(lab.pid(daemon)))
    wait_until(lambda: lab.pid(daemon) is None, f"the end of {daemon}")


def holder(lab, *arguments):
    """A process that has a client number and ignores SIGTERM; see stuck_holder.py."""
    ready = "/run/holder.ready"
    lab.switch("rm", "-f", ready)
    pid = in_background(lab, PYTHON, str(HOLDER), ready, *arguments)
    wait_until(lambda: lab.switch("test", "-e", ready, check=False).returncode == 0, "the holder")
    return pid


# ---- a restart of the switch -------------------------------------------------------------------


def test_restart_ends_an_agent_that_is_stopped(make_lab):
    lab = make_lab()
    pid = lab.pid("qel")
    stop(lab, pid)
    lab.morvactl("restart")
    wait_until(lambda: lab.pid("qel") not in (None, pid), "a new agent")
    answers(lab)
    assert "did not end" not in lab.log("qel")  # the lab had to kill nobody
    assert "Vlog terminating on signal" in lab.log("qel")


def test_restart_kills_a_process_that_ignores_it(make_lab):
    lab = make_lab()
    stuck = holder(lab, "--attach")
    before = lab.pid("morvad")
    lab.morvactl("restart")
    # Nobody waits for an answer of a platform that waits for others.
    wait_until(lambda: lab.morvactl("show", check=False).returncode == 1, "closed sockets")
    wait_until(lambda: is_gone(lab, stuck), "the end of the process")
    wait_until(lambda: lab.pid("morvad") not in (None, before), "a new platform")
    answers(lab)
    assert f"morvad: process {stuck} did not end, it is killed\n" in lab.log("morvad")


def test_restart_does_not_wait_for_an_upgrade_that_hangs(make_lab):
    lab = make_lab()
    lab.switch("mkfifo", "/run/image")  # the upgrade reads it for ever
    lab.switch("sh", "-c", "mount -t tmpfs none /morva/bin && cat >/morva/bin/morva_upgrade && "
               "chmod 755 /morva/bin/morva_upgrade", text="#!/bin/sh\ntrap '' TERM\ncat $1\n")
    ask = 'import socket,sys; s = socket.socket(socket.AF_UNIX); s.connect("/var/run/morva/sys.sock"); ' \
          's.sendall(sys.argv[1].encode()); s.shutdown(1); print(s.recv(100).decode())'
    query = '{"mdl":"sys","cmd":"fw_upgrade","data":{"path":"/run/image"}}'
    assert lab.switch(PYTHON, "-c", ask, query).stdout == '{"ret":0}\n'
    (upgrade,) = [int(one) for one in lab.run("pgrep", "-f", "morva_upgrade /run/image").stdout.split()]
    (reader,) = [int(one) for one in lab.run("pgrep", "-P", str(upgrade)).stdout.split()]
    before = lab.pid("morvad")
    lab.morvactl("restart")
    wait_until(lambda: lab.pid("morvad") not in (None, before), "a new platform")
    assert is_gone(lab, upgrade) and is_gone(lab, reader)
    answers(lab)


# ---- a successor -------------------------------------------------------------------------------


def test_agent_takes_the_place_of_one_that_is_stopped(make_lab):
    lab = make_lab()
    pid = lab.pid("qel")
    stop(lab, pid)
    in_background(lab, "qel")
    wait_until(lambda: is_gone(lab, pid), "the end of the stopped agent")
    answers(lab)
    assert probed(lab)["name"] == "office-sw"
    now = int(lab.switch("cat", "/var/run/qel.pid").stdout)
    assert now != pid and not is_gone(lab, now)
    assert f"hal: client 23: process {pid} is stopped, it has to end" in background_log(lab)


def test_agent_takes_the_place_of_one_that_is_stuck(make_lab):
    lab = make_lab()
    end(lab, "qel")
    stuck = holder(lab, "--silent", "100")
    in_background(lab, "qel")
    wait_until(lambda: is_gone(lab, stuck), "the end of the stuck process")
    answers(lab)
    assert f"hal: client 23: process {stuck} is stuck for 10" in background_log(lab)


def test_agent_that_detached_and_is_stopped_makes_room(make_lab):
    lab = make_lab()
    end(lab, "qel")
    lab.switch("qel", "-d")
    answers(lab)
    pid = int(lab.switch("cat", "/var/run/qel.pid").stdout)
    stop(lab, pid)
    in_background(lab, "qel")
    wait_until(lambda: is_gone(lab, pid), "the end of the stopped agent")
    answers(lab)


def test_holder_that_works_is_left_alone_whatever_the_lock_says(make_lab):
    """Neither the process that the file names is ended, nor the one that has the lock."""
    lab = make_lab()
    end(lab, "qel")
    bystander = in_background(lab, "sleep", "1000")
    stop(lab, bystander)
    working = holder(lab, "--silent", "0")
    lock = "/var/run/morva/client-23.lock"
    for text in (f"{bystander:10} {1:20}\n", f"{1:10} {1:20}\n", f"{-1:10} {1:20}\n", "x" * 100, ""):
        lab.switch("sh", "-c", f"cat >{lock}", text=text)
        second = lab.switch("qel", check=False)
        assert second.returncode == 1, second
        assert "client 23 is another process that runs already" in second.stderr
        assert "has to end" not in second.stderr
        assert stat(lab, bystander) == "T" and not is_gone(lab, working)


def test_holder_that_waits_for_its_program_is_left_alone(make_lab):
    lab = make_lab()
    end(lab, "qel")
    busy = holder(lab, "--silent", "100", "--child")
    second = lab.switch("qel", check=False)
    assert second.returncode == 1
    assert f"hal: client 23: process {busy} waits for a program that it started" in second.stderr
    assert not is_gone(lab, busy)


def test_morvad_takes_the_place_of_one_that_is_stopped(make_lab):
    lab = make_lab()
    pid = lab.pid("morvad")
    stop(lab, pid)
    in_background(lab, "morvad", "--board", str(BOARDS / "ge28.json"))
    wait_until(lambda: lab.morvactl("show", check=False).returncode == 0, "a platform", 60.0)
    assert is_gone(lab, pid)
    assert f"morvad: process {pid} has the switch and is frozen, it has to end" in background_log(lab)
    answers(lab)


def test_second_morvad_ends_and_the_first_goes_on(make_lab):
    lab = make_lab()
    pid = lab.pid("morvad")
    second = lab.switch("morvad", "--board", str(BOARDS / "ge28.json"), check=False)
    assert (second.returncode, second.stderr) == (1, "morvad: another morvad has the switch\n")
    assert lab.pid("morvad") == pid
    lab.morvactl("link", "ge1", "down")
    answers(lab)


# ---- a service manager that watches ------------------------------------------------------------


class Manager:
    """The end of NOTIFY_SOCKET: tells whose message came."""

    def __init__(self, lab, address):
        self.socket = lab.socket(socket.AF_UNIX, socket.SOCK_DGRAM, inside=1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        self.socket.settimeout(30.0)
        self.socket.bind(address)

    def receive(self):
        """The next message and the name of its sender."""
        text, details, _, _ = self.socket.recvmsg(200, 100)
        for _, kind, data in details:
            if kind == socket.SCM_CREDENTIALS:
                return text.decode(), name(array.array("i", data)[0])
        raise AssertionError(f"nobody sent {text}")

    def drain(self):
        self.socket.setblocking(False)
        try:
            while self.socket.recv(200):
                pass
        except BlockingIOError:
            self.socket.settimeout(30.0)


def test_both_daemons_feed_the_watchdog_while_their_loops_turn():
    environment = {"NOTIFY_SOCKET": "@qel-test", "WATCHDOG_USEC": "100000"}
    with Lab(environment=environment) as lab:
        manager = Manager(lab, "\0qel-test")
        heard = {"qel": [], "morvad": []}
        while any(len(texts) < 3 for texts in heard.values()):
            text, sender = manager.receive()
            heard[sender].append(text)
        # The socket was not there when they started, so they log that first.
        assert heard["qel"][:3] == heard["morvad"][:3] == ["READY=1", "WATCHDOG=1", "WATCHDOG=1"]
        for stopped, other in (("qel", "morvad"), ("morvad", "qel")):
            pid = lab.pid(stopped)
            stop(lab, pid)
            manager.drain()
            assert [manager.receive() for _ in range(5)] == [("WATCHDOG=1", other)] * 5
            lab.run("kill", "-CONT", str(pid))
            wait_until(lambda: manager.receive() == ("WATCHDOG=1", stopped), "food")


def test_agent_that_nobody_watches_says_that_it_is_ready_and_no_more():
    watched = {"NOTIFY_SOCKET": "@qel-test", "WATCHDOG_USEC": "100000"}
    with Lab(environment=watched) as lab:
        end(lab, "qel")
        manager = Manager(lab, "\0qel-test")
        in_background(lab, "env", "NOTIFY_SOCKET=@qel-test", "WATCHDOG_USEC=", "qel")
        wait_until(lambda: manager.receive() == ("READY=1", "qel"), "the agent's start")
        assert [manager.receive() for _ in range(10)] == [("WATCHDOG=1", "morvad")] * 10


# ---- the end of a start ------------------------------------------------------------------------

# What a start asks the rest of the switch, in its order, when all of it is refused. The last is the
# saved configuration's, before the first turn of the loop.
QUERIES = [
    "hal init",
    "ifmgr if_table_get",
    "statistics port_basic_statistic_get_all",
    "sys mac_get",
    "sys oem_get",
    "hal qel_enable",
]


@pytest.fixture(scope="module")
def bare():
    """A switch without daemons, whose saved configuration switches the agent off."""
    with Lab() as lab:
        lab.switch("sh", "-c", "echo qel disable >/var/conf/qel.conf")
        end(lab, "qel")
        end(lab, "morvad")
        yield lab


def start_and_end(lab, place, number=signal.SIGTERM):
    settings = [f"MORVA_QUERY_DEADLINE_MS={HANG_MS}", "MORVA_START_WAIT_MS=0", "MORVA_LOG=stderr"]
    if place == "nobody":
        settings[1] = f"MORVA_START_WAIT_MS={HANG_MS}"
    program = [PYTHON, str(START_AND_END), str(place), str(int(number))]
    told = json.loads(lab.switch("env", *settings, *program).stdout)
    assert told["arrived"], told
    return told


def check_end(told):
    assert told["status"] == 0, told
    assert told["seconds"] < PROMPT, told
    assert "Vlog terminating on signal" in told["log"], told


@pytest.mark.parametrize("place", range(1, len(QUERIES) + 1))
def test_start_that_hangs_in_a_query_ends_when_told(bare, place):
    told = start_and_end(bare, place)
    check_end(told)
    assert told["asked"] == QUERIES[:place]


@pytest.mark.parametrize("place", ["backlog", "manager", "nobody"])
def test_start_that_hangs_in_a_connection_ends_when_told(bare, place):
    check_end(start_and_end(bare, place))


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTSTP, signal.SIGQUIT])
@pytest.mark.parametrize("place", [1, 2])
def test_start_that_hangs_ends_by_each_signal_of_the_table(bare, place, number):
    check_end(start_and_end(bare, place, number))


def test_start_while_the_platform_ends_or_hangs_ends_when_told(make_lab):
    """The agent gets SIGTERM at a moment of its start that moves on from one start to the next."""
    settings = {"MORVA_START_WAIT_MS": str(HANG_MS), "MORVA_QUERY_DEADLINE_MS": str(HANG_MS)}
    lab = make_lab(environment=settings | {"LAB_RESPAWN": "1"})
    for attempt in range(12):
        before = lab.pid("qel")
        platform = lab.pid("morvad")
        lab.run("kill", "-STOP" if attempt % 2 else "-TERM", str(platform))
        lab.run("kill", "-KILL", str(before))
        pid = wait_until(lambda: lab.pid("qel") not in (None, before) and lab.pid("qel"), "a start")
        wait_until(lambda: catches(lab, pid), "a start that catches SIGTERM")
        spin(attempt * 0.01)
        log = len(lab.log("qel"))
        start = time.monotonic()
        lab.run("kill", "-TERM", str(pid))
        wait_until(lambda: is_gone(lab, pid), "the agent's end", PROMPT)
        assert time.monotonic() - start < PROMPT
        assert "Vlog terminating on signal" in lab.log("qel")[log - 200 :]
        lab.run("kill", "-CONT", str(platform), check=False)
        wait_until(lambda: lab.morvactl("show", check=False).returncode == 0, "a platform")
        answers(lab)


def catches(lab, pid):
    text = lab.run("cat", f"/proc/{pid}/status", check=False).stdout
    masks = [int(line.split()[1], 16) for line in text.splitlines() if line.startswith("SigCgt:")]
    return masks and masks[0] >> (signal.SIGTERM - 1) & 1


def spin(seconds):
    """Moves the moment of the signal: nothing is proved by the time that passes here."""
    end_at = time.monotonic() + seconds
    while time.monotonic() < end_at:
        pass
