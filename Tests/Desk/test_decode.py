"""What `shotmentor-phone decode` shows of captures that are written here."""

import json
import os
import pathlib
import random
import re
import struct
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parent.parent))

import captures  # noqa: E402

from captures import (  # noqa: E402
    CAMERA, END_OF, ENHANCED, H1, MIDDLE_OF, MONITOR, PHONE, RFCOMM_PSM, START_OF, STREAMING, BluetoothCapture,
    TcpCapture,
)  # fmt: skip
from desk import (  # noqa: E402
    BUSY_FRAME, DELETE, LIST, PATIENCE, PICTURE, REPLY, STATE_OFF, STATE_ON, STORE, UPDATE, DeskTest, changed,
    environment_of_programs, list_reply, measure_phone, phone_record, picture, picture_request,
    request, run_on_terminal, run_phone,
)  # fmt: skip
from desk import PHONE as PROGRAM  # noqa: E402
from test_worked_packets import bytes_of, steps_of_page  # noqa: E402

CUT, NOTHING = 35, 9
DOCUMENTED = {0, 2, NOTHING, CUT}
UNIVERSAL = {"TZ": "UTC"}
DAY = "2023-11-14\n"
MEMORY = 24 << 20  # of decoding: its program, and a message of each side
MEMORY_OF_SANITIZER = 150 << 20  # its own comes on top


def words(*values):
    return struct.pack(f"<{len(values)}i", *values)


def reply(function, *values):
    return request(REPLY + function, words(*values))


def at(milliseconds):
    """The local time of a frame, counted from 0."""
    return f"22:13:{20 + milliseconds // 1000:02}.{milliseconds % 1000:03}"


def conversation(*packets, capture=None):
    """A capture of packets as pairs of sender and bytes, on L2CAP. The first of them comes at 2 ms."""
    capture = capture or BluetoothCapture()
    capture.connect()
    for sender, data in packets:
        capture.send(sender, data)
    return capture


DUSK = phone_record(b"Dusk", custom_id=1, preset_num=0)
NOON = phone_record(b"Noon", custom_id=2, preset_num=1)


class Decoding(DeskTest):
    def decode(self, capture, *arguments, code=0):
        content = capture if isinstance(capture, bytes) else capture.bytes()
        path = self.file("capture.btsnoop", content)
        done = run_phone("", "decode", *arguments, path, environment=UNIVERSAL)
        self.assertEnds(done, code)
        self.assertEqual(done.stderr == b"", code == 0, done.stderr)
        return done.stdout.decode()

    def said(self, capture, *arguments, code=0):
        """The lines without date and time."""
        return [
            re.sub(r"^\d\d:\d\d:\d\d\.\d\d\d ", "", line)
            for line in self.decode(capture, *arguments, code=code).splitlines()
            if not re.fullmatch(r"\d{4}-\d\d-\d\d", line)
        ]

    def objects(self, capture, *arguments, code=0):
        return [json.loads(line) for line in self.decode(capture, "--json", *arguments, code=code).splitlines()]

    def messages(self, capture, code=0):
        """Function, total and result of each whole message."""
        return [
            (one["function"], one["total"], one.get("result"))
            for one in self.objects(capture, code=code)
            if one["kind"] in ("request", "reply")
        ]


class Lines(Decoding):
    def test_tell_of_each_request_and_its_reply_with_the_time_between_them(self):
        capture = conversation(
            (PHONE, request(STATE_ON)),
            (PHONE, request(LIST)),
            (CAMERA, list_reply([DUSK, NOON])),
            (PHONE, picture_request(2, 77)),
            (CAMERA, reply(PICTURE, 2)[:4] + words(112) + words(2) + bytes(100)),
            (PHONE, request(STORE, DUSK + picture(1, 141))),
            (CAMERA, reply(STORE, 1, 2, 3, 77)),
            (PHONE, request(UPDATE, changed(bytes(744), title=b"Late", custom_id=2))),
            (CAMERA, reply(UPDATE, 1)),
            (PHONE, request(DELETE, words(0, 1, 1, 2))),
            (CAMERA, request(REPLY + DELETE, words(-7, 1, 1) + NOON + bytes(8))),
            (PHONE, request(STATE_OFF, words(-11))),
        )
        capture.disconnect()
        # 28 + 2 * 744 = 1516; 8 + 744 + 141 = 893; 8 + 744 = 752; 20 + 744 + 8 = 772.
        lines = [
            (1, "1 opened: L2CAP, PSM 4097"),
            (2, "1 phone: link state on (8 bytes)"),
            (3, "1 phone: list (8 bytes)"),
            (4, "1 camera: list: 2 presets of a KT7 (1516 bytes, after 0.001 s)"),
            (None, '     0 "Dusk" (id 1)'),
            (None, '     1 "Noon" (id 2)'),
            (5, "1 phone: picture of id 2 (16 bytes)"),
            (6, "1 camera: picture of id 2: 100 bytes (112 bytes, after 0.001 s)"),
            (7, '1 phone: store "Dusk", picture of 141 bytes (893 bytes)'),
            (8, "1 camera: store: preset 2, id 3 (24 bytes, after 0.001 s)"),
            (9, '1 phone: rename id 2 to "Late" (752 bytes)'),
            (10, "1 camera: rename: done (12 bytes, after 0.001 s)"),
            (11, "1 phone: delete 2 presets: 0 (id 1), 1 (id 2) (24 bytes)"),
            (
                12,
                "1 camera: delete: refused with -7, SM_RETURN_OPENED_ERR: a preset that a custom mode uses was kept, "
                "1 left (772 bytes, after 0.001 s)",
            ),
            (None, '     0 "Noon" (id 2)'),
            (13, "1 phone: leave, code -11 (12 bytes)"),
            (14, "1 closed"),
        ]
        expected = DAY + "".join((text if ms is None else f"{at(ms)} {text}") + "\n" for ms, text in lines)
        self.assertEqual(self.decode(capture), expected)

    def test_say_what_gets_no_reply_and_why(self):
        no_reply = {
            picture_request(0): "picture of id 0 (16 bytes); no reply, ids are above 0",
            request(6, b"hi"): "function 6 of 10 bytes (10 bytes); no reply, there is no such function",
            request(256): "function 256 of 8 bytes (8 bytes); no reply, there is no such function",
            request(257): "function 257 of 8 bytes (8 bytes); no reply, there is no such function",
            request(-1): "function -1 of 8 bytes (8 bytes); no reply, there is no such function",
            words(1, -1): "list of -1 bytes (8 bytes); no reply, its length is negative",
        }
        for sent, line in no_reply.items():
            with self.subTest(line):
                capture = conversation((PHONE, sent), (PHONE, request(STATE_ON)))
                self.assertEqual(self.said(capture)[1:], ["1 phone: " + line, "1 phone: link state on (8 bytes)"])

    def test_say_what_jams_a_camera_and_what_it_does_not_hear_after_that(self):
        end = "and none to what follows until the phone disconnects"
        jams = {
            words(1, 7): f"list of 7 bytes (8 bytes); no reply, it is shorter than its own header, {end}",
            request(LIST) + b"\0": "list (8 bytes); bytes of another message follow in its packet; "
            f"no reply, bytes of another request stand in its packet, {end}",
        }
        for sent, line in jams.items():
            with self.subTest(line):
                capture = conversation((PHONE, sent), (PHONE, request(LIST)))
                said = self.said(capture)
                self.assertEqual(said[1], "1 phone: " + line)
                unheard = "1 phone: list (8 bytes); no reply, the camera answers nothing until the phone disconnects"
                self.assertIn(unheard, said)

    def test_tell_of_a_request_after_a_jam_that_it_is_not_heard_until_the_phone_connects_again(self):
        capture = conversation((PHONE, words(1, 7)), (PHONE, request(LIST)))
        capture.disconnect_channel()
        capture.connect()
        capture.send(PHONE, request(LIST))
        capture.send(CAMERA, list_reply([]))
        self.assertEqual(
            self.said(capture)[2:],
            [
                "1 phone: list (8 bytes); no reply, the camera answers nothing until the phone disconnects",
                "1 closed",
                "2 opened: L2CAP, PSM 4097",
                "2 phone: list (8 bytes)",
                "2 camera: list: 0 presets of a KT7 (28 bytes, after 0.001 s)",
            ],
        )

    def test_tell_of_each_refusal_by_its_number_its_name_and_its_meaning(self):
        refused = {
            reply(STORE, -4, 0, 0, 0): "store: refused with -4, SM_RETURN_JPG_ERR: the preset or its picture was too "
            "short, or the picture too long (24 bytes)",
            reply(UPDATE, -6): "rename: refused with -6, SM_RETURN_LOCALN_ERR: the camera does not have this preset "
            "(12 bytes)",
            reply(DELETE, -3, 1, 0): "delete: refused with -3, SM_RETURN_STRUCT_ERR: the request was incomplete or "
            "faulty, nothing was changed (20 bytes)",
            reply(UPDATE, 99): "rename: refused with 99, result 99: the camera answered 99, which has no known "
            "meaning (12 bytes)",
            BUSY_FRAME: "busy with another phone (12 bytes)",
        }
        for sent, line in refused.items():
            with self.subTest(line):
                self.assertEqual(self.said(conversation((CAMERA, sent)))[1:], ["1 camera: " + line])

    def test_tell_of_a_reply_that_breaks_the_protocol_what_is_wrong_with_it(self):
        capture = conversation((CAMERA, reply(UPDATE, 1, 2)), (CAMERA, request(0x1006)), (CAMERA, request(LIST)))
        self.assertEqual(
            self.said(capture)[1:],
            [
                "1 camera: rename: faulty: the answer to renaming has 12 bytes, got 16 (16 bytes)",
                "1 camera: function 0x1006 of 8 bytes (8 bytes)",
                "1 camera: list (8 bytes); no camera sends this",
            ],
        )

    def test_tell_of_a_request_without_a_reply_when_that_shows(self):
        capture = conversation((PHONE, picture_request(9)), (PHONE, request(LIST)), (CAMERA, list_reply([])))
        capture.send(PHONE, request(UPDATE, NOON))
        capture.disconnect()
        self.assertEqual(
            self.decode(capture).splitlines()[2:],
            [
                f"{at(2)} 1 phone: picture of id 9 (16 bytes)",
                f"{at(3)} 1 phone: list (8 bytes)",
                f"{at(4)} 1 phone: picture of id 9: no reply",
                f"{at(4)} 1 camera: list: 0 presets of a KT7 (28 bytes, after 0.001 s)",
                f'{at(5)} 1 phone: rename id 2 to "Noon" (752 bytes)',
                f"{at(6)} 1 phone: rename: no reply",
                f"{at(6)} 1 closed",
            ],
        )

    def test_count_the_packets_that_a_message_came_in(self):
        store = request(STORE, DUSK + picture(1, 141))
        capture = conversation((PHONE, store[:400]), (PHONE, store[400:800]), (PHONE, store[800:]))
        self.assertEqual(self.said(capture)[1], '1 phone: store "Dusk", picture of 141 bytes (893 bytes in 3 packets)')

    def test_say_how_far_a_message_came_that_was_cut_off(self):
        store = request(STORE, DUSK + picture(1, 141))
        capture = conversation((PHONE, store[:100]))
        capture.disconnect()
        self.assertEqual(
            self.said(capture)[1:],
            ["1 phone: store: cut off after 100 of 893 bytes, the channel was closed", "1 closed"],
        )

    def test_count_a_request_that_is_too_long_to_its_end(self):
        capture = conversation((PHONE, words(STORE, 600001) + bytes(9992)))
        for _ in range(59):
            capture.send(PHONE, bytes(10000))
        capture.send(PHONE, bytes(1))  # 10000 + 59 * 10000 + 1 = 600001
        capture.send(PHONE, request(LIST))
        self.assertEqual(
            self.said(capture)[1:],
            [
                "1 phone: store of 600001 bytes (600001 bytes in 61 packets); no reply, a request has at most 600000 "
                "bytes",
                "1 phone: list (8 bytes)",
                "1 phone: list: no reply",
            ],
        )

    def test_show_what_could_do_something_to_a_terminal_as_a_replacement(self):
        record = changed(DUSK, title=b"\x1b]0;gone\x07\xff")
        for option in ("--width=0", "--hex"):
            with self.subTest(option):
                text = self.decode(conversation((CAMERA, list_reply([record]))), option)
                self.assertNotIn("\x1b", text)
                self.assertNotIn("\x07", text)
                self.assertIn('0 "�]0;gone��" (id 1)', text)

    def test_are_as_long_as_a_terminal_has_room_for(self):
        capture = conversation((CAMERA, reply(UPDATE, -6)))
        path = self.file("capture.btsnoop", capture.bytes())
        done = run_on_terminal("", "decode", path, columns=40, environment=UNIVERSAL)
        self.assertEqual(
            done.stdout.decode().replace("\r", "").splitlines()[2], "22:13:20.002 1 camera: rename: refused …"
        )


class OnThePage(Decoding):
    def test_of_captures_stands_what_is_printed(self):
        page = (pathlib.Path(__file__).resolve().parents[2] / "Docs" / "captures.md").read_text(encoding="utf-8")
        example = page[page.index("    2023-11-14\n") :].partition("\n\n")[0]
        listed = list_reply([DUSK, NOON])
        capture = conversation(
            (PHONE, request(LIST)),
            (CAMERA, listed[:600]),
            (CAMERA, listed[600:1200]),
            (CAMERA, listed[1200:]),
            (PHONE, picture_request(9)),
            (PHONE, request(DELETE, words(0, 1))),
            (CAMERA, request(REPLY + DELETE, words(1, 1, 1) + NOON)),
        )
        capture.disconnect()
        self.assertEqual("".join("    " + line + "\n" for line in self.decode(capture).splitlines()), example + "\n")


class Json(Decoding):
    def test_has_an_object_for_each_line(self):
        capture = conversation(
            (PHONE, request(LIST)), (CAMERA, list_reply([DUSK])[:300]), (CAMERA, list_reply([DUSK])[300:])
        )
        opened, asked, answer = self.objects(capture)
        self.assertEqual(
            opened,
            {
                "time": "2023-11-14T22:13:20.001000Z", "channel": 1, "kind": "opened", "port": 4097, "record": 2,
                "message": "opened: L2CAP, PSM 4097",
            },
        )  # fmt: skip
        self.assertEqual(
            asked,
            {
                "time": "2023-11-14T22:13:20.002000Z", "channel": 1, "kind": "request", "sender": "phone",
                "function": 1, "name": "list", "total": 8, "bytes": 8, "packets": [8], "record": 3,
                "message": "phone: list (8 bytes)",
            },
        )  # fmt: skip
        presets = answer.pop("presets")
        self.assertEqual(
            answer,
            {
                "time": "2023-11-14T22:13:20.004000Z", "channel": 1, "kind": "reply", "sender": "camera",
                "function": 4097, "name": "list", "total": 772, "bytes": 772, "packets": [300, 472], "record": 5,
                "request_record": 3, "response_microseconds": 2000, "model": "KT7",
                "message": "camera: list: 1 preset of a KT7 (772 bytes in 2 packets, after 0.002 s)",
            },
        )  # fmt: skip
        self.assertEqual([one["title"] for one in presets], ["Dusk"])
        self.assertEqual(presets[0]["form"], "words")

    def test_has_presets_in_codes_where_they_are_wanted(self):
        capture = conversation((PHONE, request(STORE, changed(DUSK, iso=400) + picture(1, 141))))
        stored = self.objects(capture, "--raw")[1]
        self.assertEqual((stored["preset"]["iso"], stored["preset"]["ev_step"]), (400, 50))
        self.assertEqual(stored["picture_bytes"], 141)

    def test_has_bytes_where_they_are_wanted(self):
        sent = request(DELETE, words(3, 7))
        deleted = self.objects(conversation((PHONE, sent)), "--hex")[1]
        self.assertEqual((deleted["hex"], deleted["presets"]), (sent.hex(), [{"number": 3, "custom_id": 7}]))


class Hex(Decoding):
    def test_has_the_meaning_of_each_byte_beside_it(self):
        capture = conversation(
            (PHONE, picture_request(1, 77)),
            (CAMERA, request(REPLY + PICTURE, words(1) + bytes(141))),
            (CAMERA, list_reply([changed(bytes(744), title=b"Noon", mode=1, custom_id=2)])),
        )
        self.assertEqual(
            [line[4:] for line in self.decode(capture, "--hex").splitlines() if line[4:6] in ("> ", "< ")],
            [
                "> 02 00 00 00            function 2: picture",
                "> 10 00 00 00            total length: 16",
                "> 01 00 00 00            custom_id: 1",
                "> 4d 00 00 00            the phone's own id of it: 77",
                "< 02 10 00 00            function 0x1002: the reply to 2",
                "< 99 00 00 00            total length: 153",
                "< 01 00 00 00            custom_id: 1",
                "< ...                    picture, 141 bytes",
                "< 01 10 00 00            function 0x1001: the reply to 1",
                "< 04 03 00 00            total length: 772",
                '< 4b 54 37 00 x 9        model: "KT7"',
                "< 01 00 00 00            record layout: 1",
                "< 01 00 00 00            presets: 1",
                '< 4e 6f 6f 6e 00 x 48    title: "Noon"',
                "< 01 00 00 00            mode: 1",
                "< 00 x 616               offsets 56 to 671",
                "< 02 00 00 00            custom_id: 2",
                "< 00 x 68                offsets 676 to 743",
            ],
        )

    def test_has_every_byte_of_a_list_once_and_in_order(self):
        generator = random.Random(5)
        data = list_reply([bytes(generator.choices(range(256), [600, *[1] * 255], k=744)) for _ in range(3)])
        self.assertEqual(shown_bytes(self.decode(conversation((CAMERA, data)), "--hex"), "<").hex(), data.hex())

    def test_has_the_bytes_of_the_worked_packets(self):
        for step in steps_of_page():
            if step.sent is None:
                continue
            with self.subTest(line=step.line):
                packets = [(PHONE, step.sent[begin : begin + 60000]) for begin in range(0, len(step.sent), 60000)]
                text = self.decode(conversation(*packets, (CAMERA, step.answer or b"")), "--hex")
                # A picture is left out, and of what is thrown away all but its first 752 bytes.
                is_store, is_picture = step.sent[:4] == words(STORE), (step.answer or b"")[:4] == words(REPLY + PICTURE)
                self.assertEqual(shown_bytes(text, ">"), step.sent[: 752 if is_store else None])
                self.assertEqual(shown_bytes(text, "<"), (step.answer or b"")[: 12 if is_picture else None])


def shown_bytes(text, mark):
    """The bytes of what one side has sent, as the lines with this mark have them."""
    digits = [re.split(r" {3,}", line[6:])[0] for line in text.splitlines() if line[4:6] == mark + " "]
    return b"".join(bytes_of(part) for part in digits if part != "...")


class Links(Decoding):
    """The same conversation on every kind of link."""

    EXPECTED = [
        "1 phone: list (8 bytes)",
        "1 camera: list: 1 preset of a KT7 (772 bytes, after 0.",
        '     0 "Dusk" (id 1)',
    ]

    def assertHeard(self, capture, opened, code=0):
        said = self.said(capture, code=code)
        self.assertEqual(said[0], "1 opened: " + opened)
        self.assertEqual(len(said), 4, said)
        for line, expected in zip(said[1:], self.EXPECTED):
            self.assertEqual(line[: len(expected)], expected)

    def test_are_read_from_every_kind_of_file(self):
        for datalink in (H1, captures.H4, MONITOR):
            with self.subTest(datalink=datalink):
                capture = BluetoothCapture(datalink)
                conversation((PHONE, request(LIST)), (CAMERA, list_reply([DUSK])), capture=capture)
                self.assertHeard(capture, "L2CAP, PSM 4097")

    def test_are_read_in_pieces_of_any_size(self):
        for size in (1, 3, 4, 5, 27, 700):
            with self.subTest(size=size):
                capture = BluetoothCapture(longest_piece=size)
                conversation((PHONE, request(LIST)), (CAMERA, list_reply([DUSK])), capture=capture)
                said = self.said(capture)
                self.assertEqual(said[1], "1 phone: list (8 bytes)")
                self.assertTrue(said[2].startswith("1 camera: list: 1 preset of a KT7 (772 bytes, after "), said)

    def test_are_recognised_by_the_first_message_where_the_port_tells_nothing(self):
        capture = BluetoothCapture()
        capture.connect(psm=0x1023)
        capture.send(PHONE, request(LIST))
        capture.send(CAMERA, list_reply([DUSK]))
        self.assertHeard(capture, "L2CAP, PSM 4131")

    def test_are_recognised_without_their_opening(self):
        capture = BluetoothCapture()
        capture.send(PHONE, request(LIST))
        capture.send(CAMERA, list_reply([DUSK]))
        self.assertHeard(capture, "L2CAP; how it was opened is not in the capture")

    def test_are_recognised_by_a_reply_without_their_opening(self):
        capture = BluetoothCapture()
        capture.send(CAMERA, reply(UPDATE, 1))
        capture.send(PHONE, request(LIST))
        self.assertEqual(
            self.said(capture)[1:],
            ["1 camera: rename: done (12 bytes)", "1 phone: list (8 bytes)", "1 phone: list: no reply"],
        )

    def test_are_ours_by_their_psm_whatever_they_begin_with(self):
        capture = BluetoothCapture()
        capture.connect(psm=0x1023)
        capture.send(PHONE, request(77))
        self.decode(capture, code=NOTHING)
        for psm in ("4131", "0x1023"):
            self.assertEqual(self.said(capture, "--psm", psm)[0], "1 opened: L2CAP, PSM 4131")

    def test_are_not_ours_where_the_camera_would_send_the_first_request(self):
        capture = BluetoothCapture()
        capture.connect(psm=0x1023)
        capture.send(CAMERA, request(LIST))
        self.decode(capture, code=NOTHING)

    def test_that_were_refused_are_none(self):
        capture = BluetoothCapture()
        capture.refuse(captures.PSM)
        self.decode(capture, code=NOTHING)

    def test_of_rfcomm_are_streams(self):
        for dlci, port in ((44, 22), (11, 5)):
            with self.subTest(dlci=dlci):
                capture = BluetoothCapture()
                capture.connect(RFCOMM_PSM)
                capture.open_rfcomm(dlci)
                for byte in request(LIST):
                    capture.send_rfcomm(PHONE, bytes([byte]), dlci)
                data = list_reply([DUSK])
                capture.send_rfcomm(CAMERA, data[:127], dlci, credits=5)
                capture.send_rfcomm(CAMERA, data[127:] + reply(UPDATE, 1), dlci, credits=0)
                self.assertEqual(
                    self.said(capture),
                    [
                        f"1 opened: RFCOMM, channel {port}",
                        "1 phone: list (8 bytes in 8 packets)",
                        "1 camera: list: 1 preset of a KT7 (772 bytes in 2 packets, after 0.002 s)",
                        '     0 "Dusk" (id 1)',
                        "1 camera: rename: done (12 bytes)",
                    ],
                )

    def test_of_rfcomm_are_recognised_without_their_opening(self):
        capture = BluetoothCapture()
        capture.send_rfcomm(PHONE, request(LIST), 44)
        capture.send_rfcomm(CAMERA, list_reply([DUSK]), 44)
        self.assertHeard(capture, "RFCOMM; how it was opened is not in the capture")

    def test_of_low_energy_carry_a_length_before_each_message(self):
        for connect in (BluetoothCapture.connect_credited, BluetoothCapture.connect_credited_together):
            with self.subTest(connect.__name__):
                capture = BluetoothCapture()
                connect(capture)
                capture.send_credited(PHONE, request(LIST))
                capture.send_credited(CAMERA, list_reply([DUSK]))
                self.assertHeard(capture, "L2CAP of Low Energy, PSM 129")

    def test_of_low_energy_are_recognised_without_their_opening(self):
        capture = BluetoothCapture()
        capture.send_credited(PHONE, request(LIST))
        capture.send_credited(CAMERA, list_reply([DUSK]))
        self.assertHeard(capture, "L2CAP of Low Energy; how it was opened is not in the capture")

    def test_with_numbered_packets_are_put_together(self):
        data = list_reply([DUSK])
        for mode, checksums in ((ENHANCED, True), (ENHANCED, False), (STREAMING, True)):
            with self.subTest(mode=mode, checksums=checksums):
                capture = BluetoothCapture()
                capture.connect()
                capture.configure(mode, checksums)
                capture.send_numbered(PHONE, request(LIST), 0, checksums=checksums)
                capture.send_numbered(CAMERA, data[:300], 0, START_OF, len(data), checksums)
                capture.send_numbered(CAMERA, data[300:600], 1, MIDDLE_OF, checksums=checksums)
                capture.send_numbered(CAMERA, data[600:], 2, END_OF, checksums=checksums)
                self.assertHeard(capture, "L2CAP, PSM 4097")

    def test_take_packets_that_are_sent_again_once_and_in_their_order(self):
        capture = BluetoothCapture()
        capture.connect()
        capture.configure(ENHANCED)
        for number in (0, 0, 2, 1, 2, 1):
            capture.send_numbered(PHONE, request(UPDATE, changed(DUSK, custom_id=number)), number)
            capture.acknowledge(CAMERA, number)
        self.assertEqual(
            self.said(capture)[1:4], [f'1 phone: rename id {number} to "Dusk" (752 bytes)' for number in (0, 1, 2)]
        )
        self.assertEqual(len(self.said(capture)), 1 + 3 + 3)  # and no reply to any of them

    def test_count_numbered_packets_beyond_their_highest_number(self):
        capture = BluetoothCapture()
        capture.connect()
        capture.configure(ENHANCED)
        for number in range(130):
            for _ in range(1 + number % 2):  # each second one comes twice
                capture.send_numbered(PHONE, request(UPDATE, changed(DUSK, custom_id=number)), number % 64)
        renamed = [one["custom_id"] for one in self.objects(capture) if one["kind"] == "request"]
        self.assertEqual(renamed, list(range(130)))

    def test_of_others_are_passed_over(self):
        generator = random.Random(3)
        capture = BluetoothCapture()
        capture.connect(psm=0x19, handle=7)
        capture.connect(RFCOMM_PSM, handle=8)
        capture.connect()
        packets = [(PHONE, request(LIST)), (CAMERA, list_reply([DUSK]))]
        for sender, data in packets:
            for _ in range(50):
                capture.send(generator.choice((PHONE, CAMERA)), generator.randbytes(generator.randrange(60)), 7)
                capture.send_rfcomm(generator.choice((PHONE, CAMERA)), generator.randbytes(40), 6, 8)
                capture.send(generator.choice((PHONE, CAMERA)), generator.randbytes(30), 9)
            capture.send(sender, data)
        self.assertHeard(capture, "L2CAP, PSM 4097")

    def test_that_stand_side_by_side_are_told_apart(self):
        capture = BluetoothCapture()
        capture.connect(handle=1)
        capture.connect(handle=2)
        capture.send(PHONE, request(UPDATE, DUSK)[:300], 1)
        capture.send(PHONE, request(LIST), 2)
        capture.send(PHONE, request(UPDATE, DUSK)[300:], 1)
        capture.send(CAMERA, list_reply([]), 2)
        capture.send(CAMERA, reply(UPDATE, 1), 1)
        self.assertEqual(
            self.said(capture)[2:],
            [
                "2 phone: list (8 bytes)",
                '1 phone: rename id 1 to "Dusk" (752 bytes in 2 packets)',
                "2 camera: list: 0 presets of a KT7 (28 bytes, after 0.002 s)",
                "1 camera: rename: done (12 bytes, after 0.002 s)",
            ],
        )


class Faulty(Decoding):
    def test_files_of_other_kinds_are_refused_by_name(self):
        pcap = TcpCapture()
        pcap.send(PHONE, request(LIST))
        others = {
            pcap.bytes(): "is a pcap file, no btsnoop file; make a btsnoop file of its Bluetooth packets: editcap",
            b"\n\r\r\n" + bytes(30): "is a pcapng file, no btsnoop file; make a btsnoop file",
            b"\x1f\x8b" + bytes(30): "is packed by gzip, no btsnoop file; unpack it",
            b"a line of text\n" * 9: "is text, no btsnoop file; give what btmon -w",
            b"": "is empty; give",
            b"btsnoop\0\0\0": "ends within its header; give",
            bytes(range(256)): "is no btsnoop file; give",
            b"btsnoop\0" + struct.pack(">II", 2, 1002): "is no btsnoop file; give",
            b"btsnoop\0" + struct.pack(">II", 1, 1003): "holds bytes of a serial line (datalink 1003)",
            b"btsnoop\0" + struct.pack(">II", 1, 1004): "holds bytes of a serial line (datalink 1004)",
            b"btsnoop\0" + struct.pack(">II", 1, 77): "holds packets of an unknown kind (datalink 77)",
        }
        for content, line in others.items():
            with self.subTest(line):
                done = run_phone("", "decode", self.file("capture", content))
                self.assertEnds(done, 2)
                self.assertIn(line, done.stderr.decode())
                self.assertEqual((done.stdout, done.stderr.count(b"\n")), (b"", 1))

    def test_a_file_has_to_be_named(self):
        done = run_phone("", "decode")
        self.assertEnds(done, 2)
        self.assertIn("FILE is required", done.stderr.decode())

    def test_files_that_cannot_be_read_are_named(self):
        for path in (os.path.join(self.folder, "none"), self.folder):
            done = run_phone("", "decode", path)
            self.assertEnds(done, 1)
            self.assertIn(f"cannot read {path}: ", done.stderr.decode())

    def test_a_capture_with_nothing_of_ours_says_so(self):
        for capture in (BluetoothCapture(), conversation()):
            capture.send(PHONE, b"hello", handle=5)
            code = 0 if capture.frames > 1 else NOTHING
            self.decode(capture, code=code)

    def test_a_file_that_is_cut_anywhere_gives_what_came_before(self):
        content = conversation((PHONE, request(LIST)), (CAMERA, list_reply([DUSK]))).bytes()
        request_ends = len(conversation((PHONE, request(LIST))).bytes())
        for size in (request_ends + 1, request_ends + 24, request_ends + 30, len(content) - 1):
            with self.subTest(size=size):
                said = self.said(content[:size], code=CUT)
                self.assertEqual(
                    said[1:],
                    ["1 phone: list (8 bytes)", "remark: the file ends within record 4", "1 phone: list: no reply"],
                )

    def test_a_record_longer_than_any_packet_ends_the_reading(self):
        content = conversation((PHONE, request(LIST))).bytes() + struct.pack(
            ">IIIIQ", 3 << 30, 3 << 30, 0, 0, captures.BTSNOOP_EPOCH + captures.START
        )
        self.assertEqual(
            self.said(content + bytes(99), code=CUT)[2],
            "remark: record 4 has 3221225472 bytes, more than any packet: the file is damaged, and is read no further",
        )

    def test_packets_that_the_capture_holds_in_part_leave_what_follows_uncertain(self):
        store = request(STORE, DUSK + picture(1, 141))
        capture = conversation((PHONE, store[:400]))
        capture.send(PHONE, store[400:800], held=10)
        capture.send(PHONE, store[800:])
        capture.send(PHONE, request(LIST))
        capture.send(CAMERA, list_reply([]))
        self.assertEqual(
            self.said(capture, code=CUT)[1:],
            [
                "1 phone: store: cut off after 400 of 893 bytes, the file holds a part of a packet only",
                "1 phone: bytes are missing: the file holds a part of a packet only",
                "1 phone: 93 bytes in 1 packet that cannot be read: bytes before these are missing",
                "1 phone: list (8 bytes)",
                "1 camera: list: 0 presets of a KT7 (28 bytes, after 0.001 s)",
            ],
        )

    def test_packets_that_were_lost_are_told_of(self):
        capture = conversation((PHONE, request(UPDATE, DUSK)[:300]))
        capture.drop(3)
        capture.send(PHONE, request(LIST))
        self.assertEqual(
            self.said(capture, code=CUT)[1:5],
            [
                "remark: 3 packets before record 4 were lost when it was captured",
                "1 camera: bytes are missing: packets were lost when it was captured",
                "1 phone: rename: cut off after 300 of 752 bytes, packets were lost when it was captured",
                "1 phone: bytes are missing: packets were lost when it was captured",
            ],
        )

    def test_numbered_packets_that_are_missing_are_told_of(self):
        capture = BluetoothCapture()
        capture.connect()
        capture.configure(STREAMING)
        capture.send_numbered(PHONE, request(LIST), 0)
        capture.send_numbered(PHONE, request(LIST), 2)
        self.assertEqual(
            self.said(capture, code=CUT)[1:4],
            [
                "1 phone: list (8 bytes)",
                "1 phone: bytes are missing: packets are missing, as their numbers tell",
                "1 phone: list (8 bytes)",
            ],
        )

    def test_remarks_without_end_are_counted(self):
        content = conversation((PHONE, request(LIST))).bytes() + bytes(24 * 5000)
        said = self.said(content, code=CUT)
        self.assertIn("remark: 4900 more remarks like these are left out", said)
        self.assertLess(len(said), 110)

    def test_mutations_end_in_one_of_the_documented_ways(self):
        generator = random.Random(20)
        contents = [capture.bytes() for capture in kinds_of_captures()]
        rounds = 150 if is_sanitized() else 1000
        for number in range(rounds):
            content = mutated(generator.choice(contents), generator)
            path = self.file("capture.btsnoop", content)
            done = subprocess.run(
                [PROGRAM, "decode", *generator.choice(([], ["--json"], ["--hex"], ["--raw", "--json"])), path],
                stdin=subprocess.DEVNULL, capture_output=True, timeout=2 * PATIENCE, env=environment_of_programs(),
            )  # fmt: skip
            self.assertIn(done.returncode, DOCUMENTED, (number, done.stderr[-500:]))
            self.assertEqual(done.stderr.count(b"\n"), 0 if done.returncode == 0 else 1, (number, done.stderr))
            self.assertNotRegex(done.stdout.decode(), r"[\0-\x09\x0b-\x1f\x7f]")


def is_sanitized():
    with open(PROGRAM, "rb") as program:
        return b"__asan_init" in program.read()


def kinds_of_captures():
    """A conversation on every kind of link."""
    data = list_reply([DUSK, NOON])
    for datalink in (H1, captures.H4, MONITOR):
        capture = BluetoothCapture(datalink, longest_piece=200)
        yield conversation(
            (PHONE, request(LIST)), (CAMERA, data), (PHONE, request(STORE, DUSK + bytes(141))), capture=capture
        )
    capture = BluetoothCapture()
    capture.connect(RFCOMM_PSM)
    capture.open_rfcomm(44)
    capture.send_rfcomm(PHONE, request(LIST), 44)
    capture.send_rfcomm(CAMERA, data, 44, credits=3)
    yield capture
    capture = BluetoothCapture()
    capture.connect_credited_together()
    capture.send_credited(PHONE, request(LIST))
    capture.send_credited(CAMERA, data)
    yield capture
    for mode in (ENHANCED, STREAMING):
        capture = BluetoothCapture()
        capture.connect()
        capture.configure(mode)
        for number in (0, 2, 1, 2) if mode == ENHANCED else (0, 1, 2):
            capture.send_numbered(PHONE, request(UPDATE, DUSK), number)
        capture.send_numbered(CAMERA, data[:300], 0, START_OF, len(data))
        capture.send_numbered(CAMERA, data[300:], 1, END_OF)
        capture.disconnect()
        yield capture


def mutated(content, generator):
    """The content with a few bytes changed, left out or put in, or cut off."""
    content = bytearray(content)
    for _ in range(generator.randrange(1, 6)):
        place = generator.randrange(len(content))
        kind = generator.randrange(4)
        if kind == 0:
            content[place] = generator.choice((0, 1, 0x7F, 0x80, 0xFF, generator.randrange(256)))
        elif kind == 1:
            del content[place : place + generator.randrange(1, 40)]
        elif kind == 2:
            content[place:place] = generator.randbytes(generator.randrange(1, 40))
        else:
            size = generator.randrange(1, 60)
            content[place : place + size] = content[generator.randrange(len(content)) :][:size]
    return bytes(content[: generator.randrange(len(content)) if generator.random() < 0.2 else None])


class Streams(Decoding):
    def test_from_standard_input_are_read(self):
        content = conversation((PHONE, request(LIST)), (CAMERA, list_reply([]))).bytes()
        done = subprocess.run(
            [PROGRAM, "decode", "-"], input=content, capture_output=True, timeout=2 * PATIENCE,
            env=environment_of_programs(**UNIVERSAL),
        )  # fmt: skip
        self.assertEnds(done, 0)
        self.assertIn(b"1 camera: list: 0 presets", done.stdout)

    def test_from_a_pipe_are_read_as_they_come(self):
        content = conversation((PHONE, request(LIST)), (CAMERA, list_reply([]))).bytes()
        path = os.path.join(self.folder, "pipe")
        os.mkfifo(path)

        def write():
            with open(path, "wb", buffering=0) as pipe:
                for begin in range(0, len(content), 50):
                    pipe.write(content[begin : begin + 50])
                    time.sleep(0.005)

        writer = threading.Thread(target=write)
        writer.start()
        done = run_phone("", "decode", path)
        writer.join()
        self.assertEnds(done, 0)
        self.assertIn(b"1 camera: list: 0 presets", done.stdout)

    def follow(self, path, *arguments):
        process = subprocess.Popen(
            [PROGRAM, "decode", "--follow", *arguments, path], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env=environment_of_programs(**UNIVERSAL),
        )  # fmt: skip
        for stream in (process.stdout, process.stderr):
            self.addCleanup(stream.close)
        self.addCleanup(lambda: process.poll() is None and (process.kill(), process.wait()))
        return process

    def test_that_grow_are_followed_from_within_a_record(self):
        content = conversation((PHONE, request(LIST)), (CAMERA, list_reply([]))).bytes()
        begin = len(conversation((PHONE, request(LIST))).bytes())
        path = self.file("growing", content[: begin + 20])
        process = self.follow(path)
        lines = [process.stdout.readline() for _ in range(3)]
        self.assertIn(b"1 phone: list (8 bytes)", lines[2])
        with open(path, "ab") as file:
            file.write(content[begin + 20 :])
        self.assertIn(b"1 camera: list: 0 presets of a KT7", process.stdout.readline())
        self.assertIsNone(process.poll())

    def test_that_grow_no_more_are_left_when_their_reader_leaves(self):
        path = self.file("growing", conversation((PHONE, request(LIST))).bytes())
        process = self.follow(path)
        process.stdout.readline()
        process.stdout.close()
        self.assertEqual((process.wait(PATIENCE), process.stderr.read()), (1, b""))

    def test_that_become_shorter_are_followed_no_further(self):
        path = self.file("growing", conversation((PHONE, request(LIST))).bytes())
        process = self.follow(path)
        for _ in range(3):
            process.stdout.readline()
        os.truncate(path, 20)
        self.assertEqual(process.wait(PATIENCE), 1)
        self.assertIn(b"it has become shorter; begin again", process.stderr.read())

    def test_end_quietly_where_their_reader_has_seen_enough(self):
        capture = conversation(*[(PHONE, request(STATE_ON))] * 5000)
        path = self.file("capture.btsnoop", capture.bytes())
        done = subprocess.run(
            f'"{PROGRAM}" decode "{path}" | head -2', shell=True, capture_output=True, timeout=2 * PATIENCE,
            env=environment_of_programs(**UNIVERSAL),
        )  # fmt: skip
        self.assertEqual((done.stdout.decode(), done.stderr), (f"{DAY}{at(1)} 1 opened: L2CAP, PSM 4097\n", b""))

    def test_of_2_gigabytes_are_read_in_little_memory(self):
        capture = conversation((PHONE, request(LIST)), (CAMERA, list_reply([])))
        record = struct.pack(">IIIIQ", 65000, 65000, 1, 0, 0)
        path = self.file("capture.btsnoop", capture.bytes())
        with open(path, "r+b") as file:
            place = len(capture.bytes())
            while place < 2 << 30:  # packets of zeros, which take no room on the disk
                file.seek(place)
                file.write(record)
                place += len(record) + 65000
            file.seek(place)
            file.write(conversation((PHONE, request(STATE_ON))).bytes()[16:])
        done = measure_phone("", "decode", path, timeout=60)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn(b"link state on", done.stdout)
        self.assertLess(done.peak, MEMORY_OF_SANITIZER if is_sanitized() else MEMORY)

    def test_with_a_picture_of_16_megabytes_are_read_in_little_memory(self):
        size = 16 << 20
        begun = conversation((CAMERA, words(REPLY + PICTURE, size, 1)))
        begin = begun.bytes()
        begun.send(CAMERA, bytes(60000))
        packet = begun.records[-1]
        path = self.file("capture.btsnoop", begin)
        with open(path, "ab") as file:
            for _ in range(size // 60000):
                file.write(packet)
        done = measure_phone("", "decode", path)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn(f"cut off after {12 + size // 60000 * 60000} of {size} bytes", done.stdout.decode())
        self.assertLess(done.peak, MEMORY_OF_SANITIZER if is_sanitized() else MEMORY)


def every_message():
    """Each request and reply, refused and broken ones among them, one to a packet."""
    yield from [(PHONE, request(STATE_ON)), (PHONE, request(LIST)), (CAMERA, list_reply([DUSK, NOON]))]
    yield from [(PHONE, picture_request(2)), (CAMERA, request(REPLY + PICTURE, words(2) + bytes(500)))]
    yield from [(PHONE, picture_request(0)), (PHONE, request(6, b"hi")), (PHONE, request(256))]
    for result in (1, 0, -1, -2, -3, -4, -6, 77):
        yield from [(PHONE, request(STORE, DUSK + bytes(141))), (CAMERA, reply(STORE, result, 0, 1, 77))]
        yield from [(PHONE, request(UPDATE, NOON)), (CAMERA, reply(UPDATE, result))]
    for result, tail in ((1, 0), (-2, 0), (-7, 8), (-8, 16)):
        yield (PHONE, request(DELETE, words(0, 1, 1, 2)))
        yield (CAMERA, request(REPLY + DELETE, words(result, 1, 1) + NOON + bytes(tail)))
    store = request(STORE, DUSK + bytes(1000))
    yield from [(PHONE, store[:500]), (PHONE, store[500:1000]), (PHONE, store[1000:])]
    yield from [(CAMERA, BUSY_FRAME), (PHONE, request(STATE_OFF, words(1)))]


def numbered_messages():
    capture = BluetoothCapture()
    capture.connect()
    capture.configure(ENHANCED)
    for number, sent in enumerate([request(STATE_ON), request(LIST), picture_request(3)]):
        capture.send_numbered(PHONE, sent, number)
    return capture


@unittest.skipUnless(captures.is_there(), "tshark is not installed")
class Agreement(Decoding):
    """What tshark itself does not hand to a dissector is left out: channels of Low Energy, and numbered packets that
    come again or hold parts."""

    @staticmethod
    def shown(capture):
        """What the dissector shows of each whole message."""
        seen = captures.show(capture, "-o", "shotmentor.channel:22")
        shown = []
        for frame in range(1, capture.frames + 1):
            for proto in seen.protocols(frame):
                fields = {field.get("name"): field.get("show") for field in proto.iter("field")}
                values = [fields.get("shotmentor." + name) for name in ("function", "length", "result")]
                if values[0] is not None:
                    shown.append(tuple(value if value is None else int(value, 0) for value in values))
        return shown

    def test_with_the_dissector_holds_for_every_message(self):
        capture = conversation(*every_message())
        shown = self.shown(capture)
        self.assertEqual(len(shown), 51)  # of 53 packets, three hold one message
        self.assertEqual(self.messages(capture), shown)

    def test_with_the_dissector_holds_on_every_link(self):
        for number, capture in enumerate([*list(kinds_of_captures())[:4], numbered_messages()]):
            with self.subTest(number=number):
                shown = self.shown(capture)
                self.assertIn(len(shown), (2, 3))
                self.assertEqual(self.messages(capture), shown)


if __name__ == "__main__":
    unittest.main()
