"""The prompt while its window changes, and keys that the user has given other meanings.

RESIZE_TURNS is the number of changes of size, RESIZE_SEED what they are drawn from; VALGRIND=1 looks at every access."""

import fcntl
import os
import random
import re
import struct
import termios

from vexil import VEXILADMIN, Case

TURNS, SEED = int(os.environ.get("RESIZE_TURNS", 60)), int(os.environ.get("RESIZE_SEED", 1))
CONTROLS = re.compile(r"\x1b\[\d*[A-DJ]|[\r\n\b\a]")
# What the keys do to a line, of which the cursor is before the character number `at`.
KEYS = {
    "\x01": lambda line, at: (line, 0),
    "\x05": lambda line, at: (line, len(line)),
    "\x02": lambda line, at: (line, max(at - 1, 0)),
    "\x1b[C": lambda line, at: (line, min(at + 1, len(line))),
    "\x7f": lambda line, at: (line[: max(at - 1, 0)] + line[at:], max(at - 1, 0)),
    "\x0b": lambda line, at: (line[:at], at),
}


class Prompt(Case):
    def resize(self, terminal, columns, rows):
        fcntl.ioctl(terminal.master, termios.TIOCSWINSZ, struct.pack("4H", rows, columns, 0, 0))

    def test_the_line_is_what_was_typed_and_is_shown_whole_however_the_window_changed(self):
        chance = random.Random(SEED)
        program = ["valgrind", "-q", "--error-exitcode=99"] if os.environ.get("VALGRIND") else []
        arguments = [*program, VEXILADMIN][1:]
        terminal = self.terminal(*arguments, program=[*program, VEXILADMIN][0], TERM="xterm")
        line, at = "", 0
        for turn in range(1, TURNS + 1):
            self.resize(terminal, chance.choice((1, 2, 3, 10, 40, 80, chance.randint(1, 200))), chance.randint(1, 50))
            for _ in range(chance.randint(0, 4)):
                if chance.random() < 0.3:
                    key = chance.choice([*KEYS])
                    line, at = KEYS[key](line, at)
                else:
                    key = chance.choice(["x", "東", "é", "e\u0301", "b" * 20, "set "])
                    line, at = line[:at] + key + line[at:], at + len(key)
                terminal.type(key)
                terminal._read(0)
            if turn % 10 == 0 or turn == TURNS:
                with self.subTest(turn=turn):
                    terminal.type("\x05")
                    self.resize(terminal, 300, 100)
                    while terminal._read(0.3):
                        terminal.shown = ""
                    self.resize(terminal, 1000, 100)  # where it is one row
                    whole = "vexiladmin> " + line
                    terminal.until(lambda: CONTROLS.sub("", terminal.shown) == whole, f"whole line {line!r}")
                    terminal.shown = ""
                    shown = terminal.answer("")
                    self.assertEqual(
                        shown.splitlines()[:1], [f"Not run: {' '.join(line.split())} "] if line.split() else []
                    )
                    line, at = "", 0
        terminal.type("\x04")
        status, rest = terminal.ended()
        self.assertEqual((status, rest[-1:], terminal.restored()), (0, "\n", True))
