"""TLS from outside: what is spoken, whose certificate is asked for, and that no session is resumed."""

import re
import shutil
import socket
import ssl
import tempfile
import unittest

from certificates import Authority
from dsessd import AS_ROOT, ROOT, Dsessd

VERSIONS = ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3


class Tls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.authority = Authority(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.path = cls.authority.path
        cls.files = {"tls_cert": cls.path / "node1.pem", "tls_key": cls.path / "node1.key"}

    def context(self, version=None, identity=None):
        context = ssl.create_default_context(cafile=self.path / "ca.pem")
        if identity:
            context.load_cert_chain(self.path / f"{identity}.crt", self.path / f"{identity}.key")
        if version:
            context.minimum_version = context.maximum_version = version
        return context

    def session(self, server, context, before=None):
        """The TLS session in which a request is answered; null when it is not."""
        try:
            plain = self.enterContext(socket.create_connection((server.host, server.port)))
            with context.wrap_socket(plain, server_hostname="localhost", session=before) as client:
                self.assertFalse(client.session_reused)
                client.sendall(b"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
                return client.session if client.recv(100).startswith(b"HTTP/1.1 404 ") else None
        except OSError:
            return None

    def test_serves_tls_1_2_and_newer_only(self):
        old = self.context(ssl.TLSVersion.TLSv1_1)
        old.set_ciphers("ALL:@SECLEVEL=0")
        with Dsessd(**self.files) as server:
            self.assertRegex(server.ready_line, "^dsessd: listening on https://")
            self.assertIsNone(self.session(server, old))
            for _ in range(30):
                with socket.create_connection((server.host, server.port)) as plain:
                    plain.sendall(b"GET / HTTP/1.1\r\n\r\n")
                    self.assertNotIn(b"HTTP", plain.recv(100))
            for version in VERSIONS:
                self.assertIsNotNone(self.session(server, self.context(version)), version)
            server.await_log(r"audit TLS handshake failed: unsupported protocol, from 127\.0\.0\.1:\d+\n")
            self.assertLess(server.log().count("handshake failed"), 9, "not each of them is worth a line")

    def connects(self, server, *identities):
        return [self.session(server, self.context(identity=identity)) is not None for identity in identities]

    def test_who_may_connect_is_said_by_authority_revocation_list_and_name(self):
        self.authority.revoke("soon")
        listed = "/CN=x,/C=DE/O=Example/CN=alice,/C=DE/O=Example/CN=soon"
        lists = {"client_crl": self.path / "ca.crl", "client_names": listed}
        with Dsessd(administrators=ROOT, client_ca=self.path / "ca.pem", **lists, **self.files) as server:
            self.assertEqual(self.connects(server, None, "foreign", "expired", "soon", "node1"), [False] * 5)
            for version in VERSIONS:
                server.context = self.context(version, "alice")
                before = self.session(server, server.context)
                self.assertIsNotNone(self.session(server, server.context, before))
            self.assertIn("result", server.call("key.change", **AS_ROOT))
            name = "/C=DE/O=Example/CN="
            whose = f"with certificate {name}alice, issued by {name}ca, serial number [0-9A-F]+\n"
            server.await_log(rf"changed: key is .*{whose}")
            for line in (
                "peer did not return a certificate,",
                f"the client's certificate has an unknown issuer (--client-ca): {name}foreign, issued by {name}other-ca, ",
                f"the client's certificate has expired: {name}expired, issued by {name}ca, serial number ",
                f"the client's certificate is revoked: {name}soon, ",
                f"the client's certificate is not in the list (--client-names): {name}node1, ",
            ):
                self.assertIn("TLS handshake failed: " + line, server.log())
            self.assertRegex(server.log(), rf"login of root from [\d.:]+ {whose}")

    def test_a_reload_takes_what_is_new_and_an_unusable_file_leaves_the_old_in_force(self):
        for name in ("node1.pem", "node1.key"):
            shutil.copy(self.path / name, self.path / f"new-{name}")
        self.authority.revoke()
        new = {"tls_cert": self.path / "new-node1.pem", "tls_key": self.path / "new-node1.key"}
        with Dsessd(client_ca=self.path / "ca.pem", client_crl=self.path / "ca.crl", **new) as server:
            self.assertEqual(self.connects(server, "alice", "soon"), [True, True])
            early = self.enterContext(socket.create_connection((server.host, server.port)))
            self.authority.revoke("soon")
            shutil.copy(self.path / "solo.pem", new["tls_cert"])
            server.hang_up("certificates stay as they were: the private key .* belongs to another certificate than")
            self.assertEqual(self.connects(server, "alice", "soon"), [True, True])
            shutil.copy(self.path / "solo.key", new["tls_key"])
            server.hang_up("the certificates were read anew")
            with self.context(identity="alice").wrap_socket(early, server_hostname="localhost") as client:
                client.sendall(b"GET / HTTP/1.1\r\n\r\n")
                self.assertIn(b" 400 ", client.recv(100), "who came before the reload goes on as it was then")
            trusting = self.context(identity="alice")
            trusting.load_verify_locations(self.path / "solo.crt")
            self.assertIsNotNone(self.session(server, trusting), "the new certificate")
            self.assertEqual(self.connects(server, "alice"), [False], "which this client does not trust")
            trusting.load_cert_chain(self.path / "soon.crt", self.path / "soon.key")
            self.assertIsNone(self.session(server, trusting), "the new list")
            self.assertEqual(server.stop(), 0)

    def test_an_issuing_authority_is_enough_and_what_ends_soon_is_told(self):
        with Dsessd(
            client_ca=self.path / "low-ca.pem", tls_cert=self.path / "ends.pem", tls_key=self.path / "ends.key"
        ) as server:
            self.assertEqual(self.connects(server, "deep", "alice"), [True, False])
            server.await_log("failure the certificate /C=DE/O=Example/CN=ends in .*/ends.pem ends on 2")
            self.assertNotIn("low-ca.pem ends on", server.log())

    def test_names_the_file_that_cannot_be_used(self):
        self.authority.openssl("pkey -in node1.key -aes256 -passout pass:x -out locked.key")
        for name, mode, text in [("word", 0o600, "x\n"), ("wrong", 0o600, "y"), ("open.key", 0o640, "")]:
            (self.path / name).write_text(text)
            (self.path / name).chmod(mode)
        with Dsessd(**{**self.files, "tls_key": self.path / "locked.key", "tls_key_password_file": self.path / "word"}):
            pass
        locked = {"tls_key": self.path / "locked.key"}
        for options, problem in [
            (locked, "private key .*/locked.key needs a password .*"),
            (
                {**locked, "tls_key_password_file": self.path / "wrong"},
                "private key .* has another password than .*wrong says",
            ),
            ({"tls_key": self.path / "open.key"}, "private key .* others than its owner have permissions on it .*"),
            ({"tls_key": self.path / "solo.key"}, "private key .* belongs to another certificate than .*/node1.pem"),
            ({"tls_cert": self.path / "none"}, "certificate .*/none cannot be used: No such file or directory"),
            ({"tls_cert": self.path / "expired.crt"}, "certificate .*/expired.crt ended on 2.*UTC"),
            ({"tls_cert": self.path / "alice.crt"}, "certificate .*/alice.crt is not for servers: .* lacks serverAuth"),
            ({"client_ca": self.path / "node1.key"}, "file of client authorities .*/node1.key cannot be used: .*"),
        ]:
            with self.assertRaisesRegex(RuntimeError, f"^'' .*log: dsessd: the {problem}\n$"):
                Dsessd(**{**self.files, **options}).start()
