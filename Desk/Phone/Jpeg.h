// Just enough of a JPEG decoder to tell JPEG files from others and to draw small pictures.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "Wire/Record.h"

namespace desk {

// Whether a picture begins as JPEG data does, and describes itself as far as its pixels.
bool is_jpeg(std::span<const uint8_t> picture);

struct Pixels {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb; // rows from the top, three bytes a pixel
};

// The first JPEG stream of a picture, made smaller while it is decoded, but not below `columns` pixels where
// it has as many. Nothing when it cannot be decoded.
std::optional<Pixels> decode_jpeg(std::span<const uint8_t> picture, int columns);

} // namespace desk
