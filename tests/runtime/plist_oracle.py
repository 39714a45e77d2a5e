#!/usr/bin/env python3
"""Independent property-list oracle for the C++ tests, built on plistlib.

Values travel between the tests and this script as a typed canonical dump,
one token per line:
    B:0|1  I:<decimal>  R:<16 hex digits, the float64 bits>  S:<UTF-16BE hex>
    D:<hex>  T:<milliseconds since 1970, UTC>  U:<decimal>  N
    A:<count> then the elements
    M:<count> then per entry the key (an S line) and the value, keys sorted
              by their UTF-16 code units

    plist_oracle.py read DIR    for each DIR/*.bplist: "== name", then its dump
                                or "ERROR: ..." when plistlib refuses it
    plist_oracle.py write DIR   for each DIR/*.dump: writes DIR/<name>.py.bplist
                                with plistlib, keys in the order of the dump
"""

import datetime
import os
import plistlib
import struct
import sys

EPOCH = datetime.datetime(1970, 1, 1)


def utf16(s):
    return s.encode("utf-16-be", "surrogatepass")


def millis(dt):
    if dt.tzinfo is not None:
        dt = dt.astimezone(datetime.timezone.utc).replace(tzinfo=None)
    delta = dt - EPOCH
    micros = (delta.days * 86400 + delta.seconds) * 1000000 + delta.microseconds
    # Nearest millisecond, halves away from zero.
    q, r = divmod(abs(micros), 1000)
    if r >= 500:
        q += 1
    return q if micros >= 0 else -q


def dump(value, out):
    if isinstance(value, bool):
        out.append("B:%d" % value)
    elif isinstance(value, int):
        out.append("I:%d" % value)
    elif isinstance(value, float):
        out.append("R:" + struct.pack(">d", value).hex())
    elif isinstance(value, str):
        out.append("S:" + utf16(value).hex())
    elif isinstance(value, bytes):
        out.append("D:" + value.hex())
    elif isinstance(value, datetime.datetime):
        out.append("T:%d" % millis(value))
    elif isinstance(value, plistlib.UID):
        out.append("U:%d" % value.data)
    elif value is None:
        out.append("N")
    elif isinstance(value, list):
        out.append("A:%d" % len(value))
        for element in value:
            dump(element, out)
    elif isinstance(value, dict):
        out.append("M:%d" % len(value))
        for key in sorted(value, key=utf16):
            dump(key, out)
            dump(value[key], out)
    else:
        raise TypeError("unexpected %r" % type(value))


def parse(lines, at):
    tag, _, rest = lines[at].partition(":")
    at += 1
    if tag == "B":
        return rest == "1", at
    if tag == "I":
        return int(rest), at
    if tag == "R":
        return struct.unpack(">d", bytes.fromhex(rest))[0], at
    if tag == "S":
        return bytes.fromhex(rest).decode("utf-16-be", "surrogatepass"), at
    if tag == "D":
        return bytes.fromhex(rest), at
    if tag == "T":
        return EPOCH + datetime.timedelta(milliseconds=int(rest)), at
    if tag == "U":
        return plistlib.UID(int(rest)), at
    if tag == "A":
        items = []
        for _ in range(int(rest)):
            item, at = parse(lines, at)
            items.append(item)
        return items, at
    if tag == "M":
        entries = {}
        for _ in range(int(rest)):
            key, at = parse(lines, at)
            entries[key], at = parse(lines, at)
        return entries, at
    raise ValueError("bad dump line %r" % lines[at - 1])


def read_all(directory):
    out = []
    for name in sorted(os.listdir(directory)):
        if not name.endswith(".bplist"):
            continue
        out.append("== " + name[: -len(".bplist")])
        with open(os.path.join(directory, name), "rb") as f:
            data = f.read()
        try:
            value = plistlib.loads(data, fmt=plistlib.FMT_BINARY)
        except Exception as e:  # any refusal is reported, not raised
            out.append("ERROR: %s: %s" % (type(e).__name__, e))
            continue
        dump(value, out)
    sys.stdout.write("\n".join(out) + "\n")


def write_all(directory):
    for name in sorted(os.listdir(directory)):
        if not name.endswith(".dump"):
            continue
        with open(os.path.join(directory, name), encoding="ascii") as f:
            lines = [line for line in f.read().split("\n") if line]
        value, _ = parse(lines, 0)
        data = plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)
        with open(os.path.join(directory, name[: -len(".dump")] + ".py.bplist"), "wb") as f:
            f.write(data)


def main():
    sys.setrecursionlimit(20000)
    mode, directory = sys.argv[1], sys.argv[2]
    if mode == "read":
        read_all(directory)
    elif mode == "write":
        write_all(directory)
    else:
        raise SystemExit("usage: plist_oracle.py read|write DIR")


if __name__ == "__main__":
    main()
