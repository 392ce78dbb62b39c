// Tables in plain text.

#include <gtest/gtest.h>

#include <sstream>

#include "Common/Text.h"
#include "Words/TextTable.h"

namespace desk {
namespace {

using Texts = std::vector<std::string>;

const std::vector<Texts> rows = {{"No", "Id", "Title", "Mode", "EV"},
                                 {"0", "1001", "Caf\u00e9", "Manual", "-"},
                                 {"1", "7", "Night city", "Auto", ""}};

// Columns of 2, 4, 8 (a Japanese title), 6 and 2, with two blanks between them: 30.
const std::vector<Texts> wide_rows = {{"No", "Id", "Title", "Mode", "EV"},
                                      {"0", "1001", "日本海の", "Manual", "-"},
                                      {"1", "7", "a\u0301 la", "Auto", "0"}};

TEST(Table, PadsColumnsAndTrimsBlanks) {
    EXPECT_EQ(table(rows, 0), "No  Id    Title       Mode    EV\n"
                              "0   1001  Caf\u00e9        Manual  -\n"
                              "1   7     Night city  Auto\n");
}

TEST(Table, PadsColumnsByWhatATerminalTakesForThem) {
    EXPECT_EQ(table(wide_rows, 0), "No  Id    Title     Mode    EV\n"
                                   "0   1001  日本海の  Manual  -\n"
                                   "1   7     a\u0301 la      Auto    0\n");
    EXPECT_EQ(table(wide_rows, 30), table(wide_rows, 0));
}

TEST(Table, KeepsAllColumnsThatFitExactly) {
    EXPECT_EQ(table(rows, 32), table(rows, 0));
    EXPECT_EQ(left_out(rows, 32), Texts());
}

TEST(Table, LeavesTheLastColumnsOutFirst) {
    EXPECT_EQ(table(rows, 31), "No  Id    Title       Mode\n"
                               "0   1001  Caf\u00e9        Manual\n"
                               "1   7     Night city  Auto\n");
    EXPECT_EQ(table(rows, 27), "No  Id    Title\n"
                               "0   1001  Caf\u00e9\n"
                               "1   7     Night city\n");
}

TEST(Table, NamesTheColumnsThatItLeavesOut) {
    EXPECT_EQ(left_out(rows, 31), Texts{"EV"});
    EXPECT_EQ(left_out(rows, 27), (Texts{"Mode", "EV"}));
    EXPECT_EQ(left_out(rows, 1), (Texts{"Mode", "EV"}));
    EXPECT_EQ(left_out(rows, 0), Texts());
    EXPECT_EQ(left_out({}, 80), Texts());
}

TEST(Table, ShortensTheTitleWithAnEllipsisNext) {
    EXPECT_EQ(table(rows, 19), "No  Id    Title\n"
                               "0   1001  Caf\u00e9\n"
                               "1   7     Night ci\u2026\n");
}

TEST(Table, CutsNoCharacterInHalf) {
    EXPECT_EQ(table(wide_rows, 17), "No  Id    Title\n"
                                    "0   1001  日本海\u2026\n"
                                    "1   7     a\u0301 la\n");
    EXPECT_EQ(table(wide_rows, 16), "No  Id    Title\n"
                                    "0   1001  日本\u2026\n"
                                    "1   7     a\u0301 la\n");
}

TEST(Table, IsNeverWiderThanThereIsRoom) {
    for (const auto& shown : {rows, wide_rows}) {
        for (size_t width = 1; width < 40; ++width) {
            std::istringstream stream(table(shown, width));
            for (std::string line; std::getline(stream, line);) {
                EXPECT_LE(display_width(line), width) << line;
                EXPECT_TRUE(line.empty() || line.back() != ' ') << line;
            }
        }
    }
}

TEST(Table, OfNothingIsEmpty) {
    EXPECT_EQ(table({}, 80), "");
}

} // namespace
} // namespace desk
