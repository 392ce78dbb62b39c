"""Each system call of the camera's links, and of the phone's link and files, fails in turn.

The programs run with SystemCalls.cpp preloaded: a first run without a fault tells how often each kind of call
is made, and then each of them fails once with each error that it may have. The camera must live on and serve
the next phone from a store that holds what was confirmed; the phone must end with one line and a code that
Docs/desk.md lists, leave no temporary file, and an output file as it was or whole. Calls that are interrupted
or cut short must not be seen at all.
"""

import contextlib
import errno
import json
import os
import stat
import subprocess
import tempfile
import unittest

from desk import (
    BUSY_FRAME, CAMERA, LIST, PATIENCE, Closed, DeskTest, Link, Silent, Stored, delete_request,
    environment_of_programs, get,
    phone_record, picture, picture_request, pictures_of, record_to_json, records_in, request, rich_record,
    run_phone, store_request, store_result, stored_picture,
)  # fmt: skip

LIBRARY = os.environ.get("SHOTMENTOR_SYSTEM_CALLS", "")
MEMORY = "/dev/shm"  # a camera is started for each fault: there flushes take no time
SHORT = "short"
PATIENCE_WITH_FAULTS = 0.5  # seconds that a phone waits for an answer that a fault may have swallowed


def preloaded(folder=None, sockets=False, fault=None, report=None):
    """The environment of a program whose calls are watched."""
    environment = {"LD_PRELOAD": LIBRARY}
    if folder:
        environment["SYSTEM_CALLS_FOLDER"] = folder
    if sockets:
        environment["SYSTEM_CALLS_SOCKETS"] = "1"
    if fault:
        environment["SYSTEM_CALLS_FAULT"] = ":".join(map(str, fault))
    if report:
        environment["SYSTEM_CALLS_REPORT"] = report
    return environment


def counted(report):
    """How often each kind of call was made."""
    counts = {}
    with open(report) as lines:
        for line in lines:
            kind, number = line.split()[:2]
            counts[kind] = max(counts.get(kind, 0), int(number))
    return counts


class WatchedTest(DeskTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if os.access(MEMORY, os.W_OK):
            tempfile.tempdir = MEMORY

    def setUp(self):
        super().setUp()
        if not os.access(LIBRARY, os.R_OK):
            raise RuntimeError(f"set SHOTMENTOR_SYSTEM_CALLS to the library; it is {LIBRARY!r}")
        self.report = os.path.join(self.folder, "report")

    def faults(self, counts, errors):
        """Each call of each kind with each of its errors."""
        for kind, numbers in errors.items():
            for number in numbers:
                for nth in range(1, counts.get(kind, 0) + 1):
                    yield kind, nth, number

    def assertOneLine(self, talk):
        self.assertEqual(len(talk.strip().splitlines()), 1, talk)


# ---- The camera's links ------------------------------------------------------------------------------------

LINK_FAILURES = {
    "accept": [errno.EMFILE, errno.ENOBUFS, errno.ECONNABORTED],
    "recvmsg": [errno.ECONNRESET, errno.ETIMEDOUT, errno.EIO],
    "recv": [errno.ECONNRESET, errno.ETIMEDOUT, errno.EIO],
    "send": [errno.EPIPE, errno.EIO],
    "sendmsg": [errno.EPIPE, errno.EIO],
    "poll": [errno.ENOMEM],
    "shutdown": [errno.ENOTCONN],
    "close": [errno.EIO],
}
LINK_INTERRUPTIONS = {kind: [errno.EINTR, errno.EAGAIN] for kind in ("accept", "recvmsg", "recv", "send", "sendmsg")}
LINK_INTERRUPTIONS["poll"] = [errno.EINTR]
CUT_SHORT = {kind: [SHORT] for kind in ("recvmsg", "recv", "send", "sendmsg")}


class CameraLinks:
    """A phone asks for the list, stores a preset and fetches a picture, and another one is turned away, while
    a call of the camera fails."""

    def start(self, **watched):
        return self.camera("--empty", kind=self.kind, environment=preloaded(sockets=True, **watched))

    def talk_with(self, camera, patience=PATIENCE):
        """The custom_id of the preset that was stored, None as long as that is not confirmed."""
        with Link(camera.url) as link:

            def ask(data):
                link.send(data, range(16384, len(data), 16384))
                return link.receive(patience)

            yield None
            records_in(ask(request(LIST)))
            with Link(camera.url) as too_many:
                self.assertEqual(too_many.receive(patience), BUSY_FRAME)
            result, _, custom_id, _ = store_result(ask(store_request(phone_record(b"Stored"), self.image)))
            self.assertEqual(result, 1)
            yield custom_id
            self.assertEqual(ask(picture_request(custom_id))[12:], self.image)

    def setUp(self):
        super().setUp()
        self.image = picture(1, 60000)

    def counts(self):
        with self.start(report=self.report) as camera:
            list(self.talk_with(camera))
        return counted(self.report)

    def run_with(self, fault, may_be_seen):
        """A phone that meets the fault, one that comes after it, and the store at rest."""
        self.store = os.path.join(self.folder, "-".join(map(str, fault)))
        with self.start(fault=fault) as camera:
            confirmed = None
            if may_be_seen:
                with contextlib.suppress(Closed, Silent, OSError):
                    for confirmed in self.talk_with(camera, PATIENCE_WITH_FAULTS):
                        pass
                # A stream comes in pieces as it likes: the call may be left to a later phone.
                for _ in range(2 if self.kind == "tcp" else 0):
                    with contextlib.suppress(Closed, Silent, OSError):
                        camera.presets()
            else:
                *_, confirmed = self.talk_with(camera)
            with camera.link() as link:
                ids = [get(record, "custom_id") for record in records_in(link.ask(request(LIST)))]
                data = store_request(phone_record(b"Further"), self.image)
                result, _, further, _ = store_result(link.ask(data))
            self.assertEqual(result, 1)
        self.assertLessEqual(len(ids), 1)
        if confirmed is not None:
            self.assertEqual(ids, [confirmed])
        self.assertEqual(Stored(self.store).ids(), [*ids, further])
        self.assertEqual(pictures_of(self.store), sorted(f"{custom_id}.jpg" for custom_id in [*ids, further]))
        for custom_id in [*ids, further]:
            self.assertEqual(stored_picture(self.store, custom_id), self.image)

    def test_a_call_that_fails_costs_no_more_than_the_phone_that_meets_it(self):
        runs = 0
        for fault in self.faults(self.counts(), LINK_FAILURES):
            with self.subTest(fault=fault):
                self.run_with(fault, may_be_seen=True)
            runs += 1
        self.assertGreater(runs, 15)

    def test_a_call_that_is_interrupted_or_too_early_is_not_seen(self):
        runs = 0
        for fault in self.faults(self.counts(), LINK_INTERRUPTIONS):
            with self.subTest(fault=fault):
                self.run_with(fault, may_be_seen=False)
            runs += 1
        self.assertGreater(runs, 10)

    def test_a_link_that_cannot_be_made_ends_the_camera_with_one_line(self):
        errors = {"socket": [errno.EMFILE, errno.ENOBUFS], "bind": [errno.EACCES, errno.EADDRINUSE],
                  "listen": [errno.EADDRINUSE]}  # fmt: skip
        url = f"unix:{self.folder}/camera.sock" if self.kind == "unix" else "tcp:127.0.0.1:0"
        for fault in self.faults({"socket": 1, "bind": 1, "listen": 1}, errors):
            with self.subTest(fault=fault):
                done = subprocess.run(
                    [CAMERA, "--store", self.store, "--empty", "--listen", url],
                    stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE,
                    env=environment_of_programs(**preloaded(sockets=True, fault=fault)),
                )  # fmt: skip
                self.assertEnds(done, 3)
                self.assertOneLine(done.stderr.decode())
                self.assertIn(url, done.stderr.decode())
                self.assertEqual(done.stdout, b"")
                with self.camera(url=url) as next_camera:
                    self.assertEqual(next_camera.presets(), [])


class CameraOnAUnixSocket(CameraLinks, WatchedTest):
    kind = "unix"


class CameraOnTcp(CameraLinks, WatchedTest):
    kind = "tcp"

    def test_a_call_that_is_cut_short_is_not_seen(self):
        runs = 0
        for fault in self.faults(self.counts(), CUT_SHORT):
            with self.subTest(fault=fault):
                self.run_with(fault, may_be_seen=False)
            runs += 1
        self.assertGreater(runs, 4)


# ---- The phone ---------------------------------------------------------------------------------------------

FILE_FAILURES = {
    "open": [errno.EIO, errno.EMFILE, errno.EACCES, errno.ENOSPC],
    "read": [errno.EIO],
    "write": [errno.EIO, errno.ENOSPC],
    "fsync": [errno.EIO, errno.ENOSPC],
    "chmod": [errno.EIO],
    "rename": [errno.EIO, errno.ENOSPC],
    "close": [errno.EIO],
    "stat": [errno.EIO],
    "unlink": [errno.EIO],
}
FILE_INTERRUPTIONS = {
    "open": [errno.EINTR], "read": [errno.EINTR, SHORT], "write": [errno.EINTR, SHORT],
    "fsync": [errno.EINTR], "close": [errno.EINTR],
}  # fmt: skip
PHONE_LINK_FAILURES = {
    "recv": [errno.ETIMEDOUT, f"{errno.ECONNRESET}+"],  # what a reset link still holds is read
    "recvmsg": [errno.ETIMEDOUT, f"{errno.ECONNRESET}+"],
    "send": [errno.EPIPE],
    "sendmsg": [errno.EPIPE],
    "close": [errno.EIO],
    "shutdown": [errno.ENOTCONN],
    "socket": [errno.EMFILE],
    "connect": [errno.ECONNREFUSED, errno.EACCES],
    "poll": [errno.ENOMEM],
}
OLD = b"what was there before"


class PhoneCalls(WatchedTest):
    """The phone saves a picture, or stores a preset, while a call fails."""

    def setUp(self):
        super().setUp()
        self.samples()
        self.files = os.path.join(self.folder, "files")
        os.mkdir(self.files)
        self.target = os.path.join(self.files, "saved.jpg")
        with open(os.path.join(self.files, "p.json"), "w") as file:
            json.dump(record_to_json(rich_record()), file)
        self.image = picture(7, 20000)
        with open(os.path.join(self.files, "p.jpg"), "wb") as file:
            file.write(self.image)
        self.commands = {
            "picture": ("picture", 3, "-o", self.target),
            "store": (
                "store", "--unchecked", os.path.join(self.files, "p.json"), os.path.join(self.files, "p.jpg"),
            ),  # fmt: skip
        }

    def serve(self, kind):
        self.serving = self.camera(kind=kind)
        self.old_file()
        self.assertEnds(self.phone("picture"), 0)
        with open(self.target, "rb") as file:
            self.saved = file.read()

    def old_file(self):
        with open(self.target, "wb") as file:
            file.write(OLD)
        os.chmod(self.target, 0o640)

    def phone(self, command, patience=PATIENCE, **watched):
        return run_phone(
            self.serving.url, "--timeout", patience, *self.commands[command],
            environment=preloaded(**watched) if watched else None,
        )  # fmt: skip

    def counts(self, command, **watched):
        if os.path.exists(self.report):
            os.remove(self.report)
        self.assertEnds(self.phone(command, report=self.report, **watched), 0)
        return counted(self.report)

    def count(self):
        """The presets, when there is room for a further one."""
        count = len(self.serving.presets())
        if count > 38:
            self.serving.ask(delete_request(*self.added()))
            count = len(self.serving.presets())
        return count

    def added(self):
        for number, record in enumerate(self.serving.presets()):
            if number >= 12:
                yield number, get(record, "custom_id")

    def run_with(self, command, fault, codes, **watched):
        self.old_file()
        before = self.count()
        patience = PATIENCE if codes == (0,) else PATIENCE_WITH_FAULTS
        done = self.phone(command, patience, fault=fault, **watched)
        self.assertIn(done.returncode, codes, done.stderr)
        if done.returncode != 0:
            self.assertOneLine(done.stderr.decode())
            self.assertEqual(done.stdout, b"")
        self.assertEqual(sorted(os.listdir(self.files)), ["p.jpg", "p.json", "saved.jpg"])
        with open(self.target, "rb") as file:
            content = file.read()
        is_saved = command == "picture" and done.returncode == 0
        self.assertIn(content, [self.saved] if is_saved else [OLD, self.saved])
        if fault[0] != "stat":
            self.assertEqual(stat.S_IMODE(os.stat(self.target).st_mode), 0o640)
        stored = len(self.serving.presets()) - before
        if command == "store":
            self.assertIn(stored, (1,) if done.returncode == 0 else (0, 1))
        else:
            self.assertEqual(stored, 0)

    def try_all(self, commands, errors, codes, at_least, **watched):
        runs = 0
        for command in commands:
            for fault in self.faults(self.counts(command, **watched), errors):
                with self.subTest(command=command, fault=fault):
                    self.run_with(command, fault, codes(fault), **watched)
                runs += 1
        self.assertGreater(runs, at_least)

    def test_a_file_that_fails_ends_with_one_line_and_nothing_in_half(self):
        self.serve("unix")
        harmless = ("close", "stat", "unlink")
        self.try_all(
            ("picture", "store"), FILE_FAILURES, lambda fault: (0, 1) if fault[0] in harmless else (1,), 15,
            folder=self.files,
        )  # fmt: skip

    def test_a_file_that_is_interrupted_or_cut_short_is_not_seen(self):
        self.serve("unix")
        self.try_all(("picture", "store"), FILE_INTERRUPTIONS, lambda _: (0,), 10, folder=self.files)

    def test_a_link_that_fails_ends_with_one_line(self):
        codes = {"socket": (3,), "connect": (3,), "close": (0,), "shutdown": (0,), "poll": (0, 3, 4, 6)}
        for kind in ("unix", "tcp"):
            self.serve(kind)
            self.try_all(
                ("picture", "store"), PHONE_LINK_FAILURES, lambda fault: codes.get(fault[0], (4, 6)), 15,
                sockets=True,
            )  # fmt: skip
            self.serving.stop()

    def test_a_link_that_is_interrupted_is_not_seen(self):
        for kind in ("unix", "tcp"):
            self.serve(kind)
            self.try_all(("picture", "store"), LINK_INTERRUPTIONS, lambda _: (0,), 8, sockets=True)
            self.serving.stop()

    def test_a_stream_that_is_cut_short_or_connects_late_is_not_seen(self):
        self.serve("tcp")
        self.try_all(("picture", "store"), {**CUT_SHORT, "connect": [errno.EINTR]}, lambda _: (0,), 8, sockets=True)


if __name__ == "__main__":
    unittest.main()
