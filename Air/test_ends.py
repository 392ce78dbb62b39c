"""Phones that come while another is there, that hang up, fall silent, go away without a word, and come back."""

import struct
import time

from air import (
    ADDRESSES, CAMERAS, DISCONNECT, LINKS, PHONES, AirTest, FakeCamera, LowEnergySockets, management, start_anew,
    turn_off, wait_until,
)  # fmt: skip
from desk import (
    BUSY_FRAME, LIST, PICTURE, REPLY, STORE, Closed, Link, list_reply, phone_record, picture, picture_request,
    records_in, request, run_phone, store_request, store_result,
)  # fmt: skip

IDLE = 1  # seconds
LARGE = 590000


class TwoPhones(AirTest):
    def setUp(self):
        super().setUp()
        # Two links of one phone's controller cannot go to the same channel of RFCOMM.
        more = ("--listen", LINKS["rfcomm"].listening_url(None)) if self.kind == "rfcomm" else ()
        self.serving = self.camera("--empty", *more)
        self.second_url = self.serving.next_url() if more else self.serving.url

    def test_the_second_is_told_that_the_camera_is_busy_and_the_first_goes_on(self):
        with self.serving.link() as first:
            self.assertEqual(first.ask(request(LIST)), list_reply([]))
            with Link(self.second_url) as second:
                self.assertEqual(second.receive(), BUSY_FRAME)
                with self.assertRaises(Closed):
                    second.receive()
            self.assertEnds(run_phone(self.second_url, "list", wait_for_turn=False), 5)
            self.assertEqual(first.ask(request(LIST)), list_reply([]))
        self.assertEnds(run_phone(self.second_url, "list"), 0)


class SeveralKindsOfLinks(AirTest):
    kinds = ("all",)

    def test_one_phone_at_a_time_is_served_by_whichever_it_comes(self):
        urls = [kind.listening_url(None) for kind in LINKS.values()]
        with self.camera("--empty", "--listen", urls[1], "--listen", urls[2], url=urls[0]) as camera:
            rfcomm, l2cap, low_energy = camera.url, camera.next_url(), camera.next_url()
            # The emulated controllers have one link at a time, of which RFCOMM and L2CAP are channels.
            for number, (url, others) in enumerate(((rfcomm, [l2cap]), (l2cap, [rfcomm]), (low_energy, [low_energy]))):
                with Link(url) as served:
                    answer = served.ask(store_request(phone_record(b"Number %d" % number), picture(number)))
                    self.assertEqual(store_result(answer)[:2], (1, number))
                    for other in others:
                        with Link(other) as another:
                            self.assertEqual(another.receive(), BUSY_FRAME)
                    self.assertEqual(len(records_in(served.ask(request(LIST)))), number + 1)
                wait_until(lambda count=number + 1: camera.talk().count("the phone left") == count)
                with management() as kernel:
                    kernel.disconnect(PHONES)


class HangingUp(AirTest):
    def setUp(self):
        super().setUp()
        self.serving = self.camera("--empty")

    def test_a_hundred_links_with_a_request_each(self):
        for _ in range(100):
            with self.serving.link() as link:
                self.assertEqual(link.ask(request(LIST)), list_reply([]))

    def test_in_the_middle_of_a_request_nothing_is_stored(self):
        data = store_request(phone_record(b"Half"), picture(1, 20000))
        for end in (4, 8, 752, 8192, len(data) - 1):
            with Link(self.serving.url) as link:
                link.send(data[:end])
            self.assertEqual(self.serving.presets(), [])

    def test_in_the_middle_of_a_reply_the_next_phone_is_served(self):
        image = picture(1, LARGE)
        custom_id = store_result(self.serving.ask(store_request(phone_record(), image)))[2]
        for taken in (0, 1, 5):
            with Link(self.serving.url) as link:
                link.send(picture_request(custom_id))
                for _ in range(taken):
                    link.socket.recv(65536)
            answer = self.serving.ask(picture_request(custom_id))
            self.assertEqual(answer, request(REPLY + PICTURE, struct.pack("<i", custom_id) + image))


class LastWords(AirTest):
    """What was sent right before a hang-up is read. With Low Energy the end of a channel overtakes what the sender's
    controller has not taken yet, and no receiver can do anything about that."""

    kinds = ("rfcomm", "l2cap")

    def test_a_phones_count(self):
        with self.camera("--empty") as camera:
            for number in range(10):
                with camera.link() as link:
                    link.ask(request(LIST))  # the kernel forgets a link that ends before the camera has taken it
                    link.send(store_request(phone_record(b"Last words"), picture(number, 20000)))
                self.assertEqual(len(camera.presets()), number + 1, camera.talk())

    def test_a_phone_reads_what_a_camera_has_answered(self):
        record = phone_record(b"The last word", custom_id=1)
        for _ in range(5):
            with FakeCamera(self.kind, lambda *_: (list_reply([record]),)) as camera:
                done = run_phone(camera.url, "list")
                self.assertEnds(done, 0)
                self.assertIn(b"The last word", done.stdout)

    def test_a_phone_reads_why_a_camera_has_turned_it_away(self):
        for _ in range(5):
            with FakeCamera(self.kind, lambda *_: None, greeting=BUSY_FRAME) as camera:
                self.assertEnds(run_phone(camera.url, "list", wait_for_turn=False), 5)


class Stalled(AirTest):
    """Nothing is lost while a phone does not read."""

    def test_a_reply_is_whole_when_it_reads_on(self):
        self.serving = self.camera("--empty")
        image = picture(1, LARGE)
        with self.serving.link() as link:
            custom_id = store_result(link.ask(store_request(phone_record(), image)))[2]
            link.send(picture_request(custom_id))
            time.sleep(1.5)
            answer = link.receive(30)
            self.assertEqual(answer, request(REPLY + PICTURE, struct.pack("<i", custom_id) + image))

    def test_one_that_stays_silent_is_let_go(self):
        with self.camera("--empty", "--idle-timeout", IDLE) as camera:
            with camera.link() as link:
                link.ask(request(LIST))
                with self.assertRaises((Closed, OSError)):
                    link.receive(IDLE + 5)
            self.assertIn("the phone was let go: nothing has come", camera.talk())
            self.assertEqual(camera.presets(), [])


class LostLinks(AirTest):
    """What becomes of a camera whose link breaks without anybody having hung up."""

    disturbs = True

    def setUp(self):
        super().setUp()
        self.serving = self.camera("--empty", "--idle-timeout", IDLE)
        self.image = picture(1, LARGE)
        with self.serving.link() as link:
            answer = link.ask(store_request(phone_record(b"Kept"), self.image))
            self.custom_id = store_result(answer)[2]
            self.before = records_in(link.ask(request(LIST)))

    def assertServesTheNext(self):
        start_anew()
        self.assertEqual(self.serving.presets(), self.before)
        answer = self.serving.ask(picture_request(self.custom_id))
        self.assertEqual(answer, request(REPLY + PICTURE, struct.pack("<i", self.custom_id) + self.image))

    def lose(self, how):
        """The link, in the middle of a request and of a reply."""
        for data in (store_request(phone_record(b"Half"), picture(2, 20000))[:9000], picture_request(self.custom_id)):
            with self.subTest(size=len(data)):
                gone = self.serving.talk().count("the phone ")
                link = self.serving.link()
                self.addCleanup(link.close)
                link.send(data)
                how()
                wait_until(lambda gone=gone: self.serving.talk().count("the phone ") > gone, what="the phone's end")
                link.close()
                self.assertServesTheNext()

    def test_the_controllers_disconnect(self):
        def disconnect():
            kind_of_address = 1 if isinstance(LINKS[self.kind], LowEnergySockets) else 0
            address = bytes.fromhex(ADDRESSES[PHONES].replace(":", ""))[::-1]
            with management() as kernel:
                self.assertEqual(kernel.ask(CAMERAS, DISCONNECT, address + bytes([kind_of_address]))[0], 0)

        self.lose(disconnect)

    def test_the_phones_controller_is_gone_and_the_camera_hears_nothing(self):
        self.lose(lambda: turn_off((PHONES,)))

    def test_the_cameras_controller_is_gone(self):
        self.lose(lambda: turn_off((CAMERAS,)))


class Sizes(AirTest):
    """The size of packets that the two have agreed upon, both ways."""

    kinds = ("l2cap", "le")
    AGREED = 700

    def listening(self, *options):
        camera = self.camera("--empty", *options)
        answer = camera.ask(store_request(phone_record(), picture(1, 20000)))
        return camera, store_result(answer)[2]

    def sizes_of_reply(self, link, custom_id):
        link.packet_sizes.clear()
        answer = link.ask(picture_request(custom_id))
        self.assertEqual(answer[12:], picture(1, 20000))
        return link.packet_sizes

    def test_a_camera_sends_none_that_is_larger_than_the_phone_takes(self):
        camera, custom_id = self.listening()
        kind = LINKS[self.kind]
        link = kind.socket()
        self.addCleanup(link.close)
        kind.prepare(link, size=self.AGREED)
        kind.connect(link, camera.url.partition(":")[2])
        phone = Link.__new__(Link)
        phone.kind, phone.keeps_borders, phone.socket, phone.waiting, phone.packet_sizes = kind, True, link, b"", []
        sizes = self.sizes_of_reply(phone, custom_id)
        self.assertEqual(sizes, [self.AGREED] * (20012 // self.AGREED) + [20012 % self.AGREED])

    def test_a_camera_sends_none_that_is_larger_than_it_was_told(self):
        camera, custom_id = self.listening("--mtu", 900)
        with camera.link() as link:
            self.assertEqual(self.sizes_of_reply(link, custom_id), [900] * (20012 // 900) + [20012 % 900])

    def test_a_camera_takes_the_longest_and_a_phone_cannot_send_longer_ones(self):
        camera, _ = self.listening()
        with camera.link() as link:
            self.assertEqual(link.kind.largest_packet(link.socket), 65535)
            with self.assertRaises(OSError):
                link.socket.send(bytes(65536))
            link.socket.send(request(LIST))
            self.assertEqual(len(records_in(link.receive())), 1)

    def test_the_phone_sends_none_that_is_larger_than_it_was_told(self):
        answers = {LIST: list_reply([]), STORE: request(REPLY + STORE, struct.pack("<iiii", 1, 0, 1, 0))}
        with FakeCamera(self.kind, lambda function, _: answers[function]) as camera:
            preset = self.file("one.json", run_phone(None, "new").stdout)
            image = self.file("one.jpg", picture(1, 9248))
            run_phone(camera.url, "--mtu", 1000, "store", preset, image)  # and finds that the list is empty afterwards
            self.assertEqual([size for size in camera.packet_sizes if size > 8], [1000] * 10)
            self.assertTrue(camera.request_of(STORE).endswith(picture(1, 9248)))
