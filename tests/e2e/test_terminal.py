"""The prompt on a terminal with real servers behind it, which die and come back."""

import pathlib
import signal

from dsessd import Dsessd, memory_of
from endtoend import ADMINISTRATORS, IDENTITY_REFUSED, NO_LOCATION, configuration, key_report, listing, sent_as
from vexil import Case, line, msg

PASSWORD = msg(0x38C52145)
T = 1700000000
ZHANNA = {"id": "s-1", "user": "Жанна", "time": T}
CLUSTER = {"keys": [{"label": "first", "time": T}], "realms": [{"name": "öst", "sessions": [ZHANNA]}]}
OTHER = {"keys": [{"label": "other", "time": T}], "realms": []}
REFUSED = sent_as("root") + line(IDENTITY_REFUSED)


def holds(process, text):
    """Whether memory of a process holds the text, as bytes or as the line editor's wide characters."""
    needles = [text.encode(), text.encode("utf-32-le")]
    return any(needle in block for block in memory_of(process) for needle in needles)


class AtPrompt(Case):
    def check_answers(self, *rows):
        """Rows of what is typed, what is shown for it, and perhaps another prompt behind that."""
        self.check_table(rows, lambda typed, out, *asks: self.assertEqual(self.prompt.answer(typed, *asks), out))

    def test_a_password_in_a_line_is_gone_after_the_next_login(self):
        with Dsessd(CLUSTER, ADMINISTRATORS) as server:
            self.prompt = self.terminal(config=configuration(server), TERM="vt100")
            if "asan" in pathlib.Path(f"/proc/{self.prompt.pid}/maps").read_text():
                self.skipTest("the address sanitizer keeps what is released")
            self.check_answers(("login root MISTYPED-SECRET", REFUSED), ("login root SECRET", ""))
            self.assertFalse(holds(self.prompt.pid, "MISTYPED"))
            self.assertTrue(holds(self.prompt.pid, "SECRET"))
            self.check_answers(("\x1b[A\x1b[A", REFUSED))  # what the history has left of the line

    def test_a_day_at_the_prompt(self):
        with Dsessd(CLUSTER, ADMINISTRATORS) as server, Dsessd(OTHER, ADMINISTRATORS) as other:
            self.prompt = self.terminal(config=configuration(server, other), TERM="vt100")
            self.check_answers(
                # The password is not echoed, and a wrong one does not end the prompt.
                ("login root", "", PASSWORD),
                ("WRONG", REFUSED),
                ("login root", "", PASSWORD),
                ("SECRET", ""),
                ("session list -realm öst Жанна 0", listing(1, ("Жанна", T, "s-1"))),
            )
            server.stop(signal.SIGKILL)
            self.check_answers(("key show", key_report("other", T)), ("trace set 2", ""))
            other.stop(signal.SIGKILL)
            nobody = ", ".join(f"http://127.0.0.1:{node.port}/blue" for node in (other, server))
            failed = f"{nobody}: connection refused\n{msg(NO_LOCATION)} {msg(0x38C54058)}\n"
            self.check_answers(("key show", failed), ("key change", failed))
            server.start()
            self.check_answers(("key show", key_report("first", T)))
            self.prompt.type("\x04")
            status, rest = self.prompt.ended()
            self.assertEqual((status, rest[-1:], self.prompt.echoes()), (0, "\n", True))
