#include "SendQueue.h"

#include <asio/post.hpp>
#include <utility>

#include "ADE_ShotMentor.h"

namespace desk {

SendQueue::SendQueue(asio::io_context& loop, const LabOptions& lab) : loop_(loop), lab_(lab), timer_(loop) {}

void SendQueue::queue(std::span<const uint8_t> reply) {
    waiting_.push_back(reply);
    asio::post(loop_, [this] { send_next(); });
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
    link_->send(waiting_.front(), [this] { sent(); });
}

void SendQueue::sent() {
    is_sending_ = false;
    waiting_.pop_front();
    ++sends_;
    if (is_to_drop()) {
        ++dropped_;
    } else {
        unconfirmed_.push_back(Clock::now() + lab_.confirm_delay);
    }
    confirm_later();
    asio::post(loop_, [this] {
        send_next();
        if (is_idle() && when_idle_) {
            when_idle_();
        }
    });
}

bool SendQueue::is_to_drop() {
    return lab_.drop_every > 0 && sends_ % lab_.drop_every == 0;
}

void SendQueue::confirm_later() {
    if (lab_.confirm_delay.count() == 0) {
        asio::post(loop_, [this] { confirm_due(); });
    } else if (!unconfirmed_.empty()) {
        timer_.expires_at(unconfirmed_.front());
        timer_.async_wait([this](const asio::error_code& error) {
            if (!error) {
                confirm_due();
            }
        });
    }
}

void SendQueue::confirm_due() {
    while (is_idle() && !unconfirmed_.empty() && unconfirmed_.front() <= Clock::now()) {
        unconfirmed_.pop_front();
        ADE_ShotMentor_Result_Manager(nullptr, 0);
    }
    if (is_idle() && !unconfirmed_.empty()) { // else the reply on its way comes back here
        confirm_later();
    }
}

void SendQueue::disconnect() {
    const size_t outstanding = waiting_.size() + unconfirmed_.size() + static_cast<size_t>(dropped_);
    link_ = nullptr;
    timer_.cancel();
    waiting_.clear();
    unconfirmed_.clear();
    dropped_ = 0;
    is_sending_ = false;
    for (size_t send = 0; send < outstanding; ++send) {
        ADE_ShotMentor_Result_Manager(nullptr, 0);
    }
}

} // namespace desk
