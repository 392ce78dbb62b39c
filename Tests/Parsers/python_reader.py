"""Reads what LibraryReader.cpp reads, in the same form, by the generated Python parser: python_reader.py FOLDER."""

import enum
import json
import sys

sys.path.insert(0, sys.argv[1])

import kaitaistruct  # noqa: E402
import shotmentor  # noqa: E402

REFUSALS = (EOFError, kaitaistruct.ValidationFailedError)


def plain(value):
    """All that the parser found in a struct, whatever its names are."""
    if isinstance(value, kaitaistruct.KaitaiStruct):
        return {name: plain(item) for name, item in vars(value).items() if not name.startswith("_")}
    if isinstance(value, list):
        return [plain(item) for item in value]
    if isinstance(value, enum.Enum):
        return value.value
    return value.hex() if isinstance(value, bytes) else value


def read_one(kind, stream):
    try:
        return plain(kind(stream))
    except REFUSALS:
        return "refused"


def frames_in(stream):
    found = []
    while not stream.is_eof() and "refused" not in found:
        found.append(read_one(shotmentor.Shotmentor.Frame, stream))
    return found


def read(item):
    stream = kaitaistruct.KaitaiStream(kaitaistruct.BytesIO(bytes.fromhex(item["bytes"])))
    records = {
        "camera_record": shotmentor.Shotmentor.CameraRecord,
        "phone_record": shotmentor.Shotmentor.PhoneRecord,
    }
    return read_one(records[item["type"]], stream) if item["type"] in records else frames_in(stream)


json.dump([read(item) for item in json.load(sys.stdin)], sys.stdout)
