#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the spelling of the prose in Markdown files and manual pages with aspell (British), and a
list of this project's own words in words.txt. Prints file, line and word; exit status 1 then."""

import os
import re
import subprocess
import sys

WORDS = os.path.join(os.path.dirname(os.path.realpath(__file__)), "words.txt")
# What is no prose: code, comments, addresses, targets of links.
MARKDOWN = re.compile(
    r"^(```|~~~).*?^\1\s*$|^    .*?$|<!--.*?-->|`[^`]*`|\]\([^)]*\)|<[^>]*>", re.MULTILINE | re.DOTALL
)
LITERAL = re.compile(r"^\.Bd -literal.*?^\.Ed$", re.MULTILINE | re.DOTALL)
# A word as people write it; not a part of a name such as qel_main, 0x9301 or ge3.
WORD = re.compile(r"(?<![\w./@\"-])[A-Za-z][A-Za-z']*[A-Za-z](?![\w/@\"=]|\.\w|-\w)")


def blank(match):
    return re.sub(r"[^\n]", " ", match.group())


def words_of(file):
    """(line, word) for each word of prose."""
    with open(file, encoding="utf-8") as opened:
        text = opened.read()
    text = MARKDOWN.sub(blank, text) if file.endswith(".md") else man_prose(text)
    for number, line in enumerate(text.split("\n"), 1):
        for word in WORD.findall(line):
            yield number, word


def man_prose(text):
    """The lines that are no macros, and what .Nd says; arguments of the others are names."""
    lines = LITERAL.sub(blank, text).split("\n")
    return "\n".join("" if re.match(r"\.(?!Nd )|'", line) else line for line in lines)


def main():
    places = {}
    for file in sys.argv[1:]:
        for line, word in words_of(file):
            places.setdefault(word, f"{file}:{line}")
    with open(WORDS, encoding="utf-8") as opened:
        ours = {line.strip().lower() for line in opened if not line.startswith("#")}
    asked = "\n".join(word for word in places if word.lower() not in ours)
    command = ["aspell", "list", "--lang=en_GB", "--encoding=utf-8"]
    told = subprocess.run(command, input=asked, check=True, capture_output=True, text=True).stdout
    for word in told.split():
        print(f"{places.get(word, '?')}: {word}")
    return 1 if told else 0


if __name__ == "__main__":
    sys.exit(main())
