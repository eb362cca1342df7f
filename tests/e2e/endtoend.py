"""What the end-to-end tests share: the real vexiladmin with its own client library, against servers of every kind."""

import os
import pathlib
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
SUPPORT = ROOT / 'tests' / 'support'
sys.path.insert(0, str(SUPPORT))
os.environ.setdefault('VEXILADMIN', str(ROOT / 'build' / 'bin' / 'vexiladmin'))
os.environ.setdefault('RECORDING_DIR', '')  # no library in the place of the real one

from dsessd import Dsessd  # noqa: E402
from fault_server import FaultServer  # noqa: E402
from terminal import Terminal  # noqa: E402
from vexil import VEXILADMIN, Case, bucket, commands, main, msg  # noqa: E402

ADMINISTRATORS = [('root', 'SECRET', 'change'), ('reader', 'GLANCE', 'read')]
ROOT_LOGIN = 'login root SECRET'
TIME = r'\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d UTC'

NO_LOCATION, TIMED_OUT, OUTCOME_UNKNOWN, TLS_FAILURE = 0x38C54011, 0x38C54012, 0x38C54013, 0x38C54014
IDENTITY_REFUSED, NOT_PERMITTED, UNKNOWN_REALM, UNKNOWN_REPLICA_SET = 0x38C54015, 0x38C54016, 0x38C54017, 0x38C54018
REQUEST_REFUSED, NOT_UNDERSTOOD, KEY_FILE, NO_MATCHING_SESSION = 0x38C54019, 0x38C5401A, 0x38C5401D, 0x38C54021


def configuration(*servers, timeout=5, host='127.0.0.1', **entries):
    """The text of a configuration whose locations are these servers; in names of further entries _ stands for -."""
    lines = {'location': ','.join(f'{host}:{server.port}' for server in servers), 'instances': 'blue,green',
             'timeout': timeout, **{name.replace('_', '-'): value for name, value in entries.items()}}
    return '[tarn]\n' + ''.join(f'{name} = {value}\n' for name, value in lines.items())


def failure(*messages):
    """Standard error of a failure: statuses, or tuples of an identifier and arguments."""
    texts = [msg(*message) if isinstance(message, tuple) else msg(message) for message in messages]
    return ''.join(text if text.endswith('\n') else text + '\n' for text in texts)


def when(seconds):
    """How a server's time is shown."""
    return time.strftime('%Y-%m-%d-%H:%M:%S UTC', time.gmtime(seconds))


def key_report(label, made, before=None):
    """What key show and key change print."""
    return (msg(0x38C52138, label, when(made), when(before)) if before else msg(0x38C52142, label, when(made))) + '\n'


def listing(total, *sessions):
    """What session list prints; a session is (user, time, id)."""
    lines = [msg(0x38C52143, total, len(sessions)),
             *(msg(0x38C5213D, user, when(seconds), name) for user, seconds, name in sessions)]
    return '\n'.join(lines if sessions else [*lines, msg(0x38C5213C)]) + '\n'


class Prompt:
    """A program at vexiladmin's prompt, on a terminal."""

    def __init__(self, case, arguments=(VEXILADMIN,), **kwargs):
        self.terminal = Terminal(arguments, case.environment(**{'TERM': 'vt100', **kwargs}))
        case.addCleanup(self.terminal.close)
        self.asks()

    def asks(self, prompt='vexiladmin> '):
        """Waits for a prompt, with the terminal's own echo off. Returns what was shown before it."""
        shown = self.terminal.see(prompt)
        self.terminal.until(lambda: not self.terminal.echoes(), 'end of echo')
        return shown.replace('\r', '')

    def answer(self, line, prompt='vexiladmin> '):
        """What is shown for a line, behind its echo."""
        self.terminal.type(line + '\n')
        return self.asks(prompt).split('\n', 1)[1]
