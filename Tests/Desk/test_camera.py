"""The camera as a program: several phones, wild phones, its options, its commands and its failures."""

import hashlib
import json
import os
import random
import signal
import socket
import struct
import subprocess
import time
import unittest

from desk import (
    BUSY_FRAME, CAMERA, LIST, PICTURE, REPLY, UPDATE, Closed, DeskTest, Link, Silent, Stored,
    changed, delete_request, get, list_reply, phone_record, picture, picture_request, pictures_of,
    record_to_json, records_in, request, rich_record, run_camera, run_phone, store_request, store_result,
    stored_picture, to_camera, update_request,
)  # fmt: skip

KINDS = ("unix", "tcp")


class Phones(DeskTest):
    """One phone at a time, whatever phones do."""

    def setUp(self):
        super().setUp()
        self.samples()
        self.expected = list_reply(Stored(self.store).as_phone_sees())

    def assertServes(self, camera):
        self.assertEqual(camera.ask(request(LIST)), self.expected)

    def test_a_second_phone_is_told_and_turned_away_while_the_first_goes_on(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera, camera.link() as first:
                self.assertEqual(first.ask(request(LIST)), self.expected)
                for _ in range(3):
                    with Link(camera.url) as second:
                        self.assertEqual(second.receive(), BUSY_FRAME)
                        self.assertRaises(Closed, second.receive)
                self.assertEnds(run_phone(camera.url, "list", wait_for_turn=False), 5)
                self.assertEqual(first.ask(request(LIST)), self.expected)

    def test_a_second_phone_does_not_disturb_a_request_in_the_middle(self):
        for kind in KINDS:
            with self.subTest(kind=kind), self.camera(kind=kind) as camera, camera.link() as first:
                data = request(LIST, bytes(100))
                first.send(data[:50])
                with Link(camera.url) as second:
                    self.assertEqual(second.receive(), BUSY_FRAME)
                first.send(data[50:])
                self.assertEqual(first.receive(), self.expected)

    def test_a_phone_that_leaves_in_the_middle_of_a_request_leaves_nothing_behind(self):
        data = store_request(phone_record(), picture(1, 5000))
        for kind in KINDS:
            with self.camera(kind=kind) as camera:
                for size in (1, 4, 7, 8, 9, 500, 752, 4000, len(data) - 1):
                    with self.subTest(kind=kind, size=size):
                        with camera.link() as link:
                            link.send(data[:size])
                        self.assertServes(camera)

    def test_a_phone_that_leaves_without_reading_leaves_nothing_behind(self):
        custom_id = Stored(self.store).ids()[0]
        for kind in KINDS:
            with self.camera(kind=kind) as camera:
                for count in (1, 3, 12):
                    with self.subTest(kind=kind, count=count):
                        with camera.link() as link:
                            link.socket.settimeout(0.2)
                            try:
                                for _ in range(count):
                                    link.send(picture_request(custom_id))
                            except TimeoutError:
                                pass  # the camera takes no more until somebody reads
                        self.assertServes(camera)

    def test_a_phone_that_reads_late_gets_all_its_replies(self):
        custom_id = Stored(self.store).ids()[0]
        with self.camera(kind="tcp") as camera, camera.link() as link:
            for _ in range(10):
                link.send(picture_request(custom_id))
            time.sleep(0.5)
            replies = [link.receive() for _ in range(10)]
            self.assertEqual(len(set(replies)), 1)
            self.assertEqual(struct.unpack_from("<i", replies[0], 8)[0], custom_id)
            self.assertEqual(link.ask(request(LIST)), self.expected)

    def test_a_phone_that_closes_its_writing_end_still_gets_its_reply(self):
        with self.camera(kind="tcp") as camera, camera.link() as link:
            link.send(request(LIST))
            link.socket.shutdown(socket.SHUT_WR)
            self.assertEqual(link.receive(), self.expected)

    def test_random_bytes_over_many_short_links_do_no_harm(self):
        dice = random.Random(1)
        presets = Stored(self.store).records
        for kind in KINDS:
            camera = self.camera(kind=kind)
            for _ in range(150):
                with camera.link() as link:
                    try:
                        for _ in range(dice.randint(1, 6)):
                            link.send(wild_packet(dice))
                    except OSError:
                        pass  # a camera may close a link that is nonsense
            self.assertServes(camera)
            camera.stop()
            self.assertEqual(Stored(self.store).records, presets)


def wild_packet(dice):
    """Nothing that could change the store: bytes without a sense, or a header with a wild total."""
    if dice.random() < 0.5:
        return b"\xff" + dice.randbytes(dice.randint(1, 2000))
    function = dice.choice((0, 1, 2, 6, 200, 255, 256, 257, -1, dice.randint(6, 1 << 30)))
    total = dice.choice((-1, 0, 7, 8, 9, 12, 600000, 600001, 2147483647, -2147483648, dice.randint(0, 1000)))
    return struct.pack("<ii", function, total) + dice.randbytes(dice.choice((0, 0, 4, 100, 1000)))


class Options(DeskTest):
    """What the options change, and that they change nothing else."""

    def setUp(self):
        super().setUp()
        self.samples()
        self.before = Stored(self.store)
        self.expected = list_reply(self.before.as_phone_sees())

    def at_rest(self, camera):
        camera.stop()
        return Stored(self.store)

    def test_link_down_leaves_a_list_unanswered_and_serves_the_rest(self):
        with self.camera("--link-down") as camera:
            with camera.link() as link:
                link.send(request(LIST))
                self.assertTrue(link.is_silent())
                custom_id = self.before.ids()[0]
                self.assertEqual(struct.unpack_from("<i", link.ask(picture_request(custom_id)), 8)[0], custom_id)
            self.assertEnds(run_phone(camera.url, "--timeout", 1, "list"), 4)

    def test_save_result_is_answered_and_nothing_is_stored(self):
        for result in (-1, 0, 77, -2147483648, 2147483647, 1):
            with self.subTest(result=result):
                camera = self.camera("--save-result", result)
                answer = camera.ask(store_request(phone_record(), picture(1)))
                self.assertEqual(store_result(answer)[0], result)
                self.assertEqual(self.at_rest(camera).records, self.before.records)
                self.assertEqual(len(pictures_of(self.store)), 12)

    def test_update_result_is_answered_and_nothing_is_changed(self):
        for result in (-1, 0, 77, -6):
            with self.subTest(result=result):
                camera = self.camera("--update-result", result)
                answer = camera.ask(update_request(self.before.ids()[0], 1, b"New"))
                self.assertEqual(answer, request(REPLY + UPDATE, struct.pack("<i", result)))
                self.assertEqual(self.at_rest(camera).records, self.before.records)

    def test_the_phone_tells_a_result_that_the_camera_was_told_to_give(self):
        files = self.file("p.json", json.dumps(record_to_json(rich_record()))), self.file("p.jpg", picture(1))
        with self.camera("--save-result", -7, "--update-result", 77) as camera:
            self.assertEnds(run_phone(camera.url, "store", *files), 17)
            self.assertEnds(run_phone(camera.url, "rename", 0, "New"), 30)

    def test_late_and_lost_confirmations_do_not_show_in_the_replies(self):
        for options in (
            ("--confirm-delay", 200),
            ("--drop-confirmations", 1),
            ("--drop-confirmations", 2, "--confirm-delay", 20),
        ):
            with self.subTest(options=options):
                camera = self.camera(*options, kind="tcp")
                with camera.link() as link:
                    for _ in range(30):
                        self.assertEqual(link.ask(request(LIST)), self.expected)
                self.assertEqual(camera.ask(request(LIST)), self.expected)
                camera.kill()  # what is never confirmed is never freed

    def test_packets_are_no_larger_than_mtu(self):
        for mtu in (1, 23, 672, 65535):
            with self.subTest(mtu=mtu), self.camera("--mtu", mtu) as camera, camera.link() as link:
                self.assertEqual(link.ask(request(LIST)), self.expected)
                self.assertEqual(max(link.packet_sizes), min(mtu, len(self.expected)))
                self.assertEqual(len(link.packet_sizes), -(-len(self.expected) // mtu))

    def test_a_large_reply_is_cut_into_packets_of_65535_bytes_unless_told_otherwise(self):
        with self.camera() as camera, camera.link() as link:
            answer = link.ask(picture_request(self.before.ids()[0]))
            self.assertEqual(max(link.packet_sizes), min(65535, len(answer)))

    def test_iso_step_third_reports_the_sensitivity_in_third_steps(self):
        record = phone_record(b"ISO", iso=400, iso_1_3=4)
        camera = self.camera()
        self.assertEqual(store_result(camera.ask(store_request(record, picture(1))))[0], 1)
        stored = self.at_rest(camera)
        self.assertEqual(get(stored.records[-1], "iso"), 3)
        self.assertEqual(get(stored.records[-1], "iso_1_3"), 2)
        for step, iso in (("full", 400), ("third", 125)):
            with self.camera("--iso-step", step) as camera:
                listed = camera.presets()
            self.assertEqual(listed, stored.as_phone_sees(step))
            self.assertEqual(get(listed[-1], "iso"), iso)

    def test_a_refused_allocation_costs_one_request_and_no_more(self):
        for number in range(1, 9):
            with self.subTest(number=number):
                camera = self.camera("--refuse-allocation", number)
                silent = 0
                for _ in range(6):
                    with camera.link() as link:
                        link.send(request(LIST))
                        try:
                            self.assertEqual(link.receive(0.3), self.expected)
                        except Silent:
                            silent += 1
                self.assertEqual(silent, 1)
                camera.stop()

    def test_a_camera_whose_allocations_are_all_refused_stays_alive(self):
        for number in range(1, 6):
            with self.subTest(number=number):
                camera = self.camera("--refuse-allocation", f"{number}+")
                for data in (
                    request(LIST),
                    picture_request(self.before.ids()[0]),
                    store_request(phone_record(), picture(1)),
                ):
                    with camera.link() as link:
                        link.send(data)
                        link.is_silent(0.1)
                camera.stop()

    def test_a_store_without_samples_is_empty(self):
        self.store = os.path.join(self.folder, "empty")
        camera = self.camera("--empty")
        self.assertEqual(camera.ask(request(LIST)), list_reply([]))
        self.assertEqual(self.at_rest(camera).records, [])

    def test_the_samples_show_all_modes_and_keep_the_presets_across_starts(self):
        self.assertEqual(len(self.before.records), 12)
        self.assertLessEqual({0, 1, 2, 3, 4}, {get(record, "mode") for record in self.before.as_phone_sees()})
        for _ in range(2):
            with self.camera() as camera:
                self.assertEqual(camera.ask(request(LIST)), self.expected)

    # ---- Log ----

    def log_of(self, level, *options):
        path = os.path.join(self.folder, f"{level}.log")
        arguments = ("--log-level", level) if level else ()
        with self.camera("--log", f"file:{path}", *arguments, *options, "--link-down") as camera, camera.link() as link:
            link.send(request(LIST))  # warns that the link is down
            link.send(request(9999))  # an error
            link.ask(update_request(self.before.ids()[0], get(self.before.records[0], "server_id"),
                                    get(self.before.records[0], "title").rstrip(b"\0")))  # fmt: skip
        if not os.path.exists(path):
            return ""
        with open(path, errors="replace") as file:
            return file.read()

    def test_the_log_holds_what_its_level_says(self):
        plain, warning, error = "funcN=1\n", "BT state : off", "funcN=9999"
        for level, expected in (
            ("off", ()),
            ("error", (error,)),
            ("warn", (error, warning)),
            ("", (error, warning)),
            ("all", (error, warning, plain)),
        ):
            with self.subTest(level=level):
                log = self.log_of(level)
                for line in (plain.strip(), warning, error):
                    present = any(
                        line in text.replace("\x1b[m", "")
                        for text in log.splitlines()
                        if "9999" in line or "9999" not in text
                    )
                    self.assertEqual(present, line in [text.strip() for text in expected], f"{line!r} in {log!r}")
        self.assertEqual(self.log_of("off"), "")

    def test_the_log_goes_to_standard_error_unless_told_otherwise(self):
        camera = self.camera("--log-level", "all")
        camera.ask(request(LIST))
        camera.process.terminate()
        camera.process.wait(5)
        talk = camera.talk()
        self.assertIn("ADE_ShotMentor_Receive_Manager funcN=1", talk)
        self.assertNotIn("\x1b", talk, "colours where no terminal is")

    def test_a_log_file_that_cannot_be_written_is_told(self):
        self.assertEnds(run_camera(self.store, "--log", f"file:{self.folder}/no/where.log"), 1)


def fingerprint(folder):
    """Every file below a folder with its content."""
    found = {}
    for place, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(place, name)
            if os.path.isfile(path):
                with open(path, "rb") as file:
                    found[os.path.relpath(path, folder)] = hashlib.sha256(file.read()).hexdigest()
    return found


class Commands(DeskTest):
    """The commands that work on a store at rest."""

    def command(self, *arguments, code=0):
        done = run_camera(self.store, *arguments)
        self.assertEnds(done, code)
        return done

    def test_presets_prints_number_id_and_title_of_each_preset(self):
        self.samples()
        text = self.command("presets").stdout.decode()
        stored = Stored(self.store)
        for number, record in enumerate(stored.records):
            title = get(record, "title").rstrip(b"\0").decode()
            line = next(line for line in text.splitlines() if title in line)
            self.assertRegex(line, rf"^\s*{number}\s+{get(record, 'custom_id')}\s")
        self.assertIn("CUSTOM1", text)
        self.assertIn("CUSTOM2", text)

    def test_presets_of_an_empty_store_are_none(self):
        with self.camera("--empty"):
            pass
        self.assertEqual(json.loads(self.command("presets", "--json").stdout), [])
        self.command("presets")

    def test_link_and_unlink_change_what_a_custom_mode_uses(self):
        self.samples()
        self.command("link", "CUSTOM1", 4)
        self.command("link", "CUSTOM2", 9)
        self.assertEqual(Stored(self.store).linked, [4, 9])
        with self.camera() as camera:
            self.assertEqual(
                [get(r, "linked_custom_mode") for r in camera.presets()], [0, 0, 0, 0, 1, 0, 0, 0, 0, 2, 0, 0]
            )
        self.command("unlink", "CUSTOM1")
        with self.camera() as camera:
            self.assertEqual([get(r, "linked_custom_mode") for r in camera.presets()], [0] * 9 + [2, 0, 0])
        self.command("unlink", "CUSTOM2")
        with self.camera() as camera:
            self.assertEqual([get(r, "linked_custom_mode") for r in camera.presets()], [0] * 12)

    def test_both_modes_may_use_one_preset(self):
        self.samples()
        self.command("link", "CUSTOM1", 4)
        self.command("link", "CUSTOM2", 4)
        with self.camera() as camera:
            listed = camera.presets()
            self.assertEqual([get(r, "linked_custom_mode") for r in listed], [0] * 4 + [2] + [0] * 7)
            answer = camera.ask(delete_request((4, get(listed[4], "custom_id"))))
            self.assertEqual(struct.unpack_from("<i", answer, 8)[0], -7)  # CUSTOM2 finds it kept already
            self.assertEqual(len(records_in(answer, head=20)), 12)

    def test_a_custom_mode_keeps_its_preset_when_others_go(self):
        self.samples()
        self.command("link", "CUSTOM1", 4)
        self.command("unlink", "CUSTOM2")
        ids = Stored(self.store).ids()
        self.command("remove", 0)
        self.assertEqual(Stored(self.store).ids(), ids[1:])
        with self.camera() as camera:
            self.assertEqual([get(r, "linked_custom_mode") for r in camera.presets()], [0, 0, 0, 1] + [0] * 7)

    def test_add_takes_a_record_as_bytes_or_as_json(self):
        with self.camera("--empty"):
            pass
        record = to_camera(rich_record())
        image = self.file("p.jpg", picture(1))
        self.command("add", self.file("record.bin", record), image)
        self.command("add", self.file("record.json", json.dumps(record_to_json(record))), image)
        for number, stored in enumerate(Stored(self.store).records):
            custom_id = get(stored, "custom_id")
            own = dict(preset_num=number, custom_id=custom_id, screennail_path=b"pictures/%d.jpg" % custom_id)
            self.assertEqual(stored, changed(record, **own))
            self.assertEqual(stored_picture(self.store, custom_id), picture(1))
        with self.camera() as camera:
            self.assertEqual([get(r, "av_index") for r in camera.presets()], [28, 28])

    def test_add_refuses_what_is_no_record(self):
        self.samples()
        before = fingerprint(self.store)
        image = self.file("p.jpg", picture(1))
        good = self.file("good.bin", to_camera(rich_record()))
        entries = record_to_json(to_camera(rich_record()))
        self.command("add", self.file("short.bin", bytes(739)), image, code=2)
        self.command("add", self.file("long.bin", bytes(744)), image, code=2)
        self.command("add", self.file("x.json", "{}"), image, code=2)
        done = self.command("add", self.file("y.json", json.dumps({**entries, "drive": 1.5}, indent=1)), image, code=2)
        self.assertIn("drive", done.stderr.decode())
        self.command("add", os.path.join(self.folder, "missing"), image, code=1)
        self.command("add", good, os.path.join(self.folder, "missing"), code=1)
        self.assertEqual(fingerprint(self.store), before)

    def test_the_41st_preset_is_not_added(self):
        with self.camera("--empty"):
            pass
        good, image = self.file("good.bin", to_camera(rich_record())), self.file("p.jpg", picture(1))
        for _ in range(40):
            self.command("add", good, image)
        self.command("add", good, image, code=12)
        self.assertEqual(len(Stored(self.store).records), 40)

    def test_remove_takes_the_preset_and_its_picture_away(self):
        self.samples()
        ids = Stored(self.store).ids()
        self.command("remove", 11)
        self.assertEqual(Stored(self.store).ids(), ids[:11])
        self.assertEqual(pictures_of(self.store), sorted(f"{custom_id}.jpg" for custom_id in ids[:11]))

    def test_a_number_that_is_not_there_fails_and_changes_nothing(self):
        self.samples()
        before = Stored(self.store)
        for number in (12, 40, -1):
            self.command("remove", number, code=9)
            self.command("link", "CUSTOM1", number, code=9)
        self.assertEqual((Stored(self.store).records, Stored(self.store).linked), (before.records, before.linked))

    def test_wrong_usage_is_told_apart(self):
        self.samples()
        cases = [
            ("dance",), ("link",), ("link", "CUSTOM3", 1), ("link", "CUSTOM1"), ("link", "CUSTOM1", "x"),
            ("unlink",), ("unlink", "custom"), ("add",), ("add", "x"), ("remove",), ("remove", "x"),
            ("--iso-step", "half"),
            ("--log", "printer"), ("--log-level", "loud"), ("--mtu", 0), ("--mtu", "x"), ("--confirm-delay",
            -1), ("--drop-confirmations", 0),
            ("--save-result", "x"), ("--update-result", "2147483648"), ("--refuse-allocation", 0),
            ("--refuse-allocation", "1-"), ("--nonsense",),
        ]  # fmt: skip
        for arguments in cases:
            with self.subTest(arguments=arguments):
                self.assertEqual(self.command(*arguments, code=2).stdout, b"")

    def test_help_is_data_and_succeeds(self):
        text = self.command("--help").stdout.decode()
        for word in ("presets", "link", "unlink", "add", "remove", "--listen", "--refuse-allocation"):
            self.assertIn(word, text)


class Failures(DeskTest):
    """Where a camera cannot start it says why, and leaves everything as it was."""

    def test_a_store_that_a_camera_has_open_is_in_use(self):
        self.samples()
        with self.camera() as camera:
            self.assertEnds(run_camera(self.store, "--listen", f"unix:{self.folder}/other.sock"), 7)
            for command in (("presets",), ("link", "CUSTOM1", 1), ("unlink", "CUSTOM1"), ("remove", 1)):
                self.assertEnds(run_camera(self.store, *command), 7)
            self.assertEqual(len(camera.presets()), 12)

    def test_a_store_that_is_not_there_is_missing(self):
        for command in (("presets",), ("link", "CUSTOM1", 1), ("unlink", "CUSTOM1"), ("remove", 1)):
            self.assertEnds(run_camera(self.store, *command), 9)
            self.assertFalse(os.path.exists(self.store), "a command made a store")

    def test_a_folder_without_a_store_holds_none(self):
        os.mkdir(self.store)
        self.assertEnds(run_camera(self.store, "presets"), 9)
        self.assertEqual(fingerprint(self.store), {})

    def test_a_store_where_a_file_lies_cannot_be_made(self):
        self.assertEnds(run_camera(self.file("file", "content")), 1)

    def test_a_damaged_database_is_told_and_not_touched(self):
        self.samples()
        path = os.path.join(self.store, "presets.sqlite")
        with open(path, "rb") as file:
            good = file.read()
        damages = {
            "no database": b"this is no database" * 100,
            "cut": good[: len(good) // 2],
            "empty": b"",
            "another database": b"SQLite format 3\0" + bytes(len(good) - 16),
            "page 2 overwritten": good[:4096] + b"\xa5" * 4096 + good[8192:],
            "end overwritten": good[:-1500] + b"\xff" * 1500,
        }
        for name, content in damages.items():
            with self.subTest(damage=name):
                with open(path, "wb") as file:
                    file.write(content)
                before = fingerprint(self.store)
                for arguments in (("presets",), (), ("remove", 0), ("--empty",)):
                    self.assertEnds(run_camera(self.store, *arguments), 8)
                    self.assertEqual(fingerprint(self.store), before)

    def test_a_picture_that_is_missing_is_sent_empty_and_the_camera_serves_on(self):
        self.samples()
        stored = Stored(self.store)
        custom_id = stored.ids()[3]
        os.remove(os.path.join(self.store, "pictures", f"{custom_id}.jpg"))
        done = run_camera(self.store, "presets", "--json")
        if done.returncode == 8:
            return  # told as damage, which it is
        with self.camera() as camera:
            self.assertEqual(
                camera.ask(picture_request(custom_id)), request(REPLY + PICTURE, struct.pack("<i", custom_id))
            )
            self.assertEqual(camera.ask(request(LIST)), list_reply(stored.as_phone_sees()))

    def test_urls_that_name_no_link_are_wrong_usage(self):
        self.samples()
        urls = [
            "", "unix", "unix:", "tcp:", "tcp:host", "tcp:127.0.0.1:99999", "tcp:127.0.0.1:x", "pigeon:1",
            "rfcomm:0", "rfcomm:31", "rfcomm:x", "l2cap:", "unix:" + "x" * 200,
        ]  # fmt: skip
        for url in urls:
            with self.subTest(url=url):
                self.assertEnds(run_camera(self.store, "--listen", url), 2)

    def test_a_port_in_use_cannot_be_listened_on(self):
        self.samples()
        with socket.socket() as other:
            other.bind(("127.0.0.1", 0))
            other.listen()
            self.assertEnds(run_camera(self.store, "--listen", f"tcp:127.0.0.1:{other.getsockname()[1]}"), 3)

    def test_a_socket_in_use_cannot_be_listened_on_and_stays(self):
        self.samples()
        path = os.path.join(self.folder, "taken.sock")
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as other:
            other.bind(path)
            other.listen()
            self.assertEnds(run_camera(self.store, "--listen", f"unix:{path}"), 3)
            self.assertTrue(os.path.exists(path))

    def test_a_file_that_is_no_socket_is_not_replaced(self):
        self.samples()
        path = self.file("precious", "content")
        self.assertEnds(run_camera(self.store, "--listen", f"unix:{path}"), 3)
        with open(path) as file:
            self.assertEqual(file.read(), "content")

    def test_a_folder_that_is_not_there_cannot_hold_a_socket(self):
        self.samples()
        self.assertEnds(run_camera(self.store, "--listen", f"unix:{self.folder}/no/camera.sock"), 3)

    def test_bluetooth_that_the_machine_lacks_cannot_be_listened_on(self):
        bluetooth = getattr(socket, "AF_BLUETOOTH", 31)
        try:
            socket.socket(bluetooth, socket.SOCK_STREAM, 3).close()
        except OSError:
            pass
        else:
            self.skipTest("this machine has Bluetooth")
        self.samples()
        for url in ("rfcomm:5", "l2cap:4097"):
            self.assertEnds(run_camera(self.store, "--listen", url), 3)
        for url in ("rfcomm:00:11:22:33:44:55:5", "l2cap:00:11:22:33:44:55:4097"):
            self.assertEnds(run_phone(url, "list"), 3)


class Ends(DeskTest):
    """How a camera ends, and how it starts again."""

    def setUp(self):
        super().setUp()
        self.samples()

    def test_a_signal_ends_it_in_order_and_removes_its_socket(self):
        for sign in (signal.SIGTERM, signal.SIGINT):
            camera = self.camera()
            path = camera.url[len("unix:") :]
            self.assertEqual(path, os.path.join(self.store, "camera.sock"))
            self.assertTrue(os.path.exists(path))
            camera.stop(sign)
            self.assertFalse(os.path.exists(path))

    def test_without_listen_the_socket_is_in_the_store(self):
        with subprocess.Popen(
            [CAMERA, "--store", self.store], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL
        ) as process:
            self.addCleanup(lambda: process.poll() is None and process.kill())
            line = process.stdout.readline().decode()
            process.terminate()
        self.assertEqual(line, f"listening on unix:{self.store}/camera.sock\n")
        self.assertEqual(process.returncode, 0)

    def test_a_signal_ends_it_with_a_phone_in_the_middle_of_a_request(self):
        for kind in KINDS:
            camera = self.camera("--confirm-delay", 5000, kind=kind)
            with camera.link() as link:
                link.ask(request(LIST))
                link.send(store_request(phone_record(), picture(1))[:500])
                start = time.monotonic()
                camera.stop()
                self.assertLess(time.monotonic() - start, 3)
                self.assertRaises(Closed, link.receive)

    def test_the_socket_of_a_camera_that_was_killed_does_not_stop_the_next_one(self):
        camera = self.camera()
        camera.kill()
        self.assertTrue(os.path.exists(os.path.join(self.store, "camera.sock")))
        with self.camera() as camera:
            self.assertEqual(len(camera.presets()), 12)

    def test_a_relative_store_and_socket_mean_the_folder_that_it_was_started_in(self):
        with subprocess.Popen(
            [CAMERA, "--store", "store", "--listen", "unix:here.sock"],
            cwd=self.folder,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        ) as process:
            self.addCleanup(lambda: process.poll() is None and process.kill())
            self.assertTrue(process.stdout.readline().startswith(b"listening on unix:"))
            with Link(f"unix:{self.folder}/here.sock") as link:
                self.assertEqual(len(records_in(link.ask(request(LIST)))), 12)
                custom_id = get(records_in(link.ask(request(LIST)))[0], "custom_id")
                self.assertGreater(len(link.ask(picture_request(custom_id))), 1000)
            process.terminate()
        self.assertEqual(process.returncode, 0)
        self.assertFalse(os.path.exists(os.path.join(self.folder, "here.sock")))

    def test_a_new_phone_program_can_talk_over_ipv6(self):
        try:
            with socket.socket(socket.AF_INET6) as probe:
                probe.bind(("::1", 0))
        except OSError:
            self.skipTest("this machine has no IPv6")
        with self.camera(url="tcp:[::1]:0") as camera:
            self.assertEnds(run_phone(camera.url, "list"), 0)


if __name__ == "__main__":
    unittest.main()
