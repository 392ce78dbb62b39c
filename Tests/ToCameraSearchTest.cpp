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

// ---- Numbers whose lower 8 or 16 bits mean something ----------------------------------------------------------------

TEST_F(ToCamera, NoValueIsTakenForItsLowerBits) {
    for (const int above : {256 * 50, 65536, 3 * 65536, 1 << 24}) {
        SCOPED_TRACE(above);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomAV(28 + above), 0) << "the scale does not hold it";
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(73 + above), 213) << "behind the scale's end";
        EXPECT_EQ(ADE_PRO_Convert2SysCustomSV(400 + above), 0);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomSV_1_3(13 + above), 0);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(53 + above), 30) << "behind the scale's end";
    }
    for (const int below : {256 * 50, 65536, 1 << 24}) {
        SCOPED_TRACE(below);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomAV(28 - below), 0);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(73 - below), 65440) << "before the scale's start";
        EXPECT_EQ(ADE_PRO_Convert2SysCustomSV(400 - below), 0);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomSV_1_3(13 - below), 0);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(53 - below), 0);
    }
}

TEST_F(ToCamera, NoModeIsTakenForItsLowerBits) {
    for (const int mode : {256 + 1, 65536 + 1, 65536 + 2, -65535, -255}) {
        SCOPED_TRACE(mode);
        pro_film_mode = mode;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomAV(28), 48);
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(73), 53);
        pro_sys_mode = mode + 2;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomAV(28), 48);
        pro_sys_mode = 0;
    }
}

TEST_F(ToCamera, NoSearchTakesABoundForItsLowerBits) {
    EXPECT_EQ(ADE_PRO_SearchCommonAV(28, 65536, 65536 + 127), 0);
    EXPECT_EQ(ADE_PRO_SearchCommonAV(28, 0, 65536), 19);
    EXPECT_EQ(ADE_PRO_SearchCommonAV(28, -65536 + 25, 127), 19);
    EXPECT_EQ(ADE_PRO_SearchCommonAV(65536 + 28, 0, 127), 0);
    EXPECT_EQ(ADE_PRO_SearchCommonSV(400, 65536, 65536 + 30), 0);
    EXPECT_EQ(ADE_PRO_SearchCommonSV(400, 0, 65536), 9);
    EXPECT_EQ(ADE_PRO_SearchCommonSV(65536 + 400, 0, 30), 0);
}

TEST_F(ToCamera, TheOriginIsReadFromAWholeWordAndTheColourStyleToo) {
    pro_custom04_state = 0;
    ADE_PRO_SetCustom04State(65536 + 13, 0x144);
    EXPECT_EQ(pro_custom04_state, 0);
    ADE_PRO_SetCustom04State(256 + 13, 0x144);
    EXPECT_EQ(pro_custom04_state, 0);
    for (const int32_t filter : {256, 65536, INT_MIN, 1 << 24}) {
        EXPECT_EQ(converted_origin(0x144, filter).made_id, 0x140) << filter << " is a filter";
    }
    for (const int32_t k_value : {256, 65536, INT_MIN, 1 << 24}) {
        sm_tag_custom_info phone = plain_phone();
        phone.made_id = 0x20;
        phone.k_value = k_value;
        EXPECT_EQ(converted(phone).type, 10) << k_value << " is a colour temperature";
    }
}

} // namespace
