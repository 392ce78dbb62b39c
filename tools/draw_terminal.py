#!/usr/bin/python3
"""Draws Docs/terminal.svg: a terminal in which the phone has just shown a preset with its picture, and the list.

Usage: tools/draw_terminal.py CAMERA PHONE [--check] [DRAWING]
  CAMERA, PHONE  the built programs, which are run
  --check        draws nothing and fails when the drawing shows other things than the programs print now
  DRAWING        another file than Docs/terminal.svg

A picture's colours may differ a little from one machine's decoder to the next; --check lets that pass. It is run by the
system's Python, which has the emulator of the package python3-pyte.
"""

import base64
import contextlib
import fcntl
import html
import os
import pty
import re
import struct
import subprocess
import sys
import tempfile
import termios
import time
import zlib

import pyte

DRAWING = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "Docs", "terminal.svg")
COMMANDS = ["show 1 --picture", "list"]
PHONE = "shotmentor-phone --connect unix:camera/camera.sock"
COLUMNS, ROWS = 92, 45
WIDTH, HEIGHT, MARGIN = 8, 17, 14  # of a character, and of the frame around all
PAPER, INK, PROMPT = "#1d1f21", "#d8d8d8", "#8fbf60"
PATIENCE = 30.0  # seconds that a program may take
TOLERANCE = 6  # of 255, between two machines' colours

# Which quarters of a character are ink: upper left, upper right, lower left, lower right.
BLOCKS = {" ": 0b0000, "▀": 0b1100, "▄": 0b0011, "▌": 0b1010, "▐": 0b0101, "█": 0b1111, "▘": 0b1000, "▝": 0b0100}
BLOCKS |= {"▖": 0b0010, "▗": 0b0001, "▚": 0b1001, "▞": 0b0110, "▛": 0b1110, "▜": 0b1101, "▙": 0b1011, "▟": 0b0111}


# ---- The terminal ------------------------------------------------------------------------------------------


@contextlib.contextmanager
def serving(camera, folder):
    """A camera on a new store, with a URL that is as short as a person would type it."""
    process = subprocess.Popen(
        [camera, "--store", "camera"], cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL
    )
    try:
        if not process.stdout.readline().startswith(b"listening on "):
            sys.exit("draw_terminal.py: the camera does not listen")
        yield
    finally:
        process.terminate()
        process.wait(PATIENCE)
        process.stdout.close()


def output_of(phone, command, folder):
    """What the phone writes to a terminal."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
    environment = {"TERM": "xterm-256color", "COLORTERM": "truecolor", "LC_ALL": "C.UTF-8"}
    arguments = [phone, *PHONE.split()[1:], *command.split()]
    process = subprocess.Popen(arguments, cwd=folder, stdin=slave, stdout=slave, stderr=slave, env=environment)
    os.close(slave)
    output = b""
    with contextlib.suppress(OSError):  # the phone has ended, and the terminal is gone
        while piece := os.read(master, 65536):
            output += piece
    os.close(master)
    return process.wait(PATIENCE), output


def screen_after(camera, phone):
    screen = pyte.Screen(COLUMNS, ROWS)
    stream = pyte.ByteStream(screen)
    with tempfile.TemporaryDirectory() as folder, serving(camera, folder):
        for command in COMMANDS:
            end = time.monotonic() + PATIENCE
            code, output = output_of(phone, command, folder)
            while code == 5 and time.monotonic() < end:  # the camera is letting the last phone go
                code, output = output_of(phone, command, folder)
            if code != 0:
                sys.exit(f"draw_terminal.py: '{command}' ended with {code}: {output.decode(errors='replace')}")
            stream.feed(f"$ {PHONE} {command}\r\n".encode() + output)
        stream.feed(b"$ ")
    return screen


# ---- What it shows -----------------------------------------------------------------------------------------


class Shown:
    """The text of each line, and the picture: its place in characters, and its pixels, four to a character."""

    def __init__(self, lines, place, pixels):
        self.lines = lines
        self.place = place
        self.pixels = pixels

    @staticmethod
    def on(screen):
        cells = [[screen.buffer[y][x] for x in range(COLUMNS)] for y in range(ROWS)]
        colored = [
            (x, y) for y in range(ROWS) for x in range(COLUMNS) if cells[y][x].bg != "default" or cells[y][x].reverse
        ]
        left, right = min(x for x, _ in colored), max(x for x, _ in colored) + 1
        top, bottom = min(y for _, y in colored), max(y for _, y in colored) + 1
        pixels = []
        for y in range(top, bottom):
            for upper_and_lower in (0b1000, 0b0100), (0b0010, 0b0001):
                row = [color_of(cells[y][x], quarter) for x in range(left, right) for quarter in upper_and_lower]
                pixels.append(bytes(channel for color in row for channel in color))
        lines = ["" if top <= y < bottom else screen.display[y].rstrip() for y in range(ROWS)]
        return Shown(lines, (left, top, right - left, bottom - top), pixels)

    def difference_from(self, other):
        """What the two do not have in common, or nothing."""
        for number, (line, there) in enumerate(zip(self.lines, other.lines), 1):
            if line != there:
                return f"line {number} is {line!r}, and drawn as {there!r}"
        if self.place != other.place:
            return f"the picture lies at {self.place}, and is drawn at {other.place}"
        pairs = list(zip(b"".join(self.pixels), b"".join(other.pixels)))
        mean = sum(abs(one - two) for one, two in pairs) / len(pairs)
        return "" if mean <= TOLERANCE else f"the picture's colours differ by {mean:.1f} of 255 on the average"


def color_of(cell, quarter):
    is_ink = bool(BLOCKS[cell.data] & quarter) != cell.reverse
    color = cell.fg if is_ink else cell.bg
    return bytes.fromhex(PAPER[1:] if color == "default" else color)


# ---- The drawing -------------------------------------------------------------------------------------------


def png(rows):
    """Three bytes a pixel, no row filtered."""

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", len(rows[0]) // 3, len(rows), 8, 2, 0, 0, 0)
    data = zlib.compress(b"".join(b"\0" + row for row in rows), 9)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", data) + chunk(b"IEND", b"")


def rows_of_png(data):
    width = struct.unpack(">I", data[16:20])[0]
    at = data.index(b"IDAT")
    size = struct.unpack(">I", data[at - 4 : at])[0]
    flat = zlib.decompress(data[at + 4 : at + 4 + size])
    return [flat[start + 1 : start + 1 + 3 * width] for start in range(0, len(flat), 3 * width + 1)]


def text_at(x, y, text, color):
    """Each character in its column, whatever font there is."""
    length = len(text) * WIDTH
    place = f'x="{MARGIN + x * WIDTH}" y="{MARGIN + y * HEIGHT + 13}" textLength="{length}" fill="{color}"'
    return f"<text {place}>{html.escape(text, quote=False)}</text>"


def drawn_line(y, line):
    if line.startswith("$"):
        return [text_at(0, y, "$", PROMPT), *([text_at(2, y, line[2:], "#ffffff")] if len(line) > 2 else [])]
    # A row of a table is drawn cell by cell, so that no blank has to be kept.
    return [text_at(cell.start(), y, cell.group(), INK) for cell in re.finditer(r"\S+(?: \S+)*", line)]


def svg(shown):
    width, height = COLUMNS * WIDTH + 2 * MARGIN, ROWS * HEIGHT + 2 * MARGIN
    left, top, columns, rows = shown.place
    place = (
        f'x="{MARGIN + left * WIDTH}" y="{MARGIN + top * HEIGHT}" width="{columns * WIDTH}" height="{rows * HEIGHT}"'
    )
    picture = base64.b64encode(png(shown.pixels)).decode()
    lines = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}"'
        ' font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="13">',
        "<title>A terminal in which shotmentor-phone shows a preset with its picture, and lists all presets</title>",
        f"<!-- tools/draw_terminal.py {COLUMNS}x{ROWS} picture {left},{top},{columns},{rows} -->",
        f'<rect width="{width}" height="{height}" rx="8" fill="{PAPER}"/>',
    ]
    for y, line in enumerate(shown.lines):
        lines += drawn_line(y, line)
    lines.append(
        f'<image {place} preserveAspectRatio="none" style="image-rendering: pixelated"'
        f' href="data:image/png;base64,{picture}"/>'
    )
    return "\n".join([*lines, "</svg>", ""])


def shown_in(drawing):
    """What a drawing shows."""
    lines = [[] for _ in range(ROWS)]
    for x, y, text in re.findall(r'<text x="(\d+)" y="(\d+)"[^>]*>([^<]*)</text>', drawing):
        lines[(int(y) - MARGIN) // HEIGHT].append(((int(x) - MARGIN) // WIDTH, html.unescape(text)))
    text = []
    for cells in lines:
        line = ""
        for x, cell in cells:
            line = line.ljust(x) + cell
        text.append(line)
    place = tuple(map(int, re.search(r"picture ([\d,]+) -->", drawing).group(1).split(",")))
    picture = re.search(r'base64,([^"]*)"', drawing).group(1)
    return Shown(text, place, rows_of_png(base64.b64decode(picture)))


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--check"]
    if len(arguments) not in (2, 3):
        print("usage: tools/draw_terminal.py CAMERA PHONE [--check] [DRAWING]", file=sys.stderr)
        return 2
    camera, phone = map(os.path.abspath, arguments[:2])
    drawing = arguments[2] if len(arguments) == 3 else DRAWING
    shown = Shown.on(screen_after(camera, phone))
    if "--check" not in sys.argv:
        with open(drawing, "w", encoding="utf-8") as file:
            file.write(svg(shown))
        return 0
    with open(drawing, encoding="utf-8") as file:
        difference = shown.difference_from(shown_in(file.read()))
    if difference:
        print(f"{drawing}: {difference}; draw it anew with tools/draw_terminal.py CAMERA PHONE", file=sys.stderr)
    return 1 if difference else 0


if __name__ == "__main__":
    sys.exit(main())
