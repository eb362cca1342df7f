"""The prompts on a terminal: line editing, history, hidden passwords, and signals at any moment."""

import contextlib
import os
import random
import re
import signal
import time

from terminal import Terminal
from vexil import VEXILADMIN, Case, end, main, msg, start

PROMPT = 'vexiladmin> '
PASSWORD = msg(0x38C52145)
REALMS = 'get_cluster_info realm=east label=k'
FATAL = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGALRM, signal.SIGUSR1, signal.SIGUSR2]


class OnTerminal(Case):
    def terminal(self, *arguments, job_control=True, **kwargs):
        environment = self.environment(script=REALMS, **kwargs)
        terminal = Terminal([VEXILADMIN, *arguments], environment, job_control)
        self.addCleanup(terminal.close)
        return terminal

    def asks(self, terminal, prompt=PASSWORD):
        """Waits for a prompt; at both the terminal's own echo is off. Returns what was shown before it."""
        shown = terminal.see(prompt)
        terminal.until(lambda: not terminal.echoes(), 'end of echo')
        return shown.replace('\r', '')

    def at_password(self):
        terminal = self.terminal('-command', 'login bob')
        self.asks(terminal)
        return terminal

    def requests(self):
        """The users and passwords of the requests that were made."""
        calls = self.recorded('calls')
        self.assertEqual((calls[:2], calls[-2:]), (start(), end()))
        return [re.sub(' handle1 sec=(.*),~,.*,(.*)', r' \1 \2', call) for call in calls[2:-2] if not call.startswith('free')]


class Prompt(OnTerminal):
    def test_lines_can_be_edited_and_fetched_again(self):
        terminal = self.terminal(TERM='vt100')

        def answer(typed):
            terminal.type(typed)
            return self.asks(terminal, PROMPT).split('\n', 1)[1]

        self.asks(terminal, PROMPT)
        self.assertEqual(answer('xrealm lost\x1b[D\x1b[D\x7fi\x01\x1b[C\x7f\n'), 'east\n')
        self.assertEqual(answer('trace set x\n'), f'{msg(0x38C5213E, "level")}\n{msg(0x38C52146)}\n')
        self.assertEqual(answer('# comment\n'), '')
        self.assertEqual(answer('\x1b[A\x1b[A\x1b[A\n'), 'east\n')
        self.assertEqual(answer('realm show grü\n'), msg(0x38C52136) + '\n')
        terminal.type('\x04')
        status, rest = terminal.ended()
        self.assertEqual((status, rest[-1:], terminal.echoes()), (0, '\n', True))
        self.assertEqual(self.requests(), ['get_cluster_info anonymous ~'] * 3)

    def test_lines_may_be_typed_ahead_of_a_password(self):
        for ending in '\n\r':
            terminal = self.terminal()
            self.asks(terminal, PROMPT)
            terminal.type(ending.join(('login bob', 'pass word', 'realm show x', 'exit', '')))
            self.assertEqual(terminal.ended()[0], 0)
            self.assertEqual(self.requests(), ['get_cluster_info bob pass%20word'] * 2)

    def test_a_login_that_got_no_password_leaves_the_former_identity(self):
        terminal = self.terminal()
        for typed in ('login carol old\n', 'login bob\n', '\x04', 'realm show x\n'):
            shown = self.asks(terminal, PASSWORD if typed == '\x04' else PROMPT)
            terminal.type(typed)
        self.assertEqual(shown, f'\n{msg(0x38C5209D)}\n')
        self.asks(terminal, PROMPT)
        terminal.type('login bob\n')
        self.asks(terminal)
        terminal.type('new pass\n')
        self.assertEqual(self.asks(terminal, PROMPT), '\n')
        terminal.type('exit\n')
        self.assertEqual(terminal.ended()[0], 0)
        self.assertEqual(self.requests(), ['get_cluster_info carol old'] * 2 + ['get_cluster_info bob new%20pass'])


class Signals(OnTerminal):
    def test_at_the_password_prompt_restore_the_echo_and_take_their_course(self):
        for number in FATAL:
            with self.subTest(number):
                terminal = self.at_password()
                os.kill(terminal.pid, number)
                self.assertEqual((terminal.ended(), terminal.echoes()), ((-number, '\r\n'), True))
        for key, number in (('\x03', signal.SIGINT), ('\x1c', signal.SIGQUIT)):
            terminal = self.at_password()
            terminal.type(key)
            self.assertEqual((terminal.ended()[0], terminal.echoes()), (-number, True))

    def test_after_the_password_act_as_before(self):
        terminal = self.terminal()
        for prompt, typed in ((PROMPT, 'login bob\n'), (PASSWORD, 'secret\n'), (PROMPT, '')):
            self.asks(terminal, prompt)
            terminal.type(typed)
        os.kill(terminal.pid, signal.SIGALRM)
        self.assertEqual(terminal.ended()[0], -signal.SIGALRM)

    def test_what_is_ignored_changes_nothing(self):
        terminal = self.at_password()
        for number in (signal.SIGPIPE, signal.SIGWINCH, signal.SIGPIPE):
            os.kill(terminal.pid, number)
            time.sleep(0.01)
            self.assertFalse(terminal.echoes())
        terminal.type('secret\n')
        self.assertEqual((terminal.ended(), terminal.echoes()), ((0, '\r\n'), True))
        self.assertEqual(self.requests(), ['get_cluster_info bob secret'])

    def test_a_stop_gives_the_terminal_back_until_the_program_has_it_again(self):
        terminal = self.at_password()
        for stop in (lambda: terminal.type('\x1a'), lambda: os.kill(terminal.pid, signal.SIGTSTP)) * 3:
            stop()
            terminal.stop()
            self.assertTrue(terminal.echoes())
            for _ in range(3):
                os.kill(terminal.pid, signal.SIGCONT)  # in the background it stops again and leaves the echo alone
                terminal.stop()
                self.assertTrue(terminal.echoes())
            terminal.foreground()
            self.asks(terminal)
        os.kill(terminal.pid, signal.SIGSTOP)
        terminal.stop()
        terminal.foreground()
        self.assertEqual(self.asks(terminal), '')
        terminal.type('secret\n')
        self.assertEqual((terminal.ended(), terminal.echoes()), ((0, '\r\n'), True))
        self.assertEqual(self.requests(), ['get_cluster_info bob secret'])

    def test_a_stopped_program_can_be_killed(self):
        for stop in (signal.SIGTSTP, signal.SIGSTOP):
            for number in FATAL:
                terminal = self.at_password()
                os.kill(terminal.pid, stop)
                terminal.stop()
                os.kill(terminal.pid, number)
                os.kill(terminal.pid, signal.SIGCONT)
                self.assertEqual(terminal.ended()[0], -number)

    def test_a_program_that_lost_the_terminal_stops_before_it_reads_and_can_be_killed(self):
        for number in (signal.SIGTERM, None):
            terminal = self.at_password()
            terminal.take()
            terminal.type('secret\n')
            terminal.stop()
            if number is None:
                terminal.foreground()
            else:
                os.kill(terminal.pid, number)
                os.kill(terminal.pid, signal.SIGCONT)
            self.assertEqual(terminal.ended()[0], -(number or 0))
        self.assertEqual(self.requests(), ['get_cluster_info bob secret'])

    def test_a_stop_without_effect_shows_the_prompt_again(self):
        terminal = self.terminal('-command', 'login bob', job_control=False)
        self.asks(terminal)
        os.kill(terminal.pid, signal.SIGTSTP)
        self.asks(terminal)
        terminal.type('secret\n')
        self.assertEqual((terminal.ended(), terminal.echoes()), ((0, '\r\n'), True))

    def test_at_random_moments_neither_get_lost_nor_leave_the_echo_off(self):
        chance = random.Random(1)
        began = time.monotonic()
        self.at_password()
        usual = time.monotonic() - began
        for turn in range(210):
            number = chance.choice(FATAL if turn % 3 else [signal.SIGTSTP])
            terminal = self.terminal('-command', 'login bob')
            if turn % 3 == 1:
                terminal.type('secret\n')
            time.sleep(chance.uniform(0, 1.5 * usual))
            with contextlib.suppress(ProcessLookupError):  # it may have ended with the password typed
                os.kill(terminal.pid, number)
            if number == signal.SIGTSTP:
                terminal.stop()
                self.assertTrue(terminal.echoes())
                terminal.foreground()
                terminal.type('secret\n')
            status, shown = terminal.ended()
            self.assertTrue(terminal.echoes(), (turn, number, shown))
            expected = {0: [0], 1: [0, -number], 2: [-number]}[turn % 3]
            self.assertIn(status, expected, (turn, number, shown))


if __name__ == '__main__':
    main()
