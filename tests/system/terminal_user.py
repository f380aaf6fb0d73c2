# SPDX-License-Identifier: Apache-2.0
"""A person at a terminal: runs a program on one, waits for texts, presses keys, sends signals.

As a program (inside a lab) it takes one JSON argument

    {"columns":80,"rows":24,"argv":[...],"steps":[["wait for this","then press this"],...],"seconds":20}

and prints {"status":...,"output":...}; a step whose second part is "signal:TERM" sends that signal,
"resize:100x30" changes the window. As a module it has `Terminal`, which shows what such output leaves on the
screen."""

import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import sys
import termios
import time


class Terminal:
    """As much of a terminal as qelctl uses."""

    TOKEN = re.compile(r"\x1b\[(\??)([0-9;]*)([A-Za-z])|([\r\n])|([^\x1b\r\n]+)", re.DOTALL)

    def __init__(self, columns, rows):
        self.columns, self.rows = columns, rows
        self.normal = [""] * rows
        self.lines = self.normal
        self.row = self.column = 0
        self.cursor_visible = True
        self.alternate = False

    def feed(self, text):
        position = 0
        while position < len(text):
            found = self.TOKEN.match(text, position)
            assert found, f"not understood: {text[position:position + 20]!r}"
            position = found.end()
            private, numbers, command, line_end, plain = found.groups()
            if plain is not None:
                self._write(plain)
            elif line_end == "\r":
                self.column = 0
            elif line_end == "\n":
                self._line_feed()
            else:
                self._command(private, numbers, command)
        return self

    def _write(self, plain):
        assert all(c.isprintable() for c in plain), f"control characters: {plain!r}"
        line = self.lines[self.row].ljust(self.column)
        self.lines[self.row] = line[: self.column] + plain + line[self.column + len(plain) :]
        self.column += len(plain)
        assert self.column <= self.columns, f"wraps: {self.lines[self.row]!r}"

    def _line_feed(self):
        self.row += 1
        if self.row == self.rows:
            assert not self.alternate, "the view scrolled"
            self.lines.pop(0)
            self.lines.append("")
            self.row -= 1

    def _command(self, private, numbers, command):
        number = int(numbers.split(";")[0] or 0)
        if private:
            self._mode(number, command == "h")
        elif command == "H":
            self.row = self.column = 0
        elif command == "A":
            self.row = max(0, self.row - max(1, number))
        elif command == "K":
            self.lines[self.row] = self.lines[self.row][: self.column]
        elif command == "J":
            first = 0 if number == 2 else self.row + 1
            if number != 2:
                self.lines[self.row] = self.lines[self.row][: self.column]
            for row in range(first, self.rows):
                self.lines[row] = ""
        else:
            assert command == "m", f"command {command}"

    def _mode(self, number, on):
        if number == 25:
            self.cursor_visible = on
        elif number == 1049:
            self.alternate = on
            self.lines = [""] * self.rows if on else self.normal
            self.row = self.column = 0

    def text(self):
        return "\n".join(line.rstrip() for line in self.lines).rstrip("\n")


def act(descriptor, pid, action):
    if action.startswith("signal:"):
        os.kill(pid, getattr(signal, "SIG" + action[7:]))
    elif action.startswith("resize:"):
        columns, rows = action[7:].split("x")
        resize(descriptor, int(columns), int(rows))
    else:
        os.write(descriptor, action.encode())


def resize(descriptor, columns, rows):
    fcntl.ioctl(descriptor, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))


def run(plan):
    ready, go = os.pipe()
    pid, descriptor = pty.fork()
    if pid == 0:
        os.close(go)
        os.read(ready, 1)  # until the window has its size
        os.execvp(plan["argv"][0], plan["argv"])
    os.close(ready)
    resize(descriptor, plan["columns"], plan["rows"])
    os.close(go)
    output, seen, steps = b"", 0, list(plan["steps"])
    deadline = time.monotonic() + plan.get("seconds", 20)
    while True:
        readable, _, _ = select.select([descriptor], [], [], 0.05)
        if readable:
            try:
                part = os.read(descriptor, 65536)
            except OSError:
                part = b""
            if not part:
                break
            output += part
        while steps and (at := output.find(steps[0][0].encode(), seen)) >= 0:
            seen = at + len(steps[0][0].encode())
            act(descriptor, pid, steps.pop(0)[1])
        if time.monotonic() > deadline:
            os.kill(pid, signal.SIGKILL)
            break
    _, status = os.waitpid(pid, 0)
    settings = termios.tcgetattr(descriptor)
    return {
        "status": os.waitstatus_to_exitcode(status),
        "output": output.decode("utf-8", "replace"),
        "steps_left": len(steps),
        "echo": bool(settings[3] & termios.ECHO and settings[3] & termios.ICANON),
    }


if __name__ == "__main__":
    print(json.dumps(run(json.loads(sys.argv[1]))))
