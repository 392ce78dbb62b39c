// Puts one side's messages together from its packets.
#pragma once

#include <vector>

#include "Boundaries.h"
#include "Wire/Record.h"

namespace desk::capture {

class Assembler {
  public:
    Assembler(Side sender, bool keeps_message_boundaries) : ends_(sender, keeps_message_boundaries), sender_(sender) {}

    // The messages that the packet completes. Of one that is longer than any has to be, the rest is left out.
    std::vector<Bytes> take(std::span<const uint8_t> packet);

    // What is there of a message in progress.
    const Bytes& begun() const { return message_; }
    bool is_stuck() const { return ends_.is_stuck(); }

  private:
    void keep(std::span<const uint8_t> bytes);

    Boundaries ends_;
    Side sender_;
    Bytes message_;
};

} // namespace desk::capture
