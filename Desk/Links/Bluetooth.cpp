#include "Bluetooth.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>
#include <sys/ioctl.h>

#include "Common/Descriptor.h"

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

// ---- Adapters -------------------------------------------------------------------------------------------------------

constexpr int hci_protocol = 1;
constexpr uint32_t most_adapters = 16;
constexpr uint32_t adapter_is_up = 1;

struct AdapterList {
    uint16_t count;
    struct {
        uint16_t number;
        uint32_t flags;
    } adapters[most_adapters];
};

struct AdapterInformation {
    uint16_t number;
    char name[8];
    uint8_t address[6]; // least significant byte first
    uint32_t flags;
    uint8_t rest[72];
};

static_assert(sizeof(AdapterList) == 4 + 8 * most_adapters && sizeof(AdapterInformation) == 92,
              "as the kernel lays them out");

constexpr unsigned long list_of_adapters = _IOR('H', 210, int);
constexpr unsigned long information_of_adapter = _IOR('H', 211, int);

bool has_address(int socket, uint16_t number, const Endpoint& endpoint) {
    AdapterInformation information = {};
    information.number = number;
    return !endpoint.address || (::ioctl(socket, information_of_adapter, &information) == 0 &&
                                 std::equal(endpoint.address->rbegin(), endpoint.address->rend(), information.address));
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

bool has_adapter(const Endpoint& endpoint) {
    const Descriptor socket(::socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, hci_protocol));
    AdapterList list = {};
    list.count = most_adapters;
    if (socket.get() < 0 || ::ioctl(socket.get(), list_of_adapters, &list) != 0) {
        return true;
    }
    const auto listed = std::span(list.adapters).first(std::min<size_t>(list.count, most_adapters));
    return std::ranges::any_of(listed, [&](const auto& adapter) {
        return (adapter.flags & adapter_is_up) != 0 && has_address(socket.get(), adapter.number, endpoint);
    });
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
    return mtu > 0 ? std::min<size_t>(mtu, longest_sent_packet) : longest_sent_packet;
}

bool is_l2cap_reliable(Endpoint::Kind kind, int socket) {
    L2capOptions options = {};
    return kind == Endpoint::Kind::le || (get_options(socket, options) && options.mode == enhanced_retransmission);
}

} // namespace desk
