"""What a built host relies on cannot change unseen: each change is planted in a copy of the sources."""

import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
MACHINE = "amd64"


class AbiTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.copy = pathlib.Path(folder.name) / "copy"
        shutil.copytree(ROOT, self.copy, ignore=shutil.ignore_patterns(".git", "build", "corpus", "__pycache__"))

    def plant(self, file, old, new):
        path = self.copy / file
        text = path.read_text()
        self.assertEqual(text.count(old), 1, f"{old!r} in {file}")
        path.write_text(text.replace(old, new))

    def say_version(self, version):
        self.plant("CMakeLists.txt", "project(shotmentor VERSION 1.0.0 ", f"project(shotmentor VERSION {version} ")

    def check(self):
        run = subprocess.run(
            [self.copy / "tools" / "check_abi.sh", MACHINE],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        return run.returncode, run.stdout

    def assert_fails(self, *told):
        code, output = self.check()
        self.assertEqual(code, 1, output)
        for text in told:
            self.assertIn(text, output)

    def assert_passes(self):
        code, output = self.check()
        self.assertEqual(code, 0, output)

    # ---- Nothing changed

    def test_passes_when_nothing_has_changed(self):
        self.assert_passes()

    def test_passes_when_a_comment_has_changed(self):
        self.plant("Src/ADE_ShotMentor.h", "/* older unconfirmed replies, the oldest first */", "/* others */")
        self.assert_passes()

    # ---- What breaks a built host

    def move_a_field(self):
        message = "    void* data;           /* the reply; see bt_send_msgs for how long it stays valid */\n"
        length = "    int length;           /* bytes to send; 0 for the two error replies to a picture request */\n"
        self.plant("Src/ADE_ShotMentor_Services.h", message + length, length + message)
        self.plant("Src/ADE_ShotMentor_Services.h", "offsetof(bt_msg_info, data) == 80", "sizeof(int) == 4")
        self.plant("Src/ADE_ShotMentor_Services.h", "offsetof(bt_msg_info, length) == 80 + sizeof(void*)", "true")

    def test_fails_when_a_field_has_moved(self):
        self.move_a_field()
        self.assert_fails("bt_msg_info", "breaks hosts that were built", "make it 2.0.0")

    def test_fails_when_a_field_has_moved_and_only_the_second_number_went_up(self):
        self.move_a_field()
        self.say_version("1.1.0")
        self.assert_fails("breaks hosts that were built", "make it 2.0.0")

    def test_passes_when_a_field_has_moved_and_the_first_number_says_so(self):
        self.move_a_field()
        self.say_version("2.0.0")
        self.assert_passes()

    def test_fails_when_an_entry_has_another_parameter(self):
        for file in ["Src/ADE_ShotMentor.h", "Src/ADE_ShotMentor_Manager.cpp"]:
            path = self.copy / file
            text = path.read_text()
            self.assertIn("ADE_ShotMentor_Result_Manager(const void*", text)
            path.write_text(re.sub(r"(ADE_ShotMentor_Result_Manager\(const void\*[^,]*, )int", r"\1short", text))
        self.assert_fails("ADE_ShotMentor_Result_Manager", "breaks hosts that were built")

    def test_fails_when_a_service_is_asked_with_another_parameter(self):
        self.plant(
            "Src/ADE_ShotMentor_Services.h",
            "__ui_set_shotmentor_state(int state)",
            "__ui_set_shotmentor_state(short state)",
        )
        self.assert_fails("__ui_set_shotmentor_state", "breaks hosts that were built")

    def test_fails_when_a_symbol_is_lost(self):
        self.plant("Src/libshotmentor.symbols", "\nADE_PRO_GetModel\n", "\n")
        self.assert_fails("ADE_PRO_GetModel", "breaks hosts that were built")

    def test_fails_when_a_record_that_travels_has_another_type_in_it(self):
        self.plant(
            "Src/ADE_ShotMentor_Records.h",
            "    int32_t del_preset; /*",
            "    uint32_t del_preset; /*",
        )
        self.assert_fails("sm_delete_pair", "breaks hosts that were built")

    # ---- What adds to it

    def add_a_symbol(self):
        self.plant("Src/libshotmentor.symbols", "\nADE_PRO_GetModel\n", "\nADE_PRO_GetModel\nADE_PRO_GetNothing\n")
        path = self.copy / "Src" / "ADE_ShotMentor_Approximation.cpp"
        exported = '__attribute__((visibility("default")))'
        path.write_text(path.read_text() + f'\nextern "C" {exported} int ADE_PRO_GetNothing() {{ return 0; }}\n')

    def test_fails_when_a_symbol_is_added(self):
        self.add_a_symbol()
        self.assert_fails("ADE_PRO_GetNothing", "has additions", "make it 1.1.0")

    def test_passes_when_a_symbol_is_added_and_the_second_number_says_so(self):
        self.add_a_symbol()
        self.say_version("1.1.0")
        self.assert_passes()

    # ---- The description is whole

    def test_describes_every_service_and_every_record(self):
        headers = [path.read_text() for path in (ROOT / "Src").glob("ADE_ShotMentor*.h") if "include" not in path.parts]
        outside = (ROOT / "ABI" / "outside.c").read_text()
        services = (ROOT / "Src" / "ADE_ShotMentor_Services.h").read_text()
        declared = set(re.findall(r"^\w+ (\w+)\((?:\w|,|\*| |\.)*\)?", services, re.MULTILINE))
        self.assertEqual(declared, set(re.findall(r"^SERVICE\((\w+)\)", outside, re.MULTILINE)))
        records = {
            name for text in headers for name in re.findall(r"^typedef (?:struct|enum) (\w+) \{", text, re.MULTILINE)
        }
        nested = {"sm_color", "sm_cs_info"}
        self.assertEqual(records - nested, set(re.findall(r"^RECORD\((\w+)\)", outside, re.MULTILINE)))


if __name__ == "__main__":
    unittest.main()
