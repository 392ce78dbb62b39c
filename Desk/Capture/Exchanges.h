// A captured conversation request by request, each with what the camera sent until the phone went on.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <string>
#include <vector>

#include "Boundaries.h"
#include "Reader.h"
#include "Wire/Record.h"

namespace desk::capture {

// One packet, or piece of a stream, of an exchange.
struct Packet {
    Side sender = Side::phone;
    int64_t time = 0; // microseconds since 1970, as the file has it
    size_t begin = 0; // in the bytes of the exchange
    size_t size = 0;
};

// What became of a connection behind an exchange.
enum class Ending { none, phone_left, camera_left, unknown };

struct Exchange {
    uint32_t connection = 0; // 1 for the first in the file, and so on
    bool keeps_message_boundaries = true;
    bool opens = false;          // the first one of its connection
    bool continues = false;      // the rest of one that was too long to be held, or that another connection cut in two
    bool is_request = false;     // a request, whole or cut off, begins it
    std::vector<Packet> packets; // in the order in which they were sent
    Bytes bytes;                 // of all packets
    Ending ending = Ending::none;
    uint64_t record = 0; // of the file, that began it

    std::span<const uint8_t> bytes_of(const Packet& packet) const {
        return std::span<const uint8_t>(bytes).subspan(packet.begin, packet.size);
    }
    // What one side sent, in one piece.
    Bytes sent_by(Side side) const;
};

// Its memory does not grow with the file.
class Exchanges {
  public:
    // Throws Failure, as `next` does, for a file that cannot be read.
    Exchanges(const std::string& path, const ReaderOptions& options);

    // Nothing at the end of the file. A connection whose end is not in the file has none.
    std::optional<Exchange> next();

    // What kept the file from being read in full, since the last call: a line each.
    std::vector<std::string> remarks();

  private:
    struct Connection {
        explicit Connection(const Channel& its_channel)
            : channel(its_channel), phone(Side::phone, its_channel.keeps_message_boundaries()) {}
        Channel channel;
        Boundaries phone;
        Exchange pending;
        bool was_opened = false;
        bool has_gap = false; // what follows may begin anywhere
    };

    Connection& connection_of(const Channel& channel);
    void take(const Event& event);
    void remark(const std::string& line);
    void take_gap(Connection& connection, const Event& event);
    void take_data(Connection& connection, const Event& event);
    void add(Connection& connection, const Event& event, std::span<const uint8_t> bytes);
    void finish(Connection& connection);
    void finish_others(uint32_t number);
    void close(Connection& connection, Ending ending);

    Reader reader_;
    std::map<uint32_t, Connection> connections_; // that are open
    std::queue<Exchange> ready_;
    std::vector<std::string> remarks_;
    bool is_at_end_ = false;
};

} // namespace desk::capture
