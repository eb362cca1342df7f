"""What each command asks of the client library, prints and releases."""


from vexil import ANON, CONFIG, Case, line, msg, refused

EPOCH, SECOND_1 = "1970-01-01-00:00:00 UTC", "1970-01-01-00:00:01 UTC"
BY_USER = f"by={msg(0x38C5809E)},{msg(0x38C580A0)}"
NO_MEMBERS, UNKNOWN_REALM, NO_REALMS, NO_SESSIONS = map(line, (0x38C52135, 0x38C52136, 0x38C5213B, 0x38C5213C))
# What a server may send, as the script writes it, and how it is shown.
HOSTILE, SHOWN = "%C3%BC%25s%251$n%0D%0A%1B]0;x%07%C2%9B31m", "ü%s%1$n\\x0D\\x0A\\x1B]0;x\\x07\\u{009B}31m"


def free(kind, count):
    return [] if count is None else [f"free kind={kind} count={count} own"]


def cluster(realms):
    return [f"get_cluster_info {ANON}", *free(2, realms), *free(5, 1)]


def members(count=None):
    return [f"get_replica_set_info {ANON} rs", *free(3, count)]


def change():
    return [f"generate_new_key {ANON}", *free(5, 1)]


def query(operation, realm, by, value, more=""):
    return [f"{operation} {ANON} realm={realm} {by} values=[{value}]{more}"]


def sessions(realm, pattern, limit, count=None):
    return query("list_sessions", realm, BY_USER, pattern, f" max={limit}") + free(4, count)


class Commands(Case):
    def check_prints(self, *rows):
        """Rows of a command, the fields of the library's first answer, what is printed, the calls, and perhaps the
        status of a failure."""
        for command, fields, out, calls, *status in rows:
            script, failure = f"{calls[0].split()[0]} {fields}", {
                "status": sum(status),
                "err": "".join(map(line, status)),
            }
            with self.subTest(command, fields=fields):
                self.check("-command", command, script=script, out=out, calls=calls, **failure)

    def test_realms_and_their_replica_sets(self):
        four, of_b = "realm=B,r3,r1 realm=A realm=BA,x realm=B,r2", "    r3\n    r1\n    r2\n"
        self.check_prints(
            ("realm list", "", NO_REALMS, cluster(0)),
            ("realm list", "realm=A count=-3", "", cluster(-3)),
            ("replica set list", four, "B:\n    r3\n    r1\nA:\nBA:\n    x\nB:\n    r2\n", cluster(4)),
            ("replica set list", "", "", cluster(0)),
            *(
                (f"{command} {name}", four, out, cluster(4))
                for command in ("realm show", "replica set list -realm")
                for name, out in (("B", of_b), ("A", ""), ("a", UNKNOWN_REALM), ("BB", UNKNOWN_REALM))
            ),
            ("realm show \x1bA", "realm=~,r realm=%1BA,%1Br", "    \\x1Br\n", cluster(2)),
            ("replica set list", f"realm={HOSTILE},~,{HOSTILE}", f"{SHOWN}:\n    \n    {SHOWN}\n", cluster(1)),
        )

    def test_members_of_a_replica_set(self):
        n1, n2, nasty = (msg(0x38C52134, *row) for row in (("n1", EPOCH), ("n2", SECOND_1), (SHOWN, EPOCH)))
        rows = [
            ("", NO_MEMBERS, None),
            ("member=n2,1 count=-7", "\n", -7),
            ("member=n2,1 member=n1,0", n2 + n1 + "\n", 2),
            (f"member={HOSTILE},0 member=n,0 count=1", nasty + "\n", 1),
        ]
        self.check_prints(*(("replica set show rs", fields, out, members(count)) for fields, out, count in rows))

    def test_key(self):
        for fields, out in [
            ("label=~ time=2147483647", line(0x38C52142, "", "2038-01-19-03:14:07 UTC")),
            (f"label={HOSTILE} second=-2147483648", line(0x38C52138, SHOWN, EPOCH, "1901-12-13-20:45:52 UTC")),
        ]:
            self.check_prints(("key show", fields, out, cluster(0)), ("key change", fields, out, change()))

    def test_sessions(self):
        zoe, adam = line(0x38C5213D, "s2", EPOCH, SHOWN), line(0x38C5213D, "s1", "2001-09-09-01:46:40 UTC", "adam")
        rows = [
            ("10", 10, f"session=adam,s1,1000000000 session={HOSTILE},s2,0 total=77", [77, 2], adam + zoe, 2),
            ("0", -1, "", [0, 0], NO_SESSIONS, None),
            ("+1", 1, "total=5", [5, 0], NO_SESSIONS, None),
            ("2147483647", 2147483647, "session=s,u,0 count=-4 total=-1", [-1, -4], "", -4),
        ]
        self.check_prints(
            *(
                (
                    f"s l -realm e *a? {limit}",
                    fields,
                    line(0x38C52143, *counts) + out,
                    sessions("e", "*a?", sent, freed),
                )
                for limit, sent, fields, counts, out, freed in rows
            ),
            ("ses t a Ren\udce9 -r -realm", "", "", query("terminate_sessions", "-realm", BY_USER, "Ren\udce9")),
        )

    def test_the_trace_level_and_numbers_that_are_none(self):
        self.check_prints(
            ("trace get", "level=-5", line(0x38C5213A, -5), [f"get_trace_level {ANON}"]),
            ("trace set -5", "", "", [f"set_trace_level {ANON} -5"]),
        )
        for number in ("-1", "5s", "2147483648"):
            self.check("-command", f"s l -r e * {number}", **refused("max"))
        self.check("-command", "trace set +-5", **refused("level"))

    def test_what_failed_or_lacks_its_records_is_told_and_not_touched(self):
        failed = [
            *((command, cluster(0)[:1]) for command in ("realm list", "realm show x", "key show", "replica set list")),
            ("replica set show rs", members()),
            ("session list -realm e * 0", sessions("e", "*", -1)),
            ("session terminate all_sessions u -realm e", query("terminate_sessions", "e", BY_USER, "u")),
            ("key change", change()[:1]),
        ]
        without_array = [
            *((command, "count=2", cluster(2)) for command in ("realm list", "realm show A", "key show")),
            ("replica set list", "realm=A,r1 realm=B,?", cluster(2)),
            ("replica set show rs", "count=1", members()),
            ("session list -realm e * 0", "count=1", sessions("e", "*", -1)),
        ]
        self.check_prints(
            *((command, "status=38C54013", "", calls, 0x38C54013) for command, calls in failed),
            *((command, "throws=1", "", calls, 0x38C52097) for command, calls in failed),
            *((command, fields, "", calls, 0x38C5401A) for command, fields, calls in without_array),
        )

    def test_text_in_other_locales(self):
        command, shown = "session list -realm grün * 0", line(0x38C52143, 1, 1) + line(0x38C5213D, "sé", EPOCH, "ë€")
        seen = {"script": "list_sessions session=ë€,sé,0", "calls": sessions("grün", "*", -1, 1)}
        latin = {**self.locale("ISO-8859-1"), "encoding": "iso-8859-1"}
        self.check(stdin=command, out=shown.replace("€", "\\u{20AC}") + "\n", **latin, **seen)
        traced = self.run_utility(stdin="grün\n", VEXILADMIN_DEBUG="3", **latin)
        self.assertRegex(traced.out, "^Processing the command: grün\n")
        config = CONFIG + "ssl-keyfile = k\nssl-keyfile-stash = s\nssl-fips-enabled = ü\n"
        terminal = self.terminal("-interactive", "N", prompt=None, config=config, **latin)
        self.assertIn(msg(0x38C54048, "\ufffd").rstrip("\n"), terminal.ended()[1])  # one byte, that is no UTF-8
        self.assertRegex(self.run_utility("-command", "login bob", stdin="grün\n", **latin).calls[2], ",grün$")
