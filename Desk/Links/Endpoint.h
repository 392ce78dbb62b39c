// The URL of a link: unix:PATH, tcp:HOST:PORT, rfcomm:[ADDRESS:]CHANNEL, l2cap:[ADDRESS:]PSM, le:[ADDRESS:]PSM. The
// channel of rfcomm and the PSM of le may be "auto": for a camera any free one, for a phone the one that the camera
// tells to whoever asks. Of Low Energy an address may be a random one, le:ADDRESS/random:PSM.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Failure.h"

namespace desk {

using BluetoothAddress = std::array<uint8_t, 6>; // most significant byte first

struct Endpoint {
    enum class Kind { unix_socket, tcp, rfcomm, l2cap, le };
    Kind kind = Kind::unix_socket;
    std::string path;  // unix_socket
    std::string host;  // tcp; an IPv6 address without its brackets
    uint16_t port = 0; // tcp: port; rfcomm: channel 1 to 30; l2cap, le: PSM. Of tcp, rfcomm and le: 0 for any free one
    std::optional<BluetoothAddress> address; // none: any adapter
    bool has_random_address = false;         // le

    bool is_bluetooth() const { return kind == Kind::rfcomm || kind == Kind::l2cap || kind == Kind::le; }
    bool keeps_message_boundaries() const { return kind != Kind::tcp && kind != Kind::rfcomm; }
    std::string url() const;
};

// 00:11:22:33:44:55; nothing where the text is anything else.
std::optional<BluetoothAddress> bluetooth_address_in(std::string_view text);
std::string text_of(const BluetoothAddress& address);

// Throws Failure (exit_usage) that says what is wrong with the URL and shows a right one.
Endpoint parse_endpoint(const std::string& url);

} // namespace desk
