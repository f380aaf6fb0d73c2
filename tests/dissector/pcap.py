# SPDX-License-Identifier: Apache-2.0
"""Classic capture files of Ethernet frames: written by make_captures.py, read by the tests and by
the maker of the fuzz seeds."""

import struct

HEADER = struct.Struct("<IHHiIII")
RECORD = struct.Struct("<IIII")
MAGIC = 0xA1B2C3D4  # microseconds, in the byte order of the file
ETHERNET = 1
SNAP_LENGTH = 262144


def write(path, frames):
    """Writes `frames`, pairs of (nanoseconds since the epoch, bytes); a third member, when there,
    is the length on the wire of a frame that was not captured whole."""
    parts = [HEADER.pack(MAGIC, 2, 4, 0, 0, SNAP_LENGTH, ETHERNET)]
    for time, data, *length in frames:
        seconds, rest = divmod(time, 10**9)
        parts.append(RECORD.pack(seconds, rest // 1000, len(data), *(length or [len(data)])))
        parts.append(data)
    path.write_bytes(b"".join(parts))


def read(path):
    """The frames of the file, in their order."""
    raw = path.read_bytes()
    magic, major, minor, _, _, _, link = HEADER.unpack_from(raw)
    assert (magic, major, minor, link) == (MAGIC, 2, 4, ETHERNET), path
    frames, at = [], HEADER.size
    while at < len(raw):
        _, _, captured, _ = RECORD.unpack_from(raw, at)
        at += RECORD.size
        assert at + captured <= len(raw), f"{path} is cut off"
        frames.append(raw[at : at + captured])
        at += captured
    return frames
