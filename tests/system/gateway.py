# SPDX-License-Identifier: Apache-2.0
"""The controller's end of the cable, in bytes.

Nothing here is shared with the programs under test: ethertypes, offsets and the frame header stand
as literals, so that a change on the other side is seen.
"""

import json
import socket
import time

GROUP = bytes.fromhex("0180c200001f")
TO_SWITCH = bytes.fromhex("9301")
TO_GATEWAY = 0x9303
PACKET_OUTGOING = 4


def frame(destination, source, text, ethertype=TO_SWITCH, length=None):
    """A frame of a controller around the message `text` (bytes)."""
    number = (len(text) + 16) & 0xFFFF if length is None else length
    header = bytes.fromhex("0000 babe") + number.to_bytes(2, "big") + bytes(12)
    return destination + source + ethertype + header + text


def message(cmd, subcmd, data=None, mac="020000000001"):
    """The text of a controller's message; without `data` it has no such member."""
    root = {"mac": mac, "cmd": cmd, "subcmd": subcmd}
    if data is not None:
        root["data"] = data
    return json.dumps(root, separators=(",", ":")).encode()


class Answer:
    """One frame from the switch, taken apart."""

    def __init__(self, raw):
        self.raw = raw
        self.destination = raw[0:6]
        self.source = raw[6:12]
        self.ethertype = raw[12:14]
        self.length = int.from_bytes(raw[18:20], "big")
        self.text = raw[32:]

    @property
    def json(self):
        return json.loads(self.text.split(b"\0", 1)[0])

    def __repr__(self):
        return f"Answer({self.raw.hex(' ')})"


class Gateway:
    """A controller on one interface of the gateway's network."""

    def __init__(self, lab, interface="gw0"):
        self._lab = lab
        self.socket = lab.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self.socket.bind((interface, TO_GATEWAY))
        self.mac = self.socket.getsockname()[4]
        self._ntick = 1000

    def close(self):
        self.socket.close()

    def send_raw(self, data):
        """Sends a frame of exactly these bytes."""
        assert self.socket.send(data) == len(data)

    def send(self, text, destination=GROUP, **options):
        """Sends the message `text` (bytes) in a well-formed frame."""
        self.send_raw(frame(destination, self.mac, text, **options))

    def command(self, cmd, subcmd, data=None, destination=GROUP):
        self.send(message(cmd, subcmd, data, mac=self.mac.hex()), destination)

    def receive(self, seconds=30.0):
        """The next frame from a switch; fails when none comes in time."""
        deadline = time.monotonic() + seconds
        while True:
            left = deadline - time.monotonic()
            assert left > 0, f"no frame from the switch within {seconds:g} s"
            self.socket.settimeout(left)
            try:
                raw, address = self.socket.recvfrom(65535)
            except TimeoutError:
                continue
            if address[2] != PACKET_OUTGOING:
                return Answer(raw)

    def probe(self, ntick=None, destination=GROUP):
        """Sends a probe and returns its answer; what comes before the answer is dropped."""
        return self.until_probe(ntick, destination)[-1]

    def until_probe(self, ntick=None, destination=GROUP):
        """Sends a probe and returns every frame up to its answer, the answer last.

        The agent does one thing after the other, so what is not among them was never sent: the
        way to show without waiting that something goes unanswered.
        """
        if ntick is None:
            self._ntick += 1
            ntick = self._ntick
        self.command("probe", "probe", {"ntick": ntick}, destination)
        answers = []
        while True:
            answers.append(self.receive())
            text = answers[-1].text
            if b'"cmd":"answer"' in text and f'"ntick":{ntick}}}'.encode() in text:
                return answers
