# SPDX-License-Identifier: Apache-2.0
"""The agent dies two hundred times while its countdown runs, and the settings store never shows it."""

import os
import pathlib
import random
import signal
import time

from gateway import message
from labkit import wait_until

KILLS = 200
KILLS_IN_A_TICK = 10  # of them; the others strike while a gateway's value is being stored
SEED = 4
KEY = "qel_sys_active"

# Storing a value takes about a millisecond, on a busy or slow machine many. Kills strike from
# before it to after it on either: their delays, in seconds, are spread evenly over the magnitudes.
SHORTEST_DELAY, LONGEST_DELAY = 0.0003, 0.03

# A kill in a tick strikes this much before or after the moment that the tick is expected at.
TICK_SPREAD = 0.004


class Agent:
    """The agent of a lab that starts it again whenever it dies, as this machine's kernel sees it."""

    def __init__(self, lab):
        self.lab = lab
        self.gateway = lab.gateway
        self.destination = bytes.fromhex("0a1b2c3d4e5f")
        self.keeper = self._keeper()
        self.ntick = 0

    def _keeper(self):
        """Process 1 of the lab: the parent of every agent, found by the first one."""
        shell = next(pid for pid in children(self.lab.process.pid))
        return next(pid for pid in children(shell) if any(name(one) == "qel" for one in children(pid)))

    def pid(self):
        return next((pid for pid in children(self.keeper) if name(pid) == "qel"), None)

    def send(self, cmd, subcmd, data):
        self.gateway.send(message(cmd, subcmd, data), self.destination)

    def active(self, seconds=30.0):
        """The countdown as a probe's answer tells it; asks until the agent is there to answer."""
        deadline = time.monotonic() + seconds
        first = self.ntick + 1
        while time.monotonic() < deadline:
            self.ntick += 1
            self.send("probe", "probe", {"ntick": self.ntick})
            try:
                told = self.gateway.receive(0.02).json["data"]
                while told["ntick"] < first:  # late answers to whoever asked before
                    told = self.gateway.receive(0.02).json["data"]
                return told["sys_active"]
            except AssertionError:
                continue
        raise AssertionError("the agent does not answer")

    def run(self, value):
        """Starts the countdown at `value` and returns what it is then."""
        self.active()  # an agent that has just been started hears nothing yet
        start = time.monotonic()
        self.send("set", "sys_active", {"sys_active": value})
        running = self.active()
        assert running in steps_since(start, value)
        return running

    def kill(self, pid):
        """Kills the agent, which runs as process `pid`, and waits for its end. Whoever strikes at a
        moment looks the process up before that: it takes longer than what is to be hit."""
        os.kill(pid, signal.SIGKILL)
        wait_until(lambda: name(pid) != "qel", "the agent's end")


def steps_since(start, value):
    """What a countdown may show that was at `value` not before the time `start`: a step a second, and
    however long this machine paused, no more than that."""
    return range(value - int(time.monotonic() - start) - 1, value + 1)


def children(parent):
    for status in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = status.read_text(encoding="utf-8", errors="replace").rsplit(")", 1)[1].split()
        except OSError:
            continue
        if int(fields[1]) == parent:
            yield int(status.parent.name)


def name(pid):
    """The name of a process that lives; None when it is gone, or waits for its parent to see that."""
    try:
        status = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace")
    except OSError:
        return None
    command, rest = status.rsplit(")", 1)
    return None if rest.split()[0] in "ZX" else command.split("(", 1)[1]


class Store:
    """The lab's settings file, read as it lies on the disk."""

    def __init__(self, lab):
        self.path = lab.dir / "conf/nvram.conf"
        self.others = self.read()[1]
        assert len(self.others) > 100

    def read(self):
        """The stored countdown (None when there is none) and the lines of all other keys."""
        text = self.path.read_bytes()
        assert text.endswith(b"\n"), f"torn: {text[-80:]!r}"
        lines = text[:-1].split(b"\n")
        own = [line for line in lines if line.startswith(KEY.encode() + b"=")]
        assert len(own) <= 1, own
        value = int(own[0].split(b"=")[1]) if own else None
        return value, [line for line in lines if line not in own]

    def expect(self, what, *allowed):
        """The stored countdown, which must lie in one of the ranges `allowed`."""
        value, others = self.read()
        assert any(value in one for one in allowed), f"{what}: found {value}, due was {allowed}"
        assert others == self.others, what
        return value


def wait_precisely(seconds):
    """Waits by looking at the clock: a sleep is coarser than what is to be hit."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        pass


def kill_while_a_value_is_stored(agent, store, rng, value):
    """The countdown runs from `value` when a gateway sets another; a step may come in between too.
    Returns whether the other value was stored."""
    start = time.monotonic()
    agent.run(value)
    other = value + 500
    pid = agent.pid()
    agent.send("set", "sys_active", {"sys_active": other})
    delay = SHORTEST_DELAY * (LONGEST_DELAY / SHORTEST_DELAY) ** rng.random()
    wait_precisely(delay)
    agent.kill(pid)
    due = steps_since(start, value), steps_since(start, other)
    return store.expect(f"killed {delay * 1e3:.3f} ms after {other} was sent", *due) > value


def kill_in_a_tick(agent, store, rng, value):
    """Strikes when the countdown's next step is about to be stored, a second after the last.
    Returns whether it was stored."""
    agent.run(value)
    start = time.monotonic()
    before = store.read()[0]
    deadline = start + 30.0
    while store.read()[0] == before and time.monotonic() < deadline:
        pass  # without a pause: the moment counts
    seen = time.monotonic()
    step = store.read()[0]
    assert step < before and step in steps_since(start, before)
    pid = agent.pid()
    wait_precisely(seen + 1.0 + rng.uniform(-TICK_SPREAD, TICK_SPREAD) - time.monotonic())
    agent.kill(pid)
    return store.expect(f"killed in the tick after {step}", steps_since(seen, step)) < step


def test_store_survives_an_agent_that_is_killed_200_times(make_lab):
    lab = make_lab(environment={"LAB_RESPAWN": "1"})
    agent = Agent(lab)
    store = Store(lab)
    rng = random.Random(SEED)
    in_tick = set(rng.sample(range(KILLS), KILLS_IN_A_TICK))
    stored = []  # per kill: whether it came after the new value was stored
    for number in range(KILLS):
        # Far enough apart that no step of one countdown is a value of another.
        value = 1_000_000 + 1000 * number
        strike = kill_in_a_tick if number in in_tick else kill_while_a_value_is_stored
        stored.append(strike(agent, store, rng, value))
    # Kills that all came too early, or all too late, would show nothing.
    assert 10 <= sum(stored) <= KILLS - 10, stored

    # What the last kill left behind does not keep the next agent from storing.
    start = time.monotonic()
    agent.run(700)
    store.expect("after all", steps_since(start, 700))
