"""The sixteen commands against a real server: what is printed, byte for byte, and what the server holds afterwards."""

import re
import time

from dsessd import Dsessd
from endtoend import (
    ADMINISTRATORS,
    IDENTITY_REFUSED,
    NO_MATCHING_SESSION,
    NOT_PERMITTED,
    REQUEST_REFUSED,
    ROOT_LOGIN,
    UNKNOWN_REALM,
    UNKNOWN_REPLICA_SET,
    configuration,
    key_report,
    listing,
    sent_as,
    when,
)
from vexil import Case, commands, line, msg

T = 1700000000
MALLORY = [("mallory", T + 5, "s-2"), ("mallory", T + 7, "s-1")]
OTHERS = [("marie", T, "s-3"), ("Жанна", T + 1, "s-5"), ("田中太郎", T + 2, "s-4")]


def sessions(*rows):
    return [{"id": name, "user": user, "time": seconds} for user, seconds, name in rows]


CLUSTER = {
    "keys": [{"label": "first", "time": T - 100}, {"label": "second", "time": T}],
    "realms": [
        {"name": "wést", "replicaSets": [{"name": "mail"}]},
        {
            "name": "east",
            "sessions": sessions(*OTHERS, *MALLORY),
            "replicaSets": [
                {"name": "idle"},
                {"name": "web", "members": [{"name": f"node{n}", "time": T + n} for n in (1, 2)]},
            ],
        },
    ],
}
LEVEL_1, LEVEL_3 = line(0x38C5213A, 1), line(0x38C5213A, 3)
KEY = key_report("second", T, T - 100)
READS = {
    "realm list": "wést\neast\n",
    "realm show wést": "    mail\n",
    "key show": KEY,
    "trace get": LEVEL_1,
    "replica set list": "wést:\n    mail\neast:\n    idle\n    web\n",
    "replica set show web": "".join(msg(0x38C52134, f"node{n}", when(T + n)) for n in (1, 2)) + "\n",
    "session list -realm east mallory 0": listing(2, *MALLORY),
}


def server(cluster=CLUSTER):
    return Dsessd(cluster, ADMINISTRATORS, anonymous="read", instances=["blue", "green"])


class Transcripts(Case):
    def check_transcripts(self, peer, *rows, login=()):
        """Rows of commands in one text, separated by semicolons, standard output, and the status of a failure."""
        self.check_table(
            rows,
            lambda text, out, status=0: self.check(
                *commands(*login, *text.split("; ")),
                config=configuration(peer),
                whole=True,
                out=out,
                err=line(status) if status else "",
                status=status,
            ),
        )

    def at_prompt(self, peer, *lines):
        """What lines at the prompt show on both streams, without the line feed that answers the end of input."""
        result = self.run_utility(stdin="".join(f"{text}\n" for text in lines), merge=True, config=configuration(peer))
        self.assertEqual((result.status, result.out[-1:], result.log), (0, "\n", []))
        return result.out[:-1]

    def test_every_command_and_how_it_fails(self):
        with server() as peer:
            self.check_transcripts(
                peer,
                *READS.items(),
                ("instances list", "blue\ngreen\n"),
                ("set instance green; key show", KEY),
                ("realm show eas", line(0x38C52136)),
                ("replica set show idle", line(0x38C52135)),
                ("replica set show east", "", UNKNOWN_REPLICA_SET),
                ("session list -realm east m?l*y 1", listing(2, MALLORY[0])),
                ("session list -realm east 田* 9", listing(1, OTHERS[2])),
                ("session list -realm nowhere * 0", "", UNKNOWN_REALM),
                ("session terminate session s-3 -realm east", sent_as("anonymous"), NOT_PERMITTED),
                ("login reader GLANCE; trace get; key change", LEVEL_1 + sent_as("reader"), NOT_PERMITTED),
                ("login root WRONG", sent_as("root"), IDENTITY_REFUSED),
            )
            self.check_transcripts(
                peer,
                ("trace set 3; trace get", LEVEL_3),
                ("trace set 10", "the server says: A trace level is a number from 0 to 9.\n", REQUEST_REFUSED),
                ("session terminate session s-3 -realm nowhere", "", UNKNOWN_REALM),
                ("session terminate session s-3 -realm east; session list -realm east mar* 0", listing(0)),
                ("session terminate session s-3 -realm east", "", NO_MATCHING_SESSION),
                (
                    "session terminate all_sessions mallory -realm east; session list -realm east * 0",
                    listing(2, *OTHERS[1:]),
                ),
                ("session refresh session s-1 -realm east", "", NO_MATCHING_SESSION),
                ("session refresh all_sessions 田中 -realm east", "", NO_MATCHING_SESSION),
                login=[ROOT_LOGIN],
            )
            start = time.time()
            shown = self.at_prompt(
                peer,
                ROOT_LOGIN,
                "session refresh session s-5 -realm east",
                "session refresh all_sessions 田中太郎 -realm east",
                "session list -realm east * 0",
            )
            fresh = [when(start) <= text <= when(time.time()) for text in re.findall(r"\d{4}-[-\d:]+ UTC", shown)]
            self.assertEqual(fresh, [True, True], shown)

    def test_a_days_work_through_a_pipe(self):
        with server() as peer:
            start = int(time.time())
            shown = self.at_prompt(
                peer,
                "login root",
                "SECRET",
                "session list -realm east mallory 0",
                "session terminate all_sessions mallory -realm east",
                "session list -realm east mallory 0",
                "key change",
                "set instance green",
                "key show",
            )
            label = re.search(r"key-[\w-]+", shown)[0]
            listings, seconds = listing(2, *MALLORY) + listing(0), range(start, int(time.time()) + 1)
            self.assertIn(shown, [line(0x38C52145) + listings + 2 * key_report(label, second, T) for second in seconds])
            for change in (f"key is {label}, by root", "2 sessions of realm east, user mallory, by root"):
                self.assertIn(change, peer.log())
            self.assertEqual(peer.log().count("login of root"), 1)  # of which each later request is a part

    def test_hostile_text_in_a_servers_records_is_shown_and_does_no_harm(self):
        nasty = "x\x1b[2J\x07\n%s%n\u202e\u2066\x85\x7fé\t\n"
        shown = "x\\x1B[2J\\x07\\x0A%s%n\\u{202E}\\u{2066}\\u{0085}\\x7Fé\t\\x0A"
        realm = {"name": nasty, "replicaSets": [{"name": nasty}]}
        with server({"keys": [{"label": nasty, "time": T}], "realms": [realm]}) as peer:
            out = f"{shown}:\n    {shown}\n{key_report(shown, T)}"
            self.check_transcripts(peer, ("replica set list; key show", out))

    def test_a_listing_of_200_000_sessions_is_complete(self):
        rows = [(f"user{number % 1000:03}", T + number // 1000, f"{number:032x}") for number in range(200_000)]
        with server({"realms": [{"name": "east", "sessions": sessions(*rows)}]}) as peer:
            result = self.run_utility(*commands("session list -realm east * 0"), config=configuration(peer))
            self.assertEqual((result.err, result.status), ("", 0))
            self.assertTrue(result.out == listing(len(rows), *sorted(rows)), "too long to show")
