#include "StorablePicture.h"

#include <fmt/format.h>
#include <optional>

#include "Common/Failure.h"
#include "Jpeg.h"
#include "Wire/Frames.h"

namespace desk::phone {

void require_jpeg(std::span<const uint8_t> picture, const std::string& name) {
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

} // namespace desk::phone
