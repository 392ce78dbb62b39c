// Values of a preset that have a name each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace desk {

std::string mode_name(int32_t mode);          // 0 "Auto", 1 "Program", 2 "Aperture", 3 "Shutter", 4 "Manual"
std::string color_style_text(int32_t style);  // 3: "style 3", 10 to 13: "C1" to "C4"
std::string white_balance_name(int32_t type); // 2: "daylight", 10: "Kelvin", 11: "type 11"
std::string custom_mode_text(int32_t linked); // 0 "-", 1 "CUSTOM1", 2 "CUSTOM2"
inline constexpr int32_t no_custom_mode = 0;

// What a mode leaves to the photographer. The camera decides the rest.
bool carries_aperture(int32_t mode);
bool carries_shutter(int32_t mode);
bool carries_compensation(int32_t mode);

// The names of a value's codes from 0 on.
using Names = std::vector<std::string>;
const Names& mode_names();
const Names& color_style_names();
const Names& white_balance_names();
const Names& custom_mode_names();

// Where the record has the fine adjustment of each white balance, in the order of their names.
std::span<const size_t> adjustment_offsets();

// The code that a person means, who need not mind upper and lower case.
std::optional<int32_t> code_of(const Names& names, std::string_view name);

} // namespace desk
