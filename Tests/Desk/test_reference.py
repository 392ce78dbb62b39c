"""The man pages and the completions of shells, which both programs make from their own table of options."""

import os
import re
import shutil
import subprocess
import unittest

from desk import CAMERA, PATIENCE, PHONE, DeskTest, environment_of_programs

TOOLS = {"shotmentor-camera": CAMERA, "shotmentor-phone": PHONE}
HERE = os.path.dirname(os.path.abspath(__file__))
PROJECT = os.path.join(HERE, "..", "..")
BASH_COMPLETION = "/usr/share/bash-completion/bash_completion"

# Types a line that bash has taken apart as it does, at every blank, colon and equals sign.
COMPLETE_BASH = f"""
source {BASH_COMPLETION} && source "$1" && shift || exit 1
compopt() {{ :; }}
COMP_LINE=$1 COMP_POINT=${{#1}}
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
"_${{1//-/_}}" "$1" "${{COMP_WORDS[COMP_CWORD]}}" "${{COMP_WORDS[COMP_CWORD - 1]}}"
((${{#COMPREPLY[@]}} == 0)) || printf '%s\\n' "${{COMPREPLY[@]}}"
"""


def needs(*programs):
    """Skips a test where a program of `reference_packages` is not installed."""
    missing = [program for program in programs if not (shutil.which(program) or os.path.exists(program))]
    return unittest.skipIf(missing, f"not installed: {', '.join(missing)}")


def run(*command, **more):
    environment = environment_of_programs(MANWIDTH="100", TERM="xterm")
    return subprocess.run(command, capture_output=True, text=True, timeout=2 * PATIENCE, env=environment, **more)


def printed(tool, *arguments):
    done = run(TOOLS[tool], *arguments)
    assert done.returncode == 0 and not done.stderr, done
    return done.stdout


class Help:
    """What `--help` shows of a tool, or of one of its commands: groups of terms and their texts."""

    RUNNING = "Commands while it runs"  # these are arguments of `control`
    GROUPS_WITHOUT_OPTIONS = ("Arguments", "Commands", "Links", "Values", "Examples", "Exit codes")

    def __init__(self, tool, *command):
        self.groups = {}
        self.text = printed(tool, *command, "--help")
        for part in self.text.split("\n\n"):
            title, _, lines = part.partition(":\n")
            self.groups[title.rpartition("\n")[2]] = re.findall(r"^  (\S.*?)(?: {2,}(.*))?$", lines, re.M)
        self.options = self.names(lambda title: not title.startswith(self.GROUPS_WITHOUT_OPTIONS))
        self.own_options = self.names(lambda title: title == "Options")
        self.common_options = self.names(lambda title: title == "Common options")
        self.arguments = [term.removesuffix("...") for term, _ in self.groups.get("Arguments", [])]
        self.commands = [
            term for title, rows in self.groups.items()
            if title.startswith("Commands") and title != self.RUNNING for term, _ in rows
        ]  # fmt: skip

    def names(self, is_wanted):
        rows = [row for title, rows in self.groups.items() if is_wanted(title) for row in rows]
        return {name for term, _ in rows if term.startswith("-") for name in term.split()[0].split(",")}


def examples_in(text):
    """The command lines below "Examples:", each of which stands below what it does."""
    lines = text.partition("\nExamples:\n")[2].partition("\n\n")[0].splitlines()
    return [line.strip() for line in lines if line.startswith("    ")]


class Page:
    """A man page's sections, and in them the terms of paragraphs and the headlines, without their fonts."""

    def __init__(self, text):
        plain = re.sub(r"\\f[BIR]", "", text).replace("\\-", "-")
        parts = re.split(r"^\.SH (.*)\n", plain, flags=re.M)
        self.sections = dict(zip(parts[1::2], parts[2::2]))

    @staticmethod
    def terms(text):
        return re.findall(r"^\.TP\n(.*)", text, re.M)

    @staticmethod
    def options(text):
        """Of a term such as "-o, --output FILE" the two names."""
        return {word.rstrip(",") for term in Page.terms(text) for word in term.split() if word.startswith("-")}

    def commands(self):
        """The text below each command's headline."""
        parts = re.split(r'^\.SS "(\w+).*\n', self.sections["COMMANDS"], flags=re.M)
        return dict(zip(parts[1::2], parts[2::2]))


class ManPages(DeskTest):
    def page(self, tool):
        return Page(printed(tool, "--reference", "man"))

    @needs("mandoc", "man")
    def test_are_formatted_without_a_warning(self):
        for tool in TOOLS:
            path = self.file(f"{tool}.1", printed(tool, "--reference", "man"))
            for command in (
                ["mandoc", "-T", "lint", "-W", "warning", path],
                ["man", "--warnings", "-l", path],
            ):
                done = run(*command)
                said = done.stderr + (done.stdout if command[0] == "mandoc" else "")
                self.assertEqual((done.returncode, said), (0, ""), command)

    def test_have_the_sections_that_a_reader_looks_for(self):
        for tool in TOOLS:
            sections = list(self.page(tool).sections)
            self.assertEqual(sections[:5], ["NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS"])
            self.assertEqual(sections[-4:], ["EXAMPLES", "ENVIRONMENT", "EXIT STATUS", "SEE ALSO"])

    def test_have_the_options_of_the_help_and_no_other(self):
        for tool in TOOLS:
            self.assertEqual(self.page(tool).options(self.page(tool).sections["OPTIONS"]), Help(tool).options)

    def test_have_the_commands_of_the_help_with_their_options_and_arguments_and_no_other(self):
        for tool in TOOLS:
            commands = self.page(tool).commands()
            self.assertEqual(list(commands), Help(tool).commands)
            for name, text in commands.items():
                with self.subTest(tool=tool, command=name):
                    shown = Help(tool, name)
                    self.assertEqual(Page.options(text), shown.own_options)
                    arguments = [term for term in Page.terms(text) if not term.startswith("-")]
                    self.assertEqual(arguments, shown.arguments)

    def test_have_all_examples_of_the_help_and_of_its_commands(self):
        for tool in TOOLS:
            helps = [Help(tool)] + [Help(tool, command) for command in Help(tool).commands]
            shown = re.findall(r"^\.TP\n.*\n(.*)", self.page(tool).sections["EXAMPLES"], re.M)
            self.assertEqual(set(shown), {line for help in helps for line in examples_in(help.text)})
            self.assertEqual(len(shown), len(set(shown)))

    def test_have_the_exit_codes_of_the_help(self):
        for tool in TOOLS:
            shown = re.findall(r"^\.TP\n(.*)\n(.*)", self.page(tool).sections["EXIT STATUS"], re.M)
            self.assertEqual(shown, Help(tool).groups["Exit codes"])

    def test_and_the_desks_page_have_the_same_exit_codes(self):
        with open(os.path.join(HERE, "..", "..", "Docs", "desk.md"), encoding="utf-8") as file:
            table = file.read().partition("## Exit codes")[2]
        documented = set(re.findall(r"^\| (\d.*?) \|", table, re.M))
        told = {code for tool in TOOLS for code in Page.terms(self.page(tool).sections["EXIT STATUS"])}
        self.assertEqual(told, documented)


class BluetoothPage(DeskTest):
    """What the page about Bluetooth names is there."""

    def setUp(self):
        super().setUp()
        with open(os.path.join(PROJECT, "Docs", "bluetooth.md"), encoding="utf-8") as file:
            self.page = file.read()

    def test_has_the_identities_that_the_programs_have(self):
        form = r"[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12}"
        with open(os.path.join(PROJECT, "Desk", "Links", "ServiceUuids.h"), encoding="utf-8") as file:
            identities = dict(re.findall(rf'(\w+) = "({form})"', file.read()))
        self.assertLessEqual({"service_uuid", "psm_characteristic_uuid"}, set(identities))
        self.assertEqual(re.findall(form, self.page), list(identities.values()))

    def test_has_options_and_links_that_there_are(self):
        options = {option for tool in TOOLS for option in Help(tool).options}
        named = set(re.findall(r"(?<![\w-])--[a-z][a-z-]+", self.page))
        self.assertLess({"--listen", "--idle-timeout"}, named)
        self.assertLessEqual(named, options)
        text = Help("shotmentor-camera").text
        for kind in ("rfcomm:", "le:", "l2cap:"):
            self.assertIn(f"`{kind}`", self.page)
            self.assertIn(kind, text)


class DesksPage(DeskTest):
    def test_has_the_options_that_say_how_phones_connect(self):
        with open(os.path.join(PROJECT, "Docs", "desk.md"), encoding="utf-8") as file:
            table = set(re.findall(r"^\| `(--[a-z-]+)", file.read(), re.M))
        finding = {"--name", "--discoverable", "--pairing", "--allow"}
        self.assertLessEqual({"--listen", "--idle-timeout", "--mtu", "--capture"} | finding, table)


class HelpOfACommand(DeskTest):
    def test_has_its_own_examples_and_no_other(self):
        for tool in TOOLS:
            for command in Help(tool).commands:
                lines = examples_in(Help(tool, command).text)
                self.assertTrue(lines, command)
                for line in lines:
                    self.assertIn(command, line.split())

    def test_has_options_of_the_tool_that_there_are(self):
        for tool in TOOLS:
            for command in Help(tool).commands:
                common = Help(tool, command).common_options
                self.assertLess({"-h", "--help"}, common)
                self.assertLessEqual(common, Help(tool).options)

    def test_leaves_out_the_options_of_the_tool_that_do_nothing_for_it(self):
        for command, option in (
            ("store", "--raw"),
            ("new", "--connect"),
            ("store", "--width"),
            ("leave", "--json"),
            ("check", "--verbose"),
        ):
            self.assertNotIn(option, Help("shotmentor-phone", command).common_options)
            self.assertIn(option, Help("shotmentor-phone", "list").common_options)
        self.assertEqual(
            Help("shotmentor-camera", "link").common_options, {"-h", "--help", "--version", "--store"}
        )  # fmt: skip
        self.assertIn("--iso-step", Help("shotmentor-camera", "presets").common_options)

    def test_begins_with_its_usage(self):
        for tool, command, usage in (
            ("shotmentor-phone", "store", "--connect URL store PRESET.json PICTURE.jpg [OPTION...]"),
            ("shotmentor-phone", "picture", "--connect URL picture PRESET -o FILE [OPTION...]"),
            ("shotmentor-phone", "delete", "--connect URL delete PRESET... [OPTION...]"),
            ("shotmentor-phone", "new", "new [OPTION...]"),
            ("shotmentor-camera", "control", "control URL COMMAND... [OPTION...]"),
            ("shotmentor-camera", "link", "--store DIR link CUSTOM1|CUSTOM2 NUMBER [OPTION...]"),
        ):
            self.assertEqual(Help(tool, command).text.splitlines()[1], f"Usage: {tool} {usage}")

    def test_is_asked_for_in_either_way(self):
        for tool in TOOLS:
            self.assertEqual(printed(tool, "help"), printed(tool, "--help"))
            for command in Help(tool).commands:
                self.assertEqual(printed(tool, "help", command), printed(tool, command, "--help"))

    def test_that_there_is_not_is_wrong_usage(self):
        for tool in TOOLS:
            for arguments in (("help", "lst"), ("lst", "--help")):
                done = subprocess.run([TOOLS[tool], *arguments], capture_output=True, timeout=PATIENCE)
                self.assertEnds(done, 2)
                self.assertEqual((done.stdout, done.stderr.count(b"\n")), (b"", 1))
                self.assertIn(b"lst", done.stderr)


class Completions:
    """What a shell offers at the end of a line. Each shell below has these tests."""

    def setUp(self):
        super().setUp()
        os.mkdir(os.path.join(self.folder, "here"))
        os.mkdir(os.path.join(self.folder, "here", "roll"))
        for name in ("dawn.jpg", "dawn.json"):
            self.file(f"here/{name}", "")

    def offered(self, line):
        """The words that the shell offers, each whole from its first character on."""
        tool = line.split()[0]
        shell = type(self).shell
        self.file(self.named(tool), printed(tool, "--reference", shell))
        done = self.complete(tool, line, os.path.join(self.folder, "here"))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        words = {word.partition("\t")[0].rstrip("/") for word in done.stdout.splitlines()}
        begun = re.match(r"(.*[:=])?", line.split(" ")[-1]).group()
        return {word if word.startswith(begun) else begun + word for word in words}

    def test_are_the_commands_of_the_help(self):
        for tool in TOOLS:
            option = "--connect list" if tool == "shotmentor-phone" else "--store presets"
            for line in (f"{tool} ", f"{tool} {option} "):
                self.assertEqual(self.offered(line), set(Help(tool).commands), line)

    def test_are_the_options_of_the_help_in_front_of_a_command(self):
        for tool in TOOLS:
            self.assertEqual(self.offered(f"{tool} -"), Help(tool).options)

    def test_are_the_options_of_the_help_and_the_commands_own_behind_it(self):
        for tool in TOOLS:
            shown = Help(tool)
            for command in shown.commands:
                own = Help(tool, command).own_options
                self.assertEqual(self.offered(f"{tool} {command} -"), shown.options | own, command)

    def test_are_the_words_that_begin_as_the_line_ends(self):
        self.assertEqual(self.offered("shotmentor-phone --connect x s"), {"scan", "schema", "show", "store"})
        self.assertEqual(self.offered("shotmentor-phone --ti"), {"--timeout"})
        self.assertEqual(self.offered("shotmentor-camera --store x --log-level e"), {"error"})

    def test_are_the_choices_of_an_option(self):
        self.assertEqual(self.offered("shotmentor-camera --iso-step "), {"full", "third"})
        self.assertEqual(self.offered("shotmentor-camera --log-level "), {"off", "error", "warn", "all"})
        self.assertEqual(self.offered("shotmentor-camera --iso-step=t"), {"--iso-step=third"})

    def test_are_the_choices_of_an_argument_and_nothing_behind_it(self):
        for command in ("link", "unlink"):
            self.assertEqual(self.offered(f"shotmentor-camera --store x {command} "), {"CUSTOM1", "CUSTOM2"})
        self.assertEqual(self.offered("shotmentor-camera --store x link CUSTOM1 "), set())

    def test_are_files_where_the_help_says_so(self):
        everything = {"dawn.jpg", "dawn.json", "roll"}
        for line in (
            "shotmentor-phone picture 1 -o ", "shotmentor-phone --connect x picture 1 --output ",
            "shotmentor-phone store ", "shotmentor-phone --connect x store dawn.json ",
            "shotmentor-camera add ", "shotmentor-camera --store x add dawn.json ",
        ):  # fmt: skip
            self.assertEqual(self.offered(line), everything, line)
        self.assertEqual(self.offered("shotmentor-phone store dawn.json dawn.jp"), {"dawn.jpg"})

    def test_are_folders_for_the_store(self):
        self.assertEqual(self.offered("shotmentor-camera --store "), {"roll"})

    def test_are_the_kinds_of_links_and_then_the_path_of_a_socket(self):
        kinds = {"unix:", "tcp:", "rfcomm:", "l2cap:", "le:"}
        self.assertEqual(self.offered("shotmentor-phone --connect "), kinds)
        self.assertEqual(self.offered("shotmentor-camera --store x --listen "), kinds)
        self.assertEqual(self.offered("shotmentor-phone --connect r"), {"rfcomm:"})
        self.assertEqual(self.offered("shotmentor-phone --connect unix:r"), {"unix:roll"})
        self.assertEqual(self.offered("shotmentor-camera --log "), {"stderr", "syslog", "file:"})
        self.assertEqual(self.offered("shotmentor-camera --log file:d"), {"file:dawn.jpg", "file:dawn.json"})

    def test_are_nothing_where_only_the_user_knows(self):
        for line in ("shotmentor-phone --timeout ", "shotmentor-phone show ", "shotmentor-phone delete 1 "):
            self.assertEqual(self.offered(line), set(), line)


@needs("bash", BASH_COMPLETION)
class OfBash(Completions, DeskTest):
    shell = "bash"

    def named(self, tool):
        return f"{tool}.bash"

    def complete(self, tool, line, folder):
        words = [part for word in line.split(" ") for part in re.split("([:=])", word) if part or not word]
        return run("bash", "-c", COMPLETE_BASH, "-", f"{self.folder}/{tool}.bash", line, *words, cwd=folder)


@needs("zsh")
class OfZsh(Completions, DeskTest):
    shell = "zsh"

    def named(self, tool):
        return f"_{tool}"

    def complete(self, tool, line, folder):
        return run("zsh", "-f", os.path.join(HERE, "complete.zsh"), self.folder, line, cwd=folder)


@needs("fish")
class OfFish(Completions, DeskTest):
    shell = "fish"

    def named(self, tool):
        return f"{tool}.fish"

    def complete(self, tool, line, folder):
        command = f"source {self.folder}/{tool}.fish; complete -C '{line}'"
        return run("fish", "--no-config", "-c", command, cwd=folder)


class Version(DeskTest):
    def test_is_told_in_the_same_form_by_both(self):
        for tool in TOOLS:
            self.assertRegex(printed(tool, "--version"), r"\A\d+\.\d+\.\d+\n\Z")
        self.assertEqual(printed("shotmentor-phone", "--version"), printed("shotmentor-camera", "--version"))


class Reference(DeskTest):
    def test_of_another_kind_is_wrong_usage(self):
        for tool in TOOLS:
            done = subprocess.run([TOOLS[tool], "--reference", "html"], capture_output=True, timeout=PATIENCE)
            self.assertEnds(done, 2)
            self.assertEqual(done.stdout, b"")


if __name__ == "__main__":
    unittest.main()
