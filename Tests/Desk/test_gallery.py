"""The gallery of captures: it is what a camera does, and what other tools can read."""

import os
import pathlib
import subprocess
import sys
import unittest

from desk import CAMERA, DeskTest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
GALLERY = sorted((ROOT / "Protocol" / "captures").glob("*.btsnoop"))

sys.path.insert(0, os.fspath(ROOT / "Tests"))

import captures  # noqa: E402


class Kept:
    def __init__(self, path):
        self.path = path

    def bytes(self):
        return self.path.read_bytes()


class Gallery(DeskTest):
    def test_every_capture_comes_about_as_it_is_kept_and_the_page_shows_them(self):
        build = pathlib.Path(CAMERA).parent.parent
        command = [sys.executable, ROOT / "tools" / "make_gallery.py", build, "--check"]
        done = subprocess.run(command, capture_output=True, timeout=200, check=False)
        self.assertEqual(done.returncode, 0, done.stderr.decode())
        self.assertIn(f"ok: {len(GALLERY)} captures", done.stdout.decode())

    @unittest.skipUnless(captures.is_there(), "tshark is missing: install the Debian package tshark")
    def test_wireshark_finds_messages_in_every_capture_and_no_malformed_frame(self):
        for path in GALLERY:
            with self.subTest(capture=path.name):
                seen = captures.show(Kept(path), read=["-2"])
                self.assertEqual(seen.exit_code, 0, seen.errors)
                names = [node.get("name") for frame in seen.frames for node in frame.iter("field")]
                self.assertIn("shotmentor.function", names)
                # A hidden one comes with our own remarks on faulty messages; else a dissector ran out of bytes.
                shown = [proto.get("name") for frame in seen.frames for proto in frame if proto.get("hide") != "yes"]
                self.assertNotIn("_ws.malformed", shown)

    def test_a_preset_of_the_gallery_has_its_title_in_wireshark(self):
        if not captures.is_there():
            self.skipTest("tshark is missing: install the Debian package tshark")
        seen = captures.show(Kept(ROOT / "Protocol" / "captures" / "list.btsnoop"))
        titles = [title for frame in range(1, len(seen.frames) + 1) for title in seen.values(frame, "record.title")]
        self.assertEqual(titles, ["Dusk", "Golden hour", "Harbour"])


if __name__ == "__main__":
    unittest.main()
