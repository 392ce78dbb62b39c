"""Cameras that want the phone's memory or its time: pictures that are bombs, answers without end, bytes that
trickle."""

import itertools
import json
import os
import struct
import time
import unittest

from desk import (
    DELETE, LIST, PICTURE, REPLY, STORE, UPDATE, DeskTest, FakeCamera, delete_reply, list_reply,
    measure_phone, most_of_phone, phone_record, picture, record_to_json, request, rich_record, run_on_terminal,
)  # fmt: skip
from jpegs import (
    ARITHMETIC_PROGRESSIVE, BASELINE, PROGRESSIVE, START, baseline, head, progressive, scan, segment, slow_picture,
)  # fmt: skip

MEGABYTE = 1 << 20
LONGEST_ANSWER = 16 * MEGABYTE  # of any kind: a picture
# What the phone may take in all: a picture in its decoder (180 MB), the answer that holds it, the program.
MEMORY_BUDGET = 260 * MEGABYTE
# Without a picture to draw: twice the longest answer and the program, which a sanitizer makes larger.
MEMORY_WITHOUT_DRAWING = 100 * MEGABYTE
DRAWING_TIME = 2  # seconds

# ---- Pictures ----------------------------------------------------------------------------------------------


class Pictures(DeskTest):
    """Drawing a picture has a budget of memory and of time, whatever the picture says of itself."""

    def draw(self, image, *arguments, timeout=30.0):
        answers = {
            LIST: list_reply([phone_record(custom_id=3)]),
            PICTURE: request(REPLY + PICTURE, struct.pack("<i", 3) + image),
        }
        with FakeCamera(self.folder, lambda function, _: answers[function]) as camera:
            arguments = arguments or ("show", 0, "--picture")
            done = run_on_terminal(camera.url, *arguments, columns=100, timeout=timeout)
        self.assertEqual(done.returncode, 0, done.text)
        self.assertLess(done.peak, most_of_phone(MEMORY_BUDGET))
        self.assertLess(done.seconds, 2 * DRAWING_TIME)
        return done

    def assertDrawn(self, image):
        text = self.draw(image).text
        self.assertNotIn("not a picture", text)
        self.assertRegex(text, r"\x1b\[[0-9;]*38;2;")

    def assertNotDrawn(self, image):
        done = self.draw(image)
        self.assertIn("(not a picture that can be drawn)", done.text)
        return done

    def test_a_baseline_picture_of_24_megapixels_is_drawn(self):
        self.assertDrawn(baseline(6000, 4000))
        self.assertDrawn(baseline(4016, 6048, components=(1,)))

    def test_a_progressive_picture_of_24_megapixels_is_drawn(self):
        self.assertDrawn(progressive(6000, 4000))
        self.assertDrawn(progressive(4016, 6048))

    def test_a_line_of_pixels_is_drawn(self):
        for width, height in ((65500, 1), (1, 65500), (1, 1)):
            with self.subTest(width=width, height=height):
                self.assertDrawn(baseline(width, height))
                self.assertDrawn(progressive(width, height))

    def test_a_few_bytes_that_claim_a_gigapixel_are_not_drawn(self):
        for kind in (BASELINE, PROGRESSIVE, ARITHMETIC_PROGRESSIVE):
            with self.subTest(kind=hex(kind)):
                bomb = head(kind, 65500, 15600, (1, 2, 3)) + scan([1, 2, 3], 0, 63 if kind == BASELINE else 0)
                done = self.assertNotDrawn(bomb.ljust(200, b"\0"))
                self.assertLess(done.peak, MEMORY_WITHOUT_DRAWING)

    def test_a_baseline_picture_in_several_scans_counts_as_one_that_is_kept_whole(self):
        bomb = head(BASELINE, 65500, 15600, (1, 2, 3)) + scan([1], 0, 63)
        self.assertNotDrawn(bomb)

    def test_a_picture_of_more_scans_than_anybody_writes_is_not_drawn(self):
        self.assertNotDrawn(head(PROGRESSIVE, 5000, 5000, (1,)) + 50000 * scan([1], 0, 0))

    def test_a_picture_that_takes_too_long_is_given_up(self):
        self.draw(slow_picture())

    def test_a_header_of_markers_alone_is_read_in_no_time(self):
        for filler in (segment(0xFE, b""), segment(0xC4, b"\0" + bytes(16)), b"\xff"):
            with self.subTest(filler=filler):
                self.assertNotDrawn(START + filler * ((LONGEST_ANSWER - 100) // len(filler)))

    def test_each_picture_of_a_list_has_the_budget_and_its_memory_is_given_back(self):
        bomb = head(PROGRESSIVE, 65500, 15600, (1, 2, 3)) + scan([1, 2, 3], 0, 0)
        answers = itertools.cycle([progressive(6000, 4000), bomb])
        records = [phone_record(custom_id=3)] * 6

        def answer(function, _):
            if function == LIST:
                return list_reply(records)
            return request(REPLY + PICTURE, struct.pack("<i", 3) + next(answers))

        with FakeCamera(self.folder, answer) as camera:
            done = run_on_terminal(camera.url, "list", "--pictures", timeout=30)
        self.assertEqual(done.returncode, 0)
        self.assertEqual(done.text.count("not a picture"), 3)
        self.assertLess(done.peak, most_of_phone(MEMORY_BUDGET))


# ---- Answers -----------------------------------------------------------------------------------------------


class TalkativeCamera(FakeCamera):
    """Talks after every request, that of a phone that leaves as well."""

    def _serve_one(self, phone):
        first = phone.recv(1 << 20)
        for packet in self.answer(struct.unpack_from("<i", first)[0], first) if first else ():
            phone.send(packet)
        return bool(first)


class Answers(DeskTest):
    """An answer has as many bytes as its kind can have, and comes in bounded time."""

    RECORDS = [phone_record(b"One", custom_id=31), phone_record(b"Two", custom_id=32, preset_num=1)]
    LONGEST = {
        LIST: 28 + 40 * 744, PICTURE: LONGEST_ANSWER, STORE: 24, UPDATE: 12, DELETE: 20 + 40 * 744 + 16,
    }  # fmt: skip

    def setUp(self):
        super().setUp()
        preset = self.file("p.json", json.dumps(record_to_json(rich_record())))
        self.saved = os.path.join(self.folder, "saved.jpg")
        self.commands = {
            LIST: ("list",),
            PICTURE: ("picture", 1, "-o", self.saved),
            STORE: ("store", "--unchecked", preset, self.file("p.jpg", picture(1))),
            UPDATE: ("rename", 1, "Renamed", "--server-id", 1),
            DELETE: ("delete", 1),
        }

    def ask(self, function, answer, *options, timeout=30.0):
        """Runs the command of a request against a camera that gives this answer to it."""

        def answer_to(asked, _):
            return answer() if asked == function else list_reply(self.RECORDS)

        with FakeCamera(self.folder, answer_to) as camera:
            return measure_phone(camera.url, *options, *self.commands[function], timeout=timeout)

    def assertRefused(self, done, *parts):
        self.assertEnds(done, 6)
        self.assertEqual(done.stderr.count(b"\n"), 1, done.stderr)
        for part in parts:
            self.assertIn(str(part).encode(), done.stderr)
        self.assertLess(done.peak, MEMORY_WITHOUT_DRAWING)

    def test_an_answer_longer_than_its_kind_is_refused_at_its_header(self):
        for function, longest in self.LONGEST.items():
            for announced in (longest + 1, 1 << 30, 0x7FFFFFFF):
                with self.subTest(function=function, announced=announced):
                    header = struct.pack("<ii", REPLY + function, announced)
                    done = self.ask(function, lambda: header)
                    self.assertRefused(done, announced, longest)
                    self.assertLess(done.seconds, 4)

    def test_an_answer_longer_than_its_kind_is_refused_while_it_still_comes(self):
        def flood(function):
            yield struct.pack("<ii", REPLY + function, 1 << 30)
            for _ in range(1000):
                yield bytes(65536)

        for function in self.LONGEST:
            with self.subTest(function=function):
                self.assertRefused(self.ask(function, lambda: flood(function)))

    def test_an_answer_as_long_as_its_kind_is_waited_for(self):
        for function, longest in self.LONGEST.items():
            with self.subTest(function=function):
                done = self.ask(function, lambda: struct.pack("<ii", REPLY + function, longest), "--timeout", 0.3)
                self.assertEnds(done, 4)

    def test_a_delete_answer_of_forty_kept_presets_is_taken(self):
        records = [phone_record(custom_id=number + 31) for number in range(40)]
        done = self.ask(DELETE, lambda: delete_reply(-8, records, kept=2))
        self.assertEnds(done, 18)

    def test_the_longest_picture_is_taken_and_held_about_once(self):
        packet = bytes(range(256)) * 256  # 64 KiB

        def longest():
            yield struct.pack("<iii", REPLY + PICTURE, LONGEST_ANSWER, 32)
            for _ in range(LONGEST_ANSWER // len(packet) - 1):
                yield packet
            yield packet[12:]

        done = self.ask(PICTURE, longest)
        self.assertEnds(done, 0)
        self.assertEqual(os.path.getsize(self.saved), LONGEST_ANSWER - 12)
        with open(self.saved, "rb") as file:
            self.assertEqual(file.read(len(packet)), packet)
        small = self.ask(PICTURE, lambda: request(REPLY + PICTURE, struct.pack("<i", 32) + picture(1)))
        self.assertLess(done.peak - small.peak, 1.5 * LONGEST_ANSWER)

    def test_a_flood_of_frames_leaves_a_leaving_phone_as_small_as_it_was(self):
        def quiet(*_):
            return ()

        def flood(*_):
            frame = request(REPLY + UPDATE, bytes(4))
            packet = frame * (65536 // len(frame))
            while True:
                yield packet

        peaks = []
        for answer in (quiet, flood):
            with TalkativeCamera(self.folder, answer) as camera:
                done = measure_phone(camera.url, "--timeout", 2, "leave")
            self.assertEnds(done, 0)
            self.assertLess(done.seconds, 5)
            peaks.append(done.peak)
        self.assertLess(peaks[1] - peaks[0], 8 * MEGABYTE)

    def test_a_leaving_phone_refuses_a_frame_that_fits_no_answer(self):
        def flood(*_):
            yield struct.pack("<ii", REPLY + PICTURE, 1 << 30)
            while True:
                yield bytes(65536)

        with TalkativeCamera(self.folder, flood) as camera:
            done = measure_phone(camera.url, "leave")
        self.assertRefused(done, 1 << 30)

    def test_bytes_that_trickle_do_not_draw_an_answer_out_for_ever(self):
        def trickle(answer):
            for byte in answer:
                time.sleep(0.2)
                yield bytes([byte])

        answers = {
            LIST: list_reply(self.RECORDS),
            PICTURE: struct.pack("<iii", REPLY + PICTURE, 1000, 32) + bytes(988),
            STORE: request(REPLY + STORE, bytes(16)),
        }
        for function, answer in answers.items():
            with self.subTest(function=function):
                # Twice half a second, and half a second for each 64 KiB.
                done = self.ask(function, lambda: trickle(answer), "--timeout", 0.5)
                self.assertEnds(done, 4)
                self.assertEqual(done.stderr.count(b"\n"), 1, done.stderr)
                self.assertIn(b"--timeout", done.stderr)
                self.assertLess(done.seconds, 3)
                self.assertGreater(done.seconds, 0.9)

    def test_a_long_answer_that_comes_slowly_is_waited_for_in_proportion(self):
        image = picture(1, 1 << 20)  # 16 times half a second, and twice that

        def slowly():
            answer = request(REPLY + PICTURE, struct.pack("<i", 32) + image)
            for start in range(0, len(answer), 65536):
                time.sleep(0.2)
                yield answer[start : start + 65536]

        done = self.ask(PICTURE, slowly, "--timeout", 0.5)
        self.assertEnds(done, 0)
        self.assertGreater(done.seconds, 3)

    def test_a_camera_that_takes_a_request_byte_by_byte_is_given_up(self):
        class Sipping(FakeCamera):
            def _serve_one(self, phone):
                time.sleep(0.1)  # packets of one byte: each is taken late
                return bool(phone.recv(1 << 20))

        image = self.file("large.jpg", picture(1, 590000))
        with Sipping(self.folder, None) as camera:
            done = measure_phone(camera.url, "--timeout", 0.5, "--mtu", 1000, *self.commands[STORE][:-1], image)
        self.assertEnds(done, 4)
        self.assertIn(b"--timeout", done.stderr)
        self.assertLess(done.seconds, 12)  # 1 s, and half a second for each of 9 times 64 KiB


if __name__ == "__main__":
    unittest.main()
