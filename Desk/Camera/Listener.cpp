#include "Listener.h"

#include <algorithm>
#include <asio/ip/tcp.hpp>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Sockets.h"
#include "Talk.h"

namespace desk {
namespace {

constexpr size_t longest_received_packet = size_t{1} << 20; // more than the longest request

} // namespace

Listener::Listener(asio::io_context& loop, const Endpoint& endpoint, size_t mtu)
    : loop_(loop), endpoint_(endpoint), mtu_(mtu), socket_(loop, open_listening_socket(endpoint_)),
      pause_(loop), buffer_(longest_received_packet) {
    struct stat file = {};
    if (endpoint_.kind == Endpoint::Kind::unix_socket && ::stat(endpoint_.path.c_str(), &file) == 0) {
        file_device_ = file.st_dev;
        file_inode_ = file.st_ino;
    }
}

Listener::~Listener() {
    struct stat file = {};
    if (endpoint_.kind == Endpoint::Kind::unix_socket && ::stat(endpoint_.path.c_str(), &file) == 0 &&
        file.st_dev == file_device_ && file.st_ino == file_inode_) {
        ::unlink(endpoint_.path.c_str());
    }
}

void Listener::accept(Accepted handler) {
    accepted_ = std::move(handler);
    wait_for_phone();
}

void Listener::wait_for_phone() {
    socket_.async_wait(asio::posix::descriptor_base::wait_read, [this](const asio::error_code& error) {
        if (!error) {
            accept_once();
        }
    });
}

void Listener::accept_once() {
    const int phone = ::accept4(socket_.native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    const int error = errno;
    if (phone >= 0) {
        accepted_(std::make_shared<Link>(loop_, phone, traits_of(phone), buffer_));
    } else if (error != EAGAIN && error != EINTR && error != ECONNABORTED) {
        say(std::string("cannot take a phone in: ") + std::strerror(error));
        accept_later();
        return;
    }
    wait_for_phone();
}

// Without a pause a machine that is out of files would be asked for one again and again.
void Listener::accept_later() {
    pause_.expires_after(std::chrono::milliseconds(500));
    pause_.async_wait([this](const asio::error_code& error) {
        if (!error) {
            wait_for_phone();
        }
    });
}

LinkTraits Listener::traits_of(int socket) const {
    prepare_phone_socket(endpoint_.kind, socket);
    return {endpoint_.keeps_packet_borders(), std::min(mtu_, largest_packet(endpoint_.kind, socket))};
}

} // namespace desk
