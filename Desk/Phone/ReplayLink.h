// A link to the camera that a captured conversation is sent over again: packet by packet, while the camera's messages
// are collected.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "Link.h"
#include "Wire/Frames.h"

namespace desk::phone {

class ReplayLink {
  public:
    // Connects; what crosses the link is written to `capture` unless it is null. Throws Failure, as all below do:
    // exit_link, exit_timeout, exit_busy, exit_usage for a packet that the link cannot carry, and exit_protocol for a
    // camera that says what is no message.
    ReplayLink(const Endpoint& camera, std::chrono::milliseconds timeout, capture::Writer* capture);

    // Sends one packet, or bytes of a stream. False: the camera has closed the link.
    bool send(std::span<const uint8_t> packet);
    // The camera's next message; none when it has closed the link before that was whole.
    std::optional<Bytes> next_message();
    // Waits until so many bytes of a message are there, and returns what is. Fewer: the camera has closed the link.
    Bytes start_of_message(size_t size);
    // Waits for as long as a message takes. False: the camera has left the link open.
    bool wait_for_close();
    // Lets the camera see that nothing more comes, and waits until it closes the link too, or has had time to. Returns
    // what else it has said.
    std::vector<Bytes> finish();

  private:
    std::optional<size_t> send_once(std::span<const uint8_t> packet);
    bool move(bool to_write, Clock::time_point deadline);
    void receive();
    void take(std::span<const uint8_t> bytes);
    Clock::time_point deadline() const;

    std::chrono::milliseconds timeout_;
    Link link_;
    FrameReader reader_;
    Bytes begun_; // the start of the message in progress, of a bounded length
    std::deque<Bytes> messages_;
    size_t waiting_bytes_ = 0; // of those
    bool closed_ = false;
};

} // namespace desk::phone
