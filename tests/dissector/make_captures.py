#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the sample captures in tests/captures: what a gateway and a switch say to each other in the
lab, recorded at the gateway's end of the cable, and a file of frames broken by hand.

    tests/dissector/make_captures.py [session|transfers|udp|malformed ...]

The programs come from build/dev (or $QEL_BUILD_DIR). Times and figures differ from run to run, so
the tests of the dissector are to be looked through after a new recording.
"""

import hashlib
import pathlib
import socket
import struct
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "system"))

import pcap  # noqa: E402
from gateway import frame, message  # noqa: E402
from labkit import BOARDS, Lab  # noqa: E402
from qelctl_user import Qelctl  # noqa: E402

CAPTURES = HERE.parent / "captures"
ETH_P_ALL = 0x0003
SO_TIMESTAMPNS = 35
SO_RCVBUFFORCE = 33
UDP_PORT = 20682
SWITCH = bytes.fromhex("0a1b2c3d4e5f")
GROUP = bytes.fromhex("0180c200001f")
GATEWAY = bytes.fromhex("020000000001")


class Recorder:
    """Hears every frame of the protocol at the gateway's end of the cable."""

    def __init__(self, lab):
        lab.run("ip", "link", "set", "gw0", "address", GATEWAY.hex(":"))
        self._socket = lab.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self._socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 24)
        self._socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self._socket.bind(("gw0", ETH_P_ALL))
        self._socket.setblocking(False)

    @staticmethod
    def _is_ours(raw):
        kind = raw[12:14].hex()
        if kind == "0800" and raw[23] == 17:
            return UDP_PORT in struct.unpack_from("!HH", raw, 34)
        return kind in ("9301", "9303")

    def frames(self):
        """What came since the start or the last call, as pcap.write() takes it."""
        found = []
        while True:
            try:
                raw, ancillary, _, _ = self._socket.recvmsg(65535, 64)
            except BlockingIOError:
                return found
            seconds, nanoseconds = struct.unpack("qq", ancillary[0][2][:16])
            if self._is_ours(raw):
                found.append((seconds * 10**9 + nanoseconds, raw))

    def close(self):
        self._socket.close()


def port_names():
    return [f"ge{i}" for i in range(1, 25)] + [f"xe{i}" for i in range(1, 5)]


# ---- a gateway's day ---------------------------------------------------------------------------


def reports(lab):
    gateway = lab.gateway
    for subcmd in ("ports_info", "ports_conf", "ports_link", "ports_poe", "ports_client"):
        gateway.command("get", subcmd, {}, SWITCH)
        gateway.probe()
    counters = "".join(
        f"morvactl counters {name} tx_bytes={9000000000001 + i} rx_bytes={800000000001 + i}"
        f" tx_rate={125000000001 + i} rx_rate={425000000001 + i} || exit\n"
        for i, name in enumerate(port_names())
    )
    lab.switch("sh", "-c", counters)
    gateway.command("get", "ports_stats", {}, SWITCH)  # its first page takes two frames
    gateway.probe()


def until_trap(gateway, part):
    """Receives until a message holds `part`, and asks nothing meanwhile."""
    while part not in gateway.receive().text:
        pass


def port_commands(lab):
    gateway = lab.gateway
    gateway.command("set", "port_enable", {"ge2": 0}, SWITCH)
    until_trap(gateway, b'"ge2":{')
    gateway.command("set", "port_enable", {"ge2": 1}, SWITCH)
    until_trap(gateway, b'"ge2":{')
    gateway.command("set", "port_speed", {"ge4": "100M-F"}, SWITCH)
    until_trap(gateway, b'"ge4":{')
    gateway.command("set", "port_restart", {"ge3": 1}, SWITCH)
    until_trap(gateway, b'"ge3":{')
    until_trap(gateway, b'"ge3":{')
    gateway.command("set", "ports_conf", {"ge6": {"iso": 1, "eee": 1}}, SWITCH)
    gateway.probe()


def neighbours(lab):
    lab.morvactl(
        "event",
        '{"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":"ge5",'
        '"management_address":"192.168.1.20","system_capability":"Bridge, Switch"}',
    )
    until_trap(lab.gateway, b'"client_state":"ON"')
    lab.morvactl("link", "ge5", "down")
    until_trap(lab.gateway, b'"client_state":"OFF"')


def system_commands(lab):
    gateway = lab.gateway
    gateway.command("set", "name", {"name": "attic"}, SWITCH)
    gateway.command("set", "sys_active", {"sys_active": 30}, SWITCH)
    gateway.probe()
    gateway.command("set", "sys_time", {}, SWITCH)
    gateway.receive()
    gateway.command("set", "sys_ip", {"sys_ip": "192.168.1.300", "sys_mask": 24}, SWITCH)
    gateway.receive()
    query = {"mdl": "poe", "cmd": "poe_qel_port_config_get_all", "cfg_flag": 0}
    gateway.command("get", "qelipc", query, SWITCH)
    gateway.receive()
    gateway.command("ping", "ping", {"a": [1, 2.5], "text": "caf\u00e9"}, SWITCH)
    gateway.receive()
    gateway.command("ping", "ping", {f"key{i}": "x" * 40 for i in range(25)}, SWITCH)
    gateway.receive()
    gateway.receive()  # its second fragment
    gateway.command("get", "ports_infos", {}, SWITCH)  # which no switch knows
    gateway.probe()


def record_session():
    with Lab("--board", str(BOARDS / "ge28.json")) as lab:
        recorder = Recorder(lab)
        lab.gateway.probe(1)
        lab.gateway.probe(2, SWITCH)
        reports(lab)
        port_commands(lab)
        neighbours(lab)
        system_commands(lab)
        frames = recorder.frames()
        recorder.close()
    return frames


# ---- archives and images -----------------------------------------------------------------------


def bytes_of(size):
    """Bytes that do not compress, always the same."""
    block = b"".join(hashlib.sha256(i.to_bytes(4, "big")).digest() for i in range(1024))
    return block[:size]


def record_transfers():
    """qelctl saves the configuration, pushes an image and puts the configuration back."""
    with Lab("--board", str(BOARDS / "ge10.json")) as lab:
        recorder = Recorder(lab)
        qelctl = Qelctl(lab, "-i", "gw0", "--yes")
        (lab.dir / "conf/notes.conf").write_bytes(bytes_of(1500))
        (lab.dir / "image.trx").write_bytes(bytes_of(2600))
        qelctl("backup", lab.dir / "saved.tar.gz")
        qelctl("firmware", "push", lab.dir / "image.trx")
        qelctl("restore", lab.dir / "saved.tar.gz", "--wait", "30", timeout=60.0)
        frames = recorder.frames()
        recorder.close()
    return frames


# ---- the UDP link ------------------------------------------------------------------------------


def record_udp():
    chunk = {"index": 0, "next": 0, "file": "f", "total_length": 4, "crc": 0, "length": 4}
    with Lab(
        "--board", str(BOARDS / "ge10.json"), settings={"qel_udp_enable": "1"}
    ) as lab, lab.socket(socket.AF_INET, socket.SOCK_DGRAM) as link:
        recorder = Recorder(lab)
        link.bind(("0.0.0.0", 20681))
        link.connect(("192.168.1.11", UDP_PORT))
        link.settimeout(5.0)
        for text in (
            message("probe", "probe", {"ntick": 7}),
            message("get", "ports_link", {}),
            message("update", "config_download", chunk) + b"\0abcd",  # refused: no length field
        ):
            link.send(text)
            link.recv(65535)
        link.send(b"hello?")
        link.send(message("set", "port_enable", {"ge2": 0}))
        link.recv(65535)  # the gateway that probed is told of the link
        frames = recorder.frames()
        recorder.close()
    return frames


# ---- broken by hand ----------------------------------------------------------------------------


def answer(text, length=None):
    """A frame of the switch around `text`."""
    raw = frame(GATEWAY, SWITCH, text, ethertype=bytes.fromhex("9303"), length=length)
    return raw


def request(text, **options):
    return frame(SWITCH, GATEWAY, text, **options)


def broken_frames():
    """Frames that are wrong, one thing at a time; the third member of one is its length on the
    wire. The tests name them by their number, so new ones go to the end."""
    probe = message("probe", "probe", {"ntick": 1})
    get = message("get", "ports_link", {})
    push = message(
        "update", "config_download",
        {"index": 0, "next": 1, "file": "f", "total_length": 2048, "crc": 0, "length": 1024},
    )
    good = request(probe)
    link = b'{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":{"ge1":%s}}'
    udp_head = bytes.fromhex(
        "0a1b2c3d4e5f 020000000001 0800 4500 0024 0000 4000 4011 0000 c0a80163 c0a8010a"
        "50c9 50ca 0010 0000"
    )
    return [
        (good[:14],),                                                 # 1 nothing behind the type
        (good[:19],),                                                 # 2 half a length field
        (good[:31],),                                                 # 3 one byte short of a header
        (good[:32],),                                                 # 4 no message
        (good[:16] + b"\xba\xbf" + good[18:],),                       # 5 another magic
        (request(probe, length=len(probe) + 500),),                   # 6 beyond the frame
        (answer(link % b"[1,1000,1,0]", length=65535),),              # 7 the same from a switch
        (request(probe, length=15),),                                 # 8 less than the header
        (request(b"hello there"),),                                   # 9 not JSON
        (request(get[:-1]),),                                         # 10 JSON that does not end
        (request(b'{"subcmd":"probe","data":{}}'),),                  # 11 no cmd
        (request(message("set", "probe", {})),),                      # 12 in the other table
        (request(get + b" " * 1600),),                                # 13 longer than is read
        (request(push + b"\0" + bytes(100), length=len(push) + 17),), # 14 chunk beyond the frame
        (request(push + b"\0" + bytes(1024), length=20),),            # 15 chunk inside the text
        (request(b"[" * 1500),),                                      # 16 nested too deep
        (request(b'{"cmd":"get","subcmd":"\xff\xfe\x01\x1b[31m"}'),), # 17 bytes that are no text
        (answer(link % b'[1,"fast",{},null,9,9,9]'),),                # 18 a row of another kind
        (answer(link % b"[99999999999999999999,-1,1e300,0.5]"),),     # 19 numbers of another size
        (answer(bytes(1300)),),                                       # 20 nothing but NUL
        (good[:40], len(good)),                                       # 21 not captured whole
        (request(probe + b"\0" + b"left behind", length=len(probe) + 16),),  # 22 bytes behind it
        (good[:20] + b"\x01" + good[21:],),                           # 23 reserved bytes in use
        (udp_head + b'{"cmd":"',),                                    # 24 UDP, JSON that does not end
        (answer(b'{"cmd":"update","subcmd":"config_upload","data":{"length":1024}}\0abc', 81),),  # 25
        (request(probe + b" and more"),),                             # 26 bytes behind the value
    ]


def record_malformed():
    start = 1_700_000_000 * 10**9
    frames = broken_frames()
    return [(start + number * 10**6, *one) for number, one in enumerate(frames)]


RECORDERS = {
    "session": record_session,
    "transfers": record_transfers,
    "udp": record_udp,
    "malformed": record_malformed,
}


def main(names):
    if any(name.startswith("-") for name in names):
        print(__doc__.strip())
        return
    for name in names or RECORDERS:
        frames = RECORDERS[name]()
        pcap.write(CAPTURES / f"{name}.pcap", frames)
        print(f"{name}.pcap: {len(frames)} frames")


if __name__ == "__main__":
    main(sys.argv[1:])
