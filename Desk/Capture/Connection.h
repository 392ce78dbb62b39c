// One connection between two adapters: the packets of L2CAP put together from their pieces, and the channels on it.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Conversation.h"
#include "EventQueue.h"
#include "Hci.h"
#include "L2capChannel.h"
#include "Reader.h"
#include "Rfcomm.h"

namespace desk::capture {

class Connection {
  public:
    Connection(EventQueue& queue, const std::optional<uint16_t>& psm);

    // The payload of a packet of ACL; `is_cut` where the capture lacks its end.
    void take(End sender, bool begins, std::span<const uint8_t> bytes, bool is_cut);
    void lose(const std::string& why);
    void close(std::optional<End> by);
    bool is_ours() const;

  private:
    struct Piece {
        Bytes bytes;
        bool is_skipped = false; // what goes on here has lost its start
    };
    // One command on a signalling channel.
    struct Command {
        End sender;
        Signal code;
        uint8_t request;
        std::span<const uint8_t> data;
    };

    void lose(End sender, const std::string& why);
    void give_up(End sender, const std::string& why);
    void take_packet(End sender, std::span<const uint8_t> packet);
    void take_unknown(End sender, uint16_t id, std::span<const uint8_t> bytes);
    L2capChannel& channel_of_unknown(End sender, uint16_t id, Channel::Kind kind, std::span<const uint8_t> message);

    void take_signals(End sender, std::span<const uint8_t> bytes);
    void take_command(const Command& command);
    void ask_for(const Command& command, Channel::Kind kind, uint16_t psm, uint16_t id);
    void ask_for_one(const Command& command);
    void ask_for_credited(const Command& command);
    void ask_for_several(const Command& command);
    void open_or_drop(const Command& response, uint16_t id);
    void answer_one(const Command& command);
    void answer_credited(const Command& command);
    void answer_several(const Command& command);
    void reject(const Command& command);
    void configure(const Command& command);
    void refuse_configuration(const Command& command);
    void disconnect(const Command& command);

    L2capChannel& add(std::unique_ptr<L2capChannel> channel);
    L2capChannel* find(End end, uint16_t id);
    L2capChannel* find_pending(const Command& response);
    void remove(const L2capChannel* channel, std::optional<End> by = std::nullopt);

    EventQueue& queue_;
    std::optional<uint16_t> psm_;
    std::array<Piece, 2> pieces_;
    std::list<std::unique_ptr<L2capChannel>> channels_; // the newest last
    Rfcomm unopened_session_;                           // the one whose channel was opened before the capture
};

} // namespace desk::capture
