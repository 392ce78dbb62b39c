#include "Link.h"

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

namespace desk::camera {
namespace {

bool is_worth_a_retry(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// One packet, or bytes of a stream. A packet that the buffer does not hold shows in the flags.
ssize_t receive_once(int socket, std::span<uint8_t> buffer, int& flags) {
    iovec piece = {buffer.data(), buffer.size()};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    const ssize_t length = ::recvmsg(socket, &message, MSG_DONTWAIT);
    flags = message.msg_flags;
    return length;
}

bool is_ready(int socket, short events) {
    pollfd state = {};
    state.fd = socket;
    state.events = events;
    return ::poll(&state, 1, 0) > 0;
}

// A count of bytes that the kernel keeps of a socket; 0 where it keeps none.
int bytes_in_kernel(int socket, unsigned long which) {
    int bytes = 0;
    return ::ioctl(socket, which, &bytes) == 0 ? bytes : 0;
}

} // namespace

Link::Link(asio::io_context& loop, int socket, LinkTraits traits, std::span<uint8_t> buffer)
    : loop_(loop), socket_(loop, socket), traits_(traits), buffer_(buffer), watch_(loop) {}

void Link::receive(Received handler) {
    const bool is_waiting = received_ != nullptr;
    received_ = std::move(handler);
    if (!is_waiting && socket_.is_open()) {
        wait_for_bytes();
    }
}

void Link::wait_for_bytes() {
    socket_.async_wait(asio::posix::descriptor_base::wait_read,
                       [self = shared_from_this()](const asio::error_code& error) {
                           if (!error && self->socket_.is_open()) {
                               self->read_once();
                           }
                       });
}

void Link::read_once() {
    int flags = 0;
    const ssize_t length = receive_once(socket_.native_handle(), buffer_, flags);
    if (length < 0 && is_worth_a_retry(errno)) {
        wait_for_bytes();
    } else if (length < 0) {
        lose(std::strerror(errno));
    } else if (length == 0 && !is_empty_packet()) {
        lose("");
    } else if ((flags & MSG_TRUNC) != 0) {
        lose("it sent a packet of more bytes than any request has");
    } else {
        moved_ = length > 0 ? Clock::now() : moved_;
        const Received handler = std::exchange(received_, nullptr); // the handler may ask for more
        handler(std::span(buffer_).first(static_cast<size_t>(length)));
    }
}

// On a link that keeps message boundaries a packet without bytes is received like the end of the link. At the end the
// phone has closed, and has left nothing to be received.
bool Link::is_empty_packet() {
    return traits_.keeps_message_boundaries &&
           (!is_ready(socket_.native_handle(), POLLRDHUP) || bytes_in_kernel(socket_.native_handle(), SIOCINQ) > 0);
}

void Link::send(std::span<const uint8_t> bytes, Sent handler) {
    unsent_ = bytes;
    sent_ = std::move(handler);
    forgive();
    if (socket_.is_open()) {
        write_on();
    }
}

void Link::write_on() {
    while (!unsent_.empty()) {
        const size_t piece = traits_.keeps_message_boundaries ? std::min(unsent_.size(), traits_.mtu) : unsent_.size();
        const ssize_t length = ::send(socket_.native_handle(), unsent_.data(), piece, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (length < 0) {
            if (is_worth_a_retry(errno)) {
                write_later();
            } else {
                lose(std::strerror(errno));
            }
            return;
        }
        unsent_ = unsent_.subspan(static_cast<size_t>(length));
        moved_ = Clock::now();
    }
    watch_.cancel();
    std::exchange(sent_, nullptr)();
}

void Link::write_later() {
    watch_what_is_untaken();
    socket_.async_wait(asio::posix::descriptor_base::wait_write,
                       [self = shared_from_this()](const asio::error_code& error) {
                           if (!error && self->socket_.is_open()) {
                               self->write_on();
                           }
                       });
}

// The kernel tells when there is room to write on, which may take many packets. A phone that takes one now and then is
// seen by what is left of them.
void Link::watch_what_is_untaken() {
    const int untaken = bytes_in_kernel(socket_.native_handle(), SIOCOUTQ);
    moved_ = untaken < untaken_ ? Clock::now() : moved_;
    untaken_ = untaken;
    watch_.expires_after(std::chrono::seconds(1));
    watch_.async_wait([self = shared_from_this()](const asio::error_code& error) {
        if (!error && self->sent_ != nullptr) {
            self->watch_what_is_untaken();
        }
    });
}

bool Link::phone_has_closed() {
    return !socket_.is_open() || is_ready(socket_.native_handle(), POLLRDHUP);
}

// A camera that was stopped itself finds what has moved meanwhile with the socket.
bool Link::is_stalled(std::chrono::seconds time) {
    const int awaited = (received_ != nullptr ? POLLIN : 0) | (sent_ != nullptr ? POLLOUT : 0);
    return awaited != 0 && Clock::now() - moved_ >= time &&
           !is_ready(socket_.native_handle(), static_cast<short>(awaited));
}

void Link::end_sending() {
    if (socket_.is_open()) {
        ::shutdown(socket_.native_handle(), SHUT_WR);
    }
}

void Link::close() {
    asio::error_code ignored;
    socket_.close(ignored);
    watch_.cancel();
    received_ = nullptr;
    sent_ = nullptr;
    lost_ = nullptr;
}

void Link::abort() {
    const linger at_once = {1, 0};
    if (socket_.is_open()) {
        ::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    close();
}

// Told from the loop, so that whoever was sending is not called back from inside its own call.
void Link::lose(const std::string& why) {
    asio::error_code ignored;
    socket_.close(ignored);
    watch_.cancel();
    asio::post(loop_, [self = shared_from_this(), why] {
        if (const Lost handler = std::exchange(self->lost_, nullptr)) {
            handler(why);
        }
    });
}

} // namespace desk::camera
