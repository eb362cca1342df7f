"""Clients that mean no good, and good ones beside them that must not notice."""

import contextlib
import re
import socket
import struct
import threading
import time
import unittest

from dsessd import AS_ROOT, ROOT, Dsessd, request_text

PATH = "/blue/services/DSessAdminProxy"
GOOD = request_text("trace.get").encode()
RESULT = b'{"jsonrpc":"2.0","id":1,"result":{"level":1}}'
JSON = "Content-Type: application/json"
CLOSE = (JSON, "Connection: close")


def request(body=GOOD, path=PATH, method="POST", headers=(JSON,), length=None, version="1.1"):
    """length: what the header says, None for the truth, False for no header."""
    lines = [f"{method} {path} HTTP/{version}", "Host: x", *headers]
    if length is not False:
        lines.append(f"Content-Length: {len(body) if length is None else length}")
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


def chunked(*pieces, end=b"0\r\n\r\n"):
    head = request(b"", headers=(JSON, "Transfer-Encoding: chunked"), length=False)
    return head + b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces) + end


def statuses(received):
    return [int(status) for status in re.findall(rb"HTTP/1\.1 (\d+) ", received)]


class Hostile(unittest.TestCase):
    def setUp(self):
        self.server = self.enterContext(Dsessd(administrators=ROOT, anonymous="read"))
        self.clients = self.enterContext(contextlib.ExitStack())

    def tearDown(self):
        self.clients.close()
        self.assertEqual(self.server.stop(), 0, "the server did not survive")

    def connect(self, sent=b"", **options):
        client = self.clients.enter_context(socket.create_connection((self.server.host, self.server.port), **options))
        client.sendall(sent)
        return client

    def converse(self, sent, half_close=False):
        """What comes back until the server closes or says nothing for long."""
        received = b""
        with contextlib.suppress(ConnectionError), self.connect(timeout=20) as client:
            client.sendall(sent)
            if half_close:
                client.shutdown(socket.SHUT_WR)
            while piece := client.recv(65536):
                received += piece
        return received

    def serves_within(self, seconds, times=1):
        """The longest that a good client waits."""
        slowest = 0
        for _ in range(times):
            started = time.monotonic()
            self.assertEqual(self.server.post(GOOD), (200, RESULT))
            slowest = max(slowest, time.monotonic() - started)
        self.assertLess(slowest, seconds)

    def test_requests_that_are_refused_by_their_head(self):
        for expected, cases in {
            (200,): [
                request(headers=CLOSE),
                chunked(GOOD[:10], GOOD[10:]),
                request(headers=("Content-Type: Application/JSON; charset=utf-8", "Connection: close")),
                request(headers=(*CLOSE, "Range: bytes=0-3", "Accept-Encoding: gzip, br")),
            ],
            (200, 200): [request() + request(headers=CLOSE)],
            (100, 200): [request(headers=(*CLOSE, "Expect: 100-continue"))],
            (400,): [
                request(b"x" * 65536, headers=CLOSE),
                request(length="-1"),
                request(length="1x"),
                request(length="1\r\nContent-Length: 2"),
                request(headers=(JSON, "Transfer-Encoding: chunked")),
                request(b"", headers=CLOSE),
                request(b"", headers=CLOSE, length=False),
                request(version="2.0"),
                request(headers=(JSON, "Transfer-Encoding: gzip, chunked"), length=False),
                chunked(GOOD, end=b"zz\r\n"),
                b"\r\n\r\n",
                b"GET\r\n\r\n",
                b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc" + bytes(99) + b"\n\r\n",
                request(headers=("X: " + "a" * 9000,)),
            ],
            (404,): [
                request(path="/red/services/DSessAdmin"),
                request(path="/blue/services/DSessAdmin/"),
                request(path="/blue/../blue/services/DSessAdmin"),
                b"POST / HTTP/1.1\r\nRange: bytes=" + b"0-0," * 2000 + b"0-0\r\n\r\n",
            ],
            (405,): [request(method=method) for method in ("GET", "PUT", "OPTIONS")],
            (413,): [
                request(b"", length=65537),
                request(b"", length=10**30),
                chunked(b"x" * 65536, b"y"),
                request(b"", length=65537, headers=(JSON, "Expect: 100-continue")),
                chunked(*[b"z" * 10] * 9000),
                request(headers=[f"X-{i}: y" for i in range(30000)]),
                b"POST " + b"a" * 300000,
            ],
            (414,): [request(path="/" + "a" * 9000)],
            (415,): [
                request(headers=()),
                request(headers=("Content-Type: text/json",)),
                request(headers=("Content-Type: multipart/form-data; boundary=x",)),
                request(headers=(JSON, "Content-Encoding: gzip")),
            ],
        }.items():
            for sent in cases:
                started = time.monotonic()
                received = self.converse(sent)
                self.assertEqual(tuple(statuses(received)), expected, (sent[:200], received[:200]))
                self.assertLess(time.monotonic() - started, 5, "refused without waiting for more")
                self.assertTrue(expected[-1] != 200 or received.endswith(RESULT), received)

    def test_connections_that_break_off(self):
        whole = request()
        for cut in range(0, len(whole), 7):
            self.assertNotIn(200, statuses(self.converse(whole[:cut], half_close=True)))
            with self.connect(whole[:cut]) as client:
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # reset
        self.assertEqual(statuses(self.converse(whole, half_close=True)), [200])
        self.serves_within(5)

    def test_slow_clients_are_cut_off_within_bounds_and_hold_up_nobody(self):
        for _ in range(450):  # more, like those to come, than the server has room for
            self.connect()
        begin, answers = time.monotonic(), []
        slow = [
            (kind, self.connect(first))
            for _ in range(90)
            for kind, first in enumerate(
                [b"POST " + PATH.encode(), request(GOOD[:5], length=5000), chunked(b" ", end=b"ffff\r\n")]
            )
        ]

        def drip(kind, client):
            answer = b""
            client.settimeout(0.5)
            with contextlib.suppress(ConnectionError):
                while not answer and time.monotonic() - begin < 25:
                    client.sendall(b"a")
                    with contextlib.suppress(socket.timeout):
                        answer = client.recv(1000) or b"end"
            answers.append((kind, statuses(answer)))

        threads = [threading.Thread(target=drip, args=pair) for pair in slow]
        for thread in threads:
            thread.start()
        while time.monotonic() - begin < 5:
            self.serves_within(3)
        for thread in threads:
            thread.join()
        self.assertLess(time.monotonic() - begin, 20, "no byte at a time keeps a connection for ever")
        for kind in range(3):
            self.assertIn((kind, [408]), answers)

    def test_who_takes_no_answer_makes_room_too(self):
        cluster = {
            "realms": [
                {"name": "east", "sessions": [{"id": f"{i:032x}", "user": "mallory", "time": i} for i in range(30000)]}
            ]
        }
        listing = request(request_text("session.list", realm="east", selector="user", value="*", max=-1).encode())
        self.server.stop()
        self.server = self.enterContext(Dsessd(cluster, anonymous="read"))
        for _ in range(220):
            client = self.clients.enter_context(socket.socket())
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            client.connect((self.server.host, self.server.port))
            client.sendall(listing)
        self.serves_within(15, times=5)

    def test_bad_logins_by_the_hundred_do_not_lock_out_who_is_logged_in(self):
        stop, outcomes = threading.Event(), set()

        def guess(number):
            while not stop.is_set():
                outcomes.add(self.server.post(request_text("cluster.get", ("root", "nobody")[number % 2], "guess"))[0])

        connection = self.clients.enter_context(contextlib.closing(self.server.connect()))

        def work(times):
            for _ in range(times):
                self.assertIn("result", self.server.call("cluster.get", connection=connection, **AS_ROOT))

        work(1)
        threads = [threading.Thread(target=guess, args=(n,)) for n in range(80)]
        for thread in threads:
            thread.start()
        started = time.monotonic()
        work(100)
        elapsed = time.monotonic() - started
        stop.set()
        for thread in threads:
            thread.join()
        self.assertLess(elapsed, 10)
        self.assertLessEqual(outcomes, {200, 503})
        started = time.monotonic()
        work(3000)
        self.assertLess(time.monotonic() - started, 20, "a hash for each would take longer")
