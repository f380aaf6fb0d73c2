# SPDX-License-Identifier: Apache-2.0
"""What a service unit says: the few keys that the tests look at."""


def read(text):
    """Key -> list of its values, in order, of all sections."""
    values = {}
    for line in text.splitlines():
        line = line.strip()
        if "=" in line and not line.startswith(("#", "[")):
            key, value = line.split("=", 1)
            values.setdefault(key, []).append(value)
    return values


def words(values, key):
    return " ".join(values.get(key, [])).split()
