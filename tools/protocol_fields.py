"""The wire format as Python objects, read from the field lists, enums and structs of ADE_ShotMentor_Records.h.

What documents or takes the protocol apart is made from these, so that a field is described in one place. The header is
read strictly: where a line cannot be understood, a number does not fit its neighbours or a comment is missing, reading
ends in a HeaderError that names the file and the line.

    for field in protocol_fields.fields():
        print(field.offset, field.name, field.meaning)
"""

import dataclasses
import pathlib
import re

HEADER = pathlib.Path(__file__).resolve().parent.parent / "Src" / "ADE_ShotMentor_Records.h"

WORD = 4
COLOR = 3 * WORD
KINDS = {"TEXT": "text", "WORD": "word", "WORDS": "words", "COLORS": "colors"}
UNIT_SIZES = {"text": 1, "word": WORD, "words": WORD, "colors": COLOR}

COMMENT = re.compile(r"\s*/\*\s*(.*?)\s*\*/\s*")
ENTRY = re.compile(r"\s*([A-Z]+)\((\w+), (\w+)(?:, (\w+))?\)\s*")
CONSTANT = re.compile(r"\s*(SM_\w+) = (-?\w+),?\s*(?:/\* (.*?) \*/)?\s*")
MEMBER = re.compile(r"\s*(\w+) (\w+)(?:\[(\w+)\])?;\s*(?:/\* (.*?) \*/)?\s*")
LIST_IN_STRUCT = re.compile(r"\s*(SM_\w+_FIELDS)\(.*\)\s*")
SIZE = re.compile(r'static_assert\(sizeof\((\w+)\) == (\d+), ".*"\);')


class HeaderError(Exception):
    """What the header says cannot be understood; the text names the file and the line."""


@dataclasses.dataclass(frozen=True)
class Field:
    """A field of the preset records. The offset counts from the start of the record, inside the style block too."""

    name: str
    offset: int
    kind: str  # "text", "word", "words" or "colors": triples of words, red, green, blue
    size: int  # bytes of the whole field
    count: int  # its words or triples; 1 for a word and a text
    in_style: bool  # belongs to the colour-style block `cs_info`
    phone_only: bool  # stands in the phone's record alone
    meaning: str  # the comment above it, which neighbours of one kind share


@dataclasses.dataclass(frozen=True)
class Constant:
    """An enumerator, with the comment behind it; where there is none, the one above its enum."""

    name: str
    value: int
    meaning: str


@dataclasses.dataclass(frozen=True)
class Member:
    """A member of a struct: a head of a reply, a frame, an entry of a request."""

    name: str
    type: str  # "int32_t", "char" or the name of another struct
    count: int
    meaning: str


@dataclasses.dataclass(frozen=True)
class Protocol:
    """All that the header says."""

    fields: list  # of Field, in the order of their offsets
    constants: dict  # Constant by name
    structs: dict  # list of Member by name, for the structs that no field list makes
    sizes: dict  # bytes by name of struct

    def functions(self):
        """The function numbers of requests that there are."""
        return [function for function in self._begin_with("SM_FUNCTION_") if function.name != "SM_FUNCTION_LAST"]

    def results(self):
        return self._begin_with("SM_RETURN_")

    def modes(self):
        return self._begin_with("SM_MODE_")

    def _begin_with(self, prefix):
        return [constant for name, constant in self.constants.items() if name.startswith(prefix)]


def read(path=HEADER):
    """Reads a header into a Protocol."""
    return _Reader(pathlib.Path(path)).protocol()


def fields(path=HEADER):
    """The fields of the phone's record in the order of their offsets."""
    return read(path).fields


class _Reader:
    def __init__(self, path):
        self.path = path
        self.lines = path.read_text(encoding="utf-8").splitlines()
        self.constants = {}

    def protocol(self):
        self._read_constants()
        sizes = self._sizes()
        style = self._field_list("SM_CS_INFO_FIELDS", {})
        found = self._field_list("SM_CUSTOM_INFO_FIELDS", {"sm_cs_info": style})
        self._hold_size("tag_custom_info", found, sizes)
        structs = self._structs()
        own = structs.pop("sm_tag_custom_info", [])
        found += self._words_of_the_phone(own, found[-1].offset + found[-1].size)
        self._hold_size("sm_tag_custom_info", found, sizes)
        return Protocol(found, self.constants, structs, sizes)

    def fault(self, index, what):
        raise HeaderError(f"{self.path}:{index + 1}: {what}")

    def missing(self, what):
        raise HeaderError(f"{self.path}:{len(self.lines)}: the file ends without {what}")

    # ---- Enums -----------------------------------------------------------------------------------------------

    def _read_constants(self):
        for index, line in enumerate(self.lines):
            if line == "enum {":
                self._enum(index)
            elif line.startswith("enum {"):
                self._enum_in_a_line(index)

    def _enum(self, start):
        for index in range(start + 1, len(self.lines)):
            if self.lines[index] == "};":
                return
            match = CONSTANT.fullmatch(self.lines[index])
            if not match or not match[3]:
                self.fault(index, "no enumerator of the form `SM_NAME = value, /* meaning */`")
            self._add_constant(index, match[1], match[2], match[3])
        self.missing(f"the end of the enum of line {start + 1}")

    def _enum_in_a_line(self, index):
        body = re.fullmatch(r"enum \{ (.*) \};", self.lines[index])
        match = CONSTANT.fullmatch(body[1]) if body else None
        above = COMMENT.fullmatch(self.lines[index - 1])
        if not match or not above:
            self.fault(index, "an enum in one line holds one enumerator and has a comment in the line above")
        self._add_constant(index, match[1], match[2], above[1].rstrip("."))

    def _add_constant(self, index, name, value, meaning):
        if name in self.constants:
            self.fault(index, f"{name} is there twice")
        self.constants[name] = Constant(name, self._number(index, value), meaning)

    def _number(self, index, text):
        if text in self.constants:
            return self.constants[text].value
        try:
            return int(text, 0)
        except ValueError:
            self.fault(index, f"{text} is neither a number nor a name of an enum above")

    # ---- Field lists -----------------------------------------------------------------------------------------

    def _field_list(self, name, blocks):
        """The fields of a list; `blocks` are the lists that it may nest, by the name of their struct."""
        start = self._find(rf"#define {name}\(.*\)\s*\\", f"the list {name}")
        found, meaning, in_comment = [], None, False
        for index, line in self._continued(start):
            comment = COMMENT.fullmatch(line)
            if comment:
                meaning = f"{meaning} {comment[1]}" if in_comment else comment[1]
            else:
                found += self._entry(index, line, meaning, blocks)
                self._hold_order(index, found)
            in_comment = bool(comment)
        if not found:
            self.fault(start, f"{name} has no field")
        return found

    def _find(self, pattern, what):
        for index, line in enumerate(self.lines):
            if re.fullmatch(pattern, line):
                return index
        return self.missing(what)

    def _continued(self, start):
        """The lines below the head of a macro that belong to it, without the backslashes at their ends."""
        for index in range(start + 1, len(self.lines)):
            line = self.lines[index].rstrip()
            yield index, line.removesuffix("\\")
            if not line.endswith("\\"):
                return

    def _entry(self, index, line, meaning, blocks):
        match = ENTRY.fullmatch(line)
        if not match or match[1] not in {*KINDS, "BLOCK"} or (match[4] is None) != (match[1] == "WORD"):
            self.fault(index, "no field of the form TEXT(name, offset, size), WORD(name, offset), ...")
        if not meaning:
            self.fault(index, f"{match[2]} has no comment above it")
        if match[1] == "BLOCK":
            return self._block(index, match, blocks)
        offset, count = self._number(index, match[3]), self._number(index, match[4] or "1")
        if count < 1:
            self.fault(index, f"{match[2]} has no bytes")
        return [field_of(match[2], offset, KINDS[match[1]], count, meaning)]

    def _block(self, index, match, blocks):
        if match[4] not in blocks:
            self.fault(index, f"{match[4]} is no block that is known")
        block = blocks[match[4]]
        if block[0].offset != self._number(index, match[3]):
            self.fault(index, f"{match[2]} begins at {match[3]}, but its first field at {block[0].offset}")
        return [dataclasses.replace(field, in_style=True) for field in block]

    def _hold_order(self, index, found):
        """Fields lie without gaps; a list begins where its first field says."""
        for before, field in zip(found, found[1:]):
            if before.offset + before.size != field.offset:
                self.fault(index, f"{field.name} is at {field.offset}, but {before.name} ends at {end_of(before)}")
        if len({field.name for field in found}) != len(found):
            self.fault(index, f"{found[-1].name} is there twice")

    # ---- Structs ---------------------------------------------------------------------------------------------

    def _structs(self):
        found = {}
        for index, line in enumerate(self.lines):
            match = re.fullmatch(r"typedef struct (\w+) \{", line)
            if match:
                found[match[1]] = self._members(index)
        return {name: members for name, members in found.items() if members}

    def _members(self, start):
        """The members that stand in a struct itself; those of a field list are left out."""
        found, above = [], None
        for index in range(start + 1, len(self.lines)):
            line = self.lines[index]
            if line.startswith("}"):
                return found
            comment = COMMENT.fullmatch(line)
            if not comment and not LIST_IN_STRUCT.fullmatch(line):
                found.append(self._member(index, line, above))
            above = comment[1] if comment else None
        return self.missing(f"the end of the struct of line {start + 1}")

    def _member(self, index, line, above):
        match = MEMBER.fullmatch(line)
        if not match:
            self.fault(index, "no member of the form `type name; /* meaning */`")
        meaning = match[4] or above
        if not meaning and match[1] != "sm_frame":
            self.fault(index, f"{match[2]} has no comment")
        return Member(match[2], match[1], self._number(index, match[3] or "1"), meaning or "")

    def _words_of_the_phone(self, members, offset):
        for member in members:
            if member.type != "int32_t" or member.count != 1:
                raise HeaderError(f"{self.path}: {member.name} of the phone's record is no word")
        places = range(offset, offset + WORD * len(members), WORD)
        return [
            dataclasses.replace(field_of(member.name, place, "word", 1, member.meaning), phone_only=True)
            for place, member in zip(places, members)
        ]

    # ---- Sizes -----------------------------------------------------------------------------------------------

    def _sizes(self):
        matches = filter(None, map(SIZE.fullmatch, self.lines))
        return {match[1]: int(match[2]) for match in matches}

    def _hold_size(self, record, found, sizes):
        if record not in sizes:
            self.missing(f"static_assert(sizeof({record}) == ...)")
        if end_of(found[-1]) != sizes[record]:
            raise HeaderError(
                f"{self.path}: {record} has {sizes[record]} bytes, but its last field, {found[-1].name}, "
                f"ends at {end_of(found[-1])}"
            )


def field_of(name, offset, kind, count, meaning):
    """A field outside the style block, whose size follows from its kind and what it counts."""
    size = UNIT_SIZES[kind] * count
    return Field(name, offset, kind, size, 1 if kind == "text" else count, False, False, meaning)


def end_of(field):
    return field.offset + field.size
