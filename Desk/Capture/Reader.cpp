#include "Reader.h"

#include <algorithm>
#include <fmt/format.h>
#include <list>
#include <utility>

#include "Connection.h"
#include "EventQueue.h"
#include "Hci.h"
#include "LittleEndian.h"
#include "Packets.h"

namespace desk::capture {
namespace {

constexpr size_t most_connections = 16;
constexpr size_t acl_header = 4;

// Of the events of LE that tell of a new connection.
constexpr uint8_t le_connection_complete = 0x01;
constexpr uint8_t le_enhanced_connection_complete = 0x0a;

} // namespace

class Reader::State {
  public:
    State(const std::string& path, const ReaderOptions& options)
        : packets_(CaptureFile(path, options.follows, options.while_waiting), queue_), psm_(options.psm) {}

    std::optional<Event> next() {
        while (queue_.is_empty()) {
            const std::optional<HciPacket> packet = packets_.next();
            if (packet) {
                take(*packet);
            } else {
                queue_.count_left_out();
                return queue_.next();
            }
        }
        return queue_.next();
    }

  private:
    struct Entry {
        Entry(uint32_t its_key, EventQueue& queue, const std::optional<uint16_t>& psm)
            : key(its_key), connection(queue, psm) {}
        uint32_t key;
        Connection connection;
    };

    void take(const HciPacket& packet);
    void take_event(const HciPacket& packet);
    void take_acl(const HciPacket& packet);
    Connection& connection_of(uint32_t key);
    void end_connection(uint32_t key, std::optional<End> by);

    EventQueue queue_;
    Packets packets_;
    std::optional<uint16_t> psm_;
    std::list<Entry> connections_; // the one that was last heard of first
};

namespace {

// By the reason that the adapter gives.
std::optional<End> who_hung_up(uint8_t reason) {
    switch (reason) {
    case reason_remote_user:
    case reason_remote_low_on_resources:
    case reason_remote_powers_off:
        return End::remote;
    case reason_local_host:
        return End::host;
    default:
        return std::nullopt;
    }
}

uint32_t key_of(const HciPacket& packet, uint16_t handle) {
    return static_cast<uint32_t>(packet.adapter) << 16 | (handle & acl_handle_mask);
}

} // namespace

void Reader::State::take(const HciPacket& packet) {
    if (packets_.has_lost()) {
        for (Entry& entry : connections_) {
            entry.connection.lose("packets were lost when it was captured");
        }
    }
    if (packet.kind == hci_event) {
        take_event(packet);
    } else if (packet.kind == hci_acl) {
        take_acl(packet);
    }
}

// A new connection may have the number of one whose end was not captured.
void Reader::State::take_event(const HciPacket& packet) {
    constexpr size_t header = 2;
    if (packet.bytes.size() < header) {
        return;
    }
    const uint8_t code = packet.bytes[0];
    const auto data = packet.bytes.subspan(header);
    const bool is_of_connection = code == event_connection_complete || code == event_disconnection_complete;
    const bool is_of_le = code == event_le_meta && !data.empty() &&
                          (data[0] == le_connection_complete || data[0] == le_enhanced_connection_complete);
    const size_t status = is_of_le ? 1 : 0;
    if ((is_of_connection || is_of_le) && data.size() >= status + 3 && data[status] == 0) {
        const bool tells_who = code == event_disconnection_complete && data.size() > status + 3;
        end_connection(key_of(packet, get_16(data, status + 1)),
                       tells_who ? who_hung_up(data[status + 3]) : std::nullopt);
    }
}

void Reader::State::take_acl(const HciPacket& packet) {
    if (packet.bytes.size() < acl_header) {
        queue_.remark("a packet ends within its header");
        return;
    }
    const uint16_t head = get_16(packet.bytes, 0);
    const size_t length = get_16(packet.bytes, 2);
    const auto data = packet.bytes.subspan(acl_header);
    const End sender = packet.received ? End::remote : End::host;
    Connection& connection = connection_of(key_of(packet, head));
    const bool begins = (head & acl_boundary_mask) != acl_continued;
    connection.take(sender, begins, data.first(std::min(length, data.size())), data.size() < length);
}

Connection& Reader::State::connection_of(uint32_t key) {
    const auto found = std::ranges::find(connections_, key, &Entry::key);
    if (found != connections_.end()) {
        connections_.splice(connections_.begin(), connections_, found);
        return connections_.front().connection;
    }
    if (connections_.size() >= most_connections) {
        if (connections_.back().connection.is_ours()) {
            queue_.remark(
                fmt::format("there are more than {} connections at once: the one that was silent for longest is given "
                            "up",
                            most_connections));
        }
        connections_.back().connection.close(std::nullopt);
        connections_.pop_back();
    }
    return connections_.emplace_front(key, queue_, psm_).connection;
}

void Reader::State::end_connection(uint32_t key, std::optional<End> by) {
    const auto found = std::ranges::find(connections_, key, &Entry::key);
    if (found != connections_.end()) {
        found->connection.close(by);
        connections_.erase(found);
    }
}

Reader::Reader(const std::string& path, const ReaderOptions& options)
    : state_(std::make_unique<State>(path, options)) {}

Reader::~Reader() = default;

std::optional<Event> Reader::next() {
    return state_->next();
}

} // namespace desk::capture
