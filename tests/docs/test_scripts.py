# SPDX-License-Identifier: Apache-2.0
"""The scripts say what they do when asked, and start nothing on a command line that they do not know."""

import os
import re
import signal
import subprocess

import pytest

from helptext import TOP
from labkit import own_environment

SCRIPTS = sorted(path.name for path in (TOP / "script").iterdir() if path.is_file())
SECONDS = 60.0


def run(*argv):
    """Runs a script, and ends it with all that it started where it does not end by itself."""
    argv = [str(each) for each in argv]
    # What it begins to build or to install goes wrong at once.
    environment = own_environment({"QEL_BUILD_DIR": "/no/such/build"})
    options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
    with subprocess.Popen(argv, env=environment, start_new_session=True, **options) as process:
        try:
            output = process.communicate(timeout=SECONDS)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGTERM)
            raise
    return process.returncode, *output


# ---------------------------------------------------------------------------------------------
# Help


@pytest.mark.parametrize("name", SCRIPTS)
def test_help_begins_with_the_command_line(name):
    status, out, err = run(TOP / "script" / name, "--help")
    assert (status, err) == (0, "")
    assert f"script/{name}" in out.split("\n")[0]


# ---------------------------------------------------------------------------------------------
# Command lines that are wrong


@pytest.mark.parametrize("name", SCRIPTS)
def test_unknown_arguments_are_refused(name):
    status, out, err = run(TOP / "script" / name, "--bogus")
    assert status == 2, (out, err)
    assert name in out + err


@pytest.mark.parametrize(
    ("line", "told"),
    [
        ("bench --from", "bench: --from needs a value; see --help"),
        ("bench --quick many", "bench: unknown argument 'many'; see --help"),
        ("bench many --quick", "bench: unknown argument '--quick'; see --help"),
        ("bootstrap build more", "bootstrap: unknown argument 'more'; see --help"),
        ("build bogus", "build: unknown preset 'bogus'; see --help"),
        ("coverage qel", "coverage: unknown argument 'qel'; see --help"),
        ("demo --fast more", "demo: unknown argument 'more'; see --help"),
        ("fuzz frame soon", "fuzz: 'soon' is no number of seconds; see --help"),
        ("fuzz frame 10 more", "fuzz: unknown argument 'more'; see --help"),
        ("lint links bogus", "lint: unknown check 'bogus'; see --help"),
        ("package --no-lintian more", "package: unknown argument 'more'; see --help"),
        ("soak long", "soak: 'long' is no number of seconds; see --help"),
        ("soak 60 more", "soak: unknown argument 'more'; see --help"),
        ("test layering bogus", "test: unknown group 'bogus'; see --help"),
        ("valgrind QelTest.* more", "valgrind: unknown argument 'more'; see --help"),
    ],
    ids=lambda text: text if ":" not in text else "",
)
def test_wrong_command_lines_are_told(line, told):
    name, *arguments = line.split()
    assert run(TOP / "script" / name, *arguments) == (2, "", told + "\n")


def test_continuous_integration_runs_everything_or_nothing():
    status, out, err = run(TOP / ".ci/run", "--help")
    assert (status, out) == (2, "")
    assert "script/test --help" in err


# ---------------------------------------------------------------------------------------------
# The tour


def test_the_demo_shows_a_client_come_go_and_come_back():
    environment = own_environment({"DEMO_PAUSE": "0"})
    argv = [TOP / "script/lab", "--switches", "3", "--", TOP / "script/demo", "--in-lab"]
    done = subprocess.run(argv, env=environment, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    traps = done.stdout.partition("$ qelctl --switch core watch   (meanwhile)\n")[2].partition("\n\n")[0]
    assert re.sub(r"(?m)^\d\d:\d\d:\d\d  ", "", traps).split("\n") == [
        "qelctl: watching 1 switch; Ctrl-C ends",
        *(f"core  ge3  client {state}  00:11:22:33:44:55  192.168.1.77  UN" for state in ("ON", "OFF", "ON")),
    ]
