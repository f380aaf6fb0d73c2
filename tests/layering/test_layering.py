# SPDX-License-Identifier: Apache-2.0
"""Who may include whom.

The rooms and what each knows:
    protocol/        nothing of ours
    platform/*.h     nothing of ours but itself; plain C
    qel/             protocol/, platform/*.h
    platform/linux/  platform/*.h
    gateway/         protocol/
"""

import pathlib
import re
import shutil
import subprocess

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
SOURCES = {".h", ".cpp", ".c"}
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.MULTILINE)
OUR_ROOMS = ("protocol", "platform", "qel", "gateway", "tests")

# Room of a file -> rooms whose files it may include. "platform" is the headers of the seam alone.
ALLOWED = {
    "protocol": {"protocol"},
    "platform": {"platform"},
    "qel": {"qel", "platform", "protocol"},
    "platform/linux": {"platform/linux", "platform"},
    "gateway": {"gateway", "protocol"},
}

# Libraries that a room must do without, by the start of the included name.
FORBIDDEN_LIBRARIES = {
    "protocol": ("event2/", "event.h", "cjson/", "nlohmann/", "fmt/", "CLI/", "netlink/", "linux/"),
    "platform": ("event2/", "event.h", "cjson/", "nlohmann/", "fmt/", "CLI/", "netlink/"),
    "qel": ("event2/", "event.h", "nlohmann/", "fmt/", "CLI/", "netlink/", "linux/netlink"),
    "platform/linux": (),
    "gateway": ("event2/", "event.h"),
}

# Conditions on the machine or on the platform, which have no place in the agent.
PLATFORM_CONDITION = re.compile(
    r"^\s*#\s*(?:el)?if(?:n?def)?\b.*\b"
    r"(?:__linux__|__mips\w*|__x86_64__|__i386__|__arm\w*|__aarch64__|__BYTE_ORDER\w*|"
    r"__GLIBC__|__UCLIBC__|QEL_PLATFORM\w*|MORVA\w*|QEL_LINUX\w*|QEL_FAKE\w*)",
    re.MULTILINE,
)


def room_of(path):
    """The room of `path`, relative to the top: None for what is in no room."""
    parts = pathlib.PurePath(path).parts
    if parts[0] == "platform" and len(parts) > 2:
        return "platform/linux" if parts[1] == "linux" else None
    return parts[0] if parts[0] in OUR_ROOMS else None


def included_room(including, name, known):
    """The room that `name`, included from `including`, belongs to; None for a library's."""
    beside = (pathlib.PurePath(including).parent / name).as_posix()
    for candidate in (beside, name):
        normal = pathlib.PurePath(*_collapse(candidate)).as_posix() if candidate else candidate
        if normal in known:
            return room_of(normal)
    head = pathlib.PurePath(name).parts[0]
    return room_of(name) if head in OUR_ROOMS and len(pathlib.PurePath(name).parts) > 1 else None


def _collapse(path):
    parts = []
    for part in pathlib.PurePath(path).parts:
        if part == ".." and parts:
            parts.pop()
        elif part != ".":
            parts.append(part)
    return parts


def violations(files):
    """The wrong includes among `files`, a dict of path -> text, as printable lines."""
    found = []
    for path, text in files.items():
        room = room_of(path)
        if room not in ALLOWED:
            continue
        for _, name in INCLUDE.findall(text):
            target = included_room(path, name, files)
            if target is not None and target not in ALLOWED[room]:
                found.append(f"{path} includes {name}, of {target}/")
            if target is None and name.startswith(FORBIDDEN_LIBRARIES[room]):
                found.append(f"{path} includes {name}, a library it must do without")
    return found


def tree():
    return {
        file.relative_to(TOP).as_posix(): file.read_text(encoding="utf-8")
        for room in OUR_ROOMS
        for file in sorted((TOP / room).rglob("*"))
        if file.suffix in SOURCES
    }


def test_every_room_includes_only_what_it_may_know():
    files = tree()
    assert {room_of(path) for path in files} >= {"qel", "platform", "platform/linux", "protocol"}
    assert violations(files) == []


@pytest.mark.parametrize(
    "path, include",
    [
        ("qel/a.cpp", '"platform/linux/x.h"'),
        ("qel/a.cpp", '"../platform/linux/x.h"'),
        ("qel/a.cpp", "<event2/event.h>"),
        ("qel/a.cpp", '"gateway/g.h"'),
        ("gateway/a.cpp", '"qel/q.h"'),
        ("gateway/a.cpp", '"platform/sys.h"'),
        ("platform/linux/a.cpp", '"qel/q.h"'),
        ("platform/linux/a.cpp", '"../../qel/q.h"'),
        ("platform/linux/a.cpp", '"protocol/gateway_protocol.h"'),
        ("platform/sys.h", '"qel/q.h"'),
        ("protocol/p.h", '"platform/sys.h"'),
        ("qel/a.cpp", '"tests/fake/fake.h"'),
    ],
)
def test_a_wrong_include_is_found(path, include):
    files = {"platform/linux/x.h": "", "qel/q.h": "", "gateway/g.h": ""}
    assert len(violations(files | {path: f"#include {include}\n"})) == 1


@pytest.mark.parametrize(
    "path, include",
    [
        ("qel/a.cpp", '"qel/q.h"'),
        ("qel/a.cpp", '"platform/sys.h"'),
        ("qel/a.cpp", '"protocol/p.h"'),
        ("qel/a.cpp", "<cjson/cJSON.h>"),
        ("platform/linux/a.cpp", "<event2/event.h>"),
        ("platform/linux/morvad/a.cpp", '"platform/linux/nvram.h"'),
        ("gateway/a.cpp", '"protocol/p.h"'),
    ],
)
def test_a_right_include_is_let_through(path, include):
    assert violations({"qel/q.h": "", "protocol/p.h": "", path: f"#include {include}\n"}) == []


@pytest.mark.parametrize("room", ["qel", "protocol"])
def test_no_condition_on_the_platform(room):
    texts = {path: text for path, text in tree().items() if room_of(path) == room}
    assert [path for path, text in texts.items() if PLATFORM_CONDITION.search(text)] == []


@pytest.mark.parametrize(
    "line", ["#ifdef __linux__", "#if defined(QEL_PLATFORM_LINUX)", "# elif __BYTE_ORDER__ == 1"]
)
def test_a_condition_on_the_platform_is_found(line):
    assert PLATFORM_CONDITION.search(f"int a;\n{line}\n")


@pytest.mark.parametrize("header", sorted(path.name for path in (TOP / "platform").glob("*.h")))
def test_the_headers_of_the_seam_are_plain_c(header, tmp_path):
    source = tmp_path / "one.c"
    source.write_text(f'#include "platform/{header}"\nint qel_c_check;\n', encoding="utf-8")
    compiler = shutil.which("gcc") or shutil.which("clang")
    flags = "-std=c11 -Wall -Wextra -Wpedantic -Wstrict-prototypes -Werror".split()
    result = subprocess.run(
        [compiler, *flags, f"-I{TOP}", "-c", str(source), "-o", str(tmp_path / "one.o")],
        capture_output=True,
        text=True,
        check=False,
    )
    assert result.returncode == 0, result.stderr
