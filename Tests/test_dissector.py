"""What Wireshark shows of a conversation with Protocol/shotmentor.lua: captures written here, shown by tshark."""

import os
import pathlib
import random
import re
import struct
import sys
import unittest

import captures
from captures import CAMERA, ENHANCED, PHONE, RFCOMM_PSM, TCP_PORT, BluetoothCapture, TcpCapture, show

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, os.fspath(ROOT / "tools"))

import protocol_fields  # noqa: E402

RECORD = 744
ON_TCP = ["-o", f"shotmentor.tcp_port:{TCP_PORT}"]


def setUpModule():
    if not captures.is_there():
        reason = "tshark is missing: install the Debian package tshark to test the dissector"
        print(f"test_dissector.py: skipped, {reason}", file=sys.stderr)
        raise unittest.SkipTest(reason)


def words(*values):
    return struct.pack(f"<{len(values)}i", *values)


def message(function, payload=b""):
    return words(function, 8 + len(payload)) + payload


def record(texts=(), **values):
    """A record of zeros but for these words by their offset, as o52=4, and texts as pairs of offset and bytes."""
    made = bytearray(RECORD)
    for offset, text in texts:
        made[offset : offset + len(text)] = text
    for offset, value in values.items():
        struct.pack_into("<i", made, int(offset[1:]), value)
    return bytes(made)


def list_reply(*records):
    return message(0x1001, b"KT7" + bytes(9) + words(1, len(records)) + b"".join(records))


PICTURE = bytes(range(100))
LIST = message(1)
LINK_ON = message(255)


def conversation(*packets):
    """A capture of packets as pairs of sender and bytes, on L2CAP. The first of them is in frame 3."""
    capture = BluetoothCapture()
    capture.connect()
    for sender, data in packets:
        capture.send(sender, data)
    return capture


def shown(*packets):
    """Each packet's messages as tshark shows them, as lists of lines."""
    seen = show(conversation(*packets))
    return [seen.trees(frame) for frame in range(3, len(packets) + 3)]


class Messages(unittest.TestCase):
    maxDiff = None

    def test_of_a_conversation_are_shown_with_their_fields_and_with_what_belongs_together(self):
        packets = [
            (PHONE, LINK_ON),
            (PHONE, LIST),
            (CAMERA, list_reply()),
            (PHONE, message(2, words(7, 900))),
            (CAMERA, message(0x1002, words(7) + b"\xff\xd8\xff\xd9")),
            (PHONE, message(5, words(3, 7, 39, -1))),
            (CAMERA, message(0x1005, words(-7, 1, 0) + bytes(8))),
            (PHONE, message(0, words(-11))),
        ]
        on, ask, presets, fetch, picture, delete, left, off = shown(*packets)
        self.assertEqual(
            on, [["ShotMentor, request: link state on", "  Function: link state on (255)", "  Total length: 8"]]
        )
        self.assertEqual(
            ask,
            [
                [
                    "ShotMentor, request: preset list",
                    "  Function: preset list (1)",
                    "  Total length: 8",
                    "  Reply in frame: 5",
                ]
            ],
        )
        self.assertEqual(
            presets,
            [
                [
                    "ShotMentor, reply: preset list, 0 presets",
                    "  Function: preset list (reply) (4097)",
                    "  Total length: 28",
                    "  Model: KT7",
                    "  Record layout: 1",
                    "  Number of presets: 0",
                    "  Reply to frame: 4",
                    "  Time from the request: 0.001000000 seconds",
                ]
            ],
        )
        self.assertEqual(
            fetch,
            [
                [
                    "ShotMentor, request: picture of preset id 7",
                    "  Function: picture (2)",
                    "  Total length: 16",
                    "  Id on the camera (custom_id): 7",
                    "  Id on the phone (applocal_id): 900",
                    "  Reply in frame: 7",
                ]
            ],
        )
        self.assertEqual(
            picture,
            [
                [
                    "ShotMentor, reply: picture of preset id 7, 4 bytes",
                    "  Function: picture (reply) (4098)",
                    "  Total length: 16",
                    "  Id on the camera (custom_id): 7",
                    "  Picture: ffd8ffd9",
                    "  Reply to frame: 6",
                    "  Time from the request: 0.001000000 seconds",
                ]
            ],
        )
        self.assertEqual(
            delete,
            [
                [
                    "ShotMentor, request: delete",
                    "  Function: delete (5)",
                    "  Total length: 24",
                    "  Preset to delete: number 3, id 7",
                    "    Preset number: 3",
                    "    Id on the camera: 7",
                    "  Preset to delete: number 39, id -1",
                    "    Preset number: 39",
                    "    Id on the camera: -1",
                    "  Reply in frame: 9",
                ]
            ],
        )
        self.assertEqual(
            left,
            [
                [
                    "ShotMentor, reply: delete, SM_RETURN_OPENED_ERR, 0 presets",
                    "  Function: delete (reply) (4101)",
                    "  Total length: 28",
                    "  Result: SM_RETURN_OPENED_ERR (-7)",
                    "    ! a preset asked for deletion is linked to a custom mode and was kept",
                    "  Record layout: 1",
                    "  Number of presets: 0",
                    "  Bytes without a meaning: 0000000000000000",
                    "  Reply to frame: 8",
                    "  Time from the request: 0.001000000 seconds",
                ]
            ],
        )
        self.assertEqual(
            off,
            [
                [
                    "ShotMentor, request: link state off",
                    "  Function: link state off (0)",
                    "  Total length: 12",
                    "  Result of the phone: SM_RETURN_BT_DATA_ERR (-11)",
                ]
            ],
        )

    def test_that_store_and_update_are_shown_with_their_records_and_results(self):
        seen = show(
            conversation(
                (PHONE, message(3, record() + PICTURE)),
                (CAMERA, message(0x1003, words(1, 11, 12, 13))),
                (PHONE, message(4, record(o672=5))),
                (CAMERA, message(0x1004, words(-6))),
            )
        )
        self.assertEqual(seen.values(3, "length"), ["852"])  # 8 of the header, 744, 100
        self.assertEqual(len(seen.fields(3, "record")), 1)
        self.assertEqual(seen.fields(3, "picture")[0].get("value"), PICTURE.hex())
        self.assertEqual(
            seen.trees(4)[0][3:7],
            [
                "  Result: SM_RETURN_TRUE (1)",
                "  Preset number (preset_num): 11",
                "  Id on the camera (custom_id): 12",
                "  Id on the phone (applocal_id): 13",
            ],
        )
        self.assertEqual(seen.values(5, "record.custom_id"), ["5"])
        self.assertEqual(seen.labels(6, "result"), ["Result: SM_RETURN_LOCALN_ERR (-6)"])
        self.assertEqual(seen.values(4, "response_to"), ["3"])
        self.assertEqual(seen.values(6, "response_to"), ["5"])

    def test_to_a_second_phone_say_that_the_camera_is_busy(self):
        [[lines]] = shown((CAMERA, message(0x10FF, words(1))))
        self.assertEqual(lines[0], "ShotMentor, reply: busy")
        self.assertIn("  ! The camera serves another phone", lines)

    def test_that_got_no_reply_leave_the_reply_to_the_newest_request_of_their_preset(self):
        seen = show(
            conversation(
                (PHONE, message(2, words(8, 1))),
                (PHONE, message(2, words(9, 1))),
                (PHONE, message(2, words(8, 1))),
                (CAMERA, message(0x1002, words(8))),
                (PHONE, LIST),
                (CAMERA, message(0x1002, words(9))),
            )
        )
        self.assertEqual([seen.values(frame, "response_in") for frame in (3, 4, 5, 7)], [[], [], ["6"], []])
        self.assertEqual([seen.values(frame, "response_to") for frame in (6, 8)], [["5"], []])

    def test_that_reply_before_any_request_belong_to_none(self):
        seen = show(conversation((CAMERA, list_reply()), (PHONE, LIST)))
        self.assertEqual([seen.values(3, "response_to"), seen.values(4, "response_in")], [[], []])


class Records(unittest.TestCase):
    maxDiff = None

    def labels(self, made, sender=CAMERA):
        """The labels of the first field of each name, by name, of one record in a list or an update."""
        packet = list_reply(made) if sender == CAMERA else message(4, made)
        seen = show(conversation((sender, packet)))
        return {field.name: seen.labels(3, "record." + field.name)[0] for field in protocol_fields.fields()}

    def test_show_each_field_at_its_place(self):
        """Each word holds its own offset, so that the value tells where it was read."""
        made = record([(0, b"Dusk"), (688, b"/p/1.jpg")], **{f"o{at}": at for at in [*range(52, 688, 4), 740]})
        seen = show(conversation((CAMERA, list_reply(made))))
        found = {field.name: seen.values(3, "record." + field.name) for field in protocol_fields.fields()}
        triples = {color: seen.values(3, "record.cs_color." + color) for color in ("red", "green", "blue")}
        places = {
            field.name: [str(field.offset + 4 * index) for index in range(field.count)]
            for field in protocol_fields.fields()
            if field.kind in ("word", "words")
        }
        self.assertEqual(found.pop("title"), ["Dusk"])
        self.assertEqual(found.pop("screennail_path"), ["/p/1.jpg"])
        self.assertEqual(len(found.pop("cs_color")), 13)
        self.assertEqual(found, places)
        self.assertEqual(triples["red"], [str(160 + 12 * index) for index in range(13)])
        self.assertEqual(triples["green"], [str(164 + 12 * index) for index in range(13)])
        self.assertEqual(triples["blue"], [str(168 + 12 * index) for index in range(13)])

    def test_in_manual_mode_have_an_aperture_and_a_time_but_no_compensation(self):
        labels = self.labels(record(o52=4, o56=28, o60=84, o64=400, o68=400, o72=15, o740=2))
        self.assertEqual(labels["mode"], "mode: Manual (4)")
        self.assertEqual(labels["av_index"], "av_index: f/2.8 (28)")
        self.assertEqual(labels["tv_index"], "tv_index: 1/125 s (84)")
        self.assertEqual(labels["iso"], "iso: ISO 400 (400)")
        self.assertEqual(labels["iso_1_3"], "iso_1_3: ISO 400 (400)")
        self.assertEqual(labels["ev_step"], "ev_step: - (15)")
        self.assertEqual(labels["linked_custom_mode"], "linked_custom_mode: CUSTOM2 (2)")

    def test_in_aperture_mode_leave_the_time_to_the_camera(self):
        labels = self.labels(record(o52=2, o56=110, o60=84, o72=66))
        self.assertEqual(labels["av_index"], "av_index: f/11 (110)")
        self.assertEqual(labels["tv_index"], "tv_index: - (84)")
        self.assertEqual(labels["iso"], "iso: ISO auto (0)")
        # 66 stands 16 above 50, which is 1.6 of the scale's tenths: 5 thirds.
        self.assertEqual(labels["ev_step"], "ev_step: +1 2/3 EV (66)")

    def test_show_compensations_below_none_and_codes_that_are_none(self):
        shown_as = {0: "-5 EV", 47: "-1/3 EV", 50: "0 EV", 60: "+1 EV", 100: "+5 EV", 101: "code 101", -1: "code -1"}
        made = [record(o72=code) for code in shown_as]
        seen = show(conversation((CAMERA, list_reply(*made))))
        expected = [f"ev_step: {text} ({code})" for code, text in shown_as.items()]
        self.assertEqual(seen.labels(3, "record.ev_step"), expected)

    def test_of_the_phone_have_a_position_for_third_steps_of_the_sensitivity(self):
        labels = self.labels(record(o64=400, o68=9), PHONE)
        self.assertEqual(labels["iso"], "iso: ISO 400 (400)")
        self.assertEqual(labels["iso_1_3"], "iso_1_3: ISO 400 (9)")

    def test_show_white_balance_styles_and_origin_in_words(self):
        values = {"o52": 3, "o60": 3, "o88": 10, "o92": 5200, "o152": 13, "o684": 0x144, "o316": 5, "o368": 6}
        labels = self.labels(record(o160=255, o164=128, **values))
        self.assertEqual(labels["type"], "type: Kelvin (10)")
        self.assertEqual(labels["k_value"], "k_value: 5200 K (5200)")
        self.assertEqual(labels["color_style"], "color_style: C4 (13)")
        self.assertEqual(labels["made_id"], "made_id: 0x144, korvel, made on a KT camera (324)")
        self.assertEqual(labels["cs_saturation"], "cs_saturation: 5 (style 0)")
        self.assertEqual(labels["cs_color"], "cs_color: 255 128 0 (style 1)")
        self.assertEqual(labels["tv_index"], "tv_index: step 3 (3)")

    def test_with_texts_in_any_encoding_are_shown(self):
        titles = {b"A" * 52: "A" * 52, b"\xff\xfe": "\ufffd\ufffd", b"": "", b"Caf\xc3\xa9": "Café"}
        seen = show(conversation((CAMERA, list_reply(*(record([(0, title)]) for title in titles)))))
        self.assertEqual(seen.values(3, "record.title"), list(titles.values()))

    def test_are_found_by_filters(self):
        capture = conversation((CAMERA, list_reply(record(o64=400))), (CAMERA, list_reply(record(o64=200, o52=4))))
        filters = {
            "shotmentor.record.iso == 400": ["3"],
            'shotmentor.record.mode == "Manual"': ["4"],
            "shotmentor.picture": [],
        }
        for text, frames in filters.items():
            self.assertEqual(show(capture, "-Y", text).numbers(), frames)


class Documentation(unittest.TestCase):
    def test_names_filters_that_there_are(self):
        page = (ROOT / "Docs" / "captures.md").read_text(encoding="utf-8").replace("\\|", "|")
        rows = re.findall(r"^\| `(shotmentor.*?)` \| ", page.partition("## Filter")[2], re.MULTILINE)
        rows = [row for row in rows if row != "shotmentor"]
        self.assertGreater(len(rows), 10)
        seen = show(conversation((PHONE, LIST)), "-Y", " || ".join(f"({row})" for row in rows))
        self.assertEqual(seen.exit_code, 0, seen.errors)


class Packets(unittest.TestCase):
    maxDiff = None
    reply = list_reply(record(o64=100), record(o64=200))

    def test_of_l2cap_that_hold_parts_of_messages_of_both_sides_make_whole_messages(self):
        store = message(3, record(o64=800) + PICTURE)
        seen = show(
            conversation(
                (PHONE, store[:8]),
                (CAMERA, self.reply[:1000]),
                (PHONE, store[8:700]),
                (CAMERA, self.reply[1000:]),
                (PHONE, store[700:]),
            )
        )
        self.assertEqual([tree[0] for tree in seen.trees(3)], ["ShotMentor, part of a message"])
        self.assertEqual([seen.values(frame, "completed_in") for frame in (3, 4, 5)], [["7"], ["6"], ["7"]])
        self.assertEqual(seen.values(6, "record.iso"), ["100", "200"])
        self.assertEqual(seen.values(6, "packets"), ["2"])
        self.assertEqual(seen.values(7, "record.iso"), ["800"])
        self.assertEqual([seen.values(7, name) for name in ("begins_in", "packets")], [["3"], ["3"]])

    def test_that_are_shown_once_are_put_together_as_well(self):
        capture = conversation((CAMERA, self.reply[:500]), (CAMERA, self.reply[500:]))
        for options in (["-2"], []):
            seen = captures.show(capture, read=options)
            self.assertEqual(seen.values(4, "record.iso"), ["100", "200"])

    def test_of_l2cap_with_two_messages_show_both_and_that_a_camera_is_stuck_by_them(self):
        seen = show(conversation((PHONE, LINK_ON + LIST)))
        self.assertEqual(
            [tree[0] for tree in seen.trees(3)],
            ["ShotMentor, request: link state on", "ShotMentor, request: preset list"],
        )
        self.assertEqual(seen.remarks(3), ["stuck"])

    def test_of_a_request_that_is_too_long_are_thrown_away_to_its_last_byte(self):
        rest = [(PHONE, b"\xff" * 60000)] * 9
        packets = [(PHONE, words(3, 600001)), (PHONE, bytes(59993)), *rest, (PHONE, LIST)]
        seen = show(conversation(*packets))
        self.assertEqual(seen.remarks(3), ["unanswered"])
        self.assertEqual([tree[0] for tree in seen.trees(13)], ["ShotMentor, rest of a message that is thrown away"])
        self.assertEqual([tree[0] for tree in seen.trees(14)], ["ShotMentor, request: preset list"])

    def test_of_l2cap_that_cut_a_header_are_remarked_on(self):
        seen = show(conversation((PHONE, LIST[:5]), (PHONE, LIST[5:])))
        self.assertEqual(seen.remarks(3), ["malformed"])
        self.assertEqual(seen.values(4, "function"), ["1"])

    def test_of_two_phones_are_kept_apart_by_their_connections(self):
        capture = BluetoothCapture()
        for handle in (1, 2):
            capture.connect(handle=handle)
        capture.send(CAMERA, self.reply[:600], handle=1)
        capture.send(CAMERA, LIST[:4], handle=2)
        capture.send(CAMERA, self.reply[600:], handle=1)
        self.assertEqual(show(capture).values(7, "record.iso"), ["100", "200"])

    def test_of_a_connection_that_was_lost_do_not_go_into_the_next_one(self):
        capture = BluetoothCapture()
        capture.connect()
        capture.send(PHONE, message(2, words(7, 1))[:12])
        capture.connect()
        capture.send(PHONE, LIST)
        self.assertEqual(show(capture).labels(6, "function"), ["Function: preset list (1)"])

    def test_of_rfcomm_are_a_stream_of_bytes(self):
        capture = BluetoothCapture()
        capture.connect(RFCOMM_PSM)
        stream = LINK_ON + LIST + message(2, words(7, 1))
        capture.send_rfcomm(PHONE, stream[:19], dlci=14)
        capture.send_rfcomm(PHONE, stream[19:], dlci=14)
        capture.send_rfcomm(CAMERA, self.reply[:900], dlci=14)
        capture.send_rfcomm(CAMERA, self.reply[900:], dlci=14)
        seen = show(capture, "-o", "shotmentor.channel:7")
        self.assertEqual(
            [tree[0] for tree in seen.trees(3)],
            [
                "ShotMentor, request: link state on",
                "ShotMentor, request: preset list",
                "ShotMentor, part of a message",
            ],
        )
        self.assertEqual(seen.values(4, "custom_id"), ["7"])
        self.assertEqual(seen.values(6, "record.iso"), ["100", "200"])
        self.assertEqual(seen.values(6, "response_to"), ["3"])
        self.assertEqual([seen.remarks(frame) for frame in (3, 4, 5, 6)], [[], [], [], []])

    def test_of_rfcomm_are_recognised_by_the_first_of_them_on_any_channel(self):
        capture = BluetoothCapture()
        capture.connect(RFCOMM_PSM)
        capture.send_rfcomm(PHONE, LINK_ON + LIST[:5], dlci=44)  # channel 22, where the desk has its own captures
        capture.send_rfcomm(PHONE, LIST[5:], dlci=44)
        capture.send_rfcomm(CAMERA, self.reply[:900], dlci=44)
        capture.send_rfcomm(CAMERA, self.reply[900:], dlci=44)
        for read in (captures.READ_TWICE, ["-2"], []):
            seen = captures.show(capture, read=read)
            self.assertEqual([seen.values(frame, "function") for frame in (3, 4, 6)], [["255"], ["1"], ["4097"]])
            self.assertEqual(seen.values(6, "record.iso"), ["100", "200"])
            self.assertEqual(seen.values(6, "response_to"), ["4"])

    def test_of_rfcomm_that_are_others_are_left_alone(self):
        capture = BluetoothCapture()
        capture.connect(RFCOMM_PSM)
        others = [b"AT+CIND?\r", words(1, 9) + b"x", words(255, 12, 1), LIST[:7]]
        for dlci, other in enumerate(others, 2):
            capture.send_rfcomm(PHONE, other, dlci=dlci)
            capture.send_rfcomm(CAMERA, b"\r\nOK\r\n", dlci=dlci)
        capture.send_rfcomm(PHONE, LIST, dlci=40)
        capture.send_rfcomm(PHONE, b"AT\r", dlci=2)
        seen = show(capture)
        self.assertEqual([len(seen.protocols(frame)) for frame in range(3, 13)], [0] * 8 + [1, 0])

    def test_of_rfcomm_that_are_not_recognised_are_shown_when_their_channel_is_named(self):
        capture = BluetoothCapture()
        capture.connect(RFCOMM_PSM)
        capture.send_rfcomm(PHONE, message(0, words(1)), dlci=15)
        self.assertEqual(show(capture).values(3, "function"), [])
        self.assertEqual(show(capture, "-o", "shotmentor.channel:7").values(3, "function"), ["0"])
        self.assertEqual(show(capture, "-d", "btrfcomm.dlci==15,shotmentor").values(3, "function"), ["0"])

    def test_of_low_energy_are_put_together_from_their_frames_in_a_log_of_the_phone(self):
        capture = BluetoothCapture(owner=PHONE)
        capture.connect_credited(0x80)
        asked = capture.send_credited(PHONE, LIST)
        answered = capture.send_credited(CAMERA, self.reply)
        self.assertEqual(answered, asked + 24)  # 1516 bytes and a length of 2, of which each frame has 64
        seen = show(capture, "-o", "shotmentor.psm:128")
        self.assertEqual(seen.values(asked, "response_in"), [str(answered)])
        self.assertEqual(seen.values(answered, "record.iso"), ["100", "200"])

    def test_of_low_energy_are_put_together_from_their_frames_in_a_log_of_the_camera(self):
        capture = BluetoothCapture()
        capture.connect_credited(0x80)
        asked = capture.send_credited(PHONE, LIST)
        answered = capture.send_credited(CAMERA, self.reply)
        again = capture.send_credited(PHONE, message(2, words(7, 1)))
        self.assertEqual([answered, again], [asked + 24, asked + 25])
        for read in (captures.READ_TWICE, ["-2"], []):
            seen = captures.show(capture, read=read)
            self.assertEqual([tree[0] for tree in seen.trees(asked + 1)], ["ShotMentor, part of a message"])
            self.assertEqual(seen.values(answered, "record.iso"), ["100", "200"])
            self.assertEqual(seen.values(answered, "response_to"), [str(asked)])
            self.assertEqual(seen.values(again, "custom_id"), ["7"])

    def test_of_low_energy_on_a_link_that_was_lost_do_not_go_into_the_next_one(self):
        capture = BluetoothCapture()
        capture.connect_credited(0x80)
        capture.send(CAMERA, struct.pack("<H", len(self.reply)) + self.reply[:198])
        capture.connect_credited(0x80)
        answered = capture.send_credited(CAMERA, self.reply)
        self.assertEqual(show(capture).values(answered, "record.iso"), ["100", "200"])

    def test_of_low_energy_that_are_others_are_left_alone(self):
        capture = BluetoothCapture()
        capture.connect_credited(0x80)
        for data in (b"hello, this is something else", LIST[:7], words(1, 9) + b"x", b""):
            capture.send_credited(PHONE, data)
        seen = show(capture)
        self.assertEqual([len(seen.protocols(frame)) for frame in range(3, 7)], [0] * 4)

    def test_of_a_channel_whose_opening_is_not_in_the_capture_are_recognised_by_the_first_of_each_side(self):
        capture = BluetoothCapture()
        capture.send(PHONE, b"some other bytes")
        capture.send(PHONE, LIST)
        capture.send(CAMERA, self.reply)
        seen = show(capture)
        self.assertEqual([seen.values(frame, "function") for frame in (1, 2, 3)], [[], ["1"], ["4097"]])
        self.assertEqual(seen.values(3, "response_to"), ["2"])

    def test_of_enhanced_retransmission_are_shown_without_its_control_fields(self):
        capture = BluetoothCapture()
        capture.connect()
        capture.configure(ENHANCED)
        asked = capture.send_numbered(PHONE, LIST, 0)
        answered = capture.send_numbered(CAMERA, self.reply, 0)
        seen = show(capture)
        self.assertEqual(seen.values(asked, "length"), ["8"])
        self.assertEqual(seen.values(answered, "record.iso"), ["100", "200"])
        self.assertEqual(seen.values(answered, "response_to"), [str(asked)])

    def test_of_another_psm_are_shown_when_it_is_named(self):
        capture = BluetoothCapture()
        capture.connect(4099)
        capture.send(PHONE, LIST)
        self.assertEqual(show(capture).values(3, "function"), [])
        self.assertEqual(show(capture, "-o", "shotmentor.psm:4099").values(3, "function"), ["1"])
        self.assertEqual(show(capture, "-d", "btl2cap.psm==4099,shotmentor").values(3, "function"), ["1"])

    def test_of_a_channel_whose_opening_is_not_in_the_capture_are_shown_when_it_is_named(self):
        capture = BluetoothCapture()
        capture.send(PHONE, LIST)
        capture.send(CAMERA, self.reply[:600])
        capture.send(CAMERA, self.reply[600:])
        seen = show(capture, "-d", "btl2cap.cid==0x40,shotmentor", "-d", "btl2cap.cid==0x51,shotmentor")
        self.assertEqual(seen.values(3, "record.iso"), ["100", "200"])
        self.assertEqual(seen.values(3, "response_to"), ["1"])

    def test_that_the_capture_cut_are_remarked_on_and_the_next_message_is_read(self):
        capture = BluetoothCapture()
        capture.connect()
        capture.send(CAMERA, self.reply, held=50)
        capture.send(PHONE, LIST)
        seen = show(capture)
        self.assertEqual(seen.remarks(3), ["cut"])
        self.assertEqual(seen.values(4, "function"), ["1"])


class Tcp(unittest.TestCase):
    reply = list_reply(record(o64=100), record(o64=200))

    def test_puts_messages_together_and_takes_them_apart(self):
        capture = TcpCapture()
        stream = LINK_ON + LIST + message(2, words(7, 1))
        for part in (stream[:4], stream[4:19], stream[19:]):
            capture.send(PHONE, part)
        capture.send(CAMERA, self.reply[:1000])
        capture.send(CAMERA, self.reply[1000:] + message(0x1002, words(7) + b"jpeg"))
        seen = show(capture, *ON_TCP)
        titles = [tree[0] for frame in range(1, 6) for tree in seen.trees(frame)]
        self.assertEqual(
            titles,
            [
                "ShotMentor, request: link state on",
                "ShotMentor, request: preset list",
                "ShotMentor, request: picture of preset id 7",
                "ShotMentor, reply: preset list, 2 presets",
                "ShotMentor, reply: picture of preset id 7, 4 bytes",
            ],
        )
        self.assertEqual(seen.values(5, "record.iso"), ["100", "200"])
        # The list request has bytes 8 to 15 of the stream, the other one 16 to 31.
        self.assertEqual(seen.values(5, "response_to"), ["2", "3"])

    def test_that_repeats_a_segment_shows_the_message_once(self):
        capture = TcpCapture()
        capture.send(CAMERA, self.reply[:1000])
        capture.send_again()
        capture.send(CAMERA, self.reply[1000:])
        seen = show(capture, *ON_TCP)
        self.assertEqual([len(seen.protocols(frame)) for frame in (1, 2, 3)], [0, 0, 1])
        self.assertEqual(seen.values(3, "record.iso"), ["100", "200"])

    def test_without_reassembly_by_wireshark_is_put_together_as_well(self):
        capture = TcpCapture()
        capture.send(CAMERA, self.reply[:1000])
        capture.send(CAMERA, self.reply[1000:] + message(0x1004, words(1)))
        seen = show(capture, *ON_TCP, "-o", "tcp.desegment_tcp_streams:FALSE")
        self.assertEqual(seen.values(2, "record.iso"), ["100", "200"])
        self.assertEqual(seen.values(2, "result"), ["1"])

    def test_is_recognised_by_its_first_message_on_any_port(self):
        capture = TcpCapture()
        capture.send(PHONE, LINK_ON)
        capture.send(CAMERA, self.reply)
        self.assertEqual([show(capture).values(frame, "function") for frame in (1, 2)], [["255"], ["4097"]])

    def test_of_others_is_left_alone(self):
        others = [b"GET / HTTP/1.1\r\n\r\n", words(1, 9) + b"x", words(255, 12, 1), words(5, 8), bytes(16), LIST]
        capture = TcpCapture()
        for port, other in enumerate(others, 50000):
            capture.send(PHONE, other, phone_port=port)
        seen = show(capture)
        self.assertEqual([len(seen.protocols(frame)) for frame in range(1, 7)], [0, 0, 0, 0, 0, 1])

    def test_throws_away_as_many_bytes_as_a_request_announces_that_is_too_long(self):
        capture = TcpCapture()
        capture.send(PHONE, words(3, 600001) + bytes(59993))  # 60001 of them
        for _ in range(9):
            capture.send(PHONE, b"\xff" * 60000)
        capture.send(PHONE, LIST)
        seen = show(capture, *ON_TCP)
        self.assertEqual(seen.remarks(1), ["unanswered"])
        self.assertEqual([tree[0] for tree in seen.trees(10)], ["ShotMentor, rest of a message that is thrown away"])
        self.assertEqual(seen.values(11, "function"), ["1"])


class Malformed(unittest.TestCase):
    maxDiff = None

    def test_messages_have_a_remark_that_says_what_is_wrong(self):
        cases = {
            "an unknown function": (message(6), ["unanswered"]),
            "a function that no camera takes": (message(257), ["unanswered"]),
            "a function below 0": (message(-1, words(1)), ["unanswered"]),
            "a negative total": (words(1, -8, 1), ["unanswered"]),
            "a total below the header": (words(1, 7, 1), ["stuck"]),
            "a reply that no camera sends": (message(0x1006), ["malformed"]),
            "a picture without an id": (message(2), ["malformed"]),
            "a picture of no preset": (message(2, words(0, 1)), ["unanswered"]),
            "a record too short": (message(4, bytes(743)), ["malformed"]),
            "a picture too short": (message(3, record() + bytes(99)), ["malformed"]),
            "no preset to delete": (message(5), ["malformed"]),
            "an entry cut": (message(5, words(1, 2, 3)), ["malformed"]),
            "a preset number of 40": (message(5, words(40, 2)), ["malformed"]),
            "an id of 0": (message(5, words(0, 0)), ["malformed"]),
            "no result": (message(0x1004), ["malformed"]),
            "a result cut": (message(0x1004, b"\1\2\3"), ["malformed"]),
            "a model cut": (message(0x1001, b"KT7"), ["malformed"]),
            "another layout": (message(0x1001, bytes(12) + words(2, 0)), ["malformed"]),
            "more presets than a camera has": (message(0x1001, bytes(12) + words(1, 41)), ["malformed", "malformed"]),
            "fewer presets than none": (message(0x1001, bytes(12) + words(1, -1)), ["malformed"]),
            "a preset less than said": (message(0x1005, words(1, 1, 1)), ["malformed"]),
            "a tail of 4 bytes": (message(0x1005, words(1, 1, 0, 0)), ["surplus_bytes"]),
            "bytes behind a list request": (message(1, words(0)), ["surplus_bytes"]),
        }
        capture = conversation()
        frames = {}
        for name, (packet, _) in cases.items():
            frames[name] = capture.send(PHONE, packet)
        seen = show(capture)
        self.assertEqual(
            {name: seen.remarks(frame) for name, frame in frames.items()},
            {name: remarks for name, (_, remarks) in cases.items()},
        )

    def test_lists_of_more_presets_than_a_camera_has_are_shown_as_far_as_a_camera_has_any(self):
        seen = show(conversation((CAMERA, list_reply(*[record()] * 41))))
        self.assertEqual(len(seen.fields(3, "record")), 40)
        self.assertEqual(len(seen.fields(3, "surplus")[0].get("value")), 2 * 744)

    def test_starts_of_messages_do_not_keep_the_next_request_from_being_read(self):
        starts = [words(-1, 16, 1), words(1, 7), words(1, -1) + bytes(30)]
        packets = [packet for start in starts for packet in ((PHONE, start), (PHONE, LINK_ON))]
        seen = show(conversation(*packets))
        self.assertEqual([seen.values(frame, "function") for frame in (4, 6, 8)], [["255"]] * 3)


class AnyBytes(unittest.TestCase):
    """Conversations with bytes changed, lost, doubled and moved, of which many are read in one run."""

    def mutated(self, chance):
        stream = bytearray(
            b"".join(
                chance.sample(
                    [
                        LINK_ON,
                        LIST,
                        list_reply(record(o52=4, o60=84)),
                        message(2, words(7, 1)),
                        message(0x1002, words(7) + PICTURE),
                        message(3, record() + PICTURE),
                        message(0x1003, words(1, 2, 3, 4)),
                        message(4, record()),
                        message(0x1004, words(-2)),
                        message(5, words(0, 7, 1, 8)),
                        message(0x1005, words(1, 1, 1) + record() + bytes(16)),
                        message(0, words(1)),
                    ],
                    2,
                )
            )
        )
        for _ in range(chance.randint(1, 4)):
            at = chance.randrange(len(stream))
            interesting = chance.choice(
                [0, 1, -1, 8, 7, 40, 41, 0x1001, 0x10FF, 600000, 600001, 2**31 - 1, -(2**31)]
            )
            change = chance.randrange(4)
            if change == 0:
                stream[at] = chance.randrange(256)
            elif change == 1:
                struct.pack_into("<i", stream, min(at % 32 & ~3, len(stream) - 4), interesting)
            elif change == 2:
                del stream[at : at + chance.randint(1, 16)]
            else:
                stream[at:at] = stream[:at][-chance.randint(1, 16) :]
            if len(stream) < 8:
                stream += bytes(8)
        return bytes(stream)

    def packets(self, chance):
        """A changed conversation in one to four packets, some of which the capture holds in part."""
        stream = self.mutated(chance)
        cuts = sorted(chance.randrange(len(stream)) for _ in range(chance.randrange(4)))
        for start, end in zip([0, *cuts], [*cuts, len(stream)]):
            if start < end:
                held = chance.randrange(end - start) if chance.random() < 0.05 else None
                yield chance.choice([PHONE, CAMERA]), stream[start:end], held

    def check(self, capture, *options):
        for read in ([], captures.READ_TWICE):
            seen = captures.show(capture, *options, read=read)
            self.assertEqual(seen.exit_code, 0, seen.errors)
            self.assertEqual(len(seen.frames), capture.frames)
            self.assertEqual(
                re.findall(r"Lua Error.{80}|\.lua:\d+.*|Malformed Packet:|Dissector bug", seen.text + seen.errors), []
            )
        return seen

    def test_on_l2cap_and_rfcomm_are_shown_without_an_error(self):
        chance = random.Random(1)
        capture, frames = BluetoothCapture(), []
        for handle in range(1, 701):
            on_rfcomm = handle % 4 == 0
            dlci = 14 if handle % 8 == 0 else 44  # named, or recognised if the first message still is one
            if handle % 8 == 1:
                capture.connect_credited(0x80, handle)
            else:
                capture.connect(RFCOMM_PSM if on_rfcomm else captures.PSM, handle)
            for sender, data, held in self.packets(chance):
                if on_rfcomm:
                    frame = capture.send_rfcomm(sender, data, dlci, handle)
                    frames += [frame] if dlci == 14 else []
                elif handle % 8 == 1:
                    capture.send_credited(sender, data, handle=handle)
                elif held is None:
                    frames.append(capture.send(sender, data, handle))
                else:
                    capture.send(sender, data, handle, held)
        seen = self.check(capture, "-o", "shotmentor.channel:7")
        self.assertEqual([frame for frame in frames if not seen.protocols(frame)], [])

    def test_on_tcp_are_shown_without_an_error(self):
        chance = random.Random(2)
        capture, frames = TcpCapture(), []
        for port in range(50000, 50300):
            for sender, data, held in self.packets(chance):
                frames.append(capture.send(sender, data, phone_port=port, held=held))
        seen = self.check(capture, *ON_TCP)
        self.assertGreater(sum(bool(seen.protocols(frame)) for frame in frames), len(frames) / 2)


if __name__ == "__main__":
    unittest.main()
