// Pictures as cameras and phones take them are larger than a request: they are made smaller here, in shape and
// orientation as they were. The file is anybody's, so its reading has a budget: besides the file, the phone takes
// most_decoder_memory, and three bytes for each of most_picture_pixels.
#pragma once

#include <chrono>
#include <span>
#include <string>

#include "PictureSize.h"
#include "Wire/Record.h"

namespace desk::phone {

constexpr size_t longest_file_to_fit = size_t{64} << 20;
constexpr size_t most_pixels_to_fit = 100'000'000;
// One of 24 megapixels takes a second on a PC.
constexpr std::chrono::seconds longest_fitting{10};

struct FittedPicture {
    Bytes jpeg;
    PictureSize before;
    PictureSize after;
};

// The first JPEG stream of a picture, as large and then as good as fits into so many bytes. Of what is no pixels its
// orientation and its colour profile stay. Throws Failure (exit_usage): the picture is broken, beyond the budget, or in
// colours that are not for screens. What it says begins after the picture's name.
FittedPicture fit_jpeg(std::span<const uint8_t> picture, size_t most, const std::string& name);

// The same of a PNG, whatever its size: a camera takes none as it is. What is transparent becomes white.
FittedPicture fit_png(std::span<const uint8_t> picture, size_t most, const std::string& name);

} // namespace desk::phone
