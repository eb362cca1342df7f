"""Every command against a real server: what is shown, byte for byte, and what the server holds afterwards."""

import re
import time

from dsessd import Dsessd
from endtoend import ADMINISTRATORS, IDENTITY_REFUSED, NOT_PERMITTED, NO_MATCHING_SESSION, REQUEST_REFUSED
from endtoend import UNKNOWN_REALM, configuration, key_report, listing, sent_as, when
from vexil import Case, commands, line, msg

T, FRESH = 1700000000, 2000000000
NASTY = "x\x1b[2J\x07\n%s%n\u202e\u2066\x85\x7fé\t\n"
SHOWN = "x\\x1B[2J\\x07\\x0A%s%n\\u{202E}\\u{2066}\\u{0085}\\x7Fé\t\\x0A"
MALLORY = [("mallory", T + 5, "s-2"), ("mallory", T + 7, "s-1")]
MARIE, ZHANNA, TANAKA = ("marie", T, "s-3"), ("Жанна", T + 1, "s-5"), ("田中太郎", T + 2, "s-4")
CLUSTER = {
    "keys": [{"label": "first", "time": T - 100}, {"label": "second", "time": T}],
    "realms": [
        {"name": NASTY, "replicaSets": [{"name": "mail"}]},
        {
            "name": "east",
            "sessions": [dict(zip(("user", "time", "id"), row)) for row in (MARIE, ZHANNA, TANAKA, *MALLORY)],
            "replicaSets": [{"name": "idle"}, {"name": "web", "members": [{"name": "node", "time": T}]}],
        },
    ],
}
CAUSED = f"{msg(REQUEST_REFUSED)} {msg(0x38C54058)}"
TRANSCRIPT = [  # what is typed, what is shown for it, and the status of a failure
    ("instances list", "blue\ngreen\n"),
    ("set instance green", ""),
    ("realm list", f"{SHOWN}\neast\n"),
    ("realm show east", "    idle\n    web\n"),
    ("replica set list", f"{SHOWN}:\n    mail\neast:\n    idle\n    web\n"),
    ("replica set show web", msg(0x38C52134, "node", when(T)) + "\n"),
    ("replica set show idle", line(0x38C52135)),
    ("session list -realm east m?l*y 1", listing(2, MALLORY[0])),
    ("session list -realm nowhere * 0", "", UNKNOWN_REALM),
    ("session terminate session s-3 -realm east", sent_as("anonymous"), NOT_PERMITTED),
    ("login reader GLANCE", ""),
    ("key change", sent_as("reader"), NOT_PERMITTED),
    ("login root WRONG", sent_as("root"), IDENTITY_REFUSED),
    ("login root", line(0x38C52145)),
    ("SECRET", ""),
    ("trace set 3", ""),
    ("trace get", line(0x38C5213A, 3)),
    ("trace set 10", f"the server says: The level is a number from 0 to 9.\n{CAUSED}\n"),
    ("key change", key_report("LABEL", FRESH, T)),
    ("key show", key_report("LABEL", FRESH, T)),
    ("session terminate session s-3 -realm east", ""),
    ("session terminate session s-3 -realm east", "", NO_MATCHING_SESSION),
    ("session terminate all_sessions mallory -realm east", ""),
    ("session refresh all_sessions 田中 -realm east", "", NO_MATCHING_SESSION),
    ("session refresh session s-5 -realm east", ""),
    ("session refresh all_sessions 田中太郎 -realm east", ""),
    ("session list -realm east * 9", listing(2, *((user, FRESH, name) for user, _, name in (ZHANNA, TANAKA)))),
]


class Transcripts(Case):
    def test_every_command_and_how_it_fails(self):
        with Dsessd(CLUSTER, ADMINISTRATORS, anonymous="read", instances=["blue", "green"]) as server:
            config, start = configuration(server), when(time.time())
            result = self.run_utility(
                stdin="".join(f"{row[0]}\n" for row in TRANSCRIPT), redirect="2>&1", config=config
            )
            now = lambda shown: when(FRESH) if start <= shown[0] <= when(time.time()) else shown[0]
            out = re.sub(r"\d{4}-[-\d:]+ UTC", now, re.sub(r"key-[\w-]+", "LABEL", result.out))
            expected = "".join("".join([row[1], *map(line, row[2:])]) for row in TRANSCRIPT)
            self.assertEqual((out, result.status, result.log), (expected + "\n", 0, []))
            result = self.run_utility(*commands("trace get", "key show"), config=config, VEXILADMIN_DEBUG="3")
            self.assertEqual(re.findall(r'"id":(\d+)', result.out), ["1", "1", "2", "2"], "no request is like another")
