// The way to a connected socket, of whatever kind, in bounded time.
#pragma once

#include <chrono>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "Common/Failure.h"
#include "Links/Endpoint.h"

namespace desk::phone {

using Clock = std::chrono::steady_clock;

// Where one try to connect goes.
struct Address {
    int family = 0;
    int type = 0;
    int protocol = 0;
    sockaddr_storage bytes = {};
    socklen_t length = 0;
};

// Those of a camera, to be tried in order. Throws Failure: exit_link, or exit_usage for an endpoint that nothing can
// connect to.
std::vector<Address> addresses_of(const Endpoint& camera);

constexpr int never_stopped = -1;

// What happens of these events; nothing when the time has come, or when there is something to read from `stop`.
int poll_one(int descriptor, short events, Clock::time_point deadline, int stop = never_stopped);

// Connects a socket that does not block. Returns 0, or the error; ETIMEDOUT also for a `stop`.
int try_to_connect(int descriptor, const Address& address, Clock::time_point deadline, int stop = never_stopped);

// What an error of connecting means, and what to do. The failure says what could not be connected to, too.
std::string reason_of(const Endpoint& camera, int error);
Failure connect_failure(const Endpoint& camera, int error);

} // namespace desk::phone
