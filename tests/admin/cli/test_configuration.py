"""The configuration file, the debug level, and the instances that come from them."""

import errno

from vexil import ANON, CONFIG, Case, commands, end, error, line, msg, start

SSL_ENTRIES = "ssl-keyfile = /k.p12\nssl-keyfile-stash = /k.sth\n"
SSL = CONFIG + SSL_ENTRIES
MISSING, NOT_A_NUMBER = (0x38C5209E, "client", 0x38C5209F, "tarn", "PATH"), 0x38C520A0
UNKNOWN = line(0x38C52147, "nowhere") + line(0x38C531C5)


def conf(location="node1:9080", instances="blue,green", timeout="5", more=""):
    return f"[tarn]\nlocation = {location}\ninstances = {instances}\ntimeout = {timeout}\n{more}"


def urls(*locations, scheme="http"):
    return {"urls": ",".join(f"{scheme}://{location}/blue/services/DSessAdminProxy" for location in locations)}


def ssl(dns="", keyfile="/k.p12", label="~", fips=0):
    return {
        **urls("node1:9080", scheme="https"),
        "ssl": f"dns=[{dns}] keyfile={keyfile} stash=/k.sth label={label} fips={fips}",
    }


class Configuration(Case):
    def accepts(self, _name, config, expected):
        self.check("-interactive", "N", config=config, calls=start(**expected) + end(), whole=True)

    def rejects(self, _name, config, status, speaker, *message, **env):
        text = msg(*message).replace("PATH", str(self.dir / "vexilclicfg.conf")).rstrip("\n")
        self.check("-help", config=config, status=status, log=[(speaker, text)], whole=True, **env)

    def test_what_the_entries_say_reaches_the_library(self):
        fips = [*((text, 1) for text in ("Yes", "true")), *((text, 0) for text in ("No", "off"))]
        all_of_ssl = "server-dns = /CN=a,, /CN=b\nserver-dns = /CN=c\nssl-keyfile-label = my key\n"
        self.check_table(
            [
                ("joined", conf("a,", ",blue,", more="location = b\n"), urls("a", "b")),
                ("blanks are no separators", conf("a,, b"), urls("a", " b")),
                ("an empty occurrence", "[tarn]\nlocation\ntimeout =\n" + conf("a", more="location =\n"), urls("a")),
                ("other bytes", conf("[::1]:9", "grün"), {"urls": "http://[::1]:9/grün/services/DSessAdminProxy"}),
                ("names are exact", CONFIG + "Location = x\ntimeouts = x\nssl-keyfiles = x\n", {}),
                ("no timeout", conf(timeout="0"), {"timeout": 0}),
                ("an empty SSL entry", CONFIG + "server-dns =\nssl-fips-enabled\n", {}),
                ("all of SSL", SSL + all_of_ssl, ssl("/CN=a, /CN=b,/CN=c", label="my key")),
                ("two key files are one odd path", SSL + "ssl-keyfile = b\n", ssl(keyfile="/k.p12,b")),
                *((text, SSL + f"ssl-fips-enabled = {text}\n", ssl(fips=value)) for text, value in fips),
            ],
            self.accepts,
        )

    def test_ssl_entries_that_do_not_secure_anything_are_told_once_a_run_and_never_among_results(self):
        path = str(self.dir / "vexilclicfg.conf")
        self.accepts("", CONFIG + "ssl-fips-enabled = no\n", {})
        terminal = self.terminal("-interactive", "N", prompt=None, config=CONFIG + "server-dns = a\n")
        self.assertEqual(terminal.ended(), (0, msg(0x38C54047, path).replace("\n", "\r\n")))
        for more, message, insert, expected in [
            ("ssl-keyfile =\n", 0x38C54047, path, {}),
            ("server-dns = a\n", 0x38C54047, path, {}),
            ("ssl-fips-enabled = y\n", 0x38C54047, path, {}),
            *((SSL_ENTRIES + f"ssl-fips-enabled = {text}\n", 0x38C54048, text, ssl()) for text in ("on", ",y")),
        ]:
            text = msg(message, insert)
            self.check(
                *commands("set instance blue"),
                config=CONFIG + more,
                log=[("client", text.rstrip("\n"))],
                whole=True,
                calls=start(**expected) + end() + start(number=2, **expected) + end(2),
            )

    def test_the_first_wrong_entry_ends_the_start_and_only_the_service_log_says_why(self):
        bad_timeouts = [(conf(timeout="-5"), "-5"), (conf(more="timeout ="), "5,")]
        self.check_table(
            [
                ("no file", None, 0x38C54041, "deployment", 0x38C54042, "PATH", error(errno.ENOENT)),
                ("no stanza", "[other]\nlocation = a\n", *MISSING, "location"),
                ("no location before no number", conf("", timeout="x"), *MISSING, "location"),
                ("no instances before no number", conf(instances="", timeout="x"), *MISSING, "instances"),
                ("no timeout before no stash", conf(timeout="", more="ssl-keyfile = a\n"), *MISSING, "timeout"),
                ("no stash", CONFIG + "ssl-keyfile = a\nssl-keyfile-stash =\n", *MISSING, "ssl-keyfile-stash"),
                *(
                    (text, config, NOT_A_NUMBER, "deployment", 0x38C532BE, text, "timeout", "timeout")
                    for config, text in bad_timeouts
                ),
                ("malformed", "[tarn\n", 0x38C54045, "deployment", 0x38C54046, "PATH", 1, "a stanza name ends in ]"),
            ],
            self.rejects,
        )

    def test_the_debug_level_is_a_number_and_is_read_after_the_configuration(self):
        for value in ("", "%s%n"):
            shown = msg(0x38C532BE, value, "VEXILADMIN_DEBUG", "VEXILADMIN_DEBUG")
            self.check("-help", VEXILADMIN_DEBUG=value, status=NOT_A_NUMBER, whole=True, err=shown)
        self.rejects("", "", *MISSING, "location", VEXILADMIN_DEBUG="x")


class Instances(Case):
    def test_they_are_listed_in_bucket_order_and_the_latest_first_within_a_bucket(self):
        listing = "\n".join(["blue", "blue", "rose", "red", "grün", "black", "coral", "green", "violet", ""])
        self.check(
            stdin="instances list\nset instance nowhere\nset instance blue\ni l\n",
            redirect="2>&1",
            whole=True,
            config=conf(instances="red,blue,violet,green,rose,coral,blue,black,grün"),
            calls=start("red") + end() + start("blue", 2) + end(2),
            out=listing + UNKNOWN + listing + "\n",
        )

    def test_a_selection_lets_go_of_the_former_one_first(self):
        fetch, green = "get_cluster_info " + ANON.replace("handle1", "~"), start("green", 2) + end(2)
        self.check(
            stdin="set instance nowhere\nrealm list\nset instance green\nset instance green",
            whole=True,
            out="\n",
            script="get_cluster_info status=38C5401B",
            err=UNKNOWN + line(0x38C5401B),
            calls=start() + end() + [fetch] + green + start("green", 3) + end(3),
        )
        nowhere = commands("set instance nowhere", "realm list")
        self.check(*nowhere, status=0x38C531C5, err=UNKNOWN, calls=start() + end(), whole=True)
        self.check("-help", config=conf(instances=","), status=0x38C531C5, err=msg(0x38C52147, ""), whole=True)

    def test_what_a_failed_selection_left_is_let_go_of_later(self):
        for script, made in [
            ("initialize status=38C5401D", []),
            ("initialize status=38C5401D made=1", end()[1:]),
            ("create_handle status=38C5401D", start()[1:] + end()[1:]),
            ("create_handle status=38C5401D made=1", start()[1:] + end()[1:]),
        ]:
            self.check("-help", script=script, status=0x1D, calls=start()[:1] + made, whole=True)
        for count, operation in ((1, "initialize"), (2, "create_handle")):
            self.check(
                stdin="set instance green\nset instance blue\n",
                script=f"{operation}\n{operation} status=38C5401D made=1\n{operation}",
                out="\n",
                err=line(0x38C5401D),
                calls=start() + end() + start("green", 2)[:count] + end(2)[1:] + start("blue", 3) + end(3),
                whole=True,
            )

    def test_who_sits_at_a_terminal_is_told_what_the_log_is_told(self):
        terminal = self.terminal(prompt=None, config=None, QEL_SVC_LOG="", XDG_STATE_HOME=str(self.dir))
        missing = msg(0x38C54042, self.dir / "vexilclicfg.conf", error(errno.ENOENT))
        self.assertEqual(terminal.ended(), (65, missing.replace("\n", "\r\n")))
        terminal = self.terminal(prompt=None, config=None, QEL_SVC_LOG="/dev/stderr")
        self.assertEqual(terminal.ended()[1].count(missing.strip()), 1)
