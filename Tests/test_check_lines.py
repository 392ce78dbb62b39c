"""What tools/check_lines.py finds in lines and in the comments of public headers, and what it lets pass."""

import os
import subprocess
import sys
import tempfile
import unittest

TOOL = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tools", "check_lines.py")

WELL_KEPT = """\
/*
 * Takes one packet of the phone in. Packets are collected until exactly as many bytes have arrived as the first one
 * announces, and the request then runs.
 *
 * How a host uses it
 *   1. It calls this with every packet that the phone sends, and once for each event that its Bluetooth service raises
 *      for a reply.
 *   2. It calls nothing else.
 *
 *   function                payload                                      reply
 *     0  link state off     result word of the phone                     none
 *     4  update a preset    sm_tag_custom_info, of which custom_id,      0x1004  sm_update_reply
 *                           server_id and title are used
 *
 * Result
 *    1  all bytes were stored
 *   -1  not all were: they do not fit, or the length is negative; a packet that would carry the sum past the largest
 *       int is dropped whole
 */
int receive(const void* data, int length);
"""


class CheckLines(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def check(self, name, text):
        """The exit code for a file of this name and text, and the lines that are printed, without the folder."""
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        run = subprocess.run([sys.executable, TOOL, path], capture_output=True, text=True, check=False)
        self.assertEqual(run.stderr, "")
        return run.returncode, [line.replace(self.folder + "/", "") for line in run.stdout.splitlines()]

    def check_header(self, *comment):
        """The same for a public header with a comment of these lines; the first of them is line 2 of the file."""
        return self.check("Src/Header.h", "\n".join(["/*", *(f" * {line}".rstrip() for line in comment), " */", ""]))


class Lines(CheckLines):
    def test_of_120_characters_pass_in_any_file(self):
        for name in ["Code.cpp", "Src/Header.h", "script.sh", "CMakeLists.txt", "page.md"]:
            self.assertEqual(self.check(name, "x" * 120 + "\n"), (0, []))

    def test_of_121_characters_are_named_in_any_file(self):
        for name in ["Code.cpp", "Src/Header.h", "script.sh", "CMakeLists.txt", "page.md"]:
            found = (1, [f"{name}:2: 121 characters; the limit is 120"])
            self.assertEqual(self.check(name, "short\n" + "x" * 121 + "\nshort\n"), found)

    def test_are_measured_in_characters_and_not_in_bytes(self):
        self.assertEqual(self.check("Code.cpp", "é" * 120 + "\n"), (0, []))

    def test_of_several_files_are_all_looked_at(self):
        paths = [os.path.join(self.folder, name) for name in ["a.py", "b.py", "c.py"]]
        for path, length in zip(paths, [130, 10, 140]):
            with open(path, "w", encoding="utf-8") as file:
                file.write("x" * length + "\n")
        run = subprocess.run([sys.executable, TOOL, *paths], capture_output=True, text=True, check=False)
        self.assertEqual(run.returncode, 1)
        self.assertEqual(
            run.stdout,
            f"{paths[0]}:1: 130 characters; the limit is 120\n{paths[2]}:1: 140 characters; the limit is 120\n",
        )


class LinesOfMarkdown(CheckLines):
    long = "x" * 121

    def test_may_be_longer_in_a_table(self):
        self.assertEqual(self.check("page.md", f"| a |\n|---|\n| {self.long} |\n"), (0, []))

    def test_may_be_longer_between_fences(self):
        self.assertEqual(self.check("page.md", f"```\n{self.long}\n```\n"), (0, []))

    def test_may_be_longer_in_an_indented_block(self):
        self.assertEqual(self.check("page.md", f"text\n\n    short\n    {self.long}\n\n    {self.long}\n"), (0, []))

    def test_may_not_be_longer_behind_a_block(self):
        found = (1, ["page.md:4: 121 characters; the limit is 120"])
        self.assertEqual(self.check("page.md", f"```\n{self.long}\n```\n{self.long}\n"), found)

    def test_may_not_be_longer_in_an_item_of_a_list(self):
        found = (1, ["page.md:2: 125 characters; the limit is 120"])
        self.assertEqual(self.check("page.md", f"10. an item\n    {self.long}\n"), found)


class CommentsOfPublicHeaders(CheckLines):
    def test_pass_with_paragraphs_lists_and_tables_as_they_were_written(self):
        self.assertEqual(self.check("Src/Header.h", WELL_KEPT), (0, []))

    def test_are_torn_where_an_item_of_a_list_goes_on_at_the_margin(self):
        found = self.check_header(
            "How a host uses it",
            "  1. It calls this once for each event that its Bluetooth service",
            "raises for a reply of this feature. There is nothing to initialise.",
        )
        self.assertEqual(found, (1, ["Src/Header.h:4: the margin in the middle of an indented sentence: a torn list"]))

    def test_are_torn_where_the_columns_of_a_table_stand_in_running_text(self):
        found = self.check_header(
            "Requests are these. 3 store a preset          sm_tag_custom_info, picture             0x1003",
            "Update a preset       sm_tag_custom_info (its title is used)              0x1004",
        )
        columns = "columns in running text: a torn table or list"
        self.assertEqual(found, (1, [f"Src/Header.h:2: {columns}", f"Src/Header.h:3: {columns}"]))

    def test_are_torn_where_a_row_of_a_table_goes_on_at_the_margin_with_the_next_row_behind_it(self):
        found = self.check_header(
            "  2   picture of a preset     custom id              0x1002 sm_screennail_reply and",
            "picture 3   store a preset    sm_tag_custom_info     0x1003 sm_receive_reply",
        )
        self.assertEqual(
            found,
            (
                1,
                [
                    "Src/Header.h:3: columns in running text: a torn table or list",
                    "Src/Header.h:3: the margin in the middle of an indented sentence: a torn list",
                ],
            ),
        )

    def test_are_torn_where_a_line_of_a_paragraph_holds_a_few_words_alone(self):
        found = self.check_header(
            "Returns the library to idle, as the host does when the link drops in the middle of a",
            "request, and",
            "frees what it held of it.",
        )
        self.assertEqual(found, (1, ["Src/Header.h:3: a short line in the middle of a sentence: a torn paragraph"]))

    def test_are_not_torn_where_a_paragraph_ends_with_a_short_line(self):
        self.assertEqual(self.check_header("A packet of the phone is taken in and", "kept.", "", "more of it"), (0, []))

    def test_are_looked_at_in_public_headers_alone(self):
        torn = "/*\n *   1. an item that goes on\n * at the margin\n */\n"
        self.assertEqual(self.check("Src/Header.h", torn)[0], 1)
        self.assertEqual(self.check("Desk/Header.h", torn), (0, []))
        self.assertEqual(self.check("Src/Code.cpp", torn), (0, []))


if __name__ == "__main__":
    unittest.main()
