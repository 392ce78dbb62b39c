// How the phone's aperture becomes a code of the camera: looked up, approximated, or none.
#include <climits>
#include <map>

#include "ToCamera.h"

namespace {

struct Aperture {
    int phone;
    int position; // in the table of phone apertures
    int code;
};

// The apertures of the phone that the camera has a code for.
const Aperture coded_apertures[] = {
    {0, 0, 0},       {10, 1, 0},      {11, 2, 5},      {12, 3, 11},     {14, 5, 16},     {16, 7, 21},
    {18, 9, 27},     {20, 11, 32},    {22, 13, 37},    {25, 16, 43},    {28, 19, 48},    {32, 23, 53},
    {35, 26, 59},    {40, 31, 64},    {45, 36, 69},    {50, 41, 75},    {56, 47, 80},    {63, 54, 85},
    {71, 62, 91},    {80, 71, 96},    {90, 81, 101},   {100, 91, 107},  {110, 101, 112}, {130, 104, 117},
    {140, 106, 123}, {160, 109, 128}, {180, 113, 133}, {200, 114, 139}, {220, 115, 144}, {250, 116, 149},
    {290, 117, 155}, {320, 118, 160}, {360, 119, 165}, {400, 120, 171}, {450, 121, 176},
};

// Those that it has none for, with the code of the step that is set instead. From 120 on the approximation's answer is
// a position among the apertures of all models, and is read as one among the phone's: these codes are not the nearest
// ones. Where the answer lies behind the phone's scale (164, 170, 178, 500 to 900) the nearest code is taken.
const Aperture approximated_apertures[] = {
    {13, 4, 11},     {15, 6, 16},     {17, 8, 21},     {19, 10, 27},    {21, 12, 32},    {23, 14, 37},
    {24, 15, 43},    {26, 17, 43},    {27, 18, 48},    {29, 20, 48},    {30, 21, 48},    {31, 22, 53},
    {33, 24, 53},    {34, 25, 59},    {36, 27, 59},    {37, 28, 59},    {38, 29, 64},    {39, 30, 64},
    {41, 32, 64},    {42, 33, 64},    {43, 34, 69},    {44, 35, 69},    {46, 37, 69},    {47, 38, 69},
    {48, 39, 75},    {49, 40, 75},    {51, 42, 75},    {52, 43, 75},    {53, 44, 75},    {54, 45, 80},
    {55, 46, 80},    {57, 48, 80},    {58, 49, 80},    {59, 50, 80},    {60, 51, 85},    {61, 52, 85},
    {62, 53, 85},    {64, 55, 85},    {65, 56, 85},    {66, 57, 85},    {67, 58, 85},    {68, 59, 91},
    {69, 60, 91},    {70, 61, 91},    {72, 63, 91},    {73, 64, 91},    {74, 65, 91},    {75, 66, 91},
    {76, 67, 96},    {77, 68, 96},    {78, 69, 96},    {79, 70, 96},    {81, 72, 96},    {82, 73, 96},
    {83, 74, 96},    {84, 75, 96},    {85, 76, 96},    {86, 77, 101},   {87, 78, 101},   {88, 79, 101},
    {89, 80, 101},   {91, 82, 101},   {92, 83, 101},   {93, 84, 101},   {94, 85, 101},   {95, 86, 101},
    {96, 87, 107},   {97, 88, 107},   {98, 89, 107},   {99, 90, 107},   {101, 92, 107},  {102, 93, 107},
    {103, 94, 107},  {104, 95, 107},  {105, 96, 107},  {106, 97, 112},  {107, 98, 112},  {108, 99, 112},
    {109, 100, 112}, {120, 102, 117}, {124, 103, 123}, {139, 105, 144}, {150, 107, 171}, {153, 108, 176},
    {164, 110, 128}, {170, 111, 128}, {178, 112, 133}, {500, 122, 176}, {570, 123, 176}, {640, 124, 176},
    {720, 125, 176}, {800, 126, 176}, {900, 127, 176},
};

TEST_F(ToCamera, AnApertureThatTheCameraHasACodeForIsLookedUp) {
    for (const Aperture& row : coded_apertures) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, row.phone), gives(row.code, {search_line(row.position)}))
            << row.phone;
    }
}

TEST_F(ToCamera, AnApertureThatTheCameraHasNoCodeForIsApproximated) {
    EXPECT_EQ(std::size(coded_apertures) + std::size(approximated_apertures), 128u);
    for (const Aperture& row : approximated_apertures) {
        const Outcome outcome = outcome_of(ADE_PRO_Convert2SysCustomAV, row.phone);
        EXPECT_EQ(outcome.result, row.code) << row.phone;
        ASSERT_GE(outcome.log.size(), 4u) << row.phone;
        EXPECT_EQ(outcome.log[0], search_line(row.position)) << row.phone;
        EXPECT_EQ(outcome.log[1], "YELLOW ALG_SM (AV_LUT)arr_size :(151)") << row.phone;
    }
}

TEST_F(ToCamera, AnApertureThatThePhonesTableDoesNotHoldBecomesCode0WithoutAnApproximation) {
    std::map<int, bool> known;
    for (const Aperture& row : coded_apertures) {
        known[row.phone] = true;
    }
    for (const Aperture& row : approximated_apertures) {
        known[row.phone] = true;
    }
    const Outcome nothing_found = {0, {search_line(0)}};
    for (int aperture = 0; aperture <= 1000; ++aperture) {
        if (!known[aperture]) {
            EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, aperture), nothing_found) << aperture;
        }
    }
    for (const int aperture : {-1, -28, 65535, 1 << 16, INT_MAX, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, aperture), nothing_found) << aperture;
    }
}

TEST_F(ToCamera, Aperture115BecomesCode0NeverAnApproximation) {
    EXPECT_EQ(converted_in_mode(2, 115, 0).av_index, 0);
}

TEST_F(ToCamera, Aperture28IsFoundAtPosition19InMode3) {
    EXPECT_EQ(converted_in_mode(3, 28, 0).av_index, 48);
    EXPECT_EQ(host.log()[3], search_line(19));
}

TEST_F(ToCamera, AperturesAtTheBordersOfTheSearchRangesAreFound) {
    const std::map<int, int> positions = {{24, 15},  {25, 16},  {40, 31},   {41, 32},   {56, 47},
                                          {57, 48},  {72, 63},  {73, 64},   {88, 79},   {89, 80},
                                          {104, 95}, {105, 96}, {170, 111}, {178, 112}, {900, 127}};
    for (const auto& [aperture, position] : positions) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, aperture).log.at(0), search_line(position)) << aperture;
    }
}

TEST_F(ToCamera, Aperture171IsSearchedAndNotFound) {
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 171), gives(0, {search_line(0)}));
}

TEST_F(ToCamera, AFilmModeOf1OrASystemModeOf3GivesApertureCode0AtOnce) {
    const Outcome at_once = {0, {}};
    set_conversion_state(2, 0, 1, 0);
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), at_once);
    set_conversion_state(2, 3, 2, 0);
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), at_once);
    set_conversion_state(2, 1, 3, 0); // the other way round neither matters
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), gives(48, {search_line(19)}));
}

TEST_F(ToCamera, AnApertureApproximatedForAnotherModelIsReadFromTheSameCodes) {
    struct Row {
        int model;
        int aperture;
        int code;
    };
    const Row rows[] = {
        {SM_CAMERA_ZE, 13, 65535}, // that model has the step, this one has no code for it
        {SM_CAMERA_ZE, 106, 112},  // position 101
        {SM_CAMERA_ZE, 150, 123},  // position 137, behind the scale: f/14 and f/16 are equally near to f/15
        {SM_CAMERA_ZE, 153, 128},  // likewise, f/16 is nearer
        {SM_CAMERA_ZE, 900, 176},  // position 150
        {SM_CAMERA_RH, 17, 0},     // position 0
        {SM_CAMERA_RH, 36, 59},    // position 26
        {SM_CAMERA_RH, 150, 165},  // position 119
        {SM_CAMERA_RH, 170, 128},  // position 128, behind the scale
        {SM_CAMERA_RH, 178, 133},  // position 131
        {SM_CAMERA_RH, 900, 176},  // position 136
    };
    for (const Row& row : rows) {
        gADE_PRO_model = row.model;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomAV(row.aperture), row.code) << row.model << ' ' << row.aperture;
    }
}

TEST_F(ToCamera, AnApertureThatCannotBeApproximatedForAnUnknownModelBecomesCode0) {
    for (const int model : {3, -1, INT_MAX}) {
        gADE_PRO_model = model;
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 13), gives(0, {search_line(4)}));
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 900), gives(0, {search_line(127)}));
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), gives(48, {search_line(19)}));
    }
}

} // namespace
