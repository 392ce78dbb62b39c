#include "Sockets.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "Common/Descriptor.h"
#include "Links/Bluetooth.h"
#include "Talk.h"

namespace desk::camera {
namespace {

[[noreturn]] void throw_failure(const Endpoint& endpoint, const std::string& why) {
    throw Failure(exit_link, "cannot listen on " + endpoint.url() + ": " + why);
}

[[noreturn]] void throw_failure_of_errno(const Endpoint& endpoint) {
    throw_failure(endpoint, std::strerror(errno));
}

// Check the result: without a kernel's support there is none.
Descriptor make_socket(int family, int type, int protocol) {
    return Descriptor(::socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol));
}

template<class KernelAddress>
const sockaddr* generic(const KernelAddress& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

void bind_and_listen(const Endpoint& endpoint, const Descriptor& socket, const sockaddr* address, socklen_t length) {
    if (::bind(socket.get(), address, length) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
        throw_failure_of_errno(endpoint);
    }
}

// ---- Unix sockets ---------------------------------------------------------------------------------------------------

sockaddr_un unix_address(const Endpoint& endpoint) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (endpoint.path.size() >= sizeof address.sun_path) {
        throw_failure(endpoint, fmt::format("its path has {} bytes, and a socket's has {} at most; give a shorter one "
                                            "with --listen",
                                            endpoint.path.size(), sizeof address.sun_path - 1));
    }
    std::memcpy(address.sun_path, endpoint.path.data(), endpoint.path.size());
    return address;
}

// A dead camera's socket refuses connections. It is asked with the wrong type of socket, which a live camera's refuses
// in another way, so that a live camera sees no phone come and go.
bool is_left_behind(const sockaddr_un& address) {
    const Descriptor socket = make_socket(AF_UNIX, SOCK_STREAM, 0);
    const bool connected = ::connect(socket.get(), generic(address), sizeof address) == 0;
    return !connected && errno == ECONNREFUSED;
}

void remove_what_a_dead_camera_left(const Endpoint& endpoint, const sockaddr_un& address) {
    struct stat file = {};
    if (::lstat(address.sun_path, &file) != 0) {
        return;
    }
    if (!S_ISSOCK(file.st_mode)) {
        throw_failure(endpoint, "there is a file that is no socket");
    }
    if (!is_left_behind(address)) {
        throw_failure(endpoint, "another process listens there");
    }
    ::unlink(address.sun_path);
}

int listen_on_unix_socket(const Endpoint& endpoint, Access access) {
    const sockaddr_un address = unix_address(endpoint);
    Descriptor socket = make_socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (socket.get() < 0) {
        throw_failure_of_errno(endpoint);
    }
    if (access == Access::owner && ::fchmod(socket.get(), S_IRUSR | S_IWUSR) != 0) { // its file gets this mode
        throw_failure_of_errno(endpoint);
    }
    remove_what_a_dead_camera_left(endpoint, address);
    bind_and_listen(endpoint, socket, generic(address), sizeof address);
    return socket.release();
}

// ---- TCP ------------------------------------------------------------------------------------------------------------

using Resolved = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

Resolved resolve(const Endpoint& endpoint) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
    if (error != 0) {
        throw_failure(endpoint, ::gai_strerror(error));
    }
    return {found, &::freeaddrinfo};
}

uint16_t port_of(const Descriptor& socket) {
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
    return address.ss_family == AF_INET6 ? ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port)
                                         : ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

int listen_on_tcp(Endpoint& endpoint) {
    const Resolved address = resolve(endpoint);
    Descriptor socket = make_socket(address->ai_family, SOCK_STREAM, 0);
    if (socket.get() < 0) {
        throw_failure_of_errno(endpoint);
    }
    const int on = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    bind_and_listen(endpoint, socket, address->ai_addr, address->ai_addrlen);
    endpoint.port = port_of(socket);
    return socket.release();
}

// ---- Bluetooth ------------------------------------------------------------------------------------------------------

std::string bluetooth_reason(const Endpoint& endpoint, int error) {
    switch (error) {
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
        return "this machine's kernel has no such Bluetooth sockets; use unix: or tcp:";
    case EADDRINUSE:
        return "another program has this channel or PSM; give another one, or auto";
    case EACCES:
    case EPERM:
        return "only root may listen there; give a channel, or a PSM from 4097 on (from 128 on with le:)";
    case EINVAL:
        if (endpoint.port == 0) {
            return "no channel or PSM is free; end another program that listens";
        }
        break;
    default:
        break;
    }
    return std::strerror(error);
}

// The kernel listens without an adapter, too, and nobody ever comes.
void require_adapter(const Endpoint& endpoint) {
    if (has_adapter(endpoint)) {
        return;
    }
    throw_failure(endpoint,
                  endpoint.address
                      ? "this machine has no adapter with that address that is on; leave it out for any, or turn it "
                        "on (bluetoothctl power on)"
                      : "this machine has no Bluetooth adapter that is on; plug one in, or turn it on (bluetoothctl "
                        "power on)");
}

Descriptor make_bluetooth_socket(const Endpoint& endpoint) {
    const bool is_stream = endpoint.kind == Endpoint::Kind::rfcomm;
    Descriptor socket = make_socket(AF_BLUETOOTH, is_stream ? SOCK_STREAM : SOCK_SEQPACKET,
                                    is_stream ? rfcomm_protocol : l2cap_protocol);
    if (socket.get() < 0) {
        throw_failure(endpoint, bluetooth_reason(endpoint, errno));
    }
    return socket;
}

void require_no_losses(const Endpoint& endpoint, const Descriptor& socket) {
    if (!is_l2cap(endpoint.kind) || prepare_l2cap_socket(endpoint.kind, socket.get())) {
        return;
    }
    throw_failure(endpoint,
                  errno == EINVAL && endpoint.kind == Endpoint::Kind::l2cap ? no_retransmission : std::strerror(errno));
}

// The address has room for what the kernel chose: a channel or a PSM.
template<class KernelAddress>
Descriptor listen_at(const Endpoint& endpoint, KernelAddress& address, Security security) {
    Descriptor socket = make_bluetooth_socket(endpoint);
    require_adapter(endpoint);
    if (::bind(socket.get(), generic(address), sizeof address) != 0) {
        throw_failure(endpoint, bluetooth_reason(endpoint, errno));
    }
    require_no_losses(endpoint, socket);
    if ((security != Security::low && !require_security(socket.get(), security)) ||
        ::listen(socket.get(), SOMAXCONN) != 0) {
        throw_failure(endpoint, bluetooth_reason(endpoint, errno));
    }
    socklen_t length = sizeof address;
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
    return socket;
}

int listen_on_rfcomm(Endpoint& endpoint, Security security) {
    RfcommAddress address = rfcomm_address(endpoint);
    Descriptor socket = listen_at(endpoint, address, security);
    endpoint.port = address.channel;
    return socket.release();
}

int listen_on_l2cap(Endpoint& endpoint, Security security) {
    L2capAddress address = l2cap_address(endpoint);
    Descriptor socket = listen_at(endpoint, address, security);
    endpoint.port = static_cast<uint16_t>(address.psm[0] | address.psm[1] << 8);
    return socket.release();
}

} // namespace

int open_listening_socket(Endpoint& endpoint, const Admission& admission) {
    switch (endpoint.kind) {
    case Endpoint::Kind::unix_socket:
        return listen_on_unix_socket(endpoint, admission.access);
    case Endpoint::Kind::tcp:
        return listen_on_tcp(endpoint);
    case Endpoint::Kind::rfcomm:
        return listen_on_rfcomm(endpoint, admission.security);
    case Endpoint::Kind::l2cap:
    case Endpoint::Kind::le:
        break;
    }
    return listen_on_l2cap(endpoint, admission.security);
}

// The kernel gives in to a phone that asks for no retransmission.
bool prepare_phone_socket(Endpoint::Kind kind, int socket) {
    if (kind == Endpoint::Kind::l2cap && !is_l2cap_reliable(kind, socket)) {
        const std::string reason = "its link has L2CAP's basic mode, which loses packets";
        say({"phone",
             {{"event", "refused"}, {"reason", reason}},
             "a phone was refused: " + reason + "; have it ask for enhanced retransmission, or use rfcomm: or le:"});
        return false;
    }
    if (kind == Endpoint::Kind::tcp) {
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        ::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on); // a phone may vanish without a word
    }
    make_room_to_receive(kind, socket);
    return true;
}

size_t largest_packet(Endpoint::Kind kind, int socket) {
    return is_l2cap(kind) ? largest_l2cap_packet(kind, socket) : std::numeric_limits<size_t>::max();
}

} // namespace desk::camera
