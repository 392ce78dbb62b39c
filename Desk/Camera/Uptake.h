// What a phone takes of what is sent to it, as far as the kernel tells. A call that sends returns when the kernel has
// the bytes, which may keep them for as long as the phone takes none.
#pragma once

#include <chrono>
#include <cstddef>

namespace desk::camera {

class Uptake {
  public:
    using Clock = std::chrono::steady_clock;

    // So many bytes are to be sent next.
    void begin(size_t length, Clock::time_point now);
    // The kernel has taken so many of them.
    void wrote(size_t length) { written_ += length; }
    // What the kernel holds: bytes, and on most links also what it spends on them. `is_full`: it takes no more now.
    // True when the phone has taken something since the last look.
    bool look(size_t held, bool is_full, Clock::time_point now);

    // Whether anything is still to be taken.
    bool is_over() const { return written_ == end_ && held_ == 0; }
    // How long the phone has taken nothing of it.
    Clock::duration still_for(Clock::time_point now) const { return now - moved_; }
    // What it has taken for certain of what was sent last, and how much that is.
    size_t taken() const;
    size_t total() const { return end_ - begin_; }

  private:
    // All of them count from the link's beginning.
    size_t begin_ = 0;
    size_t end_ = 0;
    size_t written_ = 0;
    size_t seen_written_ = 0; // at the last look
    size_t held_ = 0;
    Clock::time_point moved_ = Clock::now();
};

} // namespace desk::camera
