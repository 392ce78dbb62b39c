// Numbers of two bytes as Bluetooth has them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace desk::capture {

// `bytes` holds both.
inline uint16_t get_16(std::span<const uint8_t> bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

} // namespace desk::capture
