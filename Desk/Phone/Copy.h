// Presets from one camera into another, or into the same once more.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code. Throws Failure, whose line names the camera that it is about.
int copy(const Options& options);

} // namespace desk::phone
