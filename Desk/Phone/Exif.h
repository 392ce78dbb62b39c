// The one thing that a picture's Exif data say of how it is to be shown: which way up.
#pragma once

#include <array>
#include <span>

#include "Wire/Record.h"

namespace desk::phone {

constexpr int upright = 1; // of eight orientations

// That of an APP1 segment's data; upright where these say nothing of it.
int orientation_of(std::span<const uint8_t> segment);

// The data of an APP1 segment that gives the orientation and nothing else.
std::array<uint8_t, 32> exif_with(int orientation);

} // namespace desk::phone
