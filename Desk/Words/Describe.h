// A phone record in a photographer's words.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Wire/Record.h"

namespace desk {

std::string mode_name(int32_t mode);                   // 0 "Auto", 1 "Program", 2 "Aperture", 3 "Shutter", 4 "Manual"
std::string aperture_text(int32_t f_number_times_ten); // 28: "f/2.8", 110: "f/11", 0: "-"
std::string shutter_text(int32_t position);            // "1/125 s", "2.5 s"; a position without a time: "step 53"
std::string iso_text(int32_t iso);                     // "ISO 400", 0: "ISO auto"
std::string compensation_text(int32_t code);           // 50: "0 EV", 53: "+0.3 EV", 43: "-0.7 EV", 101: "code 101"
std::string color_style_text(int32_t style);           // 3: "style 3", 10 to 13: "C1" to "C4"
std::string white_balance_text(int32_t type, int32_t k_value); // 10: "5500 K", else "type 3"
std::string custom_mode_text(int32_t linked);                  // 0 "-", 1 "CUSTOM1", 2 "CUSTOM2"

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
