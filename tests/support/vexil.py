"""Runs vexiladmin, and knows its messages and the calls that an ordinary run makes of the recording client library."""

import ast
import collections
import datetime
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time
import unittest
import urllib.parse

from terminal import PROMPT, Terminal

for number in (signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):  # nohup ignores them, and what is run here would too
    signal.signal(number, signal.default_int_handler)

ROOT = pathlib.Path(__file__).resolve().parents[2]
VEXILADMIN = os.environ["VEXILADMIN"]
CONFIG = "[tarn]\nlocation = node1:9080\ninstances = blue,green\ntimeout = 5\n"
ANON = "handle1 sec=anonymous,~,~"


def start(instance="blue", number=1, timeout=5, urls=None, ssl="dns=[] keyfile=~ stash=~ label=~ fips=0"):
    """The calls that select an instance."""
    urls = f"http://node1:9080/{instance}/services/DSessAdminProxy" if urls is None else urls
    return [f"initialize timeout={timeout} urls=[{urls}] {ssl} context=~", f"create_handle context{number} handle=~"]


def end(number=1):
    """The calls that let go of one."""
    return [f"release_handle context{number} handle{number}", f"shutdown context{number}"]


def read_table():
    entry = r'^QEL_(FAILURE|TEXT|FIXED)\(\w+, ([0-9A-F]{8}), "\w*",\s*((?:"(?:[^"\\]|\\.)*"\s*)+)\)'
    table = (ROOT / "catalogue" / "qel_messages.def").read_text(encoding="utf-8")
    for kind, identifier, text in re.findall(entry, table, re.M):
        yield int(identifier, 16), (identifier + " " if kind == "FAILURE" else "") + ast.literal_eval(f"({text})")


MESSAGES = dict(read_table())
README = (ROOT / "README.md").read_text()
VERSION = re.search(r"^project\(\w+ VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text(), re.M)[1]


PATTERNS = re.findall("^(.+?)  +[^ ]", re.search("^## Commands\n\n```([^`]*)", README, re.M)[1], re.M)


def msg(identifier, *arguments):
    """The text of a message. A system error number is given as its shown text."""
    text, left = MESSAGES[identifier], iter(arguments)
    return re.sub(r"%(?:(\d)\$)?[sd]", lambda m: str(arguments[int(m[1]) - 1] if m[1] else next(left)), text)


def line(identifier, *arguments):
    """The same on a line of its own."""
    return msg(identifier, *arguments).removesuffix("\n") + "\n"


def error(number):
    """How a system error number is shown."""
    return f"{os.strerror(number)} ({number})"


def refused(value):
    """What is seen of a value of a command or option that is not valid."""
    return {"err": line(0x38C5213E, value) + line(0x38C52146), "status": 0x38C52146}


def commands(*texts):
    """The arguments that run these commands."""
    return [argument for text in texts for argument in ("-command", text)]


Result = collections.namedtuple("Result", "out err status calls log")


class Case(unittest.TestCase):
    """A test with a directory of its own, which is the working directory of what it runs."""

    maxDiff = None

    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def environment(self, config=CONFIG, script="", **env):
        """Prepares configuration and script, forgets earlier records, and returns the environment that names them. In a
        script %XX stands for a byte that would end a text."""
        files = {name: self.dir / name for name in ("calls", "service.log", "vexilclicfg.conf", "script")}
        for path in files.values():
            path.unlink(missing_ok=True)
        separated = script.translate({ord("\n"): "\x1D", ord(" "): "\x1E", ord(","): "\x1F"})
        files["script"].write_bytes(urllib.parse.unquote_to_bytes(separated))
        if config is not None:
            files["vexilclicfg.conf"].write_text(config, encoding="utf-8")
        inherited = {name: os.environ[name] for name in os.environ if not re.match("LC_|LANG|QEL_|VEXILADMIN_", name)}
        settings = {"LC_ALL": "C.UTF-8", "TERM": "dumb", "TZ": "Asia/Tokyo", "QEL_CONFIG_DIR": str(self.dir)}
        records = {"RECORDING_SCRIPT": str(files["script"]), "RECORDING_LOG": str(files["calls"])}
        return {**inherited, **settings, **records, "QEL_SVC_LOG": str(files["service.log"]), **env}

    def recorded(self, name):
        path = self.dir / name
        return path.read_bytes().decode(errors="surrogateescape").split("\n")[:-1] if path.exists() else []

    def locale(self, charset):
        """The settings of a locale of this character set, which is made for the test."""
        made = subprocess.run(["localedef", "-i", "en_US", "-f", charset, self.dir / "made"], capture_output=True)
        if made.returncode != 0:
            self.skipTest(f"no locale can be made: {made.stderr}")
        return {"LC_ALL": "made", "LOCPATH": str(self.dir)}

    def run_utility(self, *arguments, stdin="", encoding="utf-8", redirect="", streams=None, **kwargs):
        """`redirect`: redirections of the shell. `streams`: what subprocess.run() is given for the standard streams."""
        captured = {"input": stdin.encode(encoding, "surrogateescape"), "capture_output": True}
        process = subprocess.run(
            ["sh", "-c", f'exec "$0" "$@" {redirect}', VEXILADMIN, *arguments],
            env=self.environment(**kwargs),
            cwd=self.dir,
            timeout=60,
            **(streams or captured),
        )
        out, err = ((text or b"").decode(encoding, "surrogateescape") for text in (process.stdout, process.stderr))
        return Result(out, err, process.returncode, self.recorded("calls"), self.recorded("service.log"))

    def terminal(self, *arguments, program=VEXILADMIN, prompt=PROMPT, job_control="foreground", **kwargs):
        """Runs it on a terminal, and waits for a prompt unless it is null."""
        terminal = Terminal([program, *arguments], self.environment(**kwargs), job_control)
        self.addCleanup(terminal.close)
        if prompt:
            terminal.asks(prompt)
        return terminal

    def check(self, *arguments, out="", err="", status=0, calls=(), log=(), whole=False, **kwargs):
        """Runs the utility and compares all that can be seen; `calls` are those between start and end unless `whole`.
        `status` is a full status: an exit status is its low byte. `log`: who speaks in the service log, and what."""
        result = self.run_utility(*arguments, **kwargs)
        expected = [*calls] if whole else [*start(), *calls, *end()]
        self.assertEqual(result[:4], (out, err, status & 0xFF, expected), arguments)
        entries = [re.fullmatch(r"(\S+) vexiladmin\[\d+\] (\w+) \w+\.cpp:\d+ (.*)", line) for line in result.log]
        self.assertEqual([entry and entry.groups()[1:] for entry in entries], [*log], arguments)
        for entry in entries:
            time = datetime.datetime.fromisoformat(entry[1])  # of UTC, whatever the zone
            self.assertLess(abs(time - datetime.datetime.now(datetime.UTC)), datetime.timedelta(minutes=5))

    def within(self, seconds, since, condition):
        """Waits for a condition."""
        while not condition():
            self.assertLess(time.monotonic() - since, seconds)
            time.sleep(0.1)

    def check_table(self, table, run):
        """Runs each row of a table as a subtest."""
        for row in table:
            with self.subTest(row[0]):
                run(*row)
