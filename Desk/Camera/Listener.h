// Where phones connect.
#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <span>
#include <sys/types.h>

#include "Common/Descriptor.h"
#include "Link.h"
#include "Links/Endpoint.h"
#include "Sockets.h"

namespace desk::camera {

class Listener {
  public:
    using Accepted = std::function<void(std::shared_ptr<Link>)>;

    // Listens. A Unix socket that a dead camera left behind is replaced, a live one is not. Throws Failure (exit_link).
    // Links receive into `buffer`, which outlives them and may be shared: one receives at a time.
    Listener(asio::io_context& loop, const Endpoint& endpoint, size_t mtu, Admission admission,
             std::span<uint8_t> buffer);
    // Removes the socket's file.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Where it listens, with the port that a port of 0 became.
    const Endpoint& endpoint() const { return endpoint_; }
    // Writes all links from now on to the capture, which outlives this.
    void capture(capture::Writer& writer) { capture_ = &writer; }
    // Calls the handler with one link after another.
    void accept(Accepted handler);

  private:
    void wait_for_phone();
    void accept_some();
    void accept_later();
    void take(Descriptor phone);
    bool is_allowed(const Descriptor& phone) const;

    asio::io_context& loop_;
    Endpoint endpoint_;
    size_t mtu_;
    Admission admission_;
    asio::posix::stream_descriptor socket_;
    asio::steady_timer pause_;
    std::span<uint8_t> buffer_;
    Accepted accepted_;
    dev_t file_device_ = 0; // the socket's file, to remove no other one
    ino_t file_inode_ = 0;
    capture::Writer* capture_ = nullptr;
};

} // namespace desk::camera
