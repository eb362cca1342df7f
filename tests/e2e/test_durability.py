"""What a server acknowledged to an administrator survives the server's sudden death."""

import re
import subprocess
import time

from dsessd import Dsessd
from endtoend import ADMINISTRATORS, NO_LOCATION, OUTCOME_UNKNOWN, ROOT_LOGIN, configuration
from vexil import VEXILADMIN, Case, commands, line

TURNS = [[f's-{turn}-{worker}-' for worker in range(3)] for turn in range(4)]
SESSIONS = {f'{prefix}{step:04}' for prefixes in TURNS for prefix in prefixes for step in range(1000)}


class Durability(Case):
    def start_worker(self, prefix, env):
        """A run of vexiladmin that terminates one session after the other, and names each on standard output first."""
        lines = [f'session terminate session {name} -realm east' for name in SESSIONS if name.startswith(prefix)]
        (self.dir / prefix).write_text('\n'.join([ROOT_LOGIN, *lines]))
        with open(self.dir / f'{prefix}output', 'wb') as output:
            worker = subprocess.Popen([VEXILADMIN, '-file', self.dir / prefix], env=env, stdin=subprocess.DEVNULL,
                                      stdout=output, stderr=subprocess.PIPE, text=True)
        self.addCleanup(worker.kill)
        return worker

    def test_nothing_acknowledged_is_lost(self):
        sessions = [{'id': name, 'user': 'm', 'time': 1} for name in SESSIONS]
        acknowledged, doubtful, errors = set(), set(), set()
        with Dsessd({'realms': [{'name': 'east', 'sessions': sessions}]}, ADMINISTRATORS) as server:
            env = self.environment(config=configuration(server), VEXILADMIN_DEBUG='3')
            for prefixes in TURNS:
                workers = [self.start_worker(prefix, env) for prefix in prefixes]
                enough, deadline = len(acknowledged) + 150, time.monotonic() + 60
                while server.log().count(' changed: ') < enough and time.monotonic() < deadline:
                    time.sleep(0.005)
                server.kill()
                for prefix, worker in zip(prefixes, workers):
                    errors.add(worker.communicate(timeout=60)[1])
                    output = (self.dir / f'{prefix}output').read_text()
                    *begun, last = re.findall(f'^Processing.* ({prefix}.*) -', output, re.M)
                    acknowledged.update(begun)
                    doubtful.add(last)
                server.start()
            left = self.run_utility(*commands(ROOT_LOGIN, 'session list -realm east * 0'), config=configuration(server))
        gone = SESSIONS - set(left.out.split())
        self.assertGreater(len(acknowledged), 300)
        self.assertEqual((acknowledged - gone, gone - acknowledged - doubtful), (set(), set()))
        # Some kill hit a request in progress.
        self.assertEqual(errors - {line(NO_LOCATION)}, {line(OUTCOME_UNKNOWN)})
