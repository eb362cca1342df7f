"""The Debian packages: they are built, lintian accepts them, and they fit together."""

import re
import shutil
import subprocess
import unittest

from vexil import ROOT, VERSION, Case

NEEDED = [tool for tool in ("dpkg-buildpackage", "dh", "lintian") if not shutil.which(tool)]


@unittest.skipIf(NEEDED, f"not installed: {', '.join(NEEDED)}")
class Packages(Case):
    def deb(self, package, *options):
        file = next((ROOT / "build" / "packages").glob(f"{package}_{VERSION}_*.deb"))
        return subprocess.run(
            ["dpkg-deb", options[0], file, *options[1:]], check=True, capture_output=True
        ).stdout.decode()

    def test_what_is_installed_fits_together(self):
        done = subprocess.run(
            [ROOT / "scripts" / "package"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
        )
        self.assertEqual(done.returncode, 0, done.stdout)
        for package, needs, conffiles, owns in [
            (
                "vexiladmin",
                "libolmdsess-admin-client1 (>= 1.0)",
                "/etc/vexiladmin/vexilclicfg.conf\n",
                "bin/vexiladmin",
            ),
            ("dsessd", "libpq5", "/etc/default/dsessd\n", "sbin/dsessd"),
            ("libolmdsess-admin-client1", "libcurl4", "", "libolmdsess-admin-client.so.1"),
            (
                "libolmdsess-admin-client-dev",
                f"libolmdsess-admin-client1 (= {VERSION})",
                "",
                "*client.so",
            ),
        ]:
            self.assertIn(needs, self.deb(package, "-f", "Depends"))
            self.deb(package, "-R", str(self.dir / package))
            found = self.dir / package / "DEBIAN" / "conffiles"
            self.assertEqual(found.read_text() if found.exists() else "", conffiles)
            self.assertEqual(len(list((self.dir / package / "usr").rglob(owns))), 1, owns)
        pages = [page.name for page in self.dir.glob("*/usr/share/man/man?/*")]
        self.assertEqual(sorted(pages), sorted(f"{page.name}.gz" for page in (ROOT / "docs").glob("*.[1-9]")))

        server = self.dir / "dsessd"
        unit = (server / "lib/systemd/system/dsessd.service").read_text()
        for path in re.findall(r"(?:^ExecStart=|^EnvironmentFile=-|cluster.db )(/\S+)", unit, re.M):
            self.assertTrue((server / path[1:]).is_file(), path)
        user = re.search("^User=(.*)", unit, re.M)[1]
        self.assertTrue((server / "usr/lib/sysusers.d/dsessd.conf").read_text().startswith(f"u {user} "))
        self.assertRegex((server / "DEBIAN/postinst").read_text(), r"systemd-sysusers .*\n(.*\n)*.*systemd-tmpfiles ")
        self.assertIn("stop 'dsessd.service'", (server / "DEBIAN/prerm").read_text())
        where = re.search(r"--listen 127.0.0.1(:\d+) --instance (\S+)\"", unit).groups()
        client = (self.dir / "vexiladmin/etc/vexiladmin/vexilclicfg.conf").read_text()
        self.assertEqual(re.search(r"\nlocation = localhost(.*)\n(?:.*\n)*instances = (.*)\n", client).groups(), where)
