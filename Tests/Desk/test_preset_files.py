"""Preset files: the phone and the schema agree on what may stand in them, and a person gets along without codes."""

import copy
import json
import pathlib
import subprocess
import unittest

from desk import DeskTest, entries_of, picture, record_to_json, rich_record, run_phone

SCHEMA = pathlib.Path(__file__).resolve().parents[2] / "Protocol" / "preset.schema.json"
NOWHERE = "unix:/nowhere/camera.sock"
ACCEPTED, REFUSED = 3, 2  # a preset file is read before a camera is looked for

# Debian's own Python has the validator of the package that the tests name.
VALIDATE = """
import json, sys
from jsonschema import Draft7Validator
given = json.load(sys.stdin)
Draft7Validator.check_schema(given["schema"])
validator = Draft7Validator(given["schema"])
json.dump([validator.is_valid(document) for document in given["documents"]], sys.stdout)
"""

APERTURES = (
    "f/1.1 f/1.2 f/1.4 f/1.6 f/1.8 f/2 f/2.2 f/2.5 f/2.8 f/3.2 f/3.5 f/4 f/4.5 f/5 f/5.6 f/6.3 f/7.1 f/8 f/9 f/10 f/11 "
    "f/13 f/14 f/16 f/18 f/20 f/22 f/25 f/29 f/32 f/36 f/40 f/45"
).split()


def is_valid(schema, documents):
    """Of each document, whether it keeps to the schema; which is checked itself."""
    given = json.dumps({"schema": schema, "documents": documents})
    done = subprocess.run(["/usr/bin/python3", "-c", VALIDATE], input=given.encode(), capture_output=True, check=True)
    return json.loads(done.stdout)


class Agreement(DeskTest):
    """Editors that know the schema and the phone that reads a file say the same of it."""

    def setUp(self):
        super().setUp()
        self.schema = json.loads(run_phone(None, "schema").stdout)
        self.words = json.loads(run_phone(None, "new").stdout)
        self.raw = json.loads(run_phone(None, "new", "--raw").stdout)
        self.image = self.file("x.jpg", picture(1))

    def test_schema_of_the_phone_is_the_one_that_stands_beside_the_protocol(self):
        with open(SCHEMA, encoding="utf-8") as file:
            self.assertTrue(file.read().encode() == run_phone(None, "schema").stdout, "run tools/make_protocol.py")

    def verdict(self, document):
        path = self.file("x.json", json.dumps(document))
        return run_phone(NOWHERE, "store", path, self.image).returncode

    def assertJudged(self, documents, accepted):
        """By both, each of these named documents."""
        by_schema = is_valid(self.schema, list(documents.values()))
        for (name, document), valid in zip(documents.items(), by_schema, strict=True):
            with self.subTest(document=name):
                self.assertEqual(self.verdict(document), ACCEPTED if accepted else REFUSED)
                self.assertEqual(valid, accepted, "by the schema")

    def in_words(self, **changes):
        return {**copy.deepcopy(self.words), **changes}

    def without(self, *path):
        document = copy.deepcopy(self.words)
        place = document
        for name in path[:-1]:
            place = place[name]
        del place[path[-1]]
        return document

    def in_mode(self, mode, **steps):
        document = self.in_words(mode=mode)
        for name in ("aperture", "shutter", "ev"):
            document.pop(name, None)
        return {**document, **steps}

    def test_what_new_prints_is_accepted(self):
        self.assertJudged({"words": self.words, "raw": self.raw}, True)

    def test_every_step_is_accepted(self):
        thirds = [f"{whole} {third}" if whole else third for whole in range(5) for third in ("1/3", "2/3")]
        distances = [*thirds, *map(str, range(1, 6))]
        documents = {text: self.in_words(aperture=text) for text in APERTURES}
        documents |= {f"{sign}{text} EV": self.in_words(ev=sign + text) for sign in "+-" for text in distances}
        documents["0 EV"] = self.in_words(ev="0")
        documents |= {f"ISO {iso}": self.in_words(iso=iso) for iso in (100, 125, 160, 200, 10000, 51200)}
        documents |= {time: self.in_mode("Shutter", shutter=time, ev="0") for time in ("60 s", "0.5 s", "1/10000 s")}
        self.assertJudged(documents, True)

    def test_every_mode_is_accepted_with_what_it_carries(self):
        self.assertJudged(
            {
                "Auto": self.in_mode("Auto", ev="0"),
                "Program": self.in_mode("Program", ev="+1/3"),
                "Aperture": self.in_mode("Aperture", aperture="f/8", ev="0"),
                "Shutter": self.in_mode("Shutter", shutter="1/60 s", ev="0"),
                "Manual": self.in_mode("Manual", aperture="f/8", shutter="1/60 s"),
                "a code": self.in_mode({"code": 7}, ev="0"),
            },
            True,
        )

    def test_a_mode_with_more_or_less_than_it_carries_is_refused(self):
        self.assertJudged(
            {
                "no aperture": self.in_mode("Aperture", ev="0"),
                "no shutter": self.in_mode("Manual", aperture="f/8"),
                "no ev": self.in_mode("Auto"),
                "aperture in Program": self.in_mode("Program", aperture="f/8", ev="0"),
                "shutter in Aperture": self.in_mode("Aperture", aperture="f/8", shutter="1/60 s", ev="0"),
                "ev in Manual": self.in_mode("Manual", aperture="f/8", shutter="1/60 s", ev="0"),
                "no mode": self.without("mode"),
            },
            False,
        )

    def test_codes_are_accepted_for_what_has_no_word(self):
        documents = {
            name: self.in_words(**{name: {"code": 9999}})
            for name in ("aperture", "iso", "ev", "white_balance", "style")
        }
        self.assertJudged(documents, True)

    def test_what_is_not_there_or_of_the_wrong_kind_is_refused(self):
        optional = ("$schema", "form", "white_balance_adjustments")
        documents = {f"no {name}": self.without(name) for name in self.words if name not in optional}
        documents |= {f"{name} true": self.in_words(**{name: True}) for name in self.words if name != "$schema"}
        documents["no color"] = self.without("styles", "C4", "color")
        documents["no hue"] = self.without("styles", "style 0", "hue")
        documents["no style"] = self.without("styles", "style 3")
        documents["no x"] = self.without("selection_af", "x")
        self.assertJudged(documents, False)

    def test_what_nothing_has_is_refused(self):
        self.assertJudged(
            {
                "an entry": self.in_words(colour="red"),
                "a raw entry": self.in_words(av_index=40),
                "an adjustment": self.in_words(white_balance_adjustments={"moonlight": 1}),
                "a mode": self.in_words(mode="Bulb"),
                "a style": self.in_words(style="C5"),
                "a white balance": self.in_words(white_balance="moonlight"),
                "an aperture": self.in_words(aperture="f/4.2"),
                "an ISO": self.in_words(iso=50),
                "a form": self.in_words(form="poem"),
                "a code": self.in_words(style={"code": 1, "name": "one"}),
                "an origin": self.in_words(origin="40"),
                "a large number": self.in_words(drive=2**31),
                "three words of four": self.in_words(custom_white_balance=[1, 2]),
                "a raw field": {**self.raw, "aperture": "f/4"},
                "a raw text": {**self.raw, "mode": "Manual"},
            },
            False,
        )

    def test_every_field_of_the_raw_form_is_known(self):
        document = record_to_json(rich_record())
        self.assertJudged({"rich": document}, True)
        fewer = {
            f"no {name}": {k: v for k, v in document.items() if k != name} for name in ("mode", "cs_info", "drive")
        }
        self.assertJudged(fewer, False)


class InWords(DeskTest):
    """A photographer's way through it."""

    def setUp(self):
        super().setUp()
        self.samples()
        self.serving = self.camera()
        self.image = self.file("x.jpg", picture(1))

    def phone(self, *arguments, code=0):
        done = run_phone(self.serving.url, *arguments)
        self.assertEnds(done, code)
        return done

    def saved(self, *arguments):
        return self.file("mine.json", self.phone("--json", "show", *arguments).stdout)

    def edited(self, path, **changes):
        with open(path) as file:
            entries = json.load(file)
        return self.file("mine.json", json.dumps({**entries, **changes}, indent=2))

    def stored(self, *arguments):
        """The preset that was stored last, as a list has it in codes."""
        self.phone("store", *arguments)
        return json.loads(self.phone("--json", "--raw", "list").stdout)["presets"][-1]

    def test_every_preset_is_shown_in_words_that_keep_to_the_schema(self):
        schema = json.loads(run_phone(None, "schema").stdout)
        listed = json.loads(self.phone("--json", "list").stdout)["presets"]
        shown = [json.loads(self.phone("--json", "show", number).stdout) for number in range(12)]
        raw = [json.loads(self.phone("--json", "--raw", "show", number).stdout) for number in range(12)]
        self.assertTrue(all(is_valid(schema, listed + shown + raw)))
        for number, preset in enumerate(shown):
            self.assertEqual(preset["form"], "words")
            preset.pop("$schema")
            self.assertEqual(preset, listed[number])

    def test_the_words_are_those_of_the_list(self):
        shown = entries_of(self.phone("--json", "show", "Studio portrait").stdout)
        row = next(line for line in self.phone("list").stdout.decode().splitlines() if "Studio" in line)
        for name in ("mode", "aperture", "shutter"):
            self.assertIn(f" {shown[name]} ", row)

    def test_a_preset_that_was_edited_in_words_is_stored(self):
        path = self.edited(self.saved("Autumn leaves"), title="My own leaves", aperture="f/5.6", iso=400, origin="0x44")
        stored = self.stored(path, self.image)
        self.assertEqual((stored["title"], stored["av_index"], stored["iso"]), ("My own leaves", 56, 400))

    def test_a_new_preset_is_stored_in_words(self):
        path = self.edited(
            self.file("mine.json", run_phone(None, "new").stdout), title="Dusk", aperture="f/8", ev="-1 1/3"
        )
        stored = self.stored(path, self.image)
        self.assertEqual((stored["mode"], stored["av_index"], stored["ev_step"]), (2, 80, 37))

    def test_the_file_names_a_schema_that_is_there(self):
        url = json.loads(run_phone(None, "new").stdout)["$schema"]
        self.assertTrue(url.startswith("file:///"), url)
        with open(url.removeprefix("file://"), "rb") as file:
            self.assertEqual(file.read(), run_phone(None, "schema").stdout)

    def test_nearest_says_what_it_took(self):
        path = self.edited(self.file("mine.json", run_phone(None, "new").stdout), aperture="f/4.2", iso=350)
        refused = self.phone("store", path, self.image, code=2).stderr.decode()
        self.assertIn(
            'mine.json:6: "aperture": the camera has no step for f/4.2; the nearest are f/4 and f/4.5',
            refused,
        )
        self.assertEqual(len(refused.splitlines()), 2)
        done = self.phone("store", "--nearest", path, self.image)
        told = done.stderr.decode()
        self.assertIn('mine.json: "aperture": the camera has no step for f/4.2: f/4 is taken\n', told)
        self.assertIn('mine.json: "iso": the camera has no step for 350: 320 is taken\n', told)
        last = json.loads(self.phone("--json", "--raw", "list").stdout)["presets"][-1]
        self.assertEqual(last["av_index"], 40)


if __name__ == "__main__":
    unittest.main()
