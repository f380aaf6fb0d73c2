# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2034
#
# What every script starts with: strict mode, the top of the tree, and one way to say things.
# Sourced, never run.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
readonly top

# Debian's own interpreter: the one that the python3-* packages are installed for.
readonly python=/usr/bin/python3

export PATH="$PATH:/usr/sbin:/sbin"
export PYTHONDONTWRITEBYTECODE=1

# A line for the reader of a long run.
say() { printf '\n== %s\n' "$*"; }

# Ends the script with a reason, exit status 1.
die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Ends the script with what is wrong with its command line, exit status 2.
misuse() {
  printf '%s: %s; see --help\n' "$(basename "$0")" "$*" >&2
  exit 2
}

# Ends the script where more than $1 arguments follow: `at_most 1 "$@"`.
at_most() {
  (($# - 1 <= $1)) || misuse "unknown argument '${*:$1+2:1}'"
}

# Prints the block of comment at the head of the calling script, without the licence line.
usage() { sed -n '2,/^[^#]/{/^# SPDX/d;/^# shellcheck/d;/^[^#]/d;s/^# \{0,1\}//p}' "$0" | sed '1{/^$/d}'; }
