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

SendQueue::SendQueue(asio::io_context& loop, const LabOptions& lab) : loop_(loop), lab_(lab), timer_(loop) {}

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
    link_->send(waiting_.front(), [this] { sent(); });
}

void SendQueue::sent() {
    is_sending_ = false;
    waiting_.pop_front();
    ++sends_;
    if (is_to_drop()) {
        tell_of_lab(fmt::format("send {} is not confirmed", sends_));
        dropped_ = std::min(dropped_ + 1, budget::unconfirmed_replies);
    } else if (unconfirmed_.size() < budget::unconfirmed_replies) { // else the library has lost one, too
        unconfirmed_.push_back(Clock::now() + lab_.confirm_delay);
        if (lab_.confirm_delay.count() > 0) {
            tell_of_lab(fmt::format("send {} is confirmed in {} ms", sends_, lab_.confirm_delay.count()));
        }
    }
    confirm_later();
    asio::post(loop_, [this] {
        send_next();
        if (is_idle() && when_idle_) {
            when_idle_();
        }
    });
}

bool SendQueue::is_to_drop() const {
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
        confirm();
    }
    if (is_idle() && !unconfirmed_.empty()) { // else the reply on its way comes back here
        confirm_later();
    }
}

void SendQueue::confirm() {
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
        confirm();
    }
}

} // namespace desk::camera
