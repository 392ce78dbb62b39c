// Watches the allocations that the library makes, and refuses them on demand. malloc, calloc and free of the
// whole test program pass through here; those called from the library's own code are the library's.
#pragma once

#include <cstddef>

namespace library_heap {

void refuse(int n, bool for_good); // the n-th allocation from now on, and with `for_good` all after it
void reset();                      // refuses nothing, and counts anew
int asked();                       // allocations asked for since `refuse` or `reset`

size_t size_of(const void* block); // bytes of a block that the library owns, 0 for any other address
size_t blocks();                   // blocks that the library owns
size_t bytes();                    // their bytes

// Called with each block that the library owns, before it is freed; null: nobody is.
void on_free(void (*watcher)(const void* block));

} // namespace library_heap
