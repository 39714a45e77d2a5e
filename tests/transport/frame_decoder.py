#!/usr/bin/env python3
"""Independent decoder of invocation messages, for the C++ tests.

    frame_decoder.py FILE

reads FILE as a stream of whole messages (or, for a .txt file, one message
per line, in hex after a name; lines starting with # are comments) and
prints, for each one,

    frame B=<body length> selector=<name> handler=<identifier> count=<K>

and then one line per argument record, two spaces and its value:

    nil  idx[3,5]  b:1  i:-1  r:<float64 bits, hex>  s"text"  d<hex>
    t:<milliseconds since 1970, UTC>  u:<uid>  [a,b]  {"key":value,...}

Strings keep printable ASCII except '"' and '\\'; every other UTF-16 code unit
is written \\uXXXX. Dictionary keys are sorted by UTF-16 code units.

Every framing word is an unsigned 64-bit big-endian integer; the header
words of an index set are big-endian too, its indexes little-endian (the
byte order of the machines the two processes share). Property-list payloads
are parsed by plistlib alone. Anything malformed prints "error: <what>" and
exits with status 1.
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
        self.data = data
        self.pos = 0

    def take(self, n, what):
        if n > len(self.data) - self.pos:
            raise Malformed("%s: %d bytes wanted at %d, %d left"
                            % (what, n, self.pos, len(self.data) - self.pos))
        out = self.data[self.pos:self.pos + n]
        self.pos += n
        return out

    def word(self, what):
        return struct.unpack(">Q", self.take(8, what))[0]

    def at_end(self):
        return self.pos == len(self.data)


def render_string(s):
    out = ['s"']
    units = s.encode("utf-16-be", "surrogatepass")
    for i in range(0, len(units), 2):
        u = (units[i] << 8) | units[i + 1]
        if 0x20 <= u < 0x7F and chr(u) not in '"\\':
            out.append(chr(u))
        else:
            out.append("\\u%04x" % u)
    out.append('"')
    return "".join(out)


def millis(dt):
    delta = dt - EPOCH
    micros = (delta.days * 86400 + delta.seconds) * 1000000 + delta.microseconds
    q, r = divmod(abs(micros), 1000)
    if r >= 500:
        q += 1
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
        value = plistlib.loads(payload, fmt=plistlib.FMT_BINARY)
    except Exception as e:  # plistlib raises several kinds
        raise Malformed("payload is not a binary property list: %s" % e)
    return render(value)


def ascii_text(raw, what):
    try:
        return raw.decode("ascii")
    except UnicodeDecodeError:
        raise Malformed("%s is not ASCII: %r" % (what, raw))


def decode_stream(data, out):
    stream = Reader(data)
    while not stream.at_end():
        length = stream.word("body length")
        body = Reader(stream.take(length, "body"))
        selector = ascii_text(body.take(body.word("selector length"), "selector"), "selector")
        handler = ascii_text(body.take(body.word("handler length"), "handler"), "handler")
        count = body.word("argument count")
        if count > len(body.data):
            raise Malformed("argument count %d cannot fit a body of %d bytes" % (count, len(body.data)))
        lines = ["frame B=%d selector=%s handler=%s count=%d" % (length, selector, handler, count)]
        for i in range(count):
            payload = body.take(body.word("record %d length" % i), "record %d payload" % i)
            lines.append("  " + render_payload(payload))
        if not body.at_end():
            raise Malformed("%d bytes after the last record" % (len(body.data) - body.pos))
        out.extend(lines)


def main(argv):
    if len(argv) != 2:
        print("usage: frame_decoder.py FILE", file=sys.stderr)
        return 2
    with open(argv[1], "rb") as f:
        data = f.read()
    if argv[1].endswith(".txt"):
        data = b"".join(bytes.fromhex(line.split(None, 1)[1].decode())
                        for line in data.splitlines() if line and not line.startswith(b"#"))
    out = []
    try:
        decode_stream(data, out)
    except Malformed as e:
        print("\n".join(out + ["error: %s" % e]))
        return 1
    print("\n".join(out))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
