#include "Exchanges.h"

#include <fmt/format.h>
#include <utility>

#include "Wire/Frames.h"

namespace desk::capture {
namespace {

// More than the longest request with the longest reply, cut as small as can be: what is longer comes in several
// exchanges.
constexpr size_t longest_exchange = longest_picture_reply + 4 * size_t{SM_REQUEST_LIMIT};
constexpr size_t most_packets = 2 * size_t{SM_REQUEST_LIMIT};
constexpr size_t most_connections = 16; // that are open at once
constexpr size_t most_remarks = 100;    // that are kept until they are asked for

Ending ending_of(const Event& event) {
    return !event.by ? Ending::unknown : *event.by == Side::phone ? Ending::phone_left : Ending::camera_left;
}

} // namespace

Bytes Exchange::sent_by(Side side) const {
    Bytes all;
    for (const Packet& packet : packets) {
        if (packet.sender == side) {
            const auto piece = bytes_of(packet);
            all.insert(all.end(), piece.begin(), piece.end());
        }
    }
    return all;
}

Exchanges::Exchanges(const std::string& path, const ReaderOptions& options) : reader_(path, options) {}

std::optional<Exchange> Exchanges::next() {
    while (ready_.empty() && !is_at_end_) {
        if (const std::optional<Event> event = reader_.next()) {
            take(*event);
        } else {
            is_at_end_ = true;
            for (auto& [number, connection] : connections_) {
                finish(connection);
            }
        }
    }
    if (ready_.empty()) {
        return std::nullopt;
    }
    std::optional<Exchange> first = std::move(ready_.front());
    ready_.pop();
    return first;
}

std::vector<std::string> Exchanges::remarks() {
    return std::exchange(remarks_, {});
}

void Exchanges::take(const Event& event) {
    switch (event.kind) {
    case Event::Kind::remark:
        remark(event.text);
        return;
    case Event::Kind::opened:
        finish_others(event.channel.number);
        connection_of(event.channel);
        return;
    case Event::Kind::data:
        if (!event.bytes.empty()) {
            take_data(connection_of(event.channel), event);
        }
        return;
    case Event::Kind::gap:
        take_gap(connection_of(event.channel), event);
        return;
    case Event::Kind::closed:
        if (const auto known = connections_.find(event.channel.number); known != connections_.end()) {
            close(known->second, ending_of(event));
        }
        return;
    }
}

void Exchanges::remark(const std::string& line) {
    if (remarks_.size() < most_remarks) {
        remarks_.push_back(line);
    }
}

Exchanges::Connection& Exchanges::connection_of(const Channel& channel) {
    if (const auto known = connections_.find(channel.number); known != connections_.end()) {
        return known->second;
    }
    if (connections_.size() == most_connections) {
        close(connections_.begin()->second, Ending::unknown);
    }
    Connection& added = connections_.emplace(channel.number, Connection(channel)).first->second;
    added.pending.connection = channel.number;
    return added;
}

// A request that is not whole is dropped: nobody knows how it was to go on. The phone is taken to have left here.
void Exchanges::take_gap(Connection& connection, const Event& event) {
    if (connection.has_gap) {
        return;
    }
    connection.has_gap = true;
    remark(fmt::format("connection {}: {}; what follows on it is left out", event.channel.number, event.text));
    if (!connection.phone.is_between()) {
        connection.pending.packets.clear();
        connection.pending.bytes.clear();
    }
    connection.pending.ending = Ending::unknown;
    finish(connection);
}

void Exchanges::take_data(Connection& connection, const Event& event) {
    if (connection.has_gap) {
        return;
    }
    if (event.sender == Side::camera) {
        add(connection, event, event.bytes);
        return;
    }
    for (std::span<const uint8_t> rest = event.bytes; !rest.empty();) {
        if (connection.phone.is_between() && !connection.phone.is_stuck()) {
            finish(connection);
            connection.pending.is_request = true;
            connection.pending.continues = false;
            connection.pending.record = event.record;
        }
        const size_t size = connection.phone.take(rest);
        add(connection, event, rest.first(size));
        rest = rest.subspan(size);
    }
}

void Exchanges::add(Connection& connection, const Event& event, std::span<const uint8_t> bytes) {
    Exchange& pending = connection.pending;
    if (pending.bytes.size() + bytes.size() > longest_exchange || pending.packets.size() == most_packets) {
        finish(connection);
        pending.continues = true;
    }
    pending.packets.push_back({event.sender, event.time, pending.bytes.size(), bytes.size()});
    pending.bytes.insert(pending.bytes.end(), bytes.begin(), bytes.end());
}

// What is pending is handed out; without anything in it, it is kept.
void Exchanges::finish(Connection& connection) {
    Exchange& pending = connection.pending;
    if (pending.packets.empty() && pending.ending == Ending::none) {
        return;
    }
    pending.keeps_message_boundaries = connection.channel.keeps_message_boundaries();
    pending.opens = !std::exchange(connection.was_opened, true);
    ready_.push(std::exchange(pending, {}));
    pending.connection = connection.channel.number;
}

// A connection whose end is not in the file ends where another one begins: what it has said is handed out before.
void Exchanges::finish_others(uint32_t number) {
    for (auto& [other, connection] : connections_) {
        if (other != number && connection.phone.is_between()) {
            finish(connection);
            connection.pending.continues = true;
        }
    }
}

void Exchanges::close(Connection& connection, Ending ending) {
    if (!connection.has_gap) {
        connection.pending.ending = ending;
        finish(connection);
    }
    connections_.erase(connection.channel.number);
}

} // namespace desk::capture
