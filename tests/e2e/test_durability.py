"""What a server acknowledged to an administrator survives the server's sudden death."""

import re
import sqlite3
import subprocess
import time

from dsessd import Dsessd
from endtoend import ADMINISTRATORS, NO_LOCATION, OUTCOME_UNKNOWN, ROOT_LOGIN, configuration
from vexil import VEXILADMIN, Case, commands, line

TURNS = [[f"s-{turn}-{worker}-" for worker in range(3)] for turn in range(4)]
SESSIONS = {f"{prefix}{step:04}" for prefixes in TURNS for prefix in prefixes for step in range(1000)}


class Durability(Case):
    def start_worker(self, prefix, env, lines):
        """A run of vexiladmin with many changes, each of which it names on standard output first."""
        (self.dir / prefix).write_text("\n".join([ROOT_LOGIN, *lines]))
        with open(self.dir / f"{prefix}output", "wb") as output:
            worker = subprocess.Popen(
                [VEXILADMIN, "-file", self.dir / prefix],
                env=env,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.PIPE,
                text=True,
            )
        self.addCleanup(worker.kill)
        return worker

    def test_nothing_acknowledged_is_lost(self):
        sessions = [{"id": name, "user": "m", "time": 1} for name in SESSIONS]
        acknowledged, doubtful, errors, labels = set(), set(), set(), set()
        with Dsessd({"realms": [{"name": "east", "sessions": sessions}]}, ADMINISTRATORS) as server:
            env = self.environment(config=configuration(server), VEXILADMIN_DEBUG="3")
            for prefixes in TURNS:
                workers = [
                    self.start_worker(
                        prefix,
                        env,
                        [
                            f"session terminate session {name} -realm east"
                            for name in SESSIONS
                            if name.startswith(prefix)
                        ],
                    )
                    for prefix in prefixes
                ]
                keys = self.start_worker("keys-", env, ["key change"] * 1000)
                enough, deadline = len(acknowledged) + 200, time.monotonic() + 60
                while server.log().count(" changed: ") < enough and time.monotonic() < deadline:
                    time.sleep(0.005)
                server.kill()
                for prefix, worker in zip(prefixes, workers):
                    errors.add(worker.communicate(timeout=60)[1])
                    output = (self.dir / f"{prefix}output").read_text()
                    *begun, last = re.findall(f"^Processing.* ({prefix}.*) -", output, re.M)
                    acknowledged.update(begun)
                    doubtful.add(last)
                errors.add(keys.communicate(timeout=60)[1])
                labels.update(re.findall(r"^Key: +(\S+)", (self.dir / "keys-output").read_text(), re.M))
                server.start()
            with sqlite3.connect(server.data) as data:
                kept = {label for label, in data.execute("SELECT label FROM keys")}
                self.assertEqual(data.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
            left = self.run_utility(*commands(ROOT_LOGIN, "session list -realm east * 0"), config=configuration(server))
        gone = SESSIONS - set(left.out.split())
        self.assertGreater(len(acknowledged), 300)
        self.assertGreater(len(labels), 20)
        self.assertEqual(labels - kept, set())
        self.assertEqual((acknowledged - gone, gone - acknowledged - doubtful), (set(), set()))
        # Some kill hit a request in progress.
        self.assertEqual(errors - {line(NO_LOCATION)}, {line(OUTCOME_UNKNOWN)})
