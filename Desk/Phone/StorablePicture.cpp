#include "StorablePicture.h"

#include <fmt/format.h>
#include <optional>

#include "Common/Failure.h"
#include "Fit.h"
#include "Jpeg.h"
#include "Png.h"
#include "StandardFiles.h"
#include "Wire/Frames.h"

namespace desk::phone {
namespace {

std::string size_text(const PictureSize& size, size_t bytes) {
    constexpr double kilobyte = 1e3;
    constexpr double megabyte = 1e6;
    const auto count = static_cast<double>(bytes);
    return count < megabyte ? fmt::format("{}x{}, {:.0f} KB", size.width, size.height, count / kilobyte)
                            : fmt::format("{}x{}, {:.1f} MB", size.width, size.height, count / megabyte);
}

Bytes file_of_picture(const std::string& path, bool fits) {
    if (fits) {
        return read_input(path, longest_file_to_fit);
    }
    return read_input(
        path, longest_picture,
        fmt::format("give a smaller file, or --fit, which makes JPEG and PNG files of up to {} MiB smaller",
                    longest_file_to_fit >> 20U));
}

} // namespace

void require_jpeg(std::span<const uint8_t> picture, const std::string& name) {
    if (is_png(picture)) {
        throw Failure(exit_usage,
                      fmt::format("{} is a PNG, and the camera takes JPEG files; --fit makes it one", name));
    }
    if (!is_jpeg(picture)) {
        throw Failure(exit_usage,
                      fmt::format("{} is no JPEG: it does not begin with FF D8 FF, or its header is broken", name));
    }
    if (picture.size() < smallest_picture) {
        throw Failure(exit_usage, fmt::format("{} has {} bytes; the camera takes pictures of at least {}", name,
                                              picture.size(), smallest_picture));
    }
}

void require_whole(std::span<const uint8_t> picture, const std::string& name) {
    if (const std::optional<std::string> fault = fault_of_jpeg(picture)) {
        throw Failure(exit_usage, broken_picture(name, *fault));
    }
}

SentPicture picture_from(const std::string& path, bool fits) {
    Bytes picture = file_of_picture(path, fits);
    const std::string name = name_of_input(path);
    const bool is_converted = fits && is_png(picture);
    if (!is_converted) {
        require_jpeg(picture, name);
    }
    if (is_converted || picture.size() > longest_picture) {
        FittedPicture fitted =
            is_converted ? fit_png(picture, longest_picture, name) : fit_jpeg(picture, longest_picture, name);
        const std::string before = size_text(fitted.before, picture.size());
        const std::string after = size_text(fitted.after, fitted.jpeg.size());
        return {std::move(fitted.jpeg), fmt::format("{}: {}, sent as {}", name, before, after)};
    }
    require_whole(picture, name);
    return {std::move(picture), ""};
}

} // namespace desk::phone
