// What a phone and a camera said on a Bluetooth link, read out of a btsnoop file packet by packet.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace desk::capture {

enum class Side { phone, camera };

// A link between a phone and a camera.
struct Channel {
    enum class Kind { l2cap, rfcomm, le };
    Kind kind = Kind::l2cap;
    uint32_t number = 0; // 1 for the first in the file, and so on
    uint16_t port = 0;   // PSM, or RFCOMM channel; 0 when its opening is not in the file
    bool keeps_message_boundaries() const { return kind != Kind::rfcomm; }
};

struct Event {
    enum class Kind {
        opened, // comes before a channel's first data in any case
        data,   // one packet of the channel, or a piece of its stream, as it was sent
        gap,    // bytes of the sender are missing here: what follows may begin anywhere within a message
        closed,
        remark, // something else that keeps the file from being read in full
    };
    Kind kind = Kind::remark;
    int64_t time = 0;    // microseconds since 1970, as the file has it
    uint64_t record = 0; // the record that completed it, 1 for the first in the file
    Channel channel;     // not of a remark
    Side sender = Side::phone;
    std::optional<Side> by;         // of closed: who hung up, where the file tells
    std::span<const uint8_t> bytes; // of data; until the next call
    std::string text;               // of a gap and a remark: one line
};

struct ReaderOptions {
    bool follows = false;        // waits at the end of a file that grows, or for a pipe that gives nothing
    std::optional<uint16_t> psm; // where the camera listens, besides what is recognised by its first message
    std::function<void()> while_waiting = {}; // called several times a second meanwhile; what it throws ends the wait
};

// Its memory does not grow with the file. Where a channel's opening is not in the file, whoever sends the first request
// is the phone.
class Reader {
  public:
    // `path` may be "-", standard input. Throws Failure for a file that cannot be read, or is no btsnoop file of HCI
    // packets: exit_machine and exit_usage.
    Reader(const std::string& path, const ReaderOptions& options);
    ~Reader();

    // Nothing at the end of the file. Throws Failure (exit_machine) where the file cannot be read any further.
    std::optional<Event> next();

  private:
    class State;
    std::unique_ptr<State> state_;
};

} // namespace desk::capture
