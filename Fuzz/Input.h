// The bytes of one run, taken from the front as the decisions that they stand for. Where none are left every decision
// is 0, so that any input is a whole run.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

// Ends the run when a promise is broken, also in builds that leave asserts out. It writes past the stream `stderr`,
// which the targets point elsewhere.
#define PROMISE(condition)                                                                                             \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            dprintf(2, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, #condition);                                 \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)

namespace fuzz {

using Bytes = std::vector<uint8_t>;

class Input {
  public:
    Input(const uint8_t* data, size_t size) : next_(data), left_(size) {}

    bool empty() const { return left_ == 0; }

    uint8_t byte() {
        uint8_t value = 0;
        copy(&value, sizeof value);
        return value;
    }
    bool flag() { return (byte() & 1) != 0; }
    // 0 to limit - 1
    int below(int limit) { return byte() % limit; }

    int32_t word() {
        int32_t value = 0;
        copy(&value, sizeof value);
        return value;
    }
    size_t size_below(size_t limit) {
        uint16_t value = 0;
        copy(&value, sizeof value);
        return value % limit;
    }

    // A word that is mostly near the borders where behaviour changes.
    int32_t number() {
        static constexpr int32_t borders[] = {
            INT32_MIN, INT32_MIN + 1, -2,     -1,     0,   1,   2,   39,    40,    41,
            42,        599999,        600000, 600001, 743, 744, 844, 30000, 74999, INT32_MAX};
        const int choice = below(32);
        if (choice < static_cast<int>(std::size(borders))) {
            return borders[choice];
        }
        return choice < 28 ? static_cast<int8_t>(byte()) : word();
    }

    // As many bytes as are left, at most `count`; the rest is zero.
    Bytes bytes(size_t count) {
        Bytes taken(count);
        copy(taken.data(), count);
        return taken;
    }

    template<class Record>
    Record record() {
        Record taken = {};
        copy(&taken, sizeof taken);
        return taken;
    }

  private:
    void copy(void* to, size_t count) {
        const size_t taken = std::min(count, left_);
        if (taken > 0) {
            std::memcpy(to, next_, taken);
        }
        next_ += taken;
        left_ -= taken;
    }

    const uint8_t* next_;
    size_t left_;
};

} // namespace fuzz
