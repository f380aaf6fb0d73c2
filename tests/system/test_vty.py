# SPDX-License-Identifier: Apache-2.0
"""The command shell of the switch: an operator's real telnet client, the Unix socket, the saved
configuration over a restart, and clients that wish the agent ill."""

import json
import pathlib
import socket
import stat

import pytest
from labkit import PYTHON, wait_until

TELNET_USER = pathlib.Path(__file__).with_name("telnet_user.py")
PORT = 2625
GREETING = ["", "qel> "]


def operate(lab, *steps):
    """Drives Debian's telnet client through the steps; returns what it showed after each."""
    steps = [GREETING, *steps]
    command = [*lab.switch_prefix(), "telnet", "127.0.0.1", str(PORT)]
    result = lab.run(PYTHON, str(TELNET_USER), json.dumps(steps), *command, timeout=180.0)
    return json.loads(result.stdout)[1:]


def connect(lab):
    client = lab.socket(socket.AF_INET, socket.SOCK_STREAM, inside=1)
    client.settimeout(30.0)
    client.connect(("127.0.0.1", PORT))
    return client


def read_to(client, tail):
    text = b""
    while not text.endswith(tail):
        part = client.recv(65536)
        assert part, f"closed after {text!r}"
        text += part
    return text


def frames_to_cpu(lab):
    return json.loads(lab.morvactl("show", "--json").stdout)["frames_to_cpu"]


def saved(lab):
    return (lab.switch_dir() / "conf/qel.conf").read_text(encoding="ascii")


def traces(lab):
    """The traces so far of what is sent: of all before a line that the agent always writes."""
    line = "[qel_cmd_handle_conf_download,"
    lines = lab.console().count(line)
    nothing = {"index": 0, "next": 1, "file": "x", "total_length": 1, "crc": 0, "length": -1}
    lab.gateway.command("update", "config_download", nothing)
    lab.gateway.until_probe()
    wait_until(lambda: lab.console().count(line) > lines, "the line on the console")
    return lab.console().rpartition(line)[0].count("send ok")


def test_debug_mask_takes_effect_at_once(make_lab):
    lab = make_lab()
    lab.gateway.probe()
    assert traces(lab) == 0
    operate(
        lab,
        ["enable\r", "qel# "],
        ["configure terminal\r", "qel(config)# "],
        ["qel debug 36\r", "qel(config)# "],
        ["end\r", "qel# "],
        ["exit\r", ""],
    )
    lab.gateway.probe()
    assert traces(lab) > 0
    operate(lab, ["en\r", "# "], ["conf t\r", "# "], ["qel debug 0\r", "# "], ["\x1a", "qel# "], ["exit\r", ""])
    before = traces(lab)
    lab.gateway.probe()
    assert traces(lab) == before


def test_disable_write_restart_still_disabled(make_lab):
    lab = make_lab()
    assert frames_to_cpu(lab) == 1
    _, _, _, written, config, _ = operate(
        lab,
        ["enable\r", "qel# "],
        ["configure terminal\r", "qel(config)# "],
        ["qel disable\r", "qel(config)# "],
        ["write\r", "qel(config)# "],
        ["show running-config\r", "qel(config)# "],
        ["exit\rexit\r", ""],
    )
    assert "Configuration saved\r\n" in written
    assert "\r\nqel disable\r\n!\r\n" in config
    assert frames_to_cpu(lab) == 0
    assert saved(lab) == "qel disable\n!\n"

    pid = lab.pid("qel")
    lab.morvactl("restart")
    wait_until(lambda: lab.pid("qel") not in (None, pid), "the restart")
    wait_until(lambda: lab.switch("test", "-S", "/var/run/qel.vty", check=False).returncode == 0, "the shell")
    # The shell answers only after the agent has applied the file.
    _, config, _ = operate(lab, ["enable\r", "qel# "], ["show running-config\r", "qel# "], ["exit\r", ""])
    assert "\r\nqel disable\r\n!\r\n" in config
    assert frames_to_cpu(lab) == 0

    operate(
        lab,
        ["enable\r", "# "],
        ["configure terminal\r", "# "],
        ["qel enable\r", "# "],
        ["write memory\r", "# "],
        ["exit\rexit\r", ""],
    )
    assert frames_to_cpu(lab) == 1
    assert saved(lab) == "qel enable\n!\n"
    lab.gateway.probe()


def test_help_completion_history_and_faults(lab):
    steps = operate(
        lab,
        ["en\t\r", "qel# "],
        ["conf\tt\t\r", "qel(config)# "],
        ["qel ?", "qel(config)# qel "],
        ["deb\t", "debug "],
        ["300\r", "qel(config)# "],
        ["qel d\r", "qel(config)# "],
        ["qel\r", "qel(config)# "],
        ["\x1b[A\x1b[A\x1b[A", "qel debug 300"],
        ["\x7f\x7f\x7f7\r", "qel(config)# "],
        ["interface ge1\r", "qel(config-if)# "],
        ["interface nowhere\r", "qel(config-if)# "],
        ["qel enable\x01\x1b[C\x1b[C\x1b[C\x0b\x15end\r", "qel# "],
        ["configure terminal\r", "qel(config)# "],
        ["qel debug 0\r", "qel(config)# "],
        ["exit\rquit\r", ""],
    )
    assert steps[0] == "enable \r\nqel# "
    assert steps[1] == "configure terminal \r\nqel(config)# "
    assert steps[2] == (
        "qel ?\r\n"
        "  debug    Debug qel module\r\n"
        "  disable  Disable qel-eth\r\n"
        "  enable   Enable qel-eth\r\n"
        "qel(config)# qel "
    )
    assert steps[4] == "300\r\n                       ^\r\n% Unknown command\r\nqel(config)# "
    assert steps[5] == "qel d\r\n                 ^\r\n% Ambiguous command\r\nqel(config)# "
    assert steps[6] == "qel\r\n                 ^\r\n% Command incomplete\r\nqel(config)# "
    assert "%" not in steps[8]
    assert "% No such interface: nowhere" in steps[10]
    assert "Connection closed by foreign host" in steps[-1]


def test_word_cut_short_switches_the_agent(lab):
    for word, shown in (("di", 0), ("e", 1)):
        *_, said, _ = operate(
            lab,
            ["enable\r", "qel# "],
            ["configure terminal\r", "qel(config)# "],
            [f"qel {word}\r", "qel(config)# "],
            ["exit\rexit\r", ""],
        )
        assert said == f"qel {word}\r\nqel(config)# "
        assert frames_to_cpu(lab) == shown


def test_line_wider_than_the_window(lab):
    """A terminal that tells no size has 80 columns, the prompt takes 5 of them."""
    *_, typed, home, entered, _ = operate(
        lab,
        ["y" * 79 + "z", "z"],
        ["\x01", "\x1b[5C"],
        ["\r", "% Unknown command\r\nqel> "],
        ["\x04", ""],
    )
    assert typed == "y" * 75 + " \ryyyyz"
    assert home == "\x1b[1A\r\x1b[5C"
    assert entered.startswith("y" * 79 + "z\r\n  ")


def test_tab_finishes_the_name_of_an_interface(lab):
    *_, begun, finished, _ = operate(
        lab,
        ["enable\r", "qel# "],
        ["configure terminal\r", "qel(config)# "],
        ["int\tv\t", "vlanif1 "],
        ["\r", "qel(config-if)# "],
        ["end\rexit\r", ""],
    )
    assert begun == "interface vlanif1 "
    assert finished == "\r\nqel(config-if)# "


def test_interrupt_key_gives_the_line_up(lab):
    steps = operate(lab, ["enable nonsense\x03", "\r\nqel> "], ["\x04", ""])
    assert "% Unknown command" not in "".join(steps)


def test_unix_socket_is_the_owners_and_plain(lab):
    # The socket lies in the switch's own /var/run, so the client runs there.
    client = (
        "import socket, sys\n"
        "s = socket.socket(socket.AF_UNIX); s.connect('/var/run/qel.vty'); s.settimeout(30)\n"
        "s.sendall(b'enable\\nshow running-config\\nexit\\n')\n"
        "while part := s.recv(65536): sys.stdout.write(part.decode())\n"
    )
    text = lab.switch(PYTHON, "-c", client).stdout
    assert text == "qel> qel# \nCurrent configuration:\n!\nqel enable\n!\nend\nqel# "
    mode = lab.switch("stat", "-c", "%f", "/var/run/qel.vty").stdout
    assert stat.S_IMODE(int(mode, 16)) == 0o600


def test_nobody_outside_reaches_the_shell(lab):
    client = lab.socket(socket.AF_INET, socket.SOCK_STREAM)
    client.settimeout(5.0)
    address = json.loads(lab.morvactl("show", "--json").stdout)["address"].split("/")[0]
    with client, pytest.raises(OSError):
        client.connect((address, PORT))


def test_several_sessions_keep_their_own_level(lab):
    with connect(lab) as one, connect(lab) as two:
        read_to(one, b"qel> ")
        read_to(two, b"qel> ")
        one.sendall(b"enable\r\nconfigure terminal\r\n")
        read_to(one, b"qel(config)# ")
        two.sendall(b"\r\n")
        assert read_to(two, b"> ").endswith(b"\r\nqel> ")


OPEN_TCP_STATES = {"01", "08"}  # established; and closed by the other end, but not yet by the agent


def open_sessions(lab):
    """How many TCP connections the agent has not closed, by the switch's kernel."""
    rows = [line.split() for line in lab.switch("cat", "/proc/net/tcp").stdout.splitlines()[1:]]
    return sum(row[1].endswith(f":{PORT:04X}") and row[3] in OPEN_TCP_STATES for row in rows)


def test_a_hundred_sessions_do_not_stop_the_agent(lab):
    wait_until(lambda: open_sessions(lab) == 0, "the end of the sessions before")
    clients = [connect(lab) for _ in range(100)]
    refused = 0
    try:
        for client in clients:
            first = client.recv(65536)
            refused += first.startswith(b"% Too many sessions")
        assert refused == 100 - 32
        lab.gateway.probe()
    finally:
        for client in clients:
            client.close()

    def served():
        with connect(lab) as client:
            return not client.recv(65536).startswith(b"% Too many")

    wait_until(served, "a free session")


def test_a_client_that_never_reads_does_not_stop_the_agent(lab):
    with connect(lab) as deaf:
        deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        deaf.setblocking(False)
        sent = 0
        full = 0
        while full < 3:  # until the switch takes no more, over three answers of the agent
            try:
                sent += deaf.send(b"list\r\nshow history\r\n?" * 500)
                full = 0
            except BlockingIOError:
                lab.gateway.probe()
                full += 1
            assert sent < 100 * 1000 * 1000
        with connect(lab) as other:
            read_to(other, b"qel> ")
            other.sendall(b"enable\r\n")
            read_to(other, b"qel# ")


def test_a_line_of_100000_letters_and_every_byte(lab):
    with connect(lab) as client:
        read_to(client, b"qel> ")
        client.sendall(b"x" * 100000 + b"\r\n")
        assert b"% Line too long" in read_to(client, b"qel> ")
        # All but ctrl-D, which ends a session; the telnet command before it swallows none of them.
        client.sendall(bytes(byte for byte in range(256) if byte != 4) + b"\xf1" + b"\x03")
        read_to(client, b"qel> ")
        lab.gateway.probe()


def test_half_open_sessions_do_not_stop_the_agent(lab):
    with connect(lab) as silent, connect(lab) as torn, connect(lab) as half:
        torn.sendall(b"\xff\xfa\x18")
        half.sendall(b"enable")
        half.shutdown(socket.SHUT_WR)
        silent.recv(65536)
        lab.gateway.probe()
        while half.recv(65536):
            pass
