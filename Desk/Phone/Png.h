// PNG files, which the camera does not take: read as the rows of a JPEG that is made of them. A file is anybody's, so
// its reading has the budget that a JPEG's has: see Fit.h.
#pragma once

#include <chrono>
#include <span>
#include <stdexcept>

#include "Exif.h"
#include "PictureSize.h"
#include "Wire/Record.h"

namespace desk::phone {

// Whether a file begins as a PNG does.
bool is_png(std::span<const uint8_t> picture);

// `what` is libpng's word for what is wrong.
class PngFault : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// It takes more memory or time than there is.
class PngBeyondBudget {};

struct PngHeader {
    PictureSize size;
    size_t components = 3; // of a pixel, a byte each: 1 is grey, 3 are red, green and blue
};

// What is not transparent, over white, in eight bits.
struct PngPicture {
    PictureSize size; // that was asked for
    Bytes rows;
    int orientation = upright;
    Bytes color_profile;
};

// Both throw PngFault.
PngHeader read_png_header(std::span<const uint8_t> picture);

// The picture in `parts` eighths of its width and height. A file that is cut off, or has a part that is not what it was
// when it was written, is a fault. Throws PngBeyondBudget.
PngPicture read_png(std::span<const uint8_t> picture, unsigned parts, std::chrono::steady_clock::time_point deadline);

} // namespace desk::phone
