// A host whose services cost next to nothing, so that what is measured is the library's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "ADE_ShotMentor.h"

namespace bench {

extern int preset_count;                           // presets that the list service reports, 0 to 40
extern std::vector<std::string>* lines;            // the texts of logged lines, where somebody wants them
const tag_custom_info& camera_preset();            // one that sets every quantity and ends with third ISO steps
void make_picture(std::span<const uint8_t> bytes); // what the picture service's file holds from now on
const char* picture_path();

} // namespace bench
