// Stores the presets of a backup in a camera, which keeps all that it holds. A restore that was broken off goes on
// where it stopped.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code. Throws Failure.
int restore(const Options& options);

} // namespace desk::phone
