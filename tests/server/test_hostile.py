"""Clients that mean no good, and good ones beside them that must not notice."""

import concurrent.futures
import contextlib
import itertools
import re
import resource
import select
import socket
import struct
import time
import unittest

from dsessd import AS_ROOT, DEADLINE, ROOT, Dsessd, request_text

PATH = "/blue/services/DSessAdminProxy"
GOOD = request_text("trace.get").encode()
N = len(GOOD)
RESULT = b'"result":{"level":1}}'
JSON = "Host: x\r\nContent-Type: application/json"
CLOSE = (JSON, "Connection: close")


def request(body=GOOD, path=PATH, method="POST", headers=(JSON,), length=None):
    """length: what the header says, None for the truth."""
    lines = [f"{method} {path} HTTP/1.1", *headers, f"Content-Length: {len(body) if length is None else length}"]
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


CHUNKED = f"POST {PATH} HTTP/1.1\r\n{JSON}\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n\r\n".encode()


def chunked(*pieces, end=b"0\r\n\r\n"):
    return CHUNKED + b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces) + end


def statuses(received):
    return [int(status) for status in re.findall(rb"HTTP/1\.1 (\d+) ", received)]


CASES = {  # what is refused is refused at once: who waits for the rest of a request says 408 in the end
    (200,): [
        request(headers=(*CLOSE, "Range: bytes=0-3", "Accept-Encoding: gzip, br")),
        chunked(GOOD[:10], GOOD[10:]),
        chunked(*(b"%c" % byte for byte in GOOD)),
        request(headers=("host:", "Content-Type: Application/JSON; charset=utf-8", "Connection: close")),
    ],
    (200, 200): [request() + request(headers=CLOSE)],
    (100, 200): [request(headers=(*CLOSE, "Expect: 100-continue"))],
    (400,): [
        *(request(length=length) for length in ("-1", "1x", "", f"{N}\r\nContent-Length: {N}")),
        *(request(length=f"{before}{N}") for before in ("+", "\r\n ", f"{N}, ")),
        *(request().replace(*odd) for odd in [(b"Length:", b"Length :"), (b"\r\nCon", b"\nCon"), (b"/1.1", b"/2.0")]),
        *(
            chunked(GOOD).replace(*odd)
            for odd in [(b"\r\n{", b";x=y\r\n{"), (b": ch", b": gzip, ch"), (b"/1.1", b"/1.0")]
        ),
        *(chunked(GOOD, end=b"0\r\n" + end) for end in (b"X: y\r\n\r\n", b"Content-Length: 1\r\n\r\n", b"\n")),
        *(chunked(GOOD, end=end) for end in (b"zz\r\n", b"0\n\n")),
        *(request(headers=(JSON, odd)) for odd in ("X: a\r\n b", "Host: y", "Transfer-Encoding: chunked")),
        *(request(body, headers=CLOSE) for body in (b"", b"x" * 65536)),
        request(headers=(JSON[9:],)),
        b"GET\r\n\r\n",
        b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc" + bytes(99) + b"\n\r\n",
        request(headers=("X: " + "a" * 9000,)),
    ],
    (404,): [*(request(path=f"/{path}") for path in ("red/services/DSessAdmin", f"{PATH}/", f"..{PATH}"))],
    (405,): [request(method=method) for method in ("GET", "PUT", "OPTIONS")],
    (413,): [
        *(request(b"", length=length) for length in (65537, 10**30)),
        chunked(b"x" * 65536, b"y"),
        request(headers=[f"X-{i}: y" for i in range(30000)]),
        b"POST " + b"a" * 300000,
    ],
    (414,): [request(path="/" + "a" * 9000)],
    (415,): [
        request(headers=odd) for odd in (["Host: x"], [JSON.replace("app", "tex")], [JSON, "Content-Encoding: gzip"])
    ],
}

DAWDLERS = [b"POST " + PATH.encode(), request(GOOD[:5], length=5000), chunked(b" ", end=b"ffff\r\n")]


class Hostile(unittest.TestCase):
    def setUp(self):
        self.server = self.enterContext(Dsessd(administrators=ROOT, anonymous="read"))

    def tearDown(self):
        self.assertEqual(self.server.stop(), 0, "the server did not survive")

    def connect(self, sent=b""):
        client = self.enterContext(socket.create_connection((self.server.host, self.server.port), DEADLINE))
        client.sendall(sent)
        return client

    def converse(self, sent, half_close=False):
        """What comes back until the server closes."""
        received = b""
        with contextlib.suppress(ConnectionError), self.connect(sent) as client:
            if half_close:
                client.shutdown(socket.SHUT_WR)
            while piece := client.recv(65536):
                received += piece
        return received

    def test_requests_that_are_refused_by_their_head(self):
        for expected, cases in CASES.items():
            for sent in cases:
                received = self.converse(sent)
                self.assertEqual(tuple(statuses(received)), expected, (sent[:200], received[:200]))
                self.assertTrue(expected[-1] != 200 or received.endswith(RESULT), received)

    def test_connections_that_break_off_or_dawdle_are_ended(self):
        slow, begun = [self.connect(first) for first in DAWDLERS], time.monotonic()
        cuts = itertools.cycle(range(0, len(request()), 7))
        while slow:
            self.assertLess(time.monotonic() - begun, DEADLINE, "no byte at a time keeps a connection for ever")
            for client in select.select(slow, [], [], 0.2)[0]:
                self.assertEqual(statuses(client.recv(1000)), [408])
                slow.remove(client)
            for client in slow:
                client.sendall(b"a")
            part = request()[: next(cuts)]
            self.assertNotIn(200, statuses(self.converse(part, half_close=True)))
            with self.connect(part) as client:
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # reset
        self.assertEqual(statuses(self.converse(request(), half_close=True)), [200])

    def test_the_connections_of_one_address_cost_others_none(self):
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
        guess = request(request_text("cluster.get", "root", "guess").encode())
        for _ in range(1200):
            client = socket.create_connection((self.server.host, self.server.port), DEADLINE, ("127.0.0.2", 0))
            self.enterContext(client).sendall(guess)
        self.assertEqual([self.server.post(GOOD)[0] for _ in range(101)], [200] * 101)

    def test_searches_through_everything_keep_no_short_listing_waiting(self):
        users = ["mallory", *(f"{'a' * 1000}{number}" for number in range(6000))]
        sessions = [{"id": user, "user": user, "time": 1} for user in users]
        with Dsessd({"realms": [{"name": "east", "sessions": sessions}]}, ROOT) as server:
            query = {**AS_ROOT, "realm": "east", "selector": "user", "max": 9}
            for begin in ("", "a"):  # with a beginning it may be short, and only time tells
                search = request(request_text("session.list", **query, value=f"{begin}*{'a' * 500}b*").encode())
                clients = [self.enterContext(contextlib.closing(server.connect())) for _ in range(3)]
                for client in clients:
                    client.connect()
                    client.sock.sendall(search)
                self.assertEqual(server.call("session.list", **query, value="mallory")["result"]["total"], 1)
                found = select.select([client.sock for client in clients], [], [], 0)[0]
                self.assertEqual(found, [], "it came after a search")

    def test_bad_logins_by_the_hundred_do_not_lock_out_who_is_logged_in(self):
        def guess(number):
            return self.server.post(request_text("cluster.get", ("root", "nobody")[number % 2], "guess"))[0]

        with contextlib.closing(self.server.connect()) as connection, concurrent.futures.ThreadPoolExecutor(80) as pool:
            guesses = None
            for _ in range(1000):
                self.assertIn("result", self.server.call("cluster.get", connection=connection, **AS_ROOT))
                guesses = guesses or pool.map(guess, range(240))
            self.assertLessEqual(set(guesses), {200, 503})
        self.assertLess(self.server.log().count("identity refused"), 9, "not each of them is worth a line")
