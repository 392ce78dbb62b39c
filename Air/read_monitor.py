#!/usr/bin/env python3
"""Reads what a monitor of the guest's controllers saw, outside of the guest: with the phone's decode, and with tshark
and our dissector where tshark is installed.

Usage: Air/read_monitor.py PHONE TAR
Each capture of the tar file must have the requests that the conversation made, by their names. Exit code 1 when one has
not; 0 also when the tar file is empty, because no such conversation was wanted.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tarfile
import tempfile

DISSECTOR = pathlib.Path(__file__).resolve().parent.parent / "Protocol" / "shotmentor.lua"
REQUESTS = ("list", "store", "picture")


def readers(phone, path):
    yield "decode", [phone, "decode", path]
    if shutil.which("tshark"):
        yield "tshark", ["tshark", "-r", path, "-X", f"lua_script:{DISSECTOR}", "-n", "-Y", "shotmentor"]


def fault_of(name, command, home):
    environment = {**os.environ, "HOME": home, "XDG_CONFIG_HOME": home, "LC_ALL": "C.UTF-8"}
    done = subprocess.run(command, capture_output=True, text=True, timeout=100, env=environment)
    if done.returncode:
        return f"{name} ended with {done.returncode}: {done.stderr}"
    lacking = [request for request in REQUESTS if request not in done.stdout.lower()]
    return f"{name} shows no {', '.join(lacking)}:\n{done.stdout}" if lacking else ""


def main():
    phone, tar = sys.argv[1:]
    if not os.path.getsize(tar):
        return 0
    faults = []
    with tempfile.TemporaryDirectory() as folder, tarfile.open(tar) as captures:
        captures.extractall(folder)
        for capture in sorted(pathlib.Path(folder).glob("*.btsnoop")):
            for name, command in readers(phone, str(capture)):
                fault = fault_of(name, command, folder)
                print(f"air: {capture.stem}: what the monitor saw is read by {name}: {'FAILED' if fault else 'ok'}")
                faults += [fault] if fault else []
    print("\n".join(faults), end="")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
