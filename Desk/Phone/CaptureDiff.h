// What two captured conversations differ in.
#pragma once

namespace desk::phone {

struct Options;

// Compares the capture of the command line with the other one, and prints what differs: the first difference, or all.
// Returns exit_done or exit_differs. Throws Failure, or OutputClosed.
int compare_captures(const Options& options);

} // namespace desk::phone
