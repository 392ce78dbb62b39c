"""Phones that use a camera as they should, although not always to the end, and what each may expect of it."""

import concurrent.futures
import contextlib
import functools
import json
import os
import select
import socket
import struct
import time

from desk import (
    BUSY_FRAME, LARGEST_PACKET, PRESET_LIMIT, STATE_OFF, STATE_ON, Closed, Link, Silent, picture_request,
    record_to_json, request, run_phone, what_a_phone_gets,
)  # fmt: skip
from soak_book import any_change, check, deleting, storing, updating
from soak_faults import NO_FILES, displaced
from soak_life import PATIENCE, Life, picture_answer

IN_TIME_WITHOUT_A_FILE = 1  # seconds that the answer may take to a request for a picture that is no file


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


def honest(life, link_class=Link):
    """Asks, and looks at every answer."""
    with life.session(link_class) as link:
        for _ in range(life.dice.randint(1, 25)):
            action = life.dice.choices(list(ACTIONS), list(ACTIONS.values()))[0]
            (action if life.book.presets else change_something)(life, link)


def crowd(life):
    """Several phones at a time, each of which tries until it is taken in."""
    phones = 1 if life.plan.refusal else life.dice.randint(2, 4)  # only one answer may be missing
    with concurrent.futures.ThreadPoolExecutor(phones) as pool:
        for done in [pool.submit(honest, life) for _ in range(phones)]:
            done.result()


# Knobs that spoil no answer, with the values that they are turned to.
KNOBS = {
    "confirm-delay": (1, 30), "drop-next": (1, 3), "duplicate-next": (1, 5), "drop-confirmations": (2, 8),
    "link-rate": (20000000, 200000000), "pull request": (600000, 600000), "pull reply": (700000, 800000),
}  # fmt: skip


class Client(Link):
    """A client of the control socket."""

    def command(self, line):
        """What the camera answers."""
        self.socket.send(line)
        answer = self.socket.recv(4096)
        if not answer:
            raise Closed("without an answer")
        return answer


def turned(life):
    """Is served as if nothing was turned, while somebody turns knobs, and others send what is no command."""
    dice = life.dice
    with contextlib.closing(Client(life.control)) as client:
        client.socket.settimeout(PATIENCE)
        for _ in range(dice.randint(1, 4)):
            knob = dice.choice(list(KNOBS))
            check(
                "what turning a knob is answered",
                b"done",
                client.command(f"{knob} {dice.randint(*KNOBS[knob])}".encode()),
            )
            told = client.command(dice.randbytes(dice.choice((1, 30, 300))))
            check("what is no command is answered", b"refused: ", told[: len(b"refused: ")])
            honest(life)
        check("what clearing is answered", b"done", client.command(b"clear"))
    life.counts["knobs turned"] += 1


class LinkWithEmptyPackets(Link):
    """Sends packets without a byte in front of, within and behind what it sends."""

    def __init__(self, life, url):
        super().__init__(url)
        self.life = life

    def send(self, data, pieces=None):
        ends = [*(pieces or range(LARGEST_PACKET, len(data), LARGEST_PACKET)), len(data)]
        for start, end in zip([0, *ends], ends):
            self.send_empty_packets()
            self.socket.sendall(data[start:end])
        self.send_empty_packets()

    def send_empty_packets(self):
        for _ in range(self.life.dice.choice((0, 1, 1, 3))):
            self.socket.send(b"")
            self.life.counts["empty packets"] += 1


def with_empty_packets(life):
    """They change nothing, and are not taken for leaving."""
    honest(life, functools.partial(LinkWithEmptyPackets, life))


def reset(link):
    """The link will be torn down, and what is under way thrown away, when it is closed."""
    link.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def vanish(life, link):
    """Leaves; at times so that a stream is torn down."""
    life.counts["vanishings"] += 1
    if not link.keeps_borders and life.dice.random() < 0.5:
        reset(link)


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


def insisting(life):
    """Deletes, and changes what is left at once, whatever the camera has answered: it may be in doubt which."""
    with life.session() as link:
        for _ in range(life.dice.randint(2, 8)):
            life.change(link, (deleting if len(life.book.presets) > 3 else storing)(life))
            updates = life.book.presets and life.dice.random() < 0.8
            life.change(link, (updating if updates else storing)(life))


def where_files_are_no_files(life):
    """For a moment something else lies in a picture's place: the phone gets the empty picture, and does so soon."""
    with life.session() as link:
        if not life.book.presets:
            life.change(link, storing(life))
        for name in life.dice.sample(list(NO_FILES), life.dice.randint(1, len(NO_FILES))):
            preset = life.dice.choice(life.book.presets)
            with displaced(os.path.join(life.store, "pictures", f"{preset.custom_id}.jpg"), NO_FILES[name]):
                life.counts[f"pictures displaced by {name}"] += 1
                expect_empty_picture(life, link, preset, name)
            show_picture(life, link, preset)


def expect_empty_picture(life, link, preset, name):
    """A machine that is busy may be slow once; a camera that opens what it should not is so each time."""
    times = []
    while not times or (times[-1] > IN_TIME_WITHOUT_A_FILE and len(times) < 3):
        began = time.monotonic()
        life.send(link, picture_request(preset.custom_id))
        life.expect(link, f"a picture in whose place {name} is", picture_answer(preset.custom_id, b""))
        times.append(time.monotonic() - began)
    if min(times) > IN_TIME_WITHOUT_A_FILE:
        check(f"seconds without a picture in whose place {name} is", IN_TIME_WITHOUT_A_FILE, min(times))
    life.counts.highest("slowest empty picture, ms", round(1000 * times[-1]))


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
    done = run_phone(life.camera.url, "--json", "--raw", *patience, *arguments, timeout=10 * PATIENCE)
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
    life.book.confirm(change, told.get("custom_id"))
    life.counts[f"{change.name}s confirmed"] += 1
