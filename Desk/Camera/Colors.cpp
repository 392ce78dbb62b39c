#include "Colors.h"

#include <algorithm>

#define ALG_LOG_TAG "CAMERA"
#include "ADE_ShotMentor_Log.h"

namespace desk::camera {
namespace {

// ESC [ digits and semicolons m: its length, 0 where none begins.
size_t color_at(const std::string& line, size_t at) {
    if (line.compare(at, 2, "\033[") != 0) {
        return 0;
    }
    const size_t end = line.find_first_not_of("0123456789;", at + 2);
    return end != std::string::npos && line[end] == 'm' ? end + 1 - at : 0;
}

bool is_of_library(const std::string& color) {
    for (int level = ALG_LOG_LEVEL_GREEN; level < ALG_LOG_LEVELS; ++level) {
        if (color == alg_log_color(static_cast<alg_log_level>(level))) {
            return true;
        }
    }
    return false;
}

} // namespace

std::string take_colors(std::string& line) {
    std::string plain;
    std::string first;
    for (size_t at = 0; at < line.size();) {
        const size_t length = color_at(line, at);
        if (length > 0) {
            first = first.empty() ? line.substr(at, length) : first;
            at += length;
        } else {
            const size_t next = std::min(line.find('\033', at + 1), line.size());
            plain.append(line, at, next - at);
            at = next;
        }
    }
    line = std::move(plain);
    return is_of_library(first) ? first : "";
}

} // namespace desk::camera
