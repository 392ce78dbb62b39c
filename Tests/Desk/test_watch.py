"""`list --watch`: the presets of a camera as they change, on a terminal and in a pipe."""

import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time
import unittest

from desk import (
    BUSY_FRAME, LIST, PATIENCE, PHONE, DeskTest, FakeCamera, changed, environment_of_programs, list_reply, phone_record,
    record_to_json, run_phone,
)  # fmt: skip

INTERVAL = 0.1  # seconds, the shortest
TIME = r"\d\d:\d\d:\d\d"


class Watched(DeskTest):
    """A camera whose presets the test changes, and phones that watch it."""

    def setUp(self):
        super().setUp()
        self.records = [self.record(1, b"Dawn"), self.record(2, b"Noon"), self.record(3, b"Dusk")]
        self.busy = False
        self.looks = 0
        self.path = os.path.join(self.folder, "camera.sock")
        self.serving = None
        self.addCleanup(self.stop_serving)
        self.url = f"unix:{self.path}"

    @staticmethod
    def record(custom_id, title, **values):
        return phone_record(title, custom_id=custom_id, **values)

    def answer(self, function, _):
        self.assertEqual(function, LIST)
        self.looks += 1
        return BUSY_FRAME if self.busy else list_reply(self.records)

    def serve(self):
        """A camera that takes one phone after the other."""
        self.serving = ManyTimes(self.path, self.answer)

    def stop_serving(self):
        if self.serving:
            self.serving.stop()
            self.serving = None

    def wait_until(self, is_so):
        end = time.monotonic() + PATIENCE
        while not is_so():
            self.assertLess(time.monotonic(), end, "it does not come")
            time.sleep(0.01)

    def wait_for_looks(self, count=2):
        """So many whole ones, so that what was there before has been seen."""
        enough = self.looks + count
        self.wait_until(lambda: self.looks >= enough)


class ManyTimes(FakeCamera):
    def __init__(self, path, answer):
        super().__init__(os.path.dirname(path), answer)
        os.rename(self.url[len("unix:") :], path)

    def _serve(self):
        while not self.over.is_set():
            super()._serve()

    def stop(self):
        self.__exit__()


class Lines(Watched):
    """What comes through a pipe: a line for each change."""

    def setUp(self):
        super().setUp()
        self.serve()

    def watch(self, *arguments, interval=INTERVAL):
        self.talk = open(os.path.join(self.folder, "talk"), "w+b")
        self.addCleanup(self.talk.close)
        self.phone = subprocess.Popen(
            [PHONE, "--connect", self.url, *arguments, "list", "--watch", str(interval)],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.talk, env=environment_of_programs(),
        )  # fmt: skip
        self.addCleanup(self.end)
        return self.phone

    def end(self):
        if self.phone.poll() is None:
            self.phone.kill()
        self.phone.wait()
        self.phone.stdout.close()

    def line(self):
        self.assertTrue(select.select([self.phone.stdout], [], [], PATIENCE)[0], "no line came")
        line = b""
        while not line.endswith(b"\n"):
            line += os.read(self.phone.stdout.fileno(), 1)
        return line.decode()

    def assertLine(self, text):
        self.assertRegex(self.line(), rf"\A{TIME} {re.escape(text)}\n\Z")

    def assertSilent(self):
        self.wait_for_looks()
        self.assertEqual(select.select([self.phone.stdout], [], [], 0)[0], [])

    def said(self):
        self.talk.seek(0)
        return self.talk.read().decode()

    def start(self, *arguments):
        self.watch(*arguments)
        for number in range(len(self.records)):
            self.line()

    def test_begin_with_what_there_is(self):
        self.watch()
        for number, title in enumerate(("Dawn", "Noon", "Dusk")):
            self.assertLine(f'listed: "{title}" (preset {number}, id {number + 1})')
        self.assertSilent()

    def test_tell_what_is_added_and_gone(self):
        self.start()
        self.records = [self.records[1], self.records[2], self.record(9, b"Night")]
        self.assertLine('gone: "Dawn" (preset 0, id 1)')
        self.assertLine('added: "Night" (preset 2, id 9)')
        self.assertSilent()

    def test_tell_a_new_title_and_the_old_one(self):
        self.start()
        self.records[1] = self.record(2, b"High noon")
        self.assertLine('renamed: "High noon" (preset 1, id 2), was "Noon"')
        self.assertSilent()

    def test_tell_the_fields_that_have_changed(self):
        self.start()
        self.records[2] = changed(self.records[2], iso=800, linked_custom_mode=1)
        self.assertLine('changed: "Dusk" (preset 2, id 3): iso, custom_mode')
        self.assertSilent()

    def test_are_silent_where_presets_get_other_numbers_alone(self):
        self.start()
        self.records = [changed(record, preset_num=7) for record in reversed(self.records)]
        self.assertSilent()

    def test_as_json_are_an_object_for_each_change(self):
        self.watch("--json", "--raw")
        found = [json.loads(self.line()) for _ in range(3)]
        self.assertEqual([one["change"] for one in found], ["listed"] * 3)
        self.assertEqual([one["preset"] for one in found], [record_to_json(record) for record in self.records])
        old, self.records = self.records, [self.record(2, b"High noon", iso=800), self.records[2], self.record(4, b"X")]
        found = [json.loads(self.line()) for _ in range(4)]
        for one in found:
            self.assertRegex(one.pop("time"), rf"\A\d{{4}}-\d\d-\d\dT{TIME}Z\Z")
        noon, new = record_to_json(self.records[0]), record_to_json(self.records[2])
        self.assertEqual(
            found,
            [
                {"change": "gone", "number": 0, "custom_id": 1, "preset": record_to_json(old[0])},
                {"change": "renamed", "number": 0, "custom_id": 2, "title_before": "Noon", "preset": noon},
                {"change": "changed", "number": 0, "custom_id": 2, "entries": ["iso"], "preset": noon},
                {"change": "added", "number": 2, "custom_id": 4, "preset": new},
            ],
        )

    def test_tell_once_that_the_camera_is_busy_and_once_that_it_answers(self):
        self.busy = True
        self.watch()
        self.wait_for_looks(3)
        self.assertRegex(self.said(), rf"\A{TIME} the camera is busy with another phone; trying again every 0.1 s\n\Z")
        self.busy = False
        for _ in range(3):
            self.line()
        self.assertTrue(self.said().endswith("s\nthe camera answers again\n"), self.said())

    def test_go_on_when_the_camera_comes_back(self):
        self.start()
        self.stop_serving()
        self.wait_until(lambda: "cannot connect" in self.said())
        self.records.pop()
        self.serve()
        self.assertLine('gone: "Dusk" (preset 2, id 3)')
        *troubles, last = self.said().splitlines()
        self.assertEqual(last, "the camera answers again")
        # A look that was under way may have been cut off first; nothing is told twice in a row.
        self.assertLessEqual(len(troubles), 2, troubles)

    def test_leave_the_camera_to_others_between_two_looks(self):
        self.serving.stop()
        self.store = self.samples()
        camera = self.camera()
        self.url = camera.url
        self.watch(interval=2)
        for _ in range(12):
            self.line()
        begin = time.monotonic()
        self.assertEnds(run_phone(camera.url, "rename", 0, "By another"), 0)
        self.assertLess(time.monotonic() - begin, 2)
        self.assertLine('renamed: "By another" (preset 0, id 1), was "Everyday"')
        self.end()
        camera.stop()

    def test_end_in_order_at_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            self.start()
            self.phone.send_signal(number)
            self.assertEqual(self.phone.wait(PATIENCE), 0)
            self.assertEqual((self.phone.stdout.read(), self.said()), (b"", ""))
            self.phone.stdout.close()

    def test_end_in_the_middle_of_a_look_at_a_signal(self):
        self.serving.answer = lambda *_: None  # silence
        self.watch()
        self.wait_until(lambda: self.serving.requests)
        begin = time.monotonic()
        self.phone.send_signal(signal.SIGINT)
        self.assertEqual(self.phone.wait(PATIENCE), 0)
        self.assertLess(time.monotonic() - begin, 2)

    def test_end_when_their_reader_goes(self):
        self.start()
        self.phone.stdout.close()
        self.assertEqual(self.phone.wait(PATIENCE), 1)
        self.assertEqual(self.said(), "")

    def test_need_a_camera_to_begin_with(self):
        self.stop_serving()
        self.watch()
        self.assertEqual(self.phone.wait(PATIENCE), 3)
        self.assertIn("cannot connect", self.said())


class Usage(DeskTest):
    def test_of_an_interval_that_is_none_is_one_line(self):
        for value in ("0", "-1", "0.01", "1e9", "nan", "inf", "soon", "2s", "\x1b[2J"):
            done = run_phone("unix:/nobody", "list", f"--watch={value}")
            self.assertEnds(done, 2)
            self.assertEqual((done.stdout, done.stderr.count(b"\n")), (b"", 1), done.stderr)
            self.assertIn(b"is no time from 0.1 to 86400 seconds", done.stderr)

    def test_of_pictures_with_it_is_one_line(self):
        done = run_phone("unix:/nobody", "list", "--watch", "--pictures")
        self.assertEnds(done, 2)
        self.assertEqual(done.stderr.count(b"\n"), 1)

    def test_needs_no_interval(self):
        done = run_phone("unix:/nobody", "list", "--watch")
        self.assertEnds(done, 3)


class Screen:
    """A terminal of which the lines are known: text, and the sequences that the phone uses."""

    def __init__(self):
        self.lines, self.row = [""], 0

    def feed(self, text):
        for up, erase, newline, back, character in re.findall(
            r"\x1b\[(\d+)A|\x1b\[(2K|J)|(\n)|(\r)|([^\x1b])", text
        ):  # fmt: skip
            if up:
                self.row -= int(up)
                assert self.row >= 0
            elif erase == "2K":
                self.lines[self.row] = ""
            elif erase:
                del self.lines[self.row :]
                self.lines.append("")
            elif newline:
                self.row += 1
                self.lines += [""] * (self.row + 1 - len(self.lines))
            elif character:
                self.lines[self.row] += character


class OnATerminal(Watched):
    def setUp(self):
        super().setUp()
        self.serve()
        self.master, self.slave = pty.openpty()
        self.addCleanup(os.close, self.master)
        self.addCleanup(os.close, self.slave)
        settings = termios.tcgetattr(self.slave)
        settings[1] &= ~termios.OPOST
        termios.tcsetattr(self.slave, termios.TCSANOW, settings)
        self.settings = settings
        self.screen = Screen()
        self.written = ""

    def resize(self, columns, rows=24):
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def watch(self, *arguments, columns=80, rows=24):
        self.resize(columns, rows)
        self.phone = subprocess.Popen(
            [PHONE, "--connect", self.url, "list", "--watch", str(INTERVAL), *arguments], stdin=self.slave,
            stdout=self.slave, stderr=self.slave, env=environment_of_programs(TERM="xterm-256color"),
        )  # fmt: skip
        self.addCleanup(self.phone.wait)
        self.addCleanup(self.phone.kill)

    def read(self):
        text = b""
        while select.select([self.master], [], [], 0.02)[0]:
            text += os.read(self.master, 65536)
        self.written += text.decode()
        self.screen.feed(text.decode())
        return text.decode()

    def wait_for(self, text):
        self.wait_until(lambda: self.read() is not None and any(text in line for line in self.screen.lines))

    def test_a_table_follows_the_changes_in_its_place(self):
        self.watch()
        self.wait_for("3 presets, changed at")
        self.assertEqual(self.screen.lines[0].split()[:3], ["No", "Id", "Title"])
        self.records = [self.record(2, b"Midday"), self.record(3, b"Dusk")]
        self.wait_for("2 presets, changed at")
        self.assertEqual(
            [line.split()[:3] for line in self.screen.lines[1:3]], [["0", "2", "Midday"], ["1", "3", "Dusk"]]
        )
        self.assertRegex(self.screen.lines[3], rf"\A2 presets, changed at {TIME}; a look every 0.1 s, Ctrl-C ends\Z")
        self.assertEqual(self.screen.lines[4:], [""])

    def test_nothing_is_written_while_nothing_changes(self):
        self.watch()
        self.wait_for("3 presets")
        self.wait_for_looks(4)
        self.assertEqual(self.read(), "")

    def test_the_line_below_tells_of_a_busy_camera(self):
        self.watch()
        self.wait_for("3 presets")
        self.busy = True
        self.wait_for("the camera is busy with another phone; trying again every 0.1 s")
        self.assertEqual(len(self.screen.lines), 1 + 3 + 1 + 1)
        self.assertIn("Dawn", self.screen.lines[1])
        self.wait_for_looks(3)
        self.assertEqual(self.read(), "")
        self.busy = False
        self.wait_for("3 presets, changed at")

    def test_no_line_is_wider_than_the_terminal(self):
        for columns in (200, 80, 60, 20):
            self.screen = Screen()
            self.watch(columns=columns)
            self.wait_for("3 presets")
            for line in self.screen.lines:
                self.assertLessEqual(len(line), columns)
            self.phone.kill()
            self.phone.wait()

    def test_a_table_that_is_higher_than_the_terminal_is_cut(self):
        self.records = [self.record(number + 1, b"Title") for number in range(30)]
        self.watch(rows=10)
        self.wait_for("30 presets")
        # Ten rows: a header, six presets, a word for the rest, the line below, and the cursor's.
        self.assertEqual(len(self.screen.lines), 10)
        self.assertEqual(self.screen.lines[7], "… and 24 more")
        self.records.pop()
        self.wait_for("29 presets")
        self.assertEqual(len(self.screen.lines), 10)

    def test_a_terminal_of_another_width_gets_the_table_anew_below(self):
        self.watch()
        self.wait_for("3 presets")
        self.resize(60)
        self.wait_until(lambda: len(self.read()) > 0)
        self.assertNotIn("A", re.findall(r"\x1b\[\d*(\w)", self.written))
        self.assertEqual(len(self.screen.lines), 2 * 5 + 1)
        for line in self.screen.lines[5:]:
            self.assertLessEqual(len(line), 60)

    def test_a_signal_ends_it_below_the_table_and_leaves_the_terminal_as_it_was(self):
        for number, end in ((signal.SIGINT, "\n"), (signal.SIGTERM, "")):
            self.screen = Screen()
            self.watch()
            self.wait_for("3 presets")
            self.phone.send_signal(number)
            self.assertEqual(self.phone.wait(PATIENCE), 0)
            self.assertEqual(self.read(), end)
            self.assertEqual(termios.tcgetattr(self.slave), self.settings)
        self.assertNotIn("\x1b[?", self.written)

    def test_titles_are_harmless(self):
        self.records = [self.record(1, b"\x1b[2Jx\r\xc2\x9b1A")]
        self.watch()
        self.wait_for("1 preset, changed")
        self.assertIn("\ufffd[2Jx\ufffd\ufffd1A", self.screen.lines[1])
        self.assertEqual(set(re.findall(r"\x1b\[\d*\w", self.written)), {"\x1b[2K", "\x1b[J"})


if __name__ == "__main__":
    unittest.main()
