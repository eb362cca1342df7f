"""Several nodes of one cluster: what one does shows at the others, and what they do when the database goes."""

import concurrent.futures
import contextlib
import os
import signal
import socket
import subprocess
import time
import unittest

from dsessd import AS_ROOT, BINARY, DEADLINE, JSON, ROOT, Dsessd, request_text
from postgres import Postgres, with_postgres


def soon(holds, seconds):
    deadline = time.monotonic() + seconds
    while not holds() and time.monotonic() < deadline:
        time.sleep(0.1)
    return holds()


class Nodes(unittest.TestCase):
    def nodes(self, **options):
        """Two of one cluster, members a and b of a replica set."""
        first = Dsessd(administrators=ROOT, member="east-web/a", anonymous="read", **options)
        second = Dsessd(member="east-web/b", anonymous="read", **options)
        second.options["data"] = second.data = first.data
        for node in (first, second):
            self.enterContext(node)
        return first, second

    def contacts(self, node):
        records = node.call("replicaSet.get", replicaSet="east-web")["result"]["records"]
        return {record["name"]: record["time"] for record in records}

    def share_one_cluster(self, one, other):
        self.assertEqual(one.call("trace.set", **AS_ROOT, level=3)["result"], {"level": 3})
        self.assertIn("result", other.call("cluster.get", **AS_ROOT))
        self.assertTrue(soon(lambda: other.call("trace.get") and "request trace.get" in other.log(), 2.5))
        one.run("admin", "add", "root", "--data", one.data, input="ANOTHER\n")
        for node in (one, other):
            self.assertEqual(node.call("cluster.get", **AS_ROOT)["error"]["data"]["name"], "identity-refused")

        began, killed = self.contacts(one)["a"], self.contacts(one)["b"]
        other.stop(signal.SIGKILL)
        self.assertTrue(soon(lambda: self.contacts(one)["a"] > began, 10))
        self.assertLessEqual(self.contacts(one)["b"], killed + 5, "who is gone leaves no trace")
        done = one.run("serve", *"--listen [::1]:0 --instance b --member no/x --data".split(), one.data, check=False)
        self.assertEqual((done.returncode, "no replica set no" in done.stderr), (1, True))

    def test_share_a_file(self):
        self.share_one_cluster(*self.nodes())

    @with_postgres
    def test_share_a_database_and_come_through_its_loss(self):
        with Postgres() as postgres:
            one, other = self.nodes(postgres=postgres.directory)
            postgres.stop()
            start = time.monotonic()
            with contextlib.closing(one.connect()) as connection:
                connection.request("POST", "/blue/services/DSessAdmin", request_text("trace.get"), JSON)
                answer = connection.getresponse()
            self.assertEqual((answer.status, answer.getheader("DSess-Unavailable")), (503, "store"))
            self.assertLess(time.monotonic() - start, 3)
            self.assertRegex(one.log(), "failure the store failed: the PostgreSQL database test.* cannot be reached: ")
            postgres.start()
            self.share_one_cluster(one, other)

    @with_postgres
    def test_hold_nobody_up_for_long(self):
        change = request_text("key.change", **AS_ROOT)
        with Postgres() as postgres, concurrent.futures.ThreadPoolExecutor(20) as pool:
            one, other = self.nodes(store_connections="2", postgres=postgres.directory)
            self.assertEqual({status for status, _ in pool.map(one.post, [change] * 20)}, {200})
            ours = "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'dsessd'"
            self.assertLessEqual(int(postgres.sql(ours)), 4)
            to_load = ["load", "--data", Dsessd(postgres=postgres.directory).data, "-"]
            load = self.enterContext(subprocess.Popen([BINARY, *to_load], stdin=subprocess.PIPE))
            load.stdin.write(b'{"realms":[{"name":"east","sessions":[' + b" " * 99999)
            self.assertTrue(soon(lambda: postgres.sql(f"{ours} AND state = 'idle in transaction'") == "1", 9))
            postgres.freeze()
            start = time.monotonic()
            load.stdin.write(b",".join(b'{"id":"%d","user":"a","time":1}' % number for number in range(2000)) + b"]}]}")
            load.stdin.close()
            self.assertEqual({status for status, _ in pool.map(one.post, [change] * 20)}, {503})
            self.assertLess(time.monotonic() - start, 10)
            time.sleep(max(0, start + 6 - time.monotonic()))
            postgres.freeze(signal.SIGCONT)
            self.assertEqual(load.wait(DEADLINE), 0, "nobody waits for a load, so that it has more patience")
            self.assertTrue(soon(lambda: one.post(change)[0] == 200, 9))
            # One node stands still in a change, which waits for a lock.
            database = one.data.split("/")[3].split("?")[0]
            lock = pool.submit(postgres.sql, "BEGIN", "LOCK TABLE keys", "SELECT pg_sleep(3)", database=database)
            waiting = "SELECT count(*) FROM pg_stat_activity WHERE wait_event = "
            self.assertTrue(soon(lambda: postgres.sql(waiting + "'PgSleep'") == "1", 9))
            pool.submit(one.post, change)
            self.assertTrue(soon(lambda: postgres.sql(waiting + "'relation'") == "1", 2))
            one.process.send_signal(signal.SIGSTOP)
            lock.result()
            self.assertTrue(soon(lambda: "result" in other.call("key.change", **AS_ROOT), 9))
            one.process.send_signal(signal.SIGCONT)

    @with_postgres
    def test_waits_for_its_database_and_tells_the_service_manager(self):
        with contextlib.ExitStack() as stack:
            postgres = stack.enter_context(Postgres())
            node = Dsessd(anonymous="read", postgres=postgres.directory)
            serve = ["serve", "--listen", "127.0.0.1:0", "--instance", "blue", "--data"]
            for wrong in node.data.replace("/test", "/no"), node.data + "&target_session_attrs=no":
                self.assertEqual(node.run(*serve, wrong, check=False).returncode, 1)
            postgres.stop()
            manager = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
            manager.bind(str(node.directory / "notify"))
            manager.settimeout(DEADLINE)
            node.environment = {**os.environ, "NOTIFY_SOCKET": manager.getsockname(), "WATCHDOG_USEC": "90000"}
            pool = stack.enter_context(concurrent.futures.ThreadPoolExecutor())

            start = pool.submit(node.start)
            self.assertIn(b"STATUS=waiting for the store", manager.recv(999))
            postgres.start()
            while not (told := manager.recv(999)).startswith(b"READY=1"):
                self.assertIn(b"STATUS=waiting", told)
            self.assertIn("result", start.result().call("trace.get"))
            self.assertEqual(manager.recv(999), b"WATCHDOG=1")
            self.assertEqual(node.stop(), 0)
            while (told := manager.recv(999)) == b"WATCHDOG=1":
                pass
            self.assertIn(b"STOPPING=1", told)

            postgres.stop()
            start = pool.submit(node.start)
            self.assertIn(b"STATUS=waiting", manager.recv(999))
            node.process.terminate()
            self.assertEqual(node.process.wait(2), 0)
            self.assertIn("no readiness line", str(start.exception()))
