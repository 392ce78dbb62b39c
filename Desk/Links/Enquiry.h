// A question to a Bluetooth device: on which of its ports a camera listens. Here are the bytes alone, without a socket;
// the device may send any.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace desk {

using Uuid = std::array<uint8_t, 16>; // most significant byte first

// Of a text such as those of ServiceUuids.h.
constexpr Uuid uuid_from(std::string_view text) {
    Uuid uuid{};
    size_t digits = 0;
    for (const char character : text) {
        if (character != '-') {
            const int digit = character <= '9' ? character - '0' : character - 'a' + 10;
            uuid[digits / 2] = static_cast<uint8_t>(uuid[digits / 2] << 4 | digit);
            ++digits;
        }
    }
    return uuid;
}

// What a packet of the device comes to.
struct Finding {
    enum class Kind {
        nothing_yet,
        found,      // the camera listens on `port`
        absent,     // there is no such service
        for_paired, // the device tells nobody but those that are paired with it
        refused,    // it does not answer such questions
        faulty      // that is no answer, or the answer is no port
    };
    Kind kind = Kind::nothing_yet;
    uint16_t port = 0;
    std::vector<uint8_t> to_send; // at once, unless it is empty
};

class Enquiry {
  public:
    virtual ~Enquiry() = default;
    virtual std::vector<uint8_t> first_packet() const = 0;
    virtual Finding take(std::span<const uint8_t> packet) = 0;
};

} // namespace desk
