# SPDX-License-Identifier: Apache-2.0
"""The checkers of links and words find what is wrong and leave alone what is right."""

import subprocess
import sys

import pytest

from helptext import TOP


@pytest.fixture
def tree(tmp_path):
    """A folder under git in which files are written and a checker is run."""
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)

    def check(checker, *arguments, **files):
        for name, text in files.items():
            (tmp_path / f"{name}.md").write_text(text, encoding="utf-8")
        argv = [sys.executable, str(TOP / f"script/lib/{checker}.py"), *arguments]
        result = subprocess.run(argv, cwd=tmp_path, capture_output=True, text=True)
        assert result.stderr == ""
        return result.returncode, result.stdout

    return check


def test_links_that_lead_somewhere_pass(tree):
    a = "# Top\n[b](b.md), [there](b.md#what-it-is), [here](#top), [net](https://example.org/x)\n"
    assert tree("check_links", a=a, b="# B\n## What *it* is?\n[`a`](a.md)\n") == (0, "")


def test_links_in_code_are_none(tree):
    assert tree("check_links", a="`[x](no)`\n\n```\n[x](no.md)\n```\n") == (0, "")


@pytest.mark.parametrize(
    ("text", "told"),
    [
        ("\n[x](no.md)\n", "a.md:2: no.md: no such file in the tree\n"),
        ("# T\n[x](#u)\n", "a.md:2: #u: no such heading\n"),
        ("```\n# code\n```\n[x](#code)\n", "a.md:4: #code: no such heading\n"),
        ("[x](../a.md)\n", "a.md:1: ../a.md: no such file in the tree\n"),
    ],
)
def test_links_that_lead_nowhere_are_told(tree, text, told):
    assert tree("check_links", a=text) == (1, told)


def test_words_are_checked_in_prose_only(tree):
    text = "A colour.\n\nIts `colr`, [seen](wrng.md).\n\n```\nmispeled\n```\n"
    assert tree("check_words", "a.md", a=text) == (0, "")
    assert tree("check_words", "a.md", a="Fine.\n\nA colr here.\n") == (1, "a.md:3: colr\n")
