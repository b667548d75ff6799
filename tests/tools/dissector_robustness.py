#!/usr/bin/env python3
"""Feeds kelbase.lua random message channel streams from a written pcap: no Lua error allowed.

    dissector_robustness.py --lua tools/wireshark/kelbase.lua --work DIR [--streams N] [--seed S]

Each stream is a TCP connection whose segments carry a random mix of valid commands, truncated
commands, huge announced lengths and random bytes, cut at random places. tshark decodes the
file (no capture, no root needed); any "Lua Error" in the output fails the check. Exit 77 when
tshark is missing.
"""
import argparse
import os
import random
import shutil
import struct
import subprocess
import sys

PORT = 7010


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def packet(src_port, dst_port, seq, ack, flags, payload):
    tcp = struct.pack("!HHIIBBHHH", src_port, dst_port, seq, ack, 5 << 4, flags, 65535, 0, 0) + payload
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(tcp), 0, 0x4000, 64, 6, 0,
                     bytes([127, 0, 0, 1]), bytes([127, 0, 0, 1]))
    ip = ip[:10] + struct.pack("!H", checksum(ip)) + ip[12:]
    return b"\0" * 12 + b"\x08\x00" + ip + tcp   # Ethernet header, then IPv4


def number_command(rng, group):
    value = rng.choice([0, 1, 31, 32, 255, 256, 65535, 1 << 24, 1 << 31, (1 << 63) + 5, (1 << 64) - 1,
                        rng.getrandbits(rng.randint(1, 64))])
    n = max(1, (value.bit_length() + 7) // 8)
    if rng.random() < 0.1:
        n = rng.randint(n, 8)  # a longer form than needed
    return bytes([group | (n - 1)]) + value.to_bytes(n, "big")


def random_command(rng):
    kind = rng.random()
    if kind < 0.3:
        return bytes([rng.randint(0xC0, 0xFF)])
    if kind < 0.45:
        return bytes([rng.randint(0x00, 0x0F)]) + (rng.randbytes(4) if rng.random() < 0.5 else b"")
    if kind < 0.7:
        return number_command(rng, rng.choice([0x70, 0x88, 0x90, 0xA0, 0xA8, 0xB0, 0xB8]))
    if kind < 0.9:
        body = rng.randbytes(rng.choice([0, 1, 5, 100, 2000]))
        group = rng.choice([0x58, 0x60, 0x68, 0x78, 0x80, 0x98])
        length = len(body) if rng.random() < 0.8 else rng.getrandbits(rng.randint(1, 64))
        n = max(1, (length.bit_length() + 7) // 8)
        return bytes([group | (n - 1)]) + length.to_bytes(n, "big") + body
    return rng.randbytes(rng.randint(1, 16))


def stream_packets(rng, index):
    client, server = 40000 + index, PORT
    seq = {client: 1000, server: 5000}
    out = []
    syn = [(client, server, 0x02, b""), (server, client, 0x12, b""), (client, server, 0x10, b"")]
    for src, dst, flags, payload in syn:
        out.append(packet(src, dst, seq[src], seq[dst], flags, payload))
        if flags & 0x02:
            seq[src] += 1
    first = rng.randbytes(4) + (b"\xA9\x01\x00" if rng.random() < 0.8 else rng.randbytes(rng.randint(0, 3)))
    data = {client: bytearray(first), server: bytearray()}
    for _ in range(rng.randint(1, 40)):
        data[rng.choice([client, server])] += random_command(rng)
    for src in (client, server):
        dst = server if src == client else client
        buf = bytes(data[src])
        while buf:
            cut = rng.randint(1, min(len(buf), 3000))
            out.append(packet(src, dst, seq[src], seq[dst], 0x18, buf[:cut]))
            seq[src] += cut
            buf = buf[cut:]
    return out


def write_pcap(path, packets):
    with open(path, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i, p in enumerate(packets):
            f.write(struct.pack("<IIII", 1000 + i // 1000, (i % 1000) * 1000, len(p), len(p)) + p)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--lua", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("--streams", type=int, default=300)
    parser.add_argument("--seed", type=int, default=7010)
    args = parser.parse_args()
    tshark = shutil.which("tshark")
    if not tshark:
        print("SKIP: tshark is not installed")
        return 77
    os.makedirs(args.work, exist_ok=True)
    rng = random.Random(args.seed)
    packets = []
    for i in range(args.streams):
        packets += stream_packets(rng, i)
    pcap = os.path.join(args.work, "random.pcap")
    write_pcap(pcap, packets)
    result = subprocess.run([tshark, "-r", pcap, "-X", "lua_script:" + args.lua, "-V", "-o", "tcp.check_checksum:FALSE"],
                            capture_output=True, timeout=600)
    text = (result.stdout + result.stderr).decode("utf-8", "replace")
    errors = [line for line in text.splitlines() if "Lua Error" in line or "Lua: Error" in line]
    decoded = text.count("kelbase message channel,")
    if result.returncode != 0 or errors or decoded == 0:
        print("tshark exit %d, %d Lua errors, %d decoded PDUs" % (result.returncode, len(errors), decoded))
        print("\n".join(errors[:20]))
        return 1
    print("dissector: %d streams, %d packets, %d decoded runs, no Lua error" % (args.streams, len(packets), decoded))
    return 0


if __name__ == "__main__":
    sys.exit(main())
