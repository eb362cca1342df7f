"""What dsessd's data go through: dumped and loaded from one engine to the other, always while changes are made."""

import contextlib
import json
import os
import pathlib
import subprocess
import threading
import unittest
import unittest.mock

from dsessd import AS_ROOT, ROOT, Dsessd
from postgres import PROGRAMS, Postgres, new_database

COUNT = 4000
ROLES = [*ROOT, ("mary", "x", "read")]


def cluster():
    sessions = [{"id": f"{i:08x}", "user": 'm\u0007"李', "time": 1790000000} for i in range(COUNT)]
    sets = [{"name": "set", "members": [{"name": name, "time": 1} for name in "ba"]}, {"name": "bare"}]
    keys = [{"label": label, "time": 5} for label in "zy"]
    return {"realms": [{"name": "west"}, {"name": "east", "sessions": sessions, "replicaSets": sets}], "keys": keys}


def end_session(server, number):
    """A change that is known again by its number."""
    change = {"realm": "east", "selector": "session", "value": f"{number:08x}", "changeId": str(number)}
    return server.call("session.terminate", **AS_ROOT, **change)


@contextlib.contextmanager
def changes(server):
    """Ends the sessions in their order meanwhile."""
    over, some = threading.Event(), threading.Event()

    def run():
        for number in range(COUNT):
            if over.is_set() or "result" not in end_session(server, number):
                break
            if number == 20:
                some.set()

    thread = threading.Thread(target=run)
    thread.start()
    some.wait(30)
    try:
        yield
    finally:
        over.set()
        thread.join()


class Data(unittest.TestCase):
    def setUp(self):
        self.server = self.enterContext(Dsessd(cluster(), ROLES, anonymous="read"))
        self.run = self.server.run

    def path(self, name):
        return str(self.server.directory / name)

    def bytes_of(self, data):
        return self.run("dump", "--data", data, "-").stdout

    def check_one_state(self, text):
        """Gives the number of changes in it."""
        dumped = json.loads(text)
        made = [int(change["id"]) for change in dumped["changes"]]
        self.assertEqual(made, list(range(len(made))))
        self.assertEqual(dumped["realms"][1]["sessions"], cluster()["realms"][1]["sessions"][len(made) :])
        return len(made)


class Dumping(Data):
    @unittest.skipIf(PROGRAMS is None, "no PostgreSQL is installed")
    def test_moves_a_cluster_from_engine_to_engine_whole_while_nodes_run(self):
        first, file = self.server, self.path("dump")
        first.call("trace.set", **AS_ROOT, level=3)
        pathlib.Path(file).write_text("old")
        os.chmod(file, 0o644)
        with Postgres() as postgres, unittest.mock.patch("dsessd.POSTGRES", postgres.directory):
            second = self.enterContext(Dsessd())
            old = second.call("trace.get", **AS_ROOT)["clusterId"]
            with changes(first):
                self.run("dump", "--data", first.data, file)
            self.assertEqual(os.stat(file).st_mode & 0o777, 0o600)
            text = pathlib.Path(file).read_text()
            made = self.check_one_state(text)
            self.assertEqual(text.count('"role":'), len(ROLES))
            self.run("load", "--data", second.data, file)
            self.assertEqual(self.bytes_of(second.data), text)
            self.assertEqual(end_session(second, 0)["error"]["data"]["name"], "server-failure", "another cluster now")
            second.stop()
            second.start()
            self.assertEqual(end_session(second, 0), end_session(first, 0), "known again, and of the same cluster")
            self.assertNotEqual(second.call("trace.get", **AS_ROOT)["clusterId"], old)
            self.assertEqual(self.bytes_of(second.data), text)
            end_session(second, made)
            with changes(second):
                back = self.bytes_of(second.data)
            self.assertGreater(self.check_one_state(back), made)
            for data in (self.path("third"), new_database(postgres.directory)):
                self.run("load", "--data", data, "-", input=back)
                self.assertEqual(self.bytes_of(data), back)
        for length in [*range(0, len(text), len(text) // 20), len(text) - 2]:
            part = self.run("load", "--data", self.path("part"), "-", input=text[:length], check=False)
            self.assertEqual((part.returncode, part.stdout), (1, ""), length)

    def test_leaves_nothing_half_and_no_file_that_it_cannot_replace(self):
        data, folder = self.server.data, self.path("folder")
        os.mkdir(folder)
        before = os.listdir(self.server.directory)
        for file, limit, problem in [
            (f"{folder}/dump", "ulimit -f 20", "File too large"),
            (folder, "true", "is not a file"),
            (data, "true", "the store itself"),
            ("-", "exec >/dev/full", "could not be written in full"),
        ]:
            shell = ["sh", "-c", f'{limit}; "$DSESSD" dump --data {data} {file}']
            done = subprocess.run(shell, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout, problem in done.stderr), (1, "", True), done.stderr)
        self.assertEqual((os.listdir(folder), os.listdir(self.server.directory)), ([], before))
