#include "CheckPresets.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <random>

#include "Common/Text.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

const std::set<std::string> place_of_a_preset = {"preset_num", "linked_custom_mode"};

size_t size_of(const Field& field) {
    return field.kind == Field::Kind::text ? field.count : field.words() * sizeof(int32_t);
}

// The position in `presets` of one that is the same and is not `taken` yet, or their number.
size_t position_of(const sm_tag_custom_info& preset, const Presets& presets, const std::vector<bool>& taken) {
    for (size_t position = 0; position < presets.size(); ++position) {
        if (!taken[position] && is_same_preset(preset, presets[position])) {
            return position;
        }
    }
    return presets.size();
}

std::string fate_of(const sm_tag_custom_info& preset, size_t position, const Presets& list) {
    for (const sm_tag_custom_info& now : list) {
        if (now.custom_id == preset.custom_id) {
            return fmt::format("{} has other values in {}", name_of(preset, position),
                               fmt::join(differing_fields(preset, now, place_of_a_preset), ", "));
        }
    }
    return fmt::format("{} is gone", name_of(preset, position));
}

} // namespace

std::vector<std::string> differing_fields(const sm_tag_custom_info& one, const sm_tag_custom_info& other,
                                          const std::set<std::string>& ignored) {
    const Bytes left = encode(one);
    const Bytes right = encode(other);
    std::vector<std::string> names;
    for (const Field& field : fields()) {
        if (!ignored.contains(field.name) &&
            std::memcmp(left.data() + field.offset, right.data() + field.offset, size_of(field)) != 0) {
            names.push_back(field.name);
        }
    }
    return names;
}

std::string name_of(const sm_tag_custom_info& preset, size_t position) {
    return fmt::format("preset {} \"{}\" with id {}", position, title_text(preset), preset.custom_id);
}

bool is_same_preset(const sm_tag_custom_info& one, const sm_tag_custom_info& other) {
    return differing_fields(one, other, place_of_a_preset).empty();
}

CheckPresets::CheckPresets() : title_begin_(fmt::format("{}{:08x} ", check_title, std::random_device{}())) {}

void CheckPresets::begin(const Presets& presets) {
    foreign_ = presets;
}

std::vector<size_t> CheckPresets::leftovers() const {
    std::vector<size_t> positions;
    for (size_t position = 0; position < foreign_->size(); ++position) {
        if (text_of((*foreign_)[position].title, SM_TITLE_SIZE).starts_with(check_title)) {
            positions.push_back(position);
        }
    }
    return positions;
}

std::string CheckPresets::next_title() {
    return title_begin_ + std::to_string(++titles_);
}

void CheckPresets::claim(int32_t custom_id) {
    claimed_.insert(custom_id);
}

bool CheckPresets::looks_own(const sm_tag_custom_info& preset) const {
    return text_of(preset.title, SM_TITLE_SIZE).starts_with(title_begin_) || claimed_.contains(preset.custom_id);
}

bool CheckPresets::is_foreign_id(int32_t custom_id) const {
    return std::ranges::any_of(*foreign_, [=](const auto& preset) { return preset.custom_id == custom_id; });
}

// A foreign preset that the camera has mixed up with one of ours may carry our title. While one is missing, nothing
// that has a foreign id counts as our own.
CheckPresets::Sorted CheckPresets::sorted(const Presets& list) const {
    Sorted result;
    std::vector<bool> found(foreign_->size());
    std::vector<size_t> others;
    size_t next = 0;
    for (size_t position = 0; position < list.size(); ++position) {
        const size_t match = position_of(list[position], *foreign_, found);
        if (match == foreign_->size()) {
            others.push_back(position);
            continue;
        }
        found[match] = true;
        result.in_order = result.in_order && match >= next;
        next = match + 1;
    }
    for (size_t position = 0; position < found.size(); ++position) {
        if (!found[position]) {
            result.missing.push_back(position);
        }
    }
    std::ranges::copy_if(others, std::back_inserter(result.own), [&](size_t position) {
        return looks_own(list[position]) && (result.missing.empty() || !is_foreign_id(list[position].custom_id));
    });
    return result;
}

std::string CheckPresets::harm_in(const Presets& list) const {
    const Sorted now = sorted(list);
    if (now.missing.empty()) {
        return now.in_order ? "" : "the presets that were there before stand in another order";
    }
    std::vector<std::string> fates;
    fates.reserve(now.missing.size());
    for (const size_t position : now.missing) {
        fates.push_back(fate_of((*foreign_)[position], position, list));
    }
    return fmt::format("{}", fmt::join(fates, "; "));
}

std::vector<std::string> lost_presets(const Presets& before, const std::vector<size_t>& removed, const Presets& after) {
    std::vector<bool> found(after.size());
    std::vector<std::string> names;
    for (size_t position = 0; position < before.size(); ++position) {
        if (std::ranges::find(removed, position) != removed.end()) {
            continue;
        }
        const size_t match = position_of(before[position], after, found);
        if (match == after.size()) {
            names.push_back(name_of(before[position], position));
        } else {
            found[match] = true;
        }
    }
    return names;
}

} // namespace desk::phone
