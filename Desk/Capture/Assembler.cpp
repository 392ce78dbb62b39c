#include "Assembler.h"

#include <algorithm>
#include <utility>

#include "Wire/Frames.h"

namespace desk::capture {

std::vector<Bytes> Assembler::take(std::span<const uint8_t> packet) {
    std::vector<Bytes> whole;
    while (!packet.empty()) {
        const size_t size = ends_.take(packet);
        keep(packet.first(size));
        packet = packet.subspan(size);
        if (ends_.is_between() && !ends_.is_stuck()) {
            whole.push_back(std::exchange(message_, {}));
        }
    }
    return whole;
}

void Assembler::keep(std::span<const uint8_t> bytes) {
    const size_t longest = sender_ == Side::phone ? size_t{SM_REQUEST_LIMIT} : longest_picture_reply;
    const auto kept = bytes.first(std::min(bytes.size(), longest - std::min(longest, message_.size())));
    message_.insert(message_.end(), kept.begin(), kept.end());
}

} // namespace desk::capture
