"""Several locations, some of them dead: what reads goes on, and whatever changes something is sent to one and once."""

from endtoend import OUTCOME_UNKNOWN, configuration, key_report
from fault_server import FaultServer
from vexil import Case, commands, line

REALMS, QUERY = "east\nwest\n", " x -realm r"
SESSIONS = [f"session {verb} {what}" for verb in ("terminate", "refresh") for what in ("session", "all_sessions")]


class Failover(Case):
    def test_what_reads_goes_on_and_what_changes_is_sent_once(self):
        for mode, texts, out, status, counts in [
            (
                "close-after",
                ["realm list", "key change"],
                REALMS + key_report("key-2", 1700000002, 1700000000),
                0,
                (2, 0),
            ),
            ("status=503", ["realm list"] * 2, REALMS * 2, 0, (1, 2)),
            *(("status=503", [text], "", OUTCOME_UNKNOWN, (1, 0)) for text in ["key change", "trace set 1"]),
            *(("status=503", [text + QUERY], "", OUTCOME_UNKNOWN, (1, 0)) for text in SESSIONS),
        ]:
            with self.subTest(texts), FaultServer("refuse") as dead, FaultServer(mode) as one, FaultServer(
                "good"
            ) as other:
                result = self.run_utility(*commands(*texts), config=configuration(dead, one, other))
                self.assertEqual(result[:3], (out, line(status) if status else "", status & 0xFF))
                self.assertEqual((one.requests, other.requests), counts)
