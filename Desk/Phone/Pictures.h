// Draws pictures on the terminal: as graphics where it has them, else with characters.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Wire/Record.h"

namespace desk::phone {

// Why standard output shows no pictures, or nothing when it does.
std::optional<std::string> why_not_drawn();

// What pictures are made of.
enum class DrawnAs { characters, graphics };

// What the terminal of standard output has that is best; characters where `only_characters` asks for them.
DrawnAs best_drawing(bool only_characters);

// Lines of text with the terminal's own colour sequences, each of which takes so many columns; or one text that draws
// all of a graphic, and leaves the cursor in its last line.
struct Drawing {
    std::vector<std::string> lines;
    size_t columns = 0;
};

// A picture in at most so many columns and rows. Nothing when it is no picture that can be decoded.
std::optional<Drawing> drawn(std::span<const uint8_t> jpeg, size_t columns, size_t rows, DrawnAs form);

} // namespace desk::phone
