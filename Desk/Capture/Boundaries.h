// Where one message ends and the next one begins in what a side sends, by the rules of the camera's packet intake.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Reader.h"

namespace desk::capture {

class Boundaries {
  public:
    Boundaries(Side sender, bool keeps_message_boundaries)
        : sender_(sender), keeps_message_boundaries_(keeps_message_boundaries) {}

    // How many bytes from the start of a packet, or of a piece of a stream, belong to the message in progress; the rest
    // begins the next one. At least one byte of `bytes` does.
    size_t take(std::span<const uint8_t> bytes);

    // No message is in progress.
    bool is_between() const { return arrived_ == 0; }
    // Nothing more is taken for a message of its own: a total below 8, or bytes of two requests in one packet. A camera
    // that is told such a thing answers nothing until the phone disconnects.
    bool is_stuck() const { return is_stuck_; }

  private:
    size_t rest_of(size_t size);
    bool is_refused() const;

    Side sender_;
    bool keeps_message_boundaries_;
    std::array<uint8_t, 8> header_ = {};
    size_t arrived_ = 0;
    bool is_stuck_ = false;
};

// The two words that begin each message; `bytes` holds them.
int32_t function_of(std::span<const uint8_t> bytes);
int32_t total_of(std::span<const uint8_t> bytes);

} // namespace desk::capture
