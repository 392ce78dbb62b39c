#include "Probe.h"

#include <algorithm>
#include <fmt/format.h>
#include <thread>
#include <utility>

#include "Options.h"

namespace desk::phone {
namespace {

// A signal is seen so soon.
constexpr std::chrono::milliseconds longest_wait{50};
constexpr std::chrono::milliseconds pause_before_next_try{20};

// A frame may take the time-out twice, and once more for so many of its bytes, as with every other command.
constexpr int64_t bytes_in_a_timeout = int64_t{64} * 1024;

// What is kept of replies that have come before they were asked for: more than twelve lists.
constexpr size_t most_untaken_bytes = longest_picture_reply + (size_t{1} << 20);

} // namespace

Probe::Probe(const Options& options)
    : options_(options), link_(std::in_place, options.camera, options.mtu, options.timeout, options.capture.get()) {}

bool Probe::keeps_message_boundaries() const {
    return options_.camera.keeps_message_boundaries();
}

std::chrono::milliseconds Probe::timeout() const {
    return options_.timeout;
}

void Probe::heed(const std::atomic<int>* signal) {
    signal_ = signal;
}

void Probe::hang_up() {
    link_.reset();
    reader_ = {};
    frames_.clear();
    frames_size_ = 0;
    closed_ = false;
}

void Probe::connect() {
    hang_up();
    const Clock::time_point deadline = Clock::now() + options_.timeout;
    while (true) {
        try {
            link_.emplace(options_.camera, options_.mtu, options_.timeout, options_.capture.get());
            return;
        } catch (const Failure&) {
            if (Clock::now() >= deadline) {
                throw;
            }
        }
        std::this_thread::sleep_for(pause_before_next_try);
    }
}

Link& Probe::link() {
    if (!link_) {
        connect();
    }
    return *link_;
}

Link::Readiness Probe::wait(bool to_write, Clock::time_point deadline) {
    while (true) {
        if (signal_ != nullptr && *signal_ != 0) {
            throw Interrupted{};
        }
        const Link::Readiness ready = link().wait(to_write, std::min(deadline, Clock::now() + longest_wait));
        if (ready.read || ready.write || Clock::now() >= deadline) {
            return ready;
        }
    }
}

void Probe::send(std::span<const uint8_t> bytes, const Cut& cut) {
    size_t sent = 0;
    size_t packet_end = std::min(cut.first, bytes.size());
    Clock::time_point deadline = Clock::now() + options_.timeout;
    while (sent < bytes.size()) {
        const Link::Readiness ready = wait(true, deadline);
        if (ready.read && !closed_) {
            receive_some(); // a camera that waits for its replies to be taken takes no requests
        }
        const std::optional<size_t> moved = link().send_packet(bytes.subspan(sent, packet_end - sent));
        if (!moved) {
            throw_if_busy();
            throw LinkClosed(
                fmt::format("the camera closed the link when it had taken {} of {} bytes", sent, bytes.size()));
        }
        sent += *moved;
        if (sent == packet_end) {
            packet_end += std::min(cut.further, bytes.size() - sent);
        }
        if (*moved > 0) {
            deadline = Clock::now() + options_.timeout;
        } else if (Clock::now() >= deadline) {
            throw Silence(fmt::format("the camera took {} of {} bytes, then no more", sent, bytes.size()));
        }
    }
}

Bytes Probe::receive() {
    const Clock::time_point begin = Clock::now();
    Clock::time_point last_move = begin;
    while (frames_.empty()) {
        if (closed_) {
            throw LinkClosed(reader_.arrived() == 0
                                 ? "the camera closed the link"
                                 : fmt::format("the camera closed the link after {} bytes of a reply of {}",
                                               reader_.arrived(), reader_.expected()));
        }
        const auto longest =
            2 * options_.timeout + options_.timeout * static_cast<int64_t>(reader_.expected()) / bytes_in_a_timeout;
        if (!wait(false, std::min(last_move + options_.timeout, begin + longest)).read) {
            throw Silence(reader_.arrived() == 0 ? "no reply"
                                                 : fmt::format("{} bytes of a reply of {}, then no more",
                                                               reader_.arrived(), reader_.expected()));
        }
        receive_some();
        last_move = Clock::now();
    }
    throw_if_busy();
    Bytes frame = std::move(frames_.front());
    frames_.pop_front();
    frames_size_ -= frame.size();
    return frame;
}

std::optional<Bytes> Probe::last_words() {
    link().finish_sending();
    try {
        return receive();
    } catch (const Silence&) {
        return std::nullopt; // it keeps the link open, and says nothing
    } catch (const LinkClosed&) {
        return std::nullopt;
    }
}

void Probe::receive_some() {
    std::optional<std::span<const uint8_t>> bytes = link().receive();
    closed_ = !bytes;
    while (bytes && !bytes->empty()) {
        std::optional<Bytes> frame = reader_.take(*bytes, longest_picture_reply);
        if (!frame) {
            return;
        }
        frames_size_ += frame->size();
        if (frames_size_ > most_untaken_bytes) {
            throw Failure(exit_protocol, "the camera sends more replies than were asked for");
        }
        frames_.push_back(*std::move(frame));
        mixed_packets_ += keeps_message_boundaries() && !bytes->empty() ? 1 : 0;
    }
}

void Probe::throw_if_busy() const {
    if (!frames_.empty() && get_word(frames_.front(), 0) == busy_function) {
        throw Failure(exit_busy, "the camera is busy with another phone");
    }
}

} // namespace desk::phone
