"""What a server acknowledged to an administrator survives the server's sudden death, and no change is made twice."""

import re
import signal
import sqlite3
import subprocess
import time

from dsessd import DEADLINE, Dsessd
from endtoend import ADMINISTRATORS, NO_LOCATION, OUTCOME_UNKNOWN, ROOT_LOGIN, configuration
from fault_server import FaultServer
from vexil import VEXILADMIN, Case, commands, line

SESSIONS = {f"{run}-{step:04}" for run in range(6) for step in range(500)}
CLUSTER = {"realms": [{"name": "east", "sessions": [{"id": name, "user": "m", "time": 1} for name in SESSIONS]}]}


class Durability(Case):
    def start(self, run, env):
        """A run of vexiladmin with many changes, each of which it names on standard output first, and that output."""
        names = [name for name in sorted(SESSIONS) if name.startswith(f"{run}-")]
        texts = [f"session terminate session {name} -realm east\nkey change" for name in names]
        file = self.dir / f"run-{run}"
        file.write_text("\n".join([ROOT_LOGIN, *texts]))
        out = self.enterContext(open(self.dir / f"out-{run}", "w+"))
        worker = subprocess.Popen([VEXILADMIN, "-file", file], env=env, stdout=out, stderr=subprocess.PIPE)
        self.addCleanup(worker.kill)
        return worker, out

    def test_nothing_acknowledged_is_lost(self):
        acknowledged, doubtful, errors, labels = set(), set(), set(), set()
        with Dsessd(CLUSTER, ADMINISTRATORS) as server:
            env = self.environment(config=configuration(server), VEXILADMIN_DEBUG="3")
            for turn in range(3):
                workers = [self.start(2 * turn + worker, env) for worker in range(2)]
                enough, deadline = server.log().count(" changed: ") + 200, time.monotonic() + DEADLINE
                while server.log().count(" changed: ") < enough and time.monotonic() < deadline:
                    time.sleep(0.005)
                server.stop(signal.SIGKILL)
                for worker, out in workers:
                    errors.add(worker.communicate(timeout=DEADLINE)[1].decode())
                    out.seek(0)
                    shown = out.read()
                    labels.update(re.findall(r"^Key: +(\S+)", shown, re.M))
                    *begun, last = re.findall(r"^Processing.* (\S+) -realm", shown, re.M)
                    acknowledged.update(begun)
                    doubtful.add(last)
                server.start()
            with sqlite3.connect(server.data) as data:
                kept = {label for label, in data.execute("SELECT label FROM keys")}
                self.assertEqual(data.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
            left = self.run_utility(*commands(ROOT_LOGIN, "session list -realm east * 0"), config=configuration(server))
        gone = SESSIONS - set(left.out.split())
        self.assertEqual((len(acknowledged) > 200, len(labels) > 200), (True, True))
        self.assertEqual((labels - kept, acknowledged - gone, gone - acknowledged - doubtful), (set(), set(), set()))
        # Some kill hit a request in progress.
        self.assertEqual(errors - {line(NO_LOCATION)}, {line(OUTCOME_UNKNOWN)})

    def test_no_change_is_sent_to_a_second_location(self):
        sessions = ["session terminate session x -realm r", "session refresh all_sessions x -realm r"]
        for text in ["key change", "trace set 1", *sessions]:
            dead, one, other = map(FaultServer, ["refuse", "status=503", "good"])
            result = self.run_utility(*commands(text), config=configuration(dead, one, other))
            self.assertEqual(result[1:3], (line(OUTCOME_UNKNOWN), OUTCOME_UNKNOWN & 0xFF), text)
            self.assertEqual((one.requests, other.requests), (1, 0), text)
