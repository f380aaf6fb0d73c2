# SPDX-License-Identifier: Apache-2.0
"""Runs GoogleTest programs in a few processes each, side by side.

    run_shards.py RESULTS_FOLDER PROGRAM...

A process for each of two thousand tests would spend its time on starting; one process for all would
keep a processor idle. Writes a JUnit file for each process into RESULTS_FOLDER, prints what a
process that failed printed, and ends with the line "PASSED FAILED SKIPPED". A process that ended
badly although no test of it failed, by a crash or a leak found at its end, counts as one failure.
"""

import concurrent.futures
import os
import pathlib
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

SHARDS = 4


def run(program, shard, results):
    file = results / f"unit-{program.name}-{shard}.xml"
    file.unlink(missing_ok=True)
    environment = dict(os.environ, GTEST_TOTAL_SHARDS=str(SHARDS), GTEST_SHARD_INDEX=str(shard))
    ended = subprocess.run(
        [program, "--gtest_brief=1", f"--gtest_output=xml:{file}"],
        env=environment,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        check=False,
    )
    try:
        cases = list(ElementTree.parse(file).iter("testcase"))
    except (OSError, ElementTree.ParseError):
        cases = []
    failed = sum(case.find("failure") is not None for case in cases)
    skipped = sum(case.find("skipped") is not None for case in cases)
    passed = len(cases) - failed - skipped
    if ended.returncode != 0:
        text = ended.stdout.decode(errors="replace")
        print(f"{program.name}, process {shard + 1} of {SHARDS}: status {ended.returncode}\n{text}")
        failed = max(failed, 1)
    elif not cases:
        print(f"{program.name}, process {shard + 1} of {SHARDS}: ran no test")
        failed = 1
    return passed, failed, skipped


def main():
    results, *programs = (pathlib.Path(argument).absolute() for argument in sys.argv[1:])
    jobs = [(program, shard, results) for program in programs for shard in range(SHARDS)]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        totals = list(pool.map(lambda job: run(*job), jobs))
    print(*(sum(column) for column in zip(*totals)))


if __name__ == "__main__":
    main()
