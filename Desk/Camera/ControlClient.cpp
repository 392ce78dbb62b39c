// The other side of the control socket: shotmentor-camera control.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "Budgets.h"
#include "Common/Descriptor.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "Control.h"

namespace desk::camera {
namespace {

constexpr timeval patience = {5, 0};

[[noreturn]] void throw_failure(const Endpoint& endpoint) {
    if (errno == EAGAIN) {
        throw Failure(exit_timeout, fmt::format("{} did not answer in {} s; is it a camera's control socket?",
                                                endpoint.url(), patience.tv_sec));
    }
    throw Failure(exit_link, fmt::format("cannot reach a camera at {}: {}; start one with --control {}", endpoint.url(),
                                         std::strerror(errno), endpoint.url()));
}

Descriptor connect_to(const Endpoint& endpoint) {
    Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    endpoint.path.copy(address.sun_path, sizeof address.sun_path - 1);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw_failure(endpoint);
    }
    return socket;
}

std::string ask(const Endpoint& endpoint, const std::string& command) {
    const Descriptor socket = connect_to(endpoint);
    std::array<char, budget::longest_answer> answer; // what is longer is cut
    if (::send(socket.get(), command.data(), command.size(), MSG_NOSIGNAL) < 0) {
        throw_failure(endpoint);
    }
    const ssize_t length = ::recv(socket.get(), answer.data(), answer.size(), 0);
    if (length < 0) {
        throw_failure(endpoint);
    }
    return {answer.data(), static_cast<size_t>(length)};
}

} // namespace

int control_camera(const Endpoint& endpoint, const std::string& command) {
    constexpr std::string_view told = "done: ";
    constexpr std::string_view refused = "refused: ";
    const std::string answer = ask(endpoint, command);
    if (answer.starts_with(refused)) {
        throw Failure(exit_usage, printable(answer.substr(refused.size())));
    }
    if (answer != "done" && !answer.starts_with(told)) {
        throw Failure(exit_protocol, fmt::format("{} is no control socket: it answers something else; give the URL "
                                                 "that the camera has as --control",
                                                 endpoint.url()));
    }
    std::printf("%s\n", printable(answer.starts_with(told) ? answer.substr(told.size()) : answer).c_str());
    return exit_done;
}

} // namespace desk::camera
