"""Starts a dsessd for whole-process tests: with Dsessd(administrators=ROOT) as server: server.call("cluster.get").
Data live in a directory of their own; ports are the system's choice; the process is gone when the block ends."""

import contextlib
import copy
import http.client
import json
import os
import pathlib
import re
import signal
import ssl
import subprocess
import tempfile
import time

from postgres import new_database

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BINARY = os.environ["DSESSD"]
SAMPLE = REPOSITORY / "server" / "sample" / "cluster.json"
DEADLINE = 60  # seconds; generous, for loaded machines and sanitizers
POSTGRES = os.environ.get("DSESSD_POSTGRES")  # see postgres.py
ROOT = [("root", "SECRET", "change")]
AS_ROOT = {"user": "root", "password": "SECRET", "login_id": "qk=1"}
JSON = {"Content-Type": "application/json"}


def request_text(method, user="anonymous", password=None, login_id=None, **parameters):
    security = {"user": user, "password": password, "loginId": login_id}
    return json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": {"security": security, **parameters}})


def memory_of(pid):
    """What a process has written to its memory, without the huge map that a sanitizer keeps of it."""
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for start, end in re.findall(r"(?m)^(\w+)-(\w+) rw", maps.read()):
            size = int(end, 16) - int(start, 16)
            memory.seek(int(start, 16))
            with contextlib.suppress(OSError):  # what has just gone, or was never there
                yield memory.read(size if size < 1 << 28 else 0)


class Dsessd:
    environment = None  # of the server, None for the same as here

    def __init__(self, cluster=SAMPLE, administrators=(), instances=("blue",), postgres=None, **options):
        """cluster: path of a JSON file, or what to write as one. administrators: (name, password, role). postgres:
        the directory of one that holds the data. options: those of serve, with _ for -."""
        self._make_directory()
        postgres = postgres or POSTGRES
        self.data = new_database(postgres) if postgres else str(self.directory / "cluster.db")
        self.instances = instances
        self.options = {"listen": "127.0.0.1:0", "data": self.data, "anonymous": "none", **options}
        self.context = ssl._create_unverified_context() if "tls_cert" in options else None
        text = cluster.read_text() if isinstance(cluster, os.PathLike) else json.dumps(cluster)
        self.run("load", "--data", self.data, "-", input=text)
        for name, password, role in administrators:
            self.run("admin", "add", name, "--data", self.data, "--role", role, input=password + "\n")

    def _make_directory(self):
        self._directory = tempfile.TemporaryDirectory(prefix="dsessd-")
        self.directory = pathlib.Path(self._directory.name)

    def another(self):
        """A further node of the same cluster."""
        node = copy.copy(self)
        node._make_directory()
        node.options = {**self.options, "listen": "127.0.0.1:0"}
        return node

    def run(self, *arguments, check=True, **options):
        """Runs another dsessd command to its end."""
        options = {"timeout": DEADLINE, "errors": "surrogateescape", "capture_output": True, **options}
        return subprocess.run([BINARY, *arguments], check=check, text=True, **options)

    def start(self, stderr=None):
        """stderr: where the log goes, None for a file that log() reads."""
        words = [word for name, value in self.options.items() for word in ("--" + name.replace("_", "-"), value)]
        with open(self.directory / "log", "ab") as log:
            command = [BINARY, "serve", *words, "--instance", *self.instances]
            streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": stderr or log}
            self.process = subprocess.Popen(command, env=self.environment, **streams)
        self.ready_line = self.process.stdout.readline().decode()
        match = re.match(r"dsessd: listening on https?://((.*):(\d+))/ for instances ", self.ready_line)
        if not match:
            self.stop(signal.SIGKILL)
            raise RuntimeError(f"{self.ready_line!r} is no readiness line; log: {self.log()}")
        self.options["listen"] = match[1]  # a restart comes back to the same place
        self.host, self.port = match[2].strip("[]"), int(match[3])
        return self

    def stop(self, how=signal.SIGTERM):
        """Sends a signal and gives the exit status (negative: the signal that ended it)."""
        with self.process as process:
            process.send_signal(how)
            return process.wait(DEADLINE)

    def hang_up(self, line):
        """Has it read its certificates anew, and waits for what the log says of that, a regular expression."""
        before = len(self.log())
        self.process.send_signal(signal.SIGHUP)
        self.await_log(line, before)

    def await_log(self, line, after=0):
        """Waits for what the log says, a regular expression. On a busy machine an answer comes before its line."""
        deadline = time.monotonic() + DEADLINE
        while not re.search(line, said := self.log()[after:]):
            if time.monotonic() > deadline:
                raise AssertionError(f"no {line} in {said}")
            time.sleep(0.01)

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop(signal.SIGKILL)
        self._directory.cleanup()

    def log(self):
        return (self.directory / "log").read_text(encoding="utf-8")

    def connect(self):
        """A connection for post()."""
        if self.context:
            return http.client.HTTPSConnection(self.host, self.port, timeout=DEADLINE, context=self.context)
        return http.client.HTTPConnection(self.host, self.port, timeout=DEADLINE)

    def post(self, body, path="/blue/services/DSessAdminProxy", connection=None):
        """(HTTP status, body) of one POST."""
        with contextlib.nullcontext(connection) if connection else contextlib.closing(self.connect()) as used:
            used.request("POST", path, body, JSON)
            response = used.getresponse()
            return response.status, response.read()

    def call(self, method, connection=None, **fields):
        """The JSON-RPC answer to what request_text() makes of the fields."""
        return json.loads(self.post(request_text(method, **fields), connection=connection)[1])
