#!/usr/bin/env python3
"""Lets phones of all kinds use cameras under faults for as long as asked, and looks whether anything is lost.

Use: Tests/Desk/soak.py MINUTES [--seed N]

MINUTES may be a fraction. SHOTMENTOR_CAMERA and SHOTMENTOR_PHONE name the programs, as for the tests.

A round is one life of a camera: it is started on a store that an earlier one left, with options by chance,
serves phones, and ends in order or by `kill -9`. One store lies on this machine's disk, where a change takes
its time and a kill falls into it, one on a small disk that is filled now and then. Between the rounds phones
visit two more cameras, which have stores of their own and live as long as the run. A book keeps what each
store has confirmed. The same seed takes the same chances; how far a camera has come when it is killed is a
matter of time.

Exit code 0: nothing was lost. 1: something was; one line says what, and the stores are kept. 2: wrong usage.
"""

import collections
import concurrent.futures
import contextlib
import dataclasses
import json
import os
import random
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback

from desk import (
    BUSY_FRAME, CAMERA, DELETE, FIELDS, LARGEST_PACKET, LIST, LONGEST_REQUEST, PHONE, PHONE_RECORD, PICTURE,
    PRESET_LIMIT, REPLY, STATE_OFF, STATE_ON, STORE, UPDATE, Camera, Closed, Link, Silent, Stored, changed,
    delete_reply, delete_request, get, list_reply, phone_record, picture, picture_request, pictures_of,
    record_to_json, records_in, request, rich_record, run_phone, store_request, store_result, stored_picture,
    to_camera, to_phone, update_request, what_a_phone_gets,
)  # fmt: skip

PATIENCE = 20  # seconds that an answer may take on a busy machine
PATIENCE_FOR_REFUSALS = 5  # the same where an answer may be missing because the camera got no memory for it
LONGEST_PICTURE = LONGEST_REQUEST - 8 - PHONE_RECORD
SPACE = 32 << 20  # bytes of the disk that is filled
TOO_LARGE = 100000  # bytes of a picture that a full disk does not take

# The library sets ten replies aside that wait for their confirmation, and gives up for good what comes on
# top, as it has to. Where confirmations are late or lost no phone therefore gets more than eight replies:
# when it leaves, the camera confirms what is left. That is less than ten, because a reply that is refused its
# memory costs a place.
REPLIES_WHEN_LOSSY = 8

# Memory is what is resident of a camera less the pages of its files, since code that runs for the first time
# is no leak. It is compared with that after a warm-up with the longest request, the longest reply and a full
# list. The allocator gives large blocks back at once; else the order of the requests would show, and not what
# is held.
WARM_UP, JUDGED = 150, 300  # requests before the first look, and at least how many until the last
MARGIN = 256  # KiB for small blocks and for stack that is used later; nine lost lists of 40 presets are more
ALLOCATOR = {"MALLOC_MMAP_THRESHOLD_": "16384", "MALLOC_TRIM_THRESHOLD_": "16384"}


class Gone(Exception):
    """The camera was killed, as it was meant to be."""


def check(what, expected, seen):
    """Fails with what differs; of lists and bytes, with what follows the first difference."""
    if expected == seen:
        return
    if isinstance(expected, (list, bytes)):
        at = len(os.path.commonprefix([expected, seen]))
        what, expected, seen = f"{what}, from position {at} on", expected[at:], seen[at:]
    old, new = (text if len(text) < 100 else text[:100] + "..." for text in map(repr, (expected, seen)))
    raise AssertionError(f"{what}: expected {old}, seen {new}")


# ---- What the camera has confirmed -------------------------------------------------------------------------


class Preset:
    """One preset in both its forms."""

    def __init__(self, stored, image):
        self.stored, self.shown, self.image = stored, to_phone(stored), image
        self.custom_id = get(stored, "custom_id")


@dataclasses.dataclass
class Change:
    name: str
    request: bytes
    after: callable  # the presets that it makes of others, given the custom_id of a new one
    arguments: list  # what the phone program is told for it
    files: tuple = ()  # the preset and the picture that it is given


class Book:
    """What the camera has confirmed, in the order of its list, and the change that it has yet to answer."""

    def __init__(self):
        self.presets, self.pending, self.killed = [], None, False
        self.last_id = self.number = 0

    def next_number(self):
        self.number += 1
        return self.number

    def records(self, form, presets=None):
        presets = self.presets if presets is None else presets
        return [changed(getattr(preset, form), preset_num=n) for n, preset in enumerate(presets)]

    def adopt(self, change, custom_id):
        if change.name == "store":
            check("that a custom_id is new", True, custom_id > self.last_id)
            self.last_id = custom_id
        self.presets, self.pending = change.after(self.presets, custom_id), None

    def settle(self, where, seen, form):
        """The pending change is done if these records show it done, else undone. Nothing else may differ."""
        pending, self.pending = self.pending, None
        seen_ids = [get(record, "custom_id") for record in seen]
        if pending and self.records(form, pending.after(self.presets, [0, *seen_ids][-1])) == seen:
            self.adopt(pending, seen_ids[-1] if seen_ids else 0)
            return "done"
        where += f", a {pending.name} not done" if pending else ""
        check(f"{where}: the custom_ids", [preset.custom_id for preset in self.presets], seen_ids)
        for custom_id, old, new in zip(seen_ids, self.records(form), seen, strict=True):
            for name in [name for name, (_, at, _) in FIELDS.items() if old != new and at < len(old)]:
                check(f"{where}: {name} of preset {custom_id}", get(old, name), get(new, name))
        return "undone"


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
        ["rename", old.custom_id, f"Renamed {number}", "--server-id", number],
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


# ---- A disk that can be filled -----------------------------------------------------------------------------


class Disk:
    """A folder, and in it a small file system where one can be mounted, else one that cannot be filled."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="soak-")
        self.small = self.path("small")
        os.mkdir(self.small)
        command = ["mount", "-t", "tmpfs", "-o", f"size={SPACE}", "tmpfs", self.small]
        self.room = True
        self.mounted = os.geteuid() == 0 and subprocess.run(command, capture_output=True).returncode == 0

    def path(self, name, content=None):
        path = os.path.join(self.folder, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path

    @contextlib.contextmanager
    def full(self, left):
        """No room but for some bytes."""
        path, space = os.path.join(self.small, "filler"), os.statvfs(self.small)
        with open(path, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, max(1, space.f_bavail * space.f_frsize - left))
        self.room = False
        try:
            yield
        finally:
            os.remove(path)
            self.room = True

    def close(self):
        if self.mounted:
            subprocess.run(["umount", "-l", self.small], check=True)
        shutil.rmtree(self.folder, ignore_errors=True)


# ---- One life of a camera ----------------------------------------------------------------------------------


@dataclasses.dataclass
class Plan:
    kind: str = "unix"
    options: tuple = ()
    lossy: bool = False  # confirmations are late or lost
    refusal: str = ""  # of memory: "once" or "for good"
    requests: int = 0
    kill_at: int = 0  # the request in or soon after which the camera is killed; 0 for never
    kill_in_change: bool = False  # the next change is waited for

    def __str__(self):
        return " ".join(map(str, (self.kind, *self.options)))


class Life:
    current = None  # where something may be lost

    def __init__(self, disk, name, book, plan, dice, counts):
        Life.current = self
        self.disk, self.name, self.book, self.plan = disk, name, book, plan
        self.dice, self.counts, self.turn = dice, counts, threading.Lock()
        self.store = disk.path(name)
        self.on_small_disk = disk.mounted and self.store.startswith(disk.small)
        self.camera = Camera(self.store, "--empty", *plan.options, kind=plan.kind, environment=ALLOCATOR)
        self.patience = PATIENCE_FOR_REFUSALS if plan.refusal else PATIENCE
        self.doomed = self.deaf = self.refused = self.pictures_checked = False
        self.requests = self.warm_at = self.first_memory = self.last_memory = 0
        self.first_descriptors = self.descriptors()

    # ---- What phones do ----

    @contextlib.contextmanager
    def session(self):
        """A phone that was taken in, one at a time, and has seen that the store is what the book says."""
        while True:
            with contextlib.closing(Link(self.camera.url)) as link:
                link.socket.settimeout(PATIENCE)
                link.send(request(LIST))
                answer = self.receive(link)
                if answer != BUSY_FRAME:
                    with self.turn, link:
                        self.tick()
                        self.look(answer)
                        yield link
                    return
            self.counts["phones turned away"] += 1
            time.sleep(self.dice.random() * 0.01)

    def tick(self):
        """Counts a request that is about to be sent. One of them is the camera's last, or nearly so."""
        self.requests += 1
        self.counts["requests"] += 1
        due = 0 < self.plan.kill_at <= self.requests and not self.doomed
        if due and (self.book.pending or not self.plan.kill_in_change):
            self.doomed = True
            longest_change = 0.003 if self.on_small_disk else 0.05  # seconds; the small one lies in memory
            threading.Timer(self.dice.random() * longest_change, self.camera.process.kill).start()

    def send(self, link, data, whole=False):
        """Sends a request, cut anywhere by chance; where packets have borders, behind its head."""
        head = 8 if link.keeps_borders else 1
        pieces = set(range(LARGEST_PACKET, len(data), LARGEST_PACKET)) if link.keeps_borders else set()
        if not whole and len(data) > head and self.dice.random() < 0.5:
            pieces |= {self.dice.randrange(head, len(data)) for _ in range(self.dice.randint(1, 8))}
        self.tick()
        link.send(data, sorted(pieces))

    def receive(self, link):
        """The next answer. Patience begins anew with every byte that comes."""
        while True:
            came = len(link.waiting)
            try:
                return link.receive(self.patience)
            except Silent:
                if len(link.waiting) == came:
                    raise

    def expect(self, link, what, answer):
        check(what, answer, self.receive(link))
        self.counts["answers checked"] += 1

    def ask_list(self, link):
        self.send(link, request(LIST))
        self.expect(link, "a list", list_reply(self.book.records("shown")))

    def expect_picture(self, link, preset):
        payload = struct.pack("<i", preset.custom_id) + what_a_phone_gets(preset.image)
        self.expect(link, "a picture", request(REPLY + PICTURE, payload))

    def change(self, link, change):
        """A change is pending from its request to its answer."""
        self.book.pending = change
        self.send(link, change.request)
        self.take(change, self.receive(link))

    def take(self, change, answer):
        """Looks at the answer to a change, and enters in the book what it confirms."""
        number, result = len(self.book.presets), struct.unpack_from("<i", answer, 8)[0]
        custom_id = store_result(answer)[2] if change.name == "store" else 0
        if change.name == "delete":  # its result says nothing about the disk, but its list does
            left = records_in(answer, head=20)
            check("the answer to a delete", delete_reply(1, left), answer)
            result = 1 if self.book.settle("the list after a delete", left, "shown") == "done" else -1
        elif change.name == "update":
            check("the answer to an update", update_answer(result), answer)
        elif result == 1:
            check("the answer to a store", store_answer(1, number, custom_id, 77), answer)
        possible = (1,) if self.disk.room else (-1,) if change.name == "store" else (1, -1)
        possible = (-2,) if change.name == "store" and number == PRESET_LIMIT else possible
        check(f"that a {change.name} ends with one of {possible}: {result}", True, result in possible)
        if result == 1 and change.name != "delete":
            self.book.adopt(change, custom_id)
        self.book.pending = None
        self.counts["answers checked"] += 1
        self.counts[f"{change.name}s {'confirmed' if result == 1 else 'refused'}"] += 1

    # ---- What becomes of them ----

    @contextlib.contextmanager
    def judged(self, who):
        """A link may end only with a killed camera; an answer may be missing for want of memory, once."""
        try:
            yield
        except (OSError, Closed, Silent) as error:
            if self.doomed:
                raise Gone from None
            if not isinstance(error, Silent) or not self.plan.refusal or self.refused:
                code = self.camera.process.poll()
                state = "the camera runs" if code is None else f"the camera ended with {code}"
                raise AssertionError(f"{who}: expected an answer, seen {error!r}, {state}") from error
            self.refused, self.deaf = True, self.plan.refusal == "for good"
            self.counts["requests refused their memory"] += 1

    def visit(self):
        """One phone, or several at a time."""
        kinds = [name for name in PHONES if name != "at a full disk" or self.on_small_disk]
        name = self.dice.choices(kinds, [PHONES[kind][0] for kind in kinds])[0]
        self.counts[f"phones {name}"] += 1
        with self.judged(f"phones {name}"):
            PHONES[name][1](self)

    def warm_up(self):
        """The longest request and reply, a full list, and some of everything."""
        while len(self.book.presets) < PRESET_LIMIT:
            with self.session() as link:
                for _ in range(min(REPLIES_WHEN_LOSSY - 1, PRESET_LIMIT - len(self.book.presets))):
                    self.change(link, storing(self))
        with self.session() as link:
            self.change(link, deleting(self))
            self.change(link, storing(self, picture(self.book.next_number(), LONGEST_PICTURE)))
            show_picture(self, link, self.book.presets[-1])
            for _ in range(REPLIES_WHEN_LOSSY - 4):
                self.change(link, deleting(self))
        while self.requests < WARM_UP:
            self.visit()
        self.first_memory, self.warm_at = self.memory(), self.requests

    def serve(self, until):
        """Phones until so many requests have been sent."""
        Life.current = self
        with contextlib.suppress(Gone), self.judged("a phone at the start"):
            if not self.warm_at and self.plan.requests >= WARM_UP + JUDGED and not self.plan.refusal:
                self.warm_up()
            while self.requests < until and not self.deaf:
                self.visit()
        while self.doomed and self.camera.process.poll() is None:
            time.sleep(0.001)

    # ---- Looking ----

    def look(self, answer):
        """The list that a new phone got, and the pictures, are what the book says."""
        seen = records_in(answer)
        check("a list's head and length", list_reply(seen), answer)
        self.counts["answers checked"] += 1
        self.settle("a list", seen, "shown")
        self.check_pictures("the store of a camera that serves", contents=not self.pictures_checked)
        self.pictures_checked = True

    def settle(self, where, seen, form):
        """Finds out whether the change was done that was in flight when a phone or the camera went."""
        pending, cause = self.book.pending, "killed" if self.book.killed else "left unanswered"
        outcome = self.book.settle(where, seen, form)
        if pending or self.book.killed:
            what = f"a {pending.name} in flight, {outcome}" if pending else "no change in flight"
            self.counts[f"{cause} with {what}"] += 1
        self.book.killed = False

    def check_pictures(self, where, contents=True):
        names = sorted(f"{preset.custom_id}.jpg" for preset in self.book.presets)
        check(f"{where}: its pictures", names, pictures_of(self.store))
        for preset in self.book.presets if contents else ():
            seen = stored_picture(self.store, preset.custom_id)
            check(f"{where}: the picture of preset {preset.custom_id}", preset.image, seen)

    def check_at_rest(self, where):
        self.settle(where, Stored(self.store).records, "stored")
        self.check_pictures(where)

    def memory(self):
        with self.camera.link(), open(f"/proc/{self.camera.pid}/status") as status:
            return int(re.search(r"RssAnon:\s+(\d+) kB", status.read())[1])

    def descriptors(self):
        with self.camera.link():  # the last phone's descriptor is closed by then
            return len(os.listdir(f"/proc/{self.camera.pid}/fd"))

    def check_flat(self):
        end = time.monotonic() + 3
        while self.descriptors() != self.first_descriptors and time.monotonic() < end:
            time.sleep(0.05)  # the camera may be about to close a link that it has turned away
        check("descriptors", self.first_descriptors, self.descriptors())
        self.last_memory = self.memory()
        if self.last_memory > self.first_memory + MARGIN:
            most = f"{self.first_memory} KiB and at most {MARGIN} more"
            check(f"memory after {self.requests} requests", most, f"{self.last_memory} KiB")

    def end(self):
        """A killed camera's store is looked at where it lies, or else through the next camera."""
        Life.current = self
        if self.doomed:
            check("the end of a killed camera", -signal.SIGKILL, self.camera.process.wait(PATIENCE))
            self.camera.kill()
            self.counts["killed"] += 1
            self.book.killed = True
            if self.dice.random() < 0.5:
                self.check_at_rest("the store of a killed camera")
            return
        if self.warm_at and self.requests - self.warm_at >= JUDGED:
            self.check_flat()
        self.camera.stop()
        if not self.book.pending:
            self.check_pictures("a store at rest", contents=False)  # before anything could tidy it up
        self.check_at_rest("a store at rest")


# ---- Phones ------------------------------------------------------------------------------------------------


def store_answer(*words):
    return request(REPLY + STORE, struct.pack("<4i", *words))


def update_answer(result):
    return request(REPLY + UPDATE, struct.pack("<i", result))


def any_change(life):
    return life.dice.choice((storing, storing, updating, deleting) if life.book.presets else (storing,))(life)


def change_something(life, link):
    life.change(link, any_change(life))


def show_picture(life, link, preset=None):
    preset = preset or life.dice.choice(life.book.presets)
    life.send(link, picture_request(preset.custom_id))
    life.expect_picture(link, preset)


def arrive_or_leave(life, link):
    life.send(link, life.dice.choice((request(STATE_ON), request(STATE_OFF, struct.pack("<i", 1)))))


def meet_another(life, _):
    with Link(life.camera.url) as second:
        check("what a second phone is told", BUSY_FRAME, second.receive(PATIENCE))
    life.counts["phones turned away"] += 1


ACTIONS = {change_something: 8, show_picture: 4, Life.ask_list: 3, arrive_or_leave: 1, meet_another: 1}


def honest(life):
    """Asks, and looks at every answer."""
    with life.session() as link:
        for _ in range(life.dice.randint(1, REPLIES_WHEN_LOSSY - 1 if life.plan.lossy else 25)):
            action = life.dice.choices(list(ACTIONS), list(ACTIONS.values()))[0]
            (action if life.book.presets else change_something)(life, link)


def crowd(life):
    """Several phones at a time, each of which tries until it is taken in."""
    phones = 1 if life.plan.refusal else life.dice.randint(2, 4)  # only one answer may be missing
    with concurrent.futures.ThreadPoolExecutor(phones) as pool:
        for done in [pool.submit(honest, life) for _ in range(phones)]:
            done.result()


def wrong_deletion(dice, book):
    """One faulty entry among good ones."""
    good = [(number, preset.custom_id) for number, preset in enumerate(book.presets)][:5]
    known, unknown = good[0][1] if good else 1, book.last_id + 1
    faults = [(0, 0), (0, -5), (0, unknown), (PRESET_LIMIT, known), (-1, known), (2**31 - 1, known)]
    pairs = [*good, dice.choice(faults)]
    dice.shuffle(pairs)
    return delete_request(*pairs), delete_reply(-3, [])


def unknown_function(dice, _):
    number = dice.choice((6, 7, 254, 256, 4097, -1, 2**31 - 1, -(2**31)))
    return request(number, dice.randbytes(dice.randrange(50))), None


def unknown_picture(dice, book):
    return picture_request(dice.choice((0, -1, book.last_id + 1, 2**31 - 1))), None


def short_store(dice, _):
    content = (phone_record() + bytes(99))[: dice.randrange(PHONE_RECORD + 100)]
    return request(STORE, content), store_answer(-4, 0, 0, 0)


LIES = [  # each makes a request, and its answer if there is one
    wrong_deletion, unknown_function, unknown_picture, short_store,
    lambda dice, _: (struct.pack("<ii", dice.choice((LIST, STORE, DELETE)), -dice.randint(1, 2**31)), None),
    lambda dice, _: (request(STORE, bytes(LONGEST_REQUEST - 8 + dice.randint(1, 50000))), None),
    lambda dice, _: (request(UPDATE, bytes(dice.randrange(PHONE_RECORD))), update_answer(-3)),
    lambda dice, _: (update_request(-dice.randint(1, 2**31), 1, b"Nobody"), update_answer(-2)),
    lambda _, book: (update_request(book.last_id + 1, 1, b"Nobody"), update_answer(-6)),
    lambda dice, _: (request(DELETE, bytes(dice.randrange(8))), delete_reply(-2, [])),
]  # fmt: skip


def lying(life):
    """Says what is not so, and is served on."""
    # The answer to an unknown picture replaces an unconfirmed reply, which is then never freed, as required.
    lies = [lie for lie in LIES if lie is not unknown_picture or not life.plan.lossy]
    with life.session() as link:
        for lie in life.dice.choices(lies, k=life.dice.randint(1, 3)):
            data, answer = lie(life.dice, life.book)
            life.counts["lies"] += 1
            # Where packets have borders, what follows the packet of a refused head is a request of its own.
            life.send(link, data, whole=lie is unknown_function and link.keeps_borders)
            if answer:
                life.expect(link, "the answer to a lie", answer)
            life.ask_list(link)


def out_of_step(life):
    """Announces less than it sends, or far more: nothing is answered until it leaves."""
    whole = store_request(phone_record(b"Never"), picture(0, 5000))
    part, total = life.dice.randrange(8, len(whole)), life.dice.choice((2**31 - 1, 600001, 600000, 100000))
    too_little, too_much = struct.pack("<ii", LIST, life.dice.randrange(8)), struct.pack("<ii", STORE, total)
    lies = [[too_little], [too_much + whole[8:]]]
    with life.session() as link:
        if link.keeps_borders:  # a stream has no packet that could hold too much
            lies += [[whole[:part], whole[part:] + b"!"], [request(LIST) + b"more"]]
        life.counts["lies"] += 1
        life.tick()
        for packet in [*life.dice.choice(lies), request(LIST)]:
            link.send(packet)
        check("silence after a wrong total", True, link.is_silent(0.05))


def senseless(life):
    """Sends bytes by chance, none of which are a function's number."""
    with life.session() as link:
        life.tick()
        for _ in range(life.dice.randint(1, 10)):
            link.send(b"\xff" + life.dice.randbytes(life.dice.randint(1, 20000)))
        life.counts["lies"] += 1


def vanish(life, link):
    """Leaves; at times so that a stream is torn down and what is under way is thrown away."""
    life.counts["vanishings"] += 1
    if not link.keeps_borders and life.dice.random() < 0.5:
        link.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def unsteady(life):
    """Stops within a request, perhaps for a while, and vanishes, or goes on and vanishes before its answer or
    within it, or takes it."""
    with life.session() as link:
        change = any_change(life)
        part = life.dice.randrange(8, len(change.request))
        life.tick()
        link.send(change.request[:part])
        if life.dice.random() < 0.5:
            life.counts["stalls"] += 1
            time.sleep(life.dice.uniform(0.02, 0.4))
            meet_another(life, link)
        end = life.dice.choice(("in the request", "before the answer", "in the answer", "in order"))
        if end != "in the request":
            life.book.pending = change
            link.send(change.request[part:])
        if end == "in the answer" and select.select([link.socket], [], [], life.patience)[0]:
            link.socket.recv(5)
        if end == "in order":
            life.take(change, life.receive(link))
        else:
            vanish(life, link)


def slow(life):
    """Asks for several pictures at once, and reads them slowly, some of them, or not at all."""
    with life.session() as link:
        link.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 32768)
        most = 1 if life.plan.refusal else 6  # of several answers one could be missing
        presets = life.book.presets
        asked = life.dice.choices(presets, k=life.dice.randint(1, most)) if presets else []
        for preset in asked:
            life.send(link, picture_request(preset.custom_id))
        time.sleep(life.dice.random() * 0.2)
        reads = life.dice.choice((0, len(asked) // 2, len(asked)))
        for preset in asked[:reads]:
            life.expect_picture(link, preset)
            time.sleep(life.dice.random() * 0.03)
        if reads < len(asked):
            vanish(life, link)


def at_a_full_disk(life):
    """A store fails, and what is there stays. Then there is room again."""
    with life.session() as link:
        life.counts["full disks"] += 1
        with life.disk.full(left=life.dice.choice((0, 4096, 20000, 60000))):
            life.change(link, storing(life))
            if life.book.presets:
                life.change(link, life.dice.choice((updating, deleting))(life))
            life.ask_list(link)
        life.change(link, storing(life))


def run_program(life, *arguments):
    life.tick()
    patience = ("--timeout", life.patience)
    done = run_phone(life.camera.url, "--json", *patience, *arguments, timeout=10 * PATIENCE)
    if done.returncode == 4 or (done.returncode != 0 and life.doomed):
        raise Silent(done.stderr.decode())
    check("the phone program's exit", 0, done.returncode and (done.returncode, done.stderr))
    return json.loads(done.stdout)


def program_reads(life):
    listed = [record_to_json(record) for record in life.book.records("shown")]
    check("the phone program's list", listed, run_program(life, "list")["presets"])
    for preset in life.book.presets[-1:]:
        run_program(life, "picture", len(listed) - 1, "-o", life.disk.path("taken.jpg"))
        with open(life.disk.path("taken.jpg"), "rb") as file:
            check("the phone program's picture", what_a_phone_gets(preset.image), file.read())


def program(life):
    """The phone program. The next list shows whether what it has changed is so."""
    with life.session():
        pass  # what was in flight is settled
    change = any_change(life)
    full = change.name == "store" and len(life.book.presets) == PRESET_LIMIT
    if full or life.dice.random() < 0.4:
        program_reads(life)
        return
    files = [life.disk.path(f"given.{n}", content) for n, content in enumerate(change.files)]
    life.book.pending = change
    told = run_program(life, *change.arguments, *files)
    check("the result that the phone program tells", 1, told["result"])
    life.book.adopt(change, told.get("custom_id"))
    life.counts[f"{change.name}s confirmed"] += 1


PHONES = {  # how often each kind comes, and what it does
    "that are honest": (30, honest), "in a crowd": (6, crowd), "that lie": (14, lying),
    "out of step": (6, out_of_step), "without sense": (6, senseless), "that are unsteady": (20, unsteady),
    "that are slow": (8, slow), "at a full disk": (4, at_a_full_disk), "by the program": (6, program),
}  # fmt: skip


# ---- Rounds ------------------------------------------------------------------------------------------------


def plan_round(dice):
    kind, requests = dice.choice(("unix", "tcp")), dice.choice((20, 60, 200, WARM_UP + JUDGED + 200))
    late, lost = ("--confirm-delay", dice.randint(1, 30)), ("--drop-confirmations", dice.randint(1, 8))
    confirmations = dice.choice(((), (), late, lost, late + lost))
    refusal = dice.choice(("", "", "", "", "once", "for good"))
    refused = f"{dice.randint(1, 3 * requests)}{'+' if refusal == 'for good' else ''}"
    mtu = ("--mtu", dice.choice((100, 672, 4096))) if kind == "unix" and dice.random() < 0.3 else ()
    options = confirmations + mtu + (("--refuse-allocation", refused) if refusal else ())
    kill_at = dice.randint(1, requests) if dice.random() < 0.6 else 0
    return Plan(kind, options, bool(confirmations), refusal, requests, kill_at, dice.random() < 0.8)


LATE_AND_LOST = ("--confirm-delay", 5, "--drop-confirmations", 3)
LASTING = {  # the cameras that live as long as the run
    "small/lasting-tcp": Plan("tcp", requests=sys.maxsize),
    "small/lasting-unix": Plan("unix", LATE_AND_LOST, lossy=True, requests=sys.maxsize),
}


class Soak:
    def __init__(self, seconds, seed):
        self.seconds, self.seed, self.round = seconds, seed, 0
        self.counts, self.memories, self.lives = collections.Counter(), [], []
        self.disk, self.started = Disk(), time.monotonic()
        self.books = {"rounds": Book(), "small/rounds": Book()}  # by the store's place

    def begin(self, name, book, plan, dice):
        self.lives.append(Life(self.disk, name, book, plan, dice, self.counts))
        return self.lives[-1]

    def end(self, life):
        life.end()
        self.lives.remove(life)
        if life.last_memory:
            self.memories.append((life.name, life.requests, life.first_memory, life.last_memory))

    def one_round(self):
        self.round += 1
        dice = random.Random(f"{self.seed} {self.round}")
        plan = plan_round(dice)
        name, book = dice.choice(list(self.books.items()))
        life = self.begin(name, book, plan, dice)
        life.serve(plan.requests)
        self.end(life)
        fate = "killed" if life.doomed else "ended in order"
        print(f"round {self.round}: {name}, {plan}: {life.requests} requests, {fate}", flush=True)

    def run(self):
        seeds = {name: random.Random(f"{self.seed} {name}") for name in LASTING}
        lasting = [self.begin(name, Book(), plan, seeds[name]) for name, plan in LASTING.items()]
        while time.monotonic() - self.started < self.seconds or self.round == 0:
            self.one_round()
            for life in lasting:
                life.serve(life.requests + 30)
        last = [self.begin(name, book, Plan(), random.Random(self.seed)) for name, book in self.books.items()]
        for life in lasting + last:
            self.end(life)

    def report(self):
        lasting = [memory for memory in self.memories if memory[0] in LASTING]
        rounds = [memory for memory in self.memories if memory[0] not in LASTING]
        rounds.sort(key=lambda memory: memory[2] - memory[3])
        rows = [("minutes", round((time.monotonic() - self.started) / 60, 1)), ("rounds", self.round)]
        rows += [*sorted(self.counts.items()), ("rounds long enough to judge their memory", len(rounds))]
        for name, requests, first, last in lasting + rounds[:3]:
            rows.append((f"KiB of memory, {name}, {requests} requests", f"{first} then {last}"))
        print(*(f"{name:54} {value:>14}" for name, value in rows), sep="\n")
        if not self.disk.mounted:
            print("no disk was filled: only root can mount a small one")
        print("nothing lost")

    def close(self):
        for life in self.lives:
            life.camera.kill()
        self.lives.clear()

    def tell(self, failure):
        """The failure in one line, with copies of the stores."""
        kept = os.path.join(tempfile.mkdtemp(prefix="soak-kept-"), "stores")
        shutil.copytree(self.disk.folder, kept, ignore=shutil.ignore_patterns("*.sock", "filler"))
        what = str(failure) if isinstance(failure, AssertionError) else repr(failure)
        life = Life.current
        where = f"round {self.round}, {life.name}, {life.plan}" if life else "no camera"
        line = f"soak.py: LOST: seed {self.seed}, {where}: {what}; the stores are kept in {kept}"
        print(" ".join(line.split()), file=sys.stderr)


def arguments(words):
    """Seconds and seed."""
    match = re.fullmatch(r"(\d+(?:\.\d+)?)(?: --seed (\d+))?", " ".join(words))
    seconds = 60 * float(match[1]) if match else 0
    seed = int(match[2]) if match and match[2] else random.SystemRandom().randrange(10**6)
    return (seconds, seed) if seconds else None


def main():
    given = arguments(sys.argv[1:])
    if given is None or not (os.access(CAMERA, os.X_OK) and os.access(PHONE, os.X_OK)):
        usage = "usage: soak.py MINUTES [--seed N], with SHOTMENTOR_CAMERA and SHOTMENTOR_PHONE set"
        print(usage, file=sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that what is mounted is unmounted
    soak = Soak(*given)
    print(f"seed {soak.seed}", flush=True)
    try:
        soak.run()
        soak.report()
        return 0
    except Exception as failure:
        if not isinstance(failure, AssertionError):
            traceback.print_exc()
        soak.close()
        soak.tell(failure)
        return 1
    finally:
        soak.close()
        soak.disk.close()


if __name__ == "__main__":
    sys.exit(main())
