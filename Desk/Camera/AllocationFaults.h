// Refusing the library's allocations, for --refuse-allocation, takes the place of malloc in the whole process. The
// camera that users run keeps the C library's: shotmentor-camera-lab, built from the same sources, has the other one.
#pragma once

namespace desk::camera {

struct LabOptions;

// To be called before anything is opened. In shotmentor-camera this runs the shotmentor-camera-lab beside it in its own
// place, with the same arguments, where the options refuse an allocation. Throws Failure (exit_machine).
void require_allocator_for(const LabOptions& lab, char** arguments);

// Allocations count from here on.
void refuse_allocations(const LabOptions& lab);
// How many were refused since then.
int refused_allocations();

} // namespace desk::camera
