# SPDX-License-Identifier: Apache-2.0
"""Every table that qelctl prints about the real agent, whole, at 80 and at 200 columns, with and
without colour.

In the literal texts <b> is bold, <d> dim, <r> red, <g> green, <y> yellow, <c> cyan, and </> the end of
any of them. What no two runs have alike (uptime, load, seconds left) stands as a fixed word, one blank away from
what is before it.
"""

import json
import re

import pytest
from labkit import Lab, wait_until
from qelctl_user import Qelctl, quiet_board

SHADES = {
    "<b>": "\033[1m", "<d>": "\033[2m", "<r>": "\033[31m", "<g>": "\033[32m", "<y>": "\033[33m",
    "<c>": "\033[36m", "</>": "\033[0m",
}  # fmt: skip

DISCOVER_80 = """\
<b>MAC</>                <b>NAME</>     <b>ADDRESS</>          <b>MODEL</>         <b>SOFTWARE</> <b>UPTIME</>
<c>0a:1b:2c:3d:4e:10</>  desk-sw  192.168.1.11/24  QM4410_MODEL  V2.1 TIME
"""

DISCOVER_200 = """\
<b>MAC</>                <b>NAME</>     <b>ADDRESS</>          <b>MODEL</>         <b>SOFTWARE</>  <b>HARDWARE</> <b>UPTIME</> <b>CPU</> <b>MEM</>  <b>ACTIVE</>
<c>0a:1b:2c:3d:4e:10</>  desk-sw  192.168.1.11/24  QM4410_MODEL  V2.1      V1.0 TIME N% N%       0
"""

SHOW = """\
<b>name     </> desk-sw
<b>mac      </> 0a:1b:2c:3d:4e:10
<b>address  </> 192.168.1.11/24
<b>model    </> QM4410_MODEL
<b>type     </> switch
<b>hardware </> V1.0
<b>software </> V2.1
<b>uptime   </> TIME
<b>cpu      </> N%
<b>memory   </> N%
<b>active   </> 0
"""

PORTS_80 = """\
<b>PORT</>  <b>MEDIA</>  <b>STATE</>  <b>LINK</>           <b>SPEED</>  <b>POE</>  <b>TX/s</>  <b>RX/s</>  <b>CLIENT</>
<c>ge1</>   G      on     <g>up</>         1000 full  on      0     0  00:11:22:33:44:55
<c>ge2</>   G      on     <g>up</>         1000 full  on     10    20
<c>ge3</>   G      on     <g>up</>          100 full  on      0     0
<c>ge4</>   G      on     <g>up</>           10 half  on      0     0
<c>ge5</>   G      on     <d>down</>                  on      0     0  00:11:22:33:44:66
<c>ge6</>   G      on     <d>down</>                  off     0     0
<c>ge7</>   G      <r>off</>    <d>down</>                  on      0     0
<c>ge8</>   G      <r>off</>    <y>back NNNs</>             on      0     0
<c>ge9</>   2.5GF  on     <g>up</>         2500 full          0     0
<c>ge10</>  2.5GF  on     <d>down</>                          0     0
"""

PORTS_200 = """\
<b>PORT</>  <b>MEDIA</>  <b>STATE</>  <b>LINK</>           <b>SPEED</>  <b>POE</>  <b>TX/s</>  <b>RX/s</>  <b>CLIENT</>             <b>IP</>            <b>TYPE</>  <b>FEATURES</>  <b>TX BYTES</>  <b>RX BYTES</>
<c>ge1</>   G      on     <g>up</>         1000 full  on      0     0  00:11:22:33:44:55  192.168.1.20  UN    lldp             0         0
<c>ge2</>   G      on     <g>up</>         1000 full  on     10    20                                         lldp          1.2M      2.0k
<c>ge3</>   G      on     <g>up</>          100 full  on      0     0                                         lldp             0         0
<c>ge4</>   G      on     <g>up</>           10 half  on      0     0                                         lldp             0         0
<c>ge5</>   G      on     <d>down</>                  on      0     0  00:11:22:33:44:66  192.168.1.21  SW    lldp             0         0
<c>ge6</>   G      on     <d>down</>                  off     0     0                                         eee lldp         0         0
<c>ge7</>   G      <r>off</>    <d>down</>                  on      0     0                                         lldp             0         0
<c>ge8</>   G      <r>off</>    <y>back NNNs</>             on      0     0                                         lldp             0         0
<c>ge9</>   2.5GF  on     <g>up</>         2500 full          0     0                                         lldp             0         0
<c>ge10</>  2.5GF  on     <d>down</>                          0     0                                         lldp             0         0
"""

STATS = """\
<b>PORT</>  <b>TX/s</>  <b>RX/s</>  <b>TX BYTES</>  <b>RX BYTES</>
<c>ge1</>      0     0         0         0
<c>ge2</>     10    20   1234567      2000
<c>ge3</>      0     0         0         0
<c>ge4</>      0     0         0         0
<c>ge5</>      0     0         0         0
<c>ge6</>      0     0         0         0
<c>ge7</>      0     0         0         0
<c>ge8</>      0     0         0         0
<c>ge9</>      0     0         0         0
<c>ge10</>     0     0         0         0
"""

POE = """\
<b>PORT</>  <b>POE</>  <b>PRIORITY</>  <b>LINK</>
<c>ge1</>   <g>on</>          0  <g>up</>
<c>ge2</>   <g>on</>          0  <g>up</>
<c>ge3</>   <g>on</>          0  <g>up</>
<c>ge4</>   <g>on</>          0  <g>up</>
<c>ge5</>   <g>on</>          0  <d>down</>
<c>ge6</>   <d>off</>         0  <d>down</>
<c>ge7</>   <g>on</>          0  <d>down</>
<c>ge8</>   <g>on</>          0  <y>back NNNs</>
"""

CLIENTS = """\
<b>PORT</>  <b>STATE</>  <b>MAC</>                <b>IP</>            <b>TYPE</>
<c>ge1</>   <g>ON</>     00:11:22:33:44:55  192.168.1.20  UN
<c>ge5</>   <d>OFF</>    00:11:22:33:44:66  192.168.1.21  SW
"""

PANEL = """\
┌─────┬─────┬─────┬─────┐  ┌─────┐
│ge1 <g>●</>│ge3 <g>●</>│ge5 <d>○</>│ge7 <r>×</>│  │ge9 <g>●</>│
├─────┼─────┼─────┼─────┤  ├─────┤
│ge2 <g>●</>│ge4 <g>●</>│ge6 <d>○</>│ge8 <y>↻</>│  │ge10<d>○</>│
└─────┴─────┴─────┴─────┘  └─────┘
<g>●</> link  <d>○</> no link  <r>×</> off  <y>↻</> restarting
"""

TABLES = {
    "discover": (DISCOVER_80, DISCOVER_200),
    "show": (SHOW, SHOW),
    "ports": (PORTS_80, PORTS_200),
    "ports --panel": (PANEL, PANEL),
    "stats": (STATS, STATS),
    "poe": (POE, POE),
    "clients": (CLIENTS, CLIENTS),
}  # fmt: skip


@pytest.fixture(scope="module")
def qelctl(tmp_path_factory):
    with Lab("--board", quiet_board(tmp_path_factory.mktemp("board"))) as lab:
        control = Qelctl(lab, "--switch", "0a:1b:2c:3d:4e:10")  # saves looking for others each time
        lab.morvactl("counters", "ge2", "tx_bytes=1234567", "rx_bytes=2000", "tx_rate=10", "rx_rate=20")
        neighbours = [
            {"mac": "00:11:22:33:44:55", "local_interface": "ge1", "management_address": "192.168.1.20"},
            {
                "mac": "00:11:22:33:44:66", "local_interface": "ge5", "management_address": "192.168.1.21",
                "system_capability": "Switch",
            },
        ]  # fmt: skip
        for neighbour in neighbours:
            lab.morvactl("event", json.dumps({"type": "lldp_add", **neighbour}))
        wait_until(lambda: "OFF" in control("clients").stdout, "the clients")
        control("port", "config", "ge6", "poe=off", "eee=on")
        control("port", "disable", "ge7")
        control("port", "restart", "ge8", "--seconds", "250")
        yield control


def coloured(text):
    return re.sub("<.>|</>", lambda found: SHADES[found.group()], text)


def plain(text):
    return re.sub("<.>|</>", "", text)


def steady(text):
    """`text` with fixed words for what changes from run to run; in a row, one blank before them and
    before the titles of their columns, which are as wide as what is in them."""
    text = re.sub(r"back \d{3}s", "back NNNs", text)
    text = re.sub(r"(?<= )\d+[smhd]( \d+[smhd])?(?= |$)", "TIME", text, flags=re.MULTILINE)
    text = re.sub(r"(?<= )\d+%", "N%", text)
    text = re.sub(r"(?<=[0-9%E]) +(TIME|N%)", r" \1", text)
    return re.sub(r" +((\x1b\[1m)?(UPTIME|CPU|MEM)\b)", r" \1", text)


@pytest.mark.parametrize("command", TABLES)
@pytest.mark.parametrize("columns", [80, 200])
def test_the_whole_table(qelctl, command, columns):
    literal = TABLES[command][columns > 80]
    qelctl("port", "restart", "ge8", "--seconds", "250")  # anew, so that its rest has three digits
    for colour, expected in (("never", plain(literal)), ("always", coloured(literal))):
        shown = qelctl("--color", colour, *command.split(), columns=columns).stdout
        assert steady(shown) == expected
        if columns == 80:
            assert max(len(line) for line in plain_lines(shown)) <= 80


def plain_lines(text):
    return re.sub(r"\x1b\[\d*m", "", text).splitlines()
