# SPDX-License-Identifier: Apache-2.0
"""What the tests of kernel ports need beside a lab: hosts, LLDP daemons, reports by port.

Figures that a test expects come from ip(8) and bridge(8), which ask the kernel by themselves.
"""

import json
import pathlib
import shlex
import time

from labkit import BOARDS, Lab, wait_until

BOARD = BOARDS / "bridge.json"
# Frames to the group would count on every port of the bridge.
SWITCH = bytes.fromhex("0a1b2c3d4e09")


class KernelLab(Lab):
    """A lab on the bridge board."""

    def __init__(self, **options):
        super().__init__("--board", str(BOARD), **options)

    # --- hosts ----------------------------------------------------------------------------------

    def host_prefix(self, number):
        return shlex.split(self.environment[f"LAB_HOST_{number}"])

    def host(self, number, *argv, **options):
        """Runs a program on the client host behind port `number`."""
        return self.run(*self.host_prefix(number), *argv, **options)

    def host_pid(self, number):
        prefix = self.host_prefix(number)
        return prefix[prefix.index("-t") + 1]

    def link(self, interface, number=None):
        """What ip(8) says of an interface in the switch, or of host `number`."""
        run = self.switch if number is None else lambda *argv: self.host(number, *argv)
        return json.loads(run("ip", "-s", "-j", "link", "show", "dev", interface).stdout)[0]

    def carrier(self, number):
        """Whether host `number` has a carrier."""
        return "LOWER_UP" in self.link("eth0", number)["flags"]

    def start_lldpd(self, *prefix, options=()):
        """Starts an LLDP daemon behind the command prefix; it ends with the lab."""
        daemon = ["lldpd", "-d", "-u", "/run/lldpd.socket", *options]
        script = 'mkdir -p /run/lldpd; "$@" >/dev/null 2>&1 &'
        self.run(*prefix, "sh", "-c", script, "sh", *daemon)
        wait_until(
            lambda: self.run(*prefix, "test", "-S", "/run/lldpd.socket", check=False).returncode == 0,
            "lldpd's socket",
        )

    # --- reports --------------------------------------------------------------------------------

    def port(self, name):
        """What morvad shows of a port."""
        state = json.loads(self.morvactl("show", "--json").stdout)
        return {row["name"]: row for row in state["ports"]}[name]

    def report(self, subcmd, name, seconds=30.0):
        """The row of port `name` in the gateway's report `subcmd`. After a storm of changes the
        switch has those to work through first, and our own socket may have been too full for the
        answer: with nothing more to read, the question is asked again."""
        deadline = time.monotonic() + seconds
        self.gateway.command("get", subcmd, destination=SWITCH)
        while True:
            try:
                text = self.gateway.receive(1.0).json
            except AssertionError:
                assert time.monotonic() < deadline, f"no {subcmd} within {seconds:g} s"
                self.gateway.command("get", subcmd, destination=SWITCH)
                continue
            row = text.get("data", {}).get(name) if text.get("subcmd") == subcmd else None
            if row is not None:
                self.gateway.probe(destination=SWITCH)  # what else was under way is of no interest
                return row

    def command(self, subcmd, data):
        """One command of a gateway that is not answered; done when this returns."""
        self.gateway.command("set", subcmd, data, SWITCH)
        self.gateway.probe(destination=SWITCH)


def own_memory(lab, name):
    """Memory in kB that the daemon `name` has for itself: what it maps from files comes and goes
    with the other programs that map them."""
    text = lab.run("cat", f"/proc/{lab.pid(name)}/status").stdout
    return next(int(line.split()[1]) for line in text.splitlines() if line.startswith("RssAnon:"))
