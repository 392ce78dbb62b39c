// The searches in the phone's scales, which are exported.
#include <climits>

#include "ToCamera.h"

namespace {

TEST_F(ToCamera, TheApertureSearchGivesTheFirstPositionOfTheRangeThatHoldsTheValue) {
    struct Row {
        int value;
        int first;
        int last;
        int position;
    };
    const Row rows[] = {
        {0, 0, 127, 0},
        {10, 0, 127, 1},
        {24, 0, 15, 15},      // the last position belongs to the range
        {24, 15, 31, 15},     // and the first one
        {24, 16, 31, 0},      // not found
        {24, 0, 14, 0},       // not found
        {115, 0, 127, 0},     // in no range
        {900, 127, 127, 127}, // a range of one
        {900, 111, 126, 0},
        {900, 127, 111, 0},   // an empty range
        {900, 100, 128, 127}, // across the end of the table
        {900, 0, INT_MAX, 127},
        {901, 0, INT_MAX, 0},
        {900, 128, 200, 0}, // beyond it
        {900, INT_MAX, INT_MAX, 0},
        {10, -5, 5, 1}, // across its start
        {10, INT_MIN, INT_MAX, 1},
        {10, -5, -1, 0},
        {10, INT_MIN, INT_MIN, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(ADE_PRO_SearchCommonAV(row.value, row.first, row.last), row.position)
            << row.value << " from " << row.first << " to " << row.last;
    }
    EXPECT_EQ(host.transcript, Transcript{});
}

TEST_F(ToCamera, TheSensitivitySearchGivesTheFirstPositionOfTheRangeThatHoldsTheValue) {
    struct Row {
        int value;
        int first;
        int last;
        int position;
    };
    const Row rows[] = {
        {0, 0, 30, 0},
        {100, 0, 7, 3},
        {250, 0, 7, 7},
        {250, 7, 15, 7},
        {250, 8, 15, 0},
        {250, 0, 6, 0},
        {1600, 7, 15, 15},
        {10000, 15, 23, 23},
        {51200, 23, 30, 30},
        {51200, 30, 30, 30},
        {51200, 30, 23, 0},
        {51200, 20, 31, 30},
        {51200, 0, INT_MAX, 30},
        {51200, 31, 100, 0},
        {65535, 0, 30, 0},
        {50, -3, 1, 1},
        {50, INT_MIN, INT_MAX, 1},
        {50, -3, -1, 0},
        {-1, 0, 30, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(ADE_PRO_SearchCommonSV(row.value, row.first, row.last), row.position)
            << row.value << " from " << row.first << " to " << row.last;
    }
    EXPECT_EQ(host.transcript, Transcript{});
}

} // namespace
