"""The message catalogue is sound."""

import re
import unittest

from vexil import ROOT


class Documents(unittest.TestCase):
    catalogue = (ROOT / "runtime" / "qel_messages.def").read_text(encoding="utf-8")

    def test_messages_have_identifiers_of_their_own_and_placeholders_for_their_arguments(self):
        entries = re.findall(r'^QEL_\w+\((\w+), (\w+), "(\w*)",((?:\s*"(?:[^"\\]|\\.)*")+)\)', self.catalogue, re.M)
        self.assertEqual(len(entries), self.catalogue.count("\nQEL_"))
        self.assertEqual(len(entries), len({identifier for _, identifier, _, _ in entries}))
        for name, identifier, kinds, text in entries:
            self.assertNotEqual(identifier[-2:], "00", f"{name} would be an exit status of success")
            placeholders = re.findall(r"%(?:(\d)\$)?([sd])", text)
            ordered = sorted({found for found in placeholders if found[0]}) or placeholders
            self.assertEqual("".join(kind for _, kind in ordered), re.sub("[ev]", "s", kinds), name)
