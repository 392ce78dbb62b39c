// Presets in a photographer's words.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "ADE_ShotMentor.h"
#include "Words/Describe.h"

namespace desk {
namespace {

sm_tag_custom_info preset_titled(const std::string& title) {
    sm_tag_custom_info preset{};
    std::memcpy(preset.title, title.data(), std::min(title.size(), sizeof preset.title));
    preset.ev_step = 50;
    return preset;
}

// f/2.8, 1/125 s, ISO 400, +1/3 EV.
sm_tag_custom_info preset_in_mode(int32_t mode) {
    sm_tag_custom_info preset = preset_titled("Dusk");
    preset.mode = mode;
    preset.av_index = 28;
    preset.tv_index = 84;
    preset.iso = 400;
    preset.ev_step = 53;
    return preset;
}

std::vector<std::string> texts_of(const Exposure& exposure) {
    return {exposure.aperture, exposure.shutter, exposure.iso, exposure.compensation};
}

using Texts = std::vector<std::string>;

// ---- Single codes ---------------------------------------------------------------------------------------------------

TEST(Describe, NamesTheModes) {
    const Texts names = {mode_name(0), mode_name(1), mode_name(2), mode_name(3), mode_name(4)};
    EXPECT_EQ(names, (Texts{"Auto", "Program", "Aperture", "Shutter", "Manual"}));
    EXPECT_EQ(mode_name(5), "mode 5");
    EXPECT_EQ(mode_name(-1), "mode -1");
}

TEST(Describe, WritesAnApertureAsAnFNumber) {
    EXPECT_EQ(aperture_text(28), "f/2.8");
    EXPECT_EQ(aperture_text(110), "f/11");
    EXPECT_EQ(aperture_text(10), "f/1");
    EXPECT_EQ(aperture_text(9), "f/0.9");
    EXPECT_EQ(aperture_text(0), "-");
    EXPECT_EQ(aperture_text(-28), "code -28");
}

TEST(Describe, WritesASensitivityAsAnIsoNumber) {
    EXPECT_EQ(iso_text(400), "ISO 400");
    EXPECT_EQ(iso_text(0), "ISO auto");
}

// A time as it stands on a dial, in seconds; 0 when it is no time.
double seconds_of(const std::string& text) {
    double first = 0;
    double second = 1;
    char slash = 0;
    std::istringstream stream(text);
    stream >> first;
    if (stream.peek() == '/') {
        stream >> slash >> second;
    }
    std::string unit;
    stream >> unit;
    return unit == "s" && stream.eof() ? first / second : 0;
}

TEST(Describe, HasAShutterTimeForExactlyThePositionsThatTheCameraHasACodeFor) {
    for (int32_t position = 0; position < SM_TV_STEPS; ++position) {
        EXPECT_EQ(seconds_of(shutter_text(position)) > 0, tKT7_APEX_TV[position] != SM_STEP_MISSING) << position;
    }
}

TEST(Describe, HasShutterTimesThatAreThoseOfTheCamerasCodes) {
    for (int32_t position = 0; position < SM_TV_STEPS; ++position) {
        if (tKT7_APEX_TV[position] == SM_STEP_MISSING) {
            continue;
        }
        const auto code = static_cast<int16_t>(tKT7_APEX_TV[position]);
        const double exact = std::pow(2.0, -code / 16.0);
        // A dial's round numbers miss the powers of two by up to 7.4 per cent; the next third step is 26 away.
        EXPECT_NEAR(seconds_of(shutter_text(position)) / exact, 1, 0.075) << position;
    }
}

TEST(Describe, WritesShutterTimesAsTheyStandOnADial) {
    EXPECT_EQ(shutter_text(1), "60 s");
    EXPECT_EQ(shutter_text(43), "2.5 s");
    EXPECT_EQ(shutter_text(58), "1 s");
    EXPECT_EQ(shutter_text(69), "1/4 s");
    EXPECT_EQ(shutter_text(84), "1/125 s");
    EXPECT_EQ(shutter_text(109), "1/10000 s");
}

TEST(Describe, ShowsTheNumberOfAStepWithoutAShutterTime) {
    for (const int32_t position : {0, 53, 86, 103, 110, -1}) {
        EXPECT_EQ(shutter_text(position), "step " + std::to_string(position));
    }
}

TEST(Describe, WritesCompensationsInThirds) {
    const Texts thirds = {"-5 EV",     "-4 2/3 EV", "-4 1/3 EV", "-4 EV",     "-3 2/3 EV", "-3 1/3 EV", "-3 EV",
                          "-2 2/3 EV", "-2 1/3 EV", "-2 EV",     "-1 2/3 EV", "-1 1/3 EV", "-1 EV",     "-2/3 EV",
                          "-1/3 EV",   "0 EV",      "+1/3 EV",   "+2/3 EV",   "+1 EV",     "+1 1/3 EV", "+1 2/3 EV",
                          "+2 EV",     "+2 1/3 EV", "+2 2/3 EV", "+3 EV",     "+3 1/3 EV", "+3 2/3 EV", "+4 EV",
                          "+4 1/3 EV", "+4 2/3 EV", "+5 EV"};
    ASSERT_EQ(thirds.size(), size_t{SM_EV_STEPS});
    for (size_t k = 0; k < thirds.size(); ++k) {
        EXPECT_EQ(compensation_text(tPRO_COMMON_EV[k]), thirds[k]) << tPRO_COMMON_EV[k];
    }
}

TEST(Describe, TakesACompensationBetweenThirdsForTheNearestOne) {
    EXPECT_EQ(compensation_text(49), "0 EV");
    EXPECT_EQ(compensation_text(48), "-1/3 EV");
    EXPECT_EQ(compensation_text(33), "-1 2/3 EV");
    EXPECT_EQ(compensation_text(99), "+5 EV");
}

TEST(Describe, ShowsTheCodeOfACompensationThatIsNone) {
    EXPECT_EQ(compensation_text(-1), "code -1");
    EXPECT_EQ(compensation_text(101), "code 101");
    EXPECT_EQ(compensation_text(INT32_MIN), "code -2147483648");
}

TEST(Describe, NamesTheCustomColorStyles) {
    EXPECT_EQ(color_style_text(0), "style 0");
    EXPECT_EQ(color_style_text(9), "style 9");
    EXPECT_EQ(color_style_text(10), "C1");
    EXPECT_EQ(color_style_text(13), "C4");
    EXPECT_EQ(color_style_text(14), "style 14");
}

TEST(Describe, WritesAColorTemperatureForTheKelvinWhiteBalanceAlone) {
    EXPECT_EQ(white_balance_text(10, 5500), "5500 K");
    EXPECT_EQ(white_balance_text(2, 5500), "daylight");
    EXPECT_EQ(white_balance_text(11, 5500), "type 11");
}

TEST(Describe, NamesTheCustomModes) {
    EXPECT_EQ(custom_mode_text(0), "-");
    EXPECT_EQ(custom_mode_text(1), "CUSTOM1");
    EXPECT_EQ(custom_mode_text(2), "CUSTOM2");
    EXPECT_EQ(custom_mode_text(3), "custom mode 3");
}

// ---- Whole presets --------------------------------------------------------------------------------------------------

TEST(Describe, ShowsOfTheExposureWhatTheModeCarries) {
    EXPECT_EQ(texts_of(exposure_of(preset_in_mode(0))), (Texts{"-", "-", "ISO 400", "+1/3 EV"}));
    EXPECT_EQ(texts_of(exposure_of(preset_in_mode(1))), (Texts{"-", "-", "ISO 400", "+1/3 EV"}));
    EXPECT_EQ(texts_of(exposure_of(preset_in_mode(2))), (Texts{"f/2.8", "-", "ISO 400", "+1/3 EV"}));
    EXPECT_EQ(texts_of(exposure_of(preset_in_mode(3))), (Texts{"-", "1/125 s", "ISO 400", "+1/3 EV"}));
    EXPECT_EQ(texts_of(exposure_of(preset_in_mode(4))), (Texts{"f/2.8", "1/125 s", "ISO 400", "-"}));
}

TEST(Describe, ReplacesInATitleWhatWouldDisturbATerminal) {
    EXPECT_EQ(title_text(preset_titled("Caf\u00e9 \u4e2d\U0001F4F7")), "Caf\u00e9 \u4e2d\U0001F4F7");
    EXPECT_EQ(title_text(preset_titled("a\x1B[2Jb\r\n\x7F")), "a\uFFFD[2Jb\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(title_text(preset_titled("a\xFF"
                                       "b")),
              "a\uFFFD"
              "b");
    EXPECT_EQ(title_text(preset_titled("\u0085\u00A0")), "\uFFFD\u00A0");
    EXPECT_EQ(title_text(preset_titled("\u202E\u2066\u2030")), "\uFFFD\uFFFD\u2030");
}

TEST(Describe, MakesATitleOfAnyBytesFitForATerminal) {
    std::mt19937 random(5);
    for (int round = 0; round < 2000; ++round) {
        std::string title(52, ' ');
        std::generate(title.begin(), title.end(), [&] { return static_cast<char>(random() | 0x80); });
        title.resize(random() % 53);
        const std::string text = title_text(preset_titled(title));
        EXPECT_NO_THROW((void)nlohmann::json(text).dump()) << round; // throws for what is not UTF-8
        EXPECT_EQ(text.empty(), title.empty());
    }
}

TEST(Describe, ReadsATitleUpToItsEnd) {
    EXPECT_EQ(title_text(preset_titled(std::string("ab\0c", 4))), "ab");
    EXPECT_EQ(title_text(preset_titled(std::string(52, 'x'))), std::string(52, 'x'));
    EXPECT_EQ(title_text(preset_titled("")), "");
}

std::string line_of(const sm_tag_custom_info& preset, const std::string& label) {
    for (const auto& [name, text] : description_of(preset)) {
        if (name == label) {
            return text;
        }
    }
    return "no line " + label;
}

TEST(Description, BeginsWithTheTitleAndTheExposure) {
    const auto lines = description_of(preset_in_mode(4));
    const std::vector<std::pair<std::string, std::string>> first = {{"Title", "Dusk"},          {"Mode", "Manual"},
                                                                    {"Aperture", "f/2.8"},      {"Shutter", "1/125 s"},
                                                                    {"Sensitivity", "ISO 400"}, {"Compensation", "-"}};
    ASSERT_GE(lines.size(), first.size());
    EXPECT_TRUE(std::equal(first.begin(), first.end(), lines.begin()));
}

TEST(Description, ShowsTheValuesOfTheSelectedColorStyle) {
    sm_tag_custom_info preset = preset_titled("");
    preset.cs_info.color_style = 13;
    preset.cs_info.cs_color[12] = {10, 20, 30};
    preset.cs_info.cs_saturation[13] = 1;
    preset.cs_info.cs_sharpness[13] = 2;
    preset.cs_info.cs_contrast[13] = 3;
    preset.cs_info.cs_hue[13] = 4;
    EXPECT_EQ(line_of(preset, "Colour style"), "C4");
    EXPECT_EQ(line_of(preset, "Style values"), "saturation 1, sharpness 2, contrast 3, hue 4, colour 10 20 30");
}

TEST(Description, ShowsNoColorForStyle0) {
    sm_tag_custom_info preset = preset_titled("");
    preset.cs_info.cs_hue[0] = 7;
    EXPECT_EQ(line_of(preset, "Style values"), "saturation 0, sharpness 0, contrast 0, hue 7");
}

TEST(Description, ReadsNoValuesOfAStyleThatDoesNotExist) {
    sm_tag_custom_info preset = preset_titled("");
    for (const int32_t style : {-1, 14, INT32_MAX, INT32_MIN}) {
        preset.cs_info.color_style = style;
        EXPECT_EQ(line_of(preset, "Style values"), "-") << style;
    }
}

TEST(Description, ShowsTheFineAdjustmentsThatAreSet) {
    sm_tag_custom_info preset = preset_titled("");
    EXPECT_EQ(line_of(preset, "Fine adjustment"), "-");
    preset.daylight_xy = 3;
    preset.k_xy = -2;
    EXPECT_EQ(line_of(preset, "Fine adjustment"), "daylight 3, Kelvin -2");
}

TEST(Description, ShowsWhereAPresetWasMade) {
    sm_tag_custom_info preset = preset_titled("");
    preset.made_id = 0x144;
    EXPECT_EQ(line_of(preset, "Origin"), "0x144, korvel, made on a KT camera");
    preset.made_id = 0x230;
    EXPECT_EQ(line_of(preset, "Origin"), "0x230, not made on a KT camera");
    preset.made_id = -1;
    EXPECT_EQ(line_of(preset, "Origin"), "0xffffffff, not made on a KT camera");
}

TEST(Description, ShowsIdsAndCodesAsNumbers) {
    sm_tag_custom_info preset = preset_titled("");
    preset.custom_id = 1000001;
    preset.metering = 2;
    preset.selection_af_pos_x = 1;
    preset.selection_af_pos_y = 2;
    preset.selection_af_width = 3;
    preset.selection_af_height = 4;
    preset.selection_af_box_size = 5;
    EXPECT_EQ(line_of(preset, "Id on the camera"), "1000001");
    EXPECT_EQ(line_of(preset, "Metering"), "2");
    EXPECT_EQ(line_of(preset, "AF frame"), "3 x 4 at 1, 2, box 5");
}

// ---- Rows of a table ------------------------------------------------------------------------------------------------

TEST(Description, HasARowForAPreset) {
    sm_tag_custom_info preset = preset_in_mode(2);
    preset.custom_id = 1001;
    preset.cs_info.color_style = 10;
    preset.type = 10;
    preset.k_value = 5500;
    preset.linked_custom_mode = 2;
    EXPECT_EQ(table_row(3, preset),
              (Texts{"3", "1001", "Dusk", "CUSTOM2", "Aperture", "f/2.8", "-", "400", "+1/3", "C1", "5500 K"}));
    EXPECT_EQ(table_header().size(), table_row(3, preset).size());
}

} // namespace
} // namespace desk
