// The kernel's Bluetooth sockets: their addresses and options. They are declared here because their header comes with a
// Bluetooth daemon, which most machines that run the desk do not need.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <sys/socket.h>

#include "Endpoint.h"

namespace desk {

constexpr int l2cap_protocol = 0;
constexpr int rfcomm_protocol = 3;

// Options of sockets, by their level.
constexpr int l2cap_level = 6;
constexpr int l2cap_options = 1;
constexpr int bluetooth_level = 274;
constexpr int security_option = 4;
constexpr int outgoing_mtu_option = 12; // of Low Energy alone
constexpr int incoming_mtu_option = 13;

// The types of an address of Low Energy; 0 is one of all other links.
constexpr uint8_t le_public_address = 1;
constexpr uint8_t le_random_address = 2;

// A packet may hold so many bytes: what L2CAP can say at most.
constexpr uint16_t longest_bluetooth_packet = 65535;

// What is sent is shorter. The kernel cuts a packet into pieces of the controller's size, and takes it only when its
// buffer has room for all of them at once: some hundred bytes for each, however few the controller sends at a time.
// Where pieces are of 27 bytes, as with the oldest Low Energy, there is room for about 6000.
constexpr size_t longest_sent_packet = 4096;

// How packets of L2CAP get lost: in the basic mode without a word, when their reader is slow. With enhanced
// retransmission the sender waits.
constexpr uint8_t enhanced_retransmission = 3;
constexpr const char* no_retransmission =
    "this kernel has L2CAP's enhanced retransmission turned off (disable_ertm of its module bluetooth), without which "
    "packets get lost; use rfcomm: or le:";

struct RfcommAddress {
    sa_family_t family;
    uint8_t address[6]; // least significant byte first
    uint8_t channel;
};

struct L2capAddress {
    sa_family_t family;
    uint8_t psm[2];     // little-endian
    uint8_t address[6]; // least significant byte first
    uint8_t channel_id[2];
    uint8_t address_type;
};

struct L2capOptions {
    uint16_t outgoing_mtu, incoming_mtu, flush_timeout;
    uint8_t mode, checksum, most_transmissions;
    uint16_t window;
};

static_assert(sizeof(RfcommAddress) == 10 && sizeof(L2capAddress) == 14, "as the kernel lays them out");

// L2CAP over either radio.
constexpr bool is_l2cap(Endpoint::Kind kind) {
    return kind == Endpoint::Kind::l2cap || kind == Endpoint::Kind::le;
}

// An endpoint without an address means any adapter.
inline void put_address(const Endpoint& endpoint, uint8_t (&address)[6]) {
    if (endpoint.address) {
        std::reverse_copy(endpoint.address->begin(), endpoint.address->end(), address);
    }
}

inline RfcommAddress rfcomm_address(const Endpoint& endpoint) {
    RfcommAddress address = {};
    address.family = AF_BLUETOOTH;
    address.channel = static_cast<uint8_t>(endpoint.port);
    put_address(endpoint, address.address);
    return address;
}

// Of Low Energy as well.
inline L2capAddress l2cap_address(const Endpoint& endpoint) {
    L2capAddress address = {};
    address.family = AF_BLUETOOTH;
    address.psm[0] = static_cast<uint8_t>(endpoint.port);
    address.psm[1] = static_cast<uint8_t>(endpoint.port >> 8);
    put_address(endpoint, address.address);
    if (endpoint.kind == Endpoint::Kind::le) {
        address.address_type = endpoint.has_random_address ? le_random_address : le_public_address;
    }
    return address;
}

// A channel of Low Energy that has no room for what arrives may hand a packet over out of its turn (seen with Linux
// 6.1), and nobody can tell. So there is room for the longest request, in the smallest pieces: a buffer counts up to
// 1300 bytes for each piece of 190. Without the right to that (CAP_NET_ADMIN) it is what net.core.rmem_max allows.
constexpr int room_to_receive = 4 << 20;

// For a socket of a phone's link, when it is connected or before. Does nothing where nothing gets out of order.
void make_room_to_receive(Endpoint::Kind kind, int socket);

// Whether this machine has an adapter that is on; with an address, one that has it. A kernel that cannot be asked
// counts as one that has.
bool has_adapter(const Endpoint& endpoint);

// Of a socket that is bound, before it listens or connects: packets as long as can be, and none that gets lost. False,
// and errno, where the kernel does not do that.
bool prepare_l2cap_socket(Endpoint::Kind kind, int socket);

// What the kernel asks of a link before it lets it through: nothing beyond what Bluetooth itself asks; that it is
// encrypted, for which the phone must have paired; or that a person has compared digits when it was.
enum class Security : uint8_t { low = 1, encrypted = 2, confirmed = 3 };

// Of a socket before it listens. False, and errno, where the kernel does not do that.
bool require_security(int socket, Security security);

// Who is at the other end of a connected socket; nothing where the kernel does not say.
std::optional<BluetoothAddress> address_of_peer(Endpoint::Kind kind, int socket);

// The largest packet that the other end of a connected socket takes, and this one can send.
size_t largest_l2cap_packet(Endpoint::Kind kind, int socket);

// Whether no packet gets lost on a connected socket.
bool is_l2cap_reliable(Endpoint::Kind kind, int socket);

} // namespace desk
