// The file descriptors of this process.
#pragma once

namespace desk::camera {

// Opens what the caller has closed of standard input, output and error, for reading alone: else the next file that is
// opened takes its place, and lines for standard error are written into the store.
void fill_standard_descriptors();

// Raises the limit of open files to what the budgets sum up to. Throws Failure (exit_machine) when this machine does
// not allow so many.
void ensure_descriptors();

} // namespace desk::camera
