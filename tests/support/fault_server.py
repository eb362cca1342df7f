#!/usr/bin/env python3
"""Plays bad peers: session servers that fail in one particular way each, on loopback ports of their own.

    fault_server.py [--tls-cert FILE [--client-ca FILE]] MODE...

prints "port N" for each mode. Each line on standard input is answered by one line for each mode, in order: how many
connections it accepted and how many whole requests it read. It ends when standard input does. In Python,
"with FaultServer(MODE) as server" has server.port, connections and requests.

A mode may begin with "tls:" (TLS with the certificate and key in FILE), "tls1.2:" or "tls1.1:" (no newer version than
that); before the colon "@FILE" names another certificate, and "+HEX" bytes that go out before the handshake. Of modes
with commas between them the first is that of the first connection and so on; the last is that of all further ones.

    good               answers every method
    close-after, one-answer  closes the kept connection after each answer; resets it once it is used again
    slow=S, flow=S, flow-stall=S  S seconds late; with a body that flows for S seconds; and stops there
    answer=FILE        answers with the file's bytes, read each time; @ID@ in it becomes the request's id
    status=N           HTTP status N, empty, with another place to go to
    refuse, blackhole  nothing listens; connections are neither accepted nor refused
    reset=STAGE, close=STAGE, stall=STAGE  ends the connection at a stage, or stops: accept, request, head, body
    drip=STAGE         goes on with one byte every 20 ms: head, body
    endless=HOW        never ends: length (and announces 2^40 bytes), close (no length), head, interim
    folded-head        in turn an answer without a type, and one whose head begins with a continuation line
    http09, long-line, compressed, transfer-gzip, wrong-type, no-type
"""

import argparse
import contextlib
import gzip
import json
import re
import socket
import ssl
import struct
import sys
import threading
import time

REALMS = [{"name": "east", "replicaSets": ["alpha", "beta"]}, {"name": "west", "replicaSets": []}]
KEY = {"label": "key-2", "time": 1700000002, "previousTime": 1700000000}
RESULTS = {
    "cluster.get": {"count": 2, "key": KEY, "realms": REALMS},
    "key.change": {"key": KEY},
    **dict.fromkeys(["session.terminate", "session.refresh"], {"count": 1}),
    **dict.fromkeys(["trace.get", "trace.set"], {"level": 3}),
}


def good_answer(request):
    message = json.loads(request)
    return json.dumps({"jsonrpc": "2.0", "id": message["id"], "result": RESULTS.get(message["method"])}).encode()


def head(body=None, *fields, status="200 OK"):
    length = [] if body is None else [f"Content-Length: {len(body)}"]
    return "\r\n".join(["HTTP/1.1 " + status, "Content-Type: application/json", *fields, *length, "", ""]).encode()


def reset(connection):
    """Closes with a reset instead of an orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    socket.socket(fileno=connection.detach()).close()


class FaultServer(contextlib.AbstractContextManager):
    def __init__(self, mode, tls_cert=None, client_ca=None):
        self.mode = mode
        self.connections = self.requests = 0
        self._modes = [self._parse(one, tls_cert, client_ca) for one in mode.split(",")]
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
        elif mode != "refuse":
            threading.Thread(target=self._accept, daemon=True).start()

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)  # wakes the thread in accept
        self._listener.close()

    @staticmethod
    def _parse(mode, cert, client_ca):
        """The handshake's context or null, what to put before the handshake, the behaviour and its argument."""
        tls, own_cert, before, mode = re.fullmatch(r"(?:(tls[\d.]*)(?:@([^+:]+))?(?:\+(\w+))?:)?(.*)", mode).groups()
        context = tls and ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        if context:
            context.set_ciphers("ALL@SECLEVEL=0")
            context.minimum_version = ssl.TLSVersion.TLSv1
            context.maximum_version = getattr(ssl.TLSVersion, "TLSv" + (tls[3:] or "1.3").replace(".", "_"))
            context.load_cert_chain(own_cert or cert)
        if context and client_ca:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(client_ca)
        return context, bytes.fromhex(before or ""), *mode.partition("=")[::2]

    def _accept(self):
        with contextlib.suppress(OSError):  # of a listener that was closed
            while True:
                connection, _ = self._listener.accept()
                mode = self._modes[min(self.connections, len(self._modes) - 1)]
                self.connections += 1
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                threading.Thread(target=Peer(self, mode).serve, args=(connection,), daemon=True).start()


class Peer:
    def __init__(self, server, mode):
        self.server, (self.tls, self.before, self.behaviour, self.argument) = server, mode

    def serve(self, connection):
        with contextlib.suppress(OSError), contextlib.ExitStack() as stack:
            stack.enter_context(connection)
            if self.argument == "accept":
                return self._end(connection)
            if self.tls:
                connection.sendall(self.before)
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
                unread.settimeout(5)
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
                return data[match.end() :]
            piece = connection.recv(65536)
            if not piece:
                return None
            data += piece

    def _answer(self, connection):
        request = self._read_request(connection)
        if request is None or self.argument == "request":
            return self._end(connection)
        if self.behaviour == "slow":
            time.sleep(float(self.argument))
        ways = {"endless": self._endless, "flow": self._flow, "flow-stall": self._flow}
        ways |= dict.fromkeys(["reset", "close", "stall", "drip"], self._in_stages)
        return ways.get(self.behaviour, self._at_once)(connection, request)

    def _at_once(self, connection, request):
        body = good_answer(request)
        if self.behaviour == "answer":
            with open(self.argument, "rb") as file:
                body = file.read().replace(b"@ID@", str(json.loads(request)["id"]).encode())
        zipped = gzip.compress(body, 1)
        good = head(body) + body
        no_type = good.replace(b"Content-Type: application/json\r\n", b"")
        answers = {
            "status": head(b"", "Location: /elsewhere", status=self.argument + " Status"),
            "http09": body,
            "long-line": head(body, "X: " + "x" * 200000) + body,
            "folded-head": no_type if self.server.requests % 2 else good.replace(b"OK\r\n", b"OK\r\n : continued\r\n"),
            "compressed": head(zipped, "Content-Encoding: gzip") + zipped,
            "transfer-gzip": head(zipped, "Transfer-Encoding: gzip") + zipped,
            "wrong-type": good.replace(b"application/json", b"text/html"),
            "no-type": no_type,
        }
        connection.sendall(answers.get(self.behaviour, good))
        if self.behaviour == "one-answer" and connection.recv(65536):
            reset(connection)
        return self.behaviour not in ("close-after", "one-answer", "http09")

    def _in_stages(self, connection, request):
        body = good_answer(request)
        answer = head(body) + body
        cut = 20 if self.argument == "head" else len(answer) - len(body) + 20
        connection.sendall(answer[:cut])
        for byte in answer[cut:] if self.behaviour == "drip" else ():
            connection.sendall(bytes([byte]))
            time.sleep(0.02)
        return self._end(connection)

    def _flow(self, connection, request):
        connection.sendall(head() + good_answer(request))
        end = time.monotonic() + float(self.argument)
        while time.monotonic() < end:
            connection.sendall(b" " * 1024)
            time.sleep(0.05)
        time.sleep(3600 if self.behaviour == "flow-stall" else 0)

    def _endless(self, connection, request):
        body, blanks = good_answer(request)[:-1], b" " * 65536
        start, piece = {
            "length": (head(None, f"Content-Length: {1 << 40}") + body, blanks),
            "close": (head() + body, blanks),
            "head": (b"HTTP/1.1 200 OK\r\n", b"X-More: and more\r\n"),
            "interim": (b"", b"HTTP/1.1 102 Processing\r\n\r\n"),
        }[self.argument]
        while True:
            connection.sendall(start)
            start = piece


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tls-cert")
    parser.add_argument("--client-ca")
    parser.add_argument("modes", nargs="+")
    options = parser.parse_args()
    servers = [FaultServer(mode, options.tls_cert, options.client_ca) for mode in options.modes]
    for server in servers:
        print("port", server.port, flush=True)
    for _ in sys.stdin:
        for server in servers:
            print(server.connections, server.requests, flush=True)


if __name__ == "__main__":
    main()
