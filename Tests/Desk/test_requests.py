"""Each request by its raw bytes, over both kinds of socket, whole and cut in every way."""

import random
import struct
import unittest

from desk import (
    DELETE, LIST, LONGEST_REQUEST, PHONE_RECORD, PICTURE, REPLY, STATE_OFF, STATE_ON, STORE, UPDATE,
    DeskTest, Stored, changed, delete_reply, delete_request, get, list_reply, phone_record, picture,
    picture_request,
    request, rich_record, store_request, store_result, stored_picture, to_camera, to_phone, update_request,
    what_a_phone_gets,
)  # fmt: skip


def whole(data):
    return []


def byte_by_byte(data):
    return list(range(1, len(data)))


def header_first(data):
    return [8]


def randomly(data):
    dice = random.Random(len(data))
    return sorted(dice.sample(range(1, len(data)), min(len(data) - 1, 12)))


def behind_the_header(way):
    """The same, on a link that keeps packet borders: the header lies in the first packet."""

    def cuts(data):
        return [cut for cut in way(data) if cut >= 8]

    cuts.__name__ = way.__name__
    return cuts


WAYS = [whole, byte_by_byte, header_first, randomly]


class Requests:
    """The tests that hold over any link; the classes below name the link."""

    kind = ""
    ways = []

    def setUp(self):
        super().setUp()
        self.samples()
        self.before = Stored(self.store)
        self.serving = self.camera(kind=self.kind)

    def at_rest(self):
        self.serving.stop()
        return Stored(self.store)

    def in_each_way(self, data):
        """Sends the request cut in each way, and returns the answers."""
        answers = []
        for way in self.ways:
            with self.subTest(way=way.__name__), self.serving.link() as link:
                answers.append(link.ask(data, way(data)))
        return answers

    # ---- Each request ----

    def test_a_list_holds_what_the_store_holds(self):
        expected = list_reply(self.before.as_phone_sees())
        for answer in self.in_each_way(request(LIST)):
            self.assertEqual(answer, expected)
        self.assertEqual(len(self.before.records), 12)
        self.assertNotIn(-1, self.before.linked)

    def test_a_list_request_may_carry_a_payload_that_nobody_reads(self):
        expected = list_reply(self.before.as_phone_sees())
        for answer in self.in_each_way(request(LIST, b"payload")):
            self.assertEqual(answer, expected)

    def test_a_picture_is_the_stored_one_up_to_its_third_stream(self):
        custom_id = self.before.ids()[4]
        stored = stored_picture(self.store, custom_id)
        self.assertEqual(stored.count(b"\xff\xd8\xff\xdb"), 4)
        expected = request(REPLY + PICTURE, struct.pack("<i", custom_id) + what_a_phone_gets(stored))
        for answer in self.in_each_way(picture_request(custom_id, 99)):
            self.assertEqual(answer, expected)

    def test_a_picture_of_a_preset_that_the_camera_lacks_gets_no_reply(self):
        with self.serving.link() as link:
            for custom_id in (max(self.before.ids()) + 1, 0, -1, -2147483648):
                link.send(picture_request(custom_id))
                self.assertEqual(link.ask(request(LIST)), list_reply(self.before.as_phone_sees()))

    def test_a_stored_preset_is_kept_with_its_picture_under_a_new_identity(self):
        record = rich_record()
        answers = {}
        for i, way in enumerate(self.ways):
            data = store_request(record, picture(i))
            with self.subTest(way=way.__name__), self.serving.link() as link:
                answers[i] = link.ask(data, way(data))
        after = self.at_rest()
        self.assertEqual(after.records[:12], self.before.records)
        self.assertEqual(after.linked, self.before.linked)
        for place, (i, answer) in enumerate(answers.items()):
            result, number, custom_id, applocal_id = store_result(answer)
            self.assertEqual((result, number, applocal_id), (1, 12 + place, 77))
            self.assertNotIn(custom_id, self.before.ids())
            self.assertEqual(stored_picture(self.store, custom_id), picture(i))
            expected = changed(
                to_camera(record),
                preset_num=number,
                custom_id=custom_id,
                screennail_path=b"pictures/%d.jpg" % custom_id,
            )
            self.assertEqual(after.records[number], expected)

    def test_a_stored_preset_comes_back_with_the_next_list(self):
        record = rich_record()
        with self.serving.link() as link:
            _, number, custom_id, _ = store_result(link.ask(store_request(record, picture(1))))
            answer = link.ask(request(LIST))
        own = changed(to_camera(record), preset_num=number, custom_id=custom_id)
        own = changed(own, screennail_path=b"pictures/%d.jpg" % custom_id)
        self.assertEqual(answer, list_reply([*self.before.as_phone_sees(), to_phone(own)]))

    def test_a_stored_title_may_be_any_52_bytes(self):
        titles = [
            bytes(range(200, 252)),
            b"",
            b"x" * 52,
            b"\xc3",
            "Überblick ☀".encode(),
            b"a\0behind the end",
        ]
        with self.serving.link() as link:
            for title in titles:
                self.assertEqual(store_result(link.ask(store_request(phone_record(title), picture(0))))[0], 1)
        for title, record in zip(titles, self.at_rest().records[12:], strict=True):
            self.assertEqual(get(record, "title"), title.ljust(52, b"\0"))

    def test_a_record_or_picture_that_is_too_short_is_no_preset(self):
        for size in (0, 1, PHONE_RECORD - 1, PHONE_RECORD, PHONE_RECORD + 99):
            with self.subTest(size=size), self.serving.link() as link:
                answer = link.ask(request(STORE, (phone_record() + picture(1))[:size]))
                self.assertEqual(answer[:12], struct.pack("<iii", REPLY + STORE, 24, -4))
                self.assertEqual(len(answer), 24)
        self.assertEqual(self.at_rest().records, self.before.records)

    def test_a_picture_of_100_bytes_is_long_enough(self):
        answer = self.serving.ask(request(STORE, phone_record() + bytes(100)))
        result, _, custom_id, _ = store_result(answer)
        self.assertEqual(result, 1)
        self.assertEqual(stored_picture(self.store, custom_id), bytes(100))

    def test_the_longest_request_is_stored(self):
        image = picture(1, LONGEST_REQUEST - 8 - PHONE_RECORD)
        data = store_request(phone_record(), image)
        self.assertEqual(len(data), LONGEST_REQUEST)
        with self.serving.link() as link:
            result, _, custom_id, _ = store_result(link.ask(data, range(30000, len(data), 30000)))
        self.assertEqual(result, 1)
        self.assertEqual(stored_picture(self.store, custom_id), image)

    def test_a_large_request_may_be_one_packet(self):
        image = picture(1, 60000)
        result, _, custom_id, _ = store_result(self.serving.ask(store_request(phone_record(), image)))
        self.assertEqual(result, 1)
        self.assertEqual(stored_picture(self.store, custom_id), image)

    def test_the_41st_preset_is_refused(self):
        with self.serving.link() as link:
            for i in range(28):
                self.assertEqual(store_result(link.ask(store_request(phone_record(), picture(i))))[0], 1)
            self.assertEqual(store_result(link.ask(store_request(phone_record(), picture(40))))[0], -2)
            self.assertEqual(len(link.ask(request(LIST))), 28 + 40 * PHONE_RECORD)
        self.assertEqual(len(self.at_rest().records), 40)

    def test_an_update_changes_title_and_server_identity_alone(self):
        custom_id = self.before.ids()[2]
        data = update_request(custom_id, 4711, b"Renamed")
        for answer in self.in_each_way(data):
            self.assertEqual(answer, request(REPLY + UPDATE, struct.pack("<i", 1)))
        expected = list(self.before.records)
        expected[2] = changed(expected[2], server_id=4711, title=b"Renamed")
        self.assertEqual(self.at_rest().records, expected)

    def test_an_update_says_why_it_failed(self):
        unknown = max(self.before.ids()) + 1
        cases = [
            (request(UPDATE, changed(bytes(PHONE_RECORD), custom_id=-1)), -2),
            (request(UPDATE, bytes(PHONE_RECORD - 1)), -3),
            (request(UPDATE), -3),
            (update_request(unknown, 1, b"Nobody"), -6),
            (update_request(0, 1, b"Nobody"), -6),
        ]
        with self.serving.link() as link:
            for data, result in cases:
                with self.subTest(result=result, size=len(data)):
                    self.assertEqual(link.ask(data), request(REPLY + UPDATE, struct.pack("<i", result)))
        self.assertEqual(self.at_rest().records, self.before.records)

    def free_numbers(self):
        count = len(self.before.records)
        return [number for number in range(count) if number not in self.before.linked]

    def without(self, *numbers):
        """What a phone sees when these presets have gone and the rest has moved up."""
        left = [record for number, record in enumerate(self.before.as_phone_sees()) if number not in numbers]
        return [changed(record, preset_num=number) for number, record in enumerate(left)]

    def test_deleted_presets_go_and_the_others_move_up(self):
        for way in self.ways:
            with self.subTest(way=way.__name__):
                self.serving.stop()
                self.before = Stored(self.store)
                self.serving = self.camera(kind=self.kind)
                numbers = self.free_numbers()[:2] if way is whole else self.free_numbers()[-1:]
                data = delete_request(*[(number, self.before.ids()[number]) for number in numbers])
                with self.serving.link() as link:
                    answer = link.ask(data, way(data))
                    self.assertEqual(answer, delete_reply(1, self.without(*numbers)))
                    self.assertEqual(records_of_list(link), self.without(*numbers))

    def test_a_preset_in_use_is_kept_and_the_others_go(self):
        for mode in (0, 1):
            with self.subTest(mode=mode):
                self.serving.stop()
                self.before = Stored(self.store)
                self.serving = self.camera(kind=self.kind)
                free, kept = self.free_numbers()[0], self.before.linked[mode]
                pairs = [(number, self.before.ids()[number]) for number in (kept, free)]
                answer = self.serving.ask(delete_request(*pairs))
                self.assertEqual(answer, delete_reply(-7, self.without(free), kept=1))

    def test_presets_in_use_by_both_modes_are_kept(self):
        free = self.free_numbers()[0]
        pairs = [(number, self.before.ids()[number]) for number in (*self.before.linked, free)]
        answer = self.serving.ask(delete_request(*pairs))
        self.assertEqual(answer, delete_reply(-8, self.without(free), kept=2))

    def test_a_faulty_entry_deletes_nothing(self):
        free = self.free_numbers()[0]
        good = (free, self.before.ids()[free])
        faults = [
            (free, 0),
            (40, good[1]),
            (-1, good[1]),
            (free, max(self.before.ids()) + 1),
            (2147483647, good[1]),
        ]
        with self.serving.link() as link:
            for fault in faults:
                for pairs in ([fault], [good, fault], [fault, good]):
                    with self.subTest(pairs=pairs):
                        self.assertEqual(link.ask(delete_request(*pairs)), delete_reply(-3, []))
        self.assertEqual(self.at_rest().records, self.before.records)

    def test_a_deletion_that_names_nothing_is_refused(self):
        with self.serving.link() as link:
            for payload in (b"", bytes(7)):
                self.assertEqual(link.ask(request(DELETE, payload)), delete_reply(-2, []))

    def test_arriving_and_leaving_get_no_reply(self):
        expected = list_reply(self.before.as_phone_sees())
        codes = [request(STATE_OFF, struct.pack("<i", code)) for code in (1, -10, -11, -12, 5)]
        for way in self.ways:
            with self.subTest(way=way.__name__), self.serving.link() as link:
                for data in (request(STATE_ON), *codes, request(STATE_OFF), request(STATE_ON)):
                    link.send(data, way(data))
                    self.assertEqual(link.ask(request(LIST)), expected)

    # ---- What is no request ----

    def test_unknown_function_numbers_get_no_reply_and_the_next_request_works(self):
        expected = list_reply(self.before.as_phone_sees())
        for function in (6, 7, 128, 254, 256, 257, 0x1001, 0x10FF, -1, 2147483647, -2147483648):
            for payload in (b"", b"0123456789ab"):
                with self.subTest(function=function, payload=payload), self.serving.link() as link:
                    link.send(request(function, payload))
                    self.assertEqual(link.ask(request(LIST)), expected)

    def test_a_negative_total_gets_no_reply_and_the_next_request_works(self):
        expected = list_reply(self.before.as_phone_sees())
        for total in (-1, -8, -2147483648):
            for function in (LIST, STORE):
                with self.subTest(total=total, function=function), self.serving.link() as link:
                    link.send(struct.pack("<ii", function, total))
                    self.assertEqual(link.ask(request(LIST)), expected)

    def test_a_total_over_600000_gets_no_reply_and_the_next_request_works(self):
        data = request(STORE, phone_record() + picture(1, LONGEST_REQUEST - 8 - PHONE_RECORD + 1))
        self.assertEqual(len(data), 600001)
        with self.serving.link() as link:
            link.send(data, range(30000, len(data), 30000))
            self.assertEqual(link.ask(request(LIST)), list_reply(self.before.as_phone_sees()))
        self.assertEqual(self.at_rest().records, self.before.records)

    def test_a_total_below_8_is_never_answered_and_the_next_phone_is_served(self):
        expected = list_reply(self.before.as_phone_sees())
        for total in range(8):
            with self.subTest(total=total):
                with self.serving.link() as link:
                    link.send(struct.pack("<ii", LIST, total))
                    self.assertTrue(link.is_silent(0.1))
                    link.send(request(LIST))
                    self.assertTrue(link.is_silent(0.1))
                self.assertEqual(self.serving.ask(request(LIST)), expected)

    def test_many_requests_over_one_link_are_all_answered(self):
        expected = list_reply(self.before.as_phone_sees())
        with self.serving.link() as link:
            for _ in range(200):
                self.assertEqual(link.ask(request(LIST)), expected)


def records_of_list(link):
    answer = link.ask(request(LIST))
    return [answer[i : i + PHONE_RECORD] for i in range(28, len(answer), PHONE_RECORD)]


class RequestsInPackets(Requests):
    """A packet holds bytes of one request alone."""

    ways = [behind_the_header(way) for way in WAYS]

    def test_a_packet_with_more_bytes_than_announced_stalls_this_phone_alone(self):
        with self.serving.link() as link:
            link.send(request(LIST) + b"more")
            self.assertTrue(link.is_silent(0.2))
            link.send(request(LIST))
            self.assertTrue(link.is_silent(0.2))
        self.assertEqual(self.serving.ask(request(LIST)), list_reply(self.before.as_phone_sees()))


class OverAUnixSocket(RequestsInPackets, DeskTest):
    kind = "unix"

    def test_a_large_request_of_one_packet_beyond_64_kilobytes_is_stored(self):
        image = picture(1, 120000)
        result, _, custom_id, _ = store_result(self.serving.ask(store_request(phone_record(), image)))
        self.assertEqual(result, 1)
        self.assertEqual(stored_picture(self.store, custom_id), image)


class RequestsInAStream(Requests):
    """A stream has no packets: it may be cut anywhere."""

    ways = WAYS

    def test_several_requests_in_one_send_are_answered_in_order(self):
        custom_ids = self.before.ids()
        requests = [
            request(STATE_ON), request(LIST), picture_request(custom_ids[0]), update_request(custom_ids[0],
            5, b"New"),
            request(200, b"unknown"), store_request(phone_record(), picture(1)), request(LIST),
        ]  # fmt: skip
        with self.serving.link() as link:
            link.send(b"".join(requests))
            functions = [struct.unpack_from("<i", link.receive())[0] for _ in range(5)]
        self.assertEqual(functions, [REPLY + LIST, REPLY + PICTURE, REPLY + UPDATE, REPLY + STORE, REPLY + LIST])

    def test_requests_cut_without_regard_to_their_borders_are_answered_in_order(self):
        dice = random.Random(5)
        asked = [dice.choice((LIST, PICTURE, UPDATE)) for _ in range(60)]
        making = {
            LIST: request(LIST),
            PICTURE: picture_request(self.before.ids()[1]),
            UPDATE: update_request(self.before.ids()[1], 1, b"Again"),
        }
        data = b"".join(making[function] for function in asked)
        with self.serving.link() as link:
            position = 0
            answers = []
            while position < len(data):
                size = dice.choice((1, 3, 8, 100, 1000, 2000))
                link.send(data[position : position + size])
                position += size
            for _ in asked:
                answers.append(struct.unpack_from("<i", link.receive())[0] - REPLY)
        self.assertEqual(answers, asked)

    def test_a_request_and_the_first_byte_of_the_next_do_not_disturb_each_other(self):
        expected = list_reply(self.before.as_phone_sees())
        with self.serving.link() as link:
            for first in range(1, 16):
                data = request(LIST) + request(LIST)
                link.send(data[:first])
                if first >= 8:
                    self.assertEqual(link.receive(), expected)
                link.send(data[first:])
                if first < 8:
                    self.assertEqual(link.receive(), expected)
                self.assertEqual(link.receive(), expected)


class OverTcp(RequestsInAStream, DeskTest):
    kind = "tcp"

    def test_the_camera_announces_the_real_port(self):
        self.assertRegex(self.serving.url, r"^tcp:127\.0\.0\.1:[1-9][0-9]*$")


if __name__ == "__main__":
    unittest.main()
