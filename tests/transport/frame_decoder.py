#!/usr/bin/env python3
"""Independent decoder of invocation messages, for the C++ tests.

    frame_decoder.py FILE

FILE holds one whole message (length word, then body) per line, in hex after
a name; lines starting with # are comments. For each message it prints

    frame B=<body length> selector=<name> handler=<identifier> count=<K>

then one line per argument record, two spaces and its value as vd_support.h's
render() writes it (u:<uid> for a plistlib UID). Framing words are unsigned
64-bit big-endian; an index set's header words are big-endian too, its
indexes little-endian. Property-list payloads are parsed by plistlib alone.
Anything malformed prints "error: <what>" and exits with status 1.
"""

import datetime
import plistlib
import struct
import sys

EPOCH = datetime.datetime(1970, 1, 1)
INDEX_SET_MAGIC = 0xFEEDFACE


class Malformed(Exception):
    pass


class Reader:
    def __init__(self, data):
        self.data, self.pos = data, 0

    def take(self, n, what):
        if n > len(self.data) - self.pos:
            raise Malformed("%s: %d bytes wanted at %d, %d left" % (what, n, self.pos, len(self.data) - self.pos))
        self.pos += n
        return self.data[self.pos - n:self.pos]

    def word(self, what):
        return struct.unpack(">Q", self.take(8, what))[0]


def render_string(s):
    units = s.encode("utf-16-be", "surrogatepass")
    codes = [(units[i] << 8) | units[i + 1] for i in range(0, len(units), 2)]
    return 's"' + "".join(chr(u) if 0x20 <= u < 0x7F and chr(u) not in '"\\' else "\\u%04x" % u
                          for u in codes) + '"'


def millis(dt):
    delta = dt - EPOCH
    micros = (delta.days * 86400 + delta.seconds) * 1000000 + delta.microseconds
    q, r = divmod(abs(micros), 1000)
    q += r >= 500
    return q if micros >= 0 else -q


def render(value):
    if isinstance(value, bool):
        return "b:%d" % value
    if isinstance(value, int):
        return "i:%d" % value
    if isinstance(value, float):
        return "r:" + struct.pack(">d", value).hex()
    if isinstance(value, str):
        return render_string(value)
    if isinstance(value, bytes):
        return "d" + value.hex()
    if isinstance(value, datetime.datetime):
        return "t:%d" % millis(value)
    if isinstance(value, plistlib.UID):
        return "u:%d" % value.data
    if isinstance(value, list):
        return "[" + ",".join(render(v) for v in value) + "]"
    if isinstance(value, dict):
        keys = sorted(value, key=lambda k: k.encode("utf-16-be", "surrogatepass"))
        return "{" + ",".join(render_string(k)[1:] + ":" + render(value[k]) for k in keys) + "}"
    raise Malformed("unexpected value %r" % (value,))


def render_payload(payload):
    if not payload:
        return "nil"
    if len(payload) > 8 and struct.unpack(">Q", payload[:8])[0] == INDEX_SET_MAGIC:
        r = Reader(payload)
        r.word("index-set magic")
        n = r.word("index-set byte count")
        if n % 8 or n != len(payload) - 16:
            raise Malformed("index set of %d bytes claims %d index bytes" % (len(payload), n))
        indexes = [struct.unpack("<Q", r.take(8, "index"))[0] for _ in range(n // 8)]
        if any(a >= b for a, b in zip(indexes, indexes[1:])):
            raise Malformed("indexes not ascending: %r" % indexes)
        return "idx[" + ",".join(str(i) for i in indexes) + "]"
    try:
        return render(plistlib.loads(payload, fmt=plistlib.FMT_BINARY))
    except Malformed:
        raise
    except Exception as e:  # plistlib raises several kinds
        raise Malformed("payload is not a binary property list: %s" % e)


def ascii_text(body, what):
    raw = body.take(body.word(what + " length"), what)
    try:
        return raw.decode("ascii")
    except UnicodeDecodeError:
        raise Malformed("%s is not ASCII: %r" % (what, raw))


def decode_stream(stream, out):
    while stream.pos < len(stream.data):
        length = stream.word("body length")
        body = Reader(stream.take(length, "body"))
        selector, handler = ascii_text(body, "selector"), ascii_text(body, "handler")
        count = body.word("argument count")
        if count > len(body.data):
            raise Malformed("argument count %d cannot fit a body of %d bytes" % (count, len(body.data)))
        out.append("frame B=%d selector=%s handler=%s count=%d" % (length, selector, handler, count))
        for i in range(count):
            out.append("  " + render_payload(body.take(body.word("record %d length" % i), "record %d" % i)))
        if body.pos != len(body.data):
            raise Malformed("%d bytes after the last record" % (len(body.data) - body.pos))


def main(path):
    with open(path) as f:
        data = b"".join(bytes.fromhex(line.split(None, 1)[1]) for line in f.read().splitlines()
                        if line and not line.startswith("#"))
    out = []
    try:
        decode_stream(Reader(data), out)
    except Malformed as e:
        print("\n".join(out + ["error: %s" % e]))
        return 1
    print("\n".join(out))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
