// Tells the camera's user of the lab: which faults were asked for, and when each strikes.
#pragma once

#include <string>

namespace desk::camera {

struct LabOptions;

// One line for each fault, at the start.
void announce_lab(const LabOptions& lab);

// A fault has struck.
void tell_of_lab(const std::string& what);

// Tells of the allocations of the library that were refused since the last call. To be called when it has returned:
// nothing can be told in the middle of one.
void tell_refused_allocations(const LabOptions& lab);

} // namespace desk::camera
