#include "PresetChanges.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "PresetFiles/PresetJson.h"
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

std::vector<std::string> changed_fields(const sm_tag_custom_info& before, const sm_tag_custom_info& after) {
    const Json old_entries = to_json(before);
    const Json entries = to_json(after);
    std::vector<std::string> names;
    for (const auto& [name, value] : entries.items()) {
        if (name != "title" && name != "preset_num" && old_entries[name] != value) {
            names.push_back(name);
        }
    }
    return names;
}

void append_changes(const sm_tag_custom_info& before, const NumberedPreset& after, std::vector<PresetChange>& changes) {
    if (to_json(before)["title"] != to_json(after.preset)["title"]) {
        changes.push_back({Kind::renamed, after, before, {}});
    }
    if (std::vector<std::string> fields = changed_fields(before, after.preset); !fields.empty()) {
        changes.push_back({Kind::changed, after, before, std::move(fields)});
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
        return line + fmt::format(": {}", fmt::join(change.fields, ", "));
    default:
        return line;
    }
}

Json json_of(const PresetChange& change) {
    Json json = {{"change", name_of(change.kind)},
                 {"number", change.preset.number},
                 {"custom_id", change.preset.preset.custom_id}};
    if (change.kind == Kind::renamed) {
        json["title_before"] = to_json(change.before)["title"];
    }
    if (change.kind == Kind::changed) {
        json["fields"] = change.fields;
    }
    json["preset"] = to_json(change.preset.preset);
    return json;
}

} // namespace desk::phone
