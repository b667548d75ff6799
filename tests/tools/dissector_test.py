#!/usr/bin/env python3
"""Captures message channel traffic on loopback with tshark and checks what kelbase.lua decodes.

    dissector_test.py --lua tools/wireshark/kelbase.lua --work DIR [--peer PROGRAM]

The traffic of the first two connections comes from PROGRAM (kel_channel_peer: the library's own
channel server and client) when given, else from kel_channel_exchange.py beside this file, which
writes the same bytes by hand; the third connection, with reserved and invalid bytes that the
library never sends, always comes from the script. Exit status 77 means capturing is not
possible here (no tshark, no permission to capture on lo): the test is skipped, not failed.
"""
import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

SKIP = 77
HERE = os.path.dirname(os.path.abspath(__file__))
FIELDS = ["tcp.stream", "tcp.reassembled.length", "kelbase.cmd_name", "kelbase.int", "kelbase.uint",
          "kelbase.string", "kelbase.request", "kelbase.operation", "kelbase.ack", "kelbase.events", "kelbase.appid",
          "kelbase.verdict", "kelbase.block_len", "kelbase.file_size", "kelbase.file_left",
          "_ws.expert.message"]

EXPECTED_MAIN = {
    "kelbase.cmd_name": [
        "STC_Version", "STC_Version",
        "STC_Request", "STC_SmallUInt", "STC_SmallNegInt", "STC_SmallNegInt", "STC_UInt", "STC_NegInt",
        "STC_UInt", "STC_String", "STC_EmptyString", "STC_BinBlockStart", "STC_BinBlockStart",
        "STC_BinBlockCont", "STC_WaitAck",
        "STC_Ack", "STC_SmallUInt", "STC_String", "STC_EndAck",
        "STC_KeepAlive", "STC_EventsPending", "STC_GetEvents", "STC_Events",
        "STC_Request", "STC_File", "STC_BinBlockStart", "STC_BinBlockStart", "STC_WaitAck",
        "STC_Ack", "STC_EndAck", "STC_Close"],
    # -32 travels as 0xE0 and a reader takes it for 0.
    "kelbase.int": ["5", "-1", "0", "32", "-33", "72057594037927936", "1"],
    "kelbase.request": ["50108", "7"],
    "kelbase.operation": ["ADD_SERVER"],
    "kelbase.ack": ["0", "0"],
    "kelbase.events": [5],
    "kelbase.appid": [0x4B454C01],
    "kelbase.verdict": ["offered", "accepted"],
    "kelbase.block_len": ["0", "3", "2", "10", "3000"],
    "kelbase.file_size": ["10"],
    "kelbase.file_left": ["0"],
}
EXPECTED_REFUSED = {
    "kelbase.cmd_name": ["STC_Version", "STC_Version"],
    "kelbase.appid": [0x00000002],
}
EXPECTED_ODD = {
    "kelbase.cmd_name": ["STC_Version", "STC_Version", "STC_Request", "STC_Reserved0F", "STC_Reserved09",
                         "STC_Reserved58", "STC_SmallUInt", "STC_UInt", "STC_File", "STC_BinBlockStart",
                         "STC_WaitAck", "invalid"],
    "kelbase.int": ["3", "5"],
    "kelbase.file_left": ["6"],
    "kelbase.request": ["1"],
}


def skip(reason):
    print("SKIP: " + reason)
    sys.exit(SKIP)


def free_port(preferred):
    for port in (preferred, 0):
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            s.bind(("127.0.0.1", port))
            return s.getsockname()[1]
        except OSError:
            continue
        finally:
            s.close()
    raise RuntimeError("no free port")


def sentinel(port, seen, timeout, proc):
    """Opens and closes empty connections on the port until the capture reports packets of one:
    then everything sent afterwards is captured, and everything sent before has been."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline and proc.poll() is None:
        seen.clear()
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", port))
        listener.listen(1)
        client = socket.create_connection(("127.0.0.1", port), timeout=5)
        server, _ = listener.accept()
        client.close()
        server.close()
        listener.close()
        if seen.wait(1.0):
            return True
    return False


def capture(tshark, pcap, port, traffics):
    """Runs the traffic while tshark captures it; returns False when capturing is impossible."""
    err_path = pcap + ".err"
    with open(err_path, "w") as err:
        # -P prints each packet as it is captured: the sentinels watch for their own.
        proc = subprocess.Popen([tshark, "-i", "lo", "-f", "tcp port %d" % port, "-w", pcap, "-P", "-l"],
                                stdout=subprocess.PIPE, stderr=err, text=True)
    seen = threading.Event()

    def watch():
        for _ in proc.stdout:
            seen.set()

    watcher = threading.Thread(target=watch, daemon=True)
    watcher.start()
    try:
        if not sentinel(port, seen, 30, proc):
            with open(err_path) as err:
                print(err.read().strip())
            return False
        for traffic in traffics:
            subprocess.run([str(port) if arg == "{port}" else arg for arg in traffic], check=True, timeout=120)
        if not sentinel(port, seen, 30, proc):
            raise RuntimeError("the capture stopped reporting packets")
    finally:
        if proc.poll() is None:
            proc.send_signal(signal.SIGINT)
        try:
            proc.wait(timeout=20)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
        watcher.join(timeout=5)
    return True


def decode(tshark, pcap, lua, options):
    cmd = [tshark, "-r", pcap, "-X", "lua_script:" + lua] + options + [
        "-Y", "kelbase", "-T", "fields", "-E", "separator=\t", "-E", "occurrence=a",
        "-E", "aggregator=|"]
    for field in FIELDS:
        cmd += ["-e", field]
    out = subprocess.run(cmd, check=True, capture_output=True, text=True, timeout=120)
    if "Lua Error" in out.stdout or "Lua Error" in out.stderr or "Lua: Error" in out.stderr:
        raise AssertionError("the dissector failed to load or run:\n" + out.stderr + out.stdout)
    return out.stdout


def per_stream(text):
    """field -> values in frame order, per TCP stream that carried the channel (numbered 0, 1, 2
    in the order of the connections: the empty sentinel connections do not count); plus how
    many frames were reassembled."""
    streams = {}
    for line in text.splitlines():
        cols = line.split("\t")
        cols += [""] * (len(FIELDS) - len(cols))
        row = dict(zip(FIELDS, cols))
        stream = streams.setdefault(int(row["tcp.stream"]), {"reassembled": 0})
        if row["tcp.reassembled.length"]:
            stream["reassembled"] += 1
        for field in FIELDS[2:]:
            if row[field] != "":
                stream.setdefault(field, []).extend(row[field].split("|"))
    return {i: streams[k] for i, k in enumerate(sorted(streams))}


def check(streams):
    failures = []

    def expect(stream_no, expected):
        stream = streams.get(stream_no, {})
        for field, want in expected.items():
            got = stream.get(field, [])
            if want and isinstance(want[0], int):
                got = [int(v, 16) for v in got]
            if got != want:
                failures.append("stream %d %s: got %r, expected %r" % (stream_no, field, got, want))

    if sorted(streams) != [0, 1, 2]:
        failures.append("expected three TCP streams, got %r" % sorted(streams))
    expect(0, EXPECTED_MAIN)
    expect(1, EXPECTED_REFUSED)
    expect(2, EXPECTED_ODD)

    main = streams.get(0, {})
    # The empty string shows as an empty occurrence; it is counted as STC_EmptyString above.
    if [s for s in main.get("kelbase.string", []) if s] != ["hello", "ok"]:
        failures.append("strings %r" % main.get("kelbase.string"))
    # The 3000-byte block (and, from the script, "hello") was cut across segments on the wire.
    if main.get("reassembled", 0) < 1:
        failures.append("only %d segments were reassembled" % main.get("reassembled", 0))
    experts = "|".join(main.get("_ws.expert.message", []))
    if "0xE0 is read as 0" not in experts:
        failures.append("no note on the 0xE0 quirk: %r" % experts)
    if "Handshake refused" not in "|".join(streams.get(1, {}).get("_ws.expert.message", [])):
        failures.append("refused handshake not flagged")
    if "refused" not in "|".join(streams.get(1, {}).get("kelbase.verdict", [])):
        failures.append("refused verdict missing: %r" % streams.get(1, {}).get("kelbase.verdict"))
    odd = "|".join(streams.get(2, {}).get("_ws.expert.message", []))
    for text in ("Invalid command byte", "Reserved command", "not in its shortest form",
                 "File ended 6 bytes before its announced size"):
        if text not in odd:
            failures.append("stream 2 lacks the expert message %r: %r" % (text, odd))
    return failures


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--lua", required=True)
    parser.add_argument("--work", required=True)
    # Not the dissector's default port: the test shows that the preference and Decode As
    # both reach a port the dissector did not start on.
    parser.add_argument("--port", type=int, default=7011)
    parser.add_argument("--peer", help="the library's channel peer program (kel_channel_peer)")
    args = parser.parse_args()

    tshark = shutil.which("tshark")
    if not tshark:
        skip("tshark is not installed (scripts/install-deps.sh installs it)")
    if os.geteuid() != 0 and not os.access("/usr/bin/dumpcap", os.X_OK):
        skip("not root and dumpcap is not usable: cannot capture on lo")
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    pcap = os.path.join(args.work, "channel.pcapng")
    port = free_port(args.port)
    script = [sys.executable, os.path.join(HERE, "kel_channel_exchange.py"), "{port}"]
    if args.peer:
        traffics = [[args.peer, "{port}"], script + ["odd"]]
    else:
        traffics = [script + ["main,refused,odd"]]
    if not capture(tshark, pcap, port, traffics):
        skip("tshark cannot capture on lo here")
    if not os.path.exists(pcap) or os.path.getsize(pcap) == 0:
        skip("the capture on lo stayed empty")

    by_port = decode(tshark, pcap, args.lua, ["-o", "kelbase.port:%d" % port])
    failures = check(per_stream(by_port))
    decode_as = decode(tshark, pcap, args.lua, ["-d", "tcp.port==%d,kelbase" % port])
    if decode_as != by_port:
        failures.append("Decode As decodes differently from the port preference")
    if port != 7010 and decode(tshark, pcap, args.lua, []) != "":
        failures.append("the dissector took a port it was not given")
    if failures:
        print("\n".join(failures))
        print("--- tshark fields ---\n" + by_port)
        return 1
    print("dissector: %d frames decoded as expected" % len(by_port.splitlines()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
