// The records as bytes and as named fields.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>

#include "Wire/Record.h"

namespace desk {
namespace {

constexpr size_t phone_size = 744;
constexpr size_t camera_size = 740;

const Field& field_named(const std::string& name) {
    const auto found =
        std::find_if(fields().begin(), fields().end(), [&](const Field& field) { return field.name == name; });
    EXPECT_NE(found, fields().end()) << name;
    return found == fields().end() ? fields().front() : *found;
}

size_t bytes_of(const Field& field) {
    return field.kind == Field::Kind::text ? field.count : 4 * field.words();
}

// Bytes that differ from their neighbours, from 1 on.
Bytes rising(size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
}

TEST(Fields, CoverEveryByteOfThePhonesRecordOnceAndInOrder) {
    size_t next = 0;
    for (const Field& field : fields()) {
        EXPECT_EQ(field.offset, next) << field.name;
        next += bytes_of(field);
    }
    EXPECT_EQ(next, phone_size);
}

TEST(Fields, HaveOneNameEach) {
    std::vector<std::string> names;
    for (const Field& field : fields()) {
        names.push_back(field.name);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

struct Expected {
    const char* name;
    Field::Kind kind;
    size_t offset;
    size_t count;
    bool in_style;
    bool phone_only;
};

TEST(Fields, KnowKindOffsetCountAndNesting) {
    const Expected expected[] = {
        {"title", Field::Kind::text, 0, 52, false, false},
        {"mode", Field::Kind::word, 52, 1, false, false},
        {"k_xy", Field::Kind::word, 148, 1, false, false},
        {"color_style", Field::Kind::word, 152, 1, true, false},
        {"cs_color_off_color", Field::Kind::word, 156, 1, true, false},
        {"cs_color", Field::Kind::colors, 160, 13, true, false},
        {"cs_saturation", Field::Kind::words, 316, 14, true, false},
        {"cs_sharpness", Field::Kind::words, 372, 14, true, false},
        {"cs_contrast", Field::Kind::words, 428, 14, true, false},
        {"cs_hue", Field::Kind::words, 484, 14, true, false},
        {"smart_filter", Field::Kind::word, 540, 1, false, false},
        {"counti_h_frame", Field::Kind::word, 620, 1, false, false},
        {"reserved_636", Field::Kind::words, 636, 6, false, false},
        {"custom_id", Field::Kind::word, 672, 1, false, false},
        {"screennail_path", Field::Kind::text, 688, 52, false, false},
        {"linked_custom_mode", Field::Kind::word, 740, 1, false, true},
    };
    for (const Expected& line : expected) {
        SCOPED_TRACE(line.name);
        const Field& field = field_named(line.name);
        EXPECT_EQ(field.kind, line.kind);
        EXPECT_EQ(field.offset, line.offset);
        EXPECT_EQ(field.count, line.count);
        EXPECT_EQ(field.in_style, line.in_style);
        EXPECT_EQ(field.phone_only, line.phone_only);
    }
}

TEST(Fields, CountThreeWordsForAColor) {
    EXPECT_EQ(field_named("title").words(), 0u);
    EXPECT_EQ(field_named("mode").words(), 1u);
    EXPECT_EQ(field_named("cs_hue").words(), 14u);
    EXPECT_EQ(field_named("cs_color").words(), 39u);
}

TEST(Words, AreLittleEndianAtTheirOffset) {
    Bytes bytes(8);
    put_word(bytes, 2, 0x01020304);
    EXPECT_EQ(bytes, (Bytes{0, 0, 4, 3, 2, 1, 0, 0}));
    EXPECT_EQ(get_word(bytes, 2), 0x01020304);
}

TEST(Words, KeepTheirSign) {
    const Bytes minus_two = {0xFE, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(get_word(minus_two, 0), -2);
    Bytes bytes = {7};
    append_word(bytes, -2);
    EXPECT_EQ(bytes, (Bytes{7, 0xFE, 0xFF, 0xFF, 0xFF}));
    const Bytes lowest = {0, 0, 0, 0x80};
    EXPECT_EQ(get_word(lowest, 0), INT32_MIN);
}

TEST(RecordCodec, DecodesFieldsFromTheirOffsets) {
    Bytes bytes(phone_size);
    bytes[0] = 'T';
    put_word(bytes, 52, 3);
    put_word(bytes, 160 + 12 * 12 + 8, 77); // blue of style 13
    put_word(bytes, 484 + 13 * 4, -5);
    put_word(bytes, 672, 1000001);
    bytes[688 + 51] = 'P';
    put_word(bytes, 740, 2);
    const sm_tag_custom_info preset = decode_phone_record(bytes);
    EXPECT_EQ(preset.title[0], 'T');
    EXPECT_EQ(preset.mode, 3);
    EXPECT_EQ(preset.cs_info.cs_color[12].cs_color_b, 77);
    EXPECT_EQ(preset.cs_info.cs_hue[13], -5);
    EXPECT_EQ(preset.custom_id, 1000001);
    EXPECT_EQ(preset.screennail_path[51], 'P');
    EXPECT_EQ(preset.linked_custom_mode, 2);
}

TEST(RecordCodec, EncodesFieldsAtTheirOffsets) {
    tag_custom_info preset{};
    std::memcpy(preset.title, "Dusk", 4);
    preset.av_index = 0x11223344;
    preset.cs_info.cs_color[0].cs_color_g = 200;
    preset.made_id = -1;
    Bytes expected(camera_size);
    std::memcpy(expected.data(), "Dusk", 4);
    const Bytes aperture = {0x44, 0x33, 0x22, 0x11};
    std::copy(aperture.begin(), aperture.end(), expected.begin() + 56);
    expected[164] = 200;
    std::fill(expected.begin() + 684, expected.begin() + 688, uint8_t{0xFF});
    EXPECT_EQ(encode(preset), expected);
}

TEST(RecordCodec, GivesBackEveryByteOfAPhoneRecord) {
    EXPECT_EQ(encode(decode_phone_record(rising(phone_size))), rising(phone_size));
}

TEST(RecordCodec, GivesBackEveryByteOfACameraRecord) {
    EXPECT_EQ(encode(decode_camera_record(rising(camera_size))), rising(camera_size));
}

TEST(RecordCodec, IgnoresBytesBehindTheRecord) {
    EXPECT_EQ(encode(decode_camera_record(rising(phone_size))), rising(camera_size));
}

TEST(RecordCodec, ReadsATextUpToItsFirstNulOrItsEnd) {
    const char title[6] = {'a', 'b', '\0', 'c', '\0', '\0'};
    EXPECT_EQ(text_of(title, sizeof title), "ab");
    EXPECT_EQ(text_of(title, 2), "ab");
    EXPECT_EQ(text_of(title, 1), "a");
}

} // namespace
} // namespace desk
