"""PNG files made by hand: of any kind of pixels, interlaced or not, whole or broken."""

import struct
import zlib

SIGNATURE = b"\x89PNG\r\n\x1a\n"
GREY, RGB, PALETTE, GREY_ALPHA, RGB_ALPHA = 0, 2, 3, 4, 6
CHANNELS = {GREY: 1, RGB: 3, PALETTE: 1, GREY_ALPHA: 2, RGB_ALPHA: 4}
PASSES = ((0, 0, 8, 8), (4, 0, 8, 8), (0, 4, 4, 8), (2, 0, 4, 4), (0, 2, 2, 4), (1, 0, 2, 2), (0, 1, 1, 2))


def chunk(kind, data, crc=None):
    return (
        struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) if crc is None else crc)
    )


def header(width, height, kind=RGB, depth=8, interlaced=False):
    return SIGNATURE + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, depth, kind, 0, 0, interlaced))


def packed(values, depth):
    """A row of channels, the values of which have so many bits."""
    if depth == 16:
        return struct.pack(f">{len(values)}H", *values)
    bits = "".join(f"{value:0{depth}b}" for value in values)
    bits += "0" * (-len(bits) % 8)
    return bytes(int(bits[at : at + 8], 2) for at in range(0, len(bits), 8))


def pixels_of(width, height, pixel, kind, depth, interlaced):
    """The rows as they are packed; `pixel(x, y)` gives a tuple of channels."""
    rows = b""
    for left, top, across, down in PASSES if interlaced else ((0, 0, 1, 1),):
        for y in range(top, height, down):
            values = [value for x in range(left, width, across) for value in pixel(x, y)]
            rows += b"\0" + packed(values, depth) if values else b""
    return rows


def png(width, height, pixel, kind=RGB, depth=8, interlaced=False, before=b"", behind=b""):
    """A whole file. `before` and `behind` are chunks around those of the pixels."""
    data = zlib.compress(pixels_of(width, height, pixel, kind, depth, interlaced))
    half = len(data) // 2
    parts = chunk(b"IDAT", data[:half]) + chunk(b"IDAT", data[half:])
    return header(width, height, kind, depth, interlaced) + before + parts + behind + chunk(b"IEND", b"")


def png_of_rows(width, height, rows, kind=RGB, interlaced=False, level=1):
    """A large one, of packed rows that come one by one."""
    packer = zlib.compressobj(level)
    parts = [header(width, height, kind, 8, interlaced)]
    for row in rows:
        piece = packer.compress(b"\0" + row)
        parts += [chunk(b"IDAT", piece)] if piece else []
    return b"".join([*parts, chunk(b"IDAT", packer.flush()), chunk(b"IEND", b"")])
