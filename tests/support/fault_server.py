#!/usr/bin/env python3
"""Plays bad peers: session servers that fail in one particular way each, on loopback ports of their own.

    fault_server.py CERTIFICATE CLIENT_CA MODE...

prints their ports. Each line on standard input is answered by one with three numbers for each mode: the connections that
it accepted, the whole requests that it read, and the different changes in them. It ends when standard input does.

A mode may begin with "tls:" or "tls1.2:": TLS with the certificate and key in the file CERTIFICATE, or for who asks for
localhost in CERTIFICATE.localhost where there is one, for the clients of CLIENT_CA where that is not empty; "+HEX" before the colon puts bytes before the handshake. Of modes with commas between
them the first is that of the first connection and so on; the last is that of all further ones.

    good               answers every method
    one-answer         the same, and resets the connection once it is used again
    slow=S, flow=S, flow-drip=S  S seconds late; with a body that flows for S seconds; and drips for 20 more
    answer=FILE        answers with the file's bytes, read each time; @ID@ in it becomes the request's id. They are the
                       head too where they begin with "HTTP/"
    status=N           HTTP status N, empty, with another place to go to
    refuse, blackhole  nothing listens; connections are neither accepted nor refused
    reset=STAGE, close=STAGE, stall=STAGE  ends the connection at a stage, or stops: accept, request, head, body
    drip=STAGE         goes on with one byte every 20 ms: head, body
    endless=WHAT       never ends: head, body
"""

import contextlib
import functools
import itertools
import json
import os
import re
import socket
import ssl
import struct
import sys
import threading
import time

CLUSTER = "cluster-1"
REALMS = [{"name": "east", "replicaSets": ["alpha", "beta"]}, {"name": "west", "replicaSets": []}]
KEY = {"label": "key-2", "time": 1700000002, "previousTime": 1700000000}
RESULTS = {
    "cluster.get": {"count": 2, "key": KEY, "realms": REALMS},
    "key.change": {"key": KEY},
    **dict.fromkeys(["session.terminate", "session.refresh"], {"count": 1}),
    **dict.fromkeys(["trace.get", "trace.set"], {"level": 3}),
    "session.list": {"total": 0, "count": 0, "sessions": []},
}


def good_answer(request):
    message = json.loads(request)
    result = RESULTS.get(message["method"])
    return json.dumps({"jsonrpc": "2.0", "id": message["id"], "clusterId": CLUSTER, "result": result}).encode()


def head(body=None, lines="Content-Type: application/json", status="200 OK"):
    length = "" if body is None else f"Content-Length: {len(body)}\r\n"
    return f"HTTP/1.1 {status}\r\n{lines}\r\n{length}\r\n".encode()


def reset(connection):
    """Closes with a reset instead of an orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    socket.socket(fileno=connection.detach()).close()


class FaultServer:
    def __init__(self, mode, *files):
        self.connections = self.requests = 0
        self.changes = set()
        self._listener = socket.socket()
        self._listener.bind(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        if mode != "refuse":
            self._listener.listen(0 if mode == "blackhole" else 128)
        if mode == "blackhole":
            self._fillers = [socket.socket() for _ in range(4)]
            for filler in self._fillers:
                filler.settimeout(0)
                filler.connect_ex(self._listener.getsockname())
        elif mode == "refuse":
            self._listener.detach()  # the port stays taken
        else:
            threading.Thread(target=self._accept, args=(mode.split(","), *files), daemon=True).start()

    def _accept(self, modes, certificate="", client_ca=""):
        while True:
            connection, _ = self._listener.accept()
            peer = Peer(self, modes[min(self.connections, len(modes) - 1)], certificate, client_ca)
            self.connections += 1
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            threading.Thread(target=peer.serve, args=(connection,), daemon=True).start()


class Peer:
    def __init__(self, server, mode, certificate, client_ca):
        self.server = server
        tls, self.before, mode = re.fullmatch(r"(?:(tls[\d.]*)(?:\+(\w+))?:)?(.*)", mode).groups()
        self.behaviour, _, self.argument = mode.partition("=")
        self.tls = tls and ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        if tls:
            self.tls.maximum_version = ssl.TLSVersion.TLSv1_2 if tls == "tls1.2" else ssl.TLSVersion.TLSv1_3
            self.tls.load_cert_chain(certificate)
            self.tls.sni_callback = functools.partial(self._show_named, certificate + ".localhost")
        if tls and client_ca:
            self.tls.verify_mode = ssl.CERT_REQUIRED
            self.tls.load_verify_locations(client_ca)

    @staticmethod
    def _show_named(certificate, connection, name, _):
        if name == "localhost" and os.path.exists(certificate):
            named = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            named.load_cert_chain(certificate)
            connection.context = named

    def serve(self, connection):
        with contextlib.suppress(OSError), contextlib.ExitStack() as stack:
            stack.enter_context(connection)
            if self.argument == "accept":
                return self._end(connection)
            if self.tls:
                connection.sendall(bytes.fromhex(self.before or ""))
                connection = stack.enter_context(self._shake_hands(connection))
            while self._answer(connection):
                pass

    def _end(self, connection):
        time.sleep(3600 if self.behaviour == "stall" else 0)
        if self.behaviour == "reset":
            reset(connection)

    def _shake_hands(self, raw):
        connection = self.tls.wrap_socket(raw, server_side=True, do_handshake_on_connect=False)
        try:
            connection.do_handshake()
        except OSError:
            # Unread bytes at a close would turn into a reset and take the alert with them.
            with socket.socket(fileno=connection.detach()) as unread:
                unread.shutdown(socket.SHUT_WR)
                while unread.recv(65536):
                    pass
            raise
        return connection

    def _read_request(self, connection):
        data = b""
        while True:
            match = re.search(rb"(?i)content-length: *(\d+).*?\r\n\r\n", data, re.DOTALL)
            if match and len(data) >= match.end() + int(match[1]):
                self.server.requests += 1
                self.server.changes.update(re.findall(rb'"changeId":"[^"]+"', data))
                return data[match.end() :]
            piece = connection.recv(65536)
            if not piece:
                return None
            data += piece

    def _answer(self, connection):
        request = self._read_request(connection)
        if request is None or self.argument == "request":
            return self._end(connection)
        body = good_answer(request)
        if self.behaviour == "slow":
            time.sleep(float(self.argument))
        elif self.behaviour == "answer":
            with open(self.argument, "rb") as file:
                body = file.read().replace(b"@ID@", str(json.loads(request)["id"]).encode())
        for piece in self._pieces(body):
            connection.sendall(piece)
            time.sleep(0.02 if self.behaviour in ("drip", "flow", "flow-drip") else 0)
        if self.behaviour == "one-answer" and connection.recv(65536):
            reset(connection)
        return self.behaviour in ("good", "answer", "slow") or self._end(connection)

    def _pieces(self, body):
        good = head(body) + body
        cut = 20 if self.argument == "head" else len(good) - len(body) + 20
        match self.behaviour, self.argument:
            case "status", number:
                yield head(b"", "Location: /elsewhere", number + " Status")
            case "reset" | "close" | "stall", _:
                yield good[:cut]
            case "drip", _:
                yield good[:cut]
                yield from (bytes([byte]) for byte in good[cut:])
            case "flow" | "flow-drip", seconds:
                yield head() + body
                yield from [b" " * 1024] * int(float(seconds) / 0.02)
                yield from [b" "] * (1000 if self.behaviour == "flow-drip" else 0)
            case "endless", what:
                start, piece = (b"HTTP/1.1 200 OK\r\n", b"X: x\r\n") if what == "head" else (head() + body[:-1], b" ")
                yield from itertools.chain([start], itertools.repeat(piece * 99999))
            case _:
                yield body if body.startswith(b"HTTP/") else good


if __name__ == "__main__":
    servers = [FaultServer(mode, *sys.argv[1:3]) for mode in sys.argv[3:]]
    print(*(server.port for server in servers), flush=True)
    for _ in sys.stdin:
        print(*(count for it in servers for count in (it.connections, it.requests, len(it.changes))), flush=True)
