#include "PresetChanges.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Forecast/Forecast.h"
#include "PresetFiles/PresetFile.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;
using Presets = std::vector<sm_tag_custom_info>;
using Kind = PresetChange::Kind;

const char* name_of(Kind kind) {
    switch (kind) {
    case Kind::listed:
        return "listed";
    case Kind::added:
        return "added";
    case Kind::gone:
        return "gone";
    case Kind::renamed:
        return "renamed";
    case Kind::changed:
        break;
    }
    return "changed";
}

NumberedPreset numbered(const Presets& presets, size_t position) {
    return {static_cast<int>(position), presets[position]};
}

std::string title_of(const sm_tag_custom_info& preset) {
    return text_of(preset.title, sizeof preset.title);
}

// A preset's number and the like are the camera's own.
std::vector<std::string> changed_entries(const sm_tag_custom_info& before, const sm_tag_custom_info& after) {
    std::vector<std::string> names;
    for (const Difference& difference : differences(before, after)) {
        if (difference.entry != entry_in_words("title")) {
            names.push_back(difference.entry);
        }
    }
    return names;
}

void append_changes(const sm_tag_custom_info& before, const NumberedPreset& after, std::vector<PresetChange>& changes) {
    if (title_of(before) != title_of(after.preset)) {
        changes.push_back({Kind::renamed, after, before, {}});
    }
    if (std::vector<std::string> entries = changed_entries(before, after.preset); !entries.empty()) {
        changes.push_back({Kind::changed, after, before, std::move(entries)});
    }
}

} // namespace

std::vector<PresetChange> changes_between(const Presets& before, const Presets& after) {
    std::vector<PresetChange> changes;
    for (size_t position = 0; position < before.size(); ++position) {
        if (find(after, before[position].custom_id) == nullptr) {
            changes.push_back({Kind::gone, numbered(before, position), {}, {}});
        }
    }
    for (size_t position = 0; position < after.size(); ++position) {
        if (const sm_tag_custom_info* old = find(before, after[position].custom_id)) {
            append_changes(*old, numbered(after, position), changes);
        } else {
            changes.push_back({Kind::added, numbered(after, position), {}, {}});
        }
    }
    return changes;
}

std::vector<PresetChange> listed(const Presets& presets) {
    std::vector<PresetChange> changes;
    for (size_t position = 0; position < presets.size(); ++position) {
        changes.push_back({Kind::listed, numbered(presets, position), {}, {}});
    }
    return changes;
}

std::string line_of(const PresetChange& change) {
    std::string line = fmt::format("{}: {}", name_of(change.kind), reference_to(change.preset));
    switch (change.kind) {
    case Kind::renamed:
        return line + fmt::format(", was \"{}\"", title_text(change.before));
    case Kind::changed:
        return line + fmt::format(": {}", fmt::join(change.entries, ", "));
    default:
        return line;
    }
}

Json json_of(const PresetChange& change, Form form) {
    Json json = {{"change", name_of(change.kind)},
                 {"number", change.preset.number},
                 {"custom_id", change.preset.preset.custom_id}};
    if (change.kind == Kind::renamed) {
        json["title_before"] = json_of_preset(change.before, form)["title"];
    }
    if (change.kind == Kind::changed) {
        json["entries"] = change.entries;
    }
    json["preset"] = json_of_preset(change.preset.preset, form);
    return json;
}

} // namespace desk::phone
