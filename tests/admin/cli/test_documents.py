"""What the documents tell of the statuses is what the catalogue holds."""

import re
import unittest

from vexil import ROOT

END_OF_INPUT = "38C52098"  # ends a line source, never the program


class Documents(unittest.TestCase):
    def test_the_tables_of_exit_statuses_are_complete(self):
        catalogue = (ROOT / "runtime" / "qel_messages.def").read_text(encoding="utf-8")
        statuses = re.findall(r"^QEL_FAILURE\(kStatus\w+, (\w+)", catalogue, re.M)
        expected = sorted((str(int(name, 16) & 0xFF), name) for name in statuses if name != END_OF_INPUT)
        for path, row in [
            ("README.md", r"^\| (\d+) \| (38C\w+) \| "),
            ("docs/vexiladmin.1", r"^(\d+)\t(38C\w+)\t"),
        ]:
            table = re.findall(row, (ROOT / path).read_text(encoding="utf-8"), re.M)
            self.assertEqual(sorted(table), expected, path)
