# SPDX-License-Identifier: Apache-2.0
"""Every command line in the documents is run, and ends well; those that are not say why."""

import json
import os
import re
import subprocess

import pytest

from commands import LAB, MACHINE, NETWORK, SWITCH, blocks, blocks_of, documents, typed
from helptext import TOP
from labkit import PYTHON, Lab, own_environment

BLOCKS = blocks()
SECONDS = 60.0
BASH = ["bash", "-euo", "pipefail", "-c"]
OWN_NETWORK = ["unshare", "--user", "--map-root-user", "--net", "--mount"]
# The documents' scripts take what they need from here; nobody waits for a demo to be read.
ENVIRONMENT = {"DEMO_PAUSE": "0"}


@pytest.fixture(scope="module")
def lab():
    with Lab(environment={"LAB_RESPAWN": "1"}) as running:
        yield running


def run_here(home, *argv):
    """Runs a program outside of the lab; what it leaves at home is not ours."""
    environment = own_environment({**ENVIRONMENT, "HOME": str(home)})
    options = {"stdin": subprocess.DEVNULL, "capture_output": True, "text": True, "check": False}
    return subprocess.run(argv, cwd=TOP, env=environment, timeout=2 * SECONDS, **options)


def run_in(lab, block):
    given = [f"{key}={value}" for key, value in ENVIRONMENT.items()]
    argv = ["env", "-C", str(TOP), *given, *BASH, block.script]
    run = {LAB: lab.run, SWITCH: lab.switch}[block.place]
    return run(*argv, timeout=SECONDS, check=False)


def type_in(lab, block):
    program, steps = typed(block.script)
    argv = [PYTHON, str(TOP / "tests/system/telnet_user.py"), json.dumps(steps)]
    return lab.run(*argv, *lab.switch_prefix(), *program.split(), timeout=SECONDS, check=False)


@pytest.mark.parametrize("block", BLOCKS, ids=repr)
def test_commands_run(block, request, tmp_path):
    assert not block.fault, f"{block}: {block.fault}"
    if not block.script:
        pytest.skip(block.reason)
    if block.kind == "console":
        result = type_in(request.getfixturevalue("lab"), block)
    elif block.place in (LAB, SWITCH):
        result = run_in(request.getfixturevalue("lab"), block)
    elif block.place == MACHINE:
        result = run_here(tmp_path, *BASH, block.script)
    else:
        assert block.place == NETWORK
        result = run_here(tmp_path, *OWN_NETWORK, *BASH, f"{block.setup}\n{block.script}")
    assert result.returncode == 0, f"{block}:\n{result.stdout[-3000:]}\n{result.stderr[-3000:]}"


def test_few_are_not_run():
    left_out = [block for block in BLOCKS if not block.script]
    assert len(BLOCKS) >= 15
    assert len(left_out) * 2 <= len(BLOCKS), left_out


def test_commands_stand_in_blocks_that_are_run():
    """A block of commands is marked as one: none without a language begins with a program."""
    ours = re.compile(r"(?:[#$] )?(?:sudo|script/\w+|qelctl|morvactl|systemctl|apt|cmake|ctest) ")
    for name in documents():
        language = None
        for line in (TOP / name).read_text(encoding="utf-8").split("\n"):
            if line.startswith("```"):
                language = line[3:] if language is None else None
            elif language in ("", "text", "bash", "shell") or line.startswith("    "):
                assert not ours.match(line.strip()), f"{name}: {line}"


@pytest.mark.parametrize("name", documents())
def test_scripts_that_are_named_exist(name):
    text = (TOP / name).read_text(encoding="utf-8")
    for script in set(re.findall(r"(?<![\w./-])(script/[a-z-]+)(?![\w/.-])", text)):
        assert os.access(TOP / script, os.X_OK), script


@pytest.mark.parametrize(
    ("text", "fault"),
    [
        ("```sh\nqelctl show\n```", "run where?"),
        ("<!-- run somewhere -->\n```sh\nqelctl show\n```", "run where?"),
        ("<!-- not run: no -->\n```sh\nqelctl show\n```", "why not?"),
        ("<!-- run in the lab -->\n```sh\napt purge qel\n```", "not on the machine"),
        ("<!-- run on this machine -->\n```sh\nscript/test\n```", "not on the machine"),
        ("<!-- run in the lab -->\n```sh\nqelctl show\n```", ""),
    ],
)
def test_only_what_says_where_and_harms_nothing_is_run(text, fault):
    [block] = blocks_of("x.md", text)
    assert block.fault.startswith(fault) and bool(block.fault) == bool(fault)
