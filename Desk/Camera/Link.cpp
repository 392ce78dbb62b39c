#include "Link.h"

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

namespace desk {
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

} // namespace

Link::Link(asio::io_context& loop, int socket, LinkTraits traits, std::span<uint8_t> buffer)
    : loop_(loop), socket_(loop, socket), traits_(traits), buffer_(buffer) {}

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
    } else if (length == 0) {
        lose("");
    } else if ((flags & MSG_TRUNC) != 0) {
        lose("it sent a packet of more bytes than any request has");
    } else {
        const Received handler = std::exchange(received_, nullptr); // the handler may ask for more
        handler(std::span(buffer_).first(static_cast<size_t>(length)));
    }
}

void Link::send(std::span<const uint8_t> bytes, Sent handler) {
    unsent_ = bytes;
    sent_ = std::move(handler);
    if (socket_.is_open()) {
        write_on();
    }
}

void Link::write_on() {
    while (!unsent_.empty()) {
        const size_t piece = traits_.keeps_borders ? std::min(unsent_.size(), traits_.mtu) : unsent_.size();
        const ssize_t length =
            ::send(socket_.native_handle(), unsent_.data(), piece, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (length < 0) {
            is_worth_a_retry(errno) ? write_later() : lose(std::strerror(errno));
            return;
        }
        unsent_ = unsent_.subspan(static_cast<size_t>(length));
    }
    std::exchange(sent_, nullptr)();
}

void Link::write_later() {
    socket_.async_wait(asio::posix::descriptor_base::wait_write,
                       [self = shared_from_this()](const asio::error_code& error) {
                           if (!error && self->socket_.is_open()) {
                               self->write_on();
                           }
                       });
}

bool Link::phone_has_closed() {
    pollfd state = {};
    state.fd = socket_.native_handle();
    state.events = POLLRDHUP;
    return !socket_.is_open() || ::poll(&state, 1, 0) != 0;
}

void Link::end_sending() {
    if (socket_.is_open()) {
        ::shutdown(socket_.native_handle(), SHUT_WR);
    }
}

void Link::close() {
    asio::error_code ignored;
    socket_.close(ignored);
    received_ = nullptr;
    sent_ = nullptr;
    lost_ = nullptr;
}

// Told from the loop, so that whoever was sending is not called back from inside its own call.
void Link::lose(const std::string& why) {
    asio::error_code ignored;
    socket_.close(ignored);
    asio::post(loop_, [self = shared_from_this(), why] {
        if (const Lost handler = std::exchange(self->lost_, nullptr)) {
            handler(why);
        }
    });
}

} // namespace desk
