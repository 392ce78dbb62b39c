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

} // namespace desk::phone
