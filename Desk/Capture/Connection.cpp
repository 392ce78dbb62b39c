#include "Connection.h"

#include <algorithm>
#include <fmt/format.h>

#include "LittleEndian.h"
#include "Recognition.h"

namespace desk::capture {
namespace {

constexpr size_t most_channels = 32;
constexpr size_t l2cap_header = 4;
constexpr size_t sdu_length_size = 2;

// A first packet against credits begins with the length of what it begins.
bool begins_credited(std::span<const uint8_t> bytes) {
    return bytes.size() > sdu_length_size && get_16(bytes, 0) >= bytes.size() - sdu_length_size &&
           beginning_of(bytes.subspan(sdu_length_size)) != Beginning::nothing;
}

} // namespace

Connection::Connection(EventQueue& queue, const std::optional<uint16_t>& psm)
    : queue_(queue), psm_(psm), unopened_session_(queue) {}

// ---- From pieces to packets -----------------------------------------------------------------------------------------

void Connection::take(End sender, bool begins, std::span<const uint8_t> bytes, bool is_cut) {
    Piece& piece = pieces_[index_of(sender)];
    if (begins && !piece.bytes.empty()) {
        give_up(sender, "a packet's end is missing");
    } else if (!begins && piece.bytes.empty()) {
        if (!piece.is_skipped) {
            lose(sender, "a packet's start is missing");
        }
        piece.is_skipped = true;
        return;
    }
    piece.is_skipped = false;
    piece.bytes.insert(piece.bytes.end(), bytes.begin(), bytes.end());
    if (is_cut) {
        give_up(sender, "the file holds a part of a packet only");
        return;
    }
    const size_t size = piece.bytes.size();
    const size_t wanted = size < l2cap_header ? l2cap_header : l2cap_header + get_16(piece.bytes, 0);
    if (size > wanted) {
        give_up(sender, "a packet has more bytes than it announces");
    } else if (size == wanted && size >= l2cap_header) {
        take_packet(sender, piece.bytes);
        piece.bytes.clear();
    }
}

// What has come of a packet is all that there is.
void Connection::give_up(End sender, const std::string& why) {
    Piece& piece = pieces_[index_of(sender)];
    piece.is_skipped = true;
    if (piece.bytes.size() < l2cap_header) {
        lose(sender, why);
    } else {
        const uint16_t id = get_16(piece.bytes, 2);
        const auto start = std::span<const uint8_t>(piece.bytes).subspan(l2cap_header);
        L2capChannel* channel = find(opposite(sender), id);
        if (channel == nullptr && id >= first_dynamic_channel && beginning_of(start) != Beginning::nothing) {
            channel = &channel_of_unknown(sender, id, Channel::Kind::l2cap, start);
        }
        if (channel != nullptr) {
            channel->take_start(sender, start, why);
        } else if (id >= first_dynamic_channel) {
            unopened_session_.lose(sender, why);
        }
    }
    piece.bytes.clear();
}

void Connection::take_packet(End sender, std::span<const uint8_t> packet) {
    const uint16_t id = get_16(packet, 2);
    const auto bytes = packet.subspan(l2cap_header);
    if (id == signalling_channel || id == le_signalling_channel) {
        take_signals(sender, bytes);
    } else if (id >= first_dynamic_channel) {
        if (L2capChannel* const channel = find(opposite(sender), id)) {
            channel->take(sender, bytes);
        } else {
            take_unknown(sender, id, bytes);
        }
    }
}

// ---- Channels whose opening is not in the capture -------------------------------------------------------------------

void Connection::take_unknown(End sender, uint16_t id, std::span<const uint8_t> bytes) {
    if (beginning_of(bytes) != Beginning::nothing) {
        channel_of_unknown(sender, id, Channel::Kind::l2cap, bytes).take(sender, bytes);
    } else if (begins_credited(bytes)) {
        channel_of_unknown(sender, id, Channel::Kind::le, bytes.subspan(sdu_length_size)).take(sender, bytes);
    } else if (Rfcomm::carries_data(bytes)) {
        unopened_session_.take(sender, bytes);
    }
}

// The other direction of the same channel may have shown before.
L2capChannel& Connection::channel_of_unknown(End sender, uint16_t id, Channel::Kind kind,
                                             std::span<const uint8_t> message) {
    const End phone = beginning_of(message) == Beginning::request ? sender : opposite(sender);
    const auto other = std::ranges::find_if(channels_, [&](const auto& channel) {
        return channel->id_at(opposite(sender)) == 0 && channel->phone() == phone;
    });
    L2capChannel& channel =
        other != channels_.end() ? **other : add(std::make_unique<L2capChannel>(queue_, kind, 0, std::nullopt, false));
    channel.id_at(opposite(sender)) = id;
    return channel;
}

// ---- All channels ---------------------------------------------------------------------------------------------------

L2capChannel& Connection::add(std::unique_ptr<L2capChannel> channel) {
    if (channels_.size() >= most_channels) {
        if (channels_.front()->is_ours()) {
            queue_.remark(fmt::format("more than {} channels are open at once: the oldest is given up", most_channels));
        }
        channels_.front()->close(std::nullopt);
        channels_.pop_front();
    }
    channels_.push_back(std::move(channel));
    return *channels_.back();
}

L2capChannel* Connection::find(End end, uint16_t id) {
    const auto found =
        std::ranges::find_if(channels_, [&](const auto& channel) { return id != 0 && channel->id_at(end) == id; });
    return found == channels_.end() ? nullptr : found->get();
}

void Connection::remove(const L2capChannel* channel, std::optional<End> by) {
    const auto found = std::ranges::find_if(channels_, [&](const auto& one) { return one.get() == channel; });
    if (found != channels_.end()) {
        (*found)->close(by);
        channels_.erase(found);
    }
}

void Connection::lose(End sender, const std::string& why) {
    for (const auto& channel : channels_) {
        channel->lose(sender, why);
    }
    unopened_session_.lose(sender, why);
}

void Connection::lose(const std::string& why) {
    for (const End sender : {End::host, End::remote}) {
        pieces_[index_of(sender)] = {{}, true};
        lose(sender, why);
    }
}

void Connection::close(std::optional<End> by) {
    for (const auto& channel : channels_) {
        channel->close(by);
    }
    channels_.clear();
    unopened_session_.close(by);
}

bool Connection::is_ours() const {
    return unopened_session_.has_open() ||
           std::ranges::any_of(channels_, [](const auto& channel) { return channel->is_ours(); });
}

} // namespace desk::capture
