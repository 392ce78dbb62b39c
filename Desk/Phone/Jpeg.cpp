#include "Jpeg.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <utility>

#include "JpegErrors.h"

namespace desk::phone {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned largest_reduction = 8;
constexpr size_t row_alignment = 4; // Chafa counts from row to row in words

bool exceeds_budget(const jpeg_decompress_struct& decoder) {
    return size_t{decoder.image_width} * decoder.image_height > most_picture_pixels;
}

// The reduced picture is never much larger than the box.
void choose_scale(jpeg_decompress_struct& decoder, const Box& box) {
    unsigned reduction = largest_reduction;
    while (reduction > 1 && decoder.image_width / reduction < box.width &&
           decoder.image_height / reduction < box.height) {
        reduction /= 2;
    }
    decoder.scale_num = 1;
    decoder.scale_denom = reduction;
    decoder.out_color_space = JCS_RGB;
}

void read_rows(jpeg_decompress_struct& decoder, Pixels& pixels) {
    jpeg_calc_output_dimensions(&decoder);
    pixels.width = static_cast<int>(decoder.output_width);
    pixels.height = static_cast<int>(decoder.output_height);
    pixels.row_size = (size_t{decoder.output_width} * 3 + row_alignment - 1) / row_alignment * row_alignment;
    pixels.rgb.resize(pixels.row_size * decoder.output_height);
    jpeg_start_decompress(&decoder);
    while (decoder.output_scanline < decoder.output_height) {
        JSAMPROW row = pixels.rgb.data() + decoder.output_scanline * pixels.row_size;
        jpeg_read_scanlines(&decoder, &row, 1);
    }
}

// The quickest way through all of a picture's data: an eighth of its pixels, in the colours that they are kept in.
void read_to_end(jpeg_decompress_struct& decoder) {
    decoder.scale_num = 1;
    decoder.scale_denom = largest_reduction;
    decoder.out_color_space = decoder.jpeg_color_space;
    jpeg_start_decompress(&decoder);
    const JDIMENSION row_size = decoder.output_width * static_cast<JDIMENSION>(decoder.output_components);
    JSAMPARRAY row = decoder.mem->alloc_sarray(reinterpret_cast<j_common_ptr>(&decoder), JPOOL_IMAGE, row_size, 1);
    while (decoder.output_scanline < decoder.output_height) {
        jpeg_read_scanlines(&decoder, row, 1);
    }
    jpeg_finish_decompress(&decoder);
}

// No object with a destructor lives in these three: the way out of an error passes them by.

bool has_header(jpeg_decompress_struct& decoder, JpegErrors& errors, std::span<const uint8_t> picture) {
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    open_picture(decoder, picture);
    jpeg_read_header(&decoder, TRUE);
    return true;
}

bool decode(jpeg_decompress_struct& decoder, JpegErrors& errors, std::span<const uint8_t> picture, const Box& box,
            Pixels& pixels) {
    JpegMonitor monitor = {};
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    open_picture(decoder, picture);
    jpeg_read_header(&decoder, TRUE);
    if (exceeds_budget(decoder)) {
        return false;
    }
    set_budget(decoder, monitor, Clock::now() + longest_decoding);
    choose_scale(decoder, box);
    read_rows(decoder, pixels);
    return true;
}

bool is_whole(jpeg_decompress_struct& decoder, JpegErrors& errors, std::span<const uint8_t> picture) {
    JpegMonitor monitor = {};
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    open_picture(decoder, picture);
    jpeg_read_header(&decoder, TRUE);
    if (exceeds_budget(decoder)) {
        leave_beyond_budget(reinterpret_cast<j_common_ptr>(&decoder));
    }
    set_budget(decoder, monitor, Clock::now() + longest_decoding);
    read_to_end(decoder);
    return true;
}

// ---- The markers of a stream ----------------------------------------------------------------------------------------

constexpr uint8_t marker_begin = 0xFF;
constexpr uint8_t first_restart = 0xD0; // of eight, which stand among the data of a scan
constexpr uint8_t last_restart = 0xD7;
constexpr uint8_t end_of_image = 0xD9;
constexpr uint8_t start_of_scan = 0xDA;
constexpr size_t marker_size = 2;
constexpr size_t length_size = 2; // counts itself

bool stands_in_data(uint8_t code) {
    return code == 0 || (code >= first_restart && code <= last_restart);
}

size_t end_of_data(std::span<const uint8_t> picture, size_t at) {
    while (at + 1 < picture.size() && (picture[at] != marker_begin || stands_in_data(picture[at + 1]))) {
        ++at;
    }
    return at;
}

// Whether each segment ends where a marker begins, up to the one that ends the picture.
bool markers_reach_end(std::span<const uint8_t> picture) {
    size_t at = marker_size;
    while (at + marker_size + length_size <= picture.size() && picture[at] == marker_begin &&
           picture[at + 1] != end_of_image) {
        const uint8_t code = picture[at + 1];
        if (code == marker_begin) { // a marker may begin with several
            ++at;
            continue;
        }
        at += marker_size + (size_t{picture[at + 2]} << 8U) + picture[at + 3];
        if (code == start_of_scan) {
            at = end_of_data(picture, at);
        }
    }
    return at + marker_size <= picture.size() && picture[at] == marker_begin && picture[at + 1] == end_of_image;
}

} // namespace

bool is_jpeg(std::span<const uint8_t> picture) {
    constexpr uint8_t start[] = {0xFF, 0xD8, 0xFF};
    if (picture.size() < sizeof start || !std::equal(std::begin(start), std::end(start), picture.begin())) {
        return false;
    }
    jpeg_decompress_struct decoder = {};
    JpegErrors errors = {};
    decoder.err = prepare(errors, JpegWarnings::overlooked);
    const bool found = has_header(decoder, errors, picture);
    jpeg_destroy_decompress(&decoder);
    return found;
}

std::string broken_picture(const std::string& name, const std::string& fault) {
    return fmt::format("{} is cut off or broken: {}; nothing is stored, give a whole JPEG", name, fault);
}

std::optional<std::string> fault_of_jpeg(std::span<const uint8_t> picture) {
    jpeg_decompress_struct decoder = {};
    JpegErrors errors = {};
    decoder.err = prepare(errors, JpegWarnings::faults);
    const bool whole = is_whole(decoder, errors, picture);
    jpeg_destroy_decompress(&decoder);
    if (whole || (errors.beyond_budget && markers_reach_end(picture))) {
        return std::nullopt;
    }
    return errors.beyond_budget ? "its end is missing" : errors.fault;
}

std::optional<Pixels> decode_jpeg(std::span<const uint8_t> picture, const Box& box) {
    jpeg_decompress_struct decoder = {};
    JpegErrors errors = {};
    decoder.err = prepare(errors, JpegWarnings::overlooked);
    Pixels pixels;
    const bool decoded = decode(decoder, errors, picture, box, pixels);
    jpeg_destroy_decompress(&decoder);
    return decoded ? std::optional(std::move(pixels)) : std::nullopt;
}

} // namespace desk::phone
