"""Phones in crowds, and phones that take all they can get: what the served phone needs stays its own."""

import contextlib
import os
import random
import resource
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest

from desk import (
    BUSY_FRAME, CAMERA, FIRST_START, LIST, PATIENCE, PICTURE, REPLY, STATE_ON, Camera, Closed, DeskTest,
    Link, Silent, Stored, environment_of_programs, list_reply, phone_record, picture, picture_request,
    records_in, request, store_request, store_result,
)  # fmt: skip

KINDS = ("unix", "tcp")
WAITING_PHONES, WAITING_TIME = 4, 2.0
TURNED_AWAY_PHONES = 16
STALLED_TIME = 10
DESCRIPTORS = 26 + 8 + (1 + WAITING_PHONES + TURNED_AWAY_PHONES + 1)
MEMORY_OF_PHONES = (2 * (1 << 20) + 600000 + 11 * (600000 + 64)) // 1024  # KiB
MARGIN = 1024  # KiB that an allocator may keep of what was freed
LARGE_PICTURE = 590000  # a few of them are more than a socket holds for a phone that does not read

with open(CAMERA, "rb") as program:
    IS_SANITIZED = b"__asan_init" in program.read()

AT_ONCE = 3.0 if IS_SANITIZED else 1.5  # seconds; less than the waiting time, which a phone must not be kept for


def descriptors_of(camera):
    return len(os.listdir(f"/proc/{camera.pid}/fd"))


def settled_descriptors_of(camera):
    """The same, once it has stayed as it is for a while: a phone that has just come may have cost more."""
    end, count, since = time.monotonic() + PATIENCE, -1, 0.0
    while time.monotonic() < end:
        now = descriptors_of(camera)
        if now != count:
            count, since = now, time.monotonic()
        if time.monotonic() - since > 0.3:
            return count
        time.sleep(0.02)
    raise AssertionError("the number of descriptors does not settle")


def memory_of(camera, line="VmRSS"):
    with open(f"/proc/{camera.pid}/status") as status:
        return int(next(text for text in status if text.startswith(line + ":")).split()[1])


def asks_without_reading(link, custom_id, count=60):
    """Asks for so many large pictures that the camera has to wait with its replies."""
    for _ in range(count):
        link.send(picture_request(custom_id))


def half_close(link):
    """The phone sends nothing more, and the camera's side knows. On TCP of a busy machine that may come later than
    another phone's connection."""
    link.socket.shutdown(socket.SHUT_WR)
    time.sleep(0.1)


def seconds_until_busy(link):
    start = time.monotonic()
    answer = link.receive()
    assert answer == BUSY_FRAME, answer[:40]
    return time.monotonic() - start


def connected_in_a_crowd(url):
    """A link to a camera whose queue of connects may be full."""
    end = time.monotonic() + PATIENCE
    while True:
        try:
            return Link(url)
        except BlockingIOError:
            if time.monotonic() > end:
                raise


class Crowd(DeskTest):
    def setUp(self):
        super().setUp()
        self.samples()
        self.expected = list_reply(Stored(self.store).as_phone_sees())

    def large_picture(self, camera):
        """The custom_id of a preset with a picture that no socket holds."""
        answer = camera.ask(store_request(phone_record(b"Large"), picture(1, LARGE_PICTURE)))
        self.assertEqual(store_result(answer)[0], 1)
        return store_result(answer)[2]

    def half_left(self, camera):
        """A phone that has sent all it will ever send, and reads nothing of what it gets."""
        custom_id = self.large_picture(camera)
        link = camera.link()
        self.addCleanup(link.close)
        asks_without_reading(link, custom_id)
        half_close(link)
        return link

    def half_closed(self, camera):
        """A phone that connects and has nothing to send."""
        link = Link(camera.url)
        self.addCleanup(link.close)
        half_close(link)
        return link

    def taken_in(self, camera):
        """A phone that is served, however many come before it."""
        end = time.monotonic() + FIRST_START
        while time.monotonic() < end:
            link = connected_in_a_crowd(camera.url)
            with contextlib.suppress(Closed, OSError):
                answer = link.ask(request(LIST))
                if answer != BUSY_FRAME:
                    self.assertEqual(records_in(answer)[:12], records_in(self.expected))
                    return link
            link.close()
        self.fail("the camera stays busy")

    def assertServes(self, camera):
        self.taken_in(camera).close()


class Turns(Crowd):
    """Who waits, for how long, and who is told that the camera is busy."""

    def test_a_phone_that_waits_for_one_that_has_half_left_is_told_busy_after_a_bounded_time(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera:
                self.half_left(camera)
                with Link(camera.url) as second:
                    waited = seconds_until_busy(second)
                    self.assertRaises(Closed, second.receive)
                self.assertGreater(waited, WAITING_TIME - 0.2)
                self.assertLess(waited, WAITING_TIME + 3)

    def test_no_more_phones_wait_than_there_are_places(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera:
                self.half_left(camera)
                waiting = [self.half_closed(camera) for _ in range(WAITING_PHONES)]
                with Link(camera.url) as one_more:
                    self.assertLess(seconds_until_busy(one_more), AT_ONCE)
                for link in waiting:
                    self.assertEqual(link.receive(), BUSY_FRAME)

    def test_phones_that_give_up_waiting_keep_no_descriptors(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera:
                self.half_left(camera)
                before = settled_descriptors_of(camera)
                for _ in range(100):
                    Link(camera.url).close()
                time.sleep(WAITING_TIME + 0.5)
                self.assertEqual(settled_descriptors_of(camera), before)

    def test_a_phone_that_comes_back_at_once_is_served_when_what_it_sent_before_is_answered(self):
        with self.camera(kind="tcp") as camera:
            for _ in range(3):
                link = Link(camera.url)
                link.send(store_request(phone_record(b"Again"), picture(2)))
                link.close()
            with Link(camera.url) as link:
                self.assertEqual(len(records_in(link.ask(request(LIST)))), 12 + 3)

    def test_a_signal_ends_the_camera_while_phones_wait_and_others_are_turned_away(self):
        for kind in KINDS:
            camera = self.camera(kind=kind)
            self.half_left(camera)
            for _ in range(30):
                self.half_closed(camera)
            start = time.monotonic()
            camera.stop()
            self.assertLess(time.monotonic() - start, 2)


class Stalls(Crowd):
    """What becomes of a phone with which nothing moves for the time of a stall. All of them stall at once, and
    each test looks at its own."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.scenes, cls.told_beside_taking = {}, {}
        for kind in KINDS:
            for name in ("half_request", "idle", "untaken", "taking", "nobody_asks", "stopped_camera"):
                cls.scenes[name, kind] = cls._scene(name, kind)
        for name in ("half_header", "refused_rest"):
            cls.scenes[name, "tcp"] = cls._scene(name, "tcp")
        for kind in KINDS:  # the last ones, so that the moment of their stall is known
            cls.scenes["half_left", kind] = cls._scene("half_left", kind)
        end = time.monotonic() + STALLED_TIME + 2  # what moves last is noticed up to a second late
        for pause in (5, 3):  # each is less than a stall, and together with the rest they are not
            time.sleep(pause)
            for kind in KINDS:
                cls.scenes["taking", kind][1].socket.recv(65536)
        time.sleep(STALLED_TIME - 0.7 - 8)
        cls.waiting = {kind: [] for kind in KINDS}
        for pause in (0.5, 0.5, 0):  # one of them waits when the time of the stall is over, soon or late
            for kind in KINDS:
                link = Link(cls.scenes["half_left", kind][0].url)
                cls.addClassCleanup(link.close)
                link.send(request(LIST))
                cls.waiting[kind].append(link)
            time.sleep(pause)
        time.sleep(max(0.0, end - time.monotonic()))
        for kind in KINDS:  # at once: the tests take time themselves
            cls.told_beside_taking[kind] = cls._first_frame(cls.scenes["taking", kind][0])

    @staticmethod
    def _first_frame(camera):
        """What another phone is told without asking, or nothing when it is taken in."""
        with Link(camera.url) as another, contextlib.suppress(Silent):
            return another.receive(AT_ONCE)

    @classmethod
    def _scene(cls, name, kind):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        camera = Camera(f"{folder.name}/store", "--empty", kind=kind)
        cls.addClassCleanup(camera.kill)
        answer = camera.ask(store_request(phone_record(b"Large"), picture(1, LARGE_PICTURE)))
        link = camera.link()
        cls.addClassCleanup(link.close)
        if name in ("half_request", "nobody_asks", "stopped_camera"):
            link.send(request(LIST, bytes(100))[:50])
        elif name == "half_header":
            link.send(request(LIST)[:5])
        elif name == "refused_rest":
            link.send(struct.pack("<ii", 9999, 1 << 30) + bytes(100))
        elif name == "idle":
            link.ask(request(LIST))
        else:
            asks_without_reading(link, store_result(answer)[2])
        if name == "half_left":
            link.socket.shutdown(socket.SHUT_WR)
        if name == "stopped_camera":
            time.sleep(0.2)  # it has seen what came until now
            camera.process.send_signal(signal.SIGSTOP)
        return camera, link

    def setUp(self):
        DeskTest.setUp(self)

    def assertGivesWay(self, name, kind):
        camera, link = self.scenes[name, kind]
        with Link(camera.url) as another:
            self.assertEqual(len(records_in(another.ask(request(LIST)))), 1)
        self.assertIn("the phone was let go for another one", camera.talk())
        with self.assertRaises((Closed, OSError)):
            while True:
                link.receive()
        camera.stop()

    def test_a_phone_that_stops_in_the_middle_of_a_request_gives_way_to_another(self):
        for kind in KINDS:
            self.assertGivesWay("half_request", kind)

    def test_a_phone_that_stops_in_the_middle_of_a_header_gives_way_to_another(self):
        self.assertGivesWay("half_header", "tcp")

    def test_a_phone_that_stops_in_the_middle_of_a_refused_request_gives_way_to_another(self):
        self.assertGivesWay("refused_rest", "tcp")

    def test_a_phone_that_takes_nothing_of_a_reply_gives_way_to_another(self):
        for kind in KINDS:
            self.assertGivesWay("untaken", kind)

    def test_a_phone_that_takes_a_little_of_a_reply_now_and_then_stays(self):
        for kind in KINDS:
            self.assertEqual(self.told_beside_taking[kind], BUSY_FRAME)

    def test_a_phone_that_waits_when_the_stall_is_over_is_taken_in(self):
        for kind in KINDS:
            answers = [link.receive() for link in self.waiting[kind]]
            answers = [answer for answer in answers if answer != BUSY_FRAME]
            self.assertEqual([len(records_in(answer)) for answer in answers], [1])

    def test_a_camera_that_was_stopped_itself_takes_that_for_no_stall_of_a_phone(self):
        for kind in KINDS:
            camera, link = self.scenes["stopped_camera", kind]
            with Link(camera.url) as another:
                link.send(request(LIST, bytes(100))[50:])
                camera.process.send_signal(signal.SIGCONT)
                self.assertEqual(another.receive(), BUSY_FRAME)
            self.assertEqual(len(records_in(link.receive())), 1)

    def test_an_idle_phone_stays(self):
        for kind in KINDS:
            self.assertEqual(self._first_frame(self.scenes["idle", kind][0]), BUSY_FRAME)

    def test_a_phone_that_stops_while_nobody_else_asks_goes_on_where_it_stopped(self):
        for kind in KINDS:
            camera, link = self.scenes["nobody_asks", kind]
            self.assertEqual(len(records_in(link.ask(request(LIST, bytes(100))[50:]))), 1)
            self.assertNotIn("let go", camera.talk())


class TurnedAway(Crowd):
    """Phones that the camera is too busy for cost the served one nothing."""

    def test_at_most_16_of_them_are_kept_and_the_oldest_goes_first(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera, camera.link():
                before = descriptors_of(camera)
                links = [Link(camera.url) for _ in range(200)]
                for link in links:
                    self.addCleanup(link.close)
                    self.assertEqual(link.receive(), BUSY_FRAME)
                self.assertLessEqual(descriptors_of(camera) - before, TURNED_AWAY_PHONES)

    def test_the_served_phone_stores_and_reads_with_no_descriptor_to_spare_while_others_come(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.limited(DESCRIPTORS, kind=kind) as camera, camera.link() as link:
                with self.flood(camera):
                    for number in range(12):
                        answer = link.ask(store_request(phone_record(b"Stored"), picture(number)))
                        self.assertEqual(store_result(answer)[0], 1)
                        custom_id = store_result(answer)[2]
                        got = link.ask(picture_request(custom_id))
                        self.assertEqual(got, request(REPLY + PICTURE, struct.pack("<i", custom_id) + picture(number)))
                self.assertNotIn("cannot take a phone in", camera.talk())
            self.samples_anew()

    def test_a_second_phone_is_told_at_once_while_others_come(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera, camera.link():
                with self.flood(camera):
                    for _ in range(10):
                        start = time.monotonic()
                        with connected_in_a_crowd(camera.url) as second:
                            self.assertEqual(second.receive(), BUSY_FRAME)
                        self.assertLess(time.monotonic() - start, AT_ONCE)

    def test_one_that_sends_a_whole_request_before_it_reads_gets_its_answer(self):
        data = store_request(phone_record(), picture(1, LARGE_PICTURE))
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera, camera.link():
                with Link(camera.url) as second:
                    second.send(data)
                    self.assertEqual(second.receive(), BUSY_FRAME)

    def samples_anew(self):
        self.store = os.path.join(self.folder, f"store-{time.monotonic_ns()}")
        self.samples()

    def limited(self, count, kind):
        """A camera that may have so many files open."""
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (count, hard))
        try:
            return self.camera(kind=kind)
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))

    @contextlib.contextmanager
    def flood(self, camera, at_a_time=300):
        """Many phones that connect and stay for as long as they are let."""
        over = threading.Event()

        def come():
            while not over.is_set():
                links = []
                for _ in range(at_a_time):
                    with contextlib.suppress(OSError):
                        links.append(Link(camera.url))
                for link in links:
                    link.close()

        thread = threading.Thread(target=come, daemon=True)
        thread.start()
        time.sleep(0.2)
        try:
            yield
        finally:
            over.set()
            thread.join(PATIENCE)


class Limits(DeskTest):
    """What the machine must allow the camera."""

    def setUp(self):
        super().setUp()
        self.samples()

    def run_limited(self, soft, hard, *arguments):
        return subprocess.run(
            [CAMERA, "--store", self.store, *arguments],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE, env=environment_of_programs(),
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard)),
        )  # fmt: skip

    def test_a_camera_that_may_not_open_what_it_needs_says_so_and_does_not_start(self):
        for hard in (DESCRIPTORS - 1, 20):
            done = self.run_limited(hard, hard)
            self.assertEqual(done.returncode, 1)
            self.assertEqual(
                done.stderr.decode(),
                f"shotmentor-camera: the camera needs {DESCRIPTORS} open files, and may have {hard}; raise the "
                "limit (ulimit -n)\n",
            )

    def test_a_limit_that_may_be_raised_is_raised(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (20, hard))
        try:
            camera = self.camera()
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
        with open(f"/proc/{camera.pid}/limits") as limits:
            line = next(line for line in limits if line.startswith("Max open files"))
        self.assertEqual(int(line.split()[3]), DESCRIPTORS)
        camera.stop()

    def test_what_the_caller_left_open_counts_on_top(self):
        inherited = [os.open("/dev/null", os.O_RDONLY) for _ in range(7)]
        self.addCleanup(lambda: [os.close(descriptor) for descriptor in inherited])
        done = subprocess.run(
            [CAMERA, "--store", self.store],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE, env=environment_of_programs(),
            pass_fds=inherited,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (DESCRIPTORS, DESCRIPTORS)),
        )  # fmt: skip
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"needs {DESCRIPTORS + 7} open files", done.stderr.decode())


class EmptyPackets(Crowd):
    """A packet without bytes, where packets keep their borders, is neither a request nor the end."""

    def test_the_phone_stays(self):
        with self.camera() as camera, camera.link() as link:
            for _ in range(3):
                link.socket.send(b"")
                self.assertEqual(link.ask(request(LIST)), self.expected)
            self.assertNotIn("the phone left", camera.talk())

    def test_a_request_in_the_middle_goes_on(self):
        data = request(LIST, bytes(100))
        with self.camera() as camera, camera.link() as link:
            link.send(data[:50])
            link.socket.send(b"")
            self.assertEqual(link.ask(data[50:]), self.expected)

    def test_what_was_sent_behind_one_is_answered_although_the_phone_has_closed_its_sending_side(self):
        with self.camera() as camera, camera.link() as link:
            camera.process.send_signal(signal.SIGSTOP)  # it finds all of it at once
            link.socket.send(b"")
            link.send(request(LIST))
            link.socket.shutdown(socket.SHUT_WR)
            camera.process.send_signal(signal.SIGCONT)
            self.assertEqual(link.receive(), self.expected)
            self.assertRaises(Closed, link.receive)

    def test_each_is_handed_to_the_library_which_logs_it(self):
        with self.camera() as camera, camera.link() as link:
            link.socket.send(b"")
            link.ask(request(LIST))
            self.assertEqual(camera.talk().count("ADE_ShotMentor_Receive_Manager length=0"), 1)


class Memory(Crowd):
    """However a phone tries, the camera holds no more than it has promised."""

    def setUp(self):
        super().setUp()
        if IS_SANITIZED:
            self.skipTest("a sanitizer's own memory hides how the camera's grows")

    def started(self, *options, kind="tcp"):
        camera = self.camera("--log-level", "off", *options, kind=kind)
        with camera.link() as link:
            for _ in range(20):
                link.ask(request(LIST))
        return camera, memory_of(camera)

    def assertHeld(self, camera, before, limit):
        self.assertLess(memory_of(camera, "VmHWM") - before, limit + MARGIN)

    def test_requests_that_nobody_reads_the_answers_of_wait_outside(self):
        for kind in KINDS:
            with self.subTest(kind=kind):
                camera, before = self.started(kind=kind)
                with camera.link() as link:
                    link.socket.settimeout(0.5)
                    with contextlib.suppress(TimeoutError):
                        for _ in range(3000):
                            link.send(request(LIST) * (1 if kind == "unix" else 1000))
                    self.assertHeld(camera, before, MEMORY_OF_PHONES)
                camera.stop()

    def test_a_request_without_an_end_is_counted_and_not_kept(self):
        for total in (600001, 2147483647):
            camera, before = self.started()
            with camera.link() as link:
                link.send(struct.pack("<ii", 6, total))
                for _ in range(40):
                    link.send(bytes(1 << 20))
                self.assertHeld(camera, before, MEMORY_OF_PHONES)
            camera.stop()

    def test_the_rest_of_a_refused_request_is_passed_over_and_not_kept(self):
        camera, before = self.started()
        with camera.link() as link:
            link.send(struct.pack("<ii", 9999, 60 * (1 << 20)))
            for _ in range(60):
                link.send(bytes(1 << 20))
            link.send(bytes(8))
            self.assertHeld(camera, before, MEMORY_OF_PHONES)
        camera.stop()

    def test_replies_whose_confirmation_is_lost_or_late_are_not_kept_beyond_those_that_the_library_sets_aside(
        self,
    ):
        for options in (("--drop-confirmations", 1), ("--confirm-delay", 600000)):
            with self.subTest(options=options):
                camera, before = self.started(*options)
                with camera.link() as link:
                    for _ in range(2000):
                        link.ask(request(LIST))
                    self.assertHeld(camera, before, 11 * 30)
                with camera.link() as link:
                    self.assertEqual(link.ask(request(LIST)), self.expected)
                camera.stop()

    def test_replies_that_an_error_reply_takes_the_place_of_are_not_kept(self):
        camera, before = self.started("--confirm-delay", 600000)
        with camera.link() as link:
            for _ in range(2000):
                link.send(picture_request(-1))
                link.ask(request(LIST))
            self.assertHeld(camera, before, 11 * 30)
        with camera.link() as link:
            self.assertEqual(link.ask(request(LIST)), self.expected)
        camera.stop()


class Time(Crowd):
    """However many requests a phone sends at once, the camera looks after everybody else in between."""

    def busy_phone(self, camera):
        """A phone that has sent as many requests as a buffer takes, all of them without a reply."""
        link = camera.link()
        self.addCleanup(link.close)
        over = threading.Event()
        self.addCleanup(over.set)

        def send():
            with contextlib.suppress(OSError):
                while not over.is_set():
                    link.socket.sendall(request(STATE_ON) * 100000)

        threading.Thread(target=send, daemon=True).start()
        time.sleep(0.5)
        return link

    def test_another_phone_is_told_at_once(self):
        with self.camera(kind="tcp") as camera:
            self.busy_phone(camera)
            for _ in range(5):
                with Link(camera.url) as second:
                    self.assertLess(seconds_until_busy(second), AT_ONCE)

    def test_a_signal_ends_the_camera_at_once(self):
        camera = self.camera(kind="tcp")
        self.busy_phone(camera)
        start = time.monotonic()
        camera.stop()
        self.assertLess(time.monotonic() - start, AT_ONCE)


class Day(Crowd):
    """A day's worth of phones leaves the camera as it was in the morning."""

    PHONES = 2000 if IS_SANITIZED else 100000
    SERVED = 20

    def setUp(self):
        super().setUp()
        self.dice = random.Random(5)

    def one_that_vanishes(self, url, is_another_served):
        """A phone that leaves, half leaves or resets, whatever it has sent and read before."""
        try:
            link = connected(url, self.dice)
        except OSError:  # no room in the queue of connects: it tries again later
            return 0
        with link:
            with contextlib.suppress(OSError):
                way = self.dice.randrange(6)
                if way == 0 and is_another_served:
                    link.recv(100)
                elif way == 1:
                    link.shutdown(socket.SHUT_WR)
                elif way == 2:
                    link.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                elif way == 3:
                    link.send(request(STATE_ON)[: self.dice.randint(1, 8)])
                elif way == 4:
                    link.send(request(LIST))
        return 1

    def many(self, camera, count, is_another_served):
        came = 0
        while came < count:
            came += self.one_that_vanishes(camera.url, is_another_served)

    def at_rest(self, camera):
        """Descriptors and memory when all that phones left behind has had its time."""
        time.sleep(WAITING_TIME + 0.5)
        return settled_descriptors_of(camera), memory_of(camera)

    def test_100000_phones_leave_descriptors_and_memory_as_they_were(self):
        for kind in KINDS:
            with self.subTest(kind=kind):
                camera = self.camera(kind=kind)
                self.many(camera, self.PHONES // 50, False)  # what is allocated once is not growth
                self.assertServes(camera)
                descriptors, memory = self.at_rest(camera)
                for _ in range(self.SERVED // 2):
                    self.many(camera, self.PHONES // self.SERVED // 2, False)
                    with self.taken_in(camera) as link:
                        self.many(camera, self.PHONES // self.SERVED // 2, True)
                        self.assertEqual(link.ask(request(LIST)), self.expected)
                after = self.at_rest(camera)
                self.assertEqual(after[0], descriptors)
                if not IS_SANITIZED:
                    self.assertLess(after[1] - memory, MARGIN)
                self.assertServes(camera)
                camera.stop()


def connected(url, dice):
    """A socket without a wait for anything. Over TCP it comes from one of many addresses, each of which has
    ports of its own."""
    kind, _, rest = url.partition(":")
    if kind == "unix":
        link, address = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET), rest
    else:
        host, _, port = rest.rpartition(":")
        link, address = socket.socket(socket.AF_INET, socket.SOCK_STREAM), (host, int(port))
    try:
        link.settimeout(PATIENCE)
        if kind == "tcp":
            link.bind((f"127.0.0.{dice.randint(2, 250)}", 0))
        link.connect(address)
    except OSError:
        link.close()
        raise
    return link


if __name__ == "__main__":
    unittest.main()
