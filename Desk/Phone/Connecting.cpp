#include "Connecting.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/un.h>
#include <thread>

#include "Common/Repeated.h"
#include "Common/Text.h"
#include "Links/Bluetooth.h"

namespace desk::phone {
namespace {

// A camera that stands before its next accept refuses a Unix connection instead of letting it wait.
constexpr std::chrono::milliseconds full_queue_pause{20};

int milliseconds_until(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

template<typename Layout>
Address address_from(int type, int protocol, const Layout& layout, int family) {
    Address address{family, type, protocol, {}, sizeof layout};
    std::memcpy(&address.bytes, &layout, sizeof layout);
    return address;
}

Address unix_address(const Endpoint& camera) {
    sockaddr_un layout = {};
    layout.sun_family = AF_UNIX;
    camera.path.copy(layout.sun_path, sizeof layout.sun_path - 1); // a URL has no longer path
    return address_from(SOCK_SEQPACKET, 0, layout, AF_UNIX);
}

void require_address(const Endpoint& camera) {
    if (!camera.address) {
        throw Failure(
            exit_link,
            fmt::format("{} does not say which camera; write its Bluetooth address, as in rfcomm:00:11:22:33:44:55:1",
                        printable(camera.url())));
    }
}

Address bluetooth_address(const Endpoint& camera) {
    require_address(camera);
    if (camera.kind == Endpoint::Kind::rfcomm) {
        return address_from(SOCK_STREAM, rfcomm_protocol, rfcomm_address(camera), AF_BLUETOOTH);
    }
    return address_from(SOCK_SEQPACKET, l2cap_protocol, l2cap_address(camera), AF_BLUETOOTH);
}

std::vector<Address> tcp_addresses(const Endpoint& camera) {
    addrinfo wish = {};
    wish.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(camera.host.c_str(), std::to_string(camera.port).c_str(), &wish, &found);
    if (error != 0) {
        throw Failure(exit_link, fmt::format("cannot find the host of {}: {}; check its name", printable(camera.url()),
                                             gai_strerror(error)));
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    std::vector<Address> addresses;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        Address address{one->ai_family, one->ai_socktype, one->ai_protocol, {}, one->ai_addrlen};
        std::memcpy(&address.bytes, one->ai_addr, one->ai_addrlen);
        addresses.push_back(address);
    }
    return addresses;
}

std::string bluetooth_reason(const Endpoint& camera, int error) {
    switch (error) {
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
        return "this kernel has no Bluetooth; use unix: or tcp:";
    case EHOSTUNREACH:
    case ENETDOWN:
    case ENODEV:
        return "this machine has no Bluetooth adapter that is on; plug one in, or turn it on (bluetoothctl power on)";
    case EHOSTDOWN:
    case ETIMEDOUT:
        return camera.kind == Endpoint::Kind::le
                   ? "no answer from that address; see that the camera is near, on, has it, and advertises"
                   : "no answer from that address; see that the camera is near, on, and has it";
    case ECONNREFUSED:
        return "the camera refuses; see that it listens on this kind of link, and there";
    case EBUSY:
        return "another program of this machine has a link there already; end that first";
    case EACCES:
    case EPERM:
        return "the camera wants a phone that is paired; pair the two first (bluetoothctl pair)";
    default:
        return fmt::format("{}; see that the camera runs and listens there", std::strerror(error));
    }
}

} // namespace

std::vector<Address> addresses_of(const Endpoint& camera) {
    switch (camera.kind) {
    case Endpoint::Kind::unix_socket:
        return {unix_address(camera)};
    case Endpoint::Kind::rfcomm:
    case Endpoint::Kind::l2cap:
    case Endpoint::Kind::le:
        return {bluetooth_address(camera)};
    case Endpoint::Kind::tcp:
        break;
    }
    return tcp_addresses(camera);
}

int poll_one(int descriptor, short events, Clock::time_point deadline, int stop) {
    pollfd watched[] = {{descriptor, events, 0}, {stop, POLLIN, 0}}; // one below 0 is passed over
    const int count = repeated([&] { return poll(watched, std::size(watched), milliseconds_until(deadline)); });
    return count > 0 && watched[1].revents == 0 ? watched[0].revents : 0;
}

namespace {

// The error of a connection that is under way, once it has come to an end.
int pending_error(int descriptor, Clock::time_point deadline, int stop) {
    if (poll_one(descriptor, POLLOUT, deadline, stop) == 0) {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
    char first = 0; // of a camera that was there, and has hung up since
    return error == ECONNRESET && recv(descriptor, &first, 1, MSG_PEEK | MSG_DONTWAIT) > 0 ? 0 : error;
}

} // namespace

int try_to_connect(int descriptor, const Address& address, Clock::time_point deadline, int stop) {
    const auto* bytes = reinterpret_cast<const sockaddr*>(&address.bytes);
    while (connect(descriptor, bytes, address.length) != 0) {
        if (errno == EINPROGRESS || errno == EINTR) {
            return pending_error(descriptor, deadline, stop);
        }
        if (errno != EAGAIN || Clock::now() >= deadline) {
            return errno == EAGAIN ? ETIMEDOUT : errno;
        }
        std::this_thread::sleep_for(full_queue_pause);
    }
    return 0;
}

std::string reason_of(const Endpoint& camera, int error) {
    return camera.is_bluetooth() ? bluetooth_reason(camera, error)
                                 : fmt::format("{}; see that the camera runs and listens there", std::strerror(error));
}

Failure connect_failure(const Endpoint& camera, int error) {
    return {exit_link, fmt::format("cannot connect to {}: {}", printable(camera.url()), reason_of(camera, error))};
}

} // namespace desk::phone
