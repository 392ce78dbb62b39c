"""What tools/document_headers.py makes of the comments of public headers, and that a gap in them ends the reference."""

import filecmp
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FILTER = os.path.join(ROOT, "tools", "document_headers.py")
MAKE_REFERENCE = os.path.join(ROOT, "tools", "make_reference.sh")


class InFolder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name


class Comments(InFolder):
    """Each case is a piece of a header, behind a head comment."""

    def documented(self, text, fault=""):
        path = os.path.join(self.folder, "ADE_ShotMentor_Records.h")
        with open(path, "w", encoding="utf-8") as file:
            file.write(f"/* The head. */\n{text}")
        run = subprocess.run([sys.executable, FILTER, path], capture_output=True, text=True, check=True)
        self.assertEqual(run.stderr, fault)
        head = "/**\n * @file ADE_ShotMentor_Records.h\n *\n * The head.\n */\n"
        shown = run.stdout.replace("\n *\n", "\n")
        self.assertTrue(shown.startswith(head.replace("\n *\n", "\n")), shown)
        return shown[len(head.replace("\n *\n", "\n")) :]

    def test_tell_the_parameters_and_results_of_a_function(self):
        text = """
/*
 * Takes a packet in.
 *
 *   data    [in] the packet, readable
 *           for `length` bytes
 *   length  bytes of it
 *
 * Result
 *    1  all of it
 *   -1  a part, or
 *       nothing
 */
int take(const void* data, int length);
"""
        expected = """
/**
 * Takes a packet in.
 * @param[in] data the packet, readable for `length` bytes
 * @param length bytes of it
 * @retval 1 all of it
 * @retval -1 a part, or nothing
 */
int take(const void* data, int length);
"""
        self.assertEqual(self.documented(text), expected)

    def test_in_one_line_tell_argument_and_result_of_a_conversion(self):
        text = "\n/* Aperture: 0 to 30 to code; 0 when unknown. */\nint convert(int position);\n"
        expected = (
            "\n/**\n * Aperture: 0 to 30 to code.\n * @param position 0 to 30\n"
            " * @return code; 0 when unknown.\n */\nint convert(int position);\n"
        )
        self.assertEqual(self.documented(text), expected)

    def test_tell_the_result_behind_returns_and_result(self):
        text = "\n/* Returns the mode. */\nint ask(void);\n\n/* Looks. Result: always 1. */\nint look(void);\n"
        expected = (
            "\n/**\n * Returns the mode.\n * @return the mode.\n */\nint ask(void);\n"
            "\n/**\n * Looks.\n * @return always 1.\n */\nint look(void);\n"
        )
        self.assertEqual(self.documented(text), expected)

    def test_have_tables_with_a_title_whose_cells_go_on_below(self):
        text = """
/*
 * Copies.
 *
 * Refused
 *   a length of 0        at once
 *   a length over
 *   the limit            when all of
 *                        it is there
 */
void copy(void);
"""
        shown = self.documented(text)
        self.assertIn(" * @par Refused\n * <table>\n", shown)
        self.assertIn("<tr><td>a length of 0</td><td>at once</td></tr>\n", shown)
        self.assertIn("<tr><td>the limit</td><td>when all of it is there</td></tr>\n", shown)

    def test_stand_for_all_declarations_right_below_them_and_for_no_other(self):
        text = "\n/* Some. */\nextern int a;\nextern int b; /* the last */\n\nextern int c;\n"
        expected = (
            "\n/**\n * Some.\n */\nextern int a;\n/**\n * the last\n * Some.\n */\nextern int b;\n" "\nextern int c;\n"
        )
        self.assertEqual(self.documented(text), expected)

    def test_hold_no_command_of_doxygen(self):
        text = '\n/* A \\n, <b>, #one, 5% and @two; "\\033[m" stays. */\nextern int a;\n'
        self.assertIn('A \\\\n, &lt;b&gt;, \\#one, 5\\% and \\@two; `"\\033[m"` stays.', self.documented(text))

    def test_link_what_the_headers_declare(self):
        text = "\n/* See other and another. */\nextern int one;\n\n/* Other. */\nextern int other;\n"
        self.assertIn(" * See #other and another.\n", self.documented(text))

    def test_of_a_list_of_fields_become_those_of_the_struct(self):
        text = """
/* The fields. */
#define SM_X_FIELDS(WORD, WORDS) \\
    /* White     */ \\
    /* balance.  */ \\
    WORD(cwb_red, 0) \\
    WORD(cwb_blue, 4) \\
    WORD(flash, 8) \\
    /* Hue. */ \\
    WORDS(hue, 12, SM_COUNT)

/* A record. */
typedef struct sm_x {
    SM_X_FIELDS(SM_DECLARE_WORD, SM_DECLARE_WORDS)
} sm_x;
"""
        expected = """typedef struct sm_x {
    /** White balance. At byte 0. */
    int32_t cwb_red;
    /** White balance. At byte 4. */
    int32_t cwb_blue;
    int32_t flash;
    /** Hue. At byte 12. */
    int32_t hue[SM_COUNT];
} sm_x;
"""
        self.assertIn(expected, self.documented(text))

    def test_that_a_value_lacks_are_missed(self):
        text = "\n/* Kinds. */\nenum {\n    SM_A = 1, /* the first */\n    SM_B = 2\n};\n"
        shown = self.documented(text, "ADE_ShotMentor_Records.h: error: the value SM_B is not documented\n")
        self.assertIn("    SM_A = 1, /**< the first */\n    SM_B = 2\n", shown)


@unittest.skipUnless(shutil.which("doxygen"), "not installed: doxygen")
class Reference(InFolder):
    def setUp(self):
        super().setUp()
        self.headers = os.path.join(self.folder, "headers")
        os.mkdir(self.headers)
        for path in glob.glob(os.path.join(ROOT, "Src", "*.h*")):
            shutil.copy(path, self.headers)

    def make(self, folder, *headers):
        return subprocess.run([MAKE_REFERENCE, folder, *headers], capture_output=True, text=True, check=False)

    def test_of_the_headers_has_no_gap_and_names_no_folder_of_this_machine(self):
        here, there = os.path.join(self.folder, "here"), os.path.join(self.folder, "there")
        for run in (self.make(here), self.make(there, self.headers)):
            self.assertEqual((run.returncode, run.stdout, run.stderr), (0, "", ""))
        pages = os.listdir(here)
        self.assertIn("index.html", pages)
        self.assertEqual(filecmp.cmpfiles(here, there, [page for page in pages if page != "search"])[1:], ([], []))
        with open(os.path.join(here, "structtag__custom__info.html"), encoding="utf-8") as file:
            self.assertIn("Colour temperature of the Kelvin type", file.read())

    def without(self, header, line):
        """How the reference ends when the copy of the header lacks a line."""
        path = os.path.join(self.headers, header)
        with open(path, encoding="utf-8") as file:
            text = file.read()
        self.assertEqual(text.count(f"{line}\n"), 1, f"lines {line!r} in {header}")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace(f"{line}\n", ""))
        run = self.make(os.path.join(self.folder, "pages"), self.headers)
        self.assertEqual(run.returncode, 1)
        return run.stderr

    def test_fails_where_a_parameter_is_not_documented(self):
        said = self.without("ADE_ShotMentor.h", " *   length  bytes of the packet")
        self.assertIn("ADE_ShotMentor_Receive_Manager", said)
        self.assertIn("parameter 'length'", said)

    def test_fails_where_a_result_is_not_documented(self):
        said = self.without("ADE_ShotMentor.h", " * Result\n *   1  always; the outcome is in the reply")
        self.assertIn("ADE_SM_Send_Preset", said)
        self.assertIn("return", said)

    def test_fails_where_a_function_has_no_comment(self):
        said = self.without("ADE_ShotMentor.h", "/* Sets gADE_PRO_model to SM_CAMERA_KT7. */")
        self.assertIn("ADE_PRO_SetModel", said)

    def test_fails_where_a_field_of_a_list_has_no_comment(self):
        with open(os.path.join(self.headers, "ADE_ShotMentor_Records.h"), encoding="utf-8") as file:
            line = next(line for line in file if "/* Colour temperature of the Kelvin type" in line)
        said = self.without("ADE_ShotMentor_Records.h", line.rstrip("\n"))
        self.assertIn("k_value", said)

    def test_fails_where_a_macro_has_no_comment(self):
        said = self.without("ADE_ShotMentor_Log.h", "/* What every line ends in. */")
        self.assertIn("ALG_LOG_COLOR_RESET", said)


if __name__ == "__main__":
    unittest.main()
