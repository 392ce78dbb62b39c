// Between a link and the library's packet entry: delivers what a phone sends in packets as the library wants them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace desk::camera {

class RequestTalk;
struct Knobs;

// On a link that keeps message boundaries a packet is delivered as it came. On a byte stream the intake finds where
// requests end: the library must never get bytes of two in one packet, nor a header in halves. How far a request has
// come is asked of the library each time, so that there is one truth about it.
class Intake {
  public:
    Intake(bool keeps_message_boundaries, RequestTalk& talk, Knobs& knobs)
        : keeps_message_boundaries_(keeps_message_boundaries), talk_(talk), knobs_(knobs) {}

    // Takes in what the link received: one packet, or a piece of the stream.
    void take(std::span<const uint8_t> received);
    // Delivers the next packet to the library, which may run a request. The lab may have the link pulled in the middle
    // of it: what lies behind that has never come then.
    enum class Delivery { none, whole_packet, pulled };
    Delivery deliver();

    // Whether the phone has sent a request in half.
    bool is_in_request() const;

    // Bytes that the phone has sent and that have not been delivered, nor belong to a request that was refused.
    size_t unread() const;
    // Whether the library has a part of a request.
    static bool is_in_reassembly();
    // How the request in reassembly has become one that will never be answered, which only the phone's leaving can end.
    enum class Stuck { no, too_many_bytes, no_memory };
    static Stuck stuck();

  private:
    std::span<const uint8_t> waiting() const;
    std::optional<size_t> next_packet(); // its bytes; nothing when there is none yet
    std::optional<size_t> next_of_stream();
    size_t starting_bytes(std::span<const uint8_t> stream);
    void skip();
    void hand_over(size_t length);
    int64_t announced(size_t packet) const;
    std::optional<size_t> bytes_before_pull(size_t packet) const;
    Delivery pull(size_t before);

    bool keeps_message_boundaries_;
    RequestTalk& talk_;
    Knobs& knobs_;
    bool has_packet_ = false;    // on a link that keeps message boundaries: one that may be empty
    std::vector<uint8_t> bytes_; // what was received, with cleared bytes behind it
    size_t delivered_ = 0;       // bytes of it that the library has had
    size_t received_ = 0;        // bytes of it that the phone sent
    size_t to_skip_ = 0;         // bytes of a refused request that are still to come on a stream
};

} // namespace desk::camera
