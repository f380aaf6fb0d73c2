# SPDX-License-Identifier: Apache-2.0
"""A process in the agent's place that ignores SIGTERM: stuck_holder.py READY [--attach]
[--silent SECONDS [--child]].

--attach makes it one of the switch's processes, which a restart has to end. --silent makes it the
holder of the agent's client number that was at its event loop SECONDS ago, --child one that waits
for a program it started. It makes the file READY when it is all that.
"""

import argparse
import fcntl
import os
import signal
import socket
import subprocess
import time

LOCK = "/var/run/morva/client-23.lock"
HAL = "/var/run/morva/hal.sock"


def attach():
    with socket.socket(socket.AF_UNIX) as hal:
        hal.connect(HAL)
        hal.sendall(b'{"mdl":"hal","cmd":"init","data":{"client":99}}')
        hal.shutdown(socket.SHUT_WR)
        assert hal.recv(100) == b'{"ret":0}'


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("ready")
    parser.add_argument("--attach", action="store_true")
    parser.add_argument("--silent", type=int)
    parser.add_argument("--child", action="store_true")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    if options.attach:
        attach()
    if options.silent is not None:
        lock = os.open(LOCK, os.O_RDWR | os.O_CREAT, 0o640)
        fcntl.flock(lock, fcntl.LOCK_EX)
        seconds = int(time.clock_gettime(time.CLOCK_MONOTONIC)) - options.silent
        os.pwrite(lock, f"{os.getpid():10} {seconds:20}\n".encode(), 0)
    if options.child:
        subprocess.Popen(["sleep", "1000"])
    with open(options.ready, "w", encoding="ascii"):
        pass
    while True:
        signal.pause()


if __name__ == "__main__":
    main()
