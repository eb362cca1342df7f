"""What dsessd answers, to whom, and what it logs: the whole protocol over one connection a call."""

import json
import re
import sqlite3
import time
import unittest

from dsessd import AS_ROOT, ROOT, Dsessd

CLUSTER = {
    "keys": [{"label": "old", "time": 100}, {"label": "new", "time": 200}],
    "realms": [
        {
            "name": "east",
            "replicaSets": [
                {"name": "web", "members": [{"name": "web-1", "time": 11}, {"name": "web-2", "time": 12}]},
                {"name": "db"},
            ],
            "sessions": [
                {"id": "s3", "user": "mallory", "time": 30},
                {"id": "s2", "user": "mallory", "time": 20},
                {"id": "s4", "user": "mallory", "time": 20},
                {"id": "s1", "user": "josé", "time": 10},
            ],
        },
        {"name": "empty"},
    ],
}
EAST = {"realm": "east", "selector": "user"}
AUDITOR = {"user": "auditor", "password": "LOOK", "login_id": "qk=2"}
WRONG = {"user": "root", "password": "GUESS", "login_id": "qk=3"}
METHODS = {
    "cluster.get": False,
    "replicaSet.get": False,
    "session.list": False,
    "trace.get": False,
    "session.refresh": True,
    "session.terminate": True,
    "key.change": True,
    "trace.set": True,
}  # changing ones


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

    def ids(self, pattern, most=-1, selector="user"):
        """What session.list gives: how many match, and which are listed in what order."""
        answer = self.result("session.list", realm="east", selector=selector, value=pattern, max=most)
        self.assertEqual(answer["count"], len(answer["sessions"]))
        return answer["total"], [session["id"] for session in answer["sessions"]]

    def test_every_method_has_its_result(self):
        self.serve()
        for method, parameters, result in [
            (
                "cluster.get",
                {},
                {
                    "count": 2,
                    "realms": [{"name": "east", "replicaSets": ["web", "db"]}, {"name": "empty", "replicaSets": []}],
                    "key": {"label": "new", "time": 200, "previousTime": 100},
                },
            ),
            (
                "replicaSet.get",
                {"replicaSet": "web", "unknown": 1},
                {"count": 2, "records": [{"name": "web-1", "time": 11}, {"name": "web-2", "time": 12}]},
            ),
            ("replicaSet.get", {"replicaSet": "db"}, {"count": 0, "records": []}),
            (
                "session.list",
                {**EAST, "value": "*", "max": 2},
                {
                    "total": 4,
                    "count": 2,
                    "sessions": [{"id": "s1", "user": "josé", "time": 10}, {"id": "s2", "user": "mallory", "time": 20}],
                },
            ),
            ("session.refresh", {"realm": "east", "selector": "session", "value": "s3"}, {"count": 1}),
            ("session.refresh", {**EAST, "value": "mallory"}, {"count": 3}),
            ("session.terminate", {"realm": "east", "selector": "session", "value": "s2"}, {"count": 1}),
            ("session.terminate", {**EAST, "value": "mallory"}, {"count": 2}),
            ("trace.get", {}, {"level": 1}),
            ("trace.set", {"level": 9}, {"level": 9}),
            ("trace.get", {}, {"level": 9}),
        ]:
            self.assertEqual(self.result(method, **parameters), result)
        before, key = int(time.time()), self.result("key.change")["key"]
        self.assertRegex(key["label"], "^key-[-0-9]{11}[0-9a-f]{16}$")
        self.assertEqual((key["previousTime"], key["time"] in range(before, before + 60)), (200, True))
        self.assertEqual(self.result("cluster.get")["key"], key)

    def test_listings_are_sorted_and_patterns_are_exact(self):
        self.serve()
        self.assertEqual(self.ids("*"), (4, ["s1", "s2", "s4", "s3"]))
        self.assertEqual(self.ids("m*", 2), (3, ["s2", "s4"]))
        self.assertEqual(self.ids("m*", 0), (3, []))
        self.assertEqual(self.ids("m*", 9), (3, ["s2", "s4", "s3"]))
        self.assertEqual(self.ids("s?", selector="session"), (4, ["s1", "s2", "s4", "s3"]))
        self.assertEqual(self.ids("s[34]", selector="session"), (0, []))
        self.result("session.refresh", **EAST, value="mallory")
        self.assertEqual(self.ids("mallory"), (3, ["s2", "s3", "s4"]), "equal times now")
        users = [
            "mallory",
            "Mallory",
            "mallory2",
            "ł",
            "李伟",
            "josé",
            "jos",
            "наталья",
            "a[b]c",
            "abc",
            "m",
            "[^x]",
            "[",
            "]",
            "[[]",
            "100%",
            "1000",
            "a_c",
            "a\\b",
            "'",
            "a" * 30,
        ]
        sessions = [{"id": user, "user": user, "time": 1} for user in users]
        self.serve({"realms": [{"name": "east", "sessions": sessions}]})
        for pattern, matching in [
            ("mal*", "mallory mallory2"),
            ("*lory", "Mallory mallory"),
            ("m*l*y", "mallory"),
            ("m*x*y", ""),
            ("?", "' [ ] m ł"),
            ("??", "李伟"),
            ("jos?", "josé"),
            ("ната*", "наталья"),
            ("a[b]c", "a[b]c"),
            ("[a-z]", ""),
            ("[^x]", "[^x]"),
            ("[", "["),
            ("]", "]"),
            ("[[]", "[[]"),
            ("*[*", "[ [[] [^x] a[b]c"),
            ("100%", "100%"),
            ("a_c", "a_c"),
            ("a\\*", "a\\b"),
            ("'", "'"),
            ("**m**", "m mallory mallory2"),
            ("", ""),
            ("mallory", "mallory"),
            ("*a*a*a*a*a*a*a*b", ""),
        ]:
            self.assertEqual(self.ids(pattern)[1], matching.split(), pattern)

    def test_each_does_what_he_may(self):
        nothing, reading, refused = ["not-permitted"] * 2, ["done", "not-permitted"], ["identity-refused"] * 2
        everything = {**EAST, "value": "josé", "max": 1, "level": 1, "replicaSet": "web"}
        for anonymous, cases in [
            ("none", [({}, nothing), (AUDITOR, reading), (AS_ROOT, ["done"] * 2)]),
            (
                "read",
                [
                    ({}, reading),
                    ({"password": ""}, reading),
                    ({"password": "x"}, refused),
                    (WRONG, refused),
                    ({"user": None}, refused),
                    ({"user": "root", "login_id": "qk=1"}, refused),
                ],
            ),
        ]:
            self.serve(anonymous=anonymous)
            for method, changes in METHODS.items():
                for who, outcomes in cases:
                    self.assertEqual(self.outcome(method, **who, **everything), outcomes[changes], (method, who))

    def test_refusals_come_in_the_documented_order_and_change_nothing(self):
        self.serve()
        star, west = {**EAST, "value": "*"}, {"realm": "west", "selector": "user", "value": "mallory"}
        empty = {"realm": "empty", "selector": "session", "value": "s1"}
        for error, who, method, cases in [
            ("invalid-request", WRONG, "no.such", [{}]),
            ("invalid-request", AS_ROOT, "Cluster.get", [{}]),
            ("invalid-request", WRONG, "session.list", [star]),
            (
                "invalid-request",
                AS_ROOT,
                "session.list",
                [{**EAST, "value": None, "max": 1}, *({**star, "max": most} for most in ("1", 1.0, 2**31, None))],
            ),
            ("invalid-request", AS_ROOT, "trace.set", [{"level": True}]),
            ("invalid-request", AS_ROOT, "replicaSet.get", [{}]),
            ("invalid-request", {"user": 5}, "cluster.get", [{}]),
            ("identity-refused", WRONG, "trace.set", [{"level": 10}]),
            ("not-permitted", AUDITOR, "trace.set", [{"level": 10}]),
            ("invalid-value", AS_ROOT, "trace.set", [{"level": 10}, {"level": -1}]),
            (
                "invalid-value",
                AS_ROOT,
                "session.list",
                [{**star, "max": -2}, {**star, "value": "*" * 4097, "max": 1}, {**west, "selector": "x", "max": 1}],
            ),
            ("unknown-realm", AS_ROOT, "session.list", [{**star, "realm": "EAST", "max": 1}]),
            ("unknown-realm", AS_ROOT, "session.terminate", [west]),
            ("unknown-realm", AS_ROOT, "session.refresh", [west]),
            ("no-matching-session", AS_ROOT, "session.terminate", [star, empty]),
            ("no-matching-session", AS_ROOT, "session.refresh", [star, empty]),
            ("unknown-replica-set", AS_ROOT, "replicaSet.get", [{"replicaSet": "east"}]),
        ]:
            for parameters in cases:
                self.assertEqual(self.outcome(method, **who, **parameters), error, (method, parameters))
        self.assertEqual((self.ids("*", 0), self.result("trace.get")), ((4, []), {"level": 1}))

    def test_what_is_no_request_is_told_apart(self):
        server = self.serve()
        good = '{"jsonrpc":"2.0","id":7,"method":"cluster.get","params":{"security":{"user":"anonymous"}}}'

        def but(old, new):
            self.assertIn(old, good)
            return good.replace(old, new)

        for code, status, identifier, texts in [
            (
                -32700,
                400,
                None,
                [
                    "",
                    "{",
                    good + "x",
                    "\ufeff" + good,
                    "[" * 60000,
                    but('"id":7', '"id":7,"id":7'),
                    but('"user"', '"user":"root","user"'),
                    but('"params"', f'"x":{"[" * 17}{"]" * 17},"params"'),
                    *(but("anonymous", name) for name in ("a\\u0000b", "a\\ud800", "a\\udc00", "\udcff")),
                ],
            ),
            (
                -32600,
                400,
                None,
                [
                    f"[{good}]",
                    "7",
                    but("2.0", "1.0"),
                    but('"id":7,', ""),
                    but('"id":7', '"id":null'),
                    but('"id":7', '"id":"7"'),
                    but('"id":7', '"id":7.5'),
                    but('"cluster.get"', "1"),
                ],
            ),
            (-32601, 200, 7, [but("cluster.get", "cluster.put")]),
            (-32602, 200, 7, [but('"params"', '"parameters"'), but('"security"', '"insecurity"')]),
        ]:
            for text in texts:
                http, body = server.post(text.encode(errors="surrogateescape"))
                answer = json.loads(body)
                self.assertEqual((answer["error"]["code"], http, answer["id"]), (code, status, identifier), text[:99])
                self.assertEqual(answer["error"]["data"]["name"], "invalid-request")
        for number in (0, -1, 2**64 - 1, -(2**63)):
            self.assertEqual(json.loads(server.post(but('"id":7', f'"id":{number}'))[1])["id"], number)

    def test_the_log_says_as_much_as_the_trace_level_wants_and_never_a_password(self):
        server = self.serve()

        def log_at(level):
            self.result("trace.set", level=level)
            self.assertRegex(server.log(), rf" notice changed: trace level is {level}, by root from 127\.0\.0\.1:\d+\n")
            before = len(server.log())
            self.result("session.refresh", realm="east", selector="session", value="s1")
            self.outcome("session.refresh", **AS_ROOT, **EAST, value="mallory\nforged")
            self.outcome("cluster.get", **WRONG)
            return re.sub(r"(?m)^\S+ |(127.0.0.1:|, )\d+(\.\d ms)?", "", server.log()[before:]).splitlines()

        audit = [
            "audit changed: refreshed 1 session of realm east, session s1, by root from ",
            "audit identity refused: root from ",
        ]
        requests = [
            "request cluster.get by root from : identity-refused",
            *(f"request session.refresh by root from : {outcome}" for outcome in ("done", "no-matching-session")),
        ]
        details = [
            "detail session.refresh with realm east, session s1",
            "detail session.refresh with realm east, user mallory\\x0aforged",
        ]
        for level, lines in [(1, audit), (2, audit + requests), (9, audit + requests + details), (0, [])]:
            self.assertEqual(sorted(line for line in log_at(level) if "trace.set" not in line), sorted(lines))
        self.assertNotRegex(server.log(), "SECRET|GUESS|qk=")

    def test_a_failure_of_the_file_is_answered_and_its_cause_logged(self):
        server = self.serve()
        self.result("trace.get")
        sqlite3.connect(server.data).execute("DROP TABLE keys")
        self.assertEqual(self.call("key.change", **AS_ROOT)["error"]["code"], -32603)
        self.assertEqual(self.outcome("cluster.get", **AS_ROOT), "server-failure")
        self.assertIn("failure the data file failed: no such table", server.log())
