#include "Listener.h"

#include <algorithm>
#include <asio/system_error.hpp>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "Budgets.h"
#include "Sockets.h"
#include "Talk.h"

namespace desk::camera {

Listener::Listener(asio::io_context& loop, const Endpoint& endpoint, size_t mtu, Admission admission,
                   std::span<uint8_t> buffer)
    : loop_(loop), endpoint_(endpoint), mtu_(mtu), admission_(std::move(admission)),
      socket_(loop, open_listening_socket(endpoint_, admission_)), pause_(loop), buffer_(buffer) {
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

namespace {

// What the phone itself or the network on the way to it has done, as accept(2) hands it on.
bool is_of_one_phone(int error) {
    switch (error) {
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENOPROTOOPT:
    case ENONET:
    case EPERM: // refused by a firewall
        return true;
    default:
        return false;
    }
}

void tell_not_taken(const std::string& reason) {
    say({"failure", {{"reason", reason}}, "cannot take a phone in: " + reason});
}

} // namespace

void Listener::wait_for_phone() {
    socket_.async_wait(asio::posix::descriptor_base::wait_read, [this](const asio::error_code& error) {
        if (!error) {
            accept_some();
        }
    });
}

// Several at a time: where many phones come, the last one shall not wait for an answer until the loop has come round
// for each.
void Listener::accept_some() {
    for (int count = 0; count < budget::accepts_of_a_turn; ++count) {
        Descriptor phone(::accept4(socket_.native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (phone.get() >= 0) {
            take(std::move(phone));
        } else if (errno == EAGAIN) {
            break;
        } else if (errno != EINTR && !is_of_one_phone(errno)) {
            tell_not_taken(std::strerror(errno));
            accept_later();
            return;
        }
    }
    wait_for_phone();
}

// A phone that is not is closed without a word.
bool Listener::is_allowed(const Descriptor& phone) const {
    if (admission_.allowed.empty() || !endpoint_.is_bluetooth()) {
        return true;
    }
    const std::optional<BluetoothAddress> address = address_of_peer(endpoint_.kind, phone.get());
    if (address && std::ranges::find(admission_.allowed, *address) != admission_.allowed.end()) {
        return true;
    }
    const std::string who = address ? desk::text_of(*address) : "a phone without an address";
    say({"phone", {{"event", "not allowed"}, {"address", who}}, who + " was let go: --allow does not name it"});
    return false;
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

void Listener::take(Descriptor phone) {
    if (!is_allowed(phone) || !prepare_phone_socket(endpoint_.kind, phone.get())) {
        return;
    }
    const LinkTraits traits = {endpoint_.keeps_message_boundaries(),
                               std::min(mtu_, largest_packet(endpoint_.kind, phone.get())), endpoint_.is_bluetooth()};
    std::unique_ptr<capture::LinkWriter> captured = capture_ != nullptr ? capture_->connect(endpoint_) : nullptr;
    std::shared_ptr<Link> link;
    try {
        link = std::make_shared<Link>(loop_, phone.get(), traits, buffer_, std::move(captured));
        phone.release();
    } catch (const asio::system_error& error) { // the kernel watches no more sockets for this user
        tell_not_taken(error.code().message());
        return;
    }
    accepted_(std::move(link));
}

} // namespace desk::camera
