#!/usr/bin/env python3
"""Builds what the tests with the given names need, in a configured preset, and runs just these.

Usage: tools/run_only.py PRESET PATTERN...
  PATTERN  'Suite.Test' as GoogleTest and ctest name a test, with * and ? as in file names;
           'Desk.test_camera' is a file of conversations, 'Desk.test_camera:Class' and
           'Desk.test_camera:Class.test' a part of one
A pattern that no test's name matches ends with status 2 before anything is built.
"""

import fnmatch
import importlib
import json
import os
import re
import subprocess
import sys
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SHARD = re.compile(r"(.*)\.\d+of\d+")  # a part of a test program, run so where a process takes long to start


class NoSuchTest(Exception):
    """No test has a name that matches."""


class Registered:
    """A test that CMake has registered: its command and its environment."""

    def __init__(self, command, environment):
        self.command = command
        self.environment = environment

    def files_within(self, folder):
        """What the test needs of the build, relative to its folder."""
        words = self.command + [assignment.partition("=")[2] for assignment in self.environment]
        return [os.path.relpath(word, folder) for word in words if word.startswith(folder + os.sep)]


def registered_tests(build):
    """What ctest knows without asking test programs, by name; also when nothing is built yet."""
    tests = {}
    for folder, _, files in os.walk(build):
        if "CTestTestfile.cmake" not in files:
            continue
        with open(os.path.join(folder, "CTestTestfile.cmake"), encoding="utf-8") as file:
            text = file.read()
        for name, command in re.findall(r"^add_test\(\[=\[(.*?)\]=\] (.*)\)$", text, re.M):
            properties = re.search(
                rf'^set_tests_properties\(\[=\[{re.escape(name)}\]=\] .*?ENVIRONMENT "(.*?)"', text, re.M
            )
            environment = properties.group(1).split(";") if properties else []
            tests[name] = Registered(re.findall(r'"(.*?)"', command), environment)
    return tests


def test_programs(build):
    """The names of the GoogleTests in the sources of each program, which is named by its path in the build folder."""
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        commands = json.load(file)
    programs = {}
    for entry in commands:
        if not entry["file"].startswith(os.path.join(ROOT, "Tests") + os.sep) or not os.path.exists(entry["file"]):
            continue
        with open(entry["file"], encoding="utf-8") as source:
            names = re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", source.read(), re.M)
        if names:
            program = re.sub(r".* -o (\S+?)CMakeFiles/([^/]+)\.dir/.*", r"\1\2", entry["command"])
            programs.setdefault(program, []).extend(".".join(name) for name in names)
    return programs


def without_parameters(pattern):
    """'Of/Suite.Test/3', an instance of a test with parameters, is in the sources as Suite.Test."""
    return re.sub(r"^[^./]*/|/[^./]*$", "", pattern)


def google_test_filter(patterns):
    """Each pattern also stands for all instances of a test with parameters."""
    return ":".join(f"{pattern}:*/{pattern}/*" for pattern in patterns)


def conversations_within(test, pattern):
    """The conversations of a Python file whose Class.test, or whose class, matches."""
    folder, file = os.path.split(test.command[-1])
    os.environ.update(assignment.split("=", 1) for assignment in test.environment)
    sys.path.insert(0, folder)
    sys.dont_write_bytecode = True
    module = importlib.import_module(os.path.splitext(file)[0])
    found = []
    for suite in unittest.defaultTestLoader.loadTestsFromModule(module):
        for case in suite:
            class_name, name = case.id().rsplit(".", 2)[-2:]
            if fnmatch.fnmatchcase(class_name, pattern) or fnmatch.fnmatchcase(f"{class_name}.{name}", pattern):
                found.append(f"{class_name}.{name}")
    return found


class Selection:
    """What the patterns select: patterns by program, whole tests of ctest, and parts of Python files."""

    def __init__(self, build, patterns):
        self.build = build
        self.registered = registered_tests(build)
        self.programs = {}
        self.whole = []
        self.parts = []
        sources = test_programs(build)
        for pattern in patterns:
            found = self.add_part(pattern) if ":" in pattern else self.add(pattern, sources)
            if not found:
                raise NoSuchTest(pattern)

    def add(self, pattern, sources):
        named = without_parameters(pattern)
        programs = [program for program, names in sources.items() if fnmatch.filter(names, named)]
        for program in programs:
            self.programs.setdefault(program, []).append(pattern)
        whole = [name for name in fnmatch.filter(self.registered, pattern) if not SHARD.fullmatch(name)]
        self.whole += whole
        return programs + whole

    def add_part(self, pattern):
        name, _, part = pattern.partition(":")
        if name not in self.registered:
            return []
        conversations = conversations_within(self.registered[name], part)
        if conversations:
            self.parts.append((self.registered[name], conversations))
        return conversations

    def targets(self):
        tests = [self.registered[name] for name in self.whole] + [test for test, _ in self.parts]
        files = [file for test in tests for file in test.files_within(self.build)]
        return sorted({*self.programs, *files})

    def program_command(self, program):
        """With the emulator in front where another machine's programs are built."""
        path = os.path.join(self.build, program)
        for name, test in self.registered.items():
            if SHARD.fullmatch(name) and path in test.command:
                return test.command[: test.command.index(path) + 1]
        return [path]

    def run(self):
        """Whether all have passed."""
        return all([*self.run_programs(), *self.run_parts(), *self.run_whole()])

    def run_programs(self):
        for program, patterns in self.programs.items():
            command = [*self.program_command(program), f"--gtest_filter={google_test_filter(patterns)}"]
            listed = subprocess.run([*command, "--gtest_list_tests"], stdout=subprocess.PIPE, text=True, check=True)
            if "\n  " not in listed.stdout:
                raise NoSuchTest(" ".join(patterns))
            yield subprocess.run(command, check=False).returncode == 0

    def run_parts(self):
        for test, conversations in self.parts:
            environment = dict(assignment.split("=", 1) for assignment in test.environment)
            command = [*test.command, "-v", *conversations]
            yield subprocess.run(command, env={**os.environ, **environment}, check=False).returncode == 0

    def run_whole(self):
        if self.whole:
            names = "|".join(re.escape(name) for name in self.whole)
            command = ["ctest", "--test-dir", self.build, "--output-on-failure", "-R", f"^({names})$"]
            yield subprocess.run([*command, "-j", str(os.cpu_count())], check=False).returncode == 0


def built(build, targets):
    if not targets:
        return True
    return subprocess.run(["cmake", "--build", build, "--target", *targets], check=False).returncode == 0


def main():
    if len(sys.argv) < 3:
        print("usage: tools/run_only.py PRESET PATTERN...", file=sys.stderr)
        return 2
    preset, patterns = sys.argv[1], sys.argv[2:]
    build = os.path.join(ROOT, "build", preset)
    try:
        selection = Selection(build, patterns)
        return 0 if built(build, selection.targets()) and selection.run() else 1
    except NoSuchTest as pattern:
        print(f"test.sh: no test of preset {preset} has a name that matches '{pattern}'", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
