#include "L2capChannel.h"

#include "Hci.h"
#include "LittleEndian.h"

namespace desk::capture {
namespace {

// Ways to carry packets, as the option of retransmission names them.
enum Mode : uint8_t { mode_retransmission = 1, mode_flow_control = 2, mode_enhanced = 3, mode_streaming = 4 };

constexpr uint8_t option_long_control = 0x07;
constexpr uint8_t option_mask = 0x7f; // the highest bit says that an option may be ignored

Carriage carriage_of(uint8_t mode) {
    switch (mode) {
    case mode_retransmission:
    case mode_flow_control:
    case mode_enhanced:
        return Carriage::retransmitted;
    case mode_streaming:
        return Carriage::streamed;
    default:
        return Carriage::plain;
    }
}

} // namespace

L2capChannel::L2capChannel(EventQueue& queue, Channel::Kind kind, uint16_t psm, std::optional<End> opener,
                           bool leads_to_camera)
    : conversation_(kind == Channel::Kind::l2cap && psm == rfcomm_psm
                        ? nullptr
                        : std::make_unique<Conversation>(queue, kind, psm, opener, leads_to_camera)),
      session_(conversation_ ? nullptr : std::make_unique<Rfcomm>(queue)), readers_{
                                                                               SduReader(receiver(), End::host),
                                                                               SduReader(receiver(), End::remote)} {
    if (kind == Channel::Kind::le) {
        set_carriage(Carriage::credited);
    }
}

Receiver& L2capChannel::receiver() {
    return conversation_ ? static_cast<Receiver&>(*conversation_) : *session_;
}

// Options that are not there keep their meaning.
void L2capChannel::configure(End asks, std::span<const uint8_t> options) {
    Asked& asked = asked_[index_of(asks)];
    constexpr size_t head = 2;
    while (options.size() >= head && options.size() - head >= options[1]) {
        const uint8_t option = options[0] & option_mask;
        const auto value = options.subspan(head, options[1]);
        if (option == option_long_control) {
            asked.has_long_control = true;
        } else if (!value.empty() && option == option_retransmission) {
            asked.carriage = carriage_of(value[0]);
        } else if (!value.empty() && option == option_checksum) {
            asked.wants_checksum = value[0] != 0;
        }
        options = options.subspan(head + value.size());
    }
}

void L2capChannel::forget_configuration(End asks) {
    asked_[index_of(asks)] = {};
}

// A checksum is left out only when neither end wants it, and a long control field is there when one of them does.
Framing L2capChannel::framing_of(End sender) const {
    const Asked& asked = asked_[index_of(opposite(sender))];
    const Asked& other = asked_[index_of(sender)];
    return {asked.carriage, asked.wants_checksum || other.wants_checksum,
            asked.has_long_control || other.has_long_control};
}

void L2capChannel::establish() {
    is_pending = false;
    if (conversation_) {
        conversation_->establish();
    }
}

void L2capChannel::take(End sender, std::span<const uint8_t> bytes) {
    reader_of(sender).take(bytes, framing_of(sender));
}

// The start may tell that the channel is ours.
void L2capChannel::take_start(End sender, std::span<const uint8_t> bytes, const std::string& why) {
    if (conversation_ && framing_of(sender).carriage == Carriage::plain) {
        conversation_->take_start(sender, bytes);
    }
    lose(sender, why);
}

void L2capChannel::lose(End sender, const std::string& why) {
    reader_of(sender).lose(why);
}

bool L2capChannel::is_ours() const {
    return conversation_ ? conversation_->is_open() : session_->has_open();
}

std::optional<End> L2capChannel::phone() const {
    return conversation_ ? conversation_->phone() : std::nullopt;
}

} // namespace desk::capture
