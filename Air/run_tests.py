"""What runs in the guest: each class of conversations over each of its kinds of links, in one process.

Prints a line for each conversation as it ends, and at the end what failed, with all that is known of it. The exit code
is 1 when one failed, and 2 when none was wanted.
"""

import faulthandler
import fnmatch
import glob
import importlib
import os
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
# A file of conversations may be called like one of the desk's tests: those come first, and these as parts of "Air".
sys.path[:1] = [f"{ROOT}/Tests/Desk"]
sys.path += [HERE, ROOT]

from air import AirTest, turn_on  # noqa: E402

LONGEST = 60  # seconds that a conversation may take


def say(*words):
    print(*words, flush=True)


class Result(unittest.TestResult):
    """One line for each conversation; subtests fail the one that they belong to."""

    def __init__(self):
        super().__init__()
        self.faults = {}
        self.count = 0

    def startTest(self, test):
        super().startTest(test)
        self.count += 1
        self.begin = time.monotonic()
        faulthandler.dump_traceback_later(LONGEST, exit=True, file=sys.__stdout__)

    def stopTest(self, test):
        faulthandler.cancel_dump_traceback_later()
        skipped = [why for skipped, why in self.skipped if skipped is test]
        outcome = "FAILED" if test.id() in self.faults else f"skipped: {skipped[0]}" if skipped else "ok"
        say(f"air: {name_of(test)}: {outcome}, {time.monotonic() - self.begin:.2f} s")
        super().stopTest(test)

    def note(self, test, error):
        fault = f"{test}\n{self._exc_info_to_string(error, getattr(test, 'test_case', test))}"
        say(fault)  # a guest that comes to no end has told it
        self.faults.setdefault(getattr(test, "test_case", test).id(), []).append(fault)

    def addError(self, test, error):
        self.note(test, error)

    addFailure = addError

    def addSubTest(self, test, subtest, error):
        if error:
            self.note(subtest, error)

    def addUnexpectedSuccess(self, test):
        self.faults.setdefault(test.id(), []).append(f"{test} is expected to fail, and does not")


def name_of(test):
    return f"{test.kind}: {test._testMethodName.removeprefix('test_').replace('_', ' ')}"


def conversations():
    """The classes, over each of their kinds; those that leave disorder come last."""
    classes = []
    for path in sorted(glob.glob(f"{HERE}/test_*.py")):
        module = importlib.import_module("Air." + os.path.basename(path)[: -len(".py")])
        found = [one for one in vars(module).values() if isinstance(one, type) and issubclass(one, AirTest)]
        classes += [one for one in found if one.__module__ == module.__name__]
    kinds = list(dict.fromkeys(kind for one in classes for kind in one.kinds))
    return sorted(
        (over(one, kind) for one in classes for kind in one.kinds),
        key=lambda one: (one.needs_daemon, one.disturbs, kinds.index(one.kind)),
    )


def over(one, kind):
    return type(
        one.__name__, (one,), {"kind": kind, "__module__": one.__module__, "__qualname__": f"{one.__name__}/{kind}"}
    )


def guest_of(one):
    """In which of the guests a class is run: see air.sh."""
    return "daemon" if one.needs_daemon else "le" if one.kind == "all" else one.kind


def is_wanted(test, pattern):
    names = (name_of(test), test.id())
    return any(fnmatch.fnmatchcase(name, f"*{pattern}*") for name in names)


def main():
    pattern = os.environ.get("AIR_ONLY", "").replace("+", " ")
    guest = os.environ.get("AIR_GUEST")
    turn_on()
    say(f"air: controllers are on after {open('/proc/uptime').read().split()[0]} s")
    result = Result()
    loader = unittest.defaultTestLoader
    for one in conversations():
        if guest and guest_of(one) != guest:
            continue
        wanted = [test for test in loader.loadTestsFromTestCase(one) if is_wanted(test, pattern)]
        if wanted:
            unittest.TestSuite(wanted).run(result)
    for name, faults in result.faults.items():
        say(f"air: FAILED: {name}")
        for fault in faults:
            say(fault)
    say(f"air: {result.count} conversations, {len(result.faults)} failed, {len(result.skipped)} skipped")
    return 1 if result.faults else 0 if result.count else 2


if __name__ == "__main__":
    sys.exit(main())
