"""Several links at once, and links with which nothing happens any more."""

import socket
import time
import unittest

from desk import (
    BUSY_FRAME, LIST, PATIENCE, STATE_ON, Closed, DeskTest, Link, list_reply, phone_record, picture, picture_request,
    request, run_camera, run_phone, store_request, store_result,
)  # fmt: skip

IDLE = 1  # seconds
LOOKS = 0.5  # seconds between two looks at the phone
MOST_LISTENERS = 8


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
