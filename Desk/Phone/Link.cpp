#include "Link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "Common/Text.h"
#include "Connecting.h"
#include "Links/Bluetooth.h"

namespace desk::phone {

using End = capture::LinkWriter::End;

namespace {

constexpr size_t largest_packet = size_t{1} << 20;

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
