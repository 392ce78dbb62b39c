// Stores one preset, says what the camera will make of it, and looks what it did make.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code. Throws Failure.
int store(const Options& options);

} // namespace desk::phone
