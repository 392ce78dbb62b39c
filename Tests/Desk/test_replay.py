"""Captured conversations: sent again by the phone, played by the camera, and compared."""

import contextlib
import json
import os
import random
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

from desk import (
    BUSY_FRAME, CAMERA, LIST, PATIENCE, PICTURE, REPLY, STATE_OFF, STATE_ON, STORE, UPDATE, DeskTest, FakeCamera, Link,
    changed, delete_reply, delete_request, environment_of_programs, get, list_reply, measure_phone,
    most_of_phone, phone_record, picture,
    picture_request, records_in, request, rich_record, run_phone, store_request, store_result, update_request,
)  # fmt: skip

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import captures  # noqa: E402

NOTHING, CUT, DIFFERS = 9, 35, 36


class Recording(captures.BluetoothCapture):
    """A capture of conversations, packet by packet, each at a time of its own."""

    def __init__(self, rfcomm=False):
        super().__init__()
        self.rfcomm = rfcomm
        self.handle = 0
        self.clock = 0

    def begin(self):
        self.handle += 1
        self.connect(captures.RFCOMM_PSM if self.rfcomm else captures.PSM, self.handle)
        if self.rfcomm:
            self._frame(captures.PHONE, 0x3F, b"")
            self._frame(captures.CAMERA, 0x73, b"")

    def wait(self, milliseconds):
        self.clock += milliseconds

    def phone(self, *packets):
        for packet in packets:
            self._packet(captures.PHONE, packet)

    def camera(self, *packets):
        for packet in packets:
            for start in range(0, len(packet), 60000):  # what a capture's packet has room for
                self._packet(captures.CAMERA, packet[start : start + 60000])

    def hang_up(self, sender):
        """The four packets in which a side closes the link: those of RFCOMM, where that is there, and of L2CAP."""
        if self.rfcomm:
            other = captures.CAMERA if sender == captures.PHONE else captures.PHONE
            self._frame(sender, 0x53, b"")
            self._frame(other, 0x73, b"")
        own, others = captures.PHONE_CHANNEL, captures.CAMERA_CHANNEL
        ids = (others, own) if sender == captures.PHONE else (own, others)
        answerer = captures.CAMERA if sender == captures.PHONE else captures.PHONE
        self._add(sender, self.handle, 1, struct.pack("<BBHHH", 6, 9, 4, *ids))
        self._add(answerer, self.handle, 1, struct.pack("<BBHHH", 7, 9, 4, *ids))

    def _frame(self, sender, control, data):
        address = 44 << 2 | (2 if sender == captures.PHONE else 0) | 1
        self.send(sender, bytes([address, control, len(data) << 1 | 1]) + data + b"\0", self.handle)

    def _packet(self, sender, packet):
        if self.rfcomm:
            self.send_rfcomm(sender, packet, 44, self.handle)
        else:
            self.send(sender, packet, self.handle)

    def _add(self, sender, handle, channel, data, held=None):
        frames, self.frames = self.frames, self.clock
        super()._add(sender, handle, channel, data, held)
        self.frames = frames + 1
        self.clock += 1
        return self.frames

    # What is said to a camera that is there is written down with its answers.

    def ask(self, link, data, pieces=None):
        cuts = [0, *(pieces or []), len(data)]
        self.phone(*[data[a:b] for a, b in zip(cuts, cuts[1:])])
        link.packet_sizes = []
        reply = link.ask(data, pieces)
        start = 0
        for size in link.packet_sizes:
            self.camera(reply[start : start + size])
            start += size
        return reply

    def tell(self, link, data):
        self.phone(data)
        link.send(data)


class ReplayTest(DeskTest):
    def capture(self, recording, name="capture"):
        return self.file(name, recording.bytes())

    def replay(self, url, capture, *options, code=0):
        done = run_phone(url, "replay", capture, "--no-pauses", *options)
        self.assertEnds_with(done, code)
        return done

    def assertEnds_with(self, done, code):
        talk = done.stderr.decode(errors="replace")
        self.assertEqual(done.returncode, code, f"stdout {done.stdout[-800:]!r}, stderr {talk[-800:]!r}")

    def lines(self, done):
        return done.stdout.decode().splitlines()


def everything(url, image, recording=None):
    """Every kind of request once, with what the camera says to it."""
    talk = recording or Recording()
    talk.begin()
    with Link(url) as link:
        talk.tell(link, request(STATE_ON))
        talk.ask(link, request(LIST))
        stored = store_result(talk.ask(link, store_request(rich_record(), image), [300, 1000]))
        number, custom_id = stored[1], stored[2]
        talk.ask(link, update_request(custom_id, 5, b"Dusk"))
        talk.ask(link, picture_request(custom_id))
        talk.ask(link, request(LIST))
        talk.ask(link, delete_request((number, custom_id)))
        talk.tell(link, request(STATE_OFF, struct.pack("<i", 1)))
    talk.hang_up(captures.PHONE)
    return talk


class Observer:
    """A camera that writes down what it is sent, packet by packet with the time, and gives the answers of a script:
    a list of packets for each packet that comes."""

    def __init__(self, folder, script, kind=socket.SOCK_SEQPACKET):
        self.kind = kind
        if kind == socket.SOCK_SEQPACKET:
            path = f"{folder}/observer-{time.monotonic_ns()}.sock"
            self.server = socket.socket(socket.AF_UNIX, kind)
            self.server.bind(path)
            self.url = "unix:" + path
        else:
            self.server = socket.create_server(("127.0.0.1", 0))
            self.url = f"tcp:127.0.0.1:{self.server.getsockname()[1]}"
        self.server.listen(1)
        self.server.settimeout(PATIENCE)
        self.script, self.packets, self.times, self.links = script, [], [], 0
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        script = iter(self.script)
        while True:
            try:
                phone, _ = self.server.accept()
            except OSError:
                return
            self.links += 1
            with phone, contextlib.suppress(ConnectionResetError):
                phone.settimeout(PATIENCE)
                while packet := phone.recv(1 << 20):
                    self.packets.append(packet)
                    self.times.append(time.monotonic())
                    for answer in next(script, []):
                        phone.send(answer)

    def close(self):
        self.server.shutdown(socket.SHUT_RDWR)
        self.server.close()
        self.thread.join(PATIENCE)


class SentAgain(ReplayTest):
    def observer(self, script, **more):
        observer = Observer(self.folder, script, **more)
        self.addCleanup(observer.close)
        return observer

    def test_the_same_camera_says_the_same(self):
        self.samples()
        with self.camera() as camera:
            capture = self.capture(everything(camera.url, picture(1, 5000)))
        with self.camera() as camera:  # ids go on where they were: the preset that is stored gets another one
            done = self.replay(camera.url, capture)
        self.assertEqual(done.stdout, b"")
        self.assertIn(b"8 requests sent, 6 replies compared: no difference", done.stderr)

    def test_a_stream_is_sent_again_into_a_stream_and_into_packets(self):
        self.samples()
        for kind in ("tcp", "unix"):
            with self.camera(kind="tcp") as camera:
                capture = self.capture(everything(camera.url, picture(1, 5000), Recording(rfcomm=True)))
            with self.camera(kind=kind) as camera:
                self.assertIn(b": no difference", self.replay(camera.url, capture).stderr)

    def test_a_preset_gets_the_identity_and_the_number_that_the_camera_gives_it(self):
        talk = Recording()
        talk.begin()
        talk.phone(store_request(phone_record(b"Dusk"), picture(1)))
        talk.camera(request(REPLY + STORE, struct.pack("<iiii", 1, 0, 1, 0)))
        talk.phone(update_request(1, 9, b"Dawn"))
        talk.camera(request(REPLY + UPDATE, struct.pack("<i", 1)))
        talk.phone(picture_request(1, 7))
        talk.camera(request(REPLY + PICTURE, struct.pack("<i", 1) + picture(1)))
        talk.phone(delete_request((0, 1)))
        talk.camera(delete_reply(1, []))
        observer = self.observer(
            [
                [request(REPLY + STORE, struct.pack("<iiii", 1, 3, 40, 0))],
                [request(REPLY + UPDATE, struct.pack("<i", 1))],
                [request(REPLY + PICTURE, struct.pack("<i", 40) + picture(1))],
                [delete_reply(1, [])],
            ]
        )
        self.assertEqual(self.replay(observer.url, self.capture(talk)).stdout, b"")
        self.assertEqual(
            observer.packets,
            [
                store_request(phone_record(b"Dusk"), picture(1)),
                update_request(40, 9, b"Dawn"),
                picture_request(40, 7),
                delete_request((3, 40)),
            ],
        )

    def test_presets_that_were_there_before_are_known_by_their_place(self):
        def listed(ids):
            return [
                phone_record(b"P%d" % place, preset_num=place, custom_id=id, screennail_path=b"pictures/%d.jpg" % id)
                for place, id in enumerate(ids)
            ]

        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(list_reply(listed([4, 5, 6])))
        talk.phone(delete_request((1, 5)))
        talk.camera(delete_reply(1, listed([4])))
        left = listed([11])
        observer = self.observer([[list_reply(listed([11, 12, 13]))], [delete_reply(1, left)]])
        self.assertEqual(self.replay(observer.url, self.capture(talk)).stdout, b"")
        self.assertEqual(observer.packets[1], delete_request((1, 12)))

    def test_a_number_that_was_wrong_is_sent_wrong(self):
        talk = Recording()
        talk.begin()
        talk.phone(store_request(phone_record(), picture(1)))
        talk.camera(request(REPLY + STORE, struct.pack("<iiii", 1, 0, 1, 0)))
        talk.phone(delete_request((39, 1), (0, 77)))
        talk.camera(delete_reply(-3, []))
        observer = self.observer([[request(REPLY + STORE, struct.pack("<iiii", 1, 3, 40, 0))], [delete_reply(-3, [])]])
        self.replay(observer.url, self.capture(talk))
        self.assertEqual(observer.packets[1], delete_request((39, 40), (0, 77)))

    def difference(self, question, before, now, *options):
        """What is said where a camera answers a question otherwise than it did."""
        talk = Recording()
        talk.begin()
        talk.phone(question)
        talk.camera(before)
        observer = self.observer([[now]])
        return self.lines(self.replay(observer.url, self.capture(talk), *options, code=DIFFERS))

    def test_each_difference_is_named(self):
        one = phone_record(b"Dusk", custom_id=3, iso=400, cs_hue=[0] * 14)
        two = phone_record(b"Noon", custom_id=4, preset_num=1)
        third = [0, 0, 7, *[0] * 11]
        stored = "<iiii"
        lists = [
            (changed(one, title=b"Dawn"), 'reply 1 (list): preset 0 "Dusk": title was "Dusk", is "Dawn"'),
            (changed(one, iso=800), 'reply 1 (list): preset 0 "Dusk": iso was 400, is 800'),
            (changed(one, mode=2), 'reply 1 (list): preset 0 "Dusk": mode was Program, is Aperture'),
            (changed(one, cs_hue=third), 'reply 1 (list): preset 0 "Dusk": styles hue was style 2 0, is 7'),
            (changed(one, linked_custom_mode=2), 'reply 1 (list): preset 0 "Dusk": custom_mode was -, is CUSTOM2'),
            (changed(one, preset_num=7), 'reply 1 (list): preset 0 "Dusk": number was 0, is 7'),
        ]
        for record, line in lists:
            with self.subTest(line):
                before, now = list_reply([one, two]), list_reply([record, two])
                self.assertEqual(self.difference(request(LIST), before, now), [line])
        image = picture(1, 500)
        others = [
            (request(LIST), list_reply([one, two]), list_reply([one]), 'list): preset 1 "Noon" was there, is not'),
            (request(LIST), list_reply([one]), list_reply([one, two]), 'list): preset 1 "Noon" was not there, is'),
            (
                request(LIST),
                list_reply([one]),
                list_reply([one]).replace(b"KT7", b"KT8"),
                "list): model of 12 bytes, byte 2 of it was 0x37, is 0x38",
            ),
            (
                picture_request(3),
                request(REPLY + PICTURE, struct.pack("<i", 3) + image),
                request(REPLY + PICTURE, struct.pack("<i", 3) + image + b"1"),
                "picture): picture of preset (id 3) was 500 bytes, is 501 bytes",
            ),
            (
                picture_request(3),
                request(REPLY + PICTURE, struct.pack("<i", 3) + image),
                request(REPLY + PICTURE, struct.pack("<i", 3) + image[:77] + b"?" + image[78:]),
                "picture): picture of preset (id 3) of 500 bytes, byte 77 of it was " f"0x{image[77]:02x}, is 0x3f",
            ),
            (
                update_request(3, 0, b"x"),
                request(REPLY + UPDATE, struct.pack("<i", 1)),
                request(REPLY + UPDATE, struct.pack("<i", -6)),
                "rename): result was 1 (SM_RETURN_TRUE), is -6 (SM_RETURN_LOCALN_ERR)",
            ),
            (
                store_request(one, image),
                request(REPLY + STORE, struct.pack(stored, 1, 0, 1, 5)),
                request(REPLY + STORE, struct.pack(stored, 1, 0, 1, 6)),
                "store): applocal_id was 5, is 6",
            ),
            (
                store_request(one, image),
                request(REPLY + STORE, struct.pack(stored, -2, 0, 1, 5)),
                request(REPLY + STORE, struct.pack(stored, -2, 0, 2, 5)),
                "store): custom_id was 1, is 2",
            ),
            (
                delete_request((0, 3)),
                delete_reply(-7, [one], 1),
                delete_reply(-7, [one]),
                "delete): end behind the presets was 8 bytes, is 0 bytes",
            ),
        ]
        for question, before, now, line in others:
            with self.subTest(line):
                self.assertEqual(self.difference(question, before, now), ["reply 1 (" + line])

    def test_presets_in_another_order_are_told(self):
        one, two = phone_record(b"Dusk", custom_id=3), phone_record(b"Noon", custom_id=4, preset_num=1)
        talk = Recording()
        talk.begin()
        for _ in range(2):
            talk.phone(request(LIST))
            talk.camera(list_reply([one, two]))
        swapped = [changed(two, preset_num=0), changed(one, preset_num=1)]
        observer = self.observer([[list_reply([one, two])], [list_reply(swapped)]])
        done = self.replay(observer.url, self.capture(talk), code=DIFFERS)
        self.assertEqual(self.lines(done), ['reply 2 (list): preset 1 "Noon": place in the list was 1, is 0'])

    def test_with_all_the_replay_goes_on_and_tells_all(self):
        one = phone_record(b"Dusk", custom_id=3)
        talk = Recording()
        talk.begin()
        for _ in range(3):
            talk.phone(request(LIST))
            talk.camera(list_reply([one]))
        capture = self.capture(talk)
        script = [
            [list_reply([changed(one, title=b"A", iso=50)])],
            [list_reply([one])],
            [list_reply([changed(one, hdr=1)])],
        ]
        all_of_them = self.observer(script)
        done = self.replay(all_of_them.url, capture, "--all", code=DIFFERS)
        expected = [
            'reply 1 (list): preset 0 "Dusk": title was "Dusk", is "A"',
            'reply 1 (list): preset 0 "Dusk": iso was auto, is 50',
            'reply 3 (list): preset 0 "Dusk": hdr was 0, is 1',
        ]
        self.assertEqual(self.lines(done), expected)
        self.assertIn(b"3 requests sent, 3 replies compared: 3 differences", done.stderr)
        first = self.observer(script)
        done = self.replay(first.url, capture, code=DIFFERS)
        self.assertEqual((self.lines(done), len(first.packets)), (expected[:1], 1))

    def test_an_answer_that_was_none_is_told(self):
        talk = Recording()
        talk.begin()
        talk.phone(picture_request(99))
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        observer = self.observer([[request(REPLY + PICTURE, struct.pack("<i", 99))], [list_reply([])]])
        done = self.replay(observer.url, self.capture(talk), code=DIFFERS)
        self.assertEqual(self.lines(done), ["before reply 1 (list): the camera says picture, which it did not"])

    def test_an_answer_behind_the_last_one_is_told(self):
        talk = Recording()
        talk.begin()
        talk.phone(picture_request(99))
        observer = self.observer([[request(REPLY + PICTURE, struct.pack("<i", 99))]])
        done = self.replay(observer.url, self.capture(talk), code=DIFFERS)
        self.assertEqual(self.lines(done), ["behind reply 0: the camera says picture, which it did not"])

    def test_no_answer_and_a_link_that_is_closed_have_codes_of_their_own(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        capture = self.capture(talk)
        done = self.replay(self.observer([[]]).url, capture, "--timeout", "0.3", code=4)
        self.assertIn(b"reply 1 (list): the camera gave no answer within 0.3 s", done.stderr)
        with FakeCamera(self.folder, lambda *_: FakeCamera.CLOSE) as camera:
            done = self.replay(camera.url, capture, code=6)
        self.assertIn(b"reply 1 (list): the camera closed the link before it answered", done.stderr)
        with FakeCamera(self.folder, None, BUSY_FRAME) as camera:
            done = run_phone(camera.url, "replay", capture, wait_for_turn=False)
        self.assertEnds_with(done, 5)
        self.replay(f"unix:{self.folder}/nobody", capture, code=3)

    def test_packets_are_cut_as_they_were(self):
        data = store_request(phone_record(), picture(1, 3000))
        cuts = [data[:8], data[8:9], data[9:1000], data[1000:2999], data[2999:]]
        talk = Recording()
        talk.begin()
        talk.phone(*cuts)
        observer = self.observer([])
        self.replay(observer.url, self.capture(talk))
        self.assertEqual(observer.packets, cuts)

    def test_pieces_of_a_stream_become_packets_that_hold_a_header_and_one_message(self):
        first, second = picture_request(5), request(STATE_ON)
        talk = Recording(rfcomm=True)
        talk.begin()
        talk.phone(first[:3], first[3:9], first[9:] + second[:4], second[4:])
        capture = self.capture(talk)
        packets = self.observer([])
        self.replay(packets.url, capture)
        self.assertEqual(packets.packets, [first[:9], first[9:], second])
        stream = self.observer([], kind=socket.SOCK_STREAM)
        self.replay(stream.url, capture)
        self.assertEqual(b"".join(stream.packets), first + second)

    def test_pauses_are_kept_made_shorter_and_left_out(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.wait(100)
        talk.camera(list_reply([]))
        talk.wait(400)
        talk.phone(request(LIST))
        talk.wait(3_600_000)
        talk.phone(request(STATE_ON))
        capture = self.capture(talk)
        pauses = {("--longest-pause", "0.5"): (0.4, 0.5), ("--speed", "4", "--longest-pause", "0.2"): (0.1, 0.2),
                  ("--no-pauses",): (0, 0)}  # fmt: skip
        for options, expected in pauses.items():
            with self.subTest(options):
                observer = self.observer([[list_reply([])]])
                self.assertEnds_with(run_phone(observer.url, "replay", capture, *options), 0)
                for before, after, pause in zip(observer.times, observer.times[1:], expected):
                    self.assertGreaterEqual(after - before, pause - 0.02)
                    self.assertLess(after - before, pause + 0.35)

    def test_each_connection_is_a_link_of_its_own(self):
        talk = Recording()
        for _ in range(3):
            talk.begin()
            talk.phone(request(LIST))
            talk.camera(list_reply([]))
            talk.hang_up(captures.PHONE)
        observer = self.observer([[list_reply([])]] * 3)
        self.replay(observer.url, self.capture(talk))
        self.assertEqual((observer.packets, observer.links), ([request(LIST)] * 3, 3))

    def test_a_phone_that_hung_up_within_a_reply_does_so_again(self):
        reply = list_reply([phone_record(custom_id=1)])
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(reply[:100])
        talk.hang_up(captures.PHONE)
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(reply)
        observer = self.observer([[reply], [reply]])
        self.assertEqual(self.replay(observer.url, self.capture(talk)).stdout, b"")
        self.assertEqual(observer.links, 2)

    def test_a_camera_that_hung_up_and_now_does_not_is_told(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        talk.hang_up(captures.CAMERA)
        observer = self.observer([[list_reply([])]])
        done = self.replay(observer.url, self.capture(talk), "--timeout", "0.3", code=DIFFERS)
        self.assertEqual(self.lines(done), ["the end of connection 1: the camera closed the link, and now does not"])

    def test_a_phone_that_was_told_busy_is_passed_over(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(BUSY_FRAME)
        talk.hang_up(captures.CAMERA)
        observer = self.observer([[list_reply([])]])
        done = self.replay(observer.url, self.capture(talk), code=NOTHING)
        self.assertIn(b"connection 1 is passed over: the phone was told that the camera was busy", done.stderr)
        self.assertIn(b"and nothing else: there is nothing to play", done.stderr)
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        self.assertIn(b"1 request sent, 1 reply compared", self.replay(observer.url, self.capture(talk)).stderr)

    def test_what_would_be_sent_is_said_without_a_camera(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(STATE_ON))
        talk.wait(250)
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        data = store_request(phone_record(b"Dusk"), picture(1, 141))
        talk.phone(data[:500], data[500:])
        done = run_phone(None, "replay", self.capture(talk), "--dry-run")
        self.assertEnds_with(done, 0)
        self.assertEqual(
            self.lines(done),
            [
                "connection 1",
                "  0.000 s  link state on: 8 bytes in 1 packet",
                "  0.251 s  list: 8 bytes in 1 packet, then waits for 1 reply",
                '  0.253 s  store "Dusk", picture of 141 bytes: 893 bytes in 2 packets',
            ],
        )


class Played(ReplayTest):
    """A camera that plays a capture, to the phone and to links of the test's own."""

    def play(self, recording, *options, kind="unix"):
        player = Player(self.capture(recording), self.folder, *options, kind=kind)
        self.addCleanup(player.kill)
        return player

    def test_the_phone_gets_from_a_capture_what_it_got_from_the_camera(self):
        self.samples()
        talk = Recording()
        with self.camera() as camera:
            answers = {}
            for command in (("--json", "list"), ("--json", "show", "3"), ("picture", "2", "-o", "-")):
                answers[command] = run_phone(camera.url, *command).stdout
                talk.begin()
                with camera.link() as link:
                    listed = talk.ask(link, request(LIST))
                    if command[0] == "picture":
                        talk.ask(link, picture_request(get(records_in(listed)[2], "custom_id")))
                talk.hang_up(captures.PHONE)
        for kind in ("unix", "tcp"):
            player = self.play(talk, kind=kind)
            for command, expected in answers.items():
                done = run_phone(player.url, *command)
                self.assertEnds_with(done, 0)
                self.assertEqual(done.stdout, expected)
            self.assertEqual(player.end(), 0)
            self.assertIn("the capture is at its end: 4 requests, no difference", player.talk())

    def test_a_store_is_played_and_another_one_named(self):
        record, image = phone_record(b"Dusk"), picture(1, 400)
        talk = Recording()
        talk.begin()
        talk.phone(store_request(record, image))
        talk.camera(request(REPLY + STORE, struct.pack("<iiii", 1, 0, 1, 0)))
        player = self.play(talk)
        with Link(player.url) as link:
            self.assertEqual(store_result(link.ask(store_request(record, image), [8, 900])), (1, 0, 1, 0))
        self.assertEqual(player.end(), 0)
        player = self.play(talk)
        with Link(player.url) as link:
            sent = store_request(changed(record, title=b"Dawn"), picture(2, 400))
            self.assertEqual(store_result(link.ask(sent)), (1, 0, 1, 0))
        self.assertEqual(player.end(), DIFFERS)
        self.assertIn(
            'not as in the capture: store "Dawn", picture of 400 bytes: title was "Dusk", is "Dawn"', player.talk()
        )
        self.assertIn(": picture of 400 bytes, byte ", player.talk())

    def test_replies_come_in_their_packets_with_their_pauses(self):
        reply = list_reply([phone_record(custom_id=1)])
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.wait(199)
        talk.camera(reply[:9])
        talk.wait(299)
        talk.camera(reply[9:])
        for options, pauses in (((), (0.2, 0.3)), (("--speed", "2"), (0.1, 0.15)), (("--longest-pause", "0"), (0, 0))):
            with self.subTest(options):
                player = self.play(talk, *options)
                with Link(player.url) as link:
                    link.send(request(LIST))
                    times, packets = [time.monotonic()], []
                    for _ in pauses:
                        packets.append(link.socket.recv(1 << 20))
                        times.append(time.monotonic())
                self.assertEqual(packets, [reply[:9], reply[9:]])
                for before, after, pause in zip(times, times[1:], pauses):
                    self.assertGreaterEqual(after - before, pause - 0.02)
                    self.assertLess(after - before, pause + 0.35)
                self.assertEqual(player.end(), 0)

    def test_the_link_is_closed_where_the_camera_closed_it(self):
        reply = list_reply([phone_record(custom_id=1)])
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(reply[:700])
        talk.hang_up(captures.CAMERA)
        player = self.play(talk)
        done = run_phone(player.url, "list")
        self.assertEnds_with(done, 6)
        self.assertIn(b"700 of the answer's 772 bytes came", done.stderr)
        self.assertEqual(player.end(), 0)

    def three_requests(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        talk.phone(update_request(1, 0, b"x"))
        talk.camera(request(REPLY + UPDATE, struct.pack("<i", -6)))
        talk.phone(delete_request())
        talk.camera(delete_reply(-2, []))
        return talk

    def test_a_request_that_comes_too_early_is_answered_from_further_on(self):
        player = self.play(self.three_requests())
        with Link(player.url) as link:
            self.assertEqual(link.ask(request(LIST)), list_reply([]))
            self.assertEqual(link.ask(delete_request()), delete_reply(-2, []))
        self.assertEqual(player.end(), DIFFERS)
        self.assertIn('was rename id 1 to "x", is delete 0 presets; 1 request left out', player.talk())

    def test_a_request_that_the_capture_does_not_have_gets_no_answer(self):
        player = self.play(self.three_requests())
        with Link(player.url) as link:
            self.assertEqual(link.ask(request(LIST)), list_reply([]))
            link.send(picture_request(4))
            self.assertTrue(link.is_silent())
            self.assertEqual(link.ask(update_request(1, 0, b"x")), request(REPLY + UPDATE, struct.pack("<i", -6)))
            self.assertEqual(link.ask(delete_request()), delete_reply(-2, []))
        self.assertEqual(player.end(), DIFFERS)
        self.assertIn('was rename id 1 to "x", is picture of id 4; the capture has no answer to that', player.talk())

    def test_a_phone_that_leaves_too_early_is_told(self):
        player = self.play(self.three_requests())
        with Link(player.url) as link:
            link.ask(request(LIST))
        self.assertEqual(player.end(), DIFFERS)
        self.assertIn('the phone leaves here, where it asks: rename id 1 to "x"', player.talk())

    def test_a_phone_that_left_within_a_request_may_do_so_again(self):
        talk = Recording()
        talk.begin()
        talk.phone(store_request(phone_record(), picture(1))[:100])
        talk.hang_up(captures.PHONE)
        for size, code in ((100, 0), (99, DIFFERS)):
            player = self.play(talk)
            with Link(player.url) as link:
                link.send(store_request(phone_record(), picture(1))[:size])
            self.assertEqual(player.end(), code)

    def test_with_loop_it_begins_again_until_a_signal_comes(self):
        player = self.play(self.three_requests(), "--loop")
        for _ in range(3):
            with Link(player.url) as link:
                link.ask(request(LIST))
                link.ask(update_request(1, 0, b"x"))
                link.ask(delete_request())
        player.process.terminate()
        self.assertEqual(player.end(), 0)
        self.assertFalse(os.path.exists(player.url.removeprefix("unix:")))

    def test_options_of_a_store_and_of_the_lab_are_refused(self):
        capture = self.capture(self.three_requests())
        for options in (["--store", self.store], ["--link-down"], ["--mtu", "100"], ["--script", capture], ["presets"]):
            done = subprocess.run(
                [CAMERA, "--listen", f"unix:{self.folder}/s", "--replay", capture, *options],
                capture_output=True, timeout=PATIENCE, env=environment_of_programs(),
            )  # fmt: skip
            self.assertEnds_with(done, 2)
            self.assertEqual(len(done.stderr.splitlines()), 1)
            self.assertIn(options[0].encode(), done.stderr)
        done = subprocess.run([CAMERA, "--replay", capture], capture_output=True, timeout=PATIENCE)
        self.assertEnds_with(done, 2)
        self.assertIn(b"--listen", done.stderr)


class Compared(ReplayTest):
    """Two captures beside each other."""

    def diff(self, before, now, *options, code=0):
        first, second = self.capture(before, "before"), self.capture(now, "now")
        done = run_phone(None, "decode", first, "--diff", second, *options)
        self.assertEnds_with(done, code)
        return self.lines(done)

    @staticmethod
    def stored(custom_id, number=0, title=b"Dusk", rfcomm=False, result=1):
        """A preset is stored, renamed and deleted in a camera that calls it by this id and number."""
        talk = Recording(rfcomm)
        talk.begin()
        talk.phone(store_request(phone_record(title), picture(1)))
        talk.camera(request(REPLY + STORE, struct.pack("<iiii", 1, number, custom_id, 0)))
        talk.phone(update_request(custom_id, 0, b"Dawn"))
        talk.camera(request(REPLY + UPDATE, struct.pack("<i", result)))
        talk.phone(delete_request((number, custom_id)))
        talk.camera(delete_reply(1, []))
        talk.hang_up(captures.PHONE)
        return talk

    def test_identities_cuts_and_kinds_of_links_are_no_difference(self):
        self.assertEqual(self.diff(self.stored(1), self.stored(1)), [])
        self.assertEqual(self.diff(self.stored(1), self.stored(40, 3, rfcomm=True)), [])

    def test_the_first_difference_is_named_or_all_are(self):
        before, now = self.stored(1), self.stored(40, 3, b"Noon", result=-1)
        lines = [
            'connection 1, request 1 (store): title was "Dusk", is "Noon"',
            "connection 1, reply 2 (rename): result was 1 (SM_RETURN_TRUE), is -1 (SM_RETURN_FAIL)",
        ]
        self.assertEqual(self.diff(before, now, code=DIFFERS), lines[:1])
        self.assertEqual(self.diff(before, now, "--all", code=DIFFERS), lines)

    def test_a_request_that_names_another_preset_is_named(self):
        now = self.stored(40, 3)
        talk = Recording()
        talk.begin()
        talk.phone(store_request(phone_record(b"Dusk"), picture(1)))
        talk.camera(request(REPLY + STORE, struct.pack("<iiii", 1, 3, 40, 0)))
        talk.phone(update_request(41, 0, b"Dawn"))
        self.assertEqual(
            self.diff(self.stored(1), talk, code=DIFFERS), ["connection 1, request 2 (rename): id was 40, is 41"]
        )
        self.assertEqual(self.diff(now, self.stored(1)), [])

    def test_what_one_capture_has_behind_the_other_is_told(self):
        talk = self.stored(1)
        longer = self.stored(1)
        longer.begin()
        longer.phone(request(LIST))
        longer.camera(list_reply([]))
        longer.phone(request(LIST))
        self.assertEqual(
            self.diff(talk, longer, "--all", code=DIFFERS),
            [
                "connection 2, request 1 (list): was not there, is, and 1 more behind it",
                "connection 2, reply 1 (list): was not there, is",
            ],
        )
        self.assertEqual(
            self.diff(longer, talk, code=DIFFERS),
            ["connection 2, request 1 (list): was there, is not, and 1 more behind it"],
        )

    def test_who_hangs_up_and_when_is_compared(self):
        def cut(size, sender):
            talk = Recording()
            talk.begin()
            talk.phone(request(LIST))
            talk.camera(list_reply([])[:size])
            talk.hang_up(sender)
            return talk

        self.assertEqual(
            self.diff(cut(28, captures.PHONE), cut(20, captures.PHONE), code=DIFFERS),
            ["connection 1, reply 1 (list): was whole, is cut off after 20 bytes"],
        )
        self.assertEqual(
            self.diff(cut(28, captures.PHONE), cut(28, captures.CAMERA), code=DIFFERS),
            ["connection 1: the phone closed the link, and now the camera does"],
        )


class Captured(ReplayTest):
    """What the programs capture themselves."""

    def capture_a_day(self, camera, name):
        """A phone's day: a preset is stored, renamed and deleted. Returns the captures of its commands."""
        path = os.path.join(self.folder, name)
        record, image = self.file("dusk.json", self.dusk), self.file("dusk.jpg", picture(1, 3000))
        for command in (["list"], ["store", record, image], ["rename", "Dusk", "Dawn"], ["delete", "Dawn"]):
            part = f"{path}.{command[0]}"
            self.assertEnds(run_phone(camera.url, "--capture", part, *command), 0)
        return [f"{path}.{command}" for command in ("list", "store", "rename", "delete")]

    def test_what_both_programs_capture_can_be_sent_again_played_and_compared(self):
        for kind in ("unix", "tcp"):
            with self.subTest(kind):
                shutil.rmtree(self.store, ignore_errors=True)
                self.samples()
                whole = os.path.join(self.folder, f"camera-{kind}")
                with self.camera("--capture", whole, kind=kind) as camera:
                    self.dusk = run_phone(camera.url, "--json", "show", "2").stdout
                    title = json.loads(self.dusk)["title"].encode()
                    self.dusk = self.dusk.replace(b'"' + title + b'"', b'"Dusk"', 1)
                    parts = self.capture_a_day(camera, kind)
                with self.camera(kind=kind) as camera:
                    self.replay(camera.url, whole)
                    again = os.path.join(self.folder, f"again-{kind}")
                    self.replay(camera.url, whole, "--capture", again)
                same = run_phone(None, "decode", whole, "--diff", again)
                self.assertEqual((self.lines(same), same.returncode), ([], 0), same.stderr)
                player = Player(parts[0], self.folder, kind=kind)
                self.addCleanup(player.kill)
                self.assertEnds(run_phone(player.url, "list"), 0)
                self.assertEqual(player.end(), 0)

    def test_a_capture_is_not_written_over_while_it_is_sent(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        capture = self.capture(talk)
        done = run_phone(f"unix:{self.folder}/nobody", "replay", capture, "--capture", capture)
        self.assertEnds(done, 2)
        with open(capture, "rb") as file:
            self.assertEqual(file.read(), talk.bytes())


class BadCaptures(ReplayTest):
    def short(self):
        talk = Recording()
        for rfcomm in (False, True):
            talk.rfcomm = rfcomm
            talk.begin()
            talk.phone(request(STATE_ON), request(LIST))
            talk.camera(list_reply([phone_record(custom_id=1)]))
            data = store_request(phone_record(b"Dusk"), picture(1, 200))
            talk.phone(data[:400], data[400:])
            talk.camera(request(REPLY + STORE, struct.pack("<iiii", 1, 1, 2, 0)))
            talk.phone(delete_request((1, 2)))
            talk.camera(delete_reply(1, [phone_record(custom_id=1)]))
            talk.hang_up(captures.PHONE)
        return talk

    def run_all(self, capture):
        """How each reader of a capture ends: exit codes and talk."""
        ends = []
        for arguments in (["replay", capture, "--dry-run"], ["decode", capture, "--diff", capture]):
            done = run_phone(None, *arguments, timeout=PATIENCE)
            ends.append((done.returncode, done.stderr))
        return ends

    def test_what_is_no_capture_is_refused_in_one_line(self):
        whole = self.short().bytes()
        files = {
            b"": (2, NOTHING),
            b"no capture at all, but a text": (2,),
            whole[:16]: (NOTHING,),
            whole[:12] + struct.pack(">I", 1003) + whole[16:]: (2,),
            whole[:20]: (NOTHING, CUT),
        }
        for content, codes in files.items():
            with self.subTest(content[:20]):
                capture = self.file("capture", content)
                played = subprocess.run(
                    [CAMERA, "--replay", capture, "--listen", f"unix:{self.folder}/s"],
                    capture_output=True, timeout=PATIENCE, env=environment_of_programs(),
                )  # fmt: skip
                for code, talk in [*self.run_all(capture), (played.returncode, played.stderr)]:
                    self.assertIn(code, codes, talk)
                    self.assertLessEqual(len(talk.splitlines()), 3, talk)  # a remark for each time it is read

    def test_a_capture_that_is_cut_off_is_sent_as_far_as_it_goes(self):
        talk = Recording()
        talk.begin()
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        talk.phone(request(LIST))
        capture = self.file("capture", talk.bytes()[:-3])
        with FakeCamera(self.folder, lambda *_: list_reply([])) as camera:
            done = self.replay(camera.url, capture, code=CUT)
        self.assertIn(b"1 request sent, 1 reply compared: no difference", done.stderr)
        self.assertIn(b"was not read in full", done.stderr)
        self.assertEqual(camera.requests, [request(LIST)])

    def test_the_longest_picture_is_compared_in_little_memory(self):
        talk = Recording()
        talk.begin()
        talk.phone(picture_request(5))
        talk.camera(request(REPLY + PICTURE, struct.pack("<i", 5) + bytes((16 << 20) - 12)))
        talk.phone(request(LIST))
        talk.camera(list_reply([]))
        capture = self.capture(talk)
        done = measure_phone(None, "decode", capture, "--diff", capture)
        self.assertEqual((done.returncode, done.stdout), (0, b""))
        self.assertLess(done.peak, most_of_phone(100_000_000))

    def test_mutated_captures_end_as_is_documented(self):
        whole, dice = self.short().bytes(), random.Random(20261122)
        codes = set()
        for _ in range(100):
            content = bytearray(whole)
            for _ in range(dice.choice((1, 1, 3, 30))):
                content[dice.randrange(16, len(content))] = dice.randrange(256)
            if dice.random() < 0.3:
                del content[dice.randrange(16, len(content)) :]
            for code, talk in self.run_all(self.file("capture", bytes(content))):
                self.assertIn(code, (0, 2, NOTHING, CUT, DIFFERS), talk)
                self.assertNotIn(b"Sanitizer", talk)
                codes.add(code)
        self.assertLessEqual({0, CUT}, codes)

    def test_mutated_captures_are_sent_to_a_camera(self):
        self.samples()
        whole, dice = self.short().bytes(), random.Random(7)
        with self.camera() as camera:
            for _ in range(30):
                content = bytearray(whole)
                for _ in range(dice.choice((1, 3))):
                    content[dice.randrange(40, len(content))] = dice.randrange(256)
                done = run_phone(
                    camera.url,
                    "replay",
                    self.file("capture", bytes(content)),
                    "--no-pauses",
                    "--all",
                    "--timeout",
                    "0.1",
                )
                self.assertIn(done.returncode, (0, 2, 4, 6, NOTHING, CUT, DIFFERS), done.stderr)

    def test_mutated_captures_are_played_to_a_phone(self):
        whole, dice = self.short().bytes(), random.Random(8)
        for _ in range(30):
            content = bytearray(whole)
            for _ in range(dice.choice((1, 3))):
                content[dice.randrange(40, len(content))] = dice.randrange(256)
            try:
                player = Player(self.file("capture", bytes(content)), self.folder, "--longest-pause", "0")
            except AssertionError as refused:
                self.assertIn("shotmentor-camera: ", str(refused))
                continue
            with contextlib.suppress(OSError):
                for _ in range(2):
                    run_phone(player.url, "--timeout", "0.1", "list", wait_for_turn=False)
            if player.process.poll() is None:
                player.process.terminate()
            self.assertIn(player.end(), (0, 2, CUT, DIFFERS), player.talk())


class Player:
    """A camera that plays a capture."""

    def __init__(self, capture, folder, *options, kind="unix"):
        url = f"unix:{folder}/player-{time.monotonic_ns()}.sock" if kind == "unix" else "tcp:127.0.0.1:0"
        self.process = subprocess.Popen(
            [CAMERA, "--replay", capture, "--listen", url, *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment_of_programs(),
        )  # fmt: skip
        line = self.process.stdout.readline().decode()
        assert line.startswith("listening on "), line + self.process.stderr.read().decode()
        self.url = line.removeprefix("listening on ").rstrip("\n")
        self.said = None

    def end(self):
        """The exit code of a player that comes to its end by itself."""
        self.said = self.process.communicate(timeout=PATIENCE)[1].decode()
        return self.process.returncode

    def talk(self):
        return self.said

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()


if __name__ == "__main__":
    unittest.main()
