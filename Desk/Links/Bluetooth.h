// The kernel's Bluetooth addresses. They are declared here because their header comes with a Bluetooth daemon, which
// most machines that run the desk do not need.
#pragma once

#include <algorithm>
#include <cstdint>
#include <sys/socket.h>

#include "Endpoint.h"

namespace desk {

constexpr int l2cap_protocol = 0;
constexpr int rfcomm_protocol = 3;
constexpr int l2cap_level = 6;   // of getsockopt
constexpr int l2cap_options = 1; // of getsockopt

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

inline L2capAddress l2cap_address(const Endpoint& endpoint) {
    L2capAddress address = {};
    address.family = AF_BLUETOOTH;
    address.psm[0] = static_cast<uint8_t>(endpoint.port);
    address.psm[1] = static_cast<uint8_t>(endpoint.port >> 8);
    put_address(endpoint, address.address);
    return address;
}

} // namespace desk
