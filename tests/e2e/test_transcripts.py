"""The sixteen commands against a real server: what is printed, byte for byte, and what the server holds afterwards."""

import re
import time

from endtoend import (ADMINISTRATORS, IDENTITY_REFUSED, NO_MATCHING_SESSION, NOT_PERMITTED, REQUEST_REFUSED, ROOT_LOGIN,
                      UNKNOWN_REALM, UNKNOWN_REPLICA_SET, Case, Dsessd, bucket, commands, configuration, failure,
                      key_report, listing, main, msg, when)

T = 1700000000
MALLORY = [('mallory', T + 5, 's-2'), ('mallory', T + 7, 's-1')]
OTHERS = [('marie', T, 's-3'), ('Жанна', T + 1, 's-5'), ('田中太郎', T + 2, 's-4')]


def sessions(*rows):
    return [{'id': name, 'user': user, 'time': seconds} for user, seconds, name in rows]


CLUSTER = {
    'keys': [{'label': 'first', 'time': T - 100}, {'label': 'second', 'time': T}],
    'realms': [
        {'name': 'east', 'sessions': sessions(*OTHERS, *MALLORY), 'replicaSets': [
            {'name': 'web', 'members': [{'name': 'node1', 'time': T + 1}, {'name': 'node2', 'time': T + 2}]},
            {'name': 'idle'}]},
        {'name': 'wést', 'replicaSets': [{'name': 'mail'}]},
        {'name': 'bare'}]}
KEY = key_report('second', T, T - 100)
NO_REALM, LEVEL_1, LEVEL_3 = msg(0x38C52136) + '\n', msg(0x38C5213A, 1) + '\n', msg(0x38C5213A, 3) + '\n'
READS = {'realm list': 'east\nwést\nbare\n', 'replica set list -realm wést': '    mail\n',
         'replica set show web': ''.join(msg(0x38C52134, f'node{n}', when(T + n)) for n in (1, 2)) + '\n',
         'key show': KEY, 'session list -realm east mallory 0': listing(2, *MALLORY), 'trace get': LEVEL_1}
CHANGES = ['key change', 'trace set 2', *(f'session {verb} {what} -realm east' for verb in ('terminate', 'refresh')
                                        for what in ('session s-1', 'all_sessions marie'))]


def server(**options):
    return Dsessd(**{'cluster': CLUSTER, 'administrators': ADMINISTRATORS, 'anonymous': 'read',
                     'instances': ['blue', 'green'], **options})


class Transcripts(Case):
    def check_transcripts(self, peer, table, login=()):
        """Rows of a command or several, standard output, and failures, of which the last is the status."""
        def run(lines, out='', *errors):
            lines = [lines] if isinstance(lines, str) else lines
            self.check(*commands(*login, *lines), out=out, err=failure(*errors), status=errors[-1] if errors else 0,
                       whole=True, config=configuration(peer))
        self.check_table(table, run)

    def at_prompt(self, peer, *lines):
        """What lines at the prompt show on both streams, without the line feed that answers the end of input."""
        result = self.run_utility(stdin=''.join(line + '\n' for line in lines), merge=True, config=configuration(peer))
        self.assertEqual((result.status, result.out[-1:], result.log), (0, '\n', []))
        return result.out[:-1]

    def test_commands_that_look(self):
        with server() as peer:
            self.check_transcripts(peer, [
                *READS.items(),
                ('instances list', ''.join(f'{name}\n' for name in sorted(['blue', 'green'], key=bucket))),
                (['set instance green', 'key show'], KEY),
                ('set instance red', '', (0x38C52147, 'red'), 0x38C531C5),
                ('realm show east', '    web\n    idle\n'),
                ('realm show bare',),
                ('realm show eas', NO_REALM),
                ('replica set list', 'east:\n    web\n    idle\nwést:\n    mail\nbare:\n'),
                ('replica set list -realm nowhere', NO_REALM),
                ('replica set show idle', msg(0x38C52135) + '\n'),
                ('replica set show east', '', UNKNOWN_REPLICA_SET),
                ('session list -realm east * 0', listing(5, *sorted(MALLORY + OTHERS))),
                ('session list -realm east m?l*y 1', listing(2, MALLORY[0])),
                ('session list -realm east 田* 2147483647', listing(1, OTHERS[2])),
                ('session list -realm east Ж???а 0', listing(1, OTHERS[1])),
                ('session list -realm bare * 0', listing(0)),
                ('session list -realm nowhere * 0', '', UNKNOWN_REALM),
                ('session list -realm east * -1', '', (0x38C5213E, 'max'), 0x38C52146),
                (ROOT_LOGIN,),
                ('login root WRONG', '', IDENTITY_REFUSED),
                ('login nobody SECRET', '', IDENTITY_REFUSED)])
            self.check(*commands('trace get', 'key', 'key show'), whole=True, config=configuration(peer), status=0x38C52099,
                       out=f'{LEVEL_1}{msg(0x38C521E5)} key \n{msg(0x38C521E8)}\n    key change\n    key show\n')

    def test_commands_that_change(self):
        with server() as peer:
            self.check_transcripts(peer, login=[ROOT_LOGIN], table=[
                (['trace set 3', 'trace get'], LEVEL_3),
                ('trace set 10', '', REQUEST_REFUSED),
                ('trace set 1x', '', (0x38C5213E, 'level'), 0x38C52146),
                ('session terminate session marie -realm east', '', NO_MATCHING_SESSION),
                ('session terminate session s-3 -realm nowhere', '', UNKNOWN_REALM),
                (['session terminate session s-3 -realm east', 'session list -realm east mar* 0'], listing(0)),
                ('session terminate session s-3 -realm east', '', NO_MATCHING_SESSION),
                ('session terminate all_sessions mallory -realm nowhere', '', UNKNOWN_REALM),
                (['session terminate all_sessions mallory -realm east', 'session list -realm east * 0'],
                 listing(2, *OTHERS[1:])),
                ('session terminate all_sessions * -realm east', '', NO_MATCHING_SESSION),
                ('session refresh session s-1 -realm east', '', NO_MATCHING_SESSION),
                ('session refresh session s-4 -realm nowhere', '', UNKNOWN_REALM),
                ('session refresh all_sessions 田中 -realm east', '', NO_MATCHING_SESSION)])
            for line, (user, _, name) in [('session s-5', OTHERS[1]), ('all_sessions 田中太郎', OTHERS[2])]:
                start = int(time.time())
                shown = self.at_prompt(peer, ROOT_LOGIN, f'session refresh {line} -realm east',
                                       f'session list -realm east {user} 0')
                self.assertIn(shown, [listing(1, (user, second, name)) for second in range(start, int(time.time()) + 1)])

    def test_what_each_role_may_do(self):
        looks = ''.join(READS.values()) + failure(NOT_PERMITTED) * len(CHANGES)
        with server() as opened, server(anonymous='none') as closed:
            for peer, login, answer in [
                    (opened, [], looks),
                    (opened, ['login reader GLANCE'], looks),
                    (closed, ['login reader GLANCE'], looks),
                    (closed, [], failure(NOT_PERMITTED) * len([*READS, *CHANGES])),
                    # An identity that was refused stays in force.
                    (opened, ['login root WRONG'], failure(IDENTITY_REFUSED) * len(['login', *READS, *CHANGES]))]:
                with self.subTest(login=login, anonymous=peer.anonymous):
                    self.assertEqual(self.at_prompt(peer, *login, *READS, *CHANGES), answer)
            self.assertNotIn('changed', opened.log() + closed.log())

    def test_a_days_work_through_a_pipe(self):
        with server() as peer:
            start = int(time.time())
            shown = self.at_prompt(
                peer, 'login root', 'SECRET', 'session list -realm east mallory 0',
                'session terminate all_sessions mallory -realm east', 'session list -realm east mallory 0',
                'key change', 'set instance green', 'key show')
            label = re.search(r'key-[\w-]+', shown)[0]
            listings = listing(2, *MALLORY) + listing(0)
            self.assertIn(shown, [msg(0x38C52145) + '\n' + listings + 2 * key_report(label, second, T)
                                  for second in range(start, int(time.time()) + 1)])
            for change in (f'key is {label}, by root', '2 sessions of realm east, user mallory, by root'):
                self.assertIn(change, peer.log())

    def test_a_long_command_file_pays_for_one_verification(self):
        with server() as peer:
            file = self.dir / 'long.cmd'
            file.write_text(ROOT_LOGIN + '\n' + 'trace get\n' * 3000)
            start = time.monotonic()
            result = self.run_utility('-file', str(file), config=configuration(peer))
            self.assertEqual((result.out, result.err, result.status), (LEVEL_1 * 3000, '', 0))
            self.assertLess(time.monotonic() - start, 30)
            self.assertEqual(peer.log().count('login of root'), 1)

    def test_hostile_text_in_a_servers_records_is_shown_and_does_no_harm(self):
        nasty = 'x\x1b[2J\x07\n%s%n\u202e\u2066\x85\x7fé\t\n'
        shown = 'x\\x1B[2J\\x07\\x0A%s%n\\u{202E}\\u{2066}\\u{0085}\\x7Fé\t\\x0A'
        cluster = {'keys': [{'label': nasty, 'time': T}], 'realms': [
            {'name': nasty, 'replicaSets': [{'name': nasty}]},
            {'name': 'east', 'sessions': sessions((nasty, T, nasty)), 'replicaSets': [
                {'name': 'web', 'members': [{'name': nasty, 'time': T}]}]}]}
        with server(cluster=cluster) as peer:
            self.check_transcripts(peer, [(
                ['realm list', 'replica set list', 'replica set show web', 'key show', 'session list -realm east * 0'],
                f'{shown}\neast\n{shown}:\n    {shown}\neast:\n    web\n' + msg(0x38C52134, shown, when(T)) + '\n' +
                key_report(shown, T) + listing(1, (shown, T, shown)))])
            traced = self.run_utility(*commands('session list -realm east * 0'), config=configuration(peer),
                                      VEXILADMIN_DEBUG='9')
            self.assertIn('answer: ', traced.out)
            self.assertFalse(re.search('[\x00-\x08\x0b-\x1f\x7f-\x9f\u202e\u2066]', traced.out), traced.out)

    def test_a_listing_of_200_000_sessions_is_complete(self):
        rows = [(f'user{number % 1000:03}', T + number // 1000, f'{number:032x}') for number in range(200_000)]
        with server(cluster={'realms': [{'name': 'east', 'sessions': sessions(*rows)}]}) as peer:
            result = self.run_utility(*commands('session list -realm east * 0'), config=configuration(peer))
            self.assertEqual((result.err, result.status), ('', 0))
            self.assertTrue(result.out == listing(len(rows), *sorted(rows)), 'too long to show')


if __name__ == '__main__':
    main()
