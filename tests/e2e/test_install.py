"""cmake --install and the target uninstall."""

import os
import pathlib
import re
import subprocess

from vexil import Case

BUILD = pathlib.Path(os.environ["VEXIL_BUILD"])
MANIFEST = BUILD / "install_manifest.txt"
PROGRAM = "#include <olm_dsess_admin.h>\nint main(void) { olm_dsess_admin_shutdown(0); }\n"
PROJECT = """cmake_minimum_required(VERSION 3.25)
project(user C)
find_package(olmdsess-admin-client 1.0 REQUIRED)
add_executable(user user.c)
target_link_libraries(user olmdsess-admin-client::olmdsess-admin-client)
"""


class Install(Case):
    def setUp(self):
        super().setUp()
        if MANIFEST.exists():  # of an installation that is not this test's
            self.addCleanup(MANIFEST.write_bytes, MANIFEST.read_bytes())
        else:
            self.addCleanup(MANIFEST.unlink, missing_ok=True)

    def run_it(self, *command, **environ):
        environ = {name: text for name, text in os.environ.items() if name != "QEL_CONFIG_DIR"} | environ
        done = subprocess.run(command, env=environ, cwd=self.dir, check=True, text=True, stdout=subprocess.PIPE)
        return done.stdout

    def install(self, prefix, **environ):
        self.run_it("cmake", "--install", BUILD, "--prefix", prefix, **environ)

    def uninstall(self, **environ):
        self.run_it("cmake", "--build", BUILD, "--target", "uninstall", **environ)

    def files(self, top):
        return sorted(str(path.relative_to(top)) for path in top.rglob("*") if not path.is_dir())

    def test_everything_lies_below_the_prefix_and_finds_itself_there(self):
        prefix = self.dir / "opt"
        self.install(prefix)
        (prefix / "etc/vexiladmin/vexilclicfg.conf").write_text(
            "[tarn]\nlocation = a:1\ninstances = own\ntimeout = 1\n"
        )
        (self.dir / "link").symlink_to(prefix / "bin/vexiladmin")
        self.assertEqual(self.run_it(self.dir / "link", "-command", "instances list"), "own\n")
        unit = (prefix / "lib/systemd/system/dsessd.service").read_text()
        for path in re.findall(r"(?:^ExecStart=|^EnvironmentFile=-|cluster.db )(/\S+)", unit, re.M):
            self.assertTrue(pathlib.Path(path).is_relative_to(prefix) and pathlib.Path(path).is_file(), path)
        (self.dir / "user.c").write_text(PROGRAM)
        (self.dir / "CMakeLists.txt").write_text(PROJECT)
        ask = "pkg-config", "--cflags", "--libs", "olmdsess-admin-client"
        flags = self.run_it(*ask, PKG_CONFIG_PATH=f"{prefix}/lib/pkgconfig")
        self.run_it("cc", "user.c", "-o", "by-pkg-config", *flags.split())
        self.run_it("cmake", "-B", ".", f"-DCMAKE_PREFIX_PATH={prefix}")
        self.run_it("cmake", "--build", ".")
        for program in ("by-pkg-config", "user"):
            self.run_it(self.dir / program, LD_LIBRARY_PATH=f"{prefix}/lib")

    def test_an_edited_configuration_outlives_installing_and_uninstalling(self):
        root = self.dir / "root"
        self.install("/usr", DESTDIR=root)
        edited = root / "etc/vexiladmin/vexilclicfg.conf"
        edited.write_text("mine")
        self.install("/usr", DESTDIR=root)
        self.uninstall(DESTDIR=root)
        self.assertEqual((edited.read_text(), self.files(root)), ("mine", ["etc/vexiladmin/vexilclicfg.conf"]))
        edited.unlink()
        self.install("/usr", DESTDIR=root)
        self.uninstall(DESTDIR=root)
        self.assertEqual(self.files(root), [])
        self.assertFalse(edited.parent.exists())
