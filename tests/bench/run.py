# SPDX-License-Identifier: Apache-2.0
"""script/bench: runs the lab once for each board, puts the figures together, and writes them down.

The results go to build/bench/results.json (every round's figure), to standard output as tables, and
with --write between the markers of docs/performance.md. --from takes the figures of an earlier run.
Ends with status 1 when a target is missed, but not with --quick, whose figures say nothing.
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
FULL = {"rounds": 7, "count": 1000, "idle": 5, "million": 1000000, "fresh": 3.1}
QUICK = {"rounds": 2, "count": 200, "idle": 2, "million": 8000, "fresh": 0.1}
SECONDS_PER_HOUR = 3600


def measure(board, build, amounts):
    """One lab with that board; what inside.py found there."""
    file = TOP / f"platform/linux/boards/{board}.json"
    with tempfile.TemporaryDirectory(prefix="qel-bench.") as directory:
        environment = dict(os.environ, LAB_DIR=directory, QEL_BUILD_DIR=str(build))
        environment["MORVA_QUERY_LOG"] = ""  # the lab's log of queries is no part of the agent's work
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


def growth(build, rounds):
    """One list for each figure, an element for each round."""
    out = {}
    for _ in range(rounds):
        program = [str(build / "bin/qel_bench_growth")]
        output = subprocess.run(program, check=True, stdout=subprocess.PIPE).stdout
        for name, figures in json.loads(output.splitlines()[-1]).items():
            for size, value in figures.items():
                out.setdefault(name, {}).setdefault(size, []).append(value)
    return out


# --- figures ------------------------------------------------------------------------------------


def middle(values):
    return statistics.median(values)


def ratio(one, other):
    """The median of the rounds' ratios: both were measured in the same round."""
    return statistics.median(a / b for a, b in zip(one, other))


def spread(values, digits=1):
    """Median, least and most."""
    low, high = min(values), max(values)
    return f"{middle(values):.{digits}f} ({low:.{digits}f}-{high:.{digits}f})"


def us(values, digits=1):
    """The same of nanoseconds, as microseconds."""
    return spread([value / 1000 for value in values], digits)


def cost_table(board):
    cpu, rtt, rate, answers = (board[key] for key in ("cpu_ns", "rtt_ns", "rate", "answers"))
    yield ("request", "frames", "bytes", "round trip µs", "agent CPU µs", "with morvad µs",
           "echo CPU µs", "agent/echo", "requests/s", "echo's")  # fmt: skip
    for name in SUBJECTS:
        limit = cpu["limit:" + name]
        yield (
            name,
            answers[name]["frames"],
            answers[name]["bytes"],
            us(rtt[name]),
            us(cpu[name]),
            us(cpu[name + "+morvad"]),
            us(limit),
            spread([a / b for a, b in zip(cpu[name], limit)], 2),
            spread(rate[name], 0),
            spread(rate["limit:" + name], 0),
        )
    if "snmpd" in cpu:
        answer = answers["snmpd"]
        first = ("snmpd, 3 columns, cached", answer["frames"], answer["bytes"], us(rtt["snmpd"]))
        yield (*first, us(cpu["snmpd"]), "-", "-", "-", spread(rate["snmpd"], 0), "-")
        yield ("the same, fresh", *first[1:3], "-", us(cpu["snmpd fresh"]), *["-"] * 5)


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
    return ratio(board["idle_ns_per_s"]["agent"], board["idle_ns_per_s"]["timer"])


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
        bare, least = us(cpu["bare:ping"]), us(cpu["least:ping"])
        lines += [
            f"The echo of a ping costs {bare} µs without any work, and {least} µs with the look-ups "
            f"on a socket that it keeps and no buffer cleared: the agent's ping costs "
            f"{ratio(cpu['ping'], cpu['least:ping']):.2f} times that. The echo that also reads what "
            f"a probe reads costs {us(cpu['probe-limit:probe'])} µs.",
            "",
        ]
    return lines + weight_report(result)


def weight_report(result):
    board = result["boards"]["ge28"]
    rows = [("process", "Pss KB at start", "private KB at start", "Pss KB at the end",
             "private KB at the end", "CPU of an idle hour, s")]  # fmt: skip
    for name, start in board["start_kb"].items():
        end = board["end_kb"].get(name, {"pss": "-", "private": "-"})
        idle = [value * SECONDS_PER_HOUR / 1e9 for value in board["idle_ns_per_s"].get(name, [])]
        rows.append((name, start["pss"], start["private"], end["pss"], end["private"],
                     spread(idle, 2) if idle else "-"))  # fmt: skip
    marks = board["million"]["marks"]
    lines = ["### Weight (28 ports)", ""] + table(rows) + [""]
    pss = ", ".join(str(mark["pss"]) for mark in marks)
    fds = ", ".join(str(mark["descriptors"]) for mark in marks)
    lines += [
        f"After each quarter of {board['million']['requests']} more requests the agent had a Pss "
        f"of {pss} KB and {fds} descriptors. The stripped program has {result['binary_bytes']} "
        f"bytes. From exec to the first answered probe: {us(board['first_answer_ns'])} µs.",
    ]
    return lines + [""] + growth_report(result, board)


def growth_report(result, board):
    lines = ["### Growth", "", "Nanoseconds for one call, in one process on the test platform:", ""]
    for name, figures in result["growth"].items():
        unit = "entries" if name == "mac_scan" else "ports"
        cells = [spread(values, 0) for values in figures.values()]
        lines += table([(f"{name}, {unit}", *figures), ("ns", *cells)]) + [""]
    boards = result["boards"].values()
    rows = [("idle tick, ports", *(one["ports"] for one in boards))]
    rows += [("µs of CPU a second", *(us(one["idle_ns_per_s"]["agent"]) for one in boards))]
    rows += [("times a bare timer's", *(f"{idle_ratio(one):.2f}" for one in boards))]
    lines += ["The same tick in the lab, with a processor that has forgotten the agent's memory:", ""]
    lines += table(rows) + [""]
    lines += [
        "A module query holds everything behind it, for two seconds at the most. Milliseconds until "
        "the answers to a \"ports_stats\" and to a ping sent right behind it, by how long the module "
        "takes:",
        "",
    ]
    slow = board["slow_ms"]
    rows = [("module takes, ms", *slow)]
    for name in ("ports_stats", "ping behind it"):
        rows.append((name, *(spread(one[name]) for one in slow.values())))
    return lines + table(rows) + [""]


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


def run(options):
    amounts = QUICK if options.quick else FULL
    result = {"date": time.strftime("%Y-%m-%d"), "machine": machine(), "amounts": amounts}
    result["boards"] = {name: measure(name, options.build, amounts) for name in BOARDS}
    result["binary_bytes"] = binary_size(options.build)
    result["growth"] = growth(options.build, amounts["rounds"])
    result["targets"] = [list(row) for row in targets(result)]
    folder = TOP / "build/bench"
    folder.mkdir(parents=True, exist_ok=True)
    file = folder / ("quick.json" if options.quick else "results.json")
    file.write_text(json.dumps(result, indent=1), encoding="utf-8")
    shutil.rmtree(TOP / "tests/bench/__pycache__", ignore_errors=True)
    return json.loads(file.read_text(encoding="utf-8"))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--from", dest="file", type=pathlib.Path)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    options = parser.parse_args()
    if options.file:
        result = json.loads(options.file.read_text(encoding="utf-8"))
    else:
        result = run(options)
    lines = report(result)
    print("\n".join(lines))
    if options.write:
        write_document(lines)
    missed = [what for what, _, _, met in targets(result) if not met]
    for what in missed:
        print(f"target missed: {what}", file=sys.stderr)
    return 1 if missed and not options.quick else 0


if __name__ == "__main__":
    sys.exit(main())
