"""Options, lines, files, tracing, and how a line finds its command."""

import errno
import os
import re
import subprocess

from vexil import ANON, MESSAGES, VEXILADMIN, Case, commands, end, line, msg, refused, shown_status, start

PATTERNS = [
    "set instance <instance>",
    "login <user> [password]",
    "instances list",
    "trace get",
    "trace set <level>",
    "session refresh all_sessions <user-name> -realm <realm-name>",
    "session refresh session <session-id> -realm <realm-name>",
    "session terminate all_sessions <username> -realm <realm-name>",
    "session terminate session <session-id> -realm <realm-name>",
    "session list -realm <realm-name> <pattern> <max>",
    "key change",
    "key show",
    "realm show <realm-name>",
    "realm list",
    "replica set show <replica-set-name>",
    "replica set list [-realm <realm>]",
]
CLUSTER = "get_cluster_info realm=east,r1 label=k"
FETCH = [f"get_cluster_info {ANON}", "free kind=2 count=1 own", "free kind=5 count=1 own"]
KEY = line(0x38C52142, "k", "1970-01-01-00:00:00 UTC")
GET = [f"get_trace_level {ANON}"]
LEVEL = line(0x38C5213A, 0)


def listing(text, patterns=PATTERNS, why=0x38C521E8):
    words = "".join(word + " " for word in re.split("[ \t\n]+", text) if word)
    return f"{msg(0x38C521E5)} {words}\n{line(why)}" + "".join(f"    {pattern}\n" for pattern in patterns)


def not_run(text, *patterns_and_why):
    return {"out": listing(text, *patterns_and_why), "status": 0x38C52099}


class Shell(Case):
    def check_rows(self, *rows):
        """Rows of arguments and what is seen for them."""
        self.check_table(rows, lambda arguments, seen: self.check(*arguments, script=CLUSTER, **seen))

    def test_options_are_carried_out_in_order_up_to_the_first_failure(self):
        (self.dir / "good").write_text("key show\n")
        (self.dir / "bad").write_text("session list -realm e * -1\nrealm list\n")
        usage, realms = msg(0x38C5321F, "vexiladmin"), commands("realm list")
        opened, shown = {"stdin": "realm list", "out": "east\n\n", "calls": FETCH}, {"out": "east\n", "calls": FETCH}
        maybe = {"err": line(0x38C5213E, "interactive"), "status": 0x38C52146}
        no_file = msg(0x38C520A2, "nowhere", f"{os.strerror(errno.ENOENT)} ({errno.ENOENT})")
        self.check_rows(
            *(
                (arguments.split(), opened)
                for arguments in ("", "-command", "-file", "-", "realm list", "-interactive Y", "-interactive yonder")
            ),
            *((["-interactive", *value], {"stdin": "realm list", **maybe}) for value in (["maybe"], [""], [])),
            (["-interactive", "N", *realms], {"stdin": "key show", **shown}),
            (realms, {"stdin": "key show", **shown}),
            ([*realms, "-interactive", "yes"], {"stdin": "key show", "out": f"east\n{KEY}\n", "calls": FETCH * 2}),
            (["-interactive", "maybe", *realms], {**shown, **maybe}),
            (
                [*realms, "-file", "good", *commands("trace get"), "-file", "good"],
                {"out": f"east\n{KEY}{LEVEL}{KEY}", "calls": FETCH * 2 + GET + FETCH},
            ),
            (["-file", "bad", "-file", "good"], {"err": refused("max"), "status": 0x38C52146}),
            (["-interactive", "N", "-interactive", "Y"], {"stdin": "realm list"}),
            (
                [*realms, "-file", "nowhere", "-file", "good"],
                {"out": f"east\n{no_file}", "merge": True, "status": 0x38C520A8, "calls": FETCH},
            ),
            (["-bogus", "-help", *realms], {"out": usage + msg(0x38C53220)}),
            (
                ["--help", "-comm", "realm list", "-comm", "x"],
                {"status": 0x38C531C5, "out": usage + line(0x38C5319C, "comm") + line(0x38C5319C, "-help")},
            ),
            (["-%n%s"], {"out": usage + line(0x38C5319C, "%n%s"), "status": 0x38C531C5}),
            *((commands(text), not_run(text)) for text in ("exit", "# c", "")),
        )

    def test_lines_of_a_file(self):
        twice, once = {"out": f"east\n{KEY}", "calls": FETCH * 2}, {"out": KEY, "calls": FETCH}
        rows = [
            ("# realm list\n\n\r\n#\n", {}),
            ("exit", {}),
            ("realm list\r\nkey show", twice),
            ("realm\tlist\n \tkey  show\t\n", twice),
            ("key show\nExIt\nrealm list\n", once),
            ("key show\nQUIT\r\n\nrealm list\n", once),
            ("exit\rx\n", not_run("exit\rx")),
            ("quit \n", not_run("quit")),
            (" # c\nkey show\n", not_run("# c")),
            ("   \nkey show\n", not_run("")),
            # A longer line than 4095 bytes is taken in pieces.
            ("realm list".ljust(4095) + "key show\n", twice),
            ("realm list".ljust(4094) + "\nkey show\n", twice),
            ("#".ljust(4095) + "key show\n", once),
        ]
        self.check_rows(*((["-file", "/dev/stdin"], {**seen, "stdin": text}) for text, seen in rows))
        (self.dir / "cmds").write_text("exit\nkey show\n")
        self.check_rows((["-file", "cmds", *commands("key show")], once))

    def test_at_the_prompt_failures_do_not_end_the_input(self):
        self.check(
            stdin="foo\n# c\n\nkey show\nrealm list\ntrace set x",
            merge=True,
            calls=FETCH[:1] + FETCH,
            script=f"get_cluster_info status=38C54015\n{CLUSTER}",
            out=listing("foo") + line(0x38C54015) + "east\n" + refused("level") + "\n",
        )
        for ending in ("exit", "QUIT\r"):
            self.check(stdin=f"{ending}\nkey show\n", **self.locale("tr_TR", "UTF-8"))

    def test_a_library_may_fail_with_any_status(self):
        statuses = [*MESSAGES, 1, 0x38C50001, 0x38C520FF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF]
        self.check(
            stdin="trace get\n" * len(statuses),
            script="\n".join(f"get_trace_level status={status:X}" for status in statuses),
            calls=GET * len(statuses),
            out="\n",
            err="".join(map(shown_status, statuses)),
        )
        for status, shown in (
            (0x38C52098, line(0x38C52098)),
            (0x38C5319C, line(0x38C5319C, "...")),
            (0x38C5809E, "38C5809E The catalogue has no text for this status.\n"),
        ):
            script = f"get_trace_level status={status:X}"
            self.check(*commands("trace get"), script=script, calls=GET, err=shown, status=status)
            self.check("-file", "/dev/stdin", stdin="trace get\n", script=script, calls=GET, err=shown, status=status)

    def test_a_line_runs_the_one_command_that_fits_or_lists_those_that_come_nearest(self):
        fitting = [
            ("tr s 5", [f"set_trace_level {ANON} 5"], ""),
            ("tr set -5", [f"set_trace_level {ANON} -5"], ""),
            ("r s east", FETCH, "    r1\n"),
            ("rep s l", FETCH, "east:\n    r1\n"),
            ("rea l", FETCH, "east\n"),
            ("rep s l -r east", FETCH, "    r1\n"),
            ("replica set list - east", FETCH, "    r1\n"),
            ("rep set show x", [f"get_replica_set_info {ANON} x"], line(0x38C52135)),
        ]
        nearest = [
            ("foo", PATTERNS),
            ("REALM LIST", PATTERNS),
            ("trace get now", PATTERNS[4:5]),
            ("s t", PATTERNS[:1] + PATTERNS[5:10]),
            ("re", PATTERNS[12:]),
            ("trace set", PATTERNS[3:5]),
            ("login a b c", PATTERNS),
            ("replica set list -realm", PATTERNS[14:]),
            ("replica set list -zone east", PATTERNS),
            ("%s%n", PATTERNS),
        ]
        self.check_rows(
            *((commands(text), {"calls": calls, "out": out}) for text, calls, out in fitting),
            *((commands(text), not_run(text, patterns)) for text, patterns in nearest),
            (commands("re s l"), not_run("re s l", [PATTERNS[12], PATTERNS[15]], 0x38C521E7)),
            (commands("x " * 300), not_run("x " * 128)),
        )

    def test_trace_lines_are_shown_up_to_the_debug_level(self):
        levels = " ".join(f"trace={n}:{n}%0A" for n in range(-1, 5))
        for debug, trace, shown in [
            ("-2", levels, ""),
            ("0", levels, "-1\n0\n"),
            ("2", levels, "-1\n0\n1\n2\n"),
            ("3", levels, "Processing the command: trace get\n-1\n0\n1\n2\n3\n"),
            ("0", "trace=0:50%25%25s%1B[1m%E2%80%AEx%FF", "50%%s\\x1B[1m\\u{202E}x\\xFF"),
            ("0", "trace=0:" + "x" * 5000, "x" * 4095),
        ]:
            self.check(
                *commands("trace get"),
                script=f"get_trace_level {trace}",
                VEXILADMIN_DEBUG=debug,
                calls=GET,
                out=shown + LEVEL,
            )
        self.check(
            *commands("50% %s\n"),
            VEXILADMIN_DEBUG="3",
            status=0x38C52099,
            out="Processing the command: 50% %s\\x0A\n" + listing("50% %s\n"),
        )

    def test_a_line_that_a_read_error_cut_short_is_not_run(self):
        text, reads = "trace get\nkey show\n", "1" * len("trace get\nkey") + "f"
        (self.dir / "cmds").write_text(text)
        no_more = f"{os.strerror(errno.EIO)} ({errno.EIO})"
        for arguments, out, err in (
            ([], LEVEL + "\n", msg(0x38C54055, no_more)),
            (["-file", "cmds"], LEVEL, msg(0x38C54054, "cmds", no_more)),
        ):
            self.check(*arguments, stdin=text, RECORDING_READS=reads, out=out, err=err, calls=GET)
        no_file = f"{os.strerror(errno.EISDIR)} ({errno.EISDIR})"
        self.check("-file", ".", err=msg(0x38C54054, ".", no_file))
        self.check(redirect="</", out="\n", err=msg(0x38C54055, no_file))

    def test_what_is_only_interrupted_or_would_block_is_done_all_the_same(self):
        self.check(
            stdin="realm list\nexit\n",
            script="get_cluster_info " + "realm=east " * 30000,
            RECORDING_READS="ib1" * 20,
            RECORDING_WRITES="i1b" * 20,
            out="east\n" * 30000,
            calls=[FETCH[0], "free kind=2 count=30000 own", FETCH[2]],
        )

    def test_lost_output_is_a_failure_and_a_reader_that_left_is_none(self):
        reader, left = os.pipe()
        os.close(reader)
        lost = {"status": 0x38C54052, "err": line(0x38C54052)}
        for realms in (1, 30000):
            for redirect, seen in ((">/dev/full", lost), (">&-", lost), (f">&{left}", {})):
                self.check(
                    *commands("realm list", "realm list"),
                    script="get_cluster_info " + "realm=east " * realms,
                    redirect=redirect,
                    fds=[left],
                    calls=[FETCH[0], f"free kind=2 count={realms} own", FETCH[2]] * 2,
                    **seen,
                )
        os.close(left)

    def test_nothing_takes_the_place_of_a_closed_stream(self):
        self.check(redirect="<&-", out="\n")
        self.check(
            *commands("set instance blue"), redirect=">&-", whole=True, calls=start() + end() + start(number=2) + end(2)
        )
        for redirect in ("2>&-", "<&- >&- 2>&-"):
            self.check(
                *commands("trace get"),
                redirect=redirect,
                script="get_trace_level status=38C54013",
                calls=GET,
                status=0x13,
            )

    def test_only_the_trace_function_is_exported(self):
        done = subprocess.run(["nm", "-D", "--defined-only", VEXILADMIN], stdout=subprocess.PIPE, check=True, text=True)
        own = [row.split()[1:] for row in done.stdout.splitlines() if "@" not in row and " __" not in row]
        self.assertEqual(own, [["T", "olmdsess_admin_client_trace"]])
