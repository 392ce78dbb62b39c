// Tells the camera's user of the lab: which faults were asked for, and when each strikes.
#pragma once

#include <string>

namespace desk::camera {

struct Knobs;

// One line for each fault, at the start.
void announce_lab(const Knobs& knobs);

// A fault, by the name of its command, has struck.
void tell_of_fault(const std::string& fault, const std::string& what);

// A command has been carried out.
void tell_of_command(const std::string& command, const std::string& who);
// A command of a script was not.
void tell_of_refused_command(const std::string& command, const std::string& who, const std::string& why);

// Allocations are refused, or no more, and count from here on.
void start_refusing_allocations(const Knobs& knobs);
// Tells of the allocations of the library that were refused since the last call. To be called when it has returned:
// nothing can be told in the middle of one.
void tell_refused_allocations(const Knobs& knobs);

} // namespace desk::camera
