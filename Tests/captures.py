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


class BluetoothCapture:
    """A btsnoop file of the camera's adapter, or the phone's. Each packet comes a millisecond after the one before."""

    def __init__(self, owner=CAMERA):
        self.owner = owner
        self.records = [b"btsnoop\0" + struct.pack(">II", 1, 1002)]
        self.frames = 0

    def connect(self, psm=PSM, handle=1):
        """The two frames in which the phone opens a channel."""
        signalling = 1
        request = struct.pack("<BBHHH", 2, 1, 4, psm, PHONE_CHANNEL)
        response = struct.pack("<BBHHHHH", 3, 1, 8, CAMERA_CHANNEL, PHONE_CHANNEL, 0, 0)
        self._add(PHONE, handle, signalling, request)
        self._add(CAMERA, handle, signalling, response)

    def send(self, sender, data, handle=1, held=None):
        """One L2CAP packet, of whose data the capture holds `held` bytes; returns the number of its frame."""
        return self._add(sender, handle, CAMERA_CHANNEL if sender == PHONE else PHONE_CHANNEL, data, held)

    def send_rfcomm(self, sender, data, dlci, handle=1):
        address = dlci << 2 | (2 if sender == PHONE else 0) | 1
        length = struct.pack("<H", len(data) << 1) if len(data) > 127 else bytes([len(data) << 1 | 1])
        return self.send(sender, bytes([address, 0xEF]) + length + data + b"\0", handle)

    def _add(self, sender, handle, channel, data, held=None):
        l2cap = struct.pack("<HH", len(data), channel) + data
        packet = b"\2" + struct.pack("<HH", handle | 0x2000, len(l2cap)) + l2cap
        kept = packet if held is None else packet[: len(packet) - len(data) + held]
        received = 1 if sender != self.owner else 0
        time = BTSNOOP_EPOCH + START + 1000 * self.frames
        self.records.append(struct.pack(">IIIIQ", len(packet), len(kept), received, 0, time) + kept)
        self.frames += 1
        return self.frames

    def bytes(self):
        return b"".join(self.records)

    def connect_le(self, psm, handle=1):
        """The two frames in which the phone opens a credit-based channel of Low Energy."""
        le_signalling, mtu, mps, credits = 5, 2000, 200, 20
        request = struct.pack("<BBHHHHHH", 0x14, 1, 10, psm, PHONE_CHANNEL, mtu, mps, credits)
        response = struct.pack("<BBHHHHHH", 0x15, 1, 10, CAMERA_CHANNEL, mtu, mps, credits, 0)
        self._add(PHONE, handle, le_signalling, request)
        self._add(CAMERA, handle, le_signalling, response)

    def send_le(self, sender, data, handle=1):
        """What one packet of the link holds, in as many frames as it takes; returns the number of the last."""
        data = struct.pack("<H", len(data)) + data
        return [self.send(sender, data[start : start + 200], handle) for start in range(0, len(data), 200)][-1]

    def configure_retransmission(self, handle=1):
        """The four frames in which both sides take enhanced retransmission, behind those of `connect`."""
        signalling, option = 1, struct.pack("<BBBBBHHH", 4, 9, 3, 8, 3, 2000, 12000, 1000)
        for sender, other, theirs, own in (
            (PHONE, CAMERA, CAMERA_CHANNEL, PHONE_CHANNEL),
            (CAMERA, PHONE, PHONE_CHANNEL, CAMERA_CHANNEL),
        ):
            self._add(sender, handle, signalling, struct.pack("<BBHHH", 4, 2, 4 + len(option), theirs, 0) + option)
            self._add(other, handle, signalling, struct.pack("<BBHHHH", 5, 2, 6 + len(option), own, 0, 0) + option)

    def send_retransmitted(self, sender, data, sequence, handle=1):
        """An unsegmented I-frame. Nobody compares its checksum."""
        return self.send(sender, struct.pack("<H", sequence << 1) + data + b"\0\0", handle)


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
