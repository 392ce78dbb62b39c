// Preset files in a photographer's words: what is written, what is read, and the faults that a file can have.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "Common/Failure.h"
#include "PresetFiles/PresetFile.h"
#include "Wire/Record.h"

namespace desk {
namespace {

using nlohmann::ordered_json;
using Change = std::function<void(ordered_json&)>;

constexpr auto file = "dusk.json";

// f/4 and ISO 400 of an aperture preset, -1/3 EV, in the phone's codes.
sm_tag_custom_info dusk() {
    sm_tag_custom_info preset = {};
    std::strcpy(preset.title, "Dusk");
    preset.mode = SM_MODE_APERTURE;
    preset.av_index = 40;
    preset.iso = 400;
    preset.iso_1_3 = 400;
    preset.ev_step = 47;
    preset.made_id = 0x40;
    return preset;
}

ordered_json words_of(const sm_tag_custom_info& preset) {
    return ordered_json::parse(text_of_preset(preset, Form::words));
}

// The file of `dusk` with a change made to it, one entry to a line.
std::string changed(const Change& change) {
    ordered_json entries = words_of(dusk());
    change(entries);
    return entries.dump(2);
}

sm_tag_custom_info read(const Change& change, MissingSteps missing = MissingSteps::refused) {
    return preset_from_text(changed(change), file, missing).preset;
}

std::vector<std::string> faults_of(const std::string& text) {
    std::vector<std::string> lines;
    try {
        preset_from_text(text, file);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), exit_usage);
        std::istringstream stream(failure.what());
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line.substr(line.find(": ") + 2)); // behind file and line
        }
    }
    return lines;
}

std::string fault_of(const Change& change) {
    const std::vector<std::string> lines = faults_of(changed(change));
    return lines.size() == 1 ? lines.front() : std::to_string(lines.size()) + " faults";
}

Change set(const char* name, const ordered_json& value) {
    return [=](ordered_json& entries) { entries[name] = value; };
}

Change in_shutter_mode(const ordered_json& time) {
    return [=](ordered_json& entries) {
        entries["mode"] = "Shutter";
        entries.erase("aperture");
        entries["shutter"] = time;
    };
}

// ---- What is written ------------------------------------------------------------------------------------------------

TEST(PresetWords, SayWhatAPhotographerWouldSay) {
    const ordered_json words = words_of(dusk());
    EXPECT_EQ(words["form"], "words");
    EXPECT_EQ(words["title"], "Dusk");
    EXPECT_EQ(words["mode"], "Aperture");
    EXPECT_EQ(words["aperture"], "f/4");
    EXPECT_EQ(words["iso"], 400);
    EXPECT_EQ(words["ev"], "-1/3");
    EXPECT_EQ(words["white_balance"], "auto");
    EXPECT_EQ(words["style"], "style 0");
    EXPECT_EQ(words["origin"], "0x40");
    EXPECT_EQ(words["custom_mode"], "-");
}

TEST(PresetWords, AreSilentOfWhatTheModeLeavesToTheCamera) {
    sm_tag_custom_info preset = dusk();
    EXPECT_FALSE(words_of(preset).contains("shutter"));
    preset.mode = SM_MODE_MANUAL;
    preset.tv_index = 78;
    preset.ev_step = 15; // what a list has there
    EXPECT_EQ(words_of(preset)["shutter"], "1/30 s");
    EXPECT_FALSE(words_of(preset).contains("ev"));
}

TEST(PresetWords, NameTheSecondSensitivityOnlyWhereItIsAnotherOne) {
    sm_tag_custom_info preset = dusk();
    EXPECT_FALSE(words_of(preset).contains("iso_third_steps"));
    preset.iso_1_3 = 500;
    EXPECT_EQ(words_of(preset)["iso_third_steps"], 500);
}

TEST(PresetWords, HaveARowForEachColorStyle) {
    sm_tag_custom_info preset = dusk();
    preset.cs_info.cs_saturation[13] = 2;
    preset.cs_info.cs_sharpness[13] = -1;
    preset.cs_info.cs_contrast[13] = 3;
    preset.cs_info.cs_hue[13] = 4;
    preset.cs_info.cs_color[12] = {10, 20, 30};
    const ordered_json styles = words_of(preset)["styles"];
    EXPECT_EQ(styles.size(), 14U);
    EXPECT_EQ(styles["C4"], ordered_json::parse(R"({"saturation": 2, "sharpness": -1, "contrast": 3, "hue": 4,
                                                   "color": [10, 20, 30]})"));
    EXPECT_FALSE(styles["style 0"].contains("color"));
}

TEST(PresetWords, GiveTheCodeOfWhatHasNoWord) {
    sm_tag_custom_info preset = dusk();
    preset.av_index = 9999;
    preset.cs_info.color_style = 14;
    preset.type = -1;
    preset.iso = 50; // no step of the camera
    const ordered_json words = words_of(preset);
    EXPECT_EQ(words["aperture"], ordered_json({{"code", 9999}}));
    EXPECT_EQ(words["style"], ordered_json({{"code", 14}}));
    EXPECT_EQ(words["white_balance"], ordered_json({{"code", -1}}));
    EXPECT_EQ(words["iso"], ordered_json({{"code", 50}}));
}

TEST(PresetWords, StandInAFileAsPeopleLikeToReadIt) {
    sm_tag_custom_info preset = dusk();
    preset.cs_info.cs_color[0] = {100, 110, 120};
    const std::string text = text_of_preset(preset, Form::words, "preset.schema.json");
    EXPECT_EQ(text.find("{\n"
                        "  \"$schema\": \"preset.schema.json\",\n"
                        "  \"form\": \"words\",\n"
                        "  \"title\": \"Dusk\",\n"
                        "  \"mode\": \"Aperture\",\n"
                        "  \"aperture\": \"f/4\",\n"
                        "  \"iso\": 400,\n"
                        "  \"ev\": \"-1/3\",\n"),
              0U);
    EXPECT_NE(text.find("\n    \"style 1\": {\"saturation\": 0, \"sharpness\": 0, \"contrast\": 0, \"hue\": 0, "
                        "\"color\": [100, 110, 120]},\n"),
              std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 2), "}\n");
}

TEST(PresetWords, BeginANewPresetWithoutWhatTheCameraGives) {
    const ordered_json words = ordered_json::parse(text_of_new_preset(Form::words));
    EXPECT_EQ(words["mode"], "Aperture");
    for (const char* given : {"number", "id", "custom_mode", "picture_path", "multi_af", "reserved"}) {
        EXPECT_FALSE(words.contains(given)) << given;
    }
    EXPECT_EQ(faults_of(text_of_new_preset(Form::words)).size(), 0U);
    EXPECT_EQ(faults_of(text_of_new_preset(Form::raw)).size(), 0U);
}

// ---- There and back -------------------------------------------------------------------------------------------------

Bytes there_and_back(const sm_tag_custom_info& preset, Form form) {
    const PresetFile back = preset_from_text(text_of_preset(preset, form), file);
    EXPECT_EQ(back.form, form);
    return encode(back.preset);
}

TEST(PresetFile, GivesBackEveryWordOfARecordWhateverItsValueInBothForms) {
    for (const Form form : {Form::words, Form::raw}) {
        for (const Field& field : fields()) {
            for (size_t k = 0; k < field.words(); ++k) {
                for (const int32_t value : {INT32_MIN, 3, 400}) {
                    Bytes bytes = encode(dusk());
                    put_word(bytes, field.offset + 4 * k, value);
                    ASSERT_EQ(there_and_back(decode_phone_record(bytes), form), bytes)
                        << field.name << ' ' << k << ' ' << value;
                }
            }
        }
    }
}

TEST(PresetFile, GivesBackRecordsOfAnyBytesInBothForms) {
    std::mt19937 random(12);
    for (int round = 0; round < 60; ++round) {
        Bytes bytes(sizeof(sm_tag_custom_info));
        std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random() % (round % 2 == 0 ? 256 : 3)); });
        for (const Form form : {Form::words, Form::raw}) {
            ASSERT_EQ(there_and_back(decode_phone_record(bytes), form), bytes) << round;
        }
    }
}

TEST(PresetFile, IsRawUnlessItSaysSo) {
    ordered_json raw = ordered_json::parse(text_of_preset(dusk(), Form::raw));
    EXPECT_EQ(raw["form"], "raw");
    raw.erase("form");
    EXPECT_EQ(preset_from_text(raw.dump(), file).form, Form::raw);
}

TEST(PresetFile, OfAnUnknownFormIsRefused) {
    EXPECT_EQ(fault_of(set("form", "poem")), "\"form\" must be \"words\" or \"raw\"");
    EXPECT_EQ(fault_of(set("form", 1)), "\"form\" must be \"words\" or \"raw\"");
}

// ---- Exposure values that are read ----------------------------------------------------------------------------------

TEST(PresetWords, AreReadAsPhotographersWriteApertures) {
    for (const char* text : {"f/2.8", "F/2.8", "f2.8", "2.8", " f/2.80 "}) {
        EXPECT_EQ(read(set("aperture", text)).av_index, 28) << text;
    }
    EXPECT_EQ(read(set("aperture", 11)).av_index, 110);
    EXPECT_EQ(read(set("aperture", 2.8)).av_index, 28);
}

TEST(PresetWords, AreReadAsPhotographersWriteShutterTimes) {
    for (const char* text : {"1/30 s", "1/30", "1/30s"}) {
        EXPECT_EQ(read(in_shutter_mode(text)).tv_index, 78) << text;
    }
    EXPECT_EQ(read(in_shutter_mode("2.5 s")).tv_index, 43);
}

TEST(PresetWords, AreReadAsPhotographersWriteSensitivities) {
    EXPECT_EQ(read(set("iso", 500)).iso, 500);
    EXPECT_EQ(read(set("iso", "ISO 500")).iso, 500);
    EXPECT_EQ(read(set("iso", "auto")).iso, 0);
    EXPECT_EQ(read(set("iso", 500)).iso_1_3, 500) << "in both settings, unless the file says else";
}

TEST(PresetWords, AreReadAsPhotographersWriteCompensations) {
    const std::pair<const char*, int32_t> written[] = {{"0", 50},    {"+1/3", 53}, {"-2/3", 44},   {"+1 2/3", 66},
                                                       {"-0.7", 44}, {"+0.3", 53}, {"-5", 0},      {"+5", 100},
                                                       {"1", 60},    {"+4.7", 96}, {"-1/3 EV", 47}};
    for (const auto& [text, code] : written) {
        EXPECT_EQ(read(set("ev", text)).ev_step, code) << text;
    }
    EXPECT_EQ(read(set("ev", -1)).ev_step, 40);
}

TEST(PresetWords, MindNoUpperCaseInNames) {
    EXPECT_EQ(read(set("white_balance", "Daylight")).type, 2);
    EXPECT_EQ(read(set("white_balance", "kelvin")).type, 10);
    EXPECT_EQ(read(set("style", "c2")).cs_info.color_style, 11);
    EXPECT_EQ(read(set("mode", "aperture")).mode, 2);
}

TEST(PresetWords, TakeCodesForWhatHasNoWord) {
    EXPECT_EQ(read(set("aperture", {{"code", 9999}})).av_index, 9999);
    const sm_tag_custom_info preset = read([](ordered_json& entries) {
        entries["mode"] = {{"code", 7}};
        entries.erase("aperture");
    });
    EXPECT_EQ(preset.mode, 7);
}

TEST(PresetWords, ReadInManualModeWhatAListHasThere) {
    const sm_tag_custom_info preset = read([](ordered_json& entries) {
        entries["mode"] = "Manual";
        entries["shutter"] = "1/60";
        entries.erase("ev");
    });
    EXPECT_EQ(preset.ev_step, 15);
    EXPECT_EQ(preset.av_index, 40);
    EXPECT_EQ(preset.tv_index, 81);
}

// ---- Steps that the camera does not have ----------------------------------------------------------------------------

TEST(PresetWords, RefuseWhatTheCameraHasNoStepForAndNameTheNearest) {
    EXPECT_EQ(
        fault_of(set("aperture", "f/4.2")),
        "\"aperture\": the camera has no step for f/4.2; the nearest are f/4 and f/4.5: write one of them, or have "
        "f/4 taken by --nearest");
    EXPECT_EQ(fault_of(set("iso", 350)), "\"iso\": the camera has no step for 350; the nearest are 320 and 400: write "
                                         "one of them, or have 320 taken by --nearest");
    EXPECT_EQ(fault_of(set("ev", "+1/2")), "\"ev\": the camera has no step for +1/2; the nearest are +1/3 and +2/3: "
                                           "write one of them, or have +1/3 taken by --nearest");
    EXPECT_EQ(fault_of(set("ev", "6")),
              "\"ev\": the camera has no step for 6; its highest is +5: write that, or have it taken by --nearest");
    EXPECT_EQ(fault_of(set("iso", 50)),
              "\"iso\": the camera has no step for 50; its lowest is 100: write that, or have it taken by --nearest");
}

TEST(PresetWords, RefuseAnApertureThatTheCameraReadsAsNone) {
    EXPECT_EQ(fault_of(set("aperture", "f/1")), "\"aperture\": the camera has no step for f/1; its lowest is f/1.1: "
                                                "write that, or have it taken by --nearest");
}

TEST(PresetWords, TakeTheNearestStepWhenAskedAndSaySo) {
    const PresetFile taken = preset_from_text(changed(set("aperture", "f/4.2")), file, MissingSteps::nearest);
    EXPECT_EQ(taken.preset.av_index, 40);
    EXPECT_EQ(taken.taken, (std::vector<std::string>{"\"aperture\": the camera has no step for f/4.2: f/4 is taken"}));
    EXPECT_EQ(read(set("aperture", "f/4.4"), MissingSteps::nearest).av_index, 45);
    EXPECT_EQ(read(set("aperture", "f/64"), MissingSteps::nearest).av_index, 450);
    EXPECT_EQ(read(set("iso", 1000000), MissingSteps::nearest).iso, 51200);
    EXPECT_EQ(preset_from_text(changed([](ordered_json&) {}), file, MissingSteps::nearest).taken.size(), 0U);
}

// ---- Faults ---------------------------------------------------------------------------------------------------------

TEST(PresetWords, RefuseNamesThatNothingHas) {
    EXPECT_EQ(
        fault_of(set("style", "C5")),
        "\"style\" is \"C5\"; write one of style 0, style 1, style 2, style 3, style 4, style 5, style 6, style 7, "
        "style 8, style 9, C1, C2, C3, C4");
    EXPECT_EQ(
        fault_of(set("white_balance", 3)),
        "\"white_balance\" is 3; write one of auto, auto tungsten, daylight, cloudy, fluorescent white, fluorescent "
        "neutral, fluorescent daylight, tungsten, flash, custom, Kelvin");
    EXPECT_EQ(fault_of(set("mode", "Bulb")),
              "\"mode\" is \"Bulb\"; write one of Auto, Program, Aperture, Shutter, Manual");
}

TEST(PresetWords, RefuseWhatIsNoExposureValue) {
    for (const ordered_json& value : std::vector<ordered_json>{"wide open",
                                                               "f/0",
                                                               "f/-4",
                                                               "",
                                                               "f/1e3",
                                                               "nan",
                                                               "inf",
                                                               true,
                                                               nullptr,
                                                               ordered_json::array({4}),
                                                               {{"code", "4"}},
                                                               {{"code", 4}, {"more", 1}}}) {
        const std::string fault = fault_of(set("aperture", value));
        EXPECT_EQ(fault.find("\"aperture\" is "), 0U) << value << ": " << fault;
        EXPECT_NE(fault.find("; write one like \"f/"), std::string::npos) << fault;
    }
}

TEST(PresetWords, RefuseWhatTheModeLeavesToTheCamera) {
    EXPECT_EQ(fault_of(set("shutter", "1/30 s")),
              "\"shutter\" is not set in the mode Aperture; remove it, or change \"mode\"");
}

TEST(PresetWords, AskForWhatTheModeCarries) {
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries.erase("aperture"); }), "\"aperture\" is missing; add it");
    EXPECT_EQ(fault_of([](ordered_json& entries) {
                  entries["mode"] = "Manual";
                  entries.erase("ev");
              }),
              "\"shutter\" is missing; add it");
}

TEST(PresetWords, AskForEntriesGroupsAndRowsThatAreMissing) {
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries.erase("iso"); }), "\"iso\" is missing; add it");
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries.erase("self_timer"); }),
              "\"self_timer\" is missing; add it");
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries["self_timer"].erase("shots"); }),
              "\"shots\" is missing; add it");
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries["styles"].erase("C1"); }),
              "\"styles\" has no \"C1\"; add it");
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries["styles"]["C1"].erase("hue"); }),
              "\"hue\" of \"C1\" is missing; add it");
}

TEST(PresetWords, MayBeSilentOfWhatTheCameraGivesAndOfAdjustments) {
    const sm_tag_custom_info preset = read([](ordered_json& entries) {
        for (const char* name : {"number", "id", "phone_id", "server_id", "custom_mode", "picture_path", "multi_af",
                                 "reserved", "white_balance_adjustments"}) {
            entries.erase(name);
        }
    });
    EXPECT_EQ(encode(preset), encode(dusk()));
}

TEST(PresetWords, RefuseEntriesThatNothingHas) {
    EXPECT_EQ(fault_of(set("av_index", 40)), "\"av_index\" is no entry of a preset in words; remove it");
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries["self_timer"]["x"] = 1; }),
              "\"x\" is no entry of \"self_timer\"; remove it");
    EXPECT_EQ(fault_of([](ordered_json& entries) { entries["styles"]["C5"] = 1; }),
              "\"C5\" is no colour style; write one of style 0, style 1, style 2, style 3, style 4, style 5, style 6, "
              "style 7, style 8, style 9, C1, C2, C3, C4");
    EXPECT_EQ(fault_of([](ordered_json& entries) {
                  entries["styles"]["style 0"]["color"] = {1, 2, 3};
              }),
              "\"color\" of \"style 0\" is no value of it; remove it");
}

TEST(PresetWords, RefuseOriginsThatAreNoHexadecimalNumbers) {
    for (const char* origin : {"40", "0x", "0x123456789", "0xg", "0x40 ", "-0x40"}) {
        EXPECT_EQ(fault_of(set("origin", origin)).find("\"origin\" is \""), 0U) << origin;
    }
    EXPECT_EQ(read(set("origin", "0xFFFFFFFF")).made_id, -1);
}

TEST(PresetWords, CollectAllFaultsEachWithItsLine) {
    const std::string text = "{\n \"form\": \"words\",\n \"title\": 5,\n \"mode\": \"Bulb\"\n}";
    try {
        preset_from_text(text, file);
        FAIL();
    } catch (const Failure& failure) {
        const std::string lines = failure.what();
        EXPECT_NE(lines.find("dusk.json:3: \"title\" must be a text, not 5\n"), std::string::npos) << lines;
        EXPECT_NE(lines.find("dusk.json:4: \"mode\" is \"Bulb\""), std::string::npos) << lines;
        EXPECT_NE(lines.find("dusk.json:1: \"iso\" is missing; add it\n"), std::string::npos) << lines;
    }
}

TEST(PresetWords, OfAnyMutationAreReadOrRefusedInLines) {
    std::mt19937 random(3);
    const std::string good = text_of_preset(dusk(), Form::words);
    for (int round = 0; round < 400; ++round) {
        std::string text = good;
        for (auto changes = random() % 3 + 1; changes-- > 0;) {
            text[random() % text.size()] = "{}[]\":,0 9fx-e\n"[random() % 15];
        }
        for (const std::string& line : faults_of(text)) {
            EXPECT_FALSE(line.empty());
        }
    }
}

} // namespace
} // namespace desk
