#include "Intake.h"

#include <algorithm>
#include <fmt/format.h>

#include "ADE_ShotMentor.h"
#include "Knobs.h"
#include "LabTalk.h"
#include "RequestTalk.h"
#include "Wire/Record.h"

namespace desk::camera {
namespace {

constexpr size_t header_size = sizeof(sm_frame);

// Bytes of a stream that continue the request in reassembly. All of them when it will never be complete.
size_t continuing_bytes(size_t available) {
    const int64_t missing = int64_t{sm_BT_total_length} - sm_BT_combine_length;
    return missing <= 0 ? available : std::min(available, static_cast<size_t>(missing));
}

bool is_refused(int32_t function, int32_t total) {
    return function < 0 || function > SM_FUNCTION_LAST || total < 0;
}

} // namespace

void Intake::take(std::span<const uint8_t> received) {
    bytes_.resize(received_);
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(delivered_));
    bytes_.insert(bytes_.end(), received.begin(), received.end());
    delivered_ = 0;
    has_packet_ = keeps_message_boundaries_;
    received_ = bytes_.size();
    bytes_.resize(received_ + header_size); // the library reads a whole header of however short a packet
}

Intake::Delivery Intake::deliver() {
    skip();
    const std::optional<size_t> length = next_packet();
    if (!length) {
        return Delivery::none;
    }
    if (const std::optional<size_t> before = bytes_before_pull(*length)) {
        return pull(*before);
    }
    hand_over(*length);
    return Delivery::whole_packet;
}

void Intake::hand_over(size_t length) {
    const std::span<const uint8_t> packet = waiting().first(length);
    delivered_ += length;
    has_packet_ = false;
    talk_.before(packet);
    talk_.after(ADE_ShotMentor_Receive_Manager(packet.data(), static_cast<int>(packet.size())));
}

// The bytes of the request that a packet belongs to; none when the library refuses it at once. A short packet has zeros
// behind it.
int64_t Intake::announced(size_t packet) const {
    if (is_in_reassembly()) {
        return sm_BT_total_length;
    }
    const auto start = std::span(bytes_).subspan(delivered_);
    const int32_t total = get_word(start, offsetof(sm_frame, total_length));
    return packet == 0 || is_refused(get_word(start, offsetof(sm_frame, function)), total) ? 0 : total;
}

std::optional<size_t> Intake::bytes_before_pull(size_t packet) const {
    const auto received = static_cast<size_t>(is_in_reassembly() ? sm_BT_combine_length : 0);
    const auto end = static_cast<size_t>(knobs_.pull_request.value_or(0));
    if (!knobs_.pull_request || announced(packet) <= *knobs_.pull_request || received + packet < end) {
        return std::nullopt;
    }
    return end - std::min(end, received);
}

Intake::Delivery Intake::pull(size_t before) {
    const size_t total = static_cast<size_t>(announced(waiting().size()));
    if (before > 0) {
        hand_over(before);
    }
    received_ = delivered_;
    tell_of_fault("pull request",
                  fmt::format("the link is pulled after {} of {} bytes of a request", sm_BT_combine_length, total));
    knobs_.pull_request.reset();
    return Delivery::pulled;
}

bool Intake::is_in_request() const {
    return is_in_reassembly() || to_skip_ > 0 || !waiting().empty();
}

size_t Intake::unread() const {
    return waiting().size() - std::min(to_skip_, waiting().size());
}

bool Intake::is_in_reassembly() {
    return sm_BT_total_length >= 0;
}

std::span<const uint8_t> Intake::waiting() const {
    return std::span(bytes_).first(received_).subspan(delivered_);
}

std::optional<size_t> Intake::next_packet() {
    if (!keeps_message_boundaries_) {
        return next_of_stream();
    }
    return has_packet_ ? std::optional(waiting().size()) : std::nullopt;
}

std::optional<size_t> Intake::next_of_stream() {
    const size_t length = is_in_reassembly() ? continuing_bytes(waiting().size()) : starting_bytes(waiting());
    return length > 0 ? std::optional(length) : std::nullopt;
}

// Bytes of a stream that are a request's first packet: its header at least. The library refuses some headers and stays
// idle; what such a request has announced is passed over, so that the stream goes on with the next one.
size_t Intake::starting_bytes(std::span<const uint8_t> stream) {
    if (stream.size() < header_size) {
        return 0;
    }
    const int32_t total = get_word(stream, offsetof(sm_frame, total_length));
    const size_t announced = total > int32_t{header_size} ? static_cast<size_t>(total) : header_size;
    if (is_refused(get_word(stream, offsetof(sm_frame, function)), total)) {
        to_skip_ = announced - header_size;
        return header_size;
    }
    return std::min(stream.size(), announced);
}

void Intake::skip() {
    const size_t skipped = std::min(to_skip_, waiting().size());
    delivered_ += skipped;
    to_skip_ -= skipped;
}

Intake::Stuck Intake::stuck() {
    if (!is_in_reassembly()) {
        return Stuck::no;
    }
    if (shotmentor_p_ReceiveData == nullptr) {
        return Stuck::no_memory;
    }
    return sm_BT_combine_length > sm_BT_total_length ? Stuck::too_many_bytes : Stuck::no;
}

} // namespace desk::camera
