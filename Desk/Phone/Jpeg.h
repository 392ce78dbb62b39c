// Just enough of a JPEG decoder to tell JPEG files from others, whole ones from broken ones, and to draw small
// pictures. A picture is what a stranger made, and few bytes can ask for much work and memory: reading one has a
// budget.
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Wire/Record.h"

namespace desk::phone {

// Cameras of 24 megapixels make pictures of a little more.
constexpr size_t most_picture_pixels = 28'000'000;
// A picture whose scans cover it again and again is kept whole while it is decoded: three numbers of two bytes for each
// pixel, 168 MB. The rest is for the decoder's tables and rows.
constexpr size_t most_decoder_memory = 180'000'000;
// Encoders write 10 scans; those that try for the smallest file, a few dozen.
constexpr int most_scans = 100;
// One of 24 megapixels takes half a second on a PC.
constexpr std::chrono::seconds longest_decoding{2};

// Whether a picture begins as JPEG data does, and describes itself as far as its pixels.
bool is_jpeg(std::span<const uint8_t> picture);

// What is wrong with a picture between its start and the end of its first JPEG stream, in libjpeg's words; nothing when
// it is whole. What comes behind that end is not looked at: cameras write smaller pictures there. Of a picture that
// costs more than the budget only the markers are read.
std::optional<std::string> fault_of_jpeg(std::span<const uint8_t> picture);

// The line that says it.
std::string broken_picture(const std::string& name, const std::string& fault);

struct Pixels {
    int width = 0;
    int height = 0;
    size_t row_size = 0;      // in bytes, a few of which may be left over at its end
    std::vector<uint8_t> rgb; // rows from the top, three bytes a pixel
};

// A size in pixels that a picture is to be drawn in.
struct Box {
    unsigned width;
    unsigned height;
};

// The first JPEG stream of a picture, made smaller while it is decoded, but not below what fills the box in one
// direction where it has as many pixels. Nothing when it cannot be decoded, or not within the budget.
std::optional<Pixels> decode_jpeg(std::span<const uint8_t> picture, const Box& box);

} // namespace desk::phone
