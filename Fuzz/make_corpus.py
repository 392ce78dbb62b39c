#!/usr/bin/env python3
"""Writes the first inputs of the fuzzers, and of the replays in the tests, to corpus/.

Usage: Fuzz/make_corpus.py

Each input of the conversations is written as the decisions that its target reads, step by step.
"""
import json
import pathlib
import re
import struct
import sys
import zlib

FUZZ = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(FUZZ.parent / "Tests"))

import captures  # noqa: E402

CORPUS = FUZZ / "corpus"
STREAM = b"\xff\xd8\xff\xdb"


def list_in(path, name):
    """The entries of a C++ array, as they are written in the source that defines it."""
    entries = re.search(rf"\b{name}\[\] = \{{(.*?)\}};", path.read_text(), re.DOTALL).group(1)
    return re.split(r",\s*", entries.strip())


def numbers_in(path):
    """The values of the constants that a header or source defines by a plain number."""
    return {
        name: int(value, 0)
        for name, value in re.findall(r"\b(\w+) = (-?\w+)[,;]", path.read_text())
        if re.fullmatch(r"-?(0x[0-9A-Fa-f]+|\d+)", value)
    }


def value_of(text, names):
    """A number, a constant, or a constant plus a number."""
    return sum(names[term] if term in names else int(term) for term in text.split(" + "))


# The targets take a decision for the position of what it chooses in one of their lists.
NAMES = {
    "INT32_MIN": -(2**31),
    "INT32_MAX": 2**31 - 1,
    **numbers_in(FUZZ.parent / "Src" / "ADE_ShotMentor_Records.h"),
    **numbers_in(FUZZ / "ConversationFuzz.cpp"),
}
BORDERS = [value_of(text, NAMES) for text in list_in(FUZZ / "Input.h", "borders")]
FUNCTIONS = [value_of(text, NAMES) for text in list_in(FUZZ / "ConversationFuzz.cpp", "functions")]


def size(value):
    return struct.pack("<H", value)


def word(value):
    return struct.pack("<i", value)


def number(value):
    if value in BORDERS:
        return bytes([BORDERS.index(value)])
    return bytes([28]) + word(value)


# ---- Conversations ------------------------------------------------------------------------------------------------


def cuts(*sizes):
    return bytes([len(sizes)]) + b"".join(size(value) for value in sizes)


def request(function, payload=size(0), pieces=cuts()):
    return bytes([0, FUNCTIONS.index(function)]) + payload + pieces


def record(seed=b"\0", changes=()):
    """A whole record that repeats `seed`, with words changed at some offsets."""
    return (
        bytes([1])
        + size(len(seed) - 1)
        + seed
        + bytes([len(changes)])
        + b"".join(size(offset) + number(value) for offset, value in changes)
    )


def picture(short=0):
    return size(0) + bytes([1]) + size(10 - short)


def pairs(*named):
    return (
        bytes([len(named)]) + b"".join(b"\0" + number(preset) + b"\0" + number(id_) for preset, id_ in named) + size(0)
    )


def announcing(function, total, rest=b"", pieces=cuts()):
    return bytes([8]) + number(function) + number(total) + size(len(rest)) + rest + pieces


def raw(packet):
    return bytes([9]) + size(len(packet)) + packet


def confirm(times=1):
    return bytes([10]) * times


def camera_list(presets, linked=(-1, -1, -1, -1), link_up=True, reported=None):
    return (
        bytes([11, 1 if link_up else 0, 1, 0, len(presets)])
        + (bytes([1]) if reported is None else bytes([0]) + number(reported))
        + record(b"A\0\0\0")
        + b"".join(number(num) + number(id_) for num, id_ in presets)
        + b"".join(b"\0" + number(value) for value in linked)
        + bytes([1, 1])
    )


def answers(known, path=4, custom_id=7, save=1, update=1):
    return (
        bytes([12, known])
        + record()
        + bytes([path])
        + number(custom_id)
        + number(save)
        + b"\1"
        + number(3)
        + number(9)
        + number(5)
        + number(update)
    )


def refuse(nth, for_good=False):
    return bytes([13, nth, int(for_good)])


def drop_link():
    return bytes([14, 0])


def flood(value, *extra):
    return bytes([14, 3, len(extra) - 1, value]) + bytes(extra)


def pictures(*parts, path=4):
    return bytes([15, len(parts)]) + b"".join(bytes([3]) + size(len(part)) + part for part in parts) + bytes([path])


CONVERSATIONS = {
    "list_of_two": camera_list([(0, 1), (1, 3)], (0, 1, 0, 1)) + request(1) + confirm(2),
    "list_link_down": camera_list([(0, 1)], link_up=False) + request(1),
    "list_impossible_counts": b"".join(
        camera_list([(0, 1)], reported=count) + request(1) for count in (-(2**31), -1, 41, 2**31 - 1)
    ),
    "picture_errors": request(2, number(0) + number(1)) + request(2, number(5) + number(1)) + confirm(2),
    "picture_of_four_streams": pictures(b"one", b"two", b"three", b"four") + request(2, number(5) + number(1)),
    "picture_paths": b"".join(pictures(b"x", path=path) + request(2, number(7) + number(1)) for path in range(5)),
    "store": answers(1) + request(3, record(b"B\1") + picture(), cuts(8, 100, 736)) + confirm(),
    "store_too_short": request(3, record() + picture(short=10)) + announcing(3, 4) + drop_link(),
    "update": answers(1) + request(4, record(b"T", [(600, 5)])) + request(4, record(b"\xff")),
    "delete_kept_by_both": camera_list([(0, 1), (1, 3)], (0, 1, 0, 1))
    + answers(1)
    + request(5, pairs((0, 1), (1, 3), (2, 5)))
    + confirm(),
    "delete_impossible_link": camera_list([(0, 1)], (-2, 41, 0, 1)) + answers(1) + request(5, pairs((0, 1))),
    "delete_faulty": answers(1) + request(5, pairs((0, 0))) + request(5, pairs((40, 1))) + request(5, pairs()),
    "state_off_and_on": request(0, size(4) + word(-12)) + request(255) + request(256) + request(6),
    "queue_overflow": request(4, record()) * 13 + confirm(12) + request(1),
    "refused_totals": announcing(1, -1) + announcing(1, 0) + drop_link() + announcing(257, 8) + announcing(-1, 8),
    "overshoot": announcing(1, 2, b"more") + raw(b"\1\0\0\0\x08\0\0\0") + drop_link() + request(1),
    "too_long": announcing(3, 600001) + flood(7, 0, 0, 0) + drop_link(),
    "refused_buffers": b"".join(refuse(nth) + camera_list([(0, 1)]) + request(1) + drop_link() for nth in range(1, 5)),
    "refused_for_good": refuse(2, True) + request(2, number(0) + number(0)) + request(4, record()) + confirm(),
    "total_0_without_buffer": refuse(1) + announcing(1, 0) + raw(b"\1\0\0\0"),
}


# ---- The other targets --------------------------------------------------------------------------------------------


def bytes_of(*values):
    return bytes(values)


# Model code, C4 state and ISO step are left behind, then the kind of conversion follows.
CONVERSIONS = {
    **{
        f"to_phone_mode_{mode}": bytes_of(4, 4, 5, 0, 1, mode + 1, 0, 1, 20 + mode, 1, 30 + mode, 0, 1, 3, 0, 5, 1, 15)
        for mode in range(7)
    },
    **{
        f"to_camera_mode_{mode}": bytes_of(
            5, 4, 5, 1, 1, mode + 1, 1, 1, 19, 1, 40 + mode, 1, 1, 4, 1, 6, 1, 53, 1, 1, 0x44
        )
        for mode in range(6)
    },
    "there_and_back": bytes_of(6, 4, 5, 2) + bytes(range(256)) * 3,
    **{
        f"approximations_of_model_{model}": bytes_of(4, 4, 5, 3, 4, 4, 1, model + 1, 28) + word(105)
        for model in range(4)
    },
    "white": bytes_of(4, 4, 5, 2) + word(255) * 186,
    "extremes": bytes_of(19, 0, 19, 2) + word(2**31 - 1) * 186 + bytes_of(0, 19, 0, 2) + word(-(2**31)) * 186,
}

LOG_LINES = {
    **{
        f"level_{level}": b"".join(bytes_of(level, tag, 0) + size(7) + b"hello\n\0\1" for tag in range(9))
        for level in range(6)
    },
    "longest": b"".join(
        bytes_of(level, 0, 1, more) + b"y" * (240 + more) + b"\1" for level in (0, 1, 5) for more in (5, 6, 7, 8)
    ),
    "formats": bytes_of(5, 3, 0) + size(12) + b"%s%n%d%%\\\033[m\1",
}

STYLES = [f"style {style}" for style in range(10)] + ["C1", "C2", "C3", "C4"]
STYLE_ROW = {"saturation": 1, "sharpness": 2, "contrast": 3, "hue": 4}
CODES = (
    "color_temperature off_color smart_filter metering drive hdr flash flash_compensation af_mode af_area touch_af "
    "picture_size quality continuous_drive continuous_high continuous_normal burst bulb"
).split()


def in_words(**exposure):
    """A preset file in words, as a person would leave it."""
    return json.dumps(
        {
            "form": "words", "title": "Sea", "white_balance": "Kelvin", "custom_white_balance": [1, 2, 3],
            "white_balance_adjustments": {"daylight": 2}, "style": "C1", "origin": "0x40", **exposure,
            "styles": {name: {**STYLE_ROW, **({"color": [1, 2, 3]} if name != "style 0" else {})} for name in STYLES},
            "selection_af": {name: 1 for name in ("x", "y", "width", "height", "box_size")},
            "self_timer": {"delay": 1, "shots": 2, "interval": 3}, **{name: 1 for name in CODES},
        },
        separators=(",", ":"),
    ).encode()  # fmt: skip


FIELDS = '{"title": "Sea", "mode": 2, "av_index": 28, "iso": 100, "cs_info": {"color_style": 3}}'
JSON_TEXTS = {
    "not_json": b"shopping list",
    "empty": b"",
    "partial": FIELDS.encode(),
    "twice": b'{"title": 1, "title": "x",\n "mode": 99999999999, "iso": 1.5, "no such": []}',
    "bytes": b'{"title": {"bytes": "00ff"}, "screennail_path": {"bytes": 7}, "cs_info": [[1, 2], 3]}',
    "deep": b"[" * 200 + b"]" * 200,
    "broken_utf8": b'{"title": "\xff\xfe", "mode": "\\ud800"}',
    "words_aperture": in_words(mode="Aperture", aperture="f/4", iso=400, ev="-1/3"),
    "words_manual": in_words(mode="Manual", aperture="f/4.2", shutter="1/33 s", iso="auto", iso_third_steps=500),
    "words_codes": in_words(mode={"code": 7}, iso={"code": 50}, ev="+1 2/3", aperture={"code": -1}),
    "words_partial": b'{"form": "words", "mode": "Shutter", "shutter": "0.5", "styles": {"C1": {"color": [1]}}}',
    "record_of_zeros": b"\xff",
    "record_with_title": b"\xffNight walk" + bytes(42) + word(4) * 40,
    "record_of_odd_bytes": b"\xff" + bytes(range(1, 256)) * 3,
}


def reply(number, presets, extra_words, body, layout_at=None):
    """One frame as the target builds it; `layout_at` is 20 in a list and 12 in the answer to deleting."""
    if layout_at is None:
        layout = bytes_of(0)
    else:
        layout = bytes_of(1, 1 if layout_at == 20 else 0, 1)
    return bytes_of(1, presets, extra_words, 7) + body + bytes_of(number, 1) + layout


REPLIES = {
    "list_of_two": bytes_of(1) + reply(1, 2, 5, bytes(20), 20) + bytes_of(3, 9, 31, 31),
    "empty_list": bytes_of(1) + reply(1, 0, 5, bytes(20), 20),
    "deleted_kept_one": bytes_of(1) + reply(5, 1, 5, word(-7) + bytes(16), 12),
    "picture": bytes_of(1) + reply(2, 0, 9, bytes(range(20))),
    "stored_and_renamed": bytes_of(2) + reply(3, 0, 4, bytes(20)) + reply(4, 0, 1, bytes(20)) + bytes_of(1) * 40,
    "plain_bytes": bytes_of(1, 0) + size(16) + word(0x1001) + word(7) + bytes(8),
}

# Places of the database that are overwritten, whether its end is cut off, and changes to the store.
NO_DAMAGE = bytes_of(0, 0)
STORES = {
    "sound": NO_DAMAGE + bytes_of(0) + size(100) + bytes(100) + bytes_of(2, 1, 0, 1, 0) + bytes_of(1, 0, 5),
    "links": NO_DAMAGE + bytes_of(3, 0, 2) + bytes_of(4, 1) + bytes_of(3, 2, 0) + bytes_of(1, 1, 5, 6),
    "cut_off": bytes_of(0, 1) + size(4096),
    "empty": bytes_of(0, 1) + size(0),
    **{
        f"header_{offset}": bytes_of(1) + size(offset) + size(3) + word(7) + bytes_of(0, 2, 1, 1)
        for offset in (0, 16, 18, 20, 28, 40, 60, 68)
    },
    **{f"page_{page}": bytes_of(1) + size(4096 * page) + size(7) + bytes(8) + bytes_of(0) for page in range(1, 4)},
}


def png(width, height, kind, bits, pixels, *chunks):
    """A whole PNG of rows without a filter."""

    def chunk(name, data):
        return struct.pack(">I", len(data)) + name + data + struct.pack(">I", zlib.crc32(name + data))

    head = struct.pack(">IIBBBBB", width, height, bits, kind, 0, 0, 0)
    body = b"".join(chunk(*one) for one in chunks) + chunk(b"IDAT", zlib.compress(pixels)) + chunk(b"IEND", b"")
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) + body


# 8 by 8 pixels of one grey: all steps 1, and Huffman tables of one code each.
GREY_JPEG = (
    b"\xff\xd8\xff\xdb\0\x43\0" + b"\x01" * 64 + b"\xff\xc0\0\x0b\x08\0\x08\0\x08\x01\x01\x11\0"
    + b"\xff\xc4\0\x14\0\x01" + bytes(15) + b"\0" + b"\xff\xc4\0\x14\x10\x01" + bytes(15) + b"\0"
    + b"\xff\xda\0\x08\x01\x01\0\0\x3f\0\x3f\xff\xd9"
)  # fmt: skip
SUM = "0" * 64
MANIFEST = {
    "format": "ShotMentor backup", "version": 1, "complete": True, "model": "KT7", "count": 1, "obsolete": [],
    "presets": [
        {
            "number": 0, "custom_id": 1, "title": "Sea",
            "preset": {"file": "00-sea.json", "bytes": 10, "sha256": SUM},
            "picture": {"file": "00-sea.jpg", "bytes": 10, "sha256": SUM},
        }
    ],
}  # fmt: skip
PHONE_FILES = {
    "jpeg": GREY_JPEG,
    "jpeg_cut": GREY_JPEG[:-4],
    "png_grey": png(2, 2, 0, 8, bytes(6)),
    "png_palette": png(4, 1, 3, 2, b"\0\x1b", (b"PLTE", bytes(range(12))), (b"tRNS", b"\0\x80")),
    "png_color": png(3, 2, 6, 16, bytes(range(25)) * 2),
    "png_cut": png(2, 2, 2, 8, bytes(14))[:-20],
    "manifest": json.dumps(MANIFEST).encode(),
    "manifest_unfinished": json.dumps({**MANIFEST, "complete": False, "obsolete": ["00-old.jpg"]}).encode(),
    "manifest_outside": json.dumps(MANIFEST).replace("00-sea.jpg", "../sea.jpg").encode(),
}


# ---- Captures --------------------------------------------------------------------------------------------------------

# Short ones: a fuzzer's input has at most 1024 bytes.
LIST = struct.pack("<ii", 1, 8)
LISTED = struct.pack("<ii12sii", 0x1001, 28, b"KT7", 1, 0)
DELETE = struct.pack("<iiii", 5, 16, 0, 1)
RENAME = struct.pack("<ii", 4, 752) + b"Dusk".ljust(744, b"\0")


def talk(capture, send):
    """A conversation in a capture; `send` takes sender and bytes."""
    for sender, data in ((captures.PHONE, LIST), (captures.CAMERA, LISTED), (captures.PHONE, DELETE)):
        send(sender, data)
    return capture.bytes()


def renaming():
    capture = captures.BluetoothCapture()
    capture.send(captures.PHONE, RENAME)
    return capture.bytes()


def plain_capture(datalink, **more):
    capture = captures.BluetoothCapture(datalink, **more)
    capture.connect()
    return talk(capture, capture.send)


def rfcomm_capture():
    capture = captures.BluetoothCapture()
    capture.connect(captures.RFCOMM_PSM)
    capture.open_rfcomm(44)
    return talk(capture, lambda sender, data: capture.send_rfcomm(sender, data, 44, credits=1))


def credited_capture():
    capture = captures.BluetoothCapture()
    capture.connect_credited_together()
    return talk(capture, capture.send_credited)


def numbered_capture(mode):
    capture = captures.BluetoothCapture()
    capture.connect()
    capture.configure(mode)
    for number in (0, 2, 1, 1):
        capture.send_numbered(captures.PHONE, LIST, number)
    capture.send_numbered(captures.CAMERA, LISTED[:9], 0, captures.START_OF, len(LISTED))
    capture.send_numbered(captures.CAMERA, LISTED[9:], 1, captures.END_OF)
    capture.disconnect()
    return capture.bytes()


PHONE_FILES |= {
    "capture": plain_capture(captures.H4),
    "capture_h1": plain_capture(captures.H1),
    "capture_monitor": plain_capture(captures.MONITOR, longest_piece=9),
    "capture_renaming": renaming(),
    "capture_unopened": talk(unopened := captures.BluetoothCapture(), unopened.send),
    "capture_rfcomm": rfcomm_capture(),
    "capture_credited": credited_capture(),
    "capture_numbered": numbered_capture(captures.ENHANCED),
    "capture_streamed": numbered_capture(captures.STREAMING),
}


# ---- Answers of Bluetooth devices ------------------------------------------------------------------------------------

RECORD = bytes.fromhex("3511 090004 350c 3503190100 3505 190003 0807")


def answers(kind, *packets):
    """1: of a directory of services; 0: of a server of attributes."""
    return bytes([kind]) + b"".join(size(len(packet)) + packet for packet in packets)


def of_directory(records, transaction=1, continuation=b""):
    rest = struct.pack(">H", len(records)) + records + bytes([len(continuation)]) + continuation
    return struct.pack(">BHH", 7, transaction, len(rest)) + rest


WHOLE = b"\x35\x13" + RECORD
DISCOVERIES = {
    "channel": answers(1, of_directory(WHOLE)),
    "channel_in_parts": answers(1, of_directory(WHOLE[:6], 1, b"\1\2"), of_directory(WHOLE[6:], 2)),
    "channel_of_a_long_uuid": answers(
        1,
        of_directory(
            bytes.fromhex("3521 351f 090004 351a 3503190100 3513 1c 0000000300001000800000805f9b34fb 0801")
        ),
    ),
    "no_record": answers(1, of_directory(b"\x35\0")),
    "directory_refuses": answers(1, bytes.fromhex("01000100020003")),
    "psm": answers(0, bytes.fromhex("09 04 0300 8000")),
    "psm_after_questions": answers(
        0, bytes.fromhex("02f701"), bytes.fromhex("100100ffff0028"), bytes.fromhex("1d030001"), bytes.fromhex("1b0300"),
        bytes.fromhex("09040300 8000"),
    ),
    "no_attribute": answers(0, bytes.fromhex("010801000a")),
    "attribute_of_paired": answers(0, bytes.fromhex("0108030005")),
}  # fmt: skip

# ---- Messages of the bus ---------------------------------------------------------------------------------------------

# Decisions of the fuzzer's own: the first says whether the types are those of objects, the others make the content.
BUS_MESSAGES = {
    "objects": bytes([1] + [1, 2, 1, 1, 1, 2, 1, 0, 9] * 12),
    "many_objects": bytes([1] + [7, 1, 3, 1, 2, 0, 13, 2] * 60),
    "properties": bytes([0, 0, 14] + [5, 1, 0, 9, 2, 3] * 20),
    "interfaces": bytes([0, 1, 3] + [4, 2, 3, 1, 0, 9, 2, 5] * 20),
    "deep": bytes([0, 1, 0, 1, 0, 1, 4] + [1, 3, 1] * 50),
    "value": bytes([0, 0, 15, 0, 14, 3, 2, 1]),
}


def write(target, inputs):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in inputs.items():
        (folder / name).write_bytes(content)


write("Bus", BUS_MESSAGES)
write("Conversation", CONVERSATIONS)
write("Conversion", CONVERSIONS)
write("Discovery", DISCOVERIES)
write("Log", LOG_LINES)
write("PhoneFiles", PHONE_FILES)
write("PresetJson", JSON_TEXTS)
write("Replies", REPLIES)
write("Store", STORES)
