#include "Message.h"

#include <cstring>

Bytes words(std::initializer_list<int32_t> values) {
    Bytes bytes;
    for (const int32_t value : values) {
        bytes = std::move(bytes) + image(value);
    }
    return bytes;
}

Bytes pattern(size_t count) {
    Bytes bytes(count);
    for (size_t position = 0; position < count; ++position) {
        bytes[position] = static_cast<unsigned char>(position % 251);
    }
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes slice(const Bytes& all, size_t first, size_t count) {
    const auto begin = all.begin() + static_cast<std::ptrdiff_t>(first);
    return {begin, begin + static_cast<std::ptrdiff_t>(count)};
}

int32_t word_at(const Bytes& all, size_t offset) {
    int32_t word = 0;
    std::memcpy(&word, all.data() + offset, sizeof word);
    return word;
}

Bytes header(int32_t function, int32_t total) {
    return words({function, total});
}

Bytes request(int32_t function, const Bytes& payload) {
    return request_announcing(static_cast<int32_t>(sizeof(sm_frame) + payload.size()), function, payload);
}

Bytes request_announcing(int32_t total, int32_t function, const Bytes& payload) {
    return header(function, total) + payload;
}
