"""Runs the examples of docs/automation.md, docs/tls.md and the library's manual page as they stand there. A fenced block with
a file's name behind its language is that file; of a console, what stands behind `$ ` shows what stands below it; bash and a
crontab are run where they stand."""

import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import unittest

from dsessd import ROOT, Dsessd
from endtoend import configuration
from vexil import ROOT as TOP
from vexil import VEXILADMIN

MARK = "\x1e\n"
CREDENTIALS = "/run/credentials/refresh-mail.service"
PLACES = [
    "localhost:9080",
    "localhost:9443",
    "localhost:9180",
    "/etc/vexiladmin",
    "/home/bob",
    CREDENTIALS,
    "/usr/bin/vexiladmin",
]


def blocks(document, *places):
    """(language, name of a file, text) of each, with these places in place of PLACES."""
    text = (TOP / "docs" / document).read_text(encoding="utf-8")
    for here, there in zip(PLACES, places):
        text = text.replace(here, str(there))
    return re.findall(r"^```(\w*) ?(.*)\n((?s:.*?))^```$", text, re.M)


def without_times(text):
    return re.sub(r"\d{4}-\d\d-\d\d[-T]\d\d:\d\d:\d\d( UTC|Z)", "TIME", text)


@unittest.skipUnless(shutil.which("jq") and shutil.which("curl"), "jq or curl is not installed")
class Examples(unittest.TestCase):
    maxDiff = None

    def write(self, name, text, mode=0o600):
        path = self.dir / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(text, encoding="utf-8")
        path.chmod(mode)

    def bash(self, script):
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True}
        return subprocess.run(["bash", "-c", script], cwd=self.dir, env=self.environment, **streams)

    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        library, path = os.environ["VEXIL_BUILD"] + "/lib", os.environ["PATH"]
        settings = {"INCLUDEDIR": TOP / "admin" / "client-interface", "LIBDIR": library, "VERSION": 1}
        module = (TOP / "packaging" / "olmdsess-admin-client.pc.in").read_text(encoding="utf-8")
        self.write("olmdsess-admin-client.pc", re.sub("@(.*)@", lambda match: str(settings[match[1]]), module))
        self.environment = os.environ | {"LC_ALL": "C.UTF-8", "LD_LIBRARY_PATH": library, "QEL_CONFIG_DIR": "."}
        self.environment |= {
            "HOME": str(self.dir),
            "PKG_CONFIG_PATH": ".",
            "PATH": f"{self.dir}/lost:{os.path.dirname(VEXILADMIN)}:{path}",
        }
        self.bash(next(text for language, _, text in blocks("tls.md") if language == "sh"))
        server = self.enterContext(Dsessd(administrators=ROOT, anonymous="read", monitor="127.0.0.1:0"))
        tls = server.another()
        files = {"tls_cert": "node1.pem", "tls_key": "node1.key", "client_ca": "ca.pem"}
        tls.options |= {name: self.dir / file for name, file in files.items()}
        self.enterContext(tls)
        self.write("vexilclicfg.conf", configuration(server))
        self.write("password", "SECRET\n")
        monitor = re.search(r"monitored at http://(.*)/healthz", server.log())[1]
        servers = f"127.0.0.1:{server.port}", f"localhost:{tls.port}", monitor
        self.places = *servers, self.dir, self.dir, self.dir / "credentials", VEXILADMIN

    def follow(self, document):
        script, expected = "", []
        for language, name, text in blocks(document, *self.places):
            if name:
                self.write(name, text, 0o700 if language == "sh" else 0o600)
            elif language == "console":
                for command, shown in re.findall(r"^\$ (.*\n(?:> .*\n)*)((?:[^$].*\n|\n)*)", text, re.M):
                    script += f"printf '{MARK}'\n" + command.replace("\n> ", "\n")
                    expected.append([command, without_times(shown)])
            elif language == "crontab":
                job = re.sub(r"^(\S+ ){5}", "", re.sub(r"^(?=\w+=)", "export ", text, flags=re.M), flags=re.M)
                script += f"printf '{MARK}'\n({job}) || echo $?\n"
                expected.append([text, ""])
            elif language == "bash":
                script += text
        shown = without_times(self.bash(script).stdout).split(MARK)[1:]
        self.assertEqual([[command, out] for (command, _), out in zip(expected, shown, strict=True)], expected)

        text = (self.dir / "refresh-mail.service").read_text()
        unit = dict(re.findall(r"^(\w+)=(.*)$", text, re.M))
        run = "".join(
            f"install -Dm 400 {file} credentials/{name}\n"
            for name, file in re.findall("^LoadCredential=(.*):(.*)", text, re.M)
        )
        run += f"env {unit['Environment']} {unit['ExecStart']} <{unit['StandardInput'].removeprefix('file:')}"
        self.assertEqual(self.bash(run).returncode, 0)
        if shutil.which("systemd-analyze"):
            self.assertEqual(self.bash("systemd-analyze verify $PWD/refresh-mail.*").stdout, "")

    def test_readme(self):
        block = re.search(r"^mkdir try(?s:.*?)(?=^```)", (TOP / "README.md").read_text(encoding="utf-8"), re.M)[0]
        (self.dir / "server").symlink_to(TOP / "server")
        with socket.create_server(("127.0.0.1", 0)) as free:
            place = "127.0.0.1:%d" % free.getsockname()[1]
        self.assertTrue(self.bash(block.replace(PLACES[0], place)).stdout.endswith("\neast\nwest\nnorth\n"))

    def test_tls(self):
        self.follow("tls.md")

    def test_automation(self):
        self.follow("automation.md")
        page = (TOP / "docs" / "olm_dsess_admin.3").read_text(encoding="utf-8")
        program = re.search(r"^(#include <(?s:.*?))^\.EE$", page, re.M)[1].replace("\\e", "\\")
        self.write("realms.c", program.replace(PLACES[0], self.places[0]))
        build = "cc -Wall -Werror -o realms realms.c $(pkg-config --cflags --libs olmdsess-admin-client)"
        self.assertEqual(self.bash(f"{build} && ./realms").stdout, "east\nwest\nnorth\n")

        for change, status in [('"$VEXILADMIN" "$@";', 0), ("", 19)]:  # the answer of each is lost
            instead = f'case "$*" in *"key change"*) {change} exit 19 ;; esac\nexec "$VEXILADMIN" "$@"\n'
            self.write("lost/vexiladmin", "#!/bin/sh\n" + instead, 0o700)
            self.assertEqual(self.bash("./change-key").returncode, status)
