"""What the camera writes to standard error and to its log, whatever phones send and whoever reads it."""

import contextlib
import datetime
import json
import os
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import threading
import time
import tty
import unicodedata
import unittest

from desk import (
    CAMERA, FIRST_START, LIST, LONGEST_REQUEST, PATIENCE, SILENCE, STATE_OFF, STATE_ON, STORE, DeskTest, Link,
    Silent, Stored, delete_request, environment_of_programs, get, list_reply, phone_record, picture,
    picture_request, request, run_camera, store_request, store_result, stored_picture, update_request,
    what_a_phone_gets,
)  # fmt: skip

LINES_AT_ONCE, LINES_A_SECOND = 200, 50

with open(CAMERA, "rb") as program:
    IS_SANITIZED = b"__asan_init" in program.read()

PAIRS = 7499 if IS_SANITIZED else 74999  # as many as the longest request holds
ERRORS = 2 * PAIRS  # of each pair that names no preset: an impossible number, and an unknown identity
LONG_DELETE = delete_request(*[(50, 99999)] * PAIRS)
HOSTILE = b"\x1b[31mred\x1b[0m \x9b32m\xc2\x9bbell\x07 \x1b]0;title\x07\r\x7f\xe2\x80\xae\nforged"
TOLD = re.compile(r"^shotmentor-camera: \d\d:\d\d:\d\d (.*)$", re.MULTILINE)  # of requests
LAB = re.compile(r"^shotmentor-camera: lab: (.*)$", re.MULTILINE)
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
            told = 4  # the phone came and used the feature, and what it asked for: a deletion and a list
            self.assertEqual(len(lines) + sum(missing.values()), ERRORS + told)
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
            told = 2  # the phone came, and what it asked for
            self.assertEqual(len(lines) + sum(missing.values()), ERRORS + told)
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


class Requests(Talk):
    """Each request has a line that says what was asked, about which preset, and what was answered."""

    def setUp(self):
        super().setUp()
        self.titles = [get(record, "title").rstrip(b"\0").decode() for record in Stored(self.store).records]

    def told(self, camera, count=1):
        """The last lines about requests, without their time; so many at least have to come."""
        end = time.monotonic() + PATIENCE
        while len(lines := TOLD.findall(camera.talk())) < count and time.monotonic() < end:
            time.sleep(0.02)
        self.assertGreaterEqual(len(lines), count, camera.talk())
        return lines[-count:]

    def assertTold(self, data, *expected, options=(), is_answered=True):
        """What a camera tells of these bytes of a phone."""
        with self.camera(*options) as camera, camera.link() as link:
            link.send(data)
            if is_answered:
                link.receive()
            self.assertEqual(self.told(camera, len(expected)), list(expected))

    def test_a_list_tells_how_many_presets_it_has(self):
        self.assertTold(request(LIST), "list: 12 presets")

    def test_a_list_of_one_preset_says_preset(self):
        for _ in range(11):
            run_camera(self.store, "remove", "0")
        self.assertTold(request(LIST), "list: 1 preset")

    def test_a_picture_tells_its_preset_and_its_bytes(self):
        image = what_a_phone_gets(stored_picture(self.store, 2))
        self.assertTold(picture_request(2), f'picture of "{self.titles[1]}" (id 2): {len(image)} bytes')

    def test_a_picture_that_cannot_be_read_has_0_bytes(self):
        os.unlink(os.path.join(self.store, "pictures", "2.jpg"))
        self.assertTold(picture_request(2), f'picture of "{self.titles[1]}" (id 2): 0 bytes')

    def test_a_picture_of_a_preset_that_is_not_there_has_no_reply(self):
        self.assertTold(picture_request(99), "picture of id 99: no reply, there is no such preset", is_answered=False)

    def test_a_picture_of_an_id_that_no_preset_can_have_has_no_reply(self):
        self.assertTold(picture_request(0), "picture of id 0: no reply, ids are above 0", is_answered=False)

    def test_a_store_tells_the_title_the_picture_and_where_the_preset_is(self):
        data = store_request(phone_record(b"My own dusk"), picture(1, 500))
        self.assertTold(data, 'store "My own dusk", picture of 500 bytes: preset 12, id 13')

    def test_a_store_in_pieces_tells_the_same_wherever_it_is_cut(self):
        data = store_request(phone_record(b"My own dusk"), picture(1, 500))
        for cut in (8, 9, 30, 751, 752, len(data) - 1):
            with self.subTest(cut=cut), self.camera() as camera, camera.link() as link:
                link.send(data, [cut])
                number, custom_id = store_result(link.receive())[1:3]
                self.assertEqual(
                    self.told(camera),
                    [f'store "My own dusk", picture of 500 bytes: preset {number}, id {custom_id}'],
                )

    def test_a_store_that_is_refused_tells_the_number_that_the_phone_got(self):
        self.assertTold(
            store_request(phone_record(b"Dusk"), picture(1)),
            'store "Dusk", picture of 400 bytes: refused with -5',
            options=("--save-result", -5),
        )

    def test_a_store_without_a_whole_record_has_no_title(self):
        self.assertTold(request(STORE, bytes(743)), "store of 751 bytes: refused with -4")

    def test_a_rename_tells_the_id_and_the_new_title(self):
        self.assertTold(update_request(2, 0, b"Dusk"), 'rename id 2 to "Dusk": done')

    def test_a_rename_that_is_refused_tells_the_number_that_the_phone_got(self):
        self.assertTold(update_request(99, 0, b"Dusk"), 'rename id 99 to "Dusk": refused with -6')

    def test_a_title_that_would_forge_a_line_does_not(self):
        marked = "\N{REPLACEMENT CHARACTER}"
        self.assertTold(update_request(2, 0, b"a\n\x1b[31mb"), f'rename id 2 to "a{marked}{marked}[31mb": done')

    def test_a_deletion_tells_how_many_were_asked_for_and_how_many_are_left(self):
        self.assertTold(delete_request((6, 7), (7, 8), (8, 9)), "delete 3 presets: done, 9 left")

    def test_a_deletion_tells_what_was_kept_and_for_which_custom_mode(self):
        run_camera(self.store, "unlink", "CUSTOM1")
        run_camera(self.store, "link", "CUSTOM2", 3)
        self.assertTold(
            delete_request((2, 3), (3, 4)),
            f'delete 2 presets: kept "{self.titles[3]}", which CUSTOM2 uses, 11 left',
        )

    def test_a_deletion_does_not_tell_of_a_custom_mode_whose_preset_was_not_named(self):
        run_camera(self.store, "link", "CUSTOM1", 5)
        run_camera(self.store, "link", "CUSTOM2", 3)
        self.assertTold(
            delete_request((5, 6)), f'delete 1 preset: kept "{self.titles[5]}", which CUSTOM1 uses, 12 left'
        )

    def test_a_deletion_tells_what_both_custom_modes_kept(self):
        run_camera(self.store, "link", "CUSTOM1", 5)
        run_camera(self.store, "link", "CUSTOM2", 3)
        self.assertTold(
            delete_request((3, 4), (5, 6)),
            f'delete 2 presets: kept "{self.titles[5]}", which CUSTOM1 uses, and "{self.titles[3]}", '
            "which CUSTOM2 uses, 12 left",
        )

    def test_a_deletion_with_a_faulty_entry_is_refused(self):
        self.assertTold(delete_request((3, 999)), "delete 1 preset: refused with -3")

    def test_leaving_tells_the_code_of_the_phone(self):
        self.assertTold(request(STATE_OFF, struct.pack("<i", -11)), "leave, code -11", is_answered=False)

    def test_leaving_without_a_code_is_told(self):
        self.assertTold(request(STATE_OFF), "leave without a code", is_answered=False)

    def test_link_state_on_is_told(self):
        self.assertTold(request(STATE_ON), "link state on", is_answered=False)

    def test_an_unknown_function_has_no_reply(self):
        for function in (6, 256, 9999, -1):
            with self.subTest(function=function):
                self.assertTold(
                    request(function, b"abc"),
                    f"function {function} of 11 bytes: no reply, there is no such function",
                    is_answered=False,
                )

    def test_a_negative_length_has_no_reply(self):
        self.assertTold(
            struct.pack("<ii", LIST, -5),
            "list of -5 bytes: no reply, its length is negative",
            is_answered=False,
        )

    def test_a_request_that_is_too_long_has_no_reply(self):
        self.assertTold(
            request(STORE, bytes(LONGEST_REQUEST)),
            "store of 600008 bytes: no reply, a request has at most 600000 bytes",
            is_answered=False,
        )

    def test_a_list_while_the_link_state_is_down_has_no_reply(self):
        self.assertTold(
            request(LIST),
            "list: no reply, the link state is down",
            options=("--link-down",),
            is_answered=False,
        )

    def test_a_request_without_memory_for_its_reply_says_what_became_of_it(self):
        # The first allocation is the request's own; a rename's second one is its reply.
        self.assertTold(
            update_request(2, 0, b"Dusk"),
            'rename id 2 to "Dusk": done, but no reply, there was no memory for it',
            options=("--refuse-allocation", 2),
            is_answered=False,
        )

    def test_a_request_that_there_is_no_memory_for_is_told_when_the_phone_leaves(self):
        with self.camera("--refuse-allocation", 1) as camera:
            with camera.link() as link:
                link.send(request(LIST))
            self.assertEqual(self.told(camera), ["list of 8 bytes: no reply, there was no memory for the request"])

    def test_a_request_that_is_cut_off_tells_how_far_it_came(self):
        data = store_request(phone_record(), picture(1, 500))
        with self.camera() as camera:
            with camera.link() as link:
                link.send(data[:400], [30])
            self.assertEqual(self.told(camera), ["store cut off: 400 of 1252 bytes"])

    def test_a_header_that_is_cut_off_is_told_in_bytes(self):
        with self.camera(kind="tcp") as camera:
            with camera.link() as link:
                link.send(request(LIST)[:5])
            self.assertEqual(self.told(camera), ["5 bytes cut off before a request was read of them"])

    def test_more_bytes_than_announced_are_told_when_the_phone_leaves(self):
        with self.camera() as camera:
            with camera.link() as link:
                link.send(request(LIST) + b"more")
            self.assertEqual(self.told(camera), ["list: no reply, 12 came of 8 bytes"])

    def test_each_line_has_the_local_time(self):
        zone = {"TZ": "XXX-14"}  # 14 hours ahead of UTC
        with self.camera(environment=zone) as camera:
            before = int(time.time())
            camera.ask(request(LIST))
            after = int(time.time())
            told = re.search(r"shotmentor-camera: (\S+) list: 12 presets\n", camera.talk())[1]
        shown = [time.strftime("%H:%M:%S", time.gmtime(t + 14 * 3600)) for t in range(before, after + 1)]
        self.assertIn(told, shown)

    def test_a_request_that_takes_more_than_a_moment_tells_how_long(self):
        data = update_request(2, 0, b"Dusk")
        with self.camera() as camera, camera.link() as link:
            link.send(data[:100])
            time.sleep(0.3)
            link.send(data[100:])
            link.receive()
            told = re.fullmatch(r'rename id 2 to "Dusk": done \((\d+) ms\)', self.told(camera)[0])
            self.assertGreaterEqual(int(told[1]), 290)

    def test_a_quiet_camera_tells_of_no_request_but_of_phones(self):
        with self.camera("--quiet") as camera:
            with camera.link() as link:
                link.ask(request(LIST))
                link.send(request(STORE, bytes(900))[:400])
            end = time.monotonic() + PATIENCE
            while "the phone left" not in camera.talk() and time.monotonic() < end:
                time.sleep(0.02)
            camera.link().close()  # taken in when all is said of the first phone
            self.assertIn("shotmentor-camera: a phone connected\n", camera.talk())
            self.assertEqual(TOLD.findall(camera.talk()), [])


class Lab(Talk):
    """Each fault that the camera was asked for is announced at the start, and told when it strikes."""

    def lab(self, camera, count):
        """What was told of the lab; so many lines have to come."""
        end = time.monotonic() + PATIENCE
        while len(lines := LAB.findall(camera.talk())) < count and time.monotonic() < end:
            time.sleep(0.02)
        return lines

    def assertLab(self, options, requests, *expected):
        """What a camera with these faults tells of its lab when a phone asks for this."""
        with self.camera(*options) as camera, camera.link() as link:
            for data in requests:
                link.send(data)
                with contextlib.suppress(Silent):
                    link.receive(SILENCE)
            self.assertEqual(self.lab(camera, len(expected)), list(expected))

    def test_a_camera_without_faults_tells_of_no_lab(self):
        self.assertLab((), [request(LIST)])

    def test_sends_that_are_not_confirmed_are_told_by_their_number(self):
        self.assertLab(
            ("--drop-confirmations", 3),
            [request(LIST)] * 7,
            "every 3rd send is not confirmed",
            "send 3 is not confirmed",
            "send 6 is not confirmed",
        )

    def test_a_camera_that_confirms_no_send_says_so(self):
        self.assertLab(("--drop-confirmations", 1), [request(LIST)], "no send is confirmed", "send 1 is not confirmed")

    def test_numbers_are_announced_as_they_are_spoken(self):
        for number, spoken in (
            (2, "2nd"),
            (4, "4th"),
            (11, "11th"),
            (12, "12th"),
            (13, "13th"),
            (22, "22nd"),
        ):
            with self.subTest(number=number):
                self.assertLab(("--drop-confirmations", number), [], f"every {spoken} send is not confirmed")

    def test_late_confirmations_are_told_with_their_delay(self):
        self.assertLab(
            ("--confirm-delay", 20),
            [request(LIST)],
            "each send is confirmed after 20 ms",
            "send 1 is confirmed in 20 ms",
        )

    def test_a_link_state_that_is_down_is_told_when_a_phone_asks_for_the_list(self):
        self.assertLab(
            ("--link-down",),
            [request(LIST)],
            "the link state is reported as down",
            "the link state was reported as down",
        )

    def test_a_result_in_place_of_storing_is_told(self):
        self.assertLab(
            ("--save-result", 1),
            [store_request(phone_record(), picture(1))],
            "each store is answered with 1, and nothing is stored",
            "the store is answered with 1, and nothing was done",
        )

    def test_a_result_in_place_of_renaming_is_told(self):
        self.assertLab(
            ("--update-result", -3),
            [update_request(2, 0, b"Dusk")],
            "each rename is answered with -3, and nothing is changed",
            "the rename is answered with -3, and nothing was done",
        )

    def test_an_allocation_that_is_refused_is_told(self):
        self.assertLab(
            ("--refuse-allocation", 2),
            [request(LIST), request(LIST)],
            "the library's 2nd allocation is refused",
            "the library's 2nd allocation was refused",
        )

    def test_allocations_that_are_all_refused_are_told_one_by_one(self):
        # A rename has two: its own, and that of its reply.
        with self.camera("--refuse-allocation", "2+") as camera:
            with camera.link() as link:
                link.send(update_request(2, 0, b"Dusk"))
            with camera.link() as link:
                link.send(update_request(2, 0, b"Dusk"))
            told = self.lab(camera, 3)
        self.assertEqual(told[0], "the library's 2nd allocation is refused, and all from then on")
        self.assertEqual(told[1:], [f"the library's {n} allocation was refused" for n in ("2nd", "3rd")])


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
        *lines, last = data.split(b"\n")  # the last one is cut where a camera ends before the terminal took it
        for line in lines:
            self.assertPrintable(re.sub(rb"^\x1b\[3[1236]m(.*)\x1b\[m$", rb"\1", line))
        self.assertPrintable(re.sub(rb"^\x1b(\[(3([1236]m?)?)?)?|\x1b(\[m?)?$", b"", last))

    def test_a_terminal_shows_no_colours_where_no_color_is_set(self):
        self.assertPrintable(self.on_a_terminal(NO_COLOR="1"))

    def test_a_file_name_of_the_command_line_does_neither(self):
        done = run_camera("/dev/null/such\x1b[31m\n\u202eplace")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr.count(b"\n"), 1)
        self.assertPrintable(done.stderr)


class Json(Talk):
    """With --json each line on standard error is one object, whoever writes it."""

    def objects(self, talk):
        """The lines of a talk. One that is no object with these names fails the test."""
        found = [json.loads(line) for line in talk.splitlines()]
        for entry in found:
            self.assertEqual(list(entry)[:2] + list(entry)[-1:], ["time", "kind", "message"])
        return found

    def told(self, data, *options, kind="request", is_answered=True):
        """The objects of one kind that a camera writes when a phone sends this and leaves, without their times."""
        camera = self.camera("--json", *options)
        with camera.link() as link:
            link.send(data)
            if is_answered:
                link.receive()
        end = time.monotonic() + PATIENCE
        while '"event":"left"' not in camera.talk() and time.monotonic() < end:
            time.sleep(0.02)
        talk = camera.talk()
        camera.stop()
        found = [entry for entry in self.objects(talk) if entry["kind"] == kind]
        for entry in found:
            del entry["time"]
            entry.pop("milliseconds", None)
        return found

    def test_a_rename_has_its_id_title_bytes_and_result(self):
        self.assertEqual(
            self.told(update_request(2, 0, b"Dusk")),
            [{"kind": "request", "request": "rename", "function": 4, "bytes": 752, "id": 2, "title": "Dusk",
              "result": 1, "reply_bytes": 12, "message": 'rename id 2 to "Dusk": done'}],
        )  # fmt: skip

    def test_a_store_has_its_title_and_where_the_preset_is(self):
        self.assertEqual(
            self.told(store_request(phone_record(b"My own dusk"), picture(1, 500))),
            [{"kind": "request", "request": "store", "function": 3, "bytes": 8 + 744 + 500, "title": "My own dusk",
              "picture_bytes": 500, "result": 1, "preset": 12, "id": 13, "reply_bytes": 24,
              "message": 'store "My own dusk", picture of 500 bytes: preset 12, id 13'}],
        )  # fmt: skip

    def test_a_deletion_has_the_presets_that_it_names_and_those_that_are_left(self):
        reply = 20 + 9 * 744
        self.assertEqual(
            self.told(delete_request((8, 9), (6, 7), (7, 8))),
            [{"kind": "request", "request": "delete", "function": 5, "bytes": 32, "pairs": 3, "presets": [6, 7, 8],
              "result": 1, "left": 9, "reply_bytes": reply, "message": "delete 3 presets: done, 9 left"}],
        )  # fmt: skip

    def test_a_list_has_the_number_of_presets(self):
        self.assertEqual(
            self.told(request(LIST)),
            [{"kind": "request", "request": "list", "function": 1, "bytes": 8, "count": 12,
              "reply_bytes": 28 + 12 * 744, "message": "list: 12 presets"}],
        )  # fmt: skip

    def test_a_request_without_a_reply_says_why(self):
        told = self.told(picture_request(99), is_answered=False)[0]
        self.assertEqual((told["id"], told["no_reply"]), (99, "there is no such preset"))

    def test_a_request_that_is_cut_off_has_what_came_and_what_was_announced(self):
        told = self.told(store_request(phone_record(), picture(1, 500))[:400], is_answered=False)[0]
        self.assertEqual((told["request"], told["received"], told["bytes"], told["no_reply"]),
                         ("store", 400, 1252, "cut off"))  # fmt: skip

    def test_a_request_has_the_milliseconds_that_it_took(self):
        data = update_request(2, 0, b"Dusk")
        with self.camera("--json") as camera:
            with camera.link() as link:
                link.send(data[:100])
                time.sleep(0.3)
                link.send(data[100:])
                link.receive()
            told = next(entry for entry in self.objects(camera.talk()) if entry["kind"] == "request")
            self.assertGreaterEqual(told["milliseconds"], 290)

    def test_the_time_is_the_local_one_with_its_date_and_milliseconds(self):
        with self.camera("--json", environment={"TZ": "XXX-5:30"}) as camera:
            before = time.time()
            camera.ask(request(LIST))
            after = time.time()
            talk = camera.talk()
        told = next(entry["time"] for entry in self.objects(talk) if entry["kind"] == "request")
        self.assertRegex(told, r"\A\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\+05:30\Z")
        seconds = datetime.datetime.fromisoformat(told).timestamp()
        self.assertTrue(before - 0.001 <= seconds <= after, (before, seconds, after))

    def test_phones_that_come_and_go_have_events(self):
        with self.camera("--json") as camera:
            with camera.link():
                Link(camera.url).close()
                time.sleep(0.1)
            camera.ask(request(LIST))
            events = [entry["event"] for entry in self.objects(camera.talk()) if entry["kind"] == "phone"]
        self.assertEqual(events[:4], ["connected", "turned away", "left", "connected"])

    def test_a_refusal_of_the_store_has_its_reason(self):
        told = self.told(update_request(99, 0, b"Dusk"), kind="refusal")
        self.assertEqual([(entry["result"], entry["phone_is_told"]) for entry in told], [(-6, True)])

    def test_faults_of_the_lab_are_announced_and_told(self):
        told = self.told(request(LIST), "--drop-confirmations", 1, kind="lab")
        self.assertEqual(
            [(entry["event"], entry["fault"], entry["message"]) for entry in told],
            [("announced", "drop-confirmations", "lab: no send is confirmed"),
             ("struck", "drop-confirmations", "lab: send 1 is not confirmed")],
        )  # fmt: skip

    def test_the_librarys_lines_have_their_level_and_tag(self):
        told = self.told(request(9999), "--log-level", "all", kind="log", is_answered=False)
        errors = [entry for entry in told if entry["level"] == "error"]
        self.assertEqual(
            errors,
            [{"kind": "log", "level": "error", "tag": "ALG_SMM",
              "message": "ERR : RESULT ADE_ShotMentor_Receive_Manager funcN=9999"}],
        )  # fmt: skip

    def test_a_title_comes_back_whole_and_steers_no_terminal(self):
        title = 'a\n\x1b[31m\u202e"b\\'
        with self.camera("--json", "--log-level", "all") as camera:
            camera.ask(update_request(2, 0, title.encode()))
            talk = camera.talk()
        self.assertPrintable(talk.encode())
        told = next(entry for entry in self.objects(talk) if entry["kind"] == "request")
        self.assertEqual(told["title"], title)

    def test_a_title_that_is_no_utf_8_leaves_the_line_an_object(self):
        told = self.told(update_request(2, 0, b"a\xff\xfeb"))[0]
        self.assertEqual(told["title"], "a\N{REPLACEMENT CHARACTER}\N{REPLACEMENT CHARACTER}b")

    def test_what_is_missing_is_an_object_too(self):
        with self.camera("--json") as camera, camera.link() as link:
            link.send(LONG_DELETE)
            link.receive()
            time.sleep(2.5)
            told = self.objects(camera.talk())
        missing = [entry for entry in told if entry["kind"] == "missing"]
        self.assertEqual(len(told) - len(missing) + sum(entry["lines"] for entry in missing), ERRORS + 2)
        self.assertEqual({entry["reason"] for entry in missing}, {"more than 50 came in a second"})

    def test_a_faulty_command_line_is_told_as_an_object(self):
        for arguments in (("--json", "--mtu", "0"), ("--json", "--log", "nowhere"), ("--json", "--such")):
            with self.subTest(arguments=arguments):
                done = run_camera(self.store, *arguments)
                told = self.objects(done.stderr.decode())
                self.assertEqual([(entry["kind"], entry["exit_code"]) for entry in told], [("failure", 2)])
                self.assertEqual(done.returncode, 2)

    def test_a_line_that_is_too_long_becomes_several_objects(self):
        path = "/dev/null/" + "x" * 2500
        told = self.objects(run_camera(path, "--json").stderr.decode())
        self.assertEqual([entry.get("continued", False) for entry in told], [False, *[True] * (len(told) - 1)])
        self.assertIn(path, "".join(entry["message"] for entry in told))

    def test_a_terminal_gets_no_colours(self):
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        tty.setraw(theirs)
        process, url = self.talking_to(theirs, "--json", "--log-level", "error,ALG_SM=yellow")
        os.close(theirs)
        with Link(url) as link:
            link.ask(update_request(2, 1, HOSTILE[:51]))
            link.ask(store_request(phone_record(), picture(1)))
        data = read_all(ours, 0.5)
        self.assertEndsInOrder(process)
        self.assertPrintable(data)
        self.assertIn("yellow", {entry.get("level") for entry in self.objects(data.decode())})


class LogChoice(Talk):
    """The library's lines are chosen by their tag and by their level."""

    def lines(self, choice):
        """Level and tag of each line that a camera writes for a list and a request that is refused."""
        with self.camera("--json", "--log-level", choice) as camera, camera.link() as link:
            link.send(request(9999))
            link.ask(request(LIST))
            talk = camera.talk()
        told = [json.loads(line) for line in talk.splitlines()]
        return {(entry["level"], entry["tag"]) for entry in told if entry["kind"] == "log"}

    copied = ("error", "ALG_SMM")  # by the library itself, whatever is chosen

    def test_all_lines_have_every_level_but_that_of_warnings(self):
        self.assertEqual(
            self.lines("all"),
            {("plain", "ALG_SMM"), ("green", "ALG_SMM"), ("cyan", "ALG_SMM"), ("plain", "ALG_SM"), ("yellow", "ALG_SM"),
             ("cyan", "ALG_SM"), self.copied},
        )  # fmt: skip

    def test_a_tag_has_a_level_of_its_own(self):
        self.assertEqual(self.lines("off,ALG_SM=all"), {("plain", "ALG_SM"), ("yellow", "ALG_SM"), ("cyan", "ALG_SM"),
                                                        self.copied})  # fmt: skip

    def test_a_tag_that_is_not_named_has_the_level_of_all(self):
        self.assertEqual(self.lines("cyan,ALG_SMM=off"), {("cyan", "ALG_SM"), self.copied})

    def test_warnings_are_a_level(self):
        with self.camera("--json", "--link-down", "--log-level", "off,ALG_SMM=warn") as camera, camera.link() as link:
            link.send(request(LIST))
            self.assertTrue(link.is_silent())
            told = [json.loads(line) for line in camera.talk().splitlines()]
        self.assertEqual(
            [(entry["level"], entry["message"].split(" > ")[-1]) for entry in told if entry["kind"] == "log"],
            [("warn", "BT state : off")],
        )

    def test_several_levels_are_joined(self):
        self.assertEqual(self.lines("green+yellow"), {("green", "ALG_SMM"), ("yellow", "ALG_SM"), self.copied})

    def test_a_log_file_holds_the_chosen_lines_alone(self):
        path = os.path.join(self.folder, "log")
        with self.camera("--log", f"file:{path}", "--log-level", "off,ALG_SM=yellow") as camera:
            camera.ask(request(LIST))
        with open(path) as file:
            lines = file.read().splitlines()
        self.assertGreater(len(lines), 0)
        for line in lines:
            self.assertTrue(line.startswith("I [ALG_SM    ] "), line)

    def test_an_unknown_tag_is_refused_with_those_that_there_are(self):
        done = run_camera(self.store, "--log-level", "all,ALG_X=warn")
        self.assertEqual(
            (done.returncode, done.stderr.decode()),
            (2, 'shotmentor-camera: --log-level: there is no tag "ALG_X"; there are ALG_SM, ALG_SMM\n'),
        )

    def test_an_unknown_level_is_refused_with_those_that_there_are(self):
        for choice, word in (("loud", "loud"), ("ALG_SM=loud", "loud"), ("warn,", ""), ("all+", "")):
            done = run_camera(self.store, "--log-level", choice)
            self.assertEqual(
                (done.returncode, done.stderr.decode()),
                (2, f'shotmentor-camera: --log-level: there is no level "{word}"; there are off, error, warn, all, '
                    "plain, green, yellow, cyan\n"),
            )  # fmt: skip


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
