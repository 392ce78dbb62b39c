"""What a camera has confirmed to phones: the book that is kept of it, and the changes that are entered."""

import dataclasses
import itertools
import json
import os

from desk import (
    FIELDS, LONGEST_REQUEST, PHONE_RECORD, changed, delete_request, get, phone_record, picture,
    record_to_json, rich_record, store_request, to_camera, to_phone, update_request,
)  # fmt: skip

LONGEST_PICTURE = LONGEST_REQUEST - 8 - PHONE_RECORD
TOO_LARGE = 100000  # bytes of a picture that a full disk does not take


def check(what, expected, seen):
    """Fails with what differs; of lists and bytes, with what follows the first difference."""
    if expected == seen:
        return
    if isinstance(expected, (list, bytes)):
        at = len(os.path.commonprefix([expected, seen]))
        what, expected, seen = f"{what}, from position {at} on", expected[at:], seen[at:]
    old, new = (text if len(text) < 100 else text[:100] + "..." for text in map(repr, (expected, seen)))
    raise AssertionError(f"{what}: expected {old}, seen {new}")


class Preset:
    """One preset in both its forms."""

    def __init__(self, stored, image):
        self.stored, self.shown, self.image = stored, to_phone(stored), image
        self.custom_id = get(stored, "custom_id")


@dataclasses.dataclass(eq=False)
class Change:
    name: str
    request: bytes
    after: callable  # the presets that it makes of others, given the custom_id of a new one
    arguments: list  # what the phone program is told for it
    files: tuple = ()  # the preset and the picture that it is given
    is_confirmed: bool = False


class Book:
    """What a camera has confirmed, in the order of its list, and what is open: changes that are done or not.

    A change is pending from its request to its answer. It stays open behind its answer where the store has said
    that it cannot tell whether it was made, and then so do those that are confirmed after it.
    """

    def __init__(self):
        self.presets, self.open, self.pending, self.killed = [], [], None, False
        self.last_id = self.number = 0

    def next_number(self):
        self.number += 1
        return self.number

    def records(self, form, presets=None):
        presets = self.presets if presets is None else presets
        return [changed(getattr(preset, form), preset_num=n) for n, preset in enumerate(presets)]

    # ---- Answers ----

    def confirm(self, change, custom_id):
        """The change is done, and stays so."""
        self.pending = None
        if self.open:
            change.is_confirmed = True
            self.open.append(change)
            return
        self.presets = change.after(self.presets, custom_id)
        self._use(custom_id if change.name == "store" else None)

    def refuse(self):
        """The pending change has changed nothing."""
        self.pending = None

    def doubt(self):
        """The pending change was refused by a store that cannot tell whether it was made."""
        self.open.append(self.pending)
        self.pending = None

    def _use(self, custom_id):
        if custom_id is not None:
            check("that a custom_id is new", True, custom_id > self.last_id)
            self.last_id = custom_id

    # ---- What is seen ----

    def settle(self, where, seen, form, is_final=True, was_tried=True):
        """Open changes are done if these records show them done, else undone, or still open if that is not final:
        the pending one if it was tried at all. Nothing else may differ. Returns the changes that are done."""
        changes = [*self.open, *([self.pending] if self.pending else [])]
        seen_ids = [get(record, "custom_id") for record in seen]
        for done in choices(changes):
            presets = self._after(done, seen_ids)
            if self.records(form, presets) == seen:
                break
        else:
            self._tell_difference(where, seen_ids, seen, form)
        untried, self.pending = None if was_tried else self.pending, None
        self.open = [] if is_final else [c for c in changes if c not in done and c is not untried]
        self.presets = presets
        for custom_id in new_ids(done, seen_ids):
            self._use(custom_id)
        return done

    def _after(self, done, seen_ids):
        presets, ids = self.presets, iter(new_ids(done, seen_ids))
        for change in done:
            presets = change.after(presets, next(ids, 0) if change.name == "store" else 0)
        return presets

    def _tell_difference(self, where, seen_ids, seen, form):
        """What differs when those changes are done that explain the custom_ids, or else none but the confirmed."""
        changes = [*self.open, *([self.pending] if self.pending else [])]
        for done in choices(changes):
            presets = self._after(done, seen_ids)
            if [preset.custom_id for preset in presets] == seen_ids:
                break
        names = [f", a {change.name} {'done' if change in done else 'not done'}" for change in changes]
        where += "".join(names)
        check(f"{where}: the custom_ids", [preset.custom_id for preset in presets], seen_ids)
        for custom_id, old, new in zip(seen_ids, self.records(form, presets), seen, strict=True):
            for name in [name for name, (_, at, _) in FIELDS.items() if old != new and at < len(old)]:
                check(f"{where}: {name} of preset {custom_id}", get(old, name), get(new, name))


def choices(changes):
    """Which of these changes may be done: as many as possible first, and those always that are confirmed."""
    for count in range(len(changes), -1, -1):
        for done in itertools.combinations(changes, count):
            if all(change in done for change in changes if change.is_confirmed):
                yield list(done)


def new_ids(done, seen_ids):
    """The custom_ids that these changes have given: new presets stand at the end."""
    stores = sum(change.name == "store" for change in done)
    return seen_ids[len(seen_ids) - stores :] if stores <= len(seen_ids) else []


# ---- Changes -----------------------------------------------------------------------------------------------


def storing(life, image=None):
    number, chance = life.book.next_number(), life.dice.random()
    record = changed(life.dice.choice((phone_record, rich_record))(b"Soak %d" % number), applocal_id=77)
    if not life.disk.room or chance < 0.02:
        image = picture(number, LONGEST_PICTURE if life.disk.room else TOO_LARGE)
    if image is None:
        streams = 4 if chance < 0.2 else 1
        image = b"".join(picture(number, life.dice.randint(400, 50000 // streams)) for _ in range(streams))

    def after(presets, custom_id):
        own = {"custom_id": custom_id, "screennail_path": b"pictures/%d.jpg" % custom_id}
        return [*presets, Preset(changed(to_camera(record), **own), image)]

    files = (json.dumps(record_to_json(record)).encode(), image)
    return Change("store", store_request(record, image), after, ["store"], files)


def updating(life):
    number, old = life.book.next_number(), life.dice.choice(life.book.presets)
    new = Preset(changed(old.stored, server_id=number, title=b"Renamed %d" % number), old.image)
    return Change(
        "update",
        update_request(old.custom_id, number, b"Renamed %d" % number),
        lambda presets, _: [new if preset is old else preset for preset in presets],
        ["rename", f"id:{old.custom_id}", f"Renamed {number}", "--server-id", number],
    )


def deleting(life):
    presets = life.book.presets
    gone = life.dice.sample(presets, min(len(presets), life.dice.randint(1, 3)))
    numbers = [presets.index(preset) for preset in gone]
    return Change(
        "delete",
        delete_request(*[(number, presets[number].custom_id) for number in numbers]),
        lambda presets, _: [preset for preset in presets if preset not in gone],
        ["delete", *numbers],
    )


def any_change(life):
    return life.dice.choice((storing, storing, updating, deleting) if life.book.presets else (storing,))(life)
