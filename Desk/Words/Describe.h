// A phone record in a photographer's words.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Values/Names.h"
#include "Values/Scales.h"
#include "Wire/Record.h"

namespace desk {

std::string white_balance_text(int32_t type, int32_t k_value); // 10: "5500 K", 2: "daylight"

// Aperture, shutter time and compensation as the mode carries them: "-" where the camera decides.
struct Exposure {
    std::string aperture, shutter, iso, compensation;
};
Exposure exposure_of(const sm_tag_custom_info& preset);

// The title with control characters and broken UTF-8 replaced, fit for a terminal.
std::string title_text(const sm_tag_custom_info& preset);

// Everything that `show` prints: label and text, in order.
std::vector<std::pair<std::string, std::string>> description_of(const sm_tag_custom_info& preset);

// The header and one row for a preset at a position of the list: number, id, title, custom mode, mode, aperture,
// shutter, ISO, EV, colour style, white balance.
std::vector<std::string> table_header();
std::vector<std::string> table_row(int number, const sm_tag_custom_info& preset);

} // namespace desk
