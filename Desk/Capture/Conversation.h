// A channel on which a phone and a camera may talk: whether they do, and what they say.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "EventQueue.h"

namespace desk::capture {

// The two ends of a connection: the adapter whose packets were captured, and the other one.
enum class End : uint8_t { host, remote };

constexpr End opposite(End end) {
    return end == End::host ? End::remote : End::host;
}
constexpr size_t index_of(End end) {
    return static_cast<size_t>(end);
}

// What an end sends on a channel, packet by packet.
class Receiver {
  public:
    virtual ~Receiver() = default;
    virtual void take(End sender, std::span<const uint8_t> bytes) = 0;
    // Bytes are missing here.
    virtual void lose(End sender, const std::string& why) = 0;
    virtual void close(std::optional<End> by) = 0; // who hung up, where that is seen
};

class Conversation : public Receiver {
  public:
    // `opener` is the phone; nothing where the file does not hold how the channel was opened. `leads_to_camera` where
    // its port tells that it is one of ours.
    Conversation(EventQueue& queue, Channel::Kind kind, uint16_t port, std::optional<End> opener, bool leads_to_camera);

    void establish(); // the channel is open at both ends
    void take(End sender, std::span<const uint8_t> bytes) override;
    void lose(End sender, const std::string& why) override;
    void close(std::optional<End> by) override;
    // The start of a packet whose rest is missing may tell that the channel is one of ours.
    void take_start(End sender, std::span<const uint8_t> bytes);

    bool is_open() const { return state_ == State::ours; }
    std::optional<End> phone() const { return phone_; }

  private:
    enum class State { undecided, ours, of_others };

    void open();
    bool recognise(End sender, std::span<const uint8_t> bytes);
    void hold(End sender, std::span<const uint8_t> bytes);
    void hand_on(End sender, std::span<const uint8_t> bytes);
    Side side_of(End end) const { return end == phone_ ? Side::phone : Side::camera; }

    EventQueue& queue_;
    Channel channel_;
    std::optional<End> phone_;
    bool leads_to_camera_;
    bool may_begin_anywhere_; // the first message is not known to be the first
    State state_ = State::undecided;
    // The pieces of a stream until its first header is whole, of each end.
    std::array<std::vector<Bytes>, 2> held_;
    std::array<bool, 2> lost_ = {false, false};
};

} // namespace desk::capture
