"""The configuration file, the debug level, and the instances that come from them."""

import errno
import os

from vexil import CONFIG, Case, commands, end, line, msg, start

SSL = CONFIG + "ssl-keyfile = /k.p12\nssl-keyfile-stash = /k.sth\n"
MISSING = 0x38C5209E, "client", 0x38C5209F, "tarn", "PATH"
UNKNOWN = line(0x38C52147, "nowhere") + line(0x38C531C5)


def conf(location="node1:9080", instances="blue,green", timeout="5", more=""):
    return f"[tarn]\nlocation = {location}\ninstances = {instances}\ntimeout = {timeout}\n{more}"


def urls(*locations, scheme="http"):
    return {"urls": [f"{scheme}://{location}/blue/services/DSessAdminProxy" for location in locations]}


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
        self.check_table(
            [
                ("as it stands", CONFIG, {}),
                ("entries are joined", conf("a", "blue", more="location = b\n"), urls("a", "b")),
                ("empty pieces", conf(",a,,b,", ",blue,"), urls("a", "b")),
                ("blanks are no separators", conf("a, b"), urls("a", " b")),
                ("an empty occurrence", "[tarn]\nlocation\ntimeout =\n" + conf("a", more="location =\n"), urls("a")),
                ("no piece at all", conf(","), {"urls": [""]}),
                ("other bytes", conf("[::1]:9", "grün"), {"urls": ["http://[::1]:9/grün/services/DSessAdminProxy"]}),
                ("names are exact", CONFIG + "Location = x\ntimeouts = x\nssl-keyfiles = x\n", {}),
                *(
                    (f"timeout {text}", conf(timeout=text), {"timeout": int(text)})
                    for text in ("0", "+7", "2147483647")
                ),
                ("an empty SSL entry", CONFIG + "server-dns =\nssl-fips-enabled\n", {}),
                ("SSL", SSL, ssl()),
                (
                    "all of SSL",
                    SSL + "server-dns = /CN=a,, /CN=b\nserver-dns = /CN=c\nssl-keyfile-label = my key\n",
                    ssl("/CN=a, /CN=b,/CN=c", label="my key"),
                ),
                ("two key files are one odd path", SSL + "ssl-keyfile = b\n", ssl(keyfile="/k.p12,b")),
                *(
                    (f"fips {text}", SSL + f"ssl-fips-enabled = {text}\n", ssl(fips=fips))
                    for text, fips in (("Yes", 1), ("y", 1), ("true", 1), ("No", 0), ("false", 0), ("off", 0))
                ),
            ],
            self.accepts,
        )

    def test_ssl_entries_that_do_not_secure_anything_are_told_once_a_run(self):
        path = str(self.dir / "vexilclicfg.conf")
        for more, message, insert, expected in [
            *(
                (more, 0x38C54047, path, {})
                for more in ("ssl-keyfile =\n", "server-dns = a\n", "ssl-fips-enabled = y\n")
            ),
            *(
                (f"{SSL[len(CONFIG):]}ssl-fips-enabled = {text}\n", 0x38C54048, text, ssl())
                for text in ("on", "1", ",y")
            ),
        ]:
            text = msg(message, insert)
            self.check(
                *commands("set instance blue"),
                config=CONFIG + more,
                out=text,
                log=[("client", text.rstrip("\n"))],
                whole=True,
                calls=start(**expected) + end() + start(number=2, **expected) + end(2),
            )

    def test_the_first_wrong_entry_ends_the_start_and_only_the_service_log_says_why(self):
        no_such_file = f"{os.strerror(errno.ENOENT)} ({errno.ENOENT})"
        bad_timeouts = [(conf(timeout=text), text) for text in ("-5", "5s", "2147483648")]
        bad_timeouts += [(conf(more="timeout = 6"), "5,6"), (conf(more="timeout ="), "5,")]
        self.check_table(
            [
                ("no file", None, 0x38C54041, "deployment", 0x38C54042, "PATH", no_such_file),
                ("no stanza", "[other]\nlocation = a\n", *MISSING, "location"),
                ("no location before no number", conf("", timeout="x"), *MISSING, "location"),
                ("no instances before no number", conf(instances="", timeout="x"), *MISSING, "instances"),
                ("no timeout before no stash", conf(timeout="", more="ssl-keyfile = a\n"), *MISSING, "timeout"),
                ("no stash", CONFIG + "ssl-keyfile = a\nssl-keyfile-stash =\n", *MISSING, "ssl-keyfile-stash"),
                *(
                    (f"timeout {text}", config, 0x38C520A0, "deployment", 0x38C532BE, text, "timeout", "timeout")
                    for config, text in bad_timeouts
                ),
                ("malformed", "[tarn\n", 0x38C54045, "deployment", 0x38C54046, "PATH", 1, "a stanza name ends in ]"),
            ],
            self.rejects,
        )

    def test_the_debug_level_is_a_number_and_is_read_after_the_configuration(self):
        for value in ("abc", "", "3x", "2147483648", "%s%n"):
            self.check(
                "-help",
                VEXILADMIN_DEBUG=value,
                status=0x38C520A0,
                whole=True,
                err=msg(0x38C532BE, value, "VEXILADMIN_DEBUG", "VEXILADMIN_DEBUG"),
            )
        self.rejects("", "", *MISSING, "location", VEXILADMIN_DEBUG="x")


class Instances(Case):
    def test_they_are_listed_in_bucket_order_and_the_latest_first_within_a_bucket(self):
        listing = "\n".join(["blue", "blue", "rose", "red", "grün", "black", "coral", "green", ""])
        self.check(
            stdin="instances list\nset instance nowhere\nset instance blue\ni l\n",
            merge=True,
            whole=True,
            config=conf(instances="red,blue,green,rose,coral,blue,black,grün"),
            calls=start("red") + end() + start("blue", 2) + end(2),
            out=listing + UNKNOWN + listing + "\n",
        )

    def test_a_selection_lets_go_of_the_former_one_first(self):
        self.check(
            *commands("set instance green", "set instance green", "set instance blue"),
            whole=True,
            calls=[
                call
                for number, name in enumerate(("blue", "green", "green", "blue"), 1)
                for call in start(name, number) + end(number)
            ],
        )
        self.check(
            stdin="set instance nowhere\nrealm list\nset instance green\n",
            whole=True,
            out="\n",
            script="get_cluster_info status=38C5401B",
            err=UNKNOWN + line(0x38C5401B),
            calls=start() + end() + ["get_cluster_info ~ sec=anonymous,~,~,~"] + start("green", 2) + end(2),
        )
        self.check(
            *commands("set instance nowhere", "realm list"),
            status=0x38C531C5,
            whole=True,
            calls=start() + end(),
            err=UNKNOWN,
        )
        self.check("-help", config=conf(instances=","), status=0x38C531C5, err=msg(0x38C52147, ""), whole=True)

    def test_what_a_failed_selection_left_is_let_go_of_later(self):
        self.check_table(
            [
                ("no context", "initialize status=38C5401D", 0x1D, start()[:1]),
                ("a context all the same", "initialize status=38C5401D context=1", 0x1D, start()[:1] + end()[1:]),
                ("no handle", "create_handle status=38C5401B", 0x1B, start() + end()[1:]),
                ("a handle all the same", "create_handle status=38C5401B handle=1", 0x1B, start() + end()[1:]),
            ],
            lambda _, script, status, calls: self.check("-help", script=script, status=status, calls=calls, whole=True),
        )
        for made, fail in (
            (1, "initialize status=0\ninitialize status=38C5401D context=1\ninitialize"),
            (2, "create_handle\ncreate_handle status=38C5401D handle=1\ncreate_handle"),
        ):
            calls = start() + end() + start("green", 2)[:made] + end(2)[1:] + start("blue", 3) + end(3)
            self.check(
                stdin="set instance green\nset instance blue\n",
                script=fail,
                out="\n",
                err=line(0x38C5401D),
                calls=calls,
                whole=True,
            )
