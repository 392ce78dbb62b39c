"""Presets that a camera has made, listed, sent back, and listed again: every step of every scale.

What a list shows of a camera's record, and what the camera stores, is worked out here from the tables of `desk.py`.
The record to send, and the forecast of what the camera will list, come from the phone's own code."""

import itertools
import os
import shutil
import struct
import subprocess
import unittest

from desk import (
    CAMERA_AV, CAMERA_RECORD, CAMERA_SV, CAMERA_SV_THIRD, CAMERA_TV, CAMERAS_OWN, FIELDS, LIST, PHONE_AV, PHONE_EV,
    PHONE_RECORD, PRESET_LIMIT, DeskTest, Stored, changed, delete_request, get, phone_record, picture, records_in,
    request, store_request, store_result, to_phone,
)  # fmt: skip

FORECASTER = os.environ.get("SHOTMENTOR_FORECASTER", "")
LACKING = (65535, -1)
AUTO, PROGRAM, APERTURE, SHUTTER, MANUAL = range(5)
KT_MADE = 0x40

APERTURES = [code for code in CAMERA_AV if code not in LACKING and code != 0]
TIMES = [code for code in CAMERA_TV if code not in LACKING]
FULL_STEPS = [code for code in CAMERA_SV if code not in LACKING]
THIRD_STEPS = [code for code in CAMERA_SV_THIRD if code not in LACKING]
COMPENSATIONS = list(range(len(PHONE_EV)))
NO_COMPENSATION = PHONE_EV.index(50)


def camera_record(**values):
    return changed(bytes(CAMERA_RECORD), title=b"Round trip", **{"made_id": KT_MADE, "ev_step": 15, **values})


def without_cameras_own(record):
    """The record without what each camera gives of its own."""
    names = [name for name in CAMERAS_OWN if FIELDS[name][1] < len(record)]
    return changed(record, **{name: b"" if FIELDS[name][0] == "text" else 0 for name in names})


def forecasts(cases):
    """For each (ISO steps, mode listed last, record as listed): the record to send, and the one that will be listed."""
    heads = ({"full": 0, "third": 1}[steps] for steps, _, _ in cases)
    data = b"".join(struct.pack("<ii", head, mode) + record for head, (_, mode, record) in zip(heads, cases))
    done = subprocess.run([FORECASTER], input=data, capture_output=True, check=True, timeout=30)
    records = [done.stdout[i : i + PHONE_RECORD] for i in range(0, len(done.stdout), PHONE_RECORD)]
    assert len(records) == 2 * len(cases)
    return list(zip(records[::2], records[1::2]))


class RoundTrips:
    """The camera's records, through a list, the phone and the camera."""

    def setUp(self):
        super().setUp()
        self.serving = self.camera("--empty", "--quiet", "--iso-step", self.iso_step)
        self.link = self.serving.link()
        self.addCleanup(self.link.close)
        self.link.ask(store_request(phone_record(b"Last listed"), picture(0)))
        self.listed()

    def listed(self):
        return records_in(self.link.ask(request(LIST)))

    def keep_the_first_alone(self):
        pairs = [(number, get(record, "custom_id")) for number, record in enumerate(self.listed())]
        if len(pairs) > 1:
            self.link.ask(delete_request(*pairs[1:]))

    def there_and_back(self, records):
        """Sends what lists show of the camera's records, as many at a time as there is room for. Yields each record
        with what a list should show of it, and what it shows. The list that a batch begins with ends with a preset
        that is not in shutter mode."""
        expected = [without_cameras_own(to_phone(record, iso_step=self.iso_step)) for record in records]
        sent = forecasts([(self.iso_step, PROGRAM, record) for record in expected])
        room = PRESET_LIMIT - 1
        for start in range(0, len(records), room):
            self.keep_the_first_alone()
            batch = range(start, min(start + room, len(records)))
            for k in batch:
                self.assertEqual(store_result(self.link.ask(store_request(sent[k][0], picture(k))))[0], 1)
            shown = [without_cameras_own(record) for record in self.listed()[1:]]
            self.assertEqual(len(shown), len(batch))
            for k, record in zip(batch, shown):
                yield records[k], expected[k], record
                self.assertEqual(record, sent[k][1], "the forecast is another")

    def assertComeBack(self, records):
        """The presets are listed as before."""
        for record, expected, shown in self.there_and_back(records):
            for name in FIELDS:
                self.assertEqual(get(shown, name), get(expected, name), f"{name} of {record[:100].hex()}")

    def assertStoredAgain(self, records, *but):
        """The camera has the records that it had, as its own store tells, but for these entries."""
        self.assertLess(len(records), PRESET_LIMIT)
        self.assertComeBack(records)
        self.link.close()
        self.serving.stop()
        for record, stored in zip(records, Stored(self.store).records[1:]):
            for name in set(FIELDS) - set(CAMERAS_OWN) - set(but):
                self.assertEqual(get(stored, name), get(record, name), name)

    def in_mode(self, mode, **scales):
        """Records that go through all codes of each of some scales, as many as the longest one has."""
        steps = max(len(codes) for codes in scales.values())
        return [
            camera_record(mode=mode, **{name: codes[k % len(codes)] for name, codes in scales.items()})
            for k in range(steps)
        ]

    def test_every_compensation_and_third_step_comes_back_in_automatic_mode(self):
        self.assertEqual((len(COMPENSATIONS), len(THIRD_STEPS)), (31, 29))
        self.assertStoredAgain(self.in_mode(AUTO, ev_step=COMPENSATIONS, iso_1_3=THIRD_STEPS), "iso")

    def test_every_compensation_comes_back_in_program_mode(self):
        self.assertStoredAgain(self.in_mode(PROGRAM, ev_step=COMPENSATIONS))

    def test_every_aperture_and_compensation_comes_back_in_aperture_mode(self):
        self.assertEqual(len(APERTURES), 33)
        self.assertStoredAgain(self.in_mode(APERTURE, av_index=APERTURES, ev_step=COMPENSATIONS))

    def test_every_shutter_time_and_compensation_comes_back_in_shutter_mode(self):
        self.assertEqual(len(TIMES), 57)
        self.assertComeBack(self.in_mode(SHUTTER, tv_index=TIMES, ev_step=COMPENSATIONS))

    def test_every_aperture_and_shutter_time_comes_back_in_manual_mode(self):
        self.assertComeBack(self.in_mode(MANUAL, av_index=APERTURES, tv_index=TIMES))

    def test_no_compensation_stays_none_in_manual_mode(self):
        record = camera_record(mode=MANUAL, av_index=48, tv_index=0, ev_step=NO_COMPENSATION)
        self.assertStoredAgain([record])

    def colors(self):
        """Records that hold all the camera's colours, 39 in each."""
        values = [*range(201), *[0] * 33]
        triples = [values[i : i + 3] for i in range(0, len(values), 3)]
        return [camera_record(mode=PROGRAM, cs_color=triples[i : i + 13]) for i in range(0, len(triples), 13)]

    def test_every_colour_comes_back(self):
        self.assertComeBack(self.colors())

    def test_the_camera_stores_every_colour_but_the_last_as_it_was(self):
        # Lists show 199 and 200 alike.
        last = self.colors()[-1]
        shown = [[min(value, 199) for value in triple] for triple in get(last, "cs_color")]
        self.assertStoredAgain([*self.colors()[:-1], changed(last, cs_color=shown)])

    def unconverted(self, number):
        """A number of its own in every word that the conversions leave alone."""
        values = {}
        taken = {
            "mode",
            "av_index",
            "tv_index",
            "iso",
            "iso_1_3",
            "ev_step",
            "cs_color",
            "made_id",
            *CAMERAS_OWN,
        }
        for name, (kind, _, count) in FIELDS.items():
            if kind in ("word", "words") and name not in taken:
                words = [number() for _ in range(count)]
                values[name] = words[0] if kind == "word" else words
        return values

    def test_all_other_words_come_back(self):
        counter = itertools.count(1000)
        self.assertStoredAgain([camera_record(mode=PROGRAM, **self.unconverted(lambda: next(counter)))])

    def test_negative_words_come_back(self):
        counter = itertools.count(2**31 - 1000)
        self.assertStoredAgain([camera_record(mode=PROGRAM, **self.unconverted(lambda: -next(counter)))])

    def test_a_title_of_any_bytes_comes_back(self):
        self.assertStoredAgain([changed(camera_record(mode=PROGRAM), title=bytes(range(204, 256)))])


class FullSteps(RoundTrips, DeskTest):
    iso_step = "full"

    def test_every_full_step_comes_back_beside_a_third_step(self):
        self.assertEqual(len(FULL_STEPS), 11)
        thirds = (5, 0, 27)
        self.assertStoredAgain([camera_record(mode=PROGRAM, iso=full, iso_1_3=thirds[full % 3]) for full in FULL_STEPS])


class ThirdSteps(RoundTrips, DeskTest):
    """The camera lists its third step as both sensitivities: the full one is not told."""

    iso_step = "third"

    def test_every_third_step_comes_back_beside_a_full_step(self):
        self.assertStoredAgain(
            [camera_record(mode=PROGRAM, iso=k % 11, iso_1_3=third) for k, third in enumerate(THIRD_STEPS)], "iso"
        )


class ForeseenLosses(DeskTest):
    """What cannot come back is foretold as it comes out."""

    def test_an_aperture_is_lost_behind_a_preset_in_shutter_mode(self):
        listed = to_phone(camera_record(mode=APERTURE, av_index=48))
        self.assertEqual(get(listed, "av_index"), 28)
        ((sent, kept), (_, lost)) = forecasts([("full", PROGRAM, listed), ("full", SHUTTER, listed)])
        self.assertEqual((get(kept, "av_index"), get(lost, "av_index")), (28, 0))
        with self.camera("--empty") as serving, serving.link() as link:
            link.ask(store_request(changed(phone_record(b"Fast"), mode=SHUTTER, tv_index=90), picture(1)))
            link.ask(request(LIST))
            link.ask(store_request(sent, picture(2)))
            shown = records_in(link.ask(request(LIST)))[1]
        self.assertEqual(without_cameras_own(shown), lost)

    def test_the_samples_come_out_as_foretold(self):
        for steps in ("full", "third"):
            self.samples()
            with self.camera("--iso-step", steps) as serving, serving.link() as link:
                listed = records_in(link.ask(request(LIST)))
                self.assertEqual(len(listed), 12)
                sent = forecasts([(steps, get(listed[-1], "mode"), record) for record in listed])
                for record, _ in sent:
                    link.ask(store_request(record, picture(1)))
                for shown, (_, foretold) in zip(records_in(link.ask(request(LIST)))[12:], sent, strict=True):
                    self.assertEqual(without_cameras_own(shown), foretold)
            shutil.rmtree(self.store)

    def test_presets_of_other_origins_come_out_as_foretold(self):
        origins = [0, 0x30, 0x130, 0x144, 0x145, 0x40, 0x12345140]
        records = [
            changed(phone_record(), made_id=made_id, color_style=3, smart_filter=smart, k_value=kelvin, type=2)
            for made_id in origins for smart in (0, 4) for kelvin in (0, 5500)
        ]  # fmt: skip
        sent = forecasts([("full", PROGRAM, record) for record in records])
        with self.camera("--empty") as serving, serving.link() as link:
            for record, _ in sent:
                link.ask(store_request(record, picture(1)))
            for shown, (_, foretold) in zip(records_in(link.ask(request(LIST))), sent, strict=True):
                self.assertEqual(without_cameras_own(shown), foretold)


assert PHONE_AV[CAMERA_AV.index(48)] == 28
if __name__ == "__main__":
    unittest.main()
