# SPDX-License-Identifier: Apache-2.0
"""script/soak: the part in real time, run in the lab's gateway.

    real_time.py SECONDS SWITCH-MAC

Asks as fast as the agent answers and prints its memory and descriptors every minute. Ends with
status 1 when the last minute shows more descriptors, or over 64 KB more private memory, than the
first, or when one request in a thousand went unanswered.
"""

import json
import os
import pathlib
import subprocess
import sys
import time

SUBJECTS = ("ping", "probe", "ports_link", "ports_info", "ports_conf", "ports_stats", "ports_client")
VERBS = {"ping": "ping", "probe": "probe"}  # whose answers hold the number that was asked with
COUNT = 2000
WINDOW = 8  # requests on their way: there is always one waiting for the agent


def state(pid):
    figures = {"descriptors": len(os.listdir(f"/proc/{pid}/fd")), "private": 0}
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii").splitlines():
        if line.startswith("Pss:"):
            figures["pss"] = int(line.split()[1])
        elif line.startswith("Private_"):
            figures["private"] += int(line.split()[1])
    return figures


def main():
    seconds, mac = float(sys.argv[1]), sys.argv[2]
    pid = int(pathlib.Path(os.environ["LAB_DIR"], "qel.pid").read_text(encoding="ascii"))
    start = time.monotonic()
    mark, first, figures = start + min(60.0, seconds / 4), None, None
    requests = lost = 0
    while time.monotonic() < start + seconds:
        for subject in SUBJECTS:
            data = '{"ntick":@@@@@@@@}' if subject in VERBS else "{}"
            text = f'{{"mac":"soak","cmd":"{VERBS.get(subject, "get")}","subcmd":"{subject}",'
            text += f'"data":{data}}}'
            command = ["qel_bench_driver", "agent", "gw0", mac, text]
            command += [f"count={COUNT}", f"window={WINDOW}"]
            result = subprocess.run(command, check=True, stdout=subprocess.PIPE)
            requests += COUNT
            lost += json.loads(result.stdout)["lost"]
        if time.monotonic() >= mark:
            mark += min(60.0, seconds / 4)
            figures = state(pid)
            first = first or figures
            elapsed = time.monotonic() - start
            print(f"{elapsed:6.0f} s: {requests} requests, {lost} lost, {figures}", flush=True)
    grown = figures["private"] - first["private"]
    good = figures["descriptors"] <= first["descriptors"] and grown <= 64
    print("flat" if good else f"GREW by {grown} KB")
    return 0 if good and lost * 1000 <= requests else 1


if __name__ == "__main__":
    sys.exit(main())
