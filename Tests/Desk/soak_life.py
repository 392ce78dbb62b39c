"""One life of a camera under faults, and what it owes to phones."""

import contextlib
import dataclasses
import os
import resource
import signal
import struct
import threading
import time

from desk import (
    BUSY_FRAME, LARGEST_PACKET, LIST, PICTURE, PRESET_LIMIT, REPLY, STORE, UPDATE, Camera, Closed, Link,
    Silent, Stored, delete_reply, list_reply, pictures_of, records_in, request, store_result,
    stored_picture, what_a_phone_gets,
)  # fmt: skip
from soak_book import check
from soak_budgets import BUDGETS, descriptors_of, memory_of, peak_of
from soak_faults import CallFault, Obstacle, UnreadPipe, plant_orphans

PATIENCE = 20  # seconds that an answer may take on a busy machine
PATIENCE_FOR_REFUSALS = 5  # the same where an answer may be missing because the camera got no memory for it

# Memory is what is resident of a camera less the pages of its files, since code that runs for the first time
# is no leak. It is compared with that after a warm-up with the longest request, the longest reply and a full
# list. The allocator gives large blocks back at once; else the order of the requests would show, and not what
# is held.
JUDGED = 300  # requests between the first look and the last, at least
MARGIN = 256  # KiB for small blocks and for stack that is used later; nine lost lists of 40 presets are more
ALLOCATOR = {"MALLOC_MMAP_THRESHOLD_": "16384", "MALLOC_TRIM_THRESHOLD_": "16384"}
# At its highest memory is what it was at the start, what phones may take, and this: the database's pages, blocks
# that the allocator has not given back, and stack.
PEAK_MARGIN = 2048  # KiB

# What a camera says on standard error about a change that was refused.
UNTOLD = "cannot tell whether the change was made"
UNSETTLED = "it is not known whether an earlier change was made"
REFUSED = "refused with -1"
MISSING_LINES = "lines are missing here"


class Gone(Exception):
    """The camera was killed, as it was meant to be."""


@dataclasses.dataclass
class Plan:
    kind: str = "unix"
    options: tuple = ()
    refusal: str = ""  # of memory: "once" or "for good"
    requests: int = 0
    kill_at: int = 0  # the request in or soon after which the camera is killed; 0 for never
    kill_in_change: bool = False  # the next change is waited for
    call_fault: CallFault = None  # a system call of the store that fails
    is_obstructed: bool = False  # the store cannot be opened anew until it has been in doubt for a while
    unread: str = ""  # standard error is a pipe that nobody reads, and its state at the start
    is_turned: bool = False  # its knobs are, at its control socket
    is_confined: bool = False  # the system gives no more descriptors than the budgets sum up to

    def __str__(self):
        words = [self.kind, *self.options]
        words += [f"with failing {self.call_fault}"] if self.call_fault else []
        words += ["with knobs that are turned"] if self.is_turned else []
        words += ["and an obstacle"] if self.is_obstructed else []
        words += [f"with an unread pipe that is {self.unread}"] if self.unread else []
        return " ".join(map(str, words))


def store_answer(*words):
    return request(REPLY + STORE, struct.pack("<4i", *words))


def update_answer(result):
    return request(REPLY + UPDATE, struct.pack("<i", result))


def picture_answer(custom_id, content):
    return request(REPLY + PICTURE, struct.pack("<i", custom_id) + content)


class Life:
    current = None  # where something may be lost

    def __init__(self, disk, name, book, plan, dice, counts):
        Life.current = self
        self.disk, self.name, self.book, self.plan = disk, name, book, plan
        self.dice, self.counts, self.turn = dice, counts, threading.Lock()
        self.store = disk.path(name)
        self.on_small_disk = disk.mounted and self.store.startswith(disk.small)
        self.patience = PATIENCE_FOR_REFUSALS if plan.refusal else PATIENCE
        self.doomed = self.deaf = self.refused = self.pictures_checked = False
        self.requests = self.warm_at = self.first_memory = self.last_memory = 0
        self.heard = 0  # bytes of standard error that were looked at
        self.is_settled = True  # whether the store knows what its disk holds
        self.obstacle = Obstacle(self.store)
        self.camera = self._start()
        with self.judged("a phone at the start"):
            self.first_descriptors = 0 if plan.refusal else self.descriptors()
            self.first_peak = peak_of(self.camera.pid)

    def _start(self):
        """May throw NotStarted where system calls fail."""
        orphans = []
        has_store = os.path.exists(f"{self.store}/presets.sqlite")
        if self.dice.random() < 0.5 and not self.plan.call_fault and has_store:
            orphans = plant_orphans(self.store, self.dice, [preset.custom_id for preset in self.book.presets])
        # What the store says must not be left out because there are too many lines: `listen` goes by it.
        fault, unread = self.plan.call_fault, self.plan.unread
        control = ("--control", self.control) if self.plan.is_turned else ()
        steering = fault.environment(self.store, self.report) if fault else {}
        camera = Camera(
            self.store, "--empty", "--quiet", *control, *self.plan.options, kind=self.plan.kind,
            environment={**ALLOCATOR, **steering}, errors=UnreadPipe(unread) if unread else None,
        )  # fmt: skip
        left = [name for name in orphans if name in pictures_of(self.store)]
        check("orphans of the store that a start has left", [], left)
        self.counts["orphans removed"] += len(orphans)
        if self.plan.is_obstructed:
            self.obstacle.put()
        if self.plan.is_confined:
            resource.prlimit(camera.pid, resource.RLIMIT_NOFILE, (BUDGETS.descriptors, BUDGETS.descriptors))
        return camera

    @property
    def control(self):
        return f"unix:{self.disk.path('control.sock')}"

    @property
    def report(self):
        return self.disk.path("calls")

    # ---- What phones do ----

    @contextlib.contextmanager
    def session(self, link_class=Link):
        """A phone that was taken in, one at a time, and has seen that the store is what the book says."""
        while True:
            with contextlib.closing(link_class(self.camera.url)) as link:
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
        self.expect_one_of(link, what, (answer,))

    def expect_one_of(self, link, what, answers):
        seen = self.receive(link)
        check(what, seen if seen in answers else answers[0], seen)
        self.counts["answers checked"] += 1

    def ask_list(self, link):
        self.send(link, request(LIST))
        if self.book.open:
            self.look(self.receive(link))
        else:
            self.expect(link, "a list", list_reply(self.book.records("shown")))

    def expect_picture(self, link, preset):
        whole = picture_answer(preset.custom_id, what_a_phone_gets(preset.image))
        answer = self.receive(link)
        if self.plan.call_fault and self.plan.call_fault.kind == "open" and len(answer) == 12:
            whole = picture_answer(preset.custom_id, b"")  # it is among the calls that may fail
        check("a picture", whole, answer)
        self.counts["answers checked"] += 1

    def change(self, link, change):
        self.book.pending = change
        self.send(link, change.request)
        self.take(change, self.receive(link))
        if self.book.open:
            self.ask_list(link)
            if self.dice.random() < 0.3:
                self.obstacle.remove()

    def take(self, change, answer):
        """Looks at the answer to a change, and enters in the book what it confirms."""
        result = struct.unpack_from("<i", answer, 8)[0]
        self.listen()
        if change.name == "delete":  # its result says nothing about the disk, but its list does
            left = records_in(answer, head=20)
            check("the answer to a delete", delete_reply(1, left), answer)
            how = (self.is_settled, self.was_tried)
            done = self.book.settle("the list after a delete", left, "shown", *how)
            result = 1 if change in done else -1
        elif change.name == "update":
            check("the answer to an update", update_answer(result), answer)
        possible = self.possible_results(change)
        check(f"that a {change.name} ends with one of {possible}: {result}", True, result in possible)
        if change.name != "delete":
            self.enter(change, result, answer)
        self.is_settled = self.is_settled or result == 1
        self.counts["changes of which the store could not tell whether they were made"] += change in self.book.open
        self.counts["answers checked"] += 1
        self.counts[f"{change.name}s {'confirmed' if result == 1 else 'refused'}"] += 1

    def possible_results(self, change):
        """1 done, -1 not made, -2 no room, -6 no such preset."""
        is_storing = change.name == "store"
        is_in_doubt = bool(self.book.open)  # what was in doubt may turn out first
        if is_storing and len(self.book.presets) == PRESET_LIMIT and not is_in_doubt:
            possible = {-2}
        elif self.plan.call_fault and is_in_doubt:
            possible = {1, -2 if is_storing else -6}
        elif is_storing and not self.disk.room and not self.plan.call_fault:
            possible = set()
        else:
            possible = {1}
        if self.plan.call_fault or not self.disk.room and possible != {-2}:
            possible.add(-1)
        return possible

    def enter(self, change, result, answer):
        """Enters the answer to a store or an update in the book."""
        custom_id = 0
        if result == 1 and change.name == "store":
            _, number, custom_id, _ = store_result(answer)
            place = number if self.book.open else len(self.book.presets)
            check("the answer to a store", store_answer(1, place, custom_id, 77), answer)
        if result == 1:
            self.book.confirm(change, custom_id)
        elif result == -1 and not self.is_settled and self.was_tried:
            self.book.doubt()
        else:
            self.book.refuse()

    def listen(self):
        """Hears from standard error whether the store still knows what its disk holds, and whether it has tried
        the last change. Where lines are missing it may be that it does not."""
        self.was_tried = False
        if not self.plan.call_fault:
            return
        talk = os.pread(self.camera.errors.fileno(), 1 << 20, self.heard)
        self.heard += len(talk)
        for line in talk.decode(errors="replace").splitlines():
            if UNTOLD in line or MISSING_LINES in line:
                self.is_settled, self.was_tried = False, True
            elif REFUSED in line:
                self.is_settled, self.was_tried = UNSETTLED not in line, False

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

    # ---- Looking ----

    def look(self, answer):
        """The list that a new phone got, and the pictures, are what the book says."""
        seen = records_in(answer)
        check("a list's head and length", list_reply(seen), answer)
        self.counts["answers checked"] += 1
        self.listen()
        self.settle("a list", seen, "shown", self.is_settled)
        self.check_pictures("the store of a camera that serves", contents=not self.pictures_checked)
        self.pictures_checked = True

    def settle(self, where, seen, form, is_final=True):
        """Finds out whether the change was done that was in flight when a phone or the camera went."""
        pending, cause = self.book.pending, "killed" if self.book.killed else "left unanswered"
        doubted = [change for change in self.book.open if not change.is_confirmed]
        done = self.book.settle(where, seen, form, is_final, is_final or self.was_tried)
        if pending or self.book.killed:
            outcome = "done" if pending in done else "undone"
            what = f"a {pending.name} in flight, {outcome}" if pending else "no change in flight"
            self.counts[f"{cause} with {what}"] += 1
        for change in doubted if is_final else ():
            self.counts[f"changes in doubt that turned out {'done' if change in done else 'undone'}"] += 1
        self.book.killed = False

    def check_pictures(self, where, contents=True):
        """Where system calls fail there may be more until the next start."""
        names, seen = sorted(f"{preset.custom_id}.jpg" for preset in self.book.presets), pictures_of(self.store)
        may_have_more = self.plan.call_fault is not None and where != "a store at rest"
        check(f"{where}: its pictures", names, [n for n in seen if n in names] if may_have_more else seen)
        for preset in self.book.presets if contents else ():
            seen = stored_picture(self.store, preset.custom_id)
            check(f"{where}: the picture of preset {preset.custom_id}", preset.image, seen)

    def check_at_rest(self, where="a store at rest"):
        self.settle(where, Stored(self.store).records, "stored")
        self.check_pictures(where)

    def memory(self):
        with self.camera.link():
            return memory_of(self.camera.pid)["RssAnon"]

    def descriptors(self):
        """While a phone is served: its own descriptor counts, the last phone's is closed by then."""
        while True:
            with Link(self.camera.url) as link:
                link.send(request(LIST))
                if link.receive(self.patience) != BUSY_FRAME:
                    return descriptors_of(self.camera.pid)
            time.sleep(0.01)

    def check_descriptors(self):
        """They are what they were at the start, or fewer where the store could not be opened anew."""
        if self.plan.refusal:
            return  # the answer may be missing that tells that a phone is served
        end = time.monotonic() + BUDGETS.turned_away_time + 3
        while self.descriptors() > self.first_descriptors and time.monotonic() < end:
            time.sleep(0.05)  # the camera may be about to close a link that it has turned away
        seen = self.descriptors()
        if seen > self.first_descriptors or not self.plan.call_fault:
            check("descriptors", self.first_descriptors, seen)

    def check_peak(self):
        most = self.first_peak + BUDGETS.memory_of_phones // 1024 + PEAK_MARGIN
        seen = peak_of(self.camera.pid)
        if seen > most:
            check(
                "memory at its highest",
                f"{self.first_peak} KiB at the start, at most {most} KiB",
                f"{seen} KiB",
            )
        self.counts.highest("KiB of memory that phones took at the most", seen - self.first_peak)

    def check_flat(self):
        self.last_memory = self.memory()
        if self.last_memory > self.first_memory + MARGIN:
            most = f"{self.first_memory} KiB and at most {MARGIN} more"
            check(f"memory after {self.requests} requests", most, f"{self.last_memory} KiB")

    def end(self):
        """A killed camera's store is looked at where it lies, or else through the next camera."""
        Life.current = self
        fault = self.plan.call_fault
        if fault:
            self.listen()
            self.obstacle.remove()
            self.counts["rounds in which a system call failed"] += fault.occurrences(self.report) > 0
        if self.doomed:
            check("the end of a killed camera", -signal.SIGKILL, self.camera.process.wait(PATIENCE))
            self.camera.kill()
            self.counts["killed"] += 1
            self.book.killed = True
            if fault or self.dice.random() < 0.5:
                self.check_at_rest("a store at rest" if fault else "the store of a killed camera")
            return
        self.check_descriptors()
        self.check_peak()
        if self.warm_at and self.requests - self.warm_at >= JUDGED:
            self.check_flat()
        self.camera.stop()
        if not self.book.pending and not fault:
            self.check_pictures("a store at rest", contents=False)  # before anything could tidy it up
        self.check_at_rest()
