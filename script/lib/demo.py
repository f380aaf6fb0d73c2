# SPDX-License-Identifier: Apache-2.0
"""The part of script/demo that runs on the gateway's end of the cable: sends a probe, shows it and
its answer byte for byte, and lets qelctl do the same."""

import json
import os
import socket
import subprocess
import sys

GROUP = bytes.fromhex("0180c200001f")
TO_SWITCH, TO_GATEWAY = 0x9301, 0x9303
TEXT_OFFSET = 32
PACKET_OUTGOING = 4
ANSWER_SECONDS = 5.0


def dump(data):
    """Prints bytes sixteen to a line, with the text they spell beside them."""
    for at in range(0, len(data), 16):
        row = data[at : at + 16]
        text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in row)
        print(f"  {at:04x}  {row.hex(' '):47}  {text}")


def say(text):
    print(f"\n== {text}")


def probe(source):
    text = json.dumps(
        {"mac": source.hex(), "cmd": "probe", "subcmd": "probe", "data": {"ntick": 12}},
        separators=(",", ":"),
    ).encode()
    header = bytes.fromhex("0000babe") + (len(text) + 16).to_bytes(2, "big") + bytes(12)
    return GROUP + source + TO_SWITCH.to_bytes(2, "big") + header + text


def receive(link):
    link.settimeout(ANSWER_SECONDS)
    while True:
        frame, address = link.recvfrom(2000)
        if address[2] != PACKET_OUTGOING:
            return frame


def explain(frame):
    rows = (
        ("to", frame[0:6].hex(":")),
        ("from", frame[6:12].hex(":")),
        ("ethertype", frame[12:14].hex()),
        ("magic", frame[16:18].hex()),
        ("length", f"{int.from_bytes(frame[18:20], 'big')} (the text, its closing NUL and 16)"),
    )
    for name, value in rows:
        print(f"  {name:<10} {value}")
    message = json.loads(frame[TEXT_OFFSET:].split(b"\0", 1)[0])
    for name, value in message["data"].items():
        print(f"  {'.' + name:<12} {value}")


def main():
    link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    link.bind(("gw0", TO_GATEWAY))
    question = probe(link.getsockname()[4])
    say("a controller asks who is there: one frame of type 0x9301 to the group address")
    dump(question)
    link.send(question)
    try:
        answer = receive(link)
    except TimeoutError:
        sys.exit(f"demo: the switch did not answer within {ANSWER_SECONDS:g} s")
    say("the agent answers the sender: one frame of type 0x9303")
    dump(answer)
    say("the same, decoded")
    explain(answer)
    say("an operator types: qelctl discover")
    sys.stdout.flush()
    status = subprocess.run(["qelctl", "-i", "gw0", "discover"], check=False).returncode
    say("what the agent wrote to its log meanwhile")
    sys.stdout.flush()
    with open(os.path.join(os.environ["LAB_DIR"], "qel.log"), encoding="utf-8") as file:
        print("  " + file.read().rstrip("\n").replace("\n", "\n  "))
    say("done; `script/lab` opens a shell in the same place")
    return status


if __name__ == "__main__":
    sys.exit(main())
