# SPDX-License-Identifier: Apache-2.0
"""qelctl top against the real agent: what stands on the screen, and that the terminal is left as it
was, whatever ends it."""

import re
import threading

import pytest
from labkit import Lab
from qelctl_user import Qelctl, quiet_board
from test_qelctl_faults import STRANGER, Impostor

TOP = """\
1 switch, 10 ports, 5 up  sorted by rx
PORT  LINK      SPEED  TX/s  RX/s  POE
ge2   up    1000 full    10    20  on
ge1   up    1000 full     0     0  on
ge3   up     100 full     0     0  on
ge4   up      10 half     0     0  on
ge5   down                0     0  on
ge6   down                0     0  on
ge7   down                0     0  on
ge8   down                0     0  on
ge9   up    2500 full     0     0
ge10  down                0     0
q quit  sort: p port t tx r rx l link c client  u links only  arrows scroll"""

TOP_LINKS_BY_TX = """\
1 switch, 10 ports, 5 up  sorted by tx, links only
PORT  LINK      SPEED  TX/s  RX/s  POE
ge2   up    1000 full    10    20  on
ge1   up    1000 full     0     0  on
ge3   up     100 full     0     0  on
ge4   up      10 half     0     0  on
ge9   up    2500 full     0     0
q quit  sort: p port t tx r rx l link c client  u links only  arrows scroll"""


@pytest.fixture(scope="module")
def qelctl(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        lab.morvactl("counters", "ge2", "tx_bytes=1", "rx_bytes=2", "tx_rate=10", "rx_rate=20")
        yield Qelctl(lab)


def without_clock(text):
    return re.sub(r"^\d\d:\d\d:\d\d  ", "", text)


def screens_of(output):
    """What stood on the screen before it was left: the state at each redraw."""
    return output.split("\033[?25h\033[?1049l")[0].split("\033[H")


def test_top_is_a_screen_that_leaves_the_terminal_as_it_was(qelctl):
    status, screen, output = qelctl.on_terminal("top", steps=[("sorted by rx", ""), ("ge10", "q")])
    assert status == 0
    assert not screen.alternate and screen.cursor_visible and screen.text() == ""
    last = plain(screens_of(output)[-1])
    assert without_clock(last) == TOP


def plain(drawn):
    text = re.sub(r"\x1b\[[0-9;]*[mKJ]", "", drawn).replace("\r\n", "\n")
    return text.rstrip("\n")


def test_top_obeys_its_keys(qelctl):
    _, _, output = qelctl.on_terminal(
        "top", steps=[("ge10", "t"), ("sorted by tx", "u"), ("tx, links only", ""), ("arrows scroll", "q")]
    )
    assert TOP_LINKS_BY_TX in [without_clock(plain(drawn)) for drawn in screens_of(output)]


def test_top_fits_a_window_that_changes(qelctl):
    status, _, output = qelctl.on_terminal(
        "top", columns=60, rows=8, shown_on=(100, 30),
        steps=[("ge2", "resize:100x30"), ("ge10", "q")],
    )  # fmt: skip
    assert status == 0
    small = [text for text in map(plain, screens_of(output)) if "ge2" in text and "ge10" not in text]
    assert small
    for text in small:
        assert text.count("\n") <= 7 and max(map(len, text.split("\n"))) <= 60


@pytest.mark.parametrize("number, status", [("INT", 0), ("TERM", 0), ("HUP", 0), ("QUIT", 0)])
def test_signals_leave_the_terminal_whole(qelctl, number, status):
    ended, screen, _ = qelctl.on_terminal("top", steps=[("ge10", f"signal:{number}")])
    assert ended == status
    assert not screen.alternate and screen.cursor_visible


def test_a_crash_leaves_the_terminal_whole(qelctl):
    ended, screen, _ = qelctl.on_terminal("top", steps=[("ge10", "signal:ABRT")])
    assert ended == -6 or ended == 134
    assert not screen.alternate and screen.cursor_visible


def test_top_needs_a_terminal(qelctl):
    result = qelctl("top", status=2)
    assert result.stderr == 'qelctl: top needs a terminal; "qelctl ports" shows the same once\n'


def test_top_counts_its_rounds(qelctl):
    status, _, output = qelctl.on_terminal("top", "--rounds", "2", "--interval", "0.2")
    assert status == 0 and output.count("1 switch, 10 ports") >= 2


@pytest.mark.parametrize("key", ["q", "Q"])
def test_q_ends_a_reading_that_waits(qelctl, key):
    other = Impostor(qelctl.lab, bytes.fromhex(STRANGER.replace(":", "")))
    answering = threading.Thread(target=other.serve, args=(1, lambda to, tick: other.answer(to, tick, "ghost")))
    with other.socket:
        answering.start()
        # It says who it is and then nothing: the first reading would wait for ten minutes.
        status, screen, _ = qelctl.on_terminal(
            "-s", STRANGER, "--timeout", "600", "top", steps=[("1 switch, 0 ports", ""), ("arrows scroll", key)]
        )
        answering.join()
    assert status == 0
    assert not screen.alternate and screen.cursor_visible
