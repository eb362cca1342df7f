"""A private PostgreSQL for tests: with Postgres() as postgres: ... new_database(postgres.directory) is the URI of one.
As a program, runs a command that finds the directory in DSESSD_POSTGRES; where no PostgreSQL is installed, says so and
ends with 77."""

import glob
import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import sys
import tempfile
import time

PROGRAMS = max(glob.glob("/usr/lib/postgresql/*/bin"), key=lambda path: int(path.split("/")[4]), default=None)


def sql(directory, text, database="postgres"):
    command = [f"{PROGRAMS}/psql", "-qAtX", "-h", directory, "-U", "dsessd", "-d", database, "-c", text]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def new_database(directory):
    name = f"test{time.monotonic_ns()}"
    sql(directory, f"CREATE DATABASE {name}")
    return f"postgresql://dsessd@/{name}?host={directory}"


class Postgres:
    def __enter__(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="dsessd-pg-"))
        self._as = ["setpriv", "--pdeathsig", "INT"]
        if os.geteuid() == 0:  # it refuses to run as root
            user = pwd.getpwnam("nobody")
            os.chown(self.directory, user.pw_uid, user.pw_gid)
            self._as += [f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups"]
        # An order that is not that of bytes, which must not be seen.
        order = ["--locale-provider=icu", "--icu-locale=en"]
        initdb = [f"{PROGRAMS}/initdb", "-D", "data", "-U", "dsessd", "-A", "trust", "-E", "UTF8", "--no-sync", *order]
        subprocess.run([*self._as, *initdb], cwd=self.directory, check=True, stdout=subprocess.DEVNULL)
        self.start()
        return self

    def start(self, *settings):
        settings = ["-c", "listen_addresses=", "-c", "fsync=off", *settings]
        command = [*self._as, f"{PROGRAMS}/postgres", "-D", "data", "-k", self.directory, *settings]
        with open(self.directory / "log", "ab") as log:
            self.process = subprocess.Popen(command, cwd=self.directory, stdout=log, stderr=log)
        while subprocess.run([f"{PROGRAMS}/pg_isready", "-q", "-h", self.directory]).returncode:
            if self.process.poll() is not None:
                raise RuntimeError((self.directory / "log").read_text())
            time.sleep(0.05)

    def stop(self):
        """At once, as in a crash."""
        self.process.send_signal(signal.SIGQUIT)
        self.process.wait()

    def __exit__(self, *_):
        self.stop()
        shutil.rmtree(self.directory)


if __name__ == "__main__":
    if PROGRAMS is None:
        print("No PostgreSQL is installed.")
        sys.exit(77)
    with Postgres() as postgres:
        sys.exit(
            subprocess.run(sys.argv[1:], env={**os.environ, "DSESSD_POSTGRES": str(postgres.directory)}).returncode
        )
