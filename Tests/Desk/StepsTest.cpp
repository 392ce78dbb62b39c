// The steps that the camera can set, counted by hand in the documentation's tables.
#include "Forecast/Steps.h"

#include <gtest/gtest.h>

namespace desk {
namespace {

TEST(Steps, OfTheApertureGoFromF1Point1ToF45) {
    const Steps& steps = aperture_steps();
    EXPECT_EQ(steps.front(), 11);
    EXPECT_EQ(steps.back(), 450);
    EXPECT_EQ(steps.size(), 33U); // three for each of the eleven steps from f/1.0, which is none, to f/45
    EXPECT_TRUE(is_step(steps, 28));
    EXPECT_FALSE(is_step(steps, 27));
    EXPECT_FALSE(is_step(steps, 10));
    EXPECT_FALSE(is_step(steps, 0));
}

TEST(Steps, OfTheShutterGoFrom60SecondsToATenThousandth) {
    const Steps& steps = shutter_steps();
    EXPECT_EQ(steps.front(), 1);
    EXPECT_EQ(steps.back(), 109);
    EXPECT_EQ(steps.size(), 57U);    // 60 s, and thirds of a step from 30 s, -15 of them, to +40
    EXPECT_TRUE(is_step(steps, 58)); // 1 s, whose code is 0
    EXPECT_FALSE(is_step(steps, 59));
    EXPECT_FALSE(is_step(steps, 103));
}

TEST(Steps, OfFullIsoNumbersDoubleFrom100) {
    EXPECT_EQ(full_iso_steps(), (Steps{100, 200, 400, 800, 1600, 3200, 6400, 12800, 25600, 51200}));
}

TEST(Steps, OfThirdIsoNumbersAreTheFullOnesAndTwoBetweenEach) {
    const Steps& steps = third_iso_steps();
    EXPECT_EQ(steps.size(), 28U);
    for (const int32_t full : full_iso_steps()) {
        EXPECT_TRUE(is_step(steps, full)) << full;
    }
    EXPECT_TRUE(is_step(steps, 125));
    EXPECT_TRUE(is_step(steps, 40000));
    EXPECT_FALSE(is_step(steps, 80));
    EXPECT_FALSE(is_step(steps, 0));
}

TEST(Steps, OfTheCompensationAreThirdsOnAScaleTo100) {
    const Steps& steps = compensation_steps();
    EXPECT_EQ(steps.size(), 31U);
    EXPECT_EQ(steps.front(), 0);
    EXPECT_EQ(steps[15], 50);
    EXPECT_EQ(steps[16], 53);
    EXPECT_EQ(steps.back(), 100);
}

TEST(NearestStep, OfAStepIsTheStep) {
    EXPECT_EQ(nearest_step(full_iso_steps(), 400), 400);
    EXPECT_EQ(step_below(full_iso_steps(), 400), 400);
    EXPECT_EQ(step_above(full_iso_steps(), 400), 400);
}

TEST(NearestStep, IsTheLowerOfTwoEquallyNear) {
    EXPECT_EQ(nearest_step(full_iso_steps(), 600), 400);
    EXPECT_EQ(nearest_step(full_iso_steps(), 601), 800);
    EXPECT_EQ(step_below(full_iso_steps(), 600), 400);
    EXPECT_EQ(step_above(full_iso_steps(), 600), 800);
}

TEST(NearestStep, BeyondAScaleIsItsEnd) {
    EXPECT_EQ(nearest_step(full_iso_steps(), INT32_MIN), 100);
    EXPECT_EQ(nearest_step(full_iso_steps(), INT32_MAX), 51200);
    EXPECT_EQ(step_below(full_iso_steps(), 99), std::nullopt);
    EXPECT_EQ(step_above(full_iso_steps(), 51201), std::nullopt);
}

TEST(IsoNumbers, HaveAPositionOnThePhonesScale) {
    EXPECT_EQ(iso_at_position(0), 0);
    EXPECT_EQ(iso_at_position(1), 50);
    EXPECT_EQ(iso_at_position(9), 400);
    EXPECT_EQ(iso_at_position(30), 51200);
    EXPECT_EQ(iso_at_position(31), std::nullopt);
    EXPECT_EQ(iso_at_position(-1), std::nullopt);
    EXPECT_EQ(position_of_iso(500), 10);
    EXPECT_EQ(position_of_iso(501), std::nullopt);
}

TEST(NoShutterTime, IsStoredAsOneSecondIs) {
    EXPECT_EQ(shutter_stored_as_zero(), 58);
}

} // namespace
} // namespace desk
