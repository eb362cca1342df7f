"""What dsessd serve --monitor tells a monitoring system at /healthz and /metrics."""

import concurrent.futures
import contextlib
import http.client
import os
import re
import resource
import signal
import socket
import time
import unittest

from dsessd import AS_ROOT, DEADLINE, ROOT, Dsessd, request_text
from postgres import Postgres, with_postgres
from test_nodes import soon

SAMPLE = re.compile(r'(dsessd_\w+?)((?:_bucket|_sum|_count)?(?:\{(?:\w+="(?:[^"\\]|\\.)*",?)*\})?) (\S+)')


class Monitored(Dsessd):
    def __init__(self, **options):
        super().__init__(administrators=ROOT, monitor="127.0.0.1:0", **options)

    def place(self):
        said = r"monitored at http://(\S+):(\d+)/healthz"
        soon(lambda: (self.directory / "log").exists() and re.search(said, self.log()), DEADLINE)
        host, port = re.findall(said, self.log())[-1]
        return host, int(port)

    def ask(self, path="/healthz", method="GET"):
        """(status, text), which come at once whatever the server does."""
        with contextlib.closing(http.client.HTTPConnection(*self.place(), timeout=2)) as connection:
            connection.request(method, path)
            answer = connection.getresponse()
            return answer.status, answer.read().decode()

    def health(self):
        status, text = self.ask()
        return status, text.split(":")[0].strip()

    def metrics(self):
        """The values by name and labels. Whatever is not in the form that Prometheus reads is an error."""
        types, values = {}, {}
        for line in self.ask("/metrics")[1].splitlines():
            if line.startswith("# "):
                _, what, name, text = line.split(" ", 3)
                types.setdefault(name, []).append(what)
                assert what == "HELP" or text in ("counter", "gauge", "histogram"), line
            else:
                name, rest, value = SAMPLE.fullmatch(line).groups()
                name = name if name in types else name + rest
                assert types[name] == ["HELP", "TYPE"] and name + rest not in values, line
                values[name + rest] = float(value)
        return values


class Monitoring(unittest.TestCase):
    def test_counts_what_is_answered_and_names_nobody(self):
        with Monitored(member="east-web/a") as server:
            before = server.metrics()
            for password in ("SECRET", "hunter2"):
                server.call("cluster.get", user="root", password=password)
            for _ in range(2):
                server.call("key.change", changeId="5c7a5b1e-4c0e-4b44-9a3b-0d1c6d0a8e11", **AS_ROOT)
            for text, path in [(request_text("mallory"), "/blue/services/DSessAdmin"), ("x", "/mallory")]:
                server.post(text, path)
            after = server.metrics()
            moved = {name: after[name] - before.get(name, 0) for name in after if "_total" in name or "_count" in name}
            requests = {
                ("cluster.get", "done"): 1,
                ("cluster.get", "identity-refused"): 1,
                ("key.change", "done"): 1,
                ("key.change", "done before"): 1,
                ("unknown", "invalid-request"): 1,
            }
            expected = {
                "dsessd_connections_total": 6,
                'dsessd_http_refusals_total{status="404"}': 1,
                'dsessd_logins_total{outcome="refused"}': 1,
                'dsessd_logins_total{outcome="verified"}': 2,
                **{f'dsessd_requests_total{{method="{m}",outcome="{o}"}}': n for (m, o), n in requests.items()},
            }
            for (method, _), count in requests.items():
                name = f'dsessd_request_duration_seconds_count{{method="{method}"}}'
                expected[name] = expected.get(name, 0) + count
            self.assertEqual({name: count for name, count in moved.items() if count}, expected)
            contact = 'dsessd_member_last_contact_age_seconds{member="a",replica_set="east-web"}'
            self.assertLess(abs(after[contact]), 10)
            self.assertNotRegex(server.ask("/metrics")[1], "root|mallory|hunter2|SECRET")

    def test_tells_how_it_is_while_its_file_fails_and_while_it_stops(self):
        with Monitored(anonymous="read") as server:
            self.assertEqual(server.health(), (200, "ok"))
            for name, away, back in [
                (
                    "store",
                    lambda: os.rename(server.data, server.data + "-away"),
                    lambda: os.rename(server.data + "-away", server.data),
                ),
                ("read-only", lambda: self.limit_files(server, 1), lambda: self.limit_files(server, -1)),
            ]:
                away()
                self.assertTrue(soon(lambda: server.health() == (503, name), 8), name)
                self.assertEqual(server.metrics()[f'dsessd_health{{state="{name}"}}'], 1)
                self.assertFalse(soon(lambda: server.health() != (503, name), 5.5), "it stays so")
                self.assertEqual("result" in server.call("cluster.get"), name == "read-only")
                back()
                self.assertTrue(soon(lambda: server.health() == (200, "ok"), 8), name)
            with socket.create_connection((server.host, server.port)) as slow:
                slow.send(b"POST")
                self.assertTrue(soon(lambda: server.metrics()["dsessd_connections"] == 1, 2))
                server.process.terminate()
                self.assertTrue(soon(lambda: server.health() == (503, "stopping"), 2))
                self.assertIsNone(server.process.poll(), "a request is in progress")
            self.assertEqual(server.process.wait(DEADLINE), 0)

    def limit_files(self, server, size):
        """As a disk does that takes no more."""
        resource.prlimit(server.process.pid, resource.RLIMIT_FSIZE, (size, -1))

    @with_postgres
    def test_answers_at_once_while_the_database_does_not(self):
        pool = concurrent.futures.ThreadPoolExecutor(40)
        self.addCleanup(pool.shutdown)
        with Postgres() as postgres:
            server = Monitored(anonymous="read", postgres=postgres.directory)
            postgres.stop()
            start = pool.submit(server.start)
            self.addCleanup(lambda: server.__exit__())
            self.assertEqual(server.health(), (503, "store"))
            postgres.start()
            start.result()
            self.assertEqual(server.health(), (200, "ok"))
            postgres.freeze()
            requests = [pool.submit(server.post, request_text("trace.get")) for _ in range(40)]
            self.assertTrue(soon(lambda: server.metrics()['dsessd_queue_length{lane="quick"}'] > 20, 2))
            self.assertTrue(soon(lambda: server.health() == (503, "store"), 9))
            self.assertEqual({request.result()[0] for request in requests}, {503})
            postgres.freeze(signal.SIGCONT)
            self.assertTrue(soon(lambda: server.health() == (200, "ok"), 9))
            values = server.metrics()
            self.assertEqual(values['dsessd_requests_total{method="trace.get",outcome="store out of reach"}'], 40)
            self.assertGreaterEqual(values["dsessd_store_reconnects_total"], 1)
            self.assertGreaterEqual(values['dsessd_store_errors_total{reason="unavailable"}'], 40)

    def test_is_held_up_by_nobody(self):
        with Monitored() as server, contextlib.ExitStack() as stack:
            at, own = ((server.host, server.port), server.place())
            limit = resource.getrlimit(resource.RLIMIT_NOFILE)
            resource.setrlimit(resource.RLIMIT_NOFILE, (limit[1], limit[1]))
            for _ in range(1100):
                stack.enter_context(socket.create_connection(at))
            silent = [stack.enter_context(socket.create_connection(own)) for _ in range(50)]
            silent[-1].send(b"GET /metrics HTTP/1.1\r\n")
            self.assertTrue(soon(lambda: server.metrics()["dsessd_connections"] >= 1000, 9))
            begun = time.monotonic()
            for method, path, expected in [
                ("HEAD", "/metrics?x=1", (200, "")),
                ("GET", "/metrics/", (404, "There are only /healthz and /metrics here.\n")),
                ("POST", "/healthz", (405, "Only GET and HEAD are answered here.\n")),
                ("GET", "/" + "x" * 9000, (431, "The head of the request is too long.\n")),
                ("G(T", "/healthz", (400, "This is no request of HTTP.\n")),
            ]:
                self.assertEqual(server.ask(path, method), expected)
            with socket.create_connection(own) as head:
                head.send(b"HEAD /metrics HTTP/1.1\r\n\r\n")
                self.assertTrue(head.makefile("rb").read().endswith(b"\r\n\r\n"), "no text behind it")
            self.assertLess(time.monotonic() - begun, 1)
            silent[-1].settimeout(9)
            self.assertEqual(silent[-1].recv(1), b"", "it had its time")
            del server.options["monitor"]
            server.stop()
            server.start()
            self.assertEqual(server.log().count("monitored at"), 1, "nowhere unless asked")
            with self.assertRaises(ConnectionRefusedError):
                socket.create_connection(own)
