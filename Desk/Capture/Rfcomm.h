// The channels of RFCOMM within one of L2CAP.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>

#include "Conversation.h"

namespace desk::capture {

class Rfcomm : public Receiver {
  public:
    explicit Rfcomm(EventQueue& queue) : queue_(queue) {}

    void take(End sender, std::span<const uint8_t> bytes) override;
    void lose(End sender, const std::string& why) override;
    void close(std::optional<End> by) override;
    bool has_open() const;

    // Whether bytes are a frame that carries data of a channel.
    static bool carries_data(std::span<const uint8_t> bytes);

  private:
    void close_channel(uint8_t dlci, std::optional<End> by);

    EventQueue& queue_;
    std::map<uint8_t, Conversation> conversations_; // by DLCI, of which there are 64
};

} // namespace desk::capture
