// Watches the allocations that the library makes, and refuses them on demand. malloc, calloc and free of the whole test
// program pass through here; those called from the library's own code are the library's.
#pragma once

#include <cstddef>

namespace library_heap {

void refuse(int n, bool for_good); // the n-th allocation from now on, and with `for_good` all after it
void reset();                      // refuses nothing, and counts anew
int asked();                       // allocations asked for since `refuse` or `reset`
int refused();                     // and those of them that were refused

// The library's new blocks hold bytes that nobody would send, so that what the library does not write shows; at most so
// many of a block when the time to fill a whole one counts.
void fill_at_most(size_t size);

// The first of these bytes that nobody has written since the library got the block, null when there is none. Only the
// memory sanitizer and valgrind know; without them the answer is always null.
const void* first_unwritten(const void* data, size_t size);
bool knows_unwritten();

// To be called with each line of the log that the library hands over, before its text is used. The memory sanitizer
// knows which bytes of the library's stack nobody has written, and would take that for whoever has that stack next: the
// bytes behind the line's end, and those of functions that have returned.
void forget_stack(const char* line, size_t size);

size_t size_of(const void* block); // bytes of a block that the library owns, 0 for any other address
size_t blocks();                   // blocks that the library owns
size_t bytes();                    // their bytes
size_t most_bytes();               // the most that they were since `reset`

// Blocks freed since `reset` behind whose end something was written. The address sanitizer and valgrind stop at such a
// write; with them the answer is always 0.
size_t overruns();
bool has_other_guards(); // one of those two

// Called with each block that the library owns, before it is freed; null: nobody is.
void on_free(void (*watcher)(const void* block));

} // namespace library_heap
