// What the camera can set: the steps of its scales in the phone's codes, from the library's own tables. What it reports
// as nothing (an aperture of f/1.0, automatic sensitivity) is no step.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace desk {

// The codes of a scale's steps: they rise, and there is at least one.
using Steps = std::vector<int32_t>;

const Steps& aperture_steps();     // f-numbers times ten, 11 to 450
const Steps& shutter_steps();      // the phone's positions, from the longest time, 60 s, to the shortest
const Steps& full_iso_steps();     // ISO numbers in full steps, 100 to 51200
const Steps& third_iso_steps();    // ISO numbers in third steps, 100 to 51200
const Steps& compensation_steps(); // the phone's codes, 0 (-5 EV) to 100 (+5 EV); 50 is none

bool is_step(const Steps& steps, int32_t code);

// The greatest step that is not above a code, the smallest that is not below it, and the nearest one: the lower of two
// that are equally near.
std::optional<int32_t> step_below(const Steps& steps, int32_t code);
std::optional<int32_t> step_above(const Steps& steps, int32_t code);
int32_t nearest_step(const Steps& steps, int32_t code);

// The phone's scale of ISO numbers, from 50 at position 1 to 51200 at 30; 0, automatic, is at position 0. A preset's
// iso_1_3 is listed as a number and sent as a position.
std::optional<int32_t> iso_at_position(int32_t position);
std::optional<int32_t> position_of_iso(int32_t iso);

// The shutter position that a camera stores as 0, as it does what carries no shutter time. It is that of 1 s.
int32_t shutter_stored_as_zero();

} // namespace desk
