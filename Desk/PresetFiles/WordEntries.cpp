#include "WordEntries.h"

#include <algorithm>

#include "Wire/Record.h"

namespace desk {
namespace {

using Kind = WordEntry::Kind;
using Need = WordEntry::Need;

constexpr int32_t compensation_of_manual = 15; // what a list has there, whatever the camera holds

const Field& field_named(const char* name) {
    return *std::ranges::find(fields(), name, &Field::name);
}

size_t offset_of(const char* field) {
    return field_named(field).offset;
}

WordEntry plain(const char* name, const char* field, const char* meaning, Need need = Need::always) {
    return {
        .group = "", .name = name, .offset = offset_of(field), .kind = Kind::integer, .need = need, .meaning = meaning};
}

WordEntry in_group(const char* group, const char* name, const char* field, const char* meaning,
                   Need need = Need::always) {
    WordEntry entry = plain(name, field, meaning, need);
    entry.group = group;
    return entry;
}

WordEntry text(const char* name, const char* field, const char* meaning, Need need) {
    WordEntry entry = plain(name, field, meaning, need);
    entry.kind = Kind::text;
    return entry;
}

WordEntry named(const char* name, const char* field, const Names& names, const char* meaning,
                Need need = Need::always) {
    WordEntry entry = plain(name, field, meaning, need);
    entry.kind = Kind::name;
    entry.names = &names;
    return entry;
}

WordEntry step(const char* name, const char* field, const Scale& scale, WordEntry::Carries carries, int32_t left_out,
               const char* meaning) {
    WordEntry entry = plain(name, field, meaning, Need::with_the_mode);
    entry.kind = Kind::step;
    entry.scale = &scale;
    entry.carries = carries;
    entry.left_out = left_out;
    return entry;
}

WordEntry iso(const char* name, const char* field, const char* meaning, Need need) {
    WordEntry entry = plain(name, field, meaning, need);
    entry.kind = Kind::iso;
    entry.scale = &iso_scale();
    return entry;
}

WordEntry integers(const char* name, const char* field, size_t count, const char* meaning, Need need = Need::always) {
    WordEntry entry = plain(name, field, meaning, need);
    entry.kind = Kind::integers;
    entry.count = count;
    return entry;
}

WordEntry of_kind(Kind kind, const char* name, const char* field, const char* meaning) {
    WordEntry entry = plain(name, field, meaning);
    entry.kind = kind;
    return entry;
}

std::vector<WordEntry> fine_adjustments() {
    std::vector<WordEntry> entries;
    for (size_t type = 0; type < adjustment_offsets().size(); ++type) {
        entries.push_back({.group = adjustments_entry,
                           .name = white_balance_names().at(type),
                           .offset = adjustment_offsets()[type],
                           .kind = Kind::integer,
                           .need = Need::never,
                           .meaning = "Fine adjustment of this white balance, 0 none"});
    }
    return entries;
}

// clang-format off
std::vector<WordEntry> exposure_and_colour() {
    return {
        text("title", "title", "At most 51 bytes of UTF-8", Need::always),
        named("mode", "mode", mode_names(), "Says which of aperture, shutter and ev the file has"),
        step("aperture", "av_index", aperture_scale(), carries_aperture, 0, "In the modes Aperture and Manual"),
        step("shutter", "tv_index", shutter_scale(), carries_shutter, 0, "In the modes Shutter and Manual"),
        iso("iso", "iso", "The sensitivity, or \"auto\"; a camera that is set to full ISO steps takes its nearest one",
            Need::always),
        iso("iso_third_steps", "iso_1_3",
            "The sensitivity of a camera that is set to third ISO steps, where it is another; else that of iso",
            Need::never),
        step("ev", "ev_step", compensation_scale(), carries_compensation, compensation_of_manual,
             "Exposure compensation, in all modes but Manual"),
        named("white_balance", "type", white_balance_names(), "The white balance; Kelvin takes color_temperature"),
        plain("color_temperature", "k_value", "In kelvin, 0 none"),
        integers("custom_white_balance", "cwb_red", 3, "Red, green, blue"),
    };
}

std::vector<WordEntry> styles_and_settings() {
    return {
        named("style", "color_style", color_style_names(), "The colour style that is chosen"),
        plain("off_color", "cs_color_off_color", "Off colour of the styles; -1 where the camera forced style C4"),
        of_kind(Kind::color_styles, styles_entry, "cs_color", "The values of each colour style; colours from 0 to 255"),
        plain("smart_filter", "smart_filter", "0 none, else the camera's own code"),
        plain("metering", "metering", "The camera's own code"),
        plain("drive", "drive", "The camera's own code"),
        plain("hdr", "hdr", "The camera's own code"),
        plain("flash", "flash", "The camera's own code"),
        plain("flash_compensation", "flash_ev", "The camera's own code"),
        plain("af_mode", "af_mode", "The camera's own code"),
        plain("af_area", "af_area", "The camera's own code"),
        plain("touch_af", "touch_af", "The camera's own code"),
        in_group("selection_af", "x", "selection_af_pos_x", "Horizontal position of the selection AF frame"),
        in_group("selection_af", "y", "selection_af_pos_y", "Vertical position"),
        in_group("selection_af", "width", "selection_af_width", "Width"),
        in_group("selection_af", "height", "selection_af_height", "Height"),
        in_group("selection_af", "box_size", "selection_af_box_size", "Size of the box"),
        in_group("multi_af", "x", "multi_af_pos_x", "Horizontal position of the multi AF frame", Need::never),
        in_group("multi_af", "y", "multi_af_pos_y", "Vertical position", Need::never),
        in_group("multi_af", "width", "multi_af_width", "Width", Need::never),
        in_group("multi_af", "height", "multi_af_height", "Height", Need::never),
        in_group("multi_af", "box_size", "multi_af_box_size", "Size of the box", Need::never),
        plain("picture_size", "photosize", "The camera's own code"),
        plain("quality", "quality", "The camera's own code"),
        in_group("self_timer", "delay", "timer_time", "The camera's own code"),
        in_group("self_timer", "shots", "timer_count", "How many"),
        in_group("self_timer", "interval", "timer_interval", "The camera's own code"),
        plain("continuous_drive", "drive_set_conti", "The camera's own code"),
        plain("continuous_high", "counti_h_frame", "The camera's own code"),
        plain("continuous_normal", "counti_n_frame", "The camera's own code"),
        plain("burst", "burst_frame", "The camera's own code"),
        plain("bulb", "bulb", "The camera's own code"),
        integers("reserved", "reserved_636", field_named("reserved_636").count, "Words without a meaning for the phone",
                 Need::never),
        of_kind(Kind::hexadecimal, "origin", "made_id",
                "Who made the preset; 0x40 a KT camera, and whatever it says of style and white balance stays"),
        plain("number", "preset_num", "Its place in the camera's list, which the camera gives", Need::never),
        plain("id", "custom_id", "Its id, which the camera gives", Need::never),
        plain("phone_id", "applocal_id", "Its id on the phone", Need::never),
        plain("server_id", "server_id", "Its id on the phone application's server", Need::never),
        named("custom_mode", "linked_custom_mode", custom_mode_names(), "The custom mode that uses it",
              Need::never),
        text("picture_path", "screennail_path", "Where the camera keeps its picture", Need::never),
    };
}
// clang-format on

// Whether a value of the record has words: those of a colour style have them as a row of it.
bool has_words(const Field& field, const std::vector<WordEntry>& entries) {
    const auto is_it = [&](const WordEntry& entry) {
        return entry.offset <= field.offset && field.offset < entry.offset + entry.count * sizeof(int32_t);
    };
    const auto is_style_value = [&](const StyleValue& value) { return value.offset == field.offset; };
    return std::ranges::any_of(entries, is_it) || std::ranges::any_of(style_values(), is_style_value);
}

// A field that nobody has put into words yet, by its own name and as its numbers.
WordEntry without_words(const Field& field) {
    const char* const name = field.name.c_str();
    constexpr const char* meaning = "The camera's own code";
    if (field.kind == Field::Kind::word) {
        return plain(name, name, meaning);
    }
    const size_t words = field.kind == Field::Kind::text ? field.count / sizeof(int32_t) : field.words();
    return integers(name, name, words, meaning);
}

std::vector<WordEntry> all_entries() {
    std::vector<WordEntry> all = exposure_and_colour();
    for (const auto& part : {fine_adjustments(), styles_and_settings()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    const std::vector<WordEntry> in_words = all;
    for (const Field& field : fields()) {
        if (!has_words(field, in_words)) {
            all.push_back(without_words(field));
        }
    }
    return all;
}

} // namespace

const std::vector<WordEntry>& word_entries() {
    static const std::vector<WordEntry> entries = all_entries();
    return entries;
}

const std::vector<StyleValue>& style_values() {
    static const std::vector<StyleValue> values = {{"saturation", offset_of("cs_saturation")},
                                                   {"sharpness", offset_of("cs_sharpness")},
                                                   {"contrast", offset_of("cs_contrast")},
                                                   {"hue", offset_of("cs_hue")}};
    return values;
}

size_t offset_of_color(int32_t style) {
    static const size_t first = offset_of("cs_color");
    return first + static_cast<size_t>(style - 1) * sizeof(sm_color);
}

} // namespace desk
