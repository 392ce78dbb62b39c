"""The tables of Protocol/shotmentor.lua, between its markers: the record's fields, the results, and what values are
called, each from the source that has it."""

import pathlib
import re
import textwrap

from protocol_details import Fault
from protocol_scales import iso_numbers, shutter_times

DISSECTOR = pathlib.Path("Protocol", "shotmentor.lua")
NAMES = pathlib.Path("Desk", "Values", "Names.cpp")
BEGIN, END = "-- begin of the tables\n", "-- end of the tables\n"
WIDTH = 116


def between(root, path, start, end):
    """The text of a file between two others."""
    text = (root / path).read_text(encoding="utf-8")
    _, found, rest = text.partition(start)
    inside, closed, _ = rest.partition(end)
    if not found or not closed:
        raise Fault(f"{path}: no `{start.strip()}` with `{end.strip()}` behind it")
    return inside


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def wrapped(text, indent):
    """A Lua string over as many lines as it takes."""
    pieces = textwrap.wrap(text, WIDTH - 20 - len(indent), drop_whitespace=False, break_long_words=False)
    return f" ..\n{indent}    ".join(quoted(piece) for piece in pieces)


def filled(entries):
    """Entries of a table side by side."""
    return textwrap.fill(
        " ".join(entry.replace(" ", "\0") + "," for entry in entries),
        WIDTH,
        initial_indent="    ",
        subsequent_indent="    ",
        break_long_words=False,
        break_on_hyphens=False,
    ).replace("\0", " ")


def table(name, body):
    return f"local {name} = {{\n{body}\n}}\n"


def names_table(root, function):
    source = between(root, NAMES, f"const Names& {function}() {{", "return names;")
    names = re.findall(r'"([^"]*)"', source)
    if not names:
        raise Fault(f"{NAMES}: {function} has no names")
    return table(function, filled([f"[{code}] = {quoted(name)}" for code, name in enumerate(names)]))


def style_table(constants):
    """The names that names_of_styles of the desk makes: C1 to C4 behind the styles without a name."""
    first = constants["SM_COLOR_STYLE_C1"].value
    count = constants["SM_COLOR_STYLES"].value
    names = [f"style {code}" if code < first else f"C{code - first + 1}" for code in range(count)]
    return table("color_style_names", filled([f"[{code}] = {quoted(name)}" for code, name in enumerate(names)]))


def shutter_table(root):
    times = shutter_times(root)
    return table("shutter_times", filled([f"[{position}] = {quoted(time)}" for position, time in times]))


def iso_table(root):
    return table("iso_numbers", filled([f"[{position}] = {number}" for position, number in iso_numbers(root)]))


def result_table(results):
    lines = [f"    [{r.value}] = {{ {quoted(r.name)}, {quoted(r.meaning)} }}," for r in results]
    return table("results", "\n".join(lines))


def field_line(each):
    field = each.field
    text = f"name = {quoted(field.name)}, offset = {field.offset}, kind = {quoted(field.kind)}, "
    text += f"size = {field.size}, count = {field.count}"
    text += ", in_style = true" if field.in_style else ""
    return f"    {{ {text},\n      meaning = {wrapped(each.meaning, '      ')} }},"


def constant_lines(protocol):
    numbers = {
        "record_size": protocol.sizes["sm_tag_custom_info"],
        "model_size": protocol.constants["SM_MODEL_SIZE"].value,
        "layout_version": protocol.constants["SM_LAYOUT_VERSION"].value,
        "preset_limit": protocol.constants["SM_PRESET_LIMIT"].value,
        "request_limit": protocol.constants["SM_REQUEST_LIMIT"].value,
        "last_function": protocol.constants["SM_FUNCTION_LAST"].value,
        "reply_bit": protocol.constants["SM_REPLY"].value,
    }
    return "".join(f"local {name} = {value}\n" for name, value in numbers.items())


def tables(root, protocol, fields):
    return "\n".join(
        [
            constant_lines(protocol),
            result_table(protocol.results()),
            names_table(root, "mode_names"),
            names_table(root, "white_balance_names"),
            names_table(root, "custom_mode_names"),
            style_table(protocol.constants),
            shutter_table(root),
            iso_table(root),
            table("record_fields", "\n".join(field_line(each) for each in fields)),
        ]
    )


def dissector(root, protocol, fields):
    """The dissector of a source tree with its tables made anew, of fields with what is said of them."""
    held = between(root, DISSECTOR, BEGIN, END)
    text = (root / DISSECTOR).read_text(encoding="utf-8")
    return text.replace(BEGIN + held + END, BEGIN + tables(root, protocol, fields) + END)
