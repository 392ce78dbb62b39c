#include "Jpeg.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <iterator>
#include <jpeglib.h>
#include <utility>

namespace desk::phone {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned largest_reduction = 8;

// The decoder reports errors through its manager, and must not return from one.
struct Errors {
    jpeg_error_mgr manager; // first, so that the decoder's pointer to it is one to this
    std::jmp_buf way_out;
};

void leave_decoder(j_common_ptr decoder) {
    std::longjmp(reinterpret_cast<Errors*>(decoder->err)->way_out, 1);
}

void keep_silent(j_common_ptr) {}

void prepare(jpeg_decompress_struct& decoder, Errors& errors) {
    decoder.err = jpeg_std_error(&errors.manager);
    errors.manager.error_exit = leave_decoder;
    errors.manager.output_message = keep_silent;
}

// What the decoder calls again and again while it works.
struct Monitor {
    jpeg_progress_mgr manager; // first, as above
    Clock::time_point deadline;
};

void leave_beyond_budget(j_common_ptr decoder) {
    const int scan = reinterpret_cast<j_decompress_ptr>(decoder)->input_scan_number;
    const Clock::time_point deadline = reinterpret_cast<Monitor*>(decoder->progress)->deadline;
    if (scan > most_scans || Clock::now() > deadline) {
        leave_decoder(decoder);
    }
}

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
    const size_t row_size = size_t{decoder.output_width} * 3;
    pixels.rgb.resize(row_size * decoder.output_height);
    jpeg_start_decompress(&decoder);
    while (decoder.output_scanline < decoder.output_height) {
        JSAMPROW row = pixels.rgb.data() + decoder.output_scanline * row_size;
        jpeg_read_scanlines(&decoder, &row, 1);
    }
}

void read_header(jpeg_decompress_struct& decoder, std::span<const uint8_t> picture) {
    jpeg_create_decompress(&decoder);
    jpeg_mem_src(&decoder, picture.data(), static_cast<unsigned long>(picture.size()));
    jpeg_read_header(&decoder, TRUE);
}

// No object with a destructor lives in these two: the way out of an error passes them by.

bool has_header(jpeg_decompress_struct& decoder, Errors& errors, std::span<const uint8_t> picture) {
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    read_header(decoder, picture);
    return true;
}

bool decode(jpeg_decompress_struct& decoder, Errors& errors, Monitor& monitor, std::span<const uint8_t> picture,
            const Box& box, Pixels& pixels) {
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    read_header(decoder, picture);
    if (exceeds_budget(decoder)) {
        return false;
    }
    decoder.mem->max_memory_to_use = most_decoder_memory; // beyond that it gives up
    decoder.progress = &monitor.manager;
    choose_scale(decoder, box);
    read_rows(decoder, pixels);
    return true;
}

} // namespace

bool is_jpeg(std::span<const uint8_t> picture) {
    constexpr uint8_t start[] = {0xFF, 0xD8, 0xFF};
    if (picture.size() < sizeof start || !std::equal(std::begin(start), std::end(start), picture.begin())) {
        return false;
    }
    jpeg_decompress_struct decoder = {};
    Errors errors = {};
    prepare(decoder, errors);
    const bool found = has_header(decoder, errors, picture);
    jpeg_destroy_decompress(&decoder);
    return found;
}

std::optional<Pixels> decode_jpeg(std::span<const uint8_t> picture, const Box& box) {
    jpeg_decompress_struct decoder = {};
    Errors errors = {};
    prepare(decoder, errors);
    Monitor monitor = {};
    monitor.manager.progress_monitor = leave_beyond_budget;
    monitor.deadline = Clock::now() + longest_decoding;
    Pixels pixels;
    const bool decoded = decode(decoder, errors, monitor, picture, box, pixels);
    jpeg_destroy_decompress(&decoder);
    return decoded ? std::optional(std::move(pixels)) : std::nullopt;
}

} // namespace desk::phone
