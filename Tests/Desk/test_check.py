"""`shotmentor-phone check`: what it says of cameras that do all right, and of those that the lab makes do wrong."""

import json
import os
import re
import shutil
import signal
import struct
import subprocess
import time
import unittest
from xml.etree import ElementTree

from desk import (
    LIST, PATIENCE, PHONE, PHONE_RECORD, PRESET_LIMIT, REPLY, STORE, UPDATE, DeskTest, FakeCamera,
    Stored, environment_of_programs, list_reply, measure_phone, most_of_phone, phone_record, picture,
    pictures_of, request, run_camera, run_on_terminal, run_phone, store_request, stored_picture,
)  # fmt: skip
from test_example_host import Host

FAULTY, STOPPED, BUSY, USAGE, MACHINE = 31, 32, 5, 2, 1
LEAST_ROOM = 3  # presets that check has in the camera at once

# What cannot be seen on a link of each kind, or without the camera's log.
UNSEEN = {
    "unix": {"requests-together"},
    "tcp": {"refuse-negative-total", "replies-apart", "stall-too-many-bytes"},
}
OF_THE_LOG = {"log-written", "confirm-all", "confirm-in-time", "confirm-once", "memory", "pictures-opened"}


def all_ids():
    done = subprocess.run([PHONE, "check", "--list-checks"], capture_output=True, timeout=PATIENCE, check=True)
    return [line.split()[0] for line in done.stdout.decode().splitlines()]


class CheckTest(DeskTest):
    def check(self, camera, *options, code=0, **more):
        """The results as JSON."""
        done = run_phone(camera.url, "--json", "check", *options, **more)
        self.assertEqual(done.returncode, code, done.stderr.decode() + done.stdout.decode()[-3000:])
        return json.loads(done.stdout)

    def ids_with(self, report, result):
        return {check["id"] for check in report["checks"] if check["result"] == result}

    def found(self, report, check):
        """What was found by a check that failed."""
        results = {one["id"]: one for one in report["checks"]}
        self.assertEqual(results[check]["result"], "failed", results[check])
        return results[check]["found"]

    def held(self):
        """All that a store at rest holds."""
        return (
            run_camera(self.store, "presets", "--json").stdout,
            run_camera(self.store, "presets").stdout,
            {name: stored_picture(self.store, name[: -len(".jpg")]) for name in pictures_of(self.store)},
        )

    def assertLeavesAlone(self, held, camera):
        camera.stop()
        self.assertEqual(self.held(), held)


class GoodCameras(CheckTest):
    """Over any link."""

    kind = ""

    def test_a_camera_with_samples_passes_and_holds_what_it_held(self):
        held_by = self.samples()
        self.assertEqual(run_camera(held_by, "link", "CUSTOM2", "4").returncode, 0)
        held = self.held()
        camera = self.camera("--log", f"file:{self.folder}/log", "--log-level", "error", kind=self.kind)
        with open(os.path.join(self.folder, "log"), "w"):
            pass
        report = self.check(camera, "--camera-log", os.path.join(self.folder, "log"))
        self.assertEqual([check["id"] for check in report["checks"]], all_ids())
        self.assertEqual(self.ids_with(report, "skipped"), UNSEEN[self.kind])
        self.assertEqual(self.ids_with(report, "failed"), set())
        self.assertEqual((report["presets"], report["model"], report["stopped"]), (12, "KT7", False))
        self.assertEqual(report["cleanup"], {"done": True, "left": [], "harm": "", "why": ""})
        self.assertLeavesAlone(held, camera)

    def test_a_camera_with_iso_in_third_steps_passes(self):
        self.samples()
        held = self.held()
        camera = self.camera("--iso-step", "third", kind=self.kind)
        self.check(camera, "--quick")
        self.assertLeavesAlone(held, camera)

    def test_an_empty_camera_passes(self):
        camera = self.camera("--empty", kind=self.kind)
        report = self.check(camera)
        self.assertEqual(self.ids_with(report, "skipped"), UNSEEN[self.kind] | OF_THE_LOG)
        camera.stop()
        self.assertEqual((Stored(self.store).records, pictures_of(self.store)), ([], []))


class OverUnix(GoodCameras):
    kind = "unix"


class OverTcp(GoodCameras):
    kind = "tcp"


del GoodCameras  # a base, and no test by itself


class OtherCameras(CheckTest):
    def store_presets(self, camera, count):
        with camera.link() as link:
            for number in range(count):
                link.ask(store_request(phone_record(b"Mine %d" % number), picture(number)))

    def test_the_example_passes(self):
        self.file("first.jpg", picture(9, 3000))
        host = Host(self.folder)
        self.addCleanup(host.kill)
        report = self.check(host, "--camera-log", f"/proc/{os.getpid()}/fd/{host.errors.fileno()}")
        self.assertEqual(self.ids_with(report, "skipped"), UNSEEN["unix"])

    def test_a_full_camera_is_checked_as_far_as_it_can_be(self):
        camera = self.camera("--empty")
        self.store_presets(camera, PRESET_LIMIT)
        report = self.check(camera)
        passed = self.ids_with(report, "passed")
        for check in ("list-ids", "refuse-unknown-id", "cut-update", "pipelined", "drop-in-request", "store-as-before"):
            self.assertIn(check, passed)
        skipped = {check["id"]: check["why"] for check in report["checks"] if check["result"] == "skipped"}
        for check in ("store-result", "picture-whole", "delete-one", "limit"):
            self.assertIn("holds 40 presets, and there has to be room for 3 more", skipped[check])

    def test_a_camera_with_room_for_three_is_checked_wholly(self):
        camera = self.camera("--empty")
        self.store_presets(camera, PRESET_LIMIT - LEAST_ROOM)
        report = self.check(camera)
        self.assertEqual(self.ids_with(report, "skipped"), UNSEEN["unix"] | OF_THE_LOG)

    def test_a_camera_that_serves_another_phone_is_busy(self):
        camera = self.camera("--empty")
        with camera.link() as link:
            link.ask(request(LIST))
            done = run_phone(camera.url, "check", wait_for_turn=False)
            self.assertEnds(done, BUSY)
            self.assertEqual(done.stdout, b"")

    def test_packets_too_small_to_check_a_link_with_boundaries_are_refused(self):
        camera = self.camera("--empty")
        done = run_phone(camera.url, "--mtu", 11, "check")
        self.assertEnds(done, USAGE)
        self.assertIn("--mtu 11 is too small to check this link; give 12 or more", done.stderr.decode())
        self.check(camera, "--quick", "--mtu", 12)

    def test_no_camera_is_told_as_by_every_other_command(self):
        self.assertEnds(run_phone(f"unix:{self.folder}/none", "--timeout", 0.2, "check"), 3)

    def test_presets_of_a_run_that_was_killed_are_named_and_left_alone(self):
        camera = self.camera("--empty")
        with camera.link() as link:
            link.ask(store_request(phone_record(b"Mine"), picture(1)))
            link.ask(store_request(phone_record(b"ShotMentor check 0badcafe 1"), picture(2)))
        self.assertEqual(self.check(camera, "--quick")["leftovers"], [1])
        text = run_phone(camera.url, "check", "--quick").stdout.decode()
        self.assertIn(f"shotmentor-phone --connect {camera.url} delete 1\n", text)
        self.assertEqual(len(camera.presets()), 2)

    def test_a_camera_that_is_killed_is_told_as_gone(self):
        camera = self.camera("--empty")
        process = self.begin(camera, "--timeout", "0.5")
        self.read_until(process, "list-steady")
        camera.kill()
        output, _ = process.communicate(timeout=6 * PATIENCE)
        self.assertEqual(process.returncode, FAULTY)
        self.assertIn("answers nothing any more", output.decode())

    # ---- Signals ----

    def begin(self, camera, *options):
        return subprocess.Popen(
            [PHONE, "--connect", camera.url, *options, "check"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env=environment_of_programs(),
        )  # fmt: skip

    def read_until(self, process, check):
        for line in process.stdout:
            if check in line.decode():
                return

    def test_a_signal_stops_it_and_the_camera_holds_what_it_held(self):
        self.samples()
        held = self.held()
        for sign in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(sign=sign):
                camera = self.camera()
                process = self.begin(camera)
                self.read_until(process, "update-title")
                process.send_signal(sign)
                output, _ = process.communicate(timeout=PATIENCE)
                self.assertEqual(process.returncode, STOPPED)
                self.assertIn("a signal stopped the run", output.decode())
                self.assertIn("the camera's presets are as they were\n", output.decode())
                self.assertLeavesAlone(held, camera)

    def test_a_reader_that_leaves_does_not_keep_it_from_cleaning_up(self):
        self.samples()
        held = self.held()
        camera = self.camera()
        process = self.begin(camera)
        self.read_until(process, "store-result")
        process.stdout.close()
        self.assertEqual(process.wait(PATIENCE), MACHINE)
        self.assertLeavesAlone(held, camera)


class Output(CheckTest):
    def setUp(self):
        super().setUp()
        self.serving = self.camera("--empty", "--save-result", "-1")  # some pass, one fails, others are skipped

    def test_each_check_has_a_line_and_a_failed_one_has_its_details_below(self):
        done = run_phone(self.serving.url, "check", "--quick")
        self.assertEqual(done.returncode, FAULTY)
        lines = done.stdout.decode().splitlines()
        told = [line.split()[1] for line in lines if re.match(r"(ok|FAILED|skipped) +[a-z0-9-]+ ", line)]
        self.assertEqual(told, all_ids())
        failed = next(number for number, line in enumerate(lines) if line.startswith("FAILED  store-result"))
        labels = [line.split()[0] for line in lines[failed + 1 : failed + 5]]
        self.assertEqual(labels, ["found:", "expected:", "blame:", "guide:"])
        self.assertIn("result -1", lines[failed + 1])
        self.assertIn("__ui_save_downloaded_preset", lines[failed + 3])
        self.assertIn("Docs/integrating.md#the-preset-store", lines[failed + 4])
        self.assertRegex(lines[-1], r"^\d+ passed, 1 failed, \d+ skipped; the camera's presets are as they were$")

    def test_json_and_junit_tell_the_same(self):
        path = os.path.join(self.folder, "check.xml")
        report = self.check(self.serving, "--quick", "--junit", path, code=FAULTY)
        suites = ElementTree.parse(path).getroot()
        cases = {case.get("name"): case for case in suites.iter("testcase")}
        self.assertEqual(list(cases), [check["id"] for check in report["checks"]])
        kinds = {"failed": "failure", "skipped": "skipped"}
        for check in report["checks"]:
            children = [child.tag for child in cases[check["id"]]]
            self.assertEqual(children, [kinds[check["result"]]] if check["result"] in kinds else [])
        for attribute, key in (("failures", "failed"), ("skipped", "skipped")):
            self.assertEqual(int(suites.get(attribute)), report[key])
            self.assertEqual(len(self.ids_with(report, key)), report[key])
        self.assertEqual(int(suites.get("tests")), len(report["checks"]))
        self.assertEqual(cases["store-result"][0].get("message"), self.found(report, "store-result"))

    def test_what_a_camera_writes_comes_out_clean(self):
        hostile = "\x1b[31m<&\"'\ufffe".encode()
        for name in ("human", "junit"):
            with self.subTest(name=name):
                fake = FakeCamera(self.folder, answer_with([phone_record(hostile, custom_id=-1)]))
                path = os.path.join(self.folder, f"{name}.xml")
                with fake:
                    done = run_phone(fake.url, "--timeout", "0.3", "check", "--quick", "--junit", path)
                self.assertEqual(done.returncode, FAULTY)
                self.assertNotIn(b"\x1b", done.stdout)
                message = ElementTree.parse(path).getroot().find(".//testcase[@name='list-ids']/failure").get("message")
                self.assertIn("[31m<&\"'\ufffd", message)

    def test_results_that_cannot_be_written_are_told_in_one_line_and_nothing_is_lost(self):
        done = run_phone(self.serving.url, "check", "--quick", "--junit", f"{self.folder}/none/check.xml")
        self.assertEnds(done, MACHINE)
        self.assertRegex(done.stderr.decode(), r"^shotmentor-phone: cannot write .*check\.xml: .*\n$")
        self.assertIn(b"passed, 1 failed", done.stdout)

    def test_the_list_of_checks_needs_no_camera(self):
        ids = all_ids()
        self.assertEqual(len(ids), len(set(ids)))
        for one in ids:
            self.assertRegex(one, r"^[a-z0-9]+(-[a-z0-9]+)*$")
        done = subprocess.run([PHONE, "check"], capture_output=True, timeout=PATIENCE)
        self.assertEqual((done.returncode, done.stdout), (USAGE, b""))
        self.assertIn(b"--connect", done.stderr)


def answer_with(records):
    """A camera that lists these presets and knows no other request than the shortest update and storing, which it
    answers with success and forgets."""

    def answer(function, data):
        if function == LIST:
            return list_reply(records)
        if function == STORE:
            return request(REPLY + STORE, struct.pack("<iiii", 1, len(records), 9, 0))
        return request(REPLY + function, struct.pack("<i", -3)) if function == UPDATE else None

    return answer


class Pictures(CheckTest):
    def test_every_picture_that_it_sends_can_be_drawn(self):
        with FakeCamera(self.folder, answer_with([])) as fake:
            run_phone(fake.url, "--timeout", "0.3", "check")
        pictures = [data[8 + PHONE_RECORD :] for data in fake.requests if struct.unpack_from("<i", data)[0] == STORE]
        self.assertEqual([len(image) for image in pictures], [100, 60000, 300 + 400 + 500])
        camera = self.camera("--empty")
        with camera.link() as link:
            for number, image in enumerate(pictures):
                link.ask(store_request(phone_record(b"%d" % number), image))
        for number in range(len(pictures)):
            shown = run_on_terminal(camera.url, "show", number, "--picture")
            self.assertEqual(shown.returncode, 0)
            self.assertNotIn("not a picture", shown.text)
            self.assertIn("\x1b[", shown.text)


class LabFaults(CheckTest):
    """Each fault that the desk's camera can be asked for is found, and named."""

    def faulty(self, *options, log=False):
        path = os.path.join(self.folder, "log")
        with open(path, "w"):
            pass
        camera = self.camera("--empty", "--log", f"file:{path}", "--log-level", "error", *options)
        more = ("--camera-log", path) if log else ()
        report = self.check(camera, "--timeout", "0.5", "--quick", *more, code=FAULTY)
        camera.stop()
        shutil.rmtree(self.store)
        return report

    def test_late_confirmations(self):
        report = self.faulty("--confirm-delay", "300", log=True)
        self.assertIn("confirmations are late", self.found(report, "confirm-in-time"))
        self.assertEqual(self.ids_with(report, "failed"), {"confirm-in-time"})

    def test_confirmations_that_never_come(self):
        report = self.faulty("--drop-confirmations", "3", log=True)
        self.assertIn("confirmations are missing", self.found(report, "confirm-all"))
        self.assertEqual(self.ids_with(report, "failed"), {"confirm-all"})

    def test_a_link_state_that_is_down(self):
        report = self.faulty("--link-down")
        self.assertIn("the camera takes its link state for down", self.found(report, "list-answered"))
        self.assertIn("answers", self.ids_with(report, "passed"))
        self.assertIn("drop-in-request", self.ids_with(report, "passed"))

    def test_a_store_that_refuses(self):
        for result in (-1, -2, 0, 77):
            with self.subTest(result=result):
                report = self.faulty("--save-result", result)
                self.assertIn(f"result {result}", self.found(report, "store-result"))
                self.assertEqual(self.ids_with(report, "failed"), {"store-result"})

    def test_a_store_that_pretends(self):
        report = self.faulty("--save-result", "1")
        self.assertIn("no preset", self.found(report, "store-listed"))

    def test_an_update_that_fails(self):
        report = self.faulty("--update-result", "-6")
        self.assertIn("result -6", self.found(report, "update-result"))

    def test_an_update_that_pretends(self):
        report = self.faulty("--update-result", "1")
        self.assertIn("the title", self.found(report, "update-title"))
        self.assertIn("no preset has", self.found(report, "refuse-unknown-id"))

    def test_memory_that_is_refused_once_is_named_where_it_shows_on_the_link(self):
        for number in (1, 2, 6, 47):
            with self.subTest(number=number):
                report = self.faulty("--refuse-allocation", number)
                found = [check["found"] for check in report["checks"] if check["result"] == "failed"]
                self.assertTrue(any("refused memory" in one for one in found), found)
                self.assertEqual(report["cleanup"]["left"], [])

    def test_memory_that_is_refused_from_some_time_on_is_named(self):
        for number in ("1+", "20+"):
            with self.subTest(number=number):
                report = self.faulty("--refuse-allocation", number)
                found = [check["found"] for check in report["checks"] if check["result"] == "failed"]
                self.assertTrue(any("the camera has no memory for requests" in one for one in found), found)

    def test_refused_memory_shows_in_the_log_as_well(self):
        report = self.faulty("--refuse-allocation", "6", log=True)
        self.assertIn("lines of its log that say so: 1", self.found(report, "memory"))


class CameraLogs(CheckTest):
    """The file that --camera-log names."""

    def setUp(self):
        super().setUp()
        self.path = os.path.join(self.folder, "log")

    def assertRefused(self, code, words):
        camera = self.camera("--empty")
        done = run_phone(camera.url, "check", "--camera-log", self.path)
        self.assertEnds(done, code)
        self.assertEqual((done.stdout, len(done.stderr.splitlines())), (b"", 1))
        self.assertIn(words, done.stderr.decode())

    def test_one_that_is_not_there(self):
        self.assertRefused(MACHINE, "start the camera with its log first")

    def test_a_pipe(self):
        os.mkfifo(self.path)
        self.assertRefused(USAGE, "is no regular file")

    def test_a_folder(self):
        os.mkdir(self.path)
        self.assertRefused(USAGE, "is no regular file")

    def test_one_of_another_camera_is_told_as_such(self):
        with open(self.path, "w") as file:
            file.write("E [ALG_SMM   ] ADE_ShotMentor_Manager.cpp: f(1) > SM_RETURN_STRUCT_ERR\n")  # before the run
        report = self.check(self.camera("--empty"), "--quick", "--camera-log", self.path, code=FAULTY)
        self.assertEqual(self.ids_with(report, "failed"), {"log-written"})
        self.assertLessEqual({"confirm-all", "memory", "pictures-opened"}, self.ids_with(report, "skipped"))

    def test_a_huge_one_is_read_from_its_end_and_in_little_memory(self):
        with open(self.path, "wb") as file:
            file.truncate(1 << 40)
        camera = self.camera("--empty", "--log", f"file:{self.path}", "--log-level", "all")
        done = measure_phone(camera.url, "check", "--quick", "--camera-log", self.path)
        self.assertEqual(done.returncode, 0, done.text)
        self.assertLess(done.peak, most_of_phone(100_000_000))
        self.assertLess(done.seconds, 20)

    def test_a_binary_one_does_no_harm(self):
        with open(self.path, "wb") as file:
            file.write(os.urandom(100_000))
        camera = self.camera("--empty", "--log", f"file:{self.path}", "--log-level", "error")
        with open(self.path, "ab") as file:
            process = subprocess.Popen(
                [PHONE, "--connect", camera.url, "check", "--quick", "--camera-log", self.path],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, env=environment_of_programs(),
            )  # fmt: skip
            while process.poll() is None:
                file.write(bytes(range(256)).replace(b"\n", b"") * 400)
                time.sleep(0.01)
        self.assertEqual(process.returncode, 0)

    def test_one_that_becomes_shorter_is_told(self):
        with open(self.path, "wb") as file:
            file.write(b"x" * 1000)
        camera = self.camera("--empty")
        process = subprocess.Popen(
            [PHONE, "--connect", camera.url, "--json", "check", "--quick", "--camera-log", self.path],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env=environment_of_programs(),
        )  # fmt: skip
        while "a phone connected" not in camera.talk():
            time.sleep(0.01)
        os.truncate(self.path, 10)
        output, _ = process.communicate(timeout=4 * PATIENCE)
        self.assertEqual(process.returncode, FAULTY)
        self.assertIn("it has become shorter", self.found(json.loads(output), "log-written"))


if __name__ == "__main__":
    unittest.main()
