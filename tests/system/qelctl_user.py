# SPDX-License-Identifier: Apache-2.0
"""qelctl in the hands of a test: one command, several switches, or a terminal."""

import json
import pathlib
import re

from labkit import BOARDS, PYTHON
from terminal_user import Terminal

DESK = "0a:1b:2c:3d:4e:10"  # the MAC of the board with 10 ports
TERMINAL_USER = pathlib.Path(__file__).with_name("terminal_user.py")


def quiet_board(directory, base="ge10.json", **changes):
    """The board `base` without traffic, so that its figures stand still; returns its path."""
    board = json.loads((BOARDS / base).read_text(encoding="utf-8"))
    for port in board["ports"]:
        port["rates"] = {"tx": 0, "rx": 0}
    board.update(changes)
    path = pathlib.Path(directory) / "quiet.json"
    path.write_text(json.dumps(board), encoding="utf-8")
    return str(path)


class Qelctl:
    def __init__(self, lab, *shared, switch=None):
        """`shared` is put before the arguments of every command. `switch`: the MAC of the one meant
        where a command names none, which saves each that changes something the look for others."""
        self.lab = lab
        self.shared = shared
        self.environment = [f"QELCTL_SWITCH={switch}"] if switch else []

    def __call__(self, *arguments, status=0, columns=None, environment=(), **options):
        """Runs `qelctl arguments...` in the gateway's network; it must end with `status`."""
        argv = ["env", *self.environment, *environment]
        if columns:
            argv.append(f"COLUMNS={columns}")
        argv += ["qelctl", *self.shared, *map(str, arguments)]
        result = self.lab.run(*argv, check=False, **options)
        assert result.returncode == status, f"{argv}: {result}"
        assert "Sanitizer" not in result.stderr and "runtime error" not in result.stderr, result
        return result

    def json(self, *arguments, **options):
        """The objects that `qelctl --json arguments...` prints, one for each line."""
        output = self("--json", *arguments, **options).stdout
        return [json.loads(line) for line in output.splitlines()]

    def on_terminal(self, *arguments, steps=(), columns=80, rows=24, seconds=30, shown_on=None, environment=()):
        """Runs it on a terminal. Returns (status, the Terminal, all that was printed). `shown_on`:
        (columns, rows) of the Terminal that shows it all, for a window that grows."""
        plan = {
            "columns": columns,
            "rows": rows,
            "seconds": seconds,
            "steps": [list(step) for step in steps],
            "argv": ["env", "-u", "COLUMNS", "TERM=xterm", *self.environment, *environment]
            + ["qelctl", *self.shared, *arguments],
        }
        result = self.lab.run(PYTHON, str(TERMINAL_USER), json.dumps(plan), timeout=seconds + 10)
        told = json.loads(result.stdout)
        assert told["steps_left"] == 0, f"never seen: {plan['steps']} in {told['output']!r}"
        assert told["echo"], "the terminal was left raw"
        return told["status"], Terminal(*(shown_on or (columns, rows))).feed(told["output"]), told["output"]


def without_colour(text):
    return re.sub(r"\x1b\[[0-9;]*m", "", text)
