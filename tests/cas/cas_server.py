#!/usr/bin/env python3
"""A loopback HTTPS server that answers CAS ticket validation requests for the kelbase tests.

It prints "PORT <n>" once it listens, then serves one connection after another: reads the
request up to the first blank line (two line feeds), stores the exact bytes in the request
file, sends the answer chosen on the command line and closes. Each served connection is
reported as "SERVED".

Answers:
  no      the plain-text protocol's rejection: headers, a blank line, the body "no"
  yes     the plain-text protocol's acceptance: body "yes" and a user name
  split   the rejection in two TLS records: the headers with the blank line, then the body
  xml     an XML authenticationFailure document as HTTP body
  path    only the text of --path (no HTTP at all)
"""
import argparse
import socket
import ssl
import sys

HEADERS = b"HTTP/1.1 200 OK\r\nContent-Type: text/plain;charset=UTF-8\r\nConnection: close\r\n\r\n"
XML_FAILURE = (
    b"HTTP/1.1 200 OK\r\nContent-Type: application/xml\r\n\r\n"
    b"<cas:serviceResponse xmlns:cas='http://www.yale.edu/tp/cas'>\n"
    b"  <cas:authenticationFailure code='INVALID_TICKET'>Ticket not recognized</cas:authenticationFailure>\n"
    b"</cas:serviceResponse>\n"
)


def answer(tls, mode, path):
    if mode == "no":
        tls.sendall(HEADERS + b"no\n")
    elif mode == "yes":
        tls.sendall(HEADERS + b"yes\nalice\n")
    elif mode == "split":
        tls.sendall(HEADERS)
        tls.sendall(b"no\n")
    elif mode == "xml":
        tls.sendall(XML_FAILURE)
    elif mode == "path":
        tls.sendall(path.encode())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--answer", required=True, choices=["no", "yes", "split", "xml", "path"])
    parser.add_argument("--path", default="")
    parser.add_argument("--request-file", required=True)
    args = parser.parse_args()

    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", 0))
    listener.listen(8)
    print("PORT %d" % listener.getsockname()[1], flush=True)
    while True:
        connection, _ = listener.accept()
        connection.settimeout(20)
        try:
            with context.wrap_socket(connection, server_side=True) as tls:
                request = b""
                while b"\n\n" not in request and len(request) < 65536:
                    chunk = tls.recv(4096)
                    if not chunk:
                        break
                    request += chunk
                with open(args.request_file, "wb") as out:
                    out.write(request)
                answer(tls, args.answer, args.path)
        except (OSError, ssl.SSLError) as error:
            print("ERROR %s" % error, flush=True)
        finally:
            connection.close()
        print("SERVED", flush=True)


if __name__ == "__main__":
    sys.exit(main())
