"""Every change that an administrator asks for is made once, and none that was acknowledged is lost, whichever node dies.

CHANGES is the number of changes, DEATHS_SEED what the nodes that are killed meanwhile are drawn from."""

import contextlib
import os
import random
import re
import signal
import sqlite3
import subprocess
import time

from dsessd import AS_ROOT, DEADLINE, POSTGRES, Dsessd
from endtoend import ADMINISTRATORS, configuration, start_run
from postgres import PROGRAMS
from vexil import Case

CHANGES, SEED = int(os.environ.get("CHANGES", 2000)), int(os.environ.get("DEATHS_SEED", 1))
SESSIONS = [f"{worker}-{step:05}" for worker in range(2) for step in range(CHANGES // 4)]
CLUSTER = {"realms": [{"name": "east", "sessions": [{"id": name, "user": "m", "time": 1} for name in SESSIONS]}]}


class Durability(Case):
    def start(self, worker, env):
        """A run of vexiladmin with two changes for each of its sessions, and the file of what it shows."""
        texts = [f"session terminate session {name} -realm east\nkey change" for name in SESSIONS if name[0] == worker]
        return start_run(self, f"run-{worker}", texts, env)

    def query(self, text):
        """What the store answers first."""
        if POSTGRES:
            command = [f"{PROGRAMS}/psql", "-qAtX", self.data, "-c", text]
            return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()
        with contextlib.closing(sqlite3.connect(self.data)) as data:
            return str(data.execute(text).fetchone()[0])

    def crash_database(self):
        """When one of its processes dies so, the database ends all others and recovers."""
        os.kill(int(self.query("SELECT pid FROM pg_stat_activity WHERE backend_type = 'walwriter'")), signal.SIGKILL)
        deadline = time.monotonic() + DEADLINE
        while time.monotonic() < deadline:
            with contextlib.suppress(subprocess.CalledProcessError):
                return self.query("SELECT 1")

    def test_every_change_is_made_once_whichever_node_dies(self):
        chance = random.Random(SEED)
        with contextlib.ExitStack() as stack:
            nodes = [stack.enter_context(Dsessd(CLUSTER, ADMINISTRATORS))]
            self.data = nodes[0].data
            nodes += [stack.enter_context(nodes[0].another()) for _ in range(2)]
            env = self.environment(config=configuration(*nodes), VEXILADMIN_DEBUG="1")
            runs = [self.start(worker, env) for worker in "01"]
            deaths = 0
            while any(run.poll() is None for run, _ in runs):
                time.sleep(chance.uniform(0, 0.5))
                victim = chance.choice(nodes)
                victim.stop(signal.SIGKILL)
                deaths += 1
                if POSTGRES and deaths % 4 == 0:
                    self.crash_database()
                time.sleep(chance.uniform(0, 0.3))
                victim.start()
            shown = [path.read_text() for _, path in runs]
            self.assertEqual([run.returncode for run, _ in runs], [0, 0], [text[-1000:] for text in shown])
            left = nodes[0].call("session.list", **AS_ROOT, realm="east", selector="user", value="*", max=0)
            labels = {label for text in shown for label in re.findall(r"^Key: +(\S+)", text, re.M)}
            keys = self.query("SELECT count(*) FROM keys")
            if not POSTGRES:
                self.assertEqual(self.query("PRAGMA integrity_check"), "ok")
        self.assertEqual(left["result"]["total"], 0)
        self.assertEqual((len(labels), int(keys)), (len(SESSIONS), len(SESSIONS) + 1))
        self.assertTrue(any("asked again" in text for text in shown))  # some death came between a change and its answer
