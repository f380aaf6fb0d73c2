# SPDX-License-Identifier: Apache-2.0
"""What the programs say of themselves with --help, for the tests of manual pages and completions."""

import functools
import os
import pathlib
import re
import subprocess

TOP = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = pathlib.Path(os.environ.get("QEL_BUILD_DIR") or TOP / "build/dev") / "bin"


@functools.cache
def help_of(program, *command):
    argv = [str(PROGRAMS / program), *command, "--help"]
    return subprocess.run(argv, check=True, capture_output=True, text=True).stdout


def section(text, title):
    """The lines of the section `title`, without their continuations."""
    lines = text.partition(f"\n{title}:\n")[2].split("\n\n")[0].split("\n")
    return [line.strip() for line in lines if re.match(r"  \S", line)]


def options_of(program, *command):
    """Its options, as a set: {"-h", "--help", ...}."""
    words = [line.split()[0] for line in section(help_of(program, *command), "Options")]
    return {name for word in words for name in word.split(",")}


def commands_of(program, *command):
    """Its commands by their full names: ["port", "port enable", ...]; families come first."""
    found = []
    for line in section(help_of(program, *command), "Subcommands"):
        name = (*command, line.split()[0])
        found += [" ".join(name), *commands_of(program, *name)]
    return found


def leaves_of(program):
    """The commands that are no families."""
    return [name for name in commands_of(program) if not commands_of(program, *name.split())]
