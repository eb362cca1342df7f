#!/usr/bin/env python3
"""Plays bad peers: session servers that fail in one particular way each, on loopback ports of their own.

    fault_server.py [--tls-cert FILE --tls-key FILE [--client-ca FILE]] MODE...

prints "port N MODE" for each mode, then "ready". Each line "counts" on standard input is answered by one line for each
mode, in order: "counts CONNECTIONS REQUESTS BYTES" (connections accepted, whole requests read, bytes of requests read;
under TLS those are the decrypted ones). It ends when standard input does. In Python:

    with FaultServer("good") as server: ... server.port ... server.connections, server.requests, server.bytes

A mode may begin with "tls:" (TLS with the certificate given), "tls1.2:" or "tls1.1:" (no newer version than that).

    good               answers every method
    close-after        the same, but closes the kept connection after each answer
    one-answer         the same, but resets the kept connection once it is used again
    slow=S             the same, S seconds late
    flow=S             the same, but the body takes S seconds, without ever stopping
    flow-stall=S       the same, and stops there
    answer=FILE        answers with the file's bytes, read each time; @ID@ in it becomes the request's id
    status=N           HTTP status N, empty
    refuse             nothing listens
    blackhole          connections are neither accepted nor refused
    silence            accepts, and never says a byte, nor shakes hands
    no-answer          reads the request and says nothing
    reset=STAGE        resets the connection at a stage: accept, request, head, body
    close=STAGE        closes it there
    stall=STAGE        stops there, with the connection open: head, body
    drip=STAGE         from there on, one byte every 20 ms: head, body
    endless=HOW        never ends: length (and announces 2^40 bytes), close (no length), chunked, head, interim
    folded-head        in turn an answer without a type, and one whose head begins with a continuation line
    garbage, http09, big-head, compressed, transfer-gzip, redirect, wrong-type, no-type
"""

import argparse
import gzip
import json
import re
import socket
import ssl
import struct
import sys
import threading
import time
import warnings

KEY = {"label": "key-1", "time": 1700000000, "previousTime": 0}
RESULTS = {
    "cluster.get": {"count": 2, "key": KEY, "realms": [
        {"name": "east", "replicaSets": ["alpha", "beta"]}, {"name": "west", "replicaSets": []}]},
    "replicaSet.get": {"count": 1, "records": [{"name": "node1", "time": 1700000001}]},
    "key.change": {"key": {"label": "key-2", "time": 1700000002, "previousTime": 1700000000}},
    "session.list": {"total": 5, "count": 2, "sessions": [
        {"id": "s-1", "user": "mallory", "time": 1700000003}, {"id": "s-2", "user": "J\u00fcrgen", "time": -1}]},
    "session.terminate": {"count": 1},
    "session.refresh": {"count": 1},
    "trace.get": {"level": 3},
    "trace.set": {"level": 4},
}


def good_answer(request):
    """The answer's body for a request's body."""
    message = json.loads(request)
    return json.dumps({"jsonrpc": "2.0", "id": message["id"], "result": RESULTS[message["method"]]}).encode()


def head(body, *fields, status="200 OK", length=True):
    lines = ["HTTP/1.1 " + status, "Content-Type: application/json", *fields]
    if length:
        lines.append(f"Content-Length: {len(body)}")
    return ("\r\n".join(lines) + "\r\n\r\n").encode()


def reset(connection):
    """Closes with a reset instead of an orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    raw = connection.detach()
    socket.socket(fileno=raw).close()


def repeat(connection, piece):
    while True:
        connection.sendall(piece)


def drip(connection, data):
    for byte in data:
        connection.sendall(bytes([byte]))
        time.sleep(0.02)


class FaultServer:
    def __init__(self, mode, tls_cert=None, tls_key=None, client_ca=None):
        self.mode = mode
        self.connections = self.requests = self.bytes = 0
        prefix, found, rest = mode.partition(":")
        self.tls = None
        if found and prefix.startswith("tls"):
            self.tls = self._tls_context(prefix[3:], tls_cert, tls_key, client_ca)
            mode = rest
        self.behaviour, _, self.argument = mode.partition("=")
        self._listener = socket.socket()
        self._listener.bind(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._fillers = []
        if self.behaviour == "blackhole":
            self._fill_backlog()
        elif self.behaviour != "refuse":
            self._listener.listen(128)
            threading.Thread(target=self._accept, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        for one in [self._listener, *self._fillers]:
            try:
                one.shutdown(socket.SHUT_RDWR)  # wakes the thread in accept
            except OSError:
                pass
            one.close()

    @staticmethod
    def _tls_context(version, cert, key, client_ca):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        if version:
            context.set_ciphers("ALL@SECLEVEL=0")
            warnings.simplefilter("ignore", DeprecationWarning)  # old versions are the point
            context.minimum_version = ssl.TLSVersion.TLSv1
            context.maximum_version = {"1.1": ssl.TLSVersion.TLSv1_1, "1.2": ssl.TLSVersion.TLSv1_2}[version]
        context.load_cert_chain(cert, key)
        if client_ca:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(client_ca)
        return context

    def _fill_backlog(self):
        self._listener.listen(0)
        for _ in range(4):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(("127.0.0.1", self.port))
            self._fillers.append(filler)

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self.connections += 1
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        try:
            if self.behaviour == "silence":
                time.sleep(3600)
            if self._cut(connection, "accept"):
                return
            if self.tls:
                connection = self._shake_hands(connection)
            while connection and self._answer(connection):
                pass
        except OSError:
            pass
        finally:
            if connection:
                connection.close()

    def _shake_hands(self, raw):
        connection = self.tls.wrap_socket(raw, server_side=True, do_handshake_on_connect=False)
        try:
            connection.do_handshake()
        except OSError:
            # Unread bytes at a close would turn into a reset and take the alert with them.
            with socket.socket(fileno=connection.detach()) as unread:
                unread.shutdown(socket.SHUT_WR)
                unread.settimeout(5)
                while unread.recv(65536):
                    pass
            return None
        return connection

    def _read_request(self, connection):
        data = b""
        while True:
            match = re.search(rb"(?i)content-length: *(\d+).*?\r\n\r\n", data, re.DOTALL)
            if match and len(data) >= match.end() + int(match[1]):
                self.requests += 1
                return data[match.end():]
            piece = connection.recv(65536)
            if not piece:
                return None
            self.bytes += len(piece)
            data += piece

    def _cut(self, connection, stage):
        """Ends the exchange when it is to end at this stage."""
        if self.argument != stage:
            return False
        if self.behaviour == "reset":
            reset(connection)
        elif self.behaviour == "close":
            connection.close()
        elif self.behaviour == "stall":
            time.sleep(3600)
        else:
            return False
        return True

    def _answer(self, connection):
        """Serves one request; false ends the connection."""
        request = self._read_request(connection)
        if request is None or self._cut(connection, "request"):
            return False
        behaviour = getattr(self, "_do_" + self.behaviour.replace("-", "_"), self._in_stages)
        return behaviour(connection, request)

    def _in_stages(self, connection, request):
        body = good_answer(request)
        start = head(body)
        if self.behaviour == "drip" and self.argument == "head":
            drip(connection, start + body)
            return True
        connection.sendall(start[:20])
        if self._cut(connection, "head"):
            return False
        connection.sendall(start[20:])
        if self.behaviour == "drip":
            drip(connection, body)
        connection.sendall(body[:20])
        if self._cut(connection, "body"):
            return False
        connection.sendall(body[20:])
        return True

    def _do_good(self, connection, request):
        body = good_answer(request)
        connection.sendall(head(body) + body)
        return True

    def _do_close_after(self, connection, request):
        return self._do_good(connection, request) and False

    def _do_one_answer(self, connection, request):
        self._do_good(connection, request)
        if connection.recv(65536):
            reset(connection)
        return False

    def _do_slow(self, connection, request):
        time.sleep(float(self.argument))
        return self._do_good(connection, request)

    def _do_flow(self, connection, request):
        body = good_answer(request)
        connection.sendall(head(b"", length=False) + body)
        end = time.monotonic() + float(self.argument)
        while time.monotonic() < end:
            connection.sendall(b" " * 1024)
            time.sleep(0.05)
        return False

    def _do_flow_stall(self, connection, request):
        self._do_flow(connection, request)
        time.sleep(3600)

    def _do_answer(self, connection, request):
        with open(self.argument, "rb") as file:
            body = file.read().replace(b"@ID@", str(json.loads(request)["id"]).encode())
        connection.sendall(head(body) + body)
        return True

    def _do_status(self, connection, _request):
        connection.sendall(head(b"", status=self.argument + " Status"))
        return True

    def _do_no_answer(self, _connection, _request):
        time.sleep(3600)

    def _do_endless(self, connection, request):
        body = good_answer(request)[:-1]
        if self.argument == "length":
            connection.sendall(head(b"", f"Content-Length: {1 << 40}", length=False) + body)
            repeat(connection, b" " * 65536)
        elif self.argument == "close":
            connection.sendall(head(b"", length=False) + body)
            repeat(connection, b" " * 65536)
        elif self.argument == "chunked":
            connection.sendall(head(b"", "Transfer-Encoding: chunked", length=False))
            connection.sendall(f"{len(body):x}\r\n".encode() + body + b"\r\n")
            repeat(connection, b"10000\r\n" + b" " * 65536 + b"\r\n")
        elif self.argument == "head":
            connection.sendall(b"HTTP/1.1 200 OK\r\n")
            repeat(connection, b"X-More: and more\r\n")
        else:
            repeat(connection, b"HTTP/1.1 102 Processing\r\n\r\n")

    def _do_garbage(self, connection, _request):
        connection.sendall(b"\x00\x15\x03\xff" * 64)
        return False

    def _do_http09(self, connection, request):
        connection.sendall(good_answer(request))
        return False

    def _do_big_head(self, connection, request):
        body = good_answer(request)
        connection.sendall(head(body, *(f"X-{number}: {'x' * 1000}" for number in range(300))) + body)
        return True

    def _do_folded_head(self, connection, request):
        if self.requests % 2 == 1:
            return self._do_no_type(connection, request)
        body = good_answer(request)
        connection.sendall(head(body).replace(b"OK\r\n", b"OK\r\n : continued\r\n") + body)
        return True

    def _do_compressed(self, connection, request):
        body = gzip.compress(good_answer(request))
        connection.sendall(head(body, "Content-Encoding: gzip") + body)
        return True

    def _do_transfer_gzip(self, connection, request):
        body = gzip.compress(good_answer(request))
        connection.sendall(head(b"", "Transfer-Encoding: gzip, chunked", length=False))
        connection.sendall(f"{len(body):x}\r\n".encode() + body + b"\r\n0\r\n\r\n")
        return True

    def _do_redirect(self, connection, _request):
        connection.sendall(head(b"", f"Location: http://127.0.0.1:{self.port}/elsewhere", status="307 Moved"))
        return True

    def _do_wrong_type(self, connection, request):
        body = good_answer(request)
        connection.sendall(head(body).replace(b"application/json", b"text/html") + body)
        return True

    def _do_no_type(self, connection, request):
        body = good_answer(request)
        connection.sendall(head(body).replace(b"Content-Type: application/json\r\n", b"") + body)
        return True


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tls-cert")
    parser.add_argument("--tls-key")
    parser.add_argument("--client-ca")
    parser.add_argument("modes", nargs="+", metavar="MODE")
    options = parser.parse_args()
    servers = [FaultServer(mode, options.tls_cert, options.tls_key, options.client_ca) for mode in options.modes]
    for server in servers:
        print("port", server.port, server.mode)
    print("ready", flush=True)
    for line in sys.stdin:
        if line.strip() == "counts":
            for server in servers:
                print("counts", server.connections, server.requests, server.bytes, flush=True)


if __name__ == "__main__":
    main()
