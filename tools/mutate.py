#!/usr/bin/env python3
"""Plants single faults in the library's sources and looks whether the tests notice.

Use: tools/mutate.py BUILD_FOLDER [--jobs 2] [--sample N [--seed S]] [--only FILE] [--list]

BUILD_FOLDER is configured with Ninja, without sanitizers, and holds the built tests; it is only read. Each fault goes
into a copy of Src in a temporary folder, from which the shared library alone is built (-O1) and put under the tests. A
fault that leaves the compiled objects as they were is no fault. Survivors that tools/mutants.explained explains do not
count. Fails when 2 % or more of the faults that were run survive unexplained, or when an explanation explains nothing.
"""
import argparse
import concurrent.futures
import dataclasses
import json
import os
import pathlib
import queue
import random
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
EXPLAINED = ROOT / "tools" / "mutants.explained"
MOST_SURVIVORS = 0.02
LIMITS = ["prlimit", f"--as={4 << 30}", "--core=0"]  # a fault may ask for any amount of memory
COMPILE_TIMEOUT = 120
SLOW_TEST = 0.02  # seconds; slower tests run after all others, when those have not found the fault


# ---- Where faults can be planted ------------------------------------------------------------------------------------

CODE, TEXT, SKIPPED = "c", "t", "-"
TOKENS = re.compile(
    r"(?P<skipped>//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*|\b(?:static_assert|__attribute__)\b|"
    r"\bextern\s+\"C\"|'(?:\\.|[^'\\\n])+')"
    r"|(?P<text>\"(?:\\.|[^\"\\\n])*\")",
    re.DOTALL | re.MULTILINE,
)


def end_of_brackets(source, start):
    """Position behind the bracket pair that opens next."""
    depth = 0
    for position in range(source.index("(", start), len(source)):
        depth += {"(": 1, ")": -1}.get(source[position], 0)
        if depth == 0:
            return position + 1
    return len(source)


def kinds_of(source):
    """One letter for each character: code, text, or what no fault is planted in."""
    kinds = [CODE] * len(source)
    position = 0
    while match := TOKENS.search(source, position):
        first, end = match.span()
        if match.group() in ("static_assert", "__attribute__"):
            end = end_of_brackets(source, end)
        kinds[first:end] = (TEXT if match.group("text") else SKIPPED) * (end - first)
        position = end
    return "".join(kinds)


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    first: int  # the characters that are replaced
    end: int
    new: str
    line: int
    text: str  # of the line
    change: str

    def __str__(self):
        return f"Src/{self.file}:{self.line}: {self.change}\n    {self.text}"


TURNED = {
    "<": ("<=", ">="),
    ">": (">=", "<="),
    "<=": ("<", ">"),
    ">=": (">", "<"),
    "==": ("!=",),
    "!=": ("==",),
    "&&": ("||",),
    "||": ("&&",),
    "+": ("-",),
    "-": ("+",),
    "*": ("/",),
    "/": ("*",),
    "%": ("/",),
    "++": ("--",),
    "--": ("++",),
    "+=": ("-=",),
    "-=": ("+=",),
    "&=": ("|=",),
    "&": ("|",),
    ">>": ("<<",),
    "!": ("",),
}
# Binary operators have blanks around them in this code.
OPERATOR = re.compile(r"(?<= )(<=|>=|==|!=|&&|\|\||\+=|-=|&=|>>|<|>|\+|-|\*|/|%|&)(?=[ \n])|(\+\+|--)|(!)(?=[\w(])")
NUMBER = re.compile(r"(?<![\w.])(0[xX][0-9A-Fa-f]+|\d+)([uUlL]*)(?![\w.])")
LEVELS = ["PLAIN", "GREEN", "YELLOW", "CYAN", "WARN", "ERROR"]
LEVEL = re.compile(r"(?:ALG_LOG_LEVEL_|ALG_LOG_|, )(PLAIN|GREEN|YELLOW|CYAN|WARN|ERROR)(?=[(),])")
WORD = re.compile(r"\b(true|false)\b")
STATEMENT = re.compile(r"(?:(?<=[;{}])|(?<=[a-z0-9A-Z]:))(\s*\n[ \t]+)(\s*[^\s;{}][^;{}]*;)(?=[ \t]*(?:\n|//))")
DECLARATION = re.compile(
    r"(?:const|constexpr|void|extern|static|typedef|using|struct|enum|char|int|u?int\d+_t|size_t|bool|va_list|break|"
    r"unsigned|case|default|else|\w+ \w+;)\b"
)


def code_changes(source, kinds):
    def plain(match, group=0):
        first, end = match.span(group)
        return set(kinds[first:end]) == {CODE}

    for match in NUMBER.finditer(source):
        if plain(match):
            number = int(match.group(1), 0)
            hexadecimal = match.group(1)[:2] in ("0x", "0X")
            line = source[source.rindex("\n", 0, match.start()) + 1 : match.end()].strip()
            other = number + (1 if number == 0 else random.Random(line).choice((-1, 1)))
            yield *match.span(1), f"{other:#x}" if hexadecimal else str(other)
    for match in OPERATOR.finditer(source):
        if plain(match, match.lastindex):
            for turned in TURNED[match.group(match.lastindex)]:
                yield *match.span(match.lastindex), turned
    for match in LEVEL.finditer(source):
        if plain(match, 1):
            yield *match.span(1), LEVELS[(LEVELS.index(match.group(1)) + 1) % len(LEVELS)]
    for match in WORD.finditer(source):
        if plain(match):
            yield *match.span(), "false" if match.group() == "true" else "true"


def dropped_statements(source, kinds):
    blanked = "".join(" " if kind == SKIPPED and letter != "\n" else letter for letter, kind in zip(source, kinds))
    for match in STATEMENT.finditer(blanked):
        statement = match.group(2)
        first = match.start(2) + len(statement) - len(statement.lstrip())
        at_the_end = re.match(r"\s*\n\}", blanked[match.end() :])  # falling off a function's end is no fault to test
        if DECLARATION.match(statement.lstrip()) or (statement.lstrip().startswith("return") and at_the_end):
            continue
        yield first, match.end(2), ";" + "\n" * source.count("\n", first, match.end(2))


def changed_letters(source, kinds):
    for match in TOKENS.finditer(source):
        if not match.group("text") or kinds[match.start()] != TEXT:
            continue
        inner = match.group()
        letters = [spot.start() for spot in re.finditer(r"(?<![%\\.\d])(?<!\\x)[A-Za-z]", inner)]
        if letters:
            at = random.Random(inner).choice(letters)
            letter = inner[at]
            yield match.start() + at, match.start() + at + 1, "Z" if letter != "Z" else "Y"


def mutants_of(path):
    source = path.read_text()
    kinds = kinds_of(source)
    lines = source.split("\n")
    changes = [*code_changes(source, kinds), *dropped_statements(source, kinds), *changed_letters(source, kinds)]
    seen = {}
    for first, end, new in sorted(set(changes)):
        line = source.count("\n", 0, first)
        old = " ".join(source[first:end].split())
        if kinds[first] == TEXT:
            change = f"letter {first - source.rindex(chr(10), 0, first)}: {old} -> {new}"
        else:
            change = f"{old} -> {new}" if new.strip(";\n") else f"dropped: {old}"
        seen[line, change] = seen.get((line, change), 0) + 1
        if seen[line, change] > 1:
            change += f" ({seen[line, change]}.)"
        yield Mutant(path.name, first, end, new, line + 1, lines[line].strip(), change)


# ---- Building and running one ---------------------------------------------------------------------------------------

KILLED, SURVIVED, NOT_BUILT, EQUIVALENT = "killed", "survived", "did not build", "changed nothing"


class Build:
    """How the build folder compiles and links the library."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder).resolve()
        self.tests = self.folder / "Tests" / "shotmentor_tests"
        self.compilations = {}
        for entry in json.loads((self.folder / "compile_commands.json").read_text()):
            source = pathlib.Path(entry["file"])
            if source.parent == ROOT / "Src":
                self.compilations[source.name] = shlex.split(entry["command"])
        commands = subprocess.run(
            ["ninja", "-C", str(self.folder), "-t", "commands", "libshotmentor.so"],
            check=True,
            capture_output=True,
            text=True,
        ).stdout.splitlines()
        link = next(line for line in commands if " -shared " in line)
        self.link = shlex.split(link.replace(": && ", "").replace(" && :", ""))

    def compile_command(self, source, work):
        command = []
        skip = False
        for word in self.compilations[source]:
            if skip or word in ("-MD", "-c") or re.match(r"-(W|O|g|Werror)", word) or word.endswith(source):
                skip = False
                continue
            if word in ("-o", "-MT", "-MF"):
                skip = True
                continue
            command.append(word.replace(str(ROOT), str(work)))
        return command + ["-O1", "-w", "-c", str(work / "Src" / source), "-o", str(work / (source + ".o"))]

    def link_command(self, work):
        command = [word for word in self.link if not word.endswith(".cpp.o")]
        command[command.index("-o") + 1] = str(work / "lib" / "libshotmentor.so.1")
        return command + [str(work / (source + ".o")) for source in sorted(self.compilations)]


class Bench:
    """A folder with a copy of the sources, their objects and the library. One fault at a time."""

    def __init__(self, build, folder):
        self.build = build
        self.work = pathlib.Path(folder)
        self.work.mkdir()
        (self.work / "lib").mkdir()
        (self.work / "run").mkdir()
        shutil.copytree(ROOT / "Src", self.work / "Src")
        self.timeout = COMPILE_TIMEOUT
        self.slow = ""
        self.original = {}
        for source in build.compilations:
            if not self.compiles(source):
                sys.exit(f"{source} does not compile")
            self.original[source] = self.object(source).read_bytes()

    def object(self, source):
        return self.work / (source + ".o")

    def succeeds(self, command, timeout, **options):
        try:
            return (
                subprocess.run(
                    LIMITS + command,
                    timeout=timeout,
                    stdin=subprocess.DEVNULL,
                    stdout=subprocess.DEVNULL,
                    stderr=subprocess.DEVNULL,
                    **options,
                ).returncode
                == 0
            )
        except subprocess.TimeoutExpired:
            return False

    def compiles(self, source):
        return self.succeeds(self.build.compile_command(source, self.work), COMPILE_TIMEOUT)

    def links(self):
        return self.succeeds(self.build.link_command(self.work), COMPILE_TIMEOUT, cwd=self.build.folder)

    def tests_pass(self, *options):
        environment = dict(os.environ, LD_LIBRARY_PATH=str(self.work / "lib"))
        return self.succeeds(
            [str(self.build.tests), "--gtest_brief=1", "--gtest_fail_fast", *options],
            self.timeout,
            cwd=self.work / "run",
            env=environment,
        )

    def finds_slow_tests(self):
        """Runs all tests. Returns the names of the slow ones, or None when a test fails."""
        times = self.work / "times.json"
        if not self.links() or not self.tests_pass(f"--gtest_output=json:{times}"):
            return None
        tests = [test for suite in json.loads(times.read_text())["testsuites"] for test in suite["testsuite"]]
        return ":".join(
            f"{test['classname']}.{test['name']}" for test in tests if float(test["time"].rstrip("s")) > SLOW_TEST
        )

    def affected(self, file):
        if file.endswith(".cpp"):
            return [file]
        return [source for source in self.original if self.includes(source, file)]

    def includes(self, source, header, seen=()):
        included = re.findall(r'^#include "(\w+\.h)"', (ROOT / "Src" / source).read_text(), re.MULTILINE)
        return header in included or any(
            self.includes(other, header, (*seen, source)) for other in included if other not in seen
        )

    def verdict(self, mutant):
        path = self.work / "Src" / mutant.file
        source = path.read_text()
        affected = self.affected(mutant.file)
        path.write_text(source[: mutant.first] + mutant.new + source[mutant.end :])
        try:
            if not all(self.compiles(unit) for unit in affected):
                return NOT_BUILT
            if all(self.object(unit).read_bytes() == self.original[unit] for unit in affected):
                return EQUIVALENT
            if not self.links():
                return NOT_BUILT
            passed = self.tests_pass(f"--gtest_filter=-{self.slow}") and self.tests_pass(f"--gtest_filter={self.slow}")
            return SURVIVED if passed else KILLED
        finally:
            path.write_text(source)
            for unit in affected:
                self.object(unit).write_bytes(self.original[unit])


def verdicts_of(mutants, build, jobs):
    """Yields each mutant with its verdict, in order."""
    with tempfile.TemporaryDirectory(prefix="mutate-") as folder:
        benches = queue.Queue()
        for job in range(jobs):
            benches.put(Bench(build, f"{folder}/{job}"))
        first = benches.get()
        started = time.monotonic()
        slow = first.finds_slow_tests()
        if slow is None:
            sys.exit("the tests fail without any fault")
        timeout = 10 + 10 * (time.monotonic() - started)
        benches.put(first)

        def run(mutant):
            bench = benches.get()
            bench.timeout, bench.slow = timeout, slow
            try:
                return mutant, bench.verdict(mutant)
            finally:
                benches.put(bench)

        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            yield from pool.map(run, mutants)


# ---- Explanations and the report ------------------------------------------------------------------------------------


def read_explanations():
    """Blocks, apart by blank lines, of a file, a line's text, changes of it and why no test sees them; # comments."""
    explanations = []
    if EXPLAINED.exists():
        text = "\n".join(line for line in EXPLAINED.read_text().splitlines() if not line.startswith("#"))
        for block in filter(None, re.split(r"\n\s*\n", text.strip())):
            pairs = [line.partition(": ")[::2] for line in block.splitlines()]
            keys = [key for key, _ in pairs]
            if keys[:2] != ["file", "line"] or set(keys[2:-1]) != {"change"} or keys[-1] != "why" or not pairs[-1][1]:
                sys.exit(f"{EXPLAINED.name}: not file, line, change (any number of them) and why:\n{block}")
            explanations += [{"file": pairs[0][1], "line": pairs[1][1], "change": change} for _, change in pairs[2:-1]]
    return explanations


def explains(entry, mutant):
    return (entry["file"], entry["line"], entry["change"]) == (mutant.file, mutant.text, mutant.change)


def report(verdicts, all_mutants, explanations, whole):
    counts = {
        kind: sum(verdict == kind for _, verdict in verdicts) for kind in (KILLED, SURVIVED, NOT_BUILT, EQUIVALENT)
    }
    survivors = [mutant for mutant, verdict in verdicts if verdict == SURVIVED]
    unexplained = [mutant for mutant in survivors if not any(explains(entry, mutant) for entry in explanations)]
    # A sample may leave out the fault that an entry explains; it must then at least be one that can be planted.
    candidates = survivors if whole else all_mutants
    stale = [entry for entry in explanations if not any(explains(entry, mutant) for mutant in candidates)]
    for entry in stale:
        print(f"explains nothing: {entry['file']}: {entry['change']}\n    {entry['line']}")
    run = counts[KILLED] + counts[SURVIVED]
    share = len(unexplained) / run if run else 0
    print(", ".join(f"{number} {kind}" for kind, number in counts.items()))
    print(
        f"{run} faults run, {len(survivors) - len(unexplained)} survivors explained, "
        f"{len(unexplained)} unexplained: {100 * share:.2f} %"
    )
    return 1 if stale or share >= MOST_SURVIVORS else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", help="a configured and built folder")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--seed", default="0", help="chooses the sample")
    parser.add_argument("--sample", type=int, help="run as many faults, chosen by the seed")
    parser.add_argument("--only", help="plant faults in this file of Src alone")
    parser.add_argument("--list", action="store_true", help="list the faults, run none")
    options = parser.parse_args()

    files = sorted(path for path in (ROOT / "Src").iterdir() if path.suffix in (".cpp", ".h"))
    all_mutants = [mutant for path in files for mutant in mutants_of(path)]
    mutants = [mutant for mutant in all_mutants if options.only in (None, mutant.file)]
    if not mutants:
        sys.exit("there is nothing to change")
    if options.sample is not None and options.sample < len(mutants):
        chosen = sorted(random.Random(options.seed).sample(range(len(mutants)), options.sample))
        mutants = [mutants[index] for index in chosen]
    if options.list:
        print(*mutants, sep="\n")
        return 0
    explanations = read_explanations()
    verdicts = []
    for mutant, verdict in verdicts_of(mutants, Build(options.build), options.jobs):
        verdicts.append((mutant, verdict))
        if verdict == SURVIVED and not any(explains(entry, mutant) for entry in explanations):
            print(mutant, flush=True)
        if sys.stderr.isatty():
            print(f"\r{len(verdicts)} of {len(mutants)}", end="", file=sys.stderr)
    return report(verdicts, all_mutants, explanations, len(mutants) == len(all_mutants))


if __name__ == "__main__":
    sys.exit(main())
