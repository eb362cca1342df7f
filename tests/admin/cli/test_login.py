"""login: the identity of later commands, and the password from a pipe or a file."""

import re

from vexil import Case, commands, end, line, msg, start

PROMPT, UNKNOWN = msg(0x38C52145) + "\n", line(0x38C52136)
LOGIN_ID = r"((?!\S*AAAAAAAA)[A-Za-z0-9+/]{86}==)[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"


def fetch(identity, handle="handle1"):
    return [f"get_cluster_info {handle} sec={identity}", "free kind=2 count=0 own", "free kind=5 count=1 own"]


class Login(Case):
    def run_utility(self, *arguments, **kwargs):
        """Gives the login identifiers names in order of their appearance: id1, id2, ..."""
        result, names = super().run_utility(*arguments, **kwargs), {}
        named = lambda text: re.sub(LOGIN_ID, lambda found: names.setdefault(found[1], f"id{len(names) + 1}"), text)
        return result._replace(out=named(result.out), calls=[named(call) for call in result.calls])

    def test_an_identity_stays_until_the_next_login_and_is_new_each_time(self):
        show, bob = "realm show x", fetch("bob,id1,secret")
        green = fetch("bob,id1,secret", "handle2") + fetch("bob,id2,50%s", "handle2") * 2
        self.check(
            *commands(show, "login bob secret", "set instance green", show, "l bob 50%s", show),
            whole=True,
            out=UNKNOWN * 3,
            calls=[*start(), *fetch("anonymous,~,~"), *bob, *end(), *start("green", 2), *green, *end(2)],
        )

    def test_a_refused_identity_stays_in_force(self):
        self.check(
            stdin="login bob right\nlogin bob wrong\nrealm show x\n",
            script="get_cluster_info\nget_cluster_info status=38C54015\nget_cluster_info",
            redirect="2>&1",
            out=f"{line(0x38C54015)}{UNKNOWN}\n",
            calls=fetch("bob,id1,right") + fetch("bob,id2,wrong")[:1] + fetch("bob,id2,wrong"),
        )

    def test_the_prompt_takes_one_line_and_leaves_the_next(self):
        for typed in ("", "two words\t", "cr\r", "grün %s%n", "exit", "x" * 1023 + "y" * 5000):
            self.check(
                stdin=f"login bob\n{typed}\nrealm show x\n",
                out=f"{PROMPT}{UNKNOWN}\n",
                calls=fetch(f"bob,id1,{typed[:1023]}") * 2,
            )
        both = {"out": PROMPT + UNKNOWN + PROMPT, "calls": fetch("bob,id1,one") * 2 + fetch("eve,id2,two")}
        (self.dir / "cmds").write_text("login bob\nrealm show x\nlogin eve\n")
        self.check("-file", "cmds", stdin="one\ntwo\n", **both)
        self.check("-file", "/dev/stdin", stdin="login bob\none\nrealm show x\nlogin eve\ntwo", **both)

    def test_input_that_ends_at_the_prompt_is_no_password(self):
        for redirect in ("</dev/null", "<&-", "</"):
            self.check(*commands("login bob"), redirect=redirect, out=PROMPT, err=line(0x38C5209D), status=0x38C5209D)

    def test_the_trace_shows_the_identity_from_level_3_on(self):
        shown = "Processing the command: login bob %s\nTarnAdminLogin (bob: %s) - id1\n"
        for level, out in (("2", ""), ("3", shown)):
            self.check(*commands("login bob %s"), VEXILADMIN_DEBUG=level, out=out, calls=fetch("bob,id1,%s"))
