"""Several locations, some of them dead in one way or another."""

import contextlib
import os
import time

from endtoend import NO_LOCATION, NOT_UNDERSTOOD, NOT_SERVED, OUTCOME_UNKNOWN, TIMED_OUT, configuration, key_report
from fault_server import FaultServer
from vexil import Case, commands, line

SLACK = float(os.environ["VEXIL_SLACK"])  # seconds, of which a sanitizer needs more
CAUSES = {
    "refuse": "connection refused",
    "blackhole": "no connection in time",
    "silence": "no answer in time",
    "no-answer": "no answer in time",
    "stall=body": "the rest of the answer did not come in time",
    "garbage": "answer not understood: it is not HTTP/1.1",
    "status=503": "HTTP status 503",
    "status=404": "HTTP status 404: no session server is there, or not this instance of it",
}
KEY = key_report("key-2", 1700000002, 1700000000)


class Failover(Case):
    def check_run(self, modes, texts, timeout, out, status=0, counts=None, **env):
        """Runs commands in the time allowed; a machine that is busy just then gets another chance. `out`: what is shown
        on standard output, given the lines that name dead servers. `counts`: how many requests each server got."""
        for attempt in range(3):
            with self.subTest(modes=modes), contextlib.ExitStack() as stack:
                servers = [stack.enter_context(FaultServer(mode)) for mode in modes]
                dead = [
                    f"http://127.0.0.1:{server.port}/blue/services/DSessAdminProxy: {CAUSES[server.mode]}\n"
                    for server in servers
                    if server.mode in CAUSES
                ]
                start = time.monotonic()
                result = self.run_utility(*commands(*texts), config=configuration(*servers, timeout=timeout), **env)
                late = time.monotonic() - start - timeout
                self.assertEqual(result[:3], (out(dead), line(status) if status else "", status & 0xFF))
                self.assertIn(counts, [None, [server.requests for server in servers]])
                if late <= SLACK:
                    return
                self.assertLess(attempt, 2, f"{late:.3f} s late")

    def test_reads_succeed_while_one_location_lives_which_then_goes_first(self):
        for *modes, dead in [
            ("refuse", "blackhole", "good", 2),
            ("garbage", "stall=body", "good", 2),
            ("no-answer", "close-after", "silence", 1),
            ("status=404", "slow=0.3", "refuse", 1),
        ]:
            self.check_run(
                modes,
                ["realm list", "realm show east"],
                2,
                lambda causes: "".join(causes[:dead]) + "east\nwest\n    alpha\n    beta\n",
                VEXILADMIN_DEBUG="1",
            )
        for *modes, status in [
            ("blackhole", "silence", "no-answer", TIMED_OUT),
            ("garbage", NOT_UNDERSTOOD),
            ("refuse", "blackhole", "status=503", NO_LOCATION),
        ]:
            self.check_run(modes, ["realm list"], 1, "".join, status, VEXILADMIN_DEBUG="1")

    def test_a_change_is_sent_to_one_server_and_once(self):
        for modes, status, counts in [
            (("silence", "good"), OUTCOME_UNKNOWN, [0, 0]),
            (("no-answer", "good"), OUTCOME_UNKNOWN, [1, 0]),
            (("refuse", "stall=body", "good"), OUTCOME_UNKNOWN, [0, 1, 0]),
            (("status=404", "good"), NOT_SERVED, [1, 0]),
            (("blackhole", "blackhole"), TIMED_OUT, [0, 0]),
        ]:
            self.check_run(modes, ["key change"], 1, lambda _: "", status, counts)
        # The last one takes longer than its share of the time, with which it could be lost.
        for modes, counts in [(("refuse", "blackhole", "good"), [0, 0, 1]), (("slow=0.7", "good", "good"), [1, 0, 0])]:
            self.check_run(modes, ["key change"], 1, lambda _: KEY, 0, counts)

    def test_every_kind_of_change_is_sent_once(self):
        texts = [
            "key change",
            "trace set 1",
            *(
                f"session {verb} {what} x -realm r"
                for verb in ("terminate", "refresh")
                for what in ("session", "all_sessions")
            ),
        ]
        for mode, out in [("status=503", line(OUTCOME_UNKNOWN) * 6), ("close-after", KEY)]:
            with FaultServer(mode) as server, FaultServer("good") as good:
                result = self.run_utility(config=configuration(server, good), stdin="\n".join(texts), merge=True)
                self.assertEqual((result.out, server.requests, good.requests), (out + "\n", 6, 0))
