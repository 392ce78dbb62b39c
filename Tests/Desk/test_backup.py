"""All presets of a camera in a folder, and back: `backup`, `restore` and `copy`."""

import contextlib
import hashlib
import json
import os
import re
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import unittest
from random import Random

from desk import (
    CAMERA_AV, CAMERA_SV, CAMERA_SV_THIRD, CAMERA_TV, LIST, PATIENCE, PHONE, PHONE_AV, PHONE_RECORD, PHONE_SV, PICTURE,
    REPLY, STORE, Camera, DeskTest, FakeCamera, Stored, changed, environment_of_programs, get, list_reply,
    measure_phone, most_of_phone, phone_record, picture, record_to_json, request, run_camera, run_on_terminal,
    run_phone, store_request, stored_picture, what_a_phone_gets,
)  # fmt: skip

MEMORY = "/dev/shm"  # flushes take no time there
MANIFEST = "manifest.json"
FILE_NAME = re.compile(r"\d\d(-[a-z0-9]+)+\.(json|jpg)")
SAMPLES = [
    "00-everyday", "01-golden-hour", "02-night-street", "03-cafe-rainy-day", "04-mountain-lake", "05-football",
    "06-waterfall", "07-studio-portrait", "08-star-trails", "09-black-and-white", "10-autumn-leaves", "11-neon-pushed",
]  # fmt: skip


def contents(folder):
    """All that is in a folder: a file's bytes, or None for what is no file."""
    found = {}
    for name in os.listdir(folder):
        path = os.path.join(folder, name)
        found[name] = None
        if os.path.isfile(path) and not os.path.islink(path):
            with open(path, "rb") as file:
                found[name] = file.read()
    return found


def manifest_of(folder):
    with open(os.path.join(folder, MANIFEST)) as file:
        return json.load(file)


def files_in(manifest):
    """The files that a manifest describes: name, bytes and sum."""
    for entry in manifest["presets"]:
        for file in (entry["preset"], entry["picture"]):
            if file is not None:
                yield file["file"], file["bytes"], file["sha256"]


def presets(*titles):
    """Records as a camera lists them, with ids from 1 on."""
    return [phone_record(title, preset_num=i, custom_id=i + 1) for i, title in enumerate(titles)]


class Shelf:
    """What a camera of the test's own holds: records, and a picture for each id. `answer` is what it answers."""

    def __init__(self, *titles):
        self.records = presets(*titles)
        self.pictures = {get(record, "custom_id"): picture(i, 400 + i) for i, record in enumerate(self.records)}
        self.asked = []  # the ids of the pictures that were asked for
        self.lists = 0

    def answer(self, function, data):
        if function == LIST:
            self.lists += 1
            return list_reply(self.records)
        assert function == PICTURE, function
        custom_id = struct.unpack_from("<i", data, 8)[0]
        self.asked.append(custom_id)
        if custom_id not in self.pictures:
            return None
        return request(REPLY + PICTURE, struct.pack("<i", custom_id) + self.pictures[custom_id])


class BackupTest(DeskTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if os.access(MEMORY, os.W_OK):
            tempfile.tempdir = MEMORY

    def setUp(self):
        super().setUp()
        self.place = os.path.join(self.folder, "backup")

    def path(self, name):
        return os.path.join(self.folder, name)

    def back_up(self, camera, *options, place=None, timeout=PATIENCE, **more):
        return run_phone(camera.url, "--timeout", timeout, "backup", place or self.place, *options, **more)

    def back_up_shelf(self, shelf, *options, answer=None, **more):
        with FakeCamera(self.folder, answer or shelf.answer) as camera:
            return self.back_up(camera, *options, **more)

    def assertOneLine(self, done, code, *words):
        self.assertEnds(done, code)
        talk = done.stderr.decode()
        self.assertEqual(talk.count("\n"), 1, talk)
        self.assertTrue(talk.startswith("shotmentor-phone: "), talk)
        for word in words:
            self.assertIn(word, talk)

    def assertWhole(self, folder, complete=True):
        """The folder has what its manifest says. An unfinished backup has whole files of its own alone."""
        manifest, found = manifest_of(folder), contents(folder)
        self.assertIs(manifest["complete"], complete)
        described = {name: (size, digest) for name, size, digest in files_in(manifest)}
        for name, content in found.items():
            if name == MANIFEST:
                continue
            self.assertIn(name, described)
            size, digest = described[name]
            if digest:
                self.assertEqual((size, digest), (len(content), hashlib.sha256(content).hexdigest()), name)
        if complete:
            self.assertEqual(sorted(found), sorted([*described, MANIFEST]))
        return manifest


class Backup(BackupTest):
    def test_it_has_a_file_and_a_picture_for_each_preset(self):
        self.samples()
        with self.camera() as camera:
            done = self.back_up(camera)
        self.assertEnds(done, 0)
        expected = [name + ending for name in SAMPLES for ending in (".jpg", ".json")]
        self.assertEqual(sorted(os.listdir(self.place)), sorted([*expected, MANIFEST]))
        files = contents(self.place)
        for stem, record in zip(SAMPLES, Stored(self.store).as_phone_sees()):
            preset = json.loads(files[stem + ".json"])
            self.assertEqual(preset["title"].encode(), get(record, "title").rstrip(b"\0"))
            sent = what_a_phone_gets(stored_picture(self.store, get(record, "custom_id")))
            self.assertEqual(files[stem + ".jpg"], sent)
        size = sum(len(content) for name, content in files.items() if name != MANIFEST)
        self.assertEqual(done.stdout.decode(), f"12 presets, {size / 1e6:.1f} MB, in {self.place}\n")
        self.assertEqual(done.stderr, b"")

    def test_its_manifest_names_the_presets_and_the_sums_of_their_files(self):
        self.samples()
        with self.camera() as camera:
            self.assertEnds(self.back_up(camera), 0)
        manifest = self.assertWhole(self.place)
        self.assertEqual((manifest["format"], manifest["version"]), ("ShotMentor backup", 1))
        self.assertEqual((manifest["model"], manifest["count"]), ("KT7", 12))
        for number, (entry, record) in enumerate(zip(manifest["presets"], Stored(self.store).records)):
            self.assertEqual((entry["number"], entry["custom_id"]), (number, get(record, "custom_id")))
            self.assertEqual(entry["title"].encode(), get(record, "title").rstrip(b"\0"))
            self.assertEqual(entry["preset"]["file"], SAMPLES[number] + ".json")
            self.assertEqual(entry["picture"]["file"], SAMPLES[number] + ".jpg")

    def test_two_of_the_same_presets_are_the_same(self):
        shelf = Shelf(b"One", b"Two", b"Three")
        for place in ("a", "b"):
            self.assertEnds(self.back_up_shelf(shelf, place=self.path(place)), 0)
        self.assertEqual(contents(self.path("a")), contents(self.path("b")))

    def test_one_of_an_empty_camera_has_a_manifest_alone(self):
        done = self.back_up_shelf(Shelf())
        self.assertEnds(done, 0)
        self.assertEqual(done.stdout.decode(), f"0 presets, 0.0 kB, in {self.place}\n")
        self.assertEqual(self.assertWhole(self.place)["presets"], [])

    def test_names_are_safe_whatever_a_title_holds(self):
        titles = {
            "Golden hour": "golden-hour",
            "  Grün & blau!": "grun-blau",
            "日本": "preset",
            "": "preset",
            "../../etc/passwd": "etc-passwd",
            "CON": "con",
            "-rf *": "rf",
            "a\nb\tc": "a-b-c",
            "A" * 51: "a" * 32,
            "x" * 31 + "-----yz": "x" * 31,
            "same": "same",
            "Same": "same",
        }
        shelf = Shelf(*[title.encode() for title in titles], b"\xff\xfe broken")
        self.assertEnds(self.back_up_shelf(shelf), 0)
        stems = [f"{number:02}-{stem}" for number, stem in enumerate([*titles.values(), "broken"])]
        manifest = self.assertWhole(self.place)
        self.assertEqual([entry["preset"]["file"] for entry in manifest["presets"]], [stem + ".json" for stem in stems])
        self.assertEqual([entry["picture"]["file"] for entry in manifest["presets"]], [stem + ".jpg" for stem in stems])
        for name, _, _ in files_in(manifest):
            self.assertTrue(FILE_NAME.fullmatch(name) and len(name) <= 40, name)

    def test_a_picture_that_cannot_be_read_is_left_out(self):
        shelf = Shelf(b"One", b"Two", b"Three")
        shelf.pictures[2] = b""
        done = self.back_up_shelf(shelf)
        self.assertOneLine(done, 9, '"Two" (preset 1, id 2)', "saved without")
        self.assertEqual(done.stdout[:11], b"3 presets, ")
        entry = self.assertWhole(self.place)["presets"][1]
        self.assertIsNone(entry["picture"])
        self.assertEqual(entry["preset"]["file"], "01-two.json")

    def test_json_sums_it_up(self):
        shelf = Shelf(b"One", b"Two")
        shelf.pictures[2] = b""
        done = self.back_up_shelf(shelf, "--json")
        self.assertEnds(done, 9)
        size = sum(len(content) for name, content in contents(self.place).items() if name != MANIFEST)
        self.assertEqual(
            json.loads(done.stdout),
            {
                "folder": self.place, "model": "KT7", "presets": 2, "bytes": size, "already_there": 0,
                "without_picture": 1,
            },
        )  # fmt: skip

    def test_pictures_come_one_at_a_time(self):
        shelf = Shelf(*[b"Large %d" % number for number in range(10)])
        shelf.pictures = dict.fromkeys(shelf.pictures, picture(1, 12_000_000))
        with FakeCamera(self.folder, shelf.answer) as camera:
            done = measure_phone(camera.url, "backup", self.place)
        self.assertEnds(done, 0)
        self.assertEqual(self.assertWhole(self.place)["presets"][9]["picture"]["bytes"], 12_000_000)
        self.assertLess(done.peak, most_of_phone(100 << 20))

    def test_a_terminal_shows_one_bar_for_all(self):
        shelf = Shelf(b"One", b"Two", b"Golden hour")
        shelf.pictures[1] = picture(1, 200000)
        with FakeCamera(self.folder, shelf.answer) as camera:
            done = run_on_terminal(camera.url, "backup", self.place, environment={"NO_COLOR": "1"})
        self.assertEnds(done, 0)
        bars = [piece for piece in done.text.split("\r") if "[" in piece and " of " in piece]
        self.assertEqual(
            [bar.replace("\x1b[J", "") for bar in bars],
            ["1 of 3 One [          ]", "2 of 3 Two [===       ]", "3 of 3 Golden hour [======    ]"],
        )

    def test_quiet_draws_no_bar(self):
        with FakeCamera(self.folder, Shelf(b"One").answer) as camera:
            done = run_on_terminal(camera.url, "--quiet", "backup", self.place)
        size = 400 + os.path.getsize(os.path.join(self.place, "00-one.json"))
        self.assertEqual(done.text, f"1 preset, {size / 1e3:.1f} kB, in {self.place}\n")

    def test_presets_that_change_meanwhile_leave_it_unfinished(self):
        shelf = Shelf(b"One", b"Two")

        def answer(function, data):
            if function == LIST and shelf.lists == 1:
                shelf.records[1] = changed(shelf.records[1], title=b"Other".ljust(52, b"\0"))
            return shelf.answer(function, data)

        self.assertOneLine(self.back_up_shelf(shelf, answer=answer), 34, "changed", "run it again")
        self.assertWhole(self.place, complete=False)
        done = self.back_up_shelf(shelf)
        self.assertEnds(done, 0)
        self.assertIn(b"1 of them was there already", done.stdout)
        self.assertEqual(self.assertWhole(self.place)["presets"][1]["title"], "Other")
        self.assertEqual(shelf.asked, [1, 2, 2])
        self.assertEnds(self.back_up_shelf(shelf, place=self.path("fresh")), 0)
        self.assertEqual(contents(self.place), contents(self.path("fresh")))

    def test_a_preset_that_is_deleted_meanwhile_counts_as_a_change(self):
        shelf = Shelf(b"One", b"Two")

        def answer(function, data):
            if function == PICTURE and len(shelf.asked) == 1:
                shelf.records.pop()
                shelf.pictures.pop(2)
            return shelf.answer(function, data)

        self.assertOneLine(self.back_up_shelf(shelf, answer=answer, timeout=0.3), 34, "changed")
        self.assertEnds(self.back_up_shelf(shelf), 0)
        self.assertEqual(self.assertWhole(self.place)["count"], 1)


class BrokenOff(BackupTest):
    """A backup that did not come to its end goes on."""

    TITLES = (b"One", b"Two", b"Three", b"Four")

    def fresh(self, shelf):
        place = self.path("fresh")
        self.assertEnds(self.back_up_shelf(shelf, place=place), 0)
        return contents(place)

    def assertGoesOn(self, shelf, there):
        """The second run asks for no picture that is there, and ends with what one run would have made."""
        before = len(shelf.asked)
        done = self.back_up_shelf(shelf)
        self.assertEnds(done, 0)
        self.assertEqual(len(shelf.asked) - before, len(self.TITLES) - there)
        self.assertIn(f"{there} of them were there already".encode(), done.stdout)
        self.assertWhole(self.place)
        self.assertEqual(contents(self.place), self.fresh(shelf))

    def test_one_whose_link_broke_goes_on(self):
        shelf = Shelf(*self.TITLES)

        def answer(function, data):
            gone = function == PICTURE and len(shelf.asked) == 2
            return FakeCamera.CLOSE if gone else shelf.answer(function, data)

        done = self.back_up_shelf(shelf, answer=answer)
        self.assertOneLine(done, 6, "closed the link", "2 of 4 presets are saved", "run it again")
        manifest = self.assertWhole(self.place, complete=False)
        self.assertEqual(
            [bool(entry["picture"]["sha256"]) for entry in manifest["presets"]], [True, True, False, False]
        )
        self.assertGoesOn(shelf, there=2)

    def test_one_that_a_signal_ended_goes_on(self):
        for sign in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            with self.subTest(sign=sign):
                shutil.rmtree(self.place, ignore_errors=True)
                shutil.rmtree(self.path("fresh"), ignore_errors=True)
                shelf = Shelf(*self.TITLES)

                def answer(function, data):
                    if function == PICTURE and len(shelf.asked) == 2:
                        process.send_signal(sign)
                        return None
                    return shelf.answer(function, data)

                with FakeCamera(self.folder, answer) as camera:
                    process = subprocess.Popen(
                        [PHONE, "--connect", camera.url, "backup", self.place], stdin=subprocess.DEVNULL,
                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=environment_of_programs(),
                    )  # fmt: skip
                    process.communicate(timeout=PATIENCE)
                self.assertEqual(process.returncode, -sign)
                self.assertWhole(self.place, complete=False)
                self.assertGoesOn(shelf, there=2)

    def test_what_is_damaged_is_fetched_again(self):
        shelf = Shelf(*self.TITLES)

        def answer(function, data):
            gone = function == PICTURE and len(shelf.asked) == 3
            return FakeCamera.CLOSE if gone else shelf.answer(function, data)

        self.assertEnds(self.back_up_shelf(shelf, answer=answer), 6)
        with open(os.path.join(self.place, "01-two.jpg"), "r+b") as file:
            file.write(b"\xff\xd8\xff\xda")
        os.truncate(os.path.join(self.place, "02-three.json"), 100)
        before = len(shelf.asked)
        done = self.back_up_shelf(shelf)
        self.assertEnds(done, 0)
        self.assertEqual(shelf.asked[before:], [2, 4])
        self.assertIn(b"1 of them was there already", done.stdout)
        self.assertEqual(contents(self.place), self.fresh(shelf))

    def test_a_picture_that_is_read_in_the_end_is_there(self):
        shelf = Shelf(*self.TITLES)
        whole = shelf.pictures[1]
        shelf.pictures[1] = b""

        def answer(function, data):
            gone = function == PICTURE and len(shelf.asked) == 3
            return FakeCamera.CLOSE if gone else shelf.answer(function, data)

        self.assertEnds(self.back_up_shelf(shelf, answer=answer), 6)
        self.assertIsNone(manifest_of(self.place)["presets"][0]["picture"])
        shelf.pictures[1] = whole
        self.assertGoesOn(shelf, there=2)

    def test_a_picture_that_is_not_read_any_more_goes(self):
        shelf = Shelf(*self.TITLES)

        def answer(function, data):
            gone = function == PICTURE and len(shelf.asked) == 2
            return FakeCamera.CLOSE if gone else shelf.answer(function, data)

        self.assertEnds(self.back_up_shelf(shelf, answer=answer), 6)
        os.truncate(os.path.join(self.place, "00-one.jpg"), 100)
        shelf.pictures[1] = b""
        self.assertEnds(self.back_up_shelf(shelf), 9)
        self.assertIsNone(self.assertWhole(self.place)["presets"][0]["picture"])

    def test_a_full_disk_leaves_whole_files(self):
        shelf = Shelf(*self.TITLES)
        shelf.pictures[3] = picture(3, 100000)

        def small_files():
            resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000))

        with FakeCamera(self.folder, shelf.answer) as camera:
            done = subprocess.run(
                [PHONE, "--connect", camera.url, "backup", self.place], stdin=subprocess.DEVNULL, capture_output=True,
                env=environment_of_programs(), preexec_fn=small_files, timeout=30,
            )  # fmt: skip
        self.assertOneLine(done, 1, "02-three.jpg", "2 of 4 presets are saved")
        self.assertEqual(done.stdout, b"")
        self.assertWhole(self.place, complete=False)
        self.assertGoesOn(shelf, there=2)

    def test_a_camera_that_is_not_there_leaves_no_folder(self):
        done = run_phone(f"unix:{self.folder}/none.sock", "backup", self.place)
        self.assertEnds(done, 3)
        self.assertFalse(os.path.exists(self.place))


class Places(BackupTest):
    """Where a backup goes, and where it does not."""

    def setUp(self):
        super().setUp()
        self.shelf = Shelf(b"One", b"Two")

    def assertRefused(self, *options, code=2, words=(), place=None):
        """One line, no request, and the folder is as it was."""
        place = place or self.place
        before = contents(place) if os.path.isdir(place) else None
        lists = self.shelf.lists
        self.assertOneLine(self.back_up_shelf(self.shelf, *options, place=place), code, *words)
        self.assertEqual(contents(place) if os.path.isdir(place) else None, before)
        self.assertEqual(self.shelf.lists, lists)

    def test_a_complete_backup_is_left_alone(self):
        self.assertEnds(self.back_up_shelf(self.shelf), 0)
        self.assertRefused(words=("complete backup", "--overwrite"))

    def test_an_empty_folder_is_taken(self):
        os.mkdir(self.place)
        self.assertEnds(self.back_up_shelf(self.shelf), 0)
        self.assertWhole(self.place)

    def test_a_folder_with_anything_else_is_left_alone(self):
        os.mkdir(self.place)
        self.file("backup/holiday.jpg", b"mine")
        for options in ((), ("--overwrite",)):
            self.assertRefused(*options, words=("holiday.jpg", "--overwrite"))

    def test_a_backup_with_anything_else_beside_it_is_left_alone(self):
        self.assertEnds(self.back_up_shelf(self.shelf), 0)
        self.file("backup/holiday.jpg", b"mine")
        self.assertRefused("--overwrite", words=("holiday.jpg",))
        os.remove(self.path("backup/holiday.jpg"))
        os.mkdir(self.path("backup/unfinished"))
        self.file("backup/unfinished/mine", b"mine")
        self.assertRefused("--overwrite", words=("mine",))

    def test_a_link_in_the_place_of_a_file_is_left_alone(self):
        self.assertEnds(self.back_up_shelf(self.shelf), 0)
        mine = self.file("mine", b"mine")
        for name in ("00-one.jpg", MANIFEST):
            with self.subTest(name=name):
                shutil.move(os.path.join(self.place, name), self.path("kept"))
                os.symlink(mine, os.path.join(self.place, name))
                self.assertRefused("--overwrite", words=(name,))
                os.replace(self.path("kept"), os.path.join(self.place, name))
        self.assertEqual(contents(self.folder)["mine"], b"mine")

    def test_what_is_no_folder_is_refused(self):
        self.assertRefused(place=self.file("file", b"mine"), words=("is no folder",))
        self.assertRefused(place="/dev/null", words=("is no folder",))
        os.symlink("nowhere", self.path("link"))
        self.assertRefused(place=self.path("link"), code=1)

    def test_a_folder_is_made_in_one_that_is_there(self):
        done = self.back_up_shelf(self.shelf, place=self.path("no/where"))
        self.assertOneLine(done, 1, "no/where")
        self.assertFalse(os.path.exists(self.path("no")))

    def test_two_phones_do_not_write_the_same_one(self):
        def answer(function, data):
            if function == PICTURE and not second:
                second.append(self.back_up_shelf(self.shelf))
            return self.shelf.answer(function, data)

        second = []
        self.assertEnds(self.back_up_shelf(self.shelf, answer=answer), 0)
        self.assertOneLine(second[0], 1, "another phone")
        self.assertWhole(self.place)


class Overwriting(BackupTest):
    """`--overwrite` puts a whole backup in the place of another."""

    def setUp(self):
        super().setUp()
        self.shelf = Shelf(b"One", b"Two", b"Three")
        self.assertEnds(self.back_up_shelf(self.shelf), 0)
        self.old = contents(self.place)
        self.shelf = Shelf(b"Uno", b"Two")
        self.shelf.pictures[2] = picture(99, 999)

    def assertReplaced(self):
        self.assertWhole(self.place)
        self.assertEnds(self.back_up_shelf(self.shelf, place=self.path("fresh")), 0)
        self.assertEqual(contents(self.place), contents(self.path("fresh")))

    def test_it_is_as_if_the_old_one_had_not_been(self):
        self.assertEnds(self.back_up_shelf(self.shelf, "--overwrite"), 0)
        self.assertReplaced()

    def test_one_that_breaks_off_leaves_the_old_one(self):
        def answer(function, data):
            gone = function == PICTURE and len(self.shelf.asked) == 1
            return FakeCamera.CLOSE if gone else self.shelf.answer(function, data)

        done = self.back_up_shelf(self.shelf, "--overwrite", answer=answer)
        self.assertOneLine(done, 6, "1 of 2 presets are saved", "is as it was", "run it again")
        self.assertEqual(contents(self.place), {**self.old, "unfinished": None})
        self.assertOneLine(self.back_up_shelf(self.shelf), 2, "--overwrite")
        asked = len(self.shelf.asked)
        self.assertEnds(self.back_up_shelf(self.shelf, "--overwrite"), 0)
        self.assertEqual(self.shelf.asked[asked:], [2])
        self.assertReplaced()


# ---- Restoring ---------------------------------------------------------------------------------------------

OWN = {"number", "id", "picture_path"}  # every camera gives its own
CODES = ({"code"}, {"bytes"})  # a value that has no word


def flat(entries):
    """The entries of a preset in words, those of its objects by both names, as a forecast calls them."""
    all_of_them = {"iso_third_steps": entries["iso"]}  # unless it says else
    for name, value in entries.items():
        if name == "styles":
            for style, row in value.items():
                for part, number in row.items():
                    all_of_them.setdefault(f"styles {part}", {})[style] = number
        elif isinstance(value, dict) and set(value) not in CODES:
            all_of_them |= {f"{name} {part}": number for part, number in value.items()}
        else:
            all_of_them[name] = value
    return all_of_them


def differing_entries(one, other):
    one, other = flat(one), flat(other)
    return {name for name in {**one, **other} if one.get(name) != other.get(name)}


class RestoreTest(BackupTest):
    def second_camera(self, *options, **more):
        camera = Camera(self.path("second"), "--empty", *options, **more)
        self.addCleanup(lambda: camera.process.poll() is None and camera.kill())
        return camera

    def restore(self, url, *options, place=None, timeout=PATIENCE, **more):
        return run_phone(url, "--timeout", timeout, "restore", place or self.place, *options, **more)

    def titles(self, camera):
        return [get(record, "title").rstrip(b"\0") for record in camera.presets()]

    def listed(self, camera):
        """The presets in words."""
        done = run_phone(camera.url, "--json", "list")
        self.assertEnds(done, 0)
        return json.loads(done.stdout)["presets"]

    def make_backup(self, *titles):
        """A backup of presets that a camera stores as they are."""
        shelf = Shelf(*titles)
        shelf.records = [
            changed(record, color_style=13, cs_color_off_color=-1, iso=100, iso_1_3=100) for record in shelf.records
        ]
        self.assertEnds(self.back_up_shelf(shelf), 0)
        return shelf


class RoundTrip(RestoreTest):
    """The samples and some more in a backup, restored into an empty camera, and in a backup again."""

    MORE = {
        # ISO 500 in third steps, 400 in full ones; f/2.8.
        b"Third step": {"mode": 2, "iso": CAMERA_SV[PHONE_SV.index(400)], "av_index": CAMERA_AV[PHONE_AV.index(28)]},
        b"By hand": {"mode": 4, "tv_index": CAMERA_TV[58], "av_index": CAMERA_AV[PHONE_AV.index(80)]},
        b"In a hurry": {"mode": 3, "tv_index": CAMERA_TV[60]},  # a list that ends so costs the next preset its aperture
    }
    STEMS = [*SAMPLES, "12-third-step", "13-by-hand", "14-in-a-hurry"]

    def add_more(self):
        base = Stored(self.store).records[0]
        for title, values in self.MORE.items():
            values = {"iso_1_3": CAMERA_SV_THIRD[PHONE_SV.index(500)], **values}
            record = changed(base, title=title.ljust(52, b"\0"), **values)
            preset = self.file("record.json", json.dumps(record_to_json(record)))
            added = run_camera(self.store, "add", preset, self.file("picture.jpg", picture(len(title))))
            self.assertEqual(added.returncode, 0, added.stderr)

    def compare(self, first_steps, second_steps):
        """Returns what was foretold of "Third step": the entries."""
        self.samples()
        self.add_more()
        with self.camera("--iso-step", first_steps) as camera:
            self.assertEnds(self.back_up(camera), 0)
        with self.second_camera("--iso-step", second_steps) as camera:
            done = self.restore(camera.url, "--json")
            self.assertEnds(done, 0)
            self.assertEnds(self.back_up(camera, place=self.path("again")), 0)
            again = self.restore(camera.url)
            self.assertEnds(again, 0)
            self.assertEqual(len(camera.presets()), 15)
        self.assertEqual(again.stdout.splitlines()[-1], b"0 of 15 stored, 15 held already")
        told = json.loads(done.stdout)
        self.assertEqual(told["differences"], [])
        self.assertEqual(len(told["presets"]), 15)
        before, after = contents(self.place), contents(self.path("again"))
        self.assertEqual(sorted(before), sorted(after))
        for stem, preset in zip(self.STEMS, told["presets"], strict=True):
            self.assertEqual((preset["source"], preset["fate"]), (stem + ".json", "stored"))
            self.assertEqual(before[stem + ".jpg"], after[stem + ".jpg"])
            named = {change["entry"] for change in preset["forecast"]}
            certain = {change["entry"] for change in preset["forecast"] if not change.get("condition")}
            differing = differing_entries(*(json.loads(files[stem + ".json"]) for files in (before, after)))
            self.assertLessEqual(differing - OWN, named, stem)
            self.assertLessEqual(certain, differing, stem)
        changed_entries = {"custom_id", "preset"}  # the preset's file has another sum
        for old, new in zip(*(manifest_of(place)["presets"] for place in (self.place, self.path("again")))):
            self.assertEqual({name for name in old if old[name] != new[name]} - changed_entries, set())
        return {change["entry"] for change in told["presets"][12]["forecast"]}

    def test_differs_in_what_was_foretold_between_full_steps(self):
        self.assertNotIn("aperture", self.compare("full", "full"))

    def test_differs_in_what_was_foretold_between_third_steps(self):
        self.compare("third", "third")

    def test_differs_in_what_was_foretold_from_full_to_third_steps(self):
        self.compare("full", "third")

    def test_differs_in_what_was_foretold_from_third_to_full_steps(self):
        self.assertIn("iso", self.compare("third", "full"))

    def test_an_aperture_is_kept_where_the_list_ends_in_shutter_mode(self):
        shelf = Shelf(b"Wide open", b"Half open")
        for number, aperture in enumerate((28, 56)):
            record = changed(shelf.records[number], mode=2, av_index=aperture, color_style=13, cs_color_off_color=-1)
            shelf.records[number] = changed(record, iso=100, iso_1_3=100)
        self.assertEnds(self.back_up_shelf(shelf), 0)
        self.samples()
        self.add_more()
        with self.camera() as camera:
            for stored in (2, 0):
                done = self.restore(camera.url)
                self.assertEnds(done, 0)
                self.assertIn(f"{stored} of 2 stored".encode(), done.stdout)
                self.assertEqual([get(record, "av_index") for record in camera.presets()[15:]], [28, 56])


class Restoring(RestoreTest):
    TITLES = (b"One", b"Two", b"Three")

    def setUp(self):
        super().setUp()
        self.shelf = self.make_backup(*self.TITLES)

    def test_all_is_stored_in_the_order_of_the_backup(self):
        with self.second_camera() as camera:
            done = self.restore(camera.url)
            self.assertEnds(done, 0)
            self.assertEqual(self.titles(camera), list(self.TITLES))
        lines = [
            f"0{n}-{name}.json: stored, preset {n} with id {n + 1}" for n, name in enumerate(("one", "two", "three"))
        ]
        self.assertEqual(done.stdout.decode().splitlines(), [*lines, "3 of 3 stored"])
        self.assertEqual(done.stderr, b"")
        for custom_id in (1, 2, 3):
            self.assertEqual(stored_picture(self.path("second"), custom_id), self.shelf.pictures[custom_id])

    def test_what_the_camera_holds_stays_as_it_is(self):
        self.samples()
        with self.camera() as camera:
            before = camera.presets()
            self.assertEnds(self.restore(camera.url), 0)
            self.assertEqual(camera.presets()[:12], before)
            self.assertEqual(self.titles(camera)[12:], list(self.TITLES))

    def test_what_is_held_already_is_passed_over(self):
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url, "01-two.json"), 0)
            done = self.restore(camera.url)
            self.assertEnds(done, 0)
            self.assertEqual(self.titles(camera), [b"Two", b"One", b"Three"])
        self.assertIn(b"01-two.json: held already, preset 0 with id 1\n", done.stdout)
        self.assertEqual(done.stdout.splitlines()[-1], b"2 of 3 stored, 1 held already")

    def test_a_camera_holds_what_was_backed_up_there(self):
        self.samples()
        place = self.path("samples")
        with self.camera() as camera:
            self.assertEnds(self.back_up(camera, place=place), 0)
            done = self.restore(camera.url, place=place)
            self.assertEnds(done, 0)
        self.assertEqual(done.stdout.splitlines()[-1], b"0 of 12 stored, 12 held already")

    def test_one_that_a_custom_mode_uses_now_is_held(self):
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url), 0)
        self.assertEqual(run_camera(self.path("second"), "link", "CUSTOM2", "1").returncode, 0)
        with self.second_camera() as camera:
            self.assertEqual(get(camera.presets()[1], "linked_custom_mode"), 2)
            done = self.restore(camera.url)
            self.assertEnds(done, 0)
        self.assertEqual(done.stdout.splitlines()[-1], b"0 of 3 stored, 3 held already")

    def test_one_with_another_picture_is_another_one(self):
        other = Shelf(*self.TITLES[:1])
        other.records, other.pictures = self.shelf.records[:1], {1: picture(77, 400)}
        self.assertEnds(self.back_up_shelf(other, place=self.path("other")), 0)
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url, place=self.path("other")), 0)
            self.assertEnds(self.restore(camera.url), 0)
            self.assertEqual(self.titles(camera), [b"One", *self.TITLES])

    def test_one_of_the_camera_stands_for_one_of_the_backup(self):
        shelf = Shelf(b"Same", b"Same")
        shelf.pictures[2] = shelf.pictures[1]
        self.assertEnds(self.back_up_shelf(shelf, place=self.path("twins")), 0)
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url, "00-same.json", place=self.path("twins")), 0)
            self.assertEnds(self.restore(camera.url, place=self.path("twins")), 0)
            self.assertEqual(self.titles(camera), [b"Same", b"Same"])

    def test_one_whose_picture_cannot_be_asked_for_is_not_taken_for_held(self):
        record = self.shelf.records[0]
        records = [changed(record, custom_id=0)]

        def answer(function, data):
            if function == STORE:
                records.append(changed(record, preset_num=1, custom_id=7))
                return request(REPLY + STORE, struct.pack("<iiii", 1, 1, 7, 0))
            if function == PICTURE and data[8:12] == bytes(4):
                return None
            is_list = function == LIST
            return list_reply(records) if is_list else request(REPLY + PICTURE, data[8:12] + self.shelf.pictures[1])

        with FakeCamera(self.folder, answer) as camera:
            done = self.restore(camera.url, "00-one.json")
        self.assertEnds(done, 0)
        self.assertEqual(done.stdout.splitlines()[-1], b"1 of 1 stored")

    def test_files_that_are_named_are_restored_alone(self):
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url, "02-three.json", os.path.join(self.place, "00-one.json")), 0)
            self.assertEqual(self.titles(camera), [b"One", b"Three"])
            self.assertOneLine(self.restore(camera.url, "03-four.json"), 2, "03-four.json")

    def test_a_dry_run_stores_nothing(self):
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url, "01-two.json"), 0)
            done = self.restore(camera.url, "--dry-run")
            self.assertEnds(done, 0)
            self.assertEqual(self.titles(camera), [b"Two"])
        self.assertEqual(
            done.stdout,
            b"00-one.json: would be stored\n01-two.json: held already, preset 0 with id 1\n"
            b"02-three.json: would be stored\n",
        )

    def test_a_camera_without_room_gets_nothing(self):
        with self.second_camera() as camera:
            with camera.link() as link:
                for number in range(38):
                    link.ask(store_request(phone_record(b"Other %d" % number), picture(number)))
            self.assertOneLine(self.restore(camera.url), 2, "3 presets", "room for 2")
            self.assertEqual(len(camera.presets()), 38)
            self.assertEnds(self.restore(camera.url, "00-one.json"), 0)
            self.assertOneLine(self.restore(camera.url), 2, "2 presets", "room for 1")
            self.assertEnds(self.restore(camera.url, "00-one.json", "01-two.json"), 0)
            self.assertEqual(self.titles(camera)[38:], [b"One", b"Two"])

    def test_a_refusal_says_how_far_it_came(self):
        with self.second_camera("--save-result", "-1") as camera:
            done = self.restore(camera.url)
            told = self.restore(camera.url, "--json")
        self.assertOneLine(done, 11, "answered -1", "0 of 3 stored", "run it again")
        fates = [preset["fate"] for preset in json.loads(told.stdout)["presets"]]
        self.assertEqual(fates, ["refused", "not stored", "not stored"])

    def test_what_a_camera_shows_otherwise_is_told(self):
        records = []

        def answer(function, data):
            if function == STORE:
                sent = data[8 : 8 + PHONE_RECORD]
                records.append(changed(sent, custom_id=len(records) + 1, ev_step=53, iso=100, iso_1_3=100))
                return request(REPLY + STORE, struct.pack("<iiii", 1, len(records) - 1, len(records), 0))
            if function == LIST:
                return list_reply(records)
            return request(REPLY + PICTURE, data[8:12] + self.shelf.pictures[struct.unpack_from("<i", data, 8)[0]])

        with FakeCamera(self.folder, answer) as camera:
            done = self.restore(camera.url)
        self.assertEnds(done, 33)
        self.assertEqual(len(records), 3)
        self.assertEqual(done.stderr.count(b" ev should be "), 3, done.stderr)

    def test_json_tells_of_each_preset(self):
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url, "01-two.json"), 0)
            done = self.restore(camera.url, "--json")
        self.assertEnds(done, 0)
        told = json.loads(done.stdout)
        self.assertEqual(
            [
                (one["source"], one["title"], one["fate"], one["preset_num"], one["custom_id"])
                for one in told["presets"]
            ],
            [
                ("00-one.json", "One", "stored", 1, 2),
                ("01-two.json", "Two", "held already", 0, 1),
                ("02-three.json", "Three", "stored", 2, 3),
            ],
        )
        self.assertEqual(told["differences"], [])

    def test_what_the_backup_has_no_picture_of_is_left_out(self):
        self.shelf.pictures[2] = b""
        self.assertEnds(self.back_up_shelf(self.shelf, "--overwrite"), 9)
        with self.second_camera() as camera:
            done = self.restore(camera.url)
            self.assertOneLine(done, 9, "01-two.json", "no picture", "store")
            self.assertEqual(self.titles(camera), [b"One", b"Three"])
        self.assertEqual(done.stdout.splitlines()[-1], b"2 of 3 stored, 1 left out")

    def test_a_backup_that_broke_off_is_restored_on_demand(self):
        shelf = Shelf(*self.TITLES)
        shelf.pictures.pop(3)
        place = self.path("half")
        self.assertEnds(self.back_up_shelf(shelf, place=place, timeout=0.3), 4)
        with self.second_camera() as camera:
            self.assertOneLine(self.restore(camera.url, place=place), 2, "not complete", "--incomplete")
            self.assertEqual(self.titles(camera), [])
            done = self.restore(camera.url, "--incomplete", place=place)
            self.assertEnds(done, 9)
            self.assertIn(b"02-three.json was not saved", done.stderr)
            self.assertEqual(self.titles(camera), [b"One", b"Two"])


class Cutter:
    """Passes bytes on between a phone and a camera over TCP, and cuts the link when the phone has sent `most`."""

    def __init__(self, camera_url, most):
        self.camera = ("127.0.0.1", int(camera_url.rpartition(":")[2]))
        self.left = most
        self.server = socket.create_server(("127.0.0.1", 0))
        self.url = f"tcp:127.0.0.1:{self.server.getsockname()[1]}"
        self.thread = threading.Thread(target=self._pass_on, daemon=True)
        self.thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.close()
        self.thread.join(PATIENCE)

    def _pass_on(self):
        with contextlib.suppress(OSError):
            phone, _ = self.server.accept()
            with phone, socket.create_connection(self.camera) as camera:
                while True:
                    for ready in select.select([phone, camera], [], [], PATIENCE)[0]:
                        data = ready.recv(min(65536, self.left) if ready is phone else 65536)
                        if not data:
                            return
                        (camera if ready is phone else phone).sendall(data)
                        if ready is phone:
                            self.left -= len(data)
                    if self.left == 0:
                        camera.shutdown(socket.SHUT_WR)
                        select.select([camera], [], [], PATIENCE)  # until the camera has read it
                        return


class CutOff(RestoreTest):
    """A restore that breaks off is run again, and nothing is there twice."""

    TITLES = (b"One", b"Two", b"Three")
    STORED = 8 + PHONE_RECORD + 400  # bytes of a request to store, and its picture's number more

    def test_one_whose_link_is_cut_goes_on(self):
        self.make_backup(*self.TITLES)
        ends = [8 + n * self.STORED for n in range(4)]
        for most in sorted({*range(4, 8 + 3 * self.STORED, 331), *ends, *(end + 8 for end in ends)}):
            with self.subTest(most=most):
                with self.second_camera(kind="tcp") as camera:
                    with Cutter(camera.url, most) as cutter:
                        done = self.restore(cutter.url, wait_for_turn=False)
                    self.assertOneLine(done, 6)
                    told = re.search(r"(\d) of 3 stored", done.stderr.decode())
                    held = self.wait_for_presets(camera)
                    if told:
                        self.assertIn(len(held) - int(told[1]), (0, 1) if b"may be in" in done.stderr else (0,))
                    self.assertEqual(held, list(self.TITLES[: len(held)]))
                    self.assertEnds(self.restore(camera.url), 0)
                    self.assertEqual(self.titles(camera), list(self.TITLES))
                shutil.rmtree(self.path("second"))

    def wait_for_presets(self, camera):
        """What the camera holds once the last phone has gone."""
        with camera.link():
            pass
        return self.titles(camera)

    def test_one_that_a_signal_ends_finishes_what_is_under_way(self):
        self.make_backup(*self.TITLES)
        stored, lists = [], []

        def answer(function, data):
            if function == LIST:
                lists.append(data)
                return list_reply([])
            stored.append(data)
            process.send_signal(signal.SIGINT)
            return request(REPLY + STORE, struct.pack("<iiii", 1, 0, 1, 0))

        with FakeCamera(self.folder, answer) as camera:
            process = subprocess.Popen(
                [PHONE, "--connect", camera.url, "restore", self.place], stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment_of_programs(),
            )  # fmt: skip
            output, talk = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 32)
        self.assertEqual(len(stored), 1)
        self.assertEqual(output, b"00-one.json: stored, preset 0 with id 1\n")
        self.assertIn(b"1 of 3 stored", talk)
        self.assertEqual(len(lists), 2)
        self.assertIn(b'"One" (id 1) is not as foretold', talk)


class Untrusted(RestoreTest):
    """A backup that is not as it was written is refused before a camera is asked for."""

    def setUp(self):
        super().setUp()
        self.make_backup(b"One", b"Two")
        self.manifest = manifest_of(self.place)

    def restore_nowhere(self, *options, place=None):
        """There is no camera: whoever gets as far as to ask for it ends with 3."""
        return self.restore(f"unix:{self.folder}/none.sock", *options, place=place)

    def write_manifest(self, content):
        with open(os.path.join(self.place, MANIFEST), "wb") as file:
            file.write(content if isinstance(content, bytes) else json.dumps(content).encode())

    def assertRefused(self, *words, options=(), code=2, place=None):
        self.assertOneLine(self.restore_nowhere(*options, place=place), code, *words)

    def path_in(self, name):
        return os.path.join(self.place, name)

    def replace_file(self, name, content):
        """Puts other bytes in the place of a file, with their sum in the manifest."""
        self.file(os.path.join("backup", name), content)
        for entry in self.manifest["presets"]:
            for file in (entry["preset"], entry["picture"]):
                if file["file"] == name:
                    file.update(bytes=len(content), sha256=hashlib.sha256(content).hexdigest())
        self.write_manifest(self.manifest)

    def test_a_whole_one_is_taken(self):
        self.assertEnds(self.restore_nowhere(), 3)
        self.write_manifest(self.manifest)
        self.assertEnds(self.restore_nowhere(), 3)

    def test_a_manifest_that_is_no_manifest_is_refused(self):
        for content in (b"", b"{}", b"[]", b"null", b"1", b"\xff\xfe", b"{" * 1000, b"[" * 500000, b'{"format": '):
            with self.subTest(content=content[:20]):
                self.write_manifest(content)
                self.assertRefused(MANIFEST)

    def test_an_entry_of_another_kind_is_refused(self):
        def mend(root, path, value):
            copy = json.loads(json.dumps(root))
            inner = copy
            for key in path[:-1]:
                inner = inner[key]
            if value is KeyError:
                del inner[path[-1]]
            else:
                inner[path[-1]] = value
            return copy

        def paths(node, path=()):
            for key, value in node.items() if isinstance(node, dict) else enumerate(node):
                yield (*path, key), value
                if isinstance(value, (dict, list)):
                    yield from paths(value, (*path, key))

        runs = 0
        for path, right in list(paths(self.manifest)):
            for wrong in ("text", 1.5, 99999999999, {}, [], [[[[[[]]]]]], KeyError):
                is_of_its_kind = isinstance(right, str) and wrong == "text" and path[-1] in ("title", "model")
                is_list = path[-1] == "obsolete" and wrong == []
                if not is_of_its_kind and not is_list:
                    with self.subTest(path=path, wrong=wrong):
                        self.write_manifest(mend(self.manifest, path, wrong))
                        # A name that is no file's names a file that is missing.
                        name = "text" if path[-1] == "file" and wrong == "text" else MANIFEST
                        self.assertRefused(name)
                    runs += 1
        self.assertGreater(runs, 100)

    def test_another_version_is_refused(self):
        self.write_manifest({**self.manifest, "version": 2})
        self.assertRefused("version 2", "version 1")

    def test_an_entry_that_is_given_twice_is_refused(self):
        text = json.dumps(self.manifest)
        self.write_manifest(text.replace('"model"', '"complete": false, "model"').encode())
        self.assertRefused("complete", "twice")

    def test_names_that_lead_out_of_the_folder_are_refused(self):
        secret = shutil.copy(self.path_in("00-one.json"), self.path("secret.json"))
        shutil.copy(secret, self.path_in(".hidden"))
        for name in (
            "../secret.json", secret, "/etc/passwd", "./00-one.json", "x/../00-one.json", "..", ".", "", ".hidden",
            "00-one.json\0", "\x1b[2J", "a\nb", "ü.json", "x" * 101, MANIFEST,
        ):  # fmt: skip
            with self.subTest(name=name):
                manifest = json.loads(json.dumps(self.manifest))
                manifest["presets"][0]["preset"]["file"] = name
                self.write_manifest(manifest)
                self.assertRefused(MANIFEST, options=("--edited",))

    def test_a_file_that_is_named_twice_is_refused(self):
        self.manifest["presets"][1]["preset"]["file"] = "00-one.json"
        self.write_manifest(self.manifest)
        self.assertRefused("twice")

    def test_more_presets_than_a_camera_holds_are_refused(self):
        self.manifest["presets"] *= 21
        self.manifest["count"] = 42
        self.write_manifest(self.manifest)
        self.assertRefused("42 presets")

    def test_a_manifest_of_any_bytes_is_read_or_refused(self):
        random = Random(7)
        text = json.dumps(self.manifest, indent=1).encode()
        for number in range(250):
            damaged = bytearray(text)
            for _ in range(random.randint(1, 4)):
                at = random.randrange(len(damaged))
                damaged[at : at + random.randint(0, 3)] = bytes(
                    random.choices(b'"{}[],:09aZ\\\0\xff', k=random.randint(0, 3))
                )
            with self.subTest(number=number):
                self.write_manifest(bytes(damaged))
                done = self.restore_nowhere("--incomplete", "--edited")
                self.assertIn(done.returncode, (2, 3), done.stderr)
                self.assertEqual(done.stdout, b"")

    def test_a_huge_file_is_not_read(self):
        for name in (MANIFEST, "00-one.json", "00-one.jpg"):
            with self.subTest(name=name):
                shutil.copy(self.path_in(name), self.path("kept"))
                os.truncate(self.path_in(name), 2 << 30)
                done = measure_phone(f"unix:{self.folder}/none.sock", "restore", self.place, "--edited")
                self.assertOneLine(done, 2, name)
                self.assertLess(done.peak, 100 << 20)
                os.replace(self.path("kept"), self.path_in(name))

    def test_a_missing_file_is_named(self):
        for name in ("01-two.json", "01-two.jpg"):
            with self.subTest(name=name):
                os.rename(self.path_in(name), self.path("kept"))
                self.assertRefused(name, "missing")
                os.rename(self.path("kept"), self.path_in(name))

    def test_what_is_no_plain_file_is_refused(self):
        for make in (lambda path: os.symlink(self.path("kept"), path), os.mkdir, os.mkfifo):
            for name in (MANIFEST, "01-two.json", "01-two.jpg"):
                with self.subTest(name=name):
                    os.rename(self.path_in(name), self.path("kept"))
                    make(self.path_in(name))
                    self.assertRefused(name, "plain file", options=("--edited",))
                    os.rmdir(self.path_in(name)) if make is os.mkdir else os.remove(self.path_in(name))
                    os.rename(self.path("kept"), self.path_in(name))

    def test_a_file_that_was_edited_is_taken_on_demand(self):
        path = self.path_in("01-two.json")
        with open(path) as file:
            text = file.read()
        with open(path, "w") as file:
            file.write(text.replace('"Two"', '"Deux"'))
        self.assertRefused("01-two.json", "--edited")
        with self.second_camera() as camera:
            self.assertEnds(self.restore(camera.url, "--edited"), 0)
            self.assertEqual(self.titles(camera), [b"One", b"Deux"])

    def test_an_edited_file_has_to_be_a_preset(self):
        self.file("backup/01-two.json", "{}")
        done = self.restore_nowhere("--edited")
        self.assertEnds(done, 2)
        self.assertIn(b"01-two.json", done.stderr)

    def test_a_picture_has_to_be_a_whole_one(self):
        whole = picture(1, 3000)
        for content, word in ((whole[:-2], "cut off"), (b"GIF89a" * 100, "no JPEG"), (whole[:60], "JPEG")):
            with self.subTest(word=word):
                self.replace_file("01-two.jpg", content)
                self.assertRefused("01-two.jpg", word)

    def test_a_picture_that_no_request_holds_is_refused(self):
        self.replace_file("01-two.jpg", picture(1, 600000 - 8 - 744 + 1))
        self.assertRefused("01-two.jpg", "599249")
        self.replace_file("01-two.jpg", picture(1, 600000 - 8 - 744))
        self.assertEnds(self.restore_nowhere(), 3)

    def test_what_is_no_backup_is_refused(self):
        os.mkdir(self.path("empty"))
        self.assertRefused(MANIFEST, place=self.path("empty"))
        self.assertRefused("no folder", place=self.path("none"), code=1)
        self.assertRefused("no folder", place=self.path_in(MANIFEST))


# ---- Copying -----------------------------------------------------------------------------------------------


class Copying(RestoreTest):
    """Presets of one camera in another."""

    def setUp(self):
        super().setUp()
        self.shelf = self.make_backup(b"One", b"Two", b"Three")

    def copy(self, url, *names, to, **more):
        return run_phone(url, "--timeout", PATIENCE, "copy", *names, "--to", to, **more)

    def first_camera(self):
        self.store = self.path("first")
        camera = self.camera("--empty")
        self.assertEnds(self.restore(camera.url), 0)
        return camera

    def test_records_and_pictures_come_along(self):
        with self.first_camera() as first, self.second_camera() as second:
            done = self.copy(first.url, "three", "0", to=second.url)
            self.assertEnds(done, 0)
            self.assertEqual(self.titles(second), [b"Three", b"One"])
            self.assertEqual(self.titles(first), [b"One", b"Two", b"Three"])
        self.assertEqual(
            done.stdout.decode().splitlines(),
            [
                '"Three" (preset 2, id 3): stored, preset 0 with id 1',
                '"One" (preset 0, id 1): stored, preset 1 with id 2',
                "2 of 2 stored",
            ],
        )
        for old, new in ((3, 1), (1, 2)):
            self.assertEqual(stored_picture(self.path("second"), new), stored_picture(self.store, old))

    def test_samples_differ_in_what_was_foretold(self):
        self.samples()
        with self.camera() as first, self.second_camera("--iso-step", "third") as second:
            done = self.copy(first.url, "--json", *map(str, range(12)), to=second.url)
            self.assertEnds(done, 0)
            before, after = self.listed(first), self.listed(second)
        told = json.loads(done.stdout)
        self.assertEqual(len(after), 12)
        for old, new, preset in zip(before, after, told["presets"]):
            named = {change["entry"] for change in preset["forecast"]}
            self.assertLessEqual(differing_entries(old, new) - OWN, named)

    def test_a_camera_may_be_both(self):
        with self.first_camera() as camera:
            self.assertEnds(self.copy(camera.url, "two", to=camera.url), 0)
            self.assertEqual(self.titles(camera), [b"One", b"Two", b"Three", b"Two"])

    def test_nothing_is_passed_over(self):
        with self.first_camera() as first, self.second_camera() as second:
            for _ in range(2):
                self.assertEnds(self.copy(first.url, "one", to=second.url), 0)
            self.assertEqual(self.titles(second), [b"One", b"One"])

    def test_a_dry_run_stores_nothing(self):
        with self.first_camera() as first, self.second_camera() as second:
            done = self.copy(first.url, "one", "--dry-run", to=second.url)
            self.assertEnds(done, 0)
            self.assertEqual(self.titles(second), [])
        self.assertEqual(done.stdout, b'"One" (preset 0, id 1): would be stored\n')

    def test_a_failure_names_its_camera(self):
        gone = f"unix:{self.folder}/none.sock"
        with self.first_camera() as camera:
            self.assertOneLine(self.copy(camera.url, "one", to=gone), 3, f"the camera at {gone}: ")
            self.assertOneLine(self.copy(gone, "one", to=camera.url), 3, f"the camera at {gone}: ")
            self.assertEqual(len(camera.presets()), 3)

    def test_a_link_that_breaks_is_told_from_the_other(self):
        def closing(function, data):
            return FakeCamera.CLOSE if function in (PICTURE, STORE) else self.shelf.answer(function, data)

        with self.first_camera() as camera, FakeCamera(self.folder, closing) as broken:
            done = self.copy(broken.url, "two", to=camera.url)
            self.assertOneLine(done, 6, f"the camera at {broken.url} closed the link", "0 of 1 stored")
            self.assertNotIn(b"may be in the camera", done.stderr)
        with self.camera() as camera, FakeCamera(self.folder, closing) as broken:
            done = self.copy(camera.url, "two", to=broken.url)
            self.assertOneLine(done, 6, f"the camera at {broken.url} closed the link", "may be in the camera")

    def test_a_picture_that_cannot_be_read_stops_it(self):
        self.shelf.pictures[2] = b""
        with FakeCamera(self.folder, self.shelf.answer) as first, self.second_camera() as second:
            done = self.copy(first.url, "one", "two", "three", to=second.url)
            self.assertOneLine(done, 9, f"the camera at {first.url} could not read", '"Two"', "1 of 3 stored")
            self.assertEqual(self.titles(second), [b"One"])

    def test_a_broken_picture_stops_it(self):
        self.shelf.pictures[1] = self.shelf.pictures[1][:-2]
        with FakeCamera(self.folder, self.shelf.answer) as first, self.second_camera() as second:
            done = self.copy(first.url, "two", "one", to=second.url)
            self.assertOneLine(done, 2, '"One"', "cut off", "1 of 2 stored")
            self.assertEqual(self.titles(second), [b"Two"])

    def test_a_preset_that_is_not_there_stops_it_before_all(self):
        with self.first_camera() as first, self.second_camera() as second:
            self.assertEnds(self.copy(first.url, "one", "seven", to=second.url), 9)
            self.assertEqual(self.titles(second), [])
            self.assertOneLine(self.copy(first.url, "one", to="nowhere"), 2, "--to")


if __name__ == "__main__":
    unittest.main()
