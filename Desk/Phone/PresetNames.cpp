#include "PresetNames.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <glib.h>
#include <memory>
#include <optional>
#include <set>
#include <string_view>

#include "Common/Failure.h"
#include "Common/Text.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

using Presets = std::vector<sm_tag_custom_info>;

constexpr std::string_view id_prefix = "id:";

bool is_number(std::string_view name) {
    name.remove_prefix(name.starts_with('-') ? 1 : 0);
    return !name.empty() && name.find_first_not_of("0123456789") == std::string_view::npos;
}

bool is_id(std::string_view name) {
    return name.starts_with(id_prefix);
}

// Nothing where it is no whole number, or one that no word of a record has.
std::optional<int32_t> word_in(std::string_view digits) {
    int32_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

Failure missing(const std::string& what, const Presets& presets) {
    const std::string held =
        presets.empty() ? "holds none" : fmt::format("holds {}, numbers 0 to {}", presets.size(), presets.size() - 1);
    return {exit_missing, fmt::format("there is no preset {}: the camera {}", what, held)};
}

template<typename Fits>
std::vector<NumberedPreset> fitting(const Presets& presets, const Fits& fits) {
    std::vector<NumberedPreset> found;
    int number = 0;
    for (const sm_tag_custom_info& preset : presets) {
        if (fits(preset)) {
            found.push_back({number, preset});
        }
        ++number;
    }
    return found;
}

// ---- By title -------------------------------------------------------------------------------------------------------

struct FreeText {
    void operator()(gchar* text) const { g_free(text); }
};
using OwnedText = std::unique_ptr<gchar, FreeText>;

// The text as it compares whatever its case, and however its accents are written. `text` is UTF-8.
std::string folded(const std::string& text) {
    const OwnedText composed(g_utf8_normalize(text.c_str(), -1, G_NORMALIZE_DEFAULT_COMPOSE));
    const OwnedText without_case(g_utf8_casefold(composed.get(), -1));
    const OwnedText composed_again(g_utf8_normalize(without_case.get(), -1, G_NORMALIZE_DEFAULT_COMPOSE));
    return composed_again.get();
}

bool is_same(const std::string& title, const std::string& name) {
    return title == name;
}

bool is_same_but_for_case(const std::string& title, const std::string& name) {
    return folded(title) == folded(name);
}

bool has_part(const std::string& title, const std::string& name) {
    return folded(title).find(folded(name)) != std::string::npos;
}

// Titles are compared as they are shown, so that what a list prints can be given back.
std::vector<NumberedPreset> titled(const Presets& presets, const std::string& name) {
    const std::string shown_name = printable(name);
    for (const auto fits : {is_same, is_same_but_for_case, has_part}) {
        auto found = fitting(presets, [&](const auto& preset) { return fits(title_text(preset), shown_name); });
        if (!found.empty()) {
            return found;
        }
    }
    throw missing(fmt::format("with \"{}\" in its title", shown_name), presets);
}

// ---- By number and by id --------------------------------------------------------------------------------------------

NumberedPreset numbered(const Presets& presets, const std::string& name) {
    const std::optional<int32_t> number = word_in(name);
    if (!number || static_cast<size_t>(*number) >= presets.size()) {
        throw missing(name, presets);
    }
    return {*number, presets[static_cast<size_t>(*number)]};
}

std::vector<NumberedPreset> identified(const Presets& presets, const std::string& name) {
    const std::string digits = name.substr(id_prefix.size());
    const std::optional<int32_t> custom_id = word_in(digits);
    auto found = fitting(presets, [custom_id](const auto& preset) { return preset.custom_id == custom_id; });
    if (found.empty()) {
        throw missing("with id " + digits, presets);
    }
    return found;
}

Failure ambiguity(const std::string& name, const std::vector<NumberedPreset>& found) {
    std::vector<std::string> candidates;
    candidates.reserve(found.size());
    for (const NumberedPreset& one : found) {
        candidates.push_back(reference_to(one));
    }
    return {exit_usage, fmt::format("\"{}\" fits {} presets, name one by its number: {}", printable(name), found.size(),
                                    fmt::join(candidates, ", "))};
}

} // namespace

std::string fault_of_name(const std::string& name) {
    if (name.empty()) {
        return "a preset has to be named, and the name is empty";
    }
    if (is_number(name) && name.starts_with('-')) {
        return name + " is no preset's number: they begin at 0";
    }
    const bool is_wrong_id = is_id(name) && !word_in(std::string_view(name).substr(id_prefix.size()));
    return is_wrong_id ? name + " is no custom_id: write id: and a whole number" : "";
}

NumberedPreset preset_named(const Presets& presets, const std::string& name) {
    if (is_number(name)) {
        return numbered(presets, name);
    }
    const std::vector<NumberedPreset> found = is_id(name) ? identified(presets, name) : titled(presets, name);
    if (found.size() > 1) {
        throw ambiguity(name, found);
    }
    return found.front();
}

std::vector<NumberedPreset> presets_named(const Presets& presets, const std::vector<std::string>& names) {
    std::vector<NumberedPreset> result;
    std::set<int> seen;
    for (const std::string& name : names) {
        const NumberedPreset one = preset_named(presets, name);
        if (seen.insert(one.number).second) {
            result.push_back(one);
        }
    }
    return result;
}

} // namespace desk::phone
