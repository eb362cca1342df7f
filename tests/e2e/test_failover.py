"""Several locations, some of them dead in one way or another."""

import contextlib
import os
import time

from endtoend import (NO_LOCATION, NOT_UNDERSTOOD, OUTCOME_UNKNOWN, REQUEST_REFUSED, TIMED_OUT, Case, FaultServer,
                      commands, configuration, failure, key_report, main)

SLACK = float(os.environ.get('VEXIL_SLACK', '0.2'))  # seconds, of which a sanitizer needs more
REALMS = 'east\nwest\n'
CAUSES = {
    'refuse': 'connection refused', 'blackhole': 'no connection in time', 'silence': 'no answer in time',
    'no-answer': 'no answer in time', 'stall=body': 'the rest of the answer did not come in time',
    'close=request': 'the connection ended before an answer', 'reset=body': 'answer not understood: it was cut short',
    'garbage': 'answer not understood: it is not HTTP/1.1', 'redirect': 'answer not understood: HTTP status 307',
    'status=503': 'HTTP status 503',
    'status=404': 'HTTP status 404: no session server is there, or not this instance of it'}
KEY = key_report('key-2', 1700000002, 1700000000)


def traced(servers):
    return ''.join(f'http://127.0.0.1:{server.port}/blue/services/DSessAdminProxy: {CAUSES[server.mode]}\n'
                   for server in servers)


class Failover(Case):
    @contextlib.contextmanager
    def peers(self, *modes):
        with contextlib.ExitStack() as stack:
            yield [stack.enter_context(FaultServer(mode)) for mode in modes]

    def timed(self, servers, *lines, timeout, **kwargs):
        """Runs commands. Late by more than the slack is late; a machine that is busy just then gets another chance."""
        for _ in range(3):
            start = time.monotonic()
            result = self.run_utility(*commands(*lines), config=configuration(*servers, timeout=timeout), **kwargs)
            late = time.monotonic() - start - timeout
            if late <= SLACK:
                return result
        raise AssertionError(f'{[server.mode for server in servers]}: {late:.3f} s late')

    def test_reads_succeed_while_one_location_lives_which_then_goes_first(self):
        for modes in [
                ('refuse', 'blackhole', 'good'), ('blackhole', 'silence', 'good'), ('no-answer', 'close-after', 'silence'),
                ('stall=body', 'status=503', 'good'), ('garbage', 'reset=body', 'good'),
                ('redirect', 'close=request', 'good'), ('status=404', 'slow=0.3', 'refuse'), ('good', 'blackhole', 'blackhole')]:
            with self.subTest(modes=modes), self.peers(*modes) as servers:
                good = next(i for i, mode in enumerate(modes) if mode in ('good', 'close-after', 'slow=0.3'))
                result = self.timed(servers, 'realm list', 'realm show east', timeout=2, VEXILADMIN_DEBUG='1')
                self.assertEqual((result.out, result.err, result.status),
                                 (traced(servers[:good]) + REALMS + '    alpha\n    beta\n', '', 0))
                self.assertLessEqual([server.connections for server in servers[:good]], [1] * good)

    def test_when_all_are_dead_each_is_named_with_its_cause(self):
        for modes, status in [
                (('refuse', 'refuse', 'refuse'), NO_LOCATION), (('blackhole', 'silence', 'no-answer'), TIMED_OUT),
                (('garbage', 'redirect', 'reset=body'), NOT_UNDERSTOOD), (('status=404', 'status=404'), REQUEST_REFUSED),
                (('refuse', 'blackhole', 'status=503'), NO_LOCATION), (('stall=body',), TIMED_OUT)]:
            with self.subTest(modes=modes), self.peers(*modes) as servers:
                result = self.timed(servers, 'realm list', 'key show', timeout=1, VEXILADMIN_DEBUG='1')
                self.assertEqual((result.out, result.err, result.status),
                                 (traced(servers), failure(status), status & 0xFF))

    def test_a_change_is_sent_to_one_server_and_once(self):
        unknown = [mode for mode in CAUSES if mode not in ('refuse', 'blackhole', 'status=404')]
        rows = [(modes, '', status, counts) for modes, status, counts in [
            *(((mode, 'good', 'good'), OUTCOME_UNKNOWN, [int(mode != 'silence'), 0, 0]) for mode in unknown),
            (('refuse', 'no-answer', 'good'), OUTCOME_UNKNOWN, [0, 1, 0]),
            (('status=404', 'good'), REQUEST_REFUSED, [1, 0]),
            (('refuse', 'refuse'), NO_LOCATION, [0, 0]),
            (('blackhole', 'blackhole'), TIMED_OUT, [0, 0])]]
        rows += [(modes, KEY, 0, counts) for modes, counts in [
            (('refuse', 'blackhole', 'good'), [0, 0, 1]), (('blackhole', 'good', 'good'), [0, 1, 0]),
            # Longer than its share of the time, with which it could be lost.
            (('slow=0.7', 'good', 'good'), [1, 0, 0])]]
        for modes, out, status, counts in rows:
            with self.subTest(modes=modes), self.peers(*modes) as servers:
                result = self.run_utility(*commands('key change'), config=configuration(*servers, timeout=1))
                self.assertEqual((result.out, result.err, result.status),
                                 (out, failure(status) if status else '', status & 0xFF))
                self.assertEqual([server.requests for server in servers], counts)

    def test_every_kind_of_change_is_sent_once(self):
        lines = ['key change', 'session terminate session s -realm r', 'session terminate all_sessions u -realm r',
                 'session refresh session s -realm r', 'session refresh all_sessions u -realm r', 'trace set 1']
        for mode, error in [('close=request', OUTCOME_UNKNOWN), ('close-after', 0)]:
            with self.subTest(mode), self.peers('refuse', mode, 'good') as servers:
                result = self.run_utility(config=configuration(*servers, timeout=1), stdin='\n'.join(lines))
                self.assertEqual((result.out, result.err), ('\n', failure(error) * 6) if error else (KEY + '\n', ''))
                self.assertEqual([server.requests for server in servers], [0, 6, 0])


if __name__ == '__main__':
    main()
