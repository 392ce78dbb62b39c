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
from jpegs import encoded

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
            return self.phone("store", "--unchecked", *arguments, stdin=file, **more)

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
        self.phone("store", "--unchecked", self.file("p.json", self.preset), "-", stdin=writer.stdout)
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
        self.phone("store", "--unchecked", "./-", self.file("p.jpg", self.image), cwd=self.folder)
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


class Pictures(DeskTest):
    """Drawn as the terminal has it: with characters, side by side, or as graphics."""

    COLORS = {"red": (255, 0, 0), "green": (0, 255, 0), "blue": (0, 0, 255)}
    TITLES = ["Alps", "日本海の朝 " * 3, "C" * 51]
    THUMBNAIL, GAP = 36, 2  # columns

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.images = [
            encoded(b"P6", 90, 60, (bytes(color) * 90 for _ in range(60)), "-quality", "90")
            for color in cls.COLORS.values()
        ]

    def draw(self, *arguments, images=None, columns=80, **more):
        images = images or self.images
        records = [
            phone_record(self.TITLES[number % 3].encode()[:51], custom_id=number + 1) for number in range(len(images))
        ]

        def answer(function, data):
            if function == LIST:
                return list_reply(records)
            number = struct.unpack_from("<i", data, 8)[0]
            return request(REPLY + PICTURE, struct.pack("<i", number) + images[number - 1])

        with FakeCamera(self.folder, answer) as camera:
            done = run_on_terminal(camera.url, *(arguments or ("list", "--pictures")), columns=columns, **more)
        self.assertEqual(done.returncode, 0, done.text)
        return done.text

    def grid(self, text):
        """For each line its characters, each in as many places as it has columns, and the style of each place."""
        lines = []
        for line in text.partition("\n\n")[2].split("\n"):
            cells, style = [], ""
            for escape, character in re.findall(r"\x1b\[([0-9;?]*[A-Za-z])|(.)", line.rpartition("\r")[2]):
                style = escape or style
                cells += [(character, style)] * columns_of(character)
            lines.append(cells)
        return lines

    def block(self, grid, top, left):
        """The colours that a thumbnail shows: of its cells one by one."""
        cells = [cell for line in grid[top : top + 12] for cell in line[left : left + self.THUMBNAIL]]
        names = []
        for _, style in cells:
            for name, color in self.COLORS.items():
                if re.search(";".join(r"(?:25[0-5]|24\d)" if c else r"\d" for c in color) + r"(?:;48|m|$)", style):
                    names.append(name)
        return set(names)

    def test_stand_side_by_side_where_there_is_room_for_them(self):
        for columns, places in (
            (200, [(0, 0), (0, 38), (0, 76)]), (112, [(0, 0), (0, 38), (0, 76)]), (111, [(0, 0), (0, 38), (14, 0)]),
            (80, [(0, 0), (0, 38), (14, 0)]), (60, [(0, 0), (14, 0), (28, 0)]), (36, [(0, 0), (14, 0), (28, 0)]),
        ):  # fmt: skip
            grid = self.grid(self.draw(columns=columns))
            for number, (line, column) in enumerate(places):
                with self.subTest(columns=columns, number=number):
                    caption = "".join(character for character, _ in grid[line][column : column + self.THUMBNAIL])
                    self.assertTrue(caption.startswith(f"{number} {self.TITLES[number][0]}"), caption)
                    self.assertEqual(self.block(grid, line + 1, column), {list(self.COLORS)[number]})

    def test_are_no_wider_than_the_terminal(self):
        for columns in (200, 112, 80, 60, 30, 10):
            for line in self.grid(self.draw(columns=columns)):
                self.assertLessEqual(len(line), columns)

    def test_have_captions_as_wide_as_themselves(self):
        grid = self.grid(self.draw(columns=200))
        line = "".join(c for c, _ in grid[0])
        # Of "1 日本海の朝 日本海の朝 日本海の朝" 35 columns have room, of "2 CCC" 33 of its letters.
        self.assertIn("2 " + "C" * 33 + "…", line)
        self.assertTrue(line.rstrip().endswith("C…"))

    def test_that_are_none_leave_their_place_to_a_word(self):
        text = self.draw(images=[b"", b"no picture", self.images[2]], columns=200)
        first = shown(text.partition("\n\n")[2])[1]
        self.assertTrue(
            first.startswith("(the camera cannot read the picture)  (not a picture that can be drawn)"), first
        )
        self.assertEqual(self.block(self.grid(text), 1, 76), {"blue"})

    def test_take_the_shape_of_the_terminals_characters(self):
        # 90x60 pixels in 36 columns of 10 pixels, 360, are 240 pixels high: 12 rows of 20, 10.4 of 23, 8.6 of 28.
        for height, rows in ((20, 12), (23, 10), (28, 8)):
            text = self.draw(images=self.images[:1], pixels=(800, 40 * height))
            lines = [line for line in text.partition("\n\n")[2].split("\n") if "\x1b[" in line and "[J" not in line]
            self.assertEqual(len(lines), rows)

    GRAPHICS = (
        ({"TERM": "xterm-kitty"}, "\x1b_G"),
        ({"TERM": "foot"}, "\x1bP"),
        ({"TERM": "xterm-256color", "TERM_PROGRAM": "iTerm.app", "LC_TERMINAL": "iTerm2"}, "\x1b]1337;File="),
    )

    def test_are_graphics_where_the_terminal_has_them(self):
        for environment, begin in self.GRAPHICS:
            for arguments, count in ((("list", "--pictures"), 3), (("show", 0, "--picture"), 1)):
                text = self.draw(*arguments, environment=environment, columns=120)
                self.assertEqual(len(re.findall(re.escape(begin) + r"(?!m=)", text)), count, environment)
                self.assertNotRegex(text, r"\x1b\[[0-9;]*[34]8;")

    def test_as_graphics_stand_below_their_captions(self):
        for environment, begin in self.GRAPHICS:
            lines = self.draw(environment=environment, columns=120).partition("\n\n")[2].split("\n")
            for number in range(3):
                at = next(k for k, line in enumerate(lines) if line.startswith(f"{number} "))
                self.assertTrue(lines[at + 1].rpartition("\r")[2].startswith(("\x1b", begin)))
                self.assertIn(begin, lines[at + 1])

    def test_are_characters_where_these_are_asked_for(self):
        for environment, begin in self.GRAPHICS:
            text = self.draw("list", "--pictures", "--symbols", environment=environment)
            self.assertNotIn(begin, text)
            self.assertRegex(text, r"\x1b\[[0-9;]*48;[25];")

    def test_are_graphics_in_the_pixels_of_the_terminal(self):
        # 36 columns of 10 pixels: 360 pixels wide, 240 high as the picture's shape has it.
        text = self.draw(images=self.images[:1], environment={"TERM": "xterm-kitty"}, pixels=(800, 800))
        self.assertRegex(text, r"\x1b_G[^;]*s=360,v=240")

    def test_as_graphics_are_no_larger_than_a_terminal_can_mean(self):
        text = self.draw(
            images=self.images[:1], environment={"TERM": "xterm-kitty"}, pixels=(65535, 65535), rows=2, columns=40
        )
        width, height = map(int, re.search(r"\x1b_G[^;]*s=(\d+),v=(\d+)", text).groups())
        self.assertLessEqual((width, height), (36 * 32, 12 * 64))


if __name__ == "__main__":
    unittest.main()
