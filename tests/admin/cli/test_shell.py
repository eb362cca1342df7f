"""Options, lines, files, tracing, and how a line finds its command."""

import errno
import fcntl
import os
import re
import resource
import socket
import subprocess

from terminal import PROMPT
from vexil import ANON, CONFIG, PATTERNS, VERSION, Case, commands, end, error, line, msg, refused, start


CLUSTER = "get_cluster_info realm=east,r1 label=k"
FETCH = [f"get_cluster_info {ANON}", "free kind=2 count=1 own", "free kind=5 count=1 own"]
KEY, LEVEL = line(0x38C52142, "k", "1970-01-01-00:00:00 UTC"), line(0x38C5213A, 0)
GET = [f"get_trace_level {ANON}"]
REALMS = commands("realm list")
KEY_SHOWN, EAST = {"out": KEY, "calls": FETCH}, {"out": "east\n", "calls": FETCH}


def listing(text, patterns=PATTERNS, why=0x38C521E8):
    words = "".join(word + " " for word in re.split("[ \t\n]+", text) if word)
    return f"{msg(0x38C521E5)} {words}\n{line(why)}" + "".join(f"    {pattern}\n" for pattern in patterns)


def named(beginning):
    return [pattern for pattern in PATTERNS if pattern.startswith(beginning)]


def not_run(text, *patterns_and_why):
    return {"out": listing(text, *patterns_and_why), "status": 0x38C52099}


class Shell(Case):
    def check_rows(self, *rows):
        """Rows of arguments and what is seen for them."""
        self.check_table(rows, lambda arguments, seen: self.check(*arguments, script=CLUSTER, **seen))

    def test_options_are_carried_out_in_order_up_to_the_first_failure(self):
        (self.dir / "good").write_text("key show\n")
        (self.dir / "bad").write_text("trace set x\nrealm list\n")
        usage = msg(0x38C5321F, "vexiladmin")
        maybe = {"err": line(0x38C5213E, "interactive"), "status": 0x38C52146}
        opened = ("", "-command", "-file", "-", "realm list", "-interactive yonder")
        no_file = {"err": msg(0x38C520A2, "nowhere", error(errno.ENOENT)), "status": 0x38C520A8}
        all_run = {"out": f"east\n{KEY}{LEVEL}{KEY}", "calls": FETCH * 2 + GET + FETCH}
        shown = line(0x38C5319C, "%n%s\\x1B\\u{202E}\\xFF") + line(0x38C5319C, "-help")
        unknown = {"status": 0x38C531C5, "out": usage + shown}
        self.check_rows(
            *((text.split(), {"stdin": "realm list", "out": "east\n\n", "calls": FETCH}) for text in opened),
            *((["-interactive", *value], {"stdin": "realm list", **maybe}) for value in (["maybe"], [""], [])),
            (REALMS, {"stdin": "key show", **EAST}),
            ([*REALMS, "-interactive", "Y"], {"stdin": "key show", "out": f"east\n{KEY}\n", "calls": FETCH * 2}),
            ([*REALMS, "-file", "good", *commands("trace get"), "-file", "good"], all_run),
            (["-file", "bad", "-file", "good"], refused("level")),
            ("-command -interactive N -file -interactive Y".split(), {"stdin": "realm list"}),
            (["-file", "nowhere", "-file", "good"], no_file),
            (["-bogus", "-help", *REALMS], {"out": usage + msg(0x38C53220, VERSION)}),
            (["--help", *["-%n%s\x1b\u202e\udcff", "realm list"] * 2], unknown),
            *((commands(text), not_run(text)) for text in ("exit", "# c")),
        )

    def test_lines_of_a_file(self):
        twice = {"out": f"east\n{KEY}", "calls": FETCH * 2}
        rows = [
            ("# realm list\n\n\r\n#\nexit", {}),
            ("realm list\r\nkey show", twice),
            ("realm\tlist\n \tkey  show\t\n", twice),
            ("key show\nExIt\nrealm list\n", KEY_SHOWN),
            ("key show\nQUIT\r\n\nrealm list\n", KEY_SHOWN),
            (" # c\nkey show\n", not_run("# c")),
            # A longer line than 4095 bytes is taken in pieces.
            ("realm list".ljust(4095) + "key show\n", twice),
            ("#".ljust(4095) + "key show\n", KEY_SHOWN),
        ]
        self.check_rows(*((["-file", "/dev/stdin"], {**seen, "stdin": text}) for text, seen in rows))
        (self.dir / "cmds").write_text("exit\nkey show\n")
        self.check_rows((["-file", "cmds", *commands("key show")], KEY_SHOWN))

    def test_at_the_prompt_failures_do_not_end_the_input(self):
        self.check(
            stdin="foo\n# c\n\nkey show\nrealm list\ns l -r e * x",
            redirect="2>&1",
            calls=FETCH[:1] + FETCH,
            script=f"get_cluster_info status=38C54015\n{CLUSTER}",
            out=listing("foo") + line(0x38C54015) + "east\n" + refused("max")["err"] + "\n",
        )
        self.check(stdin="QUIT\r\nkey show\n")

    def test_a_library_may_fail_with_any_status(self):
        end_of_input = {"script": "get_trace_level status=38C52098", "calls": GET, "err": line(0x38C52098)}
        self.check("-file", "/dev/stdin", stdin="trace get\ntrace get\n", **end_of_input)
        self.check(stdin="trace get\ntrace get\n", **end_of_input)
        unknown = {"script": "get_trace_level status=38C5809E", "calls": GET, "status": 0x38C5809E}
        self.check(*commands("trace get"), err=f"38C5809E {msg(0x38C54053)}\n", **unknown)

    def test_a_failure_points_to_its_cause_where_that_is_the_line_before(self):
        failed, cause = {"calls": GET, "status": 0x38C54011}, "get_trace_level status=38C54011 trace=0,why%0A"
        told, pointed = line(0x38C54011), f"{msg(0x38C54011)} {msg(0x38C54058)}\n"
        self.check(*commands("trace get"), script=cause, out="why\n", err=told, **failed)
        self.check(*commands("trace get"), script=cause, redirect="2>&1", out="why\n" + pointed, **failed)
        twice = {
            "calls": GET * 2,
            "script": f"{cause}\nget_trace_level status=38C54011",
            "out": "why\n" + pointed + told + "\n",
        }
        self.check(stdin="trace get\ntrace get\n", redirect="2>&1", **twice)
        for other in (cause.replace("trace=0", "trace=1"), cause + " trace=3,more%0A"):
            result = self.run_utility(*commands("trace get"), script=other, redirect="2>&1", VEXILADMIN_DEBUG="3")
            self.assertTrue(result.out.endswith("\n" + told), result.out)

    def test_a_line_runs_the_one_command_that_fits_or_lists_those_that_come_nearest(self):
        fitting = [
            ("tr s 5", [f"set_trace_level {ANON} 5"], ""),
            ("r s east", FETCH, "    r1\n"),
            ("rea l", FETCH, "east\n"),
            ("replica set list - east", FETCH, "    r1\n"),
            ("rep set show x", [f"get_replica_set_info {ANON} x"], line(0x38C52135)),
        ]
        nearest = [
            *((text, PATTERNS) for text in ("REALM LIST", "replica set list -zone east", "%s%n")),
            ("trace get now", named("trace set")),
            ("s t", named("s")),
            ("re", named("re")),
            ("trace set", named("trace")),
            ("replica set list -realm", named("replica")),
        ]
        self.check_rows(
            *((commands(text), {"calls": calls, "out": out}) for text, calls, out in fitting),
            *((commands(text), not_run(text, patterns)) for text, patterns in nearest),
            (commands("re s l"), not_run("re s l", named("realm show") + named("replica set list"), 0x38C521E7)),
            (commands("x " * 300), not_run("x " * 128)),
            (commands("x\x1b[31m"), not_run("x\\x1B[31m")),
        )

    def test_tab_completes_the_line_at_the_cursor_and_asks_no_server(self):
        config = CONFIG.replace("blue,", "blue,b\x1b[2J,b c,c d,nü東,näuxy,a\x1b,")
        (self.dir / "editrc").write_text("bind ^H ed-delete-prev-word\n")
        script = f"get_cluster_info realm=elder\n{CLUSTER}"
        prompt = self.terminal(config=config, script=script, TERM="vt100", EDITRC=str(self.dir / "editrc"))
        for typed, row in [
            ("", PATTERNS[-1]),
            ("re", "realm    replica"),
            ("r s ", "show          list          <realm-name>"),
            ("login bob ", "[password]"),
            ("rep s list ", "[-realm <realm>]"),
            ("rep s list -r ", "<realm>"),
            ("set i b", "blue      b c       b\\x1B[2J"),
            ("set i n", "nü東   näuxy"),
            ("set i a", "a\\x1B"),
            ("set i c", "c d"),
            ("set i n\x01re s", "show  set"),
            ("realm show ", "<realm-name>"),
        ]:
            prompt.type("\x05\x15" + typed + "\t")
            prompt.until(lambda: f"\n    {row}\r\n" in prompt.shown, repr(row))
            prompt.asks()
        for typed, shown in [
            (" tr xyz\x08\x7f", " trace "),
            ("trace", "trace "),
            ("rep s list -", " -realm "),
            ("set i bl", " blue "),
        ]:
            prompt.type("\x05\x15" + typed + "\t")
            prompt.until(lambda: shown in prompt.shown, repr(shown))
        prompt.type("\x05\x15realm show x \t")
        prompt.until(lambda: "\a" in prompt.shown, "bell")
        prompt.type("\x02")
        prompt.shown = ""
        prompt.type("\x1a")
        prompt.stop()
        self.assertTrue(prompt.restored())
        prompt.foreground()
        prompt.asks("vexiladmin> realm show x")
        os.write(prompt.master, b"\x05\x15\xc3tr\ts\t5\n")  # of a broken character the rest counts
        prompt.asks()
        for typed, out in [
            ("rea l", "elder\n"),
            ("rea l", "east\n"),
            ("realm s e\t", "    r1\n"),
            ("rep s s r\t", line(0x38C52135)),
        ]:
            self.assertEqual(prompt.answer(typed), out)
        prompt.type("exit\n")
        self.assertEqual((prompt.ended()[0], prompt.restored()), (0, True))
        self.assertEqual(
            self.recorded("calls"),
            [*start(), f"set_trace_level {ANON} 5", *FETCH * 3, f"get_replica_set_info {ANON} r1", *end()],
        )
        (self.dir / "editrc").write_text("edit off\n")
        prompt = self.terminal(prompt=None, EDITRC=str(self.dir / "editrc"))
        prompt.until(lambda: prompt.shown == PROMPT, "prompt")

    def test_the_completion_of_shells_knows_every_command_and_its_abbreviations(self):
        script = ". $0; compopt() { :; }; COMP_CWORD=1 COMP_WORDS=('' \"$2$1\"); "
        script += '_vexiladmin - "$1" -command; printf "%s|" "${COMPREPLY[@]}"'
        for typed, quote, seen in [
            ("ins", "", '"instances list"|'),
            ("r s", "'", "r show <realm-name>|r set list [-realm <realm>]|r set show <replica-set-name>|"),
            ("rep s l -", '"', "rep s l -realm <realm>|rep s l -realm |"),
            ("session list -r * x", '"', "session list -r * x <max>|session list -r * x |"),
            ("session list -r a[b x<", '"', "session list -r a[b x< <max>|session list -r a[b x< |"),
            ("realm show a[<b", "", '"realm show a[<b"|'),
        ]:
            arguments = ["bash", "-c", script, os.environ["COMPLETION"], typed, quote]
            process = subprocess.run(arguments, capture_output=True, text=True, check=True)
            self.assertEqual(process.stdout, seen, typed)

    def test_trace_lines_are_shown_up_to_the_debug_level(self):
        levels, asked = " ".join(f"trace={n},{n}%0A" for n in range(-1, 5)), "Processing the command: "
        for debug, trace, shown in [
            ("-2", levels, ""),
            ("0", levels, "-1\n0\n"),
            ("3", levels, asked + "trace get\n-1\n0\n1\n2\n3\n"),
            ("0", "trace=0,50%25%25s%1B[1m%E2%80%AEx%FF", "50%%s\\x1B[1m\\u{202E}x\\xFF"),
            ("0", "trace=0," + "x" * 5000, "x" * 4095),
        ]:
            script = f"get_trace_level {trace}"
            self.check(*commands("trace get"), script=script, VEXILADMIN_DEBUG=debug, calls=GET, out=shown + LEVEL)
        seen = {"out": asked + "50% %s\\x0A\n" + listing("50% %s\n"), "status": 0x38C52099}
        self.check(*commands("50% %s\n"), VEXILADMIN_DEBUG="3", **seen)

    def test_a_line_that_a_read_error_cut_short_is_not_run(self):
        for text, seen in [
            (b"trace get\nkey", {"out": LEVEL + "\n", "err": msg(0x38C54055, error(errno.ECONNRESET)), "calls": GET}),
            (b"login bob\npass", {"out": msg(0x38C52145) + "\n\n", "err": line(0x38C5209D)}),
        ]:
            ours, theirs = socket.socketpair()
            theirs.send(b"what is left unread makes a close a reset")
            ours.send(text)
            ours.close()
            with theirs:
                self.check(streams={"stdin": theirs, "capture_output": True}, **seen)
        self.check("-file", ".", err=msg(0x38C54054, ".", error(errno.EISDIR)))
        self.check(redirect="</", out="\n", err=msg(0x38C54055, error(errno.EISDIR)))

    def test_streams_that_would_block_are_waited_for(self):
        def narrow():
            fcntl.fcntl(1, fcntl.F_SETPIPE_SZ, 4096)
            os.set_blocking(1, False)

        self.check(
            *REALMS,
            streams={"capture_output": True, "preexec_fn": narrow},
            script="get_cluster_info " + "realm=east " * 30000,
            out="east\n" * 30000,
            calls=[FETCH[0], "free kind=2 count=30000 own", FETCH[2]],
        )

    def test_lost_output_is_a_failure_and_a_reader_that_left_is_none(self):
        reader, left = os.pipe()
        os.close(reader)
        lost = {"status": 0x38C54052, "err": line(0x38C54052)}
        for realms in (1, 30000):
            seen = {
                "script": "get_cluster_info " + "realm=east " * realms,
                "calls": [FETCH[0], f"free kind=2 count={realms} own", FETCH[2]] * 2,
            }
            self.check(*REALMS * 2, redirect=">/dev/full", **lost, **seen)
            self.check(*REALMS * 2, redirect=">&-", **lost, **seen)
            self.check(*REALMS * 2, streams={"stdout": left, "stderr": subprocess.PIPE}, **seen)
        os.close(left)
        with open(self.dir / "out", "wb") as full:
            limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))
            streams = {"stdout": full, "stderr": subprocess.PIPE, "preexec_fn": limit}
            self.check(*REALMS, streams=streams, script=CLUSTER, whole=True, **lost)

    def test_nothing_takes_the_place_of_a_closed_stream(self):
        self.check(redirect="<&-", out="\n")
        for number, name in enumerate(("/dev/stdin", "/dev/stdout")):
            told = {"err": msg(0x38C520A2, name, error(errno.ELOOP)), "status": 0x38C520A8}
            self.check("-file", name, redirect=f"{number}>&-", **told)
        calls = start() + end() + start(number=2) + end(2)
        self.check(*commands("set instance blue"), redirect=">&-", calls=calls, whole=True)
        failed = {"script": "get_trace_level status=38C54013", "calls": GET, "status": 0x13}
        for redirect in ("2>&-", "<&- >&- 2>&-"):
            self.check(*commands("trace get"), redirect=redirect, **failed)
