#include "SduReader.h"

#include <utility>

#include "LittleEndian.h"

namespace desk::capture {
namespace {

constexpr size_t length_size = 2; // of what a start announces
constexpr size_t checksum_size = 2;
constexpr size_t most_kept = 64;
constexpr size_t most_kept_bytes = size_t{128} << 10;

} // namespace

void SduReader::take(std::span<const uint8_t> packet, const Framing& framing) {
    switch (framing.carriage) {
    case Carriage::plain:
        receiver_.take(sender_, packet);
        break;
    case Carriage::credited:
        take_credited(packet);
        break;
    case Carriage::retransmitted:
    case Carriage::streamed:
        take_numbered(packet, framing);
        break;
    }
}

// What follows is taken from whatever number it has.
void SduReader::lose(const std::string& why) {
    is_collecting_ = false;
    sdu_.clear();
    is_in_step_ = false;
    kept_.clear();
    kept_bytes_ = 0;
    receiver_.lose(sender_, why);
}

// ---- Numbered packets -----------------------------------------------------------------------------------------------

void SduReader::take_numbered(std::span<const uint8_t> packet, const Framing& framing) {
    const size_t control_size = framing.has_long_control ? 4 : 2;
    const size_t overhead = control_size + (framing.has_checksum ? checksum_size : 0);
    if (packet.size() < overhead) {
        lose("a packet is shorter than its control field and its checksum");
        return;
    }
    const uint32_t control =
        get_16(packet, 0) | (framing.has_long_control ? static_cast<uint32_t>(get_16(packet, 2)) << 16 : 0);
    if ((control & 1) != 0) { // an acknowledgement
        return;
    }
    const auto data = packet.subspan(control_size, packet.size() - overhead);
    const uint32_t segment = framing.has_long_control ? control >> 16 & 3 : control >> 14;
    const uint32_t number = framing.has_long_control ? control >> 18 : control >> 1 & 0x3f;
    numbers_ = framing.has_long_control ? 1 << 14 : 64;
    take_in_order(number, {static_cast<Segment>(segment), Bytes(data.begin(), data.end())},
                  framing.carriage == Carriage::retransmitted);
}

// A packet that is behind what is expected has come before.
void SduReader::take_in_order(uint32_t number, Numbered segment, bool comes_again) {
    if (!is_in_step_) {
        is_in_step_ = true;
        expected_ = number;
    }
    const uint32_t distance = (number - expected_) % numbers_;
    if (distance >= numbers_ / 2) {
        return;
    }
    if (distance > 0 && comes_again) {
        keep(distance, std::move(segment));
        return;
    }
    if (distance > 0) {
        lose("packets are missing, as their numbers tell");
        is_in_step_ = true;
    }
    expected_ = (number + 1) % numbers_;
    take_segment(segment.segment, segment.bytes);
    hand_on_kept();
}

// What is missing comes again sooner than this is full, unless the capture lacks it.
void SduReader::keep(uint32_t distance, Numbered segment) {
    const uint32_t number = (expected_ + distance) % numbers_;
    if (kept_.size() >= most_kept || kept_bytes_ + segment.bytes.size() > most_kept_bytes) {
        lose("packets are missing, as their numbers tell");
        is_in_step_ = true;
        expected_ = (number + 1) % numbers_;
        take_segment(segment.segment, segment.bytes);
        return;
    }
    const size_t size = segment.bytes.size();
    if (kept_.try_emplace(number, std::move(segment)).second) {
        kept_bytes_ += size;
    }
}

void SduReader::hand_on_kept() {
    for (auto next = kept_.find(expected_); next != kept_.end(); next = kept_.find(expected_)) {
        const Numbered segment = std::move(next->second);
        kept_.erase(next);
        expected_ = (expected_ + 1) % numbers_;
        take_segment(segment.segment, segment.bytes);
    }
    if (kept_.empty()) {
        kept_bytes_ = 0;
    }
}

void SduReader::take_segment(Segment segment, std::span<const uint8_t> bytes) {
    const bool begins = segment == Segment::whole || segment == Segment::start;
    if (begins && is_collecting_) {
        lose("a packet's end is missing");
        is_in_step_ = true;
    }
    if (segment == Segment::whole) {
        receiver_.take(sender_, bytes);
    } else if (segment == Segment::start) {
        begin(bytes);
    } else if (is_collecting_) {
        go_on(bytes);
        if (is_collecting_ && segment == Segment::end) {
            give();
        }
    }
}

// ---- Packets against credits ----------------------------------------------------------------------------------------

void SduReader::take_credited(std::span<const uint8_t> packet) {
    if (is_collecting_) {
        go_on(packet);
    } else {
        begin(packet);
    }
    if (is_collecting_ && sdu_.size() == announced_) {
        give();
    }
}

// ---- Both -----------------------------------------------------------------------------------------------------------

void SduReader::begin(std::span<const uint8_t> bytes) {
    if (bytes.size() < length_size) {
        lose("a packet is shorter than the length that it begins with");
        return;
    }
    is_collecting_ = true;
    announced_ = get_16(bytes, 0);
    sdu_.clear();
    go_on(bytes.subspan(length_size));
}

void SduReader::go_on(std::span<const uint8_t> bytes) {
    if (bytes.size() > announced_ - sdu_.size()) {
        lose("a packet has more bytes than were announced");
        return;
    }
    sdu_.insert(sdu_.end(), bytes.begin(), bytes.end());
}

void SduReader::give() {
    if (sdu_.size() < announced_) {
        lose("a packet has fewer bytes than were announced");
        return;
    }
    is_collecting_ = false;
    receiver_.take(sender_, sdu_);
    sdu_.clear();
}

} // namespace desk::capture
