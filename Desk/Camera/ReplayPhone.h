// The phones that a capture is played to, one at a time, by plain calls that wait.
#pragma once

#include <chrono>
#include <csignal>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "Capture/Assembler.h"
#include "Common/Descriptor.h"
#include "Links/Endpoint.h"
#include "Wire/Record.h"

namespace desk::camera {

// A signal has asked for the end.
struct Stopped {};

// While one exists, SIGINT and SIGTERM end a wait; at other times they wait for the next one.
class Waiting {
  public:
    Waiting();
    ~Waiting();
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

    // Until the descriptor is ready or the time is over; without a time, for ever. Whether it is ready. Throws Stopped.
    bool for_descriptor(int descriptor, short events, std::optional<std::chrono::milliseconds> time) const;
    void pause(std::chrono::microseconds time) const;

  private:
    sigset_t before_ = {};
};

class ReplayPhone {
  public:
    // Packets that are sent are cut where they have more than `largest_packet` bytes.
    ReplayPhone(const Waiting& waiting, Descriptor socket, bool keeps_message_boundaries, size_t largest_packet);

    bool keeps_message_boundaries() const { return keeps_message_boundaries_; }
    // Waits for the next whole message; none when the phone has closed the link before.
    std::optional<Bytes> next_message();
    // What is there of a message in progress.
    const Bytes& begun() const { return messages_.begun(); }
    // False when the phone has closed the link, or takes nothing.
    bool send(std::span<const uint8_t> packet);

  private:
    bool receive();

    const Waiting& waiting_;
    Descriptor socket_;
    bool keeps_message_boundaries_;
    size_t largest_packet_;
    bool has_ended_ = false; // by an error, while bytes before it are read
    capture::Assembler messages_;
    std::deque<Bytes> whole_;
    std::vector<uint8_t> buffer_;
};

// Where phones connect.
class ReplayListener {
  public:
    // Throws Failure (exit_link).
    ReplayListener(const Waiting& waiting, const Endpoint& endpoint);
    // Removes the socket's file.
    ~ReplayListener();
    ReplayListener(const ReplayListener&) = delete;
    ReplayListener& operator=(const ReplayListener&) = delete;

    const Endpoint& endpoint() const { return endpoint_; }
    ReplayPhone accept() const;

  private:
    const Waiting& waiting_;
    Endpoint endpoint_;
    Descriptor socket_;
};

} // namespace desk::camera
