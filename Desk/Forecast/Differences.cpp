#include "Differences.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <fmt/format.h>
#include <string_view>

#include "Common/Text.h"
#include "PresetFiles/PresetFile.h"
#include "Words/Describe.h"

namespace desk {
namespace {

constexpr int32_t manual_mode_too = SM_MODE_MANUAL + 1; // the camera's second name for it

std::string iso_number_text(int32_t iso) {
    return iso == 0 ? "auto" : fmt::format("{}", iso);
}

std::string origin_code_text(int32_t made_id) {
    return fmt::format("{:#x}", static_cast<uint32_t>(made_id));
}

std::string step_of_shutter_text(int32_t position) {
    return position == 0 ? "-" : shutter_text(position);
}

struct Wording {
    std::string_view entry;
    std::string (*text)(int32_t code);
};

constexpr Wording wordings[] = {
    {"mode", mode_name},
    {"av_index", aperture_text},
    {"tv_index", step_of_shutter_text},
    {"iso", iso_number_text},
    {"iso_1_3", iso_number_text},
    {"ev_step", compensation_text},
    {"type", white_balance_name},
    {"color_style", color_style_text},
    {"made_id", origin_code_text},
    {"linked_custom_mode", custom_mode_text},
};

std::string word_text(const Field& field, int32_t code, int32_t mode) {
    if (field.name == "ev_step" && is_manual(mode) && code == no_compensation_in_manual_lists) {
        return "-";
    }
    const auto* const wording = std::find_if(std::begin(wordings), std::end(wordings),
                                             [&](const Wording& known) { return known.entry == field.name; });
    return wording == std::end(wordings) ? fmt::format("{}", code) : wording->text(code);
}

// Which word of an array: of a colour style, or by its place.
std::string place_text(const Field& field, size_t word) {
    constexpr std::array parts = {"red", "green", "blue"};
    if (field.kind == Field::Kind::colors) {
        const auto style = static_cast<int32_t>(word / parts.size()) + 1; // style 0 has no colour
        return fmt::format("{} {} ", color_style_text(style), parts[word % parts.size()]);
    }
    if (field.kind == Field::Kind::words) {
        return field.in_style ? color_style_text(static_cast<int32_t>(word)) + " " : fmt::format("[{}] ", word);
    }
    return "";
}

std::string text_entry(const Bytes& record, const Field& field) {
    const Bytes bytes(record.begin() + static_cast<std::ptrdiff_t>(field.offset),
                      record.begin() + static_cast<std::ptrdiff_t>(field.offset + field.count));
    return fmt::format("\"{}\"", printable(text_of(reinterpret_cast<const char*>(bytes.data()), bytes.size())));
}

Difference text_difference(const Field& field, const Bytes& expected, const Bytes& found) {
    const std::string before = text_entry(expected, field);
    const std::string after = text_entry(found, field);
    return {entry_in_words(field.name), before, after == before ? "the same, with other bytes behind its end" : after};
}

std::optional<Difference> difference_of_text(const Field& field, const Bytes& expected, const Bytes& found) {
    const auto begin = static_cast<std::ptrdiff_t>(field.offset);
    const auto end = static_cast<std::ptrdiff_t>(field.offset + field.count);
    if (std::equal(expected.begin() + begin, expected.begin() + end, found.begin() + begin)) {
        return std::nullopt;
    }
    return text_difference(field, expected, found);
}

// A word in words, or where those would be the same, in numbers.
Difference word_difference(const Field& field, size_t word, const Bytes& expected, const Bytes& found) {
    constexpr size_t mode_offset = offsetof(sm_tag_custom_info, mode);
    const size_t offset = field.offset + word * sizeof(int32_t);
    const int32_t before = get_word(expected, offset);
    const int32_t after = get_word(found, offset);
    std::string before_text = word_text(field, before, get_word(expected, mode_offset));
    std::string after_text = word_text(field, after, get_word(found, mode_offset));
    if (before_text == after_text) {
        before_text = fmt::format("{}", before);
        after_text = fmt::format("{}", after);
    }
    return {entry_in_words(field.name), place_text(field, word) + before_text, after_text};
}

// The first word that differs, and how many more do.
std::optional<Difference> difference_of_words(const Field& field, const Bytes& expected, const Bytes& found) {
    std::optional<Difference> difference;
    size_t more = 0;
    for (size_t word = 0; word < field.words(); ++word) {
        const size_t offset = field.offset + word * sizeof(int32_t);
        if (get_word(expected, offset) == get_word(found, offset)) {
            continue;
        }
        if (difference) {
            ++more;
        } else {
            difference = word_difference(field, word, expected, found);
        }
    }
    if (more > 0) {
        difference->found += fmt::format(", and {} more", more);
    }
    return difference;
}

} // namespace

bool is_manual(int32_t mode) {
    return mode == SM_MODE_MANUAL || mode == manual_mode_too;
}

std::optional<Difference> difference_of(const Field& field, const Bytes& expected, const Bytes& found) {
    return field.kind == Field::Kind::text ? difference_of_text(field, expected, found)
                                           : difference_of_words(field, expected, found);
}

} // namespace desk
