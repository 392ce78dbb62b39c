"""A soak: rounds of cameras' lives with faults by chance, the cameras that live as long as the run, and the report
of it all."""

import collections
import contextlib
import dataclasses
import os
import random
import shutil
import sys
import tempfile
import time

from desk import PRESET_LIMIT, NotStarted, picture
from soak_book import LONGEST_PICTURE, Book, check, deleting, storing
from soak_faults import SYSTEM_CALLS, CallFault, Disk, UnreadPipe
from soak_intruders import Stayer, half_left, in_a_flood
from soak_liars import lying, out_of_step, senseless
from soak_life import JUDGED, Gone, Life, Plan

from soak_phones import (
    at_a_full_disk, crowd, honest, insisting, program, show_picture, slow, unsteady,
    turned, where_files_are_no_files, with_empty_packets,
)  # fmt: skip

# ---- Phones ------------------------------------------------------------------------------------------------


def anywhere(_):
    return True


def where_calls_succeed(life):
    return not life.plan.call_fault


def where_packets_have_borders(life):
    return life.plan.kind == "unix"


def where_knobs_are_turned(life):
    return life.plan.is_turned


def where_doubt_ends(life):
    return life.plan.is_obstructed


def on_the_small_disk(life):
    return life.on_small_disk and not life.plan.call_fault


PHONES = {  # how often each kind comes, where, and what it does
    "that are honest": (30, anywhere, honest),
    "in a crowd": (6, where_calls_succeed, crowd),
    "that lie": (14, anywhere, lying),
    "out of step": (6, anywhere, out_of_step),
    "without sense": (6, anywhere, senseless),
    "that are unsteady": (20, anywhere, unsteady),
    "that are slow": (8, anywhere, slow),
    "at a full disk": (4, on_the_small_disk, at_a_full_disk),
    "by the program": (6, where_calls_succeed, program),
    "with empty packets": (10, where_packets_have_borders, with_empty_packets),
    "where files are no files": (6, where_calls_succeed, where_files_are_no_files),
    "whose camera is turned": (40, where_knobs_are_turned, turned),
    "that insist": (40, where_doubt_ends, insisting),
    "that have half left": (2, where_calls_succeed, half_left),
    "in a flood": (2, where_calls_succeed, in_a_flood),
}


def count_of(kind):
    return f"phones {kind}"


def visit(life):
    """One phone, or several at a time. Kinds that have not come yet come sooner."""
    kinds = [kind for kind, (_, suits, _) in PHONES.items() if suits(life)]
    new = [kind for kind in kinds if not life.counts[count_of(kind)]]
    if new and life.dice.random() < 0.3:
        kinds = new
    kind = life.dice.choices(kinds, [PHONES[kind][0] for kind in kinds])[0]
    life.counts[count_of(kind)] += 1
    with life.judged(count_of(kind)):
        PHONES[kind][2](life)


# ---- A life ------------------------------------------------------------------------------------------------

WARM_UP = 150  # requests before the first look at memory


def warm_up(life):
    """The longest request and reply, a full list, and some of everything."""
    with life.session() as link:
        while len(life.book.presets) < PRESET_LIMIT:
            life.change(link, storing(life))
        life.change(link, deleting(life))
        life.change(link, storing(life, picture(life.book.next_number(), LONGEST_PICTURE)))
        show_picture(life, link, life.book.presets[-1])
        for _ in range(4):
            life.change(link, deleting(life))
    while life.requests < WARM_UP:
        visit(life)
    life.first_memory, life.warm_at = life.memory(), life.requests


def serve(life, until):
    """Phones until so many requests have been sent."""
    Life.current = life
    with contextlib.suppress(Gone), life.judged("a phone at the start"):
        if not life.warm_at and life.plan.requests >= WARM_UP + JUDGED and not life.plan.refusal:
            warm_up(life)
        while life.requests < until and not life.deaf:
            visit(life)
    while life.doomed and life.camera.process.poll() is None:
        time.sleep(0.001)


# ---- Plans -------------------------------------------------------------------------------------------------

LONG_ENOUGH = WARM_UP + JUDGED + 50  # requests, for memory to be judged
ROUNDS = (  # what is special about a round; they come in any order, and all of them before one comes again
    "nothing", "nothing", "confirmations", "confirmations", "memory once", "memory for good", "calls once",
    "calls for good", "calls once and an obstacle", "unread", "knobs", "long",
)  # fmt: skip


def plan_round(dice, special):
    kind = dice.choice(("unix", "tcp"))
    plan = Plan(kind, requests=LONG_ENOUGH if special == "long" else dice.choice((20, 60, 60, 200)))
    mtu = ("--mtu", dice.choice((100, 672, 4096))) if kind == "unix" and dice.random() < 0.3 else ()
    plan.options = mtu
    what, _, plan_for = special.partition(" ")
    if what == "confirmations":
        late, lost = ("--confirm-delay", dice.randint(1, 30)), ("--drop-confirmations", dice.randint(1, 8))
        plan.options = mtu + dice.choice((late, lost, late + lost))
    elif what == "memory":
        nth = f"{dice.randint(1, 3 * plan.requests)}{'+' if plan_for == 'for good' else ''}"
        plan.options, plan.refusal = (*mtu, "--refuse-allocation", nth), plan_for
    elif what == "calls" and SYSTEM_CALLS:
        changes = plan.requests // 8
        plan.call_fault = CallFault(dice, plan_for == "for good", changes)
        plan.is_obstructed = plan_for == "once and an obstacle"
        if plan.is_obstructed and dice.random() < 0.7:
            plan.call_fault.hit_end_of_commit(dice, changes)
    elif what == "knobs":
        plan.is_turned = True
    elif what == "unread":
        plan.unread = dice.choice(UnreadPipe.STATES)
    if special != "long" and dice.random() < 0.6:
        plan.kill_at, plan.kill_in_change = dice.randint(1, plan.requests), dice.random() < 0.8
    plan.is_confined = plan.call_fault is None and dice.random() < 0.5
    return plan


LATE_AND_LOST = ("--confirm-delay", 5, "--drop-confirmations", 3)
LASTING = {  # the cameras that live as long as the run
    "small/lasting-tcp": Plan("tcp", requests=sys.maxsize),
    "small/lasting-unix": Plan("unix", LATE_AND_LOST, requests=sys.maxsize),
}


# ---- The soak ----------------------------------------------------------------------------------------------


class Tally(collections.Counter):
    """Counts, and values at their highest."""

    def highest(self, what, value):
        self[what] = max(self[what], value)


class Soak:
    def __init__(self, seconds, seed):
        self.seconds, self.seed, self.round = seconds, seed, 0
        self.counts, self.memories, self.lives = Tally(), [], []
        self.disk, self.started = Disk(), time.monotonic()
        self.books = {"rounds": Book(), "small/rounds": Book()}  # by the store's place
        self.specials = []

    def begin(self, name, book, plan, dice):
        self.lives.append(Life(self.disk, name, book, plan, dice, self.counts))
        return self.lives[-1]

    def begin_in_spite_of_faults(self, name, book, plan, dice):
        """A start may fail where system calls do. Then it costs nothing, and the next one succeeds."""
        try:
            return self.begin(name, book, plan, dice)
        except NotStarted as end:
            if not plan.call_fault:
                raise
            check("the exit code of a camera that cannot start", True, end.code in (1, 3))
            check("the lines of a camera that cannot start", 1, len(end.talk.splitlines()))
            self.counts["starts that failed with a system call"] += 1
            return self.begin(name, book, dataclasses.replace(plan, call_fault=None, is_obstructed=False), dice)

    def end(self, life):
        life.end()
        self.lives.remove(life)
        if life.last_memory:
            self.memories.append((life.name, life.requests, life.first_memory, life.last_memory))

    def next_special(self):
        if not self.specials:
            self.specials = list(ROUNDS)
            random.Random(f"{self.seed} {self.round} specials").shuffle(self.specials)
        return self.specials.pop()

    def one_round(self):
        self.round += 1
        dice = random.Random(f"{self.seed} {self.round}")
        special = self.next_special()
        plan = plan_round(dice, special)
        name, book = dice.choice(list(self.books.items()))
        life = self.begin_in_spite_of_faults(name, book, plan, dice)
        self.counts[f"rounds with {special}"] += 1
        serve(life, plan.requests)
        self.end(life)
        fate = "killed" if life.doomed else "ended in order"
        print(f"round {self.round}: {name}, {plan}: {life.requests} requests, {fate}", flush=True)

    def run(self):
        seeds = {name: random.Random(f"{self.seed} {name}") for name in LASTING}
        lasting = [self.begin(name, Book(), plan, seeds[name]) for name, plan in LASTING.items()]
        stayer_life = self.begin("small/stayer", Book(), Plan(), random.Random(f"{self.seed} stayer"))
        stayer = Stayer(stayer_life)
        while time.monotonic() - self.started < self.seconds or self.round == 0:
            self.one_round()
            for life in lasting:
                serve(life, life.requests + 30)
            stayer.visit()
        stayer.leave()
        last = [self.begin(name, book, Plan(), random.Random(self.seed)) for name, book in self.books.items()]
        for life in [*lasting, stayer_life, *last]:
            self.end(life)

    # ---- The report ----

    def report(self):
        lasting = [memory for memory in self.memories if memory[0] in LASTING]
        rounds = [memory for memory in self.memories if memory[0] not in LASTING]
        rounds.sort(key=lambda memory: memory[2] - memory[3])
        rows = [("minutes", round((time.monotonic() - self.started) / 60, 1)), ("rounds", self.round)]
        rows += [*sorted(self.counts.items()), ("rounds long enough to judge their memory", len(rounds))]
        for name, requests, first, last in lasting + rounds[:3]:
            rows.append((f"KiB of memory, {name}, {requests} requests", f"{first} then {last}"))
        print(*(f"{name:58} {value:>14}" for name, value in rows), sep="\n")
        self.tell_what_did_not_come()
        print("nothing lost")

    def tell_what_did_not_come(self):
        missing = [count_of(kind) for kind in PHONES if not self.counts[count_of(kind)]]
        missing += [f"rounds with {special}" for special in set(ROUNDS) if not self.counts[f"rounds with {special}"]]
        if missing:
            print("the time was too short for", ", ".join(sorted(missing)))
        if not self.disk.mounted:
            print("no disk was filled: only root can mount a small one")
        if not SYSTEM_CALLS:
            print("no system call failed: SHOTMENTOR_SYSTEM_CALLS is not set")

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
