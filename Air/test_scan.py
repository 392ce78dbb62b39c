"""A phone that asks a device where its camera listens, and looks for cameras."""

import contextlib
import json
import socket
import struct
import threading

import air
from air import CAMERA_ADDRESS, CAMERAS, CLASSIC, LE_PUBLIC, LOW_ENERGY_PHONES, PHONES, AirTest, call_bus, libc
from air import management, succeed, wait_until
from desk import run_phone

SERVICE = "252a3c13-cb4c-4ac9-aec8-24e715743b86"
DIRECTORY_PSM, ATTRIBUTES_CHANNEL = 1, 4
ASKED = {
    "rfcomm": bytes.fromhex("06 0001 001b 3511 1c" + SERVICE.replace("-", "") + "ffff 3503 090004 00"),
    "le": b"\x08\1\0\xff\xff" + bytes.fromhex("abdd3056-28fa-441d-a470-55a75a52553a".replace("-", ""))[::-1],
}


def end_links():
    """A link stays for two seconds, and one that is about to go is no good one for the next phone."""
    with management() as kernel:
        kernel.disconnect(CAMERAS)


class Device:
    """What tells where the camera listens, in the place of a daemon's own. Answers each packet with the next ones."""

    def __init__(self, kind, *answers):
        self.answers, self.asked = list(answers), []
        self.listening = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_SEQPACKET, socket.BTPROTO_L2CAP)
        address = bytes.fromhex(CAMERA_ADDRESS.replace(":", ""))[::-1]
        psm, channel, of = (0, ATTRIBUTES_CHANNEL, LE_PUBLIC) if kind == "le" else (DIRECTORY_PSM, 0, CLASSIC)
        own = struct.pack("<HH6sHBx", socket.AF_BLUETOOTH, psm, address, channel, of)
        succeed(libc.bind(self.listening.fileno(), own, len(own)))
        self.listening.listen()
        self.listening.settimeout(20)
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        with contextlib.suppress(OSError), self.listening.accept()[0] as connection:
            connection.settimeout(20)
            while packet := connection.recv(1024):
                self.asked.append(packet)
                if not self.answers:
                    return
                for answer in self.answers.pop(0):
                    connection.send(answer)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.thread.join(30)
        self.listening.close()


def of_directory(records, transaction=1, continuation=b""):
    rest = struct.pack(">H", len(records)) + records + bytes([len(continuation)]) + continuation
    return struct.pack(">BHH", 7, transaction, len(rest)) + rest


def records_of(channel):
    return bytes.fromhex("3513 3511 090004 350c 3503190100 35051900 0308") + bytes([channel])


def answer_of(kind, port):
    return of_directory(records_of(port)) if kind == "rfcomm" else struct.pack("<BBHH", 9, 4, 3, port)


class WhereTheCameraListens(AirTest):
    """The device is the test's: no daemon has its ports."""

    kinds = ("rfcomm", "le")
    url = property(lambda self: f"{self.kind}:{CAMERA_ADDRESS}:auto")

    def setUp(self):
        super().setUp()
        end_links()

    def list(self, *options):
        return run_phone(self.url, "--timeout", 2, *options, "list", wait_for_turn=False)

    def assertRefused(self, code, text, *answers):
        with Device(self.kind, *answers):
            done = self.list()
        self.assertEnds(done, code)
        self.assertEqual(done.stderr.decode().count("\n"), 1, done.stderr)
        self.assertIn(f"cannot connect to {self.url}: ", done.stderr.decode())
        self.assertIn(text, done.stderr.decode())

    def test_is_asked_of_the_device(self):
        camera = self.camera("--empty")
        port = int(camera.url.rpartition(":")[2])
        with Device(self.kind, [answer_of(self.kind, port)]) as device:
            done = self.list("--json")
        self.assertEnds(done, 0)
        self.assertEqual(device.asked[:1], [ASKED[self.kind]])

    def test_is_told_in_parts_or_between_questions(self):
        camera = self.camera("--empty")
        port = int(camera.url.rpartition(":")[2])
        if self.kind == "rfcomm":
            records = records_of(port)
            answers = [[of_directory(records[:9], 1, b"\xbe\xef")], [of_directory(records[9:], 2)]]
        else:
            answers = [[bytes.fromhex("02f701")], [bytes.fromhex("100100ffff0028")], [answer_of("le", port)]]
        with Device(self.kind, *answers) as device:
            done = self.list()
        self.assertEnds(done, 0)
        if self.kind == "rfcomm":
            self.assertEqual(device.asked[1][-3:], b"\2\xbe\xef")
        else:
            self.assertEqual(device.asked[1:3], [bytes.fromhex("031700"), bytes.fromhex("011001000a")])

    def test_is_nowhere_without_such_a_service(self):
        absent = of_directory(b"\x35\0") if self.kind == "rfcomm" else bytes.fromhex("010801000a")
        self.assertRefused(3, "the device has no such service; is a camera running there", [absent])

    def test_is_not_told(self):
        refused = bytes.fromhex("01000100020003" if self.kind == "rfcomm" else "0108010006")
        self.assertRefused(3, "the device does not tell where its camera listens", [refused])

    def test_is_told_in_nonsense(self):
        for packet in (b"\x07", b"\x09", b"\x07" + bytes(40), b"\x09\4" + bytes(4), b"\xff" * 20, b"\1"):
            with self.subTest(packet=packet):
                if self.kind == "le" and packet[0] not in (1, 9):
                    continue  # what is no answer is passed over there
                self.assertRefused(6, "does not tell where its camera listens", [packet])

    def test_is_never_told(self):
        self.assertRefused(4, "the device does not answer where its camera listens", [])

    def test_is_asked_of_a_device_that_hangs_up(self):
        if self.kind == "le":  # the link stays for two seconds behind its last channel
            self.assertRefused(4, "the device does not answer where its camera listens")
        else:
            self.assertRefused(6, "the device hung up when it was asked")


class Nobody(AirTest):
    # Over RFCOMM's kind of link the guest's kernel, 6.1.192, breaks: "list_del corruption" in hci_chan_del, when a
    # socket is closed that could not be connected. It takes the process along, and its thread for RFCOMM.
    kinds = ("le",)

    def test_tells_where_the_camera_listens(self):
        for address in ("00:AA:01:77:77:77", "C0:AA:01:77:77:77/random"):
            done = run_phone(f"le:{address}:auto", "--timeout", 2, "list", wait_for_turn=False)
            self.assertEnds(done, 3)
            self.assertIn("no answer from that address; see that the camera is near", done.stderr.decode())


def power_on(controller):
    """Whether the daemon has turned it on."""
    return call_bus(
        "--dest=org.bluez", f"/org/bluez/hci{controller}", "org.freedesktop.DBus.Properties.Set",
        "string:org.bluez.Adapter1", "string:Powered", "variant:boolean:true",
    )  # fmt: skip


class Search(AirTest):
    """With the system's own daemon, which both sides use; the phone's adapter is the one that is named."""

    kinds = ("rfcomm", "le")
    needs_daemon = disturbs = True

    @classmethod
    def setUpClass(cls):
        air.turn_off()
        with management() as kernel:  # what is advertised is the daemon's alone
            kernel.set(CAMERAS, air.SET_ADVERTISING, 0)
        super().setUpClass()
        for controller in (CAMERAS, PHONES):
            wait_until(lambda: power_on(controller), what=f"power of hci{controller}")

    def test_finds_the_camera_and_the_url_of_its_link(self):
        camera = self.camera("--empty", "--name", "Night owl", "--discoverable", 0)
        port = camera.url.rpartition(":")[2]
        controller = PHONES
        if self.kind == "le":  # the other one would ask over RFCOMM's kind of link, too: see Nobody
            air.turn_on_low_energy_phone()
            controller = LOW_ENERGY_PHONES
        done = run_phone(None, "--json", "scan", "--adapter", f"hci{controller}", "--seconds", 8, timeout=90)
        self.assertEnds(done, 0)
        (found,) = [one for one in json.loads(done.stdout)["cameras"] if one["address"] == CAMERA_ADDRESS]
        self.assertEqual(found["name"], "Night owl")
        link = {"link": self.kind, "url": f"{self.kind}:{CAMERA_ADDRESS}:{port}", "port": int(port)}
        self.assertEqual(found["links"], [link])
        for url in (link["url"], f"{self.kind}:{CAMERA_ADDRESS}:auto"):
            end_links()
            self.assertEnds(run_phone(url, "list"), 0)

    def test_finds_no_camera_where_there_is_none(self):
        done = run_phone(None, "scan", "--adapter", f"hci{PHONES}", "--seconds", 4, timeout=90)
        self.assertEnds(done, 9)
        self.assertIn("no camera was found; see that it runs, is near", done.stderr.decode())
