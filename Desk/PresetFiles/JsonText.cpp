#include "JsonText.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace desk {
namespace {

using nlohmann::ordered_json;

constexpr size_t step = 2;     // of an indentation
constexpr size_t widest = 100; // of an object that stands on one line

// Texts that are no UTF-8 get U+FFFD.
std::string plain(const ordered_json& value) {
    return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

bool is_flat_array(const ordered_json& value) {
    return value.is_array() &&
           std::ranges::none_of(value, [](const ordered_json& one) { return one.is_structured() && !one.empty(); });
}

bool may_be_one_line(const ordered_json& value) {
    return std::ranges::all_of(
        value, [](const ordered_json& one) { return !one.is_structured() || one.empty() || is_flat_array(one); });
}

std::string joined(const ordered_json& value, const std::string& before, const std::string& between,
                   const std::string& after, const auto& text_of) {
    std::string text = value.is_object() ? "{" : "[";
    std::string separator = before;
    for (const auto& [key, one] : value.items()) {
        text += separator + (value.is_object() ? plain(key) + ": " : "") + text_of(one);
        separator = between;
    }
    return text + after + (value.is_object() ? "}" : "]");
}

std::string on_one_line(const ordered_json& value) {
    return value.is_structured() ? joined(value, "", ", ", "", on_one_line) : plain(value);
}

std::string text_of(const ordered_json& value, size_t indentation) {
    if (!value.is_structured() || value.empty() || is_flat_array(value)) {
        return on_one_line(value);
    }
    const bool is_root = indentation == 0;
    if (!is_root && may_be_one_line(value)) {
        std::string line = on_one_line(value);
        if (indentation + line.size() <= widest) {
            return line;
        }
    }
    const std::string margin = "\n" + std::string(indentation, ' ');
    const std::string inner = margin + std::string(step, ' ');
    return joined(value, inner, "," + inner, margin,
                  [&](const ordered_json& one) { return text_of(one, indentation + step); });
}

} // namespace

std::string text_of_json(const ordered_json& document) {
    return text_of(document, 0) + "\n";
}

} // namespace desk
