"""That parsers made of Protocol/shotmentor.ksy read every field as the library's own structs have it.

What is read is compared as JSON: of the Python parser, the JavaScript parser, and LibraryReader.cpp, which knows
nothing of the description. Each tells all that it found, so that a field that one of them lacks is seen as well.
"""

import json
import os
import pathlib
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

from captures import CAMERA, PHONE, TcpCapture

TESTS = pathlib.Path(__file__).resolve().parent
ROOT = TESTS.parent
sys.path.insert(0, os.fspath(TESTS / "Desk"))

import parsers  # noqa: E402
from parsers import COMPILE, PARSERS, PYTHON  # noqa: E402
from test_worked_packets import bytes_of_file, steps_of_page  # noqa: E402

READERS = TESTS / "Parsers"
LIBRARY_READER = os.environ.get("SHOTMENTOR_LIBRARY_READER", "")
PHONE_RECORD, CAMERA_RECORD = 744, 740
FUNCTIONS = [0, 1, 2, 3, 4, 5, 255, 0x1001, 0x1002, 0x1003, 0x1004, 0x1005, 0x10FF]
UNKNOWN_FUNCTIONS = [6, 254, 256, -1, 0x1000, 0x1006, 0x10FE, 2**31 - 1, -(2**31)]


def setUpModule():
    if not os.access(LIBRARY_READER, os.X_OK):
        raise RuntimeError(f"set SHOTMENTOR_LIBRARY_READER to the program; it is {LIBRARY_READER!r}")
    parsers.make_or_skip("test_parsers.py")


# ---- Reading -----------------------------------------------------------------------------------------------


def canonical(value):
    """Names without what languages spell in their own way: num_Preset, num_preset and numPreset."""
    if isinstance(value, dict):
        found = {name.replace("_", "").lower(): canonical(item) for name, item in value.items()}
        assert len(found) == len(value), f"names that differ in their spelling alone: {list(value)}"
        return found
    return [canonical(item) for item in value] if isinstance(value, list) else value


def read_by(command, items):
    asked = json.dumps([{"type": kind, "bytes": data.hex()} for kind, data in items])
    done = subprocess.run(list(map(os.fspath, command)), input=asked, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command[1:] or command} failed: {done.stderr[-2000:]}")
    return canonical(json.loads(done.stdout))


def by_library(items):
    return read_by([LIBRARY_READER], items)


def by_python(items):
    return read_by([PYTHON, "-B", READERS / "python_reader.py", PARSERS / "python"], items)


def by_javascript(items):
    return read_by(["node", READERS / "javascript_reader.cjs", PARSERS / "javascript"], items)


# ---- What is read ------------------------------------------------------------------------------------------


def frame(function, payload=b""):
    return struct.pack("<ii", function, 8 + len(payload)) + payload


def listed(*records, layout=1, count=None):
    return (
        b"KT7".ljust(12, b"\0")
        + struct.pack("<ii", layout, len(records) if count is None else count)
        + b"".join(records)
    )


def left(*records, kept=0, layout=1, count=None):
    count = len(records) if count is None else count
    return struct.pack("<iii", -7, layout, count) + b"".join(records) + bytes(8 * kept)


def streams_of(capture):
    """What each side has sent in a capture of TCP, put together."""
    streams = {}
    for record in capture.records[1:]:
        ip = record[16:]
        ports = struct.unpack_from(">HH", ip, 20)
        streams[ports] = streams.get(ports, b"") + ip[40:]
    return list(streams.values())


class Agreement(unittest.TestCase):
    maxDiff = 2000

    def assertAgree(self, items):
        """All three read the same; returns it."""
        expected = by_library(items)
        for name, reader in (("Python", by_python), ("JavaScript", by_javascript)):
            found = reader(items)
            self.assertEqual(len(found), len(items))
            for item, mine, theirs in zip(items, expected, found):
                self.assertEqual(theirs, mine, f"{name} reads {item[0]} {item[1][:100].hex(' ')} otherwise")
        return expected

    def assertAgreeOnFrames(self, *streams):
        return self.assertAgree([("frames", stream) for stream in streams])


class WorkedPackets(Agreement):
    def test_are_read_alike(self):
        steps = steps_of_page()
        packets = [data for step in steps for data in (step.sent, step.answer) if data]
        self.assertGreater(len(packets), 40)
        read = self.assertAgreeOnFrames(*packets)
        self.assertGreater(len([frames for frames in read if frames[-1] != "refused"]), 35)

    def test_of_both_records_are_read_alike_and_as_their_comments_say(self):
        sent, kept = bytes_of_file("dusk-sent.hex"), bytes_of_file("dusk-listed.hex")
        phone, camera = self.assertAgree([("phone_record", sent), ("camera_record", kept)])
        for record in (phone, camera):
            self.assertEqual(bytes.fromhex(record["title"]).rstrip(b"\0"), b"Dusk")
            self.assertEqual([record["mode"], record["avindex"], record["iso"]], [2, 28, 400])
        self.assertIn("linkedcustommode", phone)
        self.assertNotIn("linkedcustommode", camera)


class Conversations(Agreement):
    def test_in_a_capture_are_read_alike_in_each_direction(self):
        chance = random.Random(3)
        records = [chance.randbytes(PHONE_RECORD) for _ in range(3)]
        capture = TcpCapture()
        capture.send(PHONE, frame(255) + frame(1))
        answer = frame(0x1001, listed(*records))
        capture.send(CAMERA, answer[:1000])
        capture.send(CAMERA, answer[1000:])
        capture.send(PHONE, frame(3, records[0] + bytes(100)))
        capture.send(CAMERA, frame(0x1003, struct.pack("<iiii", 1, 3, 9, 77)))
        capture.send(PHONE, frame(5, struct.pack("<iiii", 0, 1, 3, 9)) + frame(0, struct.pack("<i", 1)))
        capture.send(CAMERA, frame(0x1005, left(records[1], kept=1)))
        phone, camera = self.assertAgreeOnFrames(*streams_of(capture))
        self.assertEqual([each["function"] for each in phone], [255, 1, 3, 5, 0])
        self.assertEqual([each["function"] for each in camera], [0x1001, 0x1003, 0x1005])
        self.assertEqual(phone[3]["body"]["pairs"], [{"delpreset": 0, "delid": 1}, {"delpreset": 3, "delid": 9}])
        self.assertEqual(camera[2]["body"]["kept"], "00" * 8)


class Records(Agreement):
    def test_of_any_bytes_are_read_alike(self):
        chance = random.Random(4)
        phones = [("phone_record", chance.randbytes(PHONE_RECORD)) for _ in range(300)]
        cameras = [("camera_record", chance.randbytes(CAMERA_RECORD)) for _ in range(300)]
        self.assertNotIn("refused", self.assertAgree(phones + cameras))

    def test_have_each_word_at_its_place(self):
        """Each word of the record is its own offset."""
        words = struct.pack("<186i", *range(0, PHONE_RECORD, 4))
        [record] = self.assertAgree([("phone_record", words)])
        self.assertEqual([record["mode"], record["kvalue"], record["photosize"]], [52, 92, 560])
        self.assertEqual(record["csinfo"]["cscolor"][12], {"cscolorr": 304, "cscolorg": 308, "cscolorb": 312})
        self.assertEqual(record["csinfo"]["cssaturation"][0], 316)
        self.assertEqual(record["reserved636"], [636, 640, 644, 648, 652, 656])
        self.assertEqual([record["madeid"], record["linkedcustommode"]], [684, 740])

    def test_that_are_too_short_are_refused_alike(self):
        items = [("phone_record", bytes(size)) for size in (0, 1, 51, 52, 743)]
        items += [("camera_record", bytes(size)) for size in (0, 739)]
        self.assertEqual(self.assertAgree(items), ["refused"] * 7)


class OddFrames(Agreement):
    def test_of_unknown_functions_are_raw_bytes(self):
        frames = [frame(function, b"\1\2\3") for function in UNKNOWN_FUNCTIONS]
        for [read], function in zip(self.assertAgreeOnFrames(*frames), UNKNOWN_FUNCTIONS):
            self.assertEqual(read, {"function": function, "totallength": 11, "body": {"raw": "010203"}})

    def test_of_any_length_are_read_or_refused_alike(self):
        sizes = [*range(0, 41), *range(PHONE_RECORD - 2, PHONE_RECORD + 3), PHONE_RECORD + 20, 2 * PHONE_RECORD]
        chance = random.Random(5)
        read = self.assertAgreeOnFrames(
            *(frame(function, chance.randbytes(size)) for function in FUNCTIONS for size in sizes)
        )
        refused = [frames == ["refused"] for frames in read]
        self.assertTrue(any(refused) and not all(refused))

    def test_that_end_before_their_length_are_refused(self):
        whole = frame(0x1004, struct.pack("<i", 1))
        read = self.assertAgreeOnFrames(*(whole[:size] for size in range(1, len(whole))))
        self.assertEqual(read, [["refused"]] * 11)

    def test_with_lengths_below_their_header_are_refused(self):
        lengths = [7, 0, -1, -(2**31)]
        read = self.assertAgreeOnFrames(*(struct.pack("<ii", 1, length) + bytes(20) for length in lengths))
        self.assertEqual(read, [["refused"]] * 4)

    def test_of_lists_that_no_camera_sends_are_refused(self):
        payloads = [
            (0x1001, listed(layout=2)),
            (0x1001, listed(count=-1)),
            (0x1001, listed(*[bytes(PHONE_RECORD)] * 41)),
            (0x1001, listed(bytes(PHONE_RECORD - 1), count=1)),
            (0x1005, left(layout=0)),
            (0x1005, left(count=-1)),
            (0x1005, left(*[bytes(PHONE_RECORD)] * 41)),
            (0x1005, left(count=1, kept=1)),
        ]
        read = self.assertAgreeOnFrames(*(frame(*each) for each in payloads))
        self.assertEqual(read, [["refused"]] * len(payloads))

    def test_with_texts_in_no_encoding_are_read(self):
        model = frame(0x1001, b"\xff" * 12 + struct.pack("<ii", 1, 0))
        [[read]] = self.assertAgreeOnFrames(model)
        self.assertEqual(read["body"]["smmodel"], "ff" * 12)

    def test_of_any_bytes_are_read_or_refused_alike(self):
        chance = random.Random(6)
        self.assertAgreeOnFrames(*(self.changed_stream(chance) for _ in range(500)))

    @staticmethod
    def changed_stream(chance):
        """Two messages with a few words and bytes changed."""
        record = chance.randbytes(PHONE_RECORD)
        messages = [
            frame(0, struct.pack("<i", -11)),
            frame(2, struct.pack("<ii", 7, 900)),
            frame(3, record + bytes(100)),
            frame(4, record),
            frame(5, struct.pack("<iiii", 0, 7, 1, 8)),
            frame(0x1001, listed(record)),
            frame(0x1002, struct.pack("<i", 7) + b"jpeg"),
            frame(0x1003, struct.pack("<iiii", 1, 2, 3, 4)),
            frame(0x1005, left(record, kept=2)),
        ]
        stream = bytearray(b"".join(chance.sample(messages, 2)))
        for _ in range(chance.randint(1, 3)):
            at = chance.choice([chance.randrange(len(stream)), chance.randrange(7) * 4])
            if chance.random() < 0.5:
                word = chance.choice([0, 1, -1, 2, 8, 40, 41, 752, 0x1001, 0x1006, 2**31 - 1])
                struct.pack_into("<i", stream, min(at & ~3, len(stream) - 4), word)
            else:
                del stream[at : at + chance.randint(1, 8)]
        return bytes(stream)


# ---- The tool ----------------------------------------------------------------------------------------------


class Compiling(unittest.TestCase):
    """tools/compile_protocol.sh on a copy of what it reads."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        shutil.copytree(ROOT / "tools" / "kaitai", self.root / "tools" / "kaitai")
        (self.root / "Protocol").mkdir()
        for name in (COMPILE, "Protocol/shotmentor.ksy"):
            shutil.copy(ROOT / name, self.root / name)

    def with_compiler(self):
        """Has the copy use what npm has installed for the tree."""
        folder = self.root / "build" / "protocol"
        folder.mkdir(parents=True)
        shutil.copy(PARSERS / "installed.json", folder)
        (folder / "node_modules").symlink_to(PARSERS / "node_modules")
        return folder

    def compile(self, *languages, **environment):
        return subprocess.run(
            [self.root / COMPILE, *languages],
            capture_output=True,
            text=True,
            check=False,
            env={**os.environ, **environment},
        )

    def assertRefused(self, done, says):
        self.assertNotEqual(done.returncode, 0)
        self.assertRegex(done.stderr, rf"\Acompile_protocol.sh: {says}.*\n\Z")

    def test_gives_a_parser_for_every_language_of_the_compiler(self):
        folder = self.with_compiler()
        done = self.compile("all")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        made = {path.name for path in folder.iterdir() if path.is_dir() and path.name != "node_modules"}
        some = {"cpp_stl", "csharp", "go", "java", "javascript", "lua", "nim", "perl", "php", "python", "ruby", "rust"}
        self.assertEqual(some - made, set())
        for language in made:
            with self.subTest(language=language):
                texts = [path.read_text(encoding="utf-8") for path in (folder / language).iterdir()]
                self.assertRegex("".join(texts), "(?i)linked_?custom_?mode")

    def test_of_a_language_that_there_is_not_names_those_that_there_are(self):
        self.with_compiler()
        self.assertRefused(self.compile("klingon"), "no language 'klingon'; choose from all, .*python")

    def test_of_a_description_with_an_unknown_type_says_so(self):
        self.with_compiler()
        path = self.root / "Protocol" / "shotmentor.ksy"
        path.write_text(path.read_text(encoding="utf-8").replace("type: cs_info", "type: cs_inf"), encoding="utf-8")
        self.assertRefused(self.compile(), "Protocol/shotmentor.ksy gives no python parser: .*cs_inf")

    def test_without_a_network_says_what_is_missing(self):
        offline = {"npm_config_offline": "true", "npm_config_cache": os.fspath(self.root / "cache")}
        self.assertRefused(self.compile(**offline), "npm cannot get kaitai-struct-compiler")
        self.assertRefused(self.compile(**offline), "npm cannot get kaitai-struct-compiler")  # nothing half done

    def test_without_node_says_what_to_install(self):
        programs = self.root / "programs"
        programs.mkdir()
        for name in ("bash", "env", "dirname"):
            (programs / name).symlink_to(shutil.which(name))
        self.assertRefused(self.compile(PATH=os.fspath(programs)), "node is missing: install node.js")


if __name__ == "__main__":
    unittest.main()
