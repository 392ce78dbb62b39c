"""The parsers that are generated of Protocol/shotmentor.ksy, for the tests that run them."""

import os
import pathlib
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
COMPILE = "tools/compile_protocol.sh"
PARSERS = ROOT / "build" / "protocol"
PYTHON = "/usr/bin/python3"  # the one that Debian's packages are for


def what_is_missing():
    """Why the parsers cannot be made or run here, in a line; nothing where they can, and then they are made."""
    if subprocess.run([PYTHON, "-c", "import kaitaistruct"], capture_output=True, check=False).returncode != 0:
        return "python3-kaitaistruct is missing: install this Debian package to test the parsers"
    made = subprocess.run([ROOT / COMPILE], capture_output=True, text=True, check=False)
    return made.stderr.strip()


def make_or_skip(test):
    """Skips a file of tests where there can be no parsers; in CI that is a failure."""
    missing = what_is_missing()
    if missing and os.environ.get("CI"):
        raise RuntimeError(missing)
    if missing:
        print(f"{test}: skipped, {missing}", file=sys.stderr)
        raise unittest.SkipTest(missing)
