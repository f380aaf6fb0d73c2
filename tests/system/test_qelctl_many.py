# SPDX-License-Identifier: Apache-2.0
"""Many switches on one wire: qelctl finds them all and reads them all in time.

Two hundred with the release build, where there is one (`script/build release`); the dev build's
sanitizers need ten times the memory, so that it plays a tenth of them, within the same times, and the
line that the test prints says so."""

import json
import time

from labkit import TOP, Lab
from qelctl_user import Qelctl

RELEASE = TOP / "build/release"
DISCOVER_SECONDS = 2.0
PORTS_SECONDS = 10.0


def timed(action):
    started = time.monotonic()
    result = action()
    return result, time.monotonic() - started


def test_all_are_found_and_read_in_time(capsys):
    programs = [RELEASE / "bin" / name for name in ("qel", "morvad", "qelctl")]
    released = all(program.exists() for program in programs)
    number = 200 if released else 20
    environment = {"QEL_BUILD_DIR": str(RELEASE)} if released else {}
    with Lab("--switches", str(number), environment=environment) as lab:
        qelctl = Qelctl(lab, "-i", "gw0")
        found, finding = timed(lambda: qelctl.json("discover"))
        assert len({one["mac"] for one in found}) == number
        assert finding < DISCOVER_SECONDS
        reports, reading = timed(lambda: qelctl.json("--switch", "all", "ports", timeout=60))
        assert [one["mac"] for one in reports] == [one["mac"] for one in found]
        for one in reports:
            assert len(one["ports"]) == 28 and "missing" not in one
            assert all("client" in port and "stats" in port for port in one["ports"])
        assert reading < PORTS_SECONDS
        memory = resident_memory(lab)
    with capsys.disabled():
        print(
            f"\n{number} switches{'' if released else ' (not 200: there is no release build)'}: found in "
            f"{finding:.2f} s, all ports read in {reading:.2f} s, an agent has {memory} kB of memory"
        )


def resident_memory(lab):
    """VmRSS of the first switch's agent, in kB."""
    script = "import json, re, sys; print(json.dumps(re.findall(r'VmRSS:\\s+(\\d+)', open(sys.argv[1]).read())))"
    status = lab.switch("/usr/bin/python3", "-c", script, f"/proc/{lab.pid('qel')}/status", check=False)
    rows = json.loads(status.stdout or "[]")
    return int(rows[0]) if rows else 0
