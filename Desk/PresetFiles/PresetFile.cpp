#include "PresetFile.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <variant>

#include "Forms.h"
#include "JsonText.h"
#include "PresetJson.h"

namespace desk {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr auto form_of_words = "words";
constexpr auto form_of_codes = "raw";

bool is_utf8(const std::string& text) {
    try {
        (void)json(text).dump();
        return true;
    } catch (const json::type_error&) {
        return false;
    }
}

// A file that says nothing of its form is raw, as all files once were.
std::optional<Form> form_of(const JsonNode& root, Faults& faults) {
    const auto entry = std::ranges::find(root.children, form_entry, &JsonNode::key);
    if (root.kind != JsonNode::Kind::object || entry == root.children.end()) {
        return Form::raw;
    }
    if (entry->kind == JsonNode::Kind::text && entry->text == form_of_words) {
        return Form::words;
    }
    if (entry->kind == JsonNode::Kind::text && entry->text == form_of_codes) {
        return Form::raw;
    }
    faults.add(entry->line, fmt::format("\"{}\" must be \"{}\" or \"{}\"", form_entry, form_of_words, form_of_codes));
    return std::nullopt;
}

ordered_json with_entries_of(ordered_json start, const ordered_json& rest) {
    start.insert(rest.begin(), rest.end());
    return start;
}

ordered_json with_schema(const ordered_json& entries, const std::string& schema) {
    return schema.empty() ? entries : with_entries_of({{schema_entry, schema}}, entries);
}

sm_tag_custom_info new_preset() {
    constexpr int32_t neutral = 128; // of a colour's 0 to 255
    sm_tag_custom_info preset = {};
    std::string_view("New preset").copy(preset.title, sizeof preset.title);
    preset.mode = SM_MODE_APERTURE;
    preset.av_index = 56; // f/5.6
    preset.ev_step = 50;  // none
    std::ranges::fill(preset.cs_info.cs_color, sm_color{neutral, neutral, neutral});
    preset.made_id = SM_MADE_FAMILY_KT; // the camera keeps its style and its white balance
    return preset;
}

} // namespace

std::optional<JsonNode> tree_of(std::string_view text, Faults& faults) {
    auto parsed = parse_json(text);
    if (const auto* const fault = std::get_if<JsonSyntaxFault>(&parsed)) {
        faults.add(fault->line, fmt::format("not valid JSON at column {}: {}", fault->column, fault->text));
        return std::nullopt;
    }
    return std::get<JsonNode>(std::move(parsed));
}

ordered_json text_to_json(std::span<const uint8_t> field) {
    const auto end = std::find(field.begin(), field.end(), 0);
    const std::string text(field.begin(), end);
    const bool nothing_behind = std::all_of(end, field.end(), [](uint8_t byte) { return byte == 0; });
    if (nothing_behind && is_utf8(text)) {
        return text;
    }
    return {{bytes_entry, fmt::format("{:02x}", fmt::join(field, ""))}};
}

ordered_json words_to_json(std::span<const uint8_t> record, size_t offset, size_t count) {
    ordered_json words = ordered_json::array();
    for (size_t k = 0; k < count; ++k) {
        words.push_back(get_word(record, offset + k * sizeof(int32_t)));
    }
    return words;
}

ordered_json json_of_preset(const sm_tag_custom_info& preset, Form form) {
    if (form == Form::raw) {
        return with_entries_of({{form_entry, form_of_codes}}, to_json(preset));
    }
    return with_entries_of({{form_entry, form_of_words}}, in_words(preset));
}

std::string text_of_preset(const sm_tag_custom_info& preset, Form form, const std::string& schema) {
    const ordered_json entries = json_of_preset(preset, form);
    return text_of_json(with_schema(entries, schema));
}

std::string text_of_new_preset(Form form, const std::string& schema) {
    ordered_json entries = json_of_preset(new_preset(), form);
    if (form == Form::words) {
        leave_out_what_cameras_give(entries);
    }
    return text_of_json(with_schema(entries, schema));
}

PresetFile preset_from_text(std::string_view text, const std::string& name, MissingSteps missing) {
    Faults faults(name);
    PresetFile file;
    if (const std::optional<JsonNode> root = tree_of(text, faults)) {
        const std::optional<Form> form = form_of(*root, faults);
        file.form = form.value_or(Form::raw);
        if (form) {
            const Bytes record = *form == Form::raw ? read_raw(*root, sizeof(sm_tag_custom_info), faults)
                                                    : read_in_words(*root, missing, faults, file.taken);
            file.preset = decode_phone_record(record);
        }
    }
    faults.throw_if_any();
    return file;
}

} // namespace desk
