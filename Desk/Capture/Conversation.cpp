#include "Conversation.h"

#include "Recognition.h"

namespace desk::capture {
namespace {

constexpr size_t header = sizeof(sm_frame);

Bytes joined(const std::vector<Bytes>& pieces) {
    Bytes all;
    for (const Bytes& piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

} // namespace

Conversation::Conversation(EventQueue& queue, Channel::Kind kind, uint16_t port, std::optional<End> opener,
                           bool leads_to_camera)
    : queue_(queue), channel_{kind, 0, port}, phone_(opener), leads_to_camera_(leads_to_camera && opener),
      may_begin_anywhere_(!opener) {}

void Conversation::open() {
    state_ = State::ours;
    channel_.number = queue_.next_number();
    queue_.opened(channel_);
}

void Conversation::establish() {
    if (leads_to_camera_ && state_ == State::undecided) {
        open();
    }
}

void Conversation::take(End sender, std::span<const uint8_t> bytes) {
    establish();
    if (state_ == State::ours) {
        hand_on(sender, bytes);
    } else if (state_ == State::undecided && !bytes.empty()) {
        hold(sender, bytes);
    }
}

void Conversation::take_start(End sender, std::span<const uint8_t> bytes) {
    establish();
    if (state_ == State::undecided && recognise(sender, bytes)) {
        open();
    }
}

void Conversation::hand_on(End sender, std::span<const uint8_t> bytes) {
    lost_[index_of(sender)] = false;
    queue_.data(channel_, side_of(sender), bytes);
}

// A header may come in pieces only where the link is a stream.
void Conversation::hold(End sender, std::span<const uint8_t> bytes) {
    std::vector<Bytes>& pieces = held_[index_of(sender)];
    pieces.emplace_back(bytes.begin(), bytes.end());
    const Bytes start = joined(pieces);
    if (start.size() < header && !channel_.keeps_message_boundaries()) {
        return;
    }
    if (recognise(sender, start)) {
        open();
        for (const Bytes& piece : pieces) {
            hand_on(sender, piece);
        }
    } else if (!may_begin_anywhere_) {
        state_ = State::of_others;
    }
    pieces.clear();
}

// Requests come from the end that has opened the channel, replies from the other one.
bool Conversation::recognise(End sender, std::span<const uint8_t> bytes) {
    const Beginning beginning = beginning_of(bytes);
    if (beginning == Beginning::nothing) {
        return false;
    }
    const End phone = beginning == Beginning::request ? sender : opposite(sender);
    if (phone_ && *phone_ != phone) {
        return false;
    }
    phone_ = phone;
    return true;
}

void Conversation::lose(End sender, const std::string& why) {
    bool& is_lost = lost_[index_of(sender)];
    if (state_ == State::ours && !is_lost) {
        queue_.gap(channel_, side_of(sender), why);
        is_lost = true;
    } else if (state_ == State::undecided) {
        held_[index_of(sender)].clear();
        may_begin_anywhere_ = true;
    }
}

void Conversation::close(std::optional<End> by) {
    if (state_ == State::ours) {
        queue_.closed(channel_, by ? std::optional<Side>(side_of(*by)) : std::nullopt);
    }
    state_ = State::of_others;
}

} // namespace desk::capture
