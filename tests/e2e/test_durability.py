"""What a server acknowledged to an administrator survives the server's sudden death."""

import re
import sqlite3
import subprocess
import time

from dsessd import DEADLINE, Dsessd
from endtoend import ADMINISTRATORS, NO_LOCATION, OUTCOME_UNKNOWN, ROOT_LOGIN, configuration
from vexil import VEXILADMIN, Case, commands, line

SESSIONS = {f"{turn}-{worker}-{step:04}" for turn in range(4) for worker in range(3) for step in range(1000)}


class Durability(Case):
    def start(self, name, texts, env):
        """A run of vexiladmin with many changes, each of which it names on standard output first."""
        (self.dir / name).write_text("\n".join([ROOT_LOGIN, *texts]))
        with open(self.dir / f"{name}.out", "wb") as out:
            arguments = [VEXILADMIN, "-file", self.dir / name]
            worker = subprocess.Popen(arguments, env=env, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.PIPE)
        self.addCleanup(worker.kill)
        return worker

    def test_nothing_acknowledged_is_lost(self):
        cluster = {
            "realms": [{"name": "east", "sessions": [{"id": name, "user": "m", "time": 1} for name in SESSIONS]}]
        }
        acknowledged, doubtful, errors, labels = set(), set(), set(), set()
        with Dsessd(cluster, ADMINISTRATORS) as server:
            env = self.environment(config=configuration(server), VEXILADMIN_DEBUG="3")
            for turn in range(4):
                work = {"keys": ["key change"] * 1000}
                for name in (f"{turn}-{worker}-" for worker in range(3)):
                    work[name] = [f"session terminate session {name}{step:04} -realm east" for step in range(1000)]
                workers = {name: self.start(name, texts, env) for name, texts in work.items()}
                enough, deadline = server.log().count(" changed: ") + 200, time.monotonic() + DEADLINE
                while server.log().count(" changed: ") < enough and time.monotonic() < deadline:
                    time.sleep(0.005)
                server.kill()
                for name, worker in workers.items():
                    errors.add(worker.communicate(timeout=DEADLINE)[1].decode())
                    out = (self.dir / f"{name}.out").read_text()
                    labels.update(re.findall(r"^Key: +(\S+)", out, re.M))
                    *begun, last = re.findall(r"^Processing.* (\S+) -realm", out, re.M) or [""]
                    acknowledged.update(begun)
                    doubtful.add(last)
                server.start()
            with sqlite3.connect(server.data) as data:
                kept = {label for label, in data.execute("SELECT label FROM keys")}
                self.assertEqual(data.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
            left = self.run_utility(*commands(ROOT_LOGIN, "session list -realm east * 0"), config=configuration(server))
        gone = SESSIONS - set(left.out.split())
        self.assertEqual((len(acknowledged) > 300, len(labels) > 20), (True, True))
        self.assertEqual((labels - kept, acknowledged - gone, gone - acknowledged - doubtful), (set(), set(), set()))
        # Some kill hit a request in progress.
        self.assertEqual(errors - {line(NO_LOCATION)}, {line(OUTCOME_UNKNOWN)})
