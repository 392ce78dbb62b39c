#include "Link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

#include "Common/Text.h"
#include "Links/Bluetooth.h"

namespace desk::phone {

using End = capture::LinkWriter::End;

namespace {

constexpr size_t largest_packet = size_t{1} << 20;

// A camera that stands before its next accept refuses a Unix connection instead of letting it wait.
constexpr std::chrono::milliseconds full_queue_pause{20};

int milliseconds_until(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

// Where one try to connect goes.
struct Address {
    int family = 0;
    int type = 0;
    int protocol = 0;
    sockaddr_storage bytes = {};
    socklen_t length = 0;
};

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
    if (camera.port == 0) {
        throw Failure(exit_link,
                      fmt::format("{} does not say where on the camera; write what the camera said that it listens on",
                                  printable(camera.url())));
    }
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

int poll_one(int descriptor, short events, Clock::time_point deadline) {
    pollfd watched = {descriptor, events, 0};
    int count = 0;
    do {
        count = poll(&watched, 1, milliseconds_until(deadline));
    } while (count < 0 && errno == EINTR);
    return count > 0 ? watched.revents : 0;
}

// The error of a connection that is under way, once it has come to an end.
int pending_error(int descriptor, Clock::time_point deadline) {
    if (poll_one(descriptor, POLLOUT, deadline) == 0) {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

// Returns 0, or the error.
int try_to_connect(int descriptor, const Address& address, Clock::time_point deadline) {
    const auto* bytes = reinterpret_cast<const sockaddr*>(&address.bytes);
    while (connect(descriptor, bytes, address.length) != 0) {
        if (errno == EINPROGRESS || errno == EINTR) {
            return pending_error(descriptor, deadline);
        }
        if (errno != EAGAIN || Clock::now() >= deadline) {
            return errno == EAGAIN ? ETIMEDOUT : errno;
        }
        std::this_thread::sleep_for(full_queue_pause);
    }
    return 0;
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

Failure connect_failure(const Endpoint& camera, int error) {
    const std::string reason =
        camera.is_bluetooth() ? bluetooth_reason(camera, error)
                              : fmt::format("{}; see that the camera runs and listens there", std::strerror(error));
    return {exit_link, fmt::format("cannot connect to {}: {}", printable(camera.url()), reason)};
}

// False, and errno, where the kernel does not do what the link needs.
bool prepare(int descriptor, const Endpoint& camera) {
    if (is_l2cap(camera.kind)) {
        Endpoint any; // of this machine's adapters
        any.kind = camera.kind;
        const L2capAddress own = l2cap_address(any);
        if (bind(descriptor, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
            return false;
        }
        if (prepare_l2cap_socket(camera.kind, descriptor)) {
            return true;
        }
        if (errno == EINVAL && camera.kind == Endpoint::Kind::l2cap) {
            throw Failure(exit_link,
                          fmt::format("cannot connect to {}: {}", printable(camera.url()), no_retransmission));
        }
        return false;
    }
    // Packets as large as requests go through a Unix socket only when its buffer has room for them.
    const int buffer = static_cast<int>(largest_packet);
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    if (camera.kind == Endpoint::Kind::tcp) {
        const int at_once = 1; // requests are small, and each one is waited for
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    }
    return true;
}

// A link that loses packets is none.
size_t largest_packet_to(const Endpoint& camera, const Descriptor& socket, size_t mtu) {
    if (!is_l2cap(camera.kind)) {
        return mtu;
    }
    if (!is_l2cap_reliable(camera.kind, socket.get())) {
        throw Failure(exit_link,
                      fmt::format("{} offers the basic mode of L2CAP alone, which loses packets; use rfcomm: or le:",
                                  printable(camera.url())));
    }
    return std::min(mtu, largest_l2cap_packet(camera.kind, socket.get()));
}

Descriptor connected_socket(const Endpoint& camera, std::chrono::milliseconds timeout) {
    int error = 0;
    for (const Address& address : addresses_of(camera)) {
        Descriptor attempt(socket(address.family, address.type | SOCK_NONBLOCK | SOCK_CLOEXEC, address.protocol));
        if (attempt.get() < 0 || !prepare(attempt.get(), camera)) {
            error = errno;
            continue;
        }
        error = try_to_connect(attempt.get(), address, Clock::now() + timeout);
        if (error == 0) {
            return attempt;
        }
    }
    throw connect_failure(camera, error);
}

bool means_later(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ENOBUFS;
}

// A camera that goes with bytes of ours unread is told of as an error.
End end_by(int error) {
    return error == ECONNRESET || error == EPIPE || error == ENOTCONN ? End::camera_closed : End::link_lost;
}

} // namespace

Link::Link(const Endpoint& camera, size_t mtu, std::chrono::milliseconds timeout, capture::Writer* capture)
    : socket_(connected_socket(camera, timeout)), mtu_(largest_packet_to(camera, socket_, mtu)),
      is_bluetooth_(camera.is_bluetooth()), received_(largest_packet),
      capture_(capture != nullptr ? capture->connect(camera) : nullptr) {}

Link::Readiness Link::wait(bool to_write, Clock::time_point deadline) const {
    const auto events = static_cast<short>(to_write ? POLLIN | POLLOUT : POLLIN);
    const int ready = poll_one(socket_.get(), events, deadline);
    // A broken link counts as readable: reading says what became of it, after the last bytes that it holds.
    return {(ready & (POLLIN | POLLHUP | POLLERR)) != 0, (ready & POLLOUT) != 0};
}

std::optional<size_t> Link::send_packet(std::span<const uint8_t> bytes) {
    const size_t size = std::min(bytes.size(), mtu_);
    const ssize_t sent = send(socket_.get(), bytes.data(), size, MSG_NOSIGNAL);
    if (sent >= 0) {
        if (capture_ != nullptr) {
            capture_->sent(bytes.first(static_cast<size_t>(sent)));
        }
        return static_cast<size_t>(sent);
    }
    if (means_later(errno)) {
        return 0;
    }
    if (errno == EMSGSIZE) {
        throw Failure(exit_usage, fmt::format("the link takes no packet of {} bytes; give a smaller --mtu", size));
    }
    end_capture_as(end_by(errno));
    return std::nullopt;
}

std::optional<std::span<const uint8_t>> Link::receive() {
    const ssize_t count = recv(socket_.get(), received_.data(), received_.size(), 0);
    if (count > 0) {
        return note_received(count);
    }
    if (count < 0 && means_later(errno)) {
        return std::span<const uint8_t>();
    }
    const End how = count == 0 ? End::camera_closed : end_by(errno);
    if (count < 0 && (errno == ECONNRESET || is_bluetooth_)) {
        // A camera that closes with our bytes unread resets the link, and sockets of Bluetooth tell an error before the
        // bytes that came ahead of it: what the camera sent before may still be there.
        const ssize_t rest = recv(socket_.get(), received_.data(), received_.size(), MSG_DONTWAIT);
        if (rest > 0) {
            return note_received(rest);
        }
    }
    end_capture_as(how);
    return std::nullopt;
}

std::span<const uint8_t> Link::note_received(ssize_t count) {
    const auto bytes = std::span<const uint8_t>(received_).first(static_cast<size_t>(count));
    if (capture_ != nullptr) {
        capture_->received(bytes);
    }
    return bytes;
}

void Link::end_capture_as(End how) {
    if (capture_ != nullptr) {
        capture_->ends(how);
    }
}

void Link::finish_sending() {
    shutdown(socket_.get(), SHUT_WR);
    end_capture_as(End::phone_left);
}

} // namespace desk::phone
