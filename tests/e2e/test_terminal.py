"""The prompt on a terminal with a real server behind it, up to the moment when that server dies."""

from endtoend import (ADMINISTRATORS, IDENTITY_REFUSED, NO_LOCATION, NO_MATCHING_SESSION, NOT_PERMITTED, Case, Dsessd,
                      Prompt, configuration, failure, key_report, listing, main, msg)

PASSWORD = msg(0x38C52145)
T = 1700000000
CLUSTER = {'keys': [{'label': 'first', 'time': T}], 'realms': [{'name': 'öst', 'sessions': [
    {'id': 's-1', 'user': 'Жанна', 'time': T}, {'id': 's-2', 'user': 'zoë', 'time': T + 1}]}]}
KEY = key_report('first', T)


class AtPrompt(Case):
    def setUp(self):
        super().setUp()
        self.server = self.enterContext(Dsessd(CLUSTER, ADMINISTRATORS, anonymous='read'))
        self.prompt = Prompt(self, config=configuration(self.server, timeout=2))

    def check_answers(self, *rows):
        """Rows of what is typed, what is shown for it, and perhaps the prompt behind that."""
        self.check_table(rows, lambda line, shown, *prompt: self.assertEqual(self.prompt.answer(line, *prompt), shown))

    def test_a_day_at_the_prompt(self):
        zoe, zhanna = listing(1, ('zoë', T + 1, 's-2')), listing(1, ('Жанна', T, 's-1'))
        self.check_answers(
            ('session list -realm öst zoë 0', zoe),
            # Characters of several bytes are rubbed out as one.
            ('session list -realm ööst Жаннаёф 0' + '\x1b[D' * 2 + '\x7f\x7f' + '\x1b[D' * 6 + '\x7f' * 4 + 'öst', zhanna),
            ('\x1b[A', zhanna),
            ('\x1b[A\x1b[A\x1b[A', zoe),
            ('session terminate all_sessions zoë -realm öst', failure(NOT_PERMITTED)),
            ('key show', KEY),
            ('# nothing', ''),
            # The password is not echoed, and a wrong one does not end the prompt.
            ('login root', '', PASSWORD),
            ('WRONG', failure(IDENTITY_REFUSED)),
            ('key show', failure(IDENTITY_REFUSED)),
            ('login root', '', PASSWORD),
            ('SECRET', ''),
            ('session terminate all_sessions zoë -realm öst', ''),
            ('\x1b[A', failure(NO_MATCHING_SESSION)))
        terminal = self.prompt.terminal
        terminal.type('\x04')
        status, rest = terminal.ended()
        self.assertEqual((status, rest[-1:], terminal.echoes()), (0, '\n', True))

    def test_a_server_that_dies_and_comes_back(self):
        self.check_answers(('login root SECRET', ''), ('trace set 2', ''))
        self.server.kill()
        self.check_answers(*((line, failure(NO_LOCATION)) for line in ('key show', 'key change', 'login root SECRET')))
        self.server.start()
        self.check_answers(('key show', KEY), ('trace get', msg(0x38C5213A, 2) + '\n'))
        self.prompt.terminal.type('QUIT\n')
        self.assertEqual(self.prompt.terminal.ended(), (0, 'QUIT\r\n'))


if __name__ == '__main__':
    main()
