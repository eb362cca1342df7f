"""The configuration file, the debug level, and the instances that come from them."""

import errno

from vexil import CONFIG, Case, bucket, commands, end, error, main, msg, start

SSL = CONFIG + 'ssl-keyfile = /k.p12\nssl-keyfile-stash = /k.sth\n'


def tarn(*entries):
    return '\n'.join(['[tarn]', *entries, ''])


def conf(location='node1:9080', instances='blue,green', timeout='5', *more):
    return tarn(f'location = {location}', f'instances = {instances}', f'timeout = {timeout}', *more)


def urls(*locations, scheme='http://', instance='blue'):
    return [f'{scheme}{location}/{instance}/services/DSessAdminProxy' for location in locations]


def ssl(dns='', keyfile='/k.p12', label='~', fips=0):
    return {'urls': urls('node1:9080', scheme='https://'),
            'ssl': f'dns=[{dns}] keyfile={keyfile} stash=/k.sth label={label} fips={fips}'}


def missing(path, entry):
    return [('client', msg(0x38C5209F, 'tarn', path, entry).rstrip('\n'))]


class Configuration(Case):
    def accepts(self, _name, config, expected):
        self.check('-interactive', 'N', config=config, calls=start(**expected) + end(), whole=True)

    def rejects(self, _name, config, status, log):
        path = str(self.dir / 'vexilclicfg.conf')
        self.check('-command', 'realm list', config=config, status=status, log=log(path), whole=True)

    def test_what_the_entries_say_reaches_the_library(self):
        self.check_table([
            ('as it stands', CONFIG, {}),
            ('two locations', conf('a,b'), {'urls': urls('a', 'b')}),
            ('entries are joined', tarn('location = a', 'instances = blue', 'location = b', 'timeout = 5'),
             {'urls': urls('a', 'b')}),
            ('a stanza goes on', '[tarn]\nlocation = a\n[other]\nlocation = x\n[tarn]\ninstances = blue\ntimeout = 5\n',
             {'urls': urls('a')}),
            ('empty pieces', conf(',a,,b,', ',blue,'), {'urls': urls('a', 'b')}),
            ('blanks are no separators', conf('a, b'), {'urls': urls('a', '%20b')}),
            ('an empty occurrence', tarn('location', 'location = a', 'location =', 'instances = blue', 'timeout =',
                                         'timeout = 5'), {'urls': urls('a')}),
            ('no piece at all', conf(','), {'urls': ['']}),
            ('other locations', conf('[::1]:9', 'grün'),
             {'urls': ['http://%5B::1%5D:9/gr%C3%BCn/services/DSessAdminProxy']}),
            ('line ends, mark, comments, blanks',
             '\ufeff# c\r\n; c\r\n[tarn]\r\n  location=node1:9080\r\n\tinstances\t=  blue  \r\ntimeout = 5', {}),
            ('names are exact', CONFIG + 'Location = x\ntimeouts = x\nssl-keyfiles = x\n', {}),
            *((f'timeout {text}', conf(timeout=text), {'timeout': int(text)}) for text in ('0', '+7', '2147483647')),
            ('no SSL without a key file', CONFIG + 'ssl-keyfile =\nserver-dns = a\nssl-keyfile-stash = s\n'
             'ssl-keyfile-label = l\nssl-fips-enabled = yes\n', {}),
            ('SSL', SSL, ssl()),
            ('all of SSL', SSL + 'server-dns = /CN=a,, /CN=b\nserver-dns = /CN=c\nssl-keyfile-label = my key\n',
             ssl('/CN=a,%20/CN=b,/CN=c', label='my%20key')),
            ('no name in server-dns', SSL + 'server-dns = ,\n', ssl()),
            ('two key files are one odd path', SSL + 'ssl-keyfile = b\n', ssl(keyfile='/k.p12%2Cb')),
            *((f'fips {text}', SSL + f'ssl-fips-enabled = {text}\n', ssl(fips=fips))
              for fips, texts in ((1, 'yes YES Y true t Tx'), (0, 'on 1 no false ,y')) for text in texts.split()),
        ], self.accepts)

    def test_the_first_wrong_entry_ends_the_start_and_only_the_service_log_says_why(self):
        def number(value):
            return lambda _: [('deployment', msg(0x38C532BE, value, 'timeout', 'timeout').rstrip('\n'))]

        self.check_table([
            ('no file', None, 0x38C54041, lambda path: [('deployment', msg(0x38C54042, path, error(errno.ENOENT))[:-1])]),
            *((f'no {entry}', config, 0x38C5209E, lambda path, entry=entry: missing(path, entry)) for entry, config in (
                ('location', ''), ('location', '[other]\nlocation = a\n'), ('location', tarn('timeout = x')),
                ('location', conf('')), ('instances', tarn('location = a', 'timeout = x')),
                ('instances', conf(instances='')), ('timeout', tarn('location = a', 'instances = b')),
                ('timeout', conf(timeout='')), ('ssl-keyfile-stash', CONFIG + 'ssl-keyfile = a\n'),
                ('ssl-keyfile-stash', CONFIG + 'ssl-keyfile = a\nssl-keyfile-stash =\n'))),
            *((f'timeout {text}', conf('a', 'b', text, 'ssl-keyfile = x'), 0x38C520A0, number(text))
              for text in ('-5', '5s', '2147483648', '0x5', '1 2', 'five')),
            ('two timeouts', conf('a', 'b', '5', 'timeout = 6'), 0x38C520A0, number('5,6')),
            ('an empty occurrence after a value', conf('a', 'b', '5', 'timeout ='), 0x38C520A0, number('5,')),
        ], self.rejects)
        for config in ('[tarn\n', 'location = a\n[tarn]\n', '[tarn]\n = a\n', '[tarn]\nlocation = a\0b\n'):
            with self.subTest(config):
                result = self.run_utility('-command', 'realm list', config=config)
                self.assertEqual(result[:4], ('', '', 0x45, []))
                self.assertIn('38C54046', '\n'.join(result.log))

    def test_help_after_a_failed_start_prints_nothing(self):
        self.check('-help', config='', status=0x38C5209E, whole=True,
                   log=missing(str(self.dir / 'vexilclicfg.conf'), 'location'))
        self.check('-help', script='initialize status=38C5401D', status=0x38C5401D, calls=start()[:1], whole=True)

    def test_the_debug_level_is_a_number_and_is_read_after_the_configuration(self):
        def refused(value):
            self.check('-help', VEXILADMIN_DEBUG=value, status=0x38C520A0, whole=True,
                       err=msg(0x38C532BE, value, 'VEXILADMIN_DEBUG', 'VEXILADMIN_DEBUG'))

        self.check_table([('abc',), ('',), ('3x',), (' 3',), ('2147483648',), ('-',), ('%s%n',)], refused)
        for value in ('3', '-1', '+2', '-2147483648'):
            self.check('-interactive', 'N', VEXILADMIN_DEBUG=value)
        self.check(VEXILADMIN_DEBUG='x', config='', status=0x38C5209E, whole=True,
                   log=missing(str(self.dir / 'vexilclicfg.conf'), 'location'))


class Instances(Case):
    def test_they_are_listed_in_bucket_order_and_the_latest_first_within_a_bucket(self):
        many = [f'node{i}' for i in range(60)] + ['blue', 'blue', 'grün']
        for names in (['blue'], ['blue', 'green'], ['green', 'blue'], many):
            ordered = sorted(reversed(names), key=bucket)
            listing = ''.join(f'{name}\n' for name in ordered)
            with self.subTest(len(names)):
                self.check('-command', 'instances list', config=conf(instances=','.join(names)), out=listing,
                           calls=start(names[0]) + end(), whole=True)
        self.check(stdin='instances list\nset instance nowhere\nset instance blue\ni l\n', merge=True,
                   config=conf(instances=','.join(many)), calls=start('node0') + end() + start('blue', 2) + end(2),
                   out=f'{listing}{msg(0x38C52147, "nowhere")}{msg(0x38C531C5)}\n{listing}\n', whole=True)

    def test_a_selection_lets_go_of_the_former_one_first(self):
        fetch = 'get_cluster_info {} sec=anonymous,~,~,~'
        none = 'set instance nowhere'
        answer = 'get_cluster_info status=38C5401B'
        self.check(*commands('set instance green', 'set instance green', 'set instance blue'), whole=True,
                   calls=start() + end() + start('green', 2) + end(2) + start('green', 3) + end(3) + start('blue', 4) + end(4))
        self.check(*commands('set instance -realm'), config=conf(instances='-realm'), whole=True,
                   calls=start('-realm') + end() + start('-realm', 2) + end(2))
        self.check(stdin=f'{none}\nrealm list\nset instance green\n', script=answer, whole=True, out='\n',
                   err=f'{msg(0x38C52147, "nowhere")}{msg(0x38C531C5)}\n{msg(0x38C5401B)}\n',
                   calls=start() + end() + [fetch.format('~')] + start('green', 2) + end(2))
        self.check(*commands(none, 'realm list'), status=0x38C531C5, whole=True, calls=start() + end(),
                   err=f'{msg(0x38C52147, "nowhere")}{msg(0x38C531C5)}\n')
        self.check('-interactive', 'n', config=conf(instances=','), status=0x38C531C5, err=msg(0x38C52147, ''), whole=True)

    def test_what_a_failed_selection_left_is_let_go_of_later(self):
        first, handle = start()
        shut = ['shutdown ctx1 settings=kept']
        second = start('green', 2)
        self.check_table([
            ('no context', 'initialize status=38C5401D', 0x1D, [first]),
            ('a context all the same', 'initialize status=38C5401D context=1', 0x1D, [first] + shut),
            ('no handle', 'create_handle status=38C5401B', 0x1B, [first, handle] + shut),
            ('a handle all the same', 'create_handle status=38C5401B handle=1', 0x1B, [first, handle] + end()),
        ], lambda _, script, status, calls: self.check('-help', script=script, status=status, calls=calls, whole=True))
        for fail in ('initialize status=0\ninitialize status=38C5401D context=1\ninitialize',
                     'create_handle\ncreate_handle status=38C5401D\ncreate_handle'):
            calls = start() + end() + second[:1 if 'initialize' in fail else 2] + ['shutdown ctx2 settings=kept']
            calls += start('blue', 3) + ['release_handle ctx3 handle2', 'shutdown ctx3 settings=kept']
            self.check(stdin='set instance green\nset instance blue\n', script=fail, out='\n',
                       err=f'{msg(0x38C5401D)}\n', calls=calls, whole=True)


if __name__ == '__main__':
    main()
