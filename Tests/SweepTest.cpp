// Small domains from end to end, against the same rules worked out another way: a code's position by an index of the
// whole table, the nearest step by comparing all of them, digits by division, and wrapping arithmetic in 64 bits.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FakeHost.h"

namespace {

// ---- The rules, another way -----------------------------------------------------------------------------------------

// The first position of each entry of a table.
template<size_t Size>
std::map<int, int> positions_of(const int32_t (&table)[Size]) {
    std::map<int, int> positions;
    for (size_t position = 0; position < Size; ++position) {
        positions.emplace(table[position], static_cast<int>(position));
    }
    return positions;
}

std::optional<int> find(const std::map<int, int>& positions, int value) {
    const auto found = positions.find(value);
    return found != positions.end() ? std::optional(found->second) : std::nullopt;
}

// The position nearest to `from` of those that hold 1; of two, the lower one.
template<size_t Size>
int nearest_supported(const int32_t (&table)[Size], int from) {
    std::pair<int, int> best = {INT_MAX, 0};
    for (int position = 0; position < static_cast<int>(Size); ++position) {
        if (table[position] == 1) {
            best = std::min(best, {std::abs(position - from), position});
        }
    }
    return best.second;
}

// The position of the f-number nearest to `aperture` that the camera has a code for; of two, the lower one.
int nearest_coded(int aperture) {
    std::pair<int, int> best = {INT_MAX, 0};
    for (int position = 0; position < SM_AV_STEPS; ++position) {
        if (tKT7_APEX_AV[position] != 65535) {
            best = std::min(best, {std::abs(tPRO_COMMON_AV[position] - aperture), position});
        }
    }
    return best.second;
}

int camera_aperture(int aperture) {
    static const std::map<int, int> phone_positions = positions_of(tPRO_COMMON_AV);
    static const std::map<int, int> all_positions = positions_of(AV_LUT);
    const std::optional<int> position = find(phone_positions, aperture);
    if (!position) {
        return 0;
    }
    if (tKT7_APEX_AV[*position] != 65535) {
        return tKT7_APEX_AV[*position];
    }
    const int approximated = nearest_supported(AV_SET_ENABLE_KT7, all_positions.at(aperture));
    return tKT7_APEX_AV[approximated < SM_AV_STEPS ? approximated : nearest_coded(aperture)];
}

int camera_shutter_time(int position) {
    static const std::map<int, int> fixed = {{103, 80}, {104, 83}, {105, 89}, {106, 93}, {107, 96}};
    const int inside = std::clamp(position, 0, 109);
    if (inside == position && tKT7_APEX_TV[position] != 65535) {
        return tKT7_APEX_TV[position];
    }
    return tKT7_APEX_TV[find(fixed, position).value_or(nearest_supported(TV_SET_ENABLE_KT7, inside))];
}

// Only full steps, at every third position, are known; 0 is automatic.
int camera_sensitivity(int iso) {
    static const std::map<int, int> positions = positions_of(tPRO_COMMON_SV);
    const std::optional<int> position = find(positions, iso);
    return position && *position % 3 == 0 ? *position / 3 : 0;
}

int camera_third_step(int position) {
    if (position < 0 || position > 30) {
        return 0;
    }
    return std::max(0, nearest_supported(SV_1_3_SET_ENABLE_KT7, position) - 2);
}

int camera_compensation(int code) {
    static const std::map<int, int> steps = positions_of(tPRO_COMMON_EV);
    return steps.at(nearest_supported(EV_SET_ENABLE_KT7, std::clamp(code, 0, 100)));
}

int phone_aperture(int code) {
    static const std::map<int, int> positions = positions_of(tKT7_APEX_AV);
    const std::optional<int> position = find(positions, code);
    return position ? tPRO_COMMON_AV[*position] : 0;
}

int phone_shutter_time(int code) {
    static const std::map<int, int> positions = positions_of(tKT7_APEX_TV);
    return find(positions, code).value_or(0);
}

// The mark of a missing step is taken for the first one that is missing, ISO 50.
int phone_sensitivity(int code) {
    if (code == -1) {
        return 50;
    }
    return code >= 0 && code <= 10 ? tPRO_COMMON_SV[3 * code] : 0;
}

int phone_third_step(int code) {
    if (code == -1) {
        return 50;
    }
    return code >= 1 && code <= 28 ? tPRO_COMMON_SV[code + 2] : 0;
}

// Thirds of a stop around 50, cut towards it.
int phone_compensation(int step) {
    if (step < 0 || step > 30) {
        return 50;
    }
    return 50 + 10 * (step - 15) / 3;
}

// The value that 32 bits keep of a number, read as signed.
int64_t wrapped(int64_t number) {
    constexpr int64_t range = int64_t{1} << 32;
    const int64_t rest = ((number % range) + range) % range;
    return rest >= range / 2 ? rest - range : rest;
}

int32_t phone_colour(int32_t camera) {
    const int64_t fraction = std::clamp<int64_t>(wrapped(int64_t{camera} * 256), 0, int64_t{255} * 199);
    return static_cast<int32_t>(std::floor(static_cast<double>(fraction) / 199));
}

int32_t camera_colour(int32_t phone) {
    const double scaled = std::floor(static_cast<double>(wrapped(int64_t{phone} * 200)) / 256);
    return static_cast<int32_t>(std::clamp(scaled, 0.0, 200.0));
}

// ---- Single values --------------------------------------------------------------------------------------------------

using Conversion = int (*)(int);

// All codes of 16 bits, and those around the ends of both word sizes.
const std::vector<int>& codes() {
    static const std::vector<int> all = [] {
        std::vector<int> made = {INT_MIN, INT_MIN + 1, -65537, -65536, -65535,  -32769,      -32768, -1000,
                                 65536,   65537,       131071, 131072, 1 << 24, INT_MAX - 1, INT_MAX};
        for (int code = -300; code <= 65535; ++code) {
            made.push_back(code);
        }
        return made;
    }();
    return all;
}

class Sweep : public testing::Test {
  protected:
    FakeHost host;

    void SetUp() override { gADE_PRO_model = SM_CAMERA_KT7; }

    void expect_everywhere(Conversion conversion, const std::function<int(int)>& rule) {
        for (const int code : codes()) {
            ASSERT_EQ(conversion(code), rule(code))
                << "code " << code << ", film mode " << pro_film_mode << ", system mode " << pro_sys_mode;
            if (host.lines.size() > 1000) {
                host.forget();
            }
        }
    }
};

int nothing(int) {
    return 0;
}

TEST_F(Sweep, EveryCodeTowardsThePhoneInEveryMode) {
    for (pro_sys_mode = -1; pro_sys_mode <= 5; ++pro_sys_mode) {
        const bool aperture = pro_sys_mode == 2 || pro_sys_mode == 4;
        const bool shutter = pro_sys_mode == 3 || pro_sys_mode == 4;
        expect_everywhere(ADE_PRO_Convert2ProFilmAV, aperture ? phone_aperture : nothing);
        expect_everywhere(ADE_PRO_Convert2ProFilmTV, shutter ? phone_shutter_time : nothing);
        expect_everywhere(ADE_PRO_Convert2ProFilmEV,
                          [](int step) { return pro_sys_mode == 4 ? 15 : phone_compensation(step); });
    }
}

TEST_F(Sweep, EverySensitivityTowardsThePhone) {
    expect_everywhere(ADE_PRO_Convert2ProFilmSV, phone_sensitivity);
    expect_everywhere(ADE_PRO_Convert2ProFilmSV_1_3, phone_third_step);
}

TEST_F(Sweep, EveryApertureTowardsTheCamera) {
    pro_film_mode = 2;
    expect_everywhere(ADE_PRO_Convert2SysCustomAV, camera_aperture);
}

TEST_F(Sweep, EveryApertureOfThePhoneInEveryModeAndEveryModeLeftOver) {
    for (pro_film_mode = -1; pro_film_mode <= 6; ++pro_film_mode) {
        for (pro_sys_mode = -1; pro_sys_mode <= 6; ++pro_sys_mode) {
            const bool carried = pro_film_mode != 1 && pro_sys_mode != 3;
            for (const int aperture : tPRO_COMMON_AV) {
                ASSERT_EQ(ADE_PRO_Convert2SysCustomAV(aperture), carried ? camera_aperture(aperture) : 0)
                    << aperture << ", film mode " << pro_film_mode << ", system mode " << pro_sys_mode;
            }
        }
    }
}

TEST_F(Sweep, NoApertureTowardsTheCameraInMode1OrAfterSystemMode3) {
    for (const auto& [film, sys] : {std::pair{1, 0}, {2, 3}, {1, 3}}) {
        pro_film_mode = film;
        pro_sys_mode = sys;
        expect_everywhere(ADE_PRO_Convert2SysCustomAV, nothing);
    }
}

TEST_F(Sweep, EveryShutterTimeTowardsTheCamera) {
    pro_film_mode = 3;
    expect_everywhere(ADE_PRO_Convert2SysCustomTV, camera_shutter_time);
}

TEST_F(Sweep, EveryShutterTimeOfThePhoneInEveryModeAndEveryModeLeftOver) {
    for (pro_film_mode = -1; pro_film_mode <= 6; ++pro_film_mode) {
        for (pro_sys_mode = -1; pro_sys_mode <= 6; ++pro_sys_mode) {
            const bool carried = pro_film_mode != 1 && pro_film_mode != 2;
            for (int position = -2; position <= 111; ++position) {
                ASSERT_EQ(ADE_PRO_Convert2SysCustomTV(position), carried ? camera_shutter_time(position) : 0)
                    << position << ", film mode " << pro_film_mode << ", system mode " << pro_sys_mode;
            }
        }
        host.forget();
    }
}

TEST_F(Sweep, EverySensitivityTowardsTheCamera) {
    expect_everywhere(ADE_PRO_Convert2SysCustomSV, camera_sensitivity);
    expect_everywhere(ADE_PRO_Convert2SysCustomSV_1_3, camera_third_step);
}

TEST_F(Sweep, EveryCompensationTowardsTheCamera) {
    expect_everywhere(ADE_PRO_Convert2SysCustomEV, camera_compensation);
}

// ---- Origins --------------------------------------------------------------------------------------------------------

// The fields that a preset's origin decides on.
struct Origin {
    uint32_t made_id;
    int32_t color_style;
    int32_t off_color;
    int custom04;
    bool operator==(const Origin&) const = default;
};

constexpr int32_t off_color_of_the_phone = 8;

Origin ruled(uint32_t made_id, int32_t color_style, int32_t smart_filter) {
    const uint32_t kind = made_id % 16;
    const uint32_t family = made_id / 16 % 16;
    const uint32_t maker = made_id / 256 % 16;
    if (family == 4 && maker == 1 && smart_filter != 0) {
        return {made_id % 65536 - kind, color_style, off_color_of_the_phone, 0};
    }
    const bool forced = family != 4 || maker == 1;
    const int32_t style = forced ? 13 : color_style;
    const int custom04 = kind == 4 && style == 13 ? 1 : 0;
    return {made_id, style, forced ? -1 : off_color_of_the_phone, custom04};
}

Origin initialized(uint32_t made_id, int32_t color_style, int32_t smart_filter) {
    static tag_custom_info camera = {};
    camera.made_id = static_cast<int32_t>(made_id);
    camera.smart_filter = smart_filter;
    camera.cs_info.color_style = color_style;
    camera.cs_info.cs_color_off_color = off_color_of_the_phone;
    ADE_PRO_InitializeSysCustom(&camera);
    return {static_cast<uint32_t>(camera.made_id), camera.cs_info.color_style, camera.cs_info.cs_color_off_color,
            pro_custom04_state};
}

TEST_F(Sweep, EveryOriginInEveryColourStyleWithAndWithoutASmartFilter) {
    for (uint32_t digits = 0x000; digits <= 0xFFF; ++digits) {
        for (const uint32_t above : {0x00000000u, 0xABCDF000u}) {
            // Bits above the digits meet the styles on both sides of C4's border only.
            for (int32_t style = above == 0 ? 0 : 12; style <= 13; ++style) {
                for (const int32_t smart_filter : {0, 1}) {
                    pro_custom04_state = static_cast<int32_t>(digits / 4 % 2); // is not to matter
                    ASSERT_TRUE(initialized(above + digits, style, smart_filter) ==
                                ruled(above + digits, style, smart_filter))
                        << std::hex << above + digits << ", style " << style << ", filter " << smart_filter;
                }
            }
        }
        host.forget();
    }
}

// ---- Identities -----------------------------------------------------------------------------------------------------

// A picture's error reply takes the place of the one before, so each is confirmed.
TEST_F(Sweep, EveryIdentityFromMinus50To50IsLookedUpForAPictureFrom1On) {
    host.preset_info_answer = true;
    host.fill_preset_info = [](tag_custom_info& record) { record.custom_id = 4711; };
    for (int32_t identity = -50; identity <= 50; ++identity) {
        ASSERT_EQ(host.receive(picture_request(identity, 9)), 1);
        ASSERT_EQ(host.replies.size(), 1u);
        ASSERT_EQ(word_at(host.replies[0].buffer, 8), identity > 0 ? 4711 : -5) << identity;
        ASSERT_EQ(host.replies[0].message.length, identity > 0 ? 12 : 0) << identity;
        ASSERT_EQ(host.confirm(), 1);
        host.forget();
    }
}

// ---- Colours --------------------------------------------------------------------------------------------------------

constexpr size_t colour_words_offset = 160;
constexpr size_t colour_words = 39;

// Around the two scales, and anywhere else in 32 bits. The same ones on every run.
std::vector<int32_t> colours() {
    std::vector<int32_t> all;
    for (int32_t colour = -1024; colour <= 1024; ++colour) {
        all.push_back(colour);
    }
    std::mt19937 random(20260101);
    for (int count = 0; count < 1000; ++count) {
        all.push_back(static_cast<int32_t>(static_cast<uint32_t>(random())));
    }
    all.resize((all.size() + colour_words - 1) / colour_words * colour_words);
    return all;
}

// Converts all colours, as many at a time as a record holds, and compares each with the rule.
template<class From, class To>
void expect_scaled(FakeHost& host, void (*convert)(const From*, To*), int32_t (*rule)(int32_t)) {
    const std::vector<int32_t> all = colours();
    for (size_t first = 0; first < all.size(); first += colour_words) {
        From from = {};
        To to = {};
        std::memcpy(&from.cs_info.cs_color, &all[first], sizeof from.cs_info.cs_color);
        convert(&from, &to);
        const Bytes result = image(to);
        for (size_t word = 0; word < colour_words; ++word) {
            ASSERT_EQ(word_at(result, colour_words_offset + 4 * word), rule(all[first + word]))
                << "colour " << all[first + word];
        }
        host.forget();
    }
}

TEST_F(Sweep, ColoursTowardsThePhone) {
    expect_scaled(host, ADE_PRO_CreateProFilm, phone_colour);
}

TEST_F(Sweep, ColoursTowardsTheCamera) {
    expect_scaled(host, ADE_PRO_CreateSysCustom, camera_colour);
}

} // namespace
