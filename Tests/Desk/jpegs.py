"""JPEG pictures of few bytes that are made by hand: large ones, ones in many scans, and ones that take long to read."""

import random
import struct
import subprocess
import tempfile

START, END = b"\xff\xd8", b"\xff\xd9"
BASELINE, PROGRESSIVE, ARITHMETIC_PROGRESSIVE = 0xC0, 0xC2, 0xCA


def segment(marker, body):
    return struct.pack(">BBH", 0xFF, marker, len(body) + 2) + body


def head(kind, width, height, components):
    """All up to the first scan: in both code tables a single 0 bit stands for the one symbol 0."""
    parts = b"".join(bytes([component, 0x11, 0]) for component in components)
    tables = b"".join(segment(0xC4, bytes([table, 1]) + bytes(15) + b"\0") for table in (0, 0x10))
    frame = struct.pack(">BHHB", 8, height, width, len(components)) + parts
    return START + segment(0xDB, b"\0" + b"\x01" * 64) + segment(kind, frame) + tables


def scan(components, first, last):
    """The header of a scan of the coefficients from the first to the last."""
    parts = b"".join(bytes([component, 0]) for component in components)
    return segment(0xDA, bytes([len(components)]) + parts + bytes([first, last, 0]))


def blocks_of(width, height):
    return -(-width // 8) * -(-height // 8)


def baseline(width, height, components=(1, 2, 3)):
    """A grey picture: two bits a block, a difference of 0 and the end of the block."""
    bits = 2 * blocks_of(width, height) * len(components)
    data = bytes(-(-bits // 8))
    return head(BASELINE, width, height, components) + scan(components, 0, 63) + data + END


def progressive(width, height, components=(1, 2, 3)):
    """The same in scans: one of all differences, then one of each component's other coefficients."""
    blocks = blocks_of(width, height)
    scans = scan(components, 0, 0) + bytes(-(-blocks * len(components) // 8))
    for component in components:
        scans += scan([component], 1, 63) + bytes(-(-blocks // 8))
    return head(PROGRESSIVE, width, height, components) + scans + END


def slow_picture():
    """As many pixels and scans as are still taken, coded in the way that is slowest to read."""
    noise = random.Random(1)
    scans = scan([1, 2, 3], 0, 0)
    for number in range(99):
        scans += scan([1 + number % 3], 1, 63) + noise.randbytes(160000).replace(b"\xff", b"\xfe")
    return head(ARITHMETIC_PROGRESSIVE, 6800, 4000, (1, 2, 3)) + scans


def noise_picture(width, height, *options, contrast=64, quality=90):
    """A picture of noise as `cjpeg` encodes it: dark in its left half, bright in its right, the more apart the less its
    contrast is; the same for the same arguments."""
    half = width // 2
    dark = bytes(value * contrast // 256 for value in range(256))
    bright = bytes(255 - value for value in dark)
    noise = random.Random(1)
    rows = (
        noise.randbytes(3 * half).translate(dark) + noise.randbytes(3 * (width - half)).translate(bright)
        for _ in range(height)
    )
    return encoded(b"P6", width, height, rows, "-quality", str(quality), *options)


def coarse_noise(width, height):
    """Grey squares of 8 by 8 pixels, each of a brightness of its own: no smaller picture has less noise."""
    noise = random.Random(1)

    def row_of_squares():
        row = bytearray(width)
        squares = noise.randbytes(width // 8)
        for column in range(8):
            row[column::8] = squares
        return row * 8

    return encoded(b"P5", width, height, (row_of_squares() for _ in range(height // 8)))


def encoded(kind, width, height, rows, *options):
    """What `cjpeg` makes of rows of pixels. They are not kept: a test that measures programs has to stay small."""
    with tempfile.TemporaryFile() as output:
        with subprocess.Popen(["cjpeg", *options], stdin=subprocess.PIPE, stdout=output) as encoder:
            encoder.stdin.write(b"%s %d %d 255\n" % (kind, width, height))
            encoder.stdin.writelines(rows)
        if encoder.returncode != 0:
            raise RuntimeError(f"cjpeg ended with {encoder.returncode}")
        output.seek(0)
        return output.read()
