"""Phones that say what is not so, and what a camera makes of that."""

import struct

from desk import (
    DELETE, LIST, LONGEST_REQUEST, PHONE_RECORD, PRESET_LIMIT, STORE, UPDATE, delete_reply, delete_request,
    phone_record, picture, picture_request, request, store_request, update_request,
)  # fmt: skip
from soak_book import check
from soak_life import store_answer, update_answer


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
    with life.session() as link:
        for lie in life.dice.choices(LIES, k=life.dice.randint(1, 3)):
            data, answer = lie(life.dice, life.book)
            life.counts["lies"] += 1
            # Where packets have borders, what follows the packet of a refused head is a request of its own.
            life.send(link, data, whole=lie is unknown_function and link.keeps_borders)
            if answer == update_answer(-6) and life.plan.call_fault:  # a store in doubt cannot tell who is unknown
                life.expect_one_of(link, "the answer to a lie", (answer, update_answer(-1)))
            elif answer:
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
