"""What a person sees on a terminal: tables, help and progress at each width, wide characters, pictures."""

import fcntl
import json
import os
import re
import struct
import subprocess
import tempfile
import termios
import time
import unicodedata
import unittest

from desk import (
    LIST, PATIENCE, PHONE, PICTURE, REPLY, STORE, DeskTest, FakeCamera, environment_of_programs, list_reply,
    phone_record, picture, record_to_json, request, rich_record, run_on_terminal, run_phone,
)  # fmt: skip

ESCAPES = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")
WIDTHS = (30, 60, 80, 200)
COLUMNS = ["No", "Id", "Title", "Used", "by", "Mode", "Aperture", "Shutter", "ISO", "EV", "Style", "Balance"]


def columns_of(text):
    """What a terminal takes for a text, as Unicode's own tables tell it."""
    return sum(
        0 if unicodedata.category(c) in ("Mn", "Me") else 2 if unicodedata.east_asian_width(c) in "WF" else 1
        for c in text
    )


def shown(text):
    """The lines that stay on the terminal, without colours."""
    return [ESCAPES.sub("", line).rstrip("\r").rpartition("\r")[2] for line in text.split("\n")]


class OnATerminal(DeskTest):
    """A phone on a terminal, with cameras that hold what they are told."""

    TITLES = ("Morning", "日本海の朝", "🌅 dawn", "Cafe\u0301 noir")

    def records(self):
        return [
            phone_record(title.encode(), custom_id=number + 1, preset_num=number)
            for number, title in enumerate(self.TITLES)
        ]

    def fake(self, **more):
        answers = {LIST: list_reply(self.records()), **more}
        return FakeCamera(self.folder, lambda function, _: answers[function])

    def on_terminal(self, *arguments, code=0, **more):
        with self.fake() as camera:
            done = run_on_terminal(camera.url, *arguments, **more)
        self.assertEqual(done.returncode, code, done.text)
        return done.text

    def assertFits(self, text, width):
        for line in shown(text):
            if not line.startswith("left out for want of room"):  # what is said is a sentence, not a drawing
                self.assertLessEqual(columns_of(line), width, line)


class Tables(OnATerminal):
    def test_keep_their_columns_in_line_below_wide_titles(self):
        lines = shown(self.on_terminal("list", columns=200))
        at = columns_of(lines[0].partition("Mode")[0])
        for title, line in zip(self.TITLES, lines[1:]):
            self.assertIn(title, line)
            self.assertEqual(columns_of(line.partition("Program")[0]), at, line)

    def test_are_no_wider_than_the_terminal(self):
        for width in WIDTHS:
            for arguments in (("list",), ("list", "--raw"), ("show", 1), ("show", 2, "--raw")):
                self.assertFits(self.on_terminal(*arguments, columns=width), width)

    def test_leave_the_last_columns_out_and_name_them(self):
        text = self.on_terminal("list", columns=60)
        header, talk = shown(text)[0], shown(text)[-2]
        missing = re.fullmatch(r"left out for want of room: (.*); --width 0 shows all", talk).group(1)
        self.assertEqual(header.split() + missing.replace(",", "").split(), COLUMNS)
        self.assertIn("Balance", missing)

    def test_of_a_wide_terminal_leave_nothing_out_and_say_nothing(self):
        lines = shown(self.on_terminal("list", columns=200))
        self.assertEqual(lines[0].split(), COLUMNS)
        self.assertEqual(len(lines), 1 + len(self.TITLES) + 1)

    def test_of_a_width_that_was_asked_for_say_nothing(self):
        self.assertNotIn("left out", self.on_terminal("list", "--width", 60))

    def test_of_quiet_commands_say_nothing(self):
        self.assertNotIn("left out", self.on_terminal("list", "--quiet", columns=60))

    def test_that_are_piped_are_whole(self):
        with self.fake() as camera:
            done = run_phone(camera.url, "list")
        self.assertEnds(done, 0)
        lines = done.stdout.decode().splitlines()
        self.assertEqual(lines[0].split(), COLUMNS)
        for title, line in zip(self.TITLES, lines[1:]):
            self.assertIn(title, line)
        self.assertEqual(done.stderr, b"")


class HelpOnATerminal(DeskTest):
    """No line is wider than the terminal, and no word is lost."""

    def text(self, program, *arguments, columns):
        environment = environment_of_programs()
        whole = subprocess.run(
            [program, *arguments], capture_output=True, text=True, timeout=PATIENCE, env=environment
        )  # fmt: skip
        self.assertEqual((whole.returncode, whole.stderr), (0, ""))
        done = run_on_terminal("unix:/nobody", *arguments, columns=columns)
        self.assertEqual(done.returncode, 0)
        return whole.stdout, done.text

    def test_is_no_wider_than_the_terminal_and_says_the_same(self):
        for columns in (60, 80, 200):
            for arguments in (("--help",), *((command, "--help") for command in ("list", "store", "check"))):
                whole, text = self.text(PHONE, *arguments, columns=columns)
                for line in text.splitlines():
                    self.assertLessEqual(len(line), columns, line)
                self.assertEqual(text.replace(" \\\n", "\n").split(), whole.split())

    def test_breaks_examples_so_that_they_can_be_typed(self):
        _, text = self.text(PHONE, "rename", "--help", columns=60)
        example = text.partition("another title:\n")[2].partition("\n\n")[0]
        self.assertGreater(example.count("\\\n"), 0)
        script = "tool() { printf '%s|' \"$@\"; }\n" + example.replace("shotmentor-phone", "tool")
        printed = subprocess.run(["sh", "-c", script], capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(
            printed.stdout, "--connect|tcp:localhost:7700|rename|id:13|Dawn over the sea|", printed.stderr
        )  # fmt: skip


class StandardInputAndOutput(DeskTest):
    """A dash in the place of a file's name."""

    def setUp(self):
        super().setUp()
        self.sent = None
        self.preset = json.dumps(record_to_json(rich_record())).encode()
        self.image = picture(7)

    def answer(self, function, data):
        if function == STORE:
            self.sent = data[8:]
            return request(REPLY + STORE, struct.pack("<iiii", 1, 3, 9, 0))
        if function == PICTURE:
            return request(REPLY + PICTURE, struct.pack("<i", 1) + self.image)
        return list_reply([phone_record(custom_id=1)])

    def phone(self, *arguments, code=0, **more):
        with FakeCamera(self.folder, self.answer) as camera:
            done = subprocess.run(
                [os.path.abspath(PHONE), "--connect", camera.url, *map(str, arguments)],
                **{"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, **more},
                stderr=subprocess.PIPE,
                timeout=PATIENCE,
                env=environment_of_programs(),
            )
        self.assertEqual(done.returncode, code, done.stderr)
        self.assertLessEqual(done.stderr.count(b"\n"), 1)
        return done

    def send(self, *arguments, given, **more):
        with tempfile.TemporaryFile() as file:
            file.write(given)
            file.seek(0)
            return self.phone("store", *arguments, stdin=file, **more)

    def test_a_preset_comes_from_standard_input(self):
        self.send("-", self.file("p.jpg", self.image), given=self.preset)
        self.assertEqual(self.sent, rich_record() + self.image)

    def test_a_picture_comes_from_standard_input(self):
        self.send(self.file("p.json", self.preset), "-", given=self.image)
        self.assertEqual(self.sent, rich_record() + self.image)

    def test_a_pipe_is_read_to_its_end(self):
        writer = subprocess.Popen(
            ["sh", "-c", f"head -c 300 {self.file('p.jpg', self.image)}; sleep 0.3; tail -c +301 {self.folder}/p.jpg"],
            stdout=subprocess.PIPE,
        )
        self.phone("store", self.file("p.json", self.preset), "-", stdin=writer.stdout)
        writer.stdout.close()
        self.assertEqual((writer.wait(PATIENCE), self.sent), (0, rich_record() + self.image))

    def test_faults_of_it_are_told_of_standard_input(self):
        image = self.file("p.jpg", self.image)
        for arguments, given, word in (
            (("-", image), b"{", b"standard input"),
            (("-", image), bytes((1 << 20) + 1), b"standard input has 1048577 bytes"),
            ((self.file("p.json", self.preset), "-"), b"no picture", b"standard input is no JPEG"),
            ((self.file("p.json", self.preset), "-"), self.image[:-2], b"standard input is cut off"),
        ):
            self.assertIn(word, self.send(*arguments, given=given, code=2).stderr)
            self.assertIsNone(self.sent)

    def test_not_both_come_from_standard_input(self):
        done = self.send("-", "-", given=self.preset, code=2)
        self.assertIn(b"cannot both be standard input", done.stderr)
        self.assertIsNone(self.sent)

    def test_a_file_that_is_called_so_is_reached_by_its_path(self):
        self.file("-", self.preset)
        self.phone("store", "./-", self.file("p.jpg", self.image), cwd=self.folder)
        self.assertEqual(self.sent, rich_record() + self.image)

    def test_a_picture_goes_to_standard_output_and_talk_to_standard_error(self):
        for option in (("-o", "-"), ("-o-",), ("--output=-",)):
            done = self.phone("picture", 0, *option)
            self.assertEqual(done.stdout, self.image)
            self.assertEqual(done.stderr, b"%d bytes saved in standard output\n" % len(self.image))

    def test_a_picture_that_cannot_be_read_writes_nothing(self):
        self.image = b""
        self.assertEqual(self.phone("picture", 0, "-o", "-", code=9).stdout, b"")

    def test_json_and_a_picture_do_not_share_standard_output(self):
        done = self.phone("--json", "picture", 0, "-o", "-", code=2)
        self.assertEqual(done.stdout, b"")
        self.assertIn(b"--json", done.stderr)

    def test_a_terminal_is_given_no_picture(self):
        with FakeCamera(self.folder, self.answer) as camera:
            done = run_on_terminal(camera.url, "picture", 0, "-o", "-")
            self.assertEqual(camera.requests, [])
        self.assertEqual(done.returncode, 2)
        self.assertRegex(done.text, r"\Ashotmentor-phone: standard output is a terminal, [^\n]*\n\Z")

    def test_a_reader_that_goes_is_no_news(self):
        reader, writer = os.pipe()
        os.close(reader)
        done = self.phone("picture", 0, "-o", "-", stdout=writer, code=1)
        os.close(writer)
        self.assertEqual(done.stderr, b"")


class ProgressOnATerminal(DeskTest):
    """One line, at each width, of which nothing is left."""

    SIZE = 400000

    def setUp(self):
        super().setUp()
        self.image = picture(3, self.SIZE)
        self.narrow = None

    def pieces(self, reply):
        """The reply in ten packets; behind the fifth the terminal may change."""
        for number in range(10):
            if number == 5 and self.narrow:
                self.narrow()
            yield reply[number * len(reply) // 10 : (number + 1) * len(reply) // 10]
            time.sleep(0.02)

    def answer(self, function, data):
        if function == PICTURE:
            return self.pieces(request(REPLY + PICTURE, struct.pack("<i", 1) + self.image))
        return list_reply([phone_record(custom_id=1)])

    def drawn(self, columns, **more):
        """Each drawing of the line, without its colours, and what is written after the last one."""
        with FakeCamera(self.folder, self.answer) as camera:
            target = os.path.join(self.folder, "x.jpg")
            done = run_on_terminal(camera.url, "picture", 0, "-o", target, columns=columns, **more)
        self.assertEqual(done.returncode, 0, done.text)
        *drawings, rest = done.text.split("\x1b[J\r")
        self.assertGreater(len(drawings), 5)
        return [ESCAPES.sub("", drawing) for drawing in drawings], rest

    def test_is_narrower_than_the_terminal(self):
        for columns in (200, 60, 30, 10, 4, 1):
            for drawing in self.drawn(columns)[0]:
                self.assertLess(columns_of(drawing), max(columns, 1), drawing)
                self.assertNotIn("\n", drawing)

    def test_tells_what_there_is_room_for(self):
        for columns, form in (
            (80, r"picture \[ *\]   9 %   41 of 401 kB"), (60, r"picture \[ *\]   9 %   41 of 401 kB"),
            (30, r"picture   9 %   41 of 401 kB"), (20, r"picture   9 %"), (10, r"   9 %"), (4, r""),
        ):  # fmt: skip
            first = self.drawn(columns)[0][0].replace("=", " ")
            self.assertRegex(first, rf"\A{form}\Z")

    def test_is_erased_when_it_is_done(self):
        _, rest = self.drawn(80)
        self.assertEqual(rest, f"\x1b[J{self.SIZE} bytes saved in {self.folder}/x.jpg\n")

    def test_is_erased_before_an_error_is_told(self):
        def answer(function, _):
            reply = request(REPLY + PICTURE, struct.pack("<i", 1) + self.image)
            return (reply[: self.SIZE // 2],) if function == PICTURE else list_reply([phone_record(custom_id=1)])

        with FakeCamera(self.folder, answer) as camera:
            done = run_on_terminal(camera.url, "picture", 0, "-o", "/nowhere")
        self.assertEqual(done.returncode, 6)
        self.assertRegex(done.text, r"\x1b\[J\r\x1b\[Jshotmentor-phone: the camera closed[^\n\r\x1b]*\n\Z")

    def test_fits_a_terminal_that_is_made_narrower_while_it_runs(self):
        def narrow(terminal):
            self.narrow = lambda: fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 20, 0, 0))

        drawings, rest = self.drawn(80, with_terminal=narrow)
        self.assertGreater(columns_of(drawings[0]), 20)
        for drawing in drawings[-4:]:
            self.assertLess(columns_of(drawing), 20)
        self.assertTrue(rest.startswith("\x1b[J"))


if __name__ == "__main__":
    unittest.main()
