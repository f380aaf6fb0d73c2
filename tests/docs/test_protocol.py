# SPDX-License-Identifier: Apache-2.0
"""docs/protocol.md is true: the agent answers its examples as it says, the others come from the unit
tests, and every message has one."""

import re

import pytest

import wire_examples as examples
from gateway import GROUP, frame
from helptext import TOP
from labkit import Lab
from literals import unit_test_texts

TEXT = examples.DOCUMENT.read_text(encoding="utf-8")


def lines_of(kind):
    found = re.findall(rf"^```{kind}\n(.*?)^```$", TEXT, re.MULTILINE | re.DOTALL)
    return [line for block in found for line in block.splitlines()]


@pytest.fixture(scope="module")
def exchange():
    with Lab("--board", str(examples.BOARD), environment={"LAB_RESPAWN": "1"}) as lab:
        yield examples.Exchange(lab)


def name_of(lines):
    return "".join(re.findall(r'"subcmd":"(\w+)"', lines[0])) or "event"


# In the order of the document: later examples build on earlier ones.
@pytest.mark.parametrize("lines", examples.blocks(TEXT), ids=name_of)
def test_the_agent_answers_as_the_document_says(exchange, lines):
    for action, expected in examples.steps(lines):
        came = [examples.comparable(line) for line in exchange.do(action, expected)]
        assert came == [examples.comparable(line) for line in expected], action


def test_the_frame_is_that_of_a_probe():
    probe = b'{"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":12}}'
    shown = bytes.fromhex("".join(lines_of("text frame")))
    assert shown == frame(GROUP, bytes.fromhex("020000000001"), probe)


@pytest.mark.parametrize("line", lines_of("text unit-test"))
def test_other_examples_stand_in_the_unit_tests(line):
    text = line.replace("\\n", "\n").replace("\\t", "\t")
    assert any(text == one.rstrip("\0") for one in unit_test_texts())


def names(file, pattern):
    return set(re.findall(pattern, (TOP / "qel" / file).read_text(encoding="utf-8")))


def test_every_message_to_the_switch_has_an_example():
    known = names("qel_cmd.cpp", r'command_row\{"(\w+)"') | {"config_download", "firm_download"}
    shown = {
        name
        for line in lines_of("wire")
        if line.startswith("> ")
        for name in re.findall(r'"subcmd":"(\w+)"', line)
    }
    assert len(known) == 22 and shown == known


def test_every_local_event_has_a_row_and_an_example():
    known = names("qel_ipc.cpp", r'event_row\{"(\w+)"')
    rows = set(re.findall(r"`(\w+)`", " ".join(re.findall(r"^\| (`.*?) \|", TEXT, re.MULTILINE))))
    shown = {name for line in lines_of("wire") for name in re.findall(r'"type":"(\w+)"', line)}
    assert known <= rows
    assert known <= shown


def test_every_message_of_the_switch_has_an_example():
    """Each "subcmd" and "type" that the agent's sources write stands in an example."""
    builder = r"\b(?:start|qel_json_\w*head|chunk_answer|wrap|qel_json_pkt\w*)\(\w+, "
    written = set()
    for file in (TOP / "qel").glob("*.cpp"):
        source = file.read_text(encoding="utf-8")
        calls = re.findall(builder + r'((?:"\w+"(?:, )?)+)', source)
        written |= set(re.findall(r"\w+", " ".join(calls)))
    assert {"answer", "pong", "sys_info", "ports_link", "config_upload", "firm_download"} <= written
    assert {"joinreq", "upgrade_req"} <= written
    example = "\n".join(lines_of("wire") + lines_of("text unit-test"))
    missing = [name for name in sorted(written) if f'":"{name}"' not in example]
    assert missing == []
