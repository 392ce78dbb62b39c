// Preloaded, it gives a program Bluetooth sockets on a machine that has none: they are Unix sockets with names below
// LOOPBACK_BLUETOOTH, which is an abstract name's beginning. Who connects binds to PREFIX/phone/00:11:22:33:44:55
// first, and has that address then; where it connects to is PREFIX/KIND/PORT. What the kernel would ask of a link, its
// security, is written to the file LOOPBACK_BLUETOOTH_SECURITY, and nothing else of Bluetooth is there.

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "Links/Bluetooth.h"

namespace {

struct Socket {
    bool is_rfcomm;
    uint16_t port = 0;
    bool is_low_energy = false;
};

std::map<int, Socket>& sockets() {
    static auto* all = new std::map<int, Socket>;
    return *all;
}

std::string prefix() {
    const char* const text = std::getenv("LOOPBACK_BLUETOOTH");
    return text != nullptr ? text : "";
}

// Both addresses' family stands first, as in each other one.
socklen_t name_of(const std::string& name, sockaddr_un& address) {
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), std::min(name.size(), sizeof address.sun_path - 1));
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

uint16_t port_in(const Socket& socket, const sockaddr* address) {
    if (socket.is_rfcomm) {
        return reinterpret_cast<const desk::RfcommAddress*>(address)->channel;
    }
    const auto* const l2cap = reinterpret_cast<const desk::L2capAddress*>(address);
    return static_cast<uint16_t>(l2cap->psm[0] | l2cap->psm[1] << 8);
}

template<class Address>
int fill(sockaddr* address, socklen_t* length, Address filled) {
    filled.family = AF_BLUETOOTH;
    std::memcpy(address, &filled, std::min<size_t>(*length, sizeof filled));
    *length = sizeof filled;
    return 0;
}

bool is_of_bluetooth(int level) {
    return level == desk::l2cap_level || level == desk::bluetooth_level;
}

void write_security(const void* value) {
    const char* const path = std::getenv("LOOPBACK_BLUETOOTH_SECURITY");
    std::FILE* const file = path != nullptr ? std::fopen(path, "a") : nullptr;
    if (file != nullptr) {
        std::fprintf(file, "%d\n", *static_cast<const uint8_t*>(value));
        std::fclose(file);
    }
}

} // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    if (domain != AF_BLUETOOTH) {
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    }
    const int made = static_cast<int>(syscall(SYS_socket, AF_UNIX, type, 0));
    sockets()[made] = {protocol == desk::rfcomm_protocol};
    return made;
}

int bind(int number, const sockaddr* address, socklen_t length) noexcept {
    if (address->sa_family != AF_BLUETOOTH) {
        return static_cast<int>(syscall(SYS_bind, number, address, length));
    }
    Socket& socket = sockets().at(number);
    socket.is_low_energy = !socket.is_rfcomm && reinterpret_cast<const desk::L2capAddress*>(address)->address_type != 0;
    const uint16_t wanted = port_in(socket, address);
    socket.port = wanted != 0 ? wanted : socket.is_rfcomm ? 1 : 128;
    const char* const kind = socket.is_rfcomm ? "rfcomm" : socket.is_low_energy ? "le" : "l2cap";
    sockaddr_un name = {};
    const socklen_t name_length = name_of(prefix() + "/" + kind + "/" + std::to_string(socket.port), name);
    return static_cast<int>(syscall(SYS_bind, number, &name, name_length));
}

int getsockname(int number, sockaddr* address, socklen_t* length) noexcept {
    const auto found = sockets().find(number);
    if (found == sockets().end()) {
        return static_cast<int>(syscall(SYS_getsockname, number, address, length));
    }
    if (found->second.is_rfcomm) {
        desk::RfcommAddress own = {};
        own.channel = static_cast<uint8_t>(found->second.port);
        return fill(address, length, own);
    }
    desk::L2capAddress own = {};
    own.psm[0] = static_cast<uint8_t>(found->second.port);
    own.psm[1] = static_cast<uint8_t>(found->second.port >> 8);
    return fill(address, length, own);
}

int getpeername(int number, sockaddr* address, socklen_t* length) noexcept {
    sockaddr_un peer = {};
    socklen_t peer_length = sizeof peer;
    const long result = syscall(SYS_getpeername, number, &peer, &peer_length);
    const std::string phones = prefix() + "/phone/";
    if (result != 0 || peer.sun_family != AF_UNIX || std::strncmp(peer.sun_path + 1, phones.c_str(), phones.size())) {
        return static_cast<int>(syscall(SYS_getpeername, number, address, length));
    }
    const std::optional<desk::BluetoothAddress> who =
        desk::bluetooth_address_in({peer.sun_path + 1 + phones.size(), 17});
    if (*length == sizeof(desk::RfcommAddress)) {
        desk::RfcommAddress theirs = {};
        std::reverse_copy(who->begin(), who->end(), theirs.address);
        return fill(address, length, theirs);
    }
    desk::L2capAddress theirs = {};
    std::reverse_copy(who->begin(), who->end(), theirs.address);
    return fill(address, length, theirs);
}

int setsockopt(int number, int level, int option, const void* value, socklen_t length) noexcept {
    if (!is_of_bluetooth(level)) {
        return static_cast<int>(syscall(SYS_setsockopt, number, level, option, value, length));
    }
    if (option == desk::security_option && level == desk::bluetooth_level) {
        write_security(value);
    }
    return 0;
}

int getsockopt(int number, int level, int option, void* value, socklen_t* length) noexcept {
    if (!is_of_bluetooth(level)) {
        return static_cast<int>(syscall(SYS_getsockopt, number, level, option, value, length));
    }
    std::memset(value, 0, *length);
    if (level == desk::bluetooth_level && option == desk::outgoing_mtu_option) {
        std::memset(value, 0xFF, sizeof(uint16_t));
        return 0;
    }
    desk::L2capOptions options = {};
    options.mode = desk::enhanced_retransmission;
    options.incoming_mtu = options.outgoing_mtu = desk::longest_bluetooth_packet;
    std::memcpy(value, &options, std::min<size_t>(*length, sizeof options));
    return 0;
}
}
