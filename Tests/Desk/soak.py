#!/usr/bin/env python3
"""Lets phones of all kinds use cameras under faults for as long as asked, and looks whether anything is lost.

Use: Tests/Desk/soak.py MINUTES [--seed N]

MINUTES may be a fraction. SHOTMENTOR_CAMERA and SHOTMENTOR_PHONE name the programs, as for the tests;
SHOTMENTOR_SYSTEM_CALLS names Tests/Desk/SystemCalls as a shared object, without which no system call fails.

A round is one life of a camera: it is started on a store that an earlier one left, with options and faults by
chance, serves phones, and ends in order or by `kill -9`. One store lies on this machine's disk, where a change
takes its time and a kill falls into it, one on a small disk that is filled now and then. Between the rounds
phones visit two more cameras, which have stores of their own and live as long as the run. A book keeps what each
store has confirmed. The same seed takes the same chances; how far a camera has come when it is killed is a
matter of time.

soak_rounds.py plans rounds and reports, soak_life.py is one life of a camera, soak_phones.py, soak_liars.py and
soak_intruders.py are the phones, soak_faults.py is what surrounds a camera, soak_budgets.py what it may take, and
soak_book.py the book.

Exit code 0: nothing was lost. 1: something was; one line says what, and the stores are kept. 2: wrong usage.
"""

import os
import random
import re
import signal
import sys
import traceback

from desk import CAMERA, PHONE
from soak_rounds import Soak


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
