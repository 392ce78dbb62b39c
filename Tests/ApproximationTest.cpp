// Which step a camera model sets in place of one that it does not support: the nearest, the lower one of two that are
// equally near. And what the search for it writes to the log.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <optional>

#include "Conversion.h"

namespace {

std::string cyan(const std::string& text) {
    return "CYAN ALG_SM " + text;
}
std::string yellow(const std::string& text) {
    return "YELLOW ALG_SM " + text;
}

std::string text(int number) {
    return std::to_string(number);
}

// What a model supports: the supported positions of a scale with `size` positions.
struct Steps {
    int size;
    std::vector<int> supported; // rising

    template<size_t Length>
    explicit Steps(const int32_t (&table)[Length], int searched = static_cast<int>(Length)) : size(searched) {
        for (int position = 0; position < size; ++position) {
            if (table[position] == 1) {
                supported.push_back(position);
            }
        }
    }

    std::optional<int> nearest_below(int position) const {
        const auto next = std::lower_bound(supported.begin(), supported.end(), position);
        return next == supported.begin() ? std::nullopt : std::optional(*(next - 1));
    }

    std::optional<int> nearest_above(int position) const {
        const auto next = std::upper_bound(supported.begin(), supported.end(), position);
        return next == supported.end() ? std::nullopt : std::optional(*next);
    }

    bool supports(int position) const { return std::binary_search(supported.begin(), supported.end(), position); }
};

// What the search must find and log, decided from the two nearest supported steps.
//
// Nothing is logged for a supported step, for one whose lower neighbour is supported and for the last one: there is
// nothing to look for above. Otherwise the size is logged, then what the look upwards found: (1) the upper neighbour,
// which ends the search, (2) a step farther up, (3) nothing up to the last position. Last comes the decision between
// the two distances.
Outcome searched(const Steps& steps, int position) {
    if (steps.supports(position)) {
        return {position, {}};
    }
    const std::optional<int> below = steps.nearest_below(position);
    const std::optional<int> above = steps.nearest_above(position);
    if (below && (*below == position - 1 || position == steps.size - 1)) {
        return {*below, {}};
    }

    const int up = above ? *above - position : steps.size - 1 - position;
    const std::string way_up = "rstep:" + text(up) + "\t result:" + text(position + up);
    Transcript log = {cyan("TotalSize:" + text(steps.size))};
    if (above && up == 1) {
        log.push_back(cyan("rstartpt(1)" + way_up));
        return {*above, log};
    }
    log.push_back(cyan((above ? "rstartpt(2)" : "rstartpt(3)") + way_up));

    if (!below) {
        // Every scale has a supported step somewhere.
        EXPECT_TRUE(above);
        log.push_back(yellow(way_up));
        return {*above, log};
    }
    const int down = position - *below;
    if (above && up == down) {
        log.push_back(yellow("fstep:" + text(down) + "\t rstep:" + text(up)));
        return {*below, log};
    }
    if (above && up < down) {
        log.push_back(yellow(way_up));
        return {*above, log};
    }
    log.push_back(yellow("fstep:" + text(down) + "\t result:" + text(*below)));
    return {*below, log};
}

class Approximation : public testing::Test {
  protected:
    void SetUp() override { gADE_PRO_model = SM_CAMERA_KT7; }
    void TearDown() override { gADE_PRO_model = 0; }

    Outcome outcome_of(int (*approximation)(int), int value) {
        host.forget();
        const int result = approximation(value);
        EXPECT_EQ(host.calls(), Transcript{});
        return {result, host.log()};
    }

    Outcome outcome_of(int (*approximation)(int), int value, int model) {
        gADE_PRO_model = model;
        return outcome_of(approximation, value);
    }

    FakeHost host;
};

constexpr int every_model[] = {SM_CAMERA_ZE, SM_CAMERA_RH, SM_CAMERA_KT7};
constexpr int unknown_models[] = {3, 4, -1, INT_MAX, INT_MIN};

const Steps shutter_steps[] = {Steps(TV_SET_ENABLE_ZE), Steps(TV_SET_ENABLE_RH), Steps(TV_SET_ENABLE_KT7)};
const Steps aperture_steps[] = {Steps(AV_SET_ENABLE_ZE), Steps(AV_SET_ENABLE_RH), Steps(AV_SET_ENABLE_KT7)};
const Steps sensitivity_steps[] = {Steps(SV_SET_ENABLE_ZE), Steps(SV_SET_ENABLE_RH), Steps(SV_SET_ENABLE_KT7)};
const Steps third_steps[] = {Steps(SV_1_3_SET_ENABLE_KT7, 26), Steps(SV_1_3_SET_ENABLE_KT7, 26),
                             Steps(SV_1_3_SET_ENABLE_KT7, 31)};
const Steps compensation_steps[] = {Steps(EV_SET_ENABLE_ZE), Steps(EV_SET_ENABLE_RH), Steps(EV_SET_ENABLE_KT7)};

Outcome with_line(Outcome outcome, const std::string& line) {
    outcome.log.push_back(line);
    return outcome;
}

// ---- Every step of every model --------------------------------------------------------------------------------------
Outcome expected_shutter(int model, int position) {
    const Outcome found = searched(shutter_steps[model], position);
    return with_line(found, cyan("[TV]convertedIndex::(" + text(found.result) + ")"));
}

TEST_F(Approximation, EveryShutterTimeOfEveryModelGivesItsNearestSupportedOne) {
    for (const int model : every_model) {
        for (int position = 0; position < shutter_steps[model].size; ++position) {
            if (position < 103 || position > 107) {
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, position, model), expected_shutter(model, position))
                    << "model " << model << " position " << position;
            }
        }
    }
}

// The position of the nearest aperture of all models, the lower one of two equally near.
int nearest_aperture(int aperture) {
    const auto* const above = std::lower_bound(AV_LUT, AV_LUT + 151, aperture);
    if (above == AV_LUT) {
        return 0;
    }
    if (above == AV_LUT + 151) {
        return 150;
    }
    const int64_t to_above = int64_t{*above} - aperture;
    const int64_t to_below = int64_t{aperture} - *(above - 1);
    return static_cast<int>(above - AV_LUT) - (to_below <= to_above ? 1 : 0);
}

Outcome expected_aperture(int model, int aperture) {
    const Outcome found = searched(aperture_steps[model], nearest_aperture(aperture));
    Outcome expected = {found.result, {yellow("(AV_LUT)arr_size :(151)")}};
    expected.log.insert(expected.log.end(), found.log.begin(), found.log.end());
    expected.log.push_back(cyan("approx_av :(" + text(found.result) + ")"));
    expected.log.push_back(cyan("convertedIndex :(" + text(AV_LUT[found.result]) + ")"));
    return expected;
}

TEST_F(Approximation, EveryApertureOfEveryModelGivesItsNearestSupportedOne) {
    for (const int model : every_model) {
        for (const int aperture : AV_LUT) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, aperture, model), expected_aperture(model, aperture))
                << "model " << model << " aperture " << aperture;
        }
    }
}

TEST_F(Approximation, EveryNumberFrom0To1000IsTakenForTheNearestAperture) {
    for (const int model : every_model) {
        for (int aperture = 0; aperture <= 1000; ++aperture) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, aperture, model), expected_aperture(model, aperture))
                << "model " << model << " aperture " << aperture;
        }
    }
}

Outcome expected_sensitivity(const Steps& steps, int position) {
    const Outcome found = searched(steps, std::min(position, steps.size - 1));
    return with_line(found, cyan("Converted SV :(" + text(found.result) + ")"));
}

TEST_F(Approximation, EverySensitivityOfEveryModelGivesItsNearestSupportedOne) {
    for (const int model : every_model) {
        for (int position = 0; position <= 30; ++position) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, position, model),
                      expected_sensitivity(sensitivity_steps[model], position))
                << "model " << model << " position " << position;
        }
    }
}

TEST_F(Approximation, EveryThirdStepSensitivityOfEveryModelGivesItsNearestSupportedOne) {
    for (const int model : every_model) {
        for (int position = 0; position <= 30; ++position) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, position, model),
                      expected_sensitivity(third_steps[model], position))
                << "model " << model << " position " << position;
        }
    }
}

Outcome expected_compensation(int model, int code) {
    const Outcome found = searched(compensation_steps[model], std::clamp(code, 0, 100));
    return with_line(found, cyan("Converted EV :(" + text(found.result) + ")"));
}

TEST_F(Approximation, EveryCompensationOfEveryModelGivesItsNearestSupportedOne) {
    for (const int model : every_model) {
        for (int code = 0; code <= 100; ++code) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, code, model), expected_compensation(model, code))
                << "model " << model << " code " << code;
        }
    }
}

// ---- The search, one case after the other ---------------------------------------------------------------------------
TEST_F(Approximation, ASupportedStepIsItsOwnAnswer) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, 3), gives(3, {cyan("Converted SV :(3)")}));
}

TEST_F(Approximation, ASupportedLowerNeighbourWinsAtOnce) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, 4), gives(3, {cyan("Converted SV :(3)")}));
}

TEST_F(Approximation, ASupportedLowerNeighbourWinsOverTheUpperOne) {
    // Model RH supports the apertures at 22 and 24, and not the one between.
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, 32, SM_CAMERA_RH),
              gives(22, {yellow("(AV_LUT)arr_size :(151)"), cyan("approx_av :(22)"), cyan("convertedIndex :(31)")}));
}

TEST_F(Approximation, ASupportedUpperNeighbourWinsOverALowerStepFartherAway) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, 5),
              gives(6, {cyan("TotalSize:31"), cyan("rstartpt(1)rstep:1\t result:6"), cyan("Converted SV :(6)")}));
}

TEST_F(Approximation, TheLastStepIsSupported) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, 30), gives(30, {cyan("Converted SV :(30)")}));
}

TEST_F(Approximation, FromTheLastStepTheSearchLooksDownOnly) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 100, SM_CAMERA_RH), gives(70, {cyan("Converted EV :(70)")}));
}

TEST_F(Approximation, FromTheFirstStepTheSearchLooksUpOnly) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 0, SM_CAMERA_RH),
              gives(30, {cyan("TotalSize:101"), cyan("rstartpt(2)rstep:30\t result:30"), yellow("rstep:30\t result:30"),
                         cyan("Converted EV :(30)")}));
}

TEST_F(Approximation, WhereNothingIsSupportedBelowTheStepAboveIsTaken) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 2, SM_CAMERA_RH),
              gives(30, {cyan("TotalSize:101"), cyan("rstartpt(2)rstep:28\t result:30"), yellow("rstep:28\t result:30"),
                         cyan("Converted EV :(30)")}));
}

TEST_F(Approximation, WhereNothingIsSupportedAboveTheStepBelowIsTaken) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 97, SM_CAMERA_RH),
              gives(70, {cyan("TotalSize:101"), cyan("rstartpt(3)rstep:3\t result:100"), yellow("fstep:27\t result:70"),
                         cyan("Converted EV :(70)")}));
}

TEST_F(Approximation, OfTwoEquallyNearStepsTheLowerOneIsTaken) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 2),
              gives(0, {cyan("TotalSize:101"), cyan("rstartpt(2)rstep:2\t result:4"), yellow("fstep:2\t rstep:2"),
                        cyan("Converted EV :(0)")}));
}

TEST_F(Approximation, TheNearerOfTwoStepsIsTakenAbove) {
    // Model KT7 supports the shutter times at 28 and 38.
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 34),
              gives(38, {cyan("TotalSize:110"), cyan("rstartpt(2)rstep:4\t result:38"), yellow("rstep:4\t result:38"),
                         cyan("[TV]convertedIndex::(38)")}));
}

TEST_F(Approximation, TheNearerOfTwoStepsIsTakenBelow) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 32),
              gives(28, {cyan("TotalSize:110"), cyan("rstartpt(2)rstep:6\t result:38"), yellow("fstep:4\t result:28"),
                         cyan("[TV]convertedIndex::(28)")}));
}

// ---- Shutter time ---------------------------------------------------------------------------------------------------
TEST_F(Approximation, FiveShutterTimesHaveFixedAnswersUnderEveryModelCodeWithoutALine) {
    const std::pair<int, int> answers[] = {{103, 80}, {104, 83}, {105, 89}, {106, 93}, {107, 96}};
    for (const int model : {0, 1, 2, 3, 4, -1, INT_MAX, INT_MIN}) {
        for (const auto& [position, answer] : answers) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, position, model), gives(answer, {}))
                << "model " << model << " position " << position;
        }
    }
}

TEST_F(Approximation, TheShutterTimesBesideTheFixedAnswersAreSearched) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 102), gives(102, {cyan("[TV]convertedIndex::(102)")}));
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 108), gives(108, {cyan("[TV]convertedIndex::(108)")}));
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 102, SM_CAMERA_RH),
              gives(103, {cyan("TotalSize:108"), cyan("rstartpt(1)rstep:1\t result:103"),
                          cyan("[TV]convertedIndex::(103)")}));
}

TEST_F(Approximation, TheFirstShutterTimeOfModelKt7GivesItsUpperNeighbour) {
    EXPECT_EQ(
        outcome_of(ADE_PRO_ConvertApproxTV, 0),
        gives(1, {cyan("TotalSize:110"), cyan("rstartpt(1)rstep:1\t result:1"), cyan("[TV]convertedIndex::(1)")}));
}

TEST_F(Approximation, AShutterTimeOutsideTheScaleStartsAtItsNearestEnd) {
    for (const int position : {-1, -2, -1000, INT_MIN}) {
        for (const int model : every_model) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, position, model), expected_shutter(model, 0)) << position;
        }
    }
    for (const int position : {110, 111, 1000, INT_MAX}) {
        for (const int model : every_model) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, position, model),
                      expected_shutter(model, shutter_steps[model].size - 1))
                << position;
        }
    }
}

TEST_F(Approximation, ShutterTime108LiesBehindTheScalesOfModelsZeAndRh) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 108, SM_CAMERA_ZE), gives(102, {cyan("[TV]convertedIndex::(102)")}));
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 108, SM_CAMERA_RH), gives(107, {cyan("[TV]convertedIndex::(107)")}));
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 109, SM_CAMERA_ZE).result, 102);
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 109, SM_CAMERA_RH).result, 107);
}

// ---- Aperture -------------------------------------------------------------------------------------------------------
TEST_F(Approximation, ASupportedApertureGivesItsPositionWithoutASearch) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, 122),
              gives(106, {yellow("(AV_LUT)arr_size :(151)"), cyan("approx_av :(106)"), cyan("convertedIndex :(122)")}));
}

TEST_F(Approximation, AnApertureThatNoModelKnowsIsTakenForTheLowerOfTwoEquallyNearOnes) {
    // f/12.3 lies between f/12.2 at position 106 and f/12.4 at 107.
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, 123),
              gives(106, {yellow("(AV_LUT)arr_size :(151)"), cyan("approx_av :(106)"), cyan("convertedIndex :(122)")}));
}

TEST_F(Approximation, TheLinesOfASearchedApertureStandBetweenSizeAndAnswer) {
    // f/6.6 is at position 57; f/6.3 at 54 and f/7.1 at 62 are supported.
    EXPECT_EQ(
        outcome_of(ADE_PRO_ConvertApproxAV, 66),
        gives(54, {yellow("(AV_LUT)arr_size :(151)"), cyan("TotalSize:151"), cyan("rstartpt(2)rstep:5\t result:62"),
                   yellow("fstep:3\t result:54"), cyan("approx_av :(54)"), cyan("convertedIndex :(63)")}));
}

TEST_F(Approximation, AperturesBehindThePhonesScaleAreAnsweredOnTheScaleOfAllModels) {
    const std::pair<int, int> answers[] = {{113, 101}, {120, 104}, {164, 128}, {170, 129}, {178, 130}, {184, 135},
                                           {500, 145}, {570, 145}, {640, 147}, {720, 147}, {800, 150}, {900, 150}};
    for (const auto& [aperture, position] : answers) {
        EXPECT_EQ(ADE_PRO_ConvertApproxAV(aperture), position) << aperture;
    }
}

TEST_F(Approximation, WildAperturesAreTakenForTheFirstOrTheLastOne) {
    for (const int model : every_model) {
        for (const int aperture : {-1, -900, -1000000, INT_MIN, INT_MIN + 1}) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, aperture, model), expected_aperture(model, 0)) << aperture;
        }
        for (const int aperture : {901, 65535, 1000000, INT_MAX, INT_MAX - 1}) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, aperture, model), expected_aperture(model, 900)) << aperture;
        }
    }
}

TEST_F(Approximation, ANumberAPowerOf2AwayFromAnApertureIsNoNearerToItThanToTheOthers) {
    for (int power = 10; power <= 30; ++power) { // 1024 and more lie beyond the scale
        for (const int aperture : AV_LUT) {
            SCOPED_TRACE(text(aperture) + " and 2 to the power of " + text(power));
            EXPECT_EQ(ADE_PRO_ConvertApproxAV(aperture + (1 << power)), 150); // f/90, the last one
            EXPECT_EQ(ADE_PRO_ConvertApproxAV(aperture - (1 << power)), 0);
        }
    }
}

TEST_F(Approximation, NumbersBetween0AndF1AreTakenForTheNearerOne) {
    for (int aperture = 1; aperture <= 9; ++aperture) {
        EXPECT_EQ(ADE_PRO_ConvertApproxAV(aperture), aperture <= 5 ? 0 : 1) << aperture;
    }
}

// ---- Sensitivity ----------------------------------------------------------------------------------------------------
TEST_F(Approximation, ASensitivityOutsideTheScaleBecomesAutomaticWithoutASearch) {
    const Outcome automatic = {0, {cyan("Converted SV :(0)")}};
    for (const int model : every_model) {
        for (const int position : {-1, -30, 31, 32, 50, 125, 51200, INT_MAX, INT_MIN}) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, position, model), automatic) << position;
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, position, model), automatic) << position;
        }
    }
}

TEST_F(Approximation, SensitivitiesBehindTheScaleOfAModelStartAtItsEnd) {
    for (int position = 26; position <= 30; ++position) {
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, position, SM_CAMERA_ZE), gives(25, {cyan("Converted SV :(25)")}));
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, position, SM_CAMERA_RH), gives(16, {cyan("Converted SV :(16)")}));
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, position, SM_CAMERA_ZE),
                  gives(25, {cyan("Converted SV :(25)")}));
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, position, SM_CAMERA_RH),
                  gives(25, {cyan("Converted SV :(25)")}));
    }
}

TEST_F(Approximation, ThirdStepsOfModelsZeAndRhEndAtPosition25) {
    for (const int model : {SM_CAMERA_ZE, SM_CAMERA_RH}) {
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, 25, model), gives(25, {cyan("Converted SV :(25)")}));
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, 2, model),
                  gives(3, {cyan("TotalSize:26"), cyan("rstartpt(1)rstep:1\t result:3"), cyan("Converted SV :(3)")}));
    }
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, 30, SM_CAMERA_KT7), gives(30, {cyan("Converted SV :(30)")}));
}

// ---- Compensation ---------------------------------------------------------------------------------------------------
TEST_F(Approximation, ACompensationOutsideTheScaleStartsAtItsNearestEnd) {
    for (const int model : every_model) {
        for (const int code : {-1, -10, -1000, INT_MIN}) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, code, model), expected_compensation(model, 0)) << code;
        }
        for (const int code : {101, 110, 1000, INT_MAX}) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, code, model), expected_compensation(model, 100)) << code;
        }
    }
}

TEST_F(Approximation, TheEndsOfTheCompensationOfEveryModel) {
    const int lowest[] = {20, 30, 0};
    const int highest[] = {80, 70, 100};
    for (const int model : every_model) {
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 0, model).result, lowest[model]);
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 100, model).result, highest[model]);
    }
}

// ---- Models ---------------------------------------------------------------------------------------------------------
TEST_F(Approximation, AnUnknownModelGivesTheFailureValueOfTheQuantityWithoutALine) {
    for (const int model : unknown_models) {
        for (const int value : {0, 2, 30, 101, 108, 1000, -1}) {
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, value, model), gives(-1, {})) << value;
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, value, model), gives(-1, {})) << value;
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, value, model), gives(0, {})) << value;
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, value, model), gives(0, {})) << value;
            EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, value, model), gives(-1, {})) << value;
        }
    }
}

// Numbers whose lower 8 or 16 bits are a position of every scale.
std::vector<int> with_upper_bits(int position) {
    return {position + 256 * 5, position + 65536, position + 3 * 65536, position + (1 << 24)};
}

TEST_F(Approximation, ANumberIsNotTakenForItsLowerBits) {
    for (const int model : every_model) {
        for (const int position : {0, 1, 3, 12, 20, 100}) {
            for (const int number : with_upper_bits(position)) {
                SCOPED_TRACE(text(number) + " under model " + text(model));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, number, model),
                          expected_shutter(model, shutter_steps[model].size - 1));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, number, model), expected_aperture(model, 900));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, number, model), gives(0, {cyan("Converted SV :(0)")}));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, number, model),
                          gives(0, {cyan("Converted SV :(0)")}));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, number, model), expected_compensation(model, 100));
            }
            for (const int number : {position - 65536, position - 256 * 5}) {
                SCOPED_TRACE(text(number) + " under model " + text(model));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, number, model), expected_shutter(model, 0));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxAV, number, model), expected_aperture(model, 0));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, number, model), gives(0, {cyan("Converted SV :(0)")}));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV_1_3step, number, model),
                          gives(0, {cyan("Converted SV :(0)")}));
                EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, number, model), expected_compensation(model, 0));
            }
        }
    }
}

TEST_F(Approximation, AModelIsNotTakenForItsLowerBits) {
    for (const int model : {256, 258, 65536, 65537, 65538, -254, -65534}) {
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 2, model), gives(-1, {})) << model;
        EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxSV, 4, model), gives(0, {})) << model;
    }
}

TEST_F(Approximation, ANumberThatSharesItsLowerBitsWithAFixedShutterTimeIsSearched) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 65536 + 103), expected_shutter(SM_CAMERA_KT7, 109));
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxTV, 256 + 105), expected_shutter(SM_CAMERA_KT7, 109));
}

TEST_F(Approximation, TheAnswerFollowsTheModelOfTheMoment) {
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 100, SM_CAMERA_KT7).result, 100);
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 100, SM_CAMERA_RH).result, 70);
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 100, 3).result, -1);
    EXPECT_EQ(outcome_of(ADE_PRO_ConvertApproxEV, 100, SM_CAMERA_ZE).result, 80);
    EXPECT_EQ(gADE_PRO_model, SM_CAMERA_ZE) << "an approximation does not change it";
}

TEST_F(Approximation, LogsFromTheApproximationsSourceFile) {
    (void)ADE_PRO_ConvertApproxAV(66);
    ASSERT_EQ(host.lines.size(), 6u);
    for (const LogLine& line : host.lines) {
        EXPECT_EQ(line.file.substr(0, line.file.rfind('.')), "ADE_ShotMentor_Approximation") << line.text;
    }
}

} // namespace
