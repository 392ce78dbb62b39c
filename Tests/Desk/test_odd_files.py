"""Files that are no plain ones: pipes, devices, links, files without an end. A tool that reads or writes them
neither hangs nor fills the memory, and leaves nothing half done."""

import contextlib
import json
import os
import resource
import socket
import stat
import struct
import threading
import time
import unittest

from desk import (
    CAMERA_RECORD, LIST, PICTURE, REPLY, STORE, DeskTest, FakeCamera, list_reply, measure_phone, phone_record,
    picture, record_to_json, request, rich_record, run_camera,
)  # fmt: skip

PATIENCE_WITH_PIPES = 5  # seconds
AT_ONCE = 3  # seconds that a start may take on a busy machine
LITTLE_MEMORY = 100 << 20
LONGEST_PRESET = 1 << 20
LONGEST_PICTURE = 600000 - 8 - 744


class Reading(DeskTest):
    """`store` reads a preset and a picture."""

    def setUp(self):
        super().setUp()
        self.json = json.dumps(record_to_json(rich_record())).encode()
        self.preset = self.file("preset.json", self.json)
        self.image = self.file("picture.jpg", picture(1))

    def store_files(self, preset, image, **more):
        answer = request(REPLY + STORE, struct.pack("<iiii", 1, 2, 33, 0))
        with FakeCamera(self.folder, lambda *_: answer) as camera:
            done = measure_phone(camera.url, "store", "--unchecked", preset, image, **more)
        self.sent = b"".join(camera.requests)
        self.assertLess(done.peak, LITTLE_MEMORY)
        return done

    def assertStored(self, done, image=None):
        self.assertEnds(done, 0)
        self.assertEqual(self.sent, request(STORE, rich_record() + (image or picture(1))))

    def assertRefused(self, done, code, *parts):
        self.assertEnds(done, code)
        self.assertEqual(self.sent, b"")
        self.assertEqual(done.stderr.count(b"\n"), 1, done.stderr)
        for part in parts:
            self.assertIn(str(part).encode(), done.stderr)

    def each_role(self):
        """The two files that are read, with a function that stores with another one in its place."""
        yield "preset", lambda path, **more: self.store_files(path, self.image, **more)
        yield "picture", lambda path, **more: self.store_files(self.preset, path, **more)

    def fifo(self, name="fifo"):
        path = os.path.join(self.folder, name)
        with contextlib.suppress(FileExistsError):
            os.mkfifo(path)
        return path

    def written_later(self, *pieces, pause):
        """The reading end of a pipe into which a thread writes the pieces, a pause before each."""
        reading, writing = os.pipe()

        def write():
            for piece in pieces:
                time.sleep(pause)
                os.write(writing, piece)
            os.close(writing)

        threading.Thread(target=write, daemon=True).start()
        self.addCleanup(os.close, reading)
        return reading

    def test_a_file_without_end_is_refused(self):
        for role, store in self.each_role():
            with self.subTest(role=role):
                done = store("/dev/zero")
                limit = LONGEST_PRESET if role == "preset" else LONGEST_PICTURE
                self.assertRefused(done, 2, "/dev/zero", f"more than {limit} bytes")
                self.assertLess(done.seconds, AT_ONCE)

    def test_a_file_too_long_is_refused_unread(self):
        path = self.file("long", b"")
        for role, store in self.each_role():
            for size in ((LONGEST_PRESET if role == "preset" else LONGEST_PICTURE) + 1, 2 << 30):
                with self.subTest(role=role, size=size):
                    os.truncate(path, size)
                    done = store(path)
                    self.assertRefused(done, 2, path, size)
                    self.assertLess(done.seconds, AT_ONCE)

    def test_files_of_the_longest_sizes_are_taken(self):
        preset = self.file("longest.json", self.json.ljust(LONGEST_PRESET))
        image = picture(1, LONGEST_PICTURE)
        self.assertStored(self.store_files(preset, self.file("longest.jpg", image)), image)

    def test_a_pipe_that_nobody_writes_is_given_up(self):
        for role, store in self.each_role():
            with self.subTest(role=role):
                done = store(self.fifo())
                self.assertRefused(done, 1, self.fifo(), "nothing came")
                self.assertLess(done.seconds, PATIENCE_WITH_PIPES + AT_ONCE)
                self.assertGreater(done.seconds, PATIENCE_WITH_PIPES - 0.5)

    def test_a_pipe_whose_writer_falls_silent_is_given_up(self):
        writing = os.open(self.fifo(), os.O_RDWR)
        self.addCleanup(os.close, writing)
        os.write(writing, self.json[:100])
        done = self.store_files(self.fifo(), self.image)
        self.assertRefused(done, 1, self.fifo(), "nothing came")
        self.assertLess(done.seconds, PATIENCE_WITH_PIPES + AT_ONCE)

    def test_pipes_of_a_shell_are_read_to_their_end_however_slow(self):
        pieces = [self.json[start : start + 1500] for start in range(0, len(self.json), 1500)]
        preset = self.written_later(*pieces, pause=6 / len(pieces))
        image = self.written_later(picture(1)[:200], picture(1)[200:], pause=0.1)
        done = self.store_files(f"/dev/fd/{preset}", f"/dev/fd/{image}", pass_fds=(preset, image))
        self.assertStored(done)
        self.assertGreater(done.seconds, PATIENCE_WITH_PIPES)

    def test_a_pipe_that_is_closed_without_a_byte_is_an_empty_file(self):
        reading = self.written_later(pause=0)
        time.sleep(0.1)
        for role, store in self.each_role():
            with self.subTest(role=role):
                done = store(f"/dev/fd/{reading}", pass_fds=(reading,))
                self.assertRefused(done, 2, f"/dev/fd/{reading}")
                self.assertLess(done.seconds, AT_ONCE)

    def test_a_named_pipe_may_get_its_writer_late(self):
        def write():
            time.sleep(1)
            with open(self.fifo(), "wb") as file:
                file.write(self.json)

        threading.Thread(target=write, daemon=True).start()
        self.fifo()
        self.assertStored(self.store_files(self.fifo(), self.image))

    def test_standard_input_can_be_read(self):
        reading = self.written_later(self.json, pause=0.1)
        self.assertStored(self.store_files("/dev/stdin", self.image, stdin=reading))

    def test_what_is_no_file_is_refused(self):
        sock = os.path.join(self.folder, "sock")
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(sock)
            for role, store in self.each_role():
                for path, word in (
                    (self.folder, "folder"),
                    (sock, ""),
                    (self.folder + "/none", "No such file"),
                ):
                    with self.subTest(role=role, path=path):
                        self.assertRefused(store(path), 1, path, word)

    def test_what_follows_the_longest_file_of_a_pipe_is_not_read(self):
        reading, writing = os.pipe()
        with contextlib.closing(os.fdopen(reading, "rb")), contextlib.closing(os.fdopen(writing, "wb")):

            def write():
                with contextlib.suppress(OSError):
                    while True:
                        os.write(writing, bytes(4096))

            thread = threading.Thread(target=write, daemon=True)
            thread.start()
            done = self.store_files(f"/dev/fd/{reading}", self.image, pass_fds=(reading,))
            self.assertRefused(done, 2, f"more than {LONGEST_PRESET} bytes")
            os.set_blocking(writing, False)
            os.read(reading, 4096)
            thread.join()


class AddedByTheCamera(DeskTest):
    """The camera's `add` reads files as the phone does."""

    def setUp(self):
        super().setUp()
        self.samples()
        self.record = self.file("record", rich_record()[:CAMERA_RECORD])
        self.image = self.file("picture.jpg", picture(1))

    def add(self, record, image):
        start = time.monotonic()
        done = run_camera(self.store, "add", record, image, timeout=30)
        self.seconds = time.monotonic() - start
        return done

    def test_files_that_are_none_or_too_long_are_refused(self):
        long = self.file("long", b"")
        os.truncate(long, 2 << 30)
        for path, code in (("/dev/zero", 2), (long, 2), (self.folder, 1), (self.folder + "/none", 1)):
            for files in ((path, self.image), (self.record, path)):
                with self.subTest(files=files):
                    done = self.add(*files)
                    self.assertEnds(done, code)
                    self.assertIn(path.encode(), done.stderr)
                    self.assertLess(self.seconds, AT_ONCE)

    def test_a_pipe_that_nobody_writes_is_given_up(self):
        fifo = os.path.join(self.folder, "fifo")
        os.mkfifo(fifo)
        for files in ((fifo, self.image), (self.record, fifo)):
            with self.subTest(files=files):
                self.assertEnds(self.add(*files), 1)
                self.assertLess(self.seconds, PATIENCE_WITH_PIPES + AT_ONCE)


class Writing(DeskTest):
    """`picture -o` puts a whole file in its place, or leaves the old one."""

    IMAGE = picture(1, 200000)  # more than a pipe holds

    def setUp(self):
        super().setUp()
        self.place = os.path.join(self.folder, "place")
        os.mkdir(self.place)

    def path(self, name):
        return os.path.join(self.place, name)

    def save(self, path, **more):
        answers = {
            LIST: list_reply([phone_record(custom_id=3)]),
            PICTURE: request(REPLY + PICTURE, struct.pack("<i", 3) + self.IMAGE),
        }
        with FakeCamera(self.folder, lambda function, _: answers[function]) as camera:
            return measure_phone(camera.url, "picture", 0, "-o", path, **more)

    def assertHolds(self, path, content):
        with open(path, "rb") as file:
            self.assertEqual(file.read(), content)

    def assertFails(self, done, *names):
        """One line, and nothing but these files in the place."""
        self.assertEnds(done, 1)
        self.assertEqual(done.stderr.count(b"\n"), 1, done.stderr)
        self.assertEqual(sorted(os.listdir(self.place)), sorted(names))

    def test_a_new_file_has_the_permissions_of_the_user(self):
        for mask, mode in ((0o022, 0o644), (0o077, 0o600)):
            path = self.path(f"{mask}.jpg")
            self.assertEnds(self.save(path, umask=mask), 0)
            self.assertHolds(path, self.IMAGE)
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), mode)
        self.assertEqual(len(os.listdir(self.place)), 2)

    def test_an_old_file_keeps_its_permissions(self):
        path = self.path("old.jpg")
        for mode in (0o600, 0o664, 0o444):
            with open(path, "wb"):
                os.chmod(path, mode)
            self.assertEnds(self.save(path), 0)
            self.assertHolds(path, self.IMAGE)
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), mode)
            os.remove(path)

    def test_the_longest_name_of_a_file_can_be_written(self):
        path = self.path("n" * 255)
        self.assertEnds(self.save(path), 0)
        self.assertHolds(path, self.IMAGE)

    def test_a_name_without_a_folder_is_written_where_the_phone_runs(self):
        self.assertEnds(self.save("here.jpg", cwd=self.place), 0)
        self.assertHolds(self.path("here.jpg"), self.IMAGE)

    def test_a_link_without_a_file_stays_and_its_file_is_made(self):
        os.mkdir(self.path("other"))
        os.symlink("other/file.jpg", self.path("relative"))
        os.symlink(self.path("absolute.jpg"), self.path("absolute"))
        os.symlink("relative", self.path("chain"))
        for name, target in (
            ("relative", "other/file.jpg"),
            ("absolute", "absolute.jpg"),
            ("chain", "other/file.jpg"),
        ):
            with self.subTest(name=name):
                self.assertEnds(self.save(self.path(name)), 0)
                self.assertTrue(os.path.islink(self.path(name)))
                self.assertFalse(os.path.islink(self.path(target)))
                self.assertHolds(self.path(target), self.IMAGE)
                os.remove(self.path(target))

    def test_a_link_to_a_file_stays_and_the_file_is_replaced(self):
        for content in (b"", b"old"):
            with open(self.path("file.jpg"), "wb") as file:
                file.write(content)
            with contextlib.suppress(FileExistsError):
                os.symlink("file.jpg", self.path("link"))
            self.assertEnds(self.save(self.path("link")), 0)
            self.assertEqual(os.readlink(self.path("link")), "file.jpg")
            self.assertHolds(self.path("file.jpg"), self.IMAGE)

    def test_links_in_a_circle_are_refused(self):
        os.symlink("two", self.path("one"))
        os.symlink("one", self.path("two"))
        self.assertFails(self.save(self.path("one")), "one", "two")

    def test_a_pipe_without_a_reader_is_refused_at_once(self):
        os.mkfifo(self.path("fifo"))
        done = self.save(self.path("fifo"))
        self.assertFails(done, "fifo")
        self.assertIn(b"nobody reads", done.stderr)
        self.assertLess(done.seconds, AT_ONCE)
        self.assertTrue(stat.S_ISFIFO(os.stat(self.path("fifo")).st_mode))

    def test_a_pipe_is_written_as_fast_as_it_is_read(self):
        os.mkfifo(self.path("fifo"))
        received = []

        def read():
            with open(self.path("fifo"), "rb", buffering=0) as file:
                while piece := file.read(40000):
                    received.append(piece)
                    time.sleep(0.3)

        reader = threading.Thread(target=read, daemon=True)
        reader.start()
        time.sleep(0.2)
        self.assertEnds(self.save(self.path("fifo")), 0)
        reader.join()
        self.assertEqual(b"".join(received), self.IMAGE)

    def test_a_pipe_whose_reader_stops_is_given_up(self):
        os.mkfifo(self.path("fifo"))
        reader = os.open(self.path("fifo"), os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        done = self.save(self.path("fifo"))
        self.assertFails(done, "fifo")
        self.assertLess(done.seconds, PATIENCE_WITH_PIPES + AT_ONCE)
        self.assertGreater(done.seconds, PATIENCE_WITH_PIPES - 0.5)

    def test_a_pipe_whose_reader_goes_away_is_given_up(self):
        os.mkfifo(self.path("fifo"))
        reader = os.open(self.path("fifo"), os.O_RDONLY | os.O_NONBLOCK)
        threading.Timer(1, os.close, [reader]).start()
        done = self.save(self.path("fifo"))
        self.assertFails(done, "fifo")
        self.assertLess(done.seconds, AT_ONCE)

    def test_standard_output_can_be_written(self):
        # By a link of the test's own: a phone that replaces it does no harm to the machine.
        os.symlink("/proc/self/fd/1", self.path("out"))
        done = self.save(self.path("out"))  # leads to a file that is in no folder any more
        self.assertEnds(done, 0)
        self.assertEqual(done.stdout, self.IMAGE)
        self.assertTrue(os.path.islink(self.path("out")))

    def test_a_full_device_fails(self):
        if os.geteuid() != 0:
            self.assertFails(self.save("/dev/full"))
            return
        # Root could replace the machine's own device.
        os.mknod(self.path("full"), stat.S_IFCHR | 0o666, os.makedev(1, 7))
        self.assertFails(self.save(self.path("full")), "full")
        self.assertTrue(stat.S_ISCHR(os.stat(self.path("full")).st_mode))

    def test_a_file_that_may_not_grow_leaves_the_old_one(self):
        path = self.path("old.jpg")
        with open(path, "wb") as file:
            file.write(b"old")

        def small_files():
            resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))

        self.assertFails(self.save(path, preexec_fn=small_files), "old.jpg")
        self.assertHolds(path, b"old")

    def test_a_folder_that_is_not_there_fails(self):
        for path in (self.path("no/where.jpg"), self.path("none/")):
            self.assertFails(self.save(path))

    def test_a_folder_is_no_file(self):
        done = self.save(self.place)
        self.assertFails(done)
        self.assertIn(b"folder", done.stderr)


if __name__ == "__main__":
    unittest.main()
