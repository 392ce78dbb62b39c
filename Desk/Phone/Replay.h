// Sends the phone's side of a capture again, and compares what the camera says with what it said then.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code: exit_differs when the camera said something else. Throws Failure, or OutputClosed.
int replay(const Options& options);

} // namespace desk::phone
