// The presets and pictures that a new store begins with.
#pragma once

#include "PresetStore.h"

namespace desk::camera {

// Stores twelve sample presets that show off the feature (all modes, several colour styles and white balances) with
// pictures of their own, and links two of them to CUSTOM1 and CUSTOM2. Throws Failure (exit_machine).
void add_samples(PresetStore& store);

} // namespace desk::camera
