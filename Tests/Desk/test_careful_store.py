"""`store` foretells what a camera makes of a preset, keeps its aperture, and looks at what came of it."""

import json
import struct
import unittest

from desk import (
    DELETE, LIST, PHONE_RECORD, PICTURE, PRESET_LIMIT, REPLY, STORE, DeskTest, FakeCamera, changed,
    delete_reply, get, list_reply, phone_record, picture, record_to_json, request, run_phone, store_request,
)  # fmt: skip

PROGRAM, APERTURE, SHUTTER = 1, 2, 3
STREAM = b"\xff\xd8\xff\xdb"

FAST = changed(phone_record(b"Fast"), mode=SHUTTER, tv_index=90)
WIDE = changed(phone_record(b"Wide"), mode=APERTURE, av_index=28)
WIDE_LOST = (
    b'"Wide" will be: aperture f/2.8 -> -: the camera stores no aperture while the last preset of its list is in '
    b"shutter mode, and has no room to store it twice\n"
)
WIDE_TWICE = (
    b'"Wide" is stored twice and then deleted once: the camera stores no aperture while the last preset of its list '
    b"is in shutter mode\n"
)


class StoreTest(DeskTest):
    def store_preset(self, camera, record, *options, image=None):
        preset = self.file("preset.json", json.dumps(record_to_json(record)))
        files = preset, self.file("picture.jpg", image or picture(1))
        return run_phone(camera.url, *options, "store", *files)


class AgainstTheCamera(StoreTest):
    def setUp(self):
        super().setUp()
        self.serving = self.camera("--empty")

    def hold(self, *records):
        with self.serving.link() as link:
            for record in records:
                link.ask(store_request(record, picture(0)))

    def stores(self):
        """The stores that the camera tells of."""
        return self.serving.talk().count(" store ")

    def test_what_comes_back_as_it_is_is_stored_without_a_word(self):
        self.hold(phone_record(b"First"))
        done = self.store_preset(self.serving, phone_record())
        self.assertEnds(done, 0)
        self.assertEqual((done.stdout, done.stderr), (b"stored as preset 1 with id 2\n", b""))

    def test_what_changes_is_told(self):
        self.hold(phone_record(b"First", iso=400))  # in full steps: the third step is another
        done = self.store_preset(self.serving, phone_record(iso=500))
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, b'"Morning" will be: iso 500 -> auto: the camera is set to full ISO steps\n')

    def test_what_may_change_is_told_with_its_condition(self):
        self.hold(phone_record(b"First"))
        done = self.store_preset(self.serving, phone_record(iso=400, iso_1_3=4))
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, b'"Morning" will be: iso 400 -> 125 if the camera is set to third ISO steps\n')

    def test_quiet_foretells_nothing(self):
        self.hold(phone_record(b"First", iso=400))
        done = self.store_preset(self.serving, phone_record(iso=500), "--quiet")
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, b"")

    def test_json_has_the_forecast_and_no_differences(self):
        self.hold(phone_record(b"First", iso=400))
        done = self.store_preset(self.serving, phone_record(iso=500, applocal_id=7), "--json")
        self.assertEnds(done, 0)
        change = {"entry": "iso", "wanted": "500", "expected": "auto", "reason": "the camera is set to full ISO steps"}
        told = {"result": 1, "preset_num": 1, "custom_id": 2, "applocal_id": 7}
        self.assertEqual(json.loads(done.stdout), {**told, "forecast": [change], "differences": []})

    def test_a_dry_run_foretells_and_stores_nothing(self):
        self.hold(phone_record(b"First", iso=400))
        for record, told in (
            (phone_record(iso=500), b'"Morning" will be: iso 500 -> auto: the camera is set to full ISO steps\n'),
            (phone_record(), b'"Morning" will be as it is\n'),
        ):
            preset = self.file("preset.json", json.dumps(record_to_json(record)))
            done = run_phone(self.serving.url, "store", "--dry-run", preset, self.file("picture.jpg", picture(1)))
            self.assertEnds(done, 0)
            self.assertEqual((done.stdout, done.stderr), (told, b""))
        self.assertEqual(len(self.serving.presets()), 1)

    def test_a_full_camera_is_told_of_in_a_dry_run(self):
        self.hold(*[phone_record()] * PRESET_LIMIT)
        preset = self.file("preset.json", json.dumps(record_to_json(phone_record())))
        done = run_phone(self.serving.url, "store", "--dry-run", preset, self.file("picture.jpg", picture(1)))
        self.assertEnds(done, 0)
        self.assertIn(b"holds 40 presets", done.stderr)

    def test_an_aperture_stays_behind_a_preset_in_shutter_mode(self):
        self.hold(phone_record(b"First", iso=400), FAST)
        done = self.store_preset(self.serving, WIDE, "--json")
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, WIDE_TWICE)
        told = json.loads(done.stdout)
        self.assertEqual((told["preset_num"], told["custom_id"], told["forecast"]), (2, 4, []))
        presets = self.serving.presets()
        self.assertEqual([get(preset, "custom_id") for preset in presets], [1, 2, 4])
        self.assertEqual(get(presets[2], "av_index"), 28)

    def test_an_aperture_stays_in_a_camera_whose_state_is_not_known(self):
        """It is empty, and what it listed last is gone."""
        self.hold(FAST)
        self.assertEqual(len(self.serving.presets()), 1)
        self.assertEnds(run_phone(self.serving.url, "delete", "Fast"), 0)
        self.assertEnds(self.store_preset(self.serving, WIDE), 0)
        self.assertEqual([get(preset, "av_index") for preset in self.serving.presets()], [28])

    def test_a_preset_is_stored_once_where_once_is_enough(self):
        done = self.store_preset(self.serving, WIDE)
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, b"")
        self.assertEqual(self.stores(), 1)

    def test_an_aperture_is_lost_where_there_is_no_room_for_two_presets(self):
        self.hold(*[phone_record(iso=400)] * 38, FAST)
        done = self.store_preset(self.serving, WIDE)
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, WIDE_LOST)
        self.assertEqual(get(self.serving.presets()[39], "av_index"), 0)

    def test_a_picture_of_three_streams_is_foretold_to_come_back_in_part(self):
        self.hold(phone_record())
        image = picture(1) + STREAM + bytes(60) + STREAM + bytes(40)  # the first stream begins with the same bytes
        done = self.store_preset(self.serving, phone_record(), image=image)
        self.assertEnds(done, 0)
        self.assertEqual(
            done.stderr,
            b'"Morning" will be: picture 508 bytes -> 464 bytes: phones get a picture up to its third JPEG stream\n',
        )

    def test_unchecked_sends_the_one_request_alone(self):
        preset = self.file("preset.json", json.dumps(record_to_json(phone_record(iso=500))))
        image = self.file("picture.jpg", picture(1))
        answer = request(REPLY + STORE, struct.pack("<iiii", 1, 2, 33, 0))
        with FakeCamera(self.folder, lambda *_: answer) as camera:
            done = run_phone(camera.url, "store", "--unchecked", preset, image)
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, b"")
        self.assertEqual(camera.requests, [store_request(phone_record(iso=500), picture(1))])

    def test_unchecked_and_dry_run_exclude_each_other(self):
        files = self.file("p.json", "{}"), self.file("p.jpg", picture(1))
        self.assertEnds(run_phone(self.serving.url, "store", "--unchecked", "--dry-run", *files), 2)


class Model:
    """A camera that stores what it is sent as it is, but for the aperture, and does what a test makes of it."""

    def __init__(self, *records):
        self.presets, self.pictures = [], {}
        self.identities = iter(range(1, 100))
        self.last_listed_mode = PROGRAM
        self.answers = {}  # of the n-th request of a function, from 1 on; a function that gets the good answer
        self.asked = []
        for record in records:
            self.keep(record, b"")

    def keep(self, record, image):
        identity = next(self.identities)
        if self.last_listed_mode == SHUTTER:
            record = changed(record, av_index=0)
        self.presets.append(changed(record, custom_id=identity))
        self.pictures[identity] = image
        return identity

    def listed(self):
        if self.presets:
            self.last_listed_mode = get(self.presets[-1], "mode")
        return [changed(record, preset_num=number) for number, record in enumerate(self.presets)]

    def good_answer(self, function, data):
        if function == LIST:
            return list_reply(self.listed())
        if function == STORE:
            identity = self.keep(data[8 : 8 + PHONE_RECORD], data[8 + PHONE_RECORD :])
            return request(REPLY + STORE, struct.pack("<iiii", 1, len(self.presets) - 1, identity, 0))
        if function == DELETE:
            del self.presets[struct.unpack_from("<i", data, 8)[0]]
            return delete_reply(1, self.listed())
        identity = struct.unpack_from("<i", data, 8)[0]
        return request(REPLY + PICTURE, struct.pack("<i", identity) + self.pictures[identity])

    def __call__(self, function, data):
        self.asked.append(function)
        change = self.answers.get((function, self.asked.count(function)))
        return change(data) if change else self.good_answer(function, data)


class AgainstOtherCameras(StoreTest):
    def store_in(self, model, record, *options):
        with FakeCamera(self.folder, model) as camera:
            return self.store_preset(camera, record, *options)

    def assertNotAsForetold(self, done, *lines):
        self.assertEnds(done, 33)
        told = "".join(f'shotmentor-phone: "Morning" (id 2) is not as foretold: {line}\n' for line in lines)
        self.assertEqual(done.stderr.decode(), told)

    def test_a_preset_that_is_as_foretold_is_listed_and_its_picture_is_fetched(self):
        model = Model(phone_record(b"First"))
        done = self.store_in(model, phone_record())
        self.assertEnds(done, 0)
        self.assertEqual(done.stderr, b"")
        self.assertEqual(model.asked, [LIST, STORE, LIST, PICTURE])

    def test_entries_that_come_out_otherwise_are_named(self):
        model = Model(phone_record(b"First"))
        model.answers[STORE, 1] = lambda data: model.good_answer(
            STORE, data[:8] + changed(data[8 : 8 + PHONE_RECORD], quality=3, cs_hue=[5] * 14) + data[8 + PHONE_RECORD :]
        )
        done = self.store_in(model, phone_record())
        self.assertNotAsForetold(
            done, "styles hue should be style 0 0, and is 5, and 13 more", "quality should be 0, and is 3"
        )
        self.assertEqual(done.stdout, b"stored as preset 1 with id 2\n")

    def test_differences_are_in_the_json(self):
        model = Model(phone_record(b"First"))
        model.answers[STORE, 1] = lambda data: model.good_answer(
            STORE, data[:8] + changed(data[8 : 8 + PHONE_RECORD], quality=3) + data[8 + PHONE_RECORD :]
        )
        done = self.store_in(model, phone_record(), "--json")
        self.assertEnds(done, 33)
        told = json.loads(done.stdout)
        self.assertEqual(told["differences"], [{"custom_id": 2, "entry": "quality", "expected": "0", "found": "3"}])

    def test_a_preset_that_is_not_in_the_list_is_missed(self):
        model = Model(phone_record(b"First"))
        model.answers[LIST, 2] = lambda _: list_reply([phone_record(custom_id=1)])
        done = self.store_in(model, phone_record())
        self.assertNotAsForetold(done, "preset should be in the camera's list, and is not there")

    def test_a_picture_of_other_bytes_is_named(self):
        for other, told in (
            (picture(2), "as many others"),
            (picture(1)[:-1], "399 bytes"),
            (b"", "0 bytes"),
        ):
            model = Model(phone_record(b"First"))
            model.answers[PICTURE, 1] = lambda _, other=other: request(REPLY + PICTURE, struct.pack("<i", 2) + other)
            done = self.store_in(model, phone_record())
            self.assertNotAsForetold(done, f"picture should be 400 bytes, and is {told}")

    def test_a_refused_store_is_not_looked_at(self):
        model = Model(phone_record(b"First"))
        model.answers[STORE, 1] = lambda _: request(REPLY + STORE, struct.pack("<iiii", -2, 0, 0, 0))
        done = self.store_in(model, phone_record())
        self.assertEnds(done, 12)
        self.assertEqual(model.asked, [LIST, STORE])

    def test_what_was_stored_is_told_even_when_the_list_behind_it_fails(self):
        for option in ((), ("--json",)):
            model = Model(phone_record(b"First"))
            model.answers[LIST, 2] = lambda _: FakeCamera.CLOSE
            done = self.store_in(model, phone_record(), *option)
            self.assertEnds(done, 6)
            self.assertIn(b"2", done.stdout)
            if option:
                self.assertIsNone(json.loads(done.stdout)["differences"])

    def test_a_second_store_that_is_refused_leaves_the_first(self):
        model = Model(phone_record(b"First"), FAST)
        model.answers[STORE, 2] = lambda _: request(REPLY + STORE, struct.pack("<iiii", -1, 0, 0, 0))
        done = self.store_in(model, WIDE)
        self.assertEnds(done, 11)
        self.assertIn(
            b'the camera holds "Wide" with id 3, without its aperture: it was not stored a second time\n', done.stderr
        )
        self.assertNotIn(DELETE, model.asked)

    def test_a_link_that_ends_before_the_second_store_leaves_the_first(self):
        model = Model(phone_record(b"First"), FAST)
        model.answers[STORE, 2] = lambda _: FakeCamera.CLOSE
        done = self.store_in(model, WIDE)
        self.assertEnds(done, 6)
        self.assertTrue(done.stderr.endswith(b'; the camera holds "Wide" with id 3, without its aperture\n'))

    def test_a_link_that_ends_before_the_deletion_leaves_both(self):
        model = Model(phone_record(b"First"), FAST)
        model.answers[DELETE, 1] = lambda _: FakeCamera.CLOSE
        done = self.store_in(model, WIDE)
        self.assertEnds(done, 6)
        told = b'; the camera holds "Wide" with id 3, without its aperture, and with id 4\n'
        self.assertTrue(done.stderr.endswith(told), done.stderr)

    def test_a_deletion_that_is_refused_is_told(self):
        model = Model(phone_record(b"First"), FAST)
        model.answers[DELETE, 1] = lambda _: delete_reply(-3, [])
        done = self.store_in(model, WIDE)
        self.assertEnds(done, 33)
        self.assertIn(b'"Wide" (id 3) is not as foretold: preset should be deleted, and is still there', done.stderr)
        self.assertEqual(done.stdout, b"stored as preset 3 with id 4\n")

    def test_the_first_of_two_is_deleted_where_it_is_then(self):
        model = Model(phone_record(b"First"), FAST)

        def store_in_front(data):
            identity = model.keep(data[8 : 8 + PHONE_RECORD], data[8 + PHONE_RECORD :])
            model.presets.insert(0, model.presets.pop())
            return request(REPLY + STORE, struct.pack("<iiii", 1, 0, identity, 0))

        model.answers[STORE, 2] = store_in_front
        done = self.store_in(model, WIDE)
        self.assertEnds(done, 0)
        self.assertEqual([get(preset, "custom_id") for preset in model.presets], [4, 1, 2])
        self.assertEqual(get(model.presets[0], "av_index"), 28)

    def test_a_camera_that_gives_one_id_twice_is_asked_to_delete_nothing(self):
        model = Model(phone_record(b"First"), FAST)
        model.identities = iter([3, 3])
        self.store_in(model, WIDE)
        self.assertEqual(model.asked.count(STORE), 2)
        self.assertNotIn(DELETE, model.asked)

    def test_a_camera_whose_list_ends_with_another_preset_is_not_tried_twice(self):
        model = Model(FAST)

        def keep_in_front(record, image):
            model.presets.insert(0, changed(record, custom_id=50, av_index=0))
            model.pictures[50] = image
            return 50

        model.keep = keep_in_front
        done = self.store_in(model, WIDE)
        self.assertEnds(done, 33)
        self.assertEqual(model.asked.count(STORE), 1)
        self.assertIn(b"aperture should be f/2.8, and is -", done.stderr)


if __name__ == "__main__":
    unittest.main()
