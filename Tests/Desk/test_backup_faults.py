"""Each system call that a backup makes in its folder, and a restore on its link, fails in turn, and kills the phone.

Whatever happens, the folder holds whole files alone, and the next run makes of it what one run would have made; a
camera has each preset once.
"""

import errno
import os
import shutil
import signal
import unittest

from desk import FakeCamera, picture
from test_backup import BackupTest, RestoreTest, Shelf, contents
from test_system_calls import PATIENCE_WITH_FAULTS, SHORT, WatchedTest, counted, preloaded

KINDS = ["open", "write", "fsync", "rename", "close", "mkdir", "opendir", "unlink", "rmdir"]
FAILURES = {
    "open": [errno.EIO, errno.EMFILE, errno.ENOSPC],
    "write": [errno.EIO, errno.ENOSPC],
    "fsync": [errno.EIO, errno.ENOSPC],
    "rename": [errno.EIO, errno.ENOSPC],
    "mkdir": [errno.EACCES, errno.ENOSPC],
    "unlink": [errno.EIO],
    "read": [errno.EIO],
}
INTERRUPTIONS = {
    "open": [errno.EINTR], "read": [errno.EINTR, SHORT], "write": [errno.EINTR, SHORT], "fsync": [errno.EINTR],
    "close": [errno.EINTR],
}  # fmt: skip


class Faults(WatchedTest, BackupTest):
    """A backup of two presets, into a new folder or in the place of an older backup."""

    def setUp(self):
        super().setUp()
        self.old_shelf = Shelf(b"Uno", b"Two")
        self.shelf = Shelf(b"One", b"Two")
        self.shelf.pictures[2] = picture(7, 30000)
        self.old = self.path("old")
        self.assertEnds(self.back_up_shelf(self.old_shelf, place=self.old), 0)
        self.fresh = self.path("fresh")
        self.assertEnds(self.back_up_shelf(self.shelf, place=self.fresh), 0)

    def begin(self, overwrites):
        shutil.rmtree(self.place, ignore_errors=True)
        if overwrites:
            shutil.copytree(self.old, self.place)

    def run_with(self, overwrites, **watched):
        options = ("--overwrite",) if overwrites else ()
        environment = preloaded(folder=self.place, **watched) if watched else None
        with FakeCamera(self.folder, self.shelf.answer) as camera:
            return self.back_up(camera, *options, environment=environment)

    def all_faults(self, overwrites, errors):
        self.begin(overwrites)
        if os.path.exists(self.report):
            os.remove(self.report)
        self.assertEnds(self.run_with(overwrites, report=self.report), 0)
        return list(self.faults(counted(self.report), errors))

    def assertWholeFiles(self):
        """Each file is one of those that were there or were to come, whole; a killed writer's own aside."""
        whole = [contents(self.old), contents(self.fresh)]
        for folder, _, names in os.walk(self.place):
            for name, content in contents(folder).items():
                if name in names and name != "manifest.json" and not name.startswith(".shotmentor-"):
                    self.assertIn(content, [found.get(name) for found in whole], name)

    def assertGoesOn(self, overwrites):
        """The next run ends with what one run would have made, and nothing else."""
        done = self.run_with(overwrites)
        is_complete_already = done.returncode == 2 and not overwrites
        if not is_complete_already:
            self.assertEnds(done, 0)
        self.assertEqual(contents(self.place), contents(self.fresh))

    def test_one_that_is_killed_at_any_call_goes_on(self):
        for overwrites in (False, True):
            faults = self.all_faults(overwrites, {kind: [-signal.SIGKILL] for kind in KINDS})
            self.assertGreater(len(faults), 30)
            for fault in faults:
                with self.subTest(overwrites=overwrites, fault=fault):
                    self.begin(overwrites)
                    done = self.run_with(overwrites, fault=fault)
                    self.assertEqual(done.returncode, -signal.SIGKILL)
                    self.assertWholeFiles()
                    self.assertGoesOn(overwrites)

    def test_one_that_is_interrupted_at_any_call_leaves_whole_files_alone(self):
        faults = self.all_faults(False, {kind: [-signal.SIGINT] for kind in KINDS})
        self.assertGreater(len(faults), 30)
        for fault in faults:
            with self.subTest(fault=fault):
                self.begin(False)
                done = self.run_with(False, fault=fault)
                self.assertEqual(done.returncode, -signal.SIGINT)
                self.assertWholeFiles()
                left = os.listdir(self.place) if os.path.exists(self.place) else []
                self.assertEqual([name for name in left if name.startswith(".")], [])
                self.assertGoesOn(False)

    def test_one_that_a_call_fails_ends_with_one_line_and_goes_on(self):
        for overwrites in (False, True):
            faults = self.all_faults(overwrites, FAILURES)
            self.assertGreater(len(faults), 40)
            for fault in faults:
                with self.subTest(overwrites=overwrites, fault=fault):
                    self.begin(overwrites)
                    done = self.run_with(overwrites, fault=fault)
                    self.assertEnds(done, 1)
                    self.assertOneLine(done.stderr.decode())
                    self.assertEqual(done.stdout, b"")
                    self.assertWholeFiles()
                    self.assertEqual([name for name in os.listdir(self.folder) if name.startswith(".")], [])
                    self.assertGoesOn(overwrites)

    def test_calls_that_are_interrupted_or_cut_short_are_not_seen(self):
        for overwrites in (False, True):
            faults = self.all_faults(overwrites, INTERRUPTIONS)
            self.assertGreater(len(faults), 40)
            for fault in faults:
                with self.subTest(overwrites=overwrites, fault=fault):
                    self.begin(overwrites)
                    self.assertEnds(self.run_with(overwrites, fault=fault), 0)
                    self.assertEqual(contents(self.place), contents(self.fresh))


class RestoreFaults(WatchedTest, RestoreTest):
    """A restore of two presets ends at each of its calls, and is run again."""

    def setUp(self):
        super().setUp()
        self.make_backup(b"One", b"Two")

    def counts(self):
        with self.second_camera() as camera:
            watched = preloaded(sockets=True, report=self.report)
            self.assertEnds(self.restore(camera.url, environment=watched), 0)
        shutil.rmtree(self.path("second"))
        return counted(self.report)

    def run_with(self, fault, codes):
        with self.second_camera() as camera:
            done = self.restore(
                camera.url, timeout=PATIENCE_WITH_FAULTS, environment=preloaded(sockets=True, fault=fault),
                wait_for_turn=False,
            )  # fmt: skip
            self.assertIn(done.returncode, codes, done.stderr)
            again = self.restore(camera.url)
            self.assertEnds(again, 0)
            self.assertEqual(self.titles(camera), [b"One", b"Two"])
        shutil.rmtree(self.path("second"))

    def test_one_that_is_killed_at_any_call_goes_on(self):
        faults = list(
            self.faults(self.counts(), {kind: [-signal.SIGKILL] for kind in ("connect", "send", "recv", "poll")})
        )
        self.assertGreater(len(faults), 15)
        for fault in faults:
            with self.subTest(fault=fault):
                self.run_with(fault, (-signal.SIGKILL,))

    def test_one_whose_link_fails_at_any_call_goes_on(self):
        errors = {"send": [errno.EPIPE], "recv": [errno.ETIMEDOUT]}
        faults = list(self.faults(self.counts(), errors))
        self.assertGreater(len(faults), 8)
        for fault in faults:
            with self.subTest(fault=fault):
                self.run_with(fault, (4, 6))


if __name__ == "__main__":
    unittest.main()
