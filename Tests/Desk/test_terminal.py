"""What a person sees on a terminal: tables, help and progress at each width, wide characters, pictures."""

import re
import subprocess
import unicodedata
import unittest

from desk import (
    LIST, PATIENCE, PHONE, DeskTest, FakeCamera, environment_of_programs, list_reply, phone_record, run_on_terminal,
    run_phone,
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


if __name__ == "__main__":
    unittest.main()
