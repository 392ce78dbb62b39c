"""Every command of the phone, against the camera and against cameras that break the rules."""

import json
import os
import re
import struct
import subprocess
import time
import unittest

from desk import (
    BUSY_FRAME, DELETE, LIST, OPTIONAL_NAMES, PATIENCE, PHONE, PHONE_RECORD, PICTURE, PRESET_LIMIT, REPLY,
    STATE_OFF, STORE, STYLE_NAMES, UPDATE, DeskTest, FakeCamera, Stored, delete_reply, entries_of,
    environment_of_programs, get, list_reply, phone_record, picture, record_to_json, request, rich_record,
    run_on_terminal, run_phone, stored_picture, what_a_phone_gets,
)  # fmt: skip

ESCAPES = re.compile(r"\x1b\[[0-9;?]*[a-zA-Z]|\x1b[P\]_][^\x1b\x07]*(?:\x1b\\|\x07)|\x1b[()][A-Z0-9]|\x1b.")


def numbers_in(line):
    return [int(number) for number in re.findall(r"-?\d+", line)]


def rows_of(text):
    """Number and id of each row of a list, as far as it begins with two numbers."""
    return [(int(a), int(b)) for a, b in re.findall(r"^\s*(\d+)\s+(\d+)\s", text, re.MULTILINE)]


class AgainstTheCamera:
    """The commands, over any link."""

    kind = ""

    def setUp(self):
        super().setUp()
        self.samples()
        self.before = Stored(self.store)
        self.seen = self.before.as_phone_sees()
        self.serving = self.camera(kind=self.kind)

    def phone(self, *arguments, code=0, **more):
        done = run_phone(self.serving.url, *arguments, **more)
        self.assertEnds(done, code)
        return done

    def json(self, *arguments):
        return json.loads(self.phone("--json", "--raw", *arguments).stdout)

    def at_rest(self):
        self.serving.stop()
        return Stored(self.store)

    def preset_file(self, record=None, name="preset.json", **entries):
        return self.file(name, json.dumps({**record_to_json(record or rich_record()), **entries}, indent=2))

    # ---- Reading ----

    def test_list_shows_number_id_and_title_of_each_preset(self):
        text = self.phone("list").stdout.decode()
        self.assertEqual(rows_of(text), list(enumerate(self.before.ids())))
        lines = [line for line in text.splitlines() if re.match(r"\s*\d+\s+\d+\s", line)]
        for line, record in zip(lines, self.seen, strict=True):
            self.assertIn(get(record, "title").rstrip(b"\0").decode()[:8], line)

    def test_list_as_json_holds_every_field_as_it_travels(self):
        self.assertEqual(self.json("list")["presets"], [record_to_json(record) for record in self.seen])
        self.assertEqual(self.json("list")["model"], "KT7")

    def test_show_as_json_holds_every_field_as_it_travels(self):
        for number in (0, 5, 11):
            self.assertEqual(
                entries_of(self.phone("--json", "--raw", "show", number).stdout),
                record_to_json(self.seen[number]),
            )

    def test_show_tells_one_preset_in_words(self):
        for number, record in enumerate(self.seen):
            text = self.phone("show", number).stdout.decode()
            self.assertIn(get(record, "title").rstrip(b"\0").decode(), text)
            if get(record, "mode") in (2, 4):
                self.assertIn(f"f/{get(record, 'av_index') / 10:g}", text)

    def test_raw_shows_the_codes_as_they_travel(self):
        for arguments in (("show", 3, "--raw"), ("--raw", "show", 3)):
            text = self.phone(*arguments).stdout.decode()
            shown = {}
            for line in text.splitlines():
                name, _, value = line.strip().partition(" ")
                shown[name.rstrip(":")] = value.strip()
            entries = record_to_json(self.seen[3])
            for name in (
                "mode",
                "av_index",
                "tv_index",
                "iso",
                "iso_1_3",
                "ev_step",
                "custom_id",
                "made_id",
                "k_value",
            ):
                self.assertEqual(shown.get(name), str(entries[name]), f"{name} in {text}")

    def test_picture_saves_the_first_two_streams_of_the_stored_picture(self):
        for number in (0, 7):
            target = os.path.join(self.folder, f"{number}.jpg")
            self.phone("picture", number, "-o", target)
            with open(target, "rb") as file:
                saved = file.read()
            stored = stored_picture(self.store, self.before.ids()[number])
            self.assertEqual(saved, what_a_phone_gets(stored))
            self.assertEqual(saved.count(b"\xff\xd8\xff\xdb"), 2)

    def test_pictures_in_the_terminal_do_not_change_the_data(self):
        self.phone("list", "--pictures")
        self.phone("show", 0, "--picture")

    # ---- Changing ----

    def test_store_prints_number_and_id_of_the_new_preset(self):
        done = self.phone("store", self.preset_file(), self.file("new.jpg", picture(3, 5000)))
        after = self.at_rest()
        self.assertEqual(len(after.records), 13)
        custom_id = after.ids()[12]
        self.assertIn(12, numbers_in(done.stdout.decode()))
        self.assertIn(custom_id, numbers_in(done.stdout.decode()))
        self.assertEqual(stored_picture(self.store, custom_id), picture(3, 5000))
        self.assertEqual(get(after.records[12], "title"), get(rich_record(), "title"))
        self.assertEqual(get(after.records[12], "cs_hue"), get(rich_record(), "cs_hue"))

    def test_a_shown_preset_can_be_stored_again_and_gives_the_same_preset(self):
        # The camera takes `iso_1_3` for a position where it gave an ISO number, scales colours in steps, and
        # puts a preset of its own maker without a smart filter into style C4: so far the protocol lets them differ.
        # It gives the copy an identity of its own, and no custom mode uses it.
        own = ["preset_num", "custom_id", "screennail_path", "linked_custom_mode", "iso_1_3"]
        image = self.file("new.jpg", picture(3))
        shown = self.json("list")["presets"]
        self.serving.stop()
        for number in (0, 1, 5, 7, 11):
            # A fresh camera and no list before: one that ends in shutter mode costs the aperture.
            self.serving = self.camera(kind=self.kind)
            file = self.file("shown.json", json.dumps(shown[number]))
            self.phone("store", file, image)
            again = self.json("list")["presets"][-1]
            self.serving.stop()
            expected = json.loads(json.dumps(shown[number]))
            self.assertEqual((expected["made_id"] & 0xFF0, expected["smart_filter"]), (0x140, 0))
            expected["cs_info"].update(color_style=13, cs_color_off_color=-1)
            for name in own:
                again.pop(name), expected.pop(name)
            for scaled, exact in zip(
                again["cs_info"].pop("cs_color"), expected["cs_info"].pop("cs_color"), strict=True
            ):
                for a, b in zip(scaled, exact, strict=True):
                    self.assertLessEqual(abs(a - b), 2)
            self.assertEqual(again, expected)

    def test_what_a_preset_file_may_leave_out_means_0(self):
        entries = record_to_json(rich_record())
        for name in OPTIONAL_NAMES:
            del entries[name]
        self.phone("store", self.file("short.json", json.dumps(entries)), self.file("p.jpg", picture(1)))
        stored = self.at_rest().records[-1]
        self.assertEqual(get(stored, "server_id"), 0)
        self.assertEqual(get(stored, "applocal_id"), 0)
        self.assertEqual(get(stored, "reserved_636"), [0] * 6)

    def test_a_title_of_any_bytes_survives_the_preset_file(self):
        title = bytes(range(128, 180))
        entry = {"bytes": title.hex()}
        self.phone("store", self.preset_file(title=entry), self.file("p.jpg", picture(1)))
        self.assertEqual(self.json("show", 12)["title"], entry)
        shown = self.phone("show", 12).stdout
        self.assertEqual(shown.decode("utf-8").encode(), shown, "text that is no UTF-8")
        self.assertEqual(get(self.at_rest().records[-1], "title"), title)

    def test_a_title_with_control_characters_does_not_reach_the_terminal(self):
        title = b"evil\x1b[31m\x07\r\n\x9b2Jend"
        self.phone(
            "store",
            self.preset_file(title={"bytes": title.ljust(52, b"\0").hex()}),
            self.file("p.jpg", picture(1)),
        )
        for arguments in (("list",), ("show", 12)):
            text = self.phone(*arguments).stdout
            self.assertNotRegex(text, rb"[\x00-\x09\x0b-\x1f\x7f]")
            text.decode("utf-8")

    def test_rename_changes_title_and_keeps_or_sets_the_server_identity(self):
        ids = self.before.ids()
        self.phone("rename", f"id:{ids[1]}", "Blue hour ☾")
        self.phone("rename", 2, "Night", "--server-id", 815)
        after = self.at_rest().records
        self.assertEqual(get(after[1], "title"), "Blue hour ☾".encode().ljust(52, b"\0"))
        self.assertEqual(get(after[2], "title"), b"Night".ljust(52, b"\0"))
        self.assertEqual(get(after[2], "server_id"), 815)

    def test_rename_without_a_server_identity_keeps_the_one_that_is_there(self):
        self.phone("rename", 2, "First", "--server-id", 815)
        self.phone("rename", 2, "Second")
        self.assertEqual(get(self.at_rest().records[2], "server_id"), 815)

    def test_rename_refuses_a_title_that_does_not_fit(self):
        self.phone("rename", 2, "x" * 53, code=2)
        self.assertEqual(self.at_rest().records, self.before.records)

    def free_numbers(self):
        return [number for number in range(12) if number not in self.before.linked]

    def left_without(self, *numbers):
        return [custom_id for number, custom_id in enumerate(self.before.ids()) if number not in numbers]

    def test_delete_removes_a_free_preset(self):
        number = self.free_numbers()[0]
        self.phone("delete", number)
        self.assertEqual(self.at_rest().ids(), self.left_without(number))

    def test_delete_removes_several_presets_at_once(self):
        first, *_, last = self.free_numbers()
        self.phone("delete", last, first)
        self.assertEqual(self.at_rest().ids(), self.left_without(first, last))

    def test_delete_keeps_a_preset_that_custom1_or_custom2_uses_and_says_so(self):
        for mode, name in ((0, "CUSTOM1"), (1, "CUSTOM2")):
            done = self.phone("delete", self.before.linked[mode], code=17)
            self.assertIn(name, (done.stdout + done.stderr).decode())
        self.assertEqual(self.at_rest().ids(), self.before.ids())

    def test_delete_keeps_the_presets_of_both_modes_and_removes_the_others(self):
        free = self.free_numbers()[0]
        self.phone("delete", *self.before.linked, free, code=18)
        after = self.at_rest()
        self.assertEqual(after.ids(), self.left_without(free))

    def test_leave_is_taken_without_an_answer(self):
        self.phone("leave")
        self.phone("leave", "--code", -10)
        self.phone("list")

    # ---- Failing ----

    def test_a_number_that_is_not_there_fails_and_changes_nothing(self):
        for arguments in (
            ("show", 12),
            ("show", 40),
            ("picture", 12, "-o", os.path.join(self.folder, "x.jpg")),
            ("rename", 12, "Nobody"),
            ("delete", 12),
        ):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.phone(*arguments, code=9).stdout, b"")
        free = self.free_numbers()[0]
        self.phone("delete", free, 12, code=9)
        self.assertFalse(os.path.exists(os.path.join(self.folder, "x.jpg")))
        self.assertEqual(self.at_rest().records, self.before.records)

    def test_a_full_camera_refuses_the_41st_preset(self):
        files = self.preset_file(), self.file("p.jpg", picture(1))
        for _ in range(PRESET_LIMIT - 12):
            self.phone("store", *files)
        self.assertEqual(self.phone("store", *files, code=12).stdout, b"")
        self.assertEqual(len(self.at_rest().records), PRESET_LIMIT)


class OverAUnixSocket(AgainstTheCamera, DeskTest):
    kind = "unix"


class OverTcp(AgainstTheCamera, DeskTest):
    kind = "tcp"


class Files(DeskTest):
    """Preset files and pictures. What is wrong is found before anything is sent."""

    def setUp(self):
        super().setUp()
        self.image = self.file("good.jpg", picture(1))

    def refuse(self, preset, image, *parts):
        """The phone refuses the files with exit code 2, sends no preset, and names the parts in one line."""
        with FakeCamera(self.folder, lambda function, _: FakeCamera.CLOSE) as camera:
            done = run_phone(camera.url, "--timeout", 5, "store", preset, image)
            self.assertEnds(done, 2)
            self.assertEqual([data[:4] for data in camera.requests if data[:4] == struct.pack("<i", STORE)], [])
        talk = done.stderr.decode()
        self.assertTrue(
            any(all(re.search(part, line) for part in parts) for line in talk.splitlines()),
            f"{parts} in {talk!r}",
        )

    def preset(self, change):
        """A preset file that somebody has edited: the text, and what `change` makes of it."""
        return change(json.dumps(record_to_json(rich_record()), indent=2))

    def line_of(self, text, entry):
        return next(number for number, line in enumerate(text.splitlines(), 1) if f'"{entry}"' in line)

    def edited(self, entry, value):
        """The file with the value of one entry replaced, and the entry's line."""
        text = re.sub(rf'("{entry}": )("[^"]*"|-?\d+)', lambda found: found.group(1) + value, self.preset(str), count=1)
        self.assertIn(value, text)
        return self.file("edited.json", text), self.line_of(text, entry)

    def test_a_value_that_does_not_fit_is_named_with_its_line(self):
        cases = [
            ("av_index", "2147483648"), ("tv_index", "-2147483649"), ("iso", "1e3"), ("drive", "1.5"),
            ("hdr", '"on"'), ("flash", "null"), ("bulb", "[1]"), ("title", json.dumps("x" * 53)), ("title",
            "5"),
            ("title", '{"bytes": "00"}'), ("title", '{"bytes": "zz"}'), ("color_style", "true"),
            ("smart_filter", "99999999999999999999999"),
        ]  # fmt: skip
        for entry, value in cases:
            with self.subTest(entry=entry, value=value):
                path, line = self.edited(entry, value)
                self.refuse(path, self.image, entry, rf"\b{line}\b", r"edited\.json")

    def test_an_unknown_entry_is_named_with_its_line(self):
        text = self.preset(lambda text: text.replace('"metering"', '"meterings": 1,\n  "metering"'))
        self.refuse(self.file("x.json", text), self.image, "meterings", rf"\b{self.line_of(text, 'meterings')}\b")

    def test_an_unknown_colour_style_entry_is_named_with_its_line(self):
        text = self.preset(lambda text: text.replace('"color_style"', '"colour": 1,\n    "color_style"'))
        self.refuse(self.file("x.json", text), self.image, "colour", rf"\b{self.line_of(text, 'colour')}\b")

    def test_an_entry_that_is_given_twice_is_named_with_its_line(self):
        text = self.preset(lambda text: text.replace('"metering"', '"drive": 1,\n  "metering"'))
        second = [number for number, line in enumerate(text.splitlines(), 1) if '"drive"' in line]
        self.refuse(self.file("x.json", text), self.image, "drive", rf"\b({second[0]}|{second[1]})\b")

    def test_each_missing_entry_is_named(self):
        entries = record_to_json(rich_record())
        for name in [name for name in entries if name not in ("form", *OPTIONAL_NAMES)]:
            with self.subTest(name=name):
                less = {key: value for key, value in entries.items() if key != name}
                self.refuse(self.file("x.json", json.dumps(less)), self.image, name)
        for name in STYLE_NAMES:
            with self.subTest(name=name):
                style = {key: value for key, value in entries["cs_info"].items() if key != name}
                self.refuse(self.file("x.json", json.dumps({**entries, "cs_info": style})), self.image, name)

    def test_an_array_of_the_wrong_length_is_named(self):
        entries = record_to_json(rich_record())
        for name in ("cs_color", "cs_saturation", "cs_hue"):
            for value in (
                entries["cs_info"][name][:-1],
                [*entries["cs_info"][name], entries["cs_info"][name][0]],
                [],
            ):
                style = {**entries["cs_info"], name: value}
                self.refuse(self.file("x.json", json.dumps({**entries, "cs_info": style})), self.image, name)
        style = {**entries["cs_info"], "cs_color": [[1, 2]] * 13}
        self.refuse(self.file("x.json", json.dumps({**entries, "cs_info": style})), self.image, "cs_color")

    def test_all_faults_of_a_file_are_named_at_once(self):
        entries = record_to_json(rich_record())
        del entries["mode"]
        text = json.dumps({**entries, "drive": 1.5, "surprise": 1}, indent=1)
        with FakeCamera(self.folder, lambda function, _: FakeCamera.CLOSE) as camera:
            done = run_phone(camera.url, "store", self.file("x.json", text), self.image)
        self.assertEnds(done, 2)
        for name in ("mode", "drive", "surprise"):
            self.assertIn(name, done.stderr.decode())

    def test_text_that_is_no_json_is_refused_with_its_line(self):
        for text, line in (
            ("", 1),
            ('{\n  "mode": 1,\n  oops\n}', 3),
            ("[1, 2", 1),
            ("{} {}", 1),
            ("\xff\xfe", 1),
        ):
            with self.subTest(text=text):
                path = self.file("x.json", text.encode("latin-1"))
                self.refuse(path, self.image, r"x\.json", rf"\b{line}\b")
        for text in ("5", "[]", '"text"', "null", "{}"):
            with self.subTest(text=text):
                self.refuse(self.file("x.json", text), self.image, r"x\.json")
        self.refuse(self.file("deep.json", "[" * 100000), self.image, r"deep\.json")

    def test_a_picture_that_is_no_jpeg_is_refused(self):
        preset = self.file("good.json", self.preset(str))
        pictures = {
            "empty": b"", "text": b"this is no picture " * 10, "png": b"\x89PNG\r\n\x1a\n" + bytes(200),
            "start": b"\xff\xd8\xff" + bytes(200), "cut": picture(1)[:200], "short": b"\xff\xd8\xff\xd9",
        }  # fmt: skip
        for name, content in pictures.items():
            with self.subTest(name=name):
                self.refuse(preset, self.file(f"{name}.jpg", content), rf"{name}\.jpg")

    def test_a_picture_that_makes_the_request_too_large_is_refused(self):
        preset = self.file("good.json", self.preset(str))
        self.refuse(preset, self.file("huge.jpg", picture(1, 600000 - 8 - PHONE_RECORD + 1)), r"huge\.jpg|600000")

    def test_files_that_cannot_be_read_fail_this_machine(self):
        preset = self.file("good.json", self.preset(str))
        missing = os.path.join(self.folder, "missing")
        for files in (
            (missing, self.image),
            (preset, missing),
            (self.folder, self.image),
            (preset, self.folder),
        ):
            with self.subTest(files=files), FakeCamera(self.folder, lambda *_: FakeCamera.CLOSE) as camera:
                self.assertEnds(run_phone(camera.url, "store", *files), 1)

    def test_a_picture_that_cannot_be_saved_fails_this_machine(self):
        answers = {
            LIST: list_reply([phone_record(custom_id=3)]),
            PICTURE: request(REPLY + PICTURE, struct.pack("<i", 3) + picture(1)),
        }
        with FakeCamera(self.folder, lambda function, _: answers[function]) as camera:
            self.assertEnds(run_phone(camera.url, "picture", 0, "-o", os.path.join(self.folder, "no", "where.jpg")), 1)


class AgainstCamerasThatBreakTheRules(DeskTest):
    """What the phone sends, byte for byte, and what it makes of each answer."""

    RECORDS = [
        phone_record(b"One", custom_id=31, preset_num=0),
        phone_record(b"Two", custom_id=32, preset_num=1),
    ]
    GOOD = {
        LIST: list_reply(RECORDS),
        PICTURE: request(REPLY + PICTURE, struct.pack("<i", 32) + picture(1)),
        STORE: request(REPLY + STORE, struct.pack("<iiii", 1, 2, 33, 0)),
        UPDATE: request(REPLY + UPDATE, struct.pack("<i", 1)),
        DELETE: delete_reply(1, RECORDS[:1]),
    }

    def setUp(self):
        super().setUp()
        preset = self.file("p.json", json.dumps(record_to_json(rich_record())))
        self.commands = {
            LIST: ("list",),
            PICTURE: ("picture", 1, "-o", os.path.join(self.folder, "saved.jpg")),
            STORE: ("store", "--unchecked", preset, self.file("p.jpg", picture(1))),
            UPDATE: ("rename", 1, "Renamed"),
            DELETE: ("delete", 1),
        }

    def talk(self, function, *options, **answers):
        """Runs the command of a request against a camera that gives this answer to it, and good ones else."""
        given = {**self.GOOD, function: answers.get("answer", self.GOOD[function])}
        with FakeCamera(self.folder, lambda asked, _: given[asked]) as camera:
            return run_phone(camera.url, *options, *self.commands[function]), camera

    def test_store_sends_the_record_and_the_picture(self):
        done, camera = self.talk(STORE)
        self.assertEnds(done, 0)
        self.assertEqual(camera.request_of(STORE), request(STORE, rich_record() + picture(1)))
        self.assertIn(2, numbers_in(done.stdout.decode()))
        self.assertIn(33, numbers_in(done.stdout.decode()))

    def test_picture_sends_the_id_of_the_preset_at_the_number(self):
        done, camera = self.talk(PICTURE)
        self.assertEnds(done, 0)
        self.assertEqual(camera.request_of(PICTURE)[:12], struct.pack("<iii", PICTURE, 16, 32))

    def test_rename_sends_id_and_title(self):
        done, camera = self.talk(UPDATE)
        self.assertEnds(done, 0)
        sent = camera.request_of(UPDATE)
        self.assertEqual(len(sent), 8 + PHONE_RECORD)
        self.assertEqual(get(sent[8:], "custom_id"), 32)
        self.assertEqual(get(sent[8:], "title"), b"Renamed".ljust(52, b"\0"))

    def test_delete_sends_number_and_id_of_each_preset(self):
        done, camera = self.talk(DELETE)
        self.assertEnds(done, 0)
        self.assertEqual(camera.request_of(DELETE), request(DELETE, struct.pack("<ii", 1, 32)))

    def test_leave_sends_its_code(self):
        for arguments, code in ((("leave",), 1), (("leave", "--code", -11), -11)):
            with FakeCamera(self.folder, lambda *_: None) as camera:
                self.assertEnds(run_phone(camera.url, *arguments), 0)
                camera.thread.join(PATIENCE)
                self.assertEqual(camera.request_of(STATE_OFF), request(STATE_OFF, struct.pack("<i", code)))

    def test_packets_are_no_larger_than_asked_for(self):
        for options, limit in (((), 4096), (("--mtu", 100), 100), (("--mtu", 1), 1)):
            done, camera = self.talk(STORE, *options)
            self.assertEnds(done, 0)
            self.assertEqual(max(camera.packet_sizes), min(limit, 8 + PHONE_RECORD + 400))
            self.assertEqual(camera.request_of(STORE), request(STORE, rich_record() + picture(1)))

    def test_each_result_has_its_exit_code(self):
        table = {
            0: 10,
            -1: 11,
            -2: 12,
            -3: 13,
            -4: 14,
            -5: 15,
            -6: 16,
            -7: 17,
            -8: 18,
            -9: 19,
            -10: 20,
            -11: 21,
            -12: 22,
        }
        table.update({2: 30, 77: 30, -13: 30, -2147483648: 30, 2147483647: 30})
        for result, code in table.items():
            with self.subTest(result=result):
                done, _ = self.talk(STORE, answer=request(REPLY + STORE, struct.pack("<iiii", result, 0, 0, 0)))
                self.assertEnds(done, code)
                done, _ = self.talk(UPDATE, answer=request(REPLY + UPDATE, struct.pack("<i", result)))
                self.assertEnds(done, code)
                done, _ = self.talk(DELETE, answer=delete_reply(result, self.RECORDS))
                self.assertEnds(done, code)

    def test_silence_ends_with_the_time_that_was_given(self):
        for function in self.commands:
            with self.subTest(function=function):
                start = time.monotonic()
                done, _ = self.talk(function, "--timeout", 1, answer=None)
                self.assertEnds(done, 4)
                self.assertLess(time.monotonic() - start, 3.5)
                self.assertGreater(time.monotonic() - start, 0.9)

    def test_a_link_that_closes_before_or_in_an_answer_breaks_the_protocol(self):
        for function in self.commands:
            for answer in (FakeCamera.CLOSE, (self.GOOD[function][:9],), (self.GOOD[function][:-1],)):
                with self.subTest(function=function, answer=answer):
                    self.assertEnds(self.talk(function, "--timeout", 5, answer=answer)[0], 6)

    def test_answers_that_the_protocol_does_not_promise_are_refused(self):
        two = b"".join(self.RECORDS)
        wrong = {
            LIST: [
                self.GOOD[UPDATE], request(REPLY + LIST), request(REPLY + LIST, struct.pack("<12sii",
                b"KT7", 1, 2) + two[:-1]),
                request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, 3) + two),
                request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, 1) + two),
                request(REPLY + LIST, struct.pack("<12sii", b"KT7", 2, 2) + two),
                request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, -1)),
                request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, 41) + bytes(41 * PHONE_RECORD)),
                struct.pack("<ii", REPLY + LIST, 7), struct.pack("<ii", REPLY + LIST, -1),
                struct.pack("<ii", REPLY + LIST, 2147483647),
            ],
            PICTURE: [self.GOOD[LIST], request(REPLY + PICTURE), request(REPLY + PICTURE, b"abc")],
            STORE: [self.GOOD[LIST], request(REPLY + STORE, struct.pack("<iii", 1, 2, 3)),
            request(REPLY + STORE, bytes(20))],
            UPDATE: [self.GOOD[LIST], request(REPLY + UPDATE), request(REPLY + UPDATE, bytes(8))],
            DELETE: [
                self.GOOD[LIST], request(REPLY + DELETE, struct.pack("<i", 1)), delete_reply(1,
                self.RECORDS)[:8] + bytes(4),
                request(REPLY + DELETE, struct.pack("<iii", 1, 2, 0)), request(REPLY + DELETE,
                struct.pack("<iii", 1, 1, 1)),
                request(REPLY + DELETE, struct.pack("<iii", 1, 1, 0) + bytes(7)),
                request(REPLY + DELETE, struct.pack("<iii", 1, 1, 0) + bytes(24)),
            ],
        }  # fmt: skip
        for function, answers in wrong.items():
            for number, answer in enumerate(answers):
                with self.subTest(function=function, number=number):
                    done, _ = self.talk(function, "--timeout", 1, answer=answer)
                    # An answer that announces more than it holds is one that never becomes whole.
                    announced = struct.unpack_from("<i", answer, 4)[0]
                    self.assertIn(done.returncode, (4, 6) if len(answer) < announced < 1 << 30 else (6,), done.stderr)

    def test_a_picture_of_another_preset_is_refused(self):
        done, _ = self.talk(PICTURE, answer=request(REPLY + PICTURE, struct.pack("<i", 31) + picture(1)))
        self.assertEnds(done, 6)

    def test_a_busy_camera_turns_the_phone_away(self):
        for arguments in self.commands.values():
            with FakeCamera(self.folder, lambda *_: None, greeting=BUSY_FRAME) as camera:
                self.assertEnds(run_phone(camera.url, *arguments, wait_for_turn=False), 5)

    def test_a_camera_that_is_not_there_cannot_be_connected_to(self):
        for url in (f"unix:{self.folder}/nobody.sock", "tcp:127.0.0.1:1"):
            self.assertEnds(run_phone(url, "list"), 3)

    def test_wrong_usage_is_told_apart(self):
        url = f"unix:{self.folder}/nobody.sock"
        cases = [
            (), ("dance",), ("show",), ("show", ""), ("show", -1), ("show", "id:one"), ("picture", 0),
            ("picture", 0, 1, "-o", "x"), ("store", "a.json"), ("rename", 3), ("rename", "id:x", "y"),
            ("delete",), ("delete", 1, ""), ("delete", "id:"), ("--timeout", "soon", "list"),
            ("--timeout", -1, "list"), ("--mtu", 0, "list"),
            ("--width", "wide", "list"), ("--nonsense", "list"),
            ("leave", "--code", "x"),
        ]  # fmt: skip
        for arguments in cases:
            with self.subTest(arguments=arguments):
                done = run_phone(url, *arguments)
                self.assertEnds(done, 2)
                self.assertEqual(done.stdout, b"")

    def test_urls_that_name_no_link_are_wrong_usage(self):
        urls = [
            "", "unix", "unix:", "tcp:", "tcp:host", "tcp:host:", "tcp:host:99999", "tcp::0x1",
            "smoke:signal", "rfcomm:31", "rfcomm:00:11:22:33:44:5:1", "l2cap:x", "unix:" + "x" * 200,
        ]  # fmt: skip
        for url in urls:
            with self.subTest(url=url):
                self.assertEnds(run_phone(url, "list"), 2)

    def test_help_is_data_and_succeeds(self):
        done = subprocess.run([PHONE, "--help"], capture_output=True, timeout=PATIENCE)
        self.assertEnds(done, 0)
        for command in ("list", "show", "picture", "store", "rename", "delete", "leave"):
            self.assertIn(command, done.stdout.decode())


class Mistyped(DeskTest):
    """A command or an option that there is not is answered with the one that was probably meant."""

    def talk_of(self, *arguments):
        done = run_phone("unix:/nowhere.sock", *arguments)
        self.assertEnds(done, 2)
        self.assertEqual(done.stdout, b"")
        self.assertEqual(done.stderr.count(b"\n"), 1)
        return done.stderr.decode()

    def assertMeant(self, meant, word, *arguments):
        with self.subTest(arguments=arguments):
            self.assertIn(f" {word}; did you mean {meant}?", self.talk_of(*arguments))

    def test_commands(self):
        for meant, words in {
            "list": ("lst", "lits", "List", "liste"), "show": ("shwo", "sho"), "rename": ("renmae", "renam"),
            "delete": ("deletee", "dleete"), "picture": ("pictures",),
        }.items():  # fmt: skip
            for word in words:
                self.assertMeant(meant, word, word)
                self.assertMeant(meant, word, word, 1, "--json")

    def test_options_of_the_phone(self):
        self.assertMeant("--json", "--jsno", "--jsno", "list")
        self.assertMeant("--json", "--jsno", "list", "--jsno")
        self.assertMeant("--timeout", "--timout", "--timout", 5, "list")
        self.assertMeant("--timeout", "--timout", "--timout=5", "list")

    def test_options_of_a_command(self):
        self.assertMeant("--pictures", "--pictuers", "list", "--pictuers")
        self.assertMeant("--picture", "--pictures", "show", 1, "--pictures")
        self.assertMeant("--dry-run", "--dryrun", "delete", 1, "--dryrun")

    def test_an_option_of_another_command_is_not_offered(self):
        self.assertNotIn("did you mean", self.talk_of("list", "--dry-rnu"))

    def test_what_is_like_nothing_is_named_alone(self):
        for word in ("dance", "x", "--nonsense", "-x", "\N{BLACK STAR}"):
            talk = self.talk_of(word, "list") if word.startswith("-") else self.talk_of(word)
            self.assertIn(f" {word}; see shotmentor-phone --help", talk)

    def test_names_of_presets_are_no_options(self):
        self.assertNotIn("did you mean", self.talk_of("picture", "--", "--jsno", "--jsno"))


class Connecting(DeskTest):
    """SHOTMENTOR_CONNECT stands for --connect."""

    NOWHERE = "unix:/nowhere.sock"

    def phone(self, *arguments, connect=None):
        environment = environment_of_programs(**({} if connect is None else {"SHOTMENTOR_CONNECT": connect}))
        return subprocess.run(
            [PHONE, *arguments],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=PATIENCE,
            env=environment,
        )

    def assertUsage(self, done, *parts):
        self.assertEnds(done, 2)
        self.assertEqual(done.stdout, b"")
        self.assertEqual(done.stderr.count(b"\n"), 1)
        for part in parts:
            self.assertIn(part, done.stderr.decode())

    def assertLists(self, *arguments, **more):
        """Lists the presets of a camera, whose URL is put in the place of HERE."""
        records = [phone_record(b"Here", custom_id=3)]
        with FakeCamera(self.folder, lambda *_: list_reply(records)) as camera:
            given = [word.replace("HERE", camera.url) for word in arguments]
            done = self.phone(
                "--json",
                "--raw",
                "list",
                *given,
                **{k: v.replace("HERE", camera.url) for k, v in more.items()},
            )
        self.assertEnds(done, 0)
        self.assertEqual(json.loads(done.stdout)["presets"], [record_to_json(record) for record in records])

    def test_the_environment_names_the_camera_where_the_option_does_not(self):
        self.assertLists(connect="HERE")

    def test_the_option_wins_over_the_environment(self):
        self.assertLists("--connect", "HERE", connect=self.NOWHERE)
        self.assertLists("--connect=HERE", connect="no URL")
        self.assertUsage(self.phone("--connect", "", "list", connect=self.NOWHERE))

    def test_without_either_the_error_names_both(self):
        for environment in ({}, {"connect": ""}):
            for arguments in ((), ("list",), ("show", "1"), ("show",)):
                with self.subTest(arguments=arguments, environment=environment):
                    self.assertUsage(self.phone(*arguments, **environment), "--connect", "SHOTMENTOR_CONNECT")

    def test_an_environment_that_names_no_link_is_named(self):
        self.assertUsage(self.phone("list", connect="smoke:signal"), "SHOTMENTOR_CONNECT", "smoke:signal")
        for arguments in (("--connect", "smoke:signal"), ("--connect=smoke:signal",)):
            done = self.phone("list", *arguments, connect=self.NOWHERE)
            self.assertUsage(done, "smoke:signal")
            self.assertNotIn(b"SHOTMENTOR_CONNECT", done.stderr)

    def test_a_camera_of_the_environment_that_is_not_there_cannot_be_connected_to(self):
        self.assertEnds(self.phone("list", connect=self.NOWHERE), 3)

    def test_what_needs_no_camera_takes_no_notice_of_the_environment(self):
        for arguments in (("--help",), ("--version",), ("check", "--list-checks")):
            done = self.phone(*arguments, connect="smoke:signal")
            self.assertEnds(done, 0)
            self.assertEqual(done.stdout, self.phone(*arguments).stdout)

    def test_the_man_page_names_the_variable(self):
        page = self.phone("--reference", "man").stdout.decode()
        self.assertIn("SHOTMENTOR_CONNECT", page[page.index(".SH ENVIRONMENT") : page.index(".SH EXIT STATUS")])


class Talking(DeskTest):
    """--quiet leaves only errors on standard error, --verbose adds a line for each request and each reply."""

    ANSWERS = {
        LIST: list_reply([phone_record(b"Dusk", custom_id=3)]),
        PICTURE: request(REPLY + PICTURE, struct.pack("<i", 3) + picture(1)),
        STORE: request(REPLY + STORE, struct.pack("<iiii", 1, 1, 4, 0)),
        UPDATE: request(REPLY + UPDATE, struct.pack("<i", 1)),
        DELETE: delete_reply(1, []),
    }

    def setUp(self):
        super().setUp()
        self.target = os.path.join(self.folder, "saved.jpg")

    def phone(self, *arguments, code=0, answers=ANSWERS):
        with FakeCamera(self.folder, lambda function, _: answers[function]) as camera:
            done = run_phone(camera.url, *arguments)
        self.assertEnds(done, code)
        return done

    def traffic(self, *arguments, **more):
        """What --verbose tells: `request` or `reply`, number, command and bytes of each, in order of time."""
        lines = self.phone("--verbose", *arguments, **more).stderr.decode().splitlines()
        line = re.compile(r"(\d+\.\d{3}) s: (request|reply) (0x[0-9a-f]+) \((\w+)\), (\d+) bytes")
        found = [match.groups() for match in map(line.fullmatch, lines) if match]
        times = [float(time) for time, *_ in found]
        self.assertEqual(times, sorted(times))
        self.assertLess(times[-1], PATIENCE)
        return [(what, int(number, 16), name, int(size)) for _, what, number, name, size in found]

    def test_quiet_commands_say_nothing_and_print_the_same_data(self):
        for arguments in (
            ("list", "--pictures"), ("show", 0, "--picture"), ("picture", 0, "-o", self.target),
            ("rename", 0, "Dawn"), ("delete", 0), ("leave",),
        ):  # fmt: skip
            with self.subTest(arguments=arguments):
                done = self.phone(*arguments, "--quiet")
                self.assertEqual(done.stderr, b"")
                self.assertEqual(done.stdout, self.phone(*arguments).stdout)

    def test_without_quiet_they_talk(self):
        for arguments in (
            ("list", "--pictures"),
            ("picture", 0, "-o", self.target),
            ("rename", 0, "Dawn"),
            ("leave",),
        ):
            self.assertEqual(self.phone(*arguments).stderr.count(b"\n"), 1)

    def test_quiet_errors_are_told(self):
        refused = {**self.ANSWERS, UPDATE: request(REPLY + UPDATE, struct.pack("<i", -6))}
        self.assertIn(b"-6", self.phone("--quiet", "rename", 0, "Dawn", code=16, answers=refused).stderr)
        self.assertIn(b"preset 1", self.phone("--quiet", "show", 1, code=9).stderr)

    def test_quiet_draws_no_progress_on_a_terminal(self):
        answers = {
            **self.ANSWERS,
            PICTURE: request(REPLY + PICTURE, struct.pack("<i", 3) + picture(1, 1000000)),
        }
        for options, is_drawn in (((), True), (("--quiet",), False)):
            with FakeCamera(self.folder, lambda function, _: answers[function]) as camera:
                done = run_on_terminal(camera.url, *options, "picture", 0, "-o", self.target)
            self.assertEqual(done.returncode, 0, done.text)
            self.assertEqual("1001 kB" in done.text, is_drawn, done.text)

    def test_verbose_tells_of_each_request_and_reply(self):
        listed = [("request", LIST, "list", 8), ("reply", REPLY + LIST, "list", 28 + PHONE_RECORD)]
        self.assertEqual(self.traffic("list"), listed)
        self.assertEqual(
            self.traffic("rename", "dusk", "Dawn"),
            [
                *listed,
                ("request", UPDATE, "rename", 8 + PHONE_RECORD),
                ("reply", REPLY + UPDATE, "rename", 12),
            ],
        )
        self.assertEqual(
            self.traffic("picture", 0, "-o", self.target),
            [
                *listed,
                ("request", PICTURE, "picture", 16),
                ("reply", REPLY + PICTURE, "picture", 8 + 4 + 400),
            ],
        )
        self.assertEqual(
            self.traffic("delete", 0),
            [*listed, ("request", DELETE, "delete", 16), ("reply", REPLY + DELETE, "delete", 20)],
        )

    def test_verbose_tells_of_a_request_without_a_reply(self):
        self.assertEqual(self.traffic("leave"), [("request", STATE_OFF, "leave", 12)])
        silent = {LIST: None}
        self.assertEqual(self.traffic("--timeout", 0.3, "list", code=4, answers=silent), [("request", LIST, "list", 8)])

    def test_verbose_tells_of_a_reply_that_is_not_the_one_expected(self):
        wrong = {LIST: request(0x7777, bytes(4))}
        self.assertEqual(self.traffic("list", code=6, answers=wrong)[1], ("reply", 0x7777, "unknown", 12))

    def test_verbose_leaves_the_data_as_it_is(self):
        for arguments in (("list",), ("--json", "show", 0)):
            self.assertEqual(self.phone("--verbose", *arguments).stdout, self.phone(*arguments).stdout)

    def test_quiet_and_verbose_exclude_each_other(self):
        self.assertEnds(run_phone("unix:/nowhere.sock", "--quiet", "--verbose", "list"), 2)


class Output(DeskTest):
    """Where the output goes and how wide it is."""

    def setUp(self):
        super().setUp()
        self.samples()
        self.seen = Stored(self.store).as_phone_sees()
        self.ids = [get(record, "custom_id") for record in self.seen]
        self.serving = self.camera()

    def on_terminal(self, *arguments, **more):
        end = time.monotonic() + PATIENCE
        while True:
            done = run_on_terminal(self.serving.url, *arguments, **more)
            if done.returncode != 5 or time.monotonic() > end:
                self.assertEqual(done.returncode, 0, done.text)
                return done.text

    def lines(self, text):
        """What stays on the terminal: a line that is written over counts as what was written last."""
        return [ESCAPES.sub("", line).rstrip("\r").rpartition("\r")[2] for line in text.split("\n")]

    def assertNoWider(self, lines, width):
        for line in lines:
            self.assertLessEqual(len(line), width, line)

    def test_no_line_of_a_table_is_wider_than_the_terminal(self):
        for columns in (40, 80, 120):
            for arguments in (("--quiet", "list"), ("show", 1), ("show", 5, "--raw")):
                with self.subTest(columns=columns, arguments=arguments):
                    self.assertNoWider(self.lines(self.on_terminal(*arguments, columns=columns)), columns)

    def test_pictures_are_no_wider_than_the_terminal(self):
        for arguments in (("show", 0, "--picture"), ("list", "--pictures")):
            self.assertNoWider(self.lines(self.on_terminal(*arguments, columns=80)), 80)

    def test_a_list_has_the_same_rows_at_each_width_and_when_piped(self):
        expected = list(enumerate(self.ids))
        for columns in (80, 120):
            text = "\n".join(self.lines(self.on_terminal("list", columns=columns)))
            self.assertEqual(rows_of(text), expected)
        piped = run_phone(self.serving.url, "list")
        self.assertEqual(rows_of(piped.stdout.decode()), expected)

    def test_a_piped_list_is_whole(self):
        whole = run_phone(self.serving.url, "--width", 0, "list").stdout
        self.assertEqual(run_phone(self.serving.url, "list").stdout, whole)

    def test_a_piped_preset_has_a_whole_line_for_each_entry(self):
        for arguments in (("show", 1), ("show", 5, "--raw")):
            whole = run_phone(self.serving.url, "--width", 0, *arguments).stdout
            self.assertEqual(run_phone(self.serving.url, *arguments).stdout, whole)

    def test_a_table_is_as_wide_as_asked_for(self):
        for width in (60, 80, 120, 200):
            for text in (
                run_phone(self.serving.url, "--width", width, "list").stdout.decode(),
                self.on_terminal("--width", width, "list", columns=80),
            ):
                self.assertNoWider(self.lines(text), width)
                self.assertEqual(rows_of("\n".join(self.lines(text))), list(enumerate(self.ids)))
        wide = run_phone(self.serving.url, "--width", 200, "list").stdout.decode()
        for record in self.seen:
            self.assertIn(get(record, "title").rstrip(b"\0").decode(), wide)

    def test_json_is_the_same_on_a_terminal_and_when_piped(self):
        expected = [record_to_json(record) for record in self.seen]
        self.assertEqual(json.loads(run_phone(self.serving.url, "--json", "--raw", "list").stdout)["presets"], expected)
        text = self.on_terminal("--json", "--raw", "list", environment={"NO_COLOR": "1"})
        self.assertEqual(json.loads(text[text.index("{") :])["presets"], expected)

    def test_piped_output_has_no_colours_and_no_progress(self):
        target = os.path.join(self.folder, "x.jpg")
        for arguments in (
            ("list",),
            ("show", 0),
            ("show", 0, "--raw"),
            ("--json", "list"),
            ("picture", 0, "-o", target),
        ):
            done = run_phone(self.serving.url, *arguments)
            self.assertEnds(done, 0)
            self.assertNotIn(b"\x1b", done.stdout + done.stderr)
            self.assertNotIn(b"\r", done.stdout + done.stderr)

    def test_no_color_is_honoured_on_a_terminal(self):
        for arguments in (("list",), ("show", 0)):
            self.assertNotRegex(self.on_terminal(*arguments, environment={"NO_COLOR": "1"}), "\x1b\\[[0-9;]*m")

    def test_data_goes_to_stdout_and_talk_to_stderr(self):
        self.assertEqual(
            entries_of(run_phone(self.serving.url, "--json", "--raw", "show", 0).stdout),
            record_to_json(self.seen[0]),
        )
        failed = run_phone(self.serving.url, "show", 30)
        self.assertEnds(failed, 9)
        self.assertEqual(failed.stdout, b"")
        left = run_phone(self.serving.url, "leave")
        self.assertEnds(left, 0)
        self.assertEqual(left.stdout, b"")

    def test_an_empty_camera_has_an_empty_list(self):
        self.serving.stop()
        self.store = os.path.join(self.folder, "empty")
        self.serving = self.camera("--empty")
        self.assertEqual(json.loads(run_phone(self.serving.url, "--json", "--raw", "list").stdout)["presets"], [])
        done = run_phone(self.serving.url, "list")
        self.assertEnds(done, 0)
        self.assertEqual(rows_of(done.stdout.decode()), [])


if __name__ == "__main__":
    unittest.main()
