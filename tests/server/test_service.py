"""What dsessd answers, to whom, and what it logs: the whole protocol over one connection."""

import json
import re
import sqlite3
import time
import unittest

from dsessd import AS_ROOT, ROOT, Dsessd


def session(name, user, seconds):
    return {"id": name, "user": user, "time": seconds}


S1, S2, S3, S4 = (
    session(*row) for row in [("s1", "josé", 10), *((f"s{n}", "mallory", t) for n, t in zip("234", (20, 30, 20)))]
)
WEB = [{"name": "web-2", "time": 11}, {"name": "web-1", "time": 12}]
SETS = [{"name": "web", "members": WEB}, {"name": "db"}]
CLUSTER = {
    "keys": [{"label": "old", "time": 100}, {"label": "new", "time": 200}],
    "realms": [{"name": "empty"}, {"name": "east", "replicaSets": SETS, "sessions": [S3, S2, S4, S1]}],
}
KEY = {"label": "new", "time": 200, "previousTime": 100}
EAST, BY_ID = {"realm": "east", "selector": "user"}, {"realm": "east", "selector": "session"}
AUDITOR = {"user": "auditor", "password": "LOOK", "login_id": "qk=2"}
WRONG = {"user": "root", "password": "GUESS", "login_id": "qk=3"}
READS = ["cluster.get", "replicaSet.get", "session.list", "trace.get"]
CHANGES = ["session.refresh", "session.terminate", "key.change", "trace.set"]
USERS = "mallory Mallory mallory2 ł 李伟 josé jos наталья a[b]c abc m [^x] [ ] [[] 100% 1000 a_c a\\b ' " + "a" * 30
PATTERNS = (
    r"mal*=mallory mallory2;*lory=Mallory mallory;m*l*y=mallory;m*x*y=;?=' [ ] m ł;??=李伟;jos?=josé;ната*=наталья;=;"
    r"a[b]c=a[b]c;[a-z]=;[^x]=[^x];[=[;]=];[[]=[[];*[*=[ [[] [^x] a[b]c;100%=100%;a_c=a_c;a\*=a\b;'=';mallory=mallory;"
    r"**m**=m mallory mallory2;*a*a*a*a*a*a*a*b="
)


class Service(unittest.TestCase):
    maxDiff = None

    def serve(self, cluster=CLUSTER, anonymous="read"):
        server = self.enterContext(Dsessd(cluster, ROOT + [("auditor", "LOOK", "read")], anonymous=anonymous))
        connection = server.connect()
        self.addCleanup(connection.close)
        self.call = lambda method, **fields: server.call(method, connection=connection, **fields)
        return server

    def result(self, method, **parameters):
        return self.call(method, **AS_ROOT, **parameters)["result"]

    def outcome(self, method, **fields):
        answer = self.call(method, **fields)
        return "done" if "result" in answer else answer["error"]["data"]["name"]

    def ids(self, pattern, most=-1, query=EAST):
        """What session.list gives: how many match, and which are listed in what order."""
        answer = self.result("session.list", **query, value=pattern, max=most)
        self.assertEqual(answer["count"], len(answer["sessions"]))
        return answer["total"], " ".join(session["id"] for session in answer["sessions"])

    def test_every_method_has_its_result(self):
        self.serve()
        realms = [{"name": "empty", "replicaSets": []}, {"name": "east", "replicaSets": ["web", "db"]}]
        for method, parameters, result in [
            ("cluster.get", {}, {"count": 2, "realms": realms, "key": KEY}),
            ("replicaSet.get", {"replicaSet": "web", "unknown": 1}, {"count": 2, "records": WEB}),
            ("replicaSet.get", {"replicaSet": "db"}, {"count": 0, "records": []}),
            ("session.list", {**EAST, "value": "*", "max": 2}, {"total": 4, "count": 2, "sessions": [S1, S2]}),
            ("session.refresh", {**BY_ID, "value": "s3"}, {"count": 1}),
            ("session.refresh", {**EAST, "value": "mallory"}, {"count": 3}),
            ("session.terminate", {**BY_ID, "value": "s2"}, {"count": 1}),
            ("session.terminate", {**EAST, "value": "mallory"}, {"count": 2}),
            ("trace.get", {}, {"level": 1}),
            ("trace.set", {"level": 9}, {"level": 9}),
            ("trace.get", {}, {"level": 9}),
        ]:
            self.assertEqual(self.result(method, **parameters), result)
        before, key = int(time.time()), self.result("key.change")["key"]
        self.assertRegex(key["label"], "^key-[-0-9]{11}[0-9a-f]{16}$")
        self.assertNotRegex(key["label"], "0{16}")
        self.assertEqual((key["previousTime"], key["time"] in range(before, before + 60)), (200, True))
        self.assertEqual(self.result("cluster.get")["key"], key)

    def test_listings_are_sorted_and_patterns_are_exact(self):
        self.serve()
        for pattern, most, query, total, ids in [
            ("*", -1, EAST, 4, "s1 s2 s4 s3"),
            ("m*", 2, EAST, 3, "s2 s4"),
            ("m*", 0, EAST, 3, ""),
            ("m*", 9, EAST, 3, "s2 s4 s3"),
            ("s?", -1, BY_ID, 4, "s1 s2 s4 s3"),
            ("s[34]", -1, BY_ID, 0, ""),
        ]:
            self.assertEqual(self.ids(pattern, most, query), (total, ids), pattern)
        self.result("session.refresh", **EAST, value="mallory")
        self.assertEqual(self.ids("mallory"), (3, "s2 s3 s4"), "equal times now")
        self.serve({"realms": [{"name": "east", "sessions": [session(user, user, 1) for user in USERS.split()]}]})
        for pattern, matching in (case.split("=") for case in PATTERNS.split(";")):
            self.assertEqual(self.ids(pattern)[1], matching, pattern)

    def test_each_does_what_he_may(self):
        nothing, reading, refused = ["not-permitted"] * 2, ["done", "not-permitted"], ["identity-refused"] * 2
        unnamed, strangers = [{}, {"password": ""}], [{"password": "x"}, WRONG, {"user": None}, {"user": "root"}]
        everything = {**EAST, "value": "josé", "max": 1, "level": 1, "replicaSet": "web"}
        for anonymous, cases in [
            ("none", [({}, nothing), (AUDITOR, reading), (AS_ROOT, ["done"] * 2)]),
            ("read", [*((who, reading) for who in unnamed), *((who, refused) for who in strangers)]),
        ]:
            self.serve(anonymous=anonymous)
            for who, outcomes in cases:
                for methods, outcome in zip((READS, CHANGES), outcomes):
                    for method in methods:
                        self.assertEqual(self.outcome(method, **who, **everything), outcome, (method, who))

    def test_refusals_come_in_the_documented_order_and_change_nothing(self):
        self.serve()
        star, west = {**EAST, "value": "*"}, {"realm": "west", "selector": "user", "value": "mallory"}
        empty, bad = {"realm": "empty", "selector": "session", "value": "s1"}, {**west, "selector": "x"}
        for error, who, method, *cases in [
            ("invalid-request", WRONG, "no.such", {}),
            ("invalid-request", AS_ROOT, "Cluster.get", {}),
            ("invalid-request", WRONG, "session.list", star),
            (
                "invalid-request",
                AS_ROOT,
                "session.list",
                *({**star, "max": most} for most in ("1", 1.0, 2**31, None)),
            ),
            ("invalid-request", AS_ROOT, "session.list", {**EAST, "value": None, "max": 1}),
            ("invalid-request", AS_ROOT, "trace.set", {"level": True}),
            ("invalid-request", AS_ROOT, "replicaSet.get", {}),
            ("invalid-request", {"user": 5}, "cluster.get", {}),
            ("identity-refused", WRONG, "trace.set", {"level": 10}),
            ("not-permitted", AUDITOR, "trace.set", {"level": 10}),
            ("invalid-value", AS_ROOT, "trace.set", {"level": 10}, {"level": -1}),
            ("invalid-value", AS_ROOT, "session.list", {**star, "max": -2}, {**bad, "max": 1}),
            ("invalid-value", AS_ROOT, "session.list", {**EAST, "value": "*" * 4097, "max": 1}),
            ("unknown-realm", AS_ROOT, "session.list", {**star, "realm": "EAST", "max": 1}),
            ("unknown-realm", AS_ROOT, "session.terminate", west),
            ("unknown-realm", AS_ROOT, "session.refresh", west),
            *(
                ("no-matching-session", AS_ROOT, f"session.{change}", star, empty, {**BY_ID, "value": "*"})
                for change in ("terminate", "refresh")
            ),
            ("unknown-replica-set", AS_ROOT, "replicaSet.get", {"replicaSet": "east"}),
        ]:
            for parameters in cases:
                self.assertEqual(self.outcome(method, **who, **parameters), error, (method, parameters))
        self.assertEqual((self.ids("*", 0), self.result("trace.get")), ((4, ""), {"level": 1}))

    def test_what_is_no_request_is_told_apart(self):
        server = self.serve()
        good = '{"jsonrpc":"2.0","id":7,"method":"cluster.get","params":{"security":{"user":"anonymous"}}}'

        def but(old, *new):
            self.assertIn(old, good)
            return [good.replace(old, text) for text in new]

        unparsable = ["", "{", good + "x", "\ufeff" + good, "[" * 60000]
        unparsable += but(
            "anonymous",
            "a\\u0000b",
            "a\\ud800",
            "a\\udc00",
            *(
                raw.decode(errors="surrogateescape")
                for raw in (b"\xff", b"\xc0\xaf", b"\xe0\x9f\xbf", b"\xf0\x8f\xbf\xbf")
            ),
        )
        unparsable += but('"id":7', '"id":7,"id":7', '"id":7,"\udcff":1') + but('"user"', '"user":"root","user"')
        unparsable += but('"params"', f'"x":{"[" * 17}{"]" * 17},"params"')
        unidentified = [f"[{good}]", "7", *but("2.0", "1.0"), *but('"id":7,', ""), *but('"cluster.get"', "1")]
        unidentified += but('"id":7', '"id":null', '"id":"7"', '"id":7.5')
        unfit = but('"params"', '"parameters"') + but('"security"', '"insecurity"')
        for code, status, identifier, texts in [
            (-32700, 400, None, unparsable),
            (-32600, 400, None, unidentified),
            (-32601, 200, 7, but("cluster.get", "cluster.put")),
            (-32602, 200, 7, unfit),
        ]:
            for text in texts:
                http, body = server.post(text.encode(errors="surrogateescape"))
                answer = json.loads(body)
                self.assertEqual((answer["error"]["code"], http, answer["id"]), (code, status, identifier), text[:99])
                self.assertEqual(answer["error"]["data"]["name"], "invalid-request")
        for number in (0, -1, 2**64 - 1, -(2**63)):
            self.assertEqual(json.loads(server.post(but('"id":7', f'"id":{number}')[0])[1])["id"], number)

    def test_the_log_says_as_much_as_the_trace_level_wants_and_never_a_password(self):
        server = self.serve()

        def log_at(level):
            self.result("trace.set", level=level)
            self.assertRegex(
                server.log(), rf" notice changed: trace level is {level}, by root from 127\.0\.0\.1:[1-9]\d*\n"
            )
            before = len(server.log())
            self.result("session.refresh", **BY_ID, value="s1")
            self.outcome("session.refresh", **AS_ROOT, **EAST, value="mallory\nforged")
            self.outcome("cluster.get", **WRONG)
            return re.sub(r"(?m)^\S+ |(127.0.0.1:|, )\d+(\.\d ms)?", "", server.log()[before:]).splitlines()

        audit = [
            "changed: refreshed 1 session of realm east, session s1, by root from ",
            "identity refused: root from ",
        ]
        requests = [
            "cluster.get by root from : identity-refused",
            *(f"session.refresh by root from : {outcome}" for outcome in ("done", "no-matching-session")),
        ]
        details = [f"session.refresh with realm east, {what}" for what in ("session s1", "user mallory\\x0aforged")]
        for level, count in [(1, 1), (2, 2), (9, 3), (0, 0)]:
            topics = list(zip(("audit", "request", "detail"), (audit, requests, details)))[:count]
            expected = [f"{topic} {text}" for topic, texts in topics for text in texts]
            self.assertEqual(sorted(line for line in log_at(level) if "trace.set" not in line), sorted(expected))
        self.assertEqual(server.log().count("login of root"), 1, "of which each later request is a part")
        self.assertNotRegex(server.log(), "SECRET|GUESS|qk=")

    def test_a_failure_of_the_file_is_answered_and_its_cause_logged(self):
        server = self.serve()
        self.result("trace.get")
        sqlite3.connect(server.data).execute("DROP TABLE keys")
        self.assertEqual(self.call("key.change", **AS_ROOT)["error"]["code"], -32603)
        self.assertEqual(self.outcome("cluster.get", **AS_ROOT), "server-failure")
        self.assertIn("failure the data file failed: no such table", server.log())
