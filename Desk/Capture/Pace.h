// How fast a captured conversation is played.
#pragma once

#include <chrono>
#include <cstdint>

namespace desk::capture {

struct Pace {
    double speed = 1; // twice as fast with 2
    bool has_pauses = true;
    std::chrono::milliseconds longest_pause{5000};
};

// The time to wait between two packets of a capture, whose times may be anything.
std::chrono::microseconds pause_between(const Pace& pace, int64_t before, int64_t after);

} // namespace desk::capture
