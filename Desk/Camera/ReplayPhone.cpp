#include "ReplayPhone.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "Budgets.h"
#include "Sockets.h"

namespace desk::camera {
namespace {

volatile std::sig_atomic_t was_stopped = 0;

void stop(int /*signal*/) {
    was_stopped = 1;
}

bool is_worth_a_retry(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ENOBUFS;
}

timespec timespec_of(std::chrono::microseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
}

// With the signals let through for so long. Throws Stopped.
int poll_with_signals(pollfd* descriptors, nfds_t count, const timespec* time, const sigset_t& signals) {
    const int ready = ::ppoll(descriptors, count, time, &signals);
    if (was_stopped != 0) {
        throw Stopped{};
    }
    return ready;
}

} // namespace

// ---- Waiting --------------------------------------------------------------------------------------------------------

Waiting::Waiting() {
    sigset_t ours = {};
    ::sigemptyset(&ours);
    struct sigaction action = {};
    action.sa_handler = stop;
    for (const int signal : {SIGINT, SIGTERM}) {
        ::sigaddset(&ours, signal);
        ::sigaction(signal, &action, nullptr);
    }
    ::sigprocmask(SIG_BLOCK, &ours, &before_);
}

Waiting::~Waiting() {
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

bool Waiting::for_descriptor(int descriptor, short events, std::optional<std::chrono::milliseconds> time) const {
    pollfd watched = {descriptor, events, 0};
    const timespec limit = timespec_of(time.value_or(std::chrono::milliseconds(0)));
    int ready = 0;
    do {
        ready = poll_with_signals(&watched, 1, time ? &limit : nullptr, before_);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

void Waiting::pause(std::chrono::microseconds time) const {
    const timespec limit = timespec_of(time);
    poll_with_signals(nullptr, 0, &limit, before_);
}

// ---- A phone --------------------------------------------------------------------------------------------------------

ReplayPhone::ReplayPhone(const Waiting& waiting, Descriptor socket, bool keeps_message_boundaries,
                         size_t largest_packet)
    : waiting_(waiting), socket_(std::move(socket)), keeps_message_boundaries_(keeps_message_boundaries),
      largest_packet_(largest_packet), messages_(capture::Side::phone, keeps_message_boundaries),
      buffer_(budget::received_bytes) {}

std::optional<Bytes> ReplayPhone::next_message() {
    while (whole_.empty()) {
        if (!receive()) {
            return std::nullopt;
        }
    }
    Bytes first = std::move(whole_.front());
    whole_.pop_front();
    return first;
}

bool ReplayPhone::receive() {
    if (!has_ended_) {
        waiting_.for_descriptor(socket_.get(), POLLIN, std::nullopt);
    }
    const ssize_t length = ::recv(socket_.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (length < 0 && !is_worth_a_retry(errno) && !has_ended_) {
        has_ended_ = true; // sockets of Bluetooth tell an error before the bytes that came ahead of it
        return true;
    }
    if (length <= 0) {
        return length < 0 && is_worth_a_retry(errno) && !has_ended_;
    }
    for (Bytes& message : messages_.take(std::span(buffer_).first(static_cast<size_t>(length)))) {
        whole_.push_back(std::move(message));
    }
    return true;
}

bool ReplayPhone::send(std::span<const uint8_t> packet) {
    while (!packet.empty()) {
        if (!waiting_.for_descriptor(socket_.get(), POLLOUT, budget::stalled_time)) {
            return false;
        }
        const ssize_t length =
            ::send(socket_.get(), packet.data(), std::min(packet.size(), largest_packet_), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (length < 0 && !is_worth_a_retry(errno)) {
            return false;
        }
        packet = packet.subspan(length < 0 ? 0 : static_cast<size_t>(length));
    }
    return true;
}

// ---- Where phones connect -------------------------------------------------------------------------------------------

ReplayListener::ReplayListener(const Waiting& waiting, const Endpoint& endpoint)
    : waiting_(waiting), endpoint_(endpoint), socket_(open_listening_socket(endpoint_, {})) {}

ReplayListener::~ReplayListener() {
    if (endpoint_.kind == Endpoint::Kind::unix_socket) {
        ::unlink(endpoint_.path.c_str());
    }
}

ReplayPhone ReplayListener::accept() const {
    while (true) {
        waiting_.for_descriptor(socket_.get(), POLLIN, std::nullopt);
        Descriptor phone(::accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (phone.get() >= 0 && prepare_phone_socket(endpoint_.kind, phone.get())) {
            const size_t largest = largest_packet(endpoint_.kind, phone.get());
            return {waiting_, std::move(phone), endpoint_.keeps_message_boundaries(), largest};
        }
        waiting_.pause(std::chrono::milliseconds(20)); // a machine that is out of files is not asked without end
    }
}

} // namespace desk::camera
