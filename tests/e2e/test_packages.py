"""The Debian packages: they are built, the same bytes each time, lintian accepts them, and they fit together.
scripts/try-packages uses them."""

import os
import re
import shutil
import subprocess
import unittest

from vexil import ROOT, VERSION, Case

MISSING = [tool for tool in ("dpkg-buildpackage", "dh", "lintian") if not shutil.which(tool)]
CLIENT = "libolmdsess-admin-client"
PACKAGES = [
    ("vexiladmin", f"{CLIENT}1 (>= 1.0)", "/etc/vexiladmin/vexilclicfg.conf\n", "bin/vexiladmin"),
    ("dsessd", "libpq5", "/etc/default/dsessd\n", "sbin/dsessd"),
    (f"{CLIENT}1", "libssl3", "", f"{CLIENT}.so.1"),
    (f"{CLIENT}-dev", f"{CLIENT}1 (= {VERSION}-", "", "*client.so"),
]


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Packages(Case):
    def read(self, path):
        return (self.dir / path).read_text()

    def test_what_is_installed_fits_together(self):
        output = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True}
        environment = os.environ | {"DEB_BUILD_OPTIONS": "nocheck"}  # the tests run beside this one
        done = subprocess.run([ROOT / "scripts/package", "--twice"], env=environment, **output)
        self.assertEqual(done.returncode, 0, done.stdout)
        for package, needs, conffiles, owns in PACKAGES:
            file = next((ROOT / "build/packages").glob(f"{package}_{VERSION}-*.deb"))
            subprocess.run(["dpkg-deb", "-R", file, self.dir / package], check=True)
            self.assertRegex(self.read(f"{package}/DEBIAN/control"), f"\nDepends: .*{re.escape(needs)}")
            self.assertEqual(self.read(f"{package}/DEBIAN/conffiles") if conffiles else "", conffiles)
            self.assertEqual(len(list((self.dir / package / "usr").rglob(owns))), 1, owns)

        self.assertRegex(self.read("dsessd/DEBIAN/postinst"), r"dsessd upgrade (?:.*\n)*.*deb-systemd-invoke")
