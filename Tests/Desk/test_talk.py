"""What the camera writes to standard error and to its log, whatever phones send and whoever reads it."""

import contextlib
import os
import pty
import re
import select
import signal
import socket
import subprocess
import threading
import time
import tty
import unicodedata
import unittest

from desk import (
    CAMERA, FIRST_START, LIST, PATIENCE, DeskTest, Link, Stored, delete_request, list_reply,
    environment_of_programs, phone_record, picture, request, run_camera, store_request, store_result,
    update_request,
)  # fmt: skip

LINES_AT_ONCE, LINES_A_SECOND = 200, 50

with open(CAMERA, "rb") as program:
    IS_SANITIZED = b"__asan_init" in program.read()

PAIRS = 7499 if IS_SANITIZED else 74999  # as many as the longest request holds
ERRORS = 2 * PAIRS  # of each pair that names no preset: an impossible number, and an unknown identity
LONG_DELETE = delete_request(*[(50, 99999)] * PAIRS)
HOSTILE = b"\x1b[31mred\x1b[0m \x9b32m\xc2\x9bbell\x07 \x1b]0;title\x07\r\x7f\xe2\x80\xae\nforged"
MISSING = re.compile(r"shotmentor-camera: (\d+) lines are missing here: (.*)")


class Talk(DeskTest):
    def setUp(self):
        super().setUp()
        self.samples()
        self.expected = list_reply(Stored(self.store).as_phone_sees())

    def talking_to(self, stderr, *options, environment=None, **more):
        """A camera whose standard error is this descriptor. Returns the process and its URL."""
        process = subprocess.Popen(
            [CAMERA, "--store", self.store, *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=stderr, env=environment_of_programs(**(environment or {})), **more,
        )  # fmt: skip
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(lambda: process.poll() is None and process.kill())
        self.assertTrue(select.select([process.stdout], [], [], FIRST_START)[0])
        return process, process.stdout.readline().decode().strip()[len("listening on ") :]

    def assertServes(self, url):
        with Link(url) as link:
            self.assertEqual(link.ask(request(LIST)), self.expected)

    def assertEndsInOrder(self, process):
        process.terminate()
        self.assertEqual(process.wait(PATIENCE), 0)

    def assertPrintable(self, data):
        """UTF-8 in lines, and nothing that steers a terminal."""
        for line in data.decode("utf-8").split("\n"):
            for character in line:
                self.assertNotIn(unicodedata.category(character), ("Cc", "Cf", "Zl", "Zp"), repr(line))


def read_all(descriptor, seconds):
    """What can be read until nothing has come for so long."""
    data = b""
    while select.select([descriptor], [], [], seconds)[0]:
        try:
            piece = os.read(descriptor, 1 << 16)
        except OSError:  # a terminal whose other side has gone
            break
        if not piece:
            break
        data += piece
    return data


def tally(data):
    """The lines of a talk, and those that are missing by the reason that it gives."""
    lines, missing = [], {}
    for line in data.decode("utf-8").splitlines():
        told = MISSING.fullmatch(line)
        if told:
            missing[told[2]] = missing.get(told[2], 0) + int(told[1])
        else:
            lines.append(line)
    return lines, missing


class Readers(Talk):
    """Nobody who does not read keeps the camera from its phones."""

    def test_a_pipe_that_nobody_reads_stops_nothing_and_what_it_missed_is_told(self):
        read_end, write_end = os.pipe()
        self.addCleanup(os.close, read_end)
        process, url = self.talking_to(write_end, "--log-level", "error")
        os.close(write_end)
        with Link(url) as link:
            link.send(LONG_DELETE)
            link.receive()
            self.assertEqual(link.ask(request(LIST)), self.expected)
            talk = read_all(read_end, 2.5)  # the camera tries again every second
            lines, missing = tally(talk)
            self.assertEqual(list(missing), ["nobody took them in time"])
            self.assertEqual(len(lines) + sum(missing.values()), ERRORS + 2)  # the phone came, and used it
            self.assertPrintable(talk)
        self.assertEndsInOrder(process)

    def test_a_socket_that_nobody_reads_stops_nothing(self):
        ours, theirs = socket.socketpair()
        with ours, theirs:
            process, url = self.talking_to(theirs.fileno(), "--log-level", "all")
            with Link(url) as link:
                link.send(LONG_DELETE)
                link.receive()
                self.assertEqual(link.ask(request(LIST)), self.expected)
            self.assertEndsInOrder(process)

    def test_a_terminal_that_nobody_reads_stops_nothing(self):
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        process, url = self.talking_to(theirs, "--log-level", "all")
        os.close(theirs)
        with Link(url) as link:
            link.send(LONG_DELETE)
            link.receive()
            self.assertEqual(link.ask(request(LIST)), self.expected)
        self.assertEndsInOrder(process)

    def test_a_reader_that_has_gone_stops_nothing(self):
        read_end, write_end = os.pipe()
        process, url = self.talking_to(write_end)
        os.close(write_end)
        os.close(read_end)
        for _ in range(3):
            self.assertServes(url)
        self.assertEndsInOrder(process)

    def test_a_full_device_stops_nothing(self):
        with open("/dev/full", "wb") as full:
            process, url = self.talking_to(full, "--log-level", "all")
        for _ in range(3):
            self.assertServes(url)
        self.assertEndsInOrder(process)

    def test_a_closed_standard_error_is_no_place_for_a_file_of_the_store(self):
        for closed in ((2,), (0, 1, 2), (0, 2)):
            with self.subTest(closed=closed):

                def close(which=closed):
                    for descriptor in which:
                        os.close(descriptor)

                process = subprocess.Popen(
                    [CAMERA, "--store", self.store, "--log-level", "all"], preexec_fn=close,
                    stdout=subprocess.DEVNULL, env=environment_of_programs(),
                )  # fmt: skip
                self.addCleanup(lambda process=process: process.poll() is None and process.kill())
                url = f"unix:{self.store}/camera.sock"
                end = time.monotonic() + FIRST_START
                while time.monotonic() < end:
                    with contextlib.suppress(OSError):
                        self.assertServes(url)
                        break
                    time.sleep(0.05)
                with Link(url) as link:
                    answer = link.ask(store_request(phone_record(), picture(1)))
                    self.assertEqual(store_result(answer)[0], 1)
                for descriptor in closed:
                    self.assertEqual(os.readlink(f"/proc/{process.pid}/fd/{descriptor}"), "/dev/null")
                process.terminate()
                process.wait(PATIENCE)
                stored = Stored(self.store)
                self.assertEqual(len(stored.records), 13)
                self.assertEqual(run_camera(self.store, "remove", "12").returncode, 0)


class Budget(Talk):
    """Lines on standard error are few enough to read, unless the user asks for them all."""

    def test_one_long_request_writes_no_more_than_the_budget_and_tells_what_is_missing(self):
        with self.camera() as camera, camera.link() as link:
            start = time.monotonic()
            link.send(LONG_DELETE)
            link.receive()
            time.sleep(2.5)  # what is missing is told without another line
            lines, missing = tally(camera.talk().encode())
            seconds = time.monotonic() - start
            self.assertEqual(list(missing), ["more than 50 came in a second"])
            errors = [line for line in lines if line == "[ALG_SMM   ] SM_RETURN_STRUCT_ERR"]
            others = [line for line in lines if line.startswith("shotmentor-camera: ")]
            self.assertEqual(len(errors) + len(others), len(lines))
            self.assertEqual(len(errors) + sum(missing.values()), ERRORS)
            self.assertLessEqual(len(lines), LINES_AT_ONCE + LINES_A_SECOND * seconds)
            self.assertGreaterEqual(len(lines), LINES_AT_ONCE - 1)

    def test_lines_that_the_user_asked_for_are_all_there(self):
        with self.camera("--log-level", "error") as camera, camera.link() as link:
            link.send(LONG_DELETE)
            link.receive()
            lines, missing = tally(camera.talk().encode())
            self.assertEqual(missing, {})
            self.assertEqual(lines.count("[ALG_SMM   ] SM_RETURN_STRUCT_ERR"), ERRORS)

    def test_phones_that_come_and_go_write_no_more_than_the_budget(self):
        with self.camera("--log-level", "all") as camera, camera.link():
            start = time.monotonic()
            for _ in range(2000):
                Link(camera.url).close()
            time.sleep(1.5)
            seconds = time.monotonic() - start
            lines, missing = tally(camera.talk().encode())
            self.assertLessEqual(len(lines), LINES_AT_ONCE + LINES_A_SECOND * seconds)
            self.assertEqual(lines.count("shotmentor-camera: a second phone was turned away") + sum(missing.values()),
                             2000)  # fmt: skip

    def test_lines_come_again_when_the_flood_is_over(self):
        with self.camera() as camera:
            with camera.link() as link:
                link.send(LONG_DELETE)
                link.receive()
            time.sleep(1.5)
            with camera.link() as link:
                link.send(request(9999))
                link.ask(request(LIST))
            self.assertIn("ADE_ShotMentor_Receive_Manager funcN=9999", camera.talk())


class Characters(Talk):
    """No byte of a phone steers a terminal, and colours show on a terminal alone."""

    def rename(self, url):
        """Lets the camera log a hostile title, and an error."""
        with Link(url) as link:
            link.ask(update_request(self.custom_id, 1, HOSTILE[:51]))
            link.send(request(9999))
            link.ask(request(LIST))

    def setUp(self):
        super().setUp()
        self.custom_id = Stored(self.store).ids()[0]

    def talk_of(self, stderr, read, *options, **more):
        process, url = self.talking_to(stderr, *options, **more)
        self.rename(url)
        self.assertEndsInOrder(process)
        return read()

    def test_a_file_that_standard_error_goes_to_holds_text_alone(self):
        path = os.path.join(self.folder, "talk")
        with open(path, "wb") as file:
            data = self.talk_of(file, lambda: open(path, "rb").read(), "--log-level", "all")
        self.assertPrintable(data)
        self.assertIn("[ALG_SMM   ] ERR : RESULT ADE_ShotMentor_Receive_Manager funcN=9999\n", data.decode())
        self.assertIn("title=red \N{REPLACEMENT CHARACTER}32m\N{REPLACEMENT CHARACTER}bell", data.decode())
        self.assertNotIn("\nforged", data.decode())

    def test_a_log_file_holds_text_alone(self):
        path = os.path.join(self.folder, "log")
        data = self.talk_of(
            subprocess.DEVNULL, lambda: open(path, "rb").read(), "--log-level", "all", "--log", f"file:{path}"
        )
        self.assertPrintable(data)
        self.assertIn("ERR : RESULT ADE_ShotMentor_Receive_Manager funcN=9999\n", data.decode())
        self.assertIn("title=red \N{REPLACEMENT CHARACTER}32m\N{REPLACEMENT CHARACTER}bell", data.decode())

    def on_a_terminal(self, **environment):
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        tty.setraw(theirs)
        data = []
        reader = threading.Thread(target=lambda: data.append(read_all(ours, 2)))
        reader.start()
        try:
            self.talk_of(theirs, lambda: None, "--log-level", "all", environment=environment)
        finally:
            os.close(theirs)
            reader.join()
        return data[0]

    def test_a_terminal_shows_the_colours_of_the_library_and_none_of_a_phone(self):
        data = self.on_a_terminal()
        self.assertIn(b"\x1b[31m[ALG_SMM   ] ERR : RESULT ADE_ShotMentor_Receive_Manager funcN=9999\x1b[m\n", data)
        lines = [line for line in data.split(b"\n") if b"title=" in line]
        self.assertGreater(len(lines), 0)
        for line in data.split(b"\n"):
            self.assertPrintable(re.sub(rb"^\x1b\[3[1236]m(.*)\x1b\[m$", rb"\1", line))

    def test_a_terminal_shows_no_colours_where_no_color_is_set(self):
        self.assertPrintable(self.on_a_terminal(NO_COLOR="1"))

    def test_a_file_name_of_the_command_line_does_neither(self):
        done = run_camera("/dev/null/such\x1b[31m\n\u202eplace")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr.count(b"\n"), 1)
        self.assertPrintable(done.stderr)


class LogFiles(Talk):
    """A log goes to a file, or the camera says at the start why it cannot."""

    def refused(self, path):
        """The one line that the camera says about this log file."""
        done = run_camera(self.store, "--log", f"file:{path}")
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertEqual(done.stderr.count(b"\n"), 1)
        return done.stderr.decode()

    def test_a_pipe_is_refused_at_once_whether_somebody_reads_it_or_not(self):
        path = os.path.join(self.folder, "pipe")
        os.mkfifo(path)
        self.assertIn("no regular file", self.refused(path))
        reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        self.assertIn("no regular file", self.refused(path))

    def test_a_folder_and_a_socket_are_refused(self):
        self.assertIn("Is a directory", self.refused(self.folder))
        path = os.path.join(self.folder, "socket")
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(path)
            self.assertIn("no regular file", self.refused(path))

    def test_the_null_device_takes_a_log(self):
        with self.camera("--log", "file:/dev/null", "--log-level", "all") as camera:
            self.assertEqual(camera.ask(request(LIST)), self.expected)

    def test_a_full_device_stops_nothing(self):
        with self.camera("--log", "file:/dev/full", "--log-level", "all") as camera:
            self.assertEqual(camera.ask(request(LIST)), self.expected)

    def test_a_log_is_continued(self):
        path = self.file("log", "what was there before\n")
        with self.camera("--log", f"file:{path}", "--log-level", "all") as camera:
            camera.ask(request(LIST))
        with open(path) as file:
            lines = file.read().splitlines()
        self.assertEqual(lines[0], "what was there before")
        self.assertGreater(len(lines), 10)


class BreakDowns(Talk):
    """A report of the end of the process goes to the descriptor itself."""

    @unittest.skipUnless(IS_SANITIZED, "the camera has no sanitizer")
    def test_a_sanitizer_reports_to_standard_error(self):
        camera = self.camera()
        camera.process.send_signal(signal.SIGSEGV)
        self.assertNotEqual(camera.process.wait(FIRST_START), 0)
        self.assertIn("AddressSanitizer: SEGV", camera.talk())
        camera.kill()


if __name__ == "__main__":
    unittest.main()
