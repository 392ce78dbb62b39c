"""That tools/make_protocol.py makes the page's tables, the Kaitai description and the dissector's tables, and sees what
is out of date. test_new_field.py has the JSON Schema."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
TOOL = ROOT / "tools" / "make_protocol.py"
HEADER = pathlib.Path("Src", "ADE_ShotMentor_Records.h")
PAGE = pathlib.Path("Docs", "protocol.md")
KSY = pathlib.Path("Protocol", "shotmentor.ksy")
DISSECTOR = pathlib.Path("Protocol", "shotmentor.lua")
NAMES = pathlib.Path("Desk", "Values", "Names.cpp")
SHUTTER_TIMES = pathlib.Path("Desk", "Values", "Scales.cpp")
ISO_NUMBERS = pathlib.Path("Src", "ADE_ShotMentor_Tables.h")


def run(*arguments):
    """The tool, which makes all but the JSON Schema."""
    command = [sys.executable, TOOL, *arguments, PAGE, KSY, DISSECTOR]
    return subprocess.run(command, capture_output=True, text=True, check=False)


class Tree(unittest.TestCase):
    def test_of_the_sources_has_files_as_the_header_makes_them(self):
        done = run("--check")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))


class Copy(unittest.TestCase):
    """A copy of the header and of what is made from it, in which something is changed."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        for path in (HEADER, PAGE, KSY, DISSECTOR, NAMES, SHUTTER_TIMES, ISO_NUMBERS):
            (self.root / path).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / path, self.root / path)

    def read(self, path):
        return (self.root / path).read_text(encoding="utf-8")

    def change(self, path, old, new):
        text = self.read(path)
        self.assertEqual(text.count(old), 1, f"places of {old!r} in {path}")
        (self.root / path).write_text(text.replace(old, new), encoding="utf-8")

    def make(self):
        done = run("--root", self.root)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def assertRefused(self, done, *said):
        self.assertEqual(done.returncode, 1)
        lines = done.stderr.splitlines()
        self.assertEqual(len(lines), len(said), done.stderr)
        for line, words in zip(lines, said):
            self.assertIn(words, line)

    def test_of_a_field_with_another_name_differs_in_all_files_and_is_told_with_the_command(self):
        self.change(HEADER, "WORD(photosize, 560)", "WORD(photo_size, 560)")
        mends = "is not what the sources make; tools/make_protocol.py makes it anew"
        done = run("--check", "--root", self.root)
        self.assertRefused(done, *(f"{path} {mends}" for path in (PAGE, KSY, DISSECTOR)))

    def test_of_a_field_with_another_name_shows_it_in_all_files_once_they_are_made(self):
        self.change(HEADER, "WORD(photosize, 560)", "WORD(photo_size, 560)")
        self.make()
        self.assertIn("| 560 | `photo_size` | word |", self.read(PAGE))
        self.assertIn("- id: photo_size\n        type: s4\n", self.read(KSY))
        self.assertIn('{ name = "photo_size", offset = 560, kind = "word", size = 4, ', self.read(DISSECTOR))
        self.assertEqual(run("--check", "--root", self.root).returncode, 0)

    def test_of_a_field_in_the_place_of_reserved_words_has_it_in_all_files(self):
        place = "/* Words without a meaning here, carried byte for byte. "
        self.change(HEADER, place, "/* Tilt. */ \\\n    WORD(tilt, 636) \\\n    " + place)
        self.change(HEADER, "WORDS(reserved_636, 636, 6)", "WORDS(reserved_636, 640, 5)")
        self.make()
        row = "| 636 | `tilt` | word | the camera's own code | a code like any other | both | Tilt. |\n"
        self.assertIn(row + "| 640 | `reserved_636` | 5 words |", self.read(PAGE))
        self.assertEqual(self.read(KSY).count("- id: tilt\n"), 2)  # in both records
        self.assertIn('{ name = "tilt", offset = 636, ', self.read(DISSECTOR))
        self.assertIn(
            '{ name = "reserved_636", offset = 640, kind = "words", size = 20, count = 5,', self.read(DISSECTOR)
        )

    def test_of_another_comment_says_it_in_all_files(self):
        self.change(HEADER, "/* Picture size. ", "/* Pixels. ")
        self.make()
        self.assertIn("| both | Pixels. |\n", self.read(PAGE))
        self.assertIn("          Pixels. As it travels:", self.read(KSY))
        self.assertIn('meaning = "Pixels."', self.read(DISSECTOR))

    def test_of_another_result_code_has_it_in_the_description(self):
        self.change(HEADER, "SM_RETURN_BT_RES_ERR = -10, ", "SM_RETURN_BT_RES_ERR = -13, ")
        self.make()
        self.assertIn("    -13:\n      id: bt_res_err\n", self.read(KSY))

    def test_of_another_request_is_refused_until_the_tool_knows_what_is_in_it(self):
        last = "    SM_FUNCTION_STATE_ON = 255, "
        self.change(HEADER, last, "    SM_FUNCTION_SEND_LOG = 6, /* the phone asks for the log */\n" + last)
        self.assertRefused(run("--root", self.root), "what is in send_log_reply and send_log_request")

    def test_of_a_comment_with_a_bar_keeps_its_columns(self):
        self.change(HEADER, "/* Picture size. ", "/* Large | small. ")
        self.make()
        self.assertIn("| both | Large \\| small. |\n", self.read(PAGE))

    def test_of_another_shutter_time_differs_until_the_page_and_the_dissector_have_it(self):
        self.change(SHUTTER_TIMES, '{84, "1/125 s"}', '{84, "1/120 s"}')
        both = "Docs/protocol.md is not what", "Protocol/shotmentor.lua is not what"
        self.assertRefused(run("--check", "--root", self.root), *both)
        self.make()
        self.assertIn("| 84 | 1/120 s |", self.read(PAGE))
        self.assertIn('[84] = "1/120 s"', self.read(DISSECTOR))

    def test_of_another_iso_number_differs_until_the_page_and_the_dissector_have_it(self):
        self.change(ISO_NUMBERS, " 51200", " 51201")
        self.make()
        self.assertIn("| 30 | 51201 |", self.read(PAGE))
        self.assertIn("[30] = 51201", self.read(DISSECTOR))

    def test_of_another_name_of_a_value_differs_until_the_dissector_has_it(self):
        self.change(NAMES, '"daylight"', '"sun"')
        self.assertRefused(run("--check", "--root", self.root), "Protocol/shotmentor.lua is not what")
        self.make()
        self.assertIn('[2] = "sun"', self.read(DISSECTOR))

    def test_of_names_that_cannot_be_read_is_refused_and_changes_nothing(self):
        self.change(NAMES, "const Names& mode_names() {", "const Names& modes() {")
        before = self.read(DISSECTOR)
        self.assertRefused(run("--root", self.root), "Desk/Values/Names.cpp: no `const Names& mode_names")
        self.assertEqual(self.read(DISSECTOR), before)

    def test_of_a_dissector_that_was_edited_by_hand_differs(self):
        self.change(DISSECTOR, "offset = 52,", "offset = 56,")
        self.assertRefused(run("--check", "--root", self.root), "Protocol/shotmentor.lua is not what")

    def test_with_a_file_that_it_does_not_make_is_refused(self):
        done = subprocess.run([sys.executable, TOOL, "README.md"], capture_output=True, text=True, check=False)
        self.assertRefused(done, "README.md is none of Docs/protocol.md, Protocol/shotmentor.ksy")

    def test_of_a_scale_that_cannot_be_read_is_refused(self):
        self.change(SHUTTER_TIMES, '{84, "1/125 s"}', '{1 + 83, "1/125 s"}')
        self.assertRefused(run("--root", self.root), "Desk/Values/Scales.cpp: no table of the form")

    def test_that_was_edited_by_hand_differs(self):
        self.change(PAGE, "| 560 | `photosize` |", "| 561 | `photosize` |")
        self.assertRefused(run("--check", "--root", self.root), "Docs/protocol.md is not what")

    def test_without_the_description_differs(self):
        (self.root / KSY).unlink()
        self.assertRefused(run("--check", "--root", self.root), "Protocol/shotmentor.ksy is not what")

    def test_that_is_only_checked_stays_as_it_is(self):
        self.change(HEADER, "WORD(photosize, 560)", "WORD(photo_size, 560)")
        before = self.read(PAGE), self.read(KSY)
        run("--check", "--root", self.root)
        self.assertEqual((self.read(PAGE), self.read(KSY)), before)

    def test_without_the_marks_of_the_table_is_refused(self):
        self.change(PAGE, "<!-- Src/ADE_ShotMentor_Records.h makes", "<!-- Src/ADE_ShotMentor_Records.h made")
        self.assertRefused(run("--root", self.root), "Docs/protocol.md: a table has to stand between")

    def test_with_a_field_that_the_details_know_and_the_header_does_not_is_refused(self):
        self.change(HEADER, "WORD(k_value, 92)", "WORD(kelvin, 92)")
        self.assertRefused(run("--root", self.root), "DETAILS has k_value, which is no field")

    def test_with_a_field_that_shares_a_comment_and_is_not_told_apart_is_refused(self):
        comment = next(line for line in self.read(HEADER).splitlines(keepends=True) if "/* Touch AF." in line)
        self.change(HEADER, comment, "")
        self.assertRefused(run("--root", self.root), "photosize shares its comment")

    def test_with_a_header_that_cannot_be_read_names_the_line(self):
        number = self.read(HEADER)[: self.read(HEADER).index("WORD(photosize, 560)")].count("\n") + 1
        self.change(HEADER, "WORD(photosize, 560)", "WORD(photosize; 560)")
        self.assertRefused(run("--root", self.root), f"{HEADER}:{number}: ")


class Made(unittest.TestCase):
    """What stands in the files, written down by hand."""

    @classmethod
    def setUpClass(cls):
        cls.page = (ROOT / PAGE).read_text(encoding="utf-8")
        cls.ksy = (ROOT / KSY).read_text(encoding="utf-8")

    def test_table_tells_all_of_a_field(self):
        self.assertIn(
            "| 92 | `k_value` | word | kelvin | no colour temperature | both | "
            "Colour temperature of the Kelvin type; 0 none. |\n",
            self.page,
        )

    def test_tables_of_the_scales_have_their_ends(self):
        self.assertIn("| 1 | 60 s | 2 | 30 s |", self.page)
        self.assertIn("| 109 | 1/10000 s |", self.page)
        self.assertIn("| 0 | 0 | 1 | 50 | 2 | 80 |", self.page)
        self.assertIn("| 30 | 51200 |", self.page)

    def test_table_tells_fields_apart_that_share_a_comment(self):
        self.assertIn("| both | Custom white balance: red. |\n", self.page)
        self.assertIn("| both | Custom white balance: blue. |\n", self.page)

    def test_description_has_a_quoted_version(self):
        self.assertIn("  ks-version: '0.10'\n", self.ksy)

    def test_description_quotes_what_yaml_takes_for_no_text(self):
        self.assertIn('    1:\n      id: "true"\n', self.ksy)

    def test_description_refuses_counts_that_no_camera_has(self):
        count = "      - id: num_preset\n        type: s4\n        valid:\n          min: 0\n          max: 40\n"
        self.assertEqual(self.ksy.count(count), 2)  # of a list and of a deletion

    def test_description_lets_a_request_be_too_short_for_its_record(self):
        record = "      - id: preset\n        type: phone_record\n"
        self.assertEqual(self.ksy.count(record), 2)  # of a store and of an update
        for behind in self.ksy.split(record)[1:]:
            self.assertIn('        if: "_io.size >= 744"\n', behind.partition("- id:")[0])

    def size_of(self, name):
        """Bytes of a type of the description, added up from the sizes of its entries."""
        entries = self.ksy.partition(f"\n  {name}:\n")[2]
        entries = re.split(r"^  \w", entries, maxsplit=1, flags=re.M)[0].split("- id: ")[1:]
        return sum(self.size_of_entry(entry) for entry in entries)

    def size_of_entry(self, entry):
        keys = dict(re.findall(r"^        ([\w-]+): (\w+)$", entry, re.M))
        kind = keys.get("type")
        size = int(keys["size"]) if "size" in keys else 4 if kind == "s4" else self.size_of(kind)
        return size * int(keys.get("repeat-expr", 1))

    def test_description_has_records_of_the_protocols_sizes(self):
        self.assertEqual(self.size_of("color"), 12)
        self.assertEqual(self.size_of("cs_info"), 388)
        self.assertEqual(self.size_of("camera_record"), 740)
        self.assertEqual(self.size_of("phone_record"), 744)

    def test_description_has_a_doc_for_every_entry(self):
        self.assertGreater(self.ksy.count("- id: "), 100)
        entries = self.ksy.split("- id: ")[1:]
        self.assertEqual([entry.split("\n")[0] for entry in entries if "  doc: |\n" not in entry], [])


if __name__ == "__main__":
    unittest.main()
