// What has become of a camera's presets between two lists of them.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Presets.h"

namespace desk::phone {

struct PresetChange {
    enum class Kind { listed, added, gone, renamed, changed };
    Kind kind;
    NumberedPreset preset;            // as it is now; one that is gone, as it was
    sm_tag_custom_info before = {};   // renamed, changed
    std::vector<std::string> entries; // changed: those of a preset file that have
};

// A preset is known by its custom_id. Its number alone is no change: presets get others when one before them goes.
std::vector<PresetChange> changes_between(const std::vector<sm_tag_custom_info>& before,
                                          const std::vector<sm_tag_custom_info>& after);

// All of a first list.
std::vector<PresetChange> listed(const std::vector<sm_tag_custom_info>& presets);

// One line without its end.
std::string line_of(const PresetChange& change);

nlohmann::ordered_json json_of(const PresetChange& change, Form form);

} // namespace desk::phone
