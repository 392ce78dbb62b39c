#include "TimedLinks.h"

#include <algorithm>
#include <utility>

namespace desk::camera {

TimedLinks::TimedLinks(asio::io_context& loop, std::chrono::milliseconds time, Expired expired)
    : time_(time), expired_(std::move(expired)), timer_(loop) {}

void TimedLinks::add(std::shared_ptr<Link> link) {
    entries_.push_back({std::move(link), Clock::now() + time_});
    if (entries_.size() == 1) {
        wait();
    }
}

void TimedLinks::remove(const Link& link) {
    std::erase_if(entries_, [&](const Entry& entry) { return entry.link.get() == &link; });
}

std::shared_ptr<Link> TimedLinks::take_oldest() {
    if (entries_.empty()) {
        return nullptr;
    }
    std::shared_ptr<Link> link = std::move(entries_.front().link);
    entries_.pop_front();
    return link;
}

bool TimedLinks::have_all_closed() const {
    return std::all_of(entries_.begin(), entries_.end(),
                       [](const Entry& entry) { return entry.link->phone_has_closed(); });
}

// For the oldest link. When that goes before its time, the next one is found not to be due yet.
void TimedLinks::wait() {
    timer_.expires_at(entries_.front().until);
    timer_.async_wait([this](const asio::error_code& error) {
        if (!error) {
            expire();
        }
    });
}

void TimedLinks::expire() {
    while (!entries_.empty() && entries_.front().until <= Clock::now()) {
        expired_(take_oldest());
    }
    if (!entries_.empty()) {
        wait();
    }
}

} // namespace desk::camera
