#include "Lab/LibraryHeap.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <link.h>
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#endif

// The C library's own allocator, and the sanitizer's where there is one: that must see every block to guard it.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void __libc_free(void* block);
void* __interceptor_malloc(size_t size) __attribute__((weak));
void* __interceptor_calloc(size_t count, size_t size) __attribute__((weak));
void __interceptor_free(void* block) __attribute__((weak));

void __msan_poison(const volatile void* data, size_t size) __attribute__((weak));
void __msan_unpoison(const volatile void* data, size_t size) __attribute__((weak));
void __msan_check_mem_is_initialized(const volatile void* data, size_t size) __attribute__((weak));
intptr_t __msan_test_shadow(const volatile void* data, size_t size) __attribute__((weak));

// The C++ library is not built with the memory sanitizer, which does not see what that writes. Therefore only the
// library's own blocks and variables count as unwritten, not all new and freed memory.
const char* __msan_default_options() {
    return "poison_in_malloc=0:poison_in_free=0";
}
}

namespace library_heap {
namespace {

constexpr int unwritten_byte = 0xA5;
size_t filled_size = SIZE_MAX;
constexpr int guard_byte = 0x5A;
constexpr size_t guard_size = 1024; // more than a record, which is what the library writes at a time

struct Block {
    const void* address;
    size_t size;
};

// No container that allocates: this runs inside malloc.
std::array<Block, 64> owned;
size_t overrun_count = 0;
int asked_count = 0;
int refused_count = 0;
int refuse_at = 0;
size_t most_owned_bytes = 0;
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

CodeRange find_code() {
    CodeRange code;
    dl_iterate_phdr(find_library, &code);
    return code;
}

// Found before main begins, not at the first allocation: that comes before a sanitizer is ready.
const CodeRange library_code = find_code();

// Whether an address lies in the code of libshotmentor.so. What the C library allocates on the library's behalf (a FILE
// and its buffer) does not count.
bool is_library_code(const void* address) {
    const auto where = reinterpret_cast<uintptr_t>(address);
    return library_code.first <= where && where < library_code.end;
}

bool is_refused() {
    ++asked_count;
    const bool refused = refuse_at > 0 && (asked_count == refuse_at || (refuse_for_good && asked_count > refuse_at));
    refused_count += refused ? 1 : 0;
    return refused;
}

Block* find(const void* address) {
    for (Block& block : owned) {
        if (block.address == address) {
            return &block;
        }
    }
    return nullptr;
}

bool runs_in_valgrind() {
#ifdef RUNNING_ON_VALGRIND
    return RUNNING_ON_VALGRIND != 0;
#else
    return false;
#endif
}

// Bytes behind each of the library's blocks that nobody may write. The address sanitizer and valgrind guard blocks
// themselves.
size_t guard() {
    return has_other_guards() ? 0 : guard_size;
}

bool is_overrun(const Block& block) {
    const auto* const behind = static_cast<const unsigned char*>(block.address) + block.size;
    return std::any_of(behind, behind + guard(), [](int byte) { return byte != guard_byte; });
}

void* own(void* address, size_t size) {
    if (Block* const slot = address != nullptr ? find(nullptr) : nullptr) {
        std::memset(static_cast<char*>(address) + size, guard_byte, guard());
        *slot = {address, size};
        most_owned_bytes = std::max(most_owned_bytes, bytes());
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
    overrun_count += is_overrun(*block) ? 1 : 0;
    *block = {};
}

void* plain_malloc(size_t size) {
    return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

void* plain_calloc(size_t size) {
    return __interceptor_calloc != nullptr ? __interceptor_calloc(1, size) : __libc_calloc(1, size);
}

void plain_free(void* block) {
    if (__interceptor_free != nullptr) {
        __interceptor_free(block);
    } else {
        __libc_free(block);
    }
}

// Tells the tools that know which bytes have been written to forget that these were.
void mark_unwritten(void* block, size_t size) {
    if (__msan_poison != nullptr) {
        __msan_poison(block, size);
    }
#ifdef VALGRIND_MAKE_MEM_UNDEFINED
    VALGRIND_MAKE_MEM_UNDEFINED(block, size);
#endif
}

template<class Allocate>
void* allocate(size_t size, const void* caller, bool cleared, Allocate plain) {
    if (!is_library_code(caller)) {
        return plain(size);
    }
    if (is_refused()) {
        errno = ENOMEM;
        return nullptr;
    }
    void* const block = plain(size + guard());
    if (block != nullptr && !cleared) {
        std::memset(block, unwritten_byte, std::min(size, filled_size));
        mark_unwritten(block, size);
    }
    return own(block, size);
}

} // namespace

void refuse(int n, bool for_good) {
    asked_count = 0;
    refused_count = 0;
    refuse_at = n;
    refuse_for_good = for_good;
}

int asked() {
    return asked_count;
}

int refused() {
    return refused_count;
}

void reset() {
    refuse(0, false);
    overrun_count = 0;
    most_owned_bytes = bytes();
}

bool has_other_guards() {
    const bool has_address_sanitizer = __interceptor_malloc != nullptr && __msan_poison == nullptr;
    return has_address_sanitizer || runs_in_valgrind();
}

size_t overruns() {
    return overrun_count;
}

void fill_at_most(size_t size) {
    filled_size = size;
}

const void* first_unwritten(const void* data, size_t size) {
    if (__msan_test_shadow != nullptr) {
        const intptr_t offset = __msan_test_shadow(data, size);
        return offset < 0 ? nullptr : static_cast<const char*>(data) + offset;
    }
#ifdef VALGRIND_CHECK_MEM_IS_DEFINED
    VALGRIND_DISABLE_ERROR_REPORTING; // whoever asks decides what the answer means
    const auto first = VALGRIND_CHECK_MEM_IS_DEFINED(data, size);
    VALGRIND_ENABLE_ERROR_REPORTING;
    return reinterpret_cast<const void*>(first); // NOLINT(performance-no-int-to-ptr): valgrind gives numbers
#else
    return nullptr;
#endif
}

void forget_stack(const char* line, size_t size) {
    constexpr size_t deepest_call = 1024; // of the library's functions that a line is made of
    if (__msan_unpoison != nullptr) {
        __msan_check_mem_is_initialized(line, std::strlen(line) + 1);
        __msan_unpoison(line, size);
        const auto* const frame = static_cast<const char*>(__builtin_frame_address(0));
        __msan_unpoison(frame - deepest_call, deepest_call);
    }
}

bool knows_unwritten() {
    return __msan_test_shadow != nullptr || runs_in_valgrind();
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

size_t most_bytes() {
    return most_owned_bytes;
}

void on_free(void (*watcher)(const void*)) {
    free_watcher = watcher;
}

} // namespace library_heap

extern "C" {

void* malloc(size_t size) {
    return library_heap::allocate(size, __builtin_return_address(0), false, library_heap::plain_malloc);
}

void* calloc(size_t count, size_t size) {
    size_t total = 0;
    if (__builtin_mul_overflow(count, size, &total)) {
        errno = ENOMEM;
        return nullptr;
    }
    return library_heap::allocate(total, __builtin_return_address(0), true, library_heap::plain_calloc);
}

void free(void* block) {
    library_heap::disown(block);
    library_heap::plain_free(block);
}
}
