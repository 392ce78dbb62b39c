#include "Recut.h"

#include <utility>

#include "Wire/Frames.h"

namespace desk::capture {

std::vector<Bytes> Recut::take(std::span<const uint8_t> piece) {
    if (!is_needed_) {
        return {Bytes(piece.begin(), piece.end())};
    }
    std::vector<Bytes> packets;
    while (!piece.empty()) {
        const size_t size = ends_.take(piece);
        held_.insert(held_.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(size));
        piece = piece.subspan(size);
        const bool is_whole = ends_.is_between() || ends_.is_stuck();
        if (is_whole || has_header_ || held_.size() >= sizeof(sm_frame)) {
            has_header_ = !is_whole;
            packets.push_back(std::exchange(held_, {}));
        }
    }
    return packets;
}

} // namespace desk::capture
