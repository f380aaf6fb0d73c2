# SPDX-License-Identifier: Apache-2.0
"""The table of capabilities: it is what the tests say, and its maker reads them rightly."""

import pathlib
import subprocess
import sys

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]

CXX = """\
// SPDX-License-Identifier: Apache-2.0
//
// Lamps: how they are lit, and
// how they go out. Nothing else.
//
// A second paragraph.
#include "lamp.h"

TEST_F(LampTest, IsDarkAtFirst) {
}

// ----------------------------------------
// Light & <shade> | more

TEST_P(LampDeathTest,
       BreaksAtLast) {
  // TEST_F(LampTest, IsNoTest)
}
TEST(Lamp, Shines) {}
"""

PYTHON = '''\
# SPDX-License-Identifier: Apache-2.0
"""The whole house

by night."""

import pytest


def helper_test_no():
    pass


@pytest.mark.parametrize("room", [1, 2])
def test_every_room_is_dark(room):
    pass


# ---------------------------------------
# Morning


class TestSun:
    def test_it_rises(self):
        pass
'''

FUZZER = """\
// SPDX-License-Identifier: Apache-2.0
//
// A lamp that is thrown at the wall.
#include "lamp.h"
"""

DOCUMENT = """\

## The agent, on a fake switch

### Lamps

[lamp_test.cpp](../tests/unit/lamp_test.cpp): Lamps: how they are lit, and how they go out. Nothing else.

| Capability | Shown by |
|---|---|
| Lamps | `LampTest.IsDarkAtFirst` |
| Light & &lt;shade> \\| more | `LampDeathTest.BreaksAtLast` *(cases)*<br>`Lamp.Shines` |

## Input of every kind, fuzzed

### A lamp that is thrown at the wall

[lamp_fuzz.cpp](../tests/fuzz/lamp_fuzz.cpp): A lamp that is thrown at the wall.

| Capability | Shown by |
|---|---|
| A lamp that is thrown at the wall | fuzzer `lamp` |

## tests/house

### The whole house

[test_house.py](../tests/house/test_house.py): The whole house

| Capability | Shown by |
|---|---|
| The whole house | `test_every_room_is_dark` *(cases)* |
| Morning | `test_it_rises` |
"""


def run(*arguments):
    return subprocess.run(
        [sys.executable, str(TOP / "script/capabilities"), *map(str, arguments)],
        capture_output=True,
        text=True,
        check=False,
    )


@pytest.fixture
def tree(tmp_path):
    files = {
        "unit/lamp_test.cpp": CXX,
        "fuzz/lamp_fuzz.cpp": FUZZER,
        "house/test_house.py": PYTHON,
    }
    for path, text in files.items():
        file = tmp_path / "tests" / path
        file.parent.mkdir(parents=True)
        file.write_text(text, encoding="utf-8")
    return tmp_path


def test_the_committed_table_is_what_the_tests_say():
    result = run("--check")
    assert result.returncode == 0, result.stderr


def test_every_kind_of_test_is_found_under_its_section(tree):
    assert run("--tree", tree).returncode == 0
    text = (tree / "docs/capabilities.md").read_text(encoding="utf-8")
    assert text[text.index("\n## ") :] == DOCUMENT


def test_a_table_that_was_just_written_is_current(tree):
    run("--tree", tree)
    result = run("--tree", tree, "--check")
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


@pytest.mark.parametrize(
    "old, new",
    [
        ("IsDarkAtFirst", "IsBrightAtFirst"),
        ("TEST(Lamp, Shines) {}\n", ""),
        ("Light & ", "Dark & "),
        ("Lamps: ", "Bulbs: "),
    ],
)
def test_a_change_of_the_tests_makes_the_table_stale(tree, old, new):
    run("--tree", tree)
    (tree / "tests/unit/lamp_test.cpp").write_text(CXX.replace(old, new), encoding="utf-8")
    result = run("--tree", tree, "--check")
    assert result.returncode == 1
    assert result.stderr.startswith("docs/capabilities.md is not what the tests say")


def test_a_change_of_the_table_makes_it_stale(tree):
    run("--tree", tree)
    table = tree / "docs/capabilities.md"
    table.write_text(table.read_text(encoding="utf-8") + "| More | |\n", encoding="utf-8")
    assert run("--tree", tree, "--check").returncode == 1


def test_a_missing_table_is_stale_and_stays_missing(tree):
    assert run("--tree", tree, "--check").returncode == 1
    assert not (tree / "docs").exists()


@pytest.mark.parametrize(
    "path, text",
    [
        ("unit/bare_test.cpp", "// SPDX-License-Identifier: Apache-2.0\n#include <a>\nTEST(A, B) {}\n"),
        ("house/test_bare.py", "# SPDX-License-Identifier: Apache-2.0\ndef test_a():\n    pass\n"),
        ("house/test_broken.py", '"""Broken."""\ndef test_a(:\n'),
    ],
)
def test_a_file_that_does_not_say_what_it_shows_is_refused(tree, path, text):
    (tree / "tests" / path).write_text(text, encoding="utf-8")
    result = run("--tree", tree)
    assert result.returncode == 1
    assert pathlib.Path(path).name in result.stderr
    assert not (tree / "docs").exists()
