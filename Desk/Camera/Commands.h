// The commands on a store at rest.
#pragma once

#include "Options.h"

namespace desk::camera {

// Runs the command that the options name and returns its exit code. Throws Failure.
int run_command(const Options& options);

} // namespace desk::camera
