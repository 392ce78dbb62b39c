#!/usr/bin/env python3
"""Makes what describes the protocol from the header of the records.

Usage: tools/make_protocol.py [--check] [--root FOLDER]

Writes the tables of the preset record and of its scales in Docs/protocol.md, between their marks, and
Protocol/shotmentor.ksy, a description for the Kaitai Struct compiler, which makes parsers for a dozen languages from
it. With --check nothing is written: it fails where a file is not what the sources make. Other files than this source
tree's are made in FOLDER.

The fields come from Src/ADE_ShotMentor_Records.h. What the header does not say of them stands in DETAILS, and nowhere
else: what travels of them, what 0 means, who writes them, and what each of several fields is that share a comment.
"""

import argparse
import dataclasses
import json
import pathlib
import re
import sys
import textwrap

import protocol_fields
from protocol_fields import WORD

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADER = pathlib.Path("Src", "ADE_ShotMentor_Records.h")
PAGE = pathlib.Path("Docs", "protocol.md")
KSY = pathlib.Path("Protocol", "shotmentor.ksy")
SHUTTER_TIMES = pathlib.Path("Desk", "Values", "Scales.cpp")
ISO_NUMBERS = pathlib.Path("Src", "ADE_ShotMentor_Tables.h")
COMMAND = "tools/make_protocol.py"
LINE = 120

# The tables of the page, by what stands in the line above each, and what in the line below.
BEGIN = "<!-- {source} makes this table, by {command}. -->"
END = "<!-- The table ends here. -->"


class Fault(Exception):
    """What keeps the files from being made, in one line."""


# ---- What the header does not say --------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Detail:
    """What travels of a field, in the phone's record."""

    value: str = "the camera's own code"
    zero: str = "a code like any other"
    writer: str = "both"  # "phone", "camera" or "both", as the page explains it
    own: str = ""  # for a field that shares its comment: what this one is, instead of the comment
    more: str = ""  # what follows the comment


def of_each(prefix, names, what, detail=Detail()):
    """Details of fields that share a comment: `names` are their names behind the prefix, and what each of them is."""
    return {
        f"{prefix}{name}": dataclasses.replace(detail, own=what.format(meaning=meaning))
        for name, meaning in names.items()
    }


PLACE = {
    "pos_x": "horizontal position",
    "pos_y": "vertical position",
    "width": "width",
    "height": "height",
    "box_size": "size of its box",
}
BALANCES = {
    "auto": "auto",
    "auto_tungsten": "auto tungsten",
    "daylight": "daylight",
    "cloudy": "cloudy",
    "flu_w": "fluorescent white",
    "flu_n": "fluorescent neutral",
    "flu_d": "fluorescent daylight",
    "tungsten": "tungsten",
    "flash": "flash",
    "cwb": "custom",
    "k": "Kelvin",
}
STYLE_CODES = {"saturation": "Saturation", "sharpness": "Sharpness", "contrast": "Contrast", "hue": "Hue"}

DETAILS = {
    "title": Detail("bytes, ended by a NUL where there is room for one", "no title"),
    "mode": Detail("0 auto, 1 program, 2 aperture, 3 shutter, 4 manual", "auto"),
    "av_index": Detail("f-number × 10: 28 is f/2.8", "no aperture"),
    "tv_index": Detail("position 0 to 109 among the shutter times", "no shutter time"),
    "iso": Detail("ISO number", "automatic"),
    "iso_1_3": Detail(
        "from the camera: ISO number; from the phone: position 0 to 30 among the sensitivities", "automatic"
    ),
    "ev_step": Detail("50 + 10 × EV, its fraction cut off towards 50: 53 is +1/3 EV, 44 is -2/3 EV", "-5 EV"),
    "type": Detail("0 to 10: " + ", ".join(BALANCES.values()), "auto"),
    "k_value": Detail("kelvin", "no colour temperature"),
    **of_each("cwb_", {"red": "red", "green": "green", "blue": "blue"}, "Custom white balance: {meaning}."),
    **of_each(
        "",
        {f"{name}_xy": meaning for name, meaning in BALANCES.items()},
        "Fine adjustment of the white balance {meaning}.",
        Detail(zero="no adjustment"),
    ),
    "color_style": Detail("0 to 13; 10 to 13 are C1 to C4", "style 0"),
    "cs_color_off_color": Detail("the camera's own code; -1"),
    "cs_color": Detail("each 0 to 255", "the least of this colour"),
    **of_each("cs_", STYLE_CODES, "{meaning} of the styles 0 to 13, style s at index s."),
    "smart_filter": Detail(zero="no filter"),
    **of_each("", {"flash": "Flash", "flash_ev": "Flash compensation"}, "{meaning}."),
    **of_each("af_", {"mode": "mode", "area": "area"}, "Autofocus: {meaning}."),
    **of_each("selection_af_", PLACE, "Selection AF frame: {meaning}."),
    **of_each(
        "multi_af_",
        PLACE,
        "Multi AF frame: {meaning}. The phone has no use for it but carries it.",
        Detail(writer="camera"),
    ),
    **of_each(
        "timer_",
        {"time": "delay", "count": "number of shots", "interval": "interval between shots"},
        "Self-timer: {meaning}.",
    ),
    "counti_h_frame": Detail(own='Continuous drive: high speed. "counti" is the camera\'s spelling.'),
    "counti_n_frame": Detail(own="Continuous drive: normal speed."),
    "burst_frame": Detail(own="Continuous drive: burst."),
    "reserved_636": Detail("any", "nothing"),
    "preset_num": Detail("0 to 39", "the first preset", "camera"),
    "custom_id": Detail("above 0", "no preset", "camera"),
    "applocal_id": Detail("any number of the phone's", "a number like any other", "phone"),
    "server_id": Detail("any number of the phone's", "a number like any other", "phone"),
    "made_id": Detail(
        "lowest hexadecimal digit: kind; second: family, 4 for KT; third: maker, 1 for korvel",
        "made elsewhere",
        more="When the camera stores a korvel-made KT preset with a smart filter, it keeps only the digits 2 to 4.",
    ),
    "screennail_path": Detail("bytes, ended by a NUL where there is room for one", "no picture", "camera"),
    "linked_custom_mode": Detail("0 to 2", "no custom mode", "camera"),
}


@dataclasses.dataclass(frozen=True)
class Described:
    """A field with all that is said of it."""

    field: protocol_fields.Field
    detail: Detail
    meaning: str


def described(fields):
    """The fields with their details. One whose comment stands for several has to say which of them it is."""
    names = {field.name for field in fields}
    for name in DETAILS:
        if name not in names:
            raise Fault(f"{COMMAND}: DETAILS has {name}, which is no field of {HEADER.name}; rename it there as well")
    comments = [field.meaning for field in fields]
    return [described_field(field, comments.count(field.meaning) > 1) for field in fields]


def described_field(field, shares_comment):
    detail = DETAILS.get(field.name, Detail())
    if shares_comment != bool(detail.own):
        raise Fault(
            f"{COMMAND}: {field.name} shares its comment in {HEADER.name} with others; say in DETAILS what it is"
            if shares_comment
            else f"{COMMAND}: {field.name} has a comment of its own in {HEADER.name}; leave `own` out of its DETAILS"
        )
    return Described(field, detail, " ".join(filter(None, [detail.own or field.meaning, detail.more])))


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


def shutter_times(text):
    """The positions of the phone's shutter times, as the desk names them."""
    return pairs_in(
        SHUTTER_TIMES, text, r"constexpr ShutterTime shutter_times\[\] = \{(.*?)\n\};", r'\{(\d+), *"([^"]*)"\}'
    )


def iso_numbers(text):
    """The positions of the ISO numbers, as they stand in the library's table."""
    pattern = r"constexpr int32_t tPRO_COMMON_SV\[\] = \{(.*?)\n\};"
    numbers = pairs_in(ISO_NUMBERS, re.sub(r"/\*.*?\*/|//.*", "", text), pattern, r"()(\d+)")
    return [(str(position), number) for position, (_, number) in enumerate(numbers)]


def pairs_in(path, text, table, entry):
    """The entries of a table, of which nothing may be left over but what separates them."""
    body = re.search(table, text, re.S)
    if not body or re.sub(entry, "", body[1]).replace(",", "").strip():
        raise Fault(f"{path}: no table of the form that {COMMAND} knows; teach it the new one")
    return re.findall(entry, body[1])


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


# ---- Files -------------------------------------------------------------------------------------------------


def read(path):
    try:
        return path.read_text(encoding="utf-8")
    except FileNotFoundError:
        return ""


def made_files(root):
    """The text of each file, by its path below the root."""
    protocol = protocol_fields.read(root / HEADER)
    fields = described(protocol.fields)
    ksy = "\n".join(yaml(Description(protocol, fields).whole())) + "\n"
    tables = {
        HEADER: page_table(fields),
        SHUTTER_TIMES: scale_table("Time", shutter_times(read(root / SHUTTER_TIMES))),
        ISO_NUMBERS: scale_table("ISO number", iso_numbers(read(root / ISO_NUMBERS))),
    }
    return {PAGE: page_with(read(root / PAGE), tables), KSY: ksy}


def check(root):
    differing = [path for path, text in made_files(root).items() if read(root / path) != text]
    for path in differing:
        print(f"{path} is not what the sources make; {COMMAND} makes it anew", file=sys.stderr)
    return 1 if differing else 0


def make(root):
    for path, text in made_files(root).items():
        (root / path).parent.mkdir(exist_ok=True)
        (root / path).write_text(text, encoding="utf-8")
    return 0


def main():
    parser = argparse.ArgumentParser(description="Makes what describes the protocol from the header of the records.")
    parser.add_argument("--check", action="store_true", help="fail where a file is not what the sources make")
    parser.add_argument("--root", type=pathlib.Path, default=ROOT, help="the folder that holds Src, Docs and Protocol")
    options = parser.parse_args()
    try:
        return check(options.root) if options.check else make(options.root)
    except (Fault, protocol_fields.HeaderError, OSError, UnicodeDecodeError) as error:
        print(error, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
