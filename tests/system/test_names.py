# SPDX-License-Identifier: Apache-2.0
"""Texts that try to end their place in JSON: in a name, in a stored setting, in a port's name, in an
address, in a module's name. None of them reaches a query or writes a member of an answer."""

import json
import pathlib

import pytest

from labkit import PYTHON, wait_until

DOUBLE = pathlib.Path(__file__).with_name("module_double.py")

# What is left of an answer whose switch is called office-sw.
NAME_HERE = b',"name":"office-sw","model":"QM4410_MODEL","type":"switch",'

BAD_NAMES = {
    "members of its own": 'x","model":"forged","sys_active":7,"y":"',
    "an end of the answer": 'x"}}',
    "a quote": 'a"b',
    "a backslash": "a\\b",
    "a backslash at its end": "office\\",
    "an escape": "\\u0022",
    "a line end": "two\nlines",
    "a control byte": "bell\a",
    "a delete": "gone\x7f",
}

# The answer of "mono" and "sys" to such a name.
REFUSED_NAME = (
    b'{"ret":-1,"error":"%s: expected at most 63 bytes without control characters, '
    b'quotes and backslashes"}'
)


def strict(text):
    """A message's members; fails when one object has a name twice."""

    def once(pairs):
        names = [name for name, _ in pairs]
        assert len(set(names)) == len(names), f"a member stands twice in {text}"
        return dict(pairs)

    return json.loads(text.split(b"\0", 1)[0], object_pairs_hook=once)


def settings(lab):
    return lab.switch("cat", "/var/conf/nvram.conf").stdout


class Watch:
    """What a piece of a test made the agent ask and say."""

    def __init__(self, lab):
        self._lab = lab
        self._queries = len(lab.queries())
        self._console = len(lab.console())

    def requests(self):
        return [one["request"] for one in self._lab.queries()[self._queries :]]

    def console(self):
        """The lines, once there are any: they reach the lab's file on their own way."""
        return wait_until(self._lines, "a line on the console")

    def _lines(self):
        text = self._lab.console()[self._console :]
        return text.endswith("\n") and text.splitlines()


def refused(lab, cmd, subcmd, data, function):
    """Sends a command that must become no query, with one console line and no frame but a probe's."""
    before = settings(lab)
    watch = Watch(lab)
    lab.gateway.command(cmd, subcmd, data)
    (answer,) = lab.gateway.until_probe()
    assert watch.requests() == []
    (line,) = watch.console()
    assert line.startswith(f"{function},") and line.endswith(" unsafe text ")
    assert settings(lab) == before
    return answer


# ---- the switch's name ---------------------------------------------------------------------------


@pytest.mark.parametrize("name", BAD_NAMES)
def test_name_that_could_write_members_is_refused(lab, name):
    answer = refused(lab, "set", "name", {"name": BAD_NAMES[name]}, "qel_cmd_handle_name")
    assert NAME_HERE in answer.text
    strict(answer.text)


@pytest.mark.parametrize("name", BAD_NAMES)
def test_name_passed_through_to_its_module_is_refused_there(lab, name):
    before = settings(lab)
    query = {"mdl": "mono", "cmd": "product_description_set", "cfg_flag": 1}
    lab.gateway.command("get", "qelipc", query | {"data": {"descr": BAD_NAMES[name]}})
    passed, answer = lab.gateway.until_probe()
    assert passed.text == REFUSED_NAME % b"descr"
    assert NAME_HERE in answer.text
    assert settings(lab) == before


def test_name_of_every_other_kind_is_taken_as_before(make_lab):
    lab = make_lab()
    for name in ("attic switch", "Büro {3}: [a], 'b' & <c> /d", "€" * 21, ""):
        lab.gateway.command("set", "name", {"name": name})
        assert strict(lab.gateway.probe().text)["data"]["name"] == name
    refused(lab, "set", "name", {"name": '"'}, "qel_cmd_handle_name")
    assert lab.console().count("unsafe text") == 1  # the last one's


def test_stored_texts_are_cleaned_when_they_are_read(make_lab):
    """As a restored archive may bring them: no module looked at these."""
    lab = make_lab(
        settings={
            "product_description": 'x","model":"forged","y":"\\',
            "product_model": '"}}\\',
            "product_hw_ver": '\\"V1.0',
            "firmware_ver": 'V2","active":0,"z":"',
        }
    )
    answer = lab.gateway.probe()
    assert b',"name":"x,model:forged,y:","model":"}}","type":"switch","uptime":' in answer.text
    assert b',"hw_version":"V1.0","sw_version":"V2,active:0,z:","active":1,' in answer.text
    assert list(strict(answer.text)["data"]) == [
        *("mac", "sys_ip", "sys_mask", "name", "model", "type", "uptime", "hw_version"),
        *("sw_version", "active", "sys_active", "cpu", "mem", "ntick"),
    ]


def test_name_of_a_file_cannot_write_members_of_the_chunks_answer(lab):
    data = {"index": 5, "next": 1, "length": -1, "file": 'x","state":9,"y":"\\\n'}
    lab.gateway.command("update", "config_download", data)
    answer = lab.gateway.until_probe()[0]
    assert answer.text == (
        b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download",'
        b'"data":{"state":0,"index":6,"file":"x,state:9,y:"}}'
    )


# ---- ports, address, modules ---------------------------------------------------------------------

# Written into the query of port_speed as it is, it would be a command to disable ge3.
DISABLES_GE3 = 'x","speed":0},"cmd":"qel_port_enable_set","data":{"port":"ge3","enable":0,"y":"'


@pytest.mark.parametrize(
    "subcmd, value, function",
    [
        ("port_speed", "1G", "qel_cmd_port_speed_update"),
        ("port_enable", 1, "qel_cmd_port_enable_update"),
        ("port_restart", 5, "qel_cmd_handle_port_restart"),
    ],
    ids=["port_speed", "port_enable", "port_restart"],
)
@pytest.mark.parametrize(
    "name",
    [DISABLES_GE3, "ge3\\", "ge3\n", "ge3\x7f"],
    ids=["a command", "a backslash", "a line end", "a delete"],
)
def test_name_of_a_port_cannot_change_the_query(lab, subcmd, value, function, name):
    refused(lab, "set", subcmd, {name: value}, function)
    shown = json.loads(lab.morvactl("show", "--json").stdout)["ports"]
    assert next(port for port in shown if port["name"] == "ge3")["enable"] == 1


@pytest.mark.parametrize(
    "address",
    ['10.0.0.7/8", "method":1, "x":"', "10.0.0.7\\", "10.0.0.7\n"],
    ids=["members", "a backslash", "a line end"],
)
def test_address_cannot_change_the_query(lab, address):
    watch = Watch(lab)
    lab.gateway.command("set", "sys_ip", {"sys_ip": address, "sys_mask": 24})
    report, _ = lab.gateway.until_probe()
    assert strict(report.text)["data"]["sys_ip"] == "192.168.1.10"
    assert watch.requests() == ['{"mdl":"zebra","cmd":"manage_L3IF_info_get"}']
    (line,) = watch.console()
    assert line.startswith("qel_cmd_handle_sys_ip,") and line.endswith(" unsafe text ")


@pytest.mark.parametrize(
    "module, command",
    [
        ("mono", 'c","cmd":"product_description_set","config":{"descr":"forged"},"x":"'),
        ('mono","cmd":"product_description_set","config":{"descr":"forged"},"x":"', "c"),
        ("mono\\", "c"),
        ("mono", "qel_port_config_get_all\n"),
    ],
    ids=["a command's members", "a module's members", "a backslash", "a line end"],
)
def test_names_of_a_pass_through_cannot_change_the_query(lab, module, command):
    data = {"mdl": module, "cmd": command}
    answer = refused(lab, "get", "qelipc", data, "qel_cmd_handle_qelipc")
    assert NAME_HERE in answer.text


@pytest.mark.parametrize("module", ["../out", "/../out", "./../out", "x/../../out", "m" * 33])
def test_name_of_a_module_leads_to_no_socket_outside_the_folder(lab, module):
    script = 'mkdir -p /var/run/morva/x; "$@" </dev/null 2>/dev/null &'
    program = DOUBLE.read_text(encoding="utf-8")
    where = module if len(module) == 33 else "../out"
    started = lab.switch(
        *("sh", "-c", script, "sh", PYTHON, "-c", program, where, "answers", '{"here":1}')
    )
    word, pid = started.stdout.split()
    assert word == "ready"
    try:
        assert len(lab.gateway.until_probe()) == 1
        lab.gateway.command("get", "qelipc", {"mdl": module, "cmd": "c"})
        assert len(lab.gateway.until_probe()) == 1  # an empty answer has no frame
        assert (lab.queries()[-1]["module"], lab.queries()[-1]["reply_bytes"]) == ("", 0)
    finally:
        lab.switch("kill", pid)


# ---- restart of an interface that is not a port ---------------------------------------------------


def test_restart_of_an_interface_without_a_record_is_skipped(lab):
    """Its countdown would stand in the record: taken down, it would stay down."""
    watch = Watch(lab)
    lab.gateway.command("set", "port_restart", {"vlanif1": 1})
    assert len(lab.gateway.until_probe()) == 1
    assert watch.requests() == []
    assert watch.console() == ["qel_cmd_handle_port_restart,629 string[vlanif1] valueint[1] "]
