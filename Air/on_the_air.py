"""What runs in the guest: the camera on one controller, phones on the other, over each kind of link."""

import ctypes
import os
import socket
import struct
import subprocess
import sys
import time
import traceback

from desk import LIST, PICTURE, REPLY, Camera, Link, list_reply, phone_record, picture, picture_request, request
from desk import records_in, store_request, store_result

CAMERA_ADDRESS = "00:AA:01:00:00:00"
LINKS = {"rfcomm": "rfcomm:auto", "l2cap": "l2cap:4097", "le": "le:auto"}
L2CAP_LEVEL, L2CAP_OPTIONS, ENHANCED_RETRANSMISSION = 6, 1, 3
LE_PUBLIC = 1
HCI_CHANNEL_CONTROL, NO_CONTROLLER = 3, 0xFFFF
SET_POWERED, SET_CONNECTABLE, SET_LE, SET_ADVERTISING = 0x0005, 0x0007, 0x000D, 0x0029

libc = ctypes.CDLL("libc.so.6", use_errno=True)


def check(result):
    if result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class Management:
    """The kernel's own interface to its controllers."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_RAW, socket.BTPROTO_HCI)
        address = struct.pack("<HHH", socket.AF_BLUETOOTH, NO_CONTROLLER, HCI_CHANNEL_CONTROL)
        check(libc.bind(self.socket.fileno(), address, len(address)))

    def set(self, controller, command, value=1):
        self.socket.send(struct.pack("<HHHB", command, controller, 1, value))
        while True:
            event, index, _, answered, status = struct.unpack_from("<HHHHB", self.socket.recv(1024))
            if event in (1, 2) and (index, answered) == (controller, command):
                if status:
                    raise OSError(f"controller {controller} refuses command {command}: {status}")
                return


def connected(kind, port):
    """A phone's socket; its own adapter is the one that is not the camera's."""
    if kind == "rfcomm":
        link = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM)
        link.connect((CAMERA_ADDRESS, port))
        return link
    link = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_SEQPACKET, socket.BTPROTO_L2CAP)
    if kind == "l2cap":
        options = bytearray(link.getsockopt(L2CAP_LEVEL, L2CAP_OPTIONS, 12))
        struct.pack_into("<HH", options, 0, 65535, 65535)
        options[6] = ENHANCED_RETRANSMISSION
        link.setsockopt(L2CAP_LEVEL, L2CAP_OPTIONS, bytes(options))
    kind_of_address = LE_PUBLIC if kind == "le" else 0
    own = struct.pack("<HH6sHBx", socket.AF_BLUETOOTH, 0, bytes(6), 0, kind_of_address)
    check(libc.bind(link.fileno(), own, len(own)))  # without it the kernel takes any L2CAP for BR/EDR
    address = bytes.fromhex(CAMERA_ADDRESS.replace(":", ""))[::-1]
    theirs = struct.pack("<HH6sHBx", socket.AF_BLUETOOTH, port, address, 0, kind_of_address)
    check(libc.connect(link.fileno(), theirs, len(theirs)))
    return link


class AirLink(Link):
    def __init__(self, url):
        kind, _, port = url.partition(":")
        self.keeps_borders = kind != "rfcomm"
        self.socket = connected(kind, int(port))
        self.socket.settimeout(10)
        self.waiting, self.packet_sizes = b"", []

    def send(self, data, pieces=None):
        if self.keeps_borders and not pieces:
            pieces = range(600, len(data), 600)
        super().send(data, pieces)


# ---- Conversations ---------------------------------------------------------------------------------------------------


def a_list(url):
    with AirLink(url) as link:
        assert link.ask(request(LIST)) == list_reply([])


def a_preset_there_and_back(url):
    image = picture(1, 30000)
    with AirLink(url) as link:
        result, _, custom_id, _ = store_result(link.ask(store_request(phone_record(b"On the air"), image)))
        assert result == 1
        answer = link.ask(picture_request(custom_id))
        assert answer == request(REPLY + PICTURE, struct.pack("<i", custom_id) + image)


def the_longest_request(url):
    image = picture(2, 599248)
    start = time.monotonic()
    with AirLink(url) as link:
        link.socket.settimeout(60)
        link.send(store_request(phone_record(b"Long"), image))
        assert store_result(link.receive(60))[0] == 1
    print(f"  599,248 bytes in {time.monotonic() - start:.1f} s", flush=True)


def a_phone_that_hangs_up_at_once(url):
    """What it has sent counts."""
    with AirLink(url) as link:
        before = len(records_in(link.ask(request(LIST))))
    with AirLink(url) as link:
        link.send(store_request(phone_record(b"Last words"), picture(3)))
    time.sleep(0.5)
    with AirLink(url) as link:
        assert len(records_in(link.ask(request(LIST)))) == before + 1


def the_phone_of_the_desk(url):
    kind, _, port = url.partition(":")
    done = subprocess.run(
        [os.environ["SHOTMENTOR_PHONE"], "--connect", f"{kind}:{CAMERA_ADDRESS}:{port}", "list"],
        capture_output=True, text=True, timeout=30,
    )  # fmt: skip
    assert done.returncode == 0, done.stderr
    assert "On the air" in done.stdout, done.stdout


CONVERSATIONS = [
    a_list,
    a_preset_there_and_back,
    a_phone_that_hangs_up_at_once,
    the_phone_of_the_desk,
    the_longest_request,
]


def run(kind):
    failed = 0
    with Camera(f"/tmp/store-{kind}", "--empty", "--quiet", url=LINKS[kind]) as camera:
        for conversation in CONVERSATIONS:
            start = time.monotonic()
            try:
                conversation(camera.url)
                outcome = "ok"
            except Exception:
                traceback.print_exc(file=sys.stdout)
                outcome, failed = "FAILED", failed + 1
            took = time.monotonic() - start
            print(f"air: {kind}: {conversation.__name__.replace('_', ' ')}: {outcome}, {took:.2f} s", flush=True)
        if failed:
            print(camera.talk())
    return failed


def main():
    management = Management()
    for controller in (0, 1):
        management.set(controller, SET_LE)
        management.set(controller, SET_POWERED)
    management.set(0, SET_CONNECTABLE)
    management.set(0, SET_ADVERTISING)
    print(f"air: two controllers after {open('/proc/uptime').read().split()[0]} s", flush=True)
    return 1 if sum(run(kind) for kind in os.environ.get("KINDS", "rfcomm l2cap le").split()) else 0


if __name__ == "__main__":
    sys.exit(main())
