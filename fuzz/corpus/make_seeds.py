#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/.

The committed files come from this script; run it again after changing an
input layout. Integers that a target takes with FuzzedDataProvider are read
from the END of the input (last byte most significant), byte strings from
the front: tail() builds that end part.
"""
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    os.makedirs(os.path.join(HERE, target), exist_ok=True)
    with open(os.path.join(HERE, target, name), "wb") as f:
        f.write(data)


def tail(*values):
    """(value, byte count) pairs in the order the target consumes them."""
    return b"".join(v.to_bytes(n, "little") for v, n in reversed(values))


# ---- route messages: 2 bytes of filter, then one netlink datagram ----
def attr(t, payload):
    a = struct.pack("=HH", 4 + len(payload), t) + payload
    return a + b"\0" * (-len(a) % 4)


def route(dst_len, table, attrs, rtype=1, src_len=0, seq=1, family=2):
    body = struct.pack("=BBBBBBBBI", family, dst_len, src_len, 0, table, 2, 0, rtype, 0)
    body += b"".join(attr(t, p) for t, p in attrs)
    return struct.pack("=IHHII", 16 + len(body), 24, 2, seq, 0) + body


def done(seq=1):
    return struct.pack("=IHHIIi", 20, 3, 2, seq, 0, 0)


def error(code=-17):
    return struct.pack("=IHHIIi", 36, 2, 0, 1, 0, code) + struct.pack("=IHHII", 16, 24, 5, 1, 0)


ip = lambda a, b, c, d: bytes([a, b, c, d])
u32 = lambda v: struct.pack("=I", v)
net = route(24, 254, [(15, u32(254)), (1, ip(192, 0, 2, 0)), (7, ip(192, 0, 2, 1)), (4, u32(2))])
dflt = route(0, 254, [(5, ip(198, 51, 100, 254)), (4, u32(3)), (6, u32(100)),
                      (8, attr(2, u32(1400)))])
host = route(32, 254, [(1, ip(203, 0, 113, 9)), (2, ip(203, 0, 113, 1)), (3, u32(1))], src_len=32)
local = route(32, 255, [(1, ip(127, 0, 0, 1)), (4, u32(1))], rtype=2)
write("fuzz_route", "main_and_done", u32(0)[:2] + net + done())
write("fuzz_route", "default_gw_metrics", struct.pack("=H", 0x001) + dflt + host + done())
write("fuzz_route", "local_then_error", struct.pack("=H", 0x003) + local + net + error())
write("fuzz_route", "types_filter", struct.pack("=H", 0x0f8) + route(8, 254, [], rtype=8) + done())
write("fuzz_route", "truncated_attr", u32(0)[:2] + net[:-3] + struct.pack("=HH", 200, 1))
write("fuzz_route", "wrong_seq_ipv6", u32(0)[:2] + route(64, 254, [], seq=7) +
      route(64, 254, [(1, bytes(16))], family=10) + done())

# ---- interface statistics text ----
header = (b"Inter-|   Receive                            |  Transmit\n"
          b" face |bytes    packets errs drop fifo frame compressed multicast|bytes\n")
write("fuzz_getname", "proc_net_dev", header +
      b"    lo: 1234 12 0 0 0 0 0 0 1234 12 0 0 0 0 0 0\n"
      b"  eth0:4046496815 3191222 0 0 0 0 0 0 1 2 0 0 0 0 0 0\n")
write("fuzz_getname", "aliases", b"eth0:1: 0 0 0\n  veth-a:12:x\n\tbr0:: 1\n")
write("fuzz_getname", "long_names", b"  averyveryverylonginterfacename: 1 2\n0123456789abcdef:99:\n")
write("fuzz_getname", "blanks", b"\n   \n:\n  :1\n")

# ---- blocks: mode byte (1 limit, 2 peer closes), 2 bytes of limit - 1 ----
block = lambda body: u32(len(body)) + body
blocks = block(b"hello") + block(b"") + block(b"abc" * 20)
write("fuzz_readblock", "three_blocks_open", b"\x00\0\0" + blocks)
write("fuzz_readblock", "three_blocks_limit_closed", b"\x03\x0f\x00" + blocks)
write("fuzz_readblock", "over_limit", b"\x01\x04\x00" + block(b"0123456789"))
write("fuzz_readblock", "incomplete_body", b"\x02\0\0" + u32(100) + b"short")
write("fuzz_readblock", "huge_length", b"\x00\0\0" + u32(0xffffffff) + b"x")


# ---- compressed streams: the stream from the front, parameters at the end ----
def sync_stream(*bursts):
    z = zlib.compressobj()
    return b"".join(z.compress(b) + z.flush(zlib.Z_SYNC_FLUSH) for b in bursts)


def decompress_seed(stream, mode, slab=20000, piece=512, flips=()):
    values = [(mode, 1), (slab, 3), (piece - 1, 2), (len(flips), 1)]
    for pos, x in flips:
        values += [(pos, 2), (x, 1)]
    return stream + tail(*values)


text = b"the quick brown fox jumps over the lazy dog " * 40
write("fuzz_decompress", "slab_valid", decompress_seed(sync_stream(text, b"more"), 0))
write("fuzz_decompress", "slab_small", decompress_seed(sync_stream(text), 0, slab=100, piece=7))
write("fuzz_decompress", "socket_valid", decompress_seed(sync_stream(text[:300], text), 2 | 4))
write("fuzz_decompress", "socket_blocks",
      decompress_seed(sync_stream(block(b"abc") + block(b""), block(text[:200])), 2 | 8))
write("fuzz_decompress", "mutated_plain", decompress_seed(text[:500], 1 | 2, flips=((10, 0x40),)))
write("fuzz_decompress", "bomb", decompress_seed(sync_stream(bytes(60000)), 2, slab=5000))


# ---- queue operations: op (0..13) and length (0..64) per step, payloads in front ----
def queue_seed(rcv, *ops):
    front = b"".join(p for _, p in ops)
    values = [(rcv, 2)]
    for op, payload in ops:
        values += [(op, 1), (len(payload), 1)]
    return front + tail(*values)


PUT, PUTFRONT, PUTMINE, PEEK, GET, GETNULL, TAKE, SIZE, CLEAR = range(9)
WRITE, PROCESS, PEER, CLOSE, READ = range(9, 14)
write("fuzz_queue", "queue_ops", queue_seed(
    0, (PUT, b"abc"), (PUTFRONT, b"x"), (PUTMINE, b"mine"), (PEEK, b""), (SIZE, b""),
    (GET, b""), (TAKE, b""), (GETNULL, b""), (PUT, b""), (GETNULL, b""), (CLEAR, b"")))
write("fuzz_queue", "socket_roundtrip", queue_seed(
    1024, (WRITE, b"hello"), (WRITE, b"world"), (PROCESS, b"ab"), (PEER, b"0123456789"),
    (PROCESS, b""), (READ, b"1234"), (READ, b"123456789012345")))
write("fuzz_queue", "peer_closes", queue_seed(
    2048, (PEER, b"data"), (CLOSE, b""), (PROCESS, b""), (PROCESS, b""), (READ, b"1"),
    (READ, b"12345678901234567890"), (PROCESS, b"x"), (SIZE, b"")))
