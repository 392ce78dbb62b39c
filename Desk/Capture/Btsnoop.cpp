#include "Btsnoop.h"

#include <algorithm>
#include <string_view>

namespace desk::capture {
namespace {

constexpr std::string_view magic("btsnoop\0", 8);
constexpr uint32_t version = 1;
constexpr int64_t unix_epoch = 0x00dcddb30f2f8000; // 1970, in microseconds since the year 0

void put(std::span<uint8_t> bytes, uint64_t value) {
    for (size_t i = bytes.size(); i-- > 0; value >>= 8) {
        bytes[i] = static_cast<uint8_t>(value);
    }
}

uint64_t get(std::span<const uint8_t> bytes) {
    uint64_t value = 0;
    for (const uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

uint32_t get_32(std::span<const uint8_t> bytes, size_t offset) {
    return static_cast<uint32_t>(get(bytes.subspan(offset, 4)));
}

} // namespace

std::array<uint8_t, btsnoop_header_size> btsnoop_header(Datalink datalink) {
    std::array<uint8_t, btsnoop_header_size> header = {};
    std::copy(magic.begin(), magic.end(), header.begin());
    put(std::span(header).subspan(8, 4), version);
    put(std::span(header).subspan(12, 4), static_cast<uint32_t>(datalink));
    return header;
}

std::optional<uint32_t> btsnoop_datalink(std::span<const uint8_t, btsnoop_header_size> header) {
    if (!std::equal(magic.begin(), magic.end(), header.begin(),
                    [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; }) ||
        get_32(header, 8) != version) {
        return std::nullopt;
    }
    return get_32(header, 12);
}

std::array<uint8_t, btsnoop_record_size> encode(const BtsnoopRecord& record) {
    std::array<uint8_t, btsnoop_record_size> bytes = {};
    const std::span all(bytes);
    put(all.subspan(0, 4), record.original_length);
    put(all.subspan(4, 4), record.included_length);
    put(all.subspan(8, 4), record.flags);
    put(all.subspan(12, 4), record.drops);
    put(all.subspan(16, 8), static_cast<uint64_t>(record.time + unix_epoch));
    return bytes;
}

BtsnoopRecord decode_btsnoop_record(std::span<const uint8_t, btsnoop_record_size> bytes) {
    const uint64_t time = get(bytes.subspan(16, 8)) - static_cast<uint64_t>(unix_epoch); // any bytes may stand there
    return {get_32(bytes, 0), get_32(bytes, 4), get_32(bytes, 8), get_32(bytes, 12), static_cast<int64_t>(time)};
}

} // namespace desk::capture
