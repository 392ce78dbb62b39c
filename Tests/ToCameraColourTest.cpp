// How white balance and colours change on the way to the camera, and what a preset's origin decides.
#include <climits>
#include <map>

#include "ToCamera.h"

namespace {

// ---- White balance --------------------------------------------------------------------------------------------------
TEST_F(ToCamera, APresetMadeElsewhereThatNamesAColourTemperatureGetsTheKelvinType) {
    sm_tag_custom_info phone = plain_phone();
    phone.made_id = 0x20;
    phone.type = 3;
    phone.k_value = 5500;
    const tag_custom_info camera = converted(phone);
    EXPECT_EQ(camera.type, 10);
    EXPECT_EQ(camera.k_value, 5500);
    EXPECT_EQ(camera.cs_info.color_style, 13);
    EXPECT_EQ(camera.cs_info.cs_color_off_color, -1);
}

TEST_F(ToCamera, APresetMadeElsewhereWithoutAColourTemperatureKeepsItsType) {
    sm_tag_custom_info phone = plain_phone();
    phone.made_id = 0x20;
    phone.type = 3;
    phone.k_value = 0;
    const tag_custom_info camera = converted(phone);
    EXPECT_EQ(camera.type, 3);
    EXPECT_EQ(camera.cs_info.color_style, 13);
    EXPECT_EQ(camera.cs_info.cs_color_off_color, -1);
}

TEST_F(ToCamera, APresetOfTheKtFamilyKeepsItsTypeWhateverItsColourTemperature) {
    for (const int32_t made_id : {0x40, 0x44, 0x144, 0xF4F, 0x7FFF0040}) {
        sm_tag_custom_info phone = plain_phone();
        phone.made_id = made_id;
        phone.type = 3;
        phone.k_value = 5500;
        EXPECT_EQ(converted(phone).type, 3) << std::hex << made_id;
    }
}

TEST_F(ToCamera, AnyColourTemperatureBut0Counts) {
    for (const int32_t k_value : {1, -1, INT_MIN, INT_MAX}) {
        sm_tag_custom_info phone = plain_phone();
        phone.made_id = 0xC0; // another family, although it shares a bit
        phone.k_value = k_value;
        EXPECT_EQ(converted(phone).type, 10) << k_value;
    }
}

// ---- Colours --------------------------------------------------------------------------------------------------------
TEST_F(ToCamera, ColoursAreScaledFrom256To200) {
    const std::map<int, int> expected = {{-1000, 0}, {-5, 0},    {-1, 0},    {0, 0},     {1, 0},
                                         {2, 1},     {3, 2},     {64, 50},   {127, 99},  {128, 100},
                                         {254, 198}, {255, 199}, {256, 200}, {257, 200}, {300, 200}};
    for (const auto& [phone, camera] : expected) {
        EXPECT_EQ(converted_colour(phone), camera) << phone;
    }
}

TEST_F(ToCamera, All39ColourWordsAreScaledTheLastOneToo) {
    sm_tag_custom_info phone = plain_phone();
    for (int32_t* const word : colour_words(phone)) {
        *word = 128;
    }
    const Bytes camera = image(converted(phone));
    for (size_t offset = 160; offset <= 312; offset += 4) {
        EXPECT_EQ(word_at(camera, offset), 100) << offset;
    }
}

TEST_F(ToCamera, NeighboursOfTheColoursAreNotScaled) {
    sm_tag_custom_info phone = plain_phone();
    phone.cs_info.color_style = 128;
    phone.cs_info.cs_color_off_color = 128;
    for (size_t style = 0; style < 14; ++style) {
        phone.cs_info.cs_saturation[style] = 128;
        phone.cs_info.cs_sharpness[style] = 128;
        phone.cs_info.cs_contrast[style] = 128;
        phone.cs_info.cs_hue[style] = 128;
    }
    EXPECT_EQ(image(converted(phone).cs_info), image(phone.cs_info));
}

TEST_F(ToCamera, HugeColoursWrapAroundAt32Bits) {
    const std::pair<int32_t, int32_t> rows[] = {
        {10737418, 200},  // times 200: 2147483600, the largest that fits
        {10737419, 0},    // times 200: negative
        {21474837, 0},    // times 200: 104
        {21474900, 49},   // times 200: 12704
        {-10737418, 0},   // times 200: -2147483600
        {-10737419, 200}, // times 200: 2147483496
        {INT_MAX, 0},     // times 200: -200
        {INT_MIN, 0},     // times 200: nothing is left
    };
    for (const auto& [phone, camera] : rows) {
        EXPECT_EQ(converted_colour(phone), camera) << phone;
    }
}

// ---- Origin ---------------------------------------------------------------------------------------------------------
struct Origin {
    uint32_t made_id;
    int32_t smart_filter;
    int32_t color_style;
    uint32_t expected_made_id;
    int32_t expected_color_style;
    int32_t expected_off_color; // 8 comes from the phone
    int32_t expected_custom04;
};

TEST_F(ToCamera, TheOriginDecidesOnColourStyleOriginCodeAndCustomStyleC4) {
    const Origin rows[] = {
        // made elsewhere: always style 13
        {0x20, 0, 5, 0x20, 13, -1, 0},
        {0x24, 0, 5, 0x24, 13, -1, 1},
        {0x25, 0, 5, 0x25, 13, -1, 0},
        {0x23, 0, 5, 0x23, 13, -1, 0},
        {0x2F, 0, 5, 0x2F, 13, -1, 0},
        {0x00, 0, 5, 0x00, 13, -1, 0},
        {0x04, 0, 5, 0x04, 13, -1, 1},
        {0x124, 2, 5, 0x124, 13, -1, 1}, // korvel and smart filter do not matter there
        {0x154, 2, 5, 0x154, 13, -1, 1},
        {0xF0004, 0, 5, 0xF0004, 13, -1, 1},
        {0xFFFFFFFF, 0, 5, 0xFFFFFFFF, 13, -1, 0},
        // of the KT family, by korvel, with a smart filter: the sub-kind goes, and every bit above bit 15
        {0x144, 2, 5, 0x140, 5, 8, 0},
        {0x144, 2, 13, 0x140, 13, 8, 0},
        {0x144, -1, 5, 0x140, 5, 8, 0},
        {0x14F, 2, 5, 0x140, 5, 8, 0},
        {0x10144, 2, 5, 0x140, 5, 8, 0},
        {0xFFFFF144, 2, 5, 0xF140, 5, 8, 0},
        // of the KT family, by korvel, without one: style 13
        {0x144, 0, 5, 0x144, 13, -1, 1},
        {0x140, 0, 5, 0x140, 13, -1, 0},
        {0x143, 0, 5, 0x143, 13, -1, 0},
        {0x145, 0, 5, 0x145, 13, -1, 0},
        {0x14F, 0, 5, 0x14F, 13, -1, 0},
        {0x10144, 0, 5, 0x10144, 13, -1, 1},
        // of the KT family, by another maker: nothing changes
        {0x44, 0, 5, 0x44, 5, 8, 0},
        {0x44, 0, 13, 0x44, 13, 8, 1},
        {0x44, 2, 13, 0x44, 13, 8, 1},
        {0x44, 0, 12, 0x44, 12, 8, 0},
        {0x43, 0, 13, 0x43, 13, 8, 0},
        {0x45, 0, 13, 0x45, 13, 8, 0},
        {0x244, 2, 5, 0x244, 5, 8, 0},
        {0x344, 0, 5, 0x344, 5, 8, 0}, // shares a bit with korvel
        {0xF0044, 0, 13, 0xF0044, 13, 8, 1},
    };
    for (const Origin& row : rows) {
        for (const int32_t state_before : {0, 1}) {
            pro_custom04_state = state_before;
            const tag_custom_info camera =
                converted_origin(static_cast<int32_t>(row.made_id), row.smart_filter, row.color_style);
            SCOPED_TRACE(testing::Message() << std::hex << row.made_id << " with smart filter " << row.smart_filter);
            EXPECT_EQ(camera.made_id, static_cast<int32_t>(row.expected_made_id));
            EXPECT_EQ(camera.cs_info.color_style, row.expected_color_style);
            EXPECT_EQ(camera.cs_info.cs_color_off_color, row.expected_off_color);
            EXPECT_EQ(camera.smart_filter, row.smart_filter);
            EXPECT_EQ(pro_custom04_state, row.expected_custom04);
            EXPECT_EQ(ADE_PRO_GetEnable_Custom04(), row.expected_custom04);
        }
    }
}

TEST_F(ToCamera, TheWhiteBalanceLooksAtThePhonesOriginCode) {
    // The camera's code loses its upper bits here; the family digit that counts is the phone's, which is the same.
    sm_tag_custom_info phone = plain_phone();
    phone.made_id = 0x10144;
    phone.smart_filter = 1;
    phone.type = 3;
    phone.k_value = 5500;
    const tag_custom_info camera = converted(phone);
    EXPECT_EQ(camera.made_id, 0x140);
    EXPECT_EQ(camera.type, 3);
}

TEST_F(ToCamera, LogsTheOriginOfAPresetMadeElsewhere) {
    (void)converted_origin(0x24);
    const Transcript log = host.log();
    EXPECT_EQ(log.at(2), "YELLOW ALG_SM *curSysInfo->made_id* : 0x24 ");
    EXPECT_EQ(log.at(3), "YELLOW ALG_SM no KT => curSysInfo->cs_info.color_style : 13 ");
    EXPECT_EQ(log.at(4), search_line(0));
}

TEST_F(ToCamera, LogsTheOriginOfAKorvelPresetWithASmartFilter) {
    (void)converted_origin(0x10144, 2);
    const Transcript log = host.log();
    EXPECT_EQ(log.at(2), "YELLOW ALG_SM *curSysInfo->made_id* : 0x10144 ");
    EXPECT_EQ(log.at(3), "YELLOW ALG_SM korvel&smartfilter => *curSysInfo->made_id* : 0x140 ");
    EXPECT_EQ(log.at(4), search_line(0));
    EXPECT_EQ(log.at(6), "CYAN ALG_SM *made_id :(0x140)") << "the trace shows the camera's";
}

TEST_F(ToCamera, LogsTheOriginOfAKorvelPresetWithoutASmartFilter) {
    (void)converted_origin(0x144);
    const Transcript log = host.log();
    EXPECT_EQ(log.at(2), "YELLOW ALG_SM *curSysInfo->made_id* : 0x144 ");
    EXPECT_EQ(log.at(3), "YELLOW ALG_SM korvel made => curSysInfo->cs_info.color_style : 13 ");
    EXPECT_EQ(log.at(4), search_line(0));
}

TEST_F(ToCamera, LogsTheOriginOfAnotherKtPresetAndNoMore) {
    (void)converted_origin(0x44);
    const Transcript log = host.log();
    EXPECT_EQ(log.at(2), "YELLOW ALG_SM *curSysInfo->made_id* : 0x44 ");
    EXPECT_EQ(log.at(3), search_line(0));
}

TEST_F(ToCamera, InitializingTakesTheModeAndClearsTheCustom04State) {
    set_conversion_state(1, 2, 0, 1);
    tag_custom_info camera = preset(1);
    camera.made_id = 0x45;
    camera.mode = 4;
    ADE_PRO_InitializeSysCustom(&camera);
    EXPECT_EQ(pro_film_mode, 4);
    EXPECT_EQ(pro_custom04_state, 0);
    EXPECT_EQ(gADE_PRO_model, 1);
    EXPECT_EQ(pro_sys_mode, 2);
    EXPECT_EQ(host.transcript, Transcript{"YELLOW ALG_SM *curSysInfo->made_id* : 0x45 "});
}

TEST_F(ToCamera, TheCustom04StateFollowsTheLastDigitOfTheOriginCode) {
    struct Row {
        int color_style;
        uint32_t made_id;
        int before;
        int after;
    };
    const Row rows[] = {
        {13, 0x140, 1, 0},      {13, 0x141, 1, 0}, {13, 0x142, 1, 0}, {13, 0x143, 1, 0},
        {13, 0xFFFFFFF3, 1, 0}, {12, 0x143, 1, 0}, {13, 0x144, 0, 1}, {13, 0x144, 1, 1},
        {13, 0xFFFFFFF4, 0, 1}, {12, 0x144, 0, 0}, {12, 0x144, 1, 1}, // stays
        {13, 0x145, 0, 0},      {13, 0x145, 1, 1}, {13, 0x14F, 1, 1}, {0, 0x14F, 1, 1},
        {13, 0x14C, 0, 0}, // shares a bit with 4
    };
    for (const Row& row : rows) {
        pro_custom04_state = row.before;
        ADE_PRO_SetCustom04State(row.color_style, static_cast<int>(row.made_id));
        EXPECT_EQ(pro_custom04_state, row.after) << row.color_style << ' ' << std::hex << row.made_id;
    }
    EXPECT_EQ(host.transcript, Transcript{});
}

} // namespace
