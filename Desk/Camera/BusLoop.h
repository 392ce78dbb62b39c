// Keeps a connection to the bus going in the camera's loop.
#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Bus/Bus.h"

namespace desk::camera {

class BusLoop : public std::enable_shared_from_this<BusLoop> {
  public:
    using Lost = std::function<void(const std::string& why)>;

    // `lost` is called at most once, from the loop, and may destroy this.
    BusLoop(asio::io_context& loop, bus::Bus bus, Lost lost);

    bus::Bus& bus() { return bus_; }
    // Goes on in the loop. To be called whenever something was sent.
    void turn_later();

  private:
    using TimePoint = std::chrono::steady_clock::time_point;

    void turn();
    void take_some();
    void wait();
    void wait_for_deadline();
    // Calls `turn` at its time, unless this is gone by then.
    auto next_turn(bool BusLoop::*waits);

    bus::Bus bus_;
    Lost lost_;
    asio::posix::stream_descriptor socket_;
    asio::steady_timer soon_;
    asio::steady_timer deadline_;
    bool waits_to_read_ = false;
    bool waits_to_write_ = false;
    bool turns_soon_ = false;
    std::optional<TimePoint> awaited_;
};

} // namespace desk::camera
