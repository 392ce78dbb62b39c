#include "Names.h"

#include <algorithm>
#include <fmt/format.h>

#include "ADE_ShotMentor_Records.h"

namespace desk {
namespace {

bool is_known(const Names& names, int32_t code) {
    return code >= 0 && static_cast<size_t>(code) < names.size();
}

std::string name_or_number(const Names& names, int32_t code, const char* what) {
    return is_known(names, code) ? names[static_cast<size_t>(code)] : fmt::format("{} {}", what, code);
}

Names names_of_styles() {
    Names names;
    for (int32_t style = 0; style < SM_COLOR_STYLES; ++style) {
        names.push_back(style < SM_COLOR_STYLE_C1 ? fmt::format("style {}", style)
                                                  : fmt::format("C{}", style - SM_COLOR_STYLE_C1 + 1));
    }
    return names;
}

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool is_same(std::string_view one, std::string_view other) {
    return std::ranges::equal(one, other, {}, lower, lower);
}

} // namespace

const Names& mode_names() {
    static const Names names = {"Auto", "Program", "Aperture", "Shutter", "Manual"};
    return names;
}

const Names& color_style_names() {
    static const Names names = names_of_styles();
    return names;
}

// The last one is SM_WHITE_BALANCE_KELVIN.
const Names& white_balance_names() {
    static const Names names = {"auto",
                                "auto tungsten",
                                "daylight",
                                "cloudy",
                                "fluorescent white",
                                "fluorescent neutral",
                                "fluorescent daylight",
                                "tungsten",
                                "flash",
                                "custom",
                                "Kelvin"};
    return names;
}

std::span<const size_t> adjustment_offsets() {
    static constexpr size_t offsets[] = {
        offsetof(sm_tag_custom_info, auto_xy),     offsetof(sm_tag_custom_info, auto_tungsten_xy),
        offsetof(sm_tag_custom_info, daylight_xy), offsetof(sm_tag_custom_info, cloudy_xy),
        offsetof(sm_tag_custom_info, flu_w_xy),    offsetof(sm_tag_custom_info, flu_n_xy),
        offsetof(sm_tag_custom_info, flu_d_xy),    offsetof(sm_tag_custom_info, tungsten_xy),
        offsetof(sm_tag_custom_info, flash_xy),    offsetof(sm_tag_custom_info, cwb_xy),
        offsetof(sm_tag_custom_info, k_xy)};
    return offsets;
}

const Names& custom_mode_names() {
    static const Names names = {"-", "CUSTOM1", "CUSTOM2"};
    return names;
}

std::string mode_name(int32_t mode) {
    return name_or_number(mode_names(), mode, "mode");
}

std::string color_style_text(int32_t style) {
    return name_or_number(color_style_names(), style, "style");
}

std::string white_balance_name(int32_t type) {
    return name_or_number(white_balance_names(), type, "type");
}

std::string custom_mode_text(int32_t linked) {
    return name_or_number(custom_mode_names(), linked, "custom mode");
}

bool carries_aperture(int32_t mode) {
    return mode == SM_MODE_APERTURE || mode == SM_MODE_MANUAL;
}

bool carries_shutter(int32_t mode) {
    return mode == SM_MODE_SHUTTER || mode == SM_MODE_MANUAL;
}

bool carries_compensation(int32_t mode) {
    return mode != SM_MODE_MANUAL;
}

std::optional<int32_t> code_of(const Names& names, std::string_view name) {
    const auto found = std::ranges::find_if(names, [name](const std::string& known) { return is_same(known, name); });
    if (found == names.end()) {
        return std::nullopt;
    }
    return static_cast<int32_t>(found - names.begin());
}

} // namespace desk
