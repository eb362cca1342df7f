"""A cluster on two databases whose primary is lost: each change that was acknowledged is at the other, once."""

import concurrent.futures
import re
import signal
import subprocess
import time

from dsessd import AS_ROOT, Dsessd, request_text
from endtoend import ADMINISTRATORS, ROOT_LOGIN, configuration
from postgres import Pair, with_postgres
from vexil import VEXILADMIN, Case

CHANGES = 100_000  # more than there is time for


@with_postgres
class Failover(Case):
    def setUp(self):
        """Two nodes on a primary and a standby."""
        super().setUp()
        self.pair = self.enterContext(Pair())
        node = Dsessd(administrators=ADMINISTRATORS, anonymous="read", postgres=self.pair.directory)
        self.name = re.search(r"/(test\d+)", node.data)[1]
        self.nodes = [self.enterContext(node), self.enterContext(node.another())]

    def sql(self, text):
        return self.pair.primary.sql(text, database=self.name)

    def changing(self, name, nodes):
        """A run of vexiladmin with key changes, and the file of what it shows."""
        file, shown, env = self.dir / "changes", self.dir / name, self.environment(config=configuration(*nodes))
        file.write_text(f"{ROOT_LOGIN}\n" + "key change\n" * CHANGES)
        with open(shown, "wb") as out:
            run = subprocess.Popen([VEXILADMIN, "-file", file], env=env, stdout=out, stderr=out)
        self.addCleanup(run.kill)
        # The next one writes the same configuration anew.
        self.within(20, time.monotonic(), lambda: self.labels(shown))
        return run, shown

    def labels(self, shown):
        return re.findall(r"^Key: +(\S+)", shown.read_text(), re.M)

    def lose(self, loss):
        """Loses the primary while both nodes are asked for changes."""
        old = int(self.sql("SELECT count(*) FROM dsessd.keys"))
        runs = [self.changing(f"run{at}", self.nodes[at:] + self.nodes[:at]) for at in (0, 1)]
        time.sleep(1)
        loss(self.pair.primary, self.pair.standby)
        time.sleep(1)
        self.pair.promote()
        promoted = time.monotonic()
        for node in self.nodes:
            self.within(10, promoted, lambda: "result" in node.call("trace.get"))
        for node in self.nodes:
            change = {**AS_ROOT, "changeId": str(node.port)}
            self.within(20, promoted, lambda: "result" in node.call("key.change", **change))
        for run, shown in runs:
            before = len(self.labels(shown))
            self.within(20, promoted, lambda: run.poll() is not None or len(self.labels(shown)) > before)
            self.assertIsNone(run.poll(), shown.read_text()[-500:])
        for run, _ in runs:
            run.send_signal(signal.SIGTERM)
            run.wait()
        acknowledged = [label for _, shown in runs for label in self.labels(shown)]
        kept = self.sql("SELECT label FROM dsessd.keys").split()
        self.assertEqual(set(acknowledged) - set(kept), set())
        # One of each node, and what was in hand when each run ended.
        self.assertLessEqual(len(kept), old + len(acknowledged) + 2 + 2)

    def test_killed(self):
        self.lose(lambda primary, _: primary.stop())

    def test_frozen(self):
        self.lose(lambda primary, _: primary.freeze())

    def test_the_standby_gone_before(self):
        waiting = "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'"

        def loss(primary, standby):
            standby.stop()
            for restart in (primary.start, standby.start):
                # A change waits for the standby; after the restart, one that only the primary has is asked for again.
                self.within(20, time.monotonic(), lambda: self.sql(waiting) != "0")
                time.sleep(2)
                primary.stop()
                restart()

        self.lose(loss)

    def test_no_change_is_acknowledged_that_the_standby_lacks(self):
        one, other = self.nodes
        self.pair.standby.stop()
        change = request_text("key.change", **AS_ROOT, changeId="c1")
        start = time.monotonic()
        with concurrent.futures.ThreadPoolExecutor() as pool:
            answer = pool.submit(one.post, change)
            waiting = "FROM pg_stat_activity WHERE wait_event = 'SyncRep'"
            while not self.sql(f"SELECT pg_cancel_backend(pid) {waiting}"):
                time.sleep(0.05)
            # PostgreSQL has called that a success; asked again, the node finds its record.
            self.assertEqual(answer.result()[0], 500)
        self.assertLess(time.monotonic() - start, 10)
        self.assertIn("might not have been replicated", one.log())
        self.pair.standby.start()
        self.assertEqual(other.post(change)[0], 200)
        self.assertEqual(self.pair.standby.sql("SELECT count(*) FROM dsessd.keys", database=self.name), "3")
        cluster = one.call("trace.get")["clusterId"]
        self.sql("UPDATE dsessd.store SET cluster_id = 'other'")
        answer = {"error": {"data": {"name": "server-failure"}}}
        while answer["error"]["data"]["name"] == "server-failure":  # for a moment after a stall
            answer = one.call("key.change", **AS_ROOT, clusterId=cluster)
        self.assertEqual((answer["error"]["data"]["name"], answer["clusterId"]), ("other-cluster", "other"))
        others = "FROM pg_stat_activity WHERE datname = current_database() AND pid <> pg_backend_pid()"
        self.sql(f"SELECT pg_terminate_backend(pid, 5000) {others}")  # a new connection looks at the cluster
        self.assertEqual(one.post(request_text("trace.get"))[0], 503)
        self.assertIn("holds another cluster now", one.log())
