"""Text of others on its way to a terminal: titles and the model from a camera, files and arguments.

No control character, no format character and no separator of lines or paragraphs comes out raw, whichever way
it came in; and those who read the JSON get every character back.
"""

import json
import os
import re
import struct
import sys
import unicodedata
import unittest

from desk import (
    DELETE, LIST, PHONE_RECORD, PICTURE, REPLY, STORE, TITLE_SIZE, UPDATE, DeskTest, FakeCamera, changed, delete_reply,
    entries_of, list_reply, phone_record, picture, record_to_json, request, rich_record, run_on_terminal, run_phone,
)  # fmt: skip
from jpegs import encoded

# Half of a surrogate pair (Cs) is no character; JSON files can name it all the same.
HARMFUL = [c for c in map(chr, range(sys.maxunicode + 1)) if unicodedata.category(c) in ("Cc", "Cf", "Zl", "Zp")]
BROKEN = [bytes([byte]) for byte in range(0x80, 0x100)]
PRESETS_AT_ONCE = 40


def is_harmful(character):
    return character != "\n" and unicodedata.category(character) in ("Cc", "Cf", "Cs", "Zl", "Zp")


def pieces(texts, size):
    """The texts put together to as few as hold at most so many bytes each."""
    joined = [b""]
    for text in texts:
        if len(joined[-1]) + len(text) > size:
            joined.append(b"")
        joined[-1] += text
    return joined


def titles():
    """Every harmful character and every broken byte, between letters. A NUL would end the title."""
    return pieces([f"a{c}".encode() for c in HARMFUL if c != "\0"], TITLE_SIZE) + pieces(
        [b"b" + byte for byte in BROKEN], TITLE_SIZE
    )


class Text(DeskTest):
    def setUp(self):
        super().setUp()
        self.titles = titles()
        self.image = self.file("p.jpg", picture(1))

    def assertHarmless(self, done, lines=None):
        """Nothing harmful on either way out, and no line more than there should be."""
        for name, data in (("standard output", done.stdout), ("standard error", done.stderr)):
            text = data.decode()  # raises where it is no UTF-8
            found = sorted({f"U+{ord(c):04X}" for c in text if is_harmful(c)})
            self.assertEqual(found, [], f"on {name}: {text[:300]!r}")
        if lines is not None:
            self.assertEqual((done.stdout + done.stderr).count(b"\n"), lines, done.stderr)

    def each_camera(self, model=b"KT7"):
        """Cameras that hold all titles among them, with the records of each."""
        for start in range(0, len(self.titles), PRESETS_AT_ONCE):
            records = [
                phone_record(title, custom_id=number + 1, preset_num=number)
                for number, title in enumerate(self.titles[start : start + PRESETS_AT_ONCE])
            ]
            answers = {
                LIST: request(REPLY + LIST, struct.pack("<12sii", model, 1, len(records)) + b"".join(records)),
                DELETE: delete_reply(-7, records, kept=1),
            }
            yield records, lambda: FakeCamera(self.folder, lambda function, _: answers[function])

    def ask(self, camera, *arguments, code=0):
        with camera() as serving:
            done = run_phone(serving.url, *arguments)
        self.assertEnds(done, code)
        self.assertHarmless(done)
        return done

    def assertSameTitle(self, entry, record):
        title = record[:TITLE_SIZE]
        if isinstance(entry, dict):
            self.assertEqual(bytes.fromhex(entry["bytes"]), title)
        else:
            self.assertEqual(entry.encode().ljust(TITLE_SIZE, b"\0"), title)

    def test_there_are_as_many_harmful_characters_as_unicode_has(self):
        # 65 controls, one separator of lines, one of paragraphs; Unicode 14 has 163 format characters.
        self.assertGreaterEqual(len(HARMFUL), 65 + 2 + 163)
        for known in "\x1b\x7f\x9b\u061c\u200b\u202e\u2066\u2028\u2029\ufeff\U000e0001":
            self.assertIn(known, HARMFUL)
        everything = b"".join(self.titles)
        for character in HARMFUL:
            self.assertTrue(character == "\0" or character.encode() in everything)

    def test_titles_come_out_harmless_in_a_list(self):
        for records, camera in self.each_camera():
            for arguments in (("list",), ("list", "--raw"), ("list", "--width", 0)):
                done = self.ask(camera, *arguments)
                self.assertEqual(done.stdout.count(b"\n"), 1 + len(records))

    def test_titles_come_out_harmless_in_a_preset(self):
        for records, camera in self.each_camera():
            lines = set()
            for number in range(len(records)):
                lines.add(self.ask(camera, "show", number).stdout.count(b"\n"))
            self.assertEqual(len(lines), 1)

    def test_titles_come_out_harmless_in_raw_codes(self):
        for records, camera in self.each_camera():
            for number, record in enumerate(records):
                line = self.ask(camera, "show", number, "--raw").stdout.decode().splitlines()[0]
                self.assertSameTitle(json.loads(line.removeprefix("title").strip()), record)

    def test_titles_come_out_harmless_and_whole_in_json(self):
        for records, camera in self.each_camera():
            listed = json.loads(self.ask(camera, "--json", "--raw", "list").stdout)["presets"]
            left = json.loads(self.ask(camera, "--json", "--raw", "delete", 0, code=17).stdout)["presets"]
            for entry, again, record in zip(listed, left, records, strict=True):
                self.assertSameTitle(entry["title"], record)
                self.assertEqual(entry, record_to_json(record))
                self.assertEqual(again, entry)
            for number, record in enumerate(records):
                shown = entries_of(self.ask(camera, "--json", "--raw", "show", number).stdout)
                self.assertEqual(shown, record_to_json(record))

    def test_titles_come_out_harmless_when_presets_are_deleted(self):
        for records, camera in self.each_camera():
            done = self.ask(camera, "delete", *range(len(records)), code=17)
            self.assertEqual(done.stdout.count(b"\n"), len(records))

    def test_titles_come_out_harmless_above_pictures(self):
        records = [
            phone_record(title, custom_id=number + 1) for number, title in enumerate(self.titles[:PRESETS_AT_ONCE])
        ]
        reply = request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, len(records)) + b"".join(records))
        with FakeCamera(
            self.folder,
            lambda function, data: reply if function == LIST else request(REPLY + function, data[8:12]),
        ) as camera:
            text = run_on_terminal(camera.url, "list", "--pictures").stdout.decode()
        self.assertEqual(text.count("cannot read the picture"), len(records))
        self.assertEqual([hex(ord(c)) for c in text if is_harmful(c)], [])

    def test_path_of_a_preset_comes_out_harmless_and_whole(self):
        for title in self.titles:
            record = changed(phone_record(custom_id=3), screennail_path=title)
            reply = request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, 1) + record)
            for arguments in (("--json", "--raw", "show", 0), ("show", 0, "--raw")):
                done = self.ask(lambda reply=reply: FakeCamera(self.folder, lambda *_: reply), *arguments)
                if arguments[0] == "--json":
                    self.assertEqual(entries_of(done.stdout), record_to_json(record))

    def test_the_model_comes_out_harmless_and_whole_in_json(self):
        for model in pieces([c.encode() for c in HARMFUL if c != "\0"], 12) + pieces(BROKEN, 12):
            reply = request(REPLY + LIST, struct.pack("<12sii", model, 1, 0))
            self.ask(lambda reply=reply: FakeCamera(self.folder, lambda *_: reply), "list")
            done = self.ask(lambda reply=reply: FakeCamera(self.folder, lambda *_: reply), "--json", "list")
            self.assertEqual(json.loads(done.stdout)["model"], model.decode(errors="replace"))

    # ---- Files and arguments ----

    NOBODY = "unix:/nobody.sock"

    def refuse(self, *arguments, code, url=NOBODY, lines=1):
        done = run_phone(url, *arguments)
        self.assertEnds(done, code)
        self.assertHarmless(done, lines)

    def names(self, size=120):
        """File names and arguments with everything that they can hold: no NUL, no slash."""
        texts = [f"a{c}".encode() for c in HARMFUL if c != "\0"] + [b"b" + byte for byte in BROKEN]
        return [os.fsdecode(name) for name in pieces(texts, size)]

    def test_what_a_preset_file_holds_comes_out_harmless(self):
        good = record_to_json(rich_record())
        for title in self.titles:
            text = title.decode("utf-8", "replace")
            for entries in (
                {**good, text: 1}, {**good, "mode": text}, {**good, "title": text * 3}, [text], text,
                {**good, "cs_info": {**good["cs_info"], text: 1}},
                {**good, "title": {"bytes": text}}, {**good, "title": {text: ""}},
            ):  # fmt: skip
                file = self.file("x.json", json.dumps(entries, ensure_ascii=False))
                self.refuse("store", file, self.image, code=2)
        everything = b"".join(self.titles)
        for content in (everything, b'{"' + everything, b'{"a": ' + everything, b'"' + everything + b'"'):
            for start in range(0, len(content), 40):
                self.refuse("store", self.file("x.json", content[start:]), self.image, code=2)

    def test_half_of_a_surrogate_pair_comes_out_harmless(self):
        for text in ('{"\\ud800": 1}', '{"\\udfff": 1}', '"\\ud800"', '{"\\udb40\\udc01": 1}'):
            done = run_phone(self.NOBODY, "store", self.file("x.json", text), self.image)
            self.assertEnds(done, 2)
            self.assertHarmless(done)

    def test_names_of_files_come_out_harmless_and_in_one_line(self):
        good = json.dumps(record_to_json(rich_record()))
        for name in self.names():
            path = os.path.join(self.folder, name)
            preset = self.file("good.json", good)
            self.refuse("store", path, self.image, code=1)  # not there
            self.refuse("store", preset, path, code=1)
            self.refuse("store", self.file(name, b"5"), self.image, code=2)
            self.refuse("store", preset, path, code=2)  # no picture
            with open(path, "wb") as file:
                file.truncate(2 << 20)
            self.refuse("store", path, self.image, code=2)
            self.refuse("store", preset, path, code=2)

    def test_names_of_saved_pictures_come_out_harmless(self):
        reply = request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, 1) + phone_record(custom_id=3))
        for content, code in ((picture(1), 0), (b"", 9)):
            answers = {LIST: reply, 2: request(REPLY + 2, struct.pack("<i", 3) + content)}
            for name in self.names():
                path = os.path.join(self.folder, name)
                for arguments in (("picture", 0, "-o", path), ("--json", "picture", 0, "-o", path)):
                    done = self.ask(
                        lambda: FakeCamera(self.folder, lambda function, _: answers[function]),
                        *arguments,
                        code=code,
                    )
                    if "--json" not in arguments:
                        self.assertHarmless(done, 1)
                    elif code == 0:
                        expected = path.encode("utf-8", "surrogateescape").decode("utf-8", "replace")
                        self.assertEqual(json.loads(done.stdout)["file"], expected)
                        self.assertTrue(os.path.exists(path))
        for name in self.names():
            done = self.ask(
                lambda: FakeCamera(self.folder, lambda function, _: answers[function]), "picture", 0,
                "-o", os.path.join(self.folder, "none", name), code=9,
            )  # fmt: skip
            self.assertHarmless(done, 1)

    def test_a_picture_that_cannot_be_saved_is_named_harmlessly(self):
        reply = request(REPLY + LIST, struct.pack("<12sii", b"KT7", 1, 1) + phone_record(custom_id=3))
        answers = {LIST: reply, 2: request(REPLY + 2, struct.pack("<i", 3) + picture(1))}
        for name in self.names():
            done = self.ask(
                lambda: FakeCamera(self.folder, lambda function, _: answers[function]), "picture", 0,
                "-o", os.path.join(self.folder, "none", name), code=1,
            )  # fmt: skip
            self.assertHarmless(done, 1)

    def test_arguments_come_out_harmless_and_in_one_line(self):
        for text in self.names():
            self.refuse("list", code=2, url=text)
            self.refuse("list", code=2, url="tcp:" + text)
            for arguments in (
                (text,), ("show", "id:" + text), ("--" + text, "list"), ("--timeout", text, "list"),
                ("delete", 1, "id:" + text),
                ("rename", "id:" + text, "x"), ("list", text), ("leave", "--code", text), ("rename", 1, text * 2),
            ):  # fmt: skip
                self.refuse(*arguments, code=2)

    def test_presets_that_are_not_there_are_named_harmlessly(self):
        for text in self.names():
            for arguments in (("show", text), ("delete", 0, text), ("rename", text, "x")):
                with FakeCamera(self.folder, lambda *_: list_reply([phone_record(b"x", custom_id=3)])) as camera:
                    done = run_phone(camera.url, *arguments)
                self.assertEnds(done, 9)
                self.assertHarmless(done, 1)

    def test_cameras_that_are_not_there_are_named_harmlessly(self):
        for text in self.names(100):
            self.refuse("list", code=3, url="unix:/" + text)
        self.refuse("list", code=3, url="tcp:\x1b\u202e\n.invalid:1")

    def test_answers_to_a_request_come_out_harmless(self):
        # Function numbers and results are all that else is told of an answer: words, never bytes.
        for word in (0x1B, 0x9B9B9B9B, 0x202E202E, 0x1B5B324A):
            word = struct.unpack("<i", struct.pack("<I", word))[0]
            for reply in (
                request(word, bytes(PHONE_RECORD)),
                request(REPLY + UPDATE, struct.pack("<i", word)),
            ):
                answers = {LIST: list_reply([phone_record(custom_id=3)]), UPDATE: reply}
                with FakeCamera(self.folder, lambda function, _, answers=answers: answers[function]) as camera:
                    self.assertHarmless(run_phone(camera.url, "rename", 0, "x", "--server-id", 1), 1)


class OnATerminal(DeskTest):
    """Every command, with a title, a model, names and words that would take a terminal over."""

    # What clears the screen, sets its title, moves the cursor and turns the writing direction is none of our own.
    HOSTILE = "\x1b[2J\x1b]0;own\x07\x9b3A\r\b\u202e"
    OWN = re.compile(r"\x1b\[[0-9;]*m|\x1b\[J\r?|\r\n")
    GRAPHIC = re.compile(r"\x1b_G[^\x1b]*\x1b\\|\x1bP[^\x1b]*\x1b\\")

    def setUp(self):
        super().setUp()
        # More than 64 KiB, so that progress shows; two presets that a part of a title fits.
        self.image = picture(1, 100000)
        self.records = [phone_record(f"{n}{self.HOSTILE}".encode(), custom_id=n + 1, preset_num=n) for n in range(2)]
        self.records[1] = changed(self.records[1], linked_custom_mode=1, screennail_path=self.HOSTILE.encode())

    def answer(self, function, data):
        return {
            LIST: request(
                REPLY + LIST, struct.pack("<12sii", self.HOSTILE.encode()[:12], 1, 2) + b"".join(self.records)
            ),
            PICTURE: request(REPLY + PICTURE, data[8:12] + self.image),
            STORE: request(REPLY + STORE, struct.pack("<iiii", 1, 3, 9, 0)),
            UPDATE: request(REPLY + UPDATE, struct.pack("<i", 1)),
            DELETE: delete_reply(-7, self.records[1:], kept=1),
        }[function]

    def assertOwn(self, *arguments, code=0, url=None, **more):
        """Nothing comes to the terminal but text and the sequences that the phone itself writes."""
        with FakeCamera(self.folder, self.answer) as camera:
            done = run_on_terminal(url or camera.url, *arguments, **more)
        text = done.stdout.decode()
        self.assertEqual(done.returncode, code, text[-500:])
        left = self.OWN.sub("", self.GRAPHIC.sub("", text))
        self.assertEqual([hex(ord(c)) for c in left if is_harmful(c)], [], arguments)
        return text

    def test_no_command_lets_it_through(self):
        path = os.path.join(self.folder, self.HOSTILE)
        preset = self.file(self.HOSTILE + ".json", json.dumps(record_to_json(self.records[0])))
        image = self.file(self.HOSTILE + ".jpg", self.image)
        for arguments, code in (
            (("list",), 0), (("list", "--raw"), 0), (("--json", "list"), 0), (("list", "--pictures"), 0),
            (("show", 0, 1, "--picture"), 0), (("show", 1, "--raw"), 0), (("--json", "show", 1), 0),
            (("picture", 0, "-o", path), 0), (("--json", "picture", 0, "-o", path), 0),
            (("store", preset, image), 33), (("--json", "store", preset, image), 33), (("--verbose", "list"), 0),
            (("rename", 0, self.HOSTILE), 0), (("--json", "rename", 0, self.HOSTILE), 0),
            (("delete", 0, 1, "--dry-run"), 0), (("--json", "delete", 0, 1, "--dry-run"), 0),
            (("delete", 0, 1), 17), (("--json", "delete", 0, 1), 17), (("leave",), 0),
        ):  # fmt: skip
            for columns in (20, 60, 200):
                text = self.assertOwn(*arguments, code=code, columns=columns)
                self.assertTrue(text or arguments[0] == "leave")

    def test_no_caption_of_a_graphic_lets_it_through(self):
        self.image = encoded(b"P6", 9, 6, (bytes(27) for _ in range(6)))
        for terminal, begin in (("xterm-kitty", "\x1b_G"), ("foot", "\x1bP")):
            text = self.assertOwn("list", "--pictures", environment={"TERM": terminal})
            self.assertIn(begin, text)

    def test_no_error_and_no_help_lets_it_through(self):
        for arguments, code in (
            (("show", self.HOSTILE), 2), (("show", "[2J"), 2), (("show", "x" + self.HOSTILE), 9),
            (("picture", 0, "-o", self.HOSTILE + "/x"), 1), (("rename", 0, self.HOSTILE * 4), 2),
            (("store", self.HOSTILE, "x"), 1), (("store", "x", "-" + self.HOSTILE), 2),
            ((self.HOSTILE,), 2), (("help", self.HOSTILE), 2), ((self.HOSTILE, "--help"), 2),
            (("--" + self.HOSTILE, "list"), 2), (("--width", self.HOSTILE, "list"), 2),
            (("--timeout=" + self.HOSTILE, "list"), 2), (("leave", "--code", self.HOSTILE), 2),
        ):  # fmt: skip
            with self.subTest(arguments=arguments):
                self.assertOwn(*arguments, code=code)

    def test_no_url_of_a_camera_lets_it_through(self):
        for url, code in ((self.HOSTILE, 2), (f"tcp:{self.HOSTILE}:1", 2), (f"unix:/{self.HOSTILE}", 3)):
            self.assertOwn("list", code=code, url=url)
            self.assertOwn("list", "--verbose", code=code, url=url)


if __name__ == "__main__":
    unittest.main()
