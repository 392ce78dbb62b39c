// Links that are kept for a while each, the oldest in front.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>

#include "Link.h"

namespace desk::camera {

class TimedLinks {
  public:
    using Expired = std::function<void(std::shared_ptr<Link>)>;

    // A link whose time is up is kept no more, and handed to `expired`.
    TimedLinks(asio::io_context& loop, std::chrono::milliseconds time, Expired expired);

    void add(std::shared_ptr<Link> link);
    void remove(const Link& link);
    std::shared_ptr<Link> take_oldest(); // null when there is none
    size_t size() const { return links_.size(); }
    bool have_all_closed() const;

  private:
    using Clock = std::chrono::steady_clock;

    struct TimedLink {
        std::shared_ptr<Link> link;
        Clock::time_point until;
    };

    void wait();
    void expire();

    std::chrono::milliseconds time_;
    Expired expired_;
    asio::steady_timer timer_;
    std::deque<TimedLink> links_;
};

} // namespace desk::camera
