"""Runs vexiladmin against the recording client library, and knows its messages and the calls of an ordinary run."""

import ast
import collections
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

VEXILADMIN = os.environ['VEXILADMIN']
RECORDING_DIR = os.environ['RECORDING_DIR']
TABLE = pathlib.Path(__file__).parents[2] / 'runtime' / 'qel_messages.def'

CONFIG = '[tarn]\nlocation = node1:9080\ninstances = blue,green\ntimeout = 5\n'
ANON = 'handle1 sec=anonymous,~,~,~'


def start(instance='blue', number=1, timeout=5, urls=None, ssl='dns=[] keyfile=~ stash=~ label=~ fips=0'):
    """The calls that select an instance."""
    urls = urls or [f'http://node1:9080/{instance}/services/DSessAdminProxy']
    return [f'initialize timeout={timeout} urls=[{",".join(urls)}] {ssl} trace=exported context=~',
            f'create_handle ctx{number} handle=~']


def end(number=1):
    """The calls that let go of one."""
    return [f'release_handle ctx{number} handle{number}', f'shutdown ctx{number} settings=kept']


def read_table():
    messages = {}
    pattern = r'^QEL_(FAILURE|TEXT)\(\w+, ([0-9A-F]{8}), "(\w*)",\s*((?:"(?:[^"\\]|\\.)*"\s*)+)\)'
    for kind, identifier, kinds, text in re.findall(pattern, TABLE.read_text(encoding='utf-8'), re.M):
        text = ''.join(ast.literal_eval(piece) for piece in re.findall(r'"(?:[^"\\]|\\.)*"', text))
        messages[int(identifier, 16)] = (kinds, (identifier + ' ' if kind == 'FAILURE' else '') + text)
    return messages


MESSAGES = read_table()


def msg(identifier, *arguments):
    """The text of a message. A system error number is given as its shown text."""
    kinds, text = MESSAGES[identifier]
    assert len(kinds) == len(arguments), (hex(identifier), kinds, arguments)
    left = iter(range(len(arguments)))
    return re.sub(r'%(?:(\d)\$)?([sd])', lambda m: str(arguments[int(m[1]) - 1 if m[1] else next(left)]), text)


def commands(*texts):
    """The arguments that run these commands."""
    return [argument for text in texts for argument in ('-command', text)]


def error(number):
    return f'{os.strerror(number)} ({number})'


def bucket(name):
    """Where the hash table of instances and options keeps a name: 32-bit FNV-1a, folded, modulo 29."""
    value = 0x811C9DC5
    for byte in name.encode():
        value = (value ^ byte) * 0x01000193 & 0xFFFFFFFF
    return (value ^ (value >> 24) ^ (value >> 16 & 0xFF) ^ (value >> 8 & 0xFF)) % 29


Result = collections.namedtuple('Result', 'out err status calls log')


class Case(unittest.TestCase):
    """A test with a directory of its own, which is the working directory of what it runs."""

    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.dir = pathlib.Path(folder.name)

    def environment(self, config=CONFIG, script='', **env):
        """Prepares configuration and script, forgets earlier records, and returns the environment that names them."""
        for name in ('calls', 'service.log', 'vexilclicfg.conf'):
            (self.dir / name).unlink(missing_ok=True)
        (self.dir / 'script').write_text(script)
        if config is not None:
            (self.dir / 'vexilclicfg.conf').write_bytes(config.encode(errors='surrogateescape'))
        inherited = {name: value for name, value in os.environ.items()
                     if not re.match(r'LC_|LANG|QEL_|VEXILADMIN_|TZ$', name)}
        return {**inherited, 'LC_ALL': 'C.UTF-8', 'TERM': 'dumb', 'TZ': 'Asia/Tokyo', 'LD_LIBRARY_PATH': RECORDING_DIR,
                'QEL_CONFIG_DIR': str(self.dir), 'QEL_SVC_LOG': str(self.dir / 'service.log'),
                'RECORDING_SCRIPT': str(self.dir / 'script'), 'RECORDING_LOG': str(self.dir / 'calls'), **env}

    def recorded(self, name):
        path = self.dir / name
        return path.read_text(encoding='utf-8').splitlines() if path.exists() else []

    def run_utility(self, *arguments, stdin='', merge=False, encoding='utf-8', **kwargs):
        process = subprocess.run(
            [VEXILADMIN, *arguments], env=self.environment(**kwargs), cwd=self.dir, timeout=60,
            input=stdin.encode(encoding, 'surrogateescape'), stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT if merge else subprocess.PIPE)
        out, err = ((text or b'').decode(encoding, 'surrogateescape') for text in (process.stdout, process.stderr))
        return Result(out, err, process.returncode, self.recorded('calls'), self.recorded('service.log'))

    def check(self, *arguments, out='', err='', status=0, calls=(), log=(), whole=False, **kwargs):
        """Runs the utility and compares all that can be seen; `calls` are those between start and end unless `whole`.
        `status` is a full status: an exit status is its low byte. `log`: who speaks in the service log, and what."""
        result = self.run_utility(*arguments, **kwargs)
        expected = [*calls] if whole else [*start(), *calls, *end()]
        shown = (result.out, result.err, result.status, result.calls)
        self.assertEqual(shown, (out, err, status & 0xFF, expected), f'{arguments}')
        entries = [re.fullmatch(r'\S+ vexiladmin\[\d+\] (\w+) \w+\.cpp:\d+ (.*)', line) for line in result.log]
        self.assertEqual([entry and entry.groups() for entry in entries], [*log], arguments)

    def check_table(self, table, run):
        """Runs each row of a table as a subtest."""
        for row in table:
            with self.subTest(row[0]):
                run(*row)


def main():
    unittest.main()
