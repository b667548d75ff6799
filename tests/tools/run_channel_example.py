#!/usr/bin/env python3
"""Runs the getting-started channel server and client and checks the client's answer.

    run_channel_example.py SERVER CLIENT

Both use port 7010 on loopback; when something else holds it, the check is skipped (exit 77).
"""
import socket
import subprocess
import sys
import time

PORT = 7010
EXPECTED = "ack 1: sum = 42\n"


def port_taken():
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        s.bind(("0.0.0.0", PORT))
        return False
    except OSError:
        return True
    finally:
        s.close()


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: run_channel_example.py SERVER CLIENT")
    if port_taken():
        print("SKIP: port %d is in use" % PORT)
        return 77
    server = subprocess.Popen([sys.argv[1]])
    try:
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            try:
                socket.create_connection(("127.0.0.1", PORT), timeout=1).close()
                break
            except OSError:
                if server.poll() is not None:
                    print("the server ended with %d before listening" % server.returncode)
                    return 1
                time.sleep(0.1)
        # Twice: the server serves one client after the other.
        for _ in range(2):
            client = subprocess.run([sys.argv[2]], capture_output=True, text=True, timeout=60)
            if client.returncode != 0 or client.stdout != EXPECTED:
                print("client exit %d, output %r, errors %r" % (client.returncode, client.stdout, client.stderr))
                return 1
    finally:
        server.terminate()
        try:
            server.wait(timeout=10)
        except subprocess.TimeoutExpired:
            server.kill()
            server.wait()
    print("channel example: " + EXPECTED.strip())
    return 0


if __name__ == "__main__":
    sys.exit(main())
