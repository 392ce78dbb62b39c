// The kinds of sockets that a phone can reach the camera by.
#pragma once

#include <cstddef>
#include <vector>

#include "Links/Bluetooth.h"
#include "Links/Endpoint.h"

namespace desk::camera {

// Who may connect to a Unix socket: those whom the caller's file mode mask leaves, or its owner alone.
enum class Access { by_mask, owner };

// Whom a listening socket lets in.
struct Admission {
    Access access = Access::by_mask;
    Security security = Security::low;          // of Bluetooth
    std::vector<BluetoothAddress> allowed = {}; // of Bluetooth; empty: all
};

// Opens a socket that listens at the endpoint, and writes the port that a port of 0 became into it. Throws Failure
// (exit_link).
int open_listening_socket(Endpoint& endpoint, const Admission& admission);

// Sets a phone's socket up. False: the link loses packets, and is to be closed, which has been told.
bool prepare_phone_socket(Endpoint::Kind kind, int socket);

// The largest packet that a phone's socket takes.
size_t largest_packet(Endpoint::Kind kind, int socket);

} // namespace desk::camera
