"""What each command asks of the client library, prints and releases."""

import subprocess
import unittest

from vexil import ANON, Case, main, msg

EPOCH = '1970-01-01-00:00:00 UTC'
BY_USER = f'by={msg(0x38C5809E)},{msg(0x38C580A0)}'.replace(' ', '%20')
BY_SESSION = f'by={msg(0x38C580A1)},{msg(0x38C580A3)}'.replace(' ', '%20')

# What a server may send, as the script writes it, and how it is shown.
HOSTILE = {
    'plain': 'plain', 'J%C3%BCrgen%E2%82%AC': 'Jürgen€', '%E4%B8%AD%F0%9F%98%80': '中😀', '~': '', '': '', 'a%09b': 'a\tb',
    '%1B]0;x%07%1B[2J': '\\x1B]0;x\\x07\\x1B[2J', 'a%0Ab%0D%0A': 'a\\x0Ab\\x0D\\x0A', '%0A': '\\x0A', '%7F': '\\x7F',
    '%C2%9B31m%C2%85': '\\u{009B}31m\\u{0085}', 'x%E2%80%AEy%E2%81%A6%D8%9C': 'x\\u{202E}y\\u{2066}\\u{061C}',
    '%E2%80%A8': '\\u{2028}', '%FF%C0%80%E2%82': '\\xFF\\xC0\\x80\\xE2\\x82', '%ED%A0%80': '\\xED\\xA0\\x80',
    '100%25s%25n%251$s': '100%s%n%1$s', 'x' * 5000: 'x' * 5000,
}


def line(identifier, *arguments):
    return msg(identifier, *arguments) + '\n'


def cluster(realms):
    return [f'get_cluster_info {ANON}', f'free kind=2 count={realms} own', 'free kind=5 count=1 own']


def query(operation, realm, by, value, *more):
    return ' '.join([operation, ANON, f'realm={realm}', by, f'values=1[{value},~]', 'reserved=0,0', *more])


def sessions(realm, pattern, limit, released=None):
    return [query('list_sessions', realm, BY_USER, pattern, f'max={limit}'),
            *([] if released is None else [f'free kind=4 count={released} own'])]


def members(released=None):
    return [f'get_replica_set_info {ANON} rs', *([] if released is None else [f'free kind=3 count={released} own'])]


class Commands(Case):
    def prints(self, command, script, out, calls):
        self.check('-command', command, script=script, out=out, calls=calls)

    def test_realms_and_their_replica_sets(self):
        nothing = line(0x38C52136)
        two = 'get_cluster_info realm=B,r3,r1 realm=A realm=B,r2'
        self.check_table([
            ('realm list', two, 'B\nA\nB\n', cluster(3)),
            ('realm list', 'get_cluster_info', line(0x38C5213B), cluster(0)),
            ('realm list', 'get_cluster_info array=1', line(0x38C5213B), cluster(0)),
            ('realm list', 'get_cluster_info realm=A count=-3', '', cluster(-3)),
            ('realm list', 'get_cluster_info count=-1', '', cluster(-1)),
            ('replica set list', two, 'B:\n    r3\n    r1\nA:\nB:\n    r2\n', cluster(3)),
            ('replica set list', 'get_cluster_info', '', cluster(0)),
            ('replica set list', 'get_cluster_info realm=A,r1 count=-1', '', cluster(-1)),
            ('replica set list', 'get_cluster_info realm=A', 'A:\n', cluster(1)),
            *((f'{command} {name}', two, out, cluster(3))
              for command in ('realm show', 'replica set list -realm')
              for name, out in (('B', '    r3\n    r1\n    r2\n'), ('A', ''), ('a', nothing), ('BB', nothing))),
            *((f'{command} A', 'get_cluster_info' + more, nothing, cluster(count))
              for command in ('realm show', 'replica set list -r')
              for more, count in (('', 0), (' realm=A,r1 count=-2', -2))),
            # A name is compared as it came, and shown made harmless.
            ('realm show \x1bA', 'get_cluster_info realm=%1BA,%1Br', '    \\x1Br\n', cluster(1)),
            ('realm show grün', 'get_cluster_info realm=gr%C3%BCn,r', '    r\n', cluster(1)),
        ], self.prints)

    def test_members_of_a_replica_set(self):
        def member(name, time):
            return msg(0x38C52134, name, time)

        self.check_table([
            ('replica set show rs', f'get_replica_set_info {script}', out + '\n', members(released)) for script, out, released in (
                ('member=n2,86399 member=n1,-1', member('n2', '1970-01-01-23:59:59 UTC') +
                 member('n1', '1969-12-31-23:59:59 UTC'), 2),
                ('', msg(0x38C52135), None), ('array=1', msg(0x38C52135), 0), ('member=n1,1 count=0', msg(0x38C52135), 0),
                ('count=-1', '', None), ('member=n1,1 count=-7', '', -7), ('member=n1,0 member=n2,0 count=1', member('n1', EPOCH), 1))
        ], self.prints)

    def test_key(self):
        latest, earliest = '2038-01-19-03:14:07 UTC', '1901-12-13-20:45:52 UTC'
        for command, operation, calls in (('key show', 'get_cluster_info', cluster(1)),
                                          ('key change', 'generate_new_key', [f'generate_new_key {ANON}', cluster(1)[2]])):
            self.check_table([(command, f'{operation} realm=A {script}', out + '\n', calls) for script, out in (
                ('label=k1 time=0 second=0', msg(0x38C52142, 'k1', EPOCH)),
                ('label=k1 time=2147483647', msg(0x38C52142, 'k1', latest)),
                ('label=k1 time=0 second=1', msg(0x38C52138, 'k1', EPOCH, '1970-01-01-00:00:01 UTC')),
                ('label=k1 time=-2147483648 second=-2147483648', msg(0x38C52138, 'k1', earliest, earliest)))], self.prints)

    def test_sessions(self):
        refused = {'err': f'{line(0x38C5213E, "max")}{line(0x38C52146)}', 'status': 0x38C52146}

        def row(max_text, limit, script, shown, released, total):
            out = line(0x38C52143, total, -4 if released == -4 else released or 0) + ''.join(shown)
            return f'session list -realm east *a? {max_text}', f'list_sessions {script}', out, sessions('east', '*a%3F', limit, released)

        nothing = [line(0x38C5213C)]
        two = [line(0x38C5213D, 'zoe', EPOCH, 's2'), line(0x38C5213D, 'adam', '2001-09-09-01:46:40 UTC', 's1')]
        self.check_table([
            row('10', 10, 'session=s2,zoe,0 session=s1,adam,1000000000 total=77', two, 2, 77),
            row('0', -1, '', nothing, None, 0), row('+1', 1, 'total=5', nothing, None, 5),
            row('2147483647', 2147483647, 'array=1', nothing, 0, 0), row('1', 1, 'session=s,u,0 count=-4 total=-1', [], -4, -1),
        ], self.prints)
        for text in ('-1', 'ten', '2147483648', '1.5', '0x1', '*'):
            self.check('-command', f's l -r east * {text}', **refused)
        self.check_table([(f'session {verb} {what} {value} -realm east', '', '', [query(operation, 'east', by, value)])
                          for verb, operation in (('terminate', 'terminate_sessions'), ('refresh', 'refresh_sessions'))
                          for what, by, value in (('all_sessions', BY_USER, 'bob'), ('session', BY_SESSION, 's-1'))], self.prints)
        self.check(stdin='session terminate all_sessions Ren\udce9 -realm e', out='\n',
                   calls=[query('terminate_sessions', 'e', BY_USER, 'Ren%E9')])
        self.check('-command', 'ses t a -realm -r -realm', calls=[query('terminate_sessions', '-realm', BY_USER, '-realm')])

    def test_trace_level(self):
        self.check_table([('trace get', f'get_trace_level level={level}', line(0x38C5213A, level), [f'get_trace_level {ANON}'])
                          for level in (0, -5, 2147483647)], self.prints)
        self.check_table([(f'trace set {text}', '', '', [f'set_trace_level {ANON} {int(text)}'])
                          for text in ('0', '-5', '+9', '2147483647', '-2147483648')], self.prints)
        for text in ('high', '2147483648', '5s', '-'):
            self.check('-command', f'trace set {text}', err=f'{line(0x38C5213E, "level")}{line(0x38C52146)}', status=0x38C52146)

    def test_a_failed_request_prints_its_status_and_touches_nothing_that_it_left(self):
        for command, call in (
                ('realm list', cluster(0)[0]), ('realm show x', cluster(0)[0]), ('key show', cluster(0)[0]),
                ('replica set list', cluster(0)[0]), ('replica set list -realm x', cluster(0)[0]),
                ('replica set show rs', members()[0]), ('key change', f'generate_new_key {ANON}'),
                ('session list -realm e * 0', sessions('e', '*', -1)[0]),
                ('session terminate all_sessions u -realm e', query('terminate_sessions', 'e', BY_USER, 'u')),
                ('session refresh session s -realm e', query('refresh_sessions', 'e', BY_SESSION, 's')),
                ('trace get', f'get_trace_level {ANON}'), ('trace set 1', f'set_trace_level {ANON} 1')):
            with self.subTest(command):
                self.check('-command', command, script=f'{call.split()[0]} status=38C54013', calls=[call], status=0x38C54013,
                           err=line(0x38C54013))
        self.check('-command', 'realm list', script='get_cluster_info status=12345', status=0x45, calls=cluster(0)[:1],
                   err='00012345 The catalogue has no text for this status.\n')

    def test_text_of_a_server_comes_out_harmless_on_its_own_line(self):
        texts = [text for text in HOSTILE if ',' not in text and ' ' not in text]
        self.assertEqual(len(texts), len(HOSTILE))
        names = ''.join(f' realm={text},{text}' for text in texts if text != '')
        shown = [HOSTILE[text] for text in texts if text != '']
        self.check_table([
            ('realm list', f'get_cluster_info{names}', ''.join(f'{text}\n' for text in shown), cluster(len(shown))),
            ('replica set list', f'get_cluster_info{names}', ''.join(f'{text}:\n    {text}\n' for text in shown), cluster(len(shown))),
            ('replica set show rs', 'get_replica_set_info' + ''.join(f' member={text},0' for text in texts),
             ''.join(msg(0x38C52134, HOSTILE[text], EPOCH) for text in texts) + '\n', members(len(texts))),
            ('session list -realm e * 0', 'list_sessions' + ''.join(f' session={text},{text},0' for text in texts),
             line(0x38C52143, len(texts), len(texts)) +
             ''.join(line(0x38C5213D, HOSTILE[text], EPOCH, HOSTILE[text]) for text in texts), sessions('e', '*', -1, len(texts))),
        ], self.prints)
        for text in texts:
            self.prints('key change', f'generate_new_key label={text} second=1', line(
                0x38C52138, HOSTILE[text], EPOCH, '1970-01-01-00:00:01 UTC'), [f'generate_new_key {ANON}', cluster(0)[2]])

    def test_text_in_other_locales(self):
        script = 'list_sessions session=s%C3%A9%01,Zo%C3%AB%E2%82%AC,0'
        call = [query('list_sessions', 'gr%C3%BCn', BY_USER, '*', 'max=-1'), 'free kind=4 count=1 own']
        seen = {'script': script, 'calls': call, 'out': line(0x38C52143, 1, 1) + line(0x38C5213D, 'Zoë€', EPOCH, 'sé\\x01')}
        for name in ('C', 'POSIX', 'C.UTF-8', 'xx_XX', ''):
            with self.subTest(name):
                self.check('-command', 'session list -realm grün * 0', LC_ALL=name, **seen)
                self.check(stdin='session list -realm grün * 0\n', LC_ALL=name, **{**seen, 'out': seen['out'] + '\n'})
        target = self.dir / 'en_US.ISO-8859-1'
        try:
            subprocess.run(['localedef', '-i', 'en_US', '-f', 'ISO-8859-1', target], check=True, capture_output=True)
        except (OSError, subprocess.CalledProcessError) as why:
            raise unittest.SkipTest(f'no ISO-8859-1 locale can be made: {why}') from why
        latin = {'LC_ALL': 'en_US.ISO-8859-1', 'LOCPATH': str(self.dir), 'encoding': 'iso-8859-1',
                 **seen, 'out': seen['out'].replace('€', '\\u{20AC}')}
        (self.dir / 'cmds').write_bytes('session list -realm grün * 0\n'.encode('iso-8859-1'))
        self.check('-file', 'cmds', **latin)
        self.check(stdin='session list -realm grün * 0\n', **{**latin, 'out': latin['out'] + '\n'})
        del latin['calls'], latin['out']
        self.assertRegex(self.run_utility('-command', 'login bob', stdin='grün\n', **latin).calls[2], ',gr%C3%BCn$')


if __name__ == '__main__':
    main()
