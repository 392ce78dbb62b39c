// Text of others on its way to a person.

#include <gtest/gtest.h>

#include <string>

#include "Common/Text.h"

namespace {

using desk::display_width;
using desk::escaped_json;
using desk::first_columns;
using desk::printable;
using desk::printable_lines;
using desk::shortened;

TEST(Text, PassesWhateverIsALetterASignOrABlank) {
    for (const char* text : {"", "Café, rainy day", "日本語", "🌅 dawn", "a\u0301", "\u00A0\u2003", "~ !"}) {
        EXPECT_EQ(printable(text), text);
        EXPECT_EQ(printable_lines(text), text);
        EXPECT_EQ(escaped_json(text), text);
    }
}

TEST(Text, LosesItsControlCharacters) {
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a\uFFFDb");
    EXPECT_EQ(printable("\x1B[31mred\x07\x7F\r\n"), "\uFFFD[31mred\uFFFD\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(printable("\u0080\u009B1m\u009F"), "\uFFFD\uFFFD1m\uFFFD");
}

TEST(Text, LosesItsFormatCharactersAndSeparators) {
    for (const char* text : {"\u00AD", "\u061C", "\u200B", "\u200E", "\u200F", "\u2028", "\u2029", "\u202A", "\u202E",
                             "\u2060", "\u2066", "\u2069", "\uFEFF", "\uFFF9", "\U000E0001", "\U000E007F"}) {
        EXPECT_EQ(printable(text), "\uFFFD");
    }
}

TEST(Text, ShowsEachByteThatIsNoUtf8) {
    EXPECT_EQ(printable("\x9B"
                        "31m"),
              "\uFFFD31m");
    EXPECT_EQ(printable("\xC3"), "\uFFFD");
    EXPECT_EQ(printable("\xC0\xAF"), "\uFFFD\uFFFD");                     // a slash in more bytes than it has
    EXPECT_EQ(printable("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");           // half of a surrogate pair
    EXPECT_EQ(printable("\xF4\x90\x80\x80"), "\uFFFD\uFFFD\uFFFD\uFFFD"); // beyond the last character
}

TEST(Text, KeepsItsNewlinesWhereLinesAreWanted) {
    EXPECT_EQ(printable_lines("one\ntwo\r\n"), "one\ntwo\uFFFD\n");
}

TEST(Text, IsEscapedInJson) {
    EXPECT_EQ(escaped_json("{\n  \"a\u009B\u007F\u202E\"\n}"), "{\n  \"a\\u009b\\u007f\\u202e\"\n}");
    EXPECT_EQ(escaped_json("\U000E0001"), "\\udb40\\udc01"); // 0xE0001 - 0x10000 is 0xD0001: 0x340 and 0x001
}

// ---- Width on a terminal --------------------------------------------------------------------------------------------

TEST(Width, IsOneColumnForALetter) {
    EXPECT_EQ(display_width(""), 0U);
    EXPECT_EQ(display_width("Café, rainy"), 11U);
    EXPECT_EQ(display_width("ﾊﾝｶｸ"), 4U); // halfwidth forms
}

TEST(Width, IsTwoColumnsForAWideCharacter) {
    EXPECT_EQ(display_width("日本"), 4U);
    EXPECT_EQ(display_width("한국"), 4U);
    EXPECT_EQ(display_width("🌅 dawn"), 7U);
    EXPECT_EQ(display_width("Ａ"), 2U); // fullwidth form
}

TEST(Width, IsNothingForACharacterThatJoinsTheOneBefore) {
    EXPECT_EQ(display_width("a\u0301"), 1U);
    EXPECT_EQ(display_width("\u0301\u0302"), 0U);
    EXPECT_EQ(display_width("x\uFE0F"), 1U); // variation selector
}

TEST(Width, IsOneColumnForAByteThatIsNoText) {
    EXPECT_EQ(display_width("a\xFFz"), 3U);
    EXPECT_EQ(display_width("\xE6\x97"), 2U); // a character that is cut off
}

TEST(Start, EndsBeforeAWideCharacterThatHasHalfOfItsRoom) {
    EXPECT_EQ(first_columns("日本", 3), "日");
    EXPECT_EQ(first_columns("日本", 4), "日本");
    EXPECT_EQ(first_columns("日本", 1), "");
    EXPECT_EQ(first_columns("abc", 0), "");
}

TEST(Start, KeepsMarksWithTheirLetter) {
    EXPECT_EQ(first_columns("a\u0301b", 1), "a\u0301");
}

TEST(Shortening, LeavesWhatFits) {
    EXPECT_EQ(shortened("日本", 4), "日本");
    EXPECT_EQ(shortened("", 0), "");
}

TEST(Shortening, EndsInAnEllipsisWithinTheRoom) {
    EXPECT_EQ(shortened("Night city", 9), "Night ci…");
    EXPECT_EQ(shortened("日本海", 5), "日本…");
    EXPECT_EQ(shortened("日本海", 4), "日…");
    EXPECT_EQ(shortened("abc", 1), "…");
    EXPECT_EQ(shortened("abc", 0), "");
}

} // namespace
