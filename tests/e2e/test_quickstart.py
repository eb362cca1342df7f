"""scripts/quickstart: vexiladmin's status and streams, and nothing left behind."""

import contextlib
import os
import pathlib
import signal
import subprocess
import sys

from endtoend import (NO_MATCHING_SESSION, NOT_PERMITTED, ROOT, ROOT_LOGIN, Case, Prompt, commands, failure, listing, main)

QUICKSTART = str(ROOT / 'scripts' / 'quickstart')
BUILD = ROOT / 'build' / 'release'
REALMS = 'east\nwest\nnorth\n'


class Quickstart(Case):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.check_nothing_is_left)

    def environment(self, **env):
        return super().environment(config=None, TMPDIR=str(self.dir), **env)

    def check_nothing_is_left(self):
        for command in pathlib.Path('/proc').glob('[0-9]*/cmdline'):
            with contextlib.suppress(OSError):  # of a process that has just ended
                self.assertNotIn(os.fsencode(self.dir), command.read_bytes())
        self.assertEqual(list(self.dir.glob('vexiladmin.*')), [])

    def test_status_and_streams_are_those_of_vexiladmin(self):
        terminate = 'session terminate all_sessions mallory -realm east'
        for arguments, expected in [
                (commands('realm list'), (REALMS, '', 0)),
                (['--tls', *commands('realm list')], (REALMS, '', 0)),
                (commands('key change', 'realm list'), ('', failure(NOT_PERMITTED), NOT_PERMITTED & 0xFF)),
                (['--tls', *commands(ROOT_LOGIN, terminate, 'session list -realm east mallory 0', terminate)],
                 (listing(0), failure(NO_MATCHING_SESSION), NO_MATCHING_SESSION & 0xFF)),
                ([], (REALMS + '\n', '', 0))]:
            with self.subTest(arguments=arguments):
                done = subprocess.run([QUICKSTART, *arguments], env=self.environment(), capture_output=True, text=True,
                                      timeout=120, input='realm list\n')
                self.assertEqual((done.stdout, done.stderr, done.returncode), expected)
                self.check_nothing_is_left()

    def test_the_prompt_can_be_left_and_interrupted(self):
        for arguments, leave, status in [
                ([], lambda terminal: terminal.type('exit\n'), 0),
                (['--tls'], lambda terminal: terminal.type('\x04'), 0),
                ([], lambda terminal: os.killpg(terminal.pid, signal.SIGINT), 130),
                (['--tls'], lambda terminal: os.killpg(terminal.pid, signal.SIGHUP), 129)]:
            prompt = Prompt(self, arguments=[QUICKSTART, *arguments])
            self.assertEqual(prompt.answer('realm list'), REALMS)
            leave(prompt.terminal)
            self.assertEqual(prompt.terminal.ended()[0], status)
            self.check_nothing_is_left()


if __name__ == '__main__':
    if pathlib.Path(os.environ.get('VEXIL_BUILD', BUILD)).resolve() != BUILD or not (BUILD / 'bin' / 'vexiladmin').exists():
        print('skipped: scripts/quickstart builds in build/release, which is not the build under test')
        sys.exit(77)
    main()
