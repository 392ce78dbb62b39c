// Pictures of a list, side by side where the terminal has room for them.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "Pictures.h"

namespace desk::phone {

// A picture below its caption, which is clean text.
struct Thumbnail {
    std::string caption;
    Drawing drawing;
};

// How many thumbnails of so many columns each stand in a row; at least one. `width` 0 means no limit known: one.
size_t thumbnails_in_a_row(size_t columns, size_t width);

// The lines of thumbnails that stand side by side, captions first, each cut to the columns of a thumbnail. A line that
// ends ends in its last picture: nothing is padded to the terminal's width.
std::string row_of(std::span<const Thumbnail> thumbnails, size_t columns);

} // namespace desk::phone
