# SPDX-License-Identifier: Apache-2.0
"""A module of the switch that behaves badly: module_double.py MODULE BEHAVIOUR [TEXT].

It runs inside the switch and serves the module's socket from then on, whoever served it before;
test_modules.py puts the old socket aside first. It prints "ready" when it listens, and ends when
the lab does or it is told to.
"""

import os
import socket
import sys
import time


def read_request(client):
    while client.recv(65536):
        pass


def closes(client, _):
    client.close()


def answers(client, text):
    """Answers every request with that text."""
    read_request(client)
    client.sendall(text.encode("utf-8", "surrogateescape"))


def floods(client, _):
    """Answers with 10 MB of perfectly good JSON."""
    read_request(client)
    row = b'{"name":"ge1","enable":0,"supply_priority":7,"tx_sum":1,"rx_sum":1},'
    try:
        client.sendall(b'{"ret":0,"data":[' + row * (10_000_000 // len(row)) + b"{}]}")
    except BrokenPipeError:
        pass


def is_silent(client, _):
    """Takes the request and keeps the connection for ever."""
    read_request(client)
    kept.append(client)


def trickles(client, _):
    """Answers a byte at a time and never comes to an end."""
    read_request(client)
    try:
        client.sendall(b'{"ret":0,"data":[')
        while True:
            client.sendall(b" ")
            time.sleep(0.02)
    except BrokenPipeError:
        pass


def does_not_read(client, _):
    """Accepts, and never takes the request."""
    kept.append(client)


def dies(client, _):
    """Takes the request, says half a sentence, and is gone; its socket stays behind, without anybody."""
    read_request(client)
    client.sendall(b'{"ret":0,"data":[{"name":"ge1",')
    os._exit(1)


def stutters(client, _):
    """Answers as the module would that was put aside, but in small pieces with pauses between."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as module:
        module.connect(PATH.format(sys.argv[1]) + ".kept")
        while part := client.recv(65536):
            module.sendall(part)
        module.shutdown(socket.SHUT_WR)
        answer = b""
        while part := module.recv(65536):
            answer += part
    for at in range(0, len(answer), PIECE):
        client.sendall(answer[at : at + PIECE])
        time.sleep(0.002)


PATH = "/var/run/morva/{}.sock"
PIECE = 200
kept = []
BEHAVIOURS = {
    one.__name__: one
    for one in (closes, answers, floods, is_silent, trickles, does_not_read, dies, stutters)
}


def main(module, behaviour, text=""):
    path = PATH.format(module)
    if os.path.exists(path):
        os.unlink(path)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    if behaviour == "never_accepts":
        listener.listen(0)
        filler = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        filler.connect(path)  # the queue is full from now on
        kept.append(filler)
    else:
        listener.listen(16)
    print("ready", os.getpid(), flush=True)
    sys.stdout.close()
    os.close(1)
    while behaviour == "never_accepts":
        time.sleep(3600)
    while True:
        client, _ = listener.accept()
        BEHAVIOURS[behaviour](client, text)
        if client not in kept:
            client.close()


if __name__ == "__main__":
    main(*sys.argv[1:])
