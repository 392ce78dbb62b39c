"""What goes wrong with Bluetooth is told in one line that says how to mend it, and costs nothing of the store."""

import os
import re
import subprocess
import time

import desk

from air import (
    BASIC_MODE, CAMERA_ADDRESS, CAMERAS, LINKS, PHONES, USER, AirTest, start_anew, turn_off,
)  # fmt: skip
from desk import LIST, PATIENCE, Closed, Link, phone_record, picture, picture_request, records_in, request
from desk import run_camera, run_phone, store_request, store_result

NOBODY = "00:AA:01:7F:00:7F"
NO_ADAPTER = "this machine has no Bluetooth adapter that is on"
OTHER_KIND = {"rfcomm": "le:{}:128", "l2cap": "rfcomm:{}:29", "le": "l2cap:{}:4111"}


def free_port(kind):
    return {"rfcomm": 28, "l2cap": 4109, "le": 190}[kind]


class BadInput(AirTest):
    disturbs = True

    def setUp(self):
        super().setUp()
        start_anew()  # connects that were given up, and links that are lost, stand in the way of the next ones
        self.addCleanup(self.assertStoreUnharmed)
        with self.camera("--empty") as camera:
            self.wait_for_adapters(camera)
            answer = camera.ask(store_request(phone_record(b"Kept"), picture(1)))
            self.assertEqual(store_result(answer)[0], 1)

    def wait_for_adapters(self, camera):
        """The first link behind their start may be aborted."""
        end = time.monotonic() + PATIENCE
        while True:
            try:
                return camera.presets()
            except OSError:
                if time.monotonic() > end:
                    raise

    def assertStoreUnharmed(self):
        done = run_camera(self.store, "presets")
        self.assertEnds(done, 0)
        self.assertIn("Kept", done.stdout.decode())

    def assertOneLineOf(self, done, code, *parts):
        self.assertEnds(done, code)
        text = done.stderr.decode()
        self.assertEqual(text.count("\n"), 1, text)
        for part in parts:
            self.assertIn(part, text)

    def assertCameraRefuses(self, url, *parts):
        done = run_camera(self.store, "--listen", url)
        self.assertOneLineOf(done, 3, f"cannot listen on {url}: ", *parts)
        self.assertEqual(done.stdout, b"")

    def assertPhoneRefuses(self, url, *parts, seconds=5):
        start = time.monotonic()
        done = run_phone(url, "--timeout", "2", "list", wait_for_turn=False)
        self.assertOneLineOf(done, 3, f"cannot connect to {url}: ", *parts)
        self.assertLess(time.monotonic() - start, seconds)

    def assertTold(self, camera, pattern):
        end = time.monotonic() + 3 * PATIENCE
        while not re.search(pattern, camera.talk()):
            self.assertLess(time.monotonic(), end, camera.talk())
            time.sleep(0.05)

    def url(self, address=CAMERA_ADDRESS, port=None):
        return f"{self.kind}:{address}:{port or free_port(self.kind)}"


class Adapters(BadInput):
    def test_adapters_that_are_off(self):
        turn_off()
        self.assertCameraRefuses(f"{self.kind}:{free_port(self.kind)}", NO_ADAPTER, "bluetoothctl power on")
        self.assertPhoneRefuses(self.url(), NO_ADAPTER, "bluetoothctl power on")

    def test_an_adapter_that_this_machine_has_not(self):
        self.assertCameraRefuses(self.url(NOBODY), "no adapter with that address that is on")

    def test_the_cameras_adapter_goes_off_in_the_middle(self):
        camera = self.camera("--empty")
        link = self.link(camera)
        link.ask(request(LIST))
        turn_off([CAMERAS])
        self.assertTold(camera, "the phone left: ")
        link.close()
        start_anew()
        self.assertEqual(len(self.wait_for_adapters(camera)), 1)

    def test_the_phones_adapter_goes_off_in_the_middle(self):
        """The camera may notice nothing of it, and then lets the phone go where it is told to."""
        camera = self.camera("--idle-timeout", "2")
        link = self.link(camera)
        link.ask(request(LIST))
        turn_off([PHONES])
        self.assertTold(camera, "the phone (was let go: nothing has come from it or gone to it for 2 s|left: )")

    def test_the_adapter_goes_off_below_the_phones_program(self):
        camera = self.camera("--script", self.file("late", "at 0s packet-delay 1500\n"))
        phone = subprocess.Popen(
            [desk.PHONE, "--connect", camera.url, "list"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=desk.environment_of_programs(),
        )  # fmt: skip
        self.assertTold(camera, "a phone connected")
        turn_off([PHONES])
        _, errors = phone.communicate(timeout=3 * PATIENCE)
        self.assertIn(phone.returncode, (4, 6), errors)
        self.assertEqual(errors.decode().count("\n"), 1, errors)


class Places(BadInput):
    def test_a_place_that_another_camera_has(self):
        other = self.camera()
        done = run_camera(os.path.join(self.folder, "second"), "--empty", "--listen", other.url)
        self.assertOneLineOf(done, 3, "another program has this channel or PSM; give another one")
        self.assertEqual(len(other.presets()), 1)

    def test_a_place_where_nobody_listens(self):
        self.camera()
        self.assertPhoneRefuses(self.url(), "the camera refuses; see that it listens on this kind of link, and there")

    def test_a_place_of_another_kind_of_link(self):
        self.camera()
        self.assertPhoneRefuses(OTHER_KIND[self.kind].format(CAMERA_ADDRESS), "the camera refuses")


class Rights(BadInput):
    kinds = ("l2cap", "le")

    def test_a_user_has_no_right_to_a_reserved_psm(self):
        os.chmod(self.folder, 0o777)
        done = subprocess.run(
            [desk.CAMERA, "--store", os.path.join(self.folder, "users"), "--empty", "--listen", self.reserved_url()],
            capture_output=True, timeout=PATIENCE, env=desk.environment_of_programs(), user=USER, group=USER,
        )  # fmt: skip
        self.assertOneLineOf(done, 3, "only root may listen there; give a")

    def reserved_url(self):
        return {"l2cap": "l2cap:3585", "le": "le:37"}[self.kind]


class LossyPhones(BadInput):
    """The basic mode of L2CAP loses packets without a word."""

    kinds = ("l2cap",)

    def basic_link(self, url):
        sockets = LINKS["l2cap"]
        prepare = sockets.prepare
        sockets.prepare = lambda link: prepare(link, mode=BASIC_MODE)
        try:
            return Link(url)
        finally:
            del sockets.prepare

    def test_phones_that_lose_packets_are_refused_in_one_line(self):
        camera = self.camera()
        with self.assertRaises((Closed, OSError)):  # it may have been closed before connecting is over
            with self.basic_link(camera.url) as link:
                link.ask(request(LIST))
        self.assertTold(camera, "refused")
        told = [line for line in camera.talk().splitlines() if "refused" in line]
        self.assertEqual(
            told,
            [
                "shotmentor-camera: a phone was refused: its link has L2CAP's basic mode, which loses packets; have it "
                "ask for enhanced retransmission, or use rfcomm: or le:"
            ],
        )
        self.assertEqual(len(camera.presets()), 1)


class Stalls(BadInput):
    """A reply that the phone does not take is told, as over other links."""

    SIZE = 590000
    MANY = 3  # so many are more than any socket holds

    def test_a_stall_is_told_and_that_the_link_moves_again(self):
        camera = self.camera()
        stored = camera.ask(store_request(phone_record(b"Large"), picture(2, self.SIZE)))
        link = self.link(camera)
        for _ in range(self.MANY):
            link.send(picture_request(store_result(stored)[2]))
        size = self.SIZE + 12
        self.assertTold(
            camera, f"the link stalls: the phone has taken [0-9]+ of {size} bytes of the reply, and nothing"
        )
        for _ in range(self.MANY):
            self.assertEqual(len(link.receive(12 * PATIENCE)), size)
        self.assertTold(camera, "the link moves again after ")
        self.assertEqual(len(records_in(link.ask(request(LIST)))), 2)

    def test_a_slow_link_is_not_told_of(self):
        camera = self.camera()
        stored = camera.ask(store_request(phone_record(b"Large"), picture(2, self.SIZE)))
        link = self.link(camera)
        link.send(picture_request(store_result(stored)[2]))
        end = time.monotonic() + 6
        while time.monotonic() < end:
            link.socket.recv(8192)
            time.sleep(0.3)  # slower ones stall: the kernel's RFCOMM waits until three quarters of its room are free
        self.assertNotIn("stalls", camera.talk())


class LastWords(BadInput):
    """Of a phone that leaves. On Low Energy its own kernel may lose them."""

    kinds = ("rfcomm", "l2cap")

    def test_last_words_that_have_arrived_count(self):
        camera = self.camera()
        with camera.link() as link:
            for number in range(4):
                link.send(store_request(phone_record(b"Last words"), picture(number)))
        self.assertEqual(len(camera.presets()), 5)


class Nobody(BadInput):
    # Over RFCOMM the guest's kernel, 6.1, breaks behind it, when a socket is closed that could not be connected.
    kinds = ("le",)

    def test_an_address_of_nobody_is_told_in_the_phones_own_time(self):
        self.assertPhoneRefuses(self.url(NOBODY), "no answer from that address", seconds=2 + PATIENCE)
