"""A cluster on two databases, of which the first is lost: each change that was acknowledged is at the second, once."""

import concurrent.futures
import contextlib
import re
import signal
import subprocess
import time
import unittest
import unittest.mock

from dsessd import AS_ROOT, Dsessd, request_text
from endtoend import ADMINISTRATORS, ROOT_LOGIN, configuration
from postgres import PROGRAMS, Postgres
from vexil import VEXILADMIN, Case

CHANGES = 4000


@unittest.skipIf(PROGRAMS is None, "no PostgreSQL is installed")
class Failover(Case):
    @contextlib.contextmanager
    def cluster(self):
        """Two nodes on a first database and a second that follows it."""
        with contextlib.ExitStack() as stack:
            first = stack.enter_context(Postgres())
            with unittest.mock.patch("dsessd.POSTGRES", first.directory):
                node = Dsessd(administrators=ADMINISTRATORS, anonymous="read")
            second = first.standby()
            stack.callback(second.__exit__)
            self.name = re.search(r"/(test\d+)", node.data)[1]
            node.options["data"] = (
                f"postgresql://dsessd@/{self.name}?host={first.directory},{second.directory}"
                "&target_session_attrs=read-write"
            )
            yield first, second, [stack.enter_context(node), stack.enter_context(node.another())]

    def changing(self, name, nodes):
        """A run of vexiladmin with key changes, and the file of what it shows."""
        commands = self.dir / name
        commands.write_text("\n".join([ROOT_LOGIN, *["key change"] * CHANGES]))
        shown = commands.with_suffix(".out")
        env = self.environment(config=configuration(*nodes))
        with open(shown, "wb") as out:
            run = subprocess.Popen([VEXILADMIN, "-file", commands], env=env, stdout=out, stderr=out)
        self.addCleanup(run.kill)
        return run, shown

    def labels(self, shown):
        return re.findall(r"^Key: +(\S+)", shown.read_text(), re.M)

    def lose(self, loss):
        with self.cluster() as (first, second, nodes):
            old = int(first.sql("SELECT count(*) FROM dsessd.keys", database=self.name))
            runs = [self.changing(f"run{at}", nodes[at:] + nodes[:at]) for at in (0, 1)]
            time.sleep(1)
            loss(first)
            time.sleep(1)
            second.sql("SELECT pg_promote()")
            second.sql("ALTER SYSTEM SET synchronous_standby_names = ''", "SELECT pg_reload_conf()")
            promoted = time.monotonic()
            for at, node in enumerate(nodes):
                while "result" not in node.call("key.change", **AS_ROOT, changeId=f"node {at}"):
                    self.assertLess(time.monotonic() - promoted, 20)
            for run, shown in runs:
                before = len(self.labels(shown))
                while len(self.labels(shown)) == before:
                    self.assertIsNone(run.poll(), shown.read_text()[-500:])
                    self.assertLess(time.monotonic() - promoted, 20)
                    time.sleep(0.1)
            for run, _ in runs:
                run.send_signal(signal.SIGTERM)
                run.wait()
            acknowledged = [self.labels(shown) for _, shown in runs]
            kept = second.sql("SELECT label FROM dsessd.keys", database=self.name).split()
            self.assertEqual(set(sum(acknowledged, [])) - set(kept), set())
            # One of each node, and what was in hand when each run ended.
            self.assertLessEqual(len(kept), old + sum(map(len, acknowledged)) + 2 + 2)

    def test_killed(self):
        self.lose(Postgres.stop)

    def test_frozen(self):
        self.lose(Postgres.freeze)

    def test_no_change_is_acknowledged_that_the_second_lacks(self):
        with self.cluster() as (first, second, nodes):
            second.stop()
            change = request_text("key.change", **AS_ROOT, changeId="c1")
            start = time.monotonic()
            with concurrent.futures.ThreadPoolExecutor() as pool:
                answer = pool.submit(nodes[0].post, change)
                waiting = "FROM pg_stat_activity WHERE wait_event = 'SyncRep'"
                while not first.sql(f"SELECT pg_cancel_backend(pid) {waiting}"):
                    time.sleep(0.05)
                # PostgreSQL has called that a success; asked again, the node finds its record.
                self.assertEqual(answer.result()[0], 500)
            self.assertLess(time.monotonic() - start, 10)
            self.assertIn("might not have been replicated", nodes[0].log())
            second.start()
            self.assertEqual(nodes[1].post(change)[0], 200)
            self.assertEqual(second.sql("SELECT count(*) FROM dsessd.keys", database=self.name), "3")
            cluster = nodes[0].call("trace.get")["clusterId"]
            first.sql("UPDATE dsessd.store SET cluster_id = 'other'", database=self.name)
            answer = nodes[0].call("key.change", **AS_ROOT, clusterId=cluster)
            self.assertEqual((answer["error"]["data"]["name"], answer["clusterId"]), ("other-cluster", "other"))
            self.assertEqual(nodes[0].post(request_text("trace.get"))[0], 503)
            self.assertIn("holds another cluster now", nodes[0].log())
