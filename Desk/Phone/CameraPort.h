// On which channel of RFCOMM, or PSM of Low Energy, a camera listens, as its device tells whoever asks.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Common/Failure.h"
#include "Connecting.h"
#include "Links/Endpoint.h"

namespace desk::phone {

struct PortAnswer {
    std::optional<uint16_t> port;
    bool was_tried = false; // to connect to the device, which may keep its controller busy for a while
    // Where there is no port:
    bool is_absent = false; // the device has answered that it has no such service
    ExitCode code = exit_link;
    std::string reason; // and what to do
};

// Asks the device of a camera with an rfcomm: or le: URL. Takes no longer than the time to connect, and once more to be
// answered, and ends when there is something to read from `stop`.
PortAnswer ask_for_port(const Endpoint& camera, std::chrono::milliseconds timeout, int stop = never_stopped);

// The camera with the port that it tells, where it has none. Throws Failure.
Endpoint with_port(const Endpoint& camera, std::chrono::milliseconds timeout);

} // namespace desk::phone
