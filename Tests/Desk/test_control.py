"""Faults of the lab while the camera runs: by commands at its control socket, and by scripts."""

import contextlib
import os
import re
import socket
import stat
import subprocess
import time
import unittest

from desk import (
    CAMERA, LIST, PATIENCE, STORE, Closed, DeskTest, NotStarted, Silent, Stored, environment_of_programs, get,
    list_reply, phone_record, picture, picture_request, request, run_camera, store_request, store_result,
    update_request,
)  # fmt: skip

SOURCES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
LAB = re.compile(r"^shotmentor-camera: lab: (.*)$", re.MULTILINE)
LONGEST_COMMAND, CONTROL_CLIENTS = 200, 4
ALL_OFF = (
    "confirm-delay off; drop-confirmations off; drop-next off; duplicate-next off; link-down off; save-result off; "
    "update-result off; refuse-allocation off; pull request off; pull reply off; link-rate off; packet-delay off; "
    "iso-step full"
)
RENAMED = update_request(2, 0, b"Dusk")


def control(url, *words):
    """Runs `shotmentor-camera control`."""
    return subprocess.run(
        [CAMERA, "control", url, *map(str, words)],
        stdin=subprocess.DEVNULL, capture_output=True, timeout=3 * PATIENCE, env=environment_of_programs(),
    )  # fmt: skip


class Client:
    """A client of a control socket, packet by packet."""

    def __init__(self, url):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(url[len("unix:") :])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def ask(self, line):
        self.socket.send(line)
        return self.socket.recv(1 << 16).decode()


class ControlTest(DeskTest):
    def setUp(self):
        super().setUp()
        self.samples()
        self.expected = list_reply(Stored(self.store).as_phone_sees())
        self.url = f"unix:{self.folder}/control.sock"

    def controlled(self, *options, **more):
        return self.camera("--control", self.url, *options, **more)

    def turn(self, *words):
        """Runs a command that is carried out, and returns what it prints."""
        done = control(self.url, *words)
        self.assertEqual((done.returncode, done.stderr), (0, b""), words)
        self.assertEqual(done.stdout.count(b"\n"), 1)
        return done.stdout.decode().rstrip("\n")

    def assertRefused(self, done, line, code=2):
        self.assertEqual((done.returncode, done.stdout), (code, b""))
        self.assertEqual(done.stderr.decode(), f"shotmentor-camera: {line}\n")

    def lab(self, camera, count):
        """What was told of the lab, so many lines at least."""
        end = time.monotonic() + PATIENCE
        while len(lines := LAB.findall(camera.talk())) < count and time.monotonic() < end:
            time.sleep(0.02)
        self.assertGreaterEqual(len(lines), count, camera.talk())
        return lines

    def assertServes(self, camera):
        self.assertEqual(camera.ask(request(LIST)), self.expected)


class Commands(ControlTest):
    """Each command answers one line, and a line that is no command changes nothing."""

    def test_at_the_start_all_faults_are_off(self):
        with self.controlled():
            self.assertEqual(self.turn("status"), ALL_OFF)

    def test_the_status_has_the_knobs_of_the_command_line(self):
        with self.controlled("--link-down", "--confirm-delay", 20, "--save-result", -5, "--iso-step", "third"):
            self.assertEqual(
                self.turn("status"),
                ALL_OFF.replace("confirm-delay off", "confirm-delay 20")
                .replace("link-down off", "link-down on")
                .replace("save-result off", "save-result -5")
                .replace("iso-step full", "iso-step third"),
            )

    def test_each_knob_is_set_to_what_the_status_then_shows_and_turned_off(self):
        settings = [
            "confirm-delay 20", "drop-confirmations 3", "drop-next 2", "duplicate-next 2147483647", "link-down on",
            "save-result -2147483648", "update-result 7", "pull request 8", "pull reply 0", "link-rate 1",
            "packet-delay 5",
        ]  # fmt: skip
        with self.controlled():
            for setting in settings:
                with self.subTest(setting=setting):
                    knob = setting.rpartition(" ")[0]
                    self.assertEqual(self.turn(*setting.split()), "done")
                    self.assertEqual(self.turn("status"), ALL_OFF.replace(f"{knob} off", setting))
                    self.assertEqual(self.turn(*knob.split(), "off"), "done")
                    self.assertEqual(self.turn("status"), ALL_OFF)

    def test_clear_turns_all_faults_off_and_leaves_the_model_as_it_is(self):
        with self.controlled("--link-down"):
            self.turn("iso-step", "third")
            self.turn("pull", "reply", 5)
            self.assertEqual(self.turn("clear"), "done")
            self.assertEqual(self.turn("status"), ALL_OFF.replace("iso-step full", "iso-step third"))

    def test_a_line_that_is_no_command_is_refused_and_changes_nothing(self):
        lines = {
            "link-down maybe": 'link-down takes on|off, not "maybe"',
            "link-down": "link-down takes on|off, not nothing",
            "link-down on on": 'link-down takes on|off, not "on on"',
            "drop-next 0": 'drop-next takes N|off, not "0"',
            "drop-next 2147483648": 'drop-next takes N|off, not "2147483648"',
            "drop-next 2x": 'drop-next takes N|off, not "2x"',
            "pull request 7": 'pull request takes BYTE|off, not "7"',
            "pull request 600001": 'pull request takes BYTE|off, not "600001"',
            "refuse-allocation off+": 'refuse-allocation takes N|N+|off, not "off+"',
            "iso-step off": 'iso-step takes full|third, not "off"',
            "clear all": 'clear takes no value, and "all" is given',
            "linkdown on": 'there is no command "linkdown"; did you mean "link-down"?',
            "pull": 'there is no command "pull"; shotmentor-camera --help shows all',
            "x" * 201: "a command has at most 200 bytes, and this one 201; shorten it",
        }
        with self.controlled("--confirm-delay", 20), Client(self.url) as client:
            before = self.turn("status")
            for line, told in lines.items():
                with self.subTest(line=line):
                    self.assertRefused(control(self.url, *line.split()), told)
                    self.assertEqual(client.ask(line.encode()), "refused: " + told)
            self.assertEqual(self.turn("status"), before)

    def test_a_command_that_is_carried_out_is_told(self):
        with self.controlled() as camera:
            self.turn("drop-next", 2)
            self.turn("status")
            self.turn("clear")
            self.assertEqual(self.lab(camera, 2), ["control: drop-next 2", "control: clear"])

    def test_the_phone_that_is_there_is_told(self):
        with self.controlled() as camera:
            self.assertEqual(self.turn("phone"), "no phone is there; requests so far: 0")
            with camera.link() as link:
                self.assertEqual(
                    self.turn("phone"), "a phone is there and does not use the feature yet; requests so far: 0"
                )
                link.ask(request(LIST))
                self.assertEqual(self.turn("phone"), "a phone is there and uses the feature; requests so far: 1")

    def test_the_help_and_the_documentation_have_the_same_commands(self):
        text = run_camera(self.store, "--help").stdout.decode()
        table = re.search(r"^Commands while it runs:\n((?:  .*\n)*)", text, re.M)[1]
        told = [tuple(re.split(" {2,}", line.strip(), maxsplit=1)) for line in table.splitlines()]
        with open(os.path.join(SOURCES, "Docs", "desk.md"), encoding="utf-8") as file:
            section = file.read().partition("## Faults while it runs\n")[2].partition("\n## ")[0]
        documented = re.findall(r"^\| `(.*)` \| (.*) \|$", section.replace("\\|", "|"), re.M)
        self.assertEqual(documented, told)


class Faults(ControlTest):
    """The knobs are read while the camera serves."""

    def test_a_link_state_goes_down_and_comes_up_while_a_phone_is_there(self):
        with self.controlled() as camera, camera.link() as link:
            self.assertEqual(link.ask(request(LIST)), self.expected)
            self.turn("link-down", "on")
            link.send(request(LIST))
            self.assertTrue(link.is_silent())
            self.turn("link-down", "off")
            self.assertEqual(link.ask(request(LIST)), self.expected)

    def test_the_models_iso_steps_change(self):
        with self.controlled() as camera:
            camera.ask(store_request(phone_record(iso=100, iso_1_3=4), picture(1)))
            seen = [get(camera.presets()[12], "iso")]
            for step in ("third", "full"):
                self.turn("iso-step", step)
                seen.append(get(camera.presets()[12], "iso"))
        self.assertEqual(seen, [100, 125, 100])

    def test_stores_and_renames_are_answered_with_a_number_and_not_done(self):
        with self.controlled() as camera, camera.link() as link:
            self.turn("save-result", -5)
            self.turn("update-result", 3)
            self.assertEqual(store_result(link.ask(store_request(phone_record(), picture(1))))[0], -5)
            self.assertEqual(link.ask(RENAMED)[8:], b"\3\0\0\0")
            self.assertEqual(link.ask(request(LIST)), self.expected)
            self.turn("clear")
            self.assertEqual(store_result(link.ask(store_request(phone_record(), picture(1))))[0], 1)

    def test_so_many_confirmations_as_were_asked_for_are_dropped(self):
        with self.controlled() as camera:
            camera.ask(request(LIST))
            self.turn("drop-next", 2)
            with camera.link() as link:
                for _ in range(4):
                    self.assertEqual(link.ask(request(LIST)), self.expected)
            told = ["control: drop-next 2", "send 2 is not confirmed", "send 3 is not confirmed"]
            self.assertEqual(self.lab(camera, 3), told)

    def test_confirmations_that_are_made_twice_free_no_reply_that_is_to_be_read(self):
        """The second one frees another reply that the library holds, of a send that has gone, or finds none."""
        with self.controlled() as camera, camera.link() as link:
            self.turn("drop-next", 3)
            self.turn("duplicate-next", 5)
            image = link.ask(picture_request(2))
            for _ in range(6):
                self.assertEqual(link.ask(request(LIST)), self.expected)
                self.assertEqual(link.ask(picture_request(2)), image)
            told = self.lab(camera, 10)
        self.assertEqual(told[2:5], [f"send {n} is not confirmed" for n in (1, 2, 3)])
        self.assertEqual(told[5:], [f"send {n} is confirmed twice" for n in (4, 5, 6, 7, 8)])

    def test_a_confirmation_that_is_made_twice_reaches_the_library_twice(self):
        with self.controlled("--log-level", "off,ALG_SMM=green") as camera, camera.link() as link:
            for _ in range(3):
                link.ask(request(LIST))
            self.turn("duplicate-next", 2)
            for _ in range(4):
                link.ask(request(LIST))
            link.send(request(LIST))  # read when all before it has been confirmed
            link.receive()
            confirmations = camera.talk().count("ADE_ShotMentor_Result_Manager result\n")
        self.assertIn(confirmations, (7 + 2, 8 + 2))  # that of the last list may not have come yet

    def test_confirmations_that_are_late_and_made_twice_leave_the_camera_in_order(self):
        with self.controlled() as camera:
            self.turn("confirm-delay", 50)
            self.turn("duplicate-next", 20)
            for _ in range(3):
                with camera.link() as link:
                    for _ in range(15):
                        self.assertEqual(link.ask(request(LIST)), self.expected)
            self.turn("clear")
            self.assertServes(camera)

    def test_a_delay_that_is_taken_back_holds_for_the_sends_before_alone(self):
        with self.controlled() as camera, camera.link() as link:
            self.turn("confirm-delay", 60000)
            link.ask(request(LIST))
            self.turn("confirm-delay", "off")
            self.assertEqual(link.ask(request(LIST)), self.expected)
            spent = self.processor_time(camera)
            time.sleep(1)
            self.assertLess(self.processor_time(camera) - spent, 0.1, "it waits without pause")

    def processor_time(self, camera):
        with open(f"/proc/{camera.pid}/stat") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def test_allocations_are_refused_from_the_command_on(self):
        with self.controlled("--refuse-allocation", 1000000) as camera:
            with camera.link() as link:
                link.ask(RENAMED)
                self.turn("refuse-allocation", 2)
                link.send(RENAMED)  # its own, and that of its reply
                self.assertTrue(link.is_silent())
                self.turn("refuse-allocation", 2)
                link.send(RENAMED)
                self.assertTrue(link.is_silent())
                self.turn("refuse-allocation", "off")
                link.ask(RENAMED)
            told = self.lab(camera, 6)
        refused = ["control: refuse-allocation 2", "the library's 2nd allocation was refused"]
        self.assertEqual(told[1:], [*refused, *refused, "control: refuse-allocation off"])

    def test_a_camera_whose_allocator_cannot_refuse_says_which_one_can(self):
        with self.controlled():
            self.assertRefused(
                control(self.url, "refuse-allocation", "2+"),
                "this camera has no allocator that can refuse; start shotmentor-camera-lab, which lies beside it, in "
                "its place",
            )
            self.assertEqual(self.turn("status"), ALL_OFF)


class PulledLinks(ControlTest):
    """The link is lost once, behind a byte of a request or of a reply."""

    def assertPulled(self, link, count):
        """So many bytes come, and then the end."""
        with self.assertRaises(Closed):
            link.receive()
        self.assertEqual(len(link.waiting), count)

    def test_a_reply_ends_behind_the_byte_and_the_next_one_is_whole(self):
        for kind in ("unix", "tcp"):
            for byte in (0, 1, 8, 1000, len(self.expected) - 1):
                with self.subTest(kind=kind, byte=byte), self.controlled(kind=kind) as camera:
                    self.turn("pull", "reply", byte)
                    with camera.link() as link:
                        link.send(request(LIST))
                        self.assertPulled(link, byte)
                    self.assertServes(camera)
                    self.assertEqual(
                        self.lab(camera, 2)[1],
                        f"the link is pulled after {byte} of {len(self.expected)} bytes of a reply",
                    )
                    self.assertIn("shotmentor-camera: the phone left: the link was pulled\n", camera.talk())
                    self.assertEqual(self.turn("status"), ALL_OFF)

    def test_a_reply_in_several_packets_ends_behind_the_byte(self):
        with self.controlled("--mtu", 300) as camera:
            self.turn("pull", "reply", 1000)
            with camera.link() as link:
                link.send(request(LIST))
                self.assertPulled(link, 1000)
                self.assertEqual(link.packet_sizes, [300, 300, 300, 100])

    def test_a_reply_that_has_no_more_bytes_is_left_alone(self):
        with self.controlled() as camera, camera.link() as link:
            self.turn("pull", "reply", 12)
            self.assertEqual(len(link.ask(RENAMED)), 12)
            link.send(request(LIST))
            self.assertPulled(link, 12)

    def test_a_request_ends_behind_the_byte_and_is_not_done(self):
        data = store_request(phone_record(), picture(1, 500))
        for kind in ("unix", "tcp"):
            for byte in (8, 400, 752, len(data) - 1):
                with self.subTest(kind=kind, byte=byte), self.controlled(kind=kind) as camera:
                    self.turn("pull", "request", byte)
                    with camera.link() as link:
                        link.send(data)
                        self.assertPulled(link, 0)
                    self.assertServes(camera)
                    self.assertEqual(
                        self.lab(camera, 2)[1], f"the link is pulled after {byte} of {len(data)} bytes of a request"
                    )
                    self.assertIn(f"store cut off: {byte} of {len(data)} bytes\n", camera.talk())
                    self.assertNotIn("before a request was read", camera.talk())
                    self.assertEqual(self.turn("status"), ALL_OFF)

    def test_a_request_in_packets_ends_where_the_byte_lies(self):
        data = store_request(phone_record(), picture(1, 500))
        for cuts in ([100], [400], [100, 399, 402], [500]):
            with self.subTest(cuts=cuts), self.controlled() as camera:
                self.turn("pull", "request", 400)
                with camera.link() as link:
                    with contextlib.suppress(OSError):  # the link may be gone before all is sent
                        link.send(data, cuts)
                    self.assertPulled(link, 0)
                self.assertIn("store cut off: 400 of 1252 bytes\n", camera.talk())
                self.assertServes(camera)

    def test_a_byte_that_has_passed_pulls_with_the_next_packet(self):
        data = store_request(phone_record(), picture(1, 500))
        with self.controlled() as camera:
            with camera.link() as link:
                link.send(data[:600])
                end = time.monotonic() + PATIENCE
                time.sleep(0.2)
                self.turn("pull", "request", 400)
                link.send(data[600:])
                self.assertPulled(link, 0)
                self.assertLess(time.monotonic(), end)
            self.assertIn("the link is pulled after 600 of 1252 bytes of a request\n", camera.talk())
            self.assertServes(camera)

    def test_requests_that_have_no_more_bytes_are_left_alone(self):
        with self.controlled() as camera, camera.link() as link:
            self.turn("pull", "request", 752)
            self.assertEqual(link.ask(request(LIST)), self.expected)
            self.assertEqual(link.ask(RENAMED)[8:], b"\1\0\0\0")  # 752 bytes
            link.send(request(STORE, bytes(745)))
            self.assertPulled(link, 0)


class SlowLinks(ControlTest):
    """A link may be slowed, both ways."""

    def seconds(self, link, data, pieces=None):
        start = time.monotonic()
        answer = link.ask(data, pieces)
        return time.monotonic() - start, answer

    def test_each_packet_is_delayed_both_ways(self):
        with self.controlled("--mtu", 4000) as camera, camera.link() as link:
            self.turn("packet-delay", 100)
            seconds, answer = self.seconds(link, request(LIST))  # one packet there, three back
            self.assertEqual(answer, self.expected)
            self.assertGreaterEqual(seconds, 0.4)
            seconds, _ = self.seconds(link, RENAMED, [100, 200])  # three there, one back
            self.assertGreaterEqual(seconds, 0.4)

    def test_bytes_take_the_time_of_the_rate(self):
        for kind in ("unix", "tcp"):
            with self.subTest(kind=kind), self.controlled(kind=kind) as camera, camera.link() as link:
                self.turn("link-rate", 20000)
                seconds, answer = self.seconds(link, request(LIST))
                self.assertGreaterEqual(seconds, len(answer) / 20000)
                data = store_request(phone_record(), picture(1, 20000 - 752))
                seconds, answer = self.seconds(link, data)  # 20000 bytes
                self.assertEqual(store_result(answer)[0], 1)
                self.assertGreaterEqual(seconds, 1.0)
                self.turn("clear")

    def test_a_packet_that_is_on_its_way_goes_on_when_the_link_is_fast_again(self):
        with self.controlled() as camera, camera.link() as link:
            self.turn("link-rate", 10)  # the list would take a quarter of an hour
            link.send(request(LIST))
            self.assertTrue(link.is_silent(1.2))
            self.turn("link-rate", "off")
            self.assertEqual(link.receive(), self.expected)

    def test_a_phone_that_leaves_a_slow_link_makes_room_for_the_next(self):
        with self.controlled() as camera:
            self.turn("link-rate", 10)
            with camera.link() as link:
                link.send(request(LIST))
                time.sleep(1.0)
            self.turn("clear")
            self.assertServes(camera)

    def test_a_slow_stream_in_the_smallest_pieces_is_whole(self):
        with self.controlled("--empty", kind="tcp") as camera, camera.link() as link:
            self.turn("link-rate", 40)
            link.send(RENAMED[:8])
            self.assertTrue(link.is_silent(0.3))
            self.turn("clear")
            link.send(RENAMED[8:])
            self.assertEqual(link.receive()[8:], b"\1\0\0\0")


class Clients(ControlTest):
    """No client of the control socket keeps the camera from its phones, nor from other clients."""

    def test_the_socket_is_its_owners_alone_and_goes_with_the_camera(self):
        path = self.url[len("unix:") :]
        with self.controlled():
            mode = os.stat(path).st_mode
            self.assertTrue(stat.S_ISSOCK(mode))
            self.assertEqual(stat.S_IMODE(mode), 0o600)
        self.assertFalse(os.path.exists(path))

    def test_a_camera_without_the_option_has_no_such_socket(self):
        with self.camera():
            self.assertEqual(sorted(name for name in os.listdir(self.store) if name.endswith(".sock")), ["camera.sock"])

    def test_a_socket_may_lie_in_the_store_and_one_that_was_left_behind_is_replaced(self):
        self.url = f"unix:{self.store}/control.sock"
        self.controlled().kill()
        self.assertTrue(os.path.exists(f"{self.store}/control.sock"))
        with self.controlled() as camera:
            self.assertEqual(self.turn("status"), ALL_OFF)
            self.assertServes(camera)

    def test_a_second_camera_with_the_same_socket_does_not_start(self):
        with self.controlled() as camera:
            with self.assertRaises(NotStarted) as caught:
                self.camera("--empty", "--control", self.url, url=f"unix:{self.folder}/other.sock")
            self.assertEqual(caught.exception.code, 7)  # the store comes first
            self.store, first = os.path.join(self.folder, "another"), self.store
            with self.assertRaises(NotStarted) as caught:
                self.camera("--empty", "--control", self.url)
            self.assertEqual(
                (caught.exception.code, caught.exception.talk),
                (3, f"shotmentor-camera: cannot listen on {self.url}: another process listens there\n"),
            )
            self.store = first
            self.assertEqual(self.turn("status"), ALL_OFF)
            self.assertServes(camera)

    def test_a_path_that_is_a_file_or_no_unix_socket_is_refused_and_left_alone(self):
        path = self.file("notes", "mine")
        for url, code, told in (
            (f"unix:{path}", 3, f"cannot listen on unix:{path}: there is a file that is no socket"),
            ("tcp:localhost:0", 2, "tcp:localhost:0: a control socket is a Unix socket; write unix:PATH"),
        ):
            self.assertRefused(run_camera(self.store, "--control", url), told, code)
        with open(path) as file:
            self.assertEqual(file.read(), "mine")

    def test_a_camera_that_is_not_there_cannot_be_reached(self):
        self.assertRefused(
            control(self.url, "status"),
            f"cannot reach a camera at {self.url}: No such file or directory; start one with --control {self.url}",
            3,
        )

    def test_what_is_no_control_socket_is_not_taken_for_one(self):
        with self.controlled() as camera:
            done = control(camera.url, "status")
            self.assertEndsWith(done, 4, "did not answer in 5 s; is it a camera's control socket?\n")
            with camera.link():  # now it answers, that it is busy
                done = control(camera.url, "status")
                self.assertEndsWith(done, 6, "give the URL that the camera has as --control\n")

    def assertEndsWith(self, done, code, ending):
        self.assertEqual(done.returncode, code)
        self.assertTrue(done.stderr.decode().endswith(ending), done.stderr)
        self.assertEqual(done.stderr.count(b"\n"), 1)

    def test_bytes_of_any_kind_get_one_line_each(self):
        lines = (
            b"",
            b"\n",
            b"\0",
            b"\x1b[31m",
            bytes(range(256)),
            b"drop-next \xff",
            b"status\0",
            "clear \u202e".encode(),
        )
        with self.controlled() as camera, Client(self.url) as client:
            for line in lines:
                with self.subTest(line=line):
                    told = client.ask(line)
                    self.assertTrue(told.startswith("refused: "), told)
                    self.assertTrue(told[len("refused: ") :].isprintable(), told)
            self.assertEqual(client.ask(b" drop-next \t 2 \r\n"), "done")
            self.assertServes(camera)

    def test_a_line_of_any_length_is_answered_or_costs_its_client_the_link(self):
        with self.controlled() as camera:
            for length in (LONGEST_COMMAND + 1, 65536, 200000):
                with Client(self.url) as client:
                    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
                    told = client.ask(b"x" * length)
                    self.assertEqual(
                        told, f"refused: a command has at most 200 bytes, and this one {length}; shorten it"
                    )
            self.assertServes(camera)

    def test_clients_that_say_nothing_keep_nobody_out(self):
        with self.controlled() as camera, contextlib.ExitStack() as stack:
            before = len(os.listdir(f"/proc/{camera.pid}/fd"))
            silent = [stack.enter_context(Client(self.url)) for _ in range(50)]
            self.assertEqual(self.turn("status"), ALL_OFF)
            self.assertServes(camera)
            self.assertLessEqual(len(os.listdir(f"/proc/{camera.pid}/fd")) - before, CONTROL_CLIENTS)
            self.assertEqual(silent[0].socket.recv(100), b"")  # the oldest went

    def test_a_client_that_never_reads_is_not_waited_for_and_not_kept_for(self):
        with self.controlled("--quiet") as camera, Client(self.url) as client:
            client.socket.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                for _ in range(100000):
                    client.socket.send(b"status")
            self.assertEqual(self.turn("status"), ALL_OFF)
            self.assertServes(camera)

    def test_a_client_that_says_nothing_more_is_let_go(self):
        with self.controlled(), Client(self.url) as client:
            self.assertTrue(client.ask(b"status").startswith("done: "))
            client.socket.settimeout(15)
            start = time.monotonic()
            self.assertEqual(client.socket.recv(100), b"")
            self.assertGreater(time.monotonic() - start, 9)


class Scripts(ControlTest):
    """A scenario is a file, which is checked before the camera starts."""

    def script(self, text):
        return self.file("scenario.txt", text)

    def test_commands_run_at_their_times_in_order(self):
        path = self.script(
            "at 600ms link-down off\nat 0s link-down on # from the start\n\n# nothing\nat 0.3s drop-next 2"
        )
        start = time.monotonic()
        with self.camera("--script", path) as camera:
            told = self.lab(camera, 3)
            self.assertGreaterEqual(time.monotonic() - start, 0.6)
        self.assertEqual(
            told, [f"{path}:2: link-down on", f"{path}:5: drop-next 2", f"{path}:1: link-down off"]
        )  # fmt: skip

    def test_a_command_at_the_start_holds_for_the_first_request(self):
        with self.camera("--script", self.script("at 0s link-down on")) as camera, camera.link() as link:
            link.send(request(LIST))
            self.assertTrue(link.is_silent())

    def test_a_command_after_a_request_is_not_meant_for_its_own_reply(self):
        path = self.script("after request 2 pull reply 100\nafter request 1 drop-next 1\nafter request 2 status")
        with self.camera("--script", path) as camera:
            with camera.link() as link:
                self.assertEqual(link.ask(request(LIST)), self.expected)
                self.assertEqual(link.ask(request(LIST)), self.expected)
                link.send(request(LIST))
                with self.assertRaises(Closed):
                    link.receive()
                self.assertEqual(len(link.waiting), 100)
            told = self.lab(camera, 5)
        self.assertEqual(told[:3], [f"{path}:2: drop-next 1", "send 2 is not confirmed", f"{path}:1: pull reply 100"])
        self.assertEqual(
            told[3], f"{path}:3: status: " + ALL_OFF.replace("pull reply off", "pull reply 100")
        )  # fmt: skip

    def test_requests_count_over_all_phones(self):
        path = self.script("after request 2 link-down on")
        with self.camera("--script", path) as camera:
            self.assertServes(camera)
            self.assertServes(camera)
            with camera.link() as link:
                link.send(request(LIST))
                self.assertTrue(link.is_silent())

    def test_a_line_that_is_wrong_is_named_and_the_camera_does_not_start(self):
        lines = {
            "link-down on": 'a line begins with "at TIME" or "after request N"',
            "after 3 link-down on": 'a line begins with "at TIME" or "after request N"',
            "at noon clear": "the time is no number of s or ms up to 1000000s, such as 2.5s or 300ms",
            "at 5 clear": "the time is no number of s or ms up to 1000000s, such as 2.5s or 300ms",
            "at -1s clear": "the time is no number of s or ms up to 1000000s, such as 2.5s or 300ms",
            "at nans clear": "the time is no number of s or ms up to 1000000s, such as 2.5s or 300ms",
            "at 1000001s clear": "the time is no number of s or ms up to 1000000s, such as 2.5s or 300ms",
            "after request 0 clear": "the number of requests is none from 1, such as after request 3",
            "after request many clear": "the number of requests is none from 1, such as after request 3",
            "at 1s": "the command is missing; shotmentor-camera --help shows all",
            "at 1s drop-next": "drop-next takes N|off, not nothing",
            "at 1s clear # \n at 1s clea": None,
        }
        for line, told in lines.items():
            with self.subTest(line=line):
                path = self.script("# a scenario\n" + line + "\n")
                done = run_camera(self.store, "--script", path)
                if told is None:
                    told, number = 'there is no command "clea"; did you mean "clear"?', 3
                else:
                    number = 2
                self.assertRefused(done, f"{path}:{number}: {told}")

    def test_a_script_of_any_bytes_is_refused_in_one_line(self):
        for content in (b"\0\1\2", b"at 1s \xff\x1b[31m", b"x" * 5000):
            done = run_camera(self.store, "--script", self.file("scenario.txt", content))
            self.assertEqual((done.returncode, done.stderr.count(b"\n")), (2, 1))
            self.assertTrue(done.stderr.decode().rstrip("\n").isprintable())

    def test_a_script_that_is_not_there_or_too_long_is_refused(self):
        done = run_camera(self.store, "--script", os.path.join(self.folder, "none"))
        self.assertEqual((done.returncode, done.stderr.count(b"\n")), (1, 1))
        done = run_camera(self.store, "--script", self.script("# long\n" * 10000))
        self.assertEqual((done.returncode, done.stderr.count(b"\n")), (2, 1))
        self.assertIn(b"65536", done.stderr)

    def test_a_script_that_refuses_allocations_starts_the_lab(self):
        with self.camera("--script", self.script("after request 1 refuse-allocation 2")) as camera:
            with camera.link() as link:
                link.ask(RENAMED)
                link.send(RENAMED)
                self.assertTrue(link.is_silent())
            self.assertEqual(self.lab(camera, 2)[1], "the library's 2nd allocation was refused")

    def test_the_examples_do_what_their_comments_say(self):
        folder = os.path.join(SOURCES, "Examples", "scenarios")
        with self.camera("--script", os.path.join(folder, "lost-replies.txt")) as camera:
            for count in (7, 1000):
                with camera.link() as link:
                    link.send(request(LIST))
                    with self.assertRaises(Closed):
                        link.receive()
                    self.assertEqual(len(link.waiting), count)
            self.assertServes(camera)
        with self.camera("--script", os.path.join(folder, "bad-afternoon.txt")) as camera:
            data = store_request(phone_record(b"Afternoon"), picture(1, 500))
            with camera.link() as link:
                for _ in range(6):
                    self.assertEqual(link.ask(request(LIST)), self.expected)
                link.send(data)
                with self.assertRaises((Closed, Silent)):
                    link.receive()
            with camera.link() as link:
                self.assertEqual(store_result(link.ask(data))[0], 1)
                link.send(request(LIST))
                self.assertTrue(link.is_silent())
                self.assertEqual(len(link.ask(request(LIST))), len(self.expected) + 744)


if __name__ == "__main__":
    unittest.main()
