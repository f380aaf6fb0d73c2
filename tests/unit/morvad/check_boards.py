#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks board files against the schema, and the schema against boards that are wrong.

usage: check_boards.py SCHEMA BOARD...
"""

import copy
import json
import sys

import jsonschema


def broken(board):
    """Boards that the schema must refuse, each with what is wrong about it."""

    def change(what, action):
        other = copy.deepcopy(board)
        action(other)
        return what, other

    port = board["ports"][0]["name"]
    yield change("no mac", lambda b: b.pop("mac"))
    yield change("group mac", lambda b: b.update(mac="01:00:00:00:00:01"))
    yield change("unknown key", lambda b: b.update(colour="red"))
    yield change("no ports", lambda b: b.update(ports=[]))
    yield change("seven oem words", lambda b: b["oem"].pop())
    yield change("number as a setting", lambda b: b["nvram"].update(have_poe=1))
    yield change("control byte in a setting", lambda b: b["nvram"].update(product_sn="a\nb"))
    yield change("quote in a setting", lambda b: b["nvram"].update(product_sn='a"b'))
    yield change("backslash in a setting", lambda b: b["nvram"].update(product_sn="a\\b"))
    yield change("bad setting key", lambda b: b["nvram"].update({"a b": "1"}))
    yield change("ip without mask", lambda b: b["management"].pop("mask"))
    yield change("other interface", lambda b: b["management"].update(interface="eth0"))
    yield change("no name of its own", lambda b: b.update(name=""))
    yield change("the management interface as a port", lambda b: b["ports"][0].update(interface="vlanif1"))
    yield change("blank in a name", lambda b: b["ports"][0].update(name=port + " x"))
    yield change("unknown medium", lambda b: b["ports"][0].update(medium="glass"))
    yield change("odd speed", lambda b: b["ports"][0].update(max_speed=1234))
    yield change("no link", lambda b: b["ports"][0].pop("link"))
    yield change("poe without limit", lambda b: b["ports"][0].update(poe=True, poe_limit=None))
    yield change("limit without poe", lambda b: b["ports"][0].update(poe=False, poe_limit=1))


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft7Validator.check_schema(schema)
    validator = jsonschema.Draft7Validator(schema)
    failures = 0
    for path in sys.argv[2:]:
        with open(path, encoding="utf-8") as file:
            board = json.load(file)
        for error in validator.iter_errors(board):
            print(f"{path}: {'/'.join(map(str, error.absolute_path))}: {error.message}")
            failures += 1
        for what, wrong in broken(board):
            if validator.is_valid(wrong):
                print(f"{path}: the schema takes a board with: {what}")
                failures += 1
    if len(sys.argv) < 3:
        print("no boards given")
        failures += 1
    sys.exit(1 if failures else 0)


main()
