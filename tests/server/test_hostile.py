"""Clients that mean no good, and good ones beside them that must not notice."""

import contextlib
import json
import os
import re
import socket
import struct
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from dsessd import Dsessd  # noqa: E402

PATH = "/blue/services/DSessAdminProxy"
GOOD = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "trace.get", "params": {"security": {"user": "anonymous"}}}).encode()
RESULT = b'{"jsonrpc":"2.0","id":1,"result":{"level":1}}'


def request(body=GOOD, path=PATH, method="POST", headers=("Content-Type: application/json",), length=None, version="1.1"):
    lines = [f"{method} {path} HTTP/{version}", "Host: x", *headers]
    if length is not False:
        lines.append(f"Content-Length: {len(body) if length is None else length}")
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


def chunked(*pieces, end=b"0\r\n\r\n"):
    head = request(b"", headers=("Content-Type: application/json", "Transfer-Encoding: chunked"), length=False)
    return head + b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces) + end


def converse(server, sent, half_close=False, timeout=20):
    """What comes back until the server closes or says nothing for long."""
    with socket.create_connection((server.host, server.port), timeout=timeout) as client:
        received = b""
        try:
            client.sendall(sent)
            if half_close:
                client.shutdown(socket.SHUT_WR)
            while piece := client.recv(65536):
                received += piece
        except ConnectionError:
            pass
        return received


def statuses(received):
    return [int(status) for status in re.findall(rb"HTTP/1\.1 (\d+) ", received)]


class Hostile(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Dsessd(administrators=[("root", "SECRET", "change")], anonymous="read").start()

    @classmethod
    def tearDownClass(cls):
        assert cls.server.stop() == 0, "the server did not survive"
        cls.server.__exit__()

    def test_requests_that_are_refused_by_their_head(self):
        close = ("Content-Type: application/json", "Connection: close")
        json_type = "Content-Type: application/json"
        for sent, expected in [
            (request(headers=close), [200]),
            (request() + request(headers=close), [200, 200]),
            (chunked(GOOD[:10], GOOD[10:]), [200]),
            (request(headers=("Content-Type: Application/JSON; charset=utf-8", "Connection: close")), [200]),
            (request(headers=(*close, "Expect: 100-continue")), [100, 200]),
            (request(headers=(*close, "Range: bytes=0-3", "Accept-Encoding: gzip, br")), [200]),
            (request(path="/red/services/DSessAdmin"), [404]),
            (request(path="/blue/services/DSessAdmin/"), [404]),
            (request(path="/blue/../blue/services/DSessAdmin"), [404]),
            (request(path="/" + "a" * 9000), [414]),
            (request(method="GET"), [405]),
            (request(method="PUT"), [405]),
            (request(method="OPTIONS"), [405]),
            (request(headers=()), [415]),
            (request(headers=("Content-Type: text/json",)), [415]),
            (request(headers=("Content-Type: multipart/form-data; boundary=x",)), [415]),
            (request(headers=(json_type, "Content-Encoding: gzip")), [415]),
            (request(b"", length=65537), [413]),
            (request(b"", length=10**30), [413]),
            (request(b"", length=65537, headers=(json_type, "Expect: 100-continue")), [413]),
            (chunked(b"x" * 65536, b"y"), [413]),
            (chunked(*[b"z" * 10] * 9000), [413]),
            (request(b"x" * 65536, headers=close), [400]),
            (request(length="-1"), [400]),
            (request(length="1x"), [400]),
            (request(length="1\r\nContent-Length: 2"), [400]),
            (request(headers=(json_type, "Transfer-Encoding: chunked")), [400]),
            (request(headers=(json_type, "Transfer-Encoding: gzip, chunked"), length=False), [400]),
            (chunked(GOOD, end=b"zz\r\n"), [400]),
            (request(b"", headers=close), [400]),
            (request(b"", headers=close, length=False), [400]),
            (request(version="2.0"), [400]),
            (b"\r\n\r\n", [400]),
            (b"GET\r\n\r\n", [400]),
            (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(500) + b"\n\r\n", [400]),
            (request(headers=("X: " + "a" * 9000,)), [400]),
            (request(headers=[f"X-{i}: y" for i in range(30000)]), [413]),
            (b"POST " + b"a" * 300000, [413]),
            (b"POST / HTTP/1.1\r\nRange: bytes=" + b"0-0," * 2000 + b"0-0\r\n\r\n", [404]),
        ]:
            with self.subTest(sent=sent[:90], length=len(sent)):
                started = time.monotonic()
                received = converse(self.server, sent)
                self.assertEqual(statuses(received), expected, received[:200])
                self.assertLess(time.monotonic() - started, 5, "refused without waiting for more")
                if expected[-1] == 200:
                    self.assertTrue(received.endswith(RESULT), received)

    def test_connections_that_break_off(self):
        whole = request()
        for cut in range(0, len(whole), 7):
            self.assertNotIn(200, statuses(converse(self.server, whole[:cut], half_close=True)))
            with socket.create_connection((self.server.host, self.server.port)) as client:
                client.sendall(whole[:cut])
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # reset
        self.assertEqual(statuses(converse(self.server, whole, half_close=True)), [200])
        self.assertEqual(self.server.post(GOOD), (200, RESULT))

    def test_slow_clients_are_cut_off_within_bounds_and_hold_up_nobody(self):
        slow, ended = [], {}
        for name, first in [("head", b"POST " + PATH.encode()), ("body", request(GOOD[:5], length=5000)),
                            ("chunk", chunked(b" ", end=b"ffff\r\n"))]:
            for _ in range(90):  # more in all than the server has room for
                client = socket.create_connection((self.server.host, self.server.port))
                client.sendall(first)
                slow.append((name, client))
        begin = time.monotonic()

        def drip(name, client):
            try:
                client.settimeout(0.5)
                while time.monotonic() - begin < 25:
                    client.sendall(b"a")
                    try:
                        ended.setdefault(name, []).append(statuses(client.recv(1000)))
                        return
                    except socket.timeout:
                        pass
            except ConnectionError:
                ended.setdefault(name, []).append([])
        threads = [threading.Thread(target=drip, args=pair) for pair in slow]
        for thread in threads:
            thread.start()
        slowest = 0
        while time.monotonic() - begin < 5:
            started = time.monotonic()
            self.assertEqual(self.server.post(GOOD), (200, RESULT))
            slowest = max(slowest, time.monotonic() - started)
        for thread in threads:
            thread.join()
        self.assertLess(slowest, 3, "good requests went on")
        self.assertLess(time.monotonic() - begin, 20, "no byte at a time keeps a connection for ever")
        for name in ("head", "body", "chunk"):
            self.assertEqual(len(ended[name]), 90)
            self.assertIn([408], ended[name])
        for _, client in slow:
            client.close()

    def test_idle_connections_make_room(self):
        idle = [socket.create_connection((self.server.host, self.server.port)) for _ in range(450)]
        for _ in range(20):
            self.assertEqual(self.server.post(GOOD), (200, RESULT))
        for client in idle:
            client.close()

    def test_who_takes_no_answer_makes_room_too(self):
        cluster = {"realms": [{"name": "east", "sessions": [
            {"id": f"{i:032x}", "user": "mallory", "time": i} for i in range(30000)]}]}
        listing = request(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "session.list", "params": {
            "security": {"user": "anonymous"}, "realm": "east", "selector": "user", "value": "*", "max": -1}}).encode())
        with Dsessd(cluster=cluster, anonymous="read") as server, contextlib.ExitStack() as lazy:
            for _ in range(220):
                client = lazy.enter_context(socket.socket())
                client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
                client.connect((server.host, server.port))
                client.sendall(listing)
            for _ in range(5):
                started = time.monotonic()
                self.assertEqual(server.post(GOOD)[0], 200)
                self.assertLess(time.monotonic() - started, 15)

    def test_bad_logins_by_the_hundred_do_not_lock_out_who_is_logged_in(self):
        stop, outcomes = threading.Event(), set()

        def guess(number):
            while not stop.is_set():
                body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "cluster.get", "params": {
                    "security": {"user": "root" if number % 2 else "nobody", "password": "guess", "loginId": "x"}}})
                outcomes.add(self.server.post(body)[0])
        connection = self.server.connect()

        def work():
            return self.server.call("cluster.get", "root", "SECRET", "good", connection=connection)
        self.assertIn("result", work())
        threads = [threading.Thread(target=guess, args=(n,)) for n in range(80)]
        for thread in threads:
            thread.start()
        started = time.monotonic()
        for _ in range(100):
            self.assertIn("result", work())
        elapsed = time.monotonic() - started
        stop.set()
        for thread in threads:
            thread.join()
        self.assertLess(elapsed, 10)
        self.assertLessEqual(outcomes, {200, 503})
        self.assertIn("result", self.server.call("cluster.get", "root", "SECRET", "new"))

    def test_one_connection_carries_thousands_of_requests(self):
        connection = self.server.connect()
        started = time.monotonic()
        for _ in range(3000):
            self.assertIn("result", self.server.call("trace.get", "root", "SECRET", "file", connection=connection))
        self.assertLess(time.monotonic() - started, 20, "a hash for each would take longer")


if __name__ == "__main__":
    unittest.main()
