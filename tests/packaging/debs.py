# SPDX-License-Identifier: Apache-2.0
"""The packages that script/package made, and the same in a higher version."""

import pathlib
import re

from cleanroot import run

NAMES = ("qel-platform-linux", "qel", "qelctl")


def field(package, name):
    return run(["dpkg-deb", "--field", package, name]).strip()


def built(folder):
    """The three packages in `folder`, by name."""
    found = {}
    for path in sorted(folder.glob("*.deb")):
        name = field(path, "Package")
        if name in NAMES:
            found[name] = path
    assert set(found) == set(NAMES), f"{folder}: run script/package first"
    return found


def needed(packages):
    """Names of the Debian packages that `packages` depend on, each other apart."""
    names = set()
    for package in packages.values():
        for part in field(package, "Depends").split(","):
            names.add(re.match(r"\s*([a-z0-9][a-z0-9+.-]*)", part)[1])
    return names - set(NAMES)


def raised(package, version, work):
    """`package` packed again as `version`, with a settings file that says more than before."""
    name = field(package, "Package")
    tree = work / name
    old = field(package, "Version")
    run(["dpkg-deb", "--raw-extract", package, tree])
    control = tree / "DEBIAN" / "control"
    text = control.read_text(encoding="utf-8")
    text = text.replace(f"Version: {old}\n", f"Version: {version}\n")
    control.write_text(text.replace(f"(= {old})", f"(= {version})"), encoding="utf-8")
    target = pathlib.Path(work) / f"{name}_{version}.deb"
    run(["dpkg-deb", "--root-owner-group", "--build", tree, target])
    return target
