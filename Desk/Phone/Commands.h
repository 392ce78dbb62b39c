// What each command does.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code. Throws Failure, or OutputClosed.
int run(const Options& options);

} // namespace desk::phone
