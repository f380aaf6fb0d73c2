#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Sends one probe on the interface named and shows it and the first answer in bytes and in words.

Part of script/demo; written without the project's own code, so that it shows what is on the wire.
"""

import json
import socket
import sys
import time

GROUP = bytes.fromhex("0180c200001f")
TO_SWITCH, TO_GATEWAY = 0x9301, 0x9303
MESSAGE_AT = 32
SECONDS = 5.0

FIELDS = (
    (0, 6, "destination"),
    (6, 12, "source"),
    (12, 14, "ethertype"),
    (14, 16, "zero"),
    (16, 18, "magic"),
    (18, 20, "length + 16"),
    (20, 32, "zero"),
)


def show(title, frame):
    """Prints the header field by field, and the message as text."""
    print(f"{title}, {len(frame)} bytes:")
    for start, end, name in FIELDS:
        print(f"  {start:2}  {frame[start:end].hex(' '):35}  {name}")
    text = frame[MESSAGE_AT:].split(b"\0")[0].decode("utf-8", "replace")
    print(f"  {MESSAGE_AT}  {text}")


def main():
    wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    wire.bind((sys.argv[1], TO_GATEWAY))
    own = wire.getsockname()[4]
    text = json.dumps(
        {"mac": own.hex(), "cmd": "probe", "subcmd": "probe", "data": {"ntick": 1}},
        separators=(",", ":"),
    ).encode()
    header = bytes.fromhex("0000babe") + (len(text) + 16).to_bytes(2, "big") + bytes(12)
    probe = GROUP + own + TO_SWITCH.to_bytes(2, "big") + header + text
    wire.send(probe)
    show("The probe", probe)
    deadline = time.monotonic() + SECONDS
    while True:
        wire.settimeout(max(0.01, deadline - time.monotonic()))
        frame, address = wire.recvfrom(65535)
        if address[2] != socket.PACKET_OUTGOING:
            break
    print()
    show("The first answer", frame)
    print("\nIts text, decoded:")
    answer = json.loads(frame[MESSAGE_AT:].split(b"\0")[0])
    for key, value in answer["data"].items():
        print(f"  {key:10} {value}")


if __name__ == "__main__":
    main()
