"""The prompt on a terminal with a real server behind it: what becomes of a password."""

import pathlib

from dsessd import Dsessd, memory_of
from endtoend import ADMINISTRATORS, IDENTITY_REFUSED, configuration, sent_as
from vexil import Case, line

REFUSED = sent_as("root") + line(IDENTITY_REFUSED)


def holds(process, text):
    """Whether memory of a process holds the text, as bytes or as the line editor's wide characters."""
    needles = [text.encode(), text.encode("utf-32-le")]
    return any(needle in block for block in memory_of(process) for needle in needles)


class AtPrompt(Case):
    def test_a_password_in_a_line_is_gone_after_the_next_login(self):
        with Dsessd(administrators=ADMINISTRATORS) as server:
            prompt = self.terminal(config=configuration(server), TERM="vt100")
            if "asan" in pathlib.Path(f"/proc/{prompt.pid}/maps").read_text():
                self.skipTest("the address sanitizer keeps what is released")
            self.assertEqual(prompt.answer("login root MISTYPED-SECRET"), REFUSED)
            self.assertEqual(prompt.answer("login root SECRET"), "")
            self.assertFalse(holds(prompt.pid, "MISTYPED"))
            self.assertTrue(holds(prompt.pid, "SECRET"))
            self.assertEqual(prompt.answer("\x1b[A\x1b[A"), REFUSED)  # what the history has left of the line
