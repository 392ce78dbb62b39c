// A channel of L2CAP. Each end has a number of its own for it, to which the other one sends.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Conversation.h"
#include "EventQueue.h"
#include "Rfcomm.h"
#include "SduReader.h"

namespace desk::capture {

class L2capChannel {
  public:
    L2capChannel(EventQueue& queue, Channel::Kind kind, uint16_t psm, std::optional<End> opener, bool leads_to_camera);
    std::array<uint16_t, 2> ids = {}; // 0 while unknown
    uint8_t request = 0;              // by which its opening was asked for
    bool is_pending = false;          // and was not answered yet

    uint16_t& id_at(End end) { return ids[index_of(end)]; }
    // `asks` is the end to which packets will travel so.
    void configure(End asks, std::span<const uint8_t> options);
    void forget_configuration(End asks);
    void set_carriage(Carriage carriage) { asked_.fill({carriage, true, false}); }

    void establish();
    void take(End sender, std::span<const uint8_t> bytes);
    // The capture holds the start of a packet alone.
    void take_start(End sender, std::span<const uint8_t> bytes, const std::string& why);
    void lose(End sender, const std::string& why);
    void close(std::optional<End> by) { receiver().close(by); }
    bool is_ours() const;
    // Whose requests are looked for on it; nothing while that is not known, or on a session of RFCOMM.
    std::optional<End> phone() const;

  private:
    struct Asked {
        Carriage carriage = Carriage::plain;
        bool wants_checksum = true;
        bool has_long_control = false;
    };
    Receiver& receiver();
    SduReader& reader_of(End sender) { return readers_[index_of(sender)]; }
    Framing framing_of(End sender) const;

    std::unique_ptr<Conversation> conversation_;
    std::unique_ptr<Rfcomm> session_; // instead, where it leads to RFCOMM
    std::array<SduReader, 2> readers_;
    std::array<Asked, 2> asked_;
};

} // namespace desk::capture
