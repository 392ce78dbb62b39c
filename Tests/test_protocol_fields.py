"""What tools/protocol_fields.py reads from the header of the records, and that it refuses what is not understood."""

import os
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, os.fspath(ROOT / "tools"))

import protocol_fields  # noqa: E402

SMALL = r"""
enum {
    SM_TITLE_SIZE = 8, /* bytes of `title` */
    SM_STYLES = 2      /* colour styles */
};

/* Modes. */
enum {
    SM_MODE_AUTO = 0,   /* neither */
    SM_MODE_MANUAL = -4 /* both */
};

/* The highest. */
enum { SM_HIGHEST = 0x10 };

#define SM_CS_INFO_FIELDS(WORD, COLORS, WORDS) \
    /* Selected style.   */    \
    WORD(color_style, 12)      \
    /* Colours.          */    \
    COLORS(cs_color, 16, 1)

#define SM_CUSTOM_INFO_FIELDS(TEXT, WORD, WORDS, BLOCK) \
    /* Title, in any     */    \
    /* encoding.         */    \
    TEXT(title, 0, SM_TITLE_SIZE) \
    /* Metering.         */    \
    WORD(metering, 8)          \
    /* The styles.       */    \
    BLOCK(cs_info, 12, sm_cs_info) \
    /* Custom balance.   */    \
    WORD(cwb_red, 28)          \
    WORD(cwb_blue, 32)         \
    /* Hue.              */    \
    WORDS(hue, 36, SM_STYLES)

typedef struct sm_cs_info {
    SM_CS_INFO_FIELDS(SM_DECLARE_WORD, SM_DECLARE_COLORS, SM_DECLARE_WORDS)
} sm_cs_info;

typedef struct sm_tag_custom_info {
    SM_CUSTOM_INFO_FIELDS(SM_DECLARE_TEXT, SM_DECLARE_WORD, SM_DECLARE_WORDS, SM_DECLARE_BLOCK)
    /* Custom mode. */
    int32_t linked_custom_mode;
} sm_tag_custom_info;

typedef struct sm_reply {
    sm_frame frame;            /* function 1 */
    char SM_MODEL[SM_TITLE_SIZE]; /* the model */
} sm_reply;

static_assert(sizeof(tag_custom_info) == 44, "the camera record");
static_assert(sizeof(sm_tag_custom_info) == 48, "the phone record");
"""


class InFile(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name) / "records.h"

    def read(self, text):
        self.path.write_text(text, encoding="utf-8")
        return protocol_fields.read(self.path)


class Header(InFile):
    """A small header, whose offsets were added up by hand."""

    def test_gives_its_fields_in_order_with_the_block_opened(self):
        found = [(field.name, field.offset, field.kind, field.size, field.count) for field in self.read(SMALL).fields]
        self.assertEqual(
            found,
            [
                ("title", 0, "text", 8, 1),
                ("metering", 8, "word", 4, 1),
                ("color_style", 12, "word", 4, 1),
                ("cs_color", 16, "colors", 12, 1),
                ("cwb_red", 28, "word", 4, 1),
                ("cwb_blue", 32, "word", 4, 1),
                ("hue", 36, "words", 8, 2),
                ("linked_custom_mode", 44, "word", 4, 1),
            ],
        )

    def test_gives_each_field_the_whole_comment_above_it(self):
        meanings = {field.name: field.meaning for field in self.read(SMALL).fields}
        self.assertEqual(meanings["title"], "Title, in any encoding.")
        self.assertEqual(meanings["color_style"], "Selected style.")
        self.assertEqual(meanings["linked_custom_mode"], "Custom mode.")

    def test_gives_fields_below_each_other_their_one_comment(self):
        meanings = {field.name: field.meaning for field in self.read(SMALL).fields}
        self.assertEqual((meanings["cwb_red"], meanings["cwb_blue"]), ("Custom balance.", "Custom balance."))

    def test_says_which_fields_are_in_the_style_block_and_which_are_the_phones_alone(self):
        found = self.read(SMALL).fields
        self.assertEqual([field.name for field in found if field.in_style], ["color_style", "cs_color"])
        self.assertEqual([field.name for field in found if field.phone_only], ["linked_custom_mode"])

    def test_gives_its_constants(self):
        protocol = self.read(SMALL)
        self.assertEqual(protocol.constants["SM_HIGHEST"], protocol_fields.Constant("SM_HIGHEST", 16, "The highest"))
        self.assertEqual([(mode.value, mode.meaning) for mode in protocol.modes()], [(0, "neither"), (-4, "both")])

    def test_gives_the_members_of_its_other_structs(self):
        members = [protocol_fields.Member("frame", "sm_frame", 1, "function 1")]
        members.append(protocol_fields.Member("SM_MODEL", "char", 8, "the model"))
        self.assertEqual(self.read(SMALL).structs, {"sm_reply": members})


class Faults(InFile):
    """Each is one line of the small header that is changed, and the line of the file that is blamed."""

    def refused(self, line, instead, at):
        self.assertEqual(SMALL.count(line), 1, f"places of {line!r}")
        number = SMALL[: SMALL.index(at)].count("\n") + 1
        with self.assertRaises(protocol_fields.HeaderError) as raised:
            self.read(SMALL.replace(line, instead))
        text = str(raised.exception)
        self.assertTrue(text.startswith(f"{self.path}:{number}: "), text)
        return text.removeprefix(f"{self.path}:{number}: ")

    def test_names_the_line_of_an_unknown_kind(self):
        self.refused("WORD(metering, 8) ", "HALF(metering, 8) ", at="    WORD(metering")

    def test_names_the_line_of_a_word_with_a_count(self):
        self.refused("WORD(metering, 8) ", "WORD(metering, 8, 2) ", at="    WORD(metering")

    def test_names_the_line_of_a_gap(self):
        said = self.refused("WORD(cwb_blue, 32)", "WORD(cwb_blue, 36)", at="    WORD(cwb_blue")
        self.assertEqual(said, "cwb_blue is at 36, but cwb_red ends at 32")

    def test_names_the_line_of_a_name_that_is_there_twice(self):
        said = self.refused("WORD(cwb_blue, 32)", "WORD(cwb_red, 32)", at="    WORD(cwb_blue")
        self.assertEqual(said, "cwb_red is there twice")

    def test_names_the_line_of_a_size_that_no_enum_has(self):
        said = self.refused("WORDS(hue, 36, SM_STYLES)", "WORDS(hue, 36, SM_HUES)", at="    WORDS(hue")
        self.assertEqual(said, "SM_HUES is neither a number nor a name of an enum above")

    def test_names_the_line_of_a_block_that_begins_elsewhere(self):
        said = self.refused("BLOCK(cs_info, 12,", "BLOCK(cs_info, 16,", at="    BLOCK(cs_info")
        self.assertEqual(said, "cs_info begins at 16, but its first field at 12")

    def test_names_the_line_of_a_constant_without_a_comment(self):
        self.refused("SM_MODE_AUTO = 0,   /* neither */", "SM_MODE_AUTO = 0,", at="    SM_MODE_AUTO")

    def test_names_the_line_of_a_member_without_a_comment(self):
        said = self.refused("[SM_TITLE_SIZE]; /* the model */", "[SM_TITLE_SIZE];", at="    char SM_MODEL")
        self.assertEqual(said, "SM_MODEL has no comment")

    def test_are_found_in_a_list_without_a_comment(self):
        with self.assertRaisesRegex(protocol_fields.HeaderError, "color_style has no comment above it"):
            self.read(SMALL.replace("    /* Selected style.   */    \\\n", ""))

    def test_are_found_in_a_size_that_the_fields_do_not_fill(self):
        with self.assertRaisesRegex(
            protocol_fields.HeaderError, "tag_custom_info has 48 bytes, but .* hue, ends at 44"
        ):
            self.read(SMALL.replace("== 44", "== 48"))

    def test_are_found_in_a_list_that_is_gone(self):
        with self.assertRaisesRegex(protocol_fields.HeaderError, "without the list SM_CS_INFO_FIELDS"):
            self.read(SMALL.replace("#define SM_CS_INFO_FIELDS", "#define SM_STYLE_FIELDS"))


class Records(unittest.TestCase):
    """The header as it is, against the numbers of Docs/protocol.md: a title, 159 words, a path, a word."""

    def test_fill_744_bytes_of_which_the_camera_has_740(self):
        found = protocol_fields.fields()
        self.assertEqual(sum(field.size for field in found), 744)
        self.assertEqual(sum(field.size for field in found if not field.phone_only), 740)

    def test_hold_159_words_between_title_and_path(self):
        found = protocol_fields.fields()
        self.assertEqual([field.name for field in found if field.kind == "text"], ["title", "screennail_path"])
        self.assertEqual((found[0].name, found[-2].name), ("title", "screennail_path"))
        self.assertEqual(sum(field.size for field in found[1:-2]), 159 * 4)

    def test_have_a_style_block_of_388_bytes(self):
        self.assertEqual(sum(field.size for field in protocol_fields.fields() if field.in_style), 388)

    def test_come_with_the_seven_functions_and_the_results_of_the_protocol(self):
        protocol = protocol_fields.read()
        self.assertEqual([function.value for function in protocol.functions()], [0, 1, 2, 3, 4, 5, 255])
        self.assertEqual(
            [result.value for result in protocol.results()], [1, 0, -1, -2, -3, -4, -5, -6, -7, -8, -10, -11, -12]
        )
        self.assertEqual([mode.value for mode in protocol.modes()], [0, 1, 2, 3, 4])


if __name__ == "__main__":
    unittest.main()
