# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2034  # read by script/bootstrap
#
# Debian packages by what they are needed for. Sourced by script/bootstrap.

# To configure and build, unit tests included.
packages_build=(
  cmake ninja-build g++ ccache
  libcjson-dev libevent-dev libtelnet-dev libcli11-dev libfmt-dev nlohmann-json3-dev zlib1g-dev
  libnl-3-dev libnl-route-3-dev libnl-genl-3-dev libnftables-dev
  googletest libgtest-dev libgmock-dev
)

# To run a lab.
packages_run=(python3 iproute2 util-linux procps wget)

# To run every test and check.
packages_test=(
  clang clang-format clang-tidy libclang-rt-14-dev
  python3-pytest python3-jsonschema shellcheck telnet lldpd nftables iputils-ping
  g++-mips-linux-gnu qemu-user dpkg-dev tshark
  systemd mandoc aspell aspell-en codespell zsh tcpdump strace
)

# To make the Debian packages and to try them in a clean root.
packages_package=(debhelper dpkg-dev fakeroot lintian debootstrap libcap2-bin)

# The peers that script/bench measures the agent against.
packages_bench=(snmpd lldpd)

# To fuzz, to measure coverage, and to run memcheck.
packages_prove=(clang libclang-rt-14-dev llvm valgrind)
