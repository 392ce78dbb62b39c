"""The tests' own side of the desk: cameras on fresh stores, the protocol by hand, the phone as a program.

Nothing here uses the programs' code. Requests are packed and replies are taken apart with `struct`, and a
camera's records are converted to the phone's with tables of this file, so that a test compares two answers.
"""

import atexit
import contextlib
import ctypes
import dataclasses
import fcntl
import json
import os
import pty
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import threading
import time
import types
import unittest

CAMERA = os.environ.get("SHOTMENTOR_CAMERA", "")
PHONE = os.environ.get("SHOTMENTOR_PHONE", "")
PATIENCE = 5.0  # seconds that an answer or an end may take
FIRST_START = 30.0  # seconds that a camera may draw its samples
SILENCE = 0.4  # seconds without an answer that count as none

STATE_OFF, LIST, PICTURE, STORE, UPDATE, DELETE, STATE_ON = 0, 1, 2, 3, 4, 5, 255
REPLY = 0x1000
BUSY_FRAME = struct.pack("<iii", 0x10FF, 12, 1)
LONGEST_REQUEST = 600000
LARGEST_PACKET = 130000  # what a Unix socket takes as one packet, with room to spare
PRESET_LIMIT = 40


# ---- The record --------------------------------------------------------------------------------------------

TITLE_SIZE = PATH_SIZE = 52
CAMERA_RECORD, PHONE_RECORD = 740, 744

_STYLE = "color_style cs_color_off_color cs_color:c13 cs_saturation:14 cs_sharpness:14 cs_contrast:14 cs_hue:14"
_FIELDS = (
    "title:t52 mode av_index tv_index iso iso_1_3 ev_step metering drive hdr type k_value cwb_red cwb_green "
    "cwb_blue auto_xy auto_tungsten_xy daylight_xy cloudy_xy flu_w_xy flu_n_xy flu_d_xy tungsten_xy flash_xy "
    "cwb_xy k_xy " + _STYLE + " smart_filter flash flash_ev af_mode af_area photosize touch_af "
    "selection_af_pos_x selection_af_pos_y selection_af_width selection_af_height selection_af_box_size "
    "multi_af_pos_x multi_af_pos_y multi_af_width multi_af_height multi_af_box_size timer_time timer_count "
    "timer_interval counti_h_frame counti_n_frame burst_frame drive_set_conti reserved_636:6 quality bulb "
    "preset_num custom_id applocal_id server_id made_id screennail_path:t52 linked_custom_mode"
)
STYLE_NAMES = [field.partition(":")[0] for field in _STYLE.split()]
OPTIONAL_NAMES = [
    "linked_custom_mode", "screennail_path", "reserved_636", "preset_num", "custom_id", "applocal_id",
    "server_id",
]  # fmt: skip


def _layout():
    fields, offset = {}, 0
    for field in _FIELDS.split():
        name, _, form = field.partition(":")
        kind = {"t": "text", "c": "colors", "": "word"}.get(form[:1], "words")
        count = int(form.lstrip("tc") or 1)
        fields[name] = (kind, offset, count)
        offset += {"text": 1, "colors": 12, "word": 4, "words": 4}[kind] * count
    assert offset == PHONE_RECORD and fields["screennail_path"][1] == 688 and fields["smart_filter"][1] == 540
    return fields


FIELDS = _layout()


def get(record, name):
    """A word, a list of words, a list of colour triples, or a text's bytes."""
    kind, offset, count = FIELDS[name]
    if kind == "text":
        return record[offset : offset + count]
    words = list(struct.unpack_from(f"<{count * (3 if kind == 'colors' else 1)}i", record, offset))
    if kind == "colors":
        return [words[i : i + 3] for i in range(0, len(words), 3)]
    return words if kind == "words" else words[0]


def changed(record, **values):
    """The record with some fields changed. A text is given as bytes and filled with NULs."""
    record = bytearray(record)
    for name, value in values.items():
        kind, offset, count = FIELDS[name]
        if kind == "text":
            record[offset : offset + count] = value.ljust(count, b"\0")
            assert len(value) <= count
            continue
        if kind == "colors":
            value = [word for triple in value for word in triple]
        words = value if isinstance(value, list) else [value]
        struct.pack_into(f"<{len(words)}i", record, offset, *words)
    return bytes(record)


def phone_record(title=b"Morning", **values):
    """A preset that was made on a KT camera, so that its colour style survives the way to the camera."""
    return changed(bytes(PHONE_RECORD), title=title, made_id=0x40, mode=1, ev_step=50, **values)


def rich_record(title=b"Everything"):
    """A preset that holds a number of its own in every field that passes both conversions unchanged."""
    values = {}
    for number, (name, (kind, _, count)) in enumerate(FIELDS.items()):
        if kind == "word" and name not in CONVERTED and name not in CAMERAS_OWN:
            values[name] = 1000 + number
        elif kind == "words":
            values[name] = [100 * number + i for i in range(count)]
    colors = [[style, 10 * style, 255 - style] for style in range(13)]
    values.update(color_style=3, made_id=0x40, cs_color=colors, server_id=-5, applocal_id=77)
    values.update(mode=4, av_index=28, tv_index=58, iso=400, iso_1_3=9, ev_step=50)
    return changed(bytes(PHONE_RECORD), title=title, **values)


CONVERTED = ["mode", "av_index", "tv_index", "iso", "iso_1_3", "ev_step", "cs_color"]
CAMERAS_OWN = ["preset_num", "custom_id", "screennail_path", "linked_custom_mode"]


def _text_json(data):
    text, _, rest = data.partition(b"\0")
    if not rest.strip(b"\0"):
        with contextlib.suppress(UnicodeDecodeError):
            return text.decode("utf-8")
    return {"bytes": data.hex()}


def record_to_json(record):
    """The JSON that the contract promises for a record, as a dictionary."""
    entries = {"form": "raw"} if len(record) == PHONE_RECORD else {}
    style = {}
    for name, (kind, offset, _) in FIELDS.items():
        if offset >= len(record):
            break
        value = get(record, name)
        target = style if name in STYLE_NAMES else entries
        if name == STYLE_NAMES[0]:
            entries["cs_info"] = style
        target[name] = _text_json(value) if kind == "text" else value
    return entries


def entries_of(text):
    """A preset file's entries, without the one that says where this machine has the schema."""
    entries = json.loads(text)
    entries.pop("$schema")
    return entries


def record_from_json(entries, size):
    record = bytes(size)
    for name, value in {**entries, **entries["cs_info"]}.items():
        if name in ("form", "cs_info"):
            continue
        if FIELDS[name][0] == "text":
            value = bytes.fromhex(value["bytes"]) if isinstance(value, dict) else value.encode()
        record = changed(record, **{name: value})
    return record


# ---- The conversions ---------------------------------------------------------------------------------------

_LACKING = 65535


def _runs(text):
    """Numbers; xN stands for N positions that the camera has no code for."""
    table = []
    for item in text.split():
        table += [_LACKING] * int(item[1:]) if item[0] == "x" else [int(item)]
    return table


PHONE_AV = [0, *range(10, 111), *map(int, (
    "120 124 130 139 140 150 153 160 164 170 178 180 200 220 250 290 320 360 400 450 500 570 640 720 800 900"
).split())]  # fmt: skip
CAMERA_AV = _runs(
    "0 0 5 11 x1 16 x1 21 x1 27 x1 32 x1 37 x2 43 x2 48 x3 53 x2 59 x4 64 x4 69 x4 75 x5 80 x6 85 x7 "
    "91 x8 96 x9 101 x9 107 x9 112 x2 117 x1 123 x2 128 x3 133 139 144 149 155 160 165 171 176 x6"
)
CAMERA_TV = _runs(
    "x1 65440 65456 x4 65461 x4 65467 x4 65472 x1 65477 x2 65483 x1 65488 x1 65493 65499 65504 x9 65509 "
    "x4 65515 x4 65520 x3 65525 x2 65531 x2 0 x1 5 x1 11 16 21 27 x3 32 37 43 48 53 59 64 69 75 80 85 91 96 101 "
    "107 112 117 x1 123 128 133 139 144 149 155 160 165 171 176 181 187 192 197 203 x5 208 213"
)
PHONE_SV = [int(iso) for iso in (
    "0 50 80 100 125 160 200 250 320 400 500 640 800 1000 1250 1600 2000 2500 3200 4000 5000 6400 8000 10000 "
    "12800 16000 20000 25600 32000 40000 51200"
).split()]  # fmt: skip
CAMERA_SV = [p // 3 if p % 3 == 0 else -1 for p in range(31)]
CAMERA_SV_THIRD = [0, -1, -1, *range(1, 29)]
PHONE_EV = [50 + 10 * (k - 15) // 3 if k >= 15 else 50 - 10 * (15 - k) // 3 for k in range(31)]
assert len(PHONE_AV) == len(CAMERA_AV) == 128 and len(CAMERA_TV) == 110


def _matching(table, code, values):
    return values[table.index(code)] if code in table else 0


def _color_to_phone(value):
    return 0 if value <= 0 else 255 if value >= 199 else value * 256 // 199


def _color_to_camera(value):
    return min(max(200 * value >> 8, 0), 200)


def to_phone(camera, linked=0, iso_step="full"):
    """What the phone sees of a camera's record."""
    mode = {0: 0, 1: 1, 2: 2, 3: 3, 4: 4, 5: 4}.get(get(camera, "mode"), 1)
    full = _matching(CAMERA_SV, get(camera, "iso"), PHONE_SV)
    third = _matching(CAMERA_SV_THIRD, get(camera, "iso_1_3"), PHONE_SV)
    aperture = _matching(CAMERA_AV, get(camera, "av_index"), PHONE_AV) if mode in (2, 4) else 0
    shutter = _matching(CAMERA_TV, get(camera, "tv_index"), range(110)) if mode in (3, 4) else 0
    return changed(
        camera + bytes(4),
        mode=mode,
        av_index=aperture,
        tv_index=shutter,
        iso=third if iso_step == "third" else full,
        iso_1_3=third,
        ev_step=15 if mode == 4 else PHONE_EV[get(camera, "ev_step")],
        cs_color=[[_color_to_phone(c) for c in triple] for triple in get(camera, "cs_color")],
        linked_custom_mode=linked,
    )


def to_camera(phone):
    """What the camera stores of a preset made on a KT camera, all of whose exposure values the camera has. It
    holds unless the camera's last list ended with a preset in shutter mode."""
    mode = get(phone, "mode")
    aperture = CAMERA_AV[PHONE_AV.index(get(phone, "av_index"))] if mode != 1 else 0
    shutter = CAMERA_TV[get(phone, "tv_index")] if mode not in (1, 2) else 0
    iso = CAMERA_SV[PHONE_SV.index(get(phone, "iso"))]
    third = CAMERA_SV_THIRD[get(phone, "iso_1_3")]
    compensation = PHONE_EV.index(get(phone, "ev_step"))
    assert get(phone, "made_id") == 0x40 and _LACKING not in (aperture, shutter) and -1 not in (iso, third)
    return changed(
        phone[:CAMERA_RECORD],
        av_index=aperture,
        tv_index=shutter,
        iso=iso,
        iso_1_3=third,
        ev_step=compensation,
        cs_color=[[_color_to_camera(c) for c in triple] for triple in get(phone, "cs_color")],
    )


# ---- Pictures ----------------------------------------------------------------------------------------------


def picture(number, size=400):
    """A real JPEG of exactly `size` bytes: 8 by 8 grey pixels, and a comment that no other has."""
    head = b"\xff\xd8\xff\xdb\0\x43\0" + b"\x01" * 64
    frame = b"\xff\xc0\0\x0b\x08\0\x08\0\x08\x01\x01\x11\0"
    huffman = b"".join(b"\xff\xc4\0\x14" + table + b"\x01" + bytes(15) + b"\0" for table in (b"\0", b"\x10"))
    scan = b"\xff\xda\0\x08\x01\x01\0\0\x3f\0\x3f\xff\xd9"
    parts = [struct.pack(">q", number)]
    missing = size - len(head) - len(frame) - len(huffman) - len(scan)
    comments = b""
    while missing > 0:
        length = min(missing, 60000)
        if 0 < missing - length < 20:
            length -= 20
        body = (parts.pop() if parts else b"").ljust(length - 4, b"c")
        comments += b"\xff\xfe" + struct.pack(">H", len(body) + 2) + body
        missing -= length
    result = head + comments + frame + huffman + scan
    assert len(result) == size, f"a picture cannot have {size} bytes"
    return result


def what_a_phone_gets(stored):
    """A stored picture up to its third JPEG stream."""
    position = -1
    for _ in range(3):
        position = stored.find(b"\xff\xd8\xff\xdb", position + 1)
        if position < 0:
            return stored
    return stored[:position]


# ---- The protocol ------------------------------------------------------------------------------------------


def request(function, payload=b""):
    return struct.pack("<ii", function, 8 + len(payload)) + payload


def store_request(record, image):
    return request(STORE, record + image)


def delete_request(*pairs):
    return request(DELETE, b"".join(struct.pack("<ii", number, custom_id) for number, custom_id in pairs))


def picture_request(custom_id, applocal_id=0):
    return request(PICTURE, struct.pack("<ii", custom_id, applocal_id))


def update_request(custom_id, server_id, title):
    return request(UPDATE, changed(bytes(PHONE_RECORD), custom_id=custom_id, server_id=server_id, title=title))


def list_reply(records):
    head = struct.pack("<12sii", b"KT7", 1, len(records))
    return request(REPLY + LIST, head + b"".join(records))


def delete_reply(result, records, kept=0):
    return request(REPLY + DELETE, struct.pack("<iii", result, 1, len(records)) + b"".join(records) + bytes(8 * kept))


def records_in(reply, head=28):
    body = reply[head : len(reply) - (len(reply) - head) % PHONE_RECORD]
    return [body[i : i + PHONE_RECORD] for i in range(0, len(body), PHONE_RECORD)]


def store_result(reply):
    """result, preset_num, custom_id, applocal_id"""
    assert reply[:8] == struct.pack("<ii", REPLY + STORE, 24) and len(reply) == 24, reply
    return struct.unpack("<iiii", reply[8:])


class Closed(Exception):
    """The other side closed the link."""


class Silent(Exception):
    """No whole frame came in time."""


class UnixSockets:
    """A kind of link: where a camera listens, and how a phone gets there."""

    keeps_borders = True

    def listening_url(self, store):
        return f"unix:{store}/camera.sock"

    def socket(self):
        return socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)

    def connect(self, link, where):
        link.connect(where)

    def largest_packet(self, _link):
        return LARGEST_PACKET


class TcpSockets:
    keeps_borders = False

    def listening_url(self, _store):
        return "tcp:127.0.0.1:0"

    def socket(self):
        link = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        link.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return link

    def connect(self, link, where):
        host, _, port = where.rpartition(":")
        link.connect((host, int(port)))


KINDS_OF_LINKS = {"unix": UnixSockets(), "tcp": TcpSockets()}


class Link:
    """A phone's end of a link, byte by byte under the test's control."""

    def __init__(self, url):
        kind, _, where = url.partition(":")
        self.kind = KINDS_OF_LINKS[kind]
        self.keeps_borders = self.kind.keeps_borders
        self.socket = self.kind.socket()
        self.socket.settimeout(PATIENCE)
        self.waiting = b""
        self.packet_sizes = []
        try:
            self.kind.connect(self.socket, where)
        except OSError:
            self.socket.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def send(self, data, pieces=None):
        """Sends the bytes whole, or cut behind each of the given counts. What is too large for one packet is
        cut in any case."""
        if self.keeps_borders and not pieces:
            largest = self.kind.largest_packet(self.socket)
            pieces = range(largest, len(data), largest)
        start = 0
        for end in [*(pieces or []), len(data)]:
            if end > start:
                self.socket.sendall(data[start:end])
            start = end

    def receive(self, timeout=PATIENCE):
        """The next whole frame."""
        end = time.monotonic() + timeout
        while True:
            if len(self.waiting) >= 8:
                total = struct.unpack_from("<i", self.waiting, 4)[0]
                if total < 8:
                    raise AssertionError(f"a frame of {total} bytes: {self.waiting[:40].hex()}")
                if len(self.waiting) >= total:
                    frame, self.waiting = self.waiting[:total], self.waiting[total:]
                    if self.keeps_borders and self.waiting:
                        raise AssertionError("a packet holds bytes of two frames")
                    return frame
            readable = select.select([self.socket], [], [], max(0.0, end - time.monotonic()))[0]
            if not readable:
                raise Silent(f"{len(self.waiting)} bytes came in {timeout} s")
            packet = self._received()
            if not packet:
                raise Closed(f"after {len(self.waiting)} bytes of a frame")
            self.packet_sizes.append(len(packet))
            self.waiting += packet

    def _received(self):
        """Sockets of Bluetooth tell an error before the bytes that came ahead of it."""
        with contextlib.suppress(ConnectionResetError, BrokenPipeError):
            return self.socket.recv(1 << 20)
        self.socket.setblocking(False)
        with contextlib.suppress(OSError):
            return self.socket.recv(1 << 20)
        return b""

    def ask(self, data, pieces=None):
        self.send(data, pieces)
        return self.receive()

    def is_silent(self, seconds=SILENCE):
        try:
            self.receive(seconds)
        except Silent:
            return True
        return False


# ---- The camera --------------------------------------------------------------------------------------------


def _die_with_the_test():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


def environment_of_programs(**extra):
    unwanted = ("NO_COLOR", "COLUMNS", "LINES", "SHOTMENTOR_CONNECT")
    kept = {name: value for name, value in os.environ.items() if name not in unwanted}
    return {**kept, "LC_ALL": "C.UTF-8", **extra}


def run_camera(store, *arguments, timeout=PATIENCE):
    """Runs a command of the camera that ends by itself."""
    return subprocess.run(
        [CAMERA, "--store", str(store), *map(str, arguments)],
        stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout, env=environment_of_programs(),
    )  # fmt: skip


class NotStarted(AssertionError):
    """The camera ended and did not listen."""

    def __init__(self, code, talk):
        super().__init__(f"the camera ended: {code}, {talk}")
        self.code, self.talk = code, talk


class ReadFile:
    """A file that a program writes, and that is read without moving the place where the program writes next."""

    def __init__(self):
        self.file = tempfile.TemporaryFile()

    def fileno(self):
        return self.file.fileno()

    def written(self):
        return os.pread(self.fileno(), os.fstat(self.fileno()).st_size, 0)

    def close(self):
        self.file.close()


class Camera:
    """A camera that serves. Use it in a `with` statement, or call `stop` or `kill`. `errors` is what it gets as
    standard error, and has what ReadFile has."""

    def __init__(self, store, *options, kind="unix", url=None, environment=None, errors=None):
        self.store = store
        url = url or KINDS_OF_LINKS[kind].listening_url(store)
        self.errors = errors or ReadFile()
        self.process = subprocess.Popen(
            [CAMERA, "--store", str(store), "--listen", url, *map(str, options)],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.errors,
            env=environment_of_programs(**(environment or {})), preexec_fn=_die_with_the_test,
        )  # fmt: skip
        try:
            self.url = self._announced()
        except BaseException:
            self.kill()
            raise

    def next_url(self):
        """Where it listens as well."""
        return self._announced()

    def _announced(self):
        end, line = time.monotonic() + FIRST_START, b""
        while not line.endswith(b"\n"):
            if not select.select([self.process.stdout], [], [], max(0.0, end - time.monotonic()))[0]:
                raise AssertionError("the camera did not say that it listens")
            piece = os.read(self.process.stdout.fileno(), 1)
            if not piece:
                raise NotStarted(self.process.wait(PATIENCE), self.talk())
            line += piece
        text = line.decode().rstrip("\n")
        if not text.startswith("listening on "):
            raise AssertionError(f"the camera said {text!r}")
        return text[len("listening on ") :]

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind is None:
            self.stop()
        else:
            self.kill()

    @property
    def pid(self):
        return self.process.pid

    def talk(self):
        return self.errors.written().decode(errors="replace")

    def link(self):
        """A link to a camera that may still be learning that the last phone has gone."""
        end = time.monotonic() + PATIENCE
        while True:
            link = Link(self.url)
            try:
                link.receive(0.02)
            except Silent:
                return link
            except Closed:
                pass
            link.close()
            if time.monotonic() > end:
                raise AssertionError("the camera stays busy")

    def ask(self, data):
        with self.link() as link:
            return link.ask(data)

    def presets(self):
        return records_in(self.ask(request(LIST)))

    def stop(self, sign=signal.SIGTERM):
        """Ends the camera in order. A camera that crashed or fails at its end fails the test."""
        if self.process.poll() is None:
            self.process.send_signal(sign)
        try:
            code = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError("the camera does not end") from None
        talk = self.talk()
        self._close()
        if code != 0:
            raise AssertionError(f"the camera ended with {code}: {talk[-2000:]}")

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(PATIENCE)
        self._close()

    def _close(self):
        self.process.stdout.close()
        self.errors.close()


# ---- The store ---------------------------------------------------------------------------------------------


class Stored:
    """What a store at rest holds, as the camera's own `presets` and `presets --json` tell it."""

    def __init__(self, store):
        told = run_camera(store, "presets", "--json")
        table = run_camera(store, "presets")
        for done in (told, table):
            if done.returncode != 0:
                raise AssertionError(f"presets ended with {done.returncode}: {done.stderr.decode()}")
        self.records = [record_from_json(entries, CAMERA_RECORD) for entries in json.loads(told.stdout)]
        self.linked = [-1, -1]
        for line in table.stdout.decode().splitlines():
            for mode, name in enumerate(("CUSTOM1", "CUSTOM2")):
                if name in line.split():
                    self.linked[mode] = int(line.split()[0])

    def ids(self):
        return [get(record, "custom_id") for record in self.records]

    def as_phone_sees(self, iso_step="full"):
        return [
            to_phone(record, 2 if self.linked[1] == i else 1 if self.linked[0] == i else 0, iso_step)
            for i, record in enumerate(self.records)
        ]


def stored_picture(store, custom_id):
    with open(os.path.join(store, "pictures", f"{custom_id}.jpg"), "rb") as file:
        return file.read()


def pictures_of(store):
    return sorted(os.listdir(os.path.join(store, "pictures")))


_samples = None


def sample_store():
    """A store with the twelve samples, made once and copied for each test: drawing them takes a while."""
    global _samples
    if _samples is None:
        folder = tempfile.mkdtemp(prefix="desk-samples-")
        atexit.register(shutil.rmtree, folder, ignore_errors=True)
        with Camera(os.path.join(folder, "store")):
            pass
        _samples = os.path.join(folder, "store")
    return _samples


# ---- A camera that lies ------------------------------------------------------------------------------------


class FakeCamera:
    """Answers each request with what `answer(function, request)` returns: bytes, a tuple of bytes and then
    the end, a generator of packets, None for silence, or CLOSE."""

    CLOSE = object()

    def __init__(self, folder, answer, greeting=b""):
        self.answer, self.greeting = answer, greeting
        self.requests, self.packet_sizes = [], []
        self.server, self.url = self.listen(folder)
        self.over = threading.Event()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def listen(self, folder):
        """A listening socket and its URL."""
        url = f"unix:{folder}/fake-{time.monotonic_ns()}.sock"
        server = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        server.bind(url[len("unix:") :])
        server.listen(1)
        return server, url

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join(PATIENCE)
        self.server.close()

    def _serve(self):
        with contextlib.suppress(OSError):
            while not select.select([self.server], [], [], 0.02)[0]:
                if self.over.is_set():
                    return
            phone, _ = self.server.accept()
            with phone:
                phone.settimeout(PATIENCE)
                if self.greeting:
                    phone.send(self.greeting)
                    return
                while self._serve_one(phone):
                    pass

    def _serve_one(self, phone):
        data = b""
        while len(data) < 8 or len(data) < struct.unpack_from("<i", data, 4)[0]:
            packet = phone.recv(1 << 20)
            if not packet:
                return False
            self.packet_sizes.append(len(packet))
            data += packet
        self.requests.append(data)
        function = struct.unpack_from("<i", data)[0]
        if function in (STATE_OFF, STATE_ON):
            return True
        answer = self.answer(function, data)
        if answer is FakeCamera.CLOSE:
            return False
        if isinstance(answer, tuple):  # a piece of an answer, then the end
            phone.send(answer[0])
            return False
        if isinstance(answer, types.GeneratorType):  # packets, at its own pace
            for packet in answer:
                phone.send(packet)
        elif answer is not None:
            for start in range(0, len(answer), 4096):
                phone.send(answer[start : start + 4096])
        return True

    def request_of(self, function):
        """The one request with this function number."""
        found = [data for data in self.requests if struct.unpack_from("<i", data)[0] == function]
        assert len(found) == 1, f"{len(found)} requests with function number {function}"
        return found[0]


# ---- The phone ---------------------------------------------------------------------------------------------


def run_phone(url, *arguments, timeout=30.0, environment=None, wait_for_turn=True):
    """Runs the phone. The camera learns a moment late that the last phone has gone: unless `wait_for_turn` is
    false, a phone that is turned away tries again."""
    end = time.monotonic() + PATIENCE
    while True:
        done = subprocess.run(
            [PHONE, *(("--connect", url) if url else ()), *map(str, arguments)],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout,
            env=environment_of_programs(**(environment or {})),
        )  # fmt: skip
        if done.returncode != 5 or not wait_for_turn or time.monotonic() > end:
            return done
        time.sleep(0.02)


@dataclasses.dataclass
class Ended:
    """How a phone ended, and what it took."""

    returncode: int
    stdout: bytes
    stderr: bytes
    seconds: float
    peak: int  # bytes of memory at its largest; that of the test itself where this was larger

    @property
    def text(self):
        return self.stdout.decode(errors="replace")


def _ended(process, start, end):
    """Exit code, seconds and peak of a process, which is killed at the time `end`."""
    while True:
        done, status, usage = os.wait4(process.pid, os.WNOHANG)
        if done:
            process.returncode = os.waitstatus_to_exitcode(status)
            return process.returncode, time.monotonic() - start, usage.ru_maxrss * 1024
        if time.monotonic() > end:
            process.kill()
            process.wait()
            raise AssertionError(f"the phone did not end within {end - start:.0f} s")
        time.sleep(0.01)


def _forget_own_peak():
    """What starts a program counts as its memory until it runs. This makes that as little as can be."""
    ctypes.CDLL(None).malloc_trim(0)
    with open("/proc/self/clear_refs", "w") as file:
        file.write("5")


# A sanitizer keeps what was freed, to find who uses it; that memory would be counted as the phone's.
_FREES_AT_ONCE = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"}


def most_of_phone(memory):
    """What the phone may hold where it is to hold so many bytes: a sanitizer's own memory comes on top."""
    with open(PHONE, "rb") as program:
        return memory * 3 // 2 if b"__asan_init" in program.read() else memory


def measure_phone(url, *arguments, timeout=30.0, environment=None, stdin=subprocess.DEVNULL, **more):
    """Runs the phone and measures it."""
    with tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as talk:
        _forget_own_peak()
        start = time.monotonic()
        process = subprocess.Popen(
            [PHONE, *(("--connect", url) if url else ()), *map(str, arguments)], stdin=stdin, stdout=output,
            stderr=talk, env=environment_of_programs(**_FREES_AT_ONCE, **(environment or {})), **more,
        )  # fmt: skip
        code, seconds, peak = _ended(process, start, start + timeout)
        output.seek(0), talk.seek(0)
        return Ended(code, output.read(), talk.read(), seconds, peak)


def run_on_terminal(
    url, *arguments, columns=80, rows=40, pixels=(0, 0), environment=None, timeout=2 * PATIENCE, with_terminal=None
):
    """Runs the phone on a terminal of this size, and measures it. All that it writes there is its output.
    `with_terminal` is called with the terminal before the phone begins."""
    master, slave = pty.openpty()
    try:
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, *pixels))
        if with_terminal:
            with_terminal(master)
        settings = termios.tcgetattr(slave)
        settings[1] &= ~termios.OPOST  # newlines as they are written
        termios.tcsetattr(slave, termios.TCSANOW, settings)
        _forget_own_peak()
        start = time.monotonic()
        end = start + timeout
        process = subprocess.Popen(
            [PHONE, *(("--connect", url) if url else ()), *map(str, arguments)],
            stdin=slave, stdout=slave, stderr=slave,
            env=environment_of_programs(**{"TERM": "xterm-256color", **_FREES_AT_ONCE, **(environment or {})}),
            start_new_session=True,
        )  # fmt: skip
        os.close(slave)
        slave = -1
        written = b""
        with contextlib.suppress(OSError):  # the terminal is gone when the last one has closed it
            while time.monotonic() < end:
                if select.select([master], [], [], 0.1)[0]:
                    piece = os.read(master, 65536)
                    if not piece:
                        break
                    written += piece
        code, seconds, peak = _ended(process, start, end)
        return Ended(code, written, b"", seconds, peak)
    finally:
        os.close(master)
        if slave >= 0:
            os.close(slave)


class DeskTest(unittest.TestCase):
    """A test with a temporary folder of its own."""

    maxDiff = 2000

    @classmethod
    def setUpClass(cls):
        for name, program in (("SHOTMENTOR_CAMERA", CAMERA), ("SHOTMENTOR_PHONE", PHONE)):
            if not os.access(program, os.X_OK):
                raise RuntimeError(f"set {name} to the program; it is {program!r}")

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="desk-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.store = os.path.join(self.folder, "store")

    def samples(self):
        """A store with the samples; the test's own copy."""
        shutil.copytree(
            sample_store(), self.store, ignore=lambda folder, names: [n for n in names if n.endswith(".sock")]
        )
        return self.store

    def camera(self, *options, **more):
        """A camera that ends with the test, if not before."""
        camera = Camera(self.store, *options, **more)
        self.addCleanup(lambda: camera.process.poll() is None and camera.kill())
        return camera

    def file(self, name, content):
        path = os.path.join(self.folder, name)
        with open(path, "wb" if isinstance(content, bytes) else "w") as file:
            file.write(content)
        return path

    def assertEnds(self, done, code):
        """The program ended with this exit code, and said why it failed."""
        talk = done.stderr.decode(errors="replace")
        self.assertEqual(done.returncode, code, f"stdout {done.stdout[-500:]!r}, stderr {talk[-1500:]!r}")
        if code != 0:
            self.assertNotEqual(talk.strip(), "", "a failure without a word")
