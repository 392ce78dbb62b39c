// Reads a word of a frame or record from a memory image, wherever it lies. Internal to the library.
#ifndef ADE_SHOTMENTOR_WORDS_H
#define ADE_SHOTMENTOR_WORDS_H

#include <bit>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

static_assert(std::endian::native == std::endian::little, "records and frames are exchanged as memory images");

inline int32_t word_at(const void* data, size_t offset) {
    int32_t word;
    memcpy(&word, static_cast<const char*>(data) + offset, sizeof word);
    return word;
}

#endif
