# SPDX-License-Identifier: Apache-2.0
"""What the documents say of the command shell, beside what a switch's shell lists and its sources read:
the commands of every level, the keys, the bounds."""

import re

import pytest

from helptext import TOP
from labkit import PYTHON, Lab

DOCUMENT, PAGE = "docs/platform-linux.md", "packaging/man/qel.8"
# How each level is reached; the shell's `list` stands there.
LEVELS = {
    "view": [],
    "enable": ["enable"],
    "configuration": ["enable", "configure terminal"],
    "interface": ["enable", "configure terminal", "interface ge1"],
}
CLIENT = (
    "import socket, sys\n"
    "s = socket.socket(socket.AF_UNIX); s.connect('/var/run/qel.vty'); s.settimeout(30)\n"
    "s.sendall(sys.argv[1].encode()); s.shutdown(socket.SHUT_WR)\n"
    "while part := s.recv(65536): sys.stdout.write(part.decode())\n"
)


def source(path):
    return (TOP / path).read_text(encoding="utf-8")


def chapter():
    """The document's chapter of the shell."""
    return source(DOCUMENT).partition("\n## The command shell\n")[2].partition("\n## ")[0]


def section():
    """The manual page's."""
    return source(PAGE).partition("\n.Ss The command shell\n")[2].partition("\n.Ss ")[0]


def table(head):
    """The rows of the table whose first column is called so, as lists of cells."""
    rows = chapter().partition(f"\n| {head} |")[2].partition("\n\n")[0].split("\n")[2:]
    return [[cell.strip() for cell in re.split(r"(?<!\\)\|", row)[1:-1]] for row in rows]


def quoted(cell):
    return re.findall(r"`([^`]+)`", cell.replace("\\|", "|"))


@pytest.fixture(scope="module")
def listed():
    """What `list` shows at each level."""
    with Lab() as lab:

        def commands(way):
            lines = "".join(f"{line}\n" for line in [*way, "list"])
            # Such a session has no echo: the prompts stand before the first line of the list.
            return re.findall(r"^(?:\S+[>#] )*  (\S.*)$", lab.switch(PYTHON, "-c", CLIENT, lines).stdout, re.M)

        return {level: commands(way) for level, way in LEVELS.items()}


def test_the_document_has_the_commands_of_every_level(listed):
    said = {level: [] for level in LEVELS}
    for commands, levels, what in table("command"):
        assert what
        for level in LEVELS if levels == "all" else levels.split(", "):
            said[level] += quoted(commands)
    for level, commands in listed.items():
        assert len(commands) > 5
        assert sorted(said[level]) == sorted(commands), level


def test_the_manual_page_has_every_command(listed):
    explained = re.findall(r"^\.It Ic (.*)$", section(), re.M)
    assert sorted(explained) == sorted({command for commands in listed.values() for command in commands})


def test_the_levels_are_reached_as_the_document_says():
    ways = {level: quoted(way) for level, _, way in table("level")}
    assert list(ways) == list(LEVELS)
    assert ways["configuration"] == ["configure terminal"] and ways["enable"] == ["enable"]


@pytest.mark.parametrize("text", [chapter, section])
def test_every_key_of_the_editor_is_explained(text):
    read = set(re.findall(r"case control\('([A-Z])'\):", source("platform/linux/vty_editor.cpp")))
    explained = set(re.findall(r"\bCtrl-([A-Z])\b", text()))
    # Those that Tab and Enter send.
    assert read - {"I", "J", "M"} == explained


def test_the_bounds_are_those_of_the_sources():
    header = source("platform/linux/vty_internal.h") + source("platform/linux/vty_editor.h")

    def bound(name):
        return int(re.search(rf"\b{name} = (\d+);", header).group(1))

    idle = bound("kIdleSecondsDefault") // 60
    sessions, history = bound("kSessionMaximum"), bound("kHistoryMaximum")
    for text in (chapter().replace("\n", " "), section().replace("\n", " ")):
        assert re.search(rf"\b{sessions} sessions\b", text)
        assert re.search(rf"\b{idle} minutes\b", text)
        assert re.search(rf"\b{history} lines\b", text)
    assert f"at most {bound('kMaximum')} bytes" in chapter().replace("\n", " ")
