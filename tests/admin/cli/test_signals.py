"""Signals: the terminal is put back, whatever ends or stops the program; Ctrl-C ends a line or a command.
bench/random_signals.py sends them at random moments."""

import fcntl
import itertools
import os
import pathlib
import re
import signal
import socket
import subprocess
import termios
import time
import unittest.mock

from fault_server import RESULTS, FaultServer
from terminal import PATIENCE
from vexil import ANON, CONFIG, VEXILADMIN, Case, commands, line, msg

PASSWORD, INTERRUPTED = msg(0x38C52145), line(0x38C54023)


class AtThePassword(Case):
    def at_password(self, **kwargs):
        return self.terminal("-command", "login bob", prompt=PASSWORD, **kwargs)

    def stty(self, terminal):
        """Changes the settings while the shell has the terminal."""
        terminal.settings[3] &= ~termios.ECHOK
        termios.tcsetattr(terminal.master, termios.TCSANOW, terminal.settings)

    def check_login(self, terminal):
        terminal.type("sec\x16\rret\n")
        self.assertEqual((terminal.ended(), terminal.restored()), ((0, "\r\n"), True))
        self.check_requests("bob sec\rret")

    def check_requests(self, *users_and_passwords):
        sent = re.findall("^get_cluster_info handle1 sec=(.*),.*,(.*)$", "\n".join(self.recorded("calls")), re.M)
        self.assertEqual([" ".join(request) for request in sent], [*users_and_passwords])

    def test_lines_may_be_typed_ahead_of_a_password(self):
        for ending in "\n\r":
            terminal = self.terminal()
            terminal.type(ending.join(("login bob", "pass word", "realm show x", "exit", "")))
            self.assertEqual(terminal.ended()[0], 0)
            self.check_requests("bob pass word", "bob pass word")
        terminal = self.terminal("-c", f"exec {VEXILADMIN} 2>err", program="sh")
        terminal.type("login bob\nahead")
        terminal.asks(PASSWORD)
        terminal.type("\x16\r\n")
        terminal.asks()
        self.check_requests("bob ahead\r")

    def test_signals_at_the_password_restore_the_echo_and_take_their_course(self):
        told = "\r\n" + INTERRUPTED.replace("\n", "\r\n")
        for number, key, shown in [
            (signal.SIGRTMAX, "", "\r\n"),
            (signal.SIGQUIT, "\x1c", "\r\n"),
            (signal.SIGINT, "\x03", told),
        ]:
            terminal = self.at_password()
            for ignored in (signal.SIGPIPE, signal.SIGWINCH):
                os.kill(terminal.pid, ignored)
                time.sleep(0.01)
                self.assertFalse(terminal.echoes())
            if key:
                terminal.type(key)
            else:
                os.kill(terminal.pid, number)
            self.assertEqual((terminal.ended(), terminal.restored()), ((-number, shown), True))

    def test_a_stop_gives_the_terminal_back_until_the_program_has_it_again(self):
        def go_on():
            terminal.stop()
            self.stty(terminal)
            terminal.foreground()
            terminal.asks(PASSWORD)

        terminal = self.terminal("-command", "login bob", prompt=None, job_control="background")
        go_on()
        terminal.asks(PASSWORD)  # as after any stop
        self.check_login(terminal)
        terminal = self.at_password()
        for continued in (2, 0):
            terminal.type("\x1a")
            for _ in range(continued):
                terminal.stop()
                self.assertTrue(terminal.echoes())
                os.kill(terminal.pid, signal.SIGCONT)  # in the background it stops again and leaves the echo alone
            go_on()
        os.kill(terminal.pid, signal.SIGSTOP)
        terminal.stop()
        terminal.foreground()
        self.assertEqual(terminal.asks(PASSWORD), "")
        self.check_login(terminal)
        terminal = self.at_password(job_control=False)
        os.kill(terminal.pid, signal.SIGTSTP)  # to no effect
        terminal.asks(PASSWORD)
        self.check_login(terminal)

    def test_a_stop_as_soon_as_the_prompt_is_there_shows_it_again(self):
        for _ in range(5):
            terminal = self.terminal("-command", "login bob", prompt=None)
            terminal.until(lambda: PASSWORD in terminal.shown, "prompt")
            os.kill(terminal.pid, signal.SIGTSTP)
            terminal.stop()
            terminal.shown = ""
            terminal.foreground()
            terminal.asks(PASSWORD)

    def test_a_program_that_stopped_can_be_killed(self):
        for stop, number in itertools.product((signal.SIGTSTP, signal.SIGSTOP), (signal.SIGINT, signal.SIGTERM)):
            terminal = self.at_password()
            os.kill(terminal.pid, stop)
            terminal.stop()
            os.kill(terminal.pid, signal.SIGCONT)
            terminal.stop()
            self.stty(terminal)
            os.kill(terminal.pid, number)
            os.kill(terminal.pid, signal.SIGCONT)
            self.assertEqual((terminal.ended()[0], terminal.restored()), (-number, True))

    def test_what_gives_up_a_line_or_a_password_leaves_the_former_identity(self):
        terminal = self.terminal(TERM="vt100")
        terminal.answer("login carol old")
        # What Ctrl-C sends, since on the key itself the system may drop what is shown at that moment.
        interrupt = lambda: os.kill(terminal.pid, signal.SIGINT)
        for typed in ("", "realm sh", "grün\x1b[D"):
            terminal.type(typed)
            terminal.until(lambda: typed.replace("\x1b[D", "\b") in terminal.shown, "echo")
            interrupt()
            self.assertTrue(terminal.asks().endswith("^C\n"))
        for end, told in ((interrupt, INTERRUPTED), (lambda: terminal.type("\x04"), line(0x38C5209D))):
            terminal.answer("login bob", PASSWORD)
            end()
            self.assertEqual(terminal.asks(), "\n" + told)
            self.assertEqual(terminal.answer("realm show x"), line(0x38C52136))
        self.check_requests("carol old", "carol old", "carol old")
        os.kill(terminal.pid, signal.SIGALRM)  # which acts as before again
        self.assertEqual((terminal.ended()[0], terminal.restored()), (-signal.SIGALRM, True))


class OfARun(Case):
    def test_whatever_ends_a_run_what_was_done_before_is_told(self):
        done, change = line(0x38C52142, "k", "1970-01-01-00:00:00 UTC"), f"generate_new_key {ANON}"
        for number, shown, told in [
            *((number, done * 2, msg(0x38C54057)) for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT)),
            (signal.SIGKILL, done, ""),
        ]:
            environment = self.environment(script="generate_new_key label=k")
            pipes = {name: subprocess.PIPE for name in ("stdin", "stdout", "stderr")}
            ignored = signal.SIGINT if number == signal.SIGHUP else signal.SIGHUP
            ignore = lambda: signal.signal(ignored, signal.SIG_IGN)
            with subprocess.Popen([VEXILADMIN], env=environment, preexec_fn=ignore, **pipes) as process:
                process.stdin.write(b"key change\nkey change\n")
                process.stdin.flush()
                deadline = time.monotonic() + PATIENCE
                # The second is done when its record is released.
                while (
                    self.recorded("calls")[-1:] != ["free kind=5 count=1 own"]
                    or self.recorded("calls").count(change) < 2
                ):
                    self.assertLess(time.monotonic(), deadline)
                process.send_signal(ignored)
                process.send_signal(number)
                seen = [stream.read().decode() for stream in (process.stdout, process.stderr)]
            self.assertEqual((seen, process.returncode), ([shown, told], -number))

    def test_ctrl_c_ends_the_program_where_the_library_cannot_be_interrupted(self):
        script = "list_sessions " + " ".join(["session=" + "x" * 99 + ",y,0"] * 2000)
        arguments = [VEXILADMIN, *commands("session list -realm e * 0")]
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.DEVNULL}
        with subprocess.Popen(arguments, env=self.environment(script=script), **pipes) as process:
            while not any(call.startswith("list_sessions") for call in self.recorded("calls")):
                self.assertIsNone(process.poll())
            process.send_signal(signal.SIGINT)  # while it waits for somebody who reads the listing
            process.stdout.read()
        self.assertEqual(process.returncode, -signal.SIGINT)


class OfACommand(Case):
    """Commands that wait for a server which takes connections and never answers, through the real client library."""

    def setUp(self):
        super().setUp()
        self.server = self.enterContext(socket.create_server(("127.0.0.1", 0)))
        self.server.settimeout(PATIENCE)
        location = f"localhost:{self.server.getsockname()[1]}"
        self.silent = {"config": CONFIG.replace("node1:9080", location).replace("= 5", "= 99"), "LD_LIBRARY_PATH": ""}

    def interrupt(self, terminal, command):
        """Types a command, and interrupts it while it waits. Returns what is shown for it."""
        terminal.type(command + "\n")
        terminal.until(lambda: terminal.echoes() and command in terminal.shown, "run of the command")
        self.await_request()
        os.kill(terminal.pid, signal.SIGINT)
        return terminal.asks().split("\n", 2)[2]

    def await_request(self):
        connection = self.enterContext(self.server.accept()[0])
        connection.settimeout(PATIENCE)
        self.assertNotEqual(connection.recv(1), b"")

    def test_ctrl_c_ends_the_wait_for_a_server_and_not_the_prompt(self):
        terminal = self.terminal(**self.silent)
        for _ in range(2):
            self.assertEqual(self.interrupt(terminal, "realm list"), INTERRUPTED)
            self.assertEqual(self.interrupt(terminal, "key change"), line(0x38C54013))
        self.assertEqual(terminal.answer("instances list"), "blue\ngreen\n")
        terminal.type("realm list\n")
        self.await_request()
        os.kill(terminal.pid, signal.SIGTERM)
        self.assertEqual(terminal.ended()[0], -signal.SIGTERM)

    def test_ctrl_c_ends_the_print_of_a_long_listing(self):
        sessions = [{"id": "s", "user": "u", "time": 0}] * 50000
        self.enterContext(
            unittest.mock.patch.dict(RESULTS, {"session.list": {"total": 50000, "count": 50000, "sessions": sessions}})
        )
        command, location = "session list -realm e * 0", f"127.0.0.1:{FaultServer('good').port}"
        real = {"config": CONFIG.replace("node1:9080", location), "LD_LIBRARY_PATH": ""}
        terminal = self.terminal(**real)
        terminal.type(command + "\n")
        terminal.until(lambda: "UTC" in terminal.shown, "listing")
        os.kill(terminal.pid, signal.SIGINT)
        shown = terminal.asks()
        self.assertTrue(shown.count("UTC") < 50000 and shown.endswith("\n" + INTERRUPTED))
        # Where nobody reads the listing, it takes Ctrl-C more than once.
        pipe = {"stdout": subprocess.PIPE, "stderr": subprocess.DEVNULL}
        process = subprocess.Popen([VEXILADMIN, *commands(command)], env=self.environment(**real), **pipe)
        self.addCleanup(process.kill)
        process.stdout.read(1)
        while pathlib.Path(f"/proc/{process.pid}/stat").read_text().split()[2] != "S":
            pass  # until the pipe is full
        deadline = time.monotonic() + PATIENCE
        while process.poll() is None:
            self.assertLess(time.monotonic(), deadline)
            process.send_signal(signal.SIGINT)
            time.sleep(0.02)
        self.assertEqual(process.returncode, -signal.SIGINT)
        process.stdout.close()

    def test_ctrl_c_in_the_moment_before_a_password_is_read_is_heard(self):
        terminal = self.terminal(**self.silent)
        terminal.type("login bob")
        terminal.until(lambda: "login bob" in terminal.shown, "echo")
        termios.tcflow(terminal.slave, termios.TCOOFF)
        terminal.type("\n")
        time.sleep(0.1)
        while fcntl.ioctl(terminal.slave, termios.FIONREAD, bytes(4)) != bytes(4):
            pass
        os.kill(terminal.pid, signal.SIGINT)
        termios.tcflow(terminal.slave, termios.TCOON)
        self.assertIn(INTERRUPTED, terminal.asks())

    def test_a_signal_ends_a_run_after_saying_what_became_of_the_command(self):
        (self.dir / "cmds").write_text("key change\ninstances list\n")
        for arguments, number, told in [
            (commands("instances list", "realm list"), signal.SIGINT, "\n" + line(0x38C54023)),
            (["-file", str(self.dir / "cmds")], signal.SIGINT, "\n" + line(0x38C54013)),
            (["-file", str(self.dir / "cmds")], signal.SIGTERM, line(0x38C54013)),
        ]:
            terminal = self.terminal(*arguments, prompt=None, **self.silent)
            self.await_request()
            if "instances list" in arguments:
                terminal.until(lambda: terminal.shown == "blue\r\ngreen\r\n", "list")  # before the next command is done
                terminal.shown = ""
            os.kill(terminal.pid, number)
            self.assertEqual(terminal.ended(), (-number, told.replace("\n", "\r\n")))
