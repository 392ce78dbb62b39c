// Puts together what one end hands to a channel of L2CAP from the packets that it travels in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>

#include "Conversation.h"
#include "Wire/Record.h"

namespace desk::capture {

// How a channel carries it: as it is, numbered and sent again where it is lost, numbered alone, or against credits.
enum class Carriage { plain, retransmitted, streamed, credited };

struct Framing {
    Carriage carriage = Carriage::plain;
    bool has_checksum = true;      // of numbered packets
    bool has_long_control = false; // of numbered packets
};

class SduReader {
  public:
    // `receiver` gets what `sender` has sent.
    SduReader(Receiver& receiver, End sender) : receiver_(receiver), sender_(sender) {}

    void take(std::span<const uint8_t> packet, const Framing& framing);
    void lose(const std::string& why);

  private:
    enum class Segment : uint8_t { whole, start, end, middle };
    struct Numbered {
        Segment segment = Segment::whole;
        Bytes bytes;
    };

    void take_numbered(std::span<const uint8_t> packet, const Framing& framing);
    void take_in_order(uint32_t number, Numbered segment, bool comes_again);
    void keep(uint32_t distance, Numbered segment);
    void hand_on_kept();
    void take_segment(Segment segment, std::span<const uint8_t> bytes);
    void take_credited(std::span<const uint8_t> packet);
    void begin(std::span<const uint8_t> bytes);
    void go_on(std::span<const uint8_t> bytes);
    void give();

    Receiver& receiver_;
    End sender_;
    bool is_collecting_ = false;
    size_t announced_ = 0;
    Bytes sdu_;
    bool is_in_step_ = true; // the number that comes next is known
    uint32_t expected_ = 0;
    uint32_t numbers_ = 64;
    std::map<uint32_t, Numbered> kept_; // by its number: what came before what it follows
    size_t kept_bytes_ = 0;
};

} // namespace desk::capture
