// The btsnoop file format: a header, then one record for each HCI packet. Numbers in it are big-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace desk::capture {

constexpr size_t btsnoop_header_size = 16;
constexpr size_t btsnoop_record_size = 24; // before the packet's own bytes

// How packets stand in the records.
enum class Datalink : uint32_t {
    h1 = 1001,      // without a byte that says what kind of packet it is: the record's flags do
    h4 = 1002,      // behind such a byte
    bcsp = 1003,    // as on a serial line
    h5 = 1004,      // the same
    monitor = 2001, // of Linux: the flags say adapter and kind
};

// The first bytes of each file.
std::array<uint8_t, btsnoop_header_size> btsnoop_header(Datalink datalink);
// The datalink of a file that begins so, known here or not; nothing when it is no btsnoop file of version 1.
std::optional<uint32_t> btsnoop_datalink(std::span<const uint8_t, btsnoop_header_size> header);

struct BtsnoopRecord {
    uint32_t original_length = 0; // of the packet
    uint32_t included_length = 0; // bytes of it that follow in the file
    uint32_t flags = 0;           // h1 and h4: bit 0: received by the host; bit 1: a command or an event
    uint32_t drops = 0;           // packets that were lost before this one
    int64_t time = 0;             // microseconds since 1970
};

std::array<uint8_t, btsnoop_record_size> encode(const BtsnoopRecord& record);
BtsnoopRecord decode_btsnoop_record(std::span<const uint8_t, btsnoop_record_size> bytes);

} // namespace desk::capture
