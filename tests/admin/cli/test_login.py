"""login: the identity that every later command sends, and the password read from pipes and files."""

import re
import subprocess

from vexil import VEXILADMIN, Case, commands, end, main, msg, start

PROMPT = msg(0x38C52145) + '\n'
RELEASE = ['free kind=2 count=0 own', 'free kind=5 count=1 own']
LOGIN_ID = r'[A-Za-z0-9+/]{86}==[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}'


def fetch(identity, handle='handle1'):
    return [f'get_cluster_info {handle} sec={identity}', *RELEASE]


class Login(Case):
    def run_utility(self, *arguments, **kwargs):
        """Gives the login identifiers names in order of their appearance: id1, id2, ..."""
        result = super().run_utility(*arguments, **kwargs)
        seen = list(dict.fromkeys(re.findall(LOGIN_ID, '\n'.join([result.out, *result.calls]))))

        def named(text):
            return re.sub(LOGIN_ID, lambda found: f'id{seen.index(found[0]) + 1}', text)

        return result._replace(out=named(result.out), calls=[named(call) for call in result.calls])

    def test_an_identity_stays_until_the_next_login_and_is_new_each_time(self):
        bob, again, eve = 'bob,~,id1,secret', 'bob,~,id2,secret', 'eve,~,id3,50%25s'
        self.check(*commands('realm list', 'login bob secret', 'k s', 'l bob secret', 'k s', 'login eve 50%s', 'k s'),
                   out=f'{msg(0x38C5213B)}\n' + f'{msg(0x38C52142, "key", "1970-01-01-00:00:00 UTC")}\n' * 3,
                   calls=fetch('anonymous,~,~,~') + fetch(bob) * 2 + fetch(again) * 2 + fetch(eve) * 2)
        self.check(*commands('login bob secret', 'set instance green', 'realm show x'), out=msg(0x38C52136) + '\n',
                   calls=start() + fetch(bob) + end() + start('green', 2) + fetch(bob, 'handle2') + end(2), whole=True)

    def test_a_refused_identity_stays_in_force(self):
        refused = 'get_cluster_info\nget_cluster_info status=38C54015\nget_cluster_info'
        self.check(stdin='login bob right\nlogin bob wrong\nrealm show x\n', script=refused, merge=True,
                   out=f'{msg(0x38C54015)}\n{msg(0x38C52136)}\n\n',
                   calls=fetch('bob,~,id1,right') + fetch('bob,~,id2,wrong')[:1] + fetch('bob,~,id2,wrong'))
        self.check(stdin='set instance no\nlogin bob x\nset instance green\nrealm show x\n', whole=True,
                   script='get_cluster_info status=38C5401B\nget_cluster_info', out=f'{msg(0x38C52136)}\n\n',
                   err=f'{msg(0x38C52147, "no")}{msg(0x38C531C5)}\n{msg(0x38C5401B)}\n',
                   calls=start() + end() + fetch('bob,~,id1,x', '~')[:1] + start('green', 2) +
                   fetch('bob,~,id1,x', 'handle2') + end(2))

    def test_the_prompt_takes_one_line_and_leaves_the_next(self):
        long = 'x' * 1023
        self.check_table([
            ('secret\n', 'secret'), ('two words\t\n', 'two%20words%09'), ('\n', ''), ('cr\r\n', 'cr%0D'), (f'{long}\n', long),
            (f'{long}y\n', long), (long + 'y' * 5000 + '\n', long), ('grün %s%n\n', 'gr%C3%BCn%20%25s%25n'),
            ('exit\n', 'exit'), ('#\n', '%23'),
        ], lambda typed, sent: self.check(
            stdin=f'login bob\n{typed}realm show x\n', out=f'{PROMPT}{msg(0x38C52136)}\n\n', calls=fetch(f'bob,~,id1,{sent}') * 2))
        self.check('-command', 'login bob', stdin='no line feed', out=PROMPT, calls=fetch('bob,~,id1,no%20line%20feed'))
        (self.dir / 'cmds').write_text('login bob\nrealm show x\nlogin eve\n')
        both = {'out': f'{PROMPT}{msg(0x38C52136)}\n{PROMPT}', 'calls': fetch('bob,~,id1,one') * 2 + fetch('eve,~,id2,two')}
        self.check('-file', 'cmds', stdin='one\ntwo\n', **both)
        self.check('-file', '/dev/stdin', stdin='login bob\none\nrealm show x\nlogin eve\ntwo', **both)
        (self.dir / 'cmds').write_text('login bob\none\nrealm show x\nlogin eve\ntwo\n')
        with (self.dir / 'cmds').open() as file:
            shown = subprocess.run([VEXILADMIN], stdin=file, stdout=subprocess.PIPE, env=self.environment(), text=True)
        self.assertEqual((shown.stdout, shown.returncode), (both['out'] + '\n', 0))

    def test_input_that_ends_at_the_prompt_is_no_password(self):
        self.check('-command', 'login bob', stdin='', merge=True, out=f'{PROMPT}{msg(0x38C5209D)}\n', status=0x38C5209D)
        for redirection in ('<&-', '< /'):
            shown = subprocess.run(['sh', '-c', f'"$0" -command "login bob" {redirection}', VEXILADMIN], env=self.environment(),
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            self.assertEqual((shown.stdout, shown.returncode), (f'{PROMPT}{msg(0x38C5209D)}\n', 0x9D), redirection)

    def test_the_trace_shows_the_identity_from_level_3_on(self):
        for level, trace in (('2', ''), ('3', 'Processing the command: login bob %s\nTarnAdminLogin (bob: %s) - id1\n')):
            self.check('-command', 'login bob %s', VEXILADMIN_DEBUG=level, out=trace, calls=fetch('bob,~,id1,%25s'))


if __name__ == '__main__':
    main()
