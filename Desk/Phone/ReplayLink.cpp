#include "ReplayLink.h"

#include <algorithm>
#include <fmt/format.h>

#include "Capture/MessageWords.h"
#include "Common/Failure.h"

namespace desk::phone {
namespace {

constexpr size_t any_size = size_t{1} << 30; // packets are sent as they were
constexpr std::chrono::milliseconds longest_farewell{1000};

// A camera that says more than this before it is waited for talks without end.
constexpr size_t most_waiting = 2 * longest_picture_reply;

std::string seconds(std::chrono::milliseconds time) {
    return fmt::format("{:g} s", static_cast<double>(time.count()) / 1000);
}

} // namespace

ReplayLink::ReplayLink(const Endpoint& camera, std::chrono::milliseconds timeout, capture::Writer* capture)
    : timeout_(timeout), link_(camera, any_size, timeout, capture) {}

bool ReplayLink::send(std::span<const uint8_t> packet) {
    const size_t size = packet.size();
    Clock::time_point end = deadline();
    while (!packet.empty() && !closed_) {
        if (!move(true, end)) {
            throw Failure(exit_timeout, fmt::format("the camera took {} of a packet's {} bytes, then nothing within {}",
                                                    size - packet.size(), size, seconds(timeout_)));
        }
        const std::optional<size_t> sent = closed_ ? std::nullopt : send_once(packet);
        if (!sent) {
            return false;
        }
        if (*sent > 0) {
            packet = packet.subspan(*sent);
            end = deadline();
        }
    }
    return packet.empty();
}

std::optional<size_t> ReplayLink::send_once(std::span<const uint8_t> packet) {
    try {
        return link_.send_packet(packet);
    } catch (const Failure&) {
        throw Failure(exit_usage, fmt::format("the link takes no packet of {} bytes, as the capture has one: send it "
                                              "over tcp: or rfcomm:, where there are no packets",
                                              packet.size()));
    }
}

std::optional<Bytes> ReplayLink::next_message() {
    size_t seen = reader_.arrived();
    Clock::time_point end = deadline();
    while (messages_.empty() && !closed_) {
        if (!move(false, end)) {
            throw Failure(exit_timeout, seen == 0
                                            ? fmt::format("the camera gave no answer within {}", seconds(timeout_))
                                            : fmt::format("the camera stopped within its answer: {} bytes came, "
                                                          "then nothing within {}",
                                                          seen, seconds(timeout_)));
        }
        if (reader_.arrived() > seen) {
            seen = reader_.arrived();
            end = deadline();
        }
    }
    if (messages_.empty()) {
        return std::nullopt;
    }
    Bytes first = std::move(messages_.front());
    messages_.pop_front();
    waiting_bytes_ -= first.size();
    return first;
}

Bytes ReplayLink::start_of_message(size_t size) {
    const Clock::time_point end = deadline();
    while (messages_.empty() && reader_.arrived() < size && !closed_) {
        if (!move(false, end)) {
            throw Failure(exit_timeout, fmt::format("the camera sent {} bytes of an answer of which the capture has "
                                                    "{}, then nothing within {}",
                                                    reader_.arrived(), size, seconds(timeout_)));
        }
    }
    return messages_.empty() ? begun_ : messages_.front();
}

bool ReplayLink::wait_for_close() {
    const Clock::time_point end = deadline();
    while (!closed_ && move(false, end)) {
    }
    return closed_;
}

std::vector<Bytes> ReplayLink::finish() {
    link_.finish_sending();
    const Clock::time_point end = Clock::now() + std::min(timeout_, longest_farewell);
    while (!closed_ && move(false, end)) {
    }
    return {messages_.begin(), messages_.end()};
}

Clock::time_point ReplayLink::deadline() const {
    return Clock::now() + timeout_;
}

// Waits until bytes have come, the link takes some, or the camera has closed it. False: the deadline has come.
bool ReplayLink::move(bool to_write, Clock::time_point deadline) {
    const Link::Readiness ready = link_.wait(to_write, deadline);
    if (ready.read) {
        receive();
    }
    return ready.read || ready.write;
}

void ReplayLink::receive() {
    const auto bytes = link_.receive();
    closed_ = !bytes;
    take(bytes.value_or(std::span<const uint8_t>()));
}

void ReplayLink::take(std::span<const uint8_t> bytes) {
    constexpr size_t kept_of_begun = sizeof(sm_frame);
    while (!bytes.empty()) {
        const auto start = bytes.first(std::min(bytes.size(), kept_of_begun - begun_.size()));
        begun_.insert(begun_.end(), start.begin(), start.end());
        std::optional<Bytes> message = reader_.take(bytes, longest_picture_reply);
        if (!message) {
            continue;
        }
        begun_.clear();
        if (get_word(*message, 0) == busy_function) {
            throw Failure(exit_busy, "the camera is busy with another phone");
        }
        waiting_bytes_ += message->size();
        messages_.push_back(*std::move(message));
        if (waiting_bytes_ > most_waiting) {
            throw Failure(exit_protocol, "the camera talks without being asked, and does not stop");
        }
    }
}

} // namespace desk::phone
