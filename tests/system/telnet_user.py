# SPDX-License-Identifier: Apache-2.0
"""An operator at a terminal: runs a program on a pseudo-terminal, types, and waits for answers.

    telnet_user.py STEPS COMMAND ...

STEPS is a JSON list of [keys, awaited]: the keys are typed, and the step is over when the text since
then ends in `awaited` ("" waits for the program's end). Prints the texts of the steps as a JSON list;
exit status 1 when one does not come, with what came instead on standard error.
"""

import json
import os
import pty
import select
import sys
import time

STEP_SECONDS = 30.0


def read_to(terminal, awaited):
    """The text up to `awaited`, and whether it came."""
    text = b""
    deadline = time.monotonic() + STEP_SECONDS
    while time.monotonic() < deadline:
        if not select.select([terminal], [], [], 0.1)[0]:
            continue
        try:
            part = os.read(terminal, 65536)
        except OSError:  # the program has ended
            part = b""
        text += part
        if awaited and text.endswith(awaited):
            return text, True
        if not part:
            return text, not awaited
    return text, False


def main():
    steps = json.loads(sys.argv[1])
    pid, terminal = pty.fork()
    if pid == 0:
        os.environ["TERM"] = "xterm"
        os.execvp(sys.argv[2], sys.argv[2:])
    texts = []
    for keys, awaited in steps:
        os.write(terminal, keys.encode("latin-1"))
        text, came = read_to(terminal, awaited.encode("latin-1"))
        texts.append(text.decode("latin-1"))
        if not came:
            print(f"{awaited!r} did not come after {keys!r}: {text!r}", file=sys.stderr)
            return 1
    print(json.dumps(texts))
    return 0


if __name__ == "__main__":
    sys.exit(main())
