#include "BusLoop.h"

#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <utility>

#include "Budgets.h"

namespace desk::camera {

BusLoop::BusLoop(asio::io_context& loop, bus::Bus bus, Lost lost)
    : bus_(std::move(bus)), lost_(std::move(lost)), socket_(loop, ::fcntl(bus_.descriptor(), F_DUPFD_CLOEXEC, 0)),
      soon_(loop), deadline_(loop) {}

auto BusLoop::next_turn(bool BusLoop::*waits) {
    this->*waits = true;
    return [weak = weak_from_this(), waits](const asio::error_code&) {
        if (const std::shared_ptr<BusLoop> here = weak.lock()) {
            (*here).*waits = false;
            here->turn();
        }
    };
}

void BusLoop::turn_later() {
    if (!turns_soon_) {
        soon_.expires_after(std::chrono::seconds(0));
        soon_.async_wait(next_turn(&BusLoop::turns_soon_));
    }
}

void BusLoop::turn() {
    if (!lost_) {
        return;
    }
    try {
        take_some();
    } catch (const std::exception& failure) {
        std::exchange(lost_, nullptr)(failure.what());
    }
}

// Phones come in between, however much the bus has to say.
void BusLoop::take_some() {
    for (int count = 0; count < budget::bus_messages_of_a_turn; ++count) {
        if (!bus_.process()) {
            wait();
            return;
        }
    }
    turn_later();
}

void BusLoop::wait() {
    if (!waits_to_read_) {
        socket_.async_wait(asio::posix::descriptor_base::wait_read, next_turn(&BusLoop::waits_to_read_));
    }
    if ((bus_.events() & POLLOUT) != 0 && !waits_to_write_) {
        socket_.async_wait(asio::posix::descriptor_base::wait_write, next_turn(&BusLoop::waits_to_write_));
    }
    wait_for_deadline();
}

void BusLoop::wait_for_deadline() {
    const std::optional<TimePoint> deadline = bus_.deadline();
    if (!deadline || deadline == awaited_) {
        return;
    }
    awaited_ = deadline;
    deadline_.expires_at(*deadline); // ends a wait for another one
    deadline_.async_wait([weak = weak_from_this()](const asio::error_code& error) {
        const std::shared_ptr<BusLoop> here = weak.lock();
        if (!error && here) {
            here->awaited_.reset();
            here->turn();
        }
    });
}

} // namespace desk::camera
