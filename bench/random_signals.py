"""Signals at random moments at the prompt, at the password prompt and while a command waits: none may get lost, or leave the
terminal changed. SIGNAL_TURNS is the number of turns, SIGNAL_SEED what they are drawn from."""

import os
import random
import signal
import socket
import time

from vexil import CONFIG, Case, commands, msg

PASSWORD = msg(0x38C52145)
TURNS, SEED = int(os.environ.get("SIGNAL_TURNS", 45)), int(os.environ.get("SIGNAL_SEED", 1))
GO_ON = {"KILL", "STOP", "CHLD", "URG", "TTIN", "TTOU", "TSTP", "CONT", "WINCH", "PIPE", "XFSZ", "INT"}
ENDING = sorted(signal.valid_signals() - {signal.Signals[f"SIG{name}"] for name in GO_ON})


class RandomSignals(Case):
    def test_signals_at_random_moments_neither_get_lost_nor_leave_the_terminal_changed(self):
        chance = random.Random(SEED)
        server = self.enterContext(socket.create_server(("127.0.0.1", 0)))  # takes connections and never answers
        location = f"localhost:{server.getsockname()[1]}"
        silent = {"config": CONFIG.replace("node1:9080", location).replace("= 5", "= 99"), "LD_LIBRARY_PATH": ""}
        # A sanitizer has handlers of its own.
        faults = ":".join(f"handle_{name}=0" for name in ("segv", "sigbus", "sigfpe", "sigill", "abort", "sigtrap"))
        began = time.monotonic()
        self.terminal("-command", "login bob", prompt=PASSWORD)
        usual = time.monotonic() - began
        for turn in range(TURNS):
            at, stops, number = turn % 3, turn % 5 == 0 and turn % 3 < 2, chance.choice(ENDING)
            arguments = [(), commands("login bob"), commands("realm list")][at]
            terminal = self.terminal(*arguments, prompt=None, ASAN_OPTIONS=faults, **(silent if at == 2 else {}))
            with self.subTest(turn=turn, at=at, stops=stops, number=number):
                time.sleep(chance.uniform(0, 1.5 * usual))
                if stops:
                    os.kill(terminal.pid, signal.SIGTSTP)
                    terminal.stop()
                    self.assertTrue(terminal.restored())
                    terminal.foreground()
                    terminal.type("exit\n")
                else:
                    os.kill(terminal.pid, number)
                status, shown = terminal.ended()
                self.assertTrue(terminal.restored(), shown)
                status = -(-status & 0x7F)  # with a core dump, where it came before main
                self.assertEqual(status, 0 if stops else -number, shown)
