// Presets as JSON: what is written, what is read, and the faults that a file can have.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>
#include <sstream>

#include "PresetFiles/PresetJson.h"

namespace desk {
namespace {

using nlohmann::ordered_json;

constexpr auto file = "preset.json";
constexpr int32_t extremes[] = {INT32_MIN, -1, 0, 1, INT32_MAX};

Bytes rising(size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
}

Bytes there_and_back(const sm_tag_custom_info& preset) {
    return encode(phone_record_from_json(to_json(preset).dump(), file));
}

Bytes there_and_back(const tag_custom_info& preset) {
    return encode(camera_record_from_json(to_json(preset).dump(), file));
}

// The text of an empty preset, with one entry to a line and `change` made to it.
std::string changed(const std::function<void(ordered_json&)>& change) {
    ordered_json preset = to_json(sm_tag_custom_info{});
    change(preset);
    return preset.dump(2);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

template<class Read>
std::vector<std::string> faults_of(const std::string& text, Read read) {
    try {
        read(text, file);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), exit_usage);
        return lines_of(failure.what());
    }
    return {};
}

std::vector<std::string> faults_of(const std::string& text) {
    return faults_of(text, phone_record_from_json);
}

using Lines = std::vector<std::string>;

// ---- There and back -------------------------------------------------------------------------------------------------

TEST(PresetJson, GivesBackEveryWordOfAPhoneRecordWhateverItsValue) {
    for (const Field& field : fields()) {
        for (size_t k = 0; k < field.words(); ++k) {
            for (const int32_t value : extremes) {
                Bytes bytes = rising(sizeof(sm_tag_custom_info));
                put_word(bytes, field.offset + 4 * k, value);
                ASSERT_EQ(there_and_back(decode_phone_record(bytes)), bytes) << field.name << ' ' << k;
            }
        }
    }
}

TEST(PresetJson, GivesBackEveryWordOfACameraRecordWhateverItsValue) {
    for (const Field& field : fields()) {
        for (size_t k = 0; k < field.words() && !field.phone_only; ++k) {
            for (const int32_t value : extremes) {
                Bytes bytes = rising(sizeof(tag_custom_info));
                put_word(bytes, field.offset + 4 * k, value);
                ASSERT_EQ(there_and_back(decode_camera_record(bytes)), bytes) << field.name << ' ' << k;
            }
        }
    }
}

TEST(PresetJson, GivesBackTextsOfAnyBytes) {
    for (const size_t offset : {offsetof(sm_tag_custom_info, title), offsetof(sm_tag_custom_info, screennail_path)}) {
        for (const size_t position : {0u, 1u, 25u, 50u, 51u}) {
            for (int byte = 0; byte < 256; ++byte) {
                Bytes bytes(sizeof(sm_tag_custom_info));
                std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), position, uint8_t{'t'});
                bytes[offset + position] = static_cast<uint8_t>(byte);
                ASSERT_EQ(there_and_back(decode_phone_record(bytes)), bytes) << position << ' ' << byte;
            }
        }
    }
}

struct Title {
    const char* what;
    std::string bytes;
    bool is_string;
};

TEST(PresetJson, WritesATitleAsAStringWhenItIsCleanUtf8WithNothingBehindItsEnd) {
    const Title titles[] = {
        {"empty", "", true},
        {"ASCII", "Dusk", true},
        {"all 52 bytes", std::string(52, 'x'), true},
        {"quotes and a line break", "\"a\"\n\\b", true},
        {"two, three and four bytes", "\u00e9\u4e2d\U0001F4F7", true},
        {"bytes behind the end", std::string("a\0b", 3), false},
        {"a lone continuation byte", "\x80", false},
        {"an overlong form", "\xC0\xAF", false},
        {"a surrogate", "\xED\xA0\x80", false},
        {"beyond the last character", "\xF4\x90\x80\x80", false},
        {"cut at the end of the field", std::string(51, 'x') + "\xC3", false},
    };
    for (const Title& title : titles) {
        SCOPED_TRACE(title.what);
        sm_tag_custom_info preset{};
        std::memcpy(preset.title, title.bytes.data(), title.bytes.size());
        const ordered_json json = to_json(preset);
        ASSERT_EQ(json["title"].is_string(), title.is_string);
        if (title.is_string) {
            EXPECT_EQ(json["title"], title.bytes);
        }
        EXPECT_EQ(there_and_back(preset), encode(preset));
    }
}

TEST(PresetJson, WritesATextThatIsNoStringAsAllItsBytes) {
    sm_tag_custom_info preset{};
    preset.title[0] = '\x80';
    preset.title[51] = 'z';
    EXPECT_EQ(to_json(preset)["title"].dump(), "{\"bytes\":\"80" + std::string(100, '0') + "7a\"}");
}

// ---- The form -------------------------------------------------------------------------------------------------------

TEST(PresetJson, WritesTheEntriesInTheRecordsOrder) {
    const ordered_json json = to_json(sm_tag_custom_info{});
    std::vector<std::string> names;
    for (const auto& [name, value] : json.items()) {
        names.push_back(name);
    }
    ASSERT_EQ(names.size(), 61u); // 2 texts, 56 single words, reserved_636, cs_info, linked_custom_mode
    EXPECT_EQ(names[0], "title");
    EXPECT_EQ(names[1], "mode");
    EXPECT_EQ(names[25], "k_xy");
    EXPECT_EQ(names[26], "cs_info");
    EXPECT_EQ(names[27], "smart_filter");
    EXPECT_EQ(names[60], "linked_custom_mode");
}

TEST(PresetJson, NestsTheColorStylesWithColorsAsTriples) {
    sm_tag_custom_info preset{};
    preset.cs_info.color_style = 13;
    preset.cs_info.cs_color[12] = {1, 2, -3};
    preset.cs_info.cs_hue[13] = 9;
    const ordered_json styles = to_json(preset)["cs_info"];
    EXPECT_EQ(styles["color_style"], 13);
    ASSERT_EQ(styles["cs_color"].size(), 13u);
    EXPECT_EQ(styles["cs_color"][12], ordered_json::array({1, 2, -3}));
    ASSERT_EQ(styles["cs_hue"].size(), 14u);
    EXPECT_EQ(styles["cs_hue"][13], 9);
}

TEST(PresetJson, GivesLinkedCustomModeToThePhonesRecordAlone) {
    EXPECT_TRUE(to_json(sm_tag_custom_info{}).contains("linked_custom_mode"));
    EXPECT_FALSE(to_json(tag_custom_info{}).contains("linked_custom_mode"));
}

TEST(PresetJson, TakesWhatAFileLeavesOutAs0) {
    sm_tag_custom_info preset{};
    std::memset(&preset, 0x11, sizeof preset);
    const char* const optional[] = {"linked_custom_mode", "screennail_path", "reserved_636", "preset_num",
                                    "custom_id",          "applocal_id",     "server_id"};
    ordered_json json = to_json(preset);
    for (const char* const name : optional) {
        ASSERT_EQ(json.erase(name), 1u) << name;
    }
    Bytes expected(sizeof preset, 0x11);
    std::fill(expected.begin() + 636, expected.begin() + 660, uint8_t{0}); // reserved_636
    std::fill(expected.begin() + 668, expected.begin() + 684, uint8_t{0}); // preset_num to server_id
    std::fill(expected.begin() + 688, expected.end(), uint8_t{0});
    EXPECT_EQ(encode(phone_record_from_json(json.dump(), file)), expected);
}

TEST(PresetJson, TakesEntriesInAnyOrder) {
    const ordered_json json = to_json(decode_phone_record(rising(744)));
    ordered_json reversed = ordered_json::object();
    std::vector<std::string> names;
    for (const auto& [name, value] : json.items()) {
        names.insert(names.begin(), name);
    }
    for (const std::string& name : names) {
        reversed[name] = json[name];
    }
    EXPECT_EQ(encode(phone_record_from_json(reversed.dump(), file)), rising(744));
}

TEST(PresetJson, TakesUpperCaseHexadecimal) {
    const std::string text = changed([](ordered_json& preset) {
        preset["title"] = {{"bytes", "aBCdef" + std::string(98, '0')}};
    });
    const sm_tag_custom_info preset = phone_record_from_json(text, file);
    EXPECT_EQ(std::string(preset.title, 4), std::string("\xAB\xCD\xEF\0", 4));
}

// ---- Faults ---------------------------------------------------------------------------------------------------------

TEST(PresetJsonFaults, NameEveryMissingEntryInTheLineWhereItsObjectBegins) {
    const Lines faults = faults_of("\n\n{\n\n\"cs_info\":\n  {}\n}");
    const auto missing = [](int line, const std::string& name) {
        return "preset.json:" + std::to_string(line) + ": \"" + name + "\" is missing; add it";
    };
    // 56 single words and the title, without linked_custom_mode and the four identities; then the style block's.
    ASSERT_EQ(faults.size(), 53u + 7u);
    EXPECT_EQ(faults[0], missing(3, "title"));
    EXPECT_EQ(faults[1], missing(3, "mode"));
    EXPECT_EQ(faults[52], missing(3, "made_id"));
    EXPECT_EQ(Lines(faults.begin() + 53, faults.end()),
              (Lines{missing(5, "color_style"), missing(5, "cs_color_off_color"), missing(5, "cs_color"),
                     missing(5, "cs_saturation"), missing(5, "cs_sharpness"), missing(5, "cs_contrast"),
                     missing(5, "cs_hue")}));
}

TEST(PresetJsonFaults, NameAMissingStyleBlockOnce) {
    EXPECT_EQ(faults_of(changed([](ordered_json& preset) { preset.erase("cs_info"); })),
              Lines{"preset.json:1: \"cs_info\" is missing; add it"});
}

struct Fault {
    const char* what;
    std::function<void(ordered_json&)> change;
    Lines faults;
};

// In the text of a preset, "title" stands in line 2 and 25 words in 3 to 27, "mode" first and "iso" fourth. "cs_info"
// begins in 28, "color_style" is 29, "cs_color" 31 to 97 with five lines for a colour, then four arrays of 16 lines to
// 161, the last of them "cs_hue" from 146. 24 words follow in 163 to 186, "reserved_636" in 187 to 194, and nine
// entries to 203; an entry added at the end stands in 204.
const Fault single_faults[] = {
    {"unknown entry",
     [](ordered_json& preset) { preset["zoom\n"] = 1; },
     {"preset.json:204: \"zoom\\n\" is no entry of a preset; remove it"}},
    {"unknown entry of the block",
     [](ordered_json& preset) { preset["cs_info"]["grain"] = 1; },
     {"preset.json:162: \"grain\" is no entry of a preset; remove it"}},
    {"block entry outside",
     [](ordered_json& preset) { preset["cs_hue"] = 1; },
     {"preset.json:204: \"cs_hue\" belongs in \"cs_info\"; move it there"}},
    {"outside entry in the block",
     [](ordered_json& preset) { preset["cs_info"]["iso"] = 1; },
     {"preset.json:162: \"iso\" belongs outside of \"cs_info\"; move it there"}},
    {"block in the block",
     [](ordered_json& preset) { preset["cs_info"]["cs_info"] = 1; },
     {"preset.json:162: \"cs_info\" is no entry of a preset; remove it"}},
    {"block that is none",
     [](ordered_json& preset) { preset["cs_info"] = ordered_json::array(); },
     {"preset.json:28: \"cs_info\" must be an object, not an array"}},
    {"fraction",
     [](ordered_json& preset) { preset["mode"] = 1.5; },
     {"preset.json:3: \"mode\" must be an integer, not 1.5"}},
    {"text for a word",
     [](ordered_json& preset) { preset["iso"] = "100"; },
     {"preset.json:6: \"iso\" must be an integer, not a text"}},
    {"null for a word",
     [](ordered_json& preset) { preset["iso"] = nullptr; },
     {"preset.json:6: \"iso\" must be an integer, not null"}},
    {"truth for a word",
     [](ordered_json& preset) { preset["iso"] = true; },
     {"preset.json:6: \"iso\" must be an integer, not true"}},
    {"array for a word",
     [](ordered_json& preset) {
         preset["iso"] = {1, 2};
     },
     {"preset.json:6: \"iso\" must be an integer, not an array"}},
    {"object for a word",
     [](ordered_json& preset) {
         preset["iso"] = {{"a", 2}};
     },
     {"preset.json:6: \"iso\" must be an integer, not an object"}},
    {"just too high",
     [](ordered_json& preset) { preset["mode"] = 2147483648; },
     {"preset.json:3: \"mode\" is 2147483648; give an integer from -2147483648 to 2147483647"}},
    {"just too low",
     [](ordered_json& preset) { preset["mode"] = -2147483649; },
     {"preset.json:3: \"mode\" is -2147483649; give an integer from -2147483648 to 2147483647"}},
    {"highest of 64 bits",
     [](ordered_json& preset) { preset["mode"] = UINT64_MAX; },
     {"preset.json:3: \"mode\" is 18446744073709551615; give an integer from -2147483648 to 2147483647"}},
    {"title too long",
     [](ordered_json& preset) { preset["title"] = std::string(51, 'x') + "\u00e9"; },
     {"preset.json:2: \"title\" has 53 bytes in UTF-8; shorten it to 52"}},
    {"title with a NUL",
     [](ordered_json& preset) { preset["title"] = std::string("a\0", 2); },
     {"preset.json:2: \"title\" holds a NUL; write it as {\"bytes\": \"<hexadecimal>\"}"}},
    {"title that is a number",
     [](ordered_json& preset) { preset["title"] = 7; },
     {"preset.json:2: \"title\" must be a text, not 7"}},
    {"title of too few bytes",
     [](ordered_json& preset) {
         preset["title"] = {{"bytes", std::string(102, '0')}};
     },
     {"preset.json:3: \"title\" must be a text or {\"bytes\": \"...\"} with 104 hexadecimal digits"}},
    {"title of no hexadecimal",
     [](ordered_json& preset) {
         preset["title"] = {{"bytes", std::string(103, '0') + "g"}};
     },
     {"preset.json:3: \"title\" must be a text or {\"bytes\": \"...\"} with 104 hexadecimal digits"}},
    {"title of other things",
     [](ordered_json& preset) {
         preset["title"] = {{"text", "a"}};
     },
     {"preset.json:3: \"title\" must be a text or {\"bytes\": \"...\"} with 104 hexadecimal digits"}},
    {"title of nothing",
     [](ordered_json& preset) { preset["title"] = ordered_json::object(); },
     {"preset.json:2: \"title\" must be a text or {\"bytes\": \"...\"} with 104 hexadecimal digits"}},
    {"title of a number of bytes",
     [](ordered_json& preset) {
         preset["title"] = {{"bytes", 52}};
     },
     {"preset.json:3: \"title\" must be a text or {\"bytes\": \"...\"} with 104 hexadecimal digits"}},
    {"too few colours",
     [](ordered_json& preset) { preset["cs_info"]["cs_color"].erase(12); },
     {"preset.json:31: \"cs_color\" has 12 colours; give 13"}},
    {"colours that are none",
     [](ordered_json& preset) { preset["cs_info"]["cs_color"] = 0; },
     {"preset.json:31: \"cs_color\" must be an array of 13 colours, not 0"}},
    {"colour of two",
     [](ordered_json& preset) { preset["cs_info"]["cs_color"][1].erase(2); },
     {"preset.json:37: \"cs_color\" [1] has 2 integers; give 3"}},
    {"colour that is none",
     [](ordered_json& preset) { preset["cs_info"]["cs_color"][1] = "red"; },
     {"preset.json:37: \"cs_color\" [1] must be an array of 3 integers, not a text"}},
    {"green that is none",
     [](ordered_json& preset) { preset["cs_info"]["cs_color"][1][1] = "g"; },
     {"preset.json:39: \"cs_color\" [1] green must be an integer, not a text"}},
    {"too many hues",
     [](ordered_json& preset) { preset["cs_info"]["cs_hue"].push_back(0); },
     {"preset.json:146: \"cs_hue\" has 15 integers; give 14"}},
    {"hue out of range",
     [](ordered_json& preset) { preset["cs_info"]["cs_hue"][13] = 4294967296; },
     {"preset.json:160: \"cs_hue\" [13] is 4294967296; give an integer from -2147483648 to 2147483647"}},
    {"nested too deep",
     [](ordered_json& preset) { preset["cs_info"]["cs_color"][0][0] = ordered_json::parse("[[[[{\"a\": [1]}]]], 2]"); },
     {"preset.json:33: \"cs_color\" [0] red must be an integer, not an array"}},
};

TEST(PresetJsonFaults, NameTheFileTheLineTheEntryAndTheRemedy) {
    for (const Fault& fault : single_faults) {
        EXPECT_EQ(faults_of(changed(fault.change)), fault.faults) << fault.what;
    }
}

TEST(PresetJsonFaults, NameTheLineOfAnEntryThatIsGivenTwice) {
    std::string text = changed([](ordered_json&) {});
    text.replace(text.rfind('\n'), std::string::npos, ",\n\"mode\": 1,\n\"mode\": 2}");
    EXPECT_EQ(faults_of(text), (Lines{"preset.json:204: \"mode\" is given twice, first in line 3; remove one",
                                      "preset.json:205: \"mode\" is given twice, first in line 3; remove one"}));
}

TEST(PresetJsonFaults, AreAllCollectedInTheOrderOfTheirLines) {
    const std::string text = changed([](ordered_json& preset) {
        preset["zoom"] = 1;
        preset["cs_info"]["color_style"] = "C1";
        preset["mode"] = 0.5;
        preset.erase("flash");
    });
    EXPECT_EQ(faults_of(text), (Lines{"preset.json:1: \"flash\" is missing; add it",
                                      "preset.json:3: \"mode\" must be an integer, not 0.5",
                                      "preset.json:29: \"color_style\" must be an integer, not a text",
                                      "preset.json:203: \"zoom\" is no entry of a preset; remove it"}));
}

TEST(PresetJsonFaults, AreToldUpToAHundredAndCountedBeyond) {
    for (const size_t number : {size_t{100}, size_t{101}, size_t{5000}}) {
        const std::string text = changed([&](ordered_json& preset) {
            preset["title"] = 1;
            for (size_t k = 1; k < number; ++k) {
                preset["zoom" + std::to_string(k)] = 1;
            }
        });
        const Lines faults = faults_of(text);
        ASSERT_EQ(faults.size(), number > 100 ? 101u : 100u);
        EXPECT_EQ(faults.front(), "preset.json:2: \"title\" must be a text, not 1");
        const bool tells_how_many_more =
            faults.back().find("and " + std::to_string(number - 100) + " faults more") != std::string::npos;
        EXPECT_EQ(tells_how_many_more, number > 100) << faults.back();
    }
}

TEST(PresetJsonFaults, RefuseLinkedCustomModeInACamerasPreset) {
    ordered_json preset = to_json(tag_custom_info{});
    preset["linked_custom_mode"] = 0;
    EXPECT_EQ(faults_of(preset.dump(), camera_record_from_json),
              Lines{"preset.json:1: \"linked_custom_mode\" is of the phone's presets only; remove it"});
}

TEST(PresetJsonFaults, RefuseAFileThatHoldsNoObject) {
    EXPECT_EQ(faults_of("\n[]"), Lines{"preset.json:2: a preset is an object, {\"title\": ...}, not an array"});
    EXPECT_EQ(faults_of("12\n"), Lines{"preset.json:1: a preset is an object, {\"title\": ...}, not 12"});
}

TEST(PresetJsonFaults, CutWhatAFileNamesToALengthThatALineCanBear) {
    const Lines faults = faults_of(changed([](ordered_json& preset) { preset[std::string(100000, 'n')] = 1; }));
    EXPECT_EQ(faults, Lines{"preset.json:204: \"" + std::string(59, 'n') + "... is no entry of a preset; remove it"});
    std::string text = changed([](ordered_json& preset) { preset["mode"] = 7; });
    text.replace(text.find('7'), 1, std::string(300, '9'));
    EXPECT_EQ(faults_of(text), Lines{"preset.json:3: \"mode\" is " + std::string(60, '9') +
                                     "...; give an integer from -2147483648 to 2147483647"});
}

struct Syntax {
    const char* text;
    const char* begin;
};

TEST(PresetJsonFaults, NameLineAndColumnOfWhatIsNoJson) {
    const Syntax texts[] = {
        {"", "preset.json:1: not valid JSON at column 1: "},
        {"{\n  \"mode\": 1,\n  \"mode\" 2\n}", "preset.json:3: not valid JSON at column 10: "},
        {"{\n  'mode': 1}", "preset.json:2: not valid JSON at column 3: "},
        {"{\"mode\": 1", "preset.json:1: not valid JSON at column 11: "},
        {"{}\nx", "preset.json:2: not valid JSON at column 1: "},
        {"{\"title\": \"\xFF\"}", "preset.json:1: not valid JSON at column 12: "},
        {"{\"title\": \"a\nb\"}", "preset.json:1: not valid JSON at column 13: "},
    };
    for (const Syntax& line : texts) {
        const Lines faults = faults_of(line.text);
        ASSERT_EQ(faults.size(), 1u) << line.text;
        EXPECT_EQ(faults[0].rfind(line.begin, 0), 0u) << faults[0];
        EXPECT_EQ(std::count_if(faults[0].begin(), faults[0].end(), [](char c) { return c < ' ' || c > '~'; }), 0)
            << faults[0];
    }
}

TEST(PresetJsonFaults, RefuseANumberThatNoMachineHolds) {
    EXPECT_EQ(faults_of("{\n\"mode\": 1e999}"),
              Lines{"preset.json:2: not valid JSON at column 13: a number is far too large"});
}

TEST(PresetJsonFaults, StandNestingOfAnyDepth) {
    const size_t depth = 1000000;
    EXPECT_EQ(faults_of(std::string(depth, '[') + std::string(depth, ']')),
              Lines{"preset.json:1: a preset is an object, {\"title\": ...}, not an array"});
    EXPECT_EQ(faults_of(std::string(depth, '[')).size(), 1u);
}

TEST(PresetJsonFaults, AreAllThatAFileOfAnyBytesCauses) {
    const std::string whole = to_json(sm_tag_custom_info{}).dump(1);
    std::mt19937 random(3);
    for (int round = 0; round < 3000; ++round) {
        std::string text = whole;
        for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
            const size_t at = random() % text.size();
            const size_t removed = random() % 3;
            text.replace(at, removed, 1,
                         random() % 2 == 0 ? "{}[],:\"0-.e\\"[random() % 12] : static_cast<char>(random()));
        }
        for (const std::string& fault : faults_of(text)) {
            ASSERT_EQ(fault.rfind("preset.json:", 0), 0u) << fault;
        }
    }
}

TEST(PresetJsonFaults, StandAFileThatIsCutAnywhere) {
    const std::string whole = to_json(decode_phone_record(rising(744))).dump(1);
    for (size_t size = 0; size < whole.size(); ++size) {
        ASSERT_EQ(faults_of(whole.substr(0, size)).size(), 1u) << size;
    }
    EXPECT_TRUE(faults_of(whole).empty());
}

} // namespace
} // namespace desk
