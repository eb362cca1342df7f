"""What the client asks of TLS when the configuration of OpenSSL on this host asks for less."""

import re
import subprocess

from vexil import CONFIG, ROOT, Case

WEAK = """openssl_conf = all
[all]
ssl_conf = ssl
[ssl]
system_default = weak
[weak]
MinProtocol = TLSv1
CipherString = ALL:eNULL:@SECLEVEL=0
"""
NO_TLS, NO_ANSWER = 0x38C54014, 0x38C5401A


class Openssl(Case):
    def test_a_connection_has_a_present_version_and_ciphers_that_encrypt_and_show_a_certificate(self):
        subprocess.run([ROOT / "tests/support/make_certificates", self.dir], check=True)
        (self.dir / "weak.cnf").write_text(WEAK)
        entries = f"ssl-keyfile = {self.dir}/ca.pem\nssl-keyfile-stash = {self.dir}/stash\n"
        for version, ciphers, status in [
            ("tls1_2", "ECDHE", NO_ANSWER),  # which shows that all this works
            ("tls1_1", "ALL", NO_TLS),
            ("tls1_2", "eNULL", NO_TLS),
            ("tls1_2", "aNULL", NO_TLS),
        ]:
            server = ["openssl", "s_server", "-accept", "127.0.0.1:0", "-cert", self.dir / "node1.pem", "-rev"]
            server += [f"-{version}", "-cipher", f"{ciphers}:@SECLEVEL=0"]
            with subprocess.Popen(server, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as process:
                while not (port := re.search(r"^ACCEPT 127.0.0.1:(\d+)", process.stdout.readline())):
                    pass
                config = CONFIG.replace("node1:9080", f"127.0.0.1:{port[1]}") + entries
                result = self.run_utility(
                    "-command", "realm list", config=config, OPENSSL_CONF=str(self.dir / "weak.cnf")
                )
                process.terminate()
            self.assertEqual(result.status, status & 0xFF, result)
