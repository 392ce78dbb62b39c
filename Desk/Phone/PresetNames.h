// How a command names a preset: 12 is its number, id:13 its custom_id, "Golden hour" its title or a part of it.
#pragma once

#include <string>
#include <vector>

#include "Presets.h"

namespace desk::phone {

// What is wrong with a name whatever the camera holds, or nothing.
std::string fault_of_name(const std::string& name);

// The preset that is meant. Upper and lower case are the same in a title, and a whole title wins over parts of others.
// Throws Failure: exit_missing when the camera does not have the preset, exit_usage when it has several that fit.
NumberedPreset preset_named(const std::vector<sm_tag_custom_info>& presets, const std::string& name);

// The presets that are meant, each once.
std::vector<NumberedPreset> presets_named(const std::vector<sm_tag_custom_info>& presets,
                                          const std::vector<std::string>& names);

} // namespace desk::phone
