// Prints for each job what the library has asked its allocator for: a line of allocations, most bytes at a time, name.

#include <cstdio>

#include "Jobs.h"
#include "Lab/LibraryHeap.h"

int main() {
    for (const bench::Job& job : bench::jobs()) {
        job.prepare();
        library_heap::reset();
        job.run();
        std::printf("%d %zu %s\n", library_heap::asked(), library_heap::most_bytes(), job.name);
        job.clean();
    }
    return 0;
}
