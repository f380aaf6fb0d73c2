# SPDX-License-Identifier: Apache-2.0
"""The pictures in docs/screens show what qelctl shows."""

import html
import importlib.util
import re
from importlib.machinery import SourceFileLoader

from helptext import TOP


def load():
    loader = SourceFileLoader("screens", str(TOP / "script/screens"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("screens", loader))
    loader.exec_module(module)
    return module


def words(picture):
    """The lines of a picture, without their colours and the clock."""
    lines = re.findall(r"<text [^>]*>(.*?)</text>", picture)
    plain = [html.unescape(re.sub(r"<[^>]*>", "", line)).rstrip() for line in lines]
    return [re.sub(r"^\d\d:\d\d:\d\d", "HH:MM:SS", line) for line in plain]


def test_the_pictures_are_what_is_shown():
    screens = load()
    for name, text in screens.capture().items():
        kept = (screens.FOLDER / f"{name}.svg").read_text(encoding="utf-8")
        drawn = screens.svg(text, screens.COMMANDS[name])
        assert words(drawn) == words(kept), f"{name}: run script/screens"
        assert len(words(kept)) > 5
