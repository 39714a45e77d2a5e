#!/usr/bin/env python3
"""Independent property-list oracle for the C++ tests, built on plistlib.

Values travel between the tests and this script as a typed canonical dump,
one token per line:
    B:0|1  I:<decimal>  R:<16 hex digits, the float64 bits>  S:<UTF-16BE hex>
    D:<hex>  T:<milliseconds since 1970, UTC>  U:<decimal>  N
    A:<count> then the elements
    M:<count> then per entry the key (an S line) and the value, keys sorted
              by their UTF-16 code units

    plist_oracle.py read DIR    each DIR/x.bplist: writes DIR/x.out, its dump
                                or "ERROR: ..." when plistlib refuses it
    plist_oracle.py write DIR   each DIR/x.dump: writes DIR/x.py.bplist with
                                plistlib, keys in the order of the dump
"""

import datetime
import plistlib
import struct
import sys
from pathlib import Path

EPOCH = datetime.datetime(1970, 1, 1)


def utf16(s):
    return s.encode("utf-16-be", "surrogatepass")


def millis(dt):
    if dt.tzinfo is not None:
        dt = dt.astimezone(datetime.timezone.utc).replace(tzinfo=None)
    micros = (dt - EPOCH) // datetime.timedelta(microseconds=1)
    q = (abs(micros) + 500) // 1000  # nearest millisecond, halves away from zero
    return q if micros >= 0 else -q


# In order: bool before int, which it subclasses.
SCALARS = [
    (bool, lambda v: "B:%d" % v),
    (int, lambda v: "I:%d" % v),
    (float, lambda v: "R:" + struct.pack(">d", v).hex()),
    (str, lambda v: "S:" + utf16(v).hex()),
    (bytes, lambda v: "D:" + v.hex()),
    (datetime.datetime, lambda v: "T:%d" % millis(v)),
    (plistlib.UID, lambda v: "U:%d" % v.data),
    (type(None), lambda v: "N"),
]

PARSERS = {
    "B": lambda r: r == "1",
    "I": int,
    "R": lambda r: struct.unpack(">d", bytes.fromhex(r))[0],
    "S": lambda r: bytes.fromhex(r).decode("utf-16-be", "surrogatepass"),
    "D": bytes.fromhex,
    "T": lambda r: EPOCH + datetime.timedelta(milliseconds=int(r)),
    "U": lambda r: plistlib.UID(int(r)),
}


def dump(value, out):
    if isinstance(value, list):
        out.append("A:%d" % len(value))
        for element in value:
            dump(element, out)
    elif isinstance(value, dict):
        out.append("M:%d" % len(value))
        for key in sorted(value, key=utf16):
            dump(key, out)
            dump(value[key], out)
    else:
        out.append(next(f(value) for t, f in SCALARS if isinstance(value, t)))


def parse(tokens):
    tag, _, rest = next(tokens).partition(":")
    if tag == "A":
        return [parse(tokens) for _ in range(int(rest))]
    if tag == "M":
        return {parse(tokens): parse(tokens) for _ in range(int(rest))}  # key first
    return PARSERS[tag](rest)


def main():
    sys.setrecursionlimit(20000)
    mode, directory = sys.argv[1], Path(sys.argv[2])
    if mode == "read":
        for path in directory.glob("*.bplist"):
            out = []
            try:
                dump(plistlib.loads(path.read_bytes(), fmt=plistlib.FMT_BINARY), out)
            except Exception as e:  # any refusal is reported, not raised
                out = ["ERROR: %s: %s" % (type(e).__name__, e)]
            path.with_suffix(".out").write_text("\n".join(out), encoding="utf-8")
    elif mode == "write":
        for path in directory.glob("*.dump"):
            value = parse(iter(path.read_text(encoding="ascii").split()))
            data = plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)
            path.with_suffix(".py.bplist").write_bytes(data)
    else:
        raise SystemExit("usage: plist_oracle.py read|write DIR")


if __name__ == "__main__":
    main()
