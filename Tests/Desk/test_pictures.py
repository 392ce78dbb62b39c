"""Pictures on their way to a camera: `store` sends whole ones alone, and makes large ones smaller."""

import json
import os
import re
import struct
import subprocess
import unittest

from desk import (
    PHONE, REPLY, STORE, DeskTest, FakeCamera, measure_phone, picture, record_to_json, request, rich_record,
    sample_store,
)  # fmt: skip
from jpegs import (
    BASELINE, END, PROGRESSIVE, START, baseline, coarse_noise, head, noise_picture, progressive, scan, segment,
)  # fmt: skip

MEGABYTE = 1 << 20
LITTLE_MEMORY = 100 * MEGABYTE
READING_MEMORY = 260 * MEGABYTE  # a picture in its decoder (180 MB), the program, which a sanitizer makes larger
READING_TIME = 2  # seconds
LONGEST_PICTURE = 600000 - 8 - 744
LONGEST_FILE_TO_FIT = 64 * MEGABYTE
# The file, the decoder (180 MB), the rows, the program. A sanitizer's own memory comes to a quarter of that.
with open(PHONE or "/dev/null", "rb") as _program:
    FITTING_MEMORY = 340_000_000 * (5 if b"__asan_init" in _program.read() else 4) // 4
FITTING_TIME = 10  # seconds
EXIF, COLOR_PROFILE = 0xE1, 0xE2  # the markers of their segments


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
            done = measure_phone(camera.url, "store", "--unchecked", self.preset, path, *options)
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

    def assertRefused(self, image, *options, word="nothing is stored", code=2, **more):
        """One line that says it, and nothing has been sent."""
        done = self.send(image, *options, **more)
        self.assertEnds(done, code)
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


def decoded(jpeg):
    """Width, height, and rows of pixels that another decoder makes of a JPEG without a warning."""
    pixels = subprocess.run(["djpeg", "-pnm"], input=jpeg, stdout=subprocess.PIPE, check=True).stdout
    width, height, rows = re.match(rb"P[56]\n(\d+) (\d+)\n255\n(.*)", pixels, re.DOTALL).groups()
    return int(width), int(height), rows


def with_segments(jpeg, *segments):
    return START + b"".join(segments) + jpeg.removeprefix(START)


def exif(orientation, order):
    """A segment as cameras write it: the orientation behind another entry of the directory."""
    entries = struct.pack(order + "HHIHH", 0x0103, 3, 1, 6, 0) + struct.pack(
        order + "HHIHH", 0x0112, 3, 1, orientation, 0
    )
    tiff = {"<": b"II", ">": b"MM"}[order] + struct.pack(order + "HIH", 42, 8, 2) + entries + bytes(4)
    return segment(EXIF, b"Exif\0\0" + tiff)


class FittedPictures(Sending):
    """`--fit` makes a picture as small as a request needs it, and no smaller."""

    NOISE = noise_picture(1600, 1200)

    def fit(self, image, **more):
        """The fitted picture that comes, and the line about it as a match with its numbers by name."""
        more = {"memory": FITTING_MEMORY, "seconds": FITTING_TIME, **more}
        done = self.send(image, "--fit", **more)
        self.assertEnds(done, 0)
        self.assertLessEqual(len(self.sent), LONGEST_PICTURE)
        return self.sent, re.fullmatch(
            r"(?P<name>\S+): (?P<before>\d+x\d+), [\d.]+ [KM]B, sent as (?P<after>\d+x\d+), (?P<kilobytes>\d+) KB\n",
            done.stderr.decode(),
        )

    def assertFitted(self, image, width, height, **more):
        """It comes in eighths of its width and height, and the line says so. Returns its rows and how many eighths."""
        sent, line = self.fit(image, **more)
        new_width, new_height, rows = decoded(sent)
        eighths = [n for n in range(1, 9) if (-(-width * n // 8), -(-height * n // 8)) == (new_width, new_height)]
        self.assertTrue(eighths, f"{width}x{height} became {new_width}x{new_height}")
        self.assertEqual(line["before"], f"{width}x{height}")
        self.assertEqual(line["after"], f"{new_width}x{new_height}")
        self.assertLessEqual(abs(int(line["kilobytes"]) * 1000 - len(sent)), 500)
        return rows, eighths[-1]

    def test_one_of_24_megapixels_becomes_smaller_in_little_time(self):
        for options in ((), ("-progressive",)):
            image = noise_picture(6000, 4000, *options, contrast=24)
            self.assertGreater(len(image), 4 * LONGEST_PICTURE)
            self.assertFitted(image, 6000, 4000)
            self.assertGreater(len(self.sent), 0.8 * LONGEST_PICTURE)

    def test_one_that_needs_it_least_keeps_its_size(self):
        image = noise_picture(1000, 1000, quality=95)
        self.assertGreater(len(image), LONGEST_PICTURE)
        self.assertEqual(self.assertFitted(image, 1000, 1000)[1], 8)

    def test_all_colours_and_shapes_are_taken(self):
        for width, height, *options in (
            (1601, 1203), (1203, 1601, "-grayscale"), (1600, 1200, "-rgb"), (1600, 1200, "-sample", "1x1"),
            (1600, 1200, "-arithmetic"), (20000, 90), (90, 20000),
        ):  # fmt: skip
            with self.subTest(width=width, options=options):
                image = noise_picture(width, height, *options, quality=98)
                self.assertGreater(len(image), LONGEST_PICTURE)
                rows, _ = self.assertFitted(image, width, height)
                row = rows[: len(rows) // decoded(self.sent)[1]]
                half = len(row) // 2
                self.assertLess(sum(row[:half]) / half, 80)
                self.assertGreater(sum(row[half:]) / half, 175)

    def test_one_that_fits_is_sent_as_it_is(self):
        image = picture(1, LONGEST_PICTURE)
        done = self.send(image, "--fit")
        self.assertEnds(done, 0)
        self.assertEqual((self.sent, done.stderr), (image, b""))

    def test_one_that_is_a_byte_too_large_is_fitted(self):
        self.assertEqual(self.assertFitted(picture(1, LONGEST_PICTURE + 1), 8, 8)[1], 8)

    def test_its_orientation_stays(self):
        for order in "<>":
            for orientation in (2, 6, 8):
                with self.subTest(order=order, orientation=orientation):
                    image = with_segments(self.NOISE, segment(EXIF, b"http://ns.adobe.com/xap/1.0/\0" + bytes(99)),
                                          exif(orientation, order))  # fmt: skip
                    self.assertFitted(image, 1600, 1200)
                    directory = struct.pack("<2sHIHHHIHHI", b"II", 42, 8, 1, 0x0112, 3, 1, orientation, 0, 0)
                    self.assertEqual(self.sent.count(segment(EXIF, b"Exif\0\0" + directory)), 1)

    def test_exif_data_that_say_nothing_of_it_are_left_out(self):
        whole = exif(6, "<")
        for data in (exif(1, "<"), exif(9, ">"), exif(0, "<"), segment(EXIF, whole[4:30]), segment(EXIF, b"Exif\0\0"),
                     segment(EXIF, b"Exif\0\0II" + b"\xff" * 60000), segment(EXIF, b"")):  # fmt: skip
            self.assertFitted(with_segments(self.NOISE, data), 1600, 1200)
            self.assertNotIn(b"Exif", self.sent)

    def test_its_colour_profile_stays(self):
        profile = segment(COLOR_PROFILE, b"ICC_PROFILE\0\1\1" + bytes(range(256)) * 12)
        self.assertFitted(with_segments(self.NOISE, profile), 1600, 1200)
        self.assertIn(profile, self.sent)

    def test_what_follows_its_end_is_left_out(self):
        sent, _ = self.fit(self.NOISE + self.NOISE)
        self.assertEqual(sent, self.fit(self.NOISE)[0])

    def test_one_in_the_colours_of_a_printer_is_refused(self):
        tables = segment(0xDB, b"\0" + b"\1" * 64)
        cmyk = head(BASELINE, 8, 8, (1, 2, 3, 4)) + scan([1, 2, 3, 4], 0, 63) + b"\0" + END
        self.assertSent(with_segments(cmyk, tables))
        self.assertRefused(with_segments(cmyk, *[tables] * 9000), "--fit", word="CMYK")

    def test_one_that_is_cut_or_broken_is_refused(self):
        for options in ((), ("-progressive",)):
            image = noise_picture(1600, 1200, *options)
            for broken in (image[:-2], image[:-1000], image[: LONGEST_PICTURE + 1], image[:-1000] + b"\xff\xd9"):
                self.assertRefused(broken, "--fit", word="is cut off or broken")

    def test_without_the_option_a_large_one_is_refused_with_its_name(self):
        self.assertRefused(self.NOISE, word="--fit")
        self.assertRefused(self.NOISE, word=f"{len(self.NOISE)} bytes, and at most {LONGEST_PICTURE}")


class FittingHasABudget(Sending):
    """A file is anybody's: what `--fit` reads of it has bounds."""

    def assertTooMuch(self, image, *words, **more):
        for word in words:
            self.assertRefused(image, "--fit", word=word, **more)

    def test_a_file_of_more_than_64_MiB_is_refused_unread(self):
        path = self.file("long", b"")
        os.truncate(path, 2 << 30)
        self.assertTooMuch(path, str(2 << 30), str(LONGEST_FILE_TO_FIT), memory=LITTLE_MEMORY)

    def test_a_file_without_end_is_given_up(self):
        self.assertTooMuch("/dev/zero", f"more than {LONGEST_FILE_TO_FIT} bytes")

    def test_what_is_no_file_is_refused(self):
        fifo = os.path.join(self.folder, "fifo")
        os.mkfifo(fifo)
        self.assertTooMuch(self.folder, "it is a folder", code=1, memory=LITTLE_MEMORY)
        self.assertTooMuch(fifo, "nothing came for 5 s", code=1, memory=LITTLE_MEMORY, seconds=5 + READING_TIME)

    def test_a_long_file_that_is_no_picture_is_refused(self):
        self.assertTooMuch(bytes(LONGEST_FILE_TO_FIT), "is no JPEG")

    def test_one_of_more_than_100_megapixels_is_refused(self):
        self.assertTooMuch(baseline(10001, 10000), "100 megapixels", "10001x10000", memory=LITTLE_MEMORY)

    def test_one_of_100_megapixels_is_fitted(self):
        image = baseline(10000, 10000)
        self.assertGreater(len(image), LONGEST_PICTURE)
        self.assertEnds(self.send(image, "--fit", memory=FITTING_MEMORY, seconds=FITTING_TIME), 0)
        # 28 megapixels are the most that are kept: 5000 by 5000 are less, and 6250 by 6250 more.
        self.assertEqual(decoded(self.sent)[:2], (5000, 5000))

    def test_one_whose_decoder_needs_most_of_the_memory_is_fitted(self):
        image = progressive(6800, 4100) + bytes(LONGEST_FILE_TO_FIT - MEGABYTE)
        self.assertEnds(self.send(image, "--fit", memory=FITTING_MEMORY, seconds=FITTING_TIME), 0)
        self.assertEqual(decoded(self.sent)[:2], (6800, 4100))

    def test_one_whose_decoder_needs_too_much_memory_is_refused(self):
        self.assertTooMuch(progressive(10000, 10000), "takes more than 180 MB", memory=LITTLE_MEMORY)

    def test_one_that_takes_too_long_is_given_up(self):
        # Noise that takes many steps to become small enough, in the code that takes longest to read.
        image = noise_picture(6800, 4000, "-arithmetic", "-progressive", contrast=256, quality=98)
        self.assertTooMuch(image, "or 10 s to read", memory=FITTING_MEMORY, seconds=FITTING_TIME + READING_TIME)

    def test_scans_without_end_are_refused(self):
        image = head(PROGRESSIVE, 5000, 5000, (1,)) + 50000 * scan([1], 0, 0)
        self.assertTooMuch(image.ljust(LONGEST_PICTURE + 1, b"\0"), "nothing is stored")

    def test_noise_that_no_scale_takes_away_is_fitted_at_a_low_quality(self):
        image = coarse_noise(10000, 10000)
        self.assertEnds(self.send(image, "--fit", memory=FITTING_MEMORY, seconds=FITTING_TIME), 0)
        self.assertEqual(decoded(self.sent)[:2], (1250, 1250))
        self.assertGreater(len(self.sent), 0.9 * LONGEST_PICTURE)
        table = self.sent.index(b"\xff\xdb\0\x43\0") + 5
        self.assertGreater(self.sent[table], 10)  # of a quality of 70: 0.6 of the standard's 16


if __name__ == "__main__":
    unittest.main()
