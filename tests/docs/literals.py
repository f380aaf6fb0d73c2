# SPDX-License-Identifier: Apache-2.0
"""The texts that stand in C++ sources: string literals, raw ones too, neighbours joined."""

import functools
import re

from helptext import TOP

TOKEN = re.compile(
    r'R"(?P<mark>[^(\s"]*)\((?P<raw>.*?)\)(?P=mark)"'
    r'|"(?P<text>(?:[^"\\\n]|\\.)*)"'
    r"|'(?:[^'\\\n]|\\.)+'|//[^\n]*|/\*.*?\*/"
    r"|(?P<code>(?:(?!R\")[^\s\"'/])+|/|R)",
    re.DOTALL,
)
ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "0": "\0", "\\": "\\", '"': '"', "'": "'"}


def unescaped(text):
    return re.sub(r"\\(.)", lambda match: ESCAPES.get(match.group(1), match.group()), text)


def texts_of(source):
    joined, open_text = [], False
    for token in TOKEN.finditer(source):
        if token["raw"] is not None or token["text"] is not None:
            text = token["raw"] if token["raw"] is not None else unescaped(token["text"])
            if open_text:
                joined[-1] += text
            else:
                joined.append(text)
            open_text = True
        elif token["code"]:
            open_text = False
    return joined


@functools.cache
def unit_test_texts():
    """Every text of the unit tests, apart by line ends that none of the looked for has."""
    found = []
    for file in sorted((TOP / "tests/unit").rglob("*.cpp")):
        found += texts_of(file.read_text(encoding="utf-8"))
    return found
