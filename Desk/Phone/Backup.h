// All presets of a camera in a folder: for each a file and its picture, and a manifest. A backup that was broken off
// goes on where it stopped.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code. Throws Failure.
int back_up(const Options& options);

} // namespace desk::phone
