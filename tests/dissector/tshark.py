# SPDX-License-Identifier: Apache-2.0
"""tshark with the dissector, as the tests use it."""

import functools
import os
import pathlib
import re
import subprocess
import tempfile

TOP = pathlib.Path(__file__).resolve().parents[2]
CAPTURES = TOP / "tests/captures"
DISSECTOR = TOP / "packaging/wireshark/qel.lua"
BETWEEN = "\x1f"  # between two values of a field; no text holds it, control bytes are shown as \xNN
SUPERUSER = re.compile(r'^Running as user ".*" and group ".*"\. This could be dangerous\.\n')


EMPTY = tempfile.TemporaryDirectory(prefix="qel-tshark.")


def environment():
    """One in which no plugins or settings of this machine are found."""
    folder = EMPTY.name
    return {**os.environ, "HOME": folder, "WIRESHARK_PLUGIN_DIR": folder, "XDG_CONFIG_HOME": folder}


def tshark(capture, *arguments, script=DISSECTOR):
    """What tshark prints about `capture`, a path or the name of a sample; it must not complain."""
    path = capture if isinstance(capture, pathlib.Path) else CAPTURES / f"{capture}.pcap"
    command = ["tshark", "-n", "-r", str(path), "-X", f"lua_script:{script}", *arguments]
    return run(command)


def run(command):
    """What the command prints; it must not complain."""
    result = subprocess.run(
        command, capture_output=True, check=False, timeout=60, env=environment()
    )
    complaint = SUPERUSER.sub("", result.stderr.decode("utf-8", "replace"))
    assert (result.returncode, complaint) == (0, ""), complaint
    return result.stdout.decode("utf-8", "strict")


def fields(capture, names, *arguments, script=DISSECTOR):
    """For each frame a dictionary of the fields `names` that it has: name -> list of texts."""
    options = ["-T", "fields", "-E", "separator=/t", "-E", f"aggregator={BETWEEN}", *arguments]
    for name in names:
        options += ["-e", name]
    found = []
    for line in tshark(capture, *options, script=script).split("\n")[:-1]:
        row = zip(names, line.split("\t"), strict=True)
        found.append({name: text.split(BETWEEN) for name, text in row if text})
    return found


@functools.cache
def sample(name):
    """The frames of a sample, with every field of the dissector."""
    source = DISSECTOR.read_text(encoding="utf-8")
    keys = re.findall(r'^field\("\w+", "([\w.]+)"', source, re.MULTILINE)
    keys += re.findall(r'^remark\("(\w+)"', source, re.MULTILINE)
    names = ["frame.number", "_ws.col.Info", *(f"qel.{key}" for key in keys)]
    return fields(name, names)


def frames(capture, display_filter, script=DISSECTOR):
    """The numbers of the frames that a display filter passes."""
    return [
        int(row["frame.number"][0])
        for row in fields(capture, ["frame.number"], "-Y", display_filter, script=script)
    ]
