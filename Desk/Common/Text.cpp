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

// The first character of a text, and its bytes. A byte that is no UTF-8 is one for itself: -1.
struct Character {
    gunichar code;
    size_t length;
};

Character first_character(std::string_view text) {
    const gunichar code = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    if (code >= static_cast<gunichar>(-2)) {
        return {static_cast<gunichar>(-1), 1};
    }
    // A NUL is one byte, although GLib takes it for the end of a text.
    return {code, code == 0 ? 1 : static_cast<size_t>(g_unichar_to_utf8(code, nullptr))};
}

bool is_broken(const Character& character) {
    return character.code == static_cast<gunichar>(-1);
}

size_t columns_of(const Character& character) {
    if (is_broken(character)) {
        return 1;
    }
    return g_unichar_iszerowidth(character.code) != FALSE ? 0 : g_unichar_iswide(character.code) != FALSE ? 2 : 1;
}

// The text with what `replace` makes of each unprintable character, and of each byte that is no UTF-8 (-1).
template<class Replace>
std::string replaced(std::string_view text, Replace replace) {
    std::string result;
    while (!text.empty()) {
        const Character character = first_character(text);
        if (is_broken(character) || is_unprintable(character.code)) {
            result += replace(character.code);
        } else {
            result += text.substr(0, character.length);
        }
        text.remove_prefix(character.length);
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

std::string counted(size_t count, const char* what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string escaped_json(std::string_view document) {
    return replaced(document, [](gunichar character) {
        return character == '\n'                        ? "\n"
               : character == static_cast<gunichar>(-1) ? std::string(replacement)
                                                        : escape_sequence(character);
    });
}

size_t display_width(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        const Character character = first_character(text);
        columns += columns_of(character);
        text.remove_prefix(character.length);
    }
    return columns;
}

std::string_view first_columns(std::string_view text, size_t columns) {
    size_t end = 0;
    while (end < text.size()) {
        const Character character = first_character(text.substr(end));
        const size_t width = columns_of(character);
        if (width > columns) {
            break;
        }
        columns -= width;
        end += character.length;
    }
    return text.substr(0, end);
}

std::string shortened(std::string_view text, size_t columns) {
    if (display_width(text) <= columns) {
        return std::string(text);
    }
    return columns == 0 ? "" : std::string(first_columns(text, columns - 1)) + "…";
}

} // namespace desk
