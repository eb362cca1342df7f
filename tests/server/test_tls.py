"""TLS from outside: what is spoken, whose certificate is asked for, and that no session is resumed."""

import pathlib
import socket
import ssl
import subprocess
import tempfile
import unittest

from dsessd import AS_ROOT, REPOSITORY, ROOT, Dsessd

VERSIONS = ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3


class Tls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.path = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        subprocess.run(["sh", REPOSITORY / "tests" / "support" / "make_certificates", cls.path], check=True)
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
            self.assertRegex(server.log(), r"audit TLS handshake failed: unsupported protocol, from 127\.0\.0\.1:\d+\n")
            self.assertLess(server.log().count("handshake failed"), 9, "not each of them is worth a line")

    def test_asks_for_a_certificate_of_its_authority_logs_whose_it_is_and_resumes_no_session(self):
        with Dsessd(administrators=ROOT, client_ca=self.path / "ca.pem", **self.files) as server:
            for identity in (None, "foreign", "expired"):
                self.assertIsNone(self.session(server, self.context(identity=identity)), identity)
            for version in VERSIONS:
                server.context = self.context(version, "alice")
                before = self.session(server, server.context)
                self.assertIsNotNone(self.session(server, server.context, before))
            self.assertIn("result", server.call("cluster.get", **AS_ROOT))
            self.assertRegex(server.log(), r"login of root from [\d.:]+ with certificate C=DE,O=Example,CN=alice\n")

    def test_names_the_file_that_cannot_be_used(self):
        lock = ["openssl", "pkey", "-in", "node1.key", "-aes256", "-passout", "pass:x", "-out", "locked.key"]
        subprocess.run(lock, check=True, cwd=self.path)
        for option, name, problem in [
            ("tls_key", "locked.key", "private key .*/locked.key cannot be used: interrupted or .*"),
            ("tls_cert", "none", "certificate .*/none cannot be used: No such file or directory"),
            ("client_ca", "node1.key", "file of client authorities .*/node1.key cannot be used: .*"),
        ]:
            with self.assertRaisesRegex(RuntimeError, f"^'' .*log: dsessd: the {problem}\n$"):
                Dsessd(**{**self.files, option: self.path / name}).start()
