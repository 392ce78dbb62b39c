#include "Record.h"

#include <algorithm>
#include <cstring>

namespace desk {

namespace {

/* clang-format off */
#define DESK_TEXT(name, offset, size)          {#name, Field::Kind::text, offset, size, false, false},
#define DESK_WORD(name, offset)                {#name, Field::Kind::word, offset, 1, false, false},
#define DESK_WORDS(name, offset, count)        {#name, Field::Kind::words, offset, count, false, false},
#define DESK_STYLE_WORD(name, offset)          {#name, Field::Kind::word, offset, 1, true, false},
#define DESK_STYLE_COLORS(name, offset, count) {#name, Field::Kind::colors, offset, count, true, false},
#define DESK_STYLE_WORDS(name, offset, count)  {#name, Field::Kind::words, offset, count, true, false},
// The one block of the records is the colour styles.
#define DESK_BLOCK(name, offset, type) SM_CS_INFO_FIELDS(DESK_STYLE_WORD, DESK_STYLE_COLORS, DESK_STYLE_WORDS)
/* clang-format on */

template<class Record>
Bytes encode_fields(const Record& record) {
    Bytes bytes(sizeof record);
    const auto* const image = reinterpret_cast<const uint8_t*>(&record);
    for (const Field& field : fields()) {
        if (field.offset >= sizeof record) {
            continue;
        }
        if (field.kind == Field::Kind::text) {
            std::memcpy(bytes.data() + field.offset, image + field.offset, field.count);
        }
        for (size_t k = 0; k < field.words(); ++k) {
            const size_t offset = field.offset + k * sizeof(int32_t);
            int32_t value;
            std::memcpy(&value, image + offset, sizeof value);
            put_word(bytes, offset, value);
        }
    }
    return bytes;
}

template<class Record>
Record decode_fields(std::span<const uint8_t> bytes) {
    Record record{};
    auto* const image = reinterpret_cast<uint8_t*>(&record);
    for (const Field& field : fields()) {
        if (field.offset >= sizeof record) {
            continue;
        }
        if (field.kind == Field::Kind::text) {
            std::memcpy(image + field.offset, bytes.data() + field.offset, field.count);
        }
        for (size_t k = 0; k < field.words(); ++k) {
            const size_t offset = field.offset + k * sizeof(int32_t);
            const int32_t value = get_word(bytes, offset);
            std::memcpy(image + offset, &value, sizeof value);
        }
    }
    return record;
}

} // namespace

size_t Field::words() const {
    switch (kind) {
    case Kind::text:
        return 0;
    case Kind::word:
    case Kind::words:
        return count;
    case Kind::colors:
        return count * 3;
    }
    return 0;
}

const std::vector<Field>& fields() {
    static const std::vector<Field> all = {
        SM_CUSTOM_INFO_FIELDS(DESK_TEXT, DESK_WORD, DESK_WORDS, DESK_BLOCK) //
        {"linked_custom_mode", Field::Kind::word, offsetof(sm_tag_custom_info, linked_custom_mode), 1, false, true},
    };
    return all;
}

int32_t get_word(std::span<const uint8_t> bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t k = sizeof value; k-- > 0;) {
        value = value << 8 | bytes[offset + k];
    }
    return static_cast<int32_t>(value);
}

void put_word(std::span<uint8_t> bytes, size_t offset, int32_t value) {
    auto rest = static_cast<uint32_t>(value);
    for (size_t k = 0; k < sizeof rest; ++k, rest >>= 8) {
        bytes[offset + k] = static_cast<uint8_t>(rest & 0xFF);
    }
}

void append_word(Bytes& bytes, int32_t value) {
    bytes.resize(bytes.size() + sizeof value);
    put_word(bytes, bytes.size() - sizeof value, value);
}

Bytes encode(const sm_tag_custom_info& record) {
    return encode_fields(record);
}

Bytes encode(const tag_custom_info& record) {
    return encode_fields(record);
}

sm_tag_custom_info decode_phone_record(std::span<const uint8_t> bytes) {
    return decode_fields<sm_tag_custom_info>(bytes);
}

tag_custom_info decode_camera_record(std::span<const uint8_t> bytes) {
    return decode_fields<tag_custom_info>(bytes);
}

std::string text_of(const char* field, size_t size) {
    return {field, std::find(field, field + size, '\0')};
}

} // namespace desk
