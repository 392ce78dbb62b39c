"""What conversations on the air share: kinds of links, the guest's controllers and its daemons.

A conversation is a test of a class that is made from AirTest. Each class is run once over each of its `kinds`, which
then is its `kind`: `self.camera(kind=self.kind)` listens there, and Link and the phone as a program go to its `url`.
"""

import contextlib
import ctypes
import errno
import os
import shutil
import socket
import struct
import subprocess
import time

import desk

# Controllers, by their number. The camera has the first one, phones have the second one. The third one, which is off
# until a conversation wants it, speaks Low Energy alone.
CAMERAS, PHONES, LOW_ENERGY_PHONES = 0, 1, 2
ADDRESSES = ("00:AA:01:00:00:00", "00:AA:01:01:00:01", "00:AA:01:02:00:02")
CAMERA_ADDRESS = ADDRESSES[CAMERAS]

L2CAP_LEVEL, L2CAP_OPTIONS = 6, 1
BASIC_MODE, ENHANCED_RETRANSMISSION = 0, 3
BLUETOOTH_LEVEL, SENDING_SIZE, RECEIVING_SIZE = 274, 12, 13
CLASSIC, LE_PUBLIC = 0, 1
LARGEST_SIZE = 65535
SENDING_BUFFER_BY_FORCE, RECEIVING_BUFFER_BY_FORCE = 32, 33
ATTEMPT = 10  # seconds that connecting may take
USER = 1000  # the guest's user without rights

libc = ctypes.CDLL("libc.so.6", use_errno=True)


def succeed(result):
    if result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


# ---- Controllers -----------------------------------------------------------------------------------------------------

HCI_CHANNEL_CONTROL, NO_CONTROLLER = 3, 0xFFFF
SET_POWERED, SET_CONNECTABLE, SET_LE, SET_ADVERTISING, SET_BREDR = 0x0005, 0x0007, 0x000D, 0x0029, 0x002A
READ_INFORMATION, DISCONNECT, GET_CONNECTIONS = 0x0004, 0x0014, 0x0015
IS_CONNECTABLE, IS_ADVERTISING = 1 << 1, 1 << 10
COMMAND_COMPLETE, COMMAND_STATUS = 0x0001, 0x0002
BUSY = 10  # with the command before


class Management:
    """The kernel's own interface to its controllers."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_RAW, socket.BTPROTO_HCI)
        address = struct.pack("<HHH", socket.AF_BLUETOOTH, NO_CONTROLLER, HCI_CHANNEL_CONTROL)
        succeed(libc.bind(self.socket.fileno(), address, len(address)))
        self.socket.settimeout(ATTEMPT)

    def ask(self, controller, command, parameters=b""):
        """The status that the kernel answers with, where 0 is success, and what it says."""
        self.socket.send(struct.pack("<HHH", command, controller, len(parameters)) + parameters)
        while True:
            packet = self.socket.recv(1024)
            event, index, _ = struct.unpack_from("<HHH", packet)
            if event in (COMMAND_COMPLETE, COMMAND_STATUS) and index == controller:
                answered, status = struct.unpack_from("<HB", packet, 6)
                if answered == command:
                    return status, packet[9:]

    def set(self, controller, command, value=1):
        end = time.monotonic() + ATTEMPT
        while (status := self.ask(controller, command, bytes([value]))[0]) == BUSY and time.monotonic() < end:
            time.sleep(0.02)
        if status:
            raise OSError(f"controller {controller} refuses command {command}: {status}")

    def settings(self, controller):
        return struct.unpack_from("<I", self.ask(controller, READ_INFORMATION)[1], 13)[0]

    def disconnect(self, controller):
        """Ends its links, which otherwise stay for two seconds after the last channel."""
        while connections := self.ask(controller, GET_CONNECTIONS)[1][2:]:
            self.ask(controller, DISCONNECT, connections[:7])
        end = time.monotonic() + ATTEMPT
        while self.ask(CAMERAS, GET_CONNECTIONS)[1][2:] and time.monotonic() < end:
            time.sleep(0.02)

    def close(self):
        self.socket.close()


@contextlib.contextmanager
def management():
    opened = Management()
    try:
        yield opened
    finally:
        opened.close()


def turn_on(controllers=(CAMERAS, PHONES)):
    """Controllers that are on, of which the camera's is found and can be connected to."""
    with management() as kernel:
        for controller in controllers:
            kernel.set(controller, SET_LE)
            kernel.set(controller, SET_POWERED)
        if CAMERAS in controllers and not kernel.settings(CAMERAS) & IS_CONNECTABLE:
            kernel.set(CAMERAS, SET_CONNECTABLE)
        if CAMERAS in controllers and not kernel.settings(CAMERAS) & IS_ADVERTISING:
            kernel.set(CAMERAS, SET_ADVERTISING)


def turn_off(controllers=(CAMERAS, PHONES)):
    with management() as kernel:
        if CAMERAS in controllers:
            kernel.ask(CAMERAS, SET_ADVERTISING, bytes(1))  # else it is stuck in that when it is on again
        for controller in controllers:
            kernel.set(controller, SET_POWERED, 0)


def turn_on_low_energy_phone():
    with management() as kernel:
        kernel.set(LOW_ENERGY_PHONES, SET_POWERED, 0)
        kernel.set(LOW_ENERGY_PHONES, SET_LE)
        kernel.set(LOW_ENERGY_PHONES, SET_BREDR, 0)
        kernel.set(LOW_ENERGY_PHONES, SET_POWERED)


def start_anew():
    """No link of before is left."""
    turn_off((CAMERAS, PHONES, LOW_ENERGY_PHONES))
    turn_on()
    wait_for_answers()


# ---- Kinds of links --------------------------------------------------------------------------------------------------


class RfcommSockets:
    keeps_borders = False

    def listening_url(self, _store):
        return f"rfcomm:{CAMERA_ADDRESS}:auto"

    def socket(self):
        return socket.socket(socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM)

    def connect(self, link, where):
        """A channel that was in use just now is so for a moment longer."""
        address, _, channel = where.rpartition(":")
        end = time.monotonic() + ATTEMPT
        while True:
            try:
                link.connect((address, int(channel)))
                return
            except OSError as error:
                if error.errno not in (errno.EBUSY, errno.ECONNRESET, errno.ECONNABORTED) or time.monotonic() > end:
                    raise
            time.sleep(0.1)
            with self.socket() as fresh:
                fresh.settimeout(link.gettimeout())
                os.dup2(fresh.fileno(), link.fileno())

    def listen(self):
        """A camera's socket of the tests' own, and its URL."""
        server = self.socket()
        server.bind((CAMERA_ADDRESS, 22))
        server.listen(1)
        return server, f"rfcomm:{CAMERA_ADDRESS}:22"


def l2cap_address(where, kind_of_address):
    """Python's own addresses have no kind."""
    address, _, psm = where.rpartition(":")
    backwards = bytes.fromhex(address.replace(":", ""))[::-1]
    return struct.pack("<HH6sHBx", socket.AF_BLUETOOTH, int(psm), backwards, 0, kind_of_address)


class L2capSockets:
    keeps_borders = True
    kind_of_address = CLASSIC
    url = f"l2cap:{CAMERA_ADDRESS}:4097"
    own_url = f"l2cap:{CAMERA_ADDRESS}:4099"

    def listening_url(self, _store):
        return self.url

    def socket(self, where="00:00:00:00:00:00:0"):
        link = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_SEQPACKET, socket.BTPROTO_L2CAP)
        own = l2cap_address(where, self.kind_of_address)
        succeed(libc.bind(link.fileno(), own, len(own)))  # without it the kernel takes any L2CAP for BR/EDR
        self.prepare(link)
        # A packet is only taken whole. In pieces of the controller's size, the longest one has no room otherwise.
        link.setsockopt(socket.SOL_SOCKET, SENDING_BUFFER_BY_FORCE, 1 << 20)
        return link

    def prepare(self, link, mode=ENHANCED_RETRANSMISSION, size=LARGEST_SIZE):
        options = bytearray(link.getsockopt(L2CAP_LEVEL, L2CAP_OPTIONS, 12))
        struct.pack_into("<HH", options, 0, size, size)
        options[6] = mode
        link.setsockopt(L2CAP_LEVEL, L2CAP_OPTIONS, bytes(options))

    def connect(self, link, where):
        theirs = l2cap_address(where, self.kind_of_address)
        link.settimeout(None)  # the time-out of Python would make connecting return at once
        link.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("qq", ATTEMPT, 0))
        succeed(libc.connect(link.fileno(), theirs, len(theirs)))
        link.settimeout(desk.PATIENCE)

    def listen(self):
        server = self.socket(self.own_url.partition(":")[2])
        server.listen(1)
        return server, self.own_url

    def largest_packet(self, link):
        return struct.unpack_from("<H", link.getsockopt(L2CAP_LEVEL, L2CAP_OPTIONS, 12))[0]


class LowEnergySockets(L2capSockets):
    kind_of_address = LE_PUBLIC
    url = f"le:{CAMERA_ADDRESS}:auto"
    own_url = f"le:{CAMERA_ADDRESS}:208"

    def prepare(self, link, size=LARGEST_SIZE):
        link.setsockopt(BLUETOOTH_LEVEL, RECEIVING_SIZE, struct.pack("<H", size))
        # The kernel hands packets over in disorder when it has no room for them.
        link.setsockopt(socket.SOL_SOCKET, RECEIVING_BUFFER_BY_FORCE, 4 << 20)

    def largest_packet(self, link):
        return struct.unpack("<H", link.getsockopt(BLUETOOTH_LEVEL, SENDING_SIZE, 2))[0]


LINKS = {"rfcomm": RfcommSockets(), "l2cap": L2capSockets(), "le": LowEnergySockets()}
desk.KINDS_OF_LINKS.update(LINKS)


def wait_for_answers():
    """Until the camera's controller says that nobody listens: it takes a moment to be there when it is turned on."""
    end = time.monotonic() + ATTEMPT
    while True:
        with LINKS["l2cap"].socket() as link:
            try:
                LINKS["l2cap"].connect(link, f"{CAMERA_ADDRESS}:4151")
            except ConnectionRefusedError:
                return
            except OSError:
                if time.monotonic() > end:
                    raise
        time.sleep(0.2)


class FakeCamera(desk.FakeCamera):
    """A camera of the tests' own, on the air. `kind` stands in the place of the folder."""

    def listen(self, kind):
        return LINKS[kind].listen()


# ---- Daemons ---------------------------------------------------------------------------------------------------------

BUS = "/run/dbus/system_bus_socket"


def wait_until(holds, seconds=10.0, what="it"):
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come about in {seconds:.0f} s")
        time.sleep(0.02)


def call_bus(*arguments):
    """What dbus-send prints, or nothing where the call failed."""
    done = subprocess.run(["dbus-send", "--system", "--print-reply", *arguments], capture_output=True, text=True)
    return done.stdout if done.returncode == 0 else ""


class Bus:
    """The guest's system bus, for as long as a test wants it."""

    def __init__(self):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(BUS)
        self.process = subprocess.Popen(["dbus-daemon", "--config-file=/etc/bus.conf", "--nofork", "--nopidfile"])
        wait_until(lambda: os.path.exists(BUS), what="the system bus")

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


class BluetoothDaemon:
    """bluetoothd on the system bus. It finds the controllers as they are, and forgets nothing between two runs."""

    def __init__(self):
        self.talk = open("/tmp/bluetoothd.log", "ab")
        self.process = subprocess.Popen(["bluetoothd", "-n", "-d"], stdout=self.talk, stderr=self.talk)
        wait_until(lambda: all(f"hci{number}" in self._objects() for number in (CAMERAS, PHONES)), what="bluetoothd")

    def _objects(self):
        return call_bus("--dest=org.bluez", "/", "org.freedesktop.DBus.ObjectManager.GetManagedObjects")

    def stop(self):
        """It turns its controllers off as it ends."""
        self.process.terminate()
        self.process.wait(10)
        self.talk.close()

    def kill(self):
        self.process.kill()
        self.process.wait(10)
        self.talk.close()


def measured(text):
    """What the page about the links tells as a ratio."""
    print(f"air: measured: {text}", flush=True)


# ---- Conversations ---------------------------------------------------------------------------------------------------


class AirTest(desk.DeskTest):
    """`disturbs`: it leaves the controllers in disorder, and comes after those that do not. `needs_daemon`: the system
    bus and bluetoothd run meanwhile, as `bus` and `daemon`."""

    kinds = tuple(LINKS)
    kind = ""
    disturbs = False
    needs_daemon = False

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if cls.disturbs or cls.needs_daemon:
            cls.addClassCleanup(start_anew)
        # The emulated controllers have one link at a time: one of Low Energy fails beside one of the other two.
        with management() as kernel:
            kernel.disconnect(PHONES)
        time.sleep(0.3)  # no event tells that they have settled
        if cls.needs_daemon:
            shutil.rmtree("/var/lib/bluetooth", ignore_errors=True)
            os.makedirs("/var/lib/bluetooth")
            cls.bus = Bus()
            cls.addClassCleanup(cls.bus.stop)
            cls.daemon = BluetoothDaemon()
            cls.addClassCleanup(lambda: cls.daemon.stop())  # the one that runs by then

    def camera(self, *options, kind=None, **more):
        return super().camera(*options, kind=kind or self.kind, **more)

    def link(self, camera):
        """A phone's link to a camera that serves nobody else."""
        link = desk.Link(camera.url)
        self.addCleanup(link.close)
        return link
