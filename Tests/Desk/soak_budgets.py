"""What Desk/Camera/Budgets.h says that phones may take of a camera, and what a camera has taken."""

import os
import re

SOURCES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
HEADERS = (
    "Src/ADE_ShotMentor_Records.h",
    "Src/ADE_ShotMentor.h",
)  # the library's numbers, which the budgets use
SECONDS = {"milliseconds": 0.001, "seconds": 1}


class Budgets:
    """Each number of the header by its name, times in seconds."""

    def __init__(self, values):
        self.__dict__.update(values)


def text_of(path):
    with open(os.path.join(SOURCES, path)) as file:
        return file.read()


def read_budgets(text):
    values = {}
    for header in HEADERS:
        values.update((name, int(n)) for name, n in re.findall(r"\b(SM_\w+) = (\d+)\b", text_of(header)))
    declarations = r"constexpr ([\w:]+) (\w+)(?:\s*=\s*([^;]+)|\{([^;]+)\});"
    for kind, name, assigned, braced in re.findall(declarations, re.sub(r"//.*", "", text)):
        values[name] = calculated(name, assigned or braced, values) * SECONDS.get(kind, 1)
    return Budgets(values)


def calculated(name, expression, values):
    """The value of a sum, product or shift of numbers and names."""
    plain = re.sub(r"\bsize_t\{(\w+)\}", r"\1", expression)
    if not re.fullmatch(r"[\w\s+*<()-]+", plain):
        raise ValueError(f"Budgets.h: the value of {name} cannot be read: {expression}")
    return eval(plain, {"__builtins__": {}}, dict(values))


BUDGETS = read_budgets(text_of("Desk/Camera/Budgets.h"))


# ---- What a process has taken ------------------------------------------------------------------------------


def memory_of(pid):
    """KiB by the kernel's names: RssAnon (resident, less the pages of files), RssFile, VmHWM (the most that was
    resident at any time)."""
    with open(f"/proc/{pid}/status") as status:
        return {name: int(n) for name, n in re.findall(r"^(\w+):\s+(\d+) kB$", status.read(), re.MULTILINE)}


def peak_of(pid):
    """KiB of memory at its highest, less the pages of files: code that runs for the first time is no leak."""
    memory = memory_of(pid)
    return memory["VmHWM"] - memory["RssFile"]


def descriptors_of(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))
