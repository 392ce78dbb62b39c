"""Ten thousand requests with late and lost confirmations leave memory and descriptors as they were."""

import os
import random
import shutil
import struct
import tempfile
import time
import unittest

from desk import (
    DELETE, LIST, PICTURE, REPLY, STATE_OFF, STATE_ON, STORE, UPDATE, DeskTest, delete_request, get,
    phone_record,
    picture, picture_request, records_in, request, store_request, update_request,
)  # fmt: skip

REQUESTS = 10000
# The library sets ten replies aside that wait for their confirmation, and gives up for good what comes on
# top. One phone therefore stays for so few requests, and pauses for so long, that late and lost confirmations are
# never more.
REQUESTS_OF_A_PHONE = 35
PAUSE = 0.0012  # seconds; a confirmation is late by 0.001
WARM_UP = 2000
MARGIN = 512  # KiB of memory that the end may have on top of the end of the warm-up


class Soak(DeskTest):
    def setUp(self):
        super().setUp()
        # What is measured is memory, not the disk.
        if os.access("/dev/shm", os.W_OK):
            folder = tempfile.mkdtemp(prefix="desk-", dir="/dev/shm")
            self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
            self.store = os.path.join(folder, "store")
        self.dice = random.Random(7)
        self.count = 0
        self.answered = {}

    def memory(self, camera):
        with open(f"/proc/{camera.pid}/status") as status:
            line = next(line for line in status if line.startswith("VmRSS:"))
        return int(line.split()[1])

    def descriptors(self, camera):
        with camera.link():  # the last phone's descriptor is closed by then
            return len(os.listdir(f"/proc/{camera.pid}/fd"))

    def next_request(self, presets):
        """A request and the function number of its reply, or 0 when it gets none. `presets` are the
        custom_ids in the order of the list."""
        self.count += 1
        kind = self.dice.choices(
            (LIST, PICTURE, STORE, UPDATE, DELETE, STATE_ON, STATE_OFF, 200), (30, 30, 8, 15, 8, 4, 3, 2)
        )[0]
        if kind == STORE and len(presets) > 30:
            kind = DELETE
        if kind in (PICTURE, UPDATE, DELETE) and len(presets) < 3:
            kind = STORE
        number = self.dice.randrange(max(1, len(presets)))
        data = {
            LIST: lambda: request(LIST),
            PICTURE: lambda: picture_request(presets[number]),
            STORE: lambda: store_request(phone_record(b"Soak %d" % self.count), picture(self.count)),
            UPDATE: lambda: update_request(presets[number], self.count, b"Renamed %d" % self.count),
            DELETE: lambda: delete_request((number, presets[number])),
            STATE_ON: lambda: request(STATE_ON),
            STATE_OFF: lambda: request(STATE_OFF, struct.pack("<i", 1)),
            200: lambda: request(200, b"nobody knows"),
        }[kind]()
        return data, REPLY + kind if LIST <= kind <= DELETE else 0

    def one_phone(self, camera, presets, requests):
        with camera.link() as link:
            for _ in range(requests):
                data, expected = self.next_request(presets)
                link.send(data)
                if not expected:
                    continue
                answer = link.receive()
                time.sleep(PAUSE)
                self.assertEqual(struct.unpack_from("<i", answer)[0], expected)
                self.answered[expected] = self.answered.get(expected, 0) + 1
                if expected == REPLY + STORE:
                    result, number, custom_id = struct.unpack_from("<iii", answer, 8)
                    self.assertEqual((result, number), (1, len(presets)))
                    presets.append(custom_id)
                if expected == REPLY + DELETE:
                    self.assertEqual(struct.unpack_from("<i", answer, 8)[0], 1)
                    presets[:] = [get(record, "custom_id") for record in records_in(answer, head=20)]

    def many_phones(self, camera, presets, until):
        while self.count < until:
            self.one_phone(camera, presets, min(REQUESTS_OF_A_PHONE, until - self.count))

    def soak(self, *options):
        """Ten thousand requests. Returns by how much memory grew after the warm-up, in KiB."""
        camera = self.camera("--empty", "--log-level", "off", *options)
        presets = []
        self.many_phones(camera, presets, WARM_UP)
        memory, descriptors = self.memory(camera), self.descriptors(camera)
        self.many_phones(camera, presets, REQUESTS)
        grown = self.memory(camera) - memory
        print(f"{options}: {sum(self.answered.values())} answers, {memory} KiB of memory, then {grown:+} KiB")
        self.assertGreater(min(self.answered.values()), 500)
        self.assertEqual(self.descriptors(camera), descriptors)
        camera.kill()
        return grown

    def test_memory_and_descriptors_stay_flat_with_late_confirmations(self):
        self.assertLessEqual(self.soak("--confirm-delay", 1), MARGIN)

    def test_memory_and_descriptors_stay_flat_with_late_and_lost_confirmations(self):
        self.assertLessEqual(self.soak("--confirm-delay", 1, "--drop-confirmations", 7), MARGIN)


if __name__ == "__main__":
    unittest.main()
