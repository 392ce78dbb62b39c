// How the phone's exposure compensation becomes a step of the camera.
#include <climits>

#include "ToCamera.h"

namespace {

TEST_F(ToCamera, EveryCompensationCodeGivesItsStepOrTheNearestOne) {
    const int steps[] = {
        0,  0,  0,  1,  1,  1,  2,  2,  2,  3,  // 0
        3,  3,  3,  4,  4,  4,  5,  5,  5,  6,  // 10
        6,  6,  6,  7,  7,  7,  8,  8,  8,  9,  // 20
        9,  9,  9,  10, 10, 10, 11, 11, 11, 12, // 30
        12, 12, 12, 13, 13, 13, 14, 14, 14, 15, // 40
        15, 15, 16, 16, 16, 17, 17, 17, 17, 18, // 50
        18, 18, 19, 19, 19, 20, 20, 20, 20, 21, // 60
        21, 21, 22, 22, 22, 23, 23, 23, 23, 24, // 70
        24, 24, 25, 25, 25, 26, 26, 26, 26, 27, // 80
        27, 27, 28, 28, 28, 29, 29, 29, 29, 30, // 90
        30,
    };
    ASSERT_EQ(std::size(steps), 101u);
    for (int code = 0; code <= 100; ++code) {
        EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(code), steps[code]) << code;
    }
}

TEST_F(ToCamera, OnlyACompensationWithoutAStepIsApproximated) {
    for (int code = 0; code <= 100; ++code) {
        const bool approximated = !outcome_of(ADE_PRO_Convert2SysCustomEV, code).log.empty();
        EXPECT_EQ(approximated, tKT7_APEX_EV_1_3[code] == -1) << code;
    }
}

TEST_F(ToCamera, ACompensationOutsideTheScaleGivesItsNearestEnd) {
    for (const int code : {-1, -2, -10, -50, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomEV, code), gives(0, {"CYAN ALG_SM Converted EV :(0)"})) << code;
    }
    for (const int code : {101, 102, 110, 1000, INT_MAX}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomEV, code), gives(30, {"CYAN ALG_SM Converted EV :(100)"}))
            << code;
    }
}

TEST_F(ToCamera, EveryCompensationFromMinus10To110IsAStepOfTheCamera) {
    for (int code = -10; code <= 110; ++code) {
        const int step = ADE_PRO_Convert2SysCustomEV(code);
        EXPECT_TRUE(step >= 0 && step <= 30) << code << " gives " << step;
    }
}

TEST_F(ToCamera, ACompensationApproximatedForAnotherModelIsReadFromTheSameCodes) {
    gADE_PRO_model = SM_CAMERA_RH;
    EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(99), 21); // 70
    EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(32), -1); // 33, a step that this model has no code for
    gADE_PRO_model = SM_CAMERA_ZE;
    EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(1), 6); // 20
    gADE_PRO_model = 3;
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomEV, 99), gives(0, {}));
}

} // namespace
