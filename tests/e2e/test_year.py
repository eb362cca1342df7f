"""A year of a cluster in one walk, while administrators change it all the time. In the end each change that was
acknowledged is there, once.

YEAR_SECONDS is how long they work between the events, all in all."""

import os
import shutil
import signal
import ssl
import subprocess
import time
import unittest.mock

from changes import NO_LOCATION, NOT_SECURE, TIMED_OUT, UNKNOWN
from dsessd import DEADLINE
from endtoend import BUILD, IDENTITY_REFUSED, keep_manifest
from office import Office
from postgres import Postgres, new_database, with_postgres
from vexil import ROOT, Case

PAUSE = float(os.environ.get("YEAR_SECONDS", 15)) / 12  # between two events


@with_postgres
class Year(Office, Case):
    def test_a_year(self):
        self.install()
        self.open(["anna", "bert", "eve", "kurt"], 1000 + int(240 * PAUSE), PAUSE)
        self.start_work("anna", "bert")
        self.change_a_password()
        self.start_work("eve", "kurt")

        self.renew_the_certificate_of_the_nodes()
        self.revoke_a_certificate()
        self.let_a_certificate_end()

        self.kill_the_nodes()
        self.lose_the_file_and_restore_it()
        self.raise_it_from_1_0_0()
        self.move_it_to_a_database()
        self.add_a_node()
        self.take_a_node_away()
        self.kill_the_database()
        self.kill_the_nodes()

        self.reckon()

    def install(self):
        prefix = self.dir / "installed"
        keep_manifest(self)
        subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
        self.enterContext(unittest.mock.patch("dsessd.BINARY", f"{prefix}/sbin/dsessd"))
        self.enterContext(unittest.mock.patch.dict(os.environ, PATH=f"{prefix}/bin:{os.environ['PATH']}"))

    def change_a_password(self):
        bert = self.all["bert"]
        with bert.rest:
            self.dsessd("admin", "password", "bert", input="another")
            self.assertEqual(bert.vexiladmin("realm list").returncode, IDENTITY_REFUSED & 0xFF)
            bert.password = "another"
        self.work()

    def renew_the_certificate_of_the_nodes(self):
        self.give_the_nodes("node1")
        self.hang_up()
        for node in self.nodes:
            shown = ssl.get_server_certificate((node.host, node.port))
            self.assertEqual(shown, (self.authority.path / "node1.crt").read_text())
        self.work()

    def revoke_a_certificate(self):
        eve = self.all["eve"]
        with self.book.trouble("revoked", NOT_SECURE, who=eve):
            self.authority.revoke("eve")
            self.hang_up()
            revoked = time.monotonic()
            self.work()
            self.end_work("eve")
        self.assertEqual(set(eve.statuses(revoked)), {NOT_SECURE})

    def let_a_certificate_end(self):
        kurt = self.all["kurt"]
        with self.book.trouble("expired", NOT_SECURE, who=kurt):
            with kurt.rest:
                self.certify("kurt", 4 + PAUSE)
            begun = time.monotonic()
            self.within(DEADLINE + PAUSE, begun, lambda: kurt.changes[-1].status)
            ended = time.monotonic()
            self.work()
            with kurt.rest:
                self.certify("kurt", 10**7)
        self.assertEqual(kurt.statuses(begun)[0], 0)
        self.assertEqual(set(kurt.statuses(ended)), {NOT_SECURE})
        self.work()

    def kill_the_nodes(self):
        """One after the other, so no change fails."""
        begun = time.monotonic()
        while time.monotonic() < begun + PAUSE:
            for node in self.nodes:
                node.stop(signal.SIGKILL)
                node.start()
                self.book.wait(0, DEADLINE)

    def lose_the_file_and_restore_it(self):
        data, backup, copy = self.nodes[0].data, self.dir / "backup", self.dir / "copy"
        begun = time.monotonic()
        self.dsessd("backup", backup)
        ended = time.monotonic()
        self.work()
        with self.without_nodes(signal.SIGKILL, UNKNOWN):
            os.unlink(data)  # its log is still there
            shutil.copy(backup, copy)
            self.dsessd("restore", backup)
            restored = self.dsessd("dump", "-")
            self.assertEqual(restored, self.nodes[0].run("dump", "--data", copy, "-").stdout)
            wrong, self.lost = self.book.restore(begun, ended, restored)
            self.assertEqual(wrong, [])
        self.work()

    def raise_it_from_1_0_0(self):
        with self.without_nodes():
            self.put_into_tables((ROOT / "tests/server/store-1.0.0.sql").read_text())
            self.assertIn("from schema version 1 to", self.dsessd("upgrade"))
        self.work()

    def move_it_to_a_database(self):
        self.postgres = self.enterContext(Postgres())
        with self.without_nodes():
            self.dsessd("dump", self.dir / "dump")
            data = new_database(self.postgres.directory)
            for node in self.nodes:
                node.data = node.options["data"] = data
            self.dsessd("load", self.dir / "dump")
        self.work()

    def add_a_node(self):
        node = self.enterContext(self.nodes[0].another())
        self.nodes.append(node)
        self.tell_the_locations()
        self.work()
        self.assertIn(" changed: ", node.log())

    def take_a_node_away(self):
        self.assertEqual(self.nodes.pop(0).stop(), 0)
        self.work()
        self.tell_the_locations()

    def kill_the_database(self):
        anna = {"user": "anna", "password": self.all["anna"].password}
        words = "the server cannot reach its database now"
        with self.book.trouble(f"{words}|no answer in time", NO_LOCATION, TIMED_OUT, UNKNOWN):
            self.tell_the_locations(timeout=3)
            self.work()
            self.postgres.stop()
            self.book.wait(PAUSE, DEADLINE)
            self.postgres.start()
            for node in self.nodes:
                self.within(20, time.monotonic(), lambda: "result" in node.call("trace.set", level=1, **anna))
            self.tell_the_locations()
        self.assertTrue(any(words in change.shown for change in self.book.changes()))
        self.work()

    def reckon(self):
        self.end_work("anna", "bert", "kurt")
        wrong, figures = self.book.close(self.dsessd("dump", "-"), {"first"})
        self.assertEqual(wrong, [])
        print(f"{figures}; {self.lost} that were made after the backup were lost")
