"""Several links at once, and links with which nothing happens any more."""

import json
import os
import socket
import time
import unittest

from desk import (
    BUSY_FRAME, LIST, PATIENCE, STATE_ON, Closed, DeskTest, Link, list_reply, phone_record, picture, picture_request,
    records_in, request, run_camera, run_phone, store_request, store_result,
)  # fmt: skip

IDLE = 1  # seconds
LOOKS = 0.5  # seconds between two looks at the phone
MOST_LISTENERS = 8
STALL = 3  # seconds without a byte that are told


class SeveralLinks(DeskTest):
    def setUp(self):
        super().setUp()
        self.other_url = f"unix:{self.folder}/other.sock"

    def listening(self, *options, kind="unix"):
        camera = self.camera("--empty", "--listen", self.other_url, *options, kind=kind)
        self.assertEqual(camera.next_url(), self.other_url)
        return camera

    def test_a_phone_is_served_wherever_it_comes(self):
        with self.listening(kind="tcp") as camera:
            for url in (camera.url, self.other_url, camera.url):
                with Link(url) as link:
                    self.assertEqual(link.ask(request(LIST)), list_reply([]))

    def test_one_phone_at_a_time_is_served_whichever_link_another_comes_by(self):
        with self.listening(kind="tcp") as camera:
            for first, second in ((camera.url, self.other_url), (self.other_url, camera.url)):
                with Link(first) as served:
                    self.assertEqual(served.ask(request(LIST)), list_reply([]))
                    with Link(second) as another:
                        self.assertEqual(another.receive(), BUSY_FRAME)
                    self.assertEqual(served.ask(request(LIST)), list_reply([]))
                time.sleep(0.1)

    def test_what_one_has_stored_the_other_lists(self):
        with self.listening(kind="tcp") as camera:
            with Link(camera.url) as link:
                answer = link.ask(store_request(phone_record(b"Shared"), picture(1)))
            self.assertEqual(store_result(answer)[:2], (1, 0))
            done = run_phone(self.other_url, "list")
            self.assertEnds(done, 0)
            self.assertIn("Shared", done.stdout.decode())

    def test_a_link_that_cannot_be_had_keeps_the_camera_from_starting_and_the_others_from_staying(self):
        done = run_camera(
            self.store, "--empty", "--listen", self.other_url, "--listen", f"unix:{self.folder}/no/camera"
        )
        self.assertEnds(done, 3)
        self.assertIn(f"cannot listen on unix:{self.folder}/no/camera", done.stderr.decode())
        with self.assertRaises(FileNotFoundError):
            Link(self.other_url)

    def test_more_of_them_than_there_is_room_for_are_refused(self):
        options = [
            word for number in range(MOST_LISTENERS + 1) for word in ("--listen", f"unix:{self.folder}/{number}")
        ]
        done = run_camera(self.store, "--empty", *options)
        self.assertEnds(done, 2)
        self.assertIn("--listen is given 9 times, and may be given 8 times at most", done.stderr.decode())

    def test_the_same_one_twice_is_refused(self):
        done = run_camera(self.store, "--empty", "--listen", self.other_url, "--listen", self.other_url)
        self.assertEnds(done, 2)
        self.assertEqual(
            done.stderr.decode(),
            f"shotmentor-camera: --listen is given twice for {self.other_url}; leave one out\n",
        )

    def test_any_free_port_may_be_had_twice(self):
        with self.camera("--empty", "--listen", "tcp:127.0.0.1:0", kind="tcp") as camera:
            self.assertNotEqual(camera.next_url(), camera.url)


class IdlePhones(DeskTest):
    def setUp(self):
        super().setUp()
        self.samples()

    def watching(self, kind):
        return self.camera("--idle-timeout", IDLE, kind=kind)

    def assertLetGo(self, camera, link):
        begin = time.monotonic()
        link.socket.settimeout(PATIENCE)
        with self.assertRaises((Closed, OSError)):
            while True:
                link.receive()
        took = time.monotonic() - begin
        self.assertLess(took, PATIENCE)
        told = f"the phone was let go: nothing has come from it or gone to it for {IDLE} s"
        self.assertIn(told, camera.talk())
        return took

    def test_one_that_says_nothing_more_is_let_go(self):
        for kind in ("unix", "tcp"):
            with self.subTest(kind=kind), self.watching(kind) as camera, camera.link() as link:
                link.ask(request(LIST))
                self.assertGreater(self.assertLetGo(camera, link), IDLE - 0.2)
                with camera.link() as another:
                    another.ask(request(LIST))

    def test_one_that_stops_in_the_middle_of_a_request_is_let_go(self):
        with self.watching("tcp") as camera, camera.link() as link:
            link.send(store_request(phone_record(), picture(1))[:500])
            self.assertLetGo(camera, link)
            with camera.link() as another:
                self.assertEqual(len(another.ask(request(LIST))), 28 + 12 * 744)

    def test_one_that_takes_nothing_of_a_reply_is_let_go(self):
        with self.watching("tcp") as camera:
            with camera.link() as link:
                answer = link.ask(store_request(phone_record(), picture(1, 590000)))
                for _ in range(60):
                    link.send(picture_request(store_result(answer)[2]))
                time.sleep(IDLE + 2 + 2 * LOOKS)  # what the kernel still takes may move for a second longer
                self.assertIn("the phone was let go: nothing has come", camera.talk())

    def test_one_that_says_something_now_and_then_stays(self):
        with self.watching("unix") as camera, camera.link() as link:
            for _ in range(6):
                link.send(request(STATE_ON))
                time.sleep(IDLE / 2)
            link.ask(request(LIST))
            self.assertNotIn("let go", camera.talk())

    def test_a_time_that_is_none_is_refused(self):
        for text in ("0", "-1", "soon", "86401"):
            done = run_camera(self.store, "--idle-timeout", text)
            self.assertEnds(done, 2)
            self.assertIn("--idle-timeout", done.stderr.decode())


class LastWords(DeskTest):
    """A phone that leaves without its answers: what it has sent counts."""

    COUNT = 5

    def test_all_its_requests_are_done(self):
        for kind in ("unix", "tcp"):
            self.store = os.path.join(self.folder, kind)
            with self.subTest(kind=kind), self.camera("--empty", kind=kind) as camera:
                with camera.link() as link:
                    for number in range(self.COUNT):
                        link.send(store_request(phone_record(b"Last words"), picture(number)))
                with camera.link() as link:
                    self.assertEqual(len(records_in(link.ask(request(LIST)))), self.COUNT)


class Stalls(DeskTest):
    """A link that does not move while a reply is on its way is told from one that is slow."""

    SIZE = 590000
    REPLY = 12 + SIZE
    MANY = 40  # so many are more than any socket holds

    def slow_link(self, camera):
        answer = camera.ask(store_request(phone_record(b"Large"), picture(1, self.SIZE)))
        link = camera.link()
        self.addCleanup(link.close)
        for _ in range(self.MANY):
            link.send(picture_request(store_result(answer)[2]))
        return link

    def told(self, camera, event, patience=3 * PATIENCE):
        """The event's fields, once it is told."""
        end = time.monotonic() + patience
        while time.monotonic() < end:
            for line in camera.talk().splitlines():
                if json.loads(line).get("event") == event:
                    return json.loads(line)
            time.sleep(0.05)
        self.fail(f"{event} is not told: {camera.talk()}")

    def assertTold(self, fields, wording):
        taken, total = fields["taken_bytes"], fields["reply_bytes"]
        self.assertEqual(total, self.REPLY)
        self.assertLess(taken, total)
        self.assertGreaterEqual(fields["seconds"], STALL)
        self.assertIn(f"the phone has taken {taken} of {total} bytes of the reply", fields["message"])
        self.assertIn(wording, fields["message"])

    def read_all(self, link):
        for _ in range(self.MANY):
            self.assertEqual(len(link.receive()), self.REPLY)

    def test_one_that_stalls_is_told_and_that_it_moves_again(self):
        for kind in ("unix", "tcp"):
            self.store = os.path.join(self.folder, kind)
            with self.subTest(kind=kind), self.camera("--empty", "--json", kind=kind) as camera:
                link = self.slow_link(camera)
                self.assertTold(self.told(camera, "stalls"), "the link stalls: ")
                self.read_all(link)
                again = self.told(camera, "moves again")
                self.assertGreaterEqual(again["seconds"], STALL)
                self.assertIn(f"the link moves again after {again['seconds']} s: ", again["message"])
                self.assertEqual(camera.talk().count('"stalls"'), 1)
                link.ask(request(LIST))

    def test_that_it_was_lost_meanwhile_is_told(self):
        for kind in ("unix", "tcp"):
            self.store = os.path.join(self.folder, kind)
            with self.subTest(kind=kind), self.camera("--empty", "--json", kind=kind) as camera:
                link = self.slow_link(camera)
                self.told(camera, "stalls")
                link.close()
                self.assertTold(self.told(camera, "lost while it stalled"), "the link that stalled is lost: ")
                self.assertNotIn("moves again", camera.talk())

    def test_a_reply_that_the_kernel_holds_whole_is_not_taken_yet(self):
        with self.camera("--empty", "--json") as camera, camera.link() as link:
            link.send(request(LIST))
            stall = self.told(camera, "stalls")
            self.assertEqual((stall["taken_bytes"], stall["reply_bytes"]), (0, len(list_reply([]))))
            self.assertEqual(link.receive(), list_reply([]))
            again = self.told(camera, "moves again")
            self.assertEqual((again["taken_bytes"], again["reply_bytes"]), (28, 28))

    def test_a_slow_one_that_keeps_moving_is_not_told_of(self):
        for kind in ("unix", "tcp"):
            self.store = os.path.join(self.folder, kind)
            with self.subTest(kind=kind), self.camera("--empty", "--json", kind=kind) as camera:
                link = self.slow_link(camera)
                end = time.monotonic() + 2 * STALL
                while time.monotonic() < end:
                    link.socket.recv(1 << 20)
                    time.sleep(STALL / 6)
                self.assertNotIn("stalls", camera.talk())

    def test_a_link_that_the_lab_slows_down_does_not_stall(self):
        with self.camera("--empty", "--json", "--script", self.file("slow", "at 0s link-rate 5\n")) as camera:
            with camera.link() as link:
                link.send(request(LIST))
                self.assertEqual(link.receive(3 * PATIENCE), list_reply([]))  # 28 bytes take 5.6 s
            self.assertNotIn("stalls", camera.talk())

    def test_a_phone_that_takes_slowly_what_the_kernel_holds_is_not_idle(self):
        self.samples()
        with self.camera("--idle-timeout", 2) as camera, camera.link() as link:
            for _ in range(8):
                link.send(request(LIST))
            for _ in range(8):
                time.sleep(0.6)
                self.assertEqual(len(records_in(link.receive())), 12)
            self.assertNotIn("let go", camera.talk())


class BluetoothIsMissing(DeskTest):
    """Machines without Bluetooth say so in one line; what happens with it is looked at on the air."""

    def setUp(self):
        super().setUp()
        try:
            socket.socket(socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM).close()
        except (OSError, AttributeError):
            return
        self.skipTest("this machine has Bluetooth")

    def test_a_camera_does_not_start(self):
        for url in ("rfcomm:auto", "l2cap:4097", "le:auto"):
            done = run_camera(self.store, "--empty", "--listen", url)
            self.assertEnds(done, 3)
            self.assertEqual(
                done.stderr.decode(),
                f"shotmentor-camera: cannot listen on {url}: this machine's kernel has no such Bluetooth sockets; use "
                "unix: or tcp:\n",
            )

    def test_a_phone_does_not_connect(self):
        for url in ("rfcomm:00:11:22:33:44:55:1", "l2cap:00:11:22:33:44:55:4097", "le:00:11:22:33:44:55:128"):
            done = run_phone(url, "list", wait_for_turn=False)
            self.assertEnds(done, 3)
            self.assertIn("this kernel has no Bluetooth; use unix: or tcp:", done.stderr.decode())

    def test_a_phone_cannot_ask_where_on_the_camera(self):
        for url in ("rfcomm:00:11:22:33:44:55:auto", "le:00:11:22:33:44:55:auto", "le:C0:11:22:33:44:55/random:auto"):
            done = run_phone(url, "list", wait_for_turn=False)
            self.assertEnds(done, 3)
            self.assertIn(f"cannot connect to {url}: this kernel has no Bluetooth; use unix: or", done.stderr.decode())

    def test_a_phone_needs_to_know_which_camera(self):
        for url in ("rfcomm:1", "rfcomm:auto", "le:auto", "l2cap:4097"):
            done = run_phone(url, "list", wait_for_turn=False)
            self.assertEnds(done, 3)
            self.assertIn(f"{url} does not say which camera", done.stderr.decode())


if __name__ == "__main__":
    unittest.main()
