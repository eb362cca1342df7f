"""What becomes of a password, with a real server behind the prompt, a pipe, a file or an argument."""

import os
import pathlib
import signal

from dsessd import Dsessd, memory_of
from endtoend import ADMINISTRATORS, IDENTITY_REFUSED, configuration, sent_as
from vexil import Case, line, msg

# What is released first loses its beginning; what is long is written over late.
SECRET, MISTYPED = "x" * 100 + "SECRET", "x" * 300 + "MISTYPED"
REFUSED = sent_as("root") + line(IDENTITY_REFUSED)
ASKED = msg(0x38C52145)


class Passwords(Case):
    def count(self, process, text):
        """How often memory of a process holds the end of a text, as bytes and as the line editor's wide characters."""
        try:
            if "asan" in pathlib.Path(f"/proc/{process.pid}/maps").read_text():
                self.skipTest("the address sanitizer keeps what is released")
        except PermissionError:
            self.skipTest("only root may look into the memory of a process that dumps no core")
        blocks = list(memory_of(process.pid))
        return [sum(block.count(text[-16:].encode(form)) for block in blocks) for form in ("utf-8", "utf-32-le")]

    def test_there_is_no_password_but_that_in_force_and_those_of_the_line_before(self):
        with Dsessd(administrators=[("root", SECRET, "change")]) as server:
            config = {"config": configuration(server), "TERM": "vt100"}
            login = f"login root {SECRET}"
            terminal = self.terminal("-command", login, "-interactive", "Y", **config)
            self.assertEqual(self.count(terminal, SECRET), [1, 0])
            (self.dir / "cmds").write_text(f"{login}\nlogin root\n")
            terminal = self.terminal("-file", str(self.dir / "cmds"), prompt=ASKED, **config)
            self.assertEqual(self.count(terminal, SECRET), [1, 0])
            terminal = self.terminal(**config)
            terminal.answer("login root", ASKED)
            terminal.type(MISTYPED + "\x04")
            terminal.until(lambda: self.count(terminal, MISTYPED) == [1, 0], "read")
            os.kill(terminal.pid, signal.SIGINT)
            terminal.asks()
            self.assertEqual(self.count(terminal, MISTYPED), [0, 0])
            terminal.type(f"login root {MISTYPED}\x0c")
            terminal.asks()
            self.assertEqual(terminal.answer(""), REFUSED)
            self.assertEqual(self.count(terminal, MISTYPED), [1, 1])
            terminal.answer("login root", ASKED)
            self.assertEqual(terminal.answer(SECRET), "")
            self.assertEqual((self.count(terminal, MISTYPED), self.count(terminal, SECRET)), ([0, 0], [1, 0]))
            self.assertEqual(terminal.answer("\x1b[A\x1b[A"), REFUSED)  # what the history has left of the line
