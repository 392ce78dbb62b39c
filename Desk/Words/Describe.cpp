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

enum Mode { mode_aperture = 2, mode_shutter = 3, mode_manual = 4 };

constexpr std::array<const char*, SM_MODES> mode_names = {"Auto", "Program", "Aperture", "Shutter", "Manual"};

struct ShutterTime {
    int32_t position;
    const char* text;
};

// The times that a camera has at the phone's positions 0 to 109, as they stand on a shutter dial.
constexpr ShutterTime shutter_times[] = {
    {1, "60 s"},       {2, "30 s"},       {7, "25 s"},        {12, "20 s"},     {17, "15 s"},      {19, "13 s"},
    {22, "10 s"},      {24, "8 s"},       {26, "6 s"},        {27, "5 s"},      {28, "4 s"},       {38, "3.2 s"},
    {43, "2.5 s"},     {48, "2 s"},       {52, "1.6 s"},      {55, "1.3 s"},    {58, "1 s"},       {60, "0.8 s"},
    {62, "0.6 s"},     {63, "0.5 s"},     {64, "0.4 s"},      {65, "0.3 s"},    {69, "1/4 s"},     {70, "1/5 s"},
    {71, "1/6 s"},     {72, "1/8 s"},     {73, "1/10 s"},     {74, "1/13 s"},   {75, "1/15 s"},    {76, "1/20 s"},
    {77, "1/25 s"},    {78, "1/30 s"},    {79, "1/40 s"},     {80, "1/50 s"},   {81, "1/60 s"},    {82, "1/80 s"},
    {83, "1/100 s"},   {84, "1/125 s"},   {85, "1/160 s"},    {87, "1/200 s"},  {88, "1/250 s"},   {89, "1/320 s"},
    {90, "1/400 s"},   {91, "1/500 s"},   {92, "1/640 s"},    {93, "1/800 s"},  {94, "1/1000 s"},  {95, "1/1250 s"},
    {96, "1/1600 s"},  {97, "1/2000 s"},  {98, "1/2500 s"},   {99, "1/3200 s"}, {100, "1/4000 s"}, {101, "1/5000 s"},
    {102, "1/6400 s"}, {108, "1/8000 s"}, {109, "1/10000 s"},
};

// A fine adjustment of the white balance, and what it is called.
struct Adjustment {
    const char* name;
    int32_t sm_tag_custom_info::*value;
};

constexpr Adjustment adjustments[] = {
    {"auto", &sm_tag_custom_info::auto_xy},
    {"auto tungsten", &sm_tag_custom_info::auto_tungsten_xy},
    {"daylight", &sm_tag_custom_info::daylight_xy},
    {"cloudy", &sm_tag_custom_info::cloudy_xy},
    {"fluorescent white", &sm_tag_custom_info::flu_w_xy},
    {"fluorescent neutral", &sm_tag_custom_info::flu_n_xy},
    {"fluorescent daylight", &sm_tag_custom_info::flu_d_xy},
    {"tungsten", &sm_tag_custom_info::tungsten_xy},
    {"flash", &sm_tag_custom_info::flash_xy},
    {"custom", &sm_tag_custom_info::cwb_xy},
    {"Kelvin", &sm_tag_custom_info::k_xy},
};

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
    std::vector<std::string> set;
    for (const Adjustment& adjustment : adjustments) {
        if (preset.*adjustment.value != 0) {
            set.push_back(fmt::format("{} {}", adjustment.name, preset.*adjustment.value));
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

std::string mode_name(int32_t mode) {
    if (mode < 0 || mode >= static_cast<int32_t>(mode_names.size())) {
        return fmt::format("mode {}", mode);
    }
    return mode_names[static_cast<size_t>(mode)];
}

std::string aperture_text(int32_t f_number_times_ten) {
    if (f_number_times_ten == 0) {
        return nothing;
    }
    if (f_number_times_ten < 0) {
        return fmt::format("code {}", f_number_times_ten);
    }
    const int32_t tenths = f_number_times_ten % 10;
    return tenths == 0 ? fmt::format("f/{}", f_number_times_ten / 10)
                       : fmt::format("f/{}.{}", f_number_times_ten / 10, tenths);
}

std::string shutter_text(int32_t position) {
    const auto* const found = std::find_if(std::begin(shutter_times), std::end(shutter_times),
                                           [&](const ShutterTime& time) { return time.position == position; });
    return found == std::end(shutter_times) ? fmt::format("step {}", position) : found->text;
}

std::string iso_text(int32_t iso) {
    return iso == 0 ? "ISO auto" : fmt::format("ISO {}", iso);
}

std::string compensation_text(int32_t code) {
    constexpr int32_t none = 50; // of 0 to 100, which stand for -5 to +5
    if (code < 0 || code > 2 * none) {
        return fmt::format("code {}", code);
    }
    const int32_t distance = std::abs(code - none);
    const int32_t thirds = (distance * 3 + 5) / 10;
    if (thirds == 0) {
        return "0 EV";
    }
    constexpr std::array fractions = {"", ".3", ".7"};
    return fmt::format("{}{}{} EV", code < none ? '-' : '+', thirds / 3, fractions[static_cast<size_t>(thirds % 3)]);
}

std::string color_style_text(int32_t style) {
    if (style < SM_COLOR_STYLE_C1 || style > SM_COLOR_STYLE_C4) {
        return fmt::format("style {}", style);
    }
    return fmt::format("C{}", style - SM_COLOR_STYLE_C1 + 1);
}

std::string white_balance_text(int32_t type, int32_t k_value) {
    if (type != SM_WHITE_BALANCE_KELVIN) {
        return fmt::format("type {}", type);
    }
    return fmt::format("{} K", k_value);
}

std::string custom_mode_text(int32_t linked) {
    switch (linked) {
    case 0:
        return nothing;
    case 1:
        return "CUSTOM1";
    case 2:
        return "CUSTOM2";
    default:
        return fmt::format("custom mode {}", linked);
    }
}

Exposure exposure_of(const sm_tag_custom_info& preset) {
    const bool has_aperture = preset.mode == mode_aperture || preset.mode == mode_manual;
    const bool has_shutter = preset.mode == mode_shutter || preset.mode == mode_manual;
    return {has_aperture ? aperture_text(preset.av_index) : nothing,
            has_shutter ? shutter_text(preset.tv_index) : nothing, iso_text(preset.iso),
            preset.mode == mode_manual ? nothing : compensation_text(preset.ev_step)};
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
