"""Captures of what phones and cameras say, written byte by byte, and how tshark shows them with our dissector."""

import os
import pathlib
import shutil
import struct
import subprocess
import tempfile
import xml.etree.ElementTree

DISSECTOR = pathlib.Path(__file__).resolve().parent.parent / "Protocol" / "shotmentor.lua"
PHONE, CAMERA = "phone", "camera"
PSM = 4097
RFCOMM_PSM = 3
PHONE_CHANNEL, CAMERA_CHANNEL = 0x40, 0x51
TCP_PORT = 4660
START = 1_700_000_000_000_000  # microseconds since 1970
READ_TWICE = ["-2", "-R", "frame"]  # with a tree from the first time on, as Wireshark loads a capture
BTSNOOP_EPOCH = 0x00DCDDB30F2F8000  # 1970 in microseconds since the year 0


# How packets stand in a btsnoop file: the record's flags tell their kind, a byte before them does, or, as the Linux
# monitor has it, the flags tell their kind in numbers of its own.
H1, H4, MONITOR = 1001, 1002, 2001
SIGNALLING, LE_SIGNALLING = 1, 5
ENHANCED, STREAMING = 3, 4  # modes of a channel whose packets are numbered
WHOLE, START_OF, END_OF, MIDDLE_OF = range(4)  # what a numbered packet holds
LE_PSM = 0x81


def other_side(sender):
    return CAMERA if sender == PHONE else PHONE


def checksum(data):
    """Of a numbered packet: CRC-16 with the polynomial x^16 + x^15 + x^2 + 1, the lowest bit first."""
    value = 0
    for byte in data:
        value ^= byte
        for _ in range(8):
            value = value >> 1 ^ (0xA001 if value & 1 else 0)
    return struct.pack("<H", value)


class BluetoothCapture:
    """A btsnoop file of the camera's adapter, or the phone's. Each packet comes a millisecond after the one before it,
    in pieces of `longest_piece` bytes where that is given."""

    def __init__(self, datalink=H4, longest_piece=None, owner=CAMERA):
        self.owner = owner
        self.datalink = datalink
        self.longest_piece = longest_piece
        self.records = [b"btsnoop\0" + struct.pack(">II", 1, datalink)]
        self.frames = 0
        self.dropped = 0

    def connect(self, psm=PSM, handle=1):
        """The two frames in which the phone opens a channel."""
        request = struct.pack("<BBHHH", 2, 1, 4, psm, PHONE_CHANNEL)
        response = struct.pack("<BBHHHHH", 3, 1, 8, CAMERA_CHANNEL, PHONE_CHANNEL, 0, 0)
        self._add(PHONE, handle, SIGNALLING, request)
        self._add(CAMERA, handle, SIGNALLING, response)

    def refuse(self, psm, handle=1):
        """The same where the camera does not take the channel: there is no such PSM."""
        self._add(PHONE, handle, SIGNALLING, struct.pack("<BBHHH", 2, 1, 4, psm, PHONE_CHANNEL))
        self._add(CAMERA, handle, SIGNALLING, struct.pack("<BBHHHHH", 3, 1, 8, 0, PHONE_CHANNEL, 2, 0))

    def disconnect_channel(self, handle=1):
        ends = struct.pack("<HH", CAMERA_CHANNEL, PHONE_CHANNEL)
        self._add(PHONE, handle, SIGNALLING, struct.pack("<BBH", 6, 9, 4) + ends)
        self._add(CAMERA, handle, SIGNALLING, struct.pack("<BBH", 7, 9, 4) + ends)

    def disconnect(self, handle=1):
        """The connection ends, with all channels on it."""
        return self._add_packet(4, CAMERA, bytes([0x05, 4, 0]) + struct.pack("<HB", handle, 0x13), received=True)

    def configure(self, mode, checksums=True, handle=1):
        """Both sides ask for a mode of the channel, and agree."""
        for sender in (PHONE, CAMERA):
            channel = CAMERA_CHANNEL if sender == PHONE else PHONE_CHANNEL
            options = struct.pack("<BBBBBHHH", 4, 9, mode, 63, 3, 2000, 12000, 1000)
            options += b"" if checksums else bytes([5, 1, 0])
            request = struct.pack("<HH", channel, 0) + options
            self._add(sender, handle, SIGNALLING, struct.pack("<BBH", 4, 5, len(request)) + request)
            own = PHONE_CHANNEL if sender == PHONE else CAMERA_CHANNEL
            response = struct.pack("<HHH", own, 0, 0) + options
            self._add(other_side(sender), handle, SIGNALLING, struct.pack("<BBH", 5, 5, len(response)) + response)

    def send(self, sender, data, handle=1, held=None):
        """One L2CAP packet, of whose data the capture holds `held` bytes; returns the number of its frame."""
        return self._add(sender, handle, CAMERA_CHANNEL if sender == PHONE else PHONE_CHANNEL, data, held)

    def send_numbered(self, sender, data, number, holds=WHOLE, total=None, checksums=True, handle=1):
        """One packet in a channel whose packets are numbered. The first one of several tells their `total` bytes."""
        channel = CAMERA_CHANNEL if sender == PHONE else PHONE_CHANNEL
        length = struct.pack("<H", total) if holds == START_OF else b""
        packet = struct.pack("<H", number << 1 | holds << 14) + length + data
        head = struct.pack("<HH", len(packet) + (2 if checksums else 0), channel)
        return self._add(sender, handle, channel, packet + (checksum(head + packet) if checksums else b""))

    def acknowledge(self, sender, number, handle=1):
        """The packets below a number have come."""
        channel = CAMERA_CHANNEL if sender == PHONE else PHONE_CHANNEL
        packet = struct.pack("<H", 1 | number << 8)
        return self._add(
            sender, handle, channel, packet + checksum(struct.pack("<HH", len(packet) + 2, channel) + packet)
        )

    def connect_credited(self, psm=LE_PSM, handle=1):
        """The phone opens a channel of Low Energy."""
        request = struct.pack("<BBHHHHHH", 0x14, 3, 10, psm, PHONE_CHANNEL, 600, 64, 100)
        response = struct.pack("<BBHHHHHH", 0x15, 3, 10, CAMERA_CHANNEL, 600, 64, 100, 0)
        self._add(PHONE, handle, LE_SIGNALLING, request)
        self._add(CAMERA, handle, LE_SIGNALLING, response)

    def connect_credited_together(self, psm=LE_PSM, handle=1):
        """The phone asks for two channels at once, of which the camera refuses the first."""
        request = struct.pack("<BBHHHHHHH", 0x17, 3, 12, psm, 600, 64, 100, 0x48, PHONE_CHANNEL)
        response = struct.pack("<BBHHHHHHH", 0x18, 3, 12, 600, 64, 100, 4, 0, CAMERA_CHANNEL)
        self._add(PHONE, handle, LE_SIGNALLING, request)
        self._add(CAMERA, handle, LE_SIGNALLING, response)

    def send_credited(self, sender, data, longest=64, handle=1):
        """What one side hands to a channel of Low Energy, in packets of `longest` bytes, of which the first has its
        length; returns the number of the last frame."""
        data = struct.pack("<H", len(data)) + data
        return [self.send(sender, data[at : at + longest], handle) for at in range(0, len(data), longest)][-1]

    def open_rfcomm(self, dlci, handle=1):
        self.send(PHONE, bytes([dlci << 2 | 3, 0x3F, 1, 0]), handle)
        self.send(CAMERA, bytes([dlci << 2 | 3, 0x73, 1, 0]), handle)

    def send_rfcomm(self, sender, data, dlci, handle=1, credits=None):
        address = dlci << 2 | (2 if sender == PHONE else 0) | 1
        length = struct.pack("<H", len(data) << 1) if len(data) > 127 else bytes([len(data) << 1 | 1])
        control = b"\xef" if credits is None else b"\xff"
        more = b"" if credits is None else bytes([credits])
        return self.send(sender, bytes([address]) + control + length + more + data + b"\0", handle)

    def drop(self, count):
        """So many packets come that the capture misses."""
        self.dropped += count

    def _add(self, sender, handle, channel, data, held=None):
        l2cap = struct.pack("<HH", len(data), channel) + data
        longest = self.longest_piece or len(l2cap)
        for begin in range(0, len(l2cap), longest):
            piece = l2cap[begin : begin + longest]
            flags = 0x1000 if begin else 0x2000
            packet = struct.pack("<HH", handle | flags, len(piece)) + piece
            left = None if held is None else len(packet) - len(data) + held
            self._add_packet(2, sender, packet, left)
        return self.frames

    def _add_packet(self, kind, sender, packet, held=None, received=None):
        received = sender != self.owner if received is None else received
        if self.datalink == H4:
            packet, held = bytes([kind]) + packet, None if held is None else held + 1
        flags = int(received) | (2 if kind == 4 and self.datalink != MONITOR else 0)
        if self.datalink == MONITOR:
            flags = 3 if kind == 4 else 5 if received else 4
        kept = packet if held is None else packet[:held]
        time = BTSNOOP_EPOCH + START + 1000 * self.frames
        self.records.append(struct.pack(">IIIIQ", len(packet), len(kept), flags, self.dropped, time) + kept)
        self.frames += 1
        return self.frames

    def bytes(self):
        return b"".join(self.records)


class TcpCapture:
    """A pcap file of IP packets. Each segment comes a millisecond after the one before it."""

    RAW_IP = 101

    def __init__(self):
        self.records = [struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, self.RAW_IP)]
        self.frames = 0
        self.sent = {}

    def send(self, sender, data, port=TCP_PORT, phone_port=50000, held=None):
        """One segment, of whose data the capture holds `held` bytes; returns the number of its frame."""
        ports = (phone_port, port) if sender == PHONE else (port, phone_port)
        sequence = self.sent.get(ports, 1000)
        self.sent[ports] = sequence + len(data)
        acknowledged = self.sent.get(ports[::-1], 1000)
        tcp = struct.pack(">HHIIBBHHH", *ports, sequence, acknowledged, 0x50, 0x18, 65535, 0, 0) + data
        addresses = [bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2])]
        source, target = addresses if sender == PHONE else addresses[::-1]
        packet = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(tcp), 0, 0, 64, 6, 0) + source + target + tcp
        kept = packet if held is None else packet[: 40 + held]
        return self._add(kept, len(packet))

    def send_again(self):
        """The last segment once more."""
        packet = self.records[-1][16:]
        return self._add(packet, len(packet))

    def _add(self, kept, size):
        seconds, micros = divmod(START + 1000 * self.frames, 1_000_000)
        self.records.append(struct.pack("<IIII", seconds, micros, len(kept), size) + kept)
        self.frames += 1
        return self.frames

    def bytes(self):
        return b"".join(self.records)


class Shown:
    """What tshark says about a capture."""

    def __init__(self, run):
        self.exit_code = run.returncode
        self.errors = run.stderr.decode("utf-8", "replace")
        self.text = run.stdout.decode("utf-8", "replace")
        self.frames = xml.etree.ElementTree.fromstring(run.stdout or b"<pdml/>").findall("packet")

    def numbers(self):
        """The numbers of the frames that are shown, as texts."""
        return [packet.find("proto/field[@name='num']").get("show") for packet in self.frames]

    def protocols(self, frame):
        return [proto for proto in self.frames[frame - 1] if proto.get("name") == "shotmentor"]

    def trees(self, frame):
        """Each message of a frame as the lines that a person sees, indented by their depth."""
        return [[proto.get("showname"), *_lines(proto, "  ")] for proto in self.protocols(frame)]

    def values(self, frame, name):
        """All values of a field in a frame, as filters see them."""
        return [field.get("show") for field in self.fields(frame, name)]

    def labels(self, frame, name):
        return [label_of(field) for field in self.fields(frame, name)]

    def fields(self, frame, name):
        return [
            field
            for proto in self.protocols(frame)
            for field in proto.iter("field")
            if field.get("name") == "shotmentor." + name
        ]

    def remarks(self, frame):
        """What the dissector finds wrong in a frame: the names of the remarks, without "shotmentor."."""
        return [
            field.get("name").removeprefix("shotmentor.")
            for proto in self.protocols(frame)
            for remark in proto.iter("field")
            if remark.get("name") == "_ws.expert"
            for field in remark
            if field.get("name").startswith("shotmentor.")
        ]


def label_of(field):
    return field.get("showname") or field.get("show")


def _lines(node, indent):
    lines = []
    for field in node:
        if field.get("name") != "_ws.expert":
            lines.append(indent + label_of(field))
            lines += _lines(field, indent + "  ")
        else:
            lines.append(indent + "! " + expert_text(field))
    return lines


def expert_text(field):
    return next(inner.get("show") for inner in field if inner.get("name") == "_ws.expert.message")


def is_there():
    return shutil.which("tshark") is not None


def show(capture, *options, read=READ_TWICE):
    """The capture as tshark shows it."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "capture")
        with open(path, "wb") as file:
            file.write(capture.bytes())
        command = ["tshark", "-r", path, "-X", f"lua_script:{DISSECTOR}", *read, "-n", "-T", "pdml", *options]
        environment = {**os.environ, "HOME": folder, "XDG_CONFIG_HOME": folder, "LC_ALL": "C.UTF-8"}
        return Shown(subprocess.run(command, capture_output=True, timeout=100, env=environment, check=False))
