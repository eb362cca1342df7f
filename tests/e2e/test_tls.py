"""Mutual TLS between the real client and the real server, and the ways in which it must not come about."""

import pathlib
import subprocess
import tempfile

from dsessd import Dsessd
from endtoend import IDENTITY_REFUSED, NO_LOCATION, ROOT_LOGIN, TLS_FAILURE, configuration, sent_as
from vexil import ROOT, Case, commands, line

REALMS = "east\nwest\n"
NODE1, NODE2 = "/C=DE/O=Example/CN=node1", "/C=DE/O=Example/CN=node2"


class Tls(Case):
    @classmethod
    def setUpClass(cls):
        cls.certificates = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        subprocess.run(["sh", ROOT / "tests" / "support" / "make_certificates", cls.certificates], check=True)

    def path(self, name):
        return str(self.certificates / name)

    def server(self, name="node1"):
        return Dsessd(
            {"realms": [{"name": "east"}, {"name": "west"}]},
            anonymous="read",
            tls={"cert": self.path(f"{name}.pem"), "key": self.path(f"{name}.pem"), "client_ca": self.path("ca.pem")},
        )

    def tls(self, *servers, keyfile="alice.p12", stash="stash", **entries):
        return configuration(*servers, ssl_keyfile=self.path(keyfile), ssl_keyfile_stash=self.path(stash), **entries)

    def check_look(self, config, out, status=0, texts=("realm list",)):
        """Runs commands with trace level 1."""
        result = self.run_utility(*commands(*texts), config=config, VEXILADMIN_DEBUG="1")
        self.assertRegex(result.out, f"^{out}$")
        self.assertEqual((result.err, result.status), (line(status) if status else "", status & 0xFF))

    def test_a_server_with_the_right_name_is_talked_to(self):
        with self.server() as server:
            self.check_look(self.tls(server, server_dns=f"{NODE2},{NODE1}"), REALMS)
            self.check_look(self.tls(server, keyfile="alice-pem.pem", ssl_keyfile_label="alice"), REALMS)
            ends = "the certificate .*CN=soon .* ends on .*\n"
            self.check_look(self.tls(server, keyfile="soon.p12"), ends + REALMS * 2, texts=["realm list"] * 2)
            refused = ".*identity-refused.*\n" + sent_as("root")
            self.check_look(self.tls(server), refused, IDENTITY_REFUSED, [ROOT_LOGIN])
            self.assertRegex(server.log(), "identity refused: root from .* with certificate .*CN=alice\n")
        with self.server("far") as server:  # whose certificate bears another host name
            self.check_look(self.tls(server, server_dns="/C=DE/O=Example/CN=far"), REALMS)

    def test_no_connection_comes_about(self):
        theirs, ours = "the server's certificate.* ", "our certificate was refused: "
        for name, entries, cause in [
            ("late", {}, f"{theirs}/C=DE/O=Example/CN=late: certificate has expired"),
            ("node1", {"keyfile": "expired.p12"}, ours + "certificate expired"),
            ("node1", {"keyfile": "anchors.pem"}, ours + ".*the key file holds none"),
        ]:
            with self.subTest(name, **entries), self.server(name) as server:
                url = f"https://127.0.0.1:{server.port}/blue/services/DSessAdminProxy"
                self.check_look(self.tls(server, **entries), f"(.* ended on .*\n)?{url}: {cause}\n", TLS_FAILURE)
        with Dsessd(anonymous="read") as plain, self.server() as secure:
            self.check_look(self.tls(plain), "https://127.*: no TLS connection: .*wrong version number\n", TLS_FAILURE)
            self.check_look(configuration(secure), ".*\n", NO_LOCATION)
