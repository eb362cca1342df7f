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
import tempfile
import termios
import time
import unittest

from dsessd import AS_ROOT, BINARY, DEADLINE, JSON, ROOT, SAMPLE, Dsessd, memory_of, request_text
from terminal import Terminal


def cluster(count):
    sessions = [{"id": f"{i:08x}", "user": f'{i % 100}\u0007"李', "time": 1790000000 + i} for i in range(count)]
    return {"realms": [{"name": "east", "sessions": sessions}]}


class Serving(unittest.TestCase):
    def test_says_on_one_line_where_it_listens_and_ends_cleanly(self):
        for host, how in [("[::1]", signal.SIGINT), ("localhost", signal.SIGTERM)]:
            with Dsessd(listen=f"{host}:0", instances=["blue", "green"], anonymous="read") as server:
                where = f"listening on http://{host}:{server.port}/ for instances blue, green"
                self.assertEqual(server.ready_line, f"dsessd: {where}\n")
                for path in ("/blue/services/DSessAdmin", "/green/services/DSessAdminProxy"):
                    self.assertEqual(server.post(request_text("trace.get"), path)[0], 200)
                stdout = server.process.stdout
                server.process.send_signal(how)
                self.assertEqual(stdout.read(), b"", "one line on standard output and no more")
                self.assertEqual(server.process.wait(DEADLINE), 0)
                stamp = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"
                self.assertRegex(server.log(), rf"^{stamp} notice {re.escape(where)}\n{stamp} notice stopped\n$")

    def test_names_on_one_line_what_keeps_it_from_starting(self):
        with Dsessd() as server:
            files = {name: str(server.directory / name) for name in ("text", "foreign", "newer", "none")}
            pathlib.Path(files["text"]).write_text("x" * 5000)
            server.run("load", "--data", files["newer"], SAMPLE)
            for name, change in [("foreign", "CREATE TABLE songs (name TEXT)"), ("newer", "PRAGMA user_version=9")]:
                with contextlib.closing(sqlite3.connect(files[name])) as database:
                    database.execute(change)
            for listen, data, problem in [
                (f"127.0.0.1:{server.port}", None, "cannot listen on .*: Address already in use"),
                *(
                    (listen, None, "an address to listen on is")
                    for listen in ("127.0.0.1", "::1:80", "[::1]:99999", "[::1]:8x")
                ),
                ("no.such.host.invalid:80", None, "no address for no.such.host.invalid"),
                *(("127.0.0.1:0", name, "is not a data file of dsessd") for name in ("text", "foreign")),
                ("127.0.0.1:0", "newer", "has schema version 9"),
                ("127.0.0.1:0", "none", "there is no data file"),
            ]:
                arguments = ["--listen", listen, "--data", files.get(data, server.data), "--instance", "blue"]
                done = server.run("serve", *arguments, check=False)
                self.assertEqual((done.returncode, done.stdout), (1, ""), problem)
                self.assertRegex(done.stderr, rf"^dsessd: .*{problem}.*\n$")
            self.assertFalse(os.path.exists(files["none"]))
            serve = f"serve --listen 127.0.0.1:0 --data {server.data} --instance"
            for limit, problem in [
                ("ulimit -n 255", "256 descriptors"),
                ("ulimit -f 0", "the store takes no changes"),
            ]:
                done = subprocess.run(["sh", "-c", f'{limit}; "$DSESSD" {serve} x'], capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stdout, problem in done.stderr), (1, "", True), done.stderr)
            with contextlib.closing(sqlite3.connect(files["foreign"])) as database:
                self.assertEqual(database.execute("SELECT name FROM sqlite_schema").fetchall(), [("songs",)])
            wrong = ["", "bogus", f"{serve} a/b", f"{serve} a --tls-cert x", f"{serve} a --anonymous all"]
            for line in [*wrong, f"admin add x --data {server.data} --role root"]:
                self.assertEqual(server.run(*line.split(), check=False).returncode, 2, line)
            for lost in (">/dev/full", ">&-"):
                done = subprocess.run(["sh", "-c", f'"$DSESSD" --version {lost}'], stderr=subprocess.PIPE, text=True)
                self.assertEqual((done.returncode, "could not be written" in done.stderr), (1, True), lost)

    def test_finishes_what_is_in_progress_when_it_is_stopped(self):
        with Dsessd(cluster(150000), ROOT, anonymous="read") as server:
            with contextlib.closing(server.connect()) as idle, contextlib.closing(server.connect()) as slow:
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
            everything = cluster(150000)["realms"][0]["sessions"]
            everything.sort(key=lambda session: (session["user"], session["time"]))
            self.assertTrue(result["sessions"] == everything[:-1], "all that was there when the listing began")
            self.assertEqual(server.process.wait(DEADLINE), 0)

    def test_answers_and_ends_though_nobody_reads_its_log_and_tells_what_was_dropped(self):
        with Dsessd(administrators=ROOT, anonymous="read") as server:
            server.call("trace.set", level=3, **AS_ROOT)
            for reads in (False, True):
                server.stop()
                reader, writer = os.pipe()
                with open(reader, "rb") as log:
                    server.start(stderr=writer)
                    os.close(writer)
                    for _ in range(1500):
                        server.call("replicaSet.get", replicaSet="x" * 300)
                    said = b""
                    while reads and b"could not be written" not in said:
                        said += os.read(reader, 1 << 16)
                    begun = time.monotonic()
                    self.assertEqual(server.stop(), 0)
                    self.assertLess(time.monotonic() - begun, 5)
                    said += log.read()
            dropped = int(re.search(rb" failure lines that could not be written: (\d+)\n", said)[1])
            seen = len(re.findall(rb" request | detail ", said))
            self.assertGreater(seen, 500, "the pipe, and a queue")
            self.assertEqual(seen + dropped, 2 * 1500)

    def test_gives_the_journal_priorities_and_no_second_time(self):
        with Dsessd(administrators=ROOT) as server:
            server.stop()
            log = os.stat(server.directory / "log")
            server.environment = {**os.environ, "JOURNAL_STREAM": f"{log.st_dev}:{log.st_ino}"}
            before = len(server.log())
            server.start().call("key.change", **AS_ROOT)
            server.await_log(r"^<5>notice \w.*\n(<5>audit \w.*\n){2}$", before)

    def test_keeps_no_request_in_its_memory(self):
        secret = os.urandom(16).hex()
        with Dsessd(administrators=[("root", secret, "change")]) as server:
            text = request_text("trace.get", **{**AS_ROOT, "password": secret})
            text = text.replace(
                '"params"', f'"x": "{"y" * 20000}", "params"'
            )  # of freed memory the start is reused first
            with contextlib.closing(server.connect()) as kept:
                self.assertEqual(server.post(text, connection=kept)[0], 200)
                self.assertEqual(server.post(text[-5000:], "/nowhere")[0], 404)
                deadline = time.monotonic() + DEADLINE
                while any(secret.encode() in block for block in memory_of(server.process.pid)):
                    self.assertLess(time.monotonic(), deadline)
                self.assertEqual(server.post(text, connection=kept)[0], 200, "and not because the connection has ended")


def realm(fields):
    return "{'realms':[{" + fields + "}]}"


def session(time, rest=""):
    return realm(f"'name':'r','sessions':[{{'id':'s','user':'u'{time}}}{rest}]")


FAULTY = [  # what is no cluster, and what is said of it
    ("[]", "1: the cluster is not an object"),
    ("{\n'realms': [\n{'nmae': 1}]}", "3: realms[0] has a field 'nmae', which a realm does not have"),
    ("{'realms': {}}", "1: realms is an object where there should be none"),
    ("{'realms': []}\0x", "1: extra data"),
    ("{'realms': " + "[" * 100000, "1: realms[0] is something other than an object"),
    (realm(""), "1: realms[0] lacks the field 'name'"),
    (realm("'name':'a'},\n{'name':'a'"), "2: realms[1] is a realm 'a' that comes twice"),
    (realm("'name':'a',\n'name':'b'"), "2: realms[0].name comes twice"),
    *(
        (realm(f"'name':'{text}'"), "1: realms[0].name is empty, longer than 1024 bytes, or not UTF-8")
        for text in ("", "\udcff", "x" * 1025, "x" * 10**6)
    ),
    (realm("'name':5"), "1: realms[0].name is of the wrong type"),
    *((session(both), "one of the fields 'time' and 'age'") for both in ("", ",'age':1,'time':1")),
    *(
        (session(time), "realms[0].sessions[0] has a time that is not between 0 and 2147483647")
        for time in (",'time':-1", ",'time':2147483648", ",'age':-1", ",'age':2147483648")
    ),
    (session(",'time':1.5"), "sessions[0].time is neither text nor a whole number"),
    (session(",'time':1", ",\n{'id':'s','user':'v','time':1}"), "2: realms[0].sessions[1] is a session 's'"),
]


class Loading(unittest.TestCase):
    def test_replaces_the_cluster_under_a_running_server_if_it_has_no_mistake(self):
        with Dsessd(administrators=ROOT) as server:

            def result(method, **parameters):
                return server.call(method, **AS_ROOT, **parameters)["result"]

            def load(text, source="-"):
                done = server.run("load", "--data", server.data, source, input=text.replace("'", '"'), check=False)
                return done.stdout + done.stderr.replace('"', "'")

            before = result("cluster.get")
            for text, problem in FAULTY:
                said = load(text)
                self.assertRegex(said, "^dsessd: -, line [^\n]*; nothing was loaded\n$")
                self.assertIn(problem, said, text[:99])
            self.assertEqual(load("", "/x"), "dsessd: /x cannot be read: No such file or directory\n")
            self.assertEqual(result("cluster.get"), before)
            result("trace.set", level=7)
            sets = "'replicaSets':[{'members':[{'age':5,'name':'m'}],'name':'set'}]"
            said = load(realm(f"'sessions':[{{'age':10,'user':'u','id':'s'}}],{sets},'name':'east'"))
            self.assertEqual(said, "dsessd: loaded realms: 1, replica sets: 1, members: 1, keys: 0, sessions: 1\n")
            now = int(time.time())
            listing = result("session.list", realm="east", selector="user", value="*", max=-1)["sessions"]
            members = result("replicaSet.get", replicaSet="set")["records"]
            self.assertTrue(now - 20 <= listing[0]["time"] < now - 9 and now - 15 <= members[0]["time"] < now - 4)
            key = result("cluster.get")["key"]
            self.assertEqual((key["label"][:4], key["previousTime"]), ("key-", 0), "a first key")
            self.assertEqual(result("trace.get"), {"level": 7})

    def test_shows_on_a_terminal_how_far_a_load_is(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        data, file = folder / "cluster.db", folder / "cluster.json"
        subprocess.run([BINARY, "load", "--data", data, SAMPLE], check=True, capture_output=True)
        file.write_text(json.dumps(cluster(5000)))
        begin, rate = r"\r\x1b\[Kloading: ", r"\d+ a second"
        end = r"\r\x1b\[Kdsessd: loaded realms: 1, [^\r]*\r\n$"
        for columns, shown in [
            (80, rf"77%, \d+ s left, 4096 sessions, {rate}{begin}to the disk, 5000 sessions, {rate}"),
            (33, rf"77%, \d+ s left{begin}to the disk"),
        ]:
            with subprocess.Popen([BINARY, "load", "--data", data, "-"], bufsize=0, stdin=subprocess.PIPE) as other:
                other.stdin.write(b" " * 200_000)  # it reads once it has what the other load waits for
                terminal = Terminal([BINARY, "load", "--data", str(data), str(file)], os.environ)
                self.addCleanup(terminal.close)
                termios.tcsetwinsize(terminal.master, (24, columns))
                files = f"ls -l /proc/{terminal.pid}/fd"
                terminal.until(lambda: re.search(r"(?m)/cluster\.db$", subprocess.getoutput(files)), "open file")
                time.sleep(1)  # less than half of that is not worth a line
                other.kill()
                self.assertRegex(" ".join(map(str, terminal.ended())), f"^0 {begin}{shown}{end}")


class Administrators(unittest.TestCase):
    def outcome(self, server, name, password):
        answer = server.call("cluster.get", user=name, password=password, login_id="same")
        return "done" if "result" in answer else answer["error"]["data"]["name"]

    def test_take_effect_at_once_in_a_running_server(self):
        with Dsessd() as server:
            data = ["--data", server.data]
            changed = "administrator josé has a new password, may "
            for command, typed, said, password, outcome in [
                ("add josé", "first1\r\nsecond\n", "administrator josé added, may change", "first1", "done"),
                ("add josé --role read", "second", f"{changed}read", "first1", "identity-refused"),
                ("password josé", "third3", f"{changed}read", "third3", "done"),
                ("add josé", "fourth", f"{changed}read", "fourth", "done"),
                ("list", "", "josé read", "fourth", "done"),
                ("remove josé", "", "administrator josé removed", "fourth", "identity-refused"),
                ("list", "", "", "fourth", "identity-refused"),
            ]:
                done = server.run("admin", *command.split(), *data, input=typed)
                self.assertEqual(done.stdout.removeprefix("dsessd: ").rstrip("\n"), said)
                for _ in range(2):
                    self.assertEqual(self.outcome(server, "josé", password), outcome, said)
            for verb, name, typed in [
                ("remove", "josé", ""),
                ("password", "josé", "SECRET"),
                *(("add", "x", typed) for typed in ("", "\n", "y" * 512, "\udcff" * 6, "ümläü")),
                *(("add", name, "SECRET") for name in ("", "anonymous", "\udcff", "n" * 1025)),
            ]:
                done = server.run("admin", verb, name, *data, input=typed, check=False)
                self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (1, "", 1), (name, typed))
            by = f", by .* on {re.escape(socket.gethostname())}\n"
            acts = (
                f"audit administrator josé added, may change{by}",
                f"{changed}read{by}",
                f"administrator josé removed{by}",
            )
            for act in acts:
                server.await_log(act)

    def test_are_asked_for_their_password_without_echo(self):
        with Dsessd() as server:
            for answers, ended in [
                (("tiptop\n", "tiptop\n"), (0, "\r\ndsessd: administrator root added, may change\r\n")),
                (("one111\n", "two222\n"), (1, "\r\ndsessd: the two passwords differ\r\n")),
                (("one111\n", "\x03"), (-signal.SIGINT, "\r\n")),
            ]:
                terminal = Terminal([BINARY, "admin", "add", "root", "--data", server.data], os.environ)
                self.addCleanup(terminal.close)
                for prompt, answer in zip(("Password for root: ", "Once more: "), answers):
                    self.assertEqual(terminal.asks(prompt).strip(), "")
                    terminal.type(answer)
                self.assertEqual(terminal.ended(), ended)
                self.assertTrue(terminal.echoes(), "the terminal has its echo back")
            self.assertEqual(self.outcome(server, "root", "tiptop"), "done", "nothing was changed")
