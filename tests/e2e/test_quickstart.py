"""scripts/quickstart: vexiladmin's status and streams, and nothing left behind."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess

from endtoend import NOT_PERMITTED, NO_MATCHING_SESSION, ROOT_LOGIN, sent_as
from postgres import PROGRAMS, with_postgres
from vexil import ROOT, Case, commands, line

NODES = ["--nodes", "2"] if PROGRAMS else []
QUICKSTART = str(ROOT / "scripts" / "quickstart")


class Quickstart(Case):
    def setUp(self):
        if pathlib.Path(os.environ["VEXIL_BUILD"]).resolve() != ROOT / "build" / "release":
            self.skipTest("scripts/quickstart builds in build/release, which is not the build under test")
        super().setUp()
        self.settings = {"config": None, "TMPDIR": str(self.dir)}

    def check_nothing_is_left(self):
        for command in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
            with contextlib.suppress(OSError):  # of a process that has just ended
                self.assertNotIn(os.fsencode(self.dir), command.read_bytes())
        self.assertEqual(list(self.dir.glob("vexiladmin.*")), [])

    def test_status_and_streams_are_those_of_vexiladmin(self):
        terminate = "session terminate all_sessions mallory -realm east"
        environment = self.environment(**self.settings)
        for arguments, status, out in [
            (commands("key change", "realm list"), NOT_PERMITTED, sent_as("anonymous")),
            (["--tls", *NODES, *commands(ROOT_LOGIN, terminate, terminate)], NO_MATCHING_SESSION, ""),
        ]:
            done = subprocess.run([QUICKSTART, *arguments], env=environment, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout, done.stderr), (status & 0xFF, out, line(status)))
            self.check_nothing_is_left()

    def test_the_prompt_can_be_left_and_interrupted(self):
        for arguments, leave, status in [
            (["--tls"], lambda terminal: terminal.type("exit\n"), 0),
            ([], lambda terminal: os.killpg(terminal.pid, signal.SIGHUP), 129),
        ]:
            terminal = self.terminal(*arguments, program=QUICKSTART, **self.settings)
            os.killpg(terminal.pid, signal.SIGINT)  # which gives up the line and ends nothing
            terminal.asks()
            self.assertEqual(terminal.answer("realm list"), "east\nwest\nnorth\n")
            leave(terminal)
            self.assertEqual(terminal.ended()[0], status)
            self.check_nothing_is_left()

    @with_postgres
    def test_the_primary_is_killed_by_the_command_shown(self):
        terminal = self.terminal("--standby", program=QUICKSTART, prompt=None, **self.settings)
        subprocess.check_call(re.search("  (kill .*)", terminal.asks())[1], shell=True, stdout=subprocess.DEVNULL)
        terminal.answer(ROOT_LOGIN)
        self.assertIn("Key before it:", terminal.answer("key change"))
        terminal.type("exit\n")
        self.assertEqual(terminal.ended()[0], 0)
        self.check_nothing_is_left()
