"""A whole small phone to copy from, on a parser that is made of Protocol/shotmentor.ksy.

    tools/compile_protocol.sh python                # makes the parser; it takes the package python3-kaitaistruct
    shotmentor-camera --store /tmp/camera --listen tcp:127.0.0.1:4660 &
    python3 Examples/phone.py tcp:127.0.0.1:4660 list

Usage: phone.py URL COMMAND, where URL is tcp:HOST:PORT or unix:PATH, and COMMAND one of
  list                    the presets, by their numbers
  fetch NUMBER FILE       writes a preset's picture into a file
  store PRESET PICTURE    stores a preset: a file that holds a record of 744 bytes, or the title of a plain one
  rename NUMBER TITLE     gives a preset another title
  delete NUMBER           deletes a preset
SHOTMENTOR_PARSERS names the folder of the parsers where that is not build/protocol of the sources.
"""

import os
import pathlib
import socket
import struct
import sys

PARSERS = os.environ.get("SHOTMENTOR_PARSERS") or pathlib.Path(__file__).resolve().parent.parent / "build" / "protocol"
sys.path.insert(0, os.path.join(PARSERS, "python"))
try:
    from kaitaistruct import ValidationFailedError
    from shotmentor import Shotmentor
except ImportError as error:
    sys.exit(f"phone.py: {error}: run tools/compile_protocol.sh, and install the Debian package python3-kaitaistruct")

LIST, PICTURE, STORE, UPDATE, DELETE, REPLY = 1, 2, 3, 4, 5, 0x1000  # a reply adds the last to its request's number
HEADER = 8
LONGEST_REQUEST, LONGEST_REPLY = 600000, 1 << 24  # the second is our own bound: no camera has such a picture
RECORD, TITLE, SHORTEST_PICTURE = 744, 51, 100
MODE, EV_STEP, CUSTOM_ID, SERVER_ID, MADE_ID = 52, 72, 672, 680, 684  # offsets in a record
PLAIN = {MODE: 1, EV_STEP: 50, MADE_ID: 0x40}  # program, no compensation; the camera keeps what is sent
PACKET, PATIENCE = 32768, 10  # bytes that a link takes at once; seconds for an answer


def text_of(data):
    """A title as a person may see it: whatever a camera sends, it moves no cursor."""
    return "".join(c if c.isprintable() else "?" for c in data.partition(b"\0")[0].decode("utf-8", "replace"))


def record(text, words):
    """A record with a title, and words by their offsets."""
    title = os.fsencode(text)
    if len(title) > TITLE:
        raise ValueError(f"the title has {len(title)} bytes; {TITLE} are the most")
    data = bytearray(title.ljust(RECORD, b"\0"))
    for offset, value in words.items():
        struct.pack_into("<i", data, offset, value)
    return bytes(data)


class Phone:
    def __init__(self, url):
        kind, _, place = url.partition(":")
        host, _, port = place.rpartition(":")
        if kind == "unix" and place:
            self.link, address = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET), place
        elif kind == "tcp" and host and port.isdecimal() and int(port) < 65536:
            self.link, address = socket.socket(), (host, int(port))
        else:
            raise ValueError(f"{url!r} is no camera; give tcp:HOST:PORT or unix:PATH")
        self.link.settimeout(PATIENCE)
        self.link.connect(address)

    def ask(self, function, payload=b""):
        """What stands in the reply to a request, unless that is a refusal."""
        request = struct.pack("<ii", function, HEADER + len(payload)) + payload
        if len(request) > LONGEST_REQUEST:
            raise ValueError(f"{len(payload)} bytes are too many for a camera; make the picture smaller")
        for start in range(0, len(request), PACKET):
            self.link.sendall(request[start : start + PACKET])
        frame = Shotmentor.from_bytes(self.receive()).frames[0]
        if frame.function == Shotmentor.Function.busy_reply:
            raise ValueError("the camera serves another phone; try again later")
        if frame.function != Shotmentor.Function(REPLY + function):
            raise ValueError(f"the camera answers {function} with {frame.function}")
        result = getattr(frame.body, "result", Shotmentor.Result.true)
        if result != Shotmentor.Result.true:
            raise ValueError(f"the camera refuses: {getattr(result, 'name', result)}")
        return frame.body

    def receive(self):
        data = bytearray()
        while len(data) < HEADER or len(data) < struct.unpack_from("<i", data, 4)[0]:
            packet = self.link.recv(1 << 20)
            if not packet or len(data) > LONGEST_REPLY:
                raise ValueError(
                    "the camera has closed the link before its reply was complete, or the reply has no end"
                )
            data += packet
        return bytes(data)

    def preset(self, number):
        presets = self.ask(LIST).presets
        for each in presets:
            if str(each.preset_num) == number:
                return each
        raise ValueError(f"no preset {number}; the camera has {len(presets)}, which list shows")

    def list(self):
        for each in self.ask(LIST).presets:
            print(f"{each.preset_num:3}  id {each.custom_id}  {text_of(each.title)}")

    def fetch(self, number, path):
        wanted = self.preset(number)
        reply = self.ask(PICTURE, struct.pack("<ii", wanted.custom_id, wanted.applocal_id))
        if reply.custom_id != wanted.custom_id or not reply.picture:
            raise ValueError(f"the camera has no picture of preset {number}")
        pathlib.Path(f"{path}.part").write_bytes(reply.picture)
        os.replace(f"{path}.part", path)  # a file that is there stays whole, whatever happens

    def store(self, given, path):
        data = pathlib.Path(given).read_bytes() if os.path.isfile(given) else record(given, PLAIN)
        picture = pathlib.Path(path).read_bytes()
        if len(data) != RECORD:
            raise ValueError(f"{given} has {len(data)} bytes; a record has {RECORD}")
        if len(picture) < SHORTEST_PICTURE:
            raise ValueError(f"{path} has {len(picture)} bytes; a picture has at least {SHORTEST_PICTURE}")
        reply = self.ask(STORE, data + picture)
        print(f"stored as preset {reply.preset_num}, id {reply.custom_id}")

    def rename(self, number, title):
        wanted = self.preset(number)
        self.ask(UPDATE, record(title, {CUSTOM_ID: wanted.custom_id, SERVER_ID: wanted.server_id}))

    def delete(self, number):
        wanted = self.preset(number)
        self.ask(DELETE, struct.pack("<ii", wanted.preset_num, wanted.custom_id))


ARGUMENTS = {"list": 0, "fetch": 2, "store": 2, "rename": 2, "delete": 1}  # how many each command takes

if __name__ == "__main__":
    url, command, *arguments = [*sys.argv[1:], "", ""][: max(2, len(sys.argv) - 1)]
    if ARGUMENTS.get(command) != len(arguments):
        sys.exit("phone.py: usage: phone.py URL list | fetch NUMBER FILE | store PRESET PICTURE | ...; see its head")
    try:
        getattr(Phone(url), command)(*arguments)
    except (OSError, ValueError, EOFError, ValidationFailedError) as error:
        sys.exit(f"phone.py: {error}")
