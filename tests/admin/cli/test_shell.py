"""Options, lines, files, tracing, and how a line finds its command."""

import errno
import os
import re
import subprocess

from vexil import ANON, CONFIG, VEXILADMIN, Case, bucket, commands, end, error, main, msg, start

PATTERNS = [
    'set instance <instance>', 'login <user> [password]', 'instances list', 'trace get', 'trace set <level>',
    'session refresh all_sessions <user-name> -realm <realm-name>',
    'session refresh session <session-id> -realm <realm-name>',
    'session terminate all_sessions <username> -realm <realm-name>',
    'session terminate session <session-id> -realm <realm-name>',
    'session list -realm <realm-name> <pattern> <max>', 'key change', 'key show', 'realm show <realm-name>',
    'realm list', 'replica set show <replica-set-name>', 'replica set list [-realm <realm>]']
CLUSTER = 'get_cluster_info realm=east,r1 label=k'
FETCH = [f'get_cluster_info {ANON}', 'free kind=2 count=1 own', 'free kind=5 count=1 own']
KEY = msg(0x38C52142, 'k', '1970-01-01-00:00:00 UTC') + '\n'
GET = [f'get_trace_level {ANON}']
LEVEL = msg(0x38C5213A, 0) + '\n'


def listing(line, patterns=PATTERNS, why=0x38C521E8):
    words = ''.join(word + ' ' for word in re.split('[ \t\n]+', line) if word)
    return f'{msg(0x38C521E5)} {words}\n{msg(why)}\n' + ''.join(f'    {pattern}\n' for pattern in patterns)


class Shell(Case):
    def file(self, content, name='cmds'):
        (self.dir / name).write_bytes(content.encode())

    def test_options_are_carried_out_in_order_up_to_the_first_failure(self):
        self.file('key show\n', 'good')
        self.file('session list -realm e * -1\nrealm list\n', 'bad')
        usage = msg(0x38C5321F, 'vexiladmin')
        max_refused = f'{msg(0x38C5213E, "max")}\n{msg(0x38C52146)}\n'
        refused = {'err': msg(0x38C5213E, 'interactive') + '\n', 'status': 0x38C52146}
        opened = {'stdin': 'realm list', 'out': 'east\n\n', 'calls': FETCH}
        realms = {'out': 'east\n', 'calls': FETCH, 'stdin': 'key show\n'}
        self.check_table([
            ((), opened),
            (('-command',), opened), (('-file',), opened), (('-',), opened), (('realm', 'list'), opened),
            *((('-interactive', value), opened) for value in ('Y', 'y', 'yes', 'Yonder')),
            *((('-interactive', value), {'stdin': 'realm list'}) for value in ('N', 'no', 'nothing')),
            *((('-interactive', *value), {'stdin': 'realm list', **refused}) for value in (['maybe'], [''], [])),
            (('-command', 'realm list'), realms),
            (('-interactive', 'N', '-command', 'realm list'), realms),
            (('-command', 'realm list', '-interactive', 'yes'),
             {'stdin': 'key show', 'out': f'east\n{KEY}\n', 'calls': FETCH * 2}),
            (('-interactive', 'maybe', '-command', 'realm list'), {'out': 'east\n', 'calls': FETCH, **refused}),
            (('-command', 'realm list', '-file', 'good', '-command', 'trace get', '-file', 'good'),
             {'out': f'east\n{KEY}{LEVEL}{KEY}', 'calls': FETCH * 2 + GET + FETCH}),
            (('-file', 'bad', '-file', 'good'), {'err': max_refused, 'status': 0x38C52146}),
            (('-command', 'realm list', '-file', 'nowhere', '-file', 'good'),
             {'out': 'east\n' + msg(0x38C520A2, 'nowhere', error(errno.ENOENT)), 'merge': True, 'status': 0x38C520A8,
              'calls': FETCH}),
            (('-help',), {'out': usage + msg(0x38C53220)}),
            (('-bogus', '-help', '-command', 'realm list'), {'out': usage + msg(0x38C53220)}),
            (('-command', 'realm list', '-bogus'), {'out': f'{usage}{msg(0x38C5319C, "bogus")}\n', 'status': 0x38C531C5}),
            (('--help', '-comm', 'realm list', '-comm', 'x'), {'status': 0x38C531C5, 'out': usage + ''.join(
                f'{msg(0x38C5319C, name)}\n' for name in sorted(('-help', 'comm'), key=bucket))}),
            (('-%n%s',), {'out': f'{usage}{msg(0x38C5319C, "%n%s")}\n', 'status': 0x38C531C5}),
            *((('-command', text), {'out': listing(text), 'status': 0x38C52099}) for text in ('exit', '# c', '', ' \t ')),
        ], lambda arguments, seen: self.check(*arguments, script=CLUSTER, **seen))

    def test_lines_of_a_file(self):
        unknown = {'status': 0x38C52099}
        twice = {'out': f'east\n{KEY}', 'calls': FETCH * 2}
        once = {'out': KEY, 'calls': FETCH}
        self.check_table([
            ('', {}), ('# realm list\n\n\r\n#\n', {}), ('exit', {}),
            ('realm list\nkey show', twice), ('realm list\r\nkey show\r\n', twice), ('realm\tlist\n \tkey  show\t\n', twice),
            ('key show\nExIt\nrealm list\n', once), ('key show\nQUIT\r\n\nrealm list\n', once),
            (' # c\nkey show\n', {'out': listing('# c'), **unknown}), (' exit\n', {'out': listing('exit'), **unknown}),
            ('quit \n', {'out': listing('quit'), **unknown}), ('exit\rx\n', {'out': listing('exit\rx'), **unknown}),
            ('   \nkey show\n', {'out': listing(''), **unknown}),
            # A longer line than 4095 bytes is taken in pieces.
            ('realm list'.ljust(4095) + 'key show\n', twice), ('realm list'.ljust(4094) + '\nkey show\n', twice),
            ('realm list'.ljust(4095) + '\nkey show\n', twice), ('#'.ljust(4095) + 'key show\n', once),
            ('realm li' + 'x' * 4087 + '# c\nkey show', {'status': 0x38C52099, 'out': listing(
                'realm li' + 'x' * 4087, ['realm show <realm-name>', 'realm list'])}),
        ], lambda content, seen: (self.file(content), self.check('-file', 'cmds', script=CLUSTER, **seen)))
        self.file('exit\nkey show\n')
        self.check('-file', 'cmds', '-command', 'realm list', script=CLUSTER, out='east\n', calls=FETCH)
        self.check('-file', '.')
        self.check('-file', '/dev/stdin', stdin='realm list\nkey show\n', script=CLUSTER, **twice)

    def test_at_the_prompt_failures_do_not_end_the_input(self):
        self.check(stdin='foo\n# c\n\nkey show\ntrace set x\nkey show', script='get_cluster_info status=38C54015',
                   merge=True, calls=FETCH[:1] * 2,
                   out=f'{listing("foo")}{msg(0x38C54015)}\n{msg(0x38C5213E, "level")}\n{msg(0x38C52146)}\n'
                       f'{msg(0x38C54015)}\n\n')
        for ending in ('exit', 'QUIT\r'):
            self.check(stdin=f'{ending}\nkey show\n')

    def test_listing_of_the_commands_that_come_nearest(self):
        session = PATTERNS[5:10]
        self.check_table([
            ('foo', PATTERNS), ('REALM LIST', PATTERNS), ('realms', PATTERNS), ('trace get now', PATTERNS[4:5]),
            ('session terminate', session), ('s t', PATTERNS[:1] + session), ('session list -realm e *', session),
            ('trace set', PATTERNS[3:5]), ('realm show', PATTERNS[12:14]), ('login', PATTERNS[1:2]), ('login a b c', PATTERNS),
            ('replica set list -realm', PATTERNS[14:]), ('replica set list -zone east', PATTERNS),
            ('realm list\r', PATTERNS[12:14]), ('"realm list"', PATTERNS), ('%s%n', PATTERNS), ('re', PATTERNS[12:]),
        ], lambda line, nearest: self.check('-command', line, out=listing(line, nearest), status=0x38C52099))
        self.check('-command', 're s l', out=listing('re s l', [PATTERNS[12], PATTERNS[15]], 0x38C521E7), status=0x99)
        self.check('-command', 'x ' * 300, out=listing('x ' * 128), status=0x38C52099)

    def test_abbreviated_lines_run_the_one_command_that_fits(self):
        member = [f'get_replica_set_info {ANON} x']
        self.check_table([
            ('tr s 5', [f'set_trace_level {ANON} 5'], ''), ('tr set -5', [f'set_trace_level {ANON} -5'], ''),
            ('r s east', FETCH, '    r1\n'), ('rep s l', FETCH, 'east:\n    r1\n'),
            ('rep s l -r east', FETCH, '    r1\n'), ('replica set list - east', FETCH, '    r1\n'),
            ('rea l', FETCH, 'east\n'), ('k s', FETCH, KEY), ('t g', GET, LEVEL),
            ('rep set show x', member, msg(0x38C52135) + '\n'), ('i l', [], 'blue\n'),
        ], lambda line, calls, out: self.check('-command', line, script=CLUSTER, calls=start() + calls + end(), out=out,
                                               config=CONFIG.replace(',green', ''), whole=True))

    def test_trace_lines_are_shown_up_to_the_debug_level(self):
        level = 'get_trace_level ' + ' '.join(f'trace={n}:level{n}%0A' for n in (-1, 0, 1, 2, 3, 4))
        for debug in (-2, -1, 0, 2, 3):
            own = 'Processing the command: trace get\n' if debug >= 3 else ''
            shown = ''.join(f'level{n}\n' for n in range(-1, debug + 1))
            self.check('-command', 'trace get', script=level, VEXILADMIN_DEBUG=str(debug), calls=GET, out=own + shown + LEVEL)
        self.check('-command', 'trace get', script='get_trace_level trace=0:a', calls=GET, out='a' + LEVEL)
        self.check('-command', '50% %s\n', VEXILADMIN_DEBUG='3', status=0x38C52099,
                   out='Processing the command: 50% %s\\x0A\n' + listing('50% %s\n'))
        self.check('-command', 'trace get', script='get_trace_level trace=0:50%25%25s%1B[1m%E2%80%AEx%FF', calls=GET,
                   out='50%%s\\x1B[1m\\u{202E}x\\xFF' + LEVEL)
        self.check('-command', 'trace get', script='get_trace_level trace=0:' + 'x' * 5000, calls=GET,
                   out='x' * 4095 + LEVEL)
        self.check('-interactive', 'N', out='a\n', calls=[], script='initialize trace=0:a%0A')

    def test_lost_output_is_a_failure_and_a_reader_that_left_is_none(self):
        many = 'get_cluster_info ' + ' '.join(f'realm=r{i}' for i in range(5000))
        for script in (CLUSTER, many):
            arguments = [VEXILADMIN, *commands('realm list', 'realm list')]
            with open('/dev/full', 'wb') as full:
                process = subprocess.run(arguments, stdout=full, stderr=subprocess.PIPE, env=self.environment(script=script))
            self.assertEqual((process.returncode, process.stderr.decode()), (0x52, msg(0x38C54052)))
            reader, writer = os.pipe()
            os.close(reader)
            process = subprocess.run(arguments, stdout=writer, stderr=subprocess.PIPE, env=self.environment(script=script))
            os.close(writer)
            self.assertEqual((process.returncode, process.stderr.decode()), (0, ''))
            self.assertEqual(self.recorded('calls')[-1], end()[-1])

    def test_only_the_trace_function_is_exported(self):
        symbols = subprocess.run(['nm', '-D', '--defined-only', VEXILADMIN], stdout=subprocess.PIPE, check=True, text=True)
        own = [line.split()[1:] for line in symbols.stdout.splitlines() if '@' not in line and ' __' not in line]
        self.assertEqual(own, [['T', 'olmdsess_admin_client_trace']])


if __name__ == '__main__':
    main()
