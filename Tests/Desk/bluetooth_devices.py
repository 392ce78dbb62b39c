"""A Bluetooth daemon for phones that look around: owns org.bluez on the bus that DBUS_SYSTEM_BUS_ADDRESS names.

Usage: /usr/bin/python3 bluetooth_devices.py PLAN

What it is to do stands in the file PLAN, one JSON object; all entries may be missing:

adapters     path: properties of the adapters
known        path: properties of the devices that there are from the start
found        [path, properties] of devices that are found by a search
changes      [path, properties] of what changes then
errors       method: the name of the error that it answers with
silent       methods without an answer
answers      method: [signature, value], what it answers in the place of what it should
signals      [path, interface, member, signature, values] of what it says besides
repeat       how often it says the signals, and finds each device (`%d` in a path is the number)
ends_after   the method after whose answer it ends

A property that is an object with "type" and "value" has this type. Each call is printed, one to a line.
"""

import json
import sys

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
from gi.repository import GLib

DEVICE, ADAPTER = "org.bluez.Device1", "org.bluez.Adapter1"
OBJECTS, PROPERTIES = "org.freedesktop.DBus.ObjectManager", "org.freedesktop.DBus.Properties"
TYPES = {
    "b": dbus.Boolean, "y": dbus.Byte, "n": dbus.Int16, "q": dbus.UInt16, "i": dbus.Int32, "u": dbus.UInt32,
    "x": dbus.Int64, "t": dbus.UInt64, "d": dbus.Double, "s": dbus.String, "o": dbus.ObjectPath,
}  # fmt: skip
USUAL = {"RSSI": "n", "Class": "u", "UUIDs": "as", "AdvertisingFlags": "ay"}


def typed(signature, value):
    if signature in TYPES:
        return TYPES[signature](value)
    if signature.startswith("a{"):
        return dbus.Dictionary(value, signature=signature[2:-1])
    return dbus.Array([typed(signature[1:], one) for one in value], signature=signature[1:])


def value_of(name, value):
    if isinstance(value, dict):
        return typed(value["type"], value["value"])
    return typed("b" if isinstance(value, bool) else USUAL.get(name, "s"), value)


def properties_of(entries):
    return dbus.Dictionary({name: value_of(name, value) for name, value in entries.items()}, signature="sv")


def object_of(interface, entries):
    return dbus.Dictionary({interface: properties_of(entries)}, signature="sa{sv}")


class Daemon:
    def __init__(self, plan):
        self.plan = plan
        self.loop = GLib.MainLoop()
        self.bus = dbus.SystemBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
        self.bus.add_message_filter(self.take)
        self.bus.request_name("org.bluez")
        print("ready", flush=True)

    def run(self):
        self.loop.run()

    def objects(self):
        there = {path: object_of(ADAPTER, entries) for path, entries in self.plan.get("adapters", {}).items()}
        there |= {path: object_of(DEVICE, entries) for path, entries in self.plan.get("known", {}).items()}
        return dbus.Dictionary(there, signature="oa{sa{sv}}")

    def signal(self, path, interface, member, signature, *values):
        message = dbus.lowlevel.SignalMessage(path, interface, member)
        message.append(*values, signature=signature)
        self.bus.send_message(message)

    def tell(self):
        """What a search brings."""
        for number in range(self.plan.get("repeat", 1)):
            for path, entries in self.plan.get("found", []):
                path = path.replace("%d", str(number))
                self.signal("/", OBJECTS, "InterfacesAdded", "oa{sa{sv}}", path, object_of(DEVICE, entries))
            for path, interface, member, signature, values in self.plan.get("signals", []):
                self.signal(path, interface, member, signature, *values)
        for path, entries in self.plan.get("changes", []):
            interface = ADAPTER if path in self.plan.get("adapters", {}) else DEVICE
            self.signal(path, PROPERTIES, "PropertiesChanged", "sa{sv}as", interface, properties_of(entries), [])

    def answer(self, call, member):
        if member in self.plan.get("errors", {}):
            return dbus.lowlevel.ErrorMessage(call, self.plan["errors"][member], "as the test wants it\n\x1b[2J")
        answer = dbus.lowlevel.MethodReturnMessage(call)
        if member in self.plan.get("answers", {}):
            signature, value = self.plan["answers"][member]
            answer.append(value, signature=signature)
        elif member == "GetManagedObjects":
            answer.append(self.objects(), signature="a{oa{sa{sv}}}")
        return answer

    def take(self, _, message):
        member = message.get_member()
        if message.get_type() != 1 or message.get_interface() not in (ADAPTER, OBJECTS):
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        print(member, *map(plain, message.get_args_list()), flush=True)
        if member not in self.plan.get("silent", []):
            self.bus.send_message(self.answer(message, member))
        if member == "StartDiscovery":
            self.tell()
        if member == self.plan.get("ends_after"):
            self.bus.flush()
            self.loop.quit()
        return dbus.lowlevel.HANDLER_RESULT_HANDLED


def plain(value):
    return json.dumps(value, sort_keys=True)


if __name__ == "__main__":
    with open(sys.argv[1]) as plan:
        Daemon(json.load(plan)).run()
