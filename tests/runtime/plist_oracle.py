#!/usr/bin/env python3
"""Independent property-list oracle for the C++ tests, built on plistlib.

    plist_oracle.py DIR   each DIR/x.dump: writes DIR/x.py.bplist with plistlib,
                          keys in the order of the dump

A dump is one token per line:
    B:0|1  I:<decimal>  R:<16 hex digits, the float64 bits>  S:<UTF-16BE hex>
    D:<hex>  T:<milliseconds since 1970, UTC>  U:<decimal>
    A:<count> then the elements
    M:<count> then per entry the key (an S line) and the value
"""

import datetime
import plistlib
import struct
import sys
from pathlib import Path

EPOCH = datetime.datetime(1970, 1, 1)

PARSERS = {
    "B": lambda r: r == "1",
    "I": int,
    "R": lambda r: struct.unpack(">d", bytes.fromhex(r))[0],
    "S": lambda r: bytes.fromhex(r).decode("utf-16-be", "surrogatepass"),
    "D": bytes.fromhex,
    "T": lambda r: EPOCH + datetime.timedelta(milliseconds=int(r)),
    "U": lambda r: plistlib.UID(int(r)),
}


def parse(tokens):
    tag, _, rest = next(tokens).partition(":")
    if tag == "A":
        return [parse(tokens) for _ in range(int(rest))]
    if tag == "M":
        return {parse(tokens): parse(tokens) for _ in range(int(rest))}  # key first
    return PARSERS[tag](rest)


def main():
    sys.setrecursionlimit(20000)
    for path in Path(sys.argv[1]).glob("*.dump"):
        value = parse(iter(path.read_text(encoding="ascii").split()))
        data = plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)
        path.with_suffix(".py.bplist").write_bytes(data)


if __name__ == "__main__":
    main()
