# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Lists of our own source files, relative to the top of the tree. Sourced, never run.

readonly rooms=(qel platform gateway protocol tests)

# C and C++ files of every room, or of the rooms named.
cxx_files() {
  local where=("${@:-${rooms[@]}}")
  find "${where[@]}" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) | sort
}

# Shell scripts: by their first line, wherever they are.
shell_files() {
  {
    grep -rlIE '^#!.*\b(ba|da)?sh\b' --exclude-dir=.git --exclude-dir=build --exclude-dir=out .
    find script -name '*.sh'
  } | sed 's|^\./||' | sort -u
}

python_files() {
  {
    grep -rlIE '^#!.*\bpython3\b' --exclude-dir=.git --exclude-dir=build --exclude-dir=out .
    find . \( -name .git -o -name build -o -name out \) -prune -o -name '*.py' -print
  } | sed 's|^\./||' | sort -u
}
