#!/usr/bin/env python3
"""Fails when a line is longer than 120 characters, or when a comment of a public header is torn.

Usage: tools/check_lines.py FILE...

In Markdown, tables and code blocks may be as wide as they need to be. A comment of a `Src/*.h` header is torn when
something has filled its lines anew without knowing a table or a list from running text. That leaves behind
- columns in running text: a line at the comment's margin with three blanks or more between two words,
- a fallen item: a line at the margin that begins in the middle of a sentence, right below an indented one, or
- an orphan: a line of fewer than 20 characters in the middle of a sentence.
"""

import re
import sys

LIMIT = 120
SHORT = 20


def prose(lines):
    """The lines of Markdown that are neither a table's nor in a code block, with their numbers."""
    fenced = indented = False
    above = ""
    for number, line in lines:
        # An indented block begins below an empty line; right below a text, an indented line belongs to a list's item.
        indented = line.startswith("    ") and (indented or not above)
        above = line
        if line.lstrip().startswith("```"):
            fenced = not fenced
        elif not (fenced or indented or line.startswith("|")):
            yield number, line


def too_long(path, lines):
    checked = prose(lines) if path.endswith(".md") else lines
    return [(number, f"{len(line)} characters; the limit is {LIMIT}") for number, line in checked if len(line) > LIMIT]


def comment_text(line):
    """The text behind ` * `, its indentation kept; None outside a comment of several lines."""
    match = re.match(r" \*(?: (.*))?$", line)
    return None if match is None else match.group(1) or ""


def is_orphan(text, following):
    continues = following is not None and re.match(r" *[a-z`(]", following) and indent(following) == indent(text)
    return 0 < len(text.strip()) < SHORT and continues and not re.search(r"[.:;]$|\S {2,}\S", text)


def indent(text):
    return len(text) - len(text.lstrip())


def torn(lines):
    texts = [(number, comment_text(line)) for number, line in lines]
    before = [None] + [text for _, text in texts[:-1]]
    following = [text for _, text in texts[1:]] + [None]
    for (number, text), above, after in zip(texts, before, following):
        if text is None:
            continue
        if above and indent(above) > 0 and re.match(r"[a-z`(]", text):
            yield number, "the margin in the middle of an indented sentence: a torn list"
        if re.match(r"\S.*\S {3,}\S", text):
            yield number, "columns in running text: a torn table or list"
        if is_orphan(text, after):
            yield number, "a short line in the middle of a sentence: a torn paragraph"


def faults(path):
    with open(path, encoding="utf-8") as file:
        lines = list(enumerate(file.read().splitlines(), 1))
    found = too_long(path, lines)
    if re.search(r"(^|/)Src/[^/]*\.h$", path):
        found += torn(lines)
    return [f"{path}:{number}: {fault}" for number, fault in sorted(found)]


def main():
    found = [fault for path in sys.argv[1:] for fault in faults(path)]
    print(*found, sep="\n", end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
