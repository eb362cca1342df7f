"""What a server acknowledged to an administrator survives the server's sudden death."""

import contextlib
import re
import sqlite3
import subprocess
import time

from endtoend import (ADMINISTRATORS, NO_LOCATION, OUTCOME_UNKNOWN, ROOT_LOGIN, TIME, VEXILADMIN, Case, Dsessd, commands,
                      configuration, failure, main, msg)

T = 1700000000
ROUNDS, WORKERS, STEPS = 4, 3, 3000
SESSIONS = {f's-{worker}-{step:04}' for worker in range(WORKERS) for step in range(STEPS)}
LABEL = msg(0x38C52138, r'(\S+)', TIME, TIME).split('\n', maxsplit=1)[0]


class Worker:
    """A run of vexiladmin that terminates a session, refreshes the next one, changes the key, and so on."""

    def __init__(self, case, number, first):
        script, self.output = case.dir / f'script-{number}', case.dir / f'output-{number}'
        kinds = ('session terminate session s-{}-{:04} -realm east', 'session refresh session s-{}-{:04} -realm east', 'key change')
        script.write_text('\n'.join([ROOT_LOGIN, *(kinds[step % 3].format(number, step) for step in range(first, STEPS))]))
        with open(self.output, 'wb') as output:
            self.process = subprocess.Popen([VEXILADMIN, '-file', script], stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=subprocess.PIPE, env={**case.env, 'VEXILADMIN_DEBUG': '3'})

    def end(self):
        """(standard error, status, commands begun, labels of keys shown). All commands but the last one succeeded."""
        error = self.process.communicate(timeout=60)[1].decode()
        output = self.output.read_text()
        return (error, self.process.returncode, re.findall('^Processing the command: (.*)$', output, re.M),
                re.findall(f'^{LABEL}$', output, re.M))

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.communicate()


class Durability(Case):
    def test_nothing_acknowledged_is_lost(self):
        cluster = {'realms': [{'name': 'east', 'sessions': [{'id': name, 'user': 'm', 'time': T} for name in SESSIONS]}]}
        self.terminated, self.refreshed, self.labels, self.doubtful, statuses = set(), set(), set(), set(), set()
        with Dsessd(cluster, ADMINISTRATORS) as server:
            self.env = self.environment(config=configuration(server))
            first = [0] * WORKERS
            for turn in range(1, ROUNDS + 1):
                with contextlib.ExitStack() as stack:
                    workers = [Worker(self, number, first[number]) for number in range(WORKERS)]
                    for worker in workers:
                        stack.callback(worker.kill)
                    deadline = time.monotonic() + 60
                    while server.log().count(' changed: ') < 150 * turn:
                        self.assertLess(time.monotonic(), deadline)
                        time.sleep(0.005)
                    server.kill()
                    for number, worker in enumerate(workers):
                        error, status, begun, shown = worker.end()
                        self.assertIn(error, [failure(NO_LOCATION), failure(OUTCOME_UNKNOWN)])
                        self.take_stock(begun, shown)
                        first[number] += len(begun) - 1
                        statuses.add(status)
                self.check_data(server.data)
                server.start()
            # The new server, too, has what the old one left.
            result = self.run_utility(*commands(ROOT_LOGIN, 'session list -realm east * 0'), config=configuration(server))
            listed = set(result.out.split())
            self.assertEqual((self.terminated & listed, self.refreshed - listed), (set(), set()))
        self.assertGreater(min(map(len, (self.terminated, self.refreshed, self.labels))), 20)
        self.assertEqual(statuses - {NO_LOCATION & 0xFF}, {OUTCOME_UNKNOWN & 0xFF}, 'some kill hit a request in progress')

    def take_stock(self, begun, shown):
        """What is certain and what is not after a worker's run."""
        self.assertEqual(len(shown), begun[:-1].count('key change'))
        self.labels.update(shown)
        for verb, certain in (('terminate', self.terminated), ('refresh', self.refreshed)):
            certain.update(line.split()[3] for line in begun[:-1] if verb in line)
        self.doubtful.update(begun[-1].split())

    def check_data(self, path):
        """The data file as the dead server left it: sound, with what was acknowledged and nothing that was not asked."""
        with contextlib.closing(sqlite3.connect(path)) as data:
            self.assertEqual(data.execute('PRAGMA integrity_check').fetchall(), [('ok',)])
            times = dict(data.execute('SELECT id, time FROM sessions'))
            self.assertLessEqual(self.labels, {label for (label,) in data.execute('SELECT label FROM keys')})
        gone, fresh = SESSIONS - times.keys(), {name for name, seconds in times.items() if seconds != T}
        self.assertEqual((self.terminated - gone, self.refreshed - fresh), (set(), set()))
        self.assertLessEqual((gone - self.terminated) | (fresh - self.refreshed), self.doubtful)


if __name__ == '__main__':
    main()
