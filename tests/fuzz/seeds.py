# SPDX-License-Identifier: Apache-2.0
"""Writes the seeds of every corpus: those made by hand and, as "captured", the frames of the sample
captures. Run it after adding one; the files are committed.

    python3 tests/fuzz/seeds.py
"""

import gzip
import io
import json
import pathlib
import shutil
import sys
import tarfile

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parents[1]
CAPTURES = TOP / "tests/captures"
sys.path.insert(0, str(TOP / "tests/dissector"))

import pcap  # noqa: E402

MESSAGES = [
    '{"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":12}}',
    '{"mac":"gw","cmd":"ping","subcmd":"ping","data":{"a":[1,2.5,-0.0,"x\\u0001"],"b":{"c":null}}}',
    '{"mac":"gw","cmd":"get","subcmd":"ports_info","data":{}}',
    '{"mac":"gw","cmd":"get","subcmd":"ports_conf","data":{}}',
    '{"mac":"gw","cmd":"get","subcmd":"ports_link","data":{}}',
    '{"mac":"gw","cmd":"get","subcmd":"ports_poe","data":{}}',
    '{"mac":"gw","cmd":"get","subcmd":"ports_client","data":{}}',
    '{"mac":"gw","cmd":"get","subcmd":"ports_stats","data":{}}',
    '{"mac":"gw","cmd":"get","subcmd":"qelipc","data":{"mdl":"m","cmd":"c","data":{"a":1}}}',
    '{"mac":"gw","cmd":"set","subcmd":"ports_conf","data":{"ge1":[1,"AN",1,0,0,0,1,1]}}',
    '{"mac":"gw","cmd":"set","subcmd":"port_enable","data":{"ge1":0}}',
    '{"mac":"gw","cmd":"set","subcmd":"port_speed","data":{"ge1":"100M-F"}}',
    '{"mac":"gw","cmd":"set","subcmd":"port_restart","data":{"ge1":5}}',
    '{"mac":"gw","cmd":"set","subcmd":"sys_ip","data":{"sys_ip":"192.168.1.9","sys_mask":24,'
    '"dhcp":0,"gateway":"192.168.1.1"}}',
    '{"mac":"gw","cmd":"set","subcmd":"sys_time","data":{"timestamp":"1700000000"}}',
    '{"mac":"gw","cmd":"set","subcmd":"hfs_upgrade","data":{"upgrade_serverinfo":'
    '"http://192.168.1.1:8080/f.trx"}}',
    '{"mac":"gw","cmd":"set","subcmd":"sys_reboot","data":{}}',
    '{"mac":"gw","cmd":"set","subcmd":"config_reset","data":{}}',
    '{"mac":"gw","cmd":"set","subcmd":"sys_active","data":{"sys_active":-5}}',
    '{"mac":"gw","cmd":"set","subcmd":"config_upload","data":{"idx":0,"index":0}}',
    '{"mac":"gw","cmd":"set","subcmd":"config_upload","data":{"idx":-2147483648}}',
    '{"mac":"gw","cmd":"set","subcmd":"name","data":{"name":"desk"}}',
    '{"mac":"gw","cmd":"update","subcmd":"config_download","data":{"index":0,"next":1,"length":4,'
    '"total_length":8,"crc":1,"file":"f"}}\0abcd',
    '{"mac":"gw","cmd":"update","subcmd":"firm_download","data":{"index":0,"next":1,"length":4,'
    '"total_length":8,"file":"f"}}\0abcd',
    '{"mac":"gw","cmd":"update","subcmd":"config_download","data":{"index":0,"length":-1,'
    '"total_length":2147483647}}',
    "[" * 1568,
    '{"a":' * 260,
    '{"mac":"gw","cmd":"set","subcmd":"hfs_upgrade","data":{"upgrade_serverinfo":"http://h/x;reboot"}}',
    '{"mac":"gw","cmd":"set","subcmd":"hfs_upgrade","data":{"upgrade_serverinfo":"-O/etc/passwd"}}',
    '{"mac":"gw","cmd":"set","subcmd":"hfs_upgrade","data":{"upgrade_serverinfo":"h/$(reboot) `x`"}}',
    '{"mac":"gw","cmd":"set","subcmd":"hfs_upgrade","data":{"upgrade_serverinfo":"' + "h/" * 200 + '"}}',
    '{"mac":"gw","cmd":"set","subcmd":"sys_time","data":{"timestamp":"-99999999999999999999;x"}}',
    '{"mac":"gw","cmd":"update","subcmd":"config_download","data":{}}\0',
    '{"mac":"gw","cmd":"update","subcmd":"config_download","data":[5]}\0',
    '{"mac":"gw","cmd":"update","subcmd":"config_download","data":{"index":0,"next":0,"length":5,'
    '"total_length":5}}\0abcd',
    '{"mac":"gw","cmd":"update","subcmd":"config_download","data":{"index":0,"next":0,"length":4,'
    '"total_length":4,"file":"f"}}\0abcd',
    '{"mac":"gw","cmd":"update","subcmd":"firm_download","data":{"index":1,"next":0,"length":0,'
    '"total_length":0}}\0',
    '{"mac":"gw","cmd":"update","subcmd":"firm_download","data":"x"}\0',
    '{"mac":"gw","cmd":"set","subcmd":"name","data":{"name":"x\\",\\"model\\":\\"forged\\\\\\n\x7f"}}',
    '{"mac":"gw","cmd":"set","subcmd":"port_enable","data":{"ge1\\",\\"enable\\":0,\\"x\\":\\"":1}}',
    '{"mac":"gw","cmd":"set","subcmd":"port_restart","data":{"vlanif1":1}}',
    '{"mac":"gw","cmd":"set","subcmd":"sys_ip","data":{"sys_ip":"1.2.3.4\\", \\"method\\":1"}}',
    '{"mac":"gw","cmd":"get","subcmd":"qelipc","data":{"mdl":"m\\\\","cmd":"c\\",\\"cmd\\":\\"d"}}',
    '{"mac":"gw","cmd":"update","subcmd":"config_download","data":{"index":1,"length":-1,'
    '"file":"x\\",\\"state\\":9,\\"y\\":\\""}}',
]

EVENTS = [
    '{"type":"lldp_add","mac":"00:11:22:33:44:55","chassis_id":"00:11:22:33:44:00",'
    '"local_interface":"ge1","vlan_id":"1","management_address":"192.168.1.20",'
    '"time_to_live":"120","port_description":"eth0","system_name":"desk",'
    '"system_description":"a desk","system_capability":"Bridge, Switch"}',
    '{"type":"lldp_del"}',
    '{"type":"dhcpsnoop_add","port":"ge1","mac":"00:11:22:33:44:55","ip":"192.168.1.7"}',
    '{"type":"arpsnoop_add","port":"ge2","mac":"00:11:22:33:44:55","ip":"192.168.1.7"}',
    '{"type":"poe_update","pwroccu":42,"data":[{"name":"ge1","power":7,"power_max":30,"poe_priority":2},'
    '{"name":"ge2"},{"name":"nobody"}]}',
    '{"type":"onvif_discover","data":[{"ip":"192.168.1.7"}]}',
    '{"type":"cldm_conf","qel_enable":0}',
]

REPLIES = [
    '{"ret":0,"data":[{"name":"ge1","tx_sum":9000000000001,"rx_sum":-1,"tx_rate":1e300,'
    '"rx_rate":4,"enable":1,"supply_priority":2,"method":"1"},{"name":"ge2"},{"name":7},3]}',
    '{"data":{"ge1":{"name":"ge1"}},"ports":"ge1  ge2 nobody "}',
    '{"data":[{"port":1,"crc":5,"pause":4,"rx_bytes":100,"tx_bytes":4294967296}],"power":9999}',
    '{"ports":"' + "x" * 300 + ' ge3"}',
    "",
    "[]",
    "null",
    "{" * 900,
    '{"ret":0,"data":[{"name":"a\\":[1,1],\\"b","enable":1},{"name":"\\u0001\\\\"},{"name":"ge1"}]}',
]

MANAGER = [
    b"\xff"
    b'{"event":"new_if","name":"ge1","index":16777217,"port_no":1,"link":1,"enable":1}\n'
    b'{"event":"if_status","name":"ge1","link":1,"speed":1000,"duplex":1,"speed_conf":7}\n',
    b'\x01{"event":"if_\x02status","name":"ge1","link":0}\n',
    b'\xff{"event":"trunk_set","name":"ge1","trunk":2}\n'
    b'{"event":"mirror_get","name":"ge1","mirror":1}\n{}\n',
    b"\xff" + b"x" * 4000,
]

CONFDIR = [
    b"afnvram.conf\nafqel.conf\ncfnvram.conf\ncfold.conf\n",
    b"af--checkpoint-action=exec=sh e.conf\nafe.conf\n",
    b"af-x.conf\n",
    b"add.conf\nafd.conf/inside\n",
    b"addownlconf.tar.gz\n",
    b"apgetconf.tar.gz\ncpgetconf.tar.gz\n",
    b"algetconf.tar.gz\nclgetconf.tar.gz\ncl.installing\n",
    b"ala.conf\nafa.conf\n",
    b"ah1.conf\nas2.conf\naz3.conf\nau4.conf\n",
    b"af../up.conf\naf/etc/passwd\nl \xff\n",
    b"af_.conf\nl /etc/passwd\n",
    b"pfa.conf\npfb.conf\ncfc.conf\n",
    b"plevil.conf\nilevil.conf\nif-x.conf\nifgood.conf\n",
    b"nfhalf.conf\ncddeep.conf\nclx\nc\xff\x1b[2J\n",
    b"x\nafa.conf\n",
    b"",
]

VTY = [
    b"Tenable\r\nconfigure terminal\r\nqel en\t?\r\nqel debug 12\r\nend\r\nshow running-config\r\n",
    b"T\xff\xfb\x1f\xff\xfa\x1f\x00\x50\x00\x18\xff\xf0sh\x1b[A\x1b[D\x08\x03\x1a\x04",
    b"Penable\nshow running-config\nconfigure terminal\ninterface ge1\nexit\nwrite\nexit\n",
    b"Cinterface ge1\n!\nqel disable\nqel debug 255\nhostname x\nservice nothing\n",
    b"T" + b"a" * 5000 + b"\r\n",
]

NVRAM = [
    b"a=1\nb=2\n# comment\nproduct_sn=QM1\n",
    b"a=1\na=2\ntorn",
    b"=x\na\n a=1\na=\x01\na=" + b"v" * 300 + b"\n",
    b"",
    b'a="\\"\nproduct_description=x","model":"forged","y":"\\\n',
]

GATEWAY = [
    '{"mac":"0a1b2c3d4e5f","cmd":"answer","subcmd":"answer","data":{"mac":"0a1b2c3d4e5f",'
    '"sys_ip":"192.168.1.10","sys_mask":24,"name":"sw","model":"m","type":"switch","uptime":3600,'
    '"hw_version":"V1","sw_version":"V2","active":1,"sys_active":0,"cpu":30,"mem":75,"ntick":1}}',
    '{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info","data":{"ge1":[0,1,"G",1]}}',
    '{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_pos","data":{"ge1":[1,2]}}',
    '{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":'
    '{"ge1":[1,"AN",1,0,0,0,1,1]}}',
    '{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":{"ge1":[1,1000,1,0]}}',
    '{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":'
    '{"ge1":[18446744073709551615,1,2,3]}}',
    '{"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge1":{"client_state":'
    '"ON","client_mac":"001122334455","client_ip":"0.0.0.0","client_type":"UN"}}}',
    '{"data":{"a":1,"a":2}}',
    "[" * 100,
    '{"data":{"\\u001b[31m":["\\ud800"]}}',
]


def frame_seed(text):
    """Length field and message, as frame_fuzz.cpp takes them; the text ends before a NUL."""
    raw = text.encode("latin-1")
    head, nul, _ = raw.partition(b"\0")
    field = len(head) + (17 if nul else 16)
    return b"M" + field.to_bytes(2, "big") + raw


def raw_frame(text):
    raw = text.encode()
    head = bytes.fromhex("0a1b2c3d4e5f02005e10203093030000babe")
    return head + (len(raw) + 16).to_bytes(2, "big") + bytes(12) + raw


def arrived(kind, tag, flags, frame):
    """What the kernel says beside a frame (packet type, tag, flags), as frame_fuzz.cpp takes it."""
    return b"A" + bytes([kind]) + tag.to_bytes(2, "big") + bytes([flags]) + frame


def write(target, seeds, name="seed"):
    folder = HERE / "corpus" / target
    folder.mkdir(parents=True, exist_ok=True)
    for number, seed in enumerate(seeds):
        (folder / f"{name}{number:02}").write_bytes(seed)


# ---- the sample captures -------------------------------------------------------------------------


def captured(ethertype, *names):
    """What follows the addresses in the frames of that type."""
    frames = [raw for name in names for raw in pcap.read(CAPTURES / f"{name}.pcap")]
    return [raw[12:] for raw in frames if raw[12:14] == bytes.fromhex(ethertype)]


def of_each_kind(frames):
    """Of each kind of message the first and the longest: of many probes one says enough."""
    kinds = {}
    for one in frames:
        try:
            root = json.loads(one[20:].split(b"\0", 1)[0])
            kind = (root.get("cmd"), root.get("subcmd"))
        except ValueError:
            kind = one[20:]
        kinds.setdefault(kind, []).append(one)
    return sorted({one for found in kinds.values() for one in (found[0], max(found, key=len))})


def captured_datagrams():
    """The messages to the switch over UDP, as the agent's socket gives them."""
    frames = pcap.read(CAPTURES / "udp.pcap")
    return [raw[42:] for raw in frames if raw[36:38] == (20682).to_bytes(2, "big")]


def tar(*members, plain=False):
    """A configuration archive of (name, type, content): packed after a 'G', or plain after a 'T'."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w", format=tarfile.USTAR_FORMAT) as file:
        for name, kind, content in members:
            info = tarfile.TarInfo(name)
            info.type, info.size, info.linkname = kind, len(content), "nvram.conf"
            file.addfile(info, io.BytesIO(content))
    whole = out.getvalue()  # filled up to a record
    short = whole[: (len(whole.rstrip(b"\0")) + 511) // 512 * 512 + 1024]
    return b"T" + short if plain else b"G" + gzip.compress(short, mtime=0)


FILE, LINK, FOLDER = tarfile.REGTYPE, tarfile.SYMTYPE, tarfile.DIRTYPE
ARCHIVES = [
    [("nvram.conf", FILE, b"product_sn=S\nqel_sys_active=5\na=1\n"), ("qel.conf", FILE, b"qel debug 1\n")],
    [("./nvram.conf", FILE, b"a=1\ntorn="), ("empty.conf", FILE, b"")],
    [("a.conf", FILE, b"x"), ("a.conf", FILE, b"y")],
    [("../a.conf", FILE, b"x")],
    [("with blank.conf", FILE, b"x")],
    [("a.conf", LINK, b"")],
    [("conf", FOLDER, b""), ("conf/a.conf", FILE, b"x")],
]


def write_captured():
    to_switch = bytes.fromhex("0a1b2c3d4e5f 02005e102030")
    to_gateway = bytes.fromhex("02005e102030 0a1b2c3d4e5f")
    good = of_each_kind(captured("9301", "session", "transfers"))
    frames = [b"M" + one[6:8] + one[20:] for one in good]
    frames += [b"R" + to_switch + one for one in captured("9301", "malformed")]
    write("frame", frames, "captured")
    replies = of_each_kind(captured("9303", "session", "transfers")) + captured("9303", "malformed")
    write("gateway", [b"F" + to_gateway + one for one in replies], "captured")
    write("udp", captured_datagrams(), "captured")


def main():
    frames = [frame_seed(text) for text in MESSAGES]
    frames += [b"R" + raw_frame(MESSAGES[0]).replace(b"\x93\x03", b"\x93\x01"), b"R" + bytes(14)]
    write("frame", frames)
    probe = raw_frame(MESSAGES[0]).replace(b"\x93\x03", b"\x93\x01")
    group = bytes.fromhex("0180c200001f") + probe[6:]
    beside = [(0, 0, 0, probe), (0, 0x6000, 1, probe), (0, 5, 1, probe), (0, 0xE005, 0, probe)]
    beside += [(3, 0, 0, probe), (3, 0, 0, group), (2, 0, 0, group), (0, 0, 2, probe), (0, 0, 4, probe)]
    write("frame", [arrived(*one) for one in beside], "tagged")
    write("udp", [text.encode("latin-1") for text in MESSAGES])
    write("event", [text.encode() for text in EVENTS])
    write("reply", [text.encode() for text in REPLIES])
    write("manager", MANAGER)
    write("confdir", CONFDIR)
    write("vty", VTY)
    write("nvram", NVRAM)
    gateway = [b"J" + text.encode() for text in GATEWAY]
    write("gateway", gateway + [b"F" + raw_frame(text) for text in GATEWAY[:3]])
    write("archive", [tar(*one, plain=True) for one in ARCHIVES] + [tar(*ARCHIVES[0]), tar(*ARCHIVES[0])[:-9]])
    write_captured()
    board = HERE / "corpus/board"
    board.mkdir(parents=True, exist_ok=True)
    for file in ("ge10", "ge28"):
        shutil.copy(TOP / f"platform/linux/boards/{file}.json", board / f"{file}.json")
    (board / "seed00").write_bytes(b'{"mac":"0a:1b:2c:3d:4e:5f","ports":[{"name":"ge1"}]}')


if __name__ == "__main__":
    main()
