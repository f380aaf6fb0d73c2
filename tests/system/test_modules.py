# SPDX-License-Identifier: Apache-2.0
"""Modules of the switch that fail, over real sockets: the agent waits no longer than the platform's
deadline, sends its report with what it has, and answers the next frame."""

import contextlib
import pathlib
import time

import pytest

from labkit import PYTHON, Lab

DOUBLE = pathlib.Path(__file__).with_name("module_double.py")
DEADLINE_MS = 1000  # of this file's labs; the platform's own is 2000
SLACK = 20.0  # seconds that a busy machine may add; a query without a deadline takes for ever

STATS_HEAD = b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{'
POE_HEAD = b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_poe_conf","data":{'
POE_ZEROS = (
    POE_HEAD + b'"ge1":[0,0],"ge2":[0,0],"ge3":[0,0],"ge4":[0,0],"ge5":[0,0],"ge6":[0,0],'
    b'"ge7":[0,0],"ge8":[0,0],"ge9":[0,0],"ge10":[0,0],"ge11":[0,0],"ge12":[0,0],"ge13":[0,0],'
    b'"ge14":[0,0],"ge15":[0,0],"ge16":[0,0],"ge17":[0,0],"ge18":[0,0],"ge19":[0,0],"ge20":[0,0],'
    b'"ge21":[0,0],"ge22":[0,0],"ge23":[0,0],"ge24":[0,0],"xe1":[0,0],"xe2":[0,0],"xe3":[0,0],'
    b'"xe4":[0,0]}}'
)

# behaviour of the double, the text it answers with, whether the agent must wait for the deadline
FAULTS = {
    "absent": (None, "", False),
    "closes at once": ("closes", "", False),
    "empty answer": ("answers", "", False),
    "not JSON": ("answers", "Segmentation fault", False),
    "half a reply": ("answers", '{"ret":0,"data":[{"name":"ge1","enable":1,"tx_sum":5},{"na', False),
    "half a text": ("answers", '{"ret":0,"data":[{"name":"g', False),
    "a NUL in the reply": ("answers", '{"data":[\0]}', False),
    "formats": ("answers", "%n%s%n%s%d", False),
    "bytes that are no text": ("answers", "\udcff" * 3000, False),
    "60,000 brackets": ("answers", "[" * 60000, False),
    "10 MB": ("floods", "", False),
    "silent": ("is_silent", "", True),
    "a byte at a time": ("trickles", "", True),
    "never accepts": ("never_accepts", "", True),
}


@contextlib.contextmanager
def double(lab, module, behaviour, text=""):
    """The module `module` is a double that behaves so; None: it is not there at all."""
    path = f"/var/run/morva/{module}.sock"
    lab.switch("mv", path, path + ".kept")
    pid = None
    try:
        if behaviour is not None:
            script = '"$@" </dev/null 2>/dev/null &'
            program = [PYTHON, "-c", DOUBLE.read_text(encoding="utf-8"), module, behaviour]
            # A NUL cannot be an argument; the shell makes the one that is wanted.
            program[2] = program[2].replace('text=""', f"text={text!r}")
            started = lab.switch("sh", "-c", script, "sh", *program)
            word, pid = started.stdout.split()
            assert word == "ready"
        yield
    finally:
        if pid is not None:
            lab.switch("kill", pid, check=False)  # it may have died by itself
        lab.switch("mv", path + ".kept", path)


@pytest.fixture(scope="module")
def quick():
    """A lab whose deadline for queries is short."""
    with Lab(environment={"MORVA_QUERY_DEADLINE_MS": str(DEADLINE_MS)}) as running:
        yield running


def ask(lab, subcmd):
    """The answers to a question, those to a probe behind it, and the seconds that took."""
    start = time.monotonic()
    lab.gateway.command("get", subcmd)
    answers = lab.gateway.until_probe()
    return [one.text for one in answers[:-1]], time.monotonic() - start


def last_query(lab, module):
    return [one for one in lab.queries() if one["module"] == module][-1]


def check_time(lab, module, seconds, waits):
    """The loop was held until the deadline where it must be, and in no case longer."""
    spent = last_query(lab, module)
    assert spent["reply_bytes"] == 0 or not waits
    assert spent["us"] < DEADLINE_MS * 1000 + SLACK * 1e6
    assert not waits or spent["us"] >= DEADLINE_MS * 1000
    assert seconds < 2 * DEADLINE_MS / 1000 + 2 * SLACK


@pytest.mark.parametrize("name", FAULTS)
def test_poe_lists_every_port_with_zeros(quick, name):
    behaviour, text, waits = FAULTS[name]
    with double(quick, "poe", behaviour, text):
        answers, seconds = ask(quick, "ports_poe")
        assert answers == [POE_ZEROS]
        check_time(quick, "poe", seconds, waits)
    answers, _ = ask(quick, "ports_poe")
    assert answers[0].startswith(POE_HEAD + b'"ge1":[1,0],"ge2":[1,0],')


@pytest.mark.parametrize("name", FAULTS)
def test_counters_keep_their_last_values(quick, name):
    behaviour, text, waits = FAULTS[name]
    quick.morvactl("counters", "ge1", "tx_bytes=11", "rx_bytes=22", "tx_rate=33", "rx_rate=44")
    before, _ = ask(quick, "ports_stats")
    assert len(before) == 2
    assert before[0].startswith(STATS_HEAD + b'"ge1":[11,22,33,44],"ge2":[')
    quick.morvactl("counters", "ge1", "tx_bytes=99")
    with double(quick, "statistics", behaviour, text):
        answers, seconds = ask(quick, "ports_stats")
        assert answers == before
        check_time(quick, "statistics", seconds, waits)
    answers, _ = ask(quick, "ports_stats")
    assert answers[0].startswith(STATS_HEAD + b'"ge1":[99,')


@pytest.mark.parametrize("name", FAULTS)
def test_port_command_is_lost_and_nothing_else(quick, name):
    behaviour, text, waits = FAULTS[name]
    with double(quick, "mono", behaviour, text):
        start = time.monotonic()
        quick.gateway.command("set", "port_enable", {"ge20": 0})
        assert len(quick.gateway.until_probe()) == 1
        check_time(quick, "mono", time.monotonic() - start, waits)
        request = '{"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge20","enable":0}}'
        assert last_query(quick, "mono")["request"] == request
    answers, _ = ask(quick, "ports_conf")
    assert b'"ge20":[1,"AN",' in answers[0]


@pytest.mark.parametrize("name", FAULTS)
def test_pass_through_of_a_failing_module(quick, name):
    """What came whole is passed on as it stands, whatever it is; the rest is an empty answer."""
    behaviour, text, waits = FAULTS[name]
    whole = {"not JSON", "formats", "bytes that are no text"}
    with double(quick, "stp", behaviour, text):
        start = time.monotonic()
        quick.gateway.command("get", "qelipc", {"mdl": "stp", "cmd": "c"})
        answers = [one.text for one in quick.gateway.until_probe()[:-1]]
        seconds = time.monotonic() - start
    if name in whole and len(text) <= 1600:  # more is refused
        assert answers == [text.encode("utf-8", "surrogateescape")]
    else:
        assert answers == []  # an empty message has no frame
    check_time(quick, "stp", seconds, waits)


def test_one_silent_module_of_five_holds_the_fan_out_for_one_deadline(quick):
    with double(quick, "llpp", "is_silent"):
        start = time.monotonic()
        count = len(quick.queries())
        quick.gateway.command("set", "ports_conf", {"ge19": {"lldp": 0, "eee": 1}})
        assert len(quick.gateway.until_probe()) == 1
        seconds = time.monotonic() - start
    asked = [one for one in quick.queries()[count:] if "_portinfo" in one["request"]]
    assert [one["module"] for one in asked] == ["mono", "llpp", "stp", "lldp", "lldp"]
    assert seconds < 2 * DEADLINE_MS / 1000 + 2 * SLACK
    # The others took what is theirs.
    answers, _ = ask(quick, "ports_conf")
    assert b'"ge19":[1,"AN",0,1,0,0,0,1]' in answers[0]


def test_deadline_of_the_platform_is_two_seconds(lab):
    spent = []
    while not spent or spent[-1] >= 3_000_000 and len(spent) < 5:  # a machine that is busy may take longer
        with double(lab, "statistics", "is_silent"):
            answers, _ = ask(lab, "ports_stats")
            assert len(answers) == 2
        spent.append(last_query(lab, "statistics")["us"])
    assert 2_000_000 <= min(spent) < 3_000_000


def test_module_that_dies_and_comes_back_is_heard_again(quick):
    for _ in range(3):
        with double(quick, "poe", "closes"):
            assert ask(quick, "ports_poe")[0] == [POE_ZEROS]
        assert ask(quick, "ports_poe")[0] != [POE_ZEROS]


def test_double_that_answers_well_is_the_module(quick):
    """Whoever binds a module's socket is that module. A row whose name could write members of its own
    is skipped, as one without a name is."""
    text = '{"data":[{"enable":1},{"name":"ge9","enable":1,"supply_priority":3},{"name":"a\\"b%n"}]}'
    with double(quick, "poe", "answers", text):
        answers, _ = ask(quick, "ports_poe")
        assert answers == [POE_HEAD + b'"ge9":[1,3]}}']
