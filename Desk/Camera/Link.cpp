#include "Link.h"

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <climits>
#include <cstring>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

#include "Budgets.h"
#include "Knobs.h"

namespace desk::camera {

using End = capture::LinkWriter::End;

namespace {

constexpr size_t piece_of_paced_stream = 4096;                // the packets of a phone
constexpr std::chrono::milliseconds look_at_knobs_again{100}; // they may be turned while a packet is on its way

bool is_worth_a_retry(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// A phone that goes, with bytes of ours unread or before it has them all, is told of as an error.
bool means_phone_left(int error) {
    return error == ECONNRESET || error == EPIPE || error == ENOTCONN;
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

// Bluetooth's channels close both ways at once, and their end may overtake what was sent before, or be all that a phone
// sees that is still connecting. So they wait for the phone's.
bool can_half_close(int socket) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return ::getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_BLUETOOTH;
}

// A count of bytes that the kernel keeps of a socket; 0 where it keeps none.
int bytes_in_kernel(int socket, unsigned long which) {
    int bytes = 0;
    return ::ioctl(socket, which, &bytes) == 0 ? bytes : 0;
}

} // namespace

Link::Link(asio::io_context& loop, int socket, LinkTraits traits, std::span<uint8_t> buffer,
           std::unique_ptr<capture::LinkWriter> capture)
    : loop_(loop), socket_(loop, socket), traits_(traits), buffer_(buffer), watch_(loop), read_pause_(loop),
      write_pause_(loop), capture_(std::move(capture)) {}

void Link::receive(Received handler) {
    const bool is_waiting = received_ != nullptr;
    received_ = std::move(handler);
    if (!is_waiting && socket_.is_open()) {
        wait_for_bytes();
    }
}

// ---- The pace -------------------------------------------------------------------------------------------------------

bool Link::is_paced() const {
    return knobs_ != nullptr && (knobs_->link_rate || knobs_->packet_delay);
}

Link::Clock::duration Link::time_of(size_t packet) const {
    const std::chrono::milliseconds delay(knobs_->packet_delay.value_or(0));
    const double seconds = knobs_->link_rate ? static_cast<double>(packet) / *knobs_->link_rate : 0;
    return delay + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Lets a packet through whose first byte moved at `since`. The knobs may be turned meanwhile.
void Link::let_through(asio::steady_timer& pause, size_t packet, Clock::time_point since, void (Link::*go_on)()) {
    pause.expires_at(std::min(since + time_of(packet), Clock::now() + look_at_knobs_again));
    pause.async_wait([self = shared_from_this(), &pause, packet, since, go_on](const asio::error_code& error) {
        if (error || !self->socket_.is_open()) {
            return;
        }
        if (self->is_paced() && Clock::now() < since + self->time_of(packet)) {
            self->let_through(pause, packet, since, go_on);
        } else {
            (*self.*go_on)();
        }
    });
}

// A stream has no packets: pieces that are small beside what passes in a second stand for them.
size_t Link::largest_piece() const {
    if (traits_.keeps_message_boundaries) {
        return traits_.mtu;
    }
    const auto rate = static_cast<size_t>(knobs_->link_rate.value_or(INT_MAX));
    return std::clamp(rate / 20, size_t{1}, piece_of_paced_stream);
}

// ---- Receiving ------------------------------------------------------------------------------------------------------

void Link::wait_for_bytes() {
    if (end_ != 0) { // nothing more comes than what is there
        asio::post(loop_, [self = shared_from_this()] {
            if (self->socket_.is_open() && self->received_ != nullptr) {
                self->read_once(self->buffer_.size());
            }
        });
        return;
    }
    socket_.async_wait(
        asio::posix::descriptor_base::wait_read, [self = shared_from_this()](const asio::error_code& error) {
            if (error || !self->socket_.is_open()) {
                return;
            }
            if (self->is_paced()) {
                self->let_through(self->read_pause_, self->next_to_read(), Clock::now(), &Link::read_paced);
            } else {
                self->read_once(self->buffer_.size());
            }
        });
}

// The bytes of the packet that has arrived, or of a piece of the stream.
size_t Link::next_to_read() {
    const int socket = socket_.native_handle();
    if (!traits_.keeps_message_boundaries) {
        return std::min(static_cast<size_t>(std::max(bytes_in_kernel(socket, SIOCINQ), 0)), largest_piece());
    }
    const ssize_t length = ::recv(socket, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    return length > 0 ? static_cast<size_t>(length) : 0;
}

void Link::read_paced() {
    const bool is_piece = is_paced() && !traits_.keeps_message_boundaries;
    read_once(is_piece ? largest_piece() : buffer_.size());
}

// Sockets of Bluetooth tell an error before the bytes that came ahead of it. They count first.
ssize_t Link::receive_before_end(std::span<uint8_t> room, int& flags) {
    ssize_t length = receive_once(socket_.native_handle(), room, flags);
    if (length < 0 && !is_worth_a_retry(errno) && end_ == 0) {
        end_ = errno;
        length = receive_once(socket_.native_handle(), room, flags);
    }
    if (end_ != 0 && length <= 0) {
        errno = end_;
        return -1;
    }
    return length;
}

void Link::read_once(size_t at_most) {
    int flags = 0;
    const std::span<uint8_t> room = buffer_.first(std::min(at_most, buffer_.size()));
    const ssize_t length = receive_before_end(room, flags);
    if (length < 0 && is_worth_a_retry(errno)) {
        wait_for_bytes();
    } else if (length < 0) {
        lose_by(errno);
    } else if (length == 0 && !is_empty_packet()) {
        lose("", End::phone_left);
    } else if ((flags & MSG_TRUNC) != 0) {
        lose("it sent a packet of more bytes than any request has", End::camera_closed);
    } else {
        if (capture_ != nullptr) {
            capture_->received(room.first(static_cast<size_t>(length)));
        }
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

// ---- Sending --------------------------------------------------------------------------------------------------------

void Link::send(std::span<const uint8_t> bytes, Sent handler) {
    unsent_ = bytes;
    sent_ = std::move(handler);
    forgive();
    uptake_.begin(bytes.size(), Clock::now());
    if (socket_.is_open()) {
        write_on();
    }
}

size_t Link::next_to_write() const {
    const bool is_cut = traits_.keeps_message_boundaries || is_paced();
    return is_cut ? std::min(unsent_.size(), largest_piece()) : unsent_.size();
}

void Link::write_on() {
    while (!unsent_.empty() && end_ == 0) {
        if (is_paced()) {
            let_through(write_pause_, next_to_write(), Clock::now(), &Link::write_paced);
            return;
        }
        if (!write_packet()) {
            return;
        }
    }
    all_is_written();
}

void Link::write_paced() {
    if (write_packet()) {
        write_on();
    }
}

// False when the kernel has to be waited for, or the link is lost.
bool Link::write_packet() {
    const ssize_t length =
        ::send(socket_.native_handle(), unsent_.data(), next_to_write(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (length >= 0) {
        if (capture_ != nullptr) {
            capture_->sent(unsent_.first(static_cast<size_t>(length)));
        }
        unsent_ = unsent_.subspan(static_cast<size_t>(length));
        uptake_.wrote(static_cast<size_t>(length));
        moved_ = Clock::now();
        return true;
    }
    if (is_worth_a_retry(errno)) {
        write_later();
    } else if (means_phone_left(errno)) {
        end_ = errno;
        return true;
    } else {
        lose_by(errno);
    }
    return false;
}

void Link::all_is_written() {
    unsent_ = {};
    if (end_ == 0 && !watches_) {
        watch_uptake();
    }
    std::exchange(sent_, nullptr)();
}

void Link::write_later() {
    if (!watches_) {
        watch_uptake();
    }
    socket_.async_wait(asio::posix::descriptor_base::wait_write,
                       [self = shared_from_this()](const asio::error_code& error) {
                           if (!error && self->socket_.is_open()) {
                               self->write_on();
                           }
                       });
}

// Bluetooth's sockets count against what they may hold, and may hold more by a packet.
size_t Link::held_by_kernel() {
    const int told = bytes_in_kernel(socket_.native_handle(), SIOCOUTQ);
    if (!traits_.kernel_tells_room) {
        return static_cast<size_t>(std::max(told, 0));
    }
    int limit = 0;
    socklen_t size = sizeof limit;
    ::getsockopt(socket_.native_handle(), SOL_SOCKET, SO_SNDBUF, &limit, &size);
    return static_cast<size_t>(std::max(limit - told, 0));
}

// The kernel tells when there is room to write on, which may take many packets, and not at all when the phone takes
// what was written last. A phone that takes a packet now and then is seen by what is left of them.
void Link::watch_uptake() {
    look_at_uptake();
    watches_ = !uptake_.is_over();
    if (!watches_) {
        return;
    }
    watch_.expires_after(budget::uptake_look);
    watch_.async_wait([self = shared_from_this()](const asio::error_code& error) {
        if (!error && self->socket_.is_open()) {
            self->watch_uptake();
        }
    });
}

void Link::look_at_uptake() {
    const bool is_full = !unsent_.empty() && !is_ready(socket_.native_handle(), POLLOUT);
    if (uptake_.look(held_by_kernel(), is_full, Clock::now())) {
        moved_ = Clock::now();
    }
    if (looked_ != nullptr) {
        looked_(uptake_);
    }
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
    if (socket_.is_open() && can_half_close(socket_.native_handle())) {
        ::shutdown(socket_.native_handle(), SHUT_WR);
        end_capture_as(End::camera_closed);
    }
}

void Link::close() {
    asio::error_code ignored;
    socket_.close(ignored);
    stop_timers();
    received_ = nullptr;
    sent_ = nullptr;
    lost_ = nullptr;
    looked_ = nullptr;
    capture_.reset();
}

void Link::stop_timers() {
    watch_.cancel();
    read_pause_.cancel();
    write_pause_.cancel();
}

void Link::abort() {
    const linger at_once = {1, 0};
    if (socket_.is_open()) {
        ::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    close();
}

void Link::end_capture_as(End how) {
    if (capture_ != nullptr) {
        capture_->ends(how);
    }
}

void Link::lose_by(int error) {
    lose(std::strerror(error), means_phone_left(error) ? End::phone_left : End::link_lost);
}

// Told from the loop, so that whoever was sending is not called back from inside its own call.
void Link::lose(const std::string& why, End how) {
    asio::error_code ignored;
    socket_.close(ignored);
    stop_timers();
    end_capture_as(how);
    capture_.reset();
    asio::post(loop_, [self = shared_from_this(), why] {
        if (const Lost handler = std::exchange(self->lost_, nullptr)) {
            handler(why);
        }
    });
}

} // namespace desk::camera
