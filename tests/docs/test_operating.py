# SPDX-License-Identifier: Apache-2.0
"""docs/operating.md names log lines, files and limits that the programs have."""

import re

import pytest

from helptext import TOP
from literals import texts_of, unescaped

TEXT = (TOP / "docs/operating.md").read_text(encoding="utf-8")


def rows(heading):
    """The first cells of the tables under a heading."""
    section = TEXT.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    cells = re.findall(r"^\| (`.*?`) \|", section, re.MULTILINE)
    return [code for cell in cells for code in re.findall(r"`([^`]+)`", cell)]


@pytest.fixture(scope="module")
def texts():
    found = set()
    for folder in ("qel", "platform/linux"):
        for file in [*(TOP / folder).rglob("*.cpp"), *(TOP / folder).rglob("*.h")]:
            found |= set(texts_of(file.read_text(encoding="utf-8")))
    return found


@pytest.mark.parametrize("line", rows("Log lines"))
def test_log_lines_are_the_programs_own(texts, line):
    assert unescaped(line) in {text.strip() for text in texts} | texts


def test_files_are_the_programs_own(texts):
    named = [path for path in rows("Files") if path.startswith("/") and not path.startswith("/etc")]
    assert len(named) > 5
    programs = [file.read_text() for file in (TOP / "platform/linux/programs").iterdir()]
    parts = {part for text in [*texts, *programs] for part in re.findall(r"[\w.]+", text)}
    for path in named:
        assert path.rstrip("/").split("/")[-1].split("*")[0] in parts, path
