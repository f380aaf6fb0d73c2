# SPDX-License-Identifier: Apache-2.0
"""qelctl where the wire plays tricks: switches that answer late, an interface that goes down, output that
nobody takes. What it does must hold, and what it says must be true."""

import socket

from labkit import wait_until
from qelctl_user import Qelctl
from test_qelctl_faults import beside

FIRST = "0a:1b:2c:3d:4e:5f"
SECOND = "0a:1b:2c:3d:4e:60"


def hear_probes(lab):
    """A socket that is shown what is asked of the switches."""
    heard = lab.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x9301), inside=1)
    heard.bind(("vlanif1", 0x9301))
    heard.settimeout(10)
    return heard


def wait_for(heard, part, count=1):
    """Returns when so many requests with `part` in them have come."""
    while count:
        count -= part in heard.recv(2000)


def kill(lab, signal, name, number=1):
    lab.switch("sh", "-c", f"kill -{signal} {lab.pid(name, number)}", number=number)


def late_second(lab, directory, *arguments):
    """Runs qelctl while the second switch answers nothing before the second probe."""
    (directory / "status").unlink(missing_ok=True)
    kill(lab, "STOP", "qel", 2)
    with hear_probes(lab) as heard:
        result = beside(lab, directory, "-i", "gw0", *arguments)
        wait_for(heard, b'"probe"', 2)
        kill(lab, "CONT", "qel", 2)
    return result()


def test_what_changes_something_waits_for_switches_that_answer_late(make_lab, tmp_path):
    lab = make_lab("--switches", "2")
    qelctl = Qelctl(lab, "-i", "gw0")
    name = qelctl.json("-s", FIRST, "show")[0]["name"]
    assert qelctl.json("-s", SECOND, "show")[0]["name"] == name
    both = f"  {FIRST}  {name}\n  {SECOND}  {name}\n"
    assert late_second(lab, tmp_path, "name", "gotcha") == (
        2, "", "qelctl: 2 switches answered; choose with --switch:\n" + both
    )  # fmt: skip
    assert late_second(lab, tmp_path, "-s", name, "name", "gotcha") == (
        2, "", f'qelctl: 2 switches are called "{name}"; choose by MAC:\n' + both
    )  # fmt: skip
    assert [one["name"] for one in qelctl.json("discover", "--expect", "2")] == [name, name]
