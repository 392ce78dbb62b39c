"""A phone that looks for cameras, as the Bluetooth daemon lets it: here a daemon of the tests on a bus of their own.

This machine need not have Bluetooth: then no device answers where its camera listens, and URLs have `auto` there.
"""

import contextlib
import json
import os
import select
import signal
import socket
import subprocess
import time
import unittest

from desk import PATIENCE, PHONE, DeskTest, environment_of_programs, run_phone

SERVICE = "252a3c13-cb4c-4ac9-aec8-24e715743b86"
ADAPTER = "/org/bluez/hci0"
NEAR = f"{ADAPTER}/dev_00_11_22_33_44_55"
LE = f"{ADAPTER}/dev_C0_11_22_33_44_66"
CAMERA = {"Address": "00:11:22:33:44:55", "AddressType": "public", "Name": "Night owl", "RSSI": -60,
          "UUIDs": [SERVICE], "Class": 0x100, "AdvertisingFlags": [2]}  # fmt: skip
LE_CAMERA = {"Address": "C0:11:22:33:44:66", "AddressType": "random", "Name": "Lark", "RSSI": -40,
             "UUIDs": ["0000180a-0000-1000-8000-00805f9b34fb", SERVICE.upper()], "AdvertisingFlags": [6]}  # fmt: skip
HEADSET = {"Address": "00:11:22:33:44:77", "AddressType": "public", "Name": "Headset", "RSSI": -30,
           "UUIDs": ["0000110b-0000-1000-8000-00805f9b34fb"], "Class": 0x240404}  # fmt: skip
ON = {ADAPTER: {"Powered": True, "Address": "00:AA:01:00:00:00"}}
WITHOUT_DAEMON = "Whoever knows a camera's address needs none of this: --connect rfcomm:ADDRESS:auto or le:ADDRESS:auto"
DAEMON = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bluetooth_devices.py")
BUS_CONFIG = """<busconfig><type>system</type><listen>unix:path={path}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
<allow user="*"/>{more}</policy></busconfig>"""
DENIED = '<deny send_destination="org.bluez" send_interface="org.freedesktop.DBus.ObjectManager"/>'


def has_bluetooth():
    bluetooth, l2cap = 31, 0  # Python may have been built without them
    with contextlib.suppress(OSError):
        socket.socket(bluetooth, socket.SOCK_SEQPACKET, l2cap).close()
        return True
    return False


def line_of(pipe):
    readable, _, _ = select.select([pipe], [], [], 4 * PATIENCE)
    return pipe.readline().decode().rstrip("\n") if readable else None


class ScanTest(DeskTest):
    def setUp(self):
        super().setUp()
        self.address = f"unix:path={self.folder}/bus"

    def started(self, *command, **environment):
        process = subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=environment_of_programs(**environment)
        )
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def bus(self, more=""):
        config = self.file("bus.conf", BUS_CONFIG.format(path=f"{self.folder}/bus", more=more))
        process = self.started("dbus-daemon", f"--config-file={config}", "--nofork", "--nopidfile", "--print-address")
        self.assertTrue(line_of(process.stdout).startswith(self.address))

    def daemon(self, *, more="", **plan):
        self.bus(more)
        plan.setdefault("adapters", ON)
        self.process = self.started(
            "/usr/bin/python3", DAEMON, self.file("plan.json", json.dumps(plan)), DBUS_SYSTEM_BUS_ADDRESS=self.address
        )
        self.assertEqual(line_of(self.process.stdout), "ready")

    def next_call(self):
        return line_of(self.process.stdout)

    def calls(self):
        """What the daemon was asked, once it has ended."""
        self.process.terminate()
        return self.process.stdout.read().decode().splitlines()

    def scan(self, *options, seconds=1.0, timeout=PATIENCE, adapter=None):
        chosen = ("--adapter", adapter) if adapter else ()
        return run_phone(
            None, "--timeout", timeout, *options, "scan", "--seconds", seconds, *chosen,
            environment={"DBUS_SYSTEM_BUS_ADDRESS": self.address},
        )  # fmt: skip

    def cameras(self, **more):
        done = self.scan("--json", **more)
        self.assertEnds(done, 0)
        return json.loads(done.stdout)["cameras"]

    def assertRefused(self, done, code, text):
        """One line says what is wrong, and what works all the same."""
        self.assertEnds(done, code)
        said = done.stderr.decode()
        self.assertEqual(said.count("\n"), 1, said)
        self.assertIn(text, said)
        self.assertEqual(done.stdout, b"")


@unittest.skipIf(has_bluetooth(), "devices would be asked, over the air")
class Cameras(ScanTest):
    def test_are_listed_with_the_urls_of_their_links(self):
        self.daemon(found=[[NEAR, CAMERA], [LE, LE_CAMERA], [f"{ADAPTER}/dev_00_11_22_33_44_77", HEADSET]])
        done = self.scan("--quiet")
        self.assertEnds(done, 0)
        self.assertEqual(
            [line.split() for line in done.stdout.decode().splitlines()],
            [
                ["URL", "SIGNAL", "NAME", "LINK", "ADDRESS"],
                ["le:C0:11:22:33:44:66/random:auto", "-40", "dBm", "Lark", "le", "C0:11:22:33:44:66"],
                ["rfcomm:00:11:22:33:44:55:auto", "-60", "dBm", "Night", "owl", "rfcomm", "00:11:22:33:44:55"],
                ["le:00:11:22:33:44:55:auto", "-60", "dBm", "Night", "owl", "le", "00:11:22:33:44:55"],
            ],
        )

    def test_that_do_not_answer_are_told_of_in_one_line_each(self):
        self.daemon(found=[[NEAR, CAMERA], [LE, LE_CAMERA]])
        done = self.scan()
        self.assertEnds(done, 0)
        self.assertEqual(
            done.stderr.decode(),
            '"Lark" (C0:11:22:33:44:66) says that it is a camera; this kernel has no Bluetooth; use unix: or tcp:\n'
            '"Night owl" (00:11:22:33:44:55) says that it is a camera; this kernel has no Bluetooth; use unix: or '
            "tcp:\n",
        )

    def test_are_json_for_programs(self):
        self.daemon(found=[[NEAR, CAMERA]])
        link = {"link": "rfcomm", "url": "rfcomm:00:11:22:33:44:55:auto", "port": None}
        le_link = {"link": "le", "url": "le:00:11:22:33:44:55:auto", "port": None}
        self.assertEqual(
            self.cameras(),
            [{"name": "Night owl", "address": "00:11:22:33:44:55", "address_type": "public", "signal": -60,
              "links": [link, le_link]}],
        )  # fmt: skip

    def test_may_tell_what_they_are_later(self):
        silent = {name: value for name, value in CAMERA.items() if name not in ("Name", "UUIDs", "RSSI")}
        self.daemon(found=[[NEAR, silent]], changes=[[NEAR, {"UUIDs": [SERVICE], "Name": "Late", "RSSI": -70}]])
        cameras = self.cameras()
        self.assertEqual([(one["name"], one["signal"]) for one in cameras], [("Late", -70)])

    def test_have_the_links_over_which_they_may_have_been_heard(self):
        for flags, device_class, links in (
            ([2], 0x100, ["rfcomm", "le"]),
            ([2], None, ["le"]),
            ([6], 0x100, ["le"]),  # which says that it has nothing else
            (None, 0x100, ["rfcomm", "le"]),
            (None, None, ["rfcomm", "le"]),
        ):
            with self.subTest(flags=flags, device_class=device_class):
                heard = {**CAMERA, "AdvertisingFlags": flags, "Class": device_class}
                self.daemon(found=[[NEAR, {name: value for name, value in heard.items() if value is not None}]])
                self.assertEqual([link["link"] for link in self.cameras()[0]["links"]], links)
                self.doCleanups()
                self.setUp()

    def test_that_were_there_once_are_not_there_now(self):
        away = {name: value for name, value in CAMERA.items() if name != "RSSI"}
        self.daemon(known={NEAR: away})
        self.assertRefused(self.scan(), 9, "no camera was found")

    def test_are_looked_for_with_the_adapter_that_is_named(self):
        other = "/org/bluez/hci1"
        self.daemon(
            adapters={**ON, other: {"Powered": True}},
            found=[[NEAR, CAMERA], [f"{other}/dev_00_11_22_33_44_88", {**CAMERA, "Name": "Other side"}]],
        )
        self.assertEqual([one["name"] for one in self.cameras(adapter="hci1")], ["Other side"])

    def test_are_looked_for_with_the_adapter_that_is_on(self):
        other = "/org/bluez/hci1"
        self.daemon(
            adapters={ADAPTER: {"Powered": False}, other: {"Powered": True}},
            found=[[NEAR, CAMERA], [f"{other}/dev_00_11_22_33_44_88", {**CAMERA, "Name": "Other side"}]],
        )
        self.assertEqual([one["name"] for one in self.cameras()], ["Other side"])


class Searches(ScanTest):
    def test_look_over_all_kinds_of_links_and_are_ended(self):
        self.daemon()
        self.assertRefused(
            self.scan(), 9,
            "shotmentor-phone: no camera was found; see that it runs, is near, and lets itself be found",
        )  # fmt: skip
        self.assertEqual(
            self.calls(),
            ["GetManagedObjects", 'SetDiscoveryFilter {"Transport": "auto"}', "StartDiscovery", "StopDiscovery"],
        )

    def test_without_a_camera_are_an_empty_list_in_json(self):
        self.daemon()
        done = self.scan("--json")
        self.assertEnds(done, 9)
        self.assertEqual(json.loads(done.stdout), {"cameras": []})

    def test_take_the_time_that_they_are_given(self):
        self.daemon()
        begin = time.monotonic()
        self.scan(seconds=1.5)
        self.assertGreaterEqual(time.monotonic() - begin, 1.5)

    def test_are_ended_by_a_signal_with_what_was_found(self):
        self.daemon(found=[[NEAR, CAMERA]])
        for number in (signal.SIGINT, signal.SIGTERM):
            phone = subprocess.Popen(
                [PHONE, "--json", "scan", "--seconds", "600"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                env=environment_of_programs(DBUS_SYSTEM_BUS_ADDRESS=self.address),
            )  # fmt: skip
            for call in ("GetManagedObjects", "SetDiscoveryFilter", "StartDiscovery"):
                self.assertTrue(self.next_call().startswith(call))
            phone.send_signal(number)
            output, talk = phone.communicate(timeout=4 * PATIENCE)
            self.assertEqual(phone.returncode, 32, talk)
            self.assertEqual(talk.decode(), "shotmentor-phone: the search was stopped by a signal\n")
            self.assertEqual(list(json.loads(output)), ["cameras"])
            self.assertEqual(self.next_call(), "StopDiscovery")

    def test_need_no_camera_and_take_no_other_word(self):
        done = run_phone(None, "scan", "--seconds", "0")
        self.assertEnds(done, 2)
        done = run_phone(None, "scan", "all")
        self.assertEnds(done, 2)


class Refusals(ScanTest):
    def test_without_a_bus(self):
        done = self.scan()
        self.assertRefused(done, 3, "cannot reach the system's D-Bus: ")
        self.assertIn(WITHOUT_DAEMON, done.stderr.decode())

    def test_without_a_daemon(self):
        self.bus()
        done = self.scan()
        self.assertRefused(done, 3, "no Bluetooth daemon runs on this machine; install it (package bluez) and start it")
        self.assertIn(WITHOUT_DAEMON, done.stderr.decode())

    def test_without_rights(self):
        self.daemon(more=DENIED)
        self.assertRefused(self.scan(), 3, "this user may not use the Bluetooth daemon; become a member of the group")

    def test_without_an_adapter(self):
        self.daemon(adapters={})
        self.assertRefused(self.scan(), 3, "this machine has no Bluetooth adapter; plug one in")

    def test_with_an_adapter_that_is_off(self):
        for state in ({"Powered": False}, {}, {"Powered": {"type": "s", "value": "yes"}}):
            with self.subTest(state=state):
                self.daemon(adapters={ADAPTER: state})
                self.assertRefused(self.scan(), 3, "the Bluetooth adapter is off; turn it on (bluetoothctl power on")
                self.doCleanups()
                self.setUp()

    def test_with_an_adapter_that_there_is_not(self):
        self.daemon(adapters={**ON, "/org/bluez/hci1": {}})
        self.assertRefused(
            self.scan(adapter="hci7\n"), 2, "this machine has no Bluetooth adapter hci7\ufffd, but hci0, hci1"
        )

    def test_of_the_daemon_are_put_into_words(self):
        for name, code, text in (
            ("org.bluez.Error.InProgress", 3, "the Bluetooth adapter is busy with what another program searches"),
            ("org.bluez.Error.NotReady", 3, "the Bluetooth adapter is off"),
            ("org.bluez.Error.NotAuthorized", 3, "this user may not use the Bluetooth daemon"),
            ("org.freedesktop.DBus.Error.NoReply", 4, "the Bluetooth daemon does not answer"),
            ("org.freedesktop.DBus.Error.UnknownObject", 3, "the Bluetooth adapter has gone"),
            ("org.bluez.Error.Failed", 3, "as the test wants it\ufffd\ufffd[2J (org.bluez.Error.Failed)"),
        ):
            with self.subTest(name=name):
                self.daemon(errors={"StartDiscovery": name})
                self.assertRefused(self.scan(), code, text)
                self.doCleanups()
                self.setUp()


class BrokenSearches(ScanTest):
    def test_by_a_daemon_that_goes_tell_what_was_found(self):
        self.daemon(found=[[NEAR, CAMERA]], ends_after="StartDiscovery")
        done = self.scan("--json", seconds=600)
        self.assertEnds(done, 3)
        self.assertIn("the Bluetooth daemon has gone; try again", done.stderr.decode())
        self.assertEqual(list(json.loads(done.stdout)), ["cameras"])

    def test_by_an_adapter_that_is_turned_off(self):
        self.daemon(changes=[[ADAPTER, {"Powered": False}]])
        self.assertRefused(self.scan(seconds=600), 3, "the Bluetooth adapter is off")

    def test_by_an_adapter_that_is_pulled_out(self):
        removed = ["/", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved", "oas",
                   [ADAPTER, ["org.bluez.Adapter1"]]]  # fmt: skip
        self.daemon(signals=[removed])
        self.assertRefused(self.scan(seconds=600), 3, "the Bluetooth adapter has gone; plug it in again")


class HostileBuses(ScanTest):
    """What the daemon says is what devices say of themselves, and worse."""

    def test_that_never_answer_cost_the_time_out(self):
        for method in ("GetManagedObjects", "SetDiscoveryFilter", "StartDiscovery"):
            with self.subTest(method=method):
                self.daemon(silent=[method])
                self.assertRefused(self.scan(seconds=600, timeout=0.5), 4, "the Bluetooth daemon does not answer")
                self.doCleanups()
                self.setUp()

    def test_that_never_end_a_search_cost_the_time_out(self):
        self.daemon(silent=["StopDiscovery"])
        self.assertRefused(self.scan(timeout=0.5), 9, "no camera was found")

    def test_that_let_nobody_in_cost_the_time_out(self):
        with socket.socket(socket.AF_UNIX) as listening:
            listening.bind(f"{self.folder}/bus")
            listening.listen()
            self.assertRefused(self.scan(timeout=0.5), 4, "the Bluetooth daemon does not answer")

    def test_that_are_no_buses_are_told(self):
        with socket.socket(socket.AF_UNIX) as listening:
            listening.bind(f"{self.folder}/bus")
            listening.listen()
            phone = subprocess.Popen(
                [PHONE, "scan"], stderr=subprocess.PIPE,
                env=environment_of_programs(DBUS_SYSTEM_BUS_ADDRESS=self.address),
            )  # fmt: skip
            with listening.accept()[0] as connection:
                connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n" * 100)
            talk = phone.communicate(timeout=4 * PATIENCE)[1].decode()
            self.assertEqual((phone.returncode, talk.count("\n")), (3, 1), talk)
            self.assertIn("the system's D-Bus", talk)

    def test_with_objects_of_other_types_are_told(self):
        for signature, value in (("s", "none"), ("a{ss}", {"a": "b"}), ("as", []), ("v", "x"), ("i", 7)):
            with self.subTest(signature=signature):
                self.daemon(answers={"GetManagedObjects": [signature, value]})
                self.assertRefused(self.scan(), 6, "says nothing that makes sense")
                self.doCleanups()
                self.setUp()

    def test_with_properties_of_other_types_leave_the_others_as_they_are(self):
        odd = [{"type": "s", "value": "x"}, {"type": "d", "value": 1.5}, {"type": "au", "value": [1]}, True]
        devices = [
            [f"{ADAPTER}/dev_{at}_{number}", {**CAMERA, name: value}]
            for at, name in enumerate(CAMERA) for number, value in enumerate(odd)
        ]  # fmt: skip
        devices += [[f"{ADAPTER}/dev_without_{name}", {k: v for k, v in CAMERA.items() if k != name}]
                    for name in CAMERA]  # fmt: skip
        self.daemon(found=[*devices, [LE, LE_CAMERA]])
        self.assertIn("Lark", [one["name"] for one in self.cameras(seconds=2)])

    def test_with_addresses_that_are_none_have_no_device_there(self):
        addresses = ("", "00:11:22:33:44", "00:11:22:33:44:5G", "00:11:22:33:44:55:66", "\x1b]0;x\x07", "A" * 100000)
        self.daemon(found=[[f"{ADAPTER}/dev_{n}", {**CAMERA, "Address": one}] for n, one in enumerate(addresses)])
        self.assertRefused(self.scan(), 9, "no camera was found")

    def test_with_signals_of_other_types_leave_the_others_as_they_are(self):
        signals = [
            ["/", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded", "s", ["x"]],
            ["/", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded", "oa{ss}", [NEAR, {"a": "b"}]],
            ["/", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved", "i", [1]],
            [NEAR, "org.freedesktop.DBus.Properties", "PropertiesChanged", "as", [["x"]]],
            [NEAR, "org.freedesktop.DBus.Properties", "PropertiesChanged", "sas", ["org.bluez.Device1", ["x"]]],
        ]
        self.daemon(signals=signals, found=[[LE, LE_CAMERA]])
        self.assertEqual([one["name"] for one in self.cameras()], ["Lark"])

    def test_with_thousands_of_devices_take_little_time_and_memory(self):
        self.daemon(found=[[f"{ADAPTER}/dev_%d", CAMERA]], repeat=3000)
        begin = time.monotonic()
        done = self.scan("--json", "--quiet", seconds=3)
        self.assertEnds(done, 0)
        self.assertLess(time.monotonic() - begin, 4 * PATIENCE)
        self.assertLessEqual(len(json.loads(done.stdout)["cameras"]), 1000)

    def test_with_names_without_end_have_them_cut(self):
        self.daemon(found=[[NEAR, {**CAMERA, "Name": "\u00e4" * 1_000_000}]])
        self.assertEqual(self.cameras()[0]["name"], "\u00e4" * 124)

    def test_with_names_that_steer_terminals_come_out_harmless(self):
        name = "\x1b]0;owned\x07\u202egpj\n\x9b2J"
        self.daemon(found=[[NEAR, {**CAMERA, "Name": name}]])
        done = self.scan()
        self.assertEnds(done, 0)
        said = done.stdout.decode() + done.stderr.decode()
        self.assertFalse({"\x1b", "\x07", "\u202e", "\x9b"} & set(said), said)
        self.assertIn("\ufffd]0;owned\ufffd\ufffdgpj\ufffd\ufffd2J", said)
        self.assertEqual(self.cameras()[0]["name"], name)


if __name__ == "__main__":
    unittest.main()
