"""The worked packets of Docs/protocol.md: a camera is sent each request of the page, and answers as the page says."""

import os
import pathlib
import re
import shlex
import struct
import sys
import unittest

from desk import (
    DELETE, PRESET_LIMIT, REPLY, STORE, UPDATE, Camera, Closed, DeskTest, Link, Silent, run_camera, store_result,
)  # fmt: skip

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = ROOT / "Docs" / "protocol.md"
PACKETS = ROOT / "Protocol" / "packets"
sys.path.insert(0, os.fspath(ROOT / "tools"))

import protocol_fields  # noqa: E402

HEXADECIMAL = r"[0-9a-f]{2}"
QUIET = 0.1  # seconds; a reply that comes later is in the place of the next one, and is seen there

# ---- What stands on the page -------------------------------------------------------------------------------


def bytes_of_file(name):
    """The bytes of a file of packets, without its comments."""
    lines = (PACKETS / name).read_text(encoding="utf-8").splitlines()
    return bytes.fromhex("".join(line.partition("#")[0] for line in lines))


def bytes_of(text):
    """The bytes of a line: those of a file, or digits, in which `00 x 48` stands for 48 bytes."""
    if text.startswith("... "):
        return bytes_of_file(text.removeprefix("... "))
    pieces = re.findall(rf"{HEXADECIMAL} x \d+|{HEXADECIMAL}", text)
    if " ".join(pieces) != text:
        raise AssertionError(f"Docs/protocol.md: {text!r} is neither a file nor hexadecimal digits")
    split = [piece.partition(" x ") for piece in pieces]
    return b"".join(bytes.fromhex(byte) * int(count or 1) for byte, _, count in split)


class Step:
    """What is between two blank lines: something that happens, a request, its reply. `sent` is None without a request,
    `answer` is empty where nothing comes, and None where the page does not say."""

    def __init__(self, line):
        self.line = line  # its first one on the page
        self.events = []
        self.sent = None
        self.answer = None

    def add(self, line):
        mark, text = line[0], re.split(r" {2,}", line[2:])[0]
        if mark in "$*":
            self.events.append((mark, text))
        elif mark == ">":
            self.sent = (self.sent or b"") + bytes_of(text)
        elif mark == "<":
            self.answer = (self.answer or b"") + (b"" if text == "nothing" else bytes_of(text))
        else:
            raise AssertionError(f"Docs/protocol.md: {line!r} begins with none of $ * > <")


def steps_of_page():
    """The steps in the blocks below the heading, in their order."""
    before, _, section = PAGE.read_text(encoding="utf-8").partition("## Worked packets\n")
    steps, fresh, inside = [], True, False
    for number, line in enumerate(section.splitlines(), before.count("\n") + 2):
        if line.startswith("```"):
            inside, fresh = line == "```text", True
        elif inside and not line:
            fresh = True
        elif inside:
            if fresh:
                steps.append(Step(number))
            steps[-1].add(line)
            fresh = False
    return steps


def function_of(data):
    return struct.unpack_from("<i", data)[0]


# ---- The camera --------------------------------------------------------------------------------------------


class Conversation(DeskTest):
    """Plays the page from its top to its end."""

    def setUp(self):
        super().setUp()
        self.serving = self.phone = None
        self.addCleanup(self.end)

    def end(self):
        if self.phone:
            self.phone.close()
        if self.serving and self.serving.process.poll() is None:
            self.serving.stop()
        self.serving = self.phone = None

    def run_line(self, line):
        """A line with `$`: a camera on a store, or a change of the store."""
        self.end()
        program, option, name, *rest = shlex.split(line)
        self.assertEqual((program, option), ("shotmentor-camera", "--store"))
        store = os.path.join(self.folder, name)
        if rest and not rest[0].startswith("--"):
            self.assertEnds(run_camera(store, *rest), 0)
        else:
            self.serving = Camera(store, *rest)
            self.phone = self.serving.link()

    def happen(self, text):
        """A line with `*`."""
        if text == "the phone disconnects, and connects again":
            self.phone.close()
            self.phone = self.serving.link()
        elif text == "another phone connects":
            self.other = Link(self.serving.url)
            self.addCleanup(self.other.close)
        elif text == "the phone stores Dusk and Noon":
            for data in self.stored:
                self.assertEqual(store_result(self.phone.ask(data))[0], 1)
        elif text == "the phone stores Dusk, until the camera holds 40 presets":
            for number in range(1, PRESET_LIMIT):  # it holds one already
                self.assertEqual(store_result(self.phone.ask(self.stored[0]))[:2], (1, number))
        else:
            self.fail(f"Docs/protocol.md: nobody knows how it is done: * {text}")

    def play(self, step):
        self.other = None
        for mark, text in step.events:
            if mark == "$":
                self.run_line(text)
            else:
                self.happen(text)
        if step.sent is not None:
            self.phone.send(step.sent)
        if step.answer:
            self.assertEqual((self.other or self.phone).receive().hex(" "), step.answer.hex(" "))
        elif step.sent is not None:
            self.assertTrue(self.phone.is_silent(QUIET), "there is an answer")
        if self.other:
            self.assertRaises(Closed, self.other.receive)

    def test_of_the_page_is_what_the_camera_says(self):
        steps = steps_of_page()
        # Dusk and Noon are the first two that the page stores.
        self.stored = [step.sent for step in steps if step.sent and function_of(step.sent) == STORE][:2]
        for step in steps:
            try:
                self.play(step)
            except (AssertionError, Closed, Silent) as fault:
                raise AssertionError(f"Docs/protocol.md:{step.line}: {fault}") from fault


# ---- The page itself ---------------------------------------------------------------------------------------


class Page(unittest.TestCase):
    """That the page leaves nothing out, so that the conversation above cannot pass for want of packets."""

    RESULT_BEARING = (REPLY + STORE, REPLY + UPDATE, REPLY + DELETE)

    @classmethod
    def setUpClass(cls):
        cls.steps = steps_of_page()
        cls.requests = [step for step in cls.steps if step.sent is not None]
        cls.replies = [step.answer for step in cls.steps if step.answer]

    def test_has_each_request(self):
        functions = {function.value for function in protocol_fields.read().functions()}
        self.assertEqual(functions - {function_of(step.sent) for step in self.requests}, set())

    def test_has_each_reply_and_what_the_desk_adds(self):
        expected = {REPLY + number for number in (1, 2, 3, 4, 5, 0xFF)}
        self.assertEqual({function_of(reply) for reply in self.replies}, expected)

    def test_has_each_result_that_a_phone_can_make_the_desks_camera_answer(self):
        bearing = [reply for reply in self.replies if function_of(reply) in self.RESULT_BEARING]
        results = {struct.unpack_from("<i", reply, 8)[0] for reply in bearing}
        self.assertEqual(results, {1, -2, -3, -4, -6, -7, -8})

    def test_says_of_each_request_what_it_gets(self):
        self.assertEqual([step.line for step in self.requests if step.answer is None], [])

    def test_has_requests_without_a_reply(self):
        self.assertGreater(len([step for step in self.requests if not step.answer]), 8)

    def test_tells_the_length_of_each_reply(self):
        for step in self.steps:
            if step.answer:
                with self.subTest(line=step.line):
                    self.assertEqual(struct.unpack_from("<i", step.answer, 4)[0], len(step.answer))

    def test_shows_every_file_of_packets(self):
        shown = set(re.findall(r"^[<>] \.\.\. (\S+)", PAGE.read_text(encoding="utf-8"), re.M))
        self.assertEqual(shown, set(os.listdir(PACKETS)))


class Files(unittest.TestCase):
    """The comments of the records, against the field list."""

    def places(self, name):
        """Where the comments say that fields are, and where they are: offset and name of each."""
        at, said, found = 0, [], []
        for line in (PACKETS / name).read_text(encoding="utf-8").splitlines():
            digits, _, comment = line.partition("#")
            match = re.match(r" (\d+) (\w+)", comment)
            if digits.strip() and match:
                said.append((int(match[1]), match[2]))
                found.append((at, match[2]))
            at += len(bytes.fromhex(digits))
        return said, found, at

    def test_of_records_say_where_the_fields_are(self):
        for name, size in (("dusk-sent.hex", 744), ("dusk-listed.hex", 740)):
            with self.subTest(name=name):
                said, found, at = self.places(name)
                self.assertEqual((said, at), (found, size))
                fields = [(field.offset, field.name) for field in protocol_fields.fields() if field.offset < size]
                self.assertEqual(set(fields) - set(said), set())


if __name__ == "__main__":
    unittest.main()
