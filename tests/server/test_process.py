"""The dsessd process from outside: start and stop, what it loads, who its administrators are, and what it keeps."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import sqlite3
import subprocess
import time
import unittest

from dsessd import AS_ROOT, BINARY, DEADLINE, JSON, ROOT, SAMPLE, Dsessd, request_text
from terminal import Terminal

LEVEL = b'{"jsonrpc":"2.0","id":1,"result":{"level":1}}'


def sessions(count):
    return [{"id": f"{i:08x}", "user": f'{i % 100}\u0007"李', "time": 1790000000 + i} for i in range(count)]


def cluster(count):
    return {"realms": [{"name": "east", "sessions": sessions(count)}]}


def memory_of(pid):
    """What a process has written to its memory, without the huge map that a sanitizer keeps of it."""
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for start, end in re.findall(r"(?m)^(\w+)-(\w+) rw", maps.read()):
            size = int(end, 16) - int(start, 16)
            memory.seek(int(start, 16))
            with contextlib.suppress(OSError):  # what has just gone, or was never there
                yield memory.read(size if size < 1 << 28 else 0)


class Serving(unittest.TestCase):
    def test_says_on_one_line_where_it_listens_and_ends_cleanly(self):
        for host, how in [("127.0.0.1", signal.SIGTERM), ("[::1]", signal.SIGINT), ("localhost", signal.SIGTERM)]:
            with Dsessd(listen=f"{host}:0", instances=["blue", "green"], anonymous="read") as server:
                where = f"listening on http://{host}:{server.port}/ for instances blue, green"
                self.assertEqual(server.ready_line, f"dsessd: {where}\n")
                for path in ("/blue/services/DSessAdmin", "/green/services/DSessAdminProxy"):
                    self.assertEqual(server.post(request_text("trace.get"), path), (200, LEVEL))
                stdout = server.process.stdout
                server.process.send_signal(how)
                self.assertEqual(stdout.read(), b"", "one line on standard output and no more")
                self.assertEqual(server.process.wait(DEADLINE), 0)
                stamp = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"
                self.assertRegex(server.log(), rf"^{stamp} notice {re.escape(where)}\n{stamp} notice stopped\n$")

    def test_names_on_one_line_what_keeps_it_from_starting(self):
        with Dsessd() as server, socket.create_server(("127.0.0.1", 0)) as taken:
            files = {name: str(server.directory / name) for name in ("text", "foreign", "newer", "none", ".")}
            (server.directory / "text").write_text("x" * 5000)
            server.run("load", "--data", files["newer"], SAMPLE)
            for name, change in [("foreign", "CREATE TABLE songs (name TEXT)"), ("newer", "PRAGMA user_version=9")]:
                with contextlib.closing(sqlite3.connect(files[name])) as database:
                    database.execute(change)
            for listen, data, problem in [
                (f"127.0.0.1:{taken.getsockname()[1]}", None, "cannot listen on .*: Address already in use"),
                *((listen, None, "--listen takes") for listen in ("127.0.0.1", "::1:80", "[::1]:99999", "[::1]:8x")),
                ("no.such.host.invalid:80", None, "no address for no.such.host.invalid"),
                ("127.0.0.1:0", "text", "is not a data file of dsessd"),
                ("127.0.0.1:0", "foreign", "is not a data file of dsessd"),
                ("127.0.0.1:0", "newer", "has schema version 9"),
                ("127.0.0.1:0", "none", "there is no data file"),
                ("127.0.0.1:0", ".", "cannot be used"),
            ]:
                with self.subTest(problem=problem):
                    arguments = ["--listen", listen, "--data", files.get(data, server.data), "--instance", "blue"]
                    done = server.run("serve", *arguments, check=False)
                    self.assertEqual((done.returncode, done.stdout), (1, ""))
                    self.assertRegex(done.stderr, rf"^dsessd: .*{problem}.*\n$")
            self.assertFalse(os.path.exists(files["none"]))
            with contextlib.closing(sqlite3.connect(files["foreign"])) as database:
                self.assertEqual(database.execute("SELECT name FROM sqlite_schema").fetchall(), [("songs",)])
            serve = f"serve --listen 127.0.0.1:0 --data {server.data} --instance"
            wrong = ["", "bogus", "serve", f"{serve} a/b", f"{serve} a --tls-cert x", f"{serve} a --anonymous all"]
            for line in [*wrong, f"admin add x --data {server.data} --role root"]:
                self.assertEqual(server.run(*line.split(), check=False).returncode, 2, line)

    def test_finishes_what_is_in_progress_when_it_is_stopped(self):
        with Dsessd(cluster(150000), ROOT, anonymous="read") as server:
            idle, slow = server.connect(), server.connect()
            server.call("trace.get", connection=idle)
            listing = request_text("session.list", realm="east", selector="user", value="*", max=149999)
            slow.request("POST", "/blue/services/DSessAdmin", listing, JSON)
            response = slow.getresponse()
            start = response.read(10)
            gone = server.call("session.terminate", realm="east", selector="user", value='7\u0007"李', **AS_ROOT)
            self.assertEqual(gone["result"]["count"], 1500)
            self.assertEqual({os.stat(server.data + end).st_mode & 0o777 for end in ("", "-wal", "-shm")}, {0o600})
            server.process.send_signal(signal.SIGTERM)
            self.assertEqual(idle.sock.recv(1), b"", "who is idle does not hold it up")
            with self.assertRaises(ConnectionError):
                server.call("trace.get")
            self.assertIsNone(server.process.poll(), "the answer is not finished")
            result = json.loads(start + response.read())["result"]
            self.assertEqual((result["total"], result["count"]), (150000, 149999))
            everything = sorted(sessions(150000), key=lambda session: (session["user"], session["time"]))
            self.assertTrue(result["sessions"] == everything[:-1], "all that was there when the listing began")
            self.assertEqual(server.process.wait(DEADLINE), 0)
            idle.close()
            slow.close()

    def test_keeps_no_request_in_its_memory(self):
        secret = os.urandom(16).hex()
        with Dsessd(administrators=[("root", secret, "change")]) as server:
            text = request_text("trace.get", **{**AS_ROOT, "password": secret})
            text = text.replace(
                '"params"', f'"x": "{"y" * 20000}", "params"'
            )  # what freed memory is used for comes first
            kept, refused = server.connect(), server.connect()
            self.assertEqual(server.post(text, connection=kept)[0], 200)
            self.assertEqual(server.post(text[-5000:], "/nowhere", refused)[0], 404)
            refused.close()
            deadline = time.monotonic() + DEADLINE
            while any(secret.encode() in block for block in memory_of(server.process.pid)):
                self.assertLess(time.monotonic(), deadline)
            self.assertEqual(server.post(text, connection=kept)[0], 200, "and not because the connection has ended")
            kept.close()


def realm(fields):
    return "{'realms':[{" + fields + "}]}"


def session(fields="", rest=""):
    """A session with these fields more, and what follows it."""
    return realm("'name':'r','sessions':[{'id':'s','user':'u'" + fields + "}" + rest + "]")


FAULTY = [  # what is no cluster, and what is said of it
    ("", "1: The document is empty"),
    ("[]", "1: the cluster is not an object"),
    ("{}", "1: the cluster lacks the field 'realms'"),
    ("{\n'realms': [\n{'nmae': 1}]}", "3: realms[0] has a field 'nmae', which a realm does not have"),
    ("{'realms': [1]}", "1: realms[0] is something other than an object"),
    ("{'realms': {}}", "1: realms is an object where there should be none"),
    ("{'realms': []}\n}", "2: The document root must not be followed by other values"),
    ("{'realms': []}\0x", "1: a NUL byte"),
    ("{'realms': " + "[" * 100000, "1: realms[0] is something other than an object"),
    (realm(""), "1: realms[0] lacks the field 'name'"),
    (realm("'name':'a'},\n{'name':'a'"), "2: realms[1] is a realm 'a' that comes twice"),
    (realm("'name':'a',\n'name':'b'"), "2: realms[0].name comes twice"),
    *(
        (realm(f"'name':'{text}'"), "1: realms[0].name is empty, longer than 1024 bytes, or not UTF-8")
        for text in ("", "\udcff", "\\udc00", "a\\u0000b", "x" * 1025, "x" * 10**6)
    ),
    (realm("'name':5"), "1: realms[0].name is of the wrong type"),
    (
        realm("'name':'r'},{'name':'s','replicaSets':[{'name':'s'},{'name':'s'}]"),
        "realms[1].replicaSets[1] is a replica set 's' that comes twice",
    ),
    *((session(both), "one of the fields 'time' and 'age'") for both in ("", ",'age':1,'time':1")),
    *(
        (session(f",'{field}':{value}"), "realms[0].sessions[0] has a time that is not between 0 and 2147483647")
        for field in ("time", "age")
        for value in (-1, 2147483648)
    ),
    (session(",'time':1.5"), "sessions[0].time is neither text nor a whole number"),
    (session(",'time':18446744073709551615"), "sessions[0].time is too large"),
    (session(",'time':1", ",\n{'id':'s','user':'v','time':1}"), "2: realms[0].sessions[1] is a session 's'"),
    (session(",'time':1", ",{'id':'t','user':''}"), "realms[0].sessions[1].user is empty"),
]


class Loading(unittest.TestCase):
    def load(self, server, text, source="-"):
        done = server.run("load", "--data", server.data, source, input=text.replace("'", '"'), check=False)
        return done.stdout + done.stderr.replace('"', "'")

    def test_replaces_the_cluster_under_a_running_server(self):
        with Dsessd(administrators=ROOT) as server:

            def result(method, **parameters):
                return server.call(method, **AS_ROOT, **parameters)["result"]

            self.assertEqual(result("trace.set", level=7), {"level": 7})
            parts = "'sessions':[{'age':10,'user':'u','id':'s'}],'replicaSets':[{'members':[{'age':5,'name':'m'}],'name':'set'}]"
            self.assertEqual(
                self.load(server, realm(f"{parts},'name':'east'")),
                "dsessd: loaded realms: 1, replica sets: 1, members: 1, keys: 0, sessions: 1\n",
            )
            now = int(time.time())
            listing = result("session.list", realm="east", selector="user", value="*", max=-1)["sessions"]
            members = result("replicaSet.get", replicaSet="set")["records"]
            self.assertEqual(
                [now - 20 <= listing[0]["time"] < now - 9, now - 15 <= members[0]["time"] < now - 4], [True] * 2
            )
            key = result("cluster.get")["key"]
            self.assertEqual((key["label"][:4], key["previousTime"]), ("key-", 0), "a first key")
            self.assertEqual(result("trace.get"), {"level": 7})

    def test_names_line_and_place_of_a_mistake_and_changes_nothing(self):
        with Dsessd(administrators=ROOT) as server:
            before = server.call("cluster.get", **AS_ROOT)["result"]
            for text, problem in FAULTY:
                said = self.load(server, text)
                self.assertRegex(said, "^dsessd: -, line [^\n]*; nothing was loaded\n$")
                self.assertIn(problem, said, text[:99])
            self.assertEqual(self.load(server, "", "/x"), "dsessd: /x cannot be read: No such file or directory\n")
            self.assertEqual(server.call("cluster.get", **AS_ROOT)["result"], before)

    def test_shows_on_a_terminal_how_far_it_is(self):
        with Dsessd() as server:
            source = server.directory / "source"
            source.write_text(json.dumps(cluster(9000)), encoding="utf-8")
            with contextlib.closing(sqlite3.connect(server.data)) as database:
                database.execute("BEGIN IMMEDIATE")  # holds the load up, since a short one shows nothing
                terminal = Terminal([BINARY, "load", "--data", server.data, source], os.environ)
                self.addCleanup(terminal.close)
                opened = lambda: server.data + "-shm" in map(
                    os.path.realpath, pathlib.Path(f"/proc/{terminal.pid}/fd").iterdir()
                )
                terminal.until(opened, "opening of the file")
                time.sleep(1)  # more than a load may take without a word
            self.assertRegex(
                terminal.ended()[1],
                r"^(\r\x1b\[Kloading: [4-9]\d%, [48]\d\d\d sessions)+\r\x1b\[K"
                r"dsessd: loaded realms: 1, .*, sessions: 9000\r\n$",
            )


class Administrators(unittest.TestCase):
    def outcome(self, server, name, password):
        answer = server.call("cluster.get", user=name, password=password, login_id="same")
        return "done" if "result" in answer else answer["error"]["data"]["name"]

    def test_are_no_success_when_what_they_say_is_lost(self):
        for lost in (">/dev/full", ">&-"):
            done = subprocess.run(["sh", "-c", f'"$DSESSD" --version {lost}'], stderr=subprocess.PIPE, text=True)
            self.assertEqual((done.returncode, "could not be written" in done.stderr), (1, True), lost)

    def test_take_effect_at_once_in_a_running_server(self):
        with Dsessd() as server:
            data = ["--data", server.data]
            for command, typed, said, password, outcome in [
                ("add josé", "first\r\nsecond\n", "administrator josé added, may change", "first", "done"),
                ("add josé --role read", "2", "administrator josé changed, may read", "first", "identity-refused"),
                ("list", "", "josé read", "2", "done"),
                ("remove josé", "", "administrator josé removed", "2", "identity-refused"),
            ]:
                done = server.run("admin", *command.split(), *data, input=typed)
                self.assertEqual(done.stdout.removeprefix("dsessd: "), said + "\n")
                for _ in range(2):
                    self.assertEqual(self.outcome(server, "josé", password), outcome, said)
            for verb, name, typed in [
                ("remove", "josé", ""),
                *(("add", "x", typed) for typed in ("", "\n", "y" * 512, "\udcff")),
                *(("add", name, "x") for name in ("", "anonymous", "\udcff", "n" * 1025)),
            ]:
                done = server.run("admin", verb, name, *data, input=typed, check=False)
                self.assertEqual(
                    (done.returncode, done.stdout, done.stderr.count("\n")), (1, "", 1), (verb, name, typed)
                )
            self.assertEqual(server.run("admin", "list", *data).stdout, "")

    def typing(self, server, *answers):
        """Runs `admin add` on a terminal. An answer to a prompt is text or a signal. Gives status and output."""
        terminal = Terminal([BINARY, "admin", "add", "root", "--data", server.data], os.environ)
        self.addCleanup(terminal.close)
        shown = ""
        for prompt, answer in zip(("Password for root: ", "Once more: "), answers):
            shown += terminal.asks(prompt) + prompt
            if isinstance(answer, str):
                terminal.type(answer + "\n")
            else:
                os.kill(terminal.pid, answer)
        status, rest = terminal.ended()
        self.assertTrue(terminal.echoes(), "the terminal has its echo back")
        return status, (shown + rest).replace("\r", "")

    def test_are_asked_for_their_password_without_echo(self):
        with Dsessd() as server:
            asked = "Password for root: \nOnce more: \ndsessd: "
            added = (0, asked + "administrator root added, may change\n")
            self.assertEqual(self.typing(server, "tiptop", "tiptop"), added)
            self.assertEqual(self.typing(server, "one", "two"), (1, asked + "the two passwords differ\n"))
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
                signal.signal(number, signal.SIG_DFL)  # a job in the background has some of them ignored
                self.assertEqual(self.typing(server, "one", number)[0], -number)
            self.assertEqual(self.outcome(server, "root", "tiptop"), "done", "nothing was changed")
