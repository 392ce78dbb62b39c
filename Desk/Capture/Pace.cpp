#include "Pace.h"

#include <algorithm>

namespace desk::capture {

std::chrono::microseconds pause_between(const Pace& pace, int64_t before, int64_t after) {
    if (!pace.has_pauses || after <= before) {
        return std::chrono::microseconds(0);
    }
    const auto longest = static_cast<double>(std::chrono::microseconds(pace.longest_pause).count());
    const auto pause = (static_cast<double>(after) - static_cast<double>(before)) / pace.speed;
    return std::chrono::microseconds(static_cast<int64_t>(std::min(pause, longest)));
}

} // namespace desk::capture
