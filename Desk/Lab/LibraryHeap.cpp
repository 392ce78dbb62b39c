#include "Lab/LibraryHeap.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <link.h>

// The C library's own allocator, and the sanitizer's where there is one: that must see every block to guard
// it.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void __libc_free(void* block);
void* __interceptor_malloc(size_t size) __attribute__((weak));
void* __interceptor_calloc(size_t count, size_t size) __attribute__((weak));
void __interceptor_free(void* block) __attribute__((weak));
}

namespace library_heap {
namespace {

constexpr int unwritten_byte = 0xA5;

struct Block {
    const void* address;
    size_t size;
};

// No container that allocates: this runs inside malloc.
std::array<Block, 64> owned;
int asked_count = 0;
int refuse_at = 0;
bool refuse_for_good = false;
void (*free_watcher)(const void*) = nullptr;

struct CodeRange {
    uintptr_t first = 0;
    uintptr_t end = 0;
};

int find_library(dl_phdr_info* module, size_t, void* found) {
    if (std::strstr(module->dlpi_name, "libshotmentor.so") == nullptr) {
        return 0;
    }
    for (int index = 0; index < module->dlpi_phnum; ++index) {
        const auto& segment = module->dlpi_phdr[index];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            const uintptr_t first = module->dlpi_addr + segment.p_vaddr;
            *static_cast<CodeRange*>(found) = {first, first + segment.p_memsz};
        }
    }
    return 1;
}

// Whether an address lies in the code of libshotmentor.so. What the C library allocates on the library's
// behalf (a FILE and its buffer) does not count.
bool is_library_code(const void* address) {
    static CodeRange code;
    if (code.end == 0) {
        dl_iterate_phdr(find_library, &code);
    }
    const auto where = reinterpret_cast<uintptr_t>(address);
    return code.first <= where && where < code.end;
}

bool is_refused() {
    ++asked_count;
    return refuse_at > 0 && (asked_count == refuse_at || (refuse_for_good && asked_count > refuse_at));
}

Block* find(const void* address) {
    for (Block& block : owned) {
        if (block.address == address) {
            return &block;
        }
    }
    return nullptr;
}

void* own(void* address, size_t size) {
    if (Block* const slot = address != nullptr ? find(nullptr) : nullptr) {
        *slot = {address, size};
    }
    return address;
}

void disown(const void* address) {
    Block* const block = address != nullptr ? find(address) : nullptr;
    if (block == nullptr) {
        return;
    }
    if (free_watcher != nullptr) {
        free_watcher(address);
    }
    *block = {};
}

void* plain_malloc(size_t size) {
    return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

void* plain_calloc(size_t count, size_t size) {
    return __interceptor_calloc != nullptr ? __interceptor_calloc(count, size) : __libc_calloc(count, size);
}

void plain_free(void* block) {
    __interceptor_free != nullptr ? __interceptor_free(block) : __libc_free(block);
}

template<class Allocate>
void* allocate(size_t size, const void* caller, bool cleared, Allocate plain) {
    if (!is_library_code(caller)) {
        return plain();
    }
    if (is_refused()) {
        errno = ENOMEM;
        return nullptr;
    }
    void* const block = plain();
    if (block != nullptr && !cleared) {
        std::memset(block, unwritten_byte, size); // what the library does not write shows
    }
    return own(block, size);
}

} // namespace

void refuse(int n, bool for_good) {
    asked_count = 0;
    refuse_at = n;
    refuse_for_good = for_good;
}

int asked() {
    return asked_count;
}

void reset() {
    refuse(0, false);
}

size_t size_of(const void* block) {
    const Block* const found = block != nullptr ? find(block) : nullptr;
    return found != nullptr ? found->size : 0;
}

size_t blocks() {
    size_t count = 0;
    for (const Block& block : owned) {
        count += block.address != nullptr ? 1 : 0;
    }
    return count;
}

size_t bytes() {
    size_t sum = 0;
    for (const Block& block : owned) {
        sum += block.size;
    }
    return sum;
}

void on_free(void (*watcher)(const void*)) {
    free_watcher = watcher;
}

} // namespace library_heap

extern "C" {

void* malloc(size_t size) {
    return library_heap::allocate(size, __builtin_return_address(0), false,
                                  [=] { return library_heap::plain_malloc(size); });
}

void* calloc(size_t count, size_t size) {
    return library_heap::allocate(count * size, __builtin_return_address(0), true,
                                  [=] { return library_heap::plain_calloc(count, size); });
}

void free(void* block) {
    library_heap::disown(block);
    library_heap::plain_free(block);
}
}
