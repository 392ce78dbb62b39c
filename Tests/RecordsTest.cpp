// The layout of the two preset records: where every field lies, that the phone's record begins as the camera's does,
// and which bytes both conversions carry without looking at them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <numeric>

#include "ADE_ShotMentor.h"
#include "FakeHost.h"
#include "Message.h"

namespace {

constexpr size_t camera_size = 740;
constexpr size_t phone_size = 744;

template<class Record>
Record record_of(const Bytes& bytes) {
    Record record;
    EXPECT_EQ(bytes.size(), sizeof record);
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

// A field of one word, by its name in both records.
struct Word {
    const char* name;
    int32_t tag_custom_info::*camera;
    int32_t sm_tag_custom_info::*phone;
    size_t offset;
};

#define WORD(name, offset)                                                                                             \
    { #name, &tag_custom_info::name, &sm_tag_custom_info::name, offset }

const Word record_words[] = {
    WORD(mode, 52),
    WORD(av_index, 56),
    WORD(tv_index, 60),
    WORD(iso, 64),
    WORD(iso_1_3, 68),
    WORD(ev_step, 72),
    WORD(metering, 76),
    WORD(drive, 80),
    WORD(hdr, 84),
    WORD(type, 88),
    WORD(k_value, 92),
    WORD(cwb_red, 96),
    WORD(cwb_green, 100),
    WORD(cwb_blue, 104),
    WORD(auto_xy, 108),
    WORD(auto_tungsten_xy, 112),
    WORD(daylight_xy, 116),
    WORD(cloudy_xy, 120),
    WORD(flu_w_xy, 124),
    WORD(flu_n_xy, 128),
    WORD(flu_d_xy, 132),
    WORD(tungsten_xy, 136),
    WORD(flash_xy, 140),
    WORD(cwb_xy, 144),
    WORD(k_xy, 148),
    WORD(smart_filter, 540),
    WORD(flash, 544),
    WORD(flash_ev, 548),
    WORD(af_mode, 552),
    WORD(af_area, 556),
    WORD(photosize, 560),
    WORD(touch_af, 564),
    WORD(selection_af_pos_x, 568),
    WORD(selection_af_pos_y, 572),
    WORD(selection_af_width, 576),
    WORD(selection_af_height, 580),
    WORD(selection_af_box_size, 584),
    WORD(multi_af_pos_x, 588),
    WORD(multi_af_pos_y, 592),
    WORD(multi_af_width, 596),
    WORD(multi_af_height, 600),
    WORD(multi_af_box_size, 604),
    WORD(timer_time, 608),
    WORD(timer_count, 612),
    WORD(timer_interval, 616),
    WORD(counti_h_frame, 620),
    WORD(counti_n_frame, 624),
    WORD(burst_frame, 628),
    WORD(drive_set_conti, 632),
    WORD(quality, 660),
    WORD(bulb, 664),
    WORD(preset_num, 668),
    WORD(custom_id, 672),
    WORD(applocal_id, 676),
    WORD(server_id, 680),
    WORD(made_id, 684),
};

// A field of several words or bytes.
struct Block {
    Block(const char* field, size_t camera_at, size_t phone_at, size_t size_in_camera, size_t size_in_phone,
          size_t expected_at, size_t expected_size)
        : name(field), camera_offset(camera_at), phone_offset(phone_at), camera_bytes(size_in_camera),
          phone_bytes(size_in_phone), offset(expected_at), bytes(expected_size) {}

    const char* name;
    size_t camera_offset;
    size_t phone_offset;
    size_t camera_bytes;
    size_t phone_bytes;
    size_t offset;
    size_t bytes;
};

#define BLOCK(name, offset, bytes)                                                                                     \
    Block(#name, offsetof(tag_custom_info, name), offsetof(sm_tag_custom_info, name), sizeof(tag_custom_info::name),   \
          sizeof(sm_tag_custom_info::name), offset, bytes)

const Block record_blocks[] = {
    BLOCK(title, 0, 52),
    BLOCK(cs_info, 152, 388),
    BLOCK(reserved_636, 636, 24),
    BLOCK(screennail_path, 688, 52),
};

#define STYLE_BLOCK(name, offset, bytes)                                                                               \
    Block(#name, offsetof(tag_custom_info, cs_info.name), offsetof(sm_tag_custom_info, cs_info.name),                  \
          sizeof(sm_cs_info::name), sizeof(sm_cs_info::name), offset, bytes)

const Block style_blocks[] = {
    STYLE_BLOCK(color_style, 152, 4),    STYLE_BLOCK(cs_color_off_color, 156, 4), STYLE_BLOCK(cs_color, 160, 156),
    STYLE_BLOCK(cs_saturation, 316, 56), STYLE_BLOCK(cs_sharpness, 372, 56),      STYLE_BLOCK(cs_contrast, 428, 56),
    STYLE_BLOCK(cs_hue, 484, 56),
};

// A camera record in which every byte differs from its neighbours; title and path have no NUL.
tag_custom_info camera_full_of_bytes() {
    Bytes bytes(camera_size);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
    std::fill(bytes.begin(), bytes.begin() + 52, static_cast<unsigned char>('T'));
    std::fill(bytes.end() - 52, bytes.end(), static_cast<unsigned char>('P'));
    return record_of<tag_custom_info>(bytes);
}

sm_tag_custom_info phone_full_of_bytes() {
    return record_of<sm_tag_custom_info>(image(camera_full_of_bytes()) + words({0x5A5B5C5D}));
}

Bytes converted_to_phone(const tag_custom_info& camera) {
    sm_tag_custom_info phone{};
    ADE_PRO_CreateProFilm(&camera, &phone);
    return image(phone);
}

Bytes converted_to_camera(const sm_tag_custom_info& phone) {
    tag_custom_info camera{};
    ADE_PRO_CreateSysCustom(&phone, &camera);
    return image(camera);
}

int count_of(const std::string& text, char character) {
    return static_cast<int>(std::count(text.begin(), text.end(), character));
}

class Records : public testing::Test {
  protected:
    FakeHost host;
};

// ---- Layout ---------------------------------------------------------------------------------------------------------
TEST_F(Records, TheCameraRecordHas740BytesAndThePhoneRecord744) {
    EXPECT_EQ(sizeof(tag_custom_info), 740u);
    EXPECT_EQ(sizeof(sm_tag_custom_info), 744u);
}

TEST_F(Records, EveryWordIsReadByItsNameFromItsOffsetInBothRecords) {
    for (const Word& word : record_words) {
        Bytes bytes(camera_size);
        bytes[word.offset] = 0x44;
        bytes[word.offset + 1] = 0x33;
        bytes[word.offset + 2] = 0x22;
        bytes[word.offset + 3] = 0x11;
        EXPECT_EQ(record_of<tag_custom_info>(bytes).*word.camera, 0x11223344) << word.name;
        EXPECT_EQ(record_of<sm_tag_custom_info>(bytes + words({0})).*word.phone, 0x11223344) << word.name;
    }
}

TEST_F(Records, EveryWordIsWrittenByItsNameToItsOffsetAndNowhereElse) {
    for (const Word& word : record_words) {
        Bytes expected(camera_size);
        std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(word.offset), 4, static_cast<unsigned char>(0xFF));
        tag_custom_info camera{};
        camera.*word.camera = -1;
        EXPECT_EQ(image(camera), expected) << word.name;
        sm_tag_custom_info phone{};
        phone.*word.phone = -1;
        EXPECT_EQ(image(phone), expected + words({0})) << word.name;
    }
}

TEST_F(Records, TextsBlocksAndArraysKeepTheirPlacesAndSizes) {
    for (const Block& block : record_blocks) {
        EXPECT_EQ(block.camera_offset, block.offset) << block.name;
        EXPECT_EQ(block.phone_offset, block.offset) << block.name;
        EXPECT_EQ(block.camera_bytes, block.bytes) << block.name;
        EXPECT_EQ(block.phone_bytes, block.bytes) << block.name;
    }
}

TEST_F(Records, TheColourStyleBlockKeepsItsNestingInBothRecords) {
    EXPECT_EQ(sizeof(sm_cs_info), 388u);
    for (const Block& block : style_blocks) {
        EXPECT_EQ(block.camera_offset, block.offset) << block.name;
        EXPECT_EQ(block.phone_offset, block.offset) << block.name;
        EXPECT_EQ(block.camera_bytes, block.bytes) << block.name;
    }
}

TEST_F(Records, FieldsFollowEachOtherWithoutGaps) {
    std::vector<int> fields_at(camera_size);
    const auto cover = [&](size_t offset, size_t bytes) {
        for (size_t k = 0; k < bytes; ++k) {
            ++fields_at[offset + k];
        }
    };
    for (const Word& word : record_words) {
        cover(word.offset, 4);
    }
    for (const Block& block : record_blocks) {
        cover(block.offset, block.bytes);
    }
    EXPECT_EQ(fields_at, std::vector<int>(camera_size, 1));
}

TEST_F(Records, TheLinkedCustomModeIsThePhonesOwnWordAtByte740) {
    sm_tag_custom_info phone{};
    phone.linked_custom_mode = 2;
    EXPECT_EQ(image(phone), Bytes(camera_size) + words({2}));
}

TEST_F(Records, EveryWordIsSigned) {
    const tag_custom_info camera = record_of<tag_custom_info>(Bytes(camera_size, 0xFF));
    for (const Word& word : record_words) {
        EXPECT_EQ(camera.*word.camera, -1) << word.name;
    }
    EXPECT_EQ(camera.cs_info.color_style, -1);
    EXPECT_EQ(camera.cs_info.cs_color[12].cs_color_b, -1);
    EXPECT_EQ(camera.cs_info.cs_hue[13], -1);
    EXPECT_EQ(camera.reserved_636[5], -1);
}

TEST_F(Records, ColourTriplesStartAtStyle1AndTheOtherSettingsAtStyle0) {
    sm_cs_info styles{};
    const auto at = [&](const int32_t& field) {
        return 152 + (reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&styles));
    };
    EXPECT_EQ(at(styles.cs_color[0].cs_color_r), 160); // style 1
    EXPECT_EQ(at(styles.cs_saturation[0]), 316);       // style 0
    EXPECT_EQ(at(styles.cs_sharpness[0]), 372);
    EXPECT_EQ(at(styles.cs_contrast[0]), 428);
    EXPECT_EQ(at(styles.cs_hue[0]), 484);
    // C1 is style 10
    EXPECT_EQ(at(styles.cs_color[9].cs_color_r), 268);
    EXPECT_EQ(at(styles.cs_color[9].cs_color_g), 272);
    EXPECT_EQ(at(styles.cs_color[9].cs_color_b), 276);
    EXPECT_EQ(at(styles.cs_saturation[10]), 356);
    EXPECT_EQ(at(styles.cs_sharpness[10]), 412);
    EXPECT_EQ(at(styles.cs_contrast[10]), 468);
    EXPECT_EQ(at(styles.cs_hue[10]), 524);
    EXPECT_EQ(at(styles.cs_color[10].cs_color_r), 280); // C2
    EXPECT_EQ(at(styles.cs_color[11].cs_color_r), 292); // C3
    // C4 is style 13
    EXPECT_EQ(at(styles.cs_color[12].cs_color_r), 304);
    EXPECT_EQ(at(styles.cs_color[12].cs_color_g), 308);
    EXPECT_EQ(at(styles.cs_color[12].cs_color_b), 312);
    EXPECT_EQ(at(styles.cs_saturation[13]), 368);
    EXPECT_EQ(at(styles.cs_sharpness[13]), 424);
    EXPECT_EQ(at(styles.cs_contrast[13]), 480);
    EXPECT_EQ(at(styles.cs_hue[13]), 536);
}

TEST_F(Records, TheOriginCodeIsReadDigitByDigit) {
    EXPECT_EQ(SM_MADE_KIND, 0x00F);
    EXPECT_EQ(SM_MADE_FAMILY, 0x0F0);
    EXPECT_EQ(SM_MADE_MAKER, 0xF00);
    EXPECT_EQ(SM_MADE_KIND_C4, 4);
    EXPECT_EQ(SM_MADE_FAMILY_KT, 0x40);
    EXPECT_EQ(SM_MADE_MAKER_KORVEL, 0x100);
    EXPECT_EQ(SM_MADE_LESS_KIND, 0xFFF0);
}

// ---- Bytes that the conversions carry -------------------------------------------------------------------------------
TEST_F(Records, ATitleWithoutANulIsCarriedUnchangedToThePhone) {
    EXPECT_EQ(slice(converted_to_phone(camera_full_of_bytes()), 0, 52), Bytes(52, 'T'));
}

TEST_F(Records, ATitleWithoutANulIsCarriedUnchangedToTheCamera) {
    EXPECT_EQ(slice(converted_to_camera(phone_full_of_bytes()), 0, 52), Bytes(52, 'T'));
}

TEST_F(Records, BytesBehindTheNulOfATitleAreCarriedToo) {
    tag_custom_info camera = preset(1);
    std::memcpy(camera.title, "Dusk\0left over", 15);
    const Bytes title = slice(image(camera), 0, 52);
    EXPECT_EQ(slice(converted_to_phone(camera), 0, 52), title);
    EXPECT_EQ(slice(converted_to_camera(record_of<sm_tag_custom_info>(image(camera) + words({0}))), 0, 52), title);
}

TEST_F(Records, LogLinesStopAtTheEndOfATitleWithoutANul) {
    // The mode behind the title reads as text as well: a reader that runs on shows it.
    tag_custom_info camera{};
    std::memset(camera.title, 'T', sizeof camera.title);
    camera.mode = 0x21212121; // "!!!!"
    (void)converted_to_phone(camera);
    sm_tag_custom_info phone{};
    std::memset(phone.title, 'T', sizeof phone.title);
    phone.mode = 0x21212121;
    (void)converted_to_camera(phone);
    int lines_with_title = 0;
    for (const std::string& line : host.log()) {
        if (line.find("title : ") != std::string::npos) {
            ++lines_with_title;
            EXPECT_NE(line.find("title : " + std::string(52, 'T') + " "), std::string::npos) << line;
            EXPECT_EQ(count_of(line, 'T'), 52) << line;
        }
    }
    EXPECT_EQ(lines_with_title, 4);
}

TEST_F(Records, ReservedWordsAndScreennailPathSurviveTheWayToThePhone) {
    const tag_custom_info camera = camera_full_of_bytes();
    const Bytes phone = converted_to_phone(camera);
    EXPECT_EQ(slice(phone, 636, 24), slice(image(camera), 636, 24));
    EXPECT_EQ(slice(phone, 688, 52), Bytes(52, 'P'));
}

TEST_F(Records, ReservedWordsAndScreennailPathSurviveTheWayToTheCamera) {
    const sm_tag_custom_info phone = phone_full_of_bytes();
    const Bytes camera = converted_to_camera(phone);
    EXPECT_EQ(slice(camera, 636, 24), slice(image(phone), 636, 24));
    EXPECT_EQ(slice(camera, 688, 52), Bytes(52, 'P'));
}

TEST_F(Records, AConversionLeavesTheLinkedCustomModeAsTheCallersBufferHeldIt) {
    const tag_custom_info camera = camera_full_of_bytes();
    for (const int32_t held : {0, 2, -1, 0x12345678}) {
        sm_tag_custom_info phone{};
        phone.linked_custom_mode = held;
        ADE_PRO_CreateProFilm(&camera, &phone);
        EXPECT_EQ(phone.linked_custom_mode, held);
    }
}

TEST_F(Records, APresetListSetsTheLinkedCustomModeOfEveryRecord) {
    host.presets = {preset(1, 0), preset(2, 1), preset(3, 2)};
    host.linked[0] = 2;
    host.linked[1] = 0;
    ASSERT_EQ(host.receive(list_request()), 1);
    const Bytes reply = host.replies.back().bytes;
    ASSERT_EQ(reply.size(), 28 + 3 * phone_size);
    EXPECT_EQ(word_at(reply, 28 + camera_size), 2);
    EXPECT_EQ(word_at(reply, 28 + phone_size + camera_size), 0);
    EXPECT_EQ(word_at(reply, 28 + 2 * phone_size + camera_size), 1);
    host.settle();
}

TEST_F(Records, TheListAfterADeletionSetsTheLinkedCustomModeOfEveryRecord) {
    host.presets = {preset(1, 0), preset(2, 1), preset(3, 2)};
    host.deletes = false;
    host.linked[0] = 1;
    ASSERT_EQ(host.receive(delete_request({{2, 3}})), 1);
    const Bytes reply = host.replies.back().bytes;
    ASSERT_EQ(reply.size(), 20 + 3 * phone_size);
    EXPECT_EQ(word_at(reply, 20 + camera_size), 0);
    EXPECT_EQ(word_at(reply, 20 + phone_size + camera_size), 1);
    EXPECT_EQ(word_at(reply, 20 + 2 * phone_size + camera_size), 0);
    host.settle();
}

TEST_F(Records, HighBitsOfAnOriginCodeAreCarriedToThePhone) {
    tag_custom_info camera = preset(1);
    for (const uint32_t origin : {0x1144u, 0x7FFF0044u, 0x80000144u, 0xFFFFFFFFu}) {
        camera.made_id = static_cast<int32_t>(origin);
        EXPECT_EQ(word_at(converted_to_phone(camera), 684), static_cast<int32_t>(origin));
    }
}

TEST_F(Records, HighBitsOfAnOriginCodeAreCarriedToTheCameraUnlessAKorvelSmartFilterClearsThem) {
    struct Row {
        uint32_t phone;
        int32_t smart_filter;
        uint32_t camera;
    };
    const Row rows[] = {
        {0x7FFF2144, 0, 0x7FFF2144}, // korvel without a smart filter
        {0x80010044, 3, 0x80010044}, // another maker with one
        {0xFFFF0124, 3, 0xFFFF0124}, // korvel, but of another family
        {0x7FFF2144, 3, 0x00002140}, // bit 15 is the highest that stays
        {0xFFFFF14F, 3, 0x0000F140},
    };
    for (const Row& row : rows) {
        sm_tag_custom_info phone{};
        phone.made_id = static_cast<int32_t>(row.phone);
        phone.smart_filter = row.smart_filter;
        EXPECT_EQ(word_at(converted_to_camera(phone), 684), static_cast<int32_t>(row.camera)) << std::hex << row.phone;
    }
}

// ---- Numbers that need more than 16 bits ----------------------------------------------------------------------------

// Sets the words that name a preset.
template<class Record>
Record with_large_identities(Record record) {
    std::memset(record.title, 0, sizeof record.title);
    record.title[0] = 'T';
    record.preset_num = 0x11111111;
    record.custom_id = -0x12345678;
    record.applocal_id = 0x7654321;
    record.server_id = -0x7654321;
    record.made_id = 0x12340044;
    return record;
}

// Of a line that names a preset by all of its words: by hand, in decimal.
const std::string large_identities =
    "PLAIN ALG_SM title : T preset_num : 286331153 custom_id : -305419896 applocal_id : 124076833 "
    "server_id : -124076833 made_id : 305397828";

TEST_F(Records, LogLinesShowLargeIdentitiesWholeOnTheWayToThePhone) {
    (void)converted_to_phone(with_large_identities(tag_custom_info{}));
    EXPECT_EQ(host.log()[0], "PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : T custom_id : -305419896 "
                             "server_id : -124076833");
    EXPECT_EQ(host.log()[1], large_identities);
}

TEST_F(Records, LogLinesShowLargeIdentitiesWholeOnTheWayToTheCamera) {
    (void)converted_to_camera(with_large_identities(sm_tag_custom_info{}));
    EXPECT_EQ(host.log()[0], "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : T custom_id : -305419896 "
                             "server_id : -124076833");
    EXPECT_EQ(host.log()[1], large_identities);
}

TEST_F(Records, LogLinesShowTheHighBitsOfAnOriginCodeInBothDirections) {
    (void)converted_to_phone(with_large_identities(tag_custom_info{}));
    (void)converted_to_camera(with_large_identities(sm_tag_custom_info{}));
    Transcript origins = host.log();
    std::erase_if(origins, [](const std::string& line) { return line.find("made_id") == std::string::npos; });
    EXPECT_EQ(origins,
              (Transcript{large_identities, "CYAN ALG_SM *made_id :(0x12340044)", large_identities,
                          "YELLOW ALG_SM *curSysInfo->made_id* : 0x12340044 ", "CYAN ALG_SM *made_id :(0x12340044)"}));
}

} // namespace
