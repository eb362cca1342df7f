"""An authority at work: the certificates of make_certificates in a folder, more that it signs, and a revocation list."""

import pathlib
import subprocess

SETTINGS = """[ca]
default_ca = ca
[ca]
database = index
new_certs_dir = .
rand_serial = yes
default_md = sha256
unique_subject = no
policy = names
[names]
CN = supplied
"""


class Authority:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        subprocess.run(["sh", pathlib.Path(__file__).with_name("make_certificates"), path], check=True)
        (self.path / "ca.cnf").write_text(SETTINGS)
        self.revoke()

    def openssl(self, command):
        subprocess.run(["openssl", *command.split()], cwd=self.path, check=True, stderr=subprocess.DEVNULL)

    def sign(self, options):
        self.openssl(f"ca -config ca.cnf -cert ca.pem -keyfile ca.key -batch {options}")

    def revoke(self, *names):
        """Makes ca.crl, the list with the certificates of these clients."""
        (self.path / "index").write_text("")
        for name in names:
            self.sign(f"-revoke {name}.crt")
        self.sign("-gencrl -crldays 9 -out ca.crl")
