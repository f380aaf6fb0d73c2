# SPDX-License-Identifier: Apache-2.0
"""What the lab must know of a board file: the switch's MAC address and its management address.

A file that is wrong is morvad's to complain about, in its own words; here it only must not stop the
lab from coming that far.
"""

import ipaddress
import json
import re

DEFAULT_MAC = "0a:1b:2c:3d:4e:01"
DEFAULT_ADDRESS = ipaddress.IPv4Interface("192.168.1.10/24")


def read(path):
    """The board file's content, or an empty board."""
    try:
        with open(path, encoding="utf-8") as file:
            board = json.load(file)
    except ValueError:
        return {}
    return board if isinstance(board, dict) else {}


def mac(board, number):
    """The MAC address of the lab's switch `number`: the board's, counted up from the first."""
    text = board.get("mac")
    if not isinstance(text, str) or not re.fullmatch(r"[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5}", text):
        text = DEFAULT_MAC
    value = (int(text.replace(":", ""), 16) + number - 1) & 0xFFFFFFFFFFFF
    return value.to_bytes(6, "big").hex(":")


def address(board, number):
    """The management address of the lab's switch `number`, counted up likewise."""
    management = board.get("management")
    try:
        first = ipaddress.IPv4Interface(f"{management['ip']}/{management['mask']}")
    except (TypeError, KeyError, ValueError):
        first = DEFAULT_ADDRESS
    return ipaddress.IPv4Interface(f"{first.ip + number - 1}/{first.network.prefixlen}")


def write_variant(board, path, own_mac, own_address):
    """Writes `board` to `path` as the board of another switch of the same kind."""
    variant = dict(board, mac=own_mac)
    if isinstance(board.get("management"), dict) and "ip" in board["management"]:
        variant["management"] = dict(board["management"], ip=str(own_address.ip))
    with open(path, "w", encoding="utf-8") as file:
        json.dump(variant, file, indent=2)
