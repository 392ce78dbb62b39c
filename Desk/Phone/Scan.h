// Finds cameras over Bluetooth.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code. Throws Failure.
int scan(const Options& options);

} // namespace desk::phone
