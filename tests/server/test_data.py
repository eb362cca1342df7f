"""What dsessd's data go through: dumped and loaded from one engine to the other, backed up, lost and restored, all of it
while changes are made; and raised from an older version."""

import contextlib
import json
import os
import pathlib
import re
import signal
import sqlite3
import subprocess
import threading
import unittest

from dsessd import AS_ROOT, BINARY, ROOT, Dsessd
from postgres import Postgres, new_database, with_postgres
from test_nodes import soon

COUNT = 4000
IN_NO_ORDER = 2002  # sessions, every second with a user that is less than the one before
USER = 'm\u0007"李'
ROLES = [*ROOT, ("mary", "xxxxxx", "read")]


def cluster():
    sessions = [{"id": f"{i:08x}", "user": USER, "time": 1790000000} for i in range(COUNT)]
    sets = [{"name": "set", "members": [{"name": name, "time": 1} for name in "ba"]}, {"name": "bare"}]
    keys = [{"label": label, "time": 5} for label in "zy"]
    west = [{"id": f"{i:08x}", "user": "ba"[i % 2], "time": 1} for i in range(IN_NO_ORDER)]
    return {
        "realms": [{"name": "west", "sessions": west}, {"name": "east", "sessions": sessions, "replicaSets": sets}],
        "keys": keys,
    }


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
        made = [int(change["id"]) for change in dumped["changes"] if change["user"]]  # others are local acts
        self.assertEqual(made, list(range(len(made))))
        self.assertEqual(dumped["realms"][1]["sessions"], cluster()["realms"][1]["sessions"][len(made) :])
        return len(made)


class Dumping(Data):
    @with_postgres
    def test_moves_a_cluster_from_engine_to_engine_whole_while_nodes_run(self):
        first, file = self.server, self.path("dump")
        first.call("trace.set", **AS_ROOT, level=3)
        pathlib.Path(file).write_text("old")
        os.chmod(file, 0o644)
        with Postgres() as postgres:
            second = self.enterContext(Dsessd(postgres=postgres.directory))
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
        for length in [*range(0, len(text) - 2, len(text) // 20), len(text) - 2]:
            part = self.run("load", "--data", self.path("part"), "-", input=text[:length], check=False)
            self.assertEqual((part.returncode, part.stdout), (1, ""), length)

    def test_leaves_nothing_half_and_no_file_that_it_cannot_replace(self):
        data, folder = self.server.data, self.path("folder")
        os.mkdir(folder)
        dumped, before = f"{folder}/dump", os.listdir(self.server.directory)
        for file, limit, problem in [
            (dumped, "ulimit -f 20", "File too large"),
            (folder, "true", "is not a file"),
            (data, "true", "the store itself"),
            ("-", "exec >/dev/full", "could not be written in full"),
        ]:
            shell = ["sh", "-c", f'{limit}; "$DSESSD" dump --data {data} {file}']
            done = subprocess.run(shell, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout, problem in done.stderr), (1, "", True), done.stderr)
        ended = None
        while ended is None or ended.returncode == 0:  # too late
            with subprocess.Popen([BINARY, "dump", "--data", data, dumped], stdout=subprocess.DEVNULL) as ended:
                while ended.poll() is None and not os.listdir(folder):
                    pass
                ended.terminate()
            if os.path.exists(dumped):
                os.unlink(dumped)
        self.assertEqual(ended.returncode, -signal.SIGTERM)
        self.assertEqual((os.listdir(folder), os.listdir(self.server.directory)), ([], before))


class BackingUp(Data):
    def refused(self, problem, *command):
        done = self.run(*command, check=False)
        self.assertEqual((done.returncode, done.stdout, problem in done.stderr), (1, "", True), done.stderr)

    def test_brings_back_after_any_loss_what_was_there_under_load(self):
        server, data, backup = self.server, self.server.data, self.path("backup")
        with changes(server):
            self.run("backup", "--data", data, backup)
        self.assertEqual([name for name in os.listdir(server.directory) if name.startswith("backup")], ["backup"])
        self.assertEqual(os.stat(backup).st_mode & 0o777, 0o600)
        os.chmod(backup, 0o400)
        end_session(server, COUNT - 1)
        self.refused("is in use", "restore", "--data", data, backup)
        pathlib.Path(self.path("copy")).write_bytes(pathlib.Path(backup).read_bytes())
        was = self.bytes_of(self.path("copy"))
        self.check_one_state(was)

        def harm(how):
            with open(data, "r+b") as file:
                how(file)

        for name, harmed, log, damaged in [
            ("none but later changes, in its log alone", lambda file: None, True, False),
            ("half of it", lambda file: file.truncate(os.stat(data).st_size // 8192 * 4096), True, None),
            ("its beginning", lambda file: file.write(b"x" * 4096), True, None),
            ("all of it", lambda file: os.unlink(data), True, True),
            ("its log too", lambda file: file.write(b"x" * 4096), False, True),
        ]:
            with self.subTest(name):
                end_session(server, COUNT - 1)
                server.stop(signal.SIGKILL)
                harm(harmed)
                if not log:
                    os.unlink(data + "-wal")
                done = self.run("restore", "--data", data, backup)
                self.assertIn(damaged, (None, f"{data}.damaged" in done.stdout))
                self.assertEqual(os.stat(data).st_mode & 0o777, 0o600)
                self.assertFalse(os.path.exists(data + "-wal"))
                server.start()
                self.assertEqual(self.bytes_of(data), was)
        harm(lambda file: file.write(b"x" * 4096))
        self.refused("is in use", "restore", "--data", data, backup)

    def test_refuses_what_is_no_backup_and_leaves_the_old_one(self):
        data, backup = self.server.data, self.path("backup")
        was = self.bytes_of(data)
        self.run("backup", "--data", data, backup)
        self.server.stop()
        whole = pathlib.Path(backup).read_bytes()
        for problem, text in [
            ("is not a data file", b"x" * 5000),
            ("is not a data file", b""),
            ("is not a data file", whole[:68] + b"else" + whole[72:]),
            ("of a newer dsessd", whole[:60] + b"\0\0\0\x09" + whole[64:]),
            ("malformed", whole[:-8192]),
            ("is damaged", whole[:20480] + b"x" * 4096 + whole[24576:]),
        ]:
            pathlib.Path(backup).write_bytes(text)
            self.refused(problem, "restore", "--data", data, backup)
        self.refused("cannot be used", "restore", "--data", data, self.path("none"))
        self.refused("is the store itself", "backup", "--data", data, data)
        self.refused("needs a file", "backup", "--data", data, "-")
        self.assertEqual(self.bytes_of(data), was)
        for command in ("backup", "restore"):
            self.refused(
                "pg_dump" if command == "restore" else "reach", command, "--data", "postgres://[::1]:1/x", backup
            )


SECOND = """
CREATE TABLE cluster (id TEXT PRIMARY KEY) STRICT, WITHOUT ROWID;
CREATE TABLE changes (id TEXT PRIMARY KEY, user TEXT NOT NULL, digest TEXT NOT NULL, answer TEXT NOT NULL,
    time INTEGER NOT NULL) STRICT, WITHOUT ROWID;
CREATE INDEX changes_by_time ON changes (time);
INSERT INTO cluster VALUES ('same');
INSERT INTO changes VALUES ('a', 'u', 'd', 'x', 9), ('b', 'u', 'd', 'y', 8);
PRAGMA user_version=2;
"""
FIRST_DATABASE = """
SET search_path = dsessd;
DROP TABLE changes, session_counts;
CREATE TABLE changes (id text COLLATE "C" PRIMARY KEY, user_name text NOT NULL, digest text NOT NULL,
    answer text NOT NULL, time timestamptz NOT NULL DEFAULT now());
CREATE INDEX changes_by_time ON changes (time);
INSERT INTO changes VALUES ('a', 'u', 'd', 'x', now()), ('b', 'u', 'd', 'y', now() - interval '1 s');
UPDATE store SET version = 1;
"""
TABLES = """SELECT table_name, column_name, data_type, is_nullable, is_identity, collation_name
FROM information_schema.columns WHERE table_schema = 'dsessd' ORDER BY table_name, ordinal_position"""


class Upgrading(Data):
    def upgrade(self, data, problem=None):
        done = self.run("upgrade", "--data", data, check=not problem)
        self.assertIn(problem or "", done.stderr)
        return done.stdout

    def changes_in(self, text):
        return [change["id"] for change in json.loads(text)["changes"] if change["user"]]

    def test_raises_a_file_of_1_0_0_once_nobody_uses_it(self):
        fixture = (pathlib.Path(__file__).parent / "store-1.0.0.sql").read_text()
        texts = []
        for version, sql in enumerate([fixture, fixture + SECOND], 1):
            data = self.path(f"store{version}")
            with contextlib.closing(sqlite3.connect(data)) as node:
                node.executescript(sql)
                self.upgrade(data, "is in use")
            done = self.run("dump", "--data", data, "-", check=False)
            self.assertIn("of an older dsessd; 'dsessd upgrade'", done.stderr)
            self.assertIn(f"from schema version {version} to 4", self.upgrade(data))
            self.assertIn("already", self.upgrade(data))
            texts.append(self.bytes_of(data))
            tables = []
            for each, count in ((data, 1), (self.server.data, COUNT + IN_NO_ORDER)):
                with contextlib.closing(sqlite3.connect(each)) as database:
                    tables.append(database.execute("SELECT * FROM sqlite_schema").fetchall())
                    self.assertEqual(database.execute("SELECT sum(sessions) FROM realms").fetchall(), [(count,)])
            self.assertEqual(*(sorted(re.sub(r"\s", "", f"{row[:3]}{row[4]}") for row in each) for each in tables))
        self.server.call("session.terminate", **AS_ROOT, realm="east", selector="user", value=USER)
        with contextlib.closing(sqlite3.connect(self.server.data)) as database:
            left = "SELECT (SELECT count(*) FROM sessions) + (SELECT count(*) FROM ended)"
            self.assertTrue(soon(lambda: database.execute(left).fetchone() == (IN_NO_ORDER,), 20))
        first, second = map(json.loads, texts)
        sets = [{"name": "set", "members": [{"name": "m", "time": 5}]}]
        session = {"id": "s", "user": "u", "time": 6}
        self.assertEqual(self.changes_in(texts[1]), ["b", "a"])
        self.assertEqual((second.pop("id"), len(first.pop("id"))), ("same", 36))
        second.pop("changes")
        self.assertEqual(first, second)
        self.assertEqual(first["realms"], [{"name": "east", "replicaSets": sets, "sessions": [session]}])
        self.assertEqual([key["label"] for key in first["keys"]], ["spring", "summer"])
        self.assertEqual((first["traceLevel"], first["administrators"][0]["passwordHash"]), (4, "$y$"))

    @with_postgres
    def test_raises_a_database_once_no_node_uses_it(self):
        with Postgres() as postgres:
            server = self.enterContext(Dsessd(administrators=ROOT, postgres=postgres.directory))
            database = re.search("/(test[0-9]+)", server.data)[1]
            tables = postgres.sql(TABLES, database=database)
            postgres.sql(FIRST_DATABASE, database=database)
            self.upgrade(server.data, "is in use")
            self.assertIn("error", end_session(server, 0))
            server.stop()
            self.assertIn("from schema version 1 to 3", self.upgrade(server.data))
            self.assertEqual(postgres.sql(TABLES, database=database), tables)
            server.start()
            self.assertIn("key", server.call("key.change", changeId="c", **AS_ROOT)["result"])
            self.assertEqual(self.changes_in(self.bytes_of(server.data)), ["b", "a", "c"])
            counted = "SELECT count(*) - (SELECT sum(sessions) FROM dsessd.session_counts) FROM dsessd.sessions"
            self.assertEqual(postgres.sql(counted, database=database), "0")
            postgres.sql("UPDATE dsessd.store SET version = 4", database=database)
            self.upgrade(server.data, "of a newer dsessd")
