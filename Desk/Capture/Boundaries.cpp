#include "Boundaries.h"

#include <algorithm>

#include "Wire/Frames.h"

namespace desk::capture {
namespace {

constexpr size_t header_size = sizeof(sm_frame);

} // namespace

int32_t function_of(std::span<const uint8_t> bytes) {
    return get_word(bytes, 0);
}

int32_t total_of(std::span<const uint8_t> bytes) {
    return get_word(bytes, sizeof(int32_t));
}

size_t Boundaries::take(std::span<const uint8_t> bytes) {
    if (is_stuck_) {
        return bytes.size();
    }
    const size_t of_header = std::min(header_size - std::min(header_size, arrived_), bytes.size());
    std::copy_n(bytes.begin(), of_header,
                header_.begin() + static_cast<std::ptrdiff_t>(std::min(header_size, arrived_)));
    if (arrived_ + of_header < header_size) {
        arrived_ += of_header;
        if (sender_ == Side::phone && keeps_message_boundaries_) {
            arrived_ = 0; // lost with its packet: a header stands in one
        }
        return of_header;
    }
    return rest_of(bytes.size());
}

// The header is there. `size` bytes have come, those of the header among them that had been missing.
size_t Boundaries::rest_of(size_t size) {
    if (sender_ == Side::phone && is_refused()) {
        arrived_ = 0;
        return size; // with all that stands in its packet
    }
    const int32_t total = total_of(header_);
    const bool is_too_long = sender_ == Side::camera && total > static_cast<int32_t>(longest_picture_reply);
    if (total < static_cast<int32_t>(header_size) || is_too_long) {
        is_stuck_ = true;
        return size;
    }
    const size_t missing = static_cast<size_t>(total) - arrived_;
    if (size < missing) {
        arrived_ += size;
        return size;
    }
    if (size > missing && sender_ == Side::phone && keeps_message_boundaries_) {
        is_stuck_ = true;
        return size;
    }
    arrived_ = 0;
    return missing;
}

bool Boundaries::is_refused() const {
    const int32_t function = function_of(header_);
    return function < 0 || function > SM_FUNCTION_LAST || total_of(header_) < 0;
}

} // namespace desk::capture
