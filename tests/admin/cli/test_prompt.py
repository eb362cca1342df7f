"""The line at the prompt, on a screen of any width that changes meanwhile, and on one that only goes back to the first
column.

RESIZE_TURNS is the number of lines, RESIZE_SEED what they are drawn from; VALGRIND=1 looks at every access."""

import fcntl
import os
import random
import re
import struct
import termios

from terminal import PROMPT
from vexil import VEXILADMIN, Case

TURNS, SEED = int(os.environ.get("RESIZE_TURNS", 150)), int(os.environ.get("RESIZE_SEED", 1))
# What the keys do to a line, of which the cursor is before the character number `at`.
KEYS = {
    "\x01": lambda line, at: (line, 0),
    "\x05": lambda line, at: (line, len(line)),
    "\x02": lambda line, at: (line, max(at - 1, 0)),
    "\x1b[C": lambda line, at: (line, min(at + 1, len(line))),
    "\x7f": lambda line, at: (line[: max(at - 1, 0)] + line[at:], max(at - 1, 0)),
    "\x0b": lambda line, at: (line[:at], at),
    "\x0c": lambda line, at: (line, at),
}
MARK = "\u0301"
TEXTS = ["x", "東", "é", "e" + MARK, "b" * 20, "set ", "\u202e"]


def plain(text):
    """Without blanks at the end, and before wide characters: one stands where such a character has no room."""
    return re.sub(r" *(\|?) *東", r"\1東", text).rstrip()


class Screen:
    """A terminal that arranges its text anew when its width changes."""

    def __init__(self, columns, height=400):
        self.columns, self.height, self.row, self.column = columns, height, 0, 0
        self.rows, self.part = [[]], ""

    def put(self, character):
        width = {MARK: 0, "東": 2}.get(character, 1)
        if self.column + width > self.columns:
            self.row, self.column = self.row + 1, 0
        assert self.row < self.height, "what stands above would go"
        self.rows += [[]] * (self.row + 1 - len(self.rows))
        cells = self.rows[self.row] = self.rows[self.row] + [" "] * (self.column + width - len(self.rows[self.row]))
        if width:
            cells[self.column : self.column + width] = [character, ""][:width]
        else:
            cells[self.column - (1 if cells[self.column - 1] else 2)] += character
        self.column += width
        return width

    def write(self, text):
        """Returns all that is shown, with | before the character at the cursor."""
        text, self.part = re.fullmatch(r"(.*?)(\x1b[^A-Z]*)?", self.part + text, re.DOTALL).groups("")
        for count, command, other in re.findall(r"\x1b\[(\d*)(.)|([^\x1b])", text):
            count = int(count or 1)
            if command == "H":
                self.row = self.column = 0
            elif command == "J":
                assert self.column < self.columns, "would take the last character too"
                self.rows[self.row :] = [self.rows[self.row][: self.column]]
            elif command:
                self.row += {"A": -count, "B": count}.get(command, 0)
                self.column += count if command == "C" else 0
                assert 0 <= self.row < len(self.rows) and self.column <= self.columns, "no such place"
            elif other == "\b":
                assert 0 < self.column < self.columns, "from the margin, terminals differ"
                self.column -= 1
            elif other == "\r":
                self.column = 0
            elif other != "\a":
                self.put(other)
        shown = ""
        for row, cells in enumerate(self.rows):
            at = self.column if row == self.row else 999
            shown += "".join(cells[:at]) + "|" * (at < 999) + "".join(cells[at:])
        return plain(shown)

    def resize(self, columns):
        new, cursor = Screen(columns), None
        for row, cells in enumerate(self.rows):
            for column, character in enumerate(cells):
                for one in character:
                    width = new.put(one)
                    if (row, column) == (self.row, self.column) and width:
                        cursor = new.row, new.column - width
        new.row, new.column = cursor or (new.row, new.column)
        self.__dict__ = new.__dict__


class Prompt(Case):
    def resize(self, columns, rows=400):
        self.screen.resize(columns)
        self.screen.height = rows
        spare = self.name == "dumb"  # its last column is not used
        fcntl.ioctl(self.tty.master, termios.TIOCSWINSZ, struct.pack("4H", rows, columns + spare, 0, 0))

    def check_shown(self, line, at):
        """Waits until the line is shown with its cursor, or in a low window part of it."""
        while line[at : at + 1] == MARK:
            at += 1
        expected = plain(PROMPT + line[:at] + "|" + line[at:]).replace("\u202e", "\\u{202E}")

        def is_shown():
            rests = self.tty.rests()
            text, self.tty.shown = self.tty.shown, ""
            self.seen = self.screen.write(text)
            return rests and (
                self.seen == expected or self.screen.height < 9 and "|" in self.seen and self.seen in expected
            )

        try:
            self.tty.until(is_shown, repr(expected))
        except AssertionError as problem:
            self.fail(f"{problem}; {self.seen!r} in {self.screen.columns} columns, {self.screen.height} rows")

    def test_the_line_is_shown_with_its_cursor_at_any_width_and_run_as_it_was_typed(self):
        chance = random.Random(SEED)
        program, *arguments = (["valgrind", "-q", "--error-exitcode=99"] if os.environ.get("VALGRIND") else []) + [
            VEXILADMIN
        ]
        for self.name in ("xterm", "dumb"):
            self.tty = self.terminal(*arguments, program=program, TERM=self.name)
            self.screen = Screen(80)
            for turn in range(TURNS):
                line, at, rows = "", 0, 1 if self.name == "dumb" else chance.choice((1, 3, 400, 400))
                self.screen.write(PROMPT)
                self.resize(chance.randint(14, 90), rows)
                for step in range(12):
                    resizes = step == 0 or (rows == 400 and chance.random() < 0.3)
                    if resizes and step > 0:
                        self.resize(chance.randint(2, 90))
                    # After a change of size one that shows: what is shown is of that size then.
                    key = chance.choice(TEXTS if resizes else [*KEYS, *TEXTS])
                    line, at = KEYS[key](line, at) if key in KEYS else (line[:at] + key + line[at:], at + len(key))
                    self.tty.type(key)
                    self.check_shown(line, at)
                self.tty.type("\x05")
                self.check_shown(line, len(line))
                self.resize(80)
                if self.name == "xterm":
                    self.check_shown(line, len(line))
                self.tty.type("\n")
                self.tty.until(lambda: "\r\n" + PROMPT in self.tty.shown, "prompt")
                shown, self.tty.shown = self.tty.shown.split("\r\n", 1)[1], ""
                words = " ".join(line.split()).replace("\u202e", "\\u{202E}")
                self.assertEqual(shown.splitlines()[0], f"Not run: {words} " if words else PROMPT)
                self.screen = Screen(80)
            self.tty.type("\x04")
            status, rest = self.tty.ended()
            self.assertEqual((status, rest[-1:], self.tty.restored()), (0, "\n", True))
