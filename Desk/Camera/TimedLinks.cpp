#include "TimedLinks.h"

#include <algorithm>
#include <utility>

namespace desk::camera {

TimedLinks::TimedLinks(asio::io_context& loop, std::chrono::milliseconds time, Expired expired)
    : time_(time), expired_(std::move(expired)), timer_(loop) {}

void TimedLinks::add(std::shared_ptr<Link> link) {
    links_.push_back({std::move(link), Clock::now() + time_});
    if (links_.size() == 1) {
        wait();
    }
}

void TimedLinks::remove(const Link& link) {
    std::erase_if(links_, [&](const TimedLink& timed) { return timed.link.get() == &link; });
}

std::shared_ptr<Link> TimedLinks::take_oldest() {
    if (links_.empty()) {
        return nullptr;
    }
    std::shared_ptr<Link> link = std::move(links_.front().link);
    links_.pop_front();
    return link;
}

bool TimedLinks::have_all_closed() const {
    return std::all_of(links_.begin(), links_.end(),
                       [](const TimedLink& timed) { return timed.link->phone_has_closed(); });
}

// For the oldest link. When that goes before its time, the next one is found not to be due yet.
void TimedLinks::wait() {
    timer_.expires_at(links_.front().until);
    timer_.async_wait([this](const asio::error_code& error) {
        if (!error) {
            expire();
        }
    });
}

void TimedLinks::expire() {
    while (!links_.empty() && links_.front().until <= Clock::now()) {
        expired_(take_oldest());
    }
    if (!links_.empty()) {
        wait();
    }
}

} // namespace desk::camera
