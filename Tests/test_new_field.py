"""That a field takes one line in the header's list, and one command: in a copy of the tree, a field is put in the place
of a reserved word, and is then in all that is made."""

import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
TOOL = ROOT / "tools" / "make_protocol.py"
HEADER = pathlib.Path("Src", "ADE_ShotMentor_Records.h")
NEEDED = ["CMakeLists.txt", "Src", "Desk", "Docs", "Protocol", "cmake"]

COMMENT = "/* Words without a meaning here, carried byte for byte. "
CHANGES = {
    COMMENT: "/* Tilt of the camera. */ \\\n    WORD(tilt, 636) \\\n    " + COMMENT,
    "WORDS(reserved_636, 636, 6)": "WORDS(reserved_636, 640, 5)",
}
HOST = """
#include "ADE_ShotMentor_Records.h"
static_assert(offsetof(sm_tag_custom_info, tilt) == 636, "");
static_assert(offsetof(tag_custom_info, tilt) == 636, "");
static_assert(sizeof(((sm_tag_custom_info*)0)->reserved_636) == 20, "");
"""


class NewField(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.root = pathlib.Path(folder.name)
        for name in NEEDED:
            copy = shutil.copytree if (ROOT / name).is_dir() else shutil.copy
            copy(ROOT / name, cls.root / name)
        text = (cls.root / HEADER).read_text(encoding="utf-8")
        for old, new in CHANGES.items():
            assert text.count(old) == 1, old
            text = text.replace(old, new)
        (cls.root / HEADER).write_text(text, encoding="utf-8")
        command = [sys.executable, TOOL, "--root", cls.root]
        cls.done = subprocess.run(command, capture_output=True, text=True, check=False)

    def read(self, *path):
        return self.root.joinpath(*path).read_text(encoding="utf-8")

    def schema(self):
        return json.loads(self.read("Protocol", "preset.schema.json"))

    def test_takes_one_command(self):
        self.assertEqual((self.done.returncode, self.done.stdout, self.done.stderr), (0, "", ""))

    def test_is_in_both_structs(self):
        command = ["c++", "-std=c++17", "-fsyntax-only", "-x", "c++", f"-I{self.root / 'Src'}", "-"]
        done = subprocess.run(command, input=HOST, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def lines_of(self, *path):
        return self.read(*path).splitlines()

    def test_is_in_the_table_of_the_page(self):
        row = "| 636 | `tilt` | word | the camera's own code | a code like any other | both | Tilt of the camera. |"
        self.assertEqual(self.lines_of("Docs", "protocol.md").count(row), 1)

    def test_is_in_the_records_of_the_description(self):
        self.assertEqual(self.read("Protocol", "shotmentor.ksy").count("- id: tilt\n        type: s4\n"), 2)

    def test_is_in_the_dissector(self):
        lines = self.lines_of("Protocol", "shotmentor.lua")
        at = lines.index('    { name = "tilt", offset = 636, kind = "word", size = 4, count = 1,')
        self.assertEqual(lines[at + 1], '      meaning = "Tilt of the camera." },')

    def test_is_a_code_by_its_own_name_in_both_forms_of_the_schema(self):
        in_words, raw = self.schema()["then"], self.schema()["else"]
        for form in (in_words, raw):
            self.assertIn("tilt", form["properties"])
            self.assertIn("tilt", form["required"])
        integer = {"$ref": "#/definitions/integer"}
        self.assertEqual(raw["properties"]["tilt"], integer)
        self.assertEqual(in_words["properties"]["tilt"]["allOf"], [integer])

    def test_leaves_the_reserved_words_that_are_left(self):
        in_words, raw = self.schema()["then"], self.schema()["else"]
        for reserved in (in_words["properties"]["reserved"], raw["properties"]["reserved_636"]):
            self.assertEqual((reserved["minItems"], reserved["maxItems"]), (5, 5))

    def test_stays_out_of_the_schema_when_it_does_not_compile(self):
        path = self.root / "Desk" / "PresetFiles" / "Schema.cpp"
        text, before = path.read_text(encoding="utf-8"), self.read("Protocol", "preset.schema.json")
        path.write_text("#error no schema today\n", encoding="utf-8")
        command = [sys.executable, TOOL, "--root", self.root]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        path.write_text(text, encoding="utf-8")
        self.assertRegex(done.stderr, r"\AProtocol/preset.schema.json: cmake --build failed: .*no schema today\n\Z")
        self.assertEqual((done.returncode, self.read("Protocol", "preset.schema.json")), (1, before))


if __name__ == "__main__":
    unittest.main()
