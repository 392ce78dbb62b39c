// Refusing the library's allocations, for --refuse-allocation, takes the place of malloc in the whole process. The
// camera that users run keeps the C library's: shotmentor-camera-lab, built from the same sources, has the other one.
#pragma once

namespace desk::camera {

// To be called before anything is opened. In shotmentor-camera this runs the shotmentor-camera-lab beside it in its own
// place, with the same arguments, where allocations are to be refused. Throws Failure (exit_machine).
void require_allocator(bool is_to_refuse, char** arguments);

// Whether this program is the one that can.
bool can_refuse_allocations();
// The n-th allocation of the library from here on, and with `for_good` all after it; none where n is 0.
void refuse_allocations(int n, bool for_good);
// How many were refused since then.
int refused_allocations();

} // namespace desk::camera
