// How two presets differ, in a photographer's words.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Wire/Record.h"

namespace desk {

// An entry that is not as was expected.
struct Difference {
    std::string entry;
    std::string expected;
    std::string found;
};

// Of one field of two records of a phone. Of a field of several words, the first that differs is told, and how many
// more do.
std::optional<Difference> difference_of(const Field& field, const Bytes& expected, const Bytes& found);

bool is_manual(int32_t mode);
// What lists show as the compensation in that mode, whatever the camera holds.
constexpr int32_t no_compensation_in_manual_lists = 15;

} // namespace desk
