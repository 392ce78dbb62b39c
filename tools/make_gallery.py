#!/usr/bin/env python3
"""Makes the gallery of captures: runs each scene against the desk's camera, which writes down what crosses the link,
and writes Docs/gallery.md around what the phone's decode makes of it.

Usage: tools/make_gallery.py BUILD_FOLDER [SCENE...]
       tools/make_gallery.py BUILD_FOLDER --page     writes the page anew from the captures that are there
       tools/make_gallery.py BUILD_FOLDER --check    runs all scenes: does everything come about as it is kept?
  BUILD_FOLDER  where camera and phone were built, such as build/release
"""

import contextlib
import dataclasses
import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import textwrap
import time
import typing

ROOT = pathlib.Path(__file__).resolve().parent.parent
CAPTURES = ROOT / "Protocol" / "captures"
PAGE = ROOT / "Docs" / "gallery.md"
WIDTH = 120
HANGING = " " * 19  # behind the time and the number of the connection
MOMENT = 0.1  # until the camera knows of what has happened, such as a phone that left
FILE_HEADER, RECORD_HEADER, TIME = 16, 24, slice(16, 24)


def desk_of(build):
    """The tests' own side of the desk: it can say what no phone says."""
    os.environ["SHOTMENTOR_CAMERA"] = str(build / "Desk" / "shotmentor-camera")
    os.environ["SHOTMENTOR_PHONE"] = str(build / "Desk" / "shotmentor-phone")
    sys.path.insert(0, str(ROOT / "Tests" / "Desk"))
    sys.dont_write_bytecode = True
    import desk

    return desk


@dataclasses.dataclass
class Scene:
    name: str
    title: str
    look: str  # what to look for
    play: typing.Callable  # gets the desk and a stage
    options: tuple = ()  # of the camera
    before: typing.Callable = lambda desk, link: None  # what the store holds, by another phone before
    kind: str = "unix"


class Stage:
    """A camera whose link is written down."""

    def __init__(self, desk, camera, folder):
        self.desk, self.camera, self.folder = desk, camera, folder

    def link(self):
        time.sleep(MOMENT)
        return self.camera.link()

    def control(self, *command):
        url = f"unix:{self.folder}/control"
        subprocess.run([self.desk.CAMERA, "control", url, *map(str, command)], check=True, stdout=subprocess.DEVNULL)


# ---- What is in the camera before ------------------------------------------------------------------------------------


def three_presets(desk, link):
    for number, title in enumerate((b"Dusk", b"Golden hour", b"Harbour")):
        link.ask(desk.store_request(desk.phone_record(title, applocal_id=number + 1), desk.picture(number, 300)))


def forty_presets(desk, link):
    for number in range(desk.PRESET_LIMIT):
        link.ask(desk.store_request(desk.phone_record(b"Preset %d" % number), desk.picture(number, 300)))


# ---- Requests --------------------------------------------------------------------------------------------------------


def plays(*requests):
    """Asks each of them, and takes the reply where there is one. Each is made of the desk."""

    def play(desk, stage):
        with stage.link() as link:
            for make in requests:
                link.send(make(desk))
                with contextlib.suppress(desk.Silent):
                    link.receive(desk.SILENCE)

    return play


def list_presets(desk):
    return desk.request(desk.LIST)


def state_on(desk):
    return desk.request(desk.STATE_ON)


def store(desk):
    return desk.store_request(desk.phone_record(b"Evening sun", iso=400, applocal_id=9), desk.picture(9, 300))


def picture_of(custom_id):
    return lambda desk: desk.picture_request(custom_id)


def delete(*pairs):
    return lambda desk: desk.delete_request(*pairs)


def raw(function, total, payload=b""):
    return lambda desk: struct.pack("<ii", function, total) + payload


def play_store_in_packets(desk, stage):
    data = store(desk)
    with stage.link() as link:
        link.ask(data, [8, 300, 700, 1000])


def play_stream(desk, stage):
    with stage.link() as link:
        link.send(list_presets(desk) + picture_of(1)(desk))
        link.receive()
        link.receive()


# ---- Refusals --------------------------------------------------------------------------------------------------------


def play_busy(desk, stage):
    with stage.link() as first:
        first.ask(list_presets(desk))
        with desk.Link(stage.camera.url) as second:
            second.receive()
        first.ask(picture_of(1)(desk))


def play_bytes_behind(desk, stage):
    """A further packet with bytes behind a whole request."""
    with stage.link() as link:
        link.ask(list_presets(desk))
        link.send(struct.pack("<ii", 77, 20) + bytes(4))
        link.send(bytes(8))
        link.ask(list_presets(desk))


# ---- Faults ----------------------------------------------------------------------------------------------------------


def until_closed(desk, link):
    with contextlib.suppress(desk.Closed, OSError):
        while True:
            link.receive()


def play_vanishing_phone(desk, stage):
    with stage.link() as link:
        link.send(store(desk)[:600], [8, 300])
    with stage.link() as link:
        link.ask(list_presets(desk))


def play_pulled(what, byte, ask):
    def play(desk, stage):
        stage.control("pull", what, byte)
        with stage.link() as link:
            link.send(ask(desk)[:800], [400])
            until_closed(desk, link)
        with stage.link() as link:
            link.ask(list_presets(desk))

    return play


def play_slow(desk, stage):
    stage.control("packet-delay", 40)
    plays(list_presets)(desk, stage)


def play_killed(desk, stage):
    with stage.link() as link:
        link.ask(list_presets(desk))
        time.sleep(MOMENT)
        stage.camera.process.kill()
        until_closed(desk, link)


SCENES = [
    # Requests
    Scene(
        "list",
        "All presets",
        "The reply's records: titles, exposure values in words, the numbers beside them. A phone says first that it is "
        "there; that has no reply.",
        plays(state_on, list_presets),
        before=three_presets,
    ),
    Scene(
        "picture",
        "A picture",
        "The reply names the preset by its `custom_id`, the picture follows; its bytes can be exported.",
        plays(picture_of(2)),
        before=three_presets,
    ),
    Scene(
        "store",
        "A preset is stored",
        "Result 1, the new preset's number and `custom_id`, and the phone's own `applocal_id` back. The list behind it "
        "has the preset.",
        plays(store, list_presets),
    ),
    Scene(
        "store-in-packets",
        "A request in five packets",
        "Only the packet that completes the request shows it whole; how many there were stands beside it.",
        play_store_in_packets,
    ),
    Scene(
        "rename",
        "A preset gets another title",
        "The request is a whole record, of which three fields count. The reply is a result and nothing else.",
        plays(lambda desk: desk.update_request(2, 7, b"Silver hour"), list_presets),
        before=three_presets,
    ),
    Scene(
        "delete",
        "Two presets are deleted",
        "The reply holds what is left, under its new numbers.",
        plays(delete((0, 1), (2, 3))),
        before=three_presets,
    ),
    Scene(
        "leave",
        "The phone says that it leaves",
        "No reply, and the camera goes on answering whoever asks: a phone that has said so hangs up.",
        plays(list_presets, lambda desk: desk.request(desk.STATE_OFF, struct.pack("<i", 1)), list_presets),
        before=three_presets,
    ),
    Scene(
        "stream",
        "Two requests in one piece of a byte stream",
        "The link is TCP, shown as RFCOMM: a stream has no packets, so both requests may come in one piece, and each "
        "has its reply.",
        play_stream,
        before=three_presets,
        kind="tcp",
    ),
    # Refusals
    Scene(
        "busy",
        "A second phone comes while one is served",
        "The second connection gets 0x10FF and is closed; the first one goes on.",
        play_busy,
        before=three_presets,
    ),
    Scene(
        "picture-unknown",
        "A picture of a preset that the camera does not have",
        "No reply, ever: the next request is answered. A phone has to wait for a time of its own choosing.",
        plays(picture_of(99), list_presets),
        before=three_presets,
    ),
    Scene(
        "list-while-link-down",
        "A list while the camera's link is down",
        "No reply.",
        plays(list_presets),
        options=("--link-down",),
        before=three_presets,
    ),
    Scene(
        "store-too-short",
        "A preset whose picture is too short",
        "Result -4, and the identities as the phone sent them.",
        plays(lambda desk: desk.store_request(desk.phone_record(b"No picture", applocal_id=5), bytes(99))),
    ),
    Scene(
        "store-when-full",
        "A preset more than the camera holds",
        "Result -2 of a camera that holds 40 presets.",
        plays(store),
        before=forty_presets,
    ),
    Scene(
        "rename-too-short",
        "A rename with half a record",
        "Result -3.",
        plays(lambda desk: desk.request(desk.UPDATE, bytes(300))),
        before=three_presets,
    ),
    Scene(
        "rename-negative",
        "A rename of a preset below 0",
        "Result -2.",
        plays(lambda desk: desk.update_request(-1, 0, b"Nobody's")),
        before=three_presets,
    ),
    Scene(
        "rename-unknown",
        "A rename of a preset that the camera does not have",
        "Result -6 of the desk's camera; another camera may give another number.",
        plays(lambda desk: desk.update_request(99, 0, b"Nobody's")),
        before=three_presets,
    ),
    Scene(
        "delete-nothing",
        "A deletion that names no preset",
        "Result -2 and no presets, although there are three.",
        plays(delete()),
        before=three_presets,
    ),
    Scene(
        "delete-faulty",
        "A deletion with a faulty entry",
        "Result -3: the second entry has preset number 40. Nothing is deleted, not the first one either.",
        plays(delete((0, 1), (40, 2)), list_presets),
        before=three_presets,
    ),
    Scene(
        "delete-in-use",
        "A deletion of a preset that a custom mode uses",
        "Result -7: CUSTOM1 keeps Golden hour, Dusk is gone. Behind the records lie 8 bytes without a meaning.",
        plays(delete((0, 1), (1, 2))),
        before=three_presets,
        options=("link 1",),
    ),
    Scene(
        "delete-both-in-use",
        "The same for both custom modes",
        "Result -8.",
        plays(delete((1, 2), (2, 3))),
        before=three_presets,
        options=("link 1", "link 2"),
    ),
    Scene(
        "unknown-function",
        "A request with a function that no camera has",
        "Function 77 is taken in whole and not answered; the list behind it is.",
        plays(raw(77, 40, bytes(32)), list_presets),
    ),
    Scene(
        "function-out-of-range",
        "A function above all",
        "Function 9999 is refused with the packet that it stands in; the list behind it is answered.",
        plays(raw(9999, 40, bytes(32)), list_presets),
    ),
    Scene(
        "too-long",
        "A request that announces more than 600,000 bytes",
        "Every byte is counted and thrown away: the phone gives up after 64 of them and connects again.",
        lambda desk, stage: (plays(raw(desk.STORE, 700000, bytes(56)))(desk, stage), plays(list_presets)(desk, stage)),
    ),
    Scene(
        "total-too-small",
        "A total below a header's own 8 bytes",
        "After this the camera answers nothing until the phone disconnects: the list has no reply on this connection, "
        "and one on the next.",
        lambda desk, stage: (plays(raw(desk.LIST, 7), list_presets)(desk, stage), plays(list_presets)(desk, stage)),
    ),
    Scene(
        "too-many-bytes",
        "More bytes in a packet than the request announced",
        "The same.",
        lambda desk, stage: (
            plays(raw(desk.LIST, 8, bytes(4)), list_presets)(desk, stage),
            plays(list_presets)(desk, stage),
        ),
    ),
    # Faults
    Scene(
        "phone-vanishes",
        "A phone that vanishes in the middle of a request",
        "The store has 600 of its 1,052 bytes; the next phone's list shows that nothing was stored.",
        play_vanishing_phone,
    ),
    Scene(
        "lost-in-request",
        "The link is lost in the middle of a request",
        "The camera's side goes behind byte 500, in the second packet.",
        play_pulled("request", 500, store),
        options=("--control",),
    ),
    Scene(
        "lost-in-reply",
        "The link is lost in the middle of a reply",
        "The list is cut off behind 1,000 of its bytes. What came must not be taken for an answer.",
        play_pulled("reply", 1000, list_presets),
        before=three_presets,
        options=("--control",),
    ),
    Scene(
        "killed",
        "The camera's process is killed",
        "The capture ends with the last thing that was said: no disconnection is in it.",
        play_killed,
        before=three_presets,
    ),
    Scene(
        "slow",
        "A slow link",
        "Small packets, each 40 ms late: the time between request and reply, and between the packets of the reply.",
        play_slow,
        before=three_presets,
        options=("--control", "--mtu", "672"),
    ),
    Scene(
        "store-fails",
        "The camera's disk does not take a preset",
        "Result -1, and nothing is stored.",
        plays(store, list_presets),
        options=("--save-result", "-1"),
    ),
    Scene(
        "rename-fails",
        "A camera that answers a rename with a number of its own",
        "Result -77 has no name: any number may come from a camera.",
        plays(lambda desk: desk.update_request(1, 0, b"Never")),
        before=three_presets,
        options=("--update-result", "-77"),
    ),
    Scene(
        "no-memory",
        "The camera has no memory for a reply",
        "The preset is stored, and no reply comes: only the list tells.",
        plays(store, list_presets),
        options=("--refuse-allocation", "2"),
    ),
]


# ---- Making ----------------------------------------------------------------------------------------------------------


def prepare(desk, scene, store_folder):
    with desk.Camera(store_folder, "--empty", "--quiet") as camera, camera.link() as link:
        scene.before(desk, link)
    for option in scene.options:
        if option.startswith("link "):
            subprocess.run(
                [desk.CAMERA, "--store", store_folder, "link", f"CUSTOM{option[5:]}", option[5:]], check=True
            )


def options_of(scene, folder):
    options = []
    for option in scene.options:
        if option == "--control":
            options += ["--control", f"unix:{folder}/control"]
        elif not option.startswith("link "):
            options.append(option)
    return options


def record(desk, scene, path):
    """Plays the scene, of which the camera writes a capture."""
    with tempfile.TemporaryDirectory() as folder:
        prepare(desk, scene, f"{folder}/store")
        options = ["--quiet", "--log-level", "off", "--capture", path, *options_of(scene, folder)]
        camera = desk.Camera(f"{folder}/store", *options, kind=scene.kind)
        try:
            scene.play(desk, Stage(desk, camera, folder))
            time.sleep(MOMENT)
        finally:
            camera.kill() if camera.process.poll() is not None else camera.stop()


def without_times(capture):
    """The capture's bytes with all times 0."""
    bytes_ = bytearray(capture)
    at = FILE_HEADER
    while at < len(bytes_):
        included = struct.unpack_from(">I", bytes_, at + 4)[0]
        bytes_[at:][TIME] = bytes(8)
        bytes_[at + TIME.start : at + TIME.stop] = bytes(8)
        at += RECORD_HEADER + included
    return bytes(bytes_)


def decoded(desk, path):
    done = subprocess.run(
        [desk.PHONE, "decode", path],
        capture_output=True,
        env=desk.environment_of_programs(TZ="UTC"),
        check=False,
    )
    return done.stdout.decode() + done.stderr.decode()


def wrapped(text, indent="", further=""):
    return textwrap.wrap(text, WIDTH, initial_indent=indent, subsequent_indent=further, break_on_hyphens=False)


def page(desk):
    parts = [
        "# A gallery of captures",
        "",
        "What crosses the link when all goes well, when the camera refuses, and when something breaks: a capture of "
        "each, in",
        "`Protocol/captures/`, from runs of the desk's camera. Open one in Wireshark (`Docs/captures.md` says how), or "
        "print it:",
        "",
        "    shotmentor-phone decode Protocol/captures/list.btsnoop",
        "",
        "<!-- tools/make_gallery.py makes the captures and this page. -->",
    ]
    for scene in SCENES:
        parts += ["", f"## {scene.title}", "", *wrapped(f"`{scene.name}.btsnoop`: {scene.look}"), ""]
        for line in decoded(desk, CAPTURES / f"{scene.name}.btsnoop").splitlines():
            parts += wrapped(line, "    ", HANGING)
    return "\n".join(part.rstrip() for part in parts) + "\n"


def check(desk):
    wrong = []
    with tempfile.TemporaryDirectory() as folder:
        for scene in SCENES:
            path = pathlib.Path(folder, scene.name)
            record(desk, scene, path)
            kept = CAPTURES / f"{scene.name}.btsnoop"
            if not kept.exists() or without_times(path.read_bytes()) != without_times(kept.read_bytes()):
                wrong.append(kept.name)
    surplus = {path.name for path in CAPTURES.iterdir()} - {f"{scene.name}.btsnoop" for scene in SCENES}
    wrong += sorted(surplus)
    if not wrong and PAGE.read_text() != page(desk):
        wrong.append(PAGE.name)
    if wrong:
        sys.exit("make_gallery.py: not as it comes about: " + ", ".join(wrong) + "; run tools/make_gallery.py")
    print(f"ok: {len(SCENES)} captures come about as they are kept, and the page tells of them")


def main(arguments):
    if not arguments or arguments[0].startswith("-"):
        sys.exit(__doc__.strip())
    build, *names = arguments
    desk = desk_of(pathlib.Path(build).resolve())
    if names == ["--check"]:
        check(desk)
        return
    known = {scene.name: scene for scene in SCENES}
    if names != ["--page"]:
        unknown = [name for name in names if name not in known]
        if unknown:
            sys.exit(f"make_gallery.py: no scene is called {unknown[0]}; there are {', '.join(known)}")
        CAPTURES.mkdir(exist_ok=True)
        for name in names or known:
            record(desk, known[name], CAPTURES / f"{name}.btsnoop")
    PAGE.write_text(page(desk))


if __name__ == "__main__":
    main(sys.argv[1:])
