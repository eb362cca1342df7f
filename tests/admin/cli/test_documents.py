"""The message catalogue is sound, and the client library's header has of it what it should."""

import re
import unittest

from vexil import ROOT


def read(path):
    return (ROOT / path).read_text(encoding="utf-8")


class Documents(unittest.TestCase):
    catalogue = read("runtime/qel_messages.def")

    def check_pairs(self, *lists):
        """Compares names, whatever way they are written, and what belongs to them."""
        found, expected = ([(name.replace("_", "").lower(), value) for name, value in pairs] for pairs in lists)
        self.assertEqual(found, expected)

    def test_messages_have_identifiers_of_their_own_and_placeholders_for_their_arguments(self):
        entries = re.findall(r'^QEL_\w+\((\w+), (\w+), "(\w*)",((?:\s*"(?:[^"\\]|\\.)*")+)\)', self.catalogue, re.M)
        self.assertEqual(len(entries), self.catalogue.count("\nQEL_"))
        self.assertEqual(len(entries), len({identifier for _, identifier, _, _ in entries}))
        for name, identifier, kinds, text in entries:
            self.assertNotEqual(identifier[-2:], "00", f"{name} would be an exit status of success")
            placeholders = re.findall(r"%(?:(\d)\$)?([sd])", text)
            ordered = sorted({found for found in placeholders if found[0]}) or placeholders
            self.assertEqual("".join(kind for _, kind in ordered), re.sub("[ev]", "s", kinds), name)

    def test_the_header_has_the_librarys_statuses_and_the_selectors(self):
        header = read("admin/client-interface/olm_dsess_admin.h")
        library = self.catalogue[self.catalogue.index("// Client library") :]
        self.check_pairs(
            re.findall(r"^#define OLM_DSESS_ADMIN_STATUS_(\w+) UINT32_C\(0x(\w+)\)$", header, re.M),
            re.findall(r"kStatus(NoMemory), (\w+)", self.catalogue)
            + re.findall(r"^QEL_FAILURE\(kStatus(\w+), (\w+)", library, re.M),
        )
        self.check_pairs(
            re.findall(r"^#define OLM_DSESS_ADMIN_(\w+_SELECTOR\d) (\".*\")$", header, re.M),
            re.findall(r"kMsg(\w+Selector\d), \w+, \"\", (\".*\")\)", self.catalogue),
        )
