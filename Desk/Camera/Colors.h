// The escape sequences in which the library colours its lines.
#pragma once

#include <string>

namespace desk::camera {

constexpr const char* color_reset = "\033[m";

// Takes all colours out of a line and returns the one that it begins with, which may be empty: only the library's own
// count, and whatever a phone has sent stands behind them.
std::string take_colors(std::string& line);

} // namespace desk::camera
