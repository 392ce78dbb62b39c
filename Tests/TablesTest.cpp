// The camera model and its step tables. Every table is held twice: as a list of what it contains, and by the rule that
// its contents follow.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <sstream>

#include "ADE_ShotMentor.h"
#include "FakeHost.h"

namespace {

// The model before any conversion of this process has run.
const int model_at_load = ADE_PRO_GetModel();
const std::vector<int> state_at_load = {gADE_PRO_model, pro_sys_mode, pro_film_mode, pro_custom04_state};

using Values = std::vector<int>;

constexpr int missing = 65535;

template<size_t Length>
Values values(const int32_t (&table)[Length]) {
    return {table, table + Length};
}

// Reads "3, 65535 x4, 7": numbers, some of them repeated.
Values parse_runs(const std::string& text) {
    Values all;
    std::istringstream runs(text);
    for (std::string run; std::getline(runs, run, ',');) {
        std::istringstream parts(run);
        int value = 0;
        int repeats = 1;
        char times = 'x';
        parts >> value;
        EXPECT_FALSE(parts.fail()) << run;
        if (parts >> times >> repeats) {
            EXPECT_EQ(times, 'x') << run;
        }
        all.insert(all.end(), static_cast<size_t>(repeats), value);
    }
    return all;
}

// Reads "0-3, 7": positions and spans of positions.
Values parse_positions(const std::string& text) {
    Values all;
    std::istringstream spans(text);
    for (std::string span; std::getline(spans, span, ',');) {
        std::istringstream parts(span);
        int first = 0;
        parts >> first;
        EXPECT_FALSE(parts.fail()) << span;
        int last = first;
        char dash = '-';
        if (parts >> dash >> last) {
            EXPECT_EQ(dash, '-') << span;
        }
        for (int position = first; position <= last; ++position) {
            all.push_back(position);
        }
    }
    return all;
}

// The positions of a table at which a condition holds.
template<class Condition>
Values positions_where(const Values& table, Condition condition) {
    Values all;
    for (size_t position = 0; position < table.size(); ++position) {
        if (condition(table[position])) {
            all.push_back(static_cast<int>(position));
        }
    }
    return all;
}

Values positions_of_ones(const Values& table) {
    return positions_where(table, [](int entry) { return entry == 1; });
}

Values positions_without(const Values& table, int mark) {
    return positions_where(table, [=](int entry) { return entry != mark; });
}

Values entries_without(const Values& table, int mark) {
    Values all;
    std::copy_if(table.begin(), table.end(), std::back_inserter(all), [=](int entry) { return entry != mark; });
    return all;
}

bool rises(const Values& table) {
    return std::adjacent_find(table.begin(), table.end(), std::greater_equal<>()) == table.end();
}

// The camera counts sixteenths of a stop; third stop number `third`, rounded to the nearest sixteenth.
int sixteenths(int third) {
    return static_cast<int>(std::lround(16.0 * third / 3.0));
}

Values thirds_from_to(int first, int last) {
    Values all;
    for (int third = first; third <= last; ++third) {
        all.push_back(sixteenths(third));
    }
    return all;
}

class Tables : public testing::Test {
  protected:
    void TearDown() override { gADE_PRO_model = pro_sys_mode = pro_film_mode = pro_custom04_state = 0; }

    FakeHost host;
};

// ---- The phone's scales ---------------------------------------------------------------------------------------------
Values apertures_10_to_110_and(const std::string& rest) {
    Values all = {0};
    for (int aperture = 10; aperture <= 110; ++aperture) {
        all.push_back(aperture);
    }
    const Values more = parse_runs(rest);
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

TEST_F(Tables, ThePhonesAperturesAre128) {
    const Values expected = apertures_10_to_110_and(
        "120, 124, 130, 139, 140, 150, 153, 160, 164, 170, 178, 180, 200, 220, 250, 290, 320, 360, 400, "
        "450, 500, 570, 640, 720, 800, 900");
    EXPECT_EQ(expected.size(), 128u);
    EXPECT_EQ(values(tPRO_COMMON_AV), expected);
}

TEST_F(Tables, TheAperturesOfAllModelsAre151) {
    const Values expected = apertures_10_to_110_and(
        "113, 116, 119, 120, 122, 124, 125, 127, 129, 130, 131, 134, 136, 139, 140, 142, 145, 148, 150, 152, 153, 156, "
        "159, 160, 163, 164, 167, 170, 173, 176, 178, 179, 180, 182, 184, 200, 220, 250, 290, 320, 360, 400, "
        "450, 500, 570, 640, 720, 800, 900");
    EXPECT_EQ(expected.size(), 151u);
    EXPECT_EQ(values(AV_LUT), expected);
}

TEST_F(Tables, AperturesRise) {
    EXPECT_TRUE(rises(values(tPRO_COMMON_AV)));
    EXPECT_TRUE(rises(values(AV_LUT)));
}

TEST_F(Tables, EveryApertureOfThePhoneIsAmongThoseOfAllModels) {
    const Values all = values(AV_LUT);
    for (const int aperture : values(tPRO_COMMON_AV)) {
        EXPECT_EQ(std::count(all.begin(), all.end(), aperture), 1) << aperture;
    }
}

TEST_F(Tables, BothApertureScalesAgreeUpToPosition101AndDifferFrom102On) {
    for (size_t position = 0; position <= 101; ++position) {
        EXPECT_EQ(tPRO_COMMON_AV[position], AV_LUT[position]) << position;
    }
    for (size_t position = 102; position < 128; ++position) {
        EXPECT_NE(tPRO_COMMON_AV[position], AV_LUT[position]) << position;
    }
}

TEST_F(Tables, ThePhonesSensitivitiesAre31) {
    EXPECT_EQ(
        values(tPRO_COMMON_SV),
        parse_runs(
            "0, 50, 80, 100, 125, 160, 200, 250, 320, 400, 500, 640, 800, 1000, 1250, 1600, 2000, 2500, 3200, 4000, "
            "5000, 6400, 8000, 10000, 12800, 16000, 20000, 25600, 32000, 40000, 51200"));
    EXPECT_TRUE(rises(values(tPRO_COMMON_SV)));
}

TEST_F(Tables, SensitivitiesFromPosition2OnAreThirdsOfAStop) {
    for (int position = 2; position <= 30; ++position) {
        const double exact = 100.0 * std::exp2((position - 3) / 3.0);
        EXPECT_NEAR(tPRO_COMMON_SV[position], exact, 0.02 * exact) << position;
    }
    for (int position = 3; position <= 30; position += 3) {
        EXPECT_EQ(tPRO_COMMON_SV[position], 100 << (position / 3 - 1)) << position;
    }
}

TEST_F(Tables, ThePhonesCompensationsAre31) {
    EXPECT_EQ(values(tPRO_COMMON_EV),
              parse_runs("0, 4, 7, 10, 14, 17, 20, 24, 27, 30, 34, 37, 40, 44, 47, 50, 53, 56, 60, 63, 66, 70, 73, "
                         "76, 80, 83, 86, 90, 93, 96, 100"));
}

TEST_F(Tables, CompensationsAreTenthsOfAStopCutTowardsNoneAndMirroredThere) {
    for (int step = 0; step <= 15; ++step) {
        const int tenths = 10 * step / 3; // both not negative: rounded down
        EXPECT_EQ(tPRO_COMMON_EV[15 + step], 50 + tenths) << step;
        EXPECT_EQ(tPRO_COMMON_EV[15 - step], 50 - tenths) << step;
    }
}

// ---- The camera's codes ---------------------------------------------------------------------------------------------
TEST_F(Tables, TheCamerasApertureCodesAre128) {
    const Values expected = parse_runs(
        "0, 0, 5, 11, 65535, 16, 65535, 21, 65535, 27, 65535, 32, 65535, 37, 65535, 65535, 43, 65535, 65535, 48, "
        "65535, 65535, 65535, 53, 65535, 65535, 59, 65535 x4, 64, 65535 x4, 69, 65535 x4, 75, 65535 x5, 80, 65535 x6, "
        "85, 65535 x7, 91, 65535 x8, 96, 65535 x9, 101, 65535 x9, 107, 65535 x9, 112, 65535, 65535, 117, 65535, 123, "
        "65535, 65535, 128, 65535 x3, 133, 139, 144, 149, 155, 160, 165, 171, 176, 65535 x6");
    EXPECT_EQ(expected.size(), 128u);
    EXPECT_EQ(values(tKT7_APEX_AV), expected);
}

TEST_F(Tables, ApertureCodesAreTheThirdsOfAStopFromF1ToF45) {
    Values codes = entries_without(values(tKT7_APEX_AV), missing);
    ASSERT_FALSE(codes.empty());
    EXPECT_EQ(codes.front(), 0) << "position 0, no aperture";
    codes.erase(codes.begin());
    EXPECT_EQ(codes, thirds_from_to(0, 33));
}

TEST_F(Tables, ApertureCodesStandAtTheirFNumbers) {
    for (const int position : positions_without(values(tKT7_APEX_AV), missing)) {
        if (position != 0) {
            const double stops = 2.0 * std::log2(tPRO_COMMON_AV[position] / 10.0);
            EXPECT_NEAR(tKT7_APEX_AV[position] / 16.0, stops, 1.0 / 6.0) << position;
        }
    }
}

TEST_F(Tables, TheCamerasShutterCodesAre110) {
    const Values expected = parse_runs(
        "65535, 65440, 65456, 65535 x4, 65461, 65535 x4, 65467, 65535 x4, 65472, 65535, 65477, 65535, 65535, 65483, "
        "65535, 65488, 65535, 65493, 65499, 65504, 65535 x9, 65509, 65535 x4, 65515, 65535 x4, 65520, 65535 x3, 65525, "
        "65535, 65535, 65531, 65535, 65535, 0, 65535, 5, 65535, 11, 16, 21, 27, 65535 x3, 32, 37, 43, 48, 53, 59, 64, "
        "69, 75, 80, 85, 91, 96, 101, 107, 112, 117, 65535, 123, 128, 133, 139, 144, 149, 155, 160, 165, 171, 176, "
        "181, 187, 192, 197, 203, 65535 x5, 208, 213");
    EXPECT_EQ(expected.size(), 110u);
    EXPECT_EQ(values(tKT7_APEX_TV), expected);
}

TEST_F(Tables, ShutterCodesAreMinus96AndTheThirdsOfAStopFromMinus80To213) {
    Values codes = entries_without(values(tKT7_APEX_TV), missing);
    ASSERT_FALSE(codes.empty());
    for (int& code : codes) {
        EXPECT_TRUE(code >= 0 && code < 65536) << code;
        code = code < 32768 ? code : code - 65536; // 16-bit two's complement
    }
    EXPECT_EQ(codes.front(), -96);
    codes.erase(codes.begin());
    EXPECT_EQ(codes, thirds_from_to(-15, 40));
}

TEST_F(Tables, FullSensitivityStepsStandAtEveryThirdPosition) {
    for (int position = 0; position < 31; ++position) {
        EXPECT_EQ(tKT7_APEX_SV[position], position % 3 == 0 ? position / 3 : -1) << position;
    }
    EXPECT_EQ(values(tKT7_APEX_SV),
              parse_runs("0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1, -1, 5, -1, -1, 6, -1, -1, 7, "
                         "-1, -1, 8, -1, -1, 9, -1, -1, 10"));
}

TEST_F(Tables, ThirdSensitivityStepsStandAtEveryPositionFrom3On) {
    EXPECT_EQ(values(tKT7_APEX_SV_1_3),
              parse_runs("0, -1, -1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, "
                         "21, 22, 23, 24, 25, 26, 27, 28"));
}

TEST_F(Tables, CompensationStepsStandAtThePhonesCodes) {
    const Values codes =
        parse_runs("0, 4, 7, 10, 14, 17, 20, 24, 27, 30, 34, 37, 40, 44, 47, 50, 53, 56, 60, 63, 66, 70, 73, "
                   "76, 80, 83, 86, 90, 93, 96, 100");
    Values expected(101, -1);
    for (size_t step = 0; step < codes.size(); ++step) {
        expected[static_cast<size_t>(codes[step])] = static_cast<int>(step);
    }
    EXPECT_EQ(values(tKT7_APEX_EV_1_3), expected);
    EXPECT_EQ(entries_without(expected, -1).size(), 31u);
}

// ---- What the models support ----------------------------------------------------------------------------------------
struct EnableTable {
    const char* name;
    Values table;
    size_t length;
    const char* positions;
};

TEST_F(Tables, EnableTablesHoldTheSupportedPositions) {
    const EnableTable tables[] = {
        {"AV_SET_ENABLE_ZE", values(AV_SET_ENABLE_ZE), 151, "0-91, 101, 137-150"},
        {"AV_SET_ENABLE_RH", values(AV_SET_ENABLE_RH), 151,
         "0, 22, 24, 26, 28, 30, 35, 40, 45, 49, 54, 79, 84, 90, 96, 101-104, 106, 108-110, 112-114, 117-119, 121, "
         "123-124, 126, 128, 130-131, 133, 135-136"},
        {"AV_SET_ENABLE_KT7", values(AV_SET_ENABLE_KT7), 151,
         "0-3, 5, 7, 9, 11, 13, 16, 19, 23, 26, 31, 36, 41, 47, 54, 62, 71, 81, 91, 101, 104, 106, 109, 113-121, "
         "128-130, 135, 140, 145, 147, 150"},
        {"TV_SET_ENABLE_ZE", values(TV_SET_ENABLE_ZE), 108,
         "0-2, 7, 12, 17, 19, 22, 24, 26-28, 38, 43, 48, 52, 55, 58, 60, 62-65, 69-102"},
        {"TV_SET_ENABLE_RH", values(TV_SET_ENABLE_RH), 108,
         "0, 16-22, 24, 26, 28, 38, 48, 53, 58, 61, 63, 68-69, 71-73, 75-76, 78, 81, 84, 86, 88, 91, 94, 97, 103-107"},
        {"TV_SET_ENABLE_KT7", values(TV_SET_ENABLE_KT7), 110,
         "1-2, 7, 12, 17, 19, 22, 24, 26-28, 38, 43, 48, 52, 55, 58, 60, 62-65, 69-85, 87-102, 108-109"},
        {"SV_SET_ENABLE_ZE", values(SV_SET_ENABLE_ZE), 26, "0-25"},
        {"SV_SET_ENABLE_RH", values(SV_SET_ENABLE_RH), 26, "0-1, 4, 7, 10, 13, 16"},
        {"SV_SET_ENABLE_KT7", values(SV_SET_ENABLE_KT7), 31, "0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30"},
        {"SV_1_3_SET_ENABLE_KT7", values(SV_1_3_SET_ENABLE_KT7), 31, "0, 3-30"},
        {"EV_SET_ENABLE_ZE", values(EV_SET_ENABLE_ZE), 101,
         "20, 24, 27, 30, 34, 37, 40, 44, 47, 50, 53, 56, 60, 63, 66, 70, 73, 76, 80"},
        {"EV_SET_ENABLE_RH", values(EV_SET_ENABLE_RH), 101, "30, 33, 37, 40, 43, 47, 50, 53, 57, 60, 63, 67, 70"},
        {"EV_SET_ENABLE_KT7", values(EV_SET_ENABLE_KT7), 101,
         "0, 4, 7, 10, 14, 17, 20, 24, 27, 30, 34, 37, 40, 44, 47, 50, 53, 56, 60, 63, 66, 70, 73, "
         "76, 80, 83, 86, 90, 93, 96, 100"},
    };
    for (const EnableTable& row : tables) {
        EXPECT_EQ(row.table.size(), row.length) << row.name;
        EXPECT_EQ(positions_of_ones(row.table), parse_positions(row.positions)) << row.name;
        EXPECT_TRUE(std::all_of(row.table.begin(), row.table.end(), [](int entry) { return entry == 0 || entry == 1; }))
            << row.name;
    }
}

TEST_F(Tables, ModelKt7SupportsExactlyTheStepsThatItHasCodesFor) {
    EXPECT_EQ(positions_of_ones(values(TV_SET_ENABLE_KT7)), positions_without(values(tKT7_APEX_TV), missing));
    EXPECT_EQ(positions_of_ones(values(SV_SET_ENABLE_KT7)), positions_without(values(tKT7_APEX_SV), -1));
    EXPECT_EQ(positions_of_ones(values(SV_1_3_SET_ENABLE_KT7)), positions_without(values(tKT7_APEX_SV_1_3), -1));
    EXPECT_EQ(positions_of_ones(values(EV_SET_ENABLE_KT7)), positions_without(values(tKT7_APEX_EV_1_3), -1));
}

TEST_F(Tables, ModelKt7MarksTheAperturesThatItHasCodesForAtThePhonesPositions) {
    // Also from 102 on, where the positions belong to the other scale: 113 to 121 are the phone's f/18 to f/45.
    Values marked = positions_of_ones(values(AV_SET_ENABLE_KT7));
    marked.resize(static_cast<size_t>(std::count_if(marked.begin(), marked.end(), [](int p) { return p < 128; })));
    EXPECT_EQ(marked, positions_without(values(tKT7_APEX_AV), missing));
}

TEST_F(Tables, TheAperturesOfModelKt7EndLikeTheShutterTimesOfModelZeBegin) {
    const Values apertures = values(AV_SET_ENABLE_KT7);
    const Values shutter_times = values(TV_SET_ENABLE_ZE);
    EXPECT_EQ(Values(apertures.begin() + 128, apertures.end()),
              Values(shutter_times.begin(), shutter_times.begin() + 23));
}

TEST_F(Tables, ModelZeSupportsThePhonesCompensationsFromMinus3To3) {
    Values expected = values(tPRO_COMMON_EV);
    std::erase_if(expected, [](int code) { return code < 20 || code > 80; });
    EXPECT_EQ(positions_of_ones(values(EV_SET_ENABLE_ZE)), expected);
}

TEST_F(Tables, ModelRhSupportsRoundedThirdsFromMinus2To2) {
    Values expected;
    for (int third = -6; third <= 6; ++third) {
        expected.push_back(static_cast<int>(std::lround(50.0 + 10.0 * third / 3.0)));
    }
    EXPECT_EQ(positions_of_ones(values(EV_SET_ENABLE_RH)), expected);
}

TEST_F(Tables, OnlyModelRhSupportsTheShutterTimesWithFixedAnswers) {
    for (int position = 103; position <= 107; ++position) {
        EXPECT_EQ(TV_SET_ENABLE_ZE[position], 0) << position;
        EXPECT_EQ(TV_SET_ENABLE_RH[position], 1) << position;
        EXPECT_EQ(TV_SET_ENABLE_KT7[position], 0) << position;
    }
}

// ---- The model and what is asked about it ---------------------------------------------------------------------------
TEST_F(Tables, TheModelIsZeBeforeAnyConversion) {
    EXPECT_EQ(model_at_load, 0);
    EXPECT_EQ(model_at_load, SM_CAMERA_ZE);
}

TEST_F(Tables, AllStateIs0BeforeAnyConversion) {
    EXPECT_EQ(state_at_load, Values(4, 0));
}

TEST_F(Tables, TheModelIsReadFromItsVariable) {
    for (const int model : {0, 1, 2, 3, -1, INT_MAX, INT_MIN}) {
        gADE_PRO_model = model;
        EXPECT_EQ(ADE_PRO_GetModel(), model);
    }
}

TEST_F(Tables, SettingTheModelSetsKt7) {
    for (const int model : {0, 1, 2, 3}) {
        gADE_PRO_model = model;
        ADE_PRO_SetModel();
        EXPECT_EQ(gADE_PRO_model, 2);
    }
}

TEST_F(Tables, TheSystemModeIs0To3AsItIs4For4And5And1ForAnyOther) {
    const std::pair<int, int> rows[] = {{0, 0}, {1, 1}, {2, 2},   {3, 3},  {4, 4},       {5, 4},      {6, 1},
                                        {7, 1}, {8, 1}, {255, 1}, {-1, 1}, {INT_MAX, 1}, {INT_MIN, 1}};
    for (const auto& [mode, system_mode] : rows) {
        tag_custom_info camera = preset(1);
        camera.mode = mode;
        EXPECT_EQ(ADE_PRO_GetSysMode(&camera), system_mode) << mode;
    }
    EXPECT_EQ(pro_sys_mode, 0) << "asking changes nothing";
}

TEST_F(Tables, IsoStepsAreFullForAModelSpecificationOf1) {
    host.iso_step_value = 1;
    EXPECT_EQ(ADE_PRO_GetSysIsoStep(), 0);
    EXPECT_EQ(host.transcript, Transcript{"User_Spec_Get_Value(272)"});
}

TEST_F(Tables, IsoStepsAreThirdsForEveryOtherModelSpecification) {
    for (const int answer : {0, 2, 3, -1, 257, INT_MAX, INT_MIN}) {
        host.iso_step_value = answer;
        EXPECT_EQ(ADE_PRO_GetSysIsoStep(), 1) << answer;
    }
}

TEST_F(Tables, TheCustom04StateIsReadFromItsVariable) {
    for (const int state : {0, 1, 0, 7, -1}) {
        pro_custom04_state = state;
        EXPECT_EQ(ADE_PRO_GetEnable_Custom04(), state);
    }
}

TEST_F(Tables, QuestionsAboutTheModelAreNotLogged) {
    const tag_custom_info camera = preset(1);
    (void)ADE_PRO_GetModel();
    ADE_PRO_SetModel();
    (void)ADE_PRO_GetSysMode(&camera);
    (void)ADE_PRO_GetSysIsoStep();
    (void)ADE_PRO_GetEnable_Custom04();
    EXPECT_EQ(host.log(), Transcript{});
}

} // namespace
