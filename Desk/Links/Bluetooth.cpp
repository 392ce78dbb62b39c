#include "Bluetooth.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>

namespace desk {
namespace {

bool get_options(int socket, L2capOptions& options) {
    socklen_t length = sizeof options;
    return ::getsockopt(socket, l2cap_level, l2cap_options, &options, &length) == 0;
}

bool prepare_low_energy(int socket) {
    const uint16_t mtu = longest_bluetooth_packet;
    return ::setsockopt(socket, bluetooth_level, incoming_mtu_option, &mtu, sizeof mtu) == 0;
}

} // namespace

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

bool require_security(int socket, Security security) {
    const uint8_t level_and_key_size[2] = {static_cast<uint8_t>(security), 0};
    return ::setsockopt(socket, bluetooth_level, security_option, level_and_key_size, sizeof level_and_key_size) == 0;
}

namespace {

template<class KernelAddress>
std::optional<BluetoothAddress> address_from(int socket) {
    KernelAddress peer = {};
    socklen_t length = sizeof peer;
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        return std::nullopt;
    }
    BluetoothAddress address;
    std::reverse_copy(std::begin(peer.address), std::end(peer.address), address.begin());
    return address;
}

} // namespace

std::optional<BluetoothAddress> address_of_peer(Endpoint::Kind kind, int socket) {
    return kind == Endpoint::Kind::rfcomm ? address_from<RfcommAddress>(socket) : address_from<L2capAddress>(socket);
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
    return mtu > 0 ? mtu : std::numeric_limits<size_t>::max();
}

bool is_l2cap_reliable(Endpoint::Kind kind, int socket) {
    L2capOptions options = {};
    return kind == Endpoint::Kind::le || (get_options(socket, options) && options.mode == enhanced_retransmission);
}

} // namespace desk
