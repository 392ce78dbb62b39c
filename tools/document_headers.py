#!/usr/bin/env python3
"""Prints a public header with its comments in Doxygen's form.

Usage: tools/document_headers.py HEADER

The headers are to be read as they are, so their comments have no marks. This is what the marks are made from:
- the first comment of the file; that of ADE_ShotMentor.h is the main page,
- `---- Title ----`, which begins a section, and a comment that stands alone below it,
- the comment above a declaration, which stands for all declarations of the lines right below it,
- the comment behind a declaration, a field or an enumerator; the declarations below share it until the next one,
- in a function's comment lines such as `data, length  [in] text`, below `Result` such as `-1  text`, `Result: text`,
  `Returns text`, `Whether text`, and `Aperture: argument to result; text`,
- indented lines in columns, which are tables; a title may stand above them.
The structs whose fields are a list, such as SM_CS_INFO_FIELDS, get these fields. In such a list a comment stands for
the fields below it as far as they share a word with the first one, such as cwb_red and cwb_green. What has no comment
is left to Doxygen to complain of; a value of an enum, of which Doxygen does not, is named on standard error.
"""

import html
import os
import re
import sys

MAIN = "ADE_ShotMentor.h"
PUBLIC = (MAIN, "ADE_ShotMentor_Log.h", "ADE_ShotMentor_Records.h", "ADE_ShotMentor_Services.h")
DECLARED_AS = {
    "TEXT": "char {name}[{extent}]",
    "WORD": "int32_t {name}",
    "WORDS": "int32_t {name}[{extent}]",
    "COLORS": "sm_color {name}[{extent}]",
    "BLOCK": "{extent} {name}",
}
TRAILING = re.compile(r"\s*/\* (.*?) \*/$")
FIELD = re.compile(r"([A-Z]+)\((\w+), (\d+)(?:, (\w+))?\)")


# ---- Text --------------------------------------------------------------------------------------------------


def names_in(text):
    """The functions, variables, enumerators and macros that a header declares."""
    code = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
    found = set(re.findall(r"^#define (\w+)", code, re.M))
    found |= set(re.findall(r"(\w+)(?:\[\w+\])?;", "\n".join(re.findall(r"^extern .*", code, re.M))))
    found |= set(re.findall(r"^(?:\w[\w ]*?[ *]+)(\w+)\(", code, re.M))
    for body in re.findall(r"^(?:typedef )?enum[^{]*\{(.*?)\}", code, re.M | re.S):
        found |= set(re.findall(r"^\s*(\w+)", body.replace(",", "\n"), re.M))
    return found


class Text:
    """Writes running text for Doxygen: nothing in it is a command, and what the headers declare is a link."""

    def __init__(self, names):
        self.names = names

    def __call__(self, text):
        pieces = re.split(r'(`[^`]*`|"[^"]*")', text)
        return "".join(self.quoted(piece) if i % 2 else self.plain(piece) for i, piece in enumerate(pieces))

    def plain(self, text):
        return re.sub(r"\w+", self.link, self.escaped(text))

    def link(self, match):
        return f"#{match.group()}" if match.group() in self.names else match.group()

    def quoted(self, piece):
        return f"`{piece.strip('`')}`"

    @staticmethod
    def escaped(text):
        return re.sub(r"([\\@%#])", r"\\\1", html.escape(text, quote=False))


# ---- Comments ----------------------------------------------------------------------------------------------


def comment_lines(lines):
    """The text of a comment, its indentation kept."""
    text = "\n".join(lines)
    text = re.sub(r"^/\*\n?|\s*\*/$", "", text)
    return [
        re.sub(r"^ \* ?", "", line) if i or lines[0] == "/*" else line.strip()
        for i, line in enumerate(text.split("\n"))
    ]


def paragraphs(lines):
    """Runs of lines that are all at the margin, or all indented."""
    run = []
    for line in [*lines, ""]:
        if run and (not line or line.startswith(" ") != run[-1].startswith(" ")):
            yield run
            run = []
        if line:
            run.append(line)


def table_rows(lines):
    """The cells of lines in columns. A column begins where no line has a word, nor two blanks in front of one."""
    width = max(map(len, lines))
    margin = min(len(line) - len(line.lstrip()) for line in lines)
    starts = [margin]
    for at in range(margin + 2, width):
        is_free = all(line[at - 2 : at].strip() == "" for line in lines)
        if is_free and any(line[at : at + 1].strip() for line in lines if len(line) > at):
            starts.append(at)
    rows = []
    for line in lines:
        cells = [line[start:end].strip() for start, end in zip(starts, [*starts[1:], None])]
        if cells[0] or not rows:
            rows.append(cells)
        else:
            rows[-1] = [f"{above} {cell}".strip() for above, cell in zip(rows[-1], cells)]
    return rows


def result_rows(lines):
    """(code, text) of each line below `Result`; the code is empty where the result is none of a few."""
    rows = []
    for line in lines:
        match = re.match(r" {2,4}(-?\d+|true|false) {2,}(.*)", line)
        if match:
            rows.append(match.groups())
        elif not rows or (len(line) - len(line.lstrip()) <= 3):
            rows.append(("", line.strip()))
        else:
            rows[-1] = (rows[-1][0], f"{rows[-1][1]} {line.strip()}")
    return rows


class Function:
    """What of a declaration its comment may describe."""

    def __init__(self, declaration):
        head = re.sub(r"__attribute__\(\(.*?\)\)\)? ?|ALG_LOG_INLINE |static inline ", "", declaration)
        match = re.match(r"(?:extern )?([\w ]+?[ *]+)(\w+)\((.*?)\)\s*(?:;|\{|$)", head, re.S)
        self.is_one = match is not None and not declaration.startswith(("#", "typedef", "enum"))
        self.returns = self.is_one and match.group(1).strip() != "void"
        self.parameters = re.findall(r"(\w+)(?:,|$)", match.group(3)) if self.is_one else []
        self.parameters = [name for name in self.parameters if name != "void"]


class Comment:
    """Writes a comment for Doxygen."""

    def __init__(self, text, function=None):
        self.text = text
        self.function = function or Function("")
        self.written = []

    def of(self, lines):
        runs = list(paragraphs(lines))
        for i, run in enumerate(runs):
            above = runs[i - 1] if i else []
            below = runs[i + 1] if i + 1 < len(runs) else []
            if run[0].startswith(" "):
                self.indented(run, above[-1] if above and self.adjoin(lines, above, run) else "")
            else:
                self.paragraph(run, bool(below) and below[0].startswith(" ") and self.adjoin(lines, run, below))
        return self.written

    @staticmethod
    def adjoin(lines, above, below):
        return any(lines[i : i + 2] == [above[-1], below[0]] for i in range(len(lines)))

    def paragraph(self, run, has_title):
        title = run[-1] if has_title and not run[-1].endswith((":", ".")) else ""
        sentence = " ".join(run[:-1] if title else run)
        result = re.fullmatch(r"Result: (.*)", sentence)
        if result:
            self.add(f"@return {self.text(result.group(1))}")
        elif sentence:
            self.add(*self.prose(sentence))
        if title and title != "Result":
            self.add(f"@par {self.text(title)}")

    def prose(self, sentence):
        """A paragraph, of which a part may say what the function returns or takes."""
        if not self.function.returns or any("@return" in line for line in self.written):
            return [self.text(sentence)]
        converts = re.match(r"(?!Returns )([^:.;]+): ([^;.]*) to ([^;.]*)([;.].*)", sentence)
        if converts and len(self.function.parameters) == 1:
            _, argument, result, rest = converts.groups()
            brief = self.text(sentence[: converts.start(4)]) + "."
            parameter = f"@param {self.function.parameters[0]} {self.text(argument)}"
            return [brief, "", parameter, "", f"@return {self.text(result + rest)}"]
        result = re.search(r"(?:^|(?<=\. ))Result: (.*)|^Returns (.*)|^((?:Whether|The first) .*)", sentence)
        if result:
            shown = sentence if result.start() == 0 else sentence[: result.start()].strip()
            return [self.text(shown), "", f"@return {self.text(next(filter(None, result.groups())))}"]
        if sentence.endswith("The result is ignored."):
            return [self.text(sentence.removesuffix(" The result is ignored.")), "", "@return ignored"]
        return [self.text(sentence)]

    def indented(self, run, title):
        if title == "Result":
            for code, text in result_rows(run):
                self.add(f"@retval {code} {self.text(text)}" if code else f"@return {self.text(text)}")
            return
        if re.match(r" +1\. ", run[0]):
            self.add(*(self.text(re.sub(r"^  ", "", line)) for line in run))
            return
        if re.match(r" {4}\S", run[0]):
            self.add("@code{.c}", *(line[4:] for line in run), "@endcode")
            return
        rows = table_rows(run)
        parameters = self.function.parameters
        if parameters and all(set(re.split(", *", row[0])) <= set(parameters) for row in rows):
            for row in rows:
                self.parameter(row[0], " ".join(row[1:]))
            return
        self.add(*self.table(rows))

    def parameter(self, names, text):
        match = re.match(r"(\[[a-z, ]+\])?\s*(.*)", text)
        direction = (match.group(1) or "").replace(" ", "")
        self.add(f"@param{direction} {names.replace(', ', ',')} {self.text(match.group(2))}")

    def table(self, rows):
        lines = ["<table>"]
        has_head = len(rows[0]) > 2 and all(re.fullmatch(r"\w*", cell) for cell in rows[0])
        for row in rows:
            mark = "th" if has_head and row is rows[0] else "td"
            lines.append("<tr>" + "".join(f"<{mark}>{self.text(cell)}</{mark}>" for cell in row) + "</tr>")
        return [*lines, "</table>"]

    def add(self, *lines):
        self.written += [*([""] if self.written else []), *lines]


# ---- Lists of fields ---------------------------------------------------------------------------------------


def field_lists(text):
    """For each macro such as SM_CS_INFO_FIELDS its fields: kind, name, offset, extent and what is said of it."""
    lists = {}
    for name, body in re.findall(r"^#define (SM_\w+_FIELDS)\([^)]*\)((?:.*\\\n)*.*)", text, re.M):
        comment, first, fields, is_new = "", "", [], False
        for line in body.replace("\\\n", "\n").splitlines():
            said = re.match(r"\s*/\* (.*?)\s*\*/", line)
            field = FIELD.search(line)
            if said:
                comment = f"{comment} {said.group(1)}" if is_new else said.group(1)
                is_new = True
            elif field:
                first = field.group(2) if is_new else first
                is_new = False
                words = set(first.split("_")) & set(field.group(2).split("_"))
                fields.append((*field.groups(), comment if words else ""))
        lists[name] = fields
    return lists


def declared_fields(fields, text):
    for kind, name, offset, extent, comment in fields:
        if comment:
            yield f"    /** {text(comment)} At byte {offset}. */"
        yield f"    {DECLARED_AS[kind].format(name=name, extent=extent)};"


# ---- The header --------------------------------------------------------------------------------------------


def items(lines):
    """The comments, declarations and blank lines of a header: kind and lines of each."""
    i = 0
    while i < len(lines):
        end = i
        if lines[i].startswith("/*"):
            kind = "comment"
            while "*/" not in lines[end]:
                end += 1
        elif lines[i].startswith("#define"):
            kind = "declaration"
            while lines[end].endswith("\\"):
                end += 1
        elif not lines[i] or lines[i].startswith(("#", "static_assert", 'extern "C"', "}", "SM_")):
            kind = "blank" if not lines[i] else "other"
        else:
            kind = "declaration"
            has_body = re.match(r"(typedef )?(enum|struct)\b.*\{$", lines[i])
            while not re.search(r";(\s*/\*.*\*/)?$" if not has_body else r"^\}.*;$", lines[end]):
                has_body = has_body or lines[end].endswith("{")
                if has_body and lines[end] == "}":
                    break
                end += 1
        yield kind, lines[i : end + 1]
        i = end + 1


class Header:
    def __init__(self, path):
        with open(path, encoding="utf-8") as file:
            content = file.read()
        self.name = os.path.basename(path)
        self.items = list(items(content.splitlines()))
        self.fields = field_lists(content)
        self.text = Text(names_beside(path))
        self.written = []
        self.is_in_section = False
        self.behind = ""  # what the comment behind a declaration said, for the rest of its run
        self.gaps = []  # values without a comment, which Doxygen lets pass

    def documented(self):
        has_head = False
        comment = []  # what stands for the declarations of this run
        for i, (kind, lines) in enumerate(self.items):
            following = self.items[i + 1][0] if i + 1 < len(self.items) else "blank"
            if kind != "declaration":
                self.behind = ""
            if kind == "comment":
                comment = []
                if not has_head:
                    has_head = True
                    self.head(comment_lines(lines))
                elif re.match(r"/\* -{4}", lines[0]):
                    self.section(i)
                elif following == "declaration":
                    comment = comment_lines(lines)
            elif kind == "declaration":
                self.declaration(comment, lines)
            elif kind == "other" and not lines[0].startswith(("static_assert", "SM_")):
                self.written += lines
            else:
                comment = []
                self.written += [""]
        self.end_section()
        return self.written

    def head(self, lines):
        written = Comment(self.text).of(lines)
        if self.name == MAIN:
            self.block([f"@mainpage {lines[0].partition(':')[0]}", "", *written])
            self.block([f"@file {self.name}", "What a host calls. The main page says how."])
        else:
            self.block([f"@file {self.name}", *written])

    def section(self, i):
        self.end_section()
        title = re.sub(r"^/\* -+ | -+ \*/$", "", self.items[i][1][0])
        kinds = [kind for kind, _ in self.items[i + 1 : i + 4]]
        text = []
        if kinds == ["blank", "comment", "blank"] and not self.items[i + 2][1][0].startswith("/* --"):
            text = Comment(self.text).of(comment_lines(self.items[i + 2][1]))
        self.block([f"@name {title}", *text, "@{"])
        self.is_in_section = True

    def end_section(self):
        if self.is_in_section:
            self.block(["@}"])
        self.is_in_section = False

    def block(self, lines):
        self.written += ["/**", *(f" * {line}".rstrip() for line in lines), " */"]

    def declaration(self, comment, lines):
        code = "\n".join(lines)
        trailing = TRAILING.search(lines[0]) if len(lines) == 1 else None
        self.behind = trailing.group(1) if trailing else self.behind
        said = [self.behind, ""] * bool(self.behind) + comment
        if said:
            self.block(Comment(self.text, Function(code)).of(said))
        if re.match(r"(typedef )?(enum|struct)\b", code):
            self.members(lines, comment)
        else:
            self.written += [TRAILING.sub("", lines[0]), *lines[1:]] if not code.startswith("#") else self.macro(lines)

    @staticmethod
    def macro(lines):
        """Without its body, which is not for the reader."""
        return [re.sub(r"^(#define \w+(?:\([^)]*\))?).*", r"\1", lines[0])]

    def members(self, lines, comment):
        if len(lines) == 1:  # what is said of the enum is said of its values
            said = self.text(" ".join(comment))
            mark = f" /**< {said} */" if said else ""
            names = re.search(r"\{ ?(.*?) ?\}", lines[0]).group(1).split(", ")
            self.gaps += [] if said else names
            self.written += ["enum {", *(f"    {name},{mark}" for name in names), "};"]
            return
        for line in lines:
            fields = re.match(r"\s*(SM_\w+_FIELDS)\(", line)
            trailing = TRAILING.search(line)
            above = re.match(r"\s+/\* (.*) \*/$", line)
            if fields:
                self.written += declared_fields(self.fields[fields.group(1)], self.text)
            elif above:
                self.written.append(f"    /** {self.text(above.group(1))} */")
            elif trailing:
                self.written.append(f"{TRAILING.sub('', line)} /**< {self.text(trailing.group(1))} */")
            else:
                self.written.append(line)
                value = re.match(r"    (\w+)(?: = [^;]*)?,?$", line)
                self.gaps += [value.group(1)] if value else []


def names_beside(path):
    """What the public headers in the header's folder declare."""
    names = set()
    for name in PUBLIC:
        beside = os.path.join(os.path.dirname(path), name)
        if os.path.exists(beside):
            with open(beside, encoding="utf-8") as file:
                names |= names_in(file.read())
    return {name for name in names if not re.match(r"alg_log_|ADE_SHOTMENTOR_|SM_(DECLARE|ASSERT)_", name)}


def main():
    if len(sys.argv) != 2:
        print("usage: tools/document_headers.py HEADER", file=sys.stderr)
        return 2
    header = Header(sys.argv[1])
    print("\n".join(header.documented()))
    for name in header.gaps:
        print(f"{header.name}: error: the value {name} is not documented", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
