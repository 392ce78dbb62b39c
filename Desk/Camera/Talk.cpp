#include "Talk.h"

#include <cstdio>

namespace desk {
namespace {

bool is_control(unsigned char byte) {
    return byte < 0x20 || byte == 0x7F;
}

// U+0080 to U+009F, which some terminals obey like escape sequences.
bool is_wide_control(const std::string& text, size_t at) {
    const auto byte = [&](size_t index) { return static_cast<unsigned char>(text[index]); };
    return at + 1 < text.size() && byte(at) == 0xC2 && byte(at + 1) >= 0x80 && byte(at + 1) < 0xA0;
}

} // namespace

void say(const std::string& line) {
    std::fprintf(stderr, "%s: %s\n", program_name, without_controls(line).c_str());
}

std::string without_controls(std::string text) {
    for (size_t at = 0; at < text.size(); ++at) {
        if (is_wide_control(text, at)) {
            text.replace(at, 2, "?");
        } else if (is_control(static_cast<unsigned char>(text[at]))) {
            text[at] = '?';
        }
    }
    return text;
}

} // namespace desk
