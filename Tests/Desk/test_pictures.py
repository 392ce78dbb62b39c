"""Pictures on their way to a camera: `store` sends whole ones alone."""

import json
import os
import struct
import unittest

from desk import (
    REPLY, STORE, DeskTest, FakeCamera, measure_phone, record_to_json, request, rich_record, sample_store,
)  # fmt: skip
from jpegs import BASELINE, PROGRESSIVE, baseline, head, noise_picture, progressive, scan

MEGABYTE = 1 << 20
LITTLE_MEMORY = 100 * MEGABYTE
READING_MEMORY = 260 * MEGABYTE  # a picture in its decoder (180 MB), the program, which a sanitizer makes larger
READING_TIME = 2  # seconds
LONGEST_PICTURE = 600000 - 8 - 744


class Sending(DeskTest):
    """`store` against a camera that takes everything."""

    def setUp(self):
        super().setUp()
        self.preset = self.file("preset.json", json.dumps(record_to_json(rich_record())))

    def send(self, image, *options, memory=READING_MEMORY, seconds=2 * READING_TIME):
        """Stores a picture within bounds, and returns how that ended. `self.sent` is the picture that came."""
        answer = request(REPLY + STORE, struct.pack("<iiii", 1, 2, 33, 0))
        path = self.file("picture.jpg", image) if isinstance(image, bytes) else image
        with FakeCamera(self.folder, lambda *_: answer) as camera:
            done = measure_phone(camera.url, "store", self.preset, path, *options)
        head = request(STORE, rich_record())
        self.sent = b"".join(camera.requests)[len(head) :]
        self.assertLess(done.peak, memory)
        self.assertLess(done.seconds, seconds)
        return done

    def assertSent(self, image, **more):
        done = self.send(image, **more)
        self.assertEnds(done, 0)
        self.assertEqual(self.sent, image)
        self.assertEqual(done.stderr, b"")

    def assertRefused(self, image, *options, word="nothing is stored", **more):
        """One line that says it, and nothing has been sent."""
        done = self.send(image, *options, **more)
        self.assertEnds(done, 2)
        self.assertEqual(self.sent, b"")
        self.assertEqual(done.stderr.count(b"\n"), 1, done.stderr)
        self.assertIn(word.encode(), done.stderr)


class WholePictures(Sending):
    """A picture is read to its end before a byte of it is sent."""

    def test_baseline_and_progressive_ones_are_sent(self):
        for options in ((), ("-progressive",), ("-grayscale",), ("-restart", "1"), ("-arithmetic",), ("-rgb",)):
            with self.subTest(options=options):
                self.assertSent(noise_picture(64, 48, *options), memory=LITTLE_MEMORY)

    def test_one_that_is_cut_is_refused(self):
        for options in ((), ("-progressive",)):
            whole = noise_picture(64, 48, *options)
            for size in (len(whole) - 1, len(whole) - 2, len(whole) - 3, len(whole) // 2, 800):
                with self.subTest(options=options, size=size):
                    self.assertRefused(whole[:size], memory=LITTLE_MEMORY)

    def test_one_that_a_download_has_filled_with_zeros_is_refused(self):
        whole = noise_picture(64, 48)
        self.assertRefused(whole[: len(whole) // 2].ljust(len(whole), b"\0"), word="is cut off or broken")

    def test_one_with_damaged_data_is_refused(self):
        whole = noise_picture(64, 48, "-restart", "1")
        self.assertEqual((whole.count(b"\xff\xd0"), whole.count(b"\xff\xd1")), (1, 1))
        swapped = whole.replace(b"\xff\xd0", b"\xff\xd9", 1)
        self.assertRefused(swapped, word="found marker 0xd9")
        self.assertRefused(whole.replace(b"\xff\xd0", b"\xff\xd5", 1), word="nothing is stored")

    def test_what_follows_its_end_is_sent_with_it(self):
        whole = noise_picture(64, 48)
        self.assertSent(whole + b"\0" * 1000)
        self.assertSent(whole + whole[:300])
        samples = os.path.join(sample_store(), "pictures")
        with open(os.path.join(samples, sorted(os.listdir(samples))[0]), "rb") as file:
            streams = file.read()
        self.assertEqual(streams.count(b"\xff\xd8\xff\xdb"), 4)
        self.assertSent(streams)

    def test_the_largest_ones_of_cameras_are_read_to_their_end(self):
        for image in (baseline(6000, 4000), progressive(6000, 4000), progressive(4016, 6048)):
            self.assertSent(image)
            broken = image[:-1000] + b"\xff\xd9"
            self.assertRefused(broken)

    def test_of_larger_ones_the_markers_are_read(self):
        large = baseline(8000, 4000)
        self.assertLess(len(large), LONGEST_PICTURE)
        self.assertSent(large, memory=LITTLE_MEMORY)
        self.assertSent(large + b"\0" * 1000, memory=LITTLE_MEMORY)
        self.assertRefused(large[:-2], memory=LITTLE_MEMORY, word="its end is missing")
        self.assertRefused(large[:150], memory=LITTLE_MEMORY, word="nothing is stored")

    def test_a_few_bytes_that_claim_much_cost_little(self):
        for kind in (BASELINE, PROGRESSIVE):
            for width, height in ((65500, 15600), (6000, 4000)):
                with self.subTest(kind=hex(kind), width=width):
                    bomb = head(kind, width, height, (1, 2, 3)) + scan([1, 2, 3], 0, 63 if kind == BASELINE else 0)
                    self.assertRefused(bomb.ljust(300, b"\0"))


if __name__ == "__main__":
    unittest.main()
