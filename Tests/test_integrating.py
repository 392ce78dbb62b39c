"""What Docs/integrating.md says is so: its figures, its names, its code, and the table of checks.

SHOTMENTOR_LIBRARY is the shared object, and CC the compiler, that its code is tried with; where they are missing, as
in builds for other machines, the rest is held alone.
"""

import json
import os
import pathlib
import re
import shlex
import struct
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[1]
PAGE = (ROOT / "Docs" / "integrating.md").read_text(encoding="utf-8")
FENCED = re.compile(r"^```c\n(.*?)^```$", re.M | re.S)
PROSE = FENCED.sub("", PAGE)
GUIDE, CHECKS = PROSE.split("\n## What check finds\n")
MARK = re.compile(r"^<!-- figures of Docs/measurements\.json: (\S+) -->\n((?:\|.*\n)+)", re.M)
LIBRARY, CC = os.environ.get("SHOTMENTOR_LIBRARY", ""), os.environ.get("CC", "")

# Names and texts of the page that are not ours: of the C library, compilers, CMake and Debian. A text stands for all
# that begin with it.
OUTSIDE_NAMES = """
    FetchContent SIGPIPE add_subdirectory dlopen dlsym dup2 fclose ferror fopen fread fseek ftell int longjmp malloc
    memmem strcpy strlen strrchr strstr vsnprintf
""".split()
OUTSIDE_TEXTS = (
    "#pragma GCC", "-", "/dev/", "[ALG_SMM", "\\033[", "__attribute__((", "clang++", "cmake ", "extern ", "g++",
    "hidden symbol", "nm ", "pkg-config", "share/", "sudo ", "undefined ", "> ", ".",
)  # fmt: skip
# Where the build spells a name of ours in another way.
SPELLED = {
    "find_package(ShotMentor 1.0 CONFIG REQUIRED)": "ShotMentorConfig",
    "libshotmentor1": "libshotmentor${PROJECT_VERSION_MAJOR}",
    "shotmentor-phone list": "shotmentor-phone",
}
FILE = re.compile(r"(?:Docs|Examples|Src|Tests|tools)/[\w./*]*\w|README\.md|ADE_\w+\.h")
NAME = re.compile(r"(\w+)(?:\(.*\)|\[\w\]|->\w+)?")


def cells(row):
    return [cell.strip().strip("`") for cell in row.strip().strip("|").split("|")]


def read(pattern):
    return "\n".join(path.read_text(encoding="utf-8") for path in sorted(ROOT.glob(pattern)))


def anchor(heading):
    """As pages make one of a heading: in lower case, blanks as hyphens, without other characters."""
    return re.sub(r"[^a-z0-9-]", "", heading.lower().replace(" ", "-"))


class Figures(unittest.TestCase):
    def test_every_number_of_a_marked_table_is_the_measured_one(self):
        measured = json.loads((ROOT / "Docs" / "measurements.json").read_text())
        for path, table in MARK.findall(PAGE):
            head, _, *rows = map(cells, table.splitlines())
            for row in rows:
                for column, cell in zip(head[1:], row[1:], strict=True):
                    with self.subTest(path=path, row=row[0], column=column):
                        figure = measured
                        for step in path.split("/"):
                            figure = figure[step.format(row=row[0], column=column)]
                        self.assertEqual(int(cell.replace(",", "")), figure)

    def test_speed_memory_stack_and_sizes_are_told(self):
        self.assertEqual(
            [path.partition("/")[0] for path, _ in MARK.findall(PAGE)], ["instructions", "memory", "stack", "sizes"]
        )


class Names(unittest.TestCase):
    def setUp(self):
        self.code = sorted(set(re.findall(r"`([^`\n]+)`", GUIDE)))
        self.names = [token for token in self.code if NAME.fullmatch(token) and token not in SPELLED]

    def test_every_file_exists(self):
        files = FILE.findall(GUIDE)
        self.assertGreater(len(files), 10)
        for name in files:
            there = list(ROOT.glob(name)) or list((ROOT / "Src").glob(name))
            self.assertTrue(there, f"there is no {name}")

    def test_every_function_and_field_is_ours_or_the_c_librarys(self):
        ours = read("Src/*.h") + read("Src/*.cpp") + read("Examples/host.c") + "".join(FENCED.findall(PAGE))
        self.assertGreater(len(self.names), 30)
        for token in self.names:
            name = NAME.fullmatch(token)[1]
            self.assertTrue(name in OUTSIDE_NAMES or re.search(rf"\b{name}\b", ours), f"nothing is called {name}")

    def test_every_other_text_in_the_type_of_code_is_a_line_of_the_log_or_of_the_build(self):
        ours = read("Src/*.cpp") + read("*/CMakeLists.txt") + read("*/*/CMakeLists.txt") + read("Packaging/*.in")
        texts = [token for token in self.code if token not in self.names and not FILE.match(token)]
        texts = [token for token in texts if not token.startswith(OUTSIDE_TEXTS)]
        self.assertGreater(len(texts), 5)
        for token in texts:
            self.assertIn(SPELLED.get(token, token), ours)

    def test_every_heading_that_is_linked_is_there(self):
        headings = {anchor(heading) for heading in re.findall(r"^#+ (.*)$", PROSE, re.M)}
        links = re.findall(r"\]\(#([^)]*)\)", PAGE)
        self.assertGreater(len(links), 2)
        self.assertEqual([link for link in links if link not in headings], [])

    def test_every_obligation_is_in_the_readmes_table_and_the_example(self):
        numbers = {int(number) for number in re.findall(r"\[(\d+)\]", GUIDE)}
        self.assertEqual(numbers, set(range(1, 15)))
        readme, example = read("README.md"), read("Examples/host.c")
        for number in numbers:
            self.assertIn(f"\n| {number} | ", readme)
            self.assertIn(f"[{number}]", example)

    def test_every_service_is_explained(self):
        imported = re.findall(r"^(?:int|bool) (\w+)\(", read("Src/ADE_ShotMentor_Services.h"), re.M)
        self.assertEqual(len(imported), 11)
        section = GUIDE.split("\n## The five services\n")[1].split("\n## ")[0]
        self.assertEqual([service for service in imported if f"`{service}`" not in section], [])


TABLE = ROOT / "Desk" / "Phone" / "CheckTable.cpp"


@unittest.skipUnless(TABLE.exists(), "the phone has no checks")
class TableOfChecks(unittest.TestCase):
    def test_has_the_row_of_every_check(self):
        headings = dict(re.findall(r'constexpr auto (\w+) = "(.*?)";', TABLE.with_suffix(".h").read_text()))
        checks = re.findall(r'\{"([a-z0-9-]+)",\s*"(.*?)",\s*guide::(\w+),', TABLE.read_text(), re.S)
        self.assertGreater(len(checks), 10)
        expected = [f"| `{name}` | {holds} | [{headings[g]}](#{anchor(headings[g])}) |" for name, holds, g in checks]
        self.assertEqual(re.findall(r"^\| `.*$", CHECKS, re.M), expected)


# A host around the page's code: a stream on standard input, read in pieces of so many bytes as the program's argument
# says, and what the library sends on standard output.
STREAM_HOST = r"""
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include "ADE_ShotMentor.h"
%s
static int unconfirmed;
int __dlog_print(int b, int p, const char* t, const char* f, ...) { (void)b, (void)p, (void)t, (void)f; return 0; }
int __ui_set_shotmentor_state(int s) { (void)s; return 0; }
bool __ui_get_bt_state_for_phone(void) { return true; }
int __ui_get_custom_mode_list_info(tag_custom_info* p, int* c) { (void)p, (void)c; return 0; }
int __ui_get_linked_preseet_num_for_phone(int m) { (void)m; return -1; }
bool __ui_get_preset_info(int i, tag_custom_info* p) { (void)i, (void)p; return false; }
int __ui_save_downloaded_preset(tag_custom_info* p, const void* i, int l) { (void)p, (void)i; return l; }
int __ui_preset_update_comfirm(int i, int s, const char* t) { (void)i, (void)t; return s; }
int __ui_preset_delete_form_phone(int* f) { (void)f; return 0; }
int User_Spec_Get_Value(int k) { (void)k; return 1; }
int bt_send_msgs(bt_msg_info* m) {
    ++unconfirmed;
    fwrite(m->data, 1, (size_t)m->length, stdout);
    return 0;
}
int main(int count, char** arguments) {
    static unsigned char piece[1 << 20];
    const size_t most = count > 1 ? strtoul(arguments[1], NULL, 10) : sizeof piece;
    for (;;) {
        const size_t size = wanted() < most ? wanted() : most;
        const size_t length = fread(piece, 1, size < sizeof piece ? size : sizeof piece, stdin);
        if (length == 0) {
            return 0;
        }
        take_in(piece, length);
        for (; unconfirmed > 0; --unconfirmed) {
            ADE_ShotMentor_Result_Manager(NULL, 0);
        }
    }
}
"""


def request(function, payload=b"", total=None):
    return struct.pack("<ii", function, 8 + len(payload) if total is None else total) + payload


LIST, STORE = 1, 3
EMPTY_LIST = struct.pack("<ii12sii", 0x1001, 28, b"KT7", 1, 0)


@unittest.skipUnless(LIBRARY and CC, "there is no library to try it with")
class BuiltByHand(unittest.TestCase):
    def test_is_what_the_object_promises(self):
        section = PAGE.split("\n## Another compiler\n")[1]
        commands = re.search(r"(?:^    .*\n)+", section, re.M)[0]
        with tempfile.TemporaryDirectory() as folder:
            os.symlink(ROOT / "Src", f"{folder}/Src")
            subprocess.run(["bash", "-euc", commands], cwd=folder, check=True)
            done = subprocess.run(
                [ROOT / "Tests" / "check_object.sh", "libshotmentor.so.1", "nm", "readelf"],
                cwd=folder, capture_output=True, text=True,
            )  # fmt: skip
        self.assertEqual(done.returncode, 0, done.stdout)


@unittest.skipUnless(LIBRARY and CC, "there is no library to try it with")
class CodeForAStream(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.host = os.path.join(folder.name, "host")
        (code,) = FENCED.findall(PAGE)
        warnings = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wshadow", "-Werror"]
        built = subprocess.run(
            [*shlex.split(CC), "-std=c11", *warnings, "-x", "c", "-", "-x", "none", f"-I{ROOT}/Src", LIBRARY,
             f"-Wl,-rpath,{os.path.dirname(LIBRARY)}", "-o", cls.host],
            input=STREAM_HOST % code, capture_output=True, text=True,
        )  # fmt: skip
        if built.returncode != 0:
            raise AssertionError(built.stderr)

    def replies_to(self, stream, piece):
        done = subprocess.run([self.host, str(piece)], input=stream, capture_output=True, timeout=60)
        self.assertEqual(done.returncode, 0)
        return done.stdout

    def test_finds_requests_in_any_pieces(self):
        picture = bytes(range(256)) * 4
        stream = request(LIST) + request(STORE, bytes(744) + picture) + request(255) + request(LIST)
        expected = EMPTY_LIST + struct.pack("<iiiiii", 0x1003, 24, len(picture), 0, 0, 0) + EMPTY_LIST
        for piece in (1, 2, 7, 8, 9, 100, 1 << 20):
            self.assertEqual(self.replies_to(stream, piece), expected, piece)

    def test_passes_over_what_is_refused_by_its_header(self):
        inner = 3 * request(LIST)  # which are no requests
        stream = request(-1, inner) + request(257, inner) + request(LIST, total=-8) + request(9, inner) + request(LIST)
        for piece in (1, 8, 11, 1 << 20):
            self.assertEqual(self.replies_to(stream, piece), EMPTY_LIST, piece)

    def test_goes_on_after_a_request_that_is_too_long(self):
        stream = request(STORE, bytes(600000)) + request(LIST)
        for piece in (4096, 1 << 20):
            self.assertEqual(self.replies_to(stream, piece), EMPTY_LIST, piece)

    def test_neither_ends_nor_answers_after_an_impossible_total(self):
        for total in (0, 7):
            self.assertEqual(self.replies_to(request(LIST, total=total) + 3 * request(LIST), 5), b"")


if __name__ == "__main__":
    unittest.main()
