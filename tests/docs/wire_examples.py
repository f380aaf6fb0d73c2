# SPDX-License-Identifier: Apache-2.0
"""The examples of docs/protocol.md: what stands in its blocks, and what the agent really does.

A block ```wire holds lines of an exchange, in the order of the document and all with one switch:

    > TEXT          the gateway sends TEXT in a frame to the group address
    > TEXT | BYTES  the same, the bytes (hexadecimal) behind it; the length field points behind the
                    first of them
    < TEXT          what the switch sends; "| BYTES" as above, "..." for more of them
    $ COMMAND       COMMAND is run on the switch

Nothing but the lines "<" that follow may come from the switch. Control characters in TEXT are
written \\n, \\t. What changes from run to run (VOLATILE) is not compared.
"""

import json
import re
import shlex

from helptext import TOP
from labkit import wait_until

DOCUMENT = TOP / "docs/protocol.md"
BOARD = TOP / "tests/docs/ge3.json"
NAME = "020000000001"  # of the gateway in all examples
VOLATILE = re.compile(r'"(uptime|cpu|mem|timestamp|crc|length|total_length)":-?\d+')
SHOWN_BYTES = 4
BLOCK = re.compile(r"^```wire\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def blocks(text):
    """The lines of each block: [[line, ...], ...]."""
    return [block.rstrip("\n").split("\n") for block in BLOCK.findall(text)]


def steps(lines):
    """[(what is done, [what comes], ...)]; what is done is a line ">" or "$"."""
    found = []
    for line in lines:
        assert line[:2] in ("> ", "< ", "$ "), line
        if line.startswith("< "):
            found[-1][1].append(line)
        else:
            found.append((line, []))
    return found


def request(line):
    """The frame's message and its length field."""
    text, _, tail = line[2:].partition(" | ")
    text = text.encode()
    return text + bytes.fromhex(tail), len(text) + 16 + bool(tail)


def shown(raw):
    """How a frame of the switch stands in the document. What follows the text is shown unless it is
    a chunk, of which the beginning is."""
    message = raw[32:]
    text, zero, rest = message.partition(b"\0")
    line = "< " + text.decode().replace("\n", "\\n").replace("\t", "\\t")
    if zero:
        line += " | 00" + "".join(f" {byte:02x}" for byte in rest[:SHOWN_BYTES])
        line += " ..." if len(rest) > SHOWN_BYTES else ""
    return line


def comparable(line):
    return VOLATILE.sub(r'"\1":N', line)


RESTARTS = re.compile(r'"subcmd":"(sys_reboot|config_reset)"')


class Exchange:
    """One switch in a lab, and the gateway of the examples."""

    def __init__(self, lab):
        self.lab = lab
        self.gateway = lab.gateway
        self.ticks = 0

    def settle(self):
        """Everything that the switch has sent up to now. It does one thing after the other, so the
        answer to one more probe comes last."""
        self.ticks += 1
        ntick = 900000 + self.ticks
        probe = {"mac": NAME, "cmd": "probe", "subcmd": "probe", "data": {"ntick": ntick}}
        self.gateway.send(json.dumps(probe).encode())
        frames = []
        while True:
            raw = self.gateway.receive().raw
            if f'"ntick":{ntick}}}'.encode() in raw:
                return frames
            frames.append(raw)

    def restart(self, line):
        """Sends what restarts the switch, and waits until it answers again."""
        before = self.lab.pid("qel")
        self.gateway.send(request(line)[0])
        wait_until(lambda: self.lab.pid("qel") not in (before, None), "a restarted agent", 30)
        wait_until(self.answers, "an answer of the restarted agent", 30)
        self.settle()  # what was asked more than once is answered more than once

    def answers(self):
        self.gateway.command("ping", "ping", {})
        try:
            return b'"pong"' in self.gateway.receive(0.2).raw
        except AssertionError:
            return False

    def do(self, line, expected):
        """Does one step, waits for as many frames as `expected` has, and returns those that came."""
        if line.startswith("$ "):
            self.lab.switch(*shlex.split(line[2:]))
        elif RESTARTS.search(line):
            self.restart(line)
        else:
            message, length = request(line)
            self.gateway.send(message, length=length)
        frames = [self.gateway.receive().raw for _ in expected]
        return [shown(raw) for raw in frames + self.settle()]
