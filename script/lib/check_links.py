#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the links of all Markdown files: that what a relative link names is there and known to
git, and that its anchor is a heading. Prints what is wrong; exit status 1 then."""

import os
import re
import subprocess
import sys

FENCE = re.compile(r"^(```|~~~).*?^\1\s*$", re.MULTILINE | re.DOTALL)
COMMENT = re.compile(r"<!--.*?-->", re.DOTALL)
CODE = re.compile(r"`[^`\n]*`")
LINK = re.compile(r"\[(?:[^\[\]]|\[[^\]]*\])*\]\(([^()\s]+)(?:\s+\"[^\"]*\")?\)")
HEADING = re.compile(r"^#{1,6} +(.*?) *#*$", re.MULTILINE)


def blank(match):
    """As many line ends as were there, so that line numbers stay."""
    return "\n" * match.group().count("\n")


def anchors(text):
    """The anchors that a reader of repositories makes of the headings."""
    found = set()
    for heading in HEADING.findall(COMMENT.sub(blank, FENCE.sub(blank, text))):
        plain = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).lower()
        anchor = re.sub(r"[^\w\- ]", "", plain).replace(" ", "-")
        number, base = 0, anchor
        while anchor in found:
            number += 1
            anchor = f"{base}-{number}"
        found.add(anchor)
    return found


def faults(file, known):
    with open(file, encoding="utf-8") as opened:
        text = opened.read()
    prose = CODE.sub(blank, COMMENT.sub(blank, FENCE.sub(blank, text)))
    for match in LINK.finditer(prose):
        target = match.group(1)
        if re.match(r"[a-z][a-z0-9+.-]*:", target):
            continue  # the network is not asked
        line = prose.count("\n", 0, match.start()) + 1
        path, _, anchor = target.partition("#")
        path = os.path.normpath(os.path.join(os.path.dirname(file), path)) if path else file
        if path not in known and not any(name.startswith(path + "/") for name in known):
            yield f"{file}:{line}: {target}: no such file in the tree"
        elif anchor and path.endswith(".md"):
            with open(path, encoding="utf-8") as opened:
                if anchor not in anchors(opened.read()):
                    yield f"{file}:{line}: {target}: no such heading"


def main():
    listing = subprocess.run(
        ["git", "ls-files", "-co", "--exclude-standard"], check=True, capture_output=True, text=True
    )
    known = {name for name in listing.stdout.splitlines() if os.path.exists(name)}
    documents = sorted(name for name in known if name.endswith(".md"))
    wrong = [fault for file in documents for fault in faults(file, known)]
    print("".join(fault + "\n" for fault in wrong), end="")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
