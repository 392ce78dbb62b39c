"""PNG files on their way to a camera: `store --fit` makes JPEG files of them, whatever their pixels are."""

import itertools
import random
import struct
import unittest
import zlib

from jpegs import segment

from pngs import (
    GREY, GREY_ALPHA, PALETTE, RGB, RGB_ALPHA, SIGNATURE, chunk, header, png, png_of_rows,
)  # fmt: skip
from test_pictures import (
    EXIF, FITTING_MEMORY, FITTING_TIME, LITTLE_MEMORY, LONGEST_FILE_TO_FIT, LONGEST_PICTURE, READING_TIME, Sending,
    decoded,
)  # fmt: skip

# A sanitizer's own memory counts as the program's, and so does its time: it watches each pixel.
SANITIZED = FITTING_MEMORY > 340_000_000
LITTLE = LITTLE_MEMORY * (2 if SANITIZED else 1)
in_the_programs_own_time = unittest.skipIf(SANITIZED, "a sanitizer takes longer than a large picture may")
NEAR = 4  # by how much a JPEG of a high quality may change what has the same colour for 16 pixels


def noise_png(width, height, contrast=64):
    """Dark in its left half, bright in its right, the more apart the less its contrast is."""
    noise = random.Random(1)
    dark = bytes(value * contrast // 256 for value in range(256))
    bright = bytes(255 - value for value in dark)
    half = 3 * (width // 2)
    rows = (
        noise.randbytes(half).translate(dark) + noise.randbytes(3 * width - half).translate(bright)
        for _ in range(height)
    )
    return png_of_rows(width, height, rows)


class Fitting(Sending):
    def fitted(self, image, **more):
        """Width, height and the pixels of what comes, in rows of bytes."""
        more = {"memory": FITTING_MEMORY, "seconds": FITTING_TIME, **more}
        done = self.send(image, "--fit", **more)
        self.assertEnds(done, 0)
        self.assertLessEqual(len(self.sent), LONGEST_PICTURE)
        self.said = done.stderr.decode()
        return decoded(self.sent)


class KindsOfPixels(Fitting):
    """Each kind that a PNG may have comes with the colours that it shows."""

    # Left above, right above, left below and right below; grey ones where a kind has no colours.
    COLORS = ((255, 0, 0), (0, 255, 0), (0, 0, 255), (200, 100, 50))
    GREYS = (0, 85, 170, 255)

    def assertShown(self, image, expected):
        """The four squares of 16 by 16 pixels, each of which has the colours that are expected in its middle."""
        width, height, rows = self.fitted(image)
        self.assertEqual((width, height), (32, 32))
        size = len(rows) // 32 // 32
        self.assertEqual(size, len(expected[0]))
        for number, color in enumerate(expected):
            at = ((number // 2 * 16 + 8) * 32 + number % 2 * 16 + 8) * size
            for found, value in zip(rows[at : at + size], color):
                self.assertLessEqual(abs(found - value), NEAR, (number, rows[at : at + size], color))

    @staticmethod
    def square(x, y):
        return x // 16 + 2 * (y // 16)

    def test_grey_of_each_depth(self):
        for depth, interlaced in itertools.product((1, 2, 4, 8, 16), (False, True)):
            most = (1 << depth) - 1
            greys = [value * most // 255 for value in self.GREYS]
            image = png(32, 32, lambda x, y, g=greys: (g[self.square(x, y)],), GREY, depth, interlaced)
            with self.subTest(depth=depth, interlaced=interlaced):
                self.assertShown(image, [(value * 255 // most,) for value in greys])

    def test_colours_of_each_depth(self):
        for depth, interlaced in itertools.product((8, 16), (False, True)):
            scale = 257 if depth == 16 else 1
            image = png(
                32, 32, lambda x, y, s=scale: [s * c for c in self.COLORS[self.square(x, y)]], RGB, depth, interlaced
            )
            with self.subTest(depth=depth, interlaced=interlaced):
                self.assertShown(image, self.COLORS)

    def test_a_palette_of_each_depth(self):
        colors = chunk(b"PLTE", b"".join(map(bytes, self.COLORS)))
        for depth, interlaced in itertools.product((2, 4, 8), (False, True)):
            image = png(32, 32, lambda x, y: (self.square(x, y),), PALETTE, depth, interlaced, before=colors)
            with self.subTest(depth=depth, interlaced=interlaced):
                self.assertShown(image, self.COLORS)

    def test_what_is_transparent_becomes_white(self):
        opacities = (255, 0, 128, 255)
        # 128 of 255 of a colour, and 127 of white: 0 becomes 127, and 255 stays.
        expected = ((255, 0, 0), (255, 255, 255), (127, 127, 255), (200, 100, 50))
        for depth, interlaced in itertools.product((8, 16), (False, True)):
            scale = 257 if depth == 16 else 1

            def pixel(x, y, s=scale):
                return [s * c for c in (*self.COLORS[self.square(x, y)], opacities[self.square(x, y)])]

            with self.subTest(depth=depth, interlaced=interlaced):
                self.assertShown(png(32, 32, pixel, RGB_ALPHA, depth, interlaced), expected)

    def test_what_is_transparent_in_grey_becomes_white(self):
        opacities = (255, 0, 128, 255)
        image = png(
            32, 32, lambda x, y: (self.GREYS[self.square(x, y)], opacities[self.square(x, y)]), GREY_ALPHA
        )  # fmt: skip
        # (170 * 128 + 255 * 127) / 255 = 212.3
        self.assertShown(image, [(0,), (255,), (212,), (255,)])

    def test_what_a_palette_or_a_colour_makes_transparent_becomes_white(self):
        colors = chunk(b"PLTE", b"".join(map(bytes, self.COLORS))) + chunk(b"tRNS", b"\xff\0\xff")
        expected = [(255, 0, 0), (255, 255, 255), (0, 0, 255), (200, 100, 50)]
        self.assertShown(png(32, 32, lambda x, y: (self.square(x, y),), PALETTE, 8, before=colors), expected)
        unseen = chunk(b"tRNS", struct.pack(">HHH", 0, 255, 0))
        self.assertShown(png(32, 32, lambda x, y: self.COLORS[self.square(x, y)], RGB, 8, before=unseen), expected)


class Pngs(Fitting):
    GREY_SQUARE = png(32, 32, lambda x, y: (99,), GREY)

    def test_become_a_jpeg_also_where_they_are_small(self):
        self.assertEqual(self.fitted(self.GREY_SQUARE)[:2], (32, 32))
        self.assertRegex(self.said, r"\A\S+: 32x32, 0 KB, sent as 32x32, \d KB\n\Z")

    def test_are_refused_without_the_option_which_is_named(self):
        self.assertRefused(self.GREY_SQUARE, word="is a PNG, and the camera takes JPEG files; --fit makes it one")
        self.assertRefused(self.GREY_SQUARE + bytes(LONGEST_PICTURE), word="--fit")

    def test_of_one_pixel_are_taken(self):
        for kind, pixel in ((GREY, (7,)), (RGB_ALPHA, (1, 2, 3, 4))):
            for interlaced in (False, True):
                image = png(1, 1, lambda x, y, p=pixel: p, kind, 8, interlaced)
                self.assertEqual(self.fitted(image)[:2], (1, 1))

    def test_that_are_too_large_become_eighths_of_themselves(self):
        image = noise_png(2001, 1503)
        width, height, rows = self.fitted(image)
        eighths = [n for n in range(1, 9) if (-(-2001 * n // 8), -(-1503 * n // 8)) == (width, height)]
        self.assertTrue(eighths, (width, height))
        self.assertLess(eighths[0], 8)
        row = rows[: len(rows) // height]
        half = len(row) // 2
        self.assertLess(sum(row[: half - 9]) / (half - 9), 80)
        self.assertGreater(sum(row[half + 9 :]) / (len(row) - half - 9), 175)

    def test_become_averages_of_their_pixels_where_they_become_smaller(self):
        # Columns of black and white in turn are too much for a request until each new pixel is one of each: a half.
        row = bytes((0, 255)) * 2000
        width, height, rows = self.fitted(png_of_rows(4000, 3000, itertools.repeat(row, 3000), GREY))
        self.assertEqual((width, height), (2000, 1500))
        self.assertLessEqual((min(rows), max(rows)), (128 + NEAR, 128 + NEAR))
        self.assertGreaterEqual(min(rows), 127 - NEAR)

    def test_keep_what_they_show_in_its_place_where_they_become_smaller(self):
        # 8000 by 4000 are 32 megapixels; 28 are kept: seven eighths of the width and height.
        row = bytes(x * 255 // 8000 for x in range(8000))
        width, height, rows = self.fitted(png_of_rows(8000, 4000, itertools.repeat(row, 4000), GREY))
        self.assertEqual((width, height), (7000, 3500))
        for y in (0, 1000, 3499):
            for x in range(0, 7000, 100):
                self.assertLessEqual(abs(rows[7000 * y + x] - x * 8 // 7 * 255 // 8000), NEAR, (x, y))

    def test_are_no_darker_at_their_edges_where_they_become_smaller(self):
        # Of 8001 by 4001 pixels, seven eighths are 7000.9 by 3500.9: the last new ones are cut.
        width, height, rows = self.fitted(png_of_rows(8001, 4001, itertools.repeat(bytes([200]) * 8001, 4001), GREY))
        self.assertEqual((width, height), (7001, 3501))
        for at in (7000, 3500 * 7001, 3501 * 7001 - 1):
            self.assertLessEqual(abs(rows[at] - 200), NEAR)

    def test_keep_their_orientation(self):
        for order, begin in ((">", b"MM"), ("<", b"II")):
            entry = struct.pack(order + "HHIHH", 0x0112, 3, 1, 6, 0)
            exif = chunk(b"eXIf", begin + struct.pack(order + "HIH", 42, 8, 1) + entry + bytes(4))
            for place in ("before", "behind"):
                self.fitted(png(32, 32, lambda x, y: (99,), GREY, **{place: exif}))
                directory = struct.pack("<2sHIHHHIHHI", b"II", 42, 8, 1, 0x0112, 3, 1, 6, 0, 0)
                self.assertEqual(self.sent.count(segment(EXIF, b"Exif\0\0" + directory)), 1)

    def test_in_a_file_with_more_behind_its_end_are_read_to_it(self):
        self.assertEqual(self.fitted(self.GREY_SQUARE + b"more")[:2], (32, 32))


class BrokenPngs(Fitting):
    IMAGE = png(40, 30, lambda x, y: (x, y, 7), before=chunk(b"gAMA", struct.pack(">I", 45455)))

    def test_are_refused_wherever_they_are_cut(self):
        for length in itertools.chain(
            range(8, 60, 3), range(60, len(self.IMAGE), 29), range(len(self.IMAGE) - 12, len(self.IMAGE))
        ):
            self.assertRefused(self.IMAGE[:length], "--fit", word="is cut off or broken")

    def test_are_refused_where_a_byte_is_another(self):
        for at in range(8, len(self.IMAGE), 11):
            broken = self.IMAGE[:at] + bytes([self.IMAGE[at] ^ 0x55]) + self.IMAGE[at + 1 :]
            self.assertRefused(broken, "--fit", word="nothing is stored")

    def test_are_refused_where_they_hold_too_few_rows(self):
        data = zlib.compress((b"\0" + bytes(120)) * 29)
        self.assertRefused(header(40, 30) + chunk(b"IDAT", data) + chunk(b"IEND", b""), "--fit", word="broken")

    def test_are_refused_where_they_have_no_palette(self):
        self.assertRefused(png(8, 8, lambda x, y: (1,), PALETTE), "--fit", word="is cut off or broken")

    def test_without_a_header_are_refused(self):
        self.assertRefused(SIGNATURE + chunk(b"IEND", b""), "--fit", word="is cut off or broken")


class ReadingPngsHasABudget(Fitting):
    def assertTooMuch(self, image, word, **more):
        more = {"memory": LITTLE, **more}
        self.assertRefused(image, "--fit", word=word, **more)

    def bomb(self, width, height, kind=RGB, interlaced=False):
        """A file of a few bytes for many pixels, all of which are there."""
        row = bytes(width * 3)
        return png_of_rows(width, height, itertools.repeat(row, height), kind, interlaced, level=9)

    def test_one_of_more_than_100_megapixels_is_refused(self):
        self.assertTooMuch(header(10001, 10000) + chunk(b"IDAT", b""), "100 megapixels")
        self.assertTooMuch(header(0x7FFFFFFF, 0x7FFFFFFF) + chunk(b"IDAT", b""), "100 megapixels")
        self.assertTooMuch(header(0x7FFFFFFF, 1) + chunk(b"IDAT", b""), "100 megapixels")

    def test_one_that_is_longer_than_a_jpeg_can_be_is_refused(self):
        self.assertTooMuch(header(70000, 10) + chunk(b"IDAT", b""), "a JPEG has at most 65500")
        self.assertTooMuch(header(10, 70000) + chunk(b"IDAT", b""), "a JPEG has at most 65500")

    @in_the_programs_own_time
    def test_one_of_100_megapixels_is_fitted(self):
        self.assertEqual(self.fitted(self.bomb(10000, 10000))[:2], (5000, 5000))

    @in_the_programs_own_time
    def test_one_of_24_megapixels_is_fitted_in_little_time(self):
        image = noise_png(6000, 4000, contrast=16)
        self.assertGreater(len(image), 30_000_000)
        self.fitted(image)
        self.assertGreater(len(self.sent), 0.8 * LONGEST_PICTURE)

    def test_one_that_is_interlaced_takes_no_more_memory_than_a_jpeg(self):
        # 180 MB are room for 60 megapixels of three bytes.
        header_and_nothing = header(10000, 6001, interlaced=True) + chunk(b"IDAT", zlib.compress(b""))
        self.assertTooMuch(header_and_nothing, "takes more than 180 MB")
        data = zlib.compress(bytes(3 * 7000 * 4000 + 8 * 4000), 9)
        image = header(7000, 4000, interlaced=True) + chunk(b"IDAT", data) + chunk(b"IEND", b"")
        self.assertEqual(self.fitted(image)[:2], (7000, 4000))

    def test_what_is_said_beside_the_pixels_takes_little(self):
        # A profile and texts that unpack to 256 MiB each.
        packed_zeros = zlib.compress(bytes(1 << 28), 9)
        text = chunk(b"zTXt", b"Comment\0\0" + packed_zeros)
        profile = chunk(b"iCCP", b"profile\0\0" + packed_zeros)
        image = png(32, 32, lambda x, y: (1, 2, 3), before=profile + text * 100)
        self.assertEqual(self.fitted(image, memory=LITTLE)[:2], (32, 32))
        many = png(32, 32, lambda x, y: (1, 2, 3), before=chunk(b"tEXt", b"Comment\0" + bytes([65]) * 100) * 100000)
        self.assertEqual(self.fitted(many, memory=LITTLE, seconds=2 * READING_TIME)[:2], (32, 32))

    def test_a_file_of_more_than_64_MiB_is_refused(self):
        self.assertTooMuch(SIGNATURE.ljust(LONGEST_FILE_TO_FIT + 1, b"\0"), f"{LONGEST_FILE_TO_FIT}")


if __name__ == "__main__":
    unittest.main()
