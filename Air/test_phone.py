"""The phone of the desk and the camera, from one end of a day to the other."""

import json
import os
import re
import struct
import subprocess
import time

from air import AirTest, measured, wait_until

from desk import (
    LIST, PICTURE, REPLY, get, phone_record, picture, picture_request, request, run_phone, store_request, store_result,
    stored_picture,
)  # fmt: skip


class Phone(AirTest):
    def setUp(self):
        super().setUp()
        self.samples()
        self.serving = self.camera()

    def phone(self, *arguments, code=0, url=None, timeout=60.0):
        done = run_phone(url or self.serving.url, *arguments, timeout=timeout)
        self.assertEnds(done, code)
        return done.stdout.decode()

    def titles(self):
        return [entry["title"] for entry in json.loads(self.phone("--json", "--raw", "list"))["presets"]]

    def test_it_lists_shows_fetches_stores_renames_deletes_and_leaves(self):
        titles = self.titles()
        self.assertEqual(len(titles), 12)
        shown = json.loads(self.phone("--json", "--raw", "show", 1))
        self.assertEqual(shown["title"], titles[1])
        image = os.path.join(self.folder, "picture.jpg")
        self.phone("picture", 1, "-o", image)
        with open(image, "rb") as file:
            fetched = file.read()
        self.assertTrue(stored_picture(self.store, shown["custom_id"]).startswith(fetched))
        self.assertEqual(fetched[:3] + fetched[-2:], b"\xff\xd8\xff\xff\xd9")
        preset = self.file("new.json", json.dumps({**shown, "title": "Made on the air"}))
        self.phone("store", preset, image)
        self.assertEqual(self.titles(), [*titles, "Made on the air"])
        self.phone("rename", "made on", "Renamed on the air")
        self.assertEqual(self.titles(), [*titles, "Renamed on the air"])
        used = re.search(r"^\s*(\d+) .*CUSTOM1", self.phone("--width", 0, "list"), re.MULTILINE).group(1)
        self.phone("delete", 12, used, code=17)
        self.assertEqual(self.titles(), titles)
        self.phone("leave")

    def test_a_backup_is_restored_as_it_was(self):
        self.serving.stop()
        self.store = os.path.join(self.folder, "small")
        self.serving = self.camera("--empty")
        with self.serving.link() as link:
            for number in range(2):
                link.ask(store_request(phone_record(b"Number %d" % number), picture(number, 20000)))
        before = self.serving.presets()
        folder = os.path.join(self.folder, "backup")
        self.phone("backup", folder)
        self.phone("delete", 0, 1)
        self.assertEqual(self.serving.presets(), [])
        self.phone("restore", folder)
        after = self.serving.presets()
        self.assertEqual([get(one, "title") for one in after], [get(one, "title") for one in before])
        self.serving.stop()
        for number, record in enumerate(after):
            self.assertEqual(stored_picture(self.store, get(record, "custom_id")), picture(number, 20000))


class Checks(AirTest):
    """All that a phone may send. Where a link cannot be closed halfway, as those of L2CAP, it waits for many answers
    that never come, which takes a minute."""

    kinds = ("rfcomm",)

    def test_check_finds_nothing_wrong(self):
        with self.camera("--empty", "--quiet") as camera:
            begin = time.monotonic()
            done = run_phone(camera.url, "check", "--quick", timeout=55)
            self.assertEnds(done, 0)
        measured(f"{self.kind}: check --quick takes {time.monotonic() - begin:.1f} s")


class Uploads(AirTest):
    """The camera stores what it is sent, and sends what it has stored."""

    def setUp(self):
        super().setUp()
        self.serving = self.camera("--empty", "--quiet")

    def upload(self, size):
        image = picture(2, size - 8 - 744)
        with self.serving.link() as link:
            begin = time.monotonic()
            link.send(store_request(phone_record(b"Long"), image))
            result, _, custom_id, _ = store_result(link.receive(30))
            up = time.monotonic() - begin
            self.assertEqual(result, 1)
            begin = time.monotonic()
            link.send(picture_request(custom_id))
            self.assertEqual(link.receive(30), request(REPLY + PICTURE, struct.pack("<i", custom_id) + image))
            down = time.monotonic() - begin
        self.assertEqual(stored_picture(self.store, custom_id), image)
        measured(f"{self.kind}: {size} bytes up in {up:.2f} s, and as many down in {down:.2f} s")

    def test_uploads_599248_bytes(self):
        self.upload(599248)

    def test_uploads_600000_bytes_which_is_the_longest_request(self):
        self.upload(600000)

    def test_requests_one_after_the_other(self):
        count = 300
        with self.serving.link() as link:
            begin = time.monotonic()
            for _ in range(count):
                link.ask(request(LIST))
            took = time.monotonic() - begin
        measured(f"{self.kind}: {count / took:.0f} requests a second")

    def test_the_phone_uploads_and_fetches_the_longest_request(self):
        image = self.file("long.jpg", picture(3, 599248))
        preset = self.file("long.json", run_phone(None, "new").stdout)
        self.assertEnds(run_phone(self.serving.url, "store", preset, image), 0)
        fetched = os.path.join(self.folder, "fetched.jpg")
        self.assertEnds(run_phone(self.serving.url, "picture", 0, "-o", fetched), 0)
        with open(fetched, "rb") as file:
            self.assertEqual(file.read(), picture(3, 599248))


class Captures(AirTest):
    def decoded(self, path):
        done = run_phone(None, "decode", path)
        self.assertEnds(done, 0)
        return done.stdout.decode()

    def assertTellsConversation(self, text):
        for word in ("store", "picture", "list"):
            self.assertIn(word, text.lower())

    def converse(self, url):
        preset = self.file("one.json", run_phone(None, "new").stdout)
        self.assertEnds(run_phone(url, "store", preset, self.file("one.jpg", picture(1))), 0)
        self.assertEnds(run_phone(url, "picture", 0, "-o", os.path.join(self.folder, "back.jpg")), 0)

    def test_the_cameras_own_capture_is_decoded(self):
        path = os.path.join(self.folder, "camera.btsnoop")
        with self.camera("--empty", "--capture", path) as camera:
            self.converse(camera.url)
        self.assertTellsConversation(self.decoded(path))

    def test_what_a_monitor_of_the_controllers_sees_is_decoded(self):
        os.makedirs("/tmp/monitor", exist_ok=True)  # what is there comes out of the guest
        path = f"/tmp/monitor/{self.kind}.btsnoop"
        monitor = subprocess.Popen(["btmon", "-w", path], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: monitor.poll() is None and monitor.kill())
        wait_until(lambda: os.path.exists(path) and os.path.getsize(path) > 16, what="the monitor's first record")
        with self.camera("--empty") as camera:
            self.converse(camera.url)
        time.sleep(0.2)
        monitor.terminate()
        monitor.wait(10)
        self.assertTellsConversation(self.decoded(path))
