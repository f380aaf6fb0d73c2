# SPDX-License-Identifier: Apache-2.0
"""The completions offer, in a real shell, every command and option that qelctl has."""

import os
import pty
import select
import subprocess
import time

import pytest

from helptext import TOP, commands_of, options_of

FOLDER = TOP / "gateway/completion"
SHARED = options_of("qelctl")


class Zsh:
    """An interactive zsh with the completion loaded, on a terminal of its own. What its completion
    system adds to the matches goes to a file as well."""

    START = r"""
PS1= PROMPT= RPROMPT=
fpath=(%(folder)s $fpath)
autoload -U compinit
compinit -u -D
compadd() {
  # Calls that only ask what would match add nothing.
  if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
    builtin compadd "$@"
    return
  fi
  typeset -a hits
  builtin compadd -A hits "$@"
  print -l -- $hits >>%(matches)s
  builtin compadd "$@"
}
offer() {
  zle complete-word
  print -- '= over' >>%(matches)s
  zle kill-whole-line
}
zle -N offer
bindkey '^B' offer
unset LINES COLUMNS
setopt no_always_last_prompt no_list_beep
print -- '= over' >>%(matches)s
"""

    def __init__(self, folder):
        self.matches = folder / "matches"
        script = folder / "start.zsh"
        script.write_text(self.START % {"folder": FOLDER, "matches": self.matches})
        pid, self.terminal = pty.fork()
        if pid == 0:
            environment = {"TERM": "dumb", "PATH": os.environ["PATH"], "HOME": str(folder)}
            os.execvpe("zsh", ["zsh", "-f", "-i"], environment)
        self.pid = pid
        os.write(self.terminal, f"source {script}\n".encode())
        self._told()

    def _told(self, seconds=60):
        """What came into the file up to the mark; the terminal is kept empty meanwhile."""
        deadline, shown = time.monotonic() + seconds, b""
        while not (self.matches.exists() and "= over\n" in self.matches.read_text()):
            assert time.monotonic() < deadline, f"zsh does not answer: {shown!r}"
            if select.select([self.terminal], [], [], 0.01)[0]:
                shown += os.read(self.terminal, 65536)
        words = self.matches.read_text().split("\n")
        self.matches.write_text("")
        return set(words) - {"= over", ""}

    def offered(self, line):
        """The words that completion finds behind `line`."""
        os.write(self.terminal, line.encode() + b"\x02")
        return self._told()

    def close(self):
        os.close(self.terminal)
        os.waitpid(self.pid, 0)


@pytest.fixture(scope="module")
def zsh(tmp_path_factory):
    shell = Zsh(tmp_path_factory.mktemp("zsh"))
    yield shell
    shell.close()


def bash(line):
    """The words that bash offers for the last word of `line`."""
    script = f"""source {FOLDER}/qelctl.bash
COMP_WORDS=({line.rstrip()} {"''" if line.endswith(" ") else ""})
COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1))
_qelctl 2>/dev/null
printf '%s\\n' "${{COMPREPLY[@]}}" """
    result = subprocess.run(["bash", "-c", script], check=True, capture_output=True, text=True)
    return set(result.stdout.split())


def children(family=""):
    names = commands_of("qelctl", *family.split())
    return {name.split()[-1] for name in names if len(name.split()) == len(family.split()) + 1}


@pytest.mark.parametrize("family", ["", "port", "firmware"])
def test_every_command_is_offered(zsh, family):
    line = f"qelctl {family} ".replace("  ", " ")
    assert bash(line) == children(family)
    assert zsh.offered(line) == children(family)


@pytest.mark.parametrize("command", ["", *commands_of("qelctl")])
def test_every_option_is_offered(zsh, command):
    known = SHARED | options_of("qelctl", *command.split())
    wanted = {option for option in known if len(option) > 2}
    line = f"qelctl {command} --".replace("  ", " ")
    assert bash(line) == wanted
    assert zsh.offered(line) == wanted
