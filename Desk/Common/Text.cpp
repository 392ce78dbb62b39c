#include "Text.h"

#include <algorithm>
#include <fmt/format.h>
#include <glib.h>

namespace desk {
namespace {

constexpr std::string_view replacement = "\uFFFD";

bool is_unprintable(gunichar character) {
    switch (g_unichar_type(character)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT:
    case G_UNICODE_SURROGATE:
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
        return true;
    default:
        return false;
    }
}

// The text with what `replace` makes of each unprintable character, and of each byte that is no UTF-8 (-1).
template<class Replace>
std::string replaced(std::string_view text, Replace replace) {
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const auto left = static_cast<gssize>(text.size() - at);
        const gunichar character = g_utf8_get_char_validated(text.data() + at, left);
        const bool is_broken = character >= static_cast<gunichar>(-2);
        // A NUL is one byte, although GLib takes it for the end of a text.
        const auto length =
            is_broken || character == 0 ? 1 : static_cast<size_t>(g_unichar_to_utf8(character, nullptr));
        if (is_broken || is_unprintable(character)) {
            result += replace(is_broken ? static_cast<gunichar>(-1) : character);
        } else {
            result += text.substr(at, length);
        }
        at += length;
    }
    return result;
}

std::string escape_sequence(gunichar character) {
    if (character < 0x10000) {
        return fmt::format("\\u{:04x}", character);
    }
    const gunichar offset = character - 0x10000; // beyond 16 bits JSON takes a pair of surrogates
    return fmt::format("\\u{:04x}\\u{:04x}", 0xD800 + (offset >> 10), 0xDC00 + (offset & 0x3FF));
}

} // namespace

std::string printable(std::string_view text) {
    return replaced(text, [](gunichar) { return replacement; });
}

std::string printable_lines(std::string_view text) {
    return replaced(text, [](gunichar character) { return character == '\n' ? "\n" : replacement; });
}

std::string one_line(std::string text) {
    std::ranges::replace(text, '\n', ' ');
    return text;
}

std::string escaped_json(std::string_view document) {
    return replaced(document, [](gunichar character) {
        return character == '\n'                        ? "\n"
               : character == static_cast<gunichar>(-1) ? std::string(replacement)
                                                        : escape_sequence(character);
    });
}

} // namespace desk
