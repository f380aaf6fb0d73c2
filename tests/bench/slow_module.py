# SPDX-License-Identifier: Apache-2.0
"""script/bench: a module that takes its time: slow_module.py MODULE MILLISECONDS TEXT.

Serves the module's socket inside the switch and answers every request with TEXT after so long, one
after the other. Prints "ready" when it listens.
"""

import os
import socket
import sys
import time


def main():
    module, milliseconds, text = sys.argv[1], int(sys.argv[2]), sys.argv[3].encode()
    path = f"/var/run/morva/{module}.sock"
    if os.path.exists(path):
        os.unlink(path)
    server = socket.socket(socket.AF_UNIX)
    server.bind(path)
    server.listen(64)
    print("ready", flush=True)
    while True:
        client = server.accept()[0]
        while client.recv(65536):
            pass
        time.sleep(milliseconds / 1000)
        try:
            client.sendall(text)
        except BrokenPipeError:
            pass  # the agent waits for nobody beyond its deadline
        client.close()


if __name__ == "__main__":
    main()
