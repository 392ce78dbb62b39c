#include "AllocationFaults.h"

#include "Lab/LibraryHeap.h"
#include "Options.h"

namespace desk::camera {

void require_allocator_for(const LabOptions&, char**) {}

void refuse_allocations(const LabOptions& lab) {
    library_heap::refuse(lab.refuse_allocation, lab.refuse_for_good);
}

int refused_allocations() {
    return library_heap::refused();
}

} // namespace desk::camera
