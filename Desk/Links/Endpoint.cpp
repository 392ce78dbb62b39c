#include "Endpoint.h"

#include <charconv>
#include <fmt/format.h>
#include <optional>
#include <string_view>
#include <sys/un.h>

namespace desk {

namespace {

constexpr size_t longest_path = sizeof(sockaddr_un::sun_path) - 1;
constexpr size_t address_text = 17; // 00:11:22:33:44:55
constexpr std::string_view random_mark = "/random";

[[noreturn]] void throw_url_failure(const std::string& url, const std::string& why, const char* example) {
    throw Failure(exit_usage, fmt::format("{}: {}; write {}", url, why, example));
}

std::optional<uint32_t> number_in(std::string_view text, int base = 10) {
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

Endpoint unix_endpoint(const std::string& url, std::string_view path) {
    constexpr auto example = "unix:PATH, such as unix:/tmp/camera.sock";
    if (path.empty()) {
        throw_url_failure(url, "the path is missing", example);
    }
    if (path.size() > longest_path) {
        throw_url_failure(
            url, fmt::format("the path has {} bytes, a socket's has at most {}", path.size(), longest_path), example);
    }
    Endpoint endpoint;
    endpoint.path = path;
    return endpoint;
}

// The host may be an IPv6 address in brackets, as its colons would otherwise run into the port's.
std::string host_in(const std::string& url, std::string_view host, const char* example) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string_view::npos) {
        throw_url_failure(url, "an IPv6 address stands in brackets", "tcp:[::1]:5000");
    }
    if (host.empty() || host.find_first_of("[]") != std::string_view::npos) {
        throw_url_failure(url, "the host is missing or no name", example);
    }
    return std::string(host);
}

Endpoint tcp_endpoint(const std::string& url, std::string_view rest) {
    constexpr auto example = "tcp:HOST:PORT, such as tcp:localhost:5000";
    const size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos) {
        throw_url_failure(url, "host or port is missing", example);
    }
    const auto port = number_in(rest.substr(colon + 1));
    if (!port || *port > 65535) {
        throw_url_failure(url, "the port is no number from 0 to 65535", example);
    }
    Endpoint endpoint;
    endpoint.kind = Endpoint::Kind::tcp;
    endpoint.host = host_in(url, rest.substr(0, colon), example);
    endpoint.port = static_cast<uint16_t>(*port);
    return endpoint;
}

bool is_channel(uint32_t number) {
    return number >= 1 && number <= 30;
}

// Bluetooth gives out odd numbers alone, and only even ones in the upper byte.
bool is_psm(uint32_t number) {
    return number <= 65535 && (number & 0x0101) == 0x0001;
}

// Those that Low Energy gives out: fixed ones, and from 128 on free ones.
bool is_le_psm(uint32_t number) {
    return number >= 1 && number <= 255;
}

struct Bluetooth {
    Endpoint::Kind kind;
    bool (*is_valid)(uint32_t);
    bool has_auto;
    const char* fault;
    const char* example;
};

const Bluetooth rfcomm = {Endpoint::Kind::rfcomm, is_channel, true, "the channel is no number from 1 to 30, nor auto",
                          "rfcomm:CHANNEL or rfcomm:ADDRESS:CHANNEL, such as rfcomm:00:11:22:33:44:55:3"};
const Bluetooth le = {Endpoint::Kind::le, is_le_psm, true, "the PSM is no number from 1 to 255, nor auto",
                      "le:PSM or le:ADDRESS:PSM, such as le:00:11:22:33:44:55:128"};
const Bluetooth l2cap = {Endpoint::Kind::l2cap, is_psm, false,
                         "the PSM is no odd number from 1 to 65279 with an even upper byte",
                         "l2cap:PSM or l2cap:ADDRESS:PSM, such as l2cap:00:11:22:33:44:55:4097"};

Endpoint bluetooth_endpoint(const std::string& url, std::string_view rest, const Bluetooth& bluetooth) {
    Endpoint endpoint;
    endpoint.kind = bluetooth.kind;
    // An address alone lacks its number, and not a part of itself.
    const size_t colon = bluetooth_address_in(rest) ? std::string_view::npos : rest.rfind(':');
    if (colon != std::string_view::npos) {
        std::string_view address = rest.substr(0, colon);
        if (bluetooth.kind == Endpoint::Kind::le && address.ends_with(random_mark)) {
            endpoint.has_random_address = true;
            address.remove_suffix(random_mark.size());
        }
        endpoint.address = bluetooth_address_in(address);
        if (!endpoint.address) {
            throw_url_failure(url, "the address is no Bluetooth address", bluetooth.example);
        }
        rest = rest.substr(colon + 1);
    }
    if (bluetooth.has_auto && rest == "auto") {
        return endpoint;
    }
    const auto number = number_in(rest);
    if (!number || !bluetooth.is_valid(*number)) {
        throw_url_failure(url, bluetooth.fault, bluetooth.example);
    }
    endpoint.port = static_cast<uint16_t>(*number);
    return endpoint;
}

std::string bluetooth_url(const char* scheme, const Endpoint& endpoint) {
    const std::string port = endpoint.port == 0 ? "auto" : std::to_string(endpoint.port);
    if (!endpoint.address) {
        return fmt::format("{}:{}", scheme, port);
    }
    return fmt::format("{}:{}{}:{}", scheme, text_of(*endpoint.address), endpoint.has_random_address ? random_mark : "",
                       port);
}

} // namespace

std::optional<BluetoothAddress> bluetooth_address_in(std::string_view text) {
    BluetoothAddress address{};
    if (text.size() != address_text) {
        return std::nullopt;
    }
    for (size_t k = 0; k < address.size(); ++k) {
        const auto byte = number_in(text.substr(3 * k, 2), 16);
        if (!byte || (k > 0 && text[3 * k - 1] != ':')) {
            return std::nullopt;
        }
        address[k] = static_cast<uint8_t>(*byte);
    }
    return address;
}

std::string text_of(const BluetoothAddress& address) {
    return fmt::format("{:02X}", fmt::join(address, ":"));
}

std::string Endpoint::url() const {
    switch (kind) {
    case Kind::unix_socket:
        return "unix:" + path;
    case Kind::tcp:
        return host.find(':') == std::string::npos ? fmt::format("tcp:{}:{}", host, port)
                                                   : fmt::format("tcp:[{}]:{}", host, port);
    case Kind::rfcomm:
        return bluetooth_url("rfcomm", *this);
    case Kind::l2cap:
        return bluetooth_url("l2cap", *this);
    case Kind::le:
        return bluetooth_url("le", *this);
    }
    return {};
}

Endpoint parse_endpoint(const std::string& url) {
    const size_t colon = url.find(':');
    const std::string scheme = url.substr(0, colon);
    const std::string_view rest =
        colon == std::string::npos ? std::string_view() : std::string_view(url).substr(colon + 1);
    if (scheme == "unix") {
        return unix_endpoint(url, rest);
    }
    if (scheme == "tcp") {
        return tcp_endpoint(url, rest);
    }
    if (scheme == "rfcomm") {
        return bluetooth_endpoint(url, rest, rfcomm);
    }
    if (scheme == "l2cap") {
        return bluetooth_endpoint(url, rest, l2cap);
    }
    if (scheme == "le") {
        return bluetooth_endpoint(url, rest, le);
    }
    throw_url_failure(url, "no link that is known",
                      "unix:PATH, tcp:HOST:PORT, rfcomm:[ADDRESS:]CHANNEL, l2cap:[ADDRESS:]PSM or le:[ADDRESS:]PSM");
}

} // namespace desk
