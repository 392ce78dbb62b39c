"""Captured conversations: sent again by the phone, played by the camera, and compared."""

import os
import random
import select
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

from desk import (
    BUSY_FRAME, CAMERA, CAMERA_RECORD, DELETE, LIST, PATIENCE, PHONE, PICTURE, REPLY, STATE_OFF, STATE_ON, STORE, UPDATE,
    Camera, Closed, DeskTest, FakeCamera, Link, changed, delete_reply, delete_request, environment_of_programs, get,
    list_reply, phone_record, picture, picture_request, records_in, request, rich_record, run_camera, run_phone,
    store_request, store_result, update_request,
)  # fmt: skip

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import captures  # noqa: E402

DIFFERS = 35


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
            self._packet(captures.CAMERA, packet)

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


class SentAgain(ReplayTest):
    def test_the_same_camera_says_the_same(self):
        self.samples()
        with self.camera() as camera:
            capture = self.capture(everything(camera.url, picture(1, 5000)))
        # ids go on where they were: the second preset that is stored is another one, and is taken for the first
        with self.camera() as camera:
            done = self.replay(camera.url, capture)
        self.assertEqual(done.stdout, b"")
        self.assertIn(b"8 requests sent, 6 replies compared: no difference", done.stderr)


if __name__ == "__main__":
    unittest.main()
