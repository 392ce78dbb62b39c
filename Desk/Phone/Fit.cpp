#include "Fit.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <optional>
#include <utility>

#include "Common/Failure.h"
#include "Common/Text.h"
#include "Exif.h"
#include "Jpeg.h"
#include "JpegErrors.h"
#include "Png.h"
#include "Shrinker.h"

namespace desk::phone {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned full_scale = 8;  // the decoder makes a picture smaller by eighths of its width and height
constexpr int lowest_quality = 70;  // below it a smaller picture looks better,
constexpr int last_quality = 10;    // but where it cannot be made smaller
constexpr int highest_quality = 95; // above it nobody sees a difference

// What is known of a picture before its pixels are read, and stays as it is.
struct Properties {
    PictureSize size;
    J_COLOR_SPACE colors = JCS_UNKNOWN; // that it is kept in
    int orientation = upright;
    Bytes color_profile;
};

// Rows from the top, in the colours that the encoder takes them in.
struct Rows {
    PictureSize size;
    J_COLOR_SPACE colors = JCS_UNKNOWN;
    int components = 0;
    Bytes bytes;

    size_t row_size() const { return size_t{size.width} * static_cast<size_t>(components); }
};

// ---- Reading --------------------------------------------------------------------------------------------------------

constexpr int exif_marker = JPEG_APP0 + 1;
constexpr int color_profile_marker = JPEG_APP0 + 2;
constexpr unsigned whole_segment = 0xFFFF;

void take_color_profile(jpeg_decompress_struct& decoder, Bytes& profile) {
    JOCTET* data = nullptr;
    unsigned length = 0;
    if (jpeg_read_icc_profile(&decoder, &data, &length) != FALSE) {
        profile.assign(data, data + length);
        std::free(data);
    }
}

void take_properties(jpeg_decompress_struct& decoder, Properties& properties) {
    properties.size = {decoder.image_width, decoder.image_height};
    properties.colors = decoder.jpeg_color_space;
    take_color_profile(decoder, properties.color_profile);
    for (const jpeg_marker_struct* marker = decoder.marker_list; marker != nullptr; marker = marker->next) {
        if (marker->marker == exif_marker && properties.orientation == upright) {
            properties.orientation = orientation_of({marker->data, marker->data_length});
        }
    }
}

// A decoder cannot make RGB into anything but that; the encoder can.
void choose_output(jpeg_decompress_struct& decoder, unsigned scale) {
    decoder.scale_num = scale;
    decoder.scale_denom = full_scale;
    decoder.out_color_space = decoder.jpeg_color_space;
    jpeg_calc_output_dimensions(&decoder);
}

void read_rows(jpeg_decompress_struct& decoder, Rows& rows) {
    rows.size = {decoder.output_width, decoder.output_height};
    rows.colors = decoder.out_color_space;
    rows.components = decoder.out_color_components;
    jpeg_start_decompress(&decoder); // gives up first where it needs too much memory itself
    rows.bytes.resize(rows.row_size() * rows.size.height);
    while (decoder.output_scanline < decoder.output_height) {
        JSAMPROW row = rows.bytes.data() + decoder.output_scanline * rows.row_size();
        jpeg_read_scanlines(&decoder, &row, 1);
    }
    jpeg_finish_decompress(&decoder);
}

// No object with a destructor lives in these three: the way out of an error passes them by.

bool read_properties(jpeg_decompress_struct& decoder, JpegErrors& errors, std::span<const uint8_t> picture,
                     Properties& properties) {
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    open_picture(decoder, picture);
    jpeg_save_markers(&decoder, exif_marker, whole_segment);
    jpeg_save_markers(&decoder, color_profile_marker, whole_segment);
    jpeg_read_header(&decoder, TRUE);
    take_properties(decoder, properties);
    return true;
}

bool read_scaled(jpeg_decompress_struct& decoder, JpegErrors& errors, JpegMonitor& monitor, Clock::time_point deadline,
                 std::span<const uint8_t> picture, unsigned scale, Rows& rows) {
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    open_picture(decoder, picture);
    jpeg_read_header(&decoder, TRUE);
    set_budget(decoder, monitor, deadline);
    choose_output(decoder, scale);
    read_rows(decoder, rows);
    return true;
}

// ---- Writing --------------------------------------------------------------------------------------------------------

void do_nothing(j_compress_ptr) {}

boolean leave_full(j_compress_ptr encoder) {
    leave_beyond_budget(reinterpret_cast<j_common_ptr>(encoder));
}

void write_properties(jpeg_compress_struct& encoder, const Properties& properties) {
    if (properties.orientation != upright) {
        const auto exif = exif_with(properties.orientation);
        jpeg_write_marker(&encoder, exif_marker, exif.data(), static_cast<unsigned>(exif.size()));
    }
    if (!properties.color_profile.empty()) {
        jpeg_write_icc_profile(&encoder, properties.color_profile.data(),
                               static_cast<unsigned>(properties.color_profile.size()));
    }
}

void start(jpeg_compress_struct& encoder, const Rows& rows, int quality) {
    encoder.image_width = rows.size.width;
    encoder.image_height = rows.size.height;
    encoder.input_components = rows.components;
    encoder.in_color_space = rows.colors;
    jpeg_set_defaults(&encoder);
    jpeg_set_quality(&encoder, quality, TRUE);
    jpeg_start_compress(&encoder, TRUE);
}

bool write(jpeg_compress_struct& encoder, JpegErrors& errors, jpeg_destination_mgr& destination,
           const Properties& properties, const Rows& rows, int quality) {
    if (setjmp(errors.way_out) != 0) {
        return false;
    }
    jpeg_create_compress(&encoder);
    encoder.dest = &destination;
    start(encoder, rows, quality);
    write_properties(encoder, properties);
    while (encoder.next_scanline < encoder.image_height) {
        // It is read alone; libjpeg has no const.
        JSAMPROW row = const_cast<JSAMPROW>(rows.bytes.data()) + encoder.next_scanline * rows.row_size();
        jpeg_write_scanlines(&encoder, &row, 1);
    }
    jpeg_finish_compress(&encoder);
    return true;
}

// Nothing when it takes more bytes than that.
std::optional<Bytes> encode(const Properties& properties, const Rows& rows, int quality, size_t most) {
    Bytes jpeg(most);
    jpeg_destination_mgr destination = {};
    destination.init_destination = do_nothing;
    destination.empty_output_buffer = leave_full;
    destination.term_destination = do_nothing;
    destination.next_output_byte = jpeg.data();
    destination.free_in_buffer = jpeg.size();
    jpeg_compress_struct encoder = {};
    JpegErrors errors = {};
    encoder.err = prepare(errors, JpegWarnings::faults);
    const bool done = write(encoder, errors, destination, properties, rows, quality);
    jpeg_destroy_compress(&encoder);
    jpeg.resize(jpeg.size() - destination.free_in_buffer);
    return done ? std::optional(std::move(jpeg)) : std::nullopt;
}

// ---- Fitting --------------------------------------------------------------------------------------------------------

Failure failure_of(const JpegErrors& errors, const std::string& name) {
    if (errors.beyond_budget) {
        return {exit_usage,
                fmt::format("{} takes more than {} MB, {} scans or {} s to read; nothing is stored, save it "
                            "as a smaller JPEG",
                            name, most_decoder_memory / 1'000'000, most_scans, longest_fitting.count())};
    }
    return {exit_usage, broken_picture(name, errors.fault)};
}

Properties properties_of(std::span<const uint8_t> picture, const std::string& name) {
    Properties properties;
    jpeg_decompress_struct decoder = {};
    JpegErrors errors = {};
    decoder.err = prepare(errors, JpegWarnings::faults);
    const bool done = read_properties(decoder, errors, picture, properties);
    jpeg_destroy_decompress(&decoder);
    if (!done) {
        throw failure_of(errors, name);
    }
    return properties;
}

Rows rows_of(std::span<const uint8_t> picture, unsigned scale, Clock::time_point deadline, const std::string& name) {
    Rows rows;
    jpeg_decompress_struct decoder = {};
    JpegErrors errors = {};
    JpegMonitor monitor = {};
    decoder.err = prepare(errors, JpegWarnings::faults);
    const bool done = read_scaled(decoder, errors, monitor, deadline, picture, scale, rows);
    jpeg_destroy_decompress(&decoder);
    if (!done) {
        throw failure_of(errors, name);
    }
    return rows;
}

void check(const Properties& properties, const std::string& name) {
    const size_t pixels = size_t{properties.size.width} * properties.size.height;
    if (pixels > most_pixels_to_fit) {
        throw Failure(exit_usage,
                      fmt::format("{} has {}x{} pixels, and --fit takes {} megapixels at most; nothing is "
                                  "stored, give a smaller picture",
                                  name, properties.size.width, properties.size.height, most_pixels_to_fit / 1'000'000));
    }
    if (std::max(properties.size.width, properties.size.height) > JPEG_MAX_DIMENSION) {
        throw Failure(exit_usage, fmt::format("{} has {}x{} pixels, and a JPEG has at most {} in a row or a column; "
                                              "nothing is stored, give a smaller picture",
                                              name, properties.size.width, properties.size.height, JPEG_MAX_DIMENSION));
    }
    if (properties.colors != JCS_YCbCr && properties.colors != JCS_GRAYSCALE && properties.colors != JCS_RGB) {
        throw Failure(exit_usage, fmt::format("{} is in the colours of a printer (CMYK), which --fit does not take; "
                                              "nothing is stored, save it as RGB",
                                              name));
    }
}

// The largest that keeps within the pixels of a camera's own pictures.
unsigned largest_scale(const PictureSize& size) {
    unsigned scale = full_scale;
    while (scale > 1 &&
           size_t{size.width} * scale * size.height * scale > most_picture_pixels * full_scale * full_scale) {
        --scale;
    }
    return scale;
}

// From one that fits at a low quality, by halves up to the highest that fits, as long as there is time.
Bytes best_of(Bytes fitting, int fits, const Properties& properties, const Rows& rows, size_t most,
              Clock::time_point deadline) {
    int too_high = highest_quality + 1;
    while (too_high - fits > 1 && Clock::now() < deadline) {
        const int quality = (fits + too_high) / 2;
        std::optional<Bytes> jpeg = encode(properties, rows, quality, most);
        if (jpeg) {
            fitting = std::move(*jpeg);
        }
        (jpeg ? fits : too_high) = quality;
    }
    return fitting;
}

template<class RowsAt>
FittedPicture fit(const Properties& properties, const RowsAt& rows_at, size_t most, const std::string& name,
                  Clock::time_point deadline) {
    for (unsigned scale = largest_scale(properties.size); scale > 0; --scale) {
        const Rows& rows = rows_at(scale);
        const int quality = scale > 1 ? lowest_quality : last_quality;
        if (std::optional<Bytes> jpeg = encode(properties, rows, quality, most)) {
            return {best_of(std::move(*jpeg), quality, properties, rows, most, deadline), properties.size, rows.size};
        }
    }
    throw Failure(exit_usage, fmt::format("{} does not fit into {} bytes even with an eighth of its width; nothing is "
                                          "stored, give a smaller picture",
                                          name, most));
}

// ---- PNG ------------------------------------------------------------------------------------------------------------

J_COLOR_SPACE colors_of(size_t components) {
    return components == 1 ? JCS_GRAYSCALE : JCS_RGB;
}

// What libpng calls wrong, in a sentence.
Failure broken_png(const std::string& name, const PngFault& fault) {
    return {exit_usage, fmt::format("{} is cut off or broken: {}; nothing is stored, give a whole PNG", name,
                                    printable(fault.what()))};
}

Failure costly_png(const std::string& name) {
    return {exit_usage, fmt::format("{} takes more than {} MB or {} s to read; nothing is stored, save it as a smaller "
                                    "PNG, or one that is not interlaced",
                                    name, most_decoder_memory / 1'000'000, longest_fitting.count())};
}

Properties properties_of_png(std::span<const uint8_t> picture, const std::string& name) {
    try {
        const PngHeader header = read_png_header(picture);
        return {header.size, colors_of(header.components), upright, {}};
    } catch (const PngFault& fault) {
        throw broken_png(name, fault);
    }
}

Rows rows_of_png(std::span<const uint8_t> picture, unsigned scale, Clock::time_point deadline, const std::string& name,
                 Properties& properties) {
    try {
        PngPicture read = read_png(picture, scale, deadline);
        properties.orientation = read.orientation;
        properties.color_profile = std::move(read.color_profile);
        return {read.size, properties.colors, properties.colors == JCS_GRAYSCALE ? 1 : 3, std::move(read.rows)};
    } catch (const PngFault& fault) {
        throw broken_png(name, fault);
    } catch (const PngBeyondBudget&) {
        throw costly_png(name);
    }
}

Rows smaller(const Rows& rows, unsigned scale, unsigned from, Clock::time_point deadline, const std::string& name) {
    Shrinker shrinker(rows.size, static_cast<size_t>(rows.components), scale, from);
    for (size_t y = 0; y < rows.size.height; ++y) {
        if (Clock::now() > deadline) {
            throw costly_png(name);
        }
        shrinker.add(std::span(rows.bytes).subspan(y * rows.row_size(), rows.row_size()));
    }
    return {shrinker.size(), rows.colors, rows.components, shrinker.take()};
}

} // namespace

FittedPicture fit_jpeg(std::span<const uint8_t> picture, size_t most, const std::string& name) {
    const Clock::time_point deadline = Clock::now() + longest_fitting;
    const Properties properties = properties_of(picture, name);
    check(properties, name);
    Rows rows;
    const auto rows_at = [&](unsigned scale) -> const Rows& {
        rows = {};
        return rows = rows_of(picture, scale, deadline, name);
    };
    return fit(properties, rows_at, most, name, deadline);
}

FittedPicture fit_png(std::span<const uint8_t> picture, size_t most, const std::string& name) {
    const Clock::time_point deadline = Clock::now() + longest_fitting;
    Properties properties = properties_of_png(picture, name);
    check(properties, name);
    const unsigned largest = largest_scale(properties.size);
    const Rows all = rows_of_png(picture, largest, deadline, name, properties);
    Rows fewer;
    const auto rows_at = [&](unsigned scale) -> const Rows& {
        return scale == largest ? all : fewer = smaller(all, scale, largest, deadline, name);
    };
    return fit(properties, rows_at, most, name, deadline);
}

} // namespace desk::phone
