"""TLS from outside: what is spoken, whose certificate is asked for, and that no session is resumed."""

import pathlib
import socket
import ssl
import subprocess
import tempfile
import unittest

from dsessd import AS_ROOT, REPOSITORY, ROOT, Dsessd


class Tls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        subprocess.run(["sh", REPOSITORY / "tests" / "support" / "make_certificates", cls.directory], check=True)
        cls.files = {"cert": cls.directory / "node1.pem", "key": cls.directory / "node1.key"}
        cls.mutual = {**cls.files, "client_ca": cls.directory / "ca.pem"}

    def context(self, identity=None, version=None):
        context = ssl.create_default_context(cafile=self.directory / "ca.pem")
        if identity:
            context.load_cert_chain(self.directory / f"{identity}.crt", self.directory / f"{identity}.key")
        if version:
            context.minimum_version = context.maximum_version = version
        return context

    def attempt(self, server, context):
        server.client_context = context
        try:
            return "done" if "result" in server.call("cluster.get", **AS_ROOT) else "refused"
        except OSError as error:
            return type(error).__name__

    def test_serves_tls_1_2_and_newer_only(self):
        with Dsessd(administrators=ROOT, tls=self.files) as server:
            self.assertEqual(server.ready_line, f"dsessd: listening on https://{server.listen}/ for instances blue\n")
            for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
                self.assertEqual(self.attempt(server, self.context(version=version)), "done")
            old = self.context(version=ssl.TLSVersion.TLSv1_1)
            old.set_ciphers("ALL:@SECLEVEL=0")
            self.assertNotEqual(self.attempt(server, old), "done")
            server.tls = None  # a plain request
            with self.assertRaises(OSError):
                server.call("cluster.get", **AS_ROOT)
            server.tls = self.files
            self.assertEqual(self.attempt(server, self.context()), "done", "after all that")
            self.assertRegex(server.log(), r"audit TLS handshake failed: unsupported protocol, from 127\.0\.0\.1:\d+\n")

    def test_asks_for_a_certificate_of_its_authority_logs_whose_it_is_and_resumes_no_session(self):
        with Dsessd(administrators=ROOT, tls=self.mutual) as server:
            for identity in (None, "foreign", "expired"):
                self.assertNotIn(self.attempt(server, self.context(identity)), ("done", "refused"), identity)
            self.assertNotIn("login of", server.log())
            self.assertEqual(self.attempt(server, self.context("alice")), "done")
            self.assertRegex(server.log(), r"login of root from [\d.:]+ with certificate C=DE,O=Example,CN=alice\n")
            for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
                context, session = self.context("alice", version), None
                for _ in range(2):
                    with socket.create_connection((server.host, server.port)) as plain, context.wrap_socket(
                        plain, server_hostname="localhost", session=session
                    ) as client:
                        self.assertFalse(client.session_reused)
                        client.sendall(b"GET / HTTP/1.1\r\nConnection: close\r\n\r\n")
                        self.assertTrue(client.recv(100).startswith(b"HTTP/1.1 404 "))
                        session = client.session

    def test_names_the_file_that_cannot_be_used(self):
        subprocess.run(
            [
                "openssl",
                "pkey",
                "-in",
                self.files["key"],
                "-aes256",
                "-passout",
                "pass:x",
                "-out",
                self.directory / "locked.key",
            ],
            check=True,
        )
        with Dsessd() as server:
            for option, name, problem in [
                ("--tls-key", "locked.key", "the private key .*/locked.key cannot be used: interrupted or .*"),
                ("--tls-key", "alice.key", "the private key .*/alice.key cannot be used: key values mismatch"),
                ("--tls-key", "none", "the private key .*/none cannot be used: No such file or directory"),
                ("--tls-cert", "none", "the certificate .*/none cannot be used: No such file or directory"),
                ("--tls-cert", "node1.key", "the certificate .*/node1.key cannot be used: no start line"),
                ("--client-ca", "node1.key", "the file of client authorities .*/node1.key cannot be used: .*"),
            ]:
                files = {"--tls-cert": "node1.pem", "--tls-key": "node1.key", option: name}
                done = server.run(
                    "serve",
                    "--listen",
                    "127.0.0.1:0",
                    "--instance",
                    "blue",
                    "--data",
                    server.data,
                    *(word for pair in files.items() for word in (pair[0], self.directory / pair[1])),
                    check=False,
                )
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertRegex(done.stderr, f"^dsessd: {problem}\n$")
