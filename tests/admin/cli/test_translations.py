"""The message catalogue is sound, and its translations have what it has and are shown where the locale asks for them."""

import ast
import re

from vexil import ANON, MESSAGES, ROOT, Case, commands

CATALOGUE = (ROOT / "catalogue/qel_messages.def").read_text(encoding="utf-8")
FIXED = re.findall(r"QEL_FIXED\(\w+, (\w+)", CATALOGUE)
NAMED = {f"{identifier:08X}": text for identifier, text in MESSAGES.items()}
TEXTS = sorted(text.removeprefix(name + " ") for name, text in NAMED.items() if name not in FIXED)
ENTRY = r'^(#, .*\n)?msgid ((?:".*"\n)+)msgstr ((?:".*"\n?)+)'


def read(path):
    """Flags, text and translation of each entry behind the head."""
    text = path.read_text(encoding="utf-8")
    entries = [(flags, *(ast.literal_eval(f"({it})") for it in pair)) for flags, *pair in re.findall(ENTRY, text, re.M)]
    assert len(entries) == len(re.findall("^msgid", text, re.M)) and "#~" not in text, path
    return entries[1:]


def frame(text):
    """What a translation keeps: placeholders, by the arguments that they take, and final line feeds."""
    taken = re.findall(r"%(?:(\d)\$)?(.?)", text.replace("%%", ""))
    numbered = {(int(number or place), kind) for place, (number, kind) in enumerate(taken, 1)}
    return numbered, len(text) - len(text.rstrip("\n"))


class Translations(Case):
    def test_messages_have_identifiers_of_their_own_and_placeholders_for_their_arguments(self):
        entries = re.findall(r'^QEL_\w+\((\w+), (\w+), "(\w*)",((?:\s*"(?:[^"\\]|\\.)*")+)\)', CATALOGUE, re.M)
        self.assertEqual(len(entries), CATALOGUE.count("\nQEL_"))
        self.assertEqual(len(entries), len({identifier for _, identifier, _, _ in entries}))
        for name, identifier, kinds, text in entries:
            self.assertNotEqual(identifier[-2:], "00", f"{name} would be an exit status of success")
            placeholders = re.findall(r"%(?:(\d)\$)?([sd])", text)
            ordered = sorted({found for found in placeholders if found[0]}) or placeholders
            self.assertEqual("".join(kind for _, kind in ordered), re.sub("[ev]", "s", kinds), name)

    def test_every_message_is_translated_with_its_placeholders_and_none_else(self):
        for path in (ROOT / "po").glob("*.po"):
            entries = read(path)
            self.assertEqual(sorted(source for _, source, _ in entries), TEXTS, path)
            for flags, source, text in entries:
                self.assertNotIn("fuzzy", flags, source)
                self.assertEqual(frame(text), frame(source))
                self.assertRegex(text, r"^(?!38C5)[\s\S]*\S", source)

    def test_a_locale_gets_its_language_and_one_that_is_not_there_english(self):
        level = MESSAGES[0x38C5213A]
        german, japanese = (dict(row[1:] for row in read(ROOT / f"po/{name}.po"))[level] for name in ("de", "ja"))
        english = self.locale("UTF-8")  # C.UTF-8 has no languages in glibc 2.41
        for text, environment in [
            (german, {**english, "LANGUAGE": "de"}),
            (japanese, {**english, "LANGUAGE": "xx:ja:de"}),
            (level, {"LANGUAGE": "de", "LC_ALL": "xx_XX.UTF-8"}),
        ]:
            self.check(*commands("trace get"), calls=[f"get_trace_level {ANON}"], out=text % 0 + "\n", **environment)
