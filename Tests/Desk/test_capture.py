"""What --capture writes: btsnoop files of the camera's and the phone's side, whatever becomes of the file."""

import contextlib
import fcntl
import json
import os
import pathlib
import resource
import select
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

from desk import (
    BUSY_FRAME, DELETE, LIST, PATIENCE, PHONE, Camera, Closed, DeskTest, FakeCamera, Link, environment_of_programs,
    list_reply, phone_record, picture, picture_request, record_to_json, request, run_camera, run_phone, store_request,
)  # fmt: skip

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parent.parent))

import captures  # noqa: E402

RECEIVED, EVENT = 1, 2
HEADER = b"btsnoop\0" + struct.pack(">II", 1, 1002)
EPOCH = 0x00DCDDB30F2F8000  # 1970, in microseconds since the year 0
CHANNEL_TO_CAMERA, CHANNEL_TO_PHONE = 0x41, 0x40
LONGEST_ACL, LONGEST_L2CAP, LONGEST_RFCOMM = 1021, 65531, 32767
CONNECTED, DISCONNECTED = b"\x04\x03", b"\x04\x05"
LOST, PEER, HOST = 0x08, 0x13, 0x16  # reasons of a disconnection
LARGE_PICTURE = 214811  # the sample with id 2
NOTHING_TO_DELETE = request(DELETE)  # refused with a short reply


class Cut(Exception):
    """The file ends within a record."""


def records_in(data):
    """The records of a file as tuples of flags, time and packet."""
    if data[:16] != HEADER:
        raise AssertionError(f"a capture begins with {data[:16].hex()}")
    records, position = [], 16
    while position < len(data):
        if position + 24 > len(data):
            raise Cut(f"{len(data) - position} bytes of a record's head")
        original, included, flags, drops, moment = struct.unpack_from(">IIIIQ", data, position)
        packet = data[position + 24 : position + 24 + included]
        if len(packet) < included:
            raise Cut(f"{len(packet)} of {included} bytes of a packet")
        if (original, drops) != (included, 0):
            raise AssertionError(f"a record of {original} bytes with {drops} drops")
        records.append((flags, moment - EPOCH, packet))
        position += 24 + included
    return records


def read(path):
    with open(path, "rb") as file:
        return file.read()


def packets_in(path):
    return [(flags, packet) for flags, _, packet in records_in(read(path))]


def acl_in(path):
    """The whole packets of L2CAP, as tuples of handle, whether they were received, channel and payload. The last one of
    a capture that has ended early may be there in part."""
    found, begun = [], {}
    for flags, packet in packets_in(path):
        if packet[0] != 2:
            continue
        handle, size = struct.unpack_from("<HH", packet, 1)
        assert size == len(packet) - 5 <= LONGEST_ACL, packet[:9].hex()
        key = handle & 0xFFF, flags == RECEIVED
        assert handle & 0x3000 == (0x1000 if key in begun else 0x2000), packet[:9].hex()
        whole = begun.pop(key, b"") + packet[5:]
        length, channel = struct.unpack_from("<HH", whole)
        if len(whole) < length + 4:
            assert size == LONGEST_ACL
            begun[key] = whole
        else:
            assert len(whole) == length + 4
            found.append((*key, channel, whole[4:]))
    return found


def rfcomm_data(frame):
    """The bytes that a data frame carries; nothing of other frames."""
    if frame[1] != 0xEF:
        return b""
    size, head = (frame[2] >> 1, 3) if frame[2] & 1 else (struct.unpack_from("<H", frame, 2)[0] >> 1, 4)
    assert len(frame) == head + size + 1
    return frame[head:-1]


def carried(path, to_phone, handle=1, is_stream=False):
    """The pieces that one side has sent on a connection."""
    channel = CHANNEL_TO_PHONE if to_phone else CHANNEL_TO_CAMERA
    pieces = [data for number, _, into, data in acl_in(path) if (number, into) == (handle, channel)]
    return [data for data in map(rfcomm_data, pieces) if data] if is_stream else pieces


def connections_in(path):
    return [struct.unpack_from("<H", packet, 4)[0] for _, packet in packets_in(path) if packet[:2] == CONNECTED]


def reasons_in(path):
    """How each connection has ended, by its handle."""
    ends = [packet for _, packet in packets_in(path) if packet[:2] == DISCONNECTED]
    return {struct.unpack_from("<H", packet, 4)[0]: packet[6] for packet in ends}


def wait_for(condition, what, patience=PATIENCE):
    end = time.monotonic() + patience
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come")
        time.sleep(0.01)


class CaptureTest(DeskTest):
    def setUp(self):
        super().setUp()
        self.capture = os.path.join(self.folder, "capture")

    def capturing(self, *options, **more):
        return self.camera("--capture", self.capture, *options, **more)

    def phone_with_capture(self, url, *arguments, path=None, **more):
        return run_phone(url, "--capture", path or self.capture, *arguments, **more)


def in_bytes(lines):
    return [(flags, bytes.fromhex(text)) for flags, text in lines]


# How a phone's channel of L2CAP comes about, as the camera's adapter sees it.
L2CAP_BEGIN = [
    (3, "04 03 0b 00 0100 010000000002 01 00"),
    (1, "02 0120 0c00 0800 0100 02 01 0400 0110 4000"),
    (0, "02 0120 1000 0c00 0100 03 01 0800 4100 4000 0000 0000"),
    (1, "02 0120 1000 0c00 0100 04 02 0800 4100 0000 01 02 fbff"),
    (0, "02 0120 0e00 0a00 0100 05 02 0600 4000 0000 0000"),
    (0, "02 0120 1000 0c00 0100 04 03 0800 4000 0000 01 02 fbff"),
    (1, "02 0120 0e00 0a00 0100 05 03 0600 4100 0000 0000"),
]
# And how the phone closes it.
L2CAP_END = [
    (1, "02 0120 0c00 0800 0100 06 04 0400 4100 4000"),
    (0, "02 0120 0c00 0800 0100 07 04 0400 4100 4000"),
    (3, "04 05 04 00 0100 13"),
]
REQUEST, REFUSAL = "05000000 08000000", "05100000 14000000 feffffff 01000000 00000000"


class Records(CaptureTest):
    maxDiff = None

    def conversation(self, kind):
        with self.capturing("--empty", kind=kind) as camera, camera.link() as phone:
            self.assertEqual(phone.ask(bytes.fromhex(REQUEST)), bytes.fromhex(REFUSAL))
            phone.close()
            wait_for(lambda: DISCONNECTED in read(self.capture), "the end of the link")
        return packets_in(self.capture)

    def test_of_a_camera_on_a_unix_socket_are_those_of_a_channel_of_l2cap(self):
        expected = L2CAP_BEGIN + [
            (1, "02 0120 0c00 0800 4100" + REQUEST),
            (0, "02 0120 1800 1400 4000" + REFUSAL),
        ]
        self.assertEqual(self.conversation("unix"), in_bytes(expected + L2CAP_END))

    def test_of_a_camera_on_tcp_are_those_of_a_channel_of_rfcomm(self):
        begin = list(L2CAP_BEGIN)
        begin[1] = (1, "02 0120 0c00 0800 0100 02 01 0400 0300 4000")
        expected = [
            *begin,
            (1, "02 0120 0800 0400 4100 03 3f 01 1c"),
            (0, "02 0120 0800 0400 4000 03 73 01 d7"),
            (1, "02 0120 0800 0400 4100 b3 3f 01 95"),
            (0, "02 0120 0800 0400 4000 b3 73 01 5e"),
            (1, "02 0120 1000 0c00 4100 b3 ef 11" + REQUEST + "e7"),
            (0, "02 0120 1c00 1800 4000 b1 ef 29" + REFUSAL + "3d"),
            (1, "02 0120 0800 0400 4100 b3 53 01 74"),
            (0, "02 0120 0800 0400 4000 b3 73 01 5e"),
            (1, "02 0120 0800 0400 4100 03 53 01 fd"),
            (0, "02 0120 0800 0400 4000 03 73 01 d7"),
            *L2CAP_END,
        ]
        self.assertEqual(self.conversation("tcp"), in_bytes(expected))

    def test_of_a_phone_have_as_sent_what_the_cameras_have_as_received(self):
        with self.camera("--empty") as camera:
            self.assertEnds(self.phone_with_capture(camera.url, "leave", "--code", 7), 0)
        expected = L2CAP_BEGIN + [(1, "02 0120 1000 0c00 4100 00000000 0c000000 07000000")] + L2CAP_END
        of_phone = [(flags if flags & EVENT else flags ^ RECEIVED, packet) for flags, packet in in_bytes(expected)]
        of_phone[0] = (3, bytes.fromhex("04 03 0b 00 0100 020000000002 01 00"))
        of_phone[-1] = (3, bytes.fromhex("04 05 04 00 0100 16"))
        self.assertEqual(packets_in(self.capture), of_phone)

    def test_have_the_time_at_which_they_were_written(self):
        before = time.time_ns() // 1000
        with self.capturing("--empty") as camera:
            camera.ask(NOTHING_TO_DELETE)
        after = time.time_ns() // 1000
        times = [moment for _, moment, _ in records_in(read(self.capture))]
        self.assertEqual(times, sorted(times))
        self.assertLessEqual(before, times[0])
        self.assertLessEqual(times[-1], after)

    def test_of_a_phone_that_is_turned_away_are_a_connection_of_their_own(self):
        with self.capturing("--empty") as camera, camera.link() as first:
            first.ask(NOTHING_TO_DELETE)
            with Link(camera.url) as second:
                self.assertEqual(second.receive(), BUSY_FRAME)
                second.send(NOTHING_TO_DELETE)
                wait_for(lambda: carried(self.capture, False, handle=2), "what the second phone sends")
            first.ask(NOTHING_TO_DELETE)
        self.assertEqual(connections_in(self.capture), [1, 2])
        self.assertEqual(carried(self.capture, True, handle=2), [BUSY_FRAME])
        self.assertEqual(carried(self.capture, False, handle=2), [NOTHING_TO_DELETE])
        self.assertEqual(carried(self.capture, True), [bytes.fromhex(REFUSAL)] * 2)

    def test_end_a_connection_with_who_has_ended_it(self):
        with self.capturing("--empty") as camera:
            camera.link().close()  # 1: the phone leaves
            wait_for(lambda: reasons_in(self.capture), "the end of the first link")
            first = camera.link()
            with contextlib.closing(Link(camera.url)) as second:  # 3: is turned away
                self.assertEqual(second.receive(), BUSY_FRAME)
            wait_for(lambda: 3 in reasons_in(self.capture), "the end of the third link")
        first.close()  # 2: the camera ended first
        self.assertEqual(reasons_in(self.capture), {1: PEER, 2: HOST, 3: HOST})

    def test_of_a_phone_that_goes_without_reading_its_reply_end_as_it_left(self):
        self.samples()
        with self.capturing() as camera:
            with camera.link() as phone:
                phone.send(request(LIST))
                wait_for(lambda: carried(self.capture, True), "the reply")
            wait_for(lambda: reasons_in(self.capture), "the end of the link")
        self.assertEqual(reasons_in(self.capture), {1: PEER})

    def test_of_a_link_that_is_pulled_end_without_a_word_of_either_side(self):
        script = self.file("script", "at 0s pull reply 1000\n")
        self.samples()
        with self.capturing("--mtu", 600, "--script", script) as camera, camera.link() as phone:
            with self.assertRaises(Closed):
                phone.ask(request(LIST))
        self.assertEqual(reasons_in(self.capture), {1: LOST})
        self.assertEqual([len(data) for data in carried(self.capture, True)], [600, 400])
        signals = [data[0] for _, _, channel, data in acl_in(self.capture) if channel == 1]
        self.assertEqual(signals, [2, 3, 4, 5, 4, 5])  # opened and configured, and no disconnection

    def test_of_a_slowed_link_are_spread_over_its_time(self):
        self.samples()
        script = self.file("script", "at 0s link-rate 20000\n")
        with self.capturing("--mtu", 2000, "--script", script) as camera, camera.link() as phone:
            phone.ask(request(LIST))
        begins = [(moment, packet) for _, moment, packet in records_in(read(self.capture)) if packet[2] & 0x30 == 0x20]
        moments = [moment for moment, packet in begins if len(packet) > 900]
        self.assertEqual(len(moments), 5)  # 8956 bytes in packets of 2000, of which each takes 0.1 s
        self.assertGreater(moments[-1] - moments[0], 300_000)

    def test_of_a_camera_that_closes_first_say_so_on_the_phones_side(self):
        with FakeCamera(self.folder, lambda *_: FakeCamera.CLOSE) as camera:
            self.assertEnds(self.phone_with_capture(camera.url, "list"), 6)
        self.assertEqual(reasons_in(self.capture), {1: PEER})

    def test_keep_a_packet_without_bytes(self):
        with self.capturing("--empty") as camera, camera.link() as phone:
            phone.socket.send(b"")
            phone.ask(NOTHING_TO_DELETE)
        self.assertEqual(carried(self.capture, False), [b"", NOTHING_TO_DELETE])


class LargePackets(CaptureTest):
    """What has no room in a record's packet is cut."""

    def sizes(self, kind, data):
        with self.capturing("--empty", kind=kind) as camera, camera.link() as phone:
            phone.send(data)
            phone.receive()
        return [len(piece) for piece in carried(self.capture, False, is_stream=kind == "tcp")]

    def test_of_l2cap_are_cut_where_an_acl_packet_ends(self):
        data = store_request(phone_record(), picture(1, 100_000))  # 100752 bytes in one packet
        self.assertEqual(self.sizes("unix", data), [LONGEST_L2CAP, 100_752 - LONGEST_L2CAP])
        self.assertEqual(b"".join(carried(self.capture, False)), data)

    def test_that_just_fit_are_whole(self):
        data = store_request(phone_record(), picture(1, LONGEST_L2CAP - 752))
        self.assertEqual(self.sizes("unix", data), [LONGEST_L2CAP])

    def test_of_a_stream_are_frames_of_rfcomm(self):
        data = store_request(phone_record(), picture(1, 500_000))
        sizes = self.sizes("tcp", data)
        self.assertLessEqual(max(sizes), LONGEST_RFCOMM)
        self.assertEqual(b"".join(carried(self.capture, False, is_stream=True)), data)

    def test_of_127_and_128_bytes_differ_in_the_size_of_their_length(self):
        with self.capturing("--empty", kind="tcp") as camera, camera.link() as phone:
            for size in (127, 128):  # of a request that there is not: all of it is thrown away
                phone.send(request(6, bytes(size - 8)))
                data = request(6, bytes(size - 8))
                wait_for(lambda data=data: carried(self.capture, False, is_stream=True)[-1:] == [data], "the request")
        frames = [data for _, _, _, data in acl_in(self.capture) if data[1:2] == b"\xef"]
        self.assertEqual([frame[2:4].hex() for frame in frames], ["ff06", "0001"])


class SeveralLinks(CaptureTest):
    def test_of_a_copy_are_in_the_one_file(self):
        self.samples()
        other = os.path.join(self.folder, "other")
        with self.camera() as camera, Camera(other, "--empty") as target:
            self.assertEnds(self.phone_with_capture(camera.url, "copy", 1, "--to", target.url), 0)
        self.assertEqual(connections_in(self.capture), [1, 2])
        self.assertEqual(reasons_in(self.capture), {1: HOST, 2: HOST})
        stored = b"".join(carried(self.capture, False, handle=2))
        fetched = b"".join(carried(self.capture, True, handle=1))
        image = fetched[-LARGE_PICTURE:]
        self.assertIn(image, stored)

    def both_sides(self, *arguments, code=0):
        """The files of the camera and of the phone, which has ended so."""
        of_phone = os.path.join(self.folder, "of_phone")
        with self.capturing() as camera:
            self.assertEnds(self.phone_with_capture(camera.url, *arguments, path=of_phone, timeout=120), code)
            wait_for(lambda: len(reasons_in(self.capture)) == len(connections_in(of_phone)), "the end of all links")
        return self.capture, of_phone

    def test_of_a_backup_hold_the_same_on_both_sides(self):
        self.samples()
        files = self.both_sides("backup", os.path.join(self.folder, "backup"))
        self.assertEqual([connections_in(path) for path in files], [[1], [1]])
        for to_phone in (False, True):
            of_camera, of_phone = (b"".join(carried(path, to_phone)) for path in files)
            self.assertGreater(len(of_camera), 13 * 8)
            self.assertEqual(of_camera, of_phone)

    def test_of_a_check_are_as_many_as_the_camera_has_seen(self):
        files = self.both_sides("--timeout", 2, "check", "--quick")
        of_camera, of_phone = map(connections_in, files)
        self.assertGreater(len(of_phone), 3)
        self.assertEqual(of_phone, list(range(1, len(of_phone) + 1)))
        self.assertEqual(of_camera, of_phone)
        for handle in of_phone:
            taken, sent = (b"".join(carried(path, False, handle)) for path in files)
            self.assertTrue(sent.startswith(taken), "the camera has what the phone sent, but for what it did not read")
            given, read_of_it = (b"".join(carried(path, True, handle)) for path in files)
            self.assertTrue(given.startswith(read_of_it), "and the phone what the camera sent, as far as it read on")


class File:
    """A capture as `captures.show` takes it."""

    def __init__(self, path):
        self.content = read(path)

    def bytes(self):
        return self.content


class ReadByTshark(CaptureTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if not captures.is_there():
            raise unittest.SkipTest("tshark is missing: install the Debian package tshark to read captures with it")

    def shown(self, path=None):
        seen = captures.show(File(path or self.capture))
        self.assertEqual(seen.exit_code, 0, seen.errors)
        names = [node.get("name") for packet in seen.frames for node in packet.iter()]
        self.assertGreater(len(seen.frames), 7)
        self.assertEqual([name for name in names if "malformed" in (name or "")], [])
        return seen

    def all_values(self, seen, name):
        return [value for frame in range(1, len(seen.frames) + 1) for value in seen.values(frame, name)]

    def functions(self, seen):
        return [int(value) for value in self.all_values(seen, "function")]

    def conversation(self, kind):
        of_phone = os.path.join(self.folder, "of_phone")
        record = self.file("dawn.json", json.dumps(record_to_json(phone_record(b"Dawn", iso=9))))
        image = self.file("dawn.jpg", picture(1, 90_000))
        with self.capturing("--empty", kind=kind) as camera:
            for arguments in (
                ("store", record, image, "--unchecked"),
                ("list",),
                ("picture", 0, "-o", os.path.join(self.folder, "x")),
            ):
                self.assertEnds(run_phone(camera.url, *arguments), 0)
            self.assertEnds(self.phone_with_capture(camera.url, "delete", 0, path=of_phone), 0)
        return of_phone

    def test_a_conversation_has_its_messages_and_their_fields(self):
        for kind in ("unix", "tcp"):
            with self.subTest(kind=kind):
                self.store = os.path.join(self.folder, kind)
                of_phone = self.conversation(kind)
                seen = self.shown()
                self.assertEqual(
                    [number for number in self.functions(seen) if number != 255],
                    [3, 0x1003, 1, 0x1001, 1, 0x1001, 2, 0x1002, 1, 0x1001, 5, 0x1005],
                )
                self.assertEqual(self.all_values(seen, "record.title"), ["Dawn"] * 4)
                self.assertEqual(self.all_values(seen, "record.iso")[0], "9")
                self.assertEqual(self.all_values(seen, "result"), ["1", "1"])
                images = self.all_values(seen, "picture")
                self.assertEqual([len(text.replace(":", "")) // 2 for text in images], [90_000] * 2)
                self.assertEqual(self.functions(self.shown(of_phone))[-2:], [5, 0x1005])
                os.remove(self.capture)

    def test_a_phone_that_is_turned_away_is_told_that_the_camera_is_busy(self):
        with self.capturing("--empty") as camera, camera.link() as first:
            first.ask(request(LIST))
            done = run_phone(camera.url, "list", wait_for_turn=False)
            self.assertEnds(done, 5)
        seen = self.shown()
        self.assertIn(0x10FF, self.functions(seen))
        remarks = [remark for frame in range(1, len(seen.frames) + 1) for remark in seen.remarks(frame)]
        self.assertIn("refused", remarks)
        self.assertNotIn("cut", remarks)


class Reader(threading.Thread):
    """Reads a pipe to its end."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.path, self.data = path, b""
        self.is_open = threading.Event()
        self.start()

    def run(self):
        descriptor = os.open(self.path, os.O_RDONLY | os.O_NONBLOCK)
        self.is_open.set()
        with os.fdopen(descriptor, "rb", buffering=0) as pipe:
            begun = False
            while True:
                select.select([pipe], [], [], PATIENCE)
                piece = pipe.read(1 << 20)
                begun = begun or bool(piece)
                if piece == b"" and begun:
                    return
                self.data += piece or b""
                time.sleep(0.001)


class FilesThatAreWatched(CaptureTest):
    def test_hold_each_packet_as_soon_as_it_has_crossed_the_link(self):
        with self.capturing("--empty") as camera, camera.link() as phone:
            self.assertEqual(connections_in(self.capture), [1])
            for count in range(1, 4):
                phone.ask(NOTHING_TO_DELETE)
                wait_for(lambda count=count: len(carried(self.capture, True)) == count, "the reply")

    def test_are_captures_from_the_start(self):
        with self.capturing("--empty"):
            self.assertEqual(read(self.capture), HEADER)

    def test_may_be_pipes(self):
        self.samples()
        os.mkfifo(self.capture)
        reader = Reader(self.capture)
        reader.is_open.wait(PATIENCE)
        with self.capturing() as camera, camera.link() as phone:
            answer = phone.ask(picture_request(2))
        reader.join(PATIENCE)
        copy = self.file("copy", reader.data)
        self.assertEqual(b"".join(carried(copy, True)), answer)
        self.assertIn(1, reasons_in(copy))

    def test_are_readable_when_the_camera_is_killed_in_the_middle_of_a_picture(self):
        self.samples()
        script = self.file("script", "at 0s link-rate 100000\n")
        camera = self.capturing("--mtu", 3000, "--script", script)
        with camera.link() as phone:
            phone.send(picture_request(2))
            wait_for(lambda: os.stat(self.capture).st_size > 60_000, "a part of the picture")
            camera.kill()
        pieces = carried(self.capture, True)
        self.assertEqual({len(piece) for piece in pieces}, {3000})
        self.assertTrue(20 <= len(pieces) < LARGE_PICTURE // 3000, len(pieces))
        self.assertEqual(reasons_in(self.capture), {})


class FilesThatTakeNoMore(CaptureTest):
    """The capture ends with one line, and everything else goes on."""

    def lines_of_end(self, talk):
        return [line for line in talk.splitlines() if "the capture" in line]

    def assertEnded(self, talk, program, why, path=None):
        path = path or self.capture
        self.assertEqual(self.lines_of_end(talk), [f"{program}: the capture {path} ends here: {why}"])

    def test_on_a_full_disk_end_with_a_whole_record(self):
        self.samples()
        with self.capturing() as camera, camera.link() as phone:
            resource.prlimit(camera.pid, resource.RLIMIT_FSIZE, (20_000, resource.RLIM_INFINITY))
            answers = [phone.ask(request(LIST)) for _ in range(4)]  # of 8956 bytes
            self.assertEqual(len(set(answers)), 1)
            resource.prlimit(camera.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
            phone.ask(request(LIST))
            self.assertEnded(camera.talk(), "shotmentor-camera", "File too large")
        self.assertEqual(carried(self.capture, True), answers[:2])
        self.assertEqual(carried(self.capture, False), [request(LIST)] * 3)

    def test_of_a_phone_leave_its_answer_unharmed(self):
        self.samples()
        with self.camera() as camera:
            plain = run_phone(camera.url, "list")
            done = subprocess.run(
                [PHONE, "--connect", camera.url, "--capture", self.capture, "list"],
                capture_output=True, env=environment_of_programs(), timeout=30,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (5000, 5000)),
            )  # fmt: skip
        self.assertEqual((done.returncode, done.stdout), (0, plain.stdout))
        self.assertEnded(done.stderr.decode(), "shotmentor-phone", "File too large")
        self.assertEqual(carried(self.capture, False), [request(LIST)])
        self.assertEqual(carried(self.capture, True), [])

    def test_from_the_start_are_told_of(self):
        with self.camera("--empty", "--capture", "/dev/full") as camera:
            camera.ask(NOTHING_TO_DELETE)
            self.assertEnded(camera.talk(), "shotmentor-camera", "No space left on device", "/dev/full")
            done = self.phone_with_capture(camera.url, "list", path="/dev/full")
        self.assertEnds(done, 0)
        self.assertEnded(done.stderr.decode(), "shotmentor-phone", "No space left on device", "/dev/full")

    def test_are_told_of_as_json_where_that_is_asked_for(self):
        with self.camera("--empty", "--json", "--capture", "/dev/full") as camera:
            camera.ask(NOTHING_TO_DELETE)
            told = [json.loads(line) for line in camera.talk().splitlines()]
        line = "the capture /dev/full ends here: No space left on device"
        found = [entries for entries in told if entries["kind"] == "failure"]
        self.assertEqual([(entries["reason"], entries["message"]) for entries in found], [(line, line)])

    def test_are_pipes_whose_reader_has_gone(self):
        os.mkfifo(self.capture)
        reader = os.open(self.capture, os.O_RDONLY | os.O_NONBLOCK)
        with self.capturing("--empty") as camera, camera.link() as phone:
            phone.ask(NOTHING_TO_DELETE)
            os.close(reader)
            for _ in range(3):
                phone.ask(NOTHING_TO_DELETE)
            self.assertEnded(camera.talk(), "shotmentor-camera", "nobody reads it any more")

    def test_are_pipes_whose_reader_does_not_read(self):
        self.samples()
        os.mkfifo(self.capture)
        reader = os.open(self.capture, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        with self.capturing() as camera, camera.link() as phone:
            room = fcntl.fcntl(reader, fcntl.F_GETPIPE_SZ)
            for _ in range(room // LARGE_PICTURE + 2):
                self.assertEqual(len(phone.ask(picture_request(2))), LARGE_PICTURE + 12)
            self.assertEnded(camera.talk(), "shotmentor-camera", "its reader does not keep up")


class FilesThatAreThereAlready(CaptureTest):
    def refused(self, path, code, why):
        """Neither program begins with this file."""
        done = run_camera(self.store, "--capture", path)
        line = f"cannot write the capture {path}: {why}"
        self.assertEqual(
            (done.returncode, done.stdout, done.stderr.decode()), (code, b"", f"shotmentor-camera: {line}\n")
        )
        self.assertFalse(os.path.exists(self.store))
        with FakeCamera(self.folder, lambda *_: list_reply([])) as camera:
            done = self.phone_with_capture(camera.url, "list", path=path)
            self.assertEqual(
                (done.returncode, done.stdout, done.stderr.decode()), (code, b"", f"shotmentor-phone: {line}\n")
            )
            self.assertEqual(camera.requests, [])

    def test_and_hold_something_else_are_refused_and_untouched(self):
        why = "it is there and is no capture, and would be lost; give another name, or remove it"
        for content in (b"btsnoop", b"x", b"btsnooq\0" + bytes(30), b"\xd4\xc3\xb2\xa1" + bytes(20)):
            with self.subTest(content=content):
                path = self.file("letter", content)
                self.refused(path, 2, why)
                self.assertEqual(read(path), content)

    def test_and_are_empty_or_captures_are_replaced(self):
        for content in (b"", HEADER + bytes(100_000), b"btsnoop\0"):
            with self.subTest(content=content[:20]):
                self.file("capture", content)
                with self.capturing("--empty") as camera:
                    camera.ask(NOTHING_TO_DELETE)
                self.assertEqual(carried(self.capture, True), [bytes.fromhex(REFUSAL)])

    def test_that_are_links_to_a_capture_lead_there(self):
        target = self.file("target", HEADER)
        os.symlink(target, self.capture)
        with self.capturing("--empty") as camera:
            camera.ask(NOTHING_TO_DELETE)
        self.assertTrue(os.path.islink(self.capture))
        self.assertEqual(carried(target, True), [bytes.fromhex(REFUSAL)])

    def test_that_cannot_be_written_are_refused(self):
        self.refused(self.folder, 1, "it is a folder; give the name of a file")
        missing = os.path.join(self.folder, "missing", "capture")
        self.refused(missing, 1, "No such file or directory; see that its folder is there and may be written")
        fifo = os.path.join(self.folder, "fifo")
        os.mkfifo(fifo)
        self.refused(fifo, 1, "nobody reads this pipe; start its reader first")
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(os.path.join(self.folder, "socket"))
            self.refused(other.getsockname(), 1, "it is neither a file nor a pipe; give the name of a file")

    def test_that_are_no_name_or_standard_output_are_refused(self):
        line = "--capture writes to no standard output, which is for what is printed; give the name of a file or a pipe"
        done = run_camera(self.store, "--capture", "")
        message = "--capture names no file; give the name of a file or a pipe"
        self.assertEqual((done.returncode, done.stderr.decode()), (2, f"shotmentor-camera: {message}\n"))
        done = run_camera(self.store, "--capture", "-")
        self.assertEqual((done.returncode, done.stderr.decode()), (2, f"shotmentor-camera: {line}\n"))
        done = run_phone("unix:/nowhere", "--capture", "-", "list")
        self.assertEqual((done.returncode, done.stderr.decode()), (2, f"shotmentor-phone: {line}\n"))

    def test_that_another_program_writes_are_refused(self):
        with self.capturing("--empty") as camera:
            done = self.phone_with_capture(camera.url, "list")
            self.assertEqual(
                (done.returncode, done.stderr.decode()),
                (2, f"shotmentor-phone: cannot write the capture {self.capture}: another program writes it; "
                    "give another name\n"),
            )  # fmt: skip
            camera.ask(NOTHING_TO_DELETE)
        self.assertEqual(carried(self.capture, True), [bytes.fromhex(REFUSAL)])

    def test_outlive_a_program_that_does_not_come_to_capture(self):
        content = HEADER + struct.pack(">IIIIQ", 1, 1, 0, 0, EPOCH) + b"\4"
        self.file("capture", content)
        nowhere = os.path.join(self.folder, "nowhere.sock")
        self.assertEnds(self.phone_with_capture(f"unix:{nowhere}", "list"), 3)
        self.assertEnds(run_camera(self.store, "--capture", self.capture, "--listen", f"unix:{nowhere}/x"), 3)
        self.assertEqual(read(self.capture), content)

    def test_are_not_made_by_a_program_that_does_not_come_to_capture(self):
        self.assertEnds(self.phone_with_capture(f"unix:{self.folder}/nowhere.sock", "list"), 3)
        self.assertFalse(os.path.exists(self.capture))


if __name__ == "__main__":
    unittest.main()
