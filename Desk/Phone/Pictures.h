// Draws pictures with characters.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "Wire/Record.h"

namespace desk::phone {

// Why standard output shows no pictures, or nothing when it does.
std::optional<std::string> why_not_drawn();

// A picture in at most so many columns and rows, as text with the terminal's own colour sequences. Nothing when it is
// no picture that can be decoded.
std::optional<std::string> drawn(std::span<const uint8_t> jpeg, size_t columns, size_t rows);

} // namespace desk::phone
