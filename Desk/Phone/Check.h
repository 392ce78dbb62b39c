// The command `check`: goes through all that a camera owes its phone, and says what it got wrong.
#pragma once

namespace desk::phone {

struct Options;

// Returns the exit code. Throws Failure, or OutputClosed; the camera has its presets back then as well.
int check(const Options& options);

} // namespace desk::phone
