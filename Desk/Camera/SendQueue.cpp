#include "SendQueue.h"

#include <algorithm>
#include <asio/post.hpp>
#include <cstdlib>
#include <fmt/format.h>
#include <utility>

#include "ADE_ShotMentor.h"
#include "Budgets.h"
#include "LabTalk.h"

namespace desk::camera {
namespace {

bool is_held_by_library(const void* reply) {
    const auto queue = std::span(shotmentor_p_Full_Q).first(static_cast<size_t>(shotmentor_p_Full_Q_NUM));
    return reply == shotmentor_p_FullData || std::find(queue.begin(), queue.end(), reply) != queue.end();
}

bool is_not_held_by_library(const void* reply) {
    return !is_held_by_library(reply);
}

} // namespace

SendQueue::SendQueue(asio::io_context& loop, Knobs& knobs) : loop_(loop), knobs_(knobs), timer_(loop) {}

void SendQueue::queue(std::span<const uint8_t> reply) {
    waiting_.push_back(reply);
    kept_.push_back(shotmentor_p_FullData);
    asio::post(loop_, [this] { send_next(); });
}

void SendQueue::free_lost_replies() {
    const auto lost = std::partition(kept_.begin(), kept_.end(), is_held_by_library);
    std::for_each(lost, kept_.end(), [](void* reply) { std::free(reply); });
    kept_.erase(lost, kept_.end());
}

void SendQueue::connect(std::shared_ptr<Link> link) {
    link_ = std::move(link);
}

void SendQueue::send_next() {
    if (is_sending_ || waiting_.empty()) {
        return;
    }
    is_sending_ = true;
    if (link_ == nullptr || waiting_.front().empty()) {
        sent(); // with nobody there, or with nothing to send, a send completes at once
        return;
    }
    if (is_to_pull()) {
        send_start_and_pull();
        return;
    }
    link_->send(waiting_.front(), [this] { sent(); });
}

bool SendQueue::is_to_pull() const {
    return knobs_.pull_reply && waiting_.front().size() > static_cast<size_t>(*knobs_.pull_reply);
}

void SendQueue::send_start_and_pull() {
    const std::span<const uint8_t> reply = waiting_.front();
    const auto length = static_cast<size_t>(*std::exchange(knobs_.pull_reply, std::nullopt));
    // The link is pulled from the loop: its handler must not take it away from below itself. Its phone may have left by
    // then.
    link_->send(reply.first(length), [this, length, total = reply.size(), link = std::weak_ptr(link_)] {
        asio::post(loop_, [this, length, total, link] {
            if (link_ != nullptr && link.lock() == link_) {
                pulled(length, total);
            }
        });
    });
}

void SendQueue::pulled(size_t sent, size_t total) {
    tell_of_fault("pull reply", fmt::format("the link is pulled after {} of {} bytes of a reply", sent, total));
    if (when_pulled_) {
        when_pulled_();
    }
}

void SendQueue::sent() {
    is_sending_ = false;
    waiting_.pop_front();
    ++sends_;
    if (const char* const fault = reason_to_drop()) {
        tell_of_fault(fault, fmt::format("send {} is not confirmed", sends_));
        dropped_ = std::min(dropped_ + 1, budget::unconfirmed_replies);
    } else if (unconfirmed_.size() < budget::unconfirmed_replies) { // else the library has lost one, too
        await_confirmation();
    }
    confirm_later();
    asio::post(loop_, [this] {
        send_next();
        if (is_idle() && when_idle_) {
            when_idle_();
        }
    });
}

// The fault because of which this send is not confirmed; null when it is.
const char* SendQueue::reason_to_drop() {
    if (use_up(knobs_.drop_next)) {
        return "drop-next";
    }
    return knobs_.drop_every && sends_ % *knobs_.drop_every == 0 ? "drop-confirmations" : nullptr;
}

void SendQueue::await_confirmation() {
    const std::chrono::milliseconds delay(knobs_.confirm_delay.value_or(0));
    unconfirmed_.push_back({sends_, Clock::now() + delay, use_up(knobs_.duplicate_next)});
    if (delay.count() > 0) {
        tell_of_fault("confirm-delay", fmt::format("send {} is confirmed in {} ms", sends_, delay.count()));
    }
}

// In the order of the sends: one that is late keeps those behind it, although the delay may have been taken back.
void SendQueue::confirm_later() {
    if (unconfirmed_.empty()) {
        return;
    }
    if (unconfirmed_.front().due <= Clock::now()) {
        asio::post(loop_, [this] { confirm_due(); });
        return;
    }
    timer_.expires_at(unconfirmed_.front().due);
    timer_.async_wait([this](const asio::error_code& error) {
        if (!error) {
            confirm_due();
        }
    });
}

void SendQueue::confirm_due() {
    while (is_idle() && !unconfirmed_.empty() && unconfirmed_.front().due <= Clock::now()) {
        const Unconfirmed send = unconfirmed_.front();
        unconfirmed_.pop_front();
        confirm(send);
    }
    if (is_idle() && !unconfirmed_.empty()) { // else the reply on its way comes back here
        confirm_later();
    }
}

// The second confirmation finds the next reply that the library holds, which has gone, too, or none.
void SendQueue::confirm(const Unconfirmed& send) {
    confirm_once();
    if (send.is_twice) {
        tell_of_fault("duplicate-next", fmt::format("send {} is confirmed twice", send.number));
        confirm_once();
    }
}

void SendQueue::confirm_once() {
    ADE_ShotMentor_Result_Manager(nullptr, 0);
    std::erase_if(kept_, is_not_held_by_library); // it has freed that one
}

void SendQueue::disconnect() {
    const size_t outstanding = waiting_.size() + unconfirmed_.size() + dropped_;
    link_ = nullptr;
    timer_.cancel();
    waiting_.clear();
    unconfirmed_.clear();
    dropped_ = 0;
    is_sending_ = false;
    for (size_t send = 0; send < outstanding; ++send) {
        confirm_once();
    }
}

} // namespace desk::camera
