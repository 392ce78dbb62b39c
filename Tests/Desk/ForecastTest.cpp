// What is sent so that a preset comes back as it was, what a camera makes of it, and the words for that. Values are
// worked out by hand: colours v of the camera are listed as v * 256 / 199, and colours p of the phone stored as
// p * 200 / 256.
#include "Forecast/Forecast.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "Forecast/Steps.h"
#include "Wire/Record.h"

namespace desk {
namespace {

constexpr int32_t kt_made = 0x40;
constexpr CameraState full_steps = {IsoSteps::full, SM_MODE_PROGRAM};
constexpr CameraState third_steps = {IsoSteps::third, SM_MODE_PROGRAM};
constexpr CameraState after_shutter_mode = {IsoSteps::full, SM_MODE_SHUTTER};

// A preset as a list has it, to which nothing happens.
sm_tag_custom_info plain_preset() {
    sm_tag_custom_info preset = {};
    std::strcpy(preset.title, "Plain");
    preset.mode = SM_MODE_PROGRAM;
    preset.ev_step = 50;
    preset.made_id = kt_made;
    return preset;
}

sm_tag_custom_info preset_in(int32_t mode) {
    sm_tag_custom_info preset = plain_preset();
    preset.mode = mode;
    return preset;
}

// The lines about a preset as a list has it, sent as it has to be.
std::vector<std::string> lines_about(const sm_tag_custom_info& preset, const CameraState& state = full_steps) {
    std::vector<std::string> lines;
    for (const Change& change : changes(preset, sendable(preset), state)) {
        lines.push_back(line_of(change));
    }
    return lines;
}

using Lines = std::vector<std::string>;

// ---- What is sent ---------------------------------------------------------------------------------------------------

TEST(Sendable, ThirdStepOfTheSensitivityIsAPosition) {
    sm_tag_custom_info preset = plain_preset();
    preset.iso_1_3 = 400;
    EXPECT_EQ(sendable(preset).iso_1_3, 9);
    preset.iso_1_3 = 0;
    EXPECT_EQ(sendable(preset).iso_1_3, 0);
}

TEST(Sendable, SensitivityIsTheNearestFullStep) {
    sm_tag_custom_info preset = plain_preset();
    preset.iso = 500;
    EXPECT_EQ(sendable(preset).iso, 400);
    preset.iso = 640;
    EXPECT_EQ(sendable(preset).iso, 800);
}

TEST(Sendable, CompensationInManualModeIsNone) {
    sm_tag_custom_info preset = preset_in(SM_MODE_MANUAL);
    preset.ev_step = 15;
    EXPECT_EQ(sendable(preset).ev_step, 50);
    preset.mode = SM_MODE_PROGRAM; // where 15 is not what lists say for none
    EXPECT_EQ(sendable(preset).ev_step, 15);
}

TEST(Sendable, ColorIsTheSmallestThatIsStoredAsTheListedOne) {
    sm_tag_custom_info preset = plain_preset();
    sm_color& color = preset.cs_info.cs_color[12];
    color = {255, 128, 1}; // listed of 199, of 100 (128.6) and of 1 (1.3)
    const sm_color sent = sendable(preset).cs_info.cs_color[12];
    EXPECT_EQ(sent.cs_color_r, 255); // 199.2 is stored as 199, and 254 * 200 / 256 = 198.4 as 198
    EXPECT_EQ(sent.cs_color_g, 128); // exactly 100
    EXPECT_EQ(sent.cs_color_b, 2);   // 1.6, and 1 would be 0.8
}

TEST(Sendable, ColorThatNoCameraListsIsTheNearestThatOneDoes) {
    sm_tag_custom_info preset = plain_preset();
    preset.cs_info.cs_color[0] = {-7, 300, 4}; // 3 is listed as 3, 4 as 5: 4 is between them
    const sm_color listed = forecast(sendable(preset), full_steps).cs_info.cs_color[0];
    EXPECT_EQ(listed.cs_color_r, 0);
    EXPECT_EQ(listed.cs_color_g, 255);
    EXPECT_EQ(listed.cs_color_b, 3);
}

TEST(Sendable, ApertureThatTheCameraLacksIsTheNearestOne) {
    sm_tag_custom_info preset = preset_in(SM_MODE_APERTURE);
    preset.av_index = 10; // the camera's code for f/1.0 means none
    EXPECT_EQ(sendable(preset).av_index, 11);
    preset.av_index = 27;
    EXPECT_EQ(sendable(preset).av_index, 28);
    preset.av_index = 900;
    EXPECT_EQ(sendable(preset).av_index, 450);
    preset.av_index = 0;
    EXPECT_EQ(sendable(preset).av_index, 0);
}

TEST(Sendable, HasNothingThatTheCameraGivesItself) {
    sm_tag_custom_info preset = plain_preset();
    preset.preset_num = 3;
    preset.custom_id = 4;
    preset.linked_custom_mode = 2;
    std::strcpy(preset.screennail_path, "/somewhere");
    preset.applocal_id = 5;
    preset.server_id = 6;
    sm_tag_custom_info expected = plain_preset();
    expected.applocal_id = 5;
    expected.server_id = 6;
    EXPECT_EQ(encode(sendable(preset)), encode(expected));
}

// ---- The camera's state ---------------------------------------------------------------------------------------------

TEST(CameraStateOfAList, IsFullStepsWhereTheTwoSensitivitiesDiffer) {
    sm_tag_custom_info preset = plain_preset();
    EXPECT_EQ(state_of({preset}).iso_steps, IsoSteps::unknown);
    preset.iso_1_3 = 400;
    EXPECT_EQ(state_of({plain_preset(), preset}).iso_steps, IsoSteps::full);
    preset.iso = 400;
    EXPECT_EQ(state_of({preset}).iso_steps, IsoSteps::unknown);
}

TEST(CameraStateOfAList, IsThirdStepsWhereASensitivityIsNoFullStep) {
    sm_tag_custom_info preset = plain_preset();
    preset.iso = preset.iso_1_3 = 500;
    EXPECT_EQ(state_of({preset}).iso_steps, IsoSteps::third);
    preset.iso = preset.iso_1_3 = 50; // no step of either
    EXPECT_EQ(state_of({preset}).iso_steps, IsoSteps::unknown);
}

TEST(CameraStateOfAList, HasTheModeOfItsLastPreset) {
    EXPECT_EQ(state_of({preset_in(SM_MODE_SHUTTER), preset_in(SM_MODE_MANUAL)}).last_listed_mode, SM_MODE_MANUAL);
    EXPECT_EQ(state_of({}).last_listed_mode, std::nullopt);
}

// ---- What becomes of it ---------------------------------------------------------------------------------------------

TEST(Forecast, OfAPlainPresetIsThePreset) {
    EXPECT_EQ(lines_about(plain_preset()), Lines{});
}

TEST(Forecast, TellsOfFullIsoSteps) {
    sm_tag_custom_info preset = plain_preset();
    preset.iso = preset.iso_1_3 = 500;
    EXPECT_EQ(lines_about(preset, full_steps), Lines{"iso 500 -> 400: the camera is set to full ISO steps"});
    EXPECT_EQ(lines_about(preset, third_steps), Lines{});
    EXPECT_EQ(lines_about(preset, {IsoSteps::unknown, SM_MODE_AUTO}),
              Lines{"iso 500 -> 400 if the camera is set to full ISO steps"});
}

TEST(Forecast, TellsOfThirdIsoSteps) {
    sm_tag_custom_info preset = plain_preset();
    preset.iso = 400;
    preset.iso_1_3 = 125;
    EXPECT_EQ(lines_about(preset, full_steps), Lines{});
    EXPECT_EQ(lines_about(preset, third_steps), Lines{"iso 400 -> 125: the camera is set to third ISO steps"});
    EXPECT_EQ(lines_about(preset, {IsoSteps::unknown, SM_MODE_AUTO}),
              Lines{"iso 400 -> 125 if the camera is set to third ISO steps"});
}

TEST(Forecast, TellsOfAnApertureThatIsLostForTheLastListedPreset) {
    sm_tag_custom_info preset = preset_in(SM_MODE_APERTURE);
    preset.av_index = 28;
    EXPECT_EQ(lines_about(preset), Lines{});
    EXPECT_EQ(lines_about(preset, after_shutter_mode),
              Lines{"aperture f/2.8 -> -: the camera stores no aperture while the last preset of its list is in "
                    "shutter mode"});
    EXPECT_EQ(lines_about(preset, {IsoSteps::full, std::nullopt}),
              Lines{"aperture f/2.8 -> - if the last preset that the camera listed is in shutter mode"});
    EXPECT_TRUE(loses_aperture(sendable(preset), after_shutter_mode));
    EXPECT_TRUE(loses_aperture(sendable(preset), {IsoSteps::full, std::nullopt}));
    EXPECT_FALSE(loses_aperture(sendable(preset), full_steps));
}

TEST(Forecast, TellsNothingOfAnApertureThatTheModeDoesNotCarry) {
    EXPECT_FALSE(loses_aperture(preset_in(SM_MODE_SHUTTER), after_shutter_mode));
    sm_tag_custom_info preset = preset_in(SM_MODE_AUTO);
    preset.av_index = 28;
    EXPECT_FALSE(loses_aperture(preset, after_shutter_mode));
    EXPECT_EQ(lines_about(preset), Lines{"aperture f/2.8 -> -: a preset in this mode carries no aperture"});
}

TEST(Forecast, TellsOfStepsThatTheCameraLacks) {
    sm_tag_custom_info preset = preset_in(SM_MODE_APERTURE);
    preset.av_index = 10;
    preset.ev_step = 51;
    EXPECT_EQ(lines_about(preset), (Lines{"aperture f/1 -> f/1.1: the camera has no such step",
                                          "ev 51 -> 50: the camera has no such step"}));
}

TEST(Forecast, TellsWhatBecomesOfOtherOrigins) {
    sm_tag_custom_info preset = plain_preset();
    preset.made_id = 0x30;
    preset.cs_info.color_style = 3;
    preset.k_value = 5500;
    preset.type = 2;
    EXPECT_EQ(
        lines_about(preset),
        (Lines{"white_balance daylight -> Kelvin: presets that were not made on a KT camera are set to their colour "
               "temperature",
               "style style 3 -> C4: presets that were not made on a KT camera get style C4",
               "off_color 0 -> -1: presets that were not made on a KT camera get style C4"}));
}

TEST(Forecast, TellsWhatBecomesOfKorvelsPresets) {
    sm_tag_custom_info preset = plain_preset();
    preset.made_id = 0x145;
    EXPECT_EQ(lines_about(preset),
              (Lines{"style style 0 -> C4: presets of the maker korvel without a smart filter get style C4",
                     "off_color 0 -> -1: presets of the maker korvel without a smart filter get style C4"}));
    preset.smart_filter = 1;
    EXPECT_EQ(lines_about(preset), Lines{"origin 0x145 -> 0x140: presets of the maker korvel with a smart filter lose "
                                         "the last digit of their origin"});
}

TEST(Forecast, TellsOfColorsThatAreNotOnTheCamerasScale) {
    sm_tag_custom_info preset = plain_preset();
    preset.cs_info.cs_color[2].cs_color_g = 4; // 3 is listed as 3, 4 as 5
    EXPECT_EQ(lines_about(preset),
              Lines{"styles color style 3 green 4 -> 3: the camera's scale of colours has 199 steps"});
    preset.cs_info.cs_color[5] = {4, 4, 4};
    EXPECT_EQ(lines_about(preset),
              Lines{"styles color style 3 green 4 -> 3, and 3 more: the camera's scale of colours has 199 steps"});
}

TEST(Forecast, TellsThatALinkIsNotCarried) {
    sm_tag_custom_info preset = plain_preset();
    preset.linked_custom_mode = 1;
    EXPECT_EQ(lines_about(preset), Lines{"custom_mode CUSTOM1 -> -: the camera gives its own"});
}

TEST(Forecast, OfCodesAsTheyAreSentTellsWhatTheyMean) {
    sm_tag_custom_info sent = preset_in(SM_MODE_MANUAL);
    sent.av_index = 28;
    sent.tv_index = 58;
    sent.iso = 400;
    sent.iso_1_3 = 9;
    EXPECT_TRUE(changes(meant_by(sent), sent, full_steps).empty());
    sent.iso_1_3 = 400; // as a list has it
    const std::vector<Change> found = changes(meant_by(sent), sent, full_steps);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(line_of(found[0]),
              "iso_third_steps 400 -> auto: sent as it stands it is read as a position 0 to 30, not as a number");
}

// ---- Whatever stands in a record ------------------------------------------------------------------------------------

// A record that a camera's list can show, but for what is the camera's own.
sm_tag_custom_info listable(std::mt19937& random, IsoSteps steps) {
    const auto any = [&random](int32_t least, int32_t most) {
        return std::uniform_int_distribution<int32_t>(least, most)(random);
    };
    Bytes bytes(sizeof(tag_custom_info));
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(any(0, 255)); });
    tag_custom_info camera = decode_camera_record(bytes);
    camera.mode = any(-1, 6);
    camera.av_index = any(0, 180);
    camera.tv_index = any(0, 1) == 0 ? any(65440, 65535) : any(0, 215);
    camera.iso = any(0, 11);
    camera.iso_1_3 = any(0, 29);
    camera.ev_step = any(-1, 31);
    for (sm_color& color : camera.cs_info.cs_color) {
        color = {any(-1, 201), any(0, 200), any(0, 200)};
    }
    return listed_record(camera, steps);
}

// The entries in which a record may come out of a camera otherwise than it was listed.
bool may_change(const std::string& entry, const sm_tag_custom_info& listed) {
    const bool is_kt = (listed.made_id & SM_MADE_FAMILY) == SM_MADE_FAMILY_KT;
    const bool is_korvel = (listed.made_id & SM_MADE_MAKER) == SM_MADE_MAKER_KORVEL;
    if (entry == "style" || entry == "off_color") {
        return !is_kt || (is_korvel && listed.smart_filter == 0);
    }
    if (entry == "white_balance") {
        return !is_kt && listed.k_value != 0;
    }
    if (entry == "origin") {
        return is_kt && is_korvel && listed.smart_filter != 0;
    }
    return entry == "shutter" && listed.tv_index == 0; // of a code that is no step: 60 s is the nearest
}

TEST(Forecast, OfWhatACameraCanListIsTheSameButForTheNamedEntries) {
    std::mt19937 random(1);
    for (int round = 0; round < 1000; ++round) {
        const IsoSteps steps = round % 2 == 0 ? IsoSteps::full : IsoSteps::third;
        const sm_tag_custom_info listed = listable(random, steps);
        const sm_tag_custom_info again = forecast(sendable(listed), {steps, SM_MODE_AUTO});
        for (const Difference& difference : differences(listed, again)) {
            EXPECT_TRUE(may_change(difference.entry, listed))
                << difference.entry << ": " << difference.expected << ", " << difference.found;
        }
    }
}

TEST(Forecast, OfAnyBytesIsMadeAndTold) {
    std::mt19937 random(2);
    for (int round = 0; round < 300; ++round) {
        Bytes bytes(sizeof(sm_tag_custom_info));
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
        const sm_tag_custom_info any = decode_phone_record(bytes);
        EXPECT_FALSE(changes(any, sendable(any), {}).empty());
        EXPECT_FALSE(changes(meant_by(any), any, {}).empty());
        state_of({any});
    }
}

// ---- Differences ----------------------------------------------------------------------------------------------------

TEST(Differences, AreNamedInTheOrderOfTheRecord) {
    sm_tag_custom_info expected = plain_preset();
    sm_tag_custom_info found = expected;
    std::strcpy(found.title, "Other");
    found.cs_info.cs_hue[13] = 7;
    found.quality = -1;
    found.preset_num = 12; // every camera's own
    const std::vector<Difference> all = differences(expected, found);
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].entry + all[0].expected + all[0].found, "title\"Plain\"\"Other\"");
    EXPECT_EQ(all[1].entry + all[1].expected + all[1].found, "styles hueC4 07");
    EXPECT_EQ(all[2].entry + all[2].expected + all[2].found, "quality0-1");
}

TEST(Differences, BehindTheEndOfATextAreDifferencesToo) {
    sm_tag_custom_info expected = plain_preset();
    sm_tag_custom_info found = expected;
    found.title[51] = 'x';
    const std::vector<Difference> all = differences(expected, found);
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].found, "the same, with other bytes behind its end");
}

} // namespace
} // namespace desk
