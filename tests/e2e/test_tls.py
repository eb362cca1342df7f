"""Mutual TLS between the real client and the real server, and every way in which it must not come about."""

import pathlib
import subprocess
import tempfile

from endtoend import (IDENTITY_REFUSED, KEY_FILE, NO_LOCATION, ROOT_LOGIN, SUPPORT, TLS_FAILURE, Case, Dsessd, FaultServer,
                      Prompt, commands, configuration, failure, main)

CLUSTER = {'realms': [{'name': 'east'}, {'name': 'west'}]}
REALMS = 'east\nwest\n'
NODE1, NODE2 = '/C=DE/O=Example/CN=node1', '/C=DE/O=Example/CN=node2'
PROXY = '/blue/services/DSessAdminProxy: '


class Tls(Case):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.certificates = pathlib.Path(folder.name)
        subprocess.run(['sh', SUPPORT / 'make_certificates', folder.name], check=True)

    def path(self, name):
        return str(self.certificates / name)

    def server(self, name='node1', mutual=True):
        client = {'client_ca': self.path('ca.pem')} if mutual else {}
        file = self.path(f'{name}.pem')
        return Dsessd(CLUSTER, anonymous='read', tls={'cert': file, 'key': file, **client})

    def bad_peer(self, name, mode='tls:good'):
        return FaultServer(mode, self.path(f'{name}.pem'), self.path(f'{name}.pem'))

    def tls(self, *servers, keyfile='alice.p12', stash='stash', **entries):
        return configuration(*servers, ssl_keyfile=self.path(keyfile), ssl_keyfile_stash=self.path(stash),
                             **{'timeout': 3, **entries})

    def look(self, config, *lines):
        """(standard output with trace level 1, standard error, status)."""
        return self.run_utility(*commands(*lines or ['realm list']), config=config, VEXILADMIN_DEBUG='1')[:3]

    def test_a_server_with_the_right_name_is_talked_to(self):
        with self.server() as server:
            self.check_table([
                ('host name, no list', {}),
                ('list of several', {'server_dns': f'{NODE2},{NODE1}'}),
                ('label in PEM', {'keyfile': 'alice-pem.pem', 'ssl_keyfile_label': 'alice'}),
            ], lambda _, entries: self.assertEqual(self.look(self.tls(server, **entries)), (REALMS, '', 0)))
            ending = self.look(self.tls(server, keyfile='soon.p12'), 'realm list', 'realm list')
            self.assertRegex(ending[0], f'^the certificate .*CN=soon of the key file .* ends on .*\n({REALMS}){{2}}$')
            self.look(self.tls(server), 'login root WRONG')
            self.assertRegex(server.log(), 'identity refused: root from .* with certificate .*CN=alice\n')
        with self.server('far', mutual=False) as server:  # whose certificate bears another host name
            config = self.tls(server, keyfile='anchors.pem', server_dns='/C=DE/O=Example/CN=far')
            self.assertEqual(self.look(config), (REALMS, '', 0))

    def test_no_connection_comes_about(self):
        theirs, ours = "the server's certificate ", 'our certificate was refused: '
        unlisted, late = theirs + NODE1 + ': this name is not on the list .server-dns.', '/C=DE/O=Example/CN=late'
        for name, entries, cause in [
                ('node1', {'server_dns': NODE2}, unlisted),
                ('node1', {'server_dns': f'/CN=x{NODE1}'}, unlisted),
                ('far', {}, "the server's certificate: .* matches target host name '127.0.0.1'"),
                ('late', {'server_dns': late}, f'{theirs}{late}: certificate has expired'),
                ('stranger', {}, theirs + '.*CN=stranger: unable to get local issuer certificate'),
                ('node1', {'keyfile': 'expired.p12'}, ours + 'certificate expired'),
                ('node1', {'keyfile': 'foreign.p12'}, ours + 'unknown CA'),
                ('node1', {'keyfile': 'anchors.pem'}, ours + '.*the key file holds none')]:
            with self.subTest(name, **entries), self.server(name) as server:
                out, err, status = self.look(self.tls(server, **entries))
                self.assertEqual((err, status), (failure(TLS_FAILURE), TLS_FAILURE & 0xFF))
                self.assertRegex(out, f'^(.* ended on .*\n)?https://127.0.0.1:{server.port}{PROXY}{cause}\n$')
        with Dsessd(CLUSTER, anonymous='read') as plain, self.server() as secure:
            out, err, status = self.look(self.tls(plain))
            self.assertRegex(out, r'^https://127.*: no TLS connection: .*wrong version number\n$')
            self.assertEqual((err, status), (failure(TLS_FAILURE), TLS_FAILURE & 0xFF))
            self.assertEqual(self.look(configuration(secure))[1:], (failure(NO_LOCATION), NO_LOCATION & 0xFF))

    def test_a_server_that_is_not_on_the_list_sees_no_byte_of_a_request(self):
        with self.bad_peer('node1') as server:
            lines = f'{ROOT_LOGIN}\nkey change\nrealm list\n'
            result = self.run_utility(config=self.tls(server, server_dns=NODE2), stdin=lines)
            self.assertEqual((result.out, result.err), ('\n', failure(TLS_FAILURE) * 3))
            self.assertEqual((server.connections, server.requests, server.bytes), (3, 0, 0))

    def test_the_name_is_checked_again_for_each_connection_of_a_run(self):
        # The same server takes on another name between two commands, and could resume its sessions under either.
        for mode in ('tls:close-after', 'tls1.2:close-after'):
            with self.subTest(mode), self.bad_peer('node1', mode) as server:
                prompt = Prompt(self, config=self.tls(server, server_dns=NODE1))
                self.assertEqual(prompt.answer('realm list'), REALMS)
                seen = server.bytes
                server.tls.load_cert_chain(self.path('node2.pem'))
                for line in ('realm list', 'key change'):
                    self.assertEqual(prompt.answer(line), failure(TLS_FAILURE))
                self.assertEqual(server.bytes, seen)
                server.tls.load_cert_chain(self.path('node1.pem'))
                self.assertEqual(prompt.answer('realm list'), REALMS)

    def test_failover_passes_over_servers_that_are_not_trusted(self):
        with self.bad_peer('stranger') as stranger, self.bad_peer('node2') as other, self.server() as good:
            config = self.tls(stranger, other, good, server_dns=NODE1)
            passed = f'https://.*{PROXY}.*local issuer.*\nhttps://.*{PROXY}.*CN=node2: this name is not on the list.*\n'
            for lines, shown, status in [(['realm list', 'realm list'], REALMS * 2, 0),
                                         ([ROOT_LOGIN], '.*identity-refused.*\n', IDENTITY_REFUSED)]:
                out, _, code = self.look(config, *lines)
                self.assertRegex(out, f'^{passed}{shown}$')
                self.assertEqual(code, status & 0xFF)
            self.assertEqual([(peer.connections, peer.bytes) for peer in (stranger, other)], [(2, 0)] * 2)

    def test_a_key_file_that_cannot_be_used_ends_the_run_with_a_reason(self):
        for name, text, mode in [('open', 'stash word', 0o640), ('wrong', 'stash', 0o600)]:
            path = self.certificates / name
            path.write_text(text)
            path.chmod(mode)
        with self.bad_peer('node1') as server:
            for entries, reason in [
                    ({'stash': 'open'}, 'stash file .*/open cannot be used: others .*chmod 600'),
                    ({'stash': 'wrong'}, 'key file .*/alice.p12 cannot be decrypted'),
                    ({'keyfile': 'legacy.p12'}, 'OpenSSL 3 no longer reads; this converts it: openssl pkcs12 -legacy'),
                    ({'ssl_keyfile_label': 'bob'}, 'holds no identity labelled bob; labels in it: alice'),
                    ({'server_dns': 'node1'}, 'cannot be read; write it like /C=')]:
                result = self.run_utility(*commands('realm list'), config=self.tls(server, **entries))
                self.assertRegex(result.out, f'^the [^\n]*{reason}[^\n]*\n$')
                self.assertEqual((result.err, result.status), ('', KEY_FILE & 0xFF))
            self.assertEqual(server.connections, 0)


if __name__ == '__main__':
    main()
