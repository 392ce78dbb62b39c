"""The scales of the protocol whose values travel as positions, each from the source that has it."""

import pathlib
import re

from protocol_details import Fault

SHUTTER_TIMES = pathlib.Path("Desk", "Values", "Scales.cpp")
ISO_NUMBERS = pathlib.Path("Src", "ADE_ShotMentor_Tables.h")


def shutter_times(root):
    """The positions of the phone's shutter times, and how the desk names each."""
    table = r"constexpr ShutterTime shutter_times\[\] = \{(.*?)\n\};"
    return pairs_in(SHUTTER_TIMES, (root / SHUTTER_TIMES).read_text(encoding="utf-8"), table, r'\{(\d+), *"([^"]*)"\}')


def iso_numbers(root):
    """The positions of the ISO numbers, and each number, as they stand in the library's table."""
    text = re.sub(r"/\*.*?\*/|//.*", "", (root / ISO_NUMBERS).read_text(encoding="utf-8"))
    numbers = pairs_in(ISO_NUMBERS, text, r"constexpr int32_t tPRO_COMMON_SV\[\] = \{(.*?)\n\};", r"()(\d+)")
    return [(str(position), number) for position, (_, number) in enumerate(numbers)]


def pairs_in(path, text, table, entry):
    """The entries of a table, of which nothing may be left over but what separates them."""
    body = re.search(table, text, re.S)
    if not body or re.sub(entry, "", body[1]).replace(",", "").strip():
        raise Fault(f"{path}: no table of the form that tools/protocol_scales.py knows; teach it the new one")
    return re.findall(entry, body[1])
