#include "AllocationFaults.h"

#include "Lab/LibraryHeap.h"

namespace desk::camera {

void require_allocator(bool, char**) {}

bool can_refuse_allocations() {
    return true;
}

void refuse_allocations(int n, bool for_good) {
    library_heap::refuse(n, for_good);
}

int refused_allocations() {
    return library_heap::refused();
}

} // namespace desk::camera
