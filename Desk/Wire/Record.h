// The two preset records as bytes and as named fields, derived from the library's own field list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "ADE_ShotMentor_Records.h"

namespace desk {

using Bytes = std::vector<uint8_t>;

// One field of both records. `linked_custom_mode`, which only the phone's record has, is the last one.
struct Field {
    enum class Kind { text, word, words, colors };
    std::string name;
    Kind kind;
    size_t offset;   // in the record
    size_t count;    // bytes of a text; words of `words`; triples of `colors`; 1 for a word
    bool in_style;   // nested in `cs_info`
    bool phone_only; // `linked_custom_mode`

    size_t words() const; // words of any kind of field; a text has none
};

// All fields in the order of their offsets.
const std::vector<Field>& fields();

// Little-endian words, whatever the machine's own order.
int32_t get_word(std::span<const uint8_t> bytes, size_t offset);
void put_word(std::span<uint8_t> bytes, size_t offset, int32_t value);
void append_word(Bytes& bytes, int32_t value);

// A record's bytes as they travel, and back. The memory image of a struct is the same thing on a little-endian machine
// only. `bytes` holds at least the record's size.
Bytes encode(const sm_tag_custom_info& record);
Bytes encode(const tag_custom_info& record);
sm_tag_custom_info decode_phone_record(std::span<const uint8_t> bytes);
tag_custom_info decode_camera_record(std::span<const uint8_t> bytes);

// A text field up to its first NUL, at most its whole size.
std::string text_of(const char* field, size_t size);

} // namespace desk
