#!/usr/bin/env python3
"""Prints what the tests said that failed in ctest's last run, so that it need not be searched for above.

Usage: tools/show_failures.py BUILD_FOLDER
"""

import pathlib
import re
import sys

MOST_LINES = 60  # of each test: the end says what failed

if len(sys.argv) != 2:
    sys.exit(__doc__.strip().splitlines()[-1])
logs = pathlib.Path(sys.argv[1], "Testing", "Temporary")
failed = {line.partition(":")[2] for line in (logs / "LastTestsFailed.log").read_text().splitlines()}
log = (logs / "LastTest.log").read_text(errors="replace")
for name, said in re.findall(r"^\d+/\d+ Test(?:ing)?: (\S+)\n(.*?)^<end of output>", log, re.MULTILINE | re.DOTALL):
    if name in failed:
        print(f"==> {name} failed; the end of what it said:", *said.splitlines()[-MOST_LINES:], sep="\n")
