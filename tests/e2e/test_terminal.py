"""The prompt on a terminal with real servers behind it, which die and come back."""

import pathlib
import re

from dsessd import Dsessd
from endtoend import (
    ADMINISTRATORS,
    IDENTITY_REFUSED,
    NOT_PERMITTED,
    NO_LOCATION,
    NO_MATCHING_SESSION,
    configuration,
    key_report,
    listing,
    sent_as,
)
from vexil import Case, line, msg

PASSWORD = msg(0x38C52145)
T = 1700000000
SESSIONS = [{"id": "s-1", "user": "Жанна", "time": T}, {"id": "s-2", "user": "zoë", "time": T + 1}]
CLUSTER = {"keys": [{"label": "first", "time": T}], "realms": [{"name": "öst", "sessions": SESSIONS}]}
OTHER = {"keys": [{"label": "other", "time": T}], "realms": []}


def holds(process, text):
    """Whether writable memory of a process holds the text, as bytes or as the line editor's wide characters."""
    needles = [text.encode(), text.encode("utf-32-le")]
    with open(f"/proc/{process}/maps") as maps, open(f"/proc/{process}/mem", "rb", 0) as memory:
        for area in re.findall("^([0-9a-f]+)-([0-9a-f]+) rw", maps.read(), re.M):
            begin, end = (int(bound, 16) for bound in area)
            memory.seek(begin)
            content = memory.read(end - begin)
            if any(needle in content for needle in needles):
                return True
    return False


class AtPrompt(Case):
    def check_answers(self, *rows):
        """Rows of what is typed, what is shown for it, and perhaps another prompt behind that."""
        self.check_table(rows, lambda typed, out, *asks: self.assertEqual(self.prompt.answer(typed, *asks), out))

    def test_a_password_in_a_line_is_gone_after_the_next_login(self):
        refused = sent_as("root") + line(IDENTITY_REFUSED)
        with Dsessd(CLUSTER, ADMINISTRATORS) as server:
            self.prompt = self.terminal(config=configuration(server), TERM="vt100")
            if "asan" in pathlib.Path(f"/proc/{self.prompt.pid}/maps").read_text():
                self.skipTest("the address sanitizer keeps what is released")
            self.check_answers(("login root MISTYPED-SECRET", refused), ("login root SECRET", ""))
            self.assertFalse(holds(self.prompt.pid, "MISTYPED"))
            self.assertTrue(holds(self.prompt.pid, "SECRET"))
            self.check_answers(("\x1b[A\x1b[A", refused))  # what the history has left of the line

    def test_a_day_at_the_prompt(self):
        zoe, zhanna = listing(1, ("zoë", T + 1, "s-2")), listing(1, ("Жанна", T, "s-1"))
        with Dsessd(CLUSTER, ADMINISTRATORS, anonymous="read") as server, Dsessd(OTHER, ADMINISTRATORS) as other:
            self.prompt = self.terminal(config=configuration(server, other), TERM="vt100")
            self.check_answers(
                ("session list -realm öst zoë 0", zoe),
                # Characters of several bytes are rubbed out as one.
                ("session list -realm ööst Жаннаё 0\x1b[D\x1b[D\x7f" + "\x1b[D" * 6 + "\x7f" * 4 + "öst", zhanna),
                ("# comment", ""),
                ("\x1b[A\x1b[A\x1b[A", zoe),
                ("session terminate all_sessions zoë -realm öst", sent_as("anonymous") + line(NOT_PERMITTED)),
                # The password is not echoed, and a wrong one does not end the prompt.
                ("login root", "", PASSWORD),
                ("WRONG", sent_as("root") + line(IDENTITY_REFUSED)),
                ("key show", sent_as("root") + line(IDENTITY_REFUSED)),
                ("login root", "", PASSWORD),
                ("SECRET", ""),
                ("session terminate all_sessions zoë -realm öst", ""),
                ("\x1b[A", line(NO_MATCHING_SESSION)),
                ("key show", key_report("first", T)),
            )
            server.kill()
            self.check_answers(("key show", key_report("other", T)), ("trace set 2", ""))
            other.kill()
            self.check_answers(("key show", line(NO_LOCATION)), ("key change", line(NO_LOCATION)))
            server.start()
            self.check_answers(("key show", key_report("first", T)), ("session list -realm öst * 0", zhanna))
            self.prompt.type("\x04")
            status, rest = self.prompt.ended()
            self.assertEqual((status, rest[-1:], self.prompt.echoes()), (0, "\n", True))
