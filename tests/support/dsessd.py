"""Starts a dsessd for whole-process tests.

    with Dsessd(administrators=[("root", "SECRET", "change")], anonymous="read") as server:
        server.call("cluster.get")

The binary is the one named by the environment variable DSESSD, or else build/bin/dsessd. Data live in a directory of
their own; ports are the system's choice; the process is gone when the block ends, however it ends.
"""

import http.client
import json
import os
import pathlib
import re
import select
import signal
import ssl
import subprocess
import tempfile

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BINARY = os.environ.get("DSESSD", str(REPOSITORY / "build" / "bin" / "dsessd"))
SAMPLE = REPOSITORY / "server" / "sample" / "cluster.json"
DEADLINE = 30  # seconds; generous, for loaded machines and sanitizers
ROOT = [("root", "SECRET", "change")]
AS_ROOT = {"user": "root", "password": "SECRET", "login_id": "qk=1"}


def request_text(method, user="anonymous", password=None, login_id=None, **parameters):
    security = {"user": user, "password": password, "loginId": login_id}
    return json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": {"security": security, **parameters}})


class Dsessd:
    def __init__(
        self,
        cluster=SAMPLE,
        administrators=(),
        instances=("blue",),
        anonymous="none",
        tls=None,
        listen="127.0.0.1:0",
        client_context=None,
    ):
        """cluster: path of a JSON file or an object to write as one. administrators: (name, password, role). tls: dict
        with "cert", "key" and perhaps "client_ca", paths. client_context: ssl.SSLContext for call() with tls."""
        self._directory = tempfile.TemporaryDirectory(prefix="dsessd-")
        self.directory = pathlib.Path(self._directory.name)
        self.data = str(self.directory / "cluster.db")
        self.instances, self.anonymous, self.tls, self.listen = list(instances), anonymous, tls, listen
        self.client_context = client_context
        self.process = self.host = self.port = self.ready_line = None
        if not isinstance(cluster, os.PathLike):
            source = self.directory / "cluster.json"
            source.write_text(json.dumps(cluster), encoding="utf-8")
            cluster = source
        self.run("load", "--data", self.data, cluster)
        for name, password, role in administrators:
            self.run("admin", "add", name, "--data", self.data, "--role", role, input=password + "\n")

    def run(self, *arguments, check=True, **options):
        """Runs another dsessd command to its end."""
        return subprocess.run(
            [BINARY, *arguments],
            check=check,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
            errors="surrogateescape",
            **options,
        )

    def start(self):
        arguments = [BINARY, "serve", "--listen", self.listen, "--data", self.data, "--anonymous", self.anonymous]
        arguments += [word for instance in self.instances for word in ("--instance", instance)]
        for option, name in (("--tls-cert", "cert"), ("--tls-key", "key"), ("--client-ca", "client_ca")):
            if name in (self.tls or {}):
                arguments += [option, str(self.tls[name])]
        with open(self.directory / "log", "ab") as log:
            self.process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log)
        ready = select.select([self.process.stdout], [], [], DEADLINE)[0]
        self.ready_line = os.read(self.process.stdout.fileno(), 1000).decode() if ready else ""  # it is written at once
        match = re.match(r"dsessd: listening on https?://(.*):(\d+)/ for instances ", self.ready_line)
        if not match:
            self.kill()
            raise RuntimeError(f"no readiness line but {self.ready_line!r}; log: {self.log()}")
        self.host, self.port = match[1].strip("[]"), int(match[2])
        self.listen = f"{match[1]}:{self.port}"  # a restart comes back to the same place
        return self

    def stop(self, how=signal.SIGTERM):
        """Sends a signal and gives the exit status (negative: the signal that ended it)."""
        self.process.send_signal(how)
        status = self.process.wait(DEADLINE)
        self.process.stdout.close()
        self.process = None
        return status

    def kill(self):
        if self.process is not None:
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
        if self.tls:
            context = self.client_context or ssl._create_unverified_context()
            return http.client.HTTPSConnection(self.host, self.port, timeout=DEADLINE, context=context)
        return http.client.HTTPConnection(self.host, self.port, timeout=DEADLINE)

    def post(self, body, path=None, connection=None):
        """(HTTP status, body) of one POST."""
        own = connection is None
        connection = connection or self.connect()
        try:
            connection.request(
                "POST",
                path or f"/{self.instances[0]}/services/DSessAdminProxy",
                body,
                {"Content-Type": "application/json"},
            )
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            if own:
                connection.close()

    def call(self, method, connection=None, **fields):
        """The JSON-RPC answer to what request_text() makes of the fields."""
        return json.loads(self.post(request_text(method, **fields), connection=connection)[1])
