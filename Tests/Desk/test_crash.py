"""A camera that dies at any moment loses nothing that it confirmed, and a full disk costs nothing either."""

import os
import random
import subprocess
import time
import unittest

from desk import (
    CAMERA, LIST, DeskTest, Stored, delete_reply, delete_request, environment_of_programs, get,
    phone_record, picture,
    pictures_of, records_in, request, store_request, store_result, stored_picture,
)  # fmt: skip

OPERATIONS = 200
SEED = 20261121


class KilledCameras(DeskTest):
    def setUp(self):
        super().setUp()
        self.dice = random.Random(SEED)
        self.confirmed = {}  # custom_id: number of the picture, which is the number in the title too
        self.order = []  # custom_ids in the order of the list
        self.ever = set()  # every custom_id that was ever confirmed
        self.made = 0  # presets asked for so far
        self.outcomes = {"done": 0, "undone": 0}

    def image(self, number):
        return picture(number, 400 + number * 997 % 50000)

    def record(self, number):
        return phone_record(b"Preset %d" % number)

    def doomed_deletion(self):
        """Up to three presets, and the request that deletes them."""
        gone = self.dice.sample(self.order, min(len(self.order), self.dice.randint(1, 3)))
        return gone, delete_request(*[(self.order.index(custom_id), custom_id) for custom_id in gone])

    def wants_to_store(self):
        return len(self.order) < 3 or (len(self.order) < 38 and self.dice.random() < 0.6)

    def forget(self, gone):
        for custom_id in gone:
            del self.confirmed[custom_id]
            self.order.remove(custom_id)

    def remember(self, custom_id, number):
        self.assertNotIn(custom_id, self.ever, "a custom_id was given twice")
        self.ever.add(custom_id)
        self.confirmed[custom_id] = number
        self.order.append(custom_id)

    def confirmed_operation(self, link):
        if self.wants_to_store():
            self.made += 1
            answer = link.ask(store_request(self.record(self.made), self.image(self.made)))
            result, _, custom_id, _ = store_result(answer)
            self.assertEqual(result, 1)
            self.remember(custom_id, self.made)
        else:
            gone, data = self.doomed_deletion()
            answer = link.ask(data)
            self.assertEqual(answer[8:12], delete_reply(1, [])[8:12])
            self.forget(gone)
            self.assertEqual([get(record, "custom_id") for record in records_in(answer, head=20)], self.order)

    def killed_operation(self, camera, link):
        """Starts an operation and kills the camera in it. Returns the custom_ids that it deletes."""
        if self.wants_to_store():
            self.made += 1
            gone, data = [], store_request(self.record(self.made), self.image(self.made))
        else:
            gone, data = self.doomed_deletion()
        link.send(data, range(16384, len(data), 16384))
        time.sleep(self.dice.random() ** 2 * 0.03)
        camera.kill()
        return gone

    def check_store(self, gone):
        stored = Stored(self.store)
        ids = stored.ids()
        new = [custom_id for custom_id in ids if custom_id not in self.confirmed]
        if gone:
            self.assertEqual(new, [], "a deleted preset is back")
            if not set(gone) & set(ids):
                self.forget(gone)
                self.outcomes["done"] += 1
            else:
                self.assertLessEqual(set(gone), set(ids), "a deletion was half done")
                self.outcomes["undone"] += 1
        else:
            self.assertLessEqual(len(new), 1)
            for custom_id in new:
                self.assertEqual(ids[-1], custom_id)
                self.remember(custom_id, self.made)
            self.outcomes["done" if new else "undone"] += 1
        self.assertEqual(ids, self.order)
        for number, record in enumerate(stored.records):
            custom_id = get(record, "custom_id")
            self.assertEqual(get(record, "preset_num"), number)
            self.assertEqual(get(record, "title"), get(self.record(self.confirmed[custom_id]), "title"))
            self.assertEqual(stored_picture(self.store, custom_id), self.image(self.confirmed[custom_id]))

    def check_no_orphans(self):
        self.assertEqual(pictures_of(self.store), sorted(f"{custom_id}.jpg" for custom_id in self.order))

    def test_stores_and_deletes_survive_kill_9(self):
        operations = 0
        while operations < OPERATIONS:
            camera = self.camera("--empty")
            if operations:
                self.check_no_orphans()
            with camera.link() as link:
                for _ in range(self.dice.randint(0, 6)):
                    self.confirmed_operation(link)
                    operations += 1
                gone = self.killed_operation(camera, link)
                operations += 1
            with self.subTest(operations=operations):
                self.check_store(gone)
        with self.camera("--empty"):
            self.check_no_orphans()
        # Kills that always came too early or too late would prove nothing.
        self.assertGreater(self.outcomes["done"], 2, self.outcomes)
        self.assertGreater(self.outcomes["undone"], 2, self.outcomes)

    def test_a_kill_during_the_first_start_costs_no_samples(self):
        for delay in (0.02, 0.3, 1.0):
            self.store = os.path.join(self.folder, f"killed after {delay}")
            process = subprocess.Popen(
                [CAMERA, "--store", self.store],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                env=environment_of_programs(),
            )  # fmt: skip
            time.sleep(delay)
            process.kill()
            process.wait()
            with self.subTest(delay=delay), self.camera() as camera:
                records = records_in(camera.ask(request(LIST)))
                self.assertEqual(pictures_of(self.store), sorted(f"{get(r, 'custom_id')}.jpg" for r in records))
                self.assertEqual(len(records), 12)


class FullDisk(DeskTest):
    SIZE = 4 << 20

    def setUp(self):
        super().setUp()
        if os.geteuid() != 0:
            self.skipTest("only root can mount a small file system")
        self.disk = os.path.join(self.folder, "disk")
        os.mkdir(self.disk)
        mounted = subprocess.run(
            ["mount", "-t", "tmpfs", "-o", f"size={self.SIZE}", "tmpfs", self.disk], capture_output=True
        )
        if mounted.returncode != 0:
            self.skipTest(f"no file system can be mounted here: {mounted.stderr.decode().strip()}")
        self.addCleanup(subprocess.run, ["umount", "-l", self.disk], check=True)
        self.store = os.path.join(self.disk, "store")

    def fill(self, left):
        """A file that takes all space but some bytes."""
        space = os.statvfs(self.disk)
        size = max(0, space.f_bavail * space.f_frsize - left)
        path = os.path.join(self.disk, "filler")
        with open(path, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, max(1, size))
        return path

    def test_storing_on_a_full_disk_fails_and_loses_nothing(self):
        camera = self.camera("--empty")
        images = {}
        with camera.link() as link:
            for number in range(3):
                image = picture(number, 100000)
                result, _, custom_id, _ = store_result(link.ask(store_request(phone_record(b"Kept"), image)))
                self.assertEqual(result, 1)
                images[custom_id] = image
            for left in (0, 4096, 20000, 60000):
                filler = self.fill(left)
                with self.subTest(left=left):
                    answer = link.ask(store_request(phone_record(b"Too much"), picture(9, 100000)))
                    self.assertEqual(store_result(answer)[0], -1)
                    listed = records_in(link.ask(request(LIST)))
                    self.assertEqual([get(record, "custom_id") for record in listed], list(images))
                os.remove(filler)
            image = picture(10, 100000)
            result, _, custom_id, _ = store_result(link.ask(store_request(phone_record(b"Fits again"), image)))
            self.assertEqual(result, 1)
            images[custom_id] = image
        camera.stop()
        stored = Stored(self.store)
        self.assertEqual(stored.ids(), list(images))
        self.assertEqual(pictures_of(self.store), sorted(f"{custom_id}.jpg" for custom_id in images))
        for custom_id, image in images.items():
            self.assertEqual(stored_picture(self.store, custom_id), image)

    def test_storing_until_the_disk_is_full_keeps_what_was_confirmed(self):
        camera = self.camera("--empty")
        confirmed = {}
        with camera.link() as link:
            for number in range(20):
                image = picture(number, 300000)
                data = store_request(phone_record(b"One more"), image)
                result, _, custom_id, _ = store_result(link.ask(data))
                if result != 1:
                    break
                confirmed[custom_id] = image
        self.assertEqual(result, -1)
        self.assertGreater(len(confirmed), 5)
        camera.kill()
        self.assertEqual(Stored(self.store).ids(), list(confirmed))
        for custom_id, image in confirmed.items():
            self.assertEqual(stored_picture(self.store, custom_id), image)

    def test_a_store_on_a_full_disk_still_opens(self):
        with self.camera("--empty") as camera:
            self.assertEqual(store_result(camera.ask(store_request(phone_record(), picture(1))))[0], 1)
        self.fill(0)
        with self.camera() as camera:
            self.assertEqual(len(camera.presets()), 1)


if __name__ == "__main__":
    unittest.main()
