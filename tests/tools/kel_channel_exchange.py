#!/usr/bin/env python3
"""Plays hand-built message channel exchanges between a server and a client socket on loopback.

The bytes are those a kelbase client and server put on the wire (handshake, a request with
integers of every form, strings, blocks, events, a file, close), written flush by flush so each
flush is one TCP segment; a string and a large block are cut across segments on purpose, so a
dissector has to reassemble them. A second connection is refused at the handshake, a third
carries reserved and invalid command bytes.

    kel_channel_exchange.py PORT [main,refused,odd]   runs those connections (default: all)
                                                      against 127.0.0.1:PORT
"""
import socket
import struct
import sys
import time

APP_ID = 0x4B454C01
GAP = 0.05  # between flushes: each one leaves as its own segment


def version(word):
    """STC_Version with the shortest big-endian number."""
    body = word.to_bytes(max(1, (word.bit_length() + 7) // 8), "big")
    return bytes([0xA8 | (len(body) - 1)]) + body


HANDSHAKE_CLIENT = struct.pack(">I", APP_ID) + version(0x0100)
assert HANDSHAKE_CLIENT[4:] == b"\xA9\x01\x00"

# Request 50108 with one parameter of every integer form: 5, -1, -32 (0xE0, read as 0), 32,
# -33, 2^56; the string "hello" (cut after "he"), the empty string, an empty block, a block of
# three bytes continued by two; then WaitAck.
REQUEST_PART1 = (b"\x89\xC3\xBC" + b"\xC5" + b"\xE1" + b"\xE0" + b"\xB0\x20" + b"\xB8\x21"
                 + b"\xB7\x01\x00\x00\x00\x00\x00\x00\x00" + b"\x98\x05he")
REQUEST_PART2 = b"llo" + b"\x06" + b"\x78\x00" + b"\x78\x03abc" + b"\x80\x02de" + b"\x01"
ANSWER = b"\x90\x00" + b"\xC1" + b"\x98\x02ok" + b"\x02"          # Ack 0, 1, "ok", EndAck
EVENTS_PENDING = b"\x03"
KEEP_ALIVE = b"\x05"
GET_EVENTS = b"\x04"
EVENTS = b"\xA0\x05"                                                # mask 5
FILE_CONTENT = b"0123456789"
# Request 7: a file of 10 bytes (one piece), then a 3000-byte block sent in two halves.
BIG = bytes(i % 251 for i in range(3000))
REQUEST2_PART1 = b"\x88\x07" + b"\x70\x0A" + b"\x78\x0A" + FILE_CONTENT + b"\x79\x0B\xB8" + BIG[:1000]
REQUEST2_PART2 = BIG[1000:] + b"\x01"
ANSWER2 = b"\x90\x00\x02"
CLOSE = b"\x00"

REFUSED_CLIENT = struct.pack(">I", 0x00000002) + version(0x0100)
REFUSED_SERVER = version(0x010100)
assert REFUSED_SERVER == b"\xAA\x01\x01\x00"

# Reserved bytes are read and skipped; 5 in two bytes is legal but not what a writer sends; a
# file announced with 10 bytes brings 4 before WaitAck; 0x07 stops any reader.
ODD_REQUEST = (b"\x88\x01" + b"\x0F\x01\x02\x03\x04" + b"\x09" + b"\x58\x02xy" + b"\xC3" + b"\xB1\x00\x05"
               + b"\x70\x0A" + b"\x78\x04abcd" + b"\x01" + b"\x07\x99")


def recv_exactly(sock, count):
    data = b""
    while len(data) < count:
        chunk = sock.recv(count - len(data))
        if not chunk:
            raise RuntimeError("peer closed after %d of %d bytes" % (len(data), count))
        data += chunk
    return data


def send(sender, receiver, data):
    """One flush: the sender writes, the receiver takes exactly those bytes."""
    sender.sendall(data)
    got = recv_exactly(receiver, len(data))
    assert got == data
    time.sleep(GAP)


def connect(listener, port):
    client = socket.create_connection(("127.0.0.1", port), timeout=10)
    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    server, _ = listener.accept()
    server.settimeout(10)
    server.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return client, server


def close_pair(client, server):
    # The client says STC_Close and shuts down; the server reads it and closes.
    client.shutdown(socket.SHUT_WR)
    assert server.recv(1) == b""
    server.close()
    client.close()
    time.sleep(GAP)


def main_exchange(listener, port):
    client, server = connect(listener, port)
    send(client, server, HANDSHAKE_CLIENT)
    send(server, client, version(0x0100))
    send(client, server, REQUEST_PART1)
    send(client, server, REQUEST_PART2)
    send(server, client, ANSWER)
    send(server, client, KEEP_ALIVE)
    send(server, client, EVENTS_PENDING)
    send(client, server, GET_EVENTS)
    send(server, client, EVENTS)
    send(client, server, REQUEST2_PART1)
    send(client, server, REQUEST2_PART2)
    send(server, client, ANSWER2)
    send(client, server, CLOSE)
    close_pair(client, server)


def refused_exchange(listener, port):
    client, server = connect(listener, port)
    send(client, server, REFUSED_CLIENT)
    send(server, client, REFUSED_SERVER)
    close_pair(client, server)


def odd_exchange(listener, port):
    client, server = connect(listener, port)
    send(client, server, HANDSHAKE_CLIENT)
    send(server, client, version(0x0100))
    send(client, server, ODD_REQUEST)
    close_pair(client, server)


EXCHANGES = {"main": main_exchange, "refused": refused_exchange, "odd": odd_exchange}


def run(port, names):
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", port))
    listener.listen(4)
    try:
        for name in names:
            EXCHANGES[name](listener, port)
    finally:
        listener.close()


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3) or (len(sys.argv) == 3 and not set(sys.argv[2].split(",")) <= set(EXCHANGES)):
        sys.exit("usage: kel_channel_exchange.py PORT [main,refused,odd]")
    run(int(sys.argv[1]), sys.argv[2].split(",") if len(sys.argv) == 3 else ["main", "refused", "odd"])
