"""A Bluetooth daemon for tests, on a system bus of their own: it owns org.bluez and does what it is told, by lines of
JSON on its standard input. Each line is answered with one. Meant for Debian's own Python, as a program.

It keeps what clients register and set, calls the objects that they offer, and can be made to refuse calls, never to
answer them, or to answer nonsense.
"""

import json
import sys

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
from gi.repository import GLib

NAME = "org.bluez"
ADAPTER, DEVICE = "org.bluez.Adapter1", "org.bluez.Device1"
PROPERTIES, MANAGER = "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.ObjectManager"
MANAGERS = {"org.bluez.GattManager1", "org.bluez.LEAdvertisingManager1"}
KINDS = {"b": dbus.Boolean, "u": dbus.UInt32, "s": dbus.String, "q": dbus.UInt16, "o": dbus.ObjectPath}
TYPES = {
    "Address": "s", "Alias": "s", "Powered": "b", "Discoverable": "b", "DiscoverableTimeout": "u", "Pairable": "b",
    "PairableTimeout": "u",
}  # fmt: skip


def adapter(address):
    return {
        "Address": address, "Alias": "workshop", "Powered": True, "Discoverable": False, "DiscoverableTimeout": 180,
        "Pairable": False, "PairableTimeout": 0,
    }  # fmt: skip


def typed(properties):
    return dbus.Dictionary({name: KINDS[TYPES[name]](value) for name, value in properties.items()}, signature="sv")


def plain(value):
    """What JSON can say."""
    if isinstance(value, dict):
        return {str(key): plain(entry) for key, entry in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(entry) for entry in value]
    if isinstance(value, dbus.Boolean):
        return bool(value)
    return int(value) if isinstance(value, int) else str(value)


class Daemon:
    def __init__(self):
        self.loop = GLib.MainLoop()
        self.adapters = {"/org/bluez/hci0": adapter("00:AA:01:00:00:00")}
        self.names = {}  # of phones, by their paths
        self.refused, self.silent, self.nonsense = {}, set(), {}
        self.busy = {}  # how often it will be, by what is asked for
        self.start_anew()
        self.connection = None

    def start_anew(self):
        self.profiles, self.applications, self.advertisements, self.agents = {}, {}, {}, {}
        self.calls = []

    # ---- Being there

    def come(self):
        self.start_anew()
        self.connection = dbus.bus.BusConnection(dbus.bus.BUS_SYSTEM, mainloop=dbus.mainloop.glib.DBusGMainLoop())
        self.connection.add_message_filter(self.heard)
        self.connection.add_match_string("type='signal',member='NameOwnerChanged'")
        self.connection.request_name(NAME)

    def go(self):
        self.connection.close()
        self.connection = None

    # ---- What clients ask for

    def heard(self, connection, message):
        if message.get_type() == 4 and message.get_member() == "NameOwnerChanged":
            self.client_left(*map(str, message.get_args_list()))
        if message.get_type() != 1 or message.get_destination() not in (NAME, connection.get_unique_name()):
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        member = message.get_member()
        self.calls.append(member)
        if member in self.silent:
            return dbus.lowlevel.HANDLER_RESULT_HANDLED
        if self.busy.get(member):
            self.busy[member] -= 1
            answer = dbus.lowlevel.ErrorMessage(message, "org.bluez.Error.Busy", "")
        elif member in self.refused:
            answer = dbus.lowlevel.ErrorMessage(message, self.refused[member], "not today")
        elif member in self.nonsense:
            answer = dbus.lowlevel.MethodReturnMessage(message)
            answer.append(*self.nonsense[member][1], signature=self.nonsense[member][0])
        else:
            answer = self.answer(message, member, message.get_args_list())
        connection.send_message(answer)
        connection.flush()
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def client_left(self, name, _before, now):
        if not now:
            for registered in (self.profiles, self.applications, self.advertisements, self.agents):
                for key in [key for key, entry in registered.items() if entry["client"] == name]:
                    del registered[key]

    def answer(self, message, member, given):
        answer = dbus.lowlevel.MethodReturnMessage(message)
        path, client = str(message.get_path()), str(message.get_sender())
        if member == "GetManagedObjects":
            answer.append(self.objects(), signature="a{oa{sa{sv}}}")
        elif member == "Set":
            self.set(path, str(given[1]), plain(given[2]))
        elif member == "GetAll":
            name = self.names.get(path)
            answer.append({"Alias": dbus.String(name)} if name else {}, signature="a{sv}")
        elif member == "RegisterProfile":
            self.profiles[str(given[0])] = {"client": client, "uuid": str(given[1]), **plain(given[2])}
        elif member == "RegisterApplication":
            self.applications[path] = {"client": client, "path": str(given[0])}
        elif member == "RegisterAdvertisement":
            self.advertisements[path] = {"client": client, "path": str(given[0])}
        elif member == "UnregisterAdvertisement":
            self.advertisements.pop(path, None)
        elif member == "RegisterAgent":
            self.agents[str(given[0])] = {"client": client, "capability": str(given[1]), "default": False}
        elif member == "RequestDefaultAgent":
            self.agents[str(given[0])]["default"] = True
        elif member == "UnregisterAgent":
            self.agents.pop(str(given[0]), None)
        else:
            return dbus.lowlevel.ErrorMessage(message, "org.freedesktop.DBus.Error.UnknownMethod", member)
        return answer

    def objects(self):
        everything = dbus.Dictionary(signature="oa{sa{sv}}")
        for path, properties in self.adapters.items():
            interfaces = {name: dbus.Dictionary(signature="sv") for name in MANAGERS}
            interfaces[ADAPTER] = typed(properties)
            everything[dbus.ObjectPath(path)] = dbus.Dictionary(interfaces, signature="sa{sv}")
        return everything

    def set(self, path, name, value):
        self.adapters[path][name] = value
        self.signal(path, PROPERTIES, "PropertiesChanged", "sa{sv}as", ADAPTER, typed({name: value}), [])

    def signal(self, path, interface, member, signature, *values):
        message = dbus.lowlevel.SignalMessage(path, interface, member)
        message.append(*values, signature=signature)
        self.connection.send_message(message)
        self.connection.flush()

    # ---- What the test asks for

    def do_state(self):
        return {
            name: getattr(self, name) for name in "adapters profiles applications advertisements agents calls".split()
        }

    def do_come(self):
        self.come()

    def do_go(self):
        self.go()

    def do_set(self, path, name, value):
        self.set(path, name, value)

    def do_plug(self, path, address):
        self.adapters[path] = adapter(address)
        self.signal(
            "/", MANAGER, "InterfacesAdded", "oa{sa{sv}}", path, dbus.Dictionary({ADAPTER: typed(self.adapters[path])})
        )

    def do_unplug(self, path):
        del self.adapters[path]
        self.signal("/", MANAGER, "InterfacesRemoved", "oas", path, [ADAPTER])

    def do_phone(self, path, name):
        self.names[path] = name

    def do_refuse(self, member, error):
        self.refused[member] = error

    def do_be_busy(self, member, count):
        self.busy[member] = count

    def do_never_answer(self, member):
        self.silent.add(member)

    def do_answer_nonsense(self, member, signature, values):
        self.nonsense[member] = (signature, values)

    def do_behave(self):
        self.refused, self.silent, self.nonsense = {}, set(), {}

    def do_flood(self, count):
        """Signals without end about an adapter."""
        for _ in range(count):
            self.signal("/org/bluez/hci0", PROPERTIES, "PropertiesChanged", "sa{sv}as", ADAPTER, typed({}), [])

    def do_signal_nonsense(self):
        self.signal("/", MANAGER, "InterfacesAdded", "as", ["not", "an", "object"])
        self.signal("/", MANAGER, "InterfacesRemoved", "u", 7)
        self.signal("/org/bluez/hci0", PROPERTIES, "PropertiesChanged", "s", ADAPTER)

    def do_call(self, client, path, interface, member, signature, values):
        """Calls an object of a client's, and tells what it answers."""
        message = dbus.lowlevel.MethodCallMessage(client, path, interface, member)
        if signature:
            message.append(*values, signature=signature)
        try:
            return self.connection.send_message_with_reply_and_block(message, 10).get_args_list()
        except dbus.exceptions.DBusException as error:
            return {"error": error.get_dbus_name()}

    def do_ask(self, number, client, path, interface, member, signature, values):
        """The same without waiting: `answered` tells later."""
        message = dbus.lowlevel.MethodCallMessage(client, path, interface, member)
        message.append(*values, signature=signature)

        def answered(answer):
            self.names[f"answer {number}"] = answer.get_error_name() if answer.get_type() == 3 else "yes"

        self.connection.send_message_with_reply(message, answered, 60)

    def do_answered(self, number):
        return self.names.get(f"answer {number}")

    def told(self, source, _condition):
        line = source.readline()
        if not line:
            self.loop.quit()
            return False
        name, *values = json.loads(line)
        answer = getattr(self, f"do_{name}")(*values)
        print(json.dumps(plain(answer) if answer is not None else None), flush=True)
        return True

    def run(self):
        GLib.io_add_watch(sys.stdin, GLib.IO_IN | GLib.IO_HUP, self.told)
        self.loop.run()


if __name__ == "__main__":
    Daemon().run()
