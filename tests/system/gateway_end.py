# SPDX-License-Identifier: Apache-2.0
"""The tests' hand inside a lab: it runs as the lab's command and does what labkit.py asks.

Descriptor 3 is a stream socket. A request is a line of JSON, and so is the answer; the answer to
"socket" carries an open socket beside its line. The test that asked holds the socket from then on:
a socket keeps the network namespace that it was made in.
"""

import ctypes
import json
import os
import socket
import subprocess
import sys

CONTROL_FD = 3
CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def run(request):
    result = subprocess.run(
        request["argv"],
        input=request["input"].encode("utf-8", "surrogateescape"),
        capture_output=True,
        timeout=request["timeout"],
        check=False,
    )
    return {
        "status": result.returncode,
        "stdout": result.stdout.decode("utf-8", "surrogateescape"),
        "stderr": result.stderr.decode("utf-8", "surrogateescape"),
    }


def enter_network(path):
    descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    try:
        if _libc.setns(descriptor, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns " + path)
    finally:
        os.close(descriptor)


def make_socket(request):
    """A socket in the network of process `pid`, or in the gateway's when that is 0."""
    own = f"/proc/{os.getpid()}/ns/net"
    home = os.open(own, os.O_RDONLY | os.O_CLOEXEC)
    try:
        if request["pid"]:
            enter_network(f"/proc/{request['pid']}/ns/net")
        return socket.socket(request["family"], request["type"], request["protocol"])
    finally:
        if request["pid"]:
            _libc.setns(home, CLONE_NEWNET)
        os.close(home)


def answer(control, request):
    if request["op"] == "socket":
        with make_socket(request) as made:
            socket.send_fds(control, [b'{"ok": true}\n'], [made.fileno()])
        return
    reply = {"environment": dict(os.environ)} if request["op"] == "environment" else run(request)
    control.sendall(json.dumps(reply).encode() + b"\n")


def main():
    control = socket.socket(fileno=CONTROL_FD)
    for line in control.makefile("rb"):
        try:
            answer(control, json.loads(line))
        except (OSError, subprocess.TimeoutExpired) as error:
            control.sendall(json.dumps({"error": str(error)}).encode() + b"\n")


if __name__ == "__main__":
    sys.exit(main())
