"""What a camera's surroundings do to it: a disk that fills up, files that are no files, system calls that fail, and
a standard error that nobody reads."""

import contextlib
import errno
import fcntl
import functools
import os
import shutil
import subprocess
import tempfile

from desk import picture

SYSTEM_CALLS = os.environ.get("SHOTMENTOR_SYSTEM_CALLS", "")  # Tests/Desk/SystemCalls.h as a shared object
SPACE = 32 << 20  # bytes of the disk that is filled


class Disk:
    """A folder, and in it a small file system where one can be mounted, else one that cannot be filled."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="soak-")
        self.small = self.path("small")
        os.mkdir(self.small)
        command = ["mount", "-t", "tmpfs", "-o", f"size={SPACE}", "tmpfs", self.small]
        self.room = True
        self.mounted = os.geteuid() == 0 and subprocess.run(command, capture_output=True).returncode == 0

    def path(self, name, content=None):
        path = os.path.join(self.folder, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path

    @contextlib.contextmanager
    def full(self, left):
        """No room but for some bytes."""
        path, space = os.path.join(self.small, "filler"), os.statvfs(self.small)
        with open(path, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, max(1, space.f_bavail * space.f_frsize - left))
        self.room = False
        try:
            yield
        finally:
            os.remove(path)
            self.room = True

    def close(self):
        if self.mounted:
            subprocess.run(["umount", "-l", self.small], check=True)
        shutil.rmtree(self.folder, ignore_errors=True)


# ---- Files -------------------------------------------------------------------------------------------------


def beside_the_store(path, name):
    """A place outside of the store that a picture of this path lies in, but on the same disk."""
    return os.path.normpath(os.path.join(path, "..", "..", "..", name))


def put_link(path):
    """A link to a picture that is not the store's."""
    target = beside_the_store(path, "foreign.jpg")
    with open(target, "wb") as file:
        file.write(picture(0, 5000))
    os.symlink(target, path)


def put_sparse_file(path, size):
    with open(path, "wb") as file:
        file.truncate(size)


NO_FILES = {  # what lies in a picture's place
    "a pipe": os.mkfifo,
    "a link": put_link,
    "a file of 2 GB": functools.partial(put_sparse_file, size=2 << 30),
    "a file of 20 MB": functools.partial(put_sparse_file, size=20 << 20),
}


@contextlib.contextmanager
def displaced(path, put):
    """Something else lies in the file's place."""
    aside = beside_the_store(path, "aside.jpg")
    os.rename(path, aside)
    try:
        put(path)
        yield
    finally:
        os.rename(aside, path)


def plant_orphans(store, dice, used_ids):
    """Puts pictures into a store at rest whose names only a store gives, but which no preset has."""
    folder = os.path.join(store, "pictures")
    numbers = [
        max(used_ids, default=0) + 1000 + dice.randrange(1000),
        dice.randint(1, max(used_ids, default=1)),
    ]
    names = [f"{n}.jpg{end}" for n in numbers if n not in used_ids for end in ("", ".new")]
    for name in names:
        with open(os.path.join(folder, name), "wb") as file:
            file.write(picture(0, 400) * dice.randint(0, 3))
    return names


# ---- System calls ------------------------------------------------------------------------------------------

# Of each kind that a store makes: calls until a camera serves, and of a change.
CALLS = {
    "fsync": (3, 1), "fdatasync": (0, 5), "pwrite": (0, 12), "ftruncate": (0, 1), "open": (8, 3),
    "rename": (0, 1), "unlink": (0, 1), "write": (0, 1),
}  # fmt: skip
LAST_OF_A_COMMIT = "fdatasync"
ERRORS = ("EIO", "ENOSPC", "EMFILE")


class CallFault:
    """One kind of system call that fails in a camera's store, once or for good."""

    def __init__(self, dice, for_good, changes):
        self.kind, self.error, self.for_good = dice.choice(list(CALLS)), dice.choice(ERRORS), for_good
        until_serving, of_change = CALLS[self.kind]
        self.nth = dice.randint(1, until_serving + of_change * changes)

    def hit_end_of_commit(self, dice, changes):
        """Fails where all has been written already."""
        self.kind = LAST_OF_A_COMMIT
        self.nth = CALLS[self.kind][1] * dice.randint(1, changes)

    def __str__(self):
        return f"{self.kind} {self.nth}{'+' if self.for_good else ''} {self.error}"

    def environment(self, store, report):
        """Steers the camera. What it does is reported in a file."""
        with contextlib.suppress(FileNotFoundError):
            os.remove(report)
        fault = f"{self.kind}:{self.nth}:{getattr(errno, self.error)}{'+' if self.for_good else ''}"
        return {
            "LD_PRELOAD": SYSTEM_CALLS,
            "SYSTEM_CALLS_FOLDER": os.path.realpath(store),
            "SYSTEM_CALLS_FAULT": fault,
            "SYSTEM_CALLS_REPORT": report,
        }

    def occurrences(self, report):
        """How often it has occurred."""
        with open(report) as calls:
            words = [line.split(" ") for line in calls]
        return sum(w[0] == self.kind and w[2:4] == ["-1", str(getattr(errno, self.error))] for w in words)


class Obstacle:
    """A file beside the database that no store has. While it is there the store cannot be opened anew, and cannot
    find out what has become of a change."""

    def __init__(self, store):
        self.path = os.path.join(store, "presets.sqlite-shm")

    def put(self):
        with open(self.path, "wb"):
            pass

    def remove(self):
        with contextlib.suppress(FileNotFoundError):
            os.remove(self.path)


# ---- Standard error ----------------------------------------------------------------------------------------


class UnreadPipe:
    """A standard error for a camera that nobody ever reads: it is full after some lines, or from the start, or has
    nobody at its other end."""

    STATES = ("empty", "full", "broken")

    def __init__(self, state):
        self.reader, self.writer = (os.fdopen(end, mode, 0) for end, mode in zip(os.pipe(), ("rb", "wb")))
        size = fcntl.fcntl(self.writer, fcntl.F_SETPIPE_SZ, 4096)
        if state == "full":
            self.writer.write(b"x" * size)
        if state == "broken":
            self.reader.close()

    def fileno(self):
        return self.writer.fileno()

    def written(self):
        return b"(nobody reads it)"

    def close(self):
        self.reader.close()
        self.writer.close()
