// The camera library's own conversion of presets, for whoever wants to know beforehand what a camera will make of one.
// It is the library's source with other names for its functions, tables and services: a program may use the library as
// well. Like the library, it is for one thread.
#pragma once

#include <cstdint>

#include "ADE_ShotMentor_Records.h"

namespace desk {

enum class IsoSteps { full, third, unknown };

// What a camera stores of a preset, `last_listed_mode` being the mode of the preset that it listed last.
tag_custom_info stored_record(const sm_tag_custom_info& sent, int32_t last_listed_mode);

// What a camera lists of a preset that no custom mode uses. `iso_steps` is not unknown.
sm_tag_custom_info listed_record(const tag_custom_info& stored, IsoSteps iso_steps);

} // namespace desk
