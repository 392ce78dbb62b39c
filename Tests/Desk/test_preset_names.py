"""How the commands of the phone name a preset: by number, by id, or by a part of the title."""

import json
import os
import struct
import unittest

from desk import (
    DELETE, LIST, PICTURE, REPLY, UPDATE, DeskTest, FakeCamera, delete_reply, entries_of, get, list_reply, phone_record,
    picture, record_to_json, request, run_phone,
)  # fmt: skip

TITLES = [
    "Golden hour", "Blue hour", "Hour", "7", "Café ☾", "Straße", "Dusk", "dusk", "id:1", "[a,b]", "Twice", "Twice",
    "Half way", "", "{}",
]  # fmt: skip
RECORDS = [
    phone_record(title.encode(), custom_id=100 + number, preset_num=number, server_id=500 + number)
    for number, title in enumerate(TITLES)
]
ANSWERS = {
    LIST: list_reply(RECORDS),
    UPDATE: request(REPLY + UPDATE, struct.pack("<i", 1)),
    DELETE: delete_reply(1, []),
}


class NamesTest(DeskTest):
    def phone(self, *arguments, code=0, records=None):
        """Runs the phone against a camera with these presets. The requests that came are kept."""

        def answer(function, data):
            if function == PICTURE:
                return request(REPLY + PICTURE, data[8:12] + picture(1))
            return list_reply(records) if function == LIST and records is not None else ANSWERS[function]

        with FakeCamera(self.folder, answer) as camera:
            done = run_phone(camera.url, *arguments)
        self.requests = camera.requests
        self.assertEnds(done, code)
        return done

    def functions(self):
        return [struct.unpack_from("<i", data)[0] for data in self.requests]

    def assertRefused(self, name, code, *parts, records=None):
        """Every command refuses the name with one line that has these parts in it, and asks for the list alone."""
        target = os.path.join(self.folder, "x.jpg")
        for arguments in (
            ("show", name), ("picture", name, "-o", target), ("rename", name, "New"), ("delete", name),
            ("show", 0, name), ("delete", 0, name), ("delete", "--dry-run", name),
        ):  # fmt: skip
            with self.subTest(arguments=arguments):
                done = self.phone(*arguments, code=code, records=records)
                self.assertEqual(done.stdout, b"")
                self.assertEqual(done.stderr.count(b"\n"), 1)
                for part in parts:
                    self.assertIn(part, done.stderr.decode())
                self.assertIn(self.functions(), ([LIST], []))
                self.assertFalse(os.path.exists(target))


class Names(NamesTest):
    def assertNames(self, name, number):
        shown = self.phone("--json", "--raw", "show", name).stdout
        self.assertEqual(entries_of(shown), record_to_json(RECORDS[number]), name)

    def test_a_number_is_the_one_that_list_prints_first(self):
        for number in (0, 7, 12):
            self.assertNames(number, number)

    def test_an_id_is_the_one_that_list_prints_second(self):
        self.assertNames("id:100", 0)
        self.assertNames("id:107", 7)

    def test_a_part_of_one_title_is_enough(self):
        self.assertNames("old", 0)
        self.assertNames("lue h", 1)
        self.assertNames("Golden hour", 0)

    def test_a_whole_title_wins_over_parts_of_others(self):
        self.assertNames("Hour", 2)
        self.assertNames("hour", 2)

    def test_upper_and_lower_case_are_the_same_unless_both_are_there(self):
        self.assertNames("GOLDEN HOUR", 0)
        self.assertNames("Dusk", 6)
        self.assertNames("dusk", 7)

    def test_case_and_accents_are_those_of_unicode(self):
        self.assertNames("CAFÉ", 4)
        self.assertNames("Cafe\N{COMBINING ACUTE ACCENT}", 4)
        self.assertNames("☾", 4)
        self.assertNames("STRASSE", 5)

    def test_a_letter_without_its_accent_is_another_one(self):
        self.assertRefused("cafe", 9, '"cafe"')

    def test_a_title_that_is_a_number_is_reached_by_number_or_id(self):
        self.assertNames("7", 7)
        self.assertNames("3", 3)
        self.assertNames("id:103", 3)

    def test_a_title_that_begins_as_an_id_is_reached_by_number_or_id(self):
        self.assertRefused("id:1", 9, "id 1")
        self.assertNames("id:108", 8)

    def test_titles_in_brackets_and_braces_are_no_lists(self):
        self.assertNames("{}", 14)
        self.assertRefused_only_where_several("[a,b]")
        self.assertNames("[a", 9)

    def assertRefused_only_where_several(self, name):
        self.phone("delete", name, code=2)
        self.assertEqual(self.requests, [])
        self.phone("rename", name, "New")
        self.assertEqual(get(self.requests[1][8:], "custom_id"), 109)

    def test_a_title_is_given_as_the_list_prints_it(self):
        records = [
            phone_record(b"red\x1b[31m", custom_id=1),
            phone_record(b"half\xe2\x98", custom_id=2, preset_num=1),
        ]
        for name, custom_id in (("red\N{REPLACEMENT CHARACTER}[31m", 1), ("red\x1b[31m", 1), ("HALF", 2)):
            shown = entries_of(self.phone("--json", "--raw", "show", name, records=records).stdout)
            self.assertEqual(shown["custom_id"], custom_id)

    def test_a_name_that_fits_several_presets_names_them_and_changes_nothing(self):
        candidates = ['"Golden hour" (preset 0, id 100)', '"Blue hour" (preset 1, id 101)']
        self.assertRefused(" HOUR", 2, '" HOUR"', ", ".join(candidates))
        self.assertRefused("DUSK", 2, '"Dusk" (preset 6, id 106), "dusk" (preset 7, id 107)')

    def test_a_title_that_two_presets_have_names_both(self):
        self.assertRefused("Twice", 2, '"Twice" (preset 10, id 110), "Twice" (preset 11, id 111)')

    def test_an_id_that_two_presets_have_names_both(self):
        records = [phone_record(title, custom_id=5, preset_num=number) for number, title in enumerate([b"A", b"B"])]
        self.assertRefused("id:5", 2, '"A" (preset 0, id 5), "B" (preset 1, id 5)', records=records)

    def test_what_the_camera_does_not_have_is_missing_in_every_command(self):
        self.assertRefused(15, 9, "preset 15", "holds 15", "0 to 14")
        self.assertRefused("4294967296", 9, "preset 4294967296")
        self.assertRefused("id:99", 9, "id 99")
        self.assertRefused("Noon", 9, '"Noon"')

    def test_an_empty_camera_has_no_preset_by_any_name(self):
        for name in (0, "id:1", "Dusk"):
            done = self.phone("show", name, code=9, records=[])
            self.assertIn("holds none", done.stderr.decode())

    def test_what_is_no_name_is_wrong_usage_before_anything_is_sent(self):
        for name in ("", "id:", "id:x", "id:1x", "id:4294967296", "-1"):
            self.assertRefused(name, 2)
            self.assertEqual(self.requests, [])


class Commands(NamesTest):
    def test_picture_asks_for_the_preset_that_is_named(self):
        target = os.path.join(self.folder, "x.jpg")
        for name in (1, "id:101", "blue"):
            self.phone("picture", name, "-o", target)
            self.assertEqual(self.requests[1][8:12], struct.pack("<i", 101))

    def test_rename_sends_the_id_and_the_server_identity_of_the_preset_that_is_named(self):
        for name in (1, "id:101", "blue"):
            self.phone("rename", name, "New")
            sent = self.requests[1][8:]
            self.assertEqual((get(sent, "custom_id"), get(sent, "server_id")), (101, 501))

    def test_rename_says_the_old_and_the_new_title(self):
        done = self.phone("rename", "dusk", "Dawn ☀")
        self.assertEqual(done.stderr.decode(), '"dusk" (preset 7, id 107) is now "Dawn ☀"\n')
        self.assertEqual(done.stdout, b"")

    def test_delete_sends_the_presets_that_are_named_each_once(self):
        done = self.phone("delete", "blue", 0, "id:101", "Golden hour")
        self.assertEqual(self.requests[1], request(DELETE, struct.pack("<iiii", 1, 101, 0, 100)))
        self.assertEqual(
            done.stdout.decode(),
            '"Blue hour" (preset 1, id 101): deleted\n"Golden hour" (preset 0, id 100): deleted\n',
        )

    def test_show_prints_several_presets_one_below_the_other(self):
        one, two = self.phone("show", 0).stdout, self.phone("show", "blue").stdout
        self.assertEqual(self.phone("show", "golden", "id:101").stdout, one + b"\n" + two)

    def test_show_as_json_has_an_array_where_several_are_named(self):
        shown = json.loads(self.phone("--json", "--raw", "show", "golden", 4).stdout)
        self.assertEqual(shown, [record_to_json(RECORDS[0]), record_to_json(RECORDS[4])])
        self.assertEqual(json.loads(self.phone("--json", "--raw", "show", 4, 4).stdout), [record_to_json(RECORDS[4])])

    def test_json_is_the_same_by_whatever_name(self):
        for names in ((7,), ("id:107",), ("dusk",)):
            self.assertEqual(json.loads(self.phone("--json", "rename", *names, "New").stdout), {"result": 1})
            deleted = json.loads(self.phone("--json", "--raw", "delete", *names).stdout)
            entry = {"number": 7, "custom_id": 107, "deleted": True, "used_by_custom_mode": 0}
            self.assertEqual(deleted, {"result": 1, "asked": [entry], "presets": []})


class DryRun(NamesTest):
    RECORDS = [
        phone_record(b"Free", custom_id=1, preset_num=0),
        phone_record(b"Used", custom_id=2, preset_num=1, linked_custom_mode=2),
    ]

    def test_says_what_would_be_deleted_and_what_a_custom_mode_keeps_and_sends_no_deletion(self):
        done = self.phone("delete", "--dry-run", "used", 0, records=self.RECORDS)
        self.assertEqual(
            done.stdout.decode(),
            '"Used" (preset 1, id 2): would be kept because CUSTOM2 uses it\n'
            '"Free" (preset 0, id 1): would be deleted\n',
        )
        self.assertEqual(self.functions(), [LIST])

    def test_as_json_tells_of_each_preset_whether_it_would_go(self):
        done = self.phone("--json", "delete", 0, 1, "--dry-run", records=self.RECORDS)
        expected = [
            {"number": 0, "custom_id": 1, "would_be_deleted": True, "used_by_custom_mode": 0},
            {"number": 1, "custom_id": 2, "would_be_deleted": False, "used_by_custom_mode": 2},
        ]
        self.assertEqual(json.loads(done.stdout), {"asked": expected})
        self.assertEqual(self.functions(), [LIST])


if __name__ == "__main__":
    unittest.main()
