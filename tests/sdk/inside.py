# SPDX-License-Identifier: Apache-2.0
"""inside.py COMMAND ...: runs the agent COMMAND on a wire of its own and probes it once.

Runs in fresh user, network and mount namespaces, see test_sdk.py. Prints one JSON object: "answer",
the frame that came back, in hexadecimal; "stderr" and "status" of the agent; "files" in /run.
"""

import json
import os
import socket
import subprocess
import sys
import time

SWITCH = "0a:1b:2c:3d:4e:77"
PATIENCE = 60.0  # seconds for the emulator to come up on a busy machine

# Group address, the gateway's own, ethertype 0x9301, the 16-byte header (73 bytes of text and 16),
# the text.
PROBE = (
    bytes.fromhex("0180c200001f 020000000001 9301 0000 babe 0059 000000000000000000000000")
    + b'{"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":12}}'
)


def lay_wire():
    for line in (
        "link set lo up",
        "link add gw0 address 02:00:00:00:00:01 mtu 2000 type veth peer name vlanif1 mtu 2000",
        f"link set vlanif1 address {SWITCH} up",
        "link set gw0 up",
        "address add 192.168.9.9/24 dev vlanif1",
    ):
        subprocess.run(["ip", *line.split()], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "none", "/run"], check=True)


def answer_to_probe(wire):
    """Probes until an answer comes, since nobody tells when the agent listens; b"" without one."""
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline:
        wire.send(PROBE)
        wire.settimeout(0.2)
        try:
            frame, address = wire.recvfrom(65535)
        except TimeoutError:
            continue
        if address[2] != socket.PACKET_OUTGOING:
            return frame
    return b""


def main():
    lay_wire()
    wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    wire.bind(("gw0", 0x9303))
    agent = subprocess.Popen(
        sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True
    )
    answer = answer_to_probe(wire)
    _, stderr = agent.communicate(timeout=PATIENCE)
    files = sorted(name for name in os.listdir("/run") if name.startswith("qel."))
    result = {"answer": answer.hex(), "stderr": stderr, "status": agent.returncode, "files": files}
    print(json.dumps(result))


if __name__ == "__main__":
    main()
