"""A private PostgreSQL for tests: with Postgres() as postgres: ... new_database(postgres.directory) is the URI of one.
Pair() is one with a standby. As a program, runs a command that finds the directory in DSESSD_POSTGRES; ends with 77 where none is installed."""

import contextlib
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
import unittest

PROGRAMS = max(glob.glob("/usr/lib/postgresql/*/bin"), key=lambda path: int(path.split("/")[4]), default=None)
with_postgres = unittest.skipIf(PROGRAMS is None, "no PostgreSQL is installed")


def new_database(directory):
    name = f"test{time.monotonic_ns()}"
    subprocess.run([f"{PROGRAMS}/createdb", "-h", directory, "-U", "dsessd", name], check=True)
    return f"postgresql://dsessd@/{name}?host={directory}&target_session_attrs=read-write"


def children(pid):
    path = pathlib.Path(f"/proc/{pid}/task/{pid}/children")
    return map(int, path.read_text().split()) if path.exists() else ()


class Postgres:
    fsync = "off"

    def __enter__(self):
        self.make_directory()
        # With an order that is not that of bytes, which must not be seen.
        options = "-D data -U dsessd -A trust -E UTF8 --no-sync --locale-provider=icu --icu-locale=en".split()
        self.run("initdb", *options, stdout=subprocess.DEVNULL).wait()
        return self.start()

    def make_directory(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="dsessd-pg-"))
        self.user = ["setpriv", "--pdeathsig", "INT"]
        if os.geteuid() == 0:  # it refuses to run as root
            nobody = pwd.getpwnam("nobody")
            os.chown(self.directory, nobody.pw_uid, nobody.pw_gid)
            self.user += [f"--reuid={nobody.pw_uid}", f"--regid={nobody.pw_gid}", "--clear-groups"]

    def follow(self, primary):
        """Starts as a standby of another server, whose commits wait for it from now on."""
        copy = ["-h", primary.directory, "-U", "dsessd", "-D", "data", "-R", "-N", "-c", "fast"]
        self.run("pg_basebackup", *copy).wait()
        primary.sql("ALTER SYSTEM SET synchronous_standby_names = '*'", "SELECT pg_reload_conf()")
        self.start()

    def sql(self, *texts, database="postgres"):
        command = [f"{PROGRAMS}/psql", "-qAtX", "-h", self.directory, "-U", "dsessd", database]
        command += [word for text in texts for word in ("-c", text)]
        return subprocess.run(command, check=True, capture_output=True, text=True, timeout=30).stdout.strip()

    def run(self, program, *options, **streams):
        return subprocess.Popen([*self.user, f"{PROGRAMS}/{program}", *options], cwd=self.directory, **streams)

    def start(self):
        options = ["-D", "data", "-k", self.directory, "-c", "listen_addresses=", "-c", f"fsync={self.fsync}"]
        with open(self.directory / "log", "ab") as log:
            self.process = self.run("postgres", *options, stdout=log, stderr=log)
        while subprocess.run([f"{PROGRAMS}/pg_isready", "-q", "-h", self.directory]).returncode:
            if self.process.poll() is not None:
                raise RuntimeError((self.directory / "log").read_text())
            time.sleep(0.05)
        return self

    def stop(self):
        """At once, as in a crash, also where it stands still."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGQUIT)
            for process in children(self.process.pid):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(process, signal.SIGKILL)
            self.process.send_signal(signal.SIGCONT)
            self.process.wait()

    def freeze(self, how=signal.SIGSTOP):
        """Stops the server and all its processes where they are, or lets them go on by SIGCONT."""
        for process in [self.process.pid, *children(self.process.pid)]:
            with contextlib.suppress(ProcessLookupError):  # a connection that has just ended
                os.kill(process, how)

    def __exit__(self, *_):
        self.stop()
        shutil.rmtree(self.directory)


class Pair:
    """A primary and a standby; new_database(pair.directory) is the URI of a database of whichever is the primary."""

    def __enter__(self):
        self.primary, self.standby = Postgres().__enter__(), Postgres()
        self.standby.make_directory()
        self.standby.follow(self.primary)
        self.directory = f"{self.primary.directory},{self.standby.directory}"
        return self

    def promote(self):
        """Makes the standby the primary, once that is lost."""
        self.standby.sql("SELECT pg_promote()")
        self.primary, self.standby = self.standby, self.primary

    def repair(self):
        """Makes the primary that was lost a standby."""
        self.standby.stop()
        shutil.rmtree(self.standby.directory / "data")
        self.standby.follow(self.primary)

    def __exit__(self, *_):
        self.standby.__exit__()
        self.primary.__exit__()


if __name__ == "__main__":
    if PROGRAMS is None:
        print("No PostgreSQL is installed.")
        sys.exit(77)
    with Postgres() as private:
        environment = {**os.environ, "DSESSD_POSTGRES": str(private.directory)}
        sys.exit(subprocess.run(sys.argv[1:], env=environment).returncode)
