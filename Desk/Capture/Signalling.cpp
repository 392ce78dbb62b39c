// How channels are opened, set up and closed: the commands on a connection's signalling channel.
#include <algorithm>

#include "Connection.h"
#include "LittleEndian.h"

namespace desk::capture {
namespace {

constexpr size_t command_header = 4;
constexpr uint16_t result_pending = 1;
constexpr uint16_t configuration_pending = 4;
constexpr size_t most_opened_at_once = 5;

} // namespace

void Connection::take_signals(End sender, std::span<const uint8_t> bytes) {
    while (bytes.size() >= command_header && bytes.size() - command_header >= get_16(bytes, 2)) {
        const size_t size = get_16(bytes, 2);
        take_command({sender, static_cast<Signal>(bytes[0]), bytes[1], bytes.subspan(command_header, size)});
        bytes = bytes.subspan(command_header + size);
    }
}

void Connection::take_command(const Command& command) {
    struct Step {
        Signal code;
        size_t least; // bytes of its data
        void (Connection::*take)(const Command&);
    };
    static constexpr Step steps[] = {
        {Signal::reject, 0, &Connection::reject},
        {Signal::connection_request, 4, &Connection::ask_for_one},
        {Signal::connection_response, 6, &Connection::answer_one},
        {Signal::configuration_request, 4, &Connection::configure},
        {Signal::configuration_response, 6, &Connection::refuse_configuration},
        {Signal::disconnection_response, 4, &Connection::disconnect},
        {Signal::le_connection_request, 10, &Connection::ask_for_credited},
        {Signal::le_connection_response, 10, &Connection::answer_credited},
        {Signal::enhanced_connection_request, 10, &Connection::ask_for_several},
        {Signal::enhanced_connection_response, 8, &Connection::answer_several},
    };
    const Step* const found = std::ranges::find(steps, command.code, &Step::code);
    if (found != std::end(steps) && command.data.size() >= found->least) {
        (this->*found->take)(command);
    }
}

// ---- Requests -------------------------------------------------------------------------------------------------------

void Connection::ask_for(const Command& command, Channel::Kind kind, uint16_t psm, uint16_t id) {
    remove(find(command.sender, id)); // a number is given again when its channel is closed
    const bool leads_to_camera = psm == psm_ || psm == camera_psm;
    L2capChannel& channel = add(std::make_unique<L2capChannel>(queue_, kind, psm, command.sender, leads_to_camera));
    channel.id_at(command.sender) = id;
    channel.request = command.request;
    channel.is_pending = true;
}

void Connection::ask_for_one(const Command& command) {
    ask_for(command, Channel::Kind::l2cap, get_16(command.data, 0), get_16(command.data, 2));
}

void Connection::ask_for_credited(const Command& command) {
    ask_for(command, Channel::Kind::le, get_16(command.data, 0), get_16(command.data, 2));
}

void Connection::ask_for_several(const Command& command) {
    constexpr size_t first = 8;
    const size_t count = std::min((command.data.size() - first) / 2, most_opened_at_once);
    for (size_t i = 0; i < count; ++i) {
        ask_for(command, Channel::Kind::le, get_16(command.data, 0), get_16(command.data, first + 2 * i));
    }
}

// ---- Responses ------------------------------------------------------------------------------------------------------

L2capChannel* Connection::find_pending(const Command& response) {
    const End opener = opposite(response.sender);
    const auto found = std::ranges::find_if(channels_, [&](const auto& channel) {
        return channel->is_pending && channel->request == response.request && channel->id_at(opener) != 0;
    });
    return found == channels_.end() ? nullptr : found->get();
}

// `id` is the number at the end that answers, 0 where it refuses.
void Connection::open_or_drop(const Command& response, uint16_t id) {
    L2capChannel* const channel = find_pending(response);
    if (channel == nullptr) {
        return;
    }
    if (id == 0) {
        remove(channel);
        return;
    }
    if (L2capChannel* const old = find(response.sender, id); old != channel) {
        remove(old);
    }
    channel->id_at(response.sender) = id;
    channel->establish();
}

void Connection::answer_one(const Command& command) {
    const uint16_t result = get_16(command.data, 4);
    if (result != result_pending) {
        open_or_drop(command, result == 0 ? get_16(command.data, 0) : uint16_t{0});
    }
}

void Connection::answer_credited(const Command& command) {
    open_or_drop(command, get_16(command.data, 8) == 0 ? get_16(command.data, 0) : uint16_t{0});
}

// One number for each channel that was asked for, in the same order.
void Connection::answer_several(const Command& command) {
    constexpr size_t first = 8;
    const size_t count = std::min((command.data.size() - first) / 2, most_opened_at_once);
    for (size_t i = 0; i < count; ++i) {
        open_or_drop(command, get_16(command.data, first + 2 * i));
    }
    while (L2capChannel* const refused = find_pending(command)) {
        remove(refused);
    }
}

void Connection::reject(const Command& command) {
    remove(find_pending(command));
}

// ---- Configuration and the end --------------------------------------------------------------------------------------

// Each end says how it wants to be sent to.
void Connection::configure(const Command& command) {
    if (L2capChannel* const channel = find(opposite(command.sender), get_16(command.data, 0))) {
        channel->configure(command.sender, command.data.subspan(4));
    }
}

void Connection::refuse_configuration(const Command& command) {
    const uint16_t result = get_16(command.data, 4);
    L2capChannel* const channel = find(opposite(command.sender), get_16(command.data, 0));
    if (channel != nullptr && result != 0 && result != configuration_pending) {
        channel->forget_configuration(opposite(command.sender));
    }
}

// It names the number at the end that answers first.
void Connection::disconnect(const Command& command) {
    // The end that answers is not the one that hung up.
    remove(find(command.sender, get_16(command.data, 0)), opposite(command.sender));
}

} // namespace desk::capture
