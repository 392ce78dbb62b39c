#!/usr/bin/env python3
"""What serving a phone costs the desk's camera, by the number of presets in its store, with pictures of the largest
size that a request can carry. Prints JSON.

Use: SHOTMENTOR_CAMERA=... SHOTMENTOR_PHONE=... Bench/desk_costs.py
"""

import json
import os
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "Tests" / "Desk"))

from desk import LIST, Camera, delete_request, phone_record, picture, picture_request, request  # noqa: E402
from desk import records_in, store_request, store_result  # noqa: E402

LARGEST_PICTURE = 599248
REPEATS = 40


def processor_time(pid):
    """Nanoseconds of processor time that a process has had."""
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0])


def kilobytes(pid, name):
    status = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    return next(int(line.split()[1]) for line in status if line.startswith(name))


def microseconds(camera, action):
    before = processor_time(camera.pid)
    for number in range(REPEATS):
        action(number)
    return (processor_time(camera.pid) - before) / 1000 / REPEATS


def costs(folder, count):
    with Camera(folder, "--empty") as camera, camera.link() as link:
        start = kilobytes(camera.pid, "VmRSS")
        for number in range(count):
            result, *_ = store_result(link.ask(store_request(phone_record(), picture(number, LARGEST_PICTURE))))
            assert result == 1
        custom_id = 1
        last = []

        def store(number):
            answer = store_result(link.ask(store_request(phone_record(), picture(number, LARGEST_PICTURE))))
            assert answer[0] == 1
            last[:] = [answer[1], answer[2]]

        def delete(_):
            assert len(records_in(link.ask(delete_request(tuple(last))), head=20)) == count

        def store_and_delete(number):
            store(number)
            delete(number)

        return {
            "presets": count,
            "list, µs": microseconds(camera, lambda _: link.ask(request(LIST))),
            "picture, µs": microseconds(camera, lambda _: link.ask(picture_request(custom_id))),
            "store and delete, µs": microseconds(camera, store_and_delete),
            "memory at the start, KB": start,
            "memory then, KB": kilobytes(camera.pid, "VmRSS"),
            "most memory, KB": kilobytes(camera.pid, "VmHWM"),
        }


def main():
    with tempfile.TemporaryDirectory() as folder:
        rows = [costs(os.path.join(folder, str(count)), count) for count in (1, 10, 39)]
    print(json.dumps(rows))


if __name__ == "__main__":
    main()
