// A connected, non-blocking socket to the camera, whatever kind of link it is.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <sys/types.h>
#include <vector>

#include "Capture/Writer.h"
#include "Common/Descriptor.h"
#include "Connecting.h"
#include "Links/Endpoint.h"

namespace desk::phone {

class Link {
  public:
    // Connects. A packet that is sent has at most `mtu` bytes. Throws Failure: exit_link, or exit_usage for an endpoint
    // that nothing can connect to. What crosses the link is written to `capture` unless it is null.
    Link(const Endpoint& camera, size_t mtu, std::chrono::milliseconds timeout, capture::Writer* capture);

    struct Readiness {
        bool read = false;
        bool write = false;
    };
    // Waits until there is something to read, or with `to_write` room to write. Neither: the deadline has come.
    Readiness wait(bool to_write, Clock::time_point deadline) const;

    // Sends one packet from the start of `bytes`. Returns its size, 0 when the link takes nothing now, and nothing when
    // the camera has closed the link. Throws Failure (exit_usage) for a packet too large.
    std::optional<size_t> send_packet(std::span<const uint8_t> bytes);

    // What has arrived, empty when nothing has. Nothing at all: the camera has closed the link.
    std::optional<std::span<const uint8_t>> receive();

    // Lets the camera see that nothing more will come.
    void finish_sending();

  private:
    std::span<const uint8_t> note_received(ssize_t count);
    void end_capture_as(capture::LinkWriter::End how);

    Descriptor socket_;
    size_t mtu_;
    bool is_bluetooth_;
    std::vector<uint8_t> received_;
    std::unique_ptr<capture::LinkWriter> capture_; // none where nothing is captured
};

} // namespace desk::phone
