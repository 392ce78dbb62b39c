// The presets and pictures that a new store begins with.
#pragma once

#include "PresetStore.h"

namespace desk::camera {

// Stores twelve sample presets that show off the feature (all modes, several colour styles and white balances) with
// pictures drawn for them, and links two of them to CUSTOM1 and CUSTOM2. Throws Failure (exit_machine).
void add_samples(PresetStore& store);

// A picture as a camera stores it: real JPEG data of a few hundred KB that holds four JPEG streams, each beginning with
// FF D8 FF DB, back to back: the picture itself and smaller versions. A phone gets the first two.
std::vector<uint8_t> draw_picture(int number);

} // namespace desk::camera
