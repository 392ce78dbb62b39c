// The pieces of a stream as packets of a link that keeps message boundaries: none holds bytes of two messages, and the
// first of each holds its header. Packets that were cut so go through unchanged.
#pragma once

#include <vector>

#include "Boundaries.h"
#include "Wire/Record.h"

namespace desk::capture {

class Recut {
  public:
    // `is_needed` is false where the capture, too, is of such a link, or the packets go into a stream.
    Recut(Side sender, bool is_needed) : ends_(sender, false), is_needed_(is_needed) {}

    // The packets that can be sent now.
    std::vector<Bytes> take(std::span<const uint8_t> piece);
    // What is held back of a message whose header is not whole.
    const Bytes& rest() const { return held_; }

  private:
    Boundaries ends_;
    bool is_needed_;
    bool has_header_ = false; // what goes on here has been begun
    Bytes held_;
};

} // namespace desk::capture
