// A list that follows the camera's presets.
#pragma once

#include "Options.h"

namespace desk::phone {

// Looks at the presets again and again, until a signal ends it. Between two looks it leaves the camera to others.
// On a terminal a table shows them; else there is a line, or with --json an object, for each change. A first look that
// cannot connect throws as `list` does; later ones are told, and tried again.
int watch(const Options& options);

} // namespace desk::phone
