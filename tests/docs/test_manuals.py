# SPDX-License-Identifier: Apache-2.0
"""The manual pages say what the programs do: every command and option of --help, every member of a
board file, every message of the protocol and every environment variable, and none besides."""

import json
import re
import shlex

import jsonschema
import pytest

from helptext import TOP, commands_of, leaves_of, options_of
from labkit import Lab

PAGES = TOP / "packaging/man"


def source(page):
    return (PAGES / page).read_text(encoding="utf-8")


def entries(page):
    """The lines `.It` of a page, without the macro."""
    return re.findall(r"^\.It (.*)$", source(page), re.MULTILINE)


def flags(text):
    """The options that a line of mdoc names: {"-h", "--help", ...}."""
    return {"-" + flag for flag in re.findall(r"\bFl (\S+)", text)}


def commands(page):
    """The commands that a page explains, with their options."""
    found = {}
    for entry in entries(page):
        words = re.match(r"Ic ([a-z0-9-]+(?: [a-z-]+)*)", entry)
        if words:
            found[words.group(1)] = flags(entry)
    return found


@pytest.mark.parametrize("program", ["qelctl", "morvactl"])
def test_every_command_and_its_options_are_explained(program):
    explained = commands(f"{program}.1")
    assert sorted(explained) == sorted(leaves_of(program))
    for name, named in explained.items():
        assert named == options_of(program, *name.split()) - {"-h", "--help"}, name


@pytest.mark.parametrize("page", ["qelctl.1", "morvad.8"])
def test_every_option_of_the_program_is_explained(page):
    lines = [entry for entry in entries(page) if entry.startswith("Fl ")]
    assert {flag for entry in lines for flag in flags(entry)} == options_of(page.split(".")[0])


def test_morvactl_has_no_options_but_help():
    assert options_of("morvactl") == {"-h", "--help"} <= flags(source("morvactl.1"))


def test_a_family_has_no_options_of_its_own():
    for program in ("qelctl", "morvactl"):
        for name in set(commands_of(program)) - set(leaves_of(program)):
            assert options_of(program, *name.split()) == {"-h", "--help"}, name


def test_the_agents_options_are_those_it_reads():
    table = (TOP / "qel/qel_main.cpp").read_text(encoding="utf-8")
    long = re.findall(r'\{"(\w+)", \w+_argument, nullptr, \'(\w)\'\}', table)
    assert long == [("daemon", "d")]
    assert flags(source("qel.8")) == {"-d", "--daemon"}


def test_every_member_of_a_board_file_is_explained():
    schema = json.loads((TOP / "platform/linux/boards/board.schema.json").read_text())
    port = schema["definitions"]["port"]
    members = [*schema["properties"], *port["properties"]]
    explained = re.findall(r"[\w$]+", " ".join(entry[3:] for entry in entries("qel-board.5")))
    assert sorted(explained) == sorted(members)


def test_every_message_of_the_protocol_is_explained():
    table = (TOP / "qel/qel_cmd.cpp").read_text(encoding="utf-8")
    names = re.findall(r'command_row\{"(\w+)"', table)
    names += re.findall(r'strcmp\(subcmd, "(\w+)"\)', table)
    explained = re.findall(r"\w+", " ".join(entry[3:] for entry in entries("qel-protocol.5")))
    assert len(names) == 23
    assert set(names) <= set(explained)


def test_every_local_event_is_named():
    table = (TOP / "qel/qel_ipc.cpp").read_text(encoding="utf-8")
    names = re.findall(r'event_row\{"(\w+)"', table)
    assert len(names) == 9
    for name in names:
        assert re.search(rf"\b{name}\b", source("qel-protocol.5")), name


@pytest.mark.parametrize(
    ("folder", "pages"),
    [("gateway", ["qelctl.1"]), ("platform/linux", ["qel.8", "morvad.8"])],
)
def test_every_environment_variable_is_explained(folder, pages):
    read = set()
    for file in (TOP / folder).rglob("*.cpp"):
        text = file.read_text(encoding="utf-8")
        read |= set(re.findall(r'(?:getenv|environment|envname|milliseconds)\("([A-Z_]+)"', text))
        read |= set(re.findall(r'"((?:MORVA|QELCTL)_[A-Z_]+)"', text))
    lines = [line for page in pages for line in entries(page) if line.startswith("Ev ")]
    explained = {name for line in lines for name in line[3:].split(" , ")}
    assert read and read == explained


def test_the_board_file_shown_makes_a_switch_and_the_commands_shown_are_good(tmp_path):
    literal = re.compile(r"^\.Bd -literal.*?\n(.*?)^\.Ed$", re.MULTILINE | re.DOTALL)
    example = literal.search(source("qel-board.5")).group(1)
    schema = json.loads((TOP / "platform/linux/boards/board.schema.json").read_text())
    jsonschema.validate(json.loads(example), schema)
    board = tmp_path / "board.json"
    board.write_text(example.replace("one-sw", "office-sw"), encoding="utf-8")
    commands = re.findall(r"^\.Dl # (qelctl .*)$", source("qelctl.1"), re.M)
    assert len(commands) == 5
    with Lab("--board", str(board)) as lab:
        for command in commands:
            # Shown, not sent: the one port of this board is not theirs.
            lab.run(*shlex.split(command.replace("-i eth1", "-i gw0")), "--dry-run")
        ports = lab.run("qelctl", "-i", "gw0", "--json", "ports").stdout
        assert [port["name"] for port in json.loads(ports)["ports"]] == ["ge1"]
