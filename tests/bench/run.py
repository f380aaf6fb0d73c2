# SPDX-License-Identifier: Apache-2.0
"""script/bench: runs the lab once for each board, puts the figures together, and writes them down.

The results go to build/bench/results.json (every round's figure and the medians), to standard
output as tables, and, unless the run was a quick one, between the markers of docs/performance.md.
"""

import argparse
import json
import os
import pathlib
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
BOARDS = ("ge10", "ge28", "ge52")
SUBJECTS = (
    "probe", "ping", "ports_link", "ports_info", "ports_conf", "ports_stats", "ports_client"
)  # fmt: skip
BEGIN, END = "<!-- figures: begin -->", "<!-- figures: end -->"
FULL = {"rounds": 7, "count": 1000, "idle": 30, "million": 1000000}
QUICK = {"rounds": 2, "count": 200, "idle": 3, "million": 8000}
TICKS_PER_HOUR = 3600


def measure(board, build, amounts):
    """One lab with that board; what inside.py found there."""
    file = TOP / f"platform/linux/boards/{board}.json"
    with tempfile.TemporaryDirectory(prefix="qel-bench.") as directory:
        environment = dict(os.environ, LAB_DIR=directory, QEL_BUILD_DIR=str(build))
        command = [str(TOP / "script/lab"), "--board", str(file), "--", sys.executable]
        command += [str(TOP / "tests/bench/inside.py"), "--board", str(file)]
        command += [part for key, value in amounts.items() for part in (f"--{key}", str(value))]
        subprocess.run(command, check=True, env=environment)
        result = json.loads((pathlib.Path(directory) / "bench.json").read_text(encoding="ascii"))
        log = (pathlib.Path(directory) / "qel.log").read_text(encoding="utf-8", errors="replace")
        if "ERROR" in log:
            raise RuntimeError(f"the agent complained:\n{log}")
        return result


def binary_size(build):
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["strip", "-o", stripped.name, str(build / "bin/qel")], check=True)
        return os.path.getsize(stripped.name)


def growth(build):
    output = subprocess.run(
        [str(build / "bin/qel_bench_growth")], check=True, stdout=subprocess.PIPE
    ).stdout
    return json.loads(output.splitlines()[-1])


# --- figures ------------------------------------------------------------------------------------


def middle(values):
    return statistics.median(values)


def ratio(one, other):
    """The median of the rounds' ratios: both were measured in the same round."""
    return statistics.median(a / b for a, b in zip(one, other))


def us(values, digits=1):
    """Median and spread of nanoseconds, as microseconds."""
    low, high = min(values) / 1000, max(values) / 1000
    return f"{middle(values) / 1000:.{digits}f} ({low:.{digits}f}-{high:.{digits}f})"


def cost_table(board):
    cpu, rtt, answers = board["cpu_ns"], board["rtt_ns"], board["answers"]
    yield ("request", "frames", "bytes", "round trip µs", "agent CPU µs", "with morvad µs",
           "echo CPU µs", "agent/echo")  # fmt: skip
    for name in SUBJECTS:
        limit = cpu["limit:" + name]
        yield (
            name,
            answers[name]["frames"],
            answers[name]["bytes"],
            f"{middle(rtt[name]) / 1000:.1f}",
            us(cpu[name]),
            us(cpu[name + "+morvad"]),
            us(limit),
            f"{ratio(cpu[name], limit):.2f}",
        )
    if "snmpd" in cpu:
        answer = answers["snmpd"]
        yield ("snmpd, 3 columns", answer["frames"], answer["bytes"],
               f"{middle(rtt['snmpd']) / 1000:.1f}", us(cpu["snmpd"]), "-", "-", "-")  # fmt: skip


def targets(result):
    """Rows of (what, wanted, measured, met)."""
    boards = result["boards"]
    cpu28, cpu52 = boards["ge28"]["cpu_ns"], boards["ge52"]["cpu_ns"]
    rows = [
        ("ping, CPU against the echo's", 1.3, ratio(cpu28["ping"], cpu28["limit:ping"])),
        ("probe, against an echo that reads the same", 1.3,
         ratio(cpu28["probe"], cpu28["probe-limit:probe"])),
        ("ports_link at 52 ports, against the echo", 1.6,
         ratio(cpu52["ports_link"], cpu52["limit:ports_link"])),
        ("agent's Pss at 28 ports, KB", 1024,
         max(mark["pss"] for mark in boards["ge28"]["million"]["marks"])),
        ("stripped program, KB", 160, result["binary_bytes"] / 1000),
        ("idle CPU against a bare timer's", 1.3, idle_ratio(boards["ge28"])),
        ("exec to first answer, ms", 50, middle(boards["ge28"]["first_answer_ns"]) / 1e6),
    ]  # fmt: skip
    for what, most, measured in rows:
        yield what, f"at most {most}", f"{measured:.2f}", measured <= most
    if "snmpd" in cpu28:
        for what, least, name in (
            ("ports_link against snmpd's cached read, times less", 10, "ports_link"),
            ("ports_stats with morvad against it, times less", 3, "ports_stats+morvad"),
        ):
            measured = min(
                ratio(board["cpu_ns"]["snmpd"], board["cpu_ns"][name])
                for board in (boards["ge28"], boards["ge52"])
            )
            yield what, f"at least {least}", f"{measured:.1f}", measured >= least


def idle_ratio(board):
    return board["idle_ns_per_s"]["agent"] / board["idle_ns_per_s"]["timer"]


def table(rows):
    rows = [[str(cell) for cell in row] for row in rows]
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    lines = []
    for number, row in enumerate(rows):
        lines.append("| " + " | ".join(c.ljust(w) for c, w in zip(row, widths)) + " |")
        if number == 0:
            lines.append("|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return lines


def report(result):
    machine = result["machine"]
    lines = [
        f"Measured {result['date']} on {machine['cpus']} processors of {machine['model']}, "
        f"Linux {machine['kernel']}, load average at the start {machine['load']:.1f}, "
        f"{result['amounts']['rounds']} rounds. Medians, least and most in brackets.",
        "",
    ]
    rows = [("target", "wanted", "measured", "met")]
    rows += [(*row[:3], "yes" if row[3] else "no") for row in targets(result)]
    lines += table(rows) + [""]
    for board in result["boards"].values():
        lines += [f"### {board['ports']} ports", ""] + table(cost_table(board)) + [""]
        cpu = board["cpu_ns"]
        bare, probe = us(cpu["bare:ping"]), us(cpu["probe-limit:probe"])
        lines += [
            f"An echo without any work costs {bare} µs; one that also reads what a probe reads, "
            f"{probe} µs."
        ]
        if "snmpd" in cpu:
            fresh = middle(cpu["snmpd"]) / 1000 + board["idle_ns_per_s"]["snmpd"] * 3 / 1000
            lines += [
                f"snmpd reloads its tables by a timer while it is asked nothing, which costs "
                f"{board['idle_ns_per_s']['snmpd'] / 1000:.0f} µs a second; a read that has to pay "
                f"for three seconds of that costs about {fresh:.0f} µs."
            ]
        rates = ", ".join(f"{n} {middle(v):.0f}" for n, v in board["rate"].items())
        lines += [f"Requests a second at saturation: {rates}.", ""]
    return lines + weight_report(result)


def weight_report(result):
    board = result["boards"]["ge28"]
    rows = [("process", "Pss KB at start", "private KB at start", "Pss KB at the end")]
    for name, start in board["start_kb"].items():
        end = board["end_kb"].get(name, {"pss": "-"})
        rows.append((name, start["pss"], start["private"], end["pss"]))
    marks = board["million"]["marks"]
    idle = board["idle_ns_per_s"]
    hour = ", ".join(f"{n} {v * TICKS_PER_HOUR / 1e9:.2f} s" for n, v in idle.items())
    lines = ["### Weight (28 ports)", ""] + table(rows) + [""]
    pss = ", ".join(str(mark["pss"]) for mark in marks)
    fds = ", ".join(str(mark["descriptors"]) for mark in marks)
    lines += [
        f"After each quarter of {board['million']['requests']} more requests the agent had a Pss "
        f"of {pss} KB and {fds} descriptors. CPU in an idle hour: {hour}. The stripped program "
        f"has {result['binary_bytes']} bytes. From exec to the first answered probe: "
        f"{us(board['first_answer_ns'])} µs.",
        "",
        "### Growth",
        "",
        "Nanoseconds for one call, in one process on the test platform:",
        "",
    ]
    for name, figures in result["growth"].items():
        unit = "entries" if name == "mac_scan" else "ports"
        lines += table([(f"{name}, {unit}", *figures), ("ns", *figures.values())]) + [""]
    return lines


# --- the run ------------------------------------------------------------------------------------


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        models = [line.split(":", 1)[1].strip() for line in file if line.startswith("model name")]
    return {
        "model": models[0] if models else platform.machine(),
        "cpus": os.cpu_count(),
        "kernel": platform.release(),
        "load": os.getloadavg()[0],
    }


def write_document(lines):
    file = TOP / "docs/performance.md"
    text = file.read_text(encoding="utf-8")
    head, _, rest = text.partition(BEGIN)
    _, _, tail = rest.partition(END)
    body = "\n".join(["", "", *lines])
    file.write_text(f"{head}{BEGIN}{body}{END}{tail}", encoding="utf-8")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--build", type=pathlib.Path, required=True)
    options = parser.parse_args()
    amounts = QUICK if options.quick else FULL
    result = {"date": time.strftime("%Y-%m-%d"), "machine": machine(), "amounts": amounts}
    result["boards"] = {name: measure(name, options.build, amounts) for name in BOARDS}
    result["binary_bytes"] = binary_size(options.build)
    result["growth"] = growth(options.build)
    result["targets"] = [list(row) for row in targets(result)]
    folder = TOP / "build/bench"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "results.json").write_text(json.dumps(result, indent=1), encoding="utf-8")
    lines = report(result)
    print("\n".join(lines))
    if not options.quick:
        write_document(lines)
    shutil.rmtree(TOP / "tests/bench/__pycache__", ignore_errors=True)


if __name__ == "__main__":
    main()
