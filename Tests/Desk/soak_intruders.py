"""Phones that are in the way of others: floods of them, and those that have half left."""

import collections
import random
import socket
import threading
import time

from desk import BUSY_FRAME, LIST, STORE, Closed, Link, picture, picture_request, request
from soak_book import LONGEST_PICTURE, any_change, check, deleting, storing, updating
from soak_budgets import BUDGETS, descriptors_of
from soak_life import Life
from soak_phones import change_something, reset, show_picture

SLACK = 3  # seconds that a busy machine may need on top of a budget
IN_TIME = 5  # seconds that an answer may take while others flood the camera
FATES = ("asks", "asks", "is reset", "vanishes", "vanishes in a request")  # of a phone of a flood
MOST_OPEN = 300  # links of a flood that are open at a time


# ---- Floods ------------------------------------------------------------------------------------------------


class Flood:
    """So many phones as fast as they go, none of which may be served. While it lasts it looks how many
    descriptors the camera has open."""

    def __init__(self, life, count, dice):
        self.life, self.camera, self.count, self.dice = life, life.camera, count, dice
        self.open = collections.deque()
        self.connected = self.busy = self.cut_off = self.highest = 0
        self.fault = None
        self.over = threading.Event()
        self.threads = [threading.Thread(target=work) for work in (self._connect_all, self._watch)]

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, kind, *_):
        if kind is not None:
            self.over.set()
        for thread in self.threads:
            thread.join()
        if kind is None and self.fault and not self.life.doomed:
            raise self.fault

    def lasts(self):
        return not self.over.is_set()

    def _connect_all(self):
        try:
            for _ in range(self.count):
                if not self.over.is_set():
                    self._connect(self.dice.choice(FATES))
            self._connect("asks")
            self._hear()
        except Exception as fault:
            self.fault = fault
        finally:
            for link in self.open:
                link.close()
            self.over.set()

    def _connect(self, fate):
        link = Link(self.camera.url)
        self.connected += 1
        try:
            if fate == "is reset":
                reset(link)
            elif fate == "asks":
                self.open.append(link)
                link.send(request(LIST))
            elif fate == "vanishes in a request":
                link.send(request(LIST)[:5])
        except OSError:
            pass  # it was cut off already
        if not self.open or self.open[-1] is not link:
            link.close()
        if len(self.open) > MOST_OPEN:
            self.open.popleft().close()

    def _hear(self):
        """Those that are still there were told that the camera is busy, the last one surely. So that few stay
        open, a camera may cut the others off from that answer."""
        last_answer = b""
        while self.open:
            link = self.open.popleft()
            with link:
                try:
                    last_answer = link.receive(IN_TIME)
                    check("what a phone of a flood is told", BUSY_FRAME, last_answer)
                    self.busy += 1
                except Closed:
                    last_answer = b""
                    self.cut_off += 1
        check("what the last phone of a flood is told", BUSY_FRAME, last_answer)

    def _watch(self):
        while not self.over.is_set():
            try:
                self.highest = max(self.highest, descriptors_of(self.camera.pid))
            except OSError:
                return  # the camera was killed
            time.sleep(0.0005)


def in_a_flood(life):
    """Is served as if it was alone, while others connect in hundreds and thousands."""
    dice = random.Random(life.dice.random())
    with life.session() as link, Flood(life, dice.randint(200, 2000), dice) as flood:
        requests = 0
        while requests == 0 or flood.lasts():
            began = time.monotonic()
            asks = life.dice.choice((change_something, show_picture, Life.ask_list))
            (asks if life.book.presets else change_something)(life, link)
            seconds = time.monotonic() - began
            if seconds > IN_TIME:
                check("seconds that an answer took in a flood", f"at most {IN_TIME}", round(seconds, 1))
            life.counts.highest("slowest answer in a flood, ms", round(1000 * seconds))
            life.counts["answers in floods"] += 1
            requests += 1
    life.counts["phones of floods"] += flood.connected
    life.counts["phones of floods told that the camera is busy"] += flood.busy
    life.counts["phones of floods cut off"] += flood.cut_off
    life.counts.highest(f"descriptors in floods, of {BUDGETS.descriptors}", flood.highest)
    if flood.highest > BUDGETS.descriptors:
        check("descriptors in a flood", f"at most {BUDGETS.descriptors}", flood.highest)
    life.check_descriptors()


# ---- Phones that have half left ----------------------------------------------------------------------------


def ask_for_much(life, link):
    """Sends several requests, and reads none of the answers."""
    link.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    if life.dice.random() < 0.5:
        send_change(life, link, any_change(life))
    presets = life.book.presets
    for preset in life.dice.choices(presets, k=life.dice.randint(2, 60)) if presets else ():
        life.send(link, picture_request(preset.custom_id), whole=True)  # in pieces they are more than it takes
    if life.book.presets and not life.book.pending:
        send_change(life, link, life.dice.choice((updating, deleting))(life))


def send_change(life, link, change):
    life.book.pending = change
    life.send(link, change.request, whole=True)


def hear_beside(life):
    """Another phone gets a word within the budget. Returns whether it was served."""
    with Link(life.camera.url) as other:
        life.tick()
        other.send(request(LIST))
        began = time.monotonic()
        answer = other.receive(BUDGETS.waiting_time + SLACK)
        life.counts.highest("longest wait beside one that has half left, ms", round(1000 * (time.monotonic() - began)))
        if answer == BUSY_FRAME:
            life.counts["phones turned away beside one that has half left"] += 1
            return False
        life.look(answer)
        life.counts["phones served beside one that has half left"] += 1
        return True


def half_left(life):
    """Asks for much, says that it sends no more, reads nothing, and stays."""
    with life.session() as link:
        ask_for_much(life, link)
        link.socket.shutdown(socket.SHUT_WR)
        for _ in range(life.dice.randint(1, 2)):
            hear_beside(life)


class Stayer:
    """A phone that takes none of its answers, or sends no more of a request, and stays for as long as it may. The
    next one is served then. Rounds go on meanwhile."""

    def __init__(self, life):
        self.life = life
        with life.session() as link:
            life.change(link, storing(life, picture(life.book.next_number(), LONGEST_PICTURE)))
        self._arrive()

    def _arrive(self):
        self.link = Link(self.life.camera.url)
        if self.life.dice.random() < 0.3:
            self.link.send(request(STORE, bytes(5000))[:4000])
        else:
            self.link.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            for _ in range(10):  # together they are more than the system takes of them
                self.link.send(picture_request(self.life.book.presets[0].custom_id))
        if self.life.dice.random() < 0.5:
            self.link.socket.shutdown(socket.SHUT_WR)
        self.since = time.monotonic()

    def visit(self):
        """Another phone, once the one that stays has been still for as long as it may."""
        if time.monotonic() - self.since < BUDGETS.stalled_time + 1:
            return
        Life.current = self.life
        with self.life.judged("a phone behind one that stays"):
            check("that a phone is served behind one that stays", True, hear_beside(self.life))
        self.leave()
        self.life.counts["phones that stayed until another came"] += 1
        self._arrive()

    def leave(self):
        self.link.close()
