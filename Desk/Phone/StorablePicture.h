// What a picture has to be to be stored with a preset.
#pragma once

#include <span>
#include <string>

#include "Wire/Record.h"

namespace desk::phone {

// A JPEG, and not too short for a camera. `name` is the picture's for the failure's line. Throws Failure (exit_usage).
void require_jpeg(std::span<const uint8_t> picture, const std::string& name);

// A JPEG that is whole to its end. Throws Failure (exit_usage).
void require_whole(std::span<const uint8_t> picture, const std::string& name);

struct SentPicture {
    Bytes jpeg;
    std::string change; // what was made of the file's picture, if anything
};

// The picture of a file, or of standard input, made smaller or made a JPEG where that is wanted and needed. Throws
// Failure.
SentPicture picture_from(const std::string& path, bool fits);

} // namespace desk::phone
