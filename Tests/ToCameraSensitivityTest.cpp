// How the phone's two sensitivities become codes of the camera, in full steps and in thirds.
#include <climits>
#include <map>

#include "ToCamera.h"

namespace {

TEST_F(ToCamera, EveryIsoNumberOfAFullStepGivesItsCode) {
    const std::map<int, int> codes = {{0, 0},    {100, 1},  {200, 2},   {400, 3},   {800, 4},   {1600, 5},
                                      {3200, 6}, {6400, 7}, {12800, 8}, {25600, 9}, {51200, 10}};
    for (const auto& [iso, code] : codes) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, iso), gives(code, {})) << iso;
    }
}

TEST_F(ToCamera, IsoNumbersBetweenFullStepsAreHandedOnAndBecomeAutomatic) {
    const int numbers[] = {50,   80,   125,  160,  250,  320,   500,   640,   1000,  1250,
                           2000, 2500, 4000, 5000, 8000, 10000, 16000, 20000, 32000, 40000};
    for (const int iso : numbers) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, iso), gives(0, {"CYAN ALG_SM Converted SV :(0)"})) << iso;
    }
}

TEST_F(ToCamera, EveryNumberThatIsNoFullStepBecomesAutomatic) {
    const std::map<int, int> codes = {{100, 1},  {200, 2},  {400, 3},   {800, 4},   {1600, 5},
                                      {3200, 6}, {6400, 7}, {12800, 8}, {25600, 9}, {51200, 10}};
    for (int iso = -40; iso <= 52000; ++iso) {
        const int expected = codes.contains(iso) ? codes.at(iso) : 0;
        ASSERT_EQ(ADE_PRO_Convert2SysCustomSV(iso), expected) << iso;
    }
    for (const int iso : {-100, 102400, 65535, INT_MAX, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, iso), gives(0, {})) << iso;
    }
}

TEST_F(ToCamera, EveryThirdStepPositionGivesItsCodeOrTheNearestOne) {
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 0), gives(0, {}));
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 1), // next to 0
              gives(0, {"CYAN ALG_SM Converted SV :(0)"}));
    EXPECT_EQ(ADE_PRO_Convert2SysCustomSV_1_3(2), 1); // next to 3
    for (int position = 3; position <= 30; ++position) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, position), gives(position - 2, {})) << position;
    }
}

TEST_F(ToCamera, AThirdStepApproximatedForAnotherModelIsReadFromTheSameCodes) {
    for (const int model : {SM_CAMERA_ZE, SM_CAMERA_RH}) {
        gADE_PRO_model = model;
        // Both have no third step at 1 and 2, whatever full steps they have there.
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 1), gives(0, {"CYAN ALG_SM Converted SV :(0)"}));
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 2),
                  gives(1, {"CYAN ALG_SM TotalSize:26", "CYAN ALG_SM rstartpt(1)rstep:1\t result:3",
                            "CYAN ALG_SM Converted SV :(3)"}));
        // The camera's own codes reach beyond their scales.
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 30), gives(28, {}));
    }
}

TEST_F(ToCamera, AThirdStepPositionOutsideTheScaleBecomesAutomatic) {
    for (const int position : {-1, 31, 32, 100, 125, 51200, INT_MAX, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, position), gives(0, {"CYAN ALG_SM Converted SV :(0)"}))
            << position;
    }
}

TEST_F(ToCamera, AnIsoNumberInTheThirdStepFieldIsReadAsAPosition) {
    // What the camera sent as ISO 100 comes back as position 100.
    sm_tag_custom_info phone = plain_phone();
    phone.iso_1_3 = 100;
    EXPECT_EQ(converted(phone).iso_1_3, 0);
    phone.iso_1_3 = 3;
    EXPECT_EQ(converted(phone).iso_1_3, 1);
}

TEST_F(ToCamera, SensitivitiesOfAnUnknownModelBecomeAutomaticWithoutALine) {
    gADE_PRO_model = 3;
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, 125), gives(0, {}));
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 2), gives(0, {}));
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, 400), gives(3, {}));
}

} // namespace
