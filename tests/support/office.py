"""A cluster and the administrators who change it without end, over mutual TLS: where tests/e2e/test_year.py goes on.
"""

import contextlib
import os
import shutil
import signal
import sqlite3
import time

from certificates import Authority
from changes import NO_LOCATION, NOT_SECURE, Administrator, Book
from dsessd import DEADLINE, Dsessd

FILES = {"tls_cert": "server.pem", "tls_key": "server.key", "client_ca": "ca.pem", "client_crl": "ca.crl"}


class Office:
    """Part of a test case that has a folder of its own, `dir`. `nodes` are those that run, on one store; `all` are the
    administrators by their names."""

    def open(self, names, sessions, pause):
        """Starts two nodes on a file, whose certificate ends in 20 days. Each administrator gets a certificate, a folder
        for the configuration and a number of sessions to end. `pause`: the seconds of work between two events."""
        self.pause, self.book = pause, Book()
        self.all = self.book.administrators
        (self.dir / "authority").mkdir()
        self.authority = Authority(self.dir / "authority")
        self.give_the_nodes("ends")
        for name in names:
            self.certify(name, 10**7)
            self.all[name] = Administrator(name, self.dir / name, self.environment(), f"secret-of-{name}")
        numbered = [f"{name}-{number}" for name in names for number in range(sessions)]
        realm = {"name": "east", "sessions": [{"id": name, "user": "mallory", "time": 1} for name in numbered]}
        tls = {option: self.authority.path / file for option, file in FILES.items()}
        node = Dsessd({"realms": [realm], "keys": [{"label": "first", "time": 1}]}, **tls)
        node.context.load_cert_chain(self.authority.path / f"{names[0]}.crt", self.authority.path / f"{names[0]}.key")
        self.nodes = [self.enterContext(node), self.enterContext(node.another())]

    def certify(self, name, seconds):
        """Makes a certificate that ends in so many seconds, in the place of the administrator's old one."""
        authority = self.authority
        new = "req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
        authority.openssl(f"{new} -subj /C=DE/O=Example/CN={name} -keyout {name}.key -out {name}.csr")
        end = time.strftime("%Y%m%d%H%M%SZ", time.gmtime(time.time() + seconds))
        authority.sign(f"-preserveDN -notext -enddate {end} -in {name}.csr -out {name}.crt")
        files = f"-in {name}.crt -inkey {name}.key -certfile ca.pem -out {name}.p12"
        authority.openssl(f"pkcs12 -export {files} -passout file:stash")

    def give_the_nodes(self, certificate):
        """Puts another certificate in the place of theirs. They read it when they hang up."""
        for end in ("pem", "key"):
            shutil.copy(self.authority.path / f"{certificate}.{end}", self.authority.path / f"server.{end}")

    def hang_up(self):
        for node in self.nodes:
            node.hang_up("were read anew")

    def put_into_tables(self, sql):
        """Puts what the file holds into the tables of an older version, which these statements make."""
        data, older = self.nodes[0].data, self.dir / "older"
        with contextlib.closing(sqlite3.connect(older)) as store:
            store.executescript(f"{sql} ATTACH '{data}' AS new; BEGIN;")
            for (table,) in store.execute("SELECT name FROM main.sqlite_schema WHERE type = 'table'").fetchall():
                columns = ", ".join(row[1] for row in store.execute(f"PRAGMA main.table_info({table})"))
                store.execute(f"DELETE FROM main.{table}")
                store.execute(f"INSERT INTO main.{table} SELECT {columns} FROM new.{table}")
            store.execute("COMMIT")
        shutil.move(older, data)

    def dsessd(self, *words, **options):
        """What a command of dsessd that is about the store prints."""
        return self.nodes[0].run(*words, "--data", self.nodes[0].data, **options).stdout

    def start_work(self, *names):
        self.tell_the_locations()
        for one in map(self.all.get, names):
            self.dsessd("admin", "add", one.name, input=one.password)
            one.start()
            self.addCleanup(one.go)
        self.work()

    def end_work(self, *names):
        for one in map(self.all.get, names):
            self.assertTrue(one.is_alive())
            one.go()

    def tell_the_locations(self, timeout=20):
        """Writes the configurations anew, with the nodes that there are; each administrator asks them in another order."""
        for at, one in enumerate(self.all.values()):
            first, path = -at % len(self.nodes), self.authority.path
            entries = {
                "location": ",".join(f"127.0.0.1:{node.port}" for node in self.nodes[first:] + self.nodes[:first]),
                "instances": "blue",
                "timeout": timeout,
                "ssl-keyfile": path / f"{one.name}.p12",
                "ssl-keyfile-stash": path / "stash",
            }
            text = "".join(f"{name} = {value}\n" for name, value in entries.items())
            (one.folder / "new").write_text("[tarn]\n" + text)
            os.replace(one.folder / "new", one.folder / "vexilclicfg.conf")

    def work(self):
        """Lets all of them make changes for a while. The book says in the end whether any failed."""
        self.book.wait(self.pause, DEADLINE)

    @contextlib.contextmanager
    def without_nodes(self, how=signal.SIGTERM, *statuses):
        """Stops all nodes by this signal, and starts them again. The statuses may be seen beside those of a server that
        cannot be reached."""
        words = "connection refused|the connection ended|ended the connection"
        with self.book.trouble(words, NO_LOCATION, NOT_SECURE, *statuses):
            for node in self.nodes:
                node.stop(how)
            yield
            for node in self.nodes:
                node.start()
