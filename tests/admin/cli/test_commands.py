"""What each command asks of the client library, prints and releases."""

from vexil import ANON, Case, line, msg, refused

EPOCH, SECOND_1 = "1970-01-01-00:00:00 UTC", "1970-01-01-00:00:01 UTC"
BY_USER = f"by={msg(0x38C5809E)},{msg(0x38C580A0)}"
BY_SESSION = f"by={msg(0x38C580A1)},{msg(0x38C580A3)}"
NO_MEMBERS, UNKNOWN_REALM, NO_REALMS, NO_SESSIONS = map(line, (0x38C52135, 0x38C52136, 0x38C5213B, 0x38C5213C))

# What a server may send, as the script writes it, and how it is shown.
HOSTILE = {
    "J%C3%BCrgen%E2%82%AC": "Jürgen€",
    "~": "",
    "%25s%25n%251$s": "%s%n%1$s",
    "a%0Ab%0D%0A": "a\\x0Ab\\x0D\\x0A",
    "%1B]0;x%07%C2%9B31m": "\\x1B]0;x\\x07\\u{009B}31m",
}


def free(kind, count):
    return [] if count is None else [f"free kind={kind} count={count} own"]


def cluster(realms):
    return [f"get_cluster_info {ANON}", *free(2, realms), *free(5, 1)]


def members(count=None):
    return [f"get_replica_set_info {ANON} rs", *free(3, count)]


def query(operation, realm, by, value, more=""):
    return [f"{operation} {ANON} realm={realm} {by} values=1[{value},~] reserved=0,0{more}"]


def sessions(realm, pattern, limit, count=None):
    return query("list_sessions", realm, BY_USER, pattern, f" max={limit}") + free(4, count)


class Commands(Case):
    def check_prints(self, *rows):
        self.check_table(
            rows,
            lambda command, script, out, calls: self.check("-command", command, script=script, out=out, calls=calls),
        )

    def test_realms_and_their_replica_sets(self):
        two, of_b = "get_cluster_info realm=B,r3,r1 realm=A realm=B,r2", "    r3\n    r1\n    r2\n"
        self.check_prints(
            ("realm list", two, "B\nA\nB\n", cluster(3)),
            ("realm list", "get_cluster_info", NO_REALMS, cluster(0)),
            ("realm list", "get_cluster_info realm=A count=-3", "", cluster(-3)),
            ("replica set list", two, "B:\n    r3\n    r1\nA:\nB:\n    r2\n", cluster(3)),
            ("replica set list", "get_cluster_info", "", cluster(0)),
            *(
                (f"{command} {name}", two, out, cluster(3))
                for command in ("realm show", "replica set list -realm")
                for name, out in (("B", of_b), ("A", ""), ("a", UNKNOWN_REALM), ("BB", UNKNOWN_REALM))
            ),
            ("realm show x", "get_cluster_info realm=~,r", UNKNOWN_REALM, cluster(1)),
            # A name is compared as it came, and shown made harmless.
            ("realm show \x1bA", "get_cluster_info realm=%1BA,%1Br", "    \\x1Br\n", cluster(1)),
        )

    def test_members_of_a_replica_set(self):
        n1, n2 = msg(0x38C52134, "n1", "1969-12-31-23:59:59 UTC"), msg(0x38C52134, "n2", "1970-01-01-23:59:59 UTC")
        rows = [
            ("", NO_MEMBERS, None),
            ("member=n2,86399 count=-7", "\n", -7),
            ("member=n2,86399 member=n1,-1", n2 + n1 + "\n", 2),
            ("member=n1,-1 member=n,0 count=1", n1 + "\n", 1),
        ]
        for fields, out, count in rows:
            self.check_prints(("replica set show rs", f"get_replica_set_info {fields}", out, members(count)))

    def test_key(self):
        rows = [
            ("time=2147483647", line(0x38C52142, "k", "2038-01-19-03:14:07 UTC")),
            ("second=0", line(0x38C52142, "k", EPOCH)),
            ("second=1", line(0x38C52138, "k", EPOCH, SECOND_1)),
            ("second=-2147483648", line(0x38C52138, "k", EPOCH, "1901-12-13-20:45:52 UTC")),
        ]
        change = [f"generate_new_key {ANON}", *free(5, 1)]
        for fields, out in rows:
            self.check_prints(
                ("key show", f"get_cluster_info label=k {fields}", out, cluster(0)),
                ("key change", f"generate_new_key label=k {fields}", out, change),
            )

    def test_sessions(self):
        zoe, adam = line(0x38C5213D, "s2", EPOCH, "zoe"), line(0x38C5213D, "s1", "2001-09-09-01:46:40 UTC", "adam")
        rows = [
            ("10", 10, "session=zoe,s2,0 session=adam,s1,1000000000 total=77", [77, 2], zoe + adam, 2),
            ("0", -1, "", [0, 0], NO_SESSIONS, None),
            ("+1", 1, "total=5", [5, 0], NO_SESSIONS, None),
            ("2147483647", 2147483647, "session=s,u,0 count=0", [0, 0], NO_SESSIONS, 0),
            ("1", 1, "session=s,u,0 count=-4 total=-1", [-1, -4], "", -4),
        ]
        self.check_prints(
            *(
                (
                    f"session list -realm east *a? {limit}",
                    f"list_sessions {fields}",
                    line(0x38C52143, *counts) + out,
                    sessions("east", "*a?", sent, count),
                )
                for limit, sent, fields, counts, out, count in rows
            ),
            *(
                (f"session {verb} {what} bob -realm east", "", "", query(f"{verb}_sessions", "east", by, "bob"))
                for verb in ("terminate", "refresh")
                for what, by in (("session", BY_SESSION), ("all_sessions", BY_USER))
            ),
            ("ses t a -realm -r -realm", "", "", query("terminate_sessions", "-realm", BY_USER, "-realm")),
        )
        bytes_kept = query("terminate_sessions", "e", BY_USER, "Ren\udce9")
        self.check(stdin="session terminate all_sessions Ren\udce9 -realm e", out="\n", calls=bytes_kept)

    def test_the_trace_level_and_numbers_that_are_none(self):
        self.check_prints(
            *(
                ("trace get", f"get_trace_level level={level}", line(0x38C5213A, level), [f"get_trace_level {ANON}"])
                for level in (0, -5, 2147483647)
            ),
            *((f"trace set {text}", "", "", [f"set_trace_level {ANON} {int(text)}"]) for text in ("-5", "+2147483647")),
        )
        self.check_table(
            [
                *((f"s l -r east * {text}", "max") for text in ("-1", "ten", "2147483648")),
                *((f"trace set {text}", "level") for text in ("high", "5s", "2147483648")),
            ],
            lambda command, name: self.check("-command", command, err=refused(name), status=0x38C52146),
        )

    def test_a_failed_request_prints_its_status_and_touches_nothing_that_it_left(self):
        fetch = cluster(0)[0]
        self.check_table(
            [
                *((command, fetch) for command in ("realm list", "realm show x", "key show", "replica set list")),
                ("replica set show rs", *members()),
                ("session list -realm e * 0", *sessions("e", "*", -1)),
                ("session terminate all_sessions u -realm e", *query("terminate_sessions", "e", BY_USER, "u")),
                ("key change", f"generate_new_key {ANON}"),
                ("trace get", f"get_trace_level {ANON}"),
            ],
            lambda command, call: self.check(
                "-command",
                command,
                script=call.split()[0] + " status=38C54013",
                calls=[call],
                err=line(0x38C54013),
                status=0x38C54013,
            ),
        )

    def test_records_without_their_array_are_released_and_not_shown(self):
        self.check_table(
            [
                *((command, "count=2", cluster(2)) for command in ("realm list", "realm show A", "key show")),
                ("replica set list", "realm=A,r1 realm=B,?", cluster(2)),
                ("replica set show rs", "count=1", members()),
                ("session list -realm e * 0", "count=1", sessions("e", "*", -1)),
            ],
            lambda command, fields, calls: self.check(
                "-command",
                command,
                script=f"{calls[0].split()[0]} {fields}",
                calls=calls,
                err=line(0x38C5401A),
                status=0x38C5401A,
            ),
        )

    def test_text_of_a_server_comes_out_harmless_on_its_own_line(self):
        def row(command, operation, record, calls, out, head="", tail=""):
            script = " ".join([operation, *(record.replace("TEXT", text) for text in HOSTILE)])
            return command, script, head + "".join(out.replace("TEXT", text) for text in HOSTILE.values()) + tail, calls

        count = len(HOSTILE)
        self.check_prints(
            row("realm list", "get_cluster_info", "realm=TEXT", cluster(count), "TEXT\n"),
            row("replica set list", "get_cluster_info", "realm=TEXT,TEXT", cluster(count), "TEXT:\n    TEXT\n"),
            row(
                "replica set show rs",
                "get_replica_set_info",
                "member=TEXT,0",
                members(count),
                msg(0x38C52134, "TEXT", EPOCH),
                tail="\n",
            ),
            row(
                "session list -realm e * 0",
                "list_sessions",
                "session=TEXT,TEXT,0",
                sessions("e", "*", -1, count),
                line(0x38C5213D, "TEXT", EPOCH, "TEXT"),
                head=line(0x38C52143, count, count),
            ),
        )
        self.check_prints(
            ("key show", "get_cluster_info label=%0A", line(0x38C52142, "\\x0A", EPOCH), cluster(0)),
            ("key show", "get_cluster_info label=~ second=1", line(0x38C52138, "", EPOCH, SECOND_1), cluster(0)),
        )

    def test_text_in_other_locales(self):
        command = "session list -realm grün * 0"
        seen = {
            "script": "list_sessions session=Zo%C3%AB%E2%82%AC,s%C3%A9,0",
            "calls": sessions("grün", "*", -1, 1),
            "out": line(0x38C52143, 1, 1) + line(0x38C5213D, "sé", EPOCH, "Zoë€"),
        }
        for name in ("C", "xx_XX", ""):
            self.check("-command", command, LC_ALL=name, **seen)
        latin = {**self.locale("en_US", "ISO-8859-1"), "encoding": "iso-8859-1"}
        self.check(stdin=command, **latin, **{**seen, "out": seen["out"].replace("€", "\\u{20AC}") + "\n"})
        self.assertRegex(self.run_utility("-command", "login bob", stdin="grün\n", **latin).calls[2], ",grün$")
