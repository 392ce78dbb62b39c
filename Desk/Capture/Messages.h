// Requests and replies out of what a phone and a camera sent packet by packet.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Reader.h"
#include "Wire/Record.h"

namespace desk::capture {

struct Message {
    enum class Fate {
        whole,
        too_long,         // counted and thrown away
        lost_with_packet, // no message begins like this: it is refused together with its packet
        too_short,        // shorter than its own header, and lost with its packet
        cut_off,          // its end never came; `fault` says why
        uncertain,        // bytes that may lie anywhere in a message, because some before them are missing
        unanswered,       // a whole request, given before, to which no reply has come; `bytes` is its start
    };
    Fate fate = Fate::whole;
    Channel channel;
    Side sender = Side::phone;
    int32_t function = 0; // both are 0 while fewer than 8 bytes have come
    int32_t total = 0;
    size_t arrived = 0; // bytes of it
    int64_t began = 0;  // when its first packet came, and its last one; microseconds since 1970
    int64_t ended = 0;
    uint64_t first_record = 0;
    uint64_t last_record = 0;
    size_t packets = 0;                 // that held bytes of it
    std::vector<uint32_t> packet_sizes; // how many of its bytes each held; of the first `most_packet_sizes`
    Bytes bytes;                        // its header included; as far as they are kept
    std::string fault;                  // what is wrong with the way it came, in words; nothing when it is right
    bool jams_camera = false;           // the camera answers nothing from here on until the phone disconnects
    bool is_unheard = false;            // the camera was in that state before
    std::optional<int64_t> waited;      // of a reply: microseconds from the request's last packet to its own
    uint64_t request_record = 0;        // and that packet's record, else 0
};

constexpr size_t most_packet_sizes = 65536;

// Whether the function number is a reply's.
bool is_reply(int32_t function);

// Why a camera does not answer a request, by the rules of the protocol alone: "there is no such function". Nothing when
// it answers, or when it depends on its presets.
std::string why_unanswered(const Message& request);

// Whether a reply is due to a request.
bool expects_reply(const Message& request);

struct MessageOptions {
    bool keeps_pictures = true; // else a message ends before its picture
};

// Holds one message of each side of each channel at most.
class Messages {
  public:
    explicit Messages(const MessageOptions& options = {}) : options_(options) {}

    // The messages that an event completes, or leaves incomplete, in order.
    std::vector<Message> take(const Event& event);
    // At the end of the file.
    std::vector<Message> finish();

  private:
    // What one side of a channel has begun.
    struct Direction {
        std::optional<Message> message;
        bool is_lost = false; // bytes are missing: where the next message begins is not known
    };
    struct Conversation {
        std::array<Direction, 2> directions;
        std::deque<Message> waiting; // requests without a reply
        bool is_jammed = false;
    };

    void take_packet(const Event& event);
    static Message begun(const Event& event);
    std::span<const uint8_t> take_piece(Direction& direction, const Event& event, std::span<const uint8_t> bytes) const;
    static bool are_nobodys(const Conversation& conversation, const Event& event, std::span<const uint8_t> bytes);
    static bool is_complete(const Message& message);
    void add(Message& message, std::span<const uint8_t> bytes) const;
    static void note_packet(Message& message, const Event& event, size_t size);
    size_t kept(const Message& message) const;
    static void check_end(Message& message, bool is_followed);
    void complete(Conversation& conversation, Direction& direction);

    void cut_off(Direction& direction, const std::string& why);
    bool finds_beginning(Direction& direction, const Event& event);

    void note_request(Conversation& conversation, const Message& request);
    void note_reply(Conversation& conversation, Message& reply);
    void give_up_waiting(Conversation& conversation, size_t count);
    void end(Conversation& conversation, const std::string& why);

    MessageOptions options_;
    std::map<uint32_t, Conversation> conversations_; // by the channel's number
    std::vector<Message> done_;
};

} // namespace desk::capture
