// A phone that sends what it likes: requests cut into any packets, faulty ones, and several before it reads a reply.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <span>

#include "Common/Failure.h"
#include "Link.h"
#include "Wire/Frames.h"

namespace desk::phone {

struct Options;

// How a request is cut: the first packet, and all that follow. No packet is larger than the link's --mtu.
struct Cut {
    size_t first = std::numeric_limits<size_t>::max();
    size_t further = std::numeric_limits<size_t>::max();
};

// The camera sent nothing for the time-out, or took nothing.
struct Silence : Failure {
    explicit Silence(const std::string& line) : Failure(exit_timeout, line) {}
};

// The camera closed the link.
struct LinkClosed : Failure {
    explicit LinkClosed(const std::string& line) : Failure(exit_protocol, line) {}
};

// What `heed` watches has been set.
struct Interrupted {};

// Throws Silence, LinkClosed, or Failure: exit_busy, exit_protocol for a frame with an impossible length, and what Link
// throws. After each of them the link is of no more use: `connect` makes another one.
class Probe {
  public:
    explicit Probe(const Options& options);

    bool keeps_message_boundaries() const;
    std::chrono::milliseconds timeout() const;

    // Connects anew. A camera that has not seen yet that the last link is gone is tried again for the time-out.
    void connect();
    void hang_up();
    // Waiting ends with Interrupted once this is set; null: with nothing.
    void heed(const std::atomic<int>* signal);

    void send(std::span<const uint8_t> bytes, const Cut& cut = {});
    // The next frame.
    Bytes receive();
    // Ends the sending and waits for the camera to close the link. Returns the first frame that it sent before it did.
    std::optional<Bytes> last_words();

    // Packets that held bytes of two frames, although the link keeps message boundaries.
    size_t mixed_packets() const { return mixed_packets_; }

  private:
    Link& link();
    Link::Readiness wait(bool to_write, Clock::time_point deadline);
    void receive_some();
    void throw_if_busy() const;

    const Options& options_;
    const std::atomic<int>* signal_ = nullptr;
    std::optional<Link> link_;
    FrameReader reader_;
    std::deque<Bytes> frames_; // whole ones that nobody has asked for yet
    size_t frames_size_ = 0;   // their bytes
    bool closed_ = false;
    size_t mixed_packets_ = 0;
};

} // namespace desk::phone
