// The wire format, written readably: words, frames and records as bytes.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "ADE_ShotMentor_Records.h"

using Bytes = std::vector<unsigned char>;

// The little-endian bytes of some 32-bit words.
Bytes words(std::initializer_list<int32_t> values);

// The memory image of a record.
template<class Record>
Bytes image(const Record& record) {
    const auto* const first = reinterpret_cast<const unsigned char*>(&record);
    return {first, first + sizeof record};
}

// `count` bytes that are told apart by their position: 0, 1, ... 250, 0, 1, ...
Bytes pattern(size_t count);

Bytes operator+(Bytes left, const Bytes& right);

// `count` bytes of `all` from `first` on.
Bytes slice(const Bytes& all, size_t first, size_t count);

// The 32-bit word at a byte offset.
int32_t word_at(const Bytes& all, size_t offset);

// The header of a request alone.
Bytes header(int32_t function, int32_t total);

// A whole request: header with the right total length, then the payload.
Bytes request(int32_t function, const Bytes& payload = {});

// A request whose header announces `total`, whatever the payload has.
Bytes request_announcing(int32_t total, int32_t function, const Bytes& payload = {});
