// Plays the camera's side of a capture to a phone. There is no store, and the library is not used.
#pragma once

namespace desk::camera {

struct Options;

// Returns the exit code: exit_differs when the phone said something else than then. Throws Failure.
int replay(const Options& options);

} // namespace desk::camera
