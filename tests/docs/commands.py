# SPDX-License-Identifier: Apache-2.0
"""The commands in the documents, and how they are to be run.

A block ```sh is a script whose every command must end with status 0. A comment in the line before it
says where; a block without one is an error, since what is meant for a reader's machine may not be
meant for the one that tests:

    <!-- run in the lab -->               at the gateway's end of a lab, in the top folder of the tree
    <!-- run on the switch -->            inside the lab's switch
    <!-- run on this machine -->          outside of any lab: scripts that make their own
    <!-- run in a network of its own, after: COMMANDS -->   in a namespace that COMMANDS furnish
    <!-- not run: REASON -->              not at all
    <!-- run ...; not run: WORD: REASON -->   but for lines that begin with WORD

A block ```console is what somebody types at a program on the switch: "$ PROGRAM", then what stands
behind each of its prompts."""

import re
import subprocess

from helptext import TOP

BLOCK = re.compile(
    r"^(?:<!-- (?P<how>(?:not )?run(?:(?!-->).)*?) -->\n)?"
    r"```(?P<kind>sh|console)\n(?P<text>.*?)^```$",
    re.MULTILINE | re.DOTALL,
)
LAB, SWITCH, MACHINE = "run in the lab", "run on the switch", "run on this machine"
NETWORK = "run in a network of its own, after: "
NOWHERE = "not run"
# What would change the machine that runs the tests.
DANGEROUS = re.compile(
    r"\b(apt|apt-get|dpkg|systemctl|adduser|install -|rm|setcap|script/(?!demo|lab\b))"
)


class Block:
    def __init__(self, document, match, source):
        self.document = document
        self.line = source.count("\n", 0, match.start("text"))
        self.kind, self.text = match["kind"], match["text"]
        how = " ".join((match["how"] or "").split())
        self.place, _, self.reason = how.partition("; not run: ")
        self.setup = self.left_out = ""
        if self.kind == "console":
            self.place = SWITCH
        elif how.startswith(NOWHERE + ": "):
            self.place, self.reason = NOWHERE, how.removeprefix(NOWHERE + ": ")
        elif self.reason:
            self.left_out, self.reason = self.reason.split(": ", 1)
        elif how.startswith(NETWORK):
            self.place, self.setup = NETWORK, how.removeprefix(NETWORK)

    @property
    def fault(self):
        """Why it must not be run as it stands; empty: nothing against it."""
        if self.place not in (LAB, SWITCH, MACHINE, NETWORK, NOWHERE):
            return "run where? A comment before it has to say; see commands.py"
        if self.place == NOWHERE and len(self.reason) < 15:
            return "why not?"
        # Outside of a lab, and in it too: its root is root of the file system.
        return "not on the machine that tests" if DANGEROUS.search(self.script) else ""

    def __repr__(self):
        return f"{self.document}:{self.line}"

    @property
    def script(self):
        """What is to be run of it; empty: nothing."""
        if self.place == NOWHERE:
            return ""
        lines = self.text.rstrip("\n").split("\n")
        if self.left_out:
            lines = [line for line in lines if not line.startswith(self.left_out)]
        return "\n".join(lines)


def documents():
    listing = ["git", "ls-files", "-co", "--exclude-standard", "*.md"]
    names = subprocess.run(listing, cwd=TOP, check=True, capture_output=True, text=True).stdout
    return [name for name in names.split() if (TOP / name).exists()]


def blocks_of(name, source):
    return [Block(name, match, source) for match in BLOCK.finditer(source)]


def blocks():
    texts = ((name, (TOP / name).read_text(encoding="utf-8")) for name in documents())
    return [block for name, text in texts for block in blocks_of(name, text)]


def typed(text):
    """The program of a ```console block and the steps for telnet_user.py."""
    first, *lines = text.rstrip("\n").split("\n")
    assert first.startswith("$ ")
    steps = []
    for line in lines:
        prompt, keys = re.fullmatch(r"(\S+[>#] )(.*)", line).groups()
        steps.append((prompt, keys))
    awaited = [prompt for prompt, _ in steps] + [""]
    keys = [""] + [keys + "\r" for _, keys in steps]
    return first[2:], [list(step) for step in zip(keys, awaited, strict=True)]
