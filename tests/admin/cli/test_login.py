"""login: the identity of later commands; the password from a pipe, a file, or hidden and amid signals on a terminal."""

import contextlib
import itertools
import os
import random
import re
import signal
import subprocess
import time

from vexil import VEXILADMIN, Case, commands, end, line, msg, start

PASSWORD, UNKNOWN = msg(0x38C52145), line(0x38C52136)
PROMPT = PASSWORD + "\n"
FATAL = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGALRM, signal.SIGUSR1, signal.SIGUSR2]
RELEASE = ["free kind=2 count=0 own", "free kind=5 count=1 own"]
LOGIN_ID = r"[A-Za-z0-9+/]{86}==[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"


def fetch(identity, handle="handle1"):
    return [f"get_cluster_info {handle} sec={identity}", *RELEASE]


class Login(Case):
    def run_utility(self, *arguments, **kwargs):
        """Gives the login identifiers names in order of their appearance: id1, id2, ..."""
        result = super().run_utility(*arguments, **kwargs)
        seen = dict.fromkeys(re.findall(LOGIN_ID, "\n".join([result.out, *result.calls])))
        for number, name in enumerate(seen, 1):
            result = result._replace(
                out=result.out.replace(name, f"id{number}"),
                calls=[call.replace(name, f"id{number}") for call in result.calls],
            )
        return result

    def test_an_identity_stays_until_the_next_login_and_is_new_each_time(self):
        self.check(
            *commands(
                "realm show x",
                "login bob secret",
                "set instance green",
                "realm show x",
                "l bob secret",
                "realm show x",
                "login eve 50%s",
                "realm show x",
            ),
            whole=True,
            out=UNKNOWN * 4,
            calls=start()
            + fetch("anonymous,~,~,~")
            + fetch("bob,~,id1,secret")
            + end()
            + start("green", 2)
            + fetch("bob,~,id1,secret", "handle2")
            + fetch("bob,~,id2,secret", "handle2") * 2
            + fetch("eve,~,id3,50%s", "handle2") * 2
            + end(2),
        )

    def test_a_refused_identity_stays_in_force(self):
        refused = "get_cluster_info\nget_cluster_info status=38C54015\nget_cluster_info"
        self.check(
            stdin="login bob right\nlogin bob wrong\nrealm show x\n",
            script=refused,
            merge=True,
            out=f"{line(0x38C54015)}{UNKNOWN}\n",
            calls=fetch("bob,~,id1,right") + fetch("bob,~,id2,wrong")[:1] + fetch("bob,~,id2,wrong"),
        )

    def test_the_prompt_takes_one_line_and_leaves_the_next(self):
        long = "x" * 1023
        self.check_table(
            [
                ("secret", "secret"),
                ("two words\t", "two words\t"),
                ("", ""),
                ("cr\r", "cr\r"),
                (long, long),
                (f"{long}y", long),
                (long + "y" * 5000, long),
                ("grün %s%n", "grün %s%n"),
                ("exit", "exit"),
            ],
            lambda typed, sent: self.check(
                stdin=f"login bob\n{typed}\nrealm show x\n",
                out=f"{PROMPT}{UNKNOWN}\n",
                calls=fetch(f"bob,~,id1,{sent}") * 2,
            ),
        )
        two = "login bob\none\nrealm show x\nlogin eve\ntwo"
        both = {"out": PROMPT + UNKNOWN + PROMPT, "calls": fetch("bob,~,id1,one") * 2 + fetch("eve,~,id2,two")}
        (self.dir / "cmds").write_text("login bob\nrealm show x\nlogin eve\n")
        self.check("-file", "cmds", stdin="one\ntwo\n", **both)
        self.check("-file", "/dev/stdin", stdin=two, **both)
        (self.dir / "cmds").write_text(two)
        with (self.dir / "cmds").open() as file:
            done = subprocess.run([VEXILADMIN], stdin=file, stdout=subprocess.PIPE, env=self.environment(), text=True)
        self.assertEqual((done.stdout, done.returncode), (both["out"] + "\n", 0))

    def test_input_that_ends_at_the_prompt_is_no_password(self):
        environment = self.environment()
        for redirection in ("</dev/null", "<&-", "< /"):
            done = subprocess.run(
                ["sh", "-c", f'"$0" -command "login bob" {redirection}', VEXILADMIN],
                env=environment,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                text=True,
            )
            self.assertEqual((done.stdout, done.returncode), (PROMPT + line(0x38C5209D), 0x9D), redirection)

    def test_the_trace_shows_the_identity_from_level_3_on(self):
        seen = {"calls": fetch("bob,~,id1,%s")}
        self.check("-command", "login bob %s", VEXILADMIN_DEBUG="2", **seen)
        self.check(
            "-command",
            "login bob %s",
            VEXILADMIN_DEBUG="3",
            **seen,
            out="Processing the command: login bob %s\nTarnAdminLogin (bob: %s) - id1\n",
        )


class OnTerminal(Case):
    def at_password(self, prompt=PASSWORD, **kwargs):
        return self.terminal("-command", "login bob", prompt=prompt, **kwargs)

    def check_end(self, terminal, status=0):
        self.assertEqual((terminal.ended(), terminal.echoes()), ((status, "\r\n"), True))

    def check_login(self, terminal):
        terminal.type("secret\n")
        self.check_end(terminal)
        self.check_requests("bob secret")

    def check_requests(self, *users_and_passwords):
        sent = re.findall("^get_cluster_info handle1 sec=(.*),~,.*,(.*)$", "\n".join(self.recorded("calls")), re.M)
        self.assertEqual([" ".join(request) for request in sent], [*users_and_passwords])

    def test_lines_may_be_typed_ahead_of_a_password(self):
        for ending in "\n\r":
            terminal = self.terminal()
            terminal.type(ending.join(("login bob", "pass word", "realm show x", "exit", "")))
            self.assertEqual(terminal.ended()[0], 0)
            self.check_requests("bob pass word", "bob pass word")

    def test_a_login_that_got_no_password_leaves_the_former_identity(self):
        terminal = self.terminal()
        terminal.answer("login carol old")
        terminal.answer("login bob", PASSWORD)
        terminal.type("\x04")
        self.assertEqual(terminal.asks(), "\n" + line(0x38C5209D))
        terminal.answer("realm show x")
        terminal.answer("login bob", PASSWORD)
        self.assertEqual(terminal.answer("new pass"), "")
        self.check_requests("carol old", "carol old", "bob new pass")
        os.kill(terminal.pid, signal.SIGALRM)  # which acts as before again
        self.assertEqual(terminal.ended()[0], -signal.SIGALRM)

    def test_signals_at_the_password_restore_the_echo_and_take_their_course(self):
        for number, key in [*((number, None) for number in FATAL), (signal.SIGINT, "\x03"), (signal.SIGQUIT, "\x1c")]:
            terminal = self.at_password()
            if key:
                terminal.type(key)
            else:
                os.kill(terminal.pid, number)
            self.check_end(terminal, -number)

    def test_signals_that_are_ignored_change_nothing(self):
        terminal = self.at_password()
        for number in (signal.SIGPIPE, signal.SIGWINCH, signal.SIGPIPE):
            os.kill(terminal.pid, number)
            time.sleep(0.01)
            self.assertFalse(terminal.echoes())
        self.check_login(terminal)

    def test_a_stop_gives_the_terminal_back_until_the_program_has_it_again(self):
        terminal = self.at_password()
        for stop in (lambda: terminal.type("\x1a"), lambda: os.kill(terminal.pid, signal.SIGTSTP)) * 3:
            stop()
            for _ in range(3):
                terminal.stop()
                self.assertTrue(terminal.echoes())
                os.kill(terminal.pid, signal.SIGCONT)  # in the background it stops again and leaves the echo alone
            terminal.stop()
            terminal.foreground()
            terminal.asks(PASSWORD)
        os.kill(terminal.pid, signal.SIGSTOP)
        terminal.stop()
        terminal.foreground()
        self.assertEqual(terminal.asks(PASSWORD), "")
        self.check_login(terminal)
        terminal = self.at_password(job_control=False)
        os.kill(terminal.pid, signal.SIGTSTP)  # to no effect
        terminal.asks(PASSWORD)
        self.check_login(terminal)

    def test_a_program_that_stopped_or_lost_the_terminal_can_be_killed(self):
        stops = itertools.product((signal.SIGTSTP, signal.SIGSTOP), FATAL)
        for stop, number in [(None, 0), (None, signal.SIGTERM), *stops]:
            terminal = self.at_password()
            if stop:
                os.kill(terminal.pid, stop)
            else:
                terminal.take()
                terminal.type("secret\n")  # it stops before it reads this
            terminal.stop()
            if number:
                os.kill(terminal.pid, number)
                os.kill(terminal.pid, signal.SIGCONT)
            else:
                terminal.foreground()
            self.assertEqual(terminal.ended()[0], -number)

    def test_signals_at_random_moments_neither_get_lost_nor_leave_the_echo_off(self):
        chance = random.Random(1)
        began = time.monotonic()
        self.at_password()
        usual = time.monotonic() - began
        for turn in range(210):
            number = chance.choice(FATAL) if turn % 3 else signal.SIGTSTP
            terminal = self.at_password(prompt=None)
            if turn % 3 == 1:
                terminal.type("secret\n")
            time.sleep(chance.uniform(0, 1.5 * usual))
            with contextlib.suppress(ProcessLookupError):  # it may have ended with the password typed
                os.kill(terminal.pid, number)
            if turn % 3 == 0:
                terminal.stop()
                self.assertTrue(terminal.echoes())
                terminal.foreground()
                terminal.type("secret\n")
            status, shown = terminal.ended()
            self.assertTrue(terminal.echoes(), (turn, number, shown))
            self.assertIn(status, [(0,), (0, -number), (-number,)][turn % 3], (turn, number, shown))
