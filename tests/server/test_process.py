"""The dsessd process from outside: start, stop, its other commands, and what SIGKILL leaves behind."""

import http.client
import json
import os
import pty
import re
import signal
import socket
import sqlite3
import subprocess
import sys
import termios
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from dsessd import BINARY, DEADLINE, SAMPLE, Dsessd  # noqa: E402

ROOT = [("root", "SECRET", "change")]
AS_ROOT = {"user": "root", "password": "SECRET", "login_id": "one"}


def many_sessions(count):
    return {"realms": [{"name": "east", "sessions": [
        {"id": f"{i:08x}", "user": f"user{i % 100}", "time": 1790000000 + i} for i in range(count)]}]}


class Serving(unittest.TestCase):
    def test_says_on_one_line_where_it_listens_and_ends_cleanly(self):
        for listen, shown in [("127.0.0.1:0", r"127\.0\.0\.1"), ("[::1]:0", r"\[::1\]"), ("localhost:0", "localhost")]:
            for how in (signal.SIGTERM, signal.SIGINT):
                with self.subTest(listen=listen, how=how), Dsessd(
                        listen=listen, instances=["blue", "green"], anonymous="read") as server:
                    self.assertRegex(server.ready_line, rf"^dsessd: listening on http://{shown}:\d+/ for instances blue, green\n$")
                    for path in ("/blue/services/DSessAdmin", "/green/services/DSessAdminProxy"):
                        status, body = server.post('{"jsonrpc":"2.0","id":1,"method":"trace.get","params":{"security":'
                                                   '{"user":"anonymous"}}}', path)
                        self.assertEqual((status, body), (200, b'{"jsonrpc":"2.0","id":1,"result":{"level":1}}'))
                    stdout = server.process.stdout
                    server.process.send_signal(how)
                    self.assertEqual(stdout.read(), b"", "one line on standard output and no more")
                    self.assertEqual(server.process.wait(DEADLINE), 0)
                    for line in server.log().splitlines():
                        self.assertRegex(line, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (notice|audit) ")

    def test_names_on_one_line_what_keeps_it_from_starting(self):
        with Dsessd() as server, socket.create_server(("127.0.0.1", 0)) as taken:
            text = server.directory / "text"
            text.write_text("x" * 5000)
            data = str(server.data)
            listen = "127.0.0.1:0"
            for arguments, problem in [
                ([f"127.0.0.1:{taken.getsockname()[1]}", data], "cannot listen on .*: Address already in use"),
                (["127.0.0.1", data], "--listen takes HOST:PORT"),
                (["::1:80", data], "--listen takes HOST:PORT"),
                (["127.0.0.1:99999", data], "--listen takes HOST:PORT"),
                (["no.such.host.invalid:80", data], "no address for no.such.host.invalid"),
                ([listen, str(text)], "is not a data file of dsessd"),
                ([listen, str(text) + "-none"], "there is no data file"),
                ([listen, str(server.directory)], "cannot be used"),
                ([listen, data, "--tls-cert", "/none", "--tls-key", "/none"], "the certificate /none cannot be used"),
                ([listen, data, "--tls-cert", str(text), "--tls-key", str(text)], "the certificate .* cannot be used"),
            ]:
                with self.subTest(problem=problem):
                    done = server.run("serve", "--instance", "blue", "--listen", arguments[0], "--data", *arguments[1:],
                                      check=False)
                    self.assertEqual((done.returncode, done.stdout), (1, ""))
                    self.assertRegex(done.stderr, rf"^dsessd: .*{problem}.*\n$")
            for arguments in (["serve"], ["serve", "--listen", listen, "--data", data, "--instance", "a/b"],
                              ["serve", "--listen", listen, "--data", data, "--instance", "a", "--tls-cert", "x"],
                              ["serve", "--listen", listen, "--data", data, "--instance", "a", "--anonymous", "all"],
                              ["admin", "add", "x", "--data", data, "--role", "root"], ["bogus"], []):
                self.assertEqual(server.run(*arguments, check=False).returncode, 2, arguments)

    def test_finishes_what_is_in_progress_when_it_is_stopped(self):
        with Dsessd(cluster=many_sessions(150000), anonymous="read") as server:
            idle, slow = server.connect(), server.connect()
            server.call("trace.get", connection=idle)
            slow.request("POST", "/blue/services/DSessAdmin", json.dumps(
                {"jsonrpc": "2.0", "id": 1, "method": "session.list", "params": {
                    "security": {"user": "anonymous"}, "realm": "east", "selector": "user", "value": "*", "max": -1}}),
                         {"Content-Type": "application/json"})
            response = slow.getresponse()
            start = response.read(10)
            server.process.send_signal(signal.SIGTERM)
            time.sleep(0.3)
            self.assertIsNone(server.process.poll(), "the answer is not finished")
            with self.assertRaises(ConnectionError):
                server.call("trace.get")
            answer = json.loads(start + response.read())
            self.assertEqual(len(answer["result"]["sessions"]), 150000)
            self.assertEqual(server.process.wait(DEADLINE), 0)
            idle.close()
            slow.close()


class Crashing(unittest.TestCase):
    def test_loses_nothing_acknowledged_to_sigkill_and_leaves_a_sound_file(self):
        with Dsessd(cluster=many_sessions(4000), administrators=ROOT) as server:
            keys, ended, failures = [], [], []
            for turn in range(4):
                def change(worker):
                    connection = server.connect()
                    try:
                        for i in range(worker, 1000, 4):
                            session = f"{turn * 1000 + i:08x}"
                            answer = server.call("session.terminate", connection=connection, realm="east",
                                                 selector="session", value=session, **AS_ROOT)
                            ended.append((session, answer["result"]["count"]))
                            answer = server.call("key.change", connection=connection, **AS_ROOT)
                            keys.append(answer["result"]["key"]["label"])
                    except (OSError, http.client.HTTPException, json.JSONDecodeError):
                        pass  # the server was killed
                    except Exception as error:
                        failures.append(error)
                    finally:
                        connection.close()
                threads = [threading.Thread(target=change, args=(n,)) for n in range(4)]
                for thread in threads:
                    thread.start()
                enough, deadline = len(keys) + 40 + 15 * turn, time.monotonic() + DEADLINE
                while len(keys) < enough and time.monotonic() < deadline:
                    time.sleep(0.002)
                self.assertGreaterEqual(len(keys), enough, "too slow to be killed in the act")
                server.kill()
                for thread in threads:
                    thread.join()
                self.assertEqual(failures, [])
                database = sqlite3.connect(server.data)
                self.assertEqual(database.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
                self.assertEqual(database.execute("PRAGMA foreign_key_check").fetchall(), [])
                kept = {label for (label,) in database.execute("SELECT label FROM keys")}
                self.assertLessEqual(set(keys), kept)
                left = {name for (name,) in database.execute("SELECT id FROM sessions")}
                self.assertEqual(left & {session for session, _ in ended}, set())
                self.assertEqual({count for _, count in ended}, {1})
                database.close()
                server.start()
                self.assertIn("result", server.call("cluster.get", **AS_ROOT))


class Loading(unittest.TestCase):
    def test_replaces_the_cluster_under_a_running_server_or_leaves_it(self):
        with Dsessd(administrators=ROOT) as server:
            bad = server.directory / "bad.json"
            bad.write_text('{"realms": [\n{"name": "a"},\n{"name": 1}]}')
            done = server.run("load", "--data", str(server.data), str(bad), check=False)
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            self.assertEqual(done.stderr, f'dsessd: {bad}, line 3: the field "name" of a realm is of the wrong type; '
                                          'nothing was loaded\n')
            self.assertEqual(server.call("cluster.get", **AS_ROOT)["result"]["count"], 3)
            done = server.run("load", "--data", str(server.data), "-", input=json.dumps(many_sessions(7)))
            self.assertEqual((done.stdout, done.stderr), ("dsessd: loaded realms: 1, replica sets: 0, members: 0, "
                                                          "keys: 0, sessions: 7\n", ""))
            listing = server.call("session.list", realm="east", selector="user", value="*", max=1, **AS_ROOT)["result"]
            self.assertEqual((listing["total"], listing["count"]), (7, 1))
            done = server.run("load", "--data", str(server.data), "/none", check=False)
            self.assertEqual(done.stderr, "dsessd: /none cannot be read: No such file or directory\n")

    def test_the_sample_looks_like_life(self):
        cluster = json.loads(SAMPLE.read_text(encoding="utf-8"))
        self.assertEqual([realm["name"] for realm in cluster["realms"]], ["east", "west", "north"])
        with Dsessd(administrators=ROOT) as server:
            answer = server.call("cluster.get", **AS_ROOT)["result"]
            self.assertGreater(answer["key"]["previousTime"], 0)
            for realm in answer["realms"]:
                for name in realm["replicaSets"]:
                    self.assertIn(server.call("replicaSet.get", replicaSet=name, **AS_ROOT)["result"]["count"], (2, 3, 4))
            for pattern, least in [("*", 100), ("mallory", 2), ("jos?", 1), ("łuk*", 1), ("наталья", 1), ("李*", 1)]:
                found = server.call("session.list", realm="east", selector="user", value=pattern, max=-1, **AS_ROOT)
                self.assertGreaterEqual(found["result"]["total"], least, pattern)


class Administrators(unittest.TestCase):
    def outcome(self, server, name, password):
        answer = server.call("cluster.get", user=name, password=password, login_id="same")
        return "done" if "result" in answer else answer["error"]["data"]["name"]

    def test_take_effect_at_once_in_a_running_server(self):
        with Dsessd() as server:
            data = ["--data", str(server.data)]
            steps = [(["add", "josé", *data], "first\nsecond\n", "administrator josé added, may change", "first", "done"),
                     (["add", "josé", *data, "--role", "read"], "other", "administrator josé changed, may read", "first",
                      "identity-refused"),
                     (["list", *data], "", "josé read", "other", "done"),
                     (["remove", "josé", *data], "", "administrator josé removed", "other", "identity-refused")]
            for arguments, typed, said, password, outcome in steps:
                done = server.run("admin", *arguments, input=typed)
                self.assertEqual(done.stdout.removeprefix("dsessd: "), said + "\n")
                for _ in range(2):
                    self.assertEqual(self.outcome(server, "josé", password), outcome, said)
            for arguments, typed in [(["remove", "josé"], ""), (["add", "x"], ""), (["add", "x"], "\n"),
                                     (["add", "x"], "y" * 512), (["add", "anonymous"], "x"), (["add", ""], "x")]:
                done = server.run("admin", *arguments, *data, input=typed, check=False)
                self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (1, "", 1), arguments)
            self.assertEqual(server.run("admin", "list", *data).stdout, "")
            self.assertEqual(os.stat(server.data).st_mode & 0o777, 0o600)

    def typing(self, server, answers, name="root"):
        """Runs `admin add` on a terminal; answers each prompt. A number is sent as a signal. Gives status and output."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.execv(BINARY, [BINARY, "admin", "add", name, "--data", str(server.data)])
        output = b""

        def read_until(pattern):
            nonlocal output
            while not re.search(pattern, output):
                try:
                    piece = os.read(terminal, 1000)
                except OSError:
                    return
                output += piece
        with open(terminal, "wb", buffering=0, closefd=True) as keyboard:
            for prompt, answer in answers:
                read_until(prompt)
                self.assertFalse(termios.tcgetattr(terminal)[3] & termios.ECHO, "no echo at the prompt")
                if isinstance(answer, int):
                    os.kill(pid, answer)
                else:
                    keyboard.write(answer.encode() + b"\n")
            read_until(rb"\Z(?!x)x")
            echo = bool(termios.tcgetattr(terminal)[3] & termios.ECHO)
            status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        self.assertTrue(echo, "the terminal has its echo back")
        return status, output.decode().replace("\r", "")

    def test_are_asked_for_their_password_without_echo(self):
        first, second = rb"Password for root: $", rb"Once more: $"
        with Dsessd() as server:
            status, output = self.typing(server, [(first, "tiptop"), (second, "tiptop")])
            self.assertEqual((status, output), (0, "Password for root: \nOnce more: \n"
                                                   "dsessd: administrator root added, may change\n"))
            self.assertEqual(self.outcome(server, "root", "tiptop"), "done")
            status, output = self.typing(server, [(first, "one"), (second, "two")])
            self.assertEqual(status, 1)
            self.assertIn("the two passwords differ", output)
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
                status, output = self.typing(server, [(first, "one"), (second, int(number))])
                self.assertEqual(status, -number)
            self.assertEqual(self.outcome(server, "root", "tiptop"), "done", "nothing was changed")


if __name__ == "__main__":
    unittest.main()
