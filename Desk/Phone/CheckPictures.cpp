#include "CheckPictures.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>

#include "Wire/Frames.h"

namespace desk::phone {
namespace {

constexpr size_t longest_comment = 65535; // its length counts itself, but not the two bytes of its marker
constexpr size_t marker = 2;
constexpr size_t least_segment = 4;

void append(Bytes& bytes, std::initializer_list<uint8_t> more) {
    bytes.insert(bytes.end(), more);
}

// Start of image, and a quantisation table of ones: how a stream begins that cameras count.
Bytes stream_start() {
    Bytes bytes = {0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x43, 0x00};
    bytes.insert(bytes.end(), 64, 0x01);
    return bytes;
}

// A frame of 8 by 8 pixels with one component, `coding` telling how it is coded.
void append_frame(Bytes& bytes, uint8_t coding) {
    append(bytes, {0xFF, coding, 0x00, 0x0B, 0x08, 0x00, 0x08, 0x00, 0x08, 0x01, 0x01, 0x11, 0x00});
}

void append_scan(Bytes& bytes) {
    append(bytes, {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00});
}

// A table with a single code of one bit, for the value 0.
void append_huffman_table(Bytes& bytes, uint8_t kind) {
    append(bytes, {0xFF, 0xC4, 0x00, 0x14, kind, 0x01});
    bytes.insert(bytes.end(), 16, 0x00);
}

void append_comments(Bytes& bytes, size_t size, int seed) {
    while (size > 0) {
        size_t length = std::min(size, longest_comment + marker);
        if (size > length && size - length < least_segment) {
            length -= least_segment;
        }
        const size_t told = length - marker;
        append(bytes, {0xFF, 0xFE, static_cast<uint8_t>(told >> 8), static_cast<uint8_t>(told & 0xFF)});
        for (size_t position = least_segment; position < length; ++position) {
            bytes.push_back(static_cast<uint8_t>((bytes.size() * 31 + static_cast<size_t>(seed) * 7) % 251));
        }
        size -= length;
    }
}

// Coded arithmetically, a grey square needs neither tables nor bits: what else there is leaves room for one empty
// comment in the smallest picture that a camera takes.
Bytes smallest() {
    Bytes bytes = stream_start();
    append_comments(bytes, least_segment, 0);
    append_frame(bytes, 0xC9);
    append_scan(bytes);
    append(bytes, {0xFF, 0xD9});
    return bytes;
}

} // namespace

Bytes picture_of(size_t size, int seed) {
    if (size == smallest_picture) {
        return smallest();
    }
    Bytes rest;
    append_frame(rest, 0xC0);
    append_huffman_table(rest, 0x00);
    append_huffman_table(rest, 0x10);
    append_scan(rest);
    append(rest, {0x3F, 0xFF, 0xD9});
    Bytes bytes = stream_start();
    append_comments(bytes, size - bytes.size() - rest.size(), seed);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

} // namespace desk::phone
