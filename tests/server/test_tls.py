"""TLS from outside: who gets in, what is logged of him, and that no session is resumed."""

import pathlib
import socket
import ssl
import subprocess
import sys
import tempfile
import unittest

SUPPORT = pathlib.Path(__file__).resolve().parents[1] / "support"
sys.path.insert(0, str(SUPPORT))
from dsessd import Dsessd  # noqa: E402

ROOT = [("root", "SECRET", "change")]
AS_ROOT = {"user": "root", "password": "SECRET", "login_id": "one"}


class Tls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.temporary = tempfile.TemporaryDirectory()
        cls.directory = pathlib.Path(cls.temporary.name)
        subprocess.run(["sh", SUPPORT / "make_certificates", cls.temporary.name], check=True)
        cls.files = {"cert": cls.directory / "node1.pem", "key": cls.directory / "node1.key"}
        cls.mutual = {**cls.files, "client_ca": cls.directory / "ca.pem"}

    @classmethod
    def tearDownClass(cls):
        cls.temporary.cleanup()

    def context(self, identity=None, **settings):
        context = ssl.create_default_context(cafile=self.directory / "ca.pem")
        if identity:
            context.load_cert_chain(self.directory / f"{identity}.crt", self.directory / f"{identity}.key")
        for name, value in settings.items():
            setattr(context, name, value)
        return context

    def attempt(self, server, context):
        server.client_context = context
        try:
            return "done" if "result" in server.call("cluster.get", **AS_ROOT) else "refused"
        except OSError as error:
            return type(error).__name__

    def test_serves_tls_1_2_and_newer_only(self):
        with Dsessd(administrators=ROOT, tls=self.files) as server:
            self.assertRegex(server.ready_line, r"^dsessd: listening on https://127\.0\.0\.1:\d+/ for instances blue\n$")
            for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
                self.assertEqual(self.attempt(server, self.context(maximum_version=version, minimum_version=version)), "done")
            old = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            old.check_hostname, old.verify_mode = False, ssl.CERT_NONE
            old.set_ciphers("ALL:@SECLEVEL=0")
            old.minimum_version = old.maximum_version = ssl.TLSVersion.TLSv1_1
            self.assertNotEqual(self.attempt(server, old), "done")
            server.tls = None  # a plain request
            with self.assertRaises(OSError):
                server.call("cluster.get", **AS_ROOT)
            server.tls = self.files
            self.assertEqual(self.attempt(server, self.context()), "done", "after all that")
            self.assertRegex(server.log(), r"audit TLS handshake failed: unsupported protocol, from 127\.0\.0\.1:\d+\n")

    def test_asks_for_a_certificate_of_its_authority_and_logs_whose_it_is(self):
        with Dsessd(administrators=ROOT, tls=self.mutual) as server:
            for identity in (None, "foreign", "expired"):
                self.assertNotIn(self.attempt(server, self.context(identity)), ("done", "refused"), identity)
            self.assertNotIn("login of", server.log())
            self.assertEqual(self.attempt(server, self.context("alice")), "done")
            self.assertRegex(server.log(), r"audit login of root from 127\.0\.0\.1:\d+ with certificate C=DE,O=Example,CN=alice\n")
            self.assertNotIn("SECRET", server.log())

    def test_resumes_no_session(self):
        with Dsessd(administrators=ROOT, tls=self.mutual) as server:
            for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
                context, session = self.context("alice", maximum_version=version), None
                for _ in range(2):
                    with socket.create_connection((server.host, server.port)) as plain, context.wrap_socket(
                            plain, server_hostname="localhost", session=session) as client:
                        self.assertFalse(client.session_reused)
                        client.sendall(b"GET / HTTP/1.1\r\nConnection: close\r\n\r\n")
                        self.assertTrue(client.recv(100).startswith(b"HTTP/1.1 404 "))
                        session = client.session

    def test_takes_no_key_that_is_locked_or_another_s(self):
        with Dsessd() as server:
            subprocess.run(["openssl", "pkey", "-in", self.files["key"], "-aes256", "-passout", "pass:x", "-out",
                            self.directory / "locked.key"], check=True)
            for key, problem in [("locked.key", "the private key .*locked.key cannot be used"),
                                 ("alice.key", "the private key .*alice.key cannot be used: key values mismatch"),
                                 ("none", "the private key .*none cannot be used: No such file")]:
                done = server.run("serve", "--listen", "127.0.0.1:0", "--instance", "blue", "--data", str(server.data),
                                  "--tls-cert", str(self.files["cert"]), "--tls-key", str(self.directory / key), check=False)
                self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (1, "", 1))
                self.assertRegex(done.stderr, problem)
            done = server.run("serve", "--listen", "127.0.0.1:0", "--instance", "blue", "--data", str(server.data),
                              "--tls-cert", str(self.files["cert"]), "--tls-key", str(self.files["key"]), "--client-ca",
                              "/dev/null", check=False)
            self.assertRegex(done.stderr, r"^dsessd: the file of client authorities /dev/null cannot be used: .*\n$")


if __name__ == "__main__":
    unittest.main()
