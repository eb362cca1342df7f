"""Mutual TLS between the real client and the real server."""

import pathlib
import subprocess
import tempfile

from dsessd import Dsessd
from endtoend import IDENTITY_REFUSED, NO_LOCATION, ROOT_LOGIN, TLS_FAILURE, configuration, sent_as
from vexil import ROOT, Case, commands, line


class Tls(Case):
    @classmethod
    def setUpClass(cls):
        cls.path = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        subprocess.run(["sh", ROOT / "tests" / "support" / "make_certificates", cls.path], check=True)

    def check_look(self, text, out, status=0, *servers, **entries):
        """Runs a command. In names of entries _ stands for -."""
        config = configuration(*servers, **{name: self.path / value for name, value in entries.items()})
        result = self.run_utility(*commands(text), config=config)
        self.assertRegex(result.out, f"^{out}$")
        self.assertEqual((result.err, result.status), (line(status) if status else "", status & 0xFF))

    def test_both_sides_know_whom_they_talk_to(self):
        node1 = {"tls_cert": self.path / "node1.pem", "tls_key": self.path / "node1.pem"}
        alice = {"ssl_keyfile": "alice.p12", "ssl_keyfile_stash": "stash"}
        with Dsessd(anonymous="read", client_ca=self.path / "ca.pem", **node1) as server:
            self.check_look("realm list", "east\nwest\nnorth\n", 0, server, **alice)
            self.check_look(ROOT_LOGIN, sent_as("root"), IDENTITY_REFUSED, server, **alice)
            self.assertRegex(server.log(), "identity refused: root from .* with certificate .*CN=alice\n")
            expired = r"https://\S+/blue: our certificate was refused: certificate expired \(\S+/CN=expired of .*\)\n"
            self.check_look("realm list", expired, TLS_FAILURE, server, **{**alice, "ssl_keyfile": "expired.p12"})
            self.check_look("realm list", "http://.* expects TLS\n", NO_LOCATION, server)
        with Dsessd(anonymous="read") as plain:
            wrong = "https://.*: no TLS connection: what answers there does not speak TLS\n"
            self.check_look("realm list", wrong, TLS_FAILURE, plain, **alice)
