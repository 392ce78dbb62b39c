"""The phones of Examples/phone.py and Examples/phone.mjs, which others copy: what they do to a camera, seen by another
phone, and how they fail."""

import os
import socket
import struct
import subprocess
import threading
import time
import unittest

import parsers

from desk import (
    LIST, PATIENCE, REPLY, Camera, DeskTest, environment_of_programs, get, list_reply, phone_record, picture,
    picture_request, request, run_camera, store_request, store_result,
)  # fmt: skip

EXAMPLES = parsers.ROOT / "Examples"
PHOTO = picture(5, 40000)  # more than a packet of the phones has


def setUpModule():
    parsers.make_or_skip("test_examples.py")


class Liar:
    """A camera on TCP that answers whatever it is asked with the same bytes, and closes the link."""

    def __init__(self, answer):
        self.answer = answer
        self.server = socket.create_server(("127.0.0.1", 0))
        self.server.settimeout(PATIENCE)
        self.url = f"tcp:127.0.0.1:{self.server.getsockname()[1]}"
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        phone, _ = self.server.accept()
        with phone:
            phone.recv(1 << 20)
            phone.sendall(self.answer)

    def close(self):
        self.thread.join(PATIENCE)
        self.server.close()


class Example:
    """What both can do, on a camera that has two presets."""

    COMMAND = []

    def setUp(self):
        super().setUp()
        self.serving = Camera(self.store, "--empty", kind=self.KIND)
        self.addCleanup(self.serving.kill)
        self.pictures = [picture(1), picture(2)]
        for title, image in zip((b"First", b"Second"), self.pictures):
            record = phone_record(title, server_id=70)
            self.assertEqual(store_result(self.serving.ask(store_request(record, image)))[0], 1)

    def run_example(self, *arguments, url=None, environment=None):
        command = [*self.COMMAND, url or self.serving.url, *map(os.fspath, arguments)]
        return subprocess.run(
            command, stdin=subprocess.DEVNULL, capture_output=True, text=True, cwd=self.folder,
            timeout=30, env=environment_of_programs(**(environment or {})),
        )  # fmt: skip

    def done(self, *arguments):
        """Runs a command that must succeed; a camera learns a moment late that the last phone has gone."""
        end = time.monotonic() + PATIENCE
        done = self.run_example(*arguments)
        while "another phone" in done.stderr and time.monotonic() < end:
            done = self.run_example(*arguments)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def assertRefused(self, says, *arguments, **more):
        end = time.monotonic() + PATIENCE
        done = self.run_example(*arguments, **more)
        while "another phone" in done.stderr and "another phone" not in says and time.monotonic() < end:
            done = self.run_example(*arguments, **more)
        self.assertRegex(done.stderr, rf"\A{self.NAME}: {says}[^\n]*\n\Z")
        self.assertEqual((done.returncode, done.stdout), (1, ""))

    def titles(self):
        return [get(record, "title").rstrip(b"\0") for record in self.serving.presets()]

    def photo(self, data=PHOTO):
        return self.file("photo.jpg", data)

    # ---- What they do ----

    def test_lists_the_presets_by_number_id_and_title(self):
        self.assertEqual(self.done("list"), "  0  id 1  First\n  1  id 2  Second\n")

    def test_fetches_the_picture_of_a_preset(self):
        self.done("fetch", "1", "second.jpg")
        with open(os.path.join(self.folder, "second.jpg"), "rb") as file:
            self.assertEqual(file.read(), self.pictures[1])
        self.assertEqual(sorted(os.listdir(self.folder)), ["second.jpg", "store"])

    def test_stores_a_plain_preset_under_a_title(self):
        self.assertEqual(self.done("store", "Dusk é", self.photo()), "stored as preset 2, id 3\n")
        record = self.serving.presets()[2]
        self.assertEqual(get(record, "title").rstrip(b"\0"), "Dusk é".encode())
        self.assertEqual([get(record, name) for name in ("mode", "ev_step", "made_id")], [1, 50, 0x40])
        self.assertEqual(self.serving.ask(picture_request(3))[12:], PHOTO)

    def test_stores_a_record_from_a_file(self):
        path = self.file("record", phone_record(b"Filed", photosize=7))
        self.done("store", path, self.photo())
        record = self.serving.presets()[2]
        self.assertEqual((get(record, "title").rstrip(b"\0"), get(record, "photosize")), (b"Filed", 7))

    def test_stores_the_longest_request(self):
        image = picture(6, 600000 - 8 - 744)
        self.done("store", "Long", self.photo(image))
        self.assertEqual(self.serving.ask(picture_request(3))[12:], image)

    def test_renames_a_preset_and_keeps_its_id_on_the_server(self):
        self.done("rename", "0", "Dawn")
        self.assertEqual(self.titles(), [b"Dawn", b"Second"])
        self.assertEqual(get(self.serving.presets()[0], "server_id"), 70)

    def test_deletes_a_preset(self):
        self.done("delete", "0")
        self.assertEqual(self.titles(), [b"Second"])

    # ---- How they fail ----

    def test_refuses_a_preset_that_there_is_not(self):
        for arguments in (["fetch", "2", "x"], ["rename", "2", "x"], ["delete", "-1"]):
            self.assertRefused("no preset -?[12]; the camera has 2", *arguments)

    def test_refuses_commands_that_it_has_not(self):
        for arguments in ([], ["lists"], ["constructor"], ["list", "1"], ["delete"]):
            self.assertRefused("usage: ", *arguments)

    def test_refuses_addresses_that_are_none(self):
        for url in ("tcp:127.0.0.1", "tcp::4660", "tcp:127.0.0.1:65536", "rfcomm:1", ""):
            self.assertRefused(".* give tcp:HOST:PORT", "list", url=url or "x")

    def test_refuses_titles_records_and_pictures_that_no_camera_takes(self):
        short = self.file("short", bytes(99))
        self.assertRefused("the title has 52 bytes; 51 are the most", "store", "x" * 52, self.photo())
        self.assertRefused("the title has 52 bytes; 51 are the most", "rename", "0", "é" * 26)
        self.assertRefused(".*short has 99 bytes; a record has 744", "store", short, self.photo())
        self.assertRefused(".*short has 99 bytes; a picture has at least 100", "store", "x", short)
        self.assertRefused(".*no-such-file", "store", "x", "no-such-file")
        self.assertRefused("600001 bytes are too many", "store", "x", self.photo(bytes(600001 - 744)))
        self.assertEqual(self.titles(), [b"First", b"Second"])

    def test_tells_the_cameras_refusal_by_its_name(self):
        self.serving.stop()
        self.assertEqual(run_camera(self.store, "link", "CUSTOM1", "0").returncode, 0)
        self.serving = Camera(self.store, kind=self.KIND)
        self.addCleanup(self.serving.kill)
        self.assertRefused("the camera refuses: opened_err", "delete", "0")

    def test_says_that_the_camera_serves_another_phone(self):
        with self.serving.link():
            self.assertRefused("the camera serves another phone", "list")

    def test_says_that_there_is_no_camera(self):
        self.serving.stop()
        self.assertRefused(".*(refused|REFUSED|No such file)", "list")

    def test_says_how_the_parser_is_made(self):
        self.assertRefused(".*tools/compile_protocol.sh", "list", environment={"SHOTMENTOR_PARSERS": self.folder})

    def test_says_what_a_false_answer_is_and_leaves_the_file_as_it_was(self):
        path = self.file("kept.jpg", b"kept")
        answers = {
            "closed early": list_reply([phone_record()])[:500],
            "a total of 7": struct.pack("<ii", REPLY + LIST, 7),
            "a total below 0": struct.pack("<ii", REPLY + LIST, -1),
            "another reply": request(REPLY + 4, struct.pack("<i", 1)),
            "a number that there is not": request(77),
            "41 presets": list_reply([phone_record()] * 41),
            "no bytes": b"",
            "a list without its end": request(REPLY + LIST, bytes(12) + struct.pack("<ii", 1, 2)),
        }
        for name, answer in answers.items():
            with self.subTest(name):
                liar = Liar(answer)
                self.addCleanup(liar.close)
                self.assertRefused(".+", "fetch", "0", path, url=liar.url)
        with open(path, "rb") as file:
            self.assertEqual(file.read(), b"kept")

    def test_shows_no_control_characters_of_a_camera(self):
        liar = Liar(list_reply([phone_record(b"\x1b[2Jred\xff\x9b", custom_id=4)]))
        self.addCleanup(liar.close)
        done = self.run_example("list", url=liar.url)
        self.assertEqual((done.stdout.replace("\ufffd", "?"), done.stderr), ("  0  id 4  ?[2Jred??\n", ""))


class PhoneInPython(Example, DeskTest):
    NAME, COMMAND, KIND = "phone.py", [parsers.PYTHON, "-B", EXAMPLES / "phone.py"], "tcp"


class PhoneInPythonOnAUnixSocket(Example, DeskTest):
    NAME, COMMAND, KIND = "phone.py", [parsers.PYTHON, "-B", EXAMPLES / "phone.py"], "unix"


class PhoneInJavaScript(Example, DeskTest):
    NAME, COMMAND, KIND = "phone.mjs", ["node", EXAMPLES / "phone.mjs"], "tcp"

    def test_says_that_it_has_no_unix_sockets(self):
        self.assertRefused(
            "'unix:/tmp/x' is no camera that node can reach; give tcp:HOST:PORT", "list", url="unix:/tmp/x"
        )


if __name__ == "__main__":
    unittest.main()
