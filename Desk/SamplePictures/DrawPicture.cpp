#include "DrawPicture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <jpeglib.h>

#include "Common/Failure.h"

namespace desk::camera {
namespace {

// ---- The drawings ---------------------------------------------------------------------------------------------------

// Colours from 0 to 1.
struct Color {
    double red, green, blue;
};

Color operator*(Color color, double factor) {
    return {color.red * factor, color.green * factor, color.blue * factor};
}

Color mix(Color from, Color to, double share) {
    return {std::lerp(from.red, to.red, share), std::lerp(from.green, to.green, share),
            std::lerp(from.blue, to.blue, share)};
}

// A colour of the given hue, all numbers from 0 to 1.
Color color_of(double hue, double saturation, double brightness) {
    const auto channel = [&](double turn) {
        const double distance = std::abs(std::fmod(hue + turn, 1.0) * 6 - 3) - 1;
        return brightness * (1 - saturation * (1 - std::clamp(distance, 0.0, 1.0)));
    };
    return {channel(0), channel(2.0 / 3), channel(1.0 / 3)};
}

struct Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels; // red, green, blue, row by row
};

void put(Image& image, size_t pixel, Color color) {
    const auto byte = [](double value) { return static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255)); };
    image.pixels[3 * pixel] = byte(color.red);
    image.pixels[3 * pixel + 1] = byte(color.green);
    image.pixels[3 * pixel + 2] = byte(color.blue);
}

// The grain of a film: 0 to 1, the same for the same pixel always.
double grain(uint32_t x, uint32_t y) {
    uint32_t hash = x * 0x9E3779B1U ^ y * 0x85EBCA77U;
    hash = (hash ^ hash >> 15) * 0x2C1B3C6DU;
    return static_cast<double>((hash ^ hash >> 13) & 0xFF) / 255;
}

// A landscape: a sky with a sun, three ranges of hills one before the other, and a lake that mirrors them. Places count
// from 0 to 1 to the right and down.
class Landscape {
  public:
    explicit Landscape(int number) : number_(number), sun_x_(std::fmod(0.25 + number * 0.618, 0.8) + 0.1) {
        const double hue = 0.08 + number * 0.382;
        horizon_ = color_of(hue, 0.35, 0.98);
        zenith_ = color_of(hue + 0.55, 0.65, 0.7);
        for (int range = 0; range < ranges; ++range) {
            const double haze = 0.55 - 0.2 * range;
            hills_[static_cast<size_t>(range)] = mix(color_of(hue + 0.45, 0.6, 0.34), horizon_, haze);
        }
    }

    Color at(double x, double y) const {
        if (y < shore) {
            return land_and_sky(x, y);
        }
        const double depth = y - shore;
        const double ripple = 0.004 * std::sin(depth * depth * 900 + x * 14) + 0.3 * depth * depth;
        return land_and_sky(x + ripple, shore - depth * 1.9) * (0.8 - depth);
    }

  private:
    static constexpr double shore = 0.68;
    static constexpr int ranges = 3;

    // How far down the ridge of a range lies, the nearest range last.
    double ridge(int range, double x) const {
        const double phase = number_ * 1.7 + range * 2.3;
        const double slopes =
            std::sin(x * 5 + phase) * 0.5 + std::sin(x * 13 + phase * 3) * 0.2 + std::sin(x * 31 + phase * 7) * 0.06;
        return 0.36 + 0.1 * range + slopes * (0.13 - 0.03 * range);
    }

    Color land_and_sky(double x, double y) const {
        for (int range = ranges - 1; range >= 0; --range) {
            if (y > ridge(range, x)) {
                return hills_[static_cast<size_t>(range)];
            }
        }
        return sky(x, y);
    }

    Color sky(double x, double y) const {
        const Color air = mix(zenith_, horizon_, std::min(y / 0.5, 1.0));
        const double distance = std::hypot((x - sun_x_) * 1.5, y - 0.22);
        return mix(air, {1, 0.98, 0.9}, distance < 0.05 ? 1 : 0.7 * std::exp(-(distance - 0.05) * 12));
    }

    int number_;
    double sun_x_;
    Color horizon_{};
    Color zenith_{};
    std::array<Color, ranges> hills_{}; // the farthest first, pale with haze
};

// The sides halve three times without a rest.
constexpr int picture_width = 1280;
constexpr int picture_height = 856;

Image draw(int number) {
    const Landscape landscape(number);
    Image image{picture_width, picture_height, std::vector<uint8_t>(size_t{3} * picture_width * picture_height)};
    size_t pixel = 0;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const Color color =
                landscape.at(static_cast<double>(x) / image.width, static_cast<double>(y) / image.height);
            put(image, pixel++, color * (0.97 + 0.06 * grain(static_cast<uint32_t>(x), static_cast<uint32_t>(y))));
        }
    }
    return image;
}

// Each pixel of the answer is the mean of four.
Image half(const Image& image) {
    Image smaller{image.width / 2, image.height / 2, {}};
    const size_t row = size_t{3} * static_cast<size_t>(image.width);
    for (size_t y = 0; y < static_cast<size_t>(smaller.height); ++y) {
        for (size_t x = 0; x < static_cast<size_t>(smaller.width); ++x) {
            const uint8_t* corner = &image.pixels[2 * y * row + 6 * x];
            for (size_t channel = 0; channel < 3; ++channel) {
                const int sum =
                    corner[channel] + corner[channel + 3] + corner[channel + row] + corner[channel + row + 3];
                smaller.pixels.push_back(static_cast<uint8_t>((sum + 2) / 4));
            }
        }
    }
    return smaller;
}

// ---- JPEG -----------------------------------------------------------------------------------------------------------

// libjpeg ends the process on an error, unless it is taken elsewhere.
struct Errors {
    jpeg_error_mgr manager; // first: libjpeg hands out a pointer to it
    std::jmp_buf back;
    char line[JMSG_LENGTH_MAX];
};

[[noreturn]] void leave(j_common_ptr compressor) {
    Errors* errors = reinterpret_cast<Errors*>(compressor->err);
    errors->manager.format_message(compressor, errors->line);
    std::longjmp(errors->back, 1);
}

void compress(jpeg_compress_struct& compressor, const Image& image, int quality) {
    compressor.image_width = static_cast<JDIMENSION>(image.width);
    compressor.image_height = static_cast<JDIMENSION>(image.height);
    compressor.input_components = 3;
    compressor.in_color_space = JCS_RGB;
    jpeg_set_defaults(&compressor);
    jpeg_set_quality(&compressor, quality, TRUE);
    // A camera's streams begin with their tables: FF D8 FF DB.
    compressor.write_JFIF_header = FALSE;
    compressor.write_Adobe_marker = FALSE;
    jpeg_start_compress(&compressor, TRUE);
    const size_t row = size_t{3} * static_cast<size_t>(image.width);
    while (compressor.next_scanline < compressor.image_height) {
        // libjpeg reads the row only, but does not say so.
        JSAMPROW line = const_cast<uint8_t*>(&image.pixels[compressor.next_scanline * row]);
        jpeg_write_scanlines(&compressor, &line, 1);
    }
    jpeg_finish_compress(&compressor);
}

// What libjpeg works with. An error jumps, so nothing here may need a destructor but this.
struct Compression {
    jpeg_compress_struct compressor{};
    Errors errors{};
    unsigned char* bytes = nullptr;
    unsigned long size = 0;

    Compression() {
        compressor.err = jpeg_std_error(&errors.manager);
        errors.manager.error_exit = leave;
    }
    Compression(const Compression&) = delete;
    Compression& operator=(const Compression&) = delete;
    ~Compression() {
        jpeg_destroy_compress(&compressor);
        std::free(bytes);
    }

    bool run(const Image& image, int quality) {
        if (setjmp(errors.back) != 0) {
            return false;
        }
        jpeg_create_compress(&compressor);
        jpeg_mem_dest(&compressor, &bytes, &size);
        compress(compressor, image, quality);
        return true;
    }
};

void append_jpeg(std::vector<uint8_t>& streams, const Image& image, int quality) {
    Compression compression;
    if (!compression.run(image, quality)) {
        throw Failure(exit_machine, std::string("cannot draw a sample picture: ") + compression.errors.line);
    }
    streams.insert(streams.end(), compression.bytes, compression.bytes + compression.size);
}

constexpr int stream_count = 4;
constexpr int quality_of_pictures = 93;

} // namespace

std::vector<uint8_t> draw_picture(int number) {
    std::vector<uint8_t> streams;
    Image image = draw(number);
    for (int stream = 0; stream < stream_count; ++stream) {
        append_jpeg(streams, image, quality_of_pictures);
        image = half(image);
    }
    return streams;
}

} // namespace desk::camera
