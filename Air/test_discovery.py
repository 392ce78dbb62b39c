"""A phone finds the camera with the system's own Bluetooth daemon: its record, its advertisement, the port in both."""

import errno
import os
import signal
import socket
import struct
import subprocess
import time

import air
from air import ADDRESSES, CAMERA_ADDRESS, LE_PUBLIC, LOW_ENERGY_PHONES, PHONES, AirTest, call_bus, libc, succeed
from air import wait_until
from desk import CAMERA, LIST, Link, list_reply, request

SERVICE = "252a3c13-cb4c-4ac9-aec8-24e715743b86"
PSM_CHARACTERISTIC = "abdd3056-28fa-441d-a470-55a75a52553a"
ADAPTER = "/org/bluez/hci0"
ATTRIBUTES_CHANNEL = 4
READ_BY_TYPE, READ_ANSWER, EXCHANGE_MTU, ERROR = 0x08, 0x09, 0x02, 0x01
NOT_SUPPORTED = 0x06


def adapter_has(name):
    """What dbus-send prints of a property of the camera's adapter."""
    return call_bus(
        "--dest=org.bluez",
        ADAPTER,
        "org.freedesktop.DBus.Properties.Get",
        "string:org.bluez.Adapter1",
        f"string:{name}",
    )


def set_adapter(name, value, controller=air.CAMERAS):
    call_bus(
        "--dest=org.bluez", f"/org/bluez/hci{controller}", "org.freedesktop.DBus.Properties.Set",
        "string:org.bluez.Adapter1", f"string:{name}", f"variant:{value}",
    )  # fmt: skip


def records():
    """What a phone is told of all services, as sdptool prints it."""
    done = subprocess.run(
        ["sdptool", "-i", f"hci{PHONES}", "browse", CAMERA_ADDRESS], capture_output=True, text=True, timeout=20
    )
    return done.stdout


def advertisements():
    """What dbus-send prints of how many there are on the camera's adapter."""
    return call_bus(
        "--dest=org.bluez", ADAPTER, "org.freedesktop.DBus.Properties.Get",
        "string:org.bluez.LEAdvertisingManager1", "string:ActiveInstances",
    )  # fmt: skip


def record_of_camera():
    found = [record for record in records().split("\n\n") if SERVICE in record.lower()]
    return found[0] if found else ""


def attribute_link():
    """To the camera's device. Its controller may be busy with the end of the last one."""
    end = time.monotonic() + 20
    while True:
        link = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_SEQPACKET, socket.BTPROTO_L2CAP)
        try:
            for connect, address in ((libc.bind, ADDRESSES[PHONES]), (libc.connect, CAMERA_ADDRESS)):
                backwards = bytes.fromhex(address.replace(":", ""))[::-1]
                packed = struct.pack("<HH6sHBx", socket.AF_BLUETOOTH, 0, backwards, ATTRIBUTES_CHANNEL, LE_PUBLIC)
                succeed(connect(link.fileno(), packed, len(packed)))
            link.settimeout(10)
            return link
        except OSError as error:
            link.close()
            if error.errno != errno.EBUSY or time.monotonic() > end:
                raise
            time.sleep(0.2)


def read_psm():
    """What a phone is told that asks the camera's device for the characteristic, or nothing."""
    with attribute_link() as link:
        uuid = bytes.fromhex(PSM_CHARACTERISTIC.replace("-", ""))[::-1]
        link.send(struct.pack("<BHH", READ_BY_TYPE, 1, 0xFFFF) + uuid)
        while True:
            answer = link.recv(512)
            if answer[0] == READ_ANSWER:
                return struct.unpack_from("<H", answer, 4)[0]
            if answer[0] == ERROR and answer[1] == READ_BY_TYPE:
                return None
            if answer[0] == EXCHANGE_MTU:
                link.send(struct.pack("<BH", EXCHANGE_MTU + 1, 23))
            elif answer[0] % 2 == 0:  # the daemon looks at the phone's services, too
                link.send(struct.pack("<BBHB", ERROR, answer[0], 0, NOT_SUPPORTED))


def seen_by(controller, *names):
    """What dbus-send prints of the camera's device, or of one property of it."""
    device = f"/org/bluez/hci{controller}/dev_{CAMERA_ADDRESS.replace(':', '_')}"
    method = "Get" if names else "GetAll"
    return call_bus(
        "--dest=org.bluez", device, f"org.freedesktop.DBus.Properties.{method}", "string:org.bluez.Device1",
        *[f"string:{name}" for name in names],
    )  # fmt: skip


class Scan:
    """bluetoothctl looks for devices, with the controller of phones that has only Low Energy or with the other one."""

    def __init__(self, controller, transport, *options):
        self.process = subprocess.Popen(
            ["bluetoothctl", *options],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        self.tell(f"select {ADDRESSES[controller]}", "menu scan", f"transport {transport}", "back", "scan on")

    def tell(self, *lines):
        self.process.stdin.write("".join(line + "\n" for line in lines))
        self.process.stdin.flush()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.tell("scan off", "quit")
        self.output = self.process.communicate(timeout=20)[0]


class DiscoveryTest(AirTest):
    """The daemon has hci0 for the camera; phones have the other controllers."""

    disturbs = True
    needs_daemon = True

    @classmethod
    def setUpClass(cls):
        air.turn_off()
        with air.management() as kernel:  # what is advertised is the daemon's alone
            kernel.set(air.CAMERAS, air.SET_ADVERTISING, 0)
        super().setUpClass()
        for controller in (air.CAMERAS, PHONES):
            set_adapter("Powered", "boolean:true", controller)

    def setUp(self):
        super().setUp()
        set_adapter("Powered", "boolean:true")
        if self.kind == "le":  # the last one's link lingers, and a second one beside it wedges the controllers
            device = f"/org/bluez/hci{PHONES}/dev_{CAMERA_ADDRESS.replace(':', '_')}"
            call_bus("--dest=org.bluez", device, "org.bluez.Device1.Disconnect")

    def serving(self, *options):
        return self.camera("--empty", *options, kind=self.kind)

    def told(self, camera, line):
        wait_until(lambda: line in camera.talk(), what=f"{line!r} in {camera.talk()!r}")

    def registered(self, camera, times=1):
        line = "by its service record" if self.kind == "rfcomm" else "read there where to connect"
        wait_until(lambda: camera.talk().count(line) == times, what=f"{times} times {line!r} in {camera.talk()!r}")


class Discovered(DiscoveryTest):
    kinds = ("rfcomm", "le")

    def port_told(self):
        if self.kind == "le":
            time.sleep(2.5)  # a link of Low Energy lingers, and a second one beside it wedges the daemon
            return read_psm()
        record = record_of_camera()
        return int(record.partition("Channel: ")[2].split()[0]) if record else None

    def assertFound(self, camera):
        self.assertEqual(self.port_told(), int(camera.url.rpartition(":")[2]), camera.talk())

    def test_by_who_knows_its_address_and_again_when_the_daemon_is_back(self):
        camera = self.serving()
        self.registered(camera)
        self.assertFound(camera)
        self.daemon.kill()
        self.told(camera, "the Bluetooth daemon has gone")
        type(self).daemon = air.BluetoothDaemon()
        set_adapter("Powered", "boolean:true")
        self.told(camera, "the Bluetooth daemon is there\n")
        self.registered(camera, times=2)
        self.assertFound(camera)
        camera.stop()
        if self.kind == "rfcomm":
            self.assertIsNone(self.port_told())
        else:
            wait_until(lambda: "byte 0" in advertisements(), what="the end of the advertisement")

    def test_under_its_name_for_a_time(self):
        before = [adapter_has(name).split("variant")[-1] for name in ("Alias", "Discoverable", "DiscoverableTimeout")]
        camera = self.serving("--name", "Kitchen", "--discoverable", "0")
        self.told(camera, 'phones that look for cameras find "Kitchen" on hci0')
        self.assertIn('"Kitchen"', adapter_has("Alias"))
        if self.kind == "rfcomm":
            self.assertIn("boolean true", adapter_has("Discoverable"))
        camera.stop()
        after = [adapter_has(name).split("variant")[-1] for name in ("Alias", "Discoverable", "DiscoverableTimeout")]
        self.assertEqual(after, before)

    def test_by_who_looks_for_it(self):
        controller, transport = (PHONES, "bredr") if self.kind == "rfcomm" else (LOW_ENERGY_PHONES, "le")
        if self.kind == "le":
            air.turn_on_low_energy_phone()
        name = "Kitchen " + "x" * 21  # all that an advertisement has room for
        with self.serving("--name", name, "--discoverable", "0") as camera:
            self.told(camera, "phones that look for cameras find")
            with Scan(controller, transport) as scan:
                wait_until(
                    lambda: name in seen_by(controller) and (self.kind == "rfcomm" or SERVICE in seen_by(controller)),
                    20,
                    "the camera",
                )
            self.assertIn(CAMERA_ADDRESS, scan.output)

    def test_a_camera_whose_adapter_is_turned_off_and_on(self):
        with self.serving("--discoverable", "0") as camera:
            self.told(camera, "phones that look for cameras find")
            set_adapter("Powered", "boolean:false")
            self.told(camera, "hci0 is off")
            set_adapter("Powered", "boolean:true")
            wait_until(lambda: camera.talk().count("phones that look for cameras find") == 2, what="seen again")
            self.assertFound(camera)
            self.assertNotIn("refuses", camera.talk())

    def test_a_phone_connects_to_what_it_was_told(self):
        with self.serving() as camera:
            self.registered(camera)
            kind, _, port = camera.url.rpartition(":")
            told = self.port_told()
            self.assertEqual(told, int(port))
            if self.kind == "le":
                time.sleep(2.5)
            with Link(f"{kind}:{told}") as link:
                self.assertEqual(link.ask(request(LIST)), list_reply([]))

    def test_it_is_stopped_by_a_signal_as_the_daemon_stands_still(self):
        camera = self.serving("--name", "Kitchen")
        self.registered(camera)
        self.daemon.process.send_signal(signal.SIGSTOP)
        try:
            camera.stop()
        finally:
            self.daemon.process.send_signal(signal.SIGCONT)
        self.assertFalse(os.path.exists(f"{self.store}/camera.sock"))


class Pairing(DiscoveryTest):
    """Both devices are the same daemon's: bluetoothctl answers for the phone, the camera's agent for the camera."""

    kinds = ("rfcomm",)

    def setUp(self):
        super().setUp()
        self.control = f"unix:{self.folder}/control"

    def pairing(self, how):
        camera = self.serving("--pairing", how, "--discoverable", "0", "--control", self.control)
        self.told(camera, "phones that look for cameras find")
        return camera

    def forget_each_other(self):
        for controller, other in ((air.CAMERAS, PHONES), (PHONES, air.CAMERAS)):
            call_bus(
                "--dest=org.bluez", f"/org/bluez/hci{controller}", "org.bluez.Adapter1.RemoveDevice",
                f"objpath:/org/bluez/hci{controller}/dev_{ADDRESSES[other].replace(':', '_')}",
            )  # fmt: skip

    def assertServes(self, camera):
        with Link(camera.url) as link:
            self.assertEqual(link.ask(request(LIST)), list_reply([]))

    def test_a_phone_pairs_as_it_connects_if_any_may(self):
        self.addCleanup(self.forget_each_other)
        with self.pairing("any") as camera:
            self.assertServes(camera)  # the kernel pairs by itself where neither side can show anything

    def test_a_phone_without_a_pairing_is_not_served_later(self):
        self.addCleanup(self.forget_each_other)
        with self.serving("--pairing", "any") as camera:
            self.registered(camera)
            with self.assertRaises(OSError):
                self.assertServes(camera)

    def test_a_phone_pairs_by_digits(self):
        self.addCleanup(self.forget_each_other)
        with self.pairing("confirm") as camera:
            with Scan(PHONES, "bredr", "--agent", "DisplayYesNo") as scan:
                wait_until(lambda: "Paired" in seen_by(PHONES), 20, "the camera")
                scan.tell("scan off", f"pair {CAMERA_ADDRESS}")
                self.told(camera, "wants to pair: if it shows ")
                digits = camera.talk().partition("if it shows ")[2][:6]
                scan.tell("yes")
                done = subprocess.run([CAMERA, "control", self.control, "pair", "yes"], capture_output=True, text=True)
                self.assertEqual(done.returncode, 0, done.stderr)
                self.told(camera, "pairs with the camera")
                wait_until(lambda: "true" in seen_by(PHONES, "Paired"), what="pairing")
            self.assertIn(digits, scan.output)
