"""The host of Examples/host.c, which others copy: all that a phone can ask of it, and what no host must fall for."""

import json
import os
import re
import signal
import socket
import struct
import subprocess
import time
import unittest

from desk import (
    DELETE, LIST, PATIENCE, PHONE_RECORD, PICTURE, PRESET_LIMIT, REPLY, STATE_OFF, STATE_ON, STORE, UPDATE,
    Camera, Closed, DeskTest, Link, ReadFile, _die_with_the_test, delete_request, get, phone_record, picture,
    picture_request, record_to_json, records_in, request, run_phone, store_request, store_result, update_request,
)  # fmt: skip

HOST = os.environ.get("SHOTMENTOR_EXAMPLE_HOST", "")
EMULATOR = os.environ.get("SHOTMENTOR_EMULATOR", "").split()  # what runs a program of another machine
FIRST_PICTURE = picture(9, 3000)
STALLED = 10  # seconds after which a phone that stops halfway counts as gone
RESULT_TRUE, RESULT_JPG_ERR, RESULT_DATA_ERR, RESULT_LOCALN_ERR, RESULT_OPENED_ERR = 1, -4, -2, -6, -7


class Host(Camera):
    """The example, in a folder of its own."""

    def __init__(self, folder):
        self.errors = ReadFile()
        self.process = subprocess.Popen(
            [*EMULATOR, HOST, "unix:host.sock", "first.jpg"], cwd=folder,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.errors, preexec_fn=_die_with_the_test,
        )  # fmt: skip
        self.url = self._announced().replace("unix:", f"unix:{folder}/")


class HostTest(DeskTest):
    @classmethod
    def setUpClass(cls):
        if not os.access(HOST, os.X_OK):
            raise RuntimeError(f"set SHOTMENTOR_EXAMPLE_HOST to the program; it is {HOST!r}")

    def host(self):
        self.file("first.jpg", FIRST_PICTURE)
        host = Host(self.folder)
        self.addCleanup(host.kill)
        return host

    def assertEachSendWasConfirmedOnce(self, host, sends):
        """As far as the library's own lines tell: it frees a reply with each confirmation, and complains of one that
        comes twice, late or never."""
        confirmed, end = "ADE_ShotMentor_Result_Manager result", time.monotonic() + PATIENCE
        while host.talk().count(confirmed) < sends and time.monotonic() < end:
            time.sleep(0.01)  # the phone has the last bytes a moment before the library knows
        talk = host.talk()
        self.assertEqual(talk.count(confirmed), sends)
        for complaint in ("NULL pointer", "not receive EVT_BT_APP_SEND_RESULT", "late receive"):
            self.assertNotIn(complaint, talk)
        allocated = re.findall(r"malloc\(SM_MALLOC_SIZE\) (?:size=\d+, )?add=(0x[0-9a-f]+)", talk)
        freed = re.findall(r"free shotmentor_p_FullData add=(0x[0-9a-f]+)", talk)
        self.assertEqual(len(freed), sends)
        in_order = iter(freed)  # between them lie the replies of length 0, whose addresses no line tells
        self.assertTrue(all(reply in in_order for reply in allocated), f"{allocated} were sent, {freed} freed")


class WithAPhone(HostTest):
    """All that the phone's program can ask."""

    def setUp(self):
        super().setUp()
        self.serving = self.host()

    def phone(self, *arguments, code=0):
        done = run_phone(self.serving.url, *arguments)
        self.assertEnds(done, code)
        return done

    def presets(self):
        return json.loads(self.phone("--json", "--raw", "list").stdout)["presets"]

    def preset_file(self, title="Mine"):
        return self.file("preset.json", json.dumps(record_to_json(phone_record(title.encode()))))

    def test_list_shows_three_presets_of_which_custom1_uses_the_first(self):
        presets = self.presets()
        self.assertEqual([preset["title"] for preset in presets], ["Landscape", "Waterfall", "Evening"])
        self.assertEqual([preset["preset_num"] for preset in presets], [0, 1, 2])
        self.assertEqual([preset["custom_id"] for preset in presets], [1, 2, 3])
        self.assertEqual([preset["linked_custom_mode"] for preset in presets], [1, 0, 0])
        self.assertEqual([preset["av_index"] for preset in presets], [80, 0, 0])  # f/8, times ten

    def test_show_tells_the_aperture(self):
        self.assertIn("f/8", self.phone("show", 0).stdout.decode())

    def test_picture_saves_the_one_that_the_presets_share(self):
        target = os.path.join(self.folder, "saved.jpg")
        self.phone("picture", 2, "-o", target)
        with open(target, "rb") as saved:
            self.assertEqual(saved.read(), FIRST_PICTURE)

    def test_what_was_stored_is_listed_with_its_picture(self):
        image = picture(7, 200000)
        stored = self.phone("--json", "store", self.preset_file(), self.file("mine.jpg", image)).stdout
        self.assertEqual(json.loads(stored)["preset_num"], 3)
        self.assertEqual(json.loads(stored)["custom_id"], 4)
        self.assertEqual(self.presets()[3]["title"], "Mine")
        self.phone("picture", 3, "-o", os.path.join(self.folder, "back.jpg"))
        with open(os.path.join(self.folder, "back.jpg"), "rb") as back:
            self.assertEqual(back.read(), image)

    def test_rename_changes_title_and_server_identity(self):
        self.phone("rename", 1, "Rapids", "--server-id", 77)
        self.assertEqual((self.presets()[1]["title"], self.presets()[1]["server_id"]), ("Rapids", 77))

    def test_rename_of_an_identity_that_nobody_has_is_refused(self):
        with Link(self.serving.url) as link:
            self.assertEqual(link.ask(update_request(99, 0, b"Nobody")), request(REPLY + UPDATE, struct.pack("<i", -6)))

    def test_delete_renumbers(self):
        self.phone("delete", 1)
        self.assertEqual([(p["preset_num"], p["custom_id"]) for p in self.presets()], [(0, 1), (1, 3)])

    def test_the_identity_of_a_deleted_preset_is_not_given_again(self):
        for identity in (4, 5, 6):
            stored = self.phone("--json", "store", self.preset_file(), self.file("mine.jpg", picture(1))).stdout
            self.assertEqual(json.loads(stored)["custom_id"], identity)
            self.phone("delete", 3)

    def test_delete_keeps_the_preset_that_custom1_uses(self):
        self.phone("delete", 0, 1, code=17)
        presets = self.presets()
        self.assertEqual([preset["custom_id"] for preset in presets], [1, 3])
        self.assertEqual([preset["linked_custom_mode"] for preset in presets], [1, 0])

    def test_delete_removes_the_picture_of_that_preset_alone(self):
        self.phone("store", self.preset_file(), self.file("mine.jpg", picture(1)))
        self.assertTrue(os.path.exists(os.path.join(self.folder, "example_host_4.jpg")))
        self.phone("delete", 2, 3)
        self.assertFalse(os.path.exists(os.path.join(self.folder, "example_host_4.jpg")))
        self.phone("picture", 1, "-o", os.path.join(self.folder, "still.jpg"))

    def test_a_full_store_refuses_the_next_preset(self):
        for _ in range(PRESET_LIMIT - 3):
            self.serving.ask(store_request(phone_record(), picture(1)))
        self.phone("store", self.preset_file(), self.file("mine.jpg", picture(1)), code=12)
        self.assertEqual(len(self.presets()), PRESET_LIMIT)

    def test_leave_is_told_to_the_camera(self):
        self.phone("list")
        self.phone("leave")
        self.assertRegex(self.serving.talk(), r"the phone uses the feature\n(.*\n)*the phone leaves the feature\n")


# What Docs/protocol.md gives no reply to, and after which the next request is read.
UNANSWERED = {
    "link state on": request(STATE_ON),
    "link state off": request(STATE_OFF, struct.pack("<i", 1)),
    "a function that does not exist": request(6, b"payload"),
    "the highest function number": request(256, bytes(100)),
    "a function below 0": request(-1),
    "a function above 256": request(257),
    "a negative total": struct.pack("<ii", LIST, -8),
    "the smallest total": struct.pack("<ii", LIST, -(2**31)),
    "a total over the limit": request(STORE, bytes(600000)),
    "a picture of a preset that is not there": picture_request(99),
    "a picture with the identity 0": picture_request(0),
}

# After these nothing is answered until the phone disconnects.
STALLING = {
    "a total of 0": struct.pack("<ii", LIST, 0),
    "a total of 7": struct.pack("<ii", LIST, 7),
}


class Raw(HostTest):
    """Requests by their bytes."""

    def setUp(self):
        super().setUp()
        self.serving = self.host()

    def identities(self, link):
        return [get(record, "custom_id") for record in records_in(link.ask(request(LIST)))]

    def cut_everywhere(self, data):
        return list(range(8, len(data)))

    def test_requests_in_single_bytes_are_answered(self):
        with self.serving.link() as link:
            for asked in (request(LIST), picture_request(1, 5), update_request(1, 2, b"One"), delete_request((2, 3))):
                reply = link.ask(asked, self.cut_everywhere(asked))
                self.assertEqual(struct.unpack_from("<i", reply)[0], REPLY + struct.unpack_from("<i", asked)[0])
            asked = store_request(phone_record(), picture(1))
            self.assertEqual(store_result(link.ask(asked, self.cut_everywhere(asked))), (RESULT_TRUE, 2, 4, 0))

    def test_requests_that_are_sent_ahead_are_answered_in_order(self):
        asked = [request(LIST), picture_request(99), store_request(phone_record(), picture(1, 100000)),
                 request(STATE_ON), picture_request(4), delete_request((0, 1), (3, 4)), request(LIST)]  # fmt: skip
        with self.serving.link() as link:
            for one in asked:
                link.send(one)
            replies = [link.receive() for _ in range(5)]
        functions = [struct.unpack_from("<i", reply)[0] - REPLY for reply in replies]
        self.assertEqual(functions, [LIST, STORE, PICTURE, DELETE, LIST])
        self.assertEqual(replies[2][12:], picture(1, 100000))
        self.assertEqual(struct.unpack_from("<i", replies[3], 8)[0], RESULT_OPENED_ERR)

    def test_what_gets_no_reply_leaves_the_next_request_alone(self):
        for name, unanswered in UNANSWERED.items():
            with self.subTest(name), self.serving.link() as link:
                link.send(unanswered)
                self.assertEqual(self.identities(link), [1, 2, 3])

    def test_a_refused_requests_payload_in_the_same_packet_is_no_request(self):
        with self.serving.link() as link:
            link.send(request(300, request(LIST)))
            link.send(request(-5, 3 * request(LIST)))
            self.assertEqual(self.identities(link), [1, 2, 3])
            self.assertTrue(link.is_silent())

    def test_after_an_impossible_total_the_next_phone_is_served(self):
        for name, stalling in STALLING.items():
            with self.subTest(name):
                with self.serving.link() as link:
                    link.send(stalling)
                    link.send(request(LIST))
                    self.assertTrue(link.is_silent())
                with self.serving.link() as link:
                    self.assertEqual(self.identities(link), [1, 2, 3])

    def test_a_phone_that_is_lost_in_the_middle_of_a_request_leaves_nothing_behind(self):
        asked = store_request(phone_record(), picture(1, 50000))
        for sent in (8, 9, 760, 40000, len(asked) - 1):
            with self.subTest(sent):
                with self.serving.link() as link:
                    link.send(asked[:sent])
                with self.serving.link() as link:
                    self.assertEqual(self.identities(link), [1, 2, 3])

    def test_a_phone_that_is_lost_in_the_middle_of_a_reply_leaves_nothing_behind(self):
        with self.serving.link() as link:
            store_result(link.ask(store_request(phone_record(), picture(1, 590000))))
        for _ in range(3):
            with self.serving.link() as link:
                link.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
                link.send(picture_request(4))
                link.socket.recv(1)  # the reply has begun
        with self.serving.link() as link:
            self.assertEqual(self.identities(link), [1, 2, 3, 4])
        self.assertEachSendWasConfirmedOnce(self.serving, 5)

    def test_a_phone_that_left_before_its_answer_does_not_end_the_host(self):
        self.serving.ask(store_request(phone_record(), picture(1, 100000)))
        os.kill(self.serving.pid, signal.SIGSTOP)
        with Link(self.serving.url) as link:
            link.send(picture_request(4))
        os.kill(self.serving.pid, signal.SIGCONT)
        with self.serving.link() as link:
            self.assertEqual(self.identities(link), [1, 2, 3, 4])
        self.assertEachSendWasConfirmedOnce(self.serving, 3)

    def test_a_phone_that_stops_halfway_is_given_up_for_the_next_one(self):
        with self.serving.link() as stopped, Link(self.serving.url) as waiting:
            stopped.send(struct.pack("<ii", STORE, 1000))
            begin = time.monotonic()
            waiting.send(request(LIST))
            self.assertEqual(len(records_in(waiting.receive(STALLED + PATIENCE))), 3)
            self.assertGreater(time.monotonic() - begin, STALLED / 2)
            with self.assertRaises(Closed):
                stopped.receive()

    def test_every_send_is_confirmed_once(self):
        with self.serving.link() as link:
            for number in range(12):
                store_result(link.ask(store_request(phone_record(), picture(number))))
                link.ask(request(LIST))
                link.ask(picture_request(4 + number))
                link.send(picture_request(1000))  # sent with length 0
                link.send(picture_request(-1))  # and so is this
                link.ask(update_request(4 + number, 1, b"Another"))
            link.ask(delete_request((3, 4), (4, 5)))
            link.ask(delete_request((3, 4)))  # which is gone
        self.assertEachSendWasConfirmedOnce(self.serving, 12 * 6 + 2)

    def test_a_title_that_fills_its_field_is_bounded(self):
        with self.serving.link() as link:
            self.assertEqual(struct.unpack_from("<i", link.ask(update_request(1, 0, 52 * b"x")), 8)[0], RESULT_TRUE)
            self.assertEqual(get(records_in(link.ask(request(LIST)))[0], "title"), 51 * b"x" + b"\0")

    def test_a_store_without_a_picture_is_refused(self):
        with self.serving.link() as link:
            for payload in (b"", bytes(PHONE_RECORD), bytes(PHONE_RECORD) + picture(1, 200)[:99]):
                self.assertEqual(store_result(link.ask(request(STORE, payload)))[0], RESULT_JPG_ERR)

    def test_a_picture_path_of_the_phone_is_not_opened(self):
        with self.serving.link() as link:
            record = phone_record(screennail_path=b"/etc/passwd".rjust(52, b"/"))
            self.assertEqual(store_result(link.ask(store_request(record, picture(5)))), (RESULT_TRUE, 3, 4, 0))
            self.assertEqual(link.ask(picture_request(4))[12:], picture(5))
            stored = get(records_in(link.ask(request(LIST)))[3], "screennail_path")
            self.assertEqual(stored, b"example_host_4.jpg".ljust(52, b"\0"))

    def test_a_picture_that_cannot_be_stored_is_refused(self):
        os.mkdir(os.path.join(self.folder, "example_host_4.jpg"))
        with self.serving.link() as link:
            self.assertEqual(store_result(link.ask(store_request(phone_record(), picture(1)))), (-1, 0, 0, 0))
            self.assertEqual(self.identities(link), [1, 2, 3])

    def test_a_packet_with_more_bytes_than_announced_stalls_that_phone_alone(self):
        with self.serving.link() as link:
            link.send(request(LIST) + request(LIST))
            self.assertTrue(link.is_silent())
        with self.serving.link() as link:
            self.assertEqual(self.identities(link), [1, 2, 3])

    def test_a_first_packet_shorter_than_a_header_does_not_end_the_host(self):
        for length in range(1, 8):
            with self.serving.link() as link:
                link.send(request(LIST)[:length])
            with self.serving.link() as link:
                self.assertEqual(self.identities(link), [1, 2, 3])


class TheCommandLine(HostTest):
    def run_host(self, *arguments):
        return subprocess.run([*EMULATOR, HOST, *arguments], cwd=self.folder, capture_output=True, timeout=PATIENCE)

    def test_what_cannot_be_done_is_said_in_one_line(self):
        self.file("first.jpg", FIRST_PICTURE)
        self.file("p" * 52, FIRST_PICTURE)
        for arguments in ([], ["unix:host.sock"], ["rfcomm:1", "first.jpg"], ["unix:" + "x" * 108, "first.jpg"],
                          ["unix:missing/host.sock", "first.jpg"], ["unix:host.sock", "missing.jpg"],
                          ["unix:host.sock", "p" * 52]):  # fmt: skip
            with self.subTest(arguments):
                done = self.run_host(*arguments)
                self.assertEqual(done.returncode, 1)
                self.assertEqual(done.stdout, b"")
                self.assertRegex(done.stderr, rb"\Aexample_host: [^\n]+\n\Z")


class TheLog(HostTest):
    def test_tells_an_error_once(self):
        host = self.host()
        with host.link() as link:
            link.send(request(6))
            link.ask(request(LIST))
        self.assertEqual(host.talk().count("ERROR ADE_ShotMentor_Receive_Function funcN=6"), 1)


if __name__ == "__main__":
    unittest.main()
