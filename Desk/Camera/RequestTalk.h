// Tells the camera's user of each request: what was asked, about which preset, and what was answered.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "RequestLines.h"

namespace desk::camera {

class Services;

// Follows the packets that are delivered to the library. What it tells comes from the request's own bytes, from the
// result of the library's entry, and from what the services were called for and answered meanwhile.
class RequestTalk {
  public:
    explicit RequestTalk(Services& services, bool is_quiet) : services_(services), is_quiet_(is_quiet) {}

    // Around each packet that is delivered.
    void before(std::span<const uint8_t> packet);
    void after(int result);
    // To be called while the library still holds what the phone has sent in half. `unread` bytes have come behind that.
    void phone_left(size_t unread) const;

    // Requests that the library is done with, of all phones.
    int64_t done() const { return done_; }

  private:
    using Clock = std::chrono::steady_clock;

    void begin(std::span<const uint8_t> packet);
    void read(std::span<const uint8_t> packet);
    void tell(const RequestLine& line) const;
    std::chrono::milliseconds time_taken() const;

    Services& services_;
    bool is_quiet_;
    DoneRequest request_; // as far as it is known
    Clock::time_point began_;
    bool is_packet_empty_ = false;
    int64_t done_ = 0;
};

} // namespace desk::camera
