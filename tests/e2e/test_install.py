"""cmake --install and the target uninstall."""

import pathlib
import re
import subprocess

from endtoend import BUILD, keep_manifest
from vexil import Case

PROJECT = """cmake_minimum_required(VERSION 3.25)
project(user C)
find_package(olmdsess-admin-client 1.0 REQUIRED)
file(WRITE user.c "#include <olm_dsess_admin.h>\\nint main(void) { olm_dsess_admin_shutdown(0); }")
add_executable(user user.c)
target_link_libraries(user olmdsess-admin-client::olmdsess-admin-client)
"""


class Install(Case):
    def setUp(self):
        super().setUp()
        keep_manifest(self)
        self.root = self.dir / "root"

    def shell(self, command):
        script = f"install() {{ cmake --install {BUILD} --prefix $1; }}; set -e; unset QEL_CONFIG_DIR; {command}"
        return subprocess.run(["sh", "-c", script], cwd=self.dir, check=True, text=True, stdout=subprocess.PIPE).stdout

    def left(self, command):
        """What there is under the root when the target has been installed there by `command` and uninstalled."""
        self.shell(f"export DESTDIR={self.root}; {command}; cmake --build {BUILD} --target uninstall")
        return [path for path in self.root.rglob("*") if path.is_file() or path.name == "vexiladmin"]

    def test_everything_lies_below_the_prefix_and_finds_itself_there(self):
        (self.dir / "CMakeLists.txt").write_text(PROJECT)
        configure = (
            "sed -i '/^instances/s/blue/own/' root/etc/vexiladmin/vexilclicfg.conf; ln -s root/bin/vexiladmin it"
        )
        out = self.shell(f"install root >&2; {configure}; ./it -command 'instances list'")
        self.assertEqual(out, "own\n")
        self.shell("cmake -B b -DCMAKE_PREFIX_PATH=$PWD/root; cmake --build b; b/user")
        unit = (self.root / "lib/systemd/system/dsessd.service").read_text()
        paths = re.findall(r"(?:^ExecStart=|^EnvironmentFile=-|cluster.db )(/\S+)", unit, re.M)
        self.assertTrue(all(pathlib.Path(path).is_file() and path.startswith(f"{self.root}/") for path in paths), paths)

    def test_an_edited_configuration_outlives_installing_and_uninstalling(self):
        conf = self.root / "etc/vexiladmin/vexilclicfg.conf"
        self.assertEqual(self.left(f"install /usr; echo mine >{conf}; install /usr"), [conf.parent, conf])
        self.assertEqual(conf.read_text(), "mine\n")
        self.assertEqual(self.left(f"rm {conf}; install /usr"), [])
