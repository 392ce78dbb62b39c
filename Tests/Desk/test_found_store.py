"""A camera over a folder in which others have been: it serves what is a store's, and says what is not."""

import os
import sqlite3
import struct
import time
import unittest

from desk import (
    LIST, PICTURE, REPLY, DeskTest, Stored, delete_request, list_reply,
    picture_request, request, run_camera, stored_picture, what_a_phone_gets,
)  # fmt: skip


def empty_picture(custom_id):
    return request(REPLY + PICTURE, struct.pack("<i", custom_id))


class Pictures(DeskTest):
    """What lies in the place of a picture is given to nobody, and nobody waits for it."""

    def setUp(self):
        super().setUp()
        self.samples()
        self.stored = Stored(self.store)
        self.custom_id, self.other_id = self.stored.ids()[3:5]
        self.path = os.path.join(self.store, "pictures", f"{self.custom_id}.jpg")

    def assertGivesAnEmptyPicture(self, reason):
        with self.camera() as camera, camera.link() as link:
            begun = time.monotonic()
            self.assertEqual(link.ask(picture_request(self.custom_id)), empty_picture(self.custom_id))
            self.assertLess(time.monotonic() - begun, 2)
            self.assertEqual(
                link.ask(picture_request(self.other_id))[12:],
                what_a_phone_gets(stored_picture(self.store, self.other_id)),
            )
            self.assertEqual(link.ask(request(LIST)), list_reply(self.stored.as_phone_sees()))
            self.assertIn(f"empty picture of the preset with id {self.custom_id}: ", camera.talk())
            self.assertIn(reason, camera.talk())

    def test_a_pipe_is_not_waited_for(self):
        os.remove(self.path)
        os.mkfifo(self.path)
        self.assertGivesAnEmptyPicture("not a file but a pipe")

    def test_a_link_is_not_followed_out_of_the_store(self):
        os.rename(self.path, os.path.join(self.folder, "secret.jpg"))
        os.symlink(os.path.join(self.folder, "secret.jpg"), self.path)
        self.assertGivesAnEmptyPicture("not a file but a link")

    def test_a_file_of_two_gigabytes_is_not_read(self):
        os.truncate(self.path, 2 << 30)
        self.assertGivesAnEmptyPicture("2147483648 bytes")


class Refusals(DeskTest):
    """What the store could not do is said, also where the library goes on as if it had."""

    def test_a_deletion_that_the_store_refused_is_told_to_the_cameras_user(self):
        self.samples()
        before = Stored(self.store)
        with self.camera() as camera:
            reader = sqlite3.connect(os.path.join(self.store, "presets.sqlite"), isolation_level=None)
            reader.execute("BEGIN")
            reader.execute("SELECT * FROM presets").fetchone()  # keeps every writer from its commit
            camera.ask(delete_request((0, before.ids()[0])))
            reader.close()
            self.assertIn("deleting presets refused with -1, which the phone is not told: ", camera.talk())
            self.assertIn("database is locked", camera.talk())
            self.assertEqual(camera.ask(request(LIST)), list_reply(before.as_phone_sees()))


class Starts(DeskTest):
    """A folder that would harm somebody is refused at once."""

    def test_a_database_with_a_view_that_never_ends_is_refused_at_once(self):
        self.samples()
        database = sqlite3.connect(os.path.join(self.store, "presets.sqlite"))
        database.execute("ALTER TABLE camera RENAME TO real")
        database.execute(
            "CREATE VIEW camera AS WITH RECURSIVE more(next_custom_id) AS (SELECT 1 UNION ALL "
            "SELECT next_custom_id + 1 FROM more) SELECT count(*) AS next_custom_id FROM more"
        )
        database.close()
        begun = time.monotonic()
        done = run_camera(self.store, "presets")
        self.assertEnds(done, 8)
        self.assertLess(time.monotonic() - begun, 2)
        self.assertEqual(done.stderr.count(b"\n"), 1)

    def test_what_a_database_says_of_itself_does_not_reach_the_terminal(self):
        self.samples()
        path = os.path.join(self.store, "presets.sqlite")
        with open(path, "rb") as file:
            content = file.read()
        declaration = b"CREATE TABLE camera (next_custom_id INTEGER NOT NULL)"
        self.assertIn(declaration, content)
        evil = b"CREATE TABLE \x1b[31m\x9b\r\xe2\x80\xae(\x07".ljust(len(declaration), b"\x1b")
        with open(path, "wb") as file:
            file.write(content.replace(declaration, evil))
        done = run_camera(self.store, "presets")
        self.assertEnds(done, 8)
        self.assertEqual(done.stderr.count(b"\n"), 1)
        for raw in (b"\x1b", b"\r", b"\x07", b"\x9b\r", b"\xe2\x80\xae"):
            self.assertNotIn(raw, done.stderr)

    def test_pictures_elsewhere_are_left_alone(self):
        self.samples()
        elsewhere = os.path.join(self.folder, "holidays")
        os.rename(os.path.join(self.store, "pictures"), elsewhere)
        with open(os.path.join(elsewhere, "77.jpg"), "wb") as file:
            file.write(b"somebody's own")
        os.symlink(elsewhere, os.path.join(self.store, "pictures"))
        self.assertEnds(run_camera(self.store), 8)
        self.assertTrue(os.path.exists(os.path.join(elsewhere, "77.jpg")))

    def test_a_first_start_puts_its_samples_into_a_folder_that_a_link_leads_to(self):
        os.mkdir(os.path.join(self.folder, "real"))
        os.symlink(os.path.join(self.folder, "real"), self.store)
        with self.camera() as camera:
            self.assertEqual(len(camera.presets()), 12)
        self.assertEqual(os.listdir(self.folder).count("store"), 1)

    def test_nothing_is_made_beside_the_store(self):
        with self.camera() as camera:
            self.assertEqual(os.listdir(self.folder), ["store"])
            camera.ask(request(LIST))
        self.assertEqual(
            sorted(os.listdir(self.store)), ["lock", "pictures", "presets.sqlite", "presets.sqlite-journal"]
        )


if __name__ == "__main__":
    unittest.main()
