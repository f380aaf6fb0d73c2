# SPDX-License-Identifier: Apache-2.0
"""The dissector, shown what was recorded in the lab and frames broken by hand: tshark finds in them
the fields that are written out here, and no input makes the dissector fail."""

import binascii
import io
import random
import struct
import subprocess
import tarfile
import zlib

import pytest

import pcap
from tshark import CAPTURES, DISSECTOR, TOP, fields, frames, run, sample, tshark

GATEWAY_TO_SWITCH = bytes.fromhex("0a1b2c3d4e5f 020000000001 9301 0000 babe")


def decoded(capture, *names):
    """The fields of every frame; of a file of our own only those of these names."""
    return sample(capture) if isinstance(capture, str) else fields(capture, list(names))


def one(capture, number, *names):
    """The fields of frame `number`: a list of values for each name."""
    row = decoded(capture, *names)[number - 1]
    return [row.get(name, []) for name in names]


def info(capture, *numbers):
    """What the list of frames says about these."""
    rows = decoded(capture, "_ws.col.Info")
    return [rows[number - 1]["_ws.col.Info"][0] for number in numbers]


def capture_of(tmp_path, *raw):
    """A capture of these frames."""
    path = tmp_path / "frames.pcap"
    pcap.write(path, [(number * 10**6, frame) for number, frame in enumerate(raw)])
    return path


def message(text, length=None):
    """A frame to a switch around `text`."""
    length = len(text) + 16 if length is None else length
    return GATEWAY_TO_SWITCH + length.to_bytes(2, "big") + bytes(12) + text


# ---- what a gateway and a switch say -------------------------------------------------------------


def test_every_frame_of_the_samples_is_the_protocols():
    for name, count in (("session", 91), ("transfers", 44), ("udp", 9), ("malformed", 26)):
        assert ["qel.direction" in row for row in sample(name)] == [True] * count


def test_good_frames_bear_no_remark():
    # Beside a question that no switch knows, and a chunk where none may come.
    assert frames("session", "qel && _ws.expert") == [89]
    assert frames("transfers", "qel && _ws.expert") == [22]
    assert frames("udp", "qel && _ws.expert") == [5, 7]


def test_header_of_a_probe():
    assert one(
        "session", 1, "qel.direction", "qel.zero", "qel.magic", "qel.length", "qel.reserved",
        "qel.mac", "qel.cmd", "qel.subcmd", "qel.ntick", "qel.text",
    ) == [
        ["1"], ["0x0000"], ["0xbabe"], ["88"], ["000000000000000000000000"],
        ["020000000001"], ["probe"], ["probe"], ["1"],
        ['{"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":1}}'],
    ]


def test_answer_to_a_probe():
    assert one(
        "session", 2, "qel.direction", "qel.length", "qel.mac", "qel.cmd", "qel.subcmd", "qel.system_mac",
        "qel.sys_ip", "qel.sys_mask", "qel.name", "qel.model", "qel.device_type", "qel.hw_version",
        "qel.sw_version", "qel.active", "qel.sys_active", "qel.ntick", "qel.terminator",
    ) == [
        ["2"], ["307"], ["0a1b2c3d4e5f"], ["answer"], ["answer"], ["0a1b2c3d4e5f"],
        ["192.168.1.10"], ["24"], ["office-sw"], ["QM4410_MODEL"], ["switch"], ["V1.0"],
        ["V2.1"], ["1"], ["0"], ["1"], ["00"],
    ]


def test_list_of_frames_tells_what_each_is():
    assert info("session", 1, 2, 5, 7, 8, 12, 13, 17, 21, 25, 55, 57) == [
        "probe ntick 1",
        "answer name office-sw, sys_ip 192.168.1.10, ntick 1",
        "get ports_info",
        "update ports_info, 28 ports",
        "update ports_pos, 28 ports",
        "update ports_conf, 20 ports",
        "update ports_conf, 8 ports",
        "update ports_link, 28 ports",
        "update ports_poe_conf, 24 ports",
        "update ports_client, ge1 NONE UN",
        "update ports_stats, 20 ports",
        "update ports_stats, 8 ports",
    ]
    assert info("session", 60, 64, 66, 69, 72, 74, 75, 80, 82, 83, 84, 85) == [
        "set port_enable, ge2 0",
        'set port_speed, ge4 "100M-F"',
        "set port_restart, ge3 1",
        "set ports_conf, ge6 iso 1 eee 1",
        "trap ports_client, ge5 ON 001122334455 192.168.1.20 SW",
        "set name, name attic",
        "set sys_active, sys_active 30",
        "set sys_ip, sys_ip 192.168.1.300",
        "get qelipc, mdl poe, cmd poe_qel_port_config_get_all",
        "module reply",
        "ping",
        "pong",
    ]


def test_rows_of_the_reports():
    names = ["ge%d" % i for i in range(1, 25)] + ["xe%d" % i for i in range(1, 5)]
    port, index, medium, media = one(
        "session", 7, "qel.port", "qel.port.index", "qel.port.medium", "qel.port.media"
    )
    assert port == names
    assert index == [str(i) for i in range(28)]
    assert medium == ["1"] * 24 + ["2"] * 4
    assert media == ["G"] * 24 + ["10GF"] * 4
    assert one(
        "session", 13, "qel.port", "qel.port.enable", "qel.port.speed_name", "qel.port.lldp", "qel.port.poe"
    ) == [names[20:], ["1"] * 8, ["AN"] * 8, ["1"] * 8, ["1"] * 4 + ["0"] * 4]
    link, speed, duplex, restart = one(
        "session", 17, "qel.port.link", "qel.port.speed", "qel.port.duplex", "qel.port.restart"
    )
    assert link == ["1"] * 12 + ["0"] * 12 + ["1", "0", "0", "0"]
    assert speed == ["1000"] * 10 + ["100", "10"] + ["0"] * 12 + ["10000", "0", "0", "0"]
    assert duplex == ["1"] * 11 + ["0"] * 13 + ["1", "0", "0", "0"]
    assert restart == ["0"] * 28
    assert one("session", 57, "qel.port", "qel.port.tx_sum", "qel.port.rx_rate") == [
        names[20:],
        [str(9000000000001 + i) for i in range(20, 28)],
        [str(425000000001 + i) for i in range(20, 28)],
    ]


def test_rows_are_told_in_words():
    shown = tshark("session", "-V", "-Y", "frame.number == 12 || frame.number == 17 || frame.number == 21")
    for line in (
        "\n        ge1: enabled, AN, on: lldp poe\n",
        "\n        ge12: up, 10 Mbit/s, half duplex\n",
        "\n        ge13: down\n",
        "\n        xe1: up, 10000 Mbit/s, full duplex\n",
        "\n        ge1: on, priority ",
    ):
        assert line in shown


def test_clients_and_settings():
    assert one(
        "session", 73, "qel.port", "qel.client.state", "qel.client.mac", "qel.client.ip", "qel.client.type"
    ) == [["ge5"], ["OFF"], ["001122334455"], ["192.168.1.20"], ["SW"]]
    assert one("session", 69, "qel.port", "qel.port.iso", "qel.port.eee") == [["ge6"], ["1"], ["1"]]
    assert one("session", 60, "qel.port", "qel.port.enable") == [["ge2"], ["0"]]
    assert one("session", 64, "qel.port", "qel.port.speed_name") == [["ge4"], ["100M-F"]]
    assert one("session", 66, "qel.port", "qel.port.restart") == [["ge3"], ["1"]]


def test_what_has_no_field_of_its_own_is_a_member_with_its_path():
    assert one("session", 84, "qel.member") == [
        ["data.a: [1,2.5]", "data.a[0]: 1", "data.a[1]: 2.5", "data.text: café"]
    ]
    assert frames("session", 'qel.member == "data.text: café"') == [84, 85]
    assert one("session", 82, "qel.module", "qel.module_cmd", "qel.cfg_flag") == [
        ["poe"], ["poe_qel_port_config_get_all"], ["0"]
    ]
    assert "data[0].name: ge1" in one("session", 83, "qel.member")[0]


def test_display_filters():
    assert frames("session", 'qel.cmd == "set" && qel.port == "ge2"') == [60, 62]
    assert frames("session", 'qel.subcmd == "ports_conf" && qel.direction == 1') == [10, 69]
    assert frames("session", "qel.port.tx_sum > 9000000000020") == [57]
    assert frames("session", 'qel.name == "attic"') == [74, 77, 91]


# ---- traps, requests and fragments ---------------------------------------------------------------


def test_only_client_reports_that_nobody_asked_for_are_traps():
    assert frames("session", "qel.trap") == [61, 63, 65, 67, 68, 72, 73]
    assert frames("udp", "qel.trap") == [9]


def test_answers_name_their_requests():
    found = {
        int(row["frame.number"][0]): int(row["qel.request_in"][0])
        for row in sample("session") if "qel.request_in" in row
    }
    expected = {
        2: 1, 4: 3, 7: 5, 8: 5, 9: 6, 12: 10, 13: 10, 14: 11, 17: 15, 18: 16, 21: 19, 22: 20,
        **{number: 23 for number in range(25, 53)},
        53: 24, 55: 54, 57: 54, 59: 58, 71: 70, 77: 76, 79: 78, 81: 80, 83: 82, 85: 84, 87: 86, 91: 90,
    }
    assert found == expected
    assert one("session", 2, "qel.time") == [["0.000593000"]]


def test_requests_name_their_answers_when_read_twice():
    rows = fields("session", ["frame.number", "qel.response_in"], "-2", "-Y", "qel.response_in")
    found = {int(row["frame.number"][0]): int(row["qel.response_in"][0]) for row in rows}
    assert (found[1], found[5], found[23], found[54], found[86]) == (2, 7, 25, 55, 87)
    assert not {60, 74, 89} & found.keys()  # which nobody answers


def test_second_fragment_is_told_for_what_it_is():
    assert frames("session", "qel.second_fragment") == [56, 88]
    assert one("session", 56, "qel.length", "qel.fragment_of", "qel.tail", "qel.cmd", "qel.text") == [
        ["1316"], ["55"], ["0020,425000000020]}}"], [], []
    ]
    assert info("session", 56, 88) == [
        "second fragment of frame 55 (update ports_stats)",
        "second fragment of frame 87 (pong)",
    ]
    assert frames("session", "qel.fragment_of == 87") == [88]


def test_second_fragment_alone_or_of_another_message(tmp_path):
    recorded = pcap.read(CAPTURES / "session.pcap")
    first, second = recorded[54], recorded[55]
    alone = capture_of(tmp_path, second)
    assert info(alone, 1) == ["second fragment"]
    assert frames(alone, "qel.fragment_of || _ws.expert") == []
    other = capture_of(tmp_path, first.replace(b"425000000020", b"425000000029"), second)
    assert frames(other, "qel.bad_fragment") == [2]


# ---- chunks --------------------------------------------------------------------------------------


def test_chunks_of_an_upload_are_the_archive():
    rows = [row for row in sample("transfers") if row["qel.subcmd"] == ["config_upload"] and "qel.chunk" in row]
    assert [row["qel.chunk.index"] for row in rows] == [["0"], ["1"]]
    archive = b"".join(binascii.unhexlify(row["qel.chunk"][0]) for row in rows)
    assert [len(row["qel.chunk"][0]) // 2 for row in rows] == [1024, 996]
    assert rows[0]["qel.chunk.total"] == ["2020"]
    assert int(rows[0]["qel.chunk.crc"][0], 16) == zlib.crc32(archive)
    with tarfile.open(fileobj=io.BytesIO(archive)) as tar:
        assert "notes.conf" in tar.getnames()


def test_chunks_to_the_switch_are_apart_from_the_text():
    image = pcap.read(CAPTURES / "transfers.pcap")[8:13:2]
    rows = sample("transfers")[8:13:2]
    assert [row["qel.chunk.length"] for row in rows] == [["1024"], ["1024"], ["552"]]
    for raw, row in zip(image, rows, strict=True):
        assert row["qel.text"][0].endswith("}}")
        assert bytes.fromhex(row["qel.chunk"][0]) == raw[32:].split(b"\0", 1)[1]
    assert info("transfers", 9, 14, 24, 27) == [
        "update firm_download, index 0, length 1024, total_length 2600",
        "update firm_download, state 3, index 0",
        "update config_download, index 0, length 1024, total_length 2020",
        "update config_download, state 3, index 0",
    ]


# ---- other ways to come --------------------------------------------------------------------------


def test_udp_bears_the_same_messages():
    assert one("udp", 2, "qel.direction", "qel.cmd", "qel.name", "qel.ntick", "qel.magic", "qel.request_in") == [
        ["2"], ["answer"], ["desk-sw"], ["7"], [], ["1"]
    ]
    assert len(one("udp", 4, "qel.port")[0]) == 10
    assert frames("udp", "qel.bad_chunk") == [5]  # no length field tells its place
    assert frames("udp", "qel.not_json") == [7]


def test_tagged_frames_are_read(tmp_path):
    recorded = pcap.read(CAPTURES / "session.pcap")
    tagged = [raw[:12] + bytes.fromhex("8100 0001") + raw[12:] for raw in recorded[:2]]
    path = capture_of(tmp_path, *tagged)
    assert info(path, 1, 2) == info("session", 1, 2)
    assert frames(path, "qel.request_in == 1") == [2]


def test_frames_padded_to_what_ethernet_carries(tmp_path):
    text = b'{"cmd":"ping"}'
    path = capture_of(tmp_path, message(text) + bytes(14))
    assert one(path, 1, "qel.padding", "qel.trailing", "qel.text") == [["00" * 14], [], [text.decode()]]


def test_member_names_are_found_as_the_switch_finds_them(tmp_path):
    text = b' {"CMD":"set","Subcmd":"name","subcmd":"x","DATA":{"Name":"\\u00e9\\ud83d\\ude00"}} '
    path = capture_of(tmp_path, message(text))
    assert info(path, 1) == ["set name, name é😀"]
    assert frames(path, 'qel.name == "é😀"') == [1]


def test_typed_messages(tmp_path):
    text = b'{"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"7","reqid":9007199254740993,"data":{}}'
    raw = bytearray(message(text))
    raw[12:14] = b"\x93\x03"
    path = capture_of(tmp_path, bytes(raw))
    assert one(path, 1, "qel.type", "qel.devid", "qel.pktid", "qel.reqid", "_ws.col.Info") == [
        ["update"], ["SW_0A1B2C3D4E5F"], ["7"], ["9007199254740993"], ["typed update"]
    ]


def test_json_tree_of_the_program_itself_on_demand():
    wanted = ["-Y", "json.key == \"ntick\"", "-T", "fields", "-e", "frame.number"]
    assert tshark("session", *wanted) == ""
    found = tshark("session", "-o", "qel.json:TRUE", *wanted)
    assert found.split()[:2] == ["1", "2"]
    listed = tshark("session", "-o", "qel.json:TRUE", "-c", "1")
    assert "QEL 104 probe ntick 1" in listed


def test_loaded_twice_it_is_there_once():
    command = ["tshark", "-r", str(CAPTURES / "udp.pcap"), "-X", f"lua_script:{DISSECTOR}"]
    assert run([*command, "-X", f"lua_script:{DISSECTOR}"]) == run(command)


# ---- broken frames -------------------------------------------------------------------------------

# Frame of malformed.pcap -> the remarks on it.
REMARKS = {
    1: {"short"}, 2: {"short"}, 3: {"short"}, 4: {"no_text", "bad_length"}, 5: {"bad_magic"},
    6: {"bad_length"}, 7: {"bad_length"}, 8: {"bad_length"}, 9: {"not_json"}, 10: {"not_json"},
    11: {"no_cmd"}, 12: {"unknown"}, 13: {"too_long", "odd_length", "behind"}, 14: {"bad_chunk"},
    15: {"bad_chunk"}, 16: {"too_deep"}, 17: {"unknown"}, 18: set(), 19: set(), 20: {"no_text"},
    21: {"cut"}, 22: {"behind"}, 23: {"odd_reserved"}, 24: {"not_json"}, 25: {"bad_chunk"}, 26: {"behind"},
}


@pytest.mark.parametrize("number", REMARKS)
def test_broken_frame_is_marked(number):
    row = sample("malformed")[number - 1]
    assert {name for name in set().union(*REMARKS.values()) if f"qel.{name}" in row} == REMARKS[number]


def test_faults_of_a_frame_are_errors_and_oddities_are_not():
    errors = frames("malformed", '_ws.expert.severity == "Error"')
    assert errors == [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 14, 15, 20, 24, 25]


def test_values_of_another_kind_are_shown_as_they_are():
    assert one(
        "malformed", 18, "qel.port", "qel.port.link", "qel.port.speed", "qel.port.duplex", "qel.member"
    ) == [
        ["ge1"], ["1"], [], [],
        ["data.ge1[1]: fast", "data.ge1[2]: {}", "data.ge1[3]: null", "data.ge1[4]: 9",
         "data.ge1[5]: 9", "data.ge1[6]: 9"],
    ]
    assert one("malformed", 19, "qel.port.link", "qel.port.speed", "qel.member") == [
        [], ["-1"],
        ["data.ge1[0]: 99999999999999999999", "data.ge1[2]: 1e300", "data.ge1[3]: 0.5"],
    ]


def test_no_byte_of_a_text_reaches_the_terminal_raw():
    assert info("malformed", 17) == [r"get \xff\xfe\x01\x1b[31m"]
    assert "\x1b" not in tshark("malformed", "-V")


def test_counters_are_exact_up_to_64_bits(tmp_path):
    row = b"[18446744073709551615,18446744073709551616,9007199254740993,0]"
    text = b'{"cmd":"update","subcmd":"ports_stats","data":{"a":' + row + b"}}"
    raw = bytearray(message(text))
    raw[12:14] = b"\x93\x03"
    path = capture_of(tmp_path, bytes(raw))
    assert one(path, 1, "qel.port.tx_sum", "qel.port.rx_sum", "qel.port.tx_rate", "qel.member") == [
        ["18446744073709551615"], [], ["9007199254740993"], ["data.a[1]: 18446744073709551616"]
    ]


def test_number_of_shown_members_is_bounded(tmp_path):
    text = b'{"cmd":"ping","subcmd":"ping","data":{"a":[' + b",".join([b"0"] * 15000) + b"]}}"
    header = struct.pack("!HHHH", 20681, 20682, 8 + len(text), 0)
    packet = struct.pack("!BBHHHBBH", 0x45, 0, 28 + len(text), 0, 0, 64, 17, 0)
    packet += bytes.fromhex("c0a80101 c0a8010a") + header + text
    path = capture_of(tmp_path, bytes.fromhex("0a1b2c3d4e5f 020000000001 0800") + packet)
    assert frames(path, "qel.many") == [1]
    assert 1900 < len(one(path, 1, "qel.member")[0]) <= 2000


# ---- anything at all -----------------------------------------------------------------------------


def mutated(frame, number):
    """`frame` with a fault of the kind that `number` chooses; the same each time."""
    chance = random.Random(number)
    raw = bytearray(frame)
    kind = number % 7
    at = chance.randrange(14, len(raw))
    if kind == 0:
        del raw[at:]
    elif kind == 1:
        raw[at] ^= 1 << chance.randrange(8)
    elif kind == 2:
        raw[at] = chance.choice(b'"\\{}[],:\0\xff-e.u')
    elif kind == 3:
        raw[18:20] = chance.choice((0, 15, 16, 17, 1296, 1297, 1299, 1617, 65535, at)).to_bytes(2, "big")
    elif kind == 4:
        raw[at:at] = chance.randbytes(chance.randrange(1, 40))
    elif kind == 5:
        end = min(len(raw), at + chance.randrange(1, 60))
        raw[at:at] = raw[at:end]
    else:
        raw[at:at + 1] = chance.choice(
            (b"-", b"99999999999999999999", b"1e999", b"\\u", b"\\ud800", b"[[[[", b'{"":', b"null", b"-1")
        )
    return bytes(raw)


def mutations(count):
    good = [raw for path in sorted(CAPTURES.glob("*.pcap")) for raw in pcap.read(path) if len(raw) > 20]
    return [mutated(good[number % len(good)], number) for number in range(count)]


FAILED = "_ws.lua.error"


def test_no_input_makes_the_dissector_fail(tmp_path):
    raw = mutations(4000)
    path = capture_of(tmp_path, *raw)
    shown = tshark(path, "-V", "-O", "qel", "-Y", "qel")
    assert shown.count("\nSwitch Management Protocol") > 3000
    assert "Lua Error" not in shown and "[Malformed Packet" not in shown
    assert tshark(path, "-o", "qel.json:TRUE", "-Y", FAILED) == ""


def test_cut_captures_do_not_make_it_fail(tmp_path):
    """Every length at which the longest messages can be cut off, by the capture or on the wire."""
    recorded = pcap.read(CAPTURES / "session.pcap") + pcap.read(CAPTURES / "transfers.pcap")
    longest = [max(recorded, key=len), recorded[91 + 8], recorded[1]]
    path = tmp_path / "cut.pcap"
    cut = [(0, raw[:size], len(raw)) for raw in longest for size in range(14, len(raw), 3)]
    pcap.write(path, cut + [(0, raw[:size]) for raw in longest for size in range(14, len(raw), 3)])
    assert frames(path, FAILED) == []


def test_failure_of_a_dissector_would_be_seen(tmp_path):
    script = tmp_path / "broken.lua"
    source = DISSECTOR.read_text(encoding="utf-8")
    broken = source.replace("  finish(m, pinfo, tree)\n", "  finish(m, pinfo, nil)\n", 1)
    assert broken != source
    script.write_text(broken, encoding="utf-8")
    assert frames("session", FAILED, script=script)[:3] == [1, 2, 3]


# ---- the samples ---------------------------------------------------------------------------------


def test_broken_frames_of_the_sample_are_those_of_its_maker():
    show = "import make_captures as m; print(*(one[0].hex() for one in m.broken_frames()))"
    found = subprocess.run(
        ["/usr/bin/python3", "-c", show],
        cwd=TOP / "tests/dissector", capture_output=True, text=True, check=True,
    )
    assert [raw.hex() for raw in pcap.read(CAPTURES / "malformed.pcap")] == found.stdout.split()
