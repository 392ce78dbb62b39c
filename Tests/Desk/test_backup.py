"""All presets of a camera in a folder, and back: `backup`, `restore` and `copy`."""

import contextlib
import hashlib
import json
import os
import re
import resource
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest

from desk import (
    LIST, PATIENCE, PHONE, PICTURE, REPLY, STORE, Camera, DeskTest, FakeCamera, Stored, changed, environment_of_programs,
    get, list_reply, phone_record, picture, request, run_on_terminal, run_phone, stored_picture, update_request,
    what_a_phone_gets,
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

    def test_a_terminal_shows_one_bar_for_all(self):
        shelf = Shelf(b"One", b"Two", b"Golden hour")
        shelf.pictures[1] = picture(1, 200000)
        with FakeCamera(self.folder, shelf.answer) as camera:
            done = run_on_terminal(camera.url, "backup", self.place, environment={"NO_COLOR": "1"})
        self.assertEnds(done, 0)
        bars = [piece for piece in done.text.split("\r") if "[" in piece and " of " in piece]
        self.assertEqual(
            [bar.removesuffix("\x1b[K") for bar in bars],
            ["[          ] 1 of 3 One", "[===       ] 2 of 3 Two", "[======    ] 3 of 3 Golden hour"],
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
        self.assertOneLine(done, 6, "1 of 2 presets are saved", "is as it was", "--overwrite")
        self.assertEqual(contents(self.place), {**self.old, "unfinished": None})
        self.assertOneLine(self.back_up_shelf(self.shelf), 2, "--overwrite")
        asked = len(self.shelf.asked)
        self.assertEnds(self.back_up_shelf(self.shelf, "--overwrite"), 0)
        self.assertEqual(self.shelf.asked[asked:], [2])
        self.assertReplaced()


if __name__ == "__main__":
    unittest.main()
