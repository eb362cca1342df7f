"""A private PostgreSQL for tests: with Postgres() as postgres: ... new_database(postgres.directory) is the URI of one.
As a program, runs a command that finds the directory in DSESSD_POSTGRES; ends with 77 where none is installed."""

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


def new_database(directory):
    name = f"test{time.monotonic_ns()}"
    subprocess.run([f"{PROGRAMS}/createdb", "-h", directory, "-U", "dsessd", name], check=True)
    return f"postgresql://dsessd@/{name}?host={directory}"


def children(pid):
    path = pathlib.Path(f"/proc/{pid}/task/{pid}/children")
    return map(int, path.read_text().split()) if path.exists() else ()


class Postgres:
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

    def standby(self):
        """A second server that follows this one; from now on each commit waits for it."""
        other = Postgres()
        other.make_directory()
        copy = ["-h", self.directory, "-U", "dsessd", "-D", "data", "-R", "-N", "-c", "fast"]
        other.run("pg_basebackup", *copy).wait()
        self.sql("ALTER SYSTEM SET synchronous_standby_names = '*'", "SELECT pg_reload_conf()")
        return other.start()

    def sql(self, *texts, database="postgres"):
        command = [f"{PROGRAMS}/psql", "-qAtX", "-h", self.directory, "-U", "dsessd", database]
        command += [word for text in texts for word in ("-c", text)]
        return subprocess.run(command, check=True, capture_output=True, text=True, timeout=30).stdout.strip()

    def run(self, program, *options, **streams):
        return subprocess.Popen([*self.user, f"{PROGRAMS}/{program}", *options], cwd=self.directory, **streams)

    def start(self):
        options = ["-D", "data", "-k", self.directory, "-c", "listen_addresses=", "-c", "fsync=off"]
        with open(self.directory / "log", "ab") as log:
            self.process = self.run("postgres", *options, stdout=log, stderr=log)
        while subprocess.run([f"{PROGRAMS}/pg_isready", "-q", "-h", self.directory]).returncode:
            if self.process.poll() is not None:
                raise RuntimeError((self.directory / "log").read_text())
            time.sleep(0.05)
        return self

    def stop(self):
        """At once, as in a crash."""
        if self.process.poll() is None:
            self.freeze(signal.SIGCONT)
        self.process.send_signal(signal.SIGQUIT)
        self.process.wait()

    def freeze(self, how=signal.SIGSTOP):
        """Stops the server and all its processes where they are."""
        for process in [self.process.pid, *children(self.process.pid)]:
            os.kill(process, how)

    def __exit__(self, *_):
        self.stop()
        shutil.rmtree(self.directory)


if __name__ == "__main__":
    if PROGRAMS is None:
        print("No PostgreSQL is installed.")
        sys.exit(77)
    with Postgres() as private:
        environment = {**os.environ, "DSESSD_POSTGRES": str(private.directory)}
        sys.exit(subprocess.run(sys.argv[1:], env=environment).returncode)
