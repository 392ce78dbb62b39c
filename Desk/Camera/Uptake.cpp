#include "Uptake.h"

#include <algorithm>

namespace desk::camera {

// What was sent before may still be waiting: then its time goes on.
void Uptake::begin(size_t length, Clock::time_point now) {
    if (is_over()) {
        moved_ = now;
    }
    begin_ = written_;
    end_ = written_ + length;
}

// Bytes that a kernel that was full takes have replaced some that the phone has taken. With a link that could take
// more, it is not the phone that is waited for.
bool Uptake::look(size_t held, bool is_full, Clock::time_point now) {
    const bool has_moved = held < held_ || written_ > seen_written_;
    if (has_moved || (held == 0 && !is_full)) {
        moved_ = now;
    }
    held_ = held;
    seen_written_ = written_;
    return has_moved;
}

size_t Uptake::taken() const {
    const size_t left_kernel = written_ - std::min(held_, written_);
    return std::clamp(left_kernel, begin_, end_) - begin_;
}

} // namespace desk::camera
