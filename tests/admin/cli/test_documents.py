"""What the documents and the client library's header tell of the catalogue is what it holds."""

import re
import unittest

from vexil import ROOT

END_OF_INPUT = "38C52098"  # ends a line source, never the program


def read(path):
    return (ROOT / path).read_text(encoding="utf-8")


class Documents(unittest.TestCase):
    catalogue = read("runtime/qel_messages.def")

    def test_the_tables_of_exit_statuses_are_complete(self):
        statuses = re.findall(r"^QEL_FAILURE\(kStatus\w+, (\w+)", self.catalogue, re.M)
        expected = sorted((str(int(name, 16) & 0xFF), name) for name in statuses if name != END_OF_INPUT)
        for path, row in [
            ("README.md", r"^\| (\d+) \| (38C\w+) \| "),
            ("docs/vexiladmin.1", r"^(\d+)\t(38C\w+)\t"),
        ]:
            self.assertEqual(sorted(re.findall(row, read(path), re.M)), expected, path)

    def test_the_header_has_the_librarys_statuses_and_the_selectors(self):
        header = read("admin/client-interface/olm_dsess_admin.h")
        statuses = re.findall(r"^#define OLM_DSESS_ADMIN_STATUS_(\w+) UINT32_C\(0x(\w+)\)$", header, re.M)
        library = self.catalogue[self.catalogue.index("// Client library") :]
        expected = re.findall(r"^QEL_FAILURE\(kStatus(\w+), (\w+)", library, re.M)
        expected.insert(0, re.search(r"kStatus(NoMemory), (\w+)", self.catalogue).groups())
        self.assertEqual(
            [(name.replace("_", "").lower(), value) for name, value in statuses],
            [(name.lower(), value) for name, value in expected],
        )
        selectors = re.findall(r"^#define OLM_DSESS_ADMIN_(\w+_SELECTOR\d) (\".*\")$", header, re.M)
        expected = re.findall(r"kMsg(\w+Selector\d), \w+, \"\", (\".*\")\)", self.catalogue)
        self.assertEqual(
            [(name.replace("_", "").lower(), text) for name, text in selectors],
            [(name.lower(), text) for name, text in expected],
        )
