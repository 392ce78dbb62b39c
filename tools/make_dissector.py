#!/usr/bin/env python3
"""Puts the tables of Protocol/shotmentor.lua between its markers: the record's fields, the results, and what values are
called, each from the source that has it.

Usage: tools/make_dissector.py [--check]
  --check  writes nothing; exit code 1 when the tables are not what the sources make
"""

import pathlib
import re
import sys
import textwrap

sys.dont_write_bytecode = True
import protocol_fields  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parent.parent
DISSECTOR = ROOT / "Protocol" / "shotmentor.lua"
NAMES = ROOT / "Desk" / "Values" / "Names.cpp"
SCALES = ROOT / "Desk" / "Values" / "Scales.cpp"
TABLES = ROOT / "Src" / "ADE_ShotMentor_Tables.h"
BEGIN, END = "-- begin of the tables\n", "-- end of the tables\n"
WIDTH = 116


class SourceError(Exception):
    """A source or the dissector is not as it was; the text says which and what is missing."""


def between(path, start, end):
    """The text of a file between two others."""
    text = path.read_text(encoding="utf-8")
    _, found, rest = text.partition(start)
    inside, closed, _ = rest.partition(end)
    if not found or not closed:
        raise SourceError(f"{path}: no `{start.strip()}` with `{end.strip()}` behind it")
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


def names_table(function):
    source = between(NAMES, f"const Names& {function}() {{", "return names;")
    names = re.findall(r'"([^"]*)"', source)
    if not names:
        raise SourceError(f"{NAMES}: {function} has no names")
    return table(function, filled([f"[{code}] = {quoted(name)}" for code, name in enumerate(names)]))


def style_table(constants):
    """The names that names_of_styles of the desk makes: C1 to C4 behind the styles without a name."""
    first = constants["SM_COLOR_STYLE_C1"].value
    count = constants["SM_COLOR_STYLES"].value
    names = [f"style {code}" if code < first else f"C{code - first + 1}" for code in range(count)]
    return table("color_style_names", filled([f"[{code}] = {quoted(name)}" for code, name in enumerate(names)]))


def shutter_table():
    source = between(SCALES, "constexpr ShutterTime shutter_times[] = {", "};")
    times = re.findall(r'\{(\d+), ("[^"]+")\}', source)
    if len(times) != source.count("{"):
        raise SourceError(f"{SCALES}: a shutter time is not of the form {{position, text}}")
    return table("shutter_times", filled([f"[{position}] = {text}" for position, text in times]))


def iso_table():
    source = between(TABLES, "constexpr int32_t tPRO_COMMON_SV[] = {", "};")
    numbers = re.findall(r"\d+", re.sub(r"/\*.*?\*/|//[^\n]*", "", source))
    return table("iso_numbers", filled([f"[{position}] = {number}" for position, number in enumerate(numbers)]))


def result_table(results):
    lines = [f"    [{r.value}] = {{ {quoted(r.name)}, {quoted(r.meaning)} }}," for r in results]
    return table("results", "\n".join(lines))


def field_line(field):
    text = f"name = {quoted(field.name)}, offset = {field.offset}, kind = {quoted(field.kind)}, "
    text += f"size = {field.size}, count = {field.count}"
    text += ", in_style = true" if field.in_style else ""
    return f"    {{ {text},\n      meaning = {wrapped(field.meaning, '      ')} }},"


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


def tables():
    protocol = protocol_fields.read()
    return "\n".join(
        [
            constant_lines(protocol),
            result_table(protocol.results()),
            names_table("mode_names"),
            names_table("white_balance_names"),
            names_table("custom_mode_names"),
            style_table(protocol.constants),
            shutter_table(),
            iso_table(),
            table("record_fields", "\n".join(field_line(field) for field in protocol.fields)),
        ]
    )


def main(arguments):
    if arguments not in ([], ["--check"]):
        print("make_dissector.py: it takes no argument but --check", file=sys.stderr)
        return 2
    try:
        wanted, held = tables(), between(DISSECTOR, BEGIN, END)
    except (OSError, SourceError, protocol_fields.HeaderError) as error:
        print(f"make_dissector.py: {error}", file=sys.stderr)
        return 1
    if wanted == held:
        return 0
    if arguments:
        print(f"{DISSECTOR}: its tables are not what the sources make; run tools/make_dissector.py", file=sys.stderr)
        return 1
    text = DISSECTOR.read_text(encoding="utf-8")
    DISSECTOR.write_text(text.replace(BEGIN + held + END, BEGIN + wanted + END), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
