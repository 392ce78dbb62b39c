#!/usr/bin/env python3
"""Makes all that describes the protocol from the header of the records.

Usage: tools/make_protocol.py [--check] [--root FOLDER] [FILE...]

FILE is one or more of these; all of them if none is given:
  Docs/protocol.md             the tables of the preset record and of its scales, between their marks
  Protocol/shotmentor.ksy      the description for the Kaitai Struct compiler, which makes parsers of it
  Protocol/shotmentor.lua      the tables of the dissector for Wireshark, between their marks
  Protocol/preset.schema.json  the JSON Schema of preset files, by a program that is built for it in build/schema
With --check nothing is written: it fails where a file is not what the sources make. FOLDER has another source tree.

The fields come from Src/ADE_ShotMentor_Records.h; what the header does not say of them stands in protocol_details.py.
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys
import textwrap

sys.dont_write_bytecode = True
import dissector_tables  # noqa: E402
import protocol_fields  # noqa: E402
from protocol_details import Fault, described  # noqa: E402
from protocol_fields import WORD  # noqa: E402
from protocol_scales import ISO_NUMBERS, SHUTTER_TIMES, iso_numbers, shutter_times  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADER = pathlib.Path("Src", "ADE_ShotMentor_Records.h")
PAGE = pathlib.Path("Docs", "protocol.md")
KSY = pathlib.Path("Protocol", "shotmentor.ksy")
DISSECTOR = pathlib.Path("Protocol", "shotmentor.lua")
SCHEMA = pathlib.Path("Protocol", "preset.schema.json")
COMMAND = "tools/make_protocol.py"
LINE = 120

# The tables of the page, by what stands in the line above each, and what in the line below.
BEGIN = "<!-- {source} makes this table, by {command}. -->"
END = "<!-- The table ends here. -->"


# ---- The page's table --------------------------------------------------------------------------------------

HEADINGS = ["Offset", "Field", "Size", "Value", "0 means", "Written by", "Meaning"]
SIZES = {"text": "{size} bytes", "word": "word", "words": "{count} words", "colors": "{count} × red, green, blue"}


def page_table(fields):
    rows = [HEADINGS, ["---"] * len(HEADINGS)]
    for each in fields:
        field, detail = each.field, each.detail
        size = SIZES[field.kind].format(size=field.size, count=field.count)
        name = f"`{field.name}`"
        rows.append([str(field.offset), name, size, detail.value, detail.zero, detail.writer, each.meaning])
    return markdown(rows)


def scale_table(name, pairs, columns=5):
    """A table that is read in rows: positions and what they stand for, several side by side."""
    rows = [["Position", name] * columns, ["---"] * 2 * columns]
    for start in range(0, len(pairs), columns):
        cells = [cell for pair in pairs[start : start + columns] for cell in pair]
        rows.append(cells + [""] * (2 * columns - len(cells)))
    return markdown(rows)


def markdown(rows):
    """A table; the second row is the line below the headings."""
    cells = [[cell.replace("|", r"\|") for cell in row] for row in rows]
    lines = ["|" + "|".join(row) + "|" if row[0] == "---" else "| " + " | ".join(row) + " |" for row in cells]
    return "\n".join(lines)


def page_with(page, tables):
    """The page with these tables, by their sources, between the marks."""
    for source, table in tables.items():
        begin = BEGIN.format(source=source, command=COMMAND) + "\n"
        parts = page.split(begin)
        if len(parts) != 2 or f"{END}\n" not in parts[1]:
            raise Fault(f"{PAGE}: a table has to stand between one line `{begin.rstrip()}` and a line `{END}`")
        page = f"{parts[0]}{begin}\n{table}\n\n{END}\n{parts[1].partition(END)[2].removeprefix(chr(10))}"
    return page


# ---- The description for Kaitai Struct ---------------------------------------------------------------------

BUSY = 0xFF  # the desk's camera answers a second phone with this, as if it were a request


def entry(name, doc, **keys):
    """An entry of a sequence."""
    return {"id": name, **keys, "doc": doc}


def word(name, doc, **keys):
    return entry(name, doc, type="s4", **keys)


def rest(name, doc):
    """All that is left of a frame."""
    return entry(name, doc, **{"size-eos": True})


def where_it_fits(item, end):
    """An entry that a request which is cut short does not have: what there is of its bytes goes to the next entry."""
    return {**item, "if": f"_io.size >= {end}"}


def repeated(item, count):
    return {**item, "repeat": "expr", "repeat-expr": count}


def sequence(doc, *entries):
    return {"seq": list(entries), "doc": doc}


def field_entry(each):
    field, doc = each.field, field_doc(each)
    if field.kind == "text":
        return entry(field.name, doc, size=field.size)
    if field.kind == "colors":
        return repeated(entry(field.name, doc, type="color"), field.count)
    if field.kind == "words":
        return repeated(word(field.name, doc), field.count)
    return word(field.name, doc, **({"enum": "mode"} if field.name == "mode" else {}))


def field_doc(each):
    return f"{each.meaning} As it travels: {each.detail.value}; 0 means: {each.detail.zero}."


def record(doc, fields):
    """A record, with the style block in the place of its fields."""
    entries = []
    for each in fields:
        if not each.field.in_style:
            entries.append(field_entry(each))
        elif not any(found["id"] == "cs_info" for found in entries):
            entries.append(entry("cs_info", "The colour styles.", type="cs_info"))
    return sequence(doc, *entries)


class Description:
    """All of the file, as what YAML knows: dictionaries, lists, texts and numbers."""

    def __init__(self, protocol, fields):
        self.protocol, self.fields = protocol, fields

    def whole(self):
        return {
            "meta": {
                "id": "shotmentor",
                "title": "What travels between the phone and the camera",
                "endian": "le",
                "ks-version": Quoted("0.10"),
            },
            "doc": (
                "One direction of a link: frames, one behind the other. Docs/protocol.md says what is sent when, and "
                f"what becomes of it. Made by {COMMAND} from {HEADER.name}; changes go there."
            ),
            "seq": [entry("frames", "Requests of a phone, or replies of a camera.", type="frame", repeat="eos")],
            "types": {"frame": self.frame(), **self.requests(), **self.replies(), **self.records()},
            "enums": self.enums(),
        }

    def frame(self):
        function, total_length = self.protocol.structs["sm_frame"]
        size = self.protocol.sizes["sm_frame"]
        cases = {
            f"function::{value['id']}": value["id"] if number >= self.reply() else f"{value['id']}_request"
            for number, value in self.enums()["function"].items()
        }
        without_body = set(cases.values()) - {*self.requests(), *self.replies()}
        if without_body:
            raise Fault(f"{COMMAND}: say in requests() and replies() what is in {' and '.join(sorted(without_body))}")
        return sequence(
            "A request or a reply.",
            word(function.name, sentence(function.meaning), enum="function"),
            word(total_length.name, sentence(total_length.meaning), valid={"min": size}),
            entry(
                "body",
                "What follows the 8 header bytes.",
                size=f"{total_length.name} - {size}",
                type={"switch-on": function.name, "cases": {**cases, "_": "unknown_body"}},
            ),
        )

    def reply(self):
        return self.constant("SM_REPLY")

    def constant(self, name):
        return self.protocol.constants[name].value

    # ---- Requests ----

    def requests(self):
        """A request that is too short for its words or its record has none: the camera refuses it, not the parser."""
        record_size = self.protocol.sizes["sm_tag_custom_info"]
        unread = rest("unread", "Nobody reads it.")
        custom_id = where_it_fits(word("custom_id", "The camera's identity of the preset, above 0."), WORD)
        applocal_id = where_it_fits(word("applocal_id", "The phone's own identity of the preset."), 2 * WORD)
        phone_record = where_it_fits(entry("preset", "The preset's record.", type="phone_record"), record_size)
        used = "The record, of which `custom_id`, `server_id` and `title` are used."
        picture = rest("picture", "A JPEG of at least 100 bytes.")
        size = self.protocol.sizes["sm_delete_pair"]
        pairs = entry("pairs", "The presets to delete.", type="delete_pair")
        code = where_it_fits(word("code", "The phone's own result code: 1, -10, -11 or -12.", enum="result"), WORD)
        return {
            "state_off_request": sequence("The phone leaves. No reply.", code, unread),
            "send_list_request": sequence("The phone asks for all presets.", unread),
            "send_preset_request": sequence("The phone asks for a picture.", custom_id, applocal_id, unread),
            "receive_preset_request": sequence("The phone stores a preset.", phone_record, picture),
            "update_preset_request": sequence("The phone renames a preset.", {**phone_record, "doc": used}, unread),
            "delete_preset_request": sequence(
                "The phone deletes presets.", repeated(pairs, f"_io.size / {size}"), unread
            ),
            "state_on_request": sequence("The phone is there. No reply.", unread),
            "delete_pair": sequence("A preset to delete.", *map(self.member, self.protocol.structs["sm_delete_pair"])),
            "unknown_body": sequence("What has a function number that there is not.", rest("raw", "Its bytes.")),
        }

    # ---- Replies ----

    def replies(self):
        presets = repeated(entry("presets", "The presets' records.", type="phone_record"), "num_preset")
        picture = rest("picture", "The picture; empty when the camera cannot read it.")
        without_meaning = rest("kept", "8 zero bytes for each custom mode that kept a preset.")
        return {
            "send_list_reply": self.body("Reply 0x1001: the presets.", "sm_list_reply", presets),
            "send_preset_reply": self.body("Reply 0x1002: a picture.", "sm_screennail_reply", picture),
            "receive_preset_reply": self.body("Reply 0x1003: what became of a store.", "sm_receive_reply"),
            "update_preset_reply": self.body("Reply 0x1004: what became of an update.", "sm_update_reply"),
            "delete_preset_reply": self.body(
                "Reply 0x1005: what became of a deletion, and the presets that are left.",
                "sm_delete_reply",
                presets,
                without_meaning,
            ),
            "busy_reply": sequence(
                "What the desk's camera sends to a second phone before it closes the link.", word("busy", "Always 1.")
            ),
        }

    def body(self, doc, struct, *behind):
        """A reply: the members of its head behind the frame, and what follows them."""
        return sequence(doc, *map(self.member, self.protocol.structs[struct][1:]), *behind)

    def member(self, member):
        """A word or a text of a head. Its name is in lower case, as all names are in this language. Texts are bytes:
        what is no text in an encoding would be refused by the parsers of some languages, and by others not."""
        name, doc = member.name.lower(), sentence(member.meaning)
        if member.type == "char":
            return entry(name, doc, size=member.count)
        more = {
            "result": {"enum": "result"},
            "num_preset": {"valid": {"min": 0, "max": self.constant("SM_PRESET_LIMIT")}},
            "sm_struct_ver": {"valid": self.constant("SM_LAYOUT_VERSION")},
        }
        return word(name, doc, **more.get(name, {}))

    # ---- Records ----

    def records(self):
        style = [each for each in self.fields if each.field.in_style]
        common = [each for each in self.fields if not each.field.phone_only]
        sizes = self.protocol.sizes
        return {
            "phone_record": record(
                f"A preset as it travels, {sizes['sm_tag_custom_info']} bytes. Codes without a range are the camera's "
                "own.",
                self.fields,
            ),
            "camera_record": record(
                f"A preset as the camera keeps it, {sizes['tag_custom_info']} bytes. It does not travel; "
                "`shotmentor-camera add` takes it.",
                common,
            ),
            "cs_info": sequence(f"The colour styles, {sizes['sm_cs_info']} bytes.", *map(field_entry, style)),
            "color": sequence("A colour.", *map(self.member, self.protocol.structs["sm_color"])),
        }

    # ---- Enums ----

    def enums(self):
        return {
            "function": {**self.functions(), **self.answered(), self.reply() + BUSY: self.busy()},
            "result": named(self.protocol.results(), "SM_RETURN_"),
            "mode": named(self.protocol.modes(), "SM_MODE_"),
        }

    def functions(self):
        return named(self.protocol.functions(), "SM_FUNCTION_")

    def answered(self):
        """The replies: all requests have one but those that say themselves that they have none."""
        requests = {number: value for number, value in self.functions().items() if "no reply" not in value["doc"]}
        return {
            self.reply() + number: {"id": f"{value['id']}_reply", "doc": f"The reply to {value['id']}."}
            for number, value in requests.items()
        }

    @staticmethod
    def busy():
        return {"id": "busy_reply", "doc": "The desk's camera serves another phone."}


def sentence(text):
    """A comment of the header as a sentence."""
    return text[:1].upper() + text[1:] + ("" if text.endswith(".") else ".")


def named(constants, prefix):
    return {
        constant.value: {"id": constant.name.removeprefix(prefix).lower(), "doc": sentence(constant.meaning)}
        for constant in constants
    }


# ---- YAML --------------------------------------------------------------------------------------------------


NO_TEXTS = {"true", "false", "yes", "no", "on", "off", "null", "y", "n"}  # what YAML takes them for without quotes


class Quoted(str):
    """A text that would be a number without its quotes."""


def yaml(value, indent=0):
    """The lines of a dictionary or list, each entry on lines of its own."""
    blanks = " " * indent
    if isinstance(value, list):
        for item in value:
            first, *others = yaml(item, indent + 2)
            yield f"{blanks}- {first.lstrip()}"
            yield from others
        return
    for key, item in value.items():
        yield from yaml_entry(f"{blanks}{yaml_key(key)}:", item, indent)


def yaml_entry(head, item, indent):
    if isinstance(item, dict):
        yield head
        yield from yaml(item, indent + 2)
    elif isinstance(item, list):
        yield head
        yield from yaml(item, indent + 2)
    elif head.endswith("doc:"):
        yield f"{head} |"
        blanks = " " * (indent + 2)
        yield from textwrap.wrap(item, LINE, initial_indent=blanks, subsequent_indent=blanks, break_on_hyphens=False)
    else:
        yield f"{head} {yaml_scalar(item)}"


def yaml_key(key):
    return f"0x{key:x}" if isinstance(key, int) and key >= 0x1000 else yaml_scalar(key)


def yaml_scalar(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, int):
        return str(value)
    if isinstance(value, Quoted):
        return f"'{value}'"
    is_plain = re.fullmatch(r"[A-Za-z_][\w ./-]*", value) and value.lower() not in NO_TEXTS
    return value if is_plain else json.dumps(value, ensure_ascii=False)


# ---- The JSON Schema ---------------------------------------------------------------------------------------

# It comes from the desk, which knows the words of each field. Just what knows them is built.
SCHEMA_BUILD = pathlib.Path("build", "schema")
SCHEMA_OPTIONS = ["CMAKE_BUILD_TYPE=Debug", "CMAKE_CXX_FLAGS_DEBUG=-O0", "SHOTMENTOR_DESK=WIRE"]
SCHEMA_OPTIONS += ["SHOTMENTOR_TESTS=OFF", "SHOTMENTOR_INSTALL=OFF"]


def schema(root):
    build = root / SCHEMA_BUILD
    run("cmake", "-S", root, "-B", build, "-G", "Ninja", *(f"-D{option}" for option in SCHEMA_OPTIONS))
    run("cmake", "--build", build, "--target", "print_schema")
    return run(build / "Desk" / "PresetFiles" / "print_schema")


def run(*command):
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, check=False)
    if done.returncode != 0:
        said = [line for line in (done.stdout + done.stderr).splitlines() if "rror" in line] or ["it does not say why"]
        raise Fault(f"{SCHEMA}: {' '.join(map(str, command[:2]))} failed: {said[0].strip()}")
    return done.stdout


# ---- Files -------------------------------------------------------------------------------------------------


def read(path):
    try:
        return path.read_text(encoding="utf-8")
    except FileNotFoundError:
        return ""


def page(root, fields):
    tables = {
        HEADER: page_table(fields),
        SHUTTER_TIMES: scale_table("Time", shutter_times(root)),
        ISO_NUMBERS: scale_table("ISO number", iso_numbers(root)),
    }
    return page_with(read(root / PAGE), tables)


def ksy(protocol, fields):
    return "\n".join(yaml(Description(protocol, fields).whole())) + "\n"


def made_files(root, wanted):
    """The text of each file, by its path below the root."""
    protocol = protocol_fields.read(root / HEADER)
    fields = described(protocol.fields)
    makers = {
        PAGE: lambda: page(root, fields),
        KSY: lambda: ksy(protocol, fields),
        DISSECTOR: lambda: dissector_tables.dissector(root, protocol, fields),
        SCHEMA: lambda: schema(root),
    }
    unknown = [path for path in wanted if path not in makers]
    if unknown:
        raise Fault(f"{COMMAND}: {unknown[0]} is none of {', '.join(map(str, makers))}")
    return {path: make() for path, make in makers.items() if not wanted or path in wanted}


def check(root, wanted):
    differing = [path for path, text in made_files(root, wanted).items() if read(root / path) != text]
    for path in differing:
        print(f"{path} is not what the sources make; {COMMAND} makes it anew", file=sys.stderr)
    return 1 if differing else 0


def make(root, wanted):
    for path, text in made_files(root, wanted).items():
        (root / path).parent.mkdir(exist_ok=True)
        (root / path).write_text(text, encoding="utf-8")
    return 0


def main():
    parser = argparse.ArgumentParser(
        description="Makes all that describes the protocol from the header of the records."
    )
    parser.add_argument("--check", action="store_true", help="fail where a file is not what the sources make")
    parser.add_argument("--root", type=pathlib.Path, default=ROOT, help="the folder of the source tree")
    parser.add_argument(
        "files", metavar="FILE", nargs="*", type=pathlib.Path, help="what to make; all if none is given"
    )
    options = parser.parse_args()
    try:
        return (check if options.check else make)(options.root, options.files)
    except (Fault, protocol_fields.HeaderError, OSError, UnicodeDecodeError) as error:
        print(error, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
