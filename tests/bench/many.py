# SPDX-License-Identifier: Apache-2.0
"""How qelctl fares with many switches on one wire.

    script/bench many [--switches 200] [--rounds 3] [--board FILE]

Starts so many agents, each with its module manager, in namespaces on one wire (boards without
kernel ports), and measures what `qelctl discover` and `qelctl --switch all ports --json` take, and
how much memory each agent has of its own. Prints every round and the medians. Ends with status 1
when a switch or a report is missing, or when a time misses its target.
"""

import argparse
import json
import os
import pathlib
import re
import statistics
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests/system"))

from labkit import Lab  # noqa: E402

DISCOVER_SECONDS = 2.0
PORTS_SECONDS = 10.0

# Runs a program in the lab and tells its times, without the time that it takes to ask the lab.
TIMED = """
import json, os, subprocess, sys, time
before, started = os.times(), time.monotonic()
done = subprocess.run(sys.argv[1:], capture_output=True, text=True)
wall, after = time.monotonic() - started, os.times()
cpu = after.children_user + after.children_system - before.children_user - before.children_system
print(json.dumps([done.returncode, wall, cpu, done.stdout, done.stderr]))
"""


def timed(lab, *arguments):
    """Runs qelctl; returns (seconds, CPU seconds, the objects it printed, what it complained of)."""
    output = lab.run(sys.executable, "-c", TIMED, "qelctl", "-i", "gw0", *arguments, timeout=120).stdout
    status, wall, cpu, out, err = json.loads(output)
    return wall, cpu, [json.loads(line) for line in out.splitlines()], f"status {status}; {err}"


def memory(lab, name, number):
    """Pss of each switch's process `name`, in kB: its own memory and its share of what is shared."""
    paths = [f"/proc/{lab.pid(name, n)}/smaps_rollup" for n in range(1, number + 1)]
    text = lab.run("grep", "-h", "^Pss:", *paths).stdout
    return [int(kb) for kb in re.findall(r"(\d+) kB", text)]


def spread(values, form):
    return f"{form % min(values)} / {form % statistics.median(values)} / {form % max(values)}"


def load():
    return "load average " + " ".join(f"{value:.2f}" for value in os.getloadavg())


def complete(report):
    return "missing" not in report and report.get("ports") and all(
        "client" in port and "stats" in port and "link" in port for port in report["ports"]
    )


def measure(lab, number, rounds):
    """Every round's seconds for the two commands, and what went wrong."""
    finding, reading, wrong = [], [], []
    for turn in range(1, rounds + 1):
        wall, cpu, found, said = timed(lab, "--json", "discover")
        counted = timed(lab, "--json", "discover", "--expect", str(number))
        finding.append(wall)
        print(
            f"round {turn}: discover {wall:.2f} s ({cpu:.2f} s of CPU), {len(found)} found; "
            f"with --expect {counted[0]:.2f} s, {len(counted[2])} found; {load()}"
        )
        if len({one["mac"] for one in found}) != number:
            wrong.append(f"round {turn}: discover found {len(found)}: {said}")
        wall, cpu, reports, said = timed(lab, "--switch", "all", "--json", "ports")
        whole = sum(map(bool, map(complete, reports)))
        reading.append(wall)
        print(
            f"round {turn}: ports {wall:.2f} s ({cpu:.2f} s of CPU), {whole} complete of "
            f"{len(reports)}; {load()}"
        )
        if whole != number:
            wrong.append(f"round {turn}: {whole} complete port reports: {said}")
    return finding, reading, wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--switches", type=int, default=200)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--build", type=pathlib.Path, default=TOP / "build/release")
    parser.add_argument("--board", type=pathlib.Path, default=TOP / "platform/linux/boards/ge28.json")
    options = parser.parse_args()
    number = options.switches
    started = time.monotonic()
    arguments = ("--switches", str(number), "--board", str(options.board))
    environment = {"QEL_BUILD_DIR": str(options.build.resolve())}
    with Lab(*arguments, environment=environment) as lab:
        print(f"{number} switches up after {time.monotonic() - started:.1f} s; {load()}")
        finding, reading, wrong = measure(lab, number, options.rounds)
        print("min / median / max of the rounds and of the switches:")
        print(f"discover: {spread(finding, '%.2f')} s")
        print(f"ports:    {spread(reading, '%.2f')} s")
        for name in ("qel", "morvad"):
            values = memory(lab, name, number)
            print(f"{name} Pss: {spread(values, '%d')} kB of {len(values)}, {sum(values) // 1024} MB in all")
    if max(finding) > DISCOVER_SECONDS:
        wrong.append(f"discover took more than {DISCOVER_SECONDS:g} s")
    if max(reading) > PORTS_SECONDS:
        wrong.append(f"ports took more than {PORTS_SECONDS:g} s")
    print("\n".join(wrong) if wrong else "every target was met")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
