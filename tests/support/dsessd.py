"""Starts a dsessd for whole-process tests.

    with Dsessd(administrators=[("root", "SECRET", "change")], anonymous="read") as server:
        server.url("blue"), server.call("cluster.get")

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
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BINARY = os.environ.get("DSESSD", str(ROOT / "build" / "bin" / "dsessd"))
SAMPLE = ROOT / "server" / "sample" / "cluster.json"
DEADLINE = 30  # seconds; generous, for loaded machines and sanitizers


class Dsessd:
    def __init__(self, cluster=SAMPLE, administrators=(), instances=("blue",), anonymous="none", tls=None,
                 listen="127.0.0.1:0", client_context=None):
        """cluster: path of a JSON file, an object to write as one, or None for a data file that exists already.
        administrators: (name, password, role). tls: dict with "cert", "key" and perhaps "client_ca", paths.
        client_context: ssl.SSLContext for call() when tls is given."""
        self._directory = tempfile.TemporaryDirectory(prefix="dsessd-")
        self.directory = pathlib.Path(self._directory.name)
        self.data = self.directory / "cluster.db"
        self.log_path = self.directory / "log"
        self.instances = list(instances)
        self.anonymous = anonymous
        self.tls = tls
        self.listen = listen
        self.client_context = client_context
        self.process = None
        self.host = self.port = self.ready_line = None
        self._ids = 0
        if cluster is not None:
            self.load(cluster)
        for name, password, role in administrators:
            self.add_administrator(name, password, role)

    def load(self, cluster):
        if not isinstance(cluster, (str, os.PathLike)):
            path = self.directory / "cluster.json"
            path.write_text(json.dumps(cluster), encoding="utf-8")
            cluster = path
        self.run("load", "--data", str(self.data), str(cluster))

    def add_administrator(self, name, password, role="change"):
        self.run("admin", "add", name, "--data", str(self.data), "--role", role, input=password + "\n")

    def run(self, *arguments, check=True, **options):
        """Runs another dsessd command to its end."""
        return subprocess.run([BINARY, *arguments], check=check, capture_output=True, text=True, timeout=DEADLINE,
                              **options)

    def serve_arguments(self):
        arguments = [BINARY, "serve", "--listen", self.listen, "--data", str(self.data), "--anonymous", self.anonymous]
        for instance in self.instances:
            arguments += ["--instance", instance]
        if self.tls:
            arguments += ["--tls-cert", str(self.tls["cert"]), "--tls-key", str(self.tls["key"])]
            if "client_ca" in self.tls:
                arguments += ["--client-ca", str(self.tls["client_ca"])]
        return arguments

    def start(self):
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(self.serve_arguments(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                            stderr=log)
        self.ready_line = self._first_line()
        match = re.match(r"dsessd: listening on (https?)://(.*):(\d+)/ for instances ", self.ready_line)
        if not match:
            self.kill()
            raise RuntimeError(f"no readiness line but {self.ready_line!r}; log: {self.log()}")
        self.scheme, self.host, self.port = match[1], match[2].strip("[]"), int(match[3])
        self.listen = f"{match[2]}:{self.port}"  # a restart comes back to the same place
        return self

    def _first_line(self):
        line, deadline = b"", time.monotonic() + DEADLINE
        while not line.endswith(b"\n"):
            if not select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))[0]:
                break
            piece = os.read(self.process.stdout.fileno(), 1)
            if not piece:
                break
            line += piece
        return line.decode()

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
        return self.log_path.read_text(encoding="utf-8")

    def url(self, instance=None):
        host = f"[{self.host}]" if ":" in self.host else self.host
        return f"{self.scheme}://{host}:{self.port}/{instance or self.instances[0]}"

    def connect(self, timeout=DEADLINE):
        """A connection for post()."""
        if self.tls:
            context = self.client_context or ssl._create_unverified_context()
            return http.client.HTTPSConnection(self.host, self.port, timeout=timeout, context=context)
        return http.client.HTTPConnection(self.host, self.port, timeout=timeout)

    def post(self, body, path=None, headers=None, connection=None):
        """(HTTP status, body) of one POST."""
        own = connection is None
        connection = connection or self.connect()
        try:
            connection.request("POST", path or f"/{self.instances[0]}/services/DSessAdminProxy", body,
                               headers or {"Content-Type": "application/json"})
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            if own:
                connection.close()

    def call(self, method, user="anonymous", password=None, login_id=None, connection=None, **parameters):
        """The JSON-RPC answer to one method."""
        self._ids += 1
        security = {"user": user, "password": password, "loginId": login_id}
        request = {"jsonrpc": "2.0", "id": self._ids, "method": method, "params": {"security": security, **parameters}}
        _, body = self.post(json.dumps(request), connection=connection)
        return json.loads(body)
