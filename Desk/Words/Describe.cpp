#include "Describe.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fmt/format.h>
#include <iterator>
#include <string_view>

#include "Common/Text.h"

namespace desk {

namespace {

constexpr auto nothing = "-"; // what the camera decides, or what is not there

// Fields whose codes are the camera's own: only their numbers can be shown.
struct Setting {
    const char* label;
    int32_t sm_tag_custom_info::*value;
};

constexpr Setting settings[] = {
    {"Smart filter", &sm_tag_custom_info::smart_filter},
    {"Metering", &sm_tag_custom_info::metering},
    {"HDR", &sm_tag_custom_info::hdr},
    {"Flash", &sm_tag_custom_info::flash},
    {"Flash compensation", &sm_tag_custom_info::flash_ev},
    {"AF mode", &sm_tag_custom_info::af_mode},
    {"AF area", &sm_tag_custom_info::af_area},
    {"Touch AF", &sm_tag_custom_info::touch_af},
    {"Picture size", &sm_tag_custom_info::photosize},
    {"Quality", &sm_tag_custom_info::quality},
    {"Drive", &sm_tag_custom_info::drive},
    {"Continuous drive", &sm_tag_custom_info::drive_set_conti},
    {"Continuous high", &sm_tag_custom_info::counti_h_frame},
    {"Continuous normal", &sm_tag_custom_info::counti_n_frame},
    {"Burst", &sm_tag_custom_info::burst_frame},
    {"Bulb", &sm_tag_custom_info::bulb},
    {"Preset number", &sm_tag_custom_info::preset_num},
    {"Id on the camera", &sm_tag_custom_info::custom_id},
    {"Id on the phone", &sm_tag_custom_info::applocal_id},
    {"Id on the server", &sm_tag_custom_info::server_id},
};

std::string adjustments_of(const sm_tag_custom_info& preset) {
    const Bytes record = encode(preset);
    std::vector<std::string> set;
    for (size_t type = 0; type < adjustment_offsets().size(); ++type) {
        if (const int32_t value = get_word(record, adjustment_offsets()[type]); value != 0) {
            set.push_back(fmt::format("{} {}", white_balance_names().at(type), value));
        }
    }
    return set.empty() ? nothing : fmt::format("{}", fmt::join(set, ", "));
}

// The values of the selected colour style. Style 0 has no colour of its own.
std::string style_values(const sm_cs_info& styles) {
    if (styles.color_style < 0 || styles.color_style >= SM_COLOR_STYLES) {
        return nothing;
    }
    const auto style = static_cast<size_t>(styles.color_style);
    std::string text = fmt::format("saturation {}, sharpness {}, contrast {}, hue {}", styles.cs_saturation[style],
                                   styles.cs_sharpness[style], styles.cs_contrast[style], styles.cs_hue[style]);
    if (style > 0) {
        const sm_color& color = styles.cs_color[style - 1];
        text += fmt::format(", colour {} {} {}", color.cs_color_r, color.cs_color_g, color.cs_color_b);
    }
    return text;
}

std::string origin_text(int32_t made_id) {
    const bool is_korvel = (made_id & SM_MADE_MAKER) == SM_MADE_MAKER_KORVEL;
    const bool is_kt = (made_id & SM_MADE_FAMILY) == SM_MADE_FAMILY_KT;
    return fmt::format("{:#x}, {}{}", static_cast<uint32_t>(made_id), is_korvel ? "korvel, " : "",
                       is_kt ? "made on a KT camera" : "not made on a KT camera");
}

} // namespace

std::string white_balance_text(int32_t type, int32_t k_value) {
    if (type != SM_WHITE_BALANCE_KELVIN) {
        return white_balance_name(type);
    }
    return fmt::format("{} K", k_value);
}

Exposure exposure_of(const sm_tag_custom_info& preset) {
    return {carries_aperture(preset.mode) ? aperture_text(preset.av_index) : nothing,
            carries_shutter(preset.mode) ? shutter_text(preset.tv_index) : nothing, iso_text(preset.iso),
            carries_compensation(preset.mode) ? compensation_text(preset.ev_step) : nothing};
}

std::string title_text(const sm_tag_custom_info& preset) {
    return printable(text_of(preset.title, sizeof preset.title));
}

std::vector<std::pair<std::string, std::string>> description_of(const sm_tag_custom_info& preset) {
    const Exposure exposure = exposure_of(preset);
    std::vector<std::pair<std::string, std::string>> lines = {
        {"Title", title_text(preset)},
        {"Mode", mode_name(preset.mode)},
        {"Aperture", exposure.aperture},
        {"Shutter", exposure.shutter},
        {"Sensitivity", exposure.iso},
        {"Compensation", exposure.compensation},
        {"Custom mode", custom_mode_text(preset.linked_custom_mode)},
        {"White balance", white_balance_text(preset.type, preset.k_value)},
        {"Custom balance", fmt::format("{} {} {}", preset.cwb_red, preset.cwb_green, preset.cwb_blue)},
        {"Fine adjustment", adjustments_of(preset)},
        {"Colour style", color_style_text(preset.cs_info.color_style)},
        {"Style values", style_values(preset.cs_info)},
        {"Off colour", fmt::format("{}", preset.cs_info.cs_color_off_color)},
        {"AF frame", fmt::format("{} x {} at {}, {}, box {}", preset.selection_af_width, preset.selection_af_height,
                                 preset.selection_af_pos_x, preset.selection_af_pos_y, preset.selection_af_box_size)},
        {"Self-timer",
         fmt::format("delay {}, shots {}, interval {}", preset.timer_time, preset.timer_count, preset.timer_interval)},
    };
    for (const Setting& setting : settings) {
        lines.emplace_back(setting.label, fmt::format("{}", preset.*setting.value));
    }
    lines.emplace_back("Origin", origin_text(preset.made_id));
    return lines;
}

std::vector<std::string> table_header() {
    return {"No", "Id", "Title", "Used by", "Mode", "Aperture", "Shutter", "ISO", "EV", "Style", "Balance"};
}

std::vector<std::string> table_row(int number, const sm_tag_custom_info& preset) {
    const Exposure exposure = exposure_of(preset);
    const auto without = [](std::string text, std::string_view unit) {
        const size_t at = text.find(unit);
        return at == std::string::npos ? text : text.erase(at, unit.size());
    };
    return {std::to_string(number),
            std::to_string(preset.custom_id),
            title_text(preset),
            custom_mode_text(preset.linked_custom_mode),
            mode_name(preset.mode),
            exposure.aperture,
            exposure.shutter,
            without(exposure.iso, "ISO "),
            without(exposure.compensation, " EV"),
            color_style_text(preset.cs_info.color_style),
            white_balance_text(preset.type, preset.k_value)};
}

} // namespace desk
