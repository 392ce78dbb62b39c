#include "Bluetooth.h"

#include <algorithm>
#include <cstddef>

namespace desk {
namespace {

bool get_options(int socket, L2capOptions& options) {
    socklen_t length = sizeof options;
    return ::getsockopt(socket, l2cap_level, l2cap_options, &options, &length) == 0;
}

bool prepare_low_energy(int socket) {
    const uint16_t mtu = longest_bluetooth_packet;
    make_room_to_receive(Endpoint::Kind::le, socket);
    return ::setsockopt(socket, bluetooth_level, incoming_mtu_option, &mtu, sizeof mtu) == 0;
}

} // namespace

void make_room_to_receive(Endpoint::Kind kind, int socket) {
    if (kind != Endpoint::Kind::le) {
        return;
    }
    const int bytes = room_to_receive;
    if (::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

bool prepare_l2cap_socket(Endpoint::Kind kind, int socket) {
    if (kind == Endpoint::Kind::le) {
        return prepare_low_energy(socket);
    }
    L2capOptions options = {};
    if (!get_options(socket, options)) {
        return false;
    }
    options.mode = enhanced_retransmission;
    options.incoming_mtu = longest_bluetooth_packet;
    options.outgoing_mtu = longest_bluetooth_packet;
    return ::setsockopt(socket, l2cap_level, l2cap_options, &options, sizeof options) == 0;
}

size_t largest_l2cap_packet(Endpoint::Kind kind, int socket) {
    uint16_t mtu = 0;
    if (kind == Endpoint::Kind::le) {
        socklen_t length = sizeof mtu;
        if (::getsockopt(socket, bluetooth_level, outgoing_mtu_option, &mtu, &length) != 0) {
            mtu = 0;
        }
    } else if (L2capOptions options = {}; get_options(socket, options)) {
        mtu = options.outgoing_mtu;
    }
    return mtu > 0 ? std::min<size_t>(mtu, longest_sent_packet) : longest_sent_packet;
}

bool is_l2cap_reliable(Endpoint::Kind kind, int socket) {
    L2capOptions options = {};
    return kind == Endpoint::Kind::le || (get_options(socket, options) && options.mode == enhanced_retransmission);
}

} // namespace desk
