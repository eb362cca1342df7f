"""Starts a dsessd for whole-process tests: with Dsessd(administrators=ROOT) as server: server.call("cluster.get").
Data live in a directory of their own; ports are the system's choice; the process is gone when the block ends."""

import contextlib
import http.client
import json
import os
import pathlib
import re
import signal
import ssl
import subprocess
import tempfile

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BINARY = os.environ["DSESSD"]
SAMPLE = REPOSITORY / "server" / "sample" / "cluster.json"
DEADLINE = 60  # seconds; generous, for loaded machines and sanitizers
ROOT = [("root", "SECRET", "change")]
AS_ROOT = {"user": "root", "password": "SECRET", "login_id": "qk=1"}
JSON = {"Content-Type": "application/json"}


def request_text(method, user="anonymous", password=None, login_id=None, **parameters):
    security = {"user": user, "password": password, "loginId": login_id}
    return json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": {"security": security, **parameters}})


class Dsessd:
    def __init__(self, cluster=SAMPLE, administrators=(), instances=("blue",), **settings):
        """cluster: path of a JSON file or an object to write as one. administrators: (name, password, role). settings:
        listen, anonymous; tls, the paths "cert", "key" and perhaps "client_ca"; client_context for call() with tls."""
        self._directory = tempfile.TemporaryDirectory(prefix="dsessd-")
        self.directory = pathlib.Path(self._directory.name)
        self.data = str(self.directory / "cluster.db")
        self.instances, self.listen = list(instances), settings.get("listen", "127.0.0.1:0")
        self.anonymous, self.tls = settings.get("anonymous", "none"), settings.get("tls") or {}
        self.client_context = settings.get("client_context")
        if not isinstance(cluster, os.PathLike):
            source, cluster = cluster, self.directory / "cluster.json"
            cluster.write_text(json.dumps(source), encoding="utf-8")
        self.run("load", "--data", self.data, cluster)
        for name, password, role in administrators:
            self.run("admin", "add", name, "--data", self.data, "--role", role, input=password + "\n")

    def run(self, *arguments, check=True, **options):
        """Runs another dsessd command to its end."""
        options = {"timeout": DEADLINE, "errors": "surrogateescape", "capture_output": True, **options}
        return subprocess.run([BINARY, *arguments], check=check, text=True, **options)

    def start(self):
        arguments = [BINARY, "serve", "--listen", self.listen, "--data", self.data, "--anonymous", self.anonymous]
        arguments += ["--instance", *self.instances]
        for name, path in self.tls.items():
            arguments += [{"cert": "--tls-cert", "key": "--tls-key", "client_ca": "--client-ca"}[name], path]
        with open(self.directory / "log", "ab") as log:
            self.process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log)
        self.ready_line = self.process.stdout.readline().decode()
        match = re.match(r"dsessd: listening on https?://(.*):(\d+)/ for instances ", self.ready_line)
        if not match:
            self.kill()
            raise RuntimeError(f"{self.ready_line!r} is no readiness line; log: {self.log()}")
        self.host, self.port = match[1].strip("[]"), int(match[2])
        self.listen = f"{match[1]}:{self.port}"  # a restart comes back to the same place
        return self

    def stop(self, how=signal.SIGTERM):
        """Sends a signal and gives the exit status (negative: the signal that ended it)."""
        with self.process as process:
            process.send_signal(how)
            return process.wait(DEADLINE)

    def kill(self):
        self.stop(signal.SIGKILL)

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.kill()
        self._directory.cleanup()

    def log(self):
        return (self.directory / "log").read_text(encoding="utf-8")

    def connect(self):
        """A connection for post()."""
        if not self.tls:
            return http.client.HTTPConnection(self.host, self.port, timeout=DEADLINE)
        context = self.client_context or ssl._create_unverified_context()
        return http.client.HTTPSConnection(self.host, self.port, timeout=DEADLINE, context=context)

    def post(self, body, path="/blue/services/DSessAdminProxy", connection=None):
        """(HTTP status, body) of one POST."""
        with contextlib.nullcontext(connection) if connection else contextlib.closing(self.connect()) as used:
            used.request("POST", path, body, JSON)
            response = used.getresponse()
            return response.status, response.read()

    def call(self, method, connection=None, **fields):
        """The JSON-RPC answer to what request_text() makes of the fields."""
        return json.loads(self.post(request_text(method, **fields), connection=connection)[1])
