"""The drawing of a terminal in the README shows what the programs print."""

import os
import subprocess
import unittest

from desk import CAMERA, FIRST_START, PHONE, DeskTest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DRAW = os.path.join(ROOT, "tools", "draw_terminal.py")
DRAWING = os.path.join(ROOT, "Docs", "terminal.svg")
# The tool is run by the system's Python, whatever runs this.
HAS_EMULATOR = subprocess.run(["/usr/bin/python3", "-c", "import pyte"], stderr=subprocess.DEVNULL).returncode == 0


@unittest.skipUnless(HAS_EMULATOR, "not installed: python3-pyte")
class Drawing(DeskTest):
    def draw(self, *arguments):
        return subprocess.run(
            [DRAW, CAMERA, PHONE, *arguments], capture_output=True, text=True, timeout=2 * FIRST_START
        )  # fmt: skip

    def changed(self, before, after):
        with open(DRAWING, encoding="utf-8") as file:
            text = file.read()
        self.assertEqual(text.count(before), 1)
        return self.file("terminal.svg", text.replace(before, after))

    def test_shows_what_the_programs_print(self):
        done = self.draw("--check")
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_is_the_same_each_time(self):
        drawings = []
        for name in ("one.svg", "other.svg"):
            self.assertEqual(self.draw(os.path.join(self.folder, name)).returncode, 0)
            with open(os.path.join(self.folder, name), "rb") as file:
                drawings.append(file.read())
        self.assertEqual(drawings[0], drawings[1])

    def test_with_another_text_is_refused(self):
        done = self.draw("--check", self.changed(">Night street<", ">Night streets<"))
        self.assertEqual(done.returncode, 1)
        self.assertIn("Night streets", done.stderr)

    def test_with_the_picture_elsewhere_is_refused(self):
        done = self.draw("--check", self.changed(" picture 0,", " picture 1,"))
        self.assertEqual(done.returncode, 1)
        self.assertIn("the picture lies at", done.stderr)


if __name__ == "__main__":
    unittest.main()
