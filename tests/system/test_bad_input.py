# SPDX-License-Identifier: Apache-2.0
"""Hostile frames and datagrams: none is answered, none harms, and the next good probe is answered.

At the end of the file the lab is taken down, and with it the agent, whose sanitizers then report
what it read outside of a frame, leaked, or shifted too far.
"""

import socket

import pytest

from gateway import GROUP, frame
from labkit import Lab

PROBE = b'{"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":3}}'

GET_COMMANDS = (
    "ports_info ports_conf ports_link ports_poe ports_client ports_stats ping qelipc".split()
)

# name -> message text; none of them may be answered
UNANSWERED = {
    "nothing": b"",
    "one NUL": b"\0",
    "1600 opening brackets": b"[" * 1600,
    "1568 opening brackets": b"[" * 1568,
    "1568 opening braces": b'{"a":' * 313,
    "a probe beyond the 1600th byte": b" " * 1568 + PROBE,
    "cut in a string": PROBE[:-30],
    "cut in an escape": b'{"cmd":"probe","subcmd":"probe\\',
    "cut in a code point": b'{"cmd":"probe","subcmd":"probe\\u00',
    "a lone surrogate": b'{"cmd":"probe","subcmd":"\\ud800","data":{"ntick":3}}',
    "a number": b"12",
    "an array": b'["cmd","probe"]',
    "a text": b'"probe"',
    "null": b"null",
    "no cmd": b'{"subcmd":"probe","data":{"ntick":3}}',
    "no subcmd": b'{"cmd":"probe","data":{"ntick":3}}',
    "cmd a number": b'{"cmd":1,"subcmd":"probe","data":{"ntick":3}}',
    "cmd an object": b'{"cmd":{"cmd":"probe"},"subcmd":"probe","data":{"ntick":3}}',
    "subcmd null": b'{"cmd":"probe","subcmd":null,"data":{"ntick":3}}',
    "subcmd an array": b'{"cmd":"probe","subcmd":["probe"],"data":{"ntick":3}}',
    "subcmd unknown": b'{"cmd":"probe","subcmd":"Probe","data":{"ntick":3}}',
    "probe in the other table": b'{"cmd":"set","subcmd":"probe","data":{"ntick":3}}',
    "no data": b'{"mac":"020000000001","cmd":"probe","subcmd":"probe"}',
    "bytes that are not text": bytes(range(128, 256)) * 8,
    "control bytes in cmd": b'{"cmd":"' + bytes(range(1, 32)) + b'","subcmd":"probe","data":{}}',
}



def probe(data=b'{"ntick":3}', mac=b'"m"'):
    return b'{"mac":' + mac + b',"cmd":"probe","subcmd":"probe","data":' + data + b"}"


# name -> message text; an answer may come or not, but the agent must stay well
HARMLESS = {
    "data a text": probe(b'"ntick"'),
    "data a number": probe(b"7"),
    "data an array": probe(b"[1,2,3]"),
    "data null": probe(b"null"),
    "ntick a text": probe(b'{"ntick":"twelve"}'),
    "ntick an object": probe(b'{"ntick":{}}'),
    "ntick beyond 64 bits": probe(b'{"ntick":98765432109876543210}'),
    "ntick below 64 bits": probe(b'{"ntick":-98765432109876543210}'),
    "ntick a huge power": probe(b'{"ntick":1e999}'),
    "ntick a fraction": probe(b'{"ntick":0.000001}'),
    "no mac": b'{"cmd":"probe","subcmd":"probe","data":{"ntick":3}}',
    "mac a number": probe(mac=b"5"),
    "mac of 1400 bytes": probe(mac=b'"' + b"m" * 1400 + b'"'),
    "mac with every control byte": probe(mac=b'"' + bytes(range(1, 32)) + b'"'),
    "mac with escaped control bytes": probe(mac=b'"\\u0001\\u001f\\n\\"%s%n"'),
    "duplicate keys": b'{"cmd":"get","cmd":"probe","subcmd":"x",'
    b'"subcmd":"probe","data":1,"data":{"ntick":3}}',
    "no closing NUL": PROBE,
    "text after the NUL": PROBE + b"\0" + b"}{" * 200,
    "trailing text": PROBE + b"trailing",
}


def still_answers(gateway):
    """Every frame that came before the answer to one more, good probe."""
    return gateway.until_probe()[:-1]


@pytest.mark.parametrize("name", UNANSWERED)
def test_a_bad_message_goes_unanswered(lab, name):
    lab.gateway.send(UNANSWERED[name])
    assert still_answers(lab.gateway) == []


@pytest.mark.parametrize("name", HARMLESS)
def test_an_odd_probe_does_no_harm(lab, name):
    pid = lab.pid("qel")
    lab.gateway.send(HARMLESS[name])
    assert len(still_answers(lab.gateway)) <= 1
    assert lab.pid("qel") == pid


@pytest.mark.parametrize("length", [14, 15, 16, 17, 18, 19, 20, 31, 32, 33, 60])
def test_a_short_frame_does_no_harm(lab, length):
    lab.gateway.send_raw(frame(GROUP, lab.gateway.mac, PROBE)[:length])
    assert still_answers(lab.gateway) == []


@pytest.mark.parametrize("size", [1567, 1568, 1569, 1968])
def test_a_text_as_long_as_a_frame_allows_is_read_up_to_its_limit(lab, size):
    """The agent reads 1568 bytes: a probe that ends there is whole, one byte more is not."""
    head = b'{"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":3,"fill":"'
    text = head + b"x" * (size - len(head) - 3) + b'"}}'
    assert len(text) == size
    lab.gateway.send(text)
    before = still_answers(lab.gateway)
    assert len(before) == (1 if size <= 1568 else 0)


def test_every_command_with_wrong_data_leaves_the_agent_well(lab):
    pid = lab.pid("qel")
    for name in GET_COMMANDS:
        for data in (b'"text"', b"7", b"[[[]]]", b"null", b"{}", b'{"name":"' + b"n" * 999 + b'"}'):
            head = b'{"mac":"m","cmd":"get","subcmd":"' + name.encode()
            lab.gateway.send(head + b'","data":' + data + b"}")
    still_answers(lab.gateway)
    assert lab.pid("qel") == pid


def test_the_udp_link_is_closed_by_default(lab):
    with lab.socket(socket.AF_INET, socket.SOCK_DGRAM) as link:
        link.settimeout(30.0)
        link.connect(("192.168.1.10", 20682))
        link.send(PROBE)
        with pytest.raises(ConnectionRefusedError):
            link.recv(2000)


@pytest.fixture(scope="module")
def udp_lab():
    with Lab(settings={"qel_udp_enable": "1"}) as running:
        yield running


@pytest.fixture
def link(udp_lab):
    with udp_lab.socket(socket.AF_INET, socket.SOCK_DGRAM) as made:
        made.settimeout(30.0)
        made.connect(("192.168.1.10", 20682))
        yield made


def answers_before_probe(link):
    """Every datagram that came before the answer to one more, good probe."""
    link.send(b'{"mac":"udp","cmd":"probe","subcmd":"probe","data":{"ntick":4711}}')
    answers = []
    while not answers or not answers[-1].endswith(b'"ntick":4711}}\0'):
        answers.append(link.recv(65535))
    return answers[:-1]


def test_a_probe_over_udp_is_answered_by_the_bare_text(link):
    link.send(PROBE)
    answer = link.recv(65535)
    assert answer.startswith(b'{"mac":"0a1b2c3d4e5f","cmd":"answer","subcmd":"answer","data":{')
    assert answer.endswith(b',"ntick":3}}\0')


@pytest.mark.parametrize("name", sorted(UNANSWERED.keys() - {"a probe beyond the 1600th byte"}))
def test_a_bad_datagram_goes_unanswered(link, name):
    link.send(UNANSWERED[name])
    assert answers_before_probe(link) == []


@pytest.mark.parametrize("name", HARMLESS)
def test_an_odd_datagram_does_no_harm(udp_lab, link, name):
    pid = udp_lab.pid("qel")
    link.send(HARMLESS[name])
    assert len(answers_before_probe(link)) <= 1
    assert udp_lab.pid("qel") == pid


@pytest.mark.parametrize("part", [b"[", b'{"a":', b" "])
def test_the_longest_datagram_does_no_harm(link, part):
    link.send(part * (65507 // len(part)))
    assert answers_before_probe(link) == []
