// How the phone's position on the scale of shutter times becomes a code of the camera.
#include <climits>

#include "ToCamera.h"

namespace {

const int shutter_codes[] = {
    65440, 65440, 65456, 65456, 65456, 65461, 65461, 65461, 65461, 65461, // 0
    65467, 65467, 65467, 65467, 65467, 65472, 65472, 65472, 65472, 65477, // 10
    65477, 65483, 65483, 65483, 65488, 65488, 65493, 65499, 65504, 65504, // 20
    65504, 65504, 65504, 65504, 65509, 65509, 65509, 65509, 65509, 65509, // 30
    65509, 65515, 65515, 65515, 65515, 65515, 65520, 65520, 65520, 65520, // 40
    65520, 65525, 65525, 65525, 65531, 65531, 65531, 0,     0,     0,     // 50
    5,     5,     11,    16,    21,    27,    27,    27,    32,    32,    // 60
    37,    43,    48,    53,    59,    64,    69,    75,    80,    85,    // 70
    91,    96,    101,   107,   112,   117,   117,   123,   128,   133,   // 80
    139,   144,   149,   155,   160,   165,   171,   176,   181,   187,   // 90
    192,   197,   203,   91,    107,   133,   155,   171,   208,   213,   // 100; 103 to 107 have fixed answers
};

TEST_F(ToCamera, EveryShutterPositionGivesItsCodeOrTheNearestOne) {
    ASSERT_EQ(std::size(shutter_codes), 110u);
    for (int position = 0; position < 110; ++position) {
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(position), shutter_codes[position]) << position;
    }
}

TEST_F(ToCamera, OnlyAShutterPositionWithoutACodeIsApproximated) {
    for (int position = 0; position < 110; ++position) {
        const bool approximated = !outcome_of(ADE_PRO_Convert2SysCustomTV, position).log.empty();
        const bool fixed_answer = position >= 103 && position <= 107;
        EXPECT_EQ(approximated, tKT7_APEX_TV[position] == 65535 && !fixed_answer) << position;
    }
}

TEST_F(ToCamera, AShutterPositionOutsideTheScaleGivesItsNearestEnd) {
    for (const int position : {-1, -100, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomTV, position),
                  outcome_of(ADE_PRO_Convert2SysCustomTV, 0)) // which is not supported: 1 is set
            << position;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(position), 65440) << position;
    }
    for (const int position : {110, 111, 65535, INT_MAX}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomTV, position),
                  gives(213, {"CYAN ALG_SM [TV]convertedIndex::(109)"}))
            << position;
    }
}

TEST_F(ToCamera, AShutterApproximationOf0OrLessGivesTheFirstEntry) {
    gADE_PRO_model = SM_CAMERA_ZE; // supports position 0
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(0), 65535);
    gADE_PRO_model = 3; // the approximation answers -1
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(0), 65535);
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(68), 65535);
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(110), 65535);
}

TEST_F(ToCamera, AShutterApproximationOf109GivesTheLastEntry) {
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(110), 213);
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(109), 213);
}

TEST_F(ToCamera, ShutterTimesBehindTheScaleOfAnotherModelStartAtItsEnd) {
    gADE_PRO_model = SM_CAMERA_ZE; // 102
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(1000), 203);
    gADE_PRO_model = SM_CAMERA_RH; // 107, which has no code
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(1000), 65535);
}

TEST_F(ToCamera, FilmModes1And2GiveShutterCode0AtOnce) {
    for (const int film_mode : {1, 2}) {
        pro_film_mode = film_mode;
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomTV, 68), gives(0, {})) << film_mode;
    }
    pro_sys_mode = 3; // does not matter
    for (const int film_mode : {0, 3, 4, 5, -1}) {
        pro_film_mode = film_mode;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(73), 53) << film_mode;
    }
}

} // namespace
