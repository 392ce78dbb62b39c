#include "EventQueue.h"

#include <fmt/format.h>
#include <utility>

namespace desk::capture {
namespace {

constexpr uint64_t most_remarks = 100;

} // namespace

void EventQueue::set_place(int64_t time, uint64_t record) {
    time_ = time;
    record_ = record;
}

void EventQueue::add(Event::Kind kind, const Channel& channel, Side sender) {
    waiting_.push_back({{kind, time_, record_, channel, sender, {}, {}, {}}, {}});
}

void EventQueue::opened(const Channel& channel) {
    add(Event::Kind::opened, channel, Side::phone);
}

void EventQueue::data(const Channel& channel, Side sender, std::span<const uint8_t> bytes) {
    add(Event::Kind::data, channel, sender);
    waiting_.back().bytes.assign(bytes.begin(), bytes.end());
}

void EventQueue::gap(const Channel& channel, Side sender, const std::string& why) {
    add(Event::Kind::gap, channel, sender);
    waiting_.back().event.text = why;
}

void EventQueue::closed(const Channel& channel, std::optional<Side> by) {
    add(Event::Kind::closed, channel, Side::phone);
    waiting_.back().event.by = by;
}

void EventQueue::remark(const std::string& line) {
    if (++remarks_ <= most_remarks) {
        add(Event::Kind::remark, {}, Side::phone);
        waiting_.back().event.text = line;
    }
}

void EventQueue::count_left_out() {
    if (remarks_ > most_remarks) {
        add(Event::Kind::remark, {}, Side::phone);
        waiting_.back().event.text = fmt::format("{} more remarks like these are left out", remarks_ - most_remarks);
        remarks_ = 0;
    }
}

std::optional<Event> EventQueue::next() {
    if (waiting_.empty()) {
        return std::nullopt;
    }
    Event event = std::move(waiting_.front().event);
    current_ = std::move(waiting_.front().bytes);
    waiting_.pop_front();
    event.bytes = current_;
    return event;
}

} // namespace desk::capture
