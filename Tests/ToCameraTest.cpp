// How a phone's preset becomes a camera's: which fields are carried as they are, what the conversion writes to the log,
// which state it reads and leaves behind, and which exposure values a mode carries.
#include <climits>
#include <cstring>

#include "ToCamera.h"

namespace {

// ---- The whole conversion -------------------------------------------------------------------------------------------
// A record that holds a different value in every field, each exposure value one that the camera can set. It was made
// elsewhere and names a colour temperature, so origin and white balance change it.
sm_tag_custom_info phone_with_distinct_fields() {
    sm_tag_custom_info phone = numbered_record<sm_tag_custom_info>();
    phone.mode = 3;
    phone.av_index = 28; // code 48
    phone.tv_index = 22; // code 65483
    phone.iso = 1600;    // code 5
    phone.iso_1_3 = 13;  // code 11
    phone.ev_step = 34;  // code 10
    phone.made_id = 0x624;
    int32_t colour = 5;
    for (int32_t* const word : colour_words(phone)) {
        *word = colour;
        colour += 6; // up to 233
    }
    return phone;
}

TEST_F(ToCamera, WritesBothRecordsToTheLogLineByLine) {
    (void)converted(phone_with_distinct_fields());
    const Transcript expected = {
        "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : Harbour custom_id : 1672 server_id : 1680",
        "PLAIN ALG_SM title : Harbour preset_num : 1668 custom_id : 1672 applocal_id : 1676 "
        "server_id : 1680 made_id : 1572",
        "YELLOW ALG_SM *curSysInfo->made_id* : 0x624 ",
        "YELLOW ALG_SM no KT => curSysInfo->cs_info.color_style : 13 ",
        "PLAIN ALG_SM (AV)search_val:(19)",
        "GREEN ALG_SM *ShotMentor*\t  ADE_PRO_CreateSysCustom ",
        "CYAN ALG_SM *made_id :(0x624)",
        "PLAIN ALG_SM mode :(3)\t =>(3)",
        "PLAIN ALG_SM av_index :(28)\t =>(0x30)",
        "PLAIN ALG_SM tv_index :(22)\t =>(0xffcb)",
        "PLAIN ALG_SM iso :(1600)\t =>(5)",
        "PLAIN ALG_SM iso_1_3 :(13)\t =>(11)",
        "PLAIN ALG_SM ev_step :(34)\t =>(10)",
        "PLAIN ALG_SM metering :(1076)\t =>(1076)",
        "PLAIN ALG_SM drive :(1080)\t =>(1080)",
        "PLAIN ALG_SM hdr :(1084)\t =>(1084)",
        "PLAIN ALG_SM drive :(1080)\t =>(1080)",
        "PLAIN ALG_SM hdr :(1084)\t =>(1084)",
        "PLAIN ALG_SM type:(1088)", // the phone's; the camera's is 10
        "PLAIN ALG_SM k_value:(1092)",
        "PLAIN ALG_SM cwb_red:(1096)",
        "PLAIN ALG_SM cwb_green:(1100)",
        "PLAIN ALG_SM cwb_blue:(1104)",
        "PLAIN ALG_SM auto_xy:(1108)",
        "PLAIN ALG_SM auto_tungsten_xy:(1112)",
        "PLAIN ALG_SM daylight_xy:(1116)",
        "PLAIN ALG_SM cloudy_xy:(1120)",
        "PLAIN ALG_SM flu_w_xy:(1124)",
        "PLAIN ALG_SM flu_n_xy:(1128)",
        "PLAIN ALG_SM flu_d_xy:(1132)",
        "PLAIN ALG_SM tungsten_xy:(1136)",
        "PLAIN ALG_SM flash_xy:(1140)",
        "PLAIN ALG_SM cwb_xy:(1144)",
        "PLAIN ALG_SM k_xy:(1148)",
        "PLAIN ALG_SM color_style :(13)", // the camera's; the phone's is 1152
        "PLAIN ALG_SM (off_color)cs_color_off_color :(-1)",
        "PLAIN ALG_SM (C1)cs_color_r :(167)\t => (130)",
        "PLAIN ALG_SM (C1)cs_color_g :(173)\t => (135)",
        "PLAIN ALG_SM (C1)cs_color_b :(179)\t => (139)",
        "PLAIN ALG_SM (C1)cs_saturation :(1356)",
        "PLAIN ALG_SM (C1)cs_sharpness :(1412)",
        "PLAIN ALG_SM (C1)cs_contrast :(1468)",
        "PLAIN ALG_SM (C1)cs_hue :(1524)",
        "PLAIN ALG_SM (C4)cs_color_r :(221)\t => (172)",
        "PLAIN ALG_SM (C4)cs_color_g :(227)\t => (177)",
        "PLAIN ALG_SM (C4)cs_color_b :(233)\t => (182)",
        "PLAIN ALG_SM (C4)cs_saturation :(1368)",
        "PLAIN ALG_SM (C4)cs_sharpness :(1424)",
        "PLAIN ALG_SM (C4)cs_contrast :(1480)",
        "PLAIN ALG_SM (C4)cs_hue :(1536)",
        "PLAIN ALG_SM smart_filter :(1540)\t =>(1540)",
        "PLAIN ALG_SM flash :(1544)\t =>(1544)",
        "PLAIN ALG_SM flash_ev :(1548)\t =>(1548)",
        "PLAIN ALG_SM af_mode :(1552)\t =>(1552)",
        "PLAIN ALG_SM af_area :(1556)\t =>(1556)",
        "PLAIN ALG_SM photosize :(1560)\t =>(1560)",
        "PLAIN ALG_SM touch_af :(1564)\t =>(1564)",
        "PLAIN ALG_SM selection_af_pos_x :(1568)\t =>(1568)",
        "PLAIN ALG_SM selection_af_pos_y :(1572)\t =>(1572)",
        "PLAIN ALG_SM selection_af_width :(1576)\t =>(1576)",
        "PLAIN ALG_SM selection_af_height :(1580)\t =>(1580)",
        "PLAIN ALG_SM selection_af_box_size :(1584)\t =>(1584)",
        "PLAIN ALG_SM multi_af_pos_x :(-)\t =>(1588)",
        "PLAIN ALG_SM multi_af_pos_y :(-)\t =>(1592)",
        "PLAIN ALG_SM multi_af_width :(-)\t =>(1596)",
        "PLAIN ALG_SM multi_af_height :(-)\t =>(1600)",
        "PLAIN ALG_SM multi_af_box_size :(-)\t =>(1604)",
        "PLAIN ALG_SM timer_time :(1608)\t =>(1608)",
        "PLAIN ALG_SM timer_count :(1612)\t =>(1612)",
        "PLAIN ALG_SM timer_interval :(1616)\t =>(1616)",
        "PLAIN ALG_SM counti_h_frame :(1620)\t =>(1620)",
        "PLAIN ALG_SM counti_n_frame :(1624)\t =>(1624)",
        "PLAIN ALG_SM burst_frame :(1628)\t =>(1628)",
        "PLAIN ALG_SM drive_set_conti :(1632)\t =>(1632)",
        "PLAIN ALG_SM quality :(1660)\t =>(1660)",
        "PLAIN ALG_SM bulb :(1664)\t =>(1664)",
    };
    EXPECT_EQ(expected.size(), 5u + 71u);
    EXPECT_EQ(host.transcript, expected);
}

TEST_F(ToCamera, ApproximatesBeforeTheTraceInTheOrderApertureShutterSensitivityCompensation) {
    sm_tag_custom_info phone = plain_phone();
    phone.av_index = 41; // position 32 of both aperture scales, next to 31
    phone.tv_index = 86; // next to 85
    phone.iso = 125;     // no code; handed on as a position, which is far outside
    phone.iso_1_3 = 2;   // next to 3, two away from 0
    phone.ev_step = 52;  // next to 53, two away from 50
    const tag_custom_info camera = converted(phone);
    Transcript log = host.log();
    ASSERT_EQ(log.size(), 15u + 71u);
    log.resize(18);
    const Transcript expected = {
        "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : Plain custom_id : 1 server_id : 0",
        "PLAIN ALG_SM title : Plain preset_num : 0 custom_id : 1 applocal_id : 0 server_id : 0 made_id : 68",
        "YELLOW ALG_SM *curSysInfo->made_id* : 0x44 ",
        "PLAIN ALG_SM (AV)search_val:(32)",
        "YELLOW ALG_SM (AV_LUT)arr_size :(151)",
        "CYAN ALG_SM approx_av :(31)",
        "CYAN ALG_SM convertedIndex :(40)",
        "CYAN ALG_SM [TV]convertedIndex::(85)",
        "CYAN ALG_SM Converted SV :(0)",
        "CYAN ALG_SM TotalSize:31",
        "CYAN ALG_SM rstartpt(1)rstep:1\t result:3",
        "CYAN ALG_SM Converted SV :(3)",
        "CYAN ALG_SM TotalSize:101",
        "CYAN ALG_SM rstartpt(1)rstep:1\t result:53",
        "CYAN ALG_SM Converted EV :(53)",
        "GREEN ALG_SM *ShotMentor*\t  ADE_PRO_CreateSysCustom ",
        "CYAN ALG_SM *made_id :(0x44)",
        "PLAIN ALG_SM mode :(4)\t =>(4)",
    };
    EXPECT_EQ(log, expected);
    EXPECT_EQ(camera.av_index, 64);
    EXPECT_EQ(camera.tv_index, 117);
    EXPECT_EQ(camera.iso, 0);
    EXPECT_EQ(camera.iso_1_3, 1);
    EXPECT_EQ(camera.ev_step, 16);
}

TEST_F(ToCamera, LogsFromTheConvertersSourceFile) {
    (void)converted(phone_with_distinct_fields());
    ASSERT_EQ(host.lines.size(), 76u);
    for (const LogLine& line : host.lines) {
        EXPECT_EQ(line.file.substr(0, line.file.rfind('.')), "ADE_ShotMentor_Converter") << line.text;
    }
}

TEST_F(ToCamera, CarriesEveryFieldThatItDoesNotConvert) {
    const sm_tag_custom_info phone = phone_with_distinct_fields();
    tag_custom_info expected;
    std::memcpy(&expected, &phone, sizeof expected);
    expected.av_index = 48;
    expected.tv_index = 65483;
    expected.iso = 5;
    expected.iso_1_3 = 11;
    expected.ev_step = 10;
    expected.type = 10;
    expected.cs_info.color_style = 13;
    expected.cs_info.cs_color_off_color = -1;
    const int32_t colours[] = {3,   8,   13,  17,  22,  27,  32,  36,  41,  46,  50,  55,  60,
                               64,  69,  74,  78,  83,  88,  92,  97,  102, 107, 111, 116, 121,
                               125, 130, 135, 139, 144, 149, 153, 158, 163, 167, 172, 177, 182};
    const int32_t* colour = colours;
    for (int32_t* const word : colour_words(expected)) {
        *word = *colour++;
    }
    EXPECT_EQ(colour, std::end(colours));
    EXPECT_EQ(image(converted(phone)), image(expected));
}

TEST_F(ToCamera, LeavesThePhoneRecordAsItWas) {
    const sm_tag_custom_info phone = phone_with_distinct_fields();
    const Bytes before = image(phone);
    (void)converted(phone);
    EXPECT_EQ(image(phone), before);
}

TEST_F(ToCamera, AsksNoService) {
    (void)converted(phone_with_distinct_fields());
    EXPECT_EQ(host.calls(), Transcript{});
}

// ---- The copy that it starts with -----------------------------------------------------------------------------------
TEST_F(ToCamera, TheCopyTakes740BytesAsTheyAreAndDropsTheLinkedCustomMode) {
    struct {
        tag_custom_info camera;
        Bytes::value_type behind[4];
    } memory;
    std::memset(&memory, 0xA5, sizeof memory);
    const sm_tag_custom_info phone = phone_with_distinct_fields();
    EXPECT_EQ(ADE_ShotMentor_Conv2SysCustomStruct(&phone, &memory.camera), 1);
    EXPECT_EQ(image(memory), slice(image(phone), 0, 740) + Bytes(4, 0xA5));
}

TEST_F(ToCamera, TheCopyLogsTwoLinesTheFirstUnderTheManagersTag) {
    sm_tag_custom_info phone = plain_phone();
    phone.preset_num = 7;
    phone.custom_id = -31;
    phone.applocal_id = 55;
    phone.server_id = 90210;
    phone.made_id = 0x144;
    tag_custom_info camera{};
    ADE_ShotMentor_Conv2SysCustomStruct(&phone, &camera);
    EXPECT_EQ(
        host.transcript,
        (Transcript{
            "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : Plain custom_id : -31 server_id : 90210",
            "PLAIN ALG_SM title : Plain preset_num : 7 custom_id : -31 applocal_id : 55 "
            "server_id : 90210 made_id : 324",
        }));
}

TEST_F(ToCamera, TheCopyChangesNoState) {
    set_conversion_state(7, 3, 5, 1);
    const sm_tag_custom_info phone = plain_phone();
    tag_custom_info camera{};
    ADE_ShotMentor_Conv2SysCustomStruct(&phone, &camera);
    EXPECT_EQ(gADE_PRO_model, 7);
    EXPECT_EQ(pro_sys_mode, 3);
    EXPECT_EQ(pro_film_mode, 5);
    EXPECT_EQ(pro_custom04_state, 1);
}

// ---- State ----------------------------------------------------------------------------------------------------------
TEST_F(ToCamera, LeavesModel2AndThePresetsModeBehindAndTheSystemModeAlone) {
    set_conversion_state(0, 4, 1, 1);
    (void)converted_in_mode(3, 0, 58);
    EXPECT_EQ(gADE_PRO_model, 2);
    EXPECT_EQ(pro_film_mode, 3);
    EXPECT_EQ(pro_sys_mode, 4);
    EXPECT_EQ(pro_custom04_state, 0);
}

TEST_F(ToCamera, TakesAnyModeAsThePhoneNamesIt) {
    for (const int32_t mode : {0, 1, 2, 3, 4, 5, 6, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(converted_in_mode(mode, 0, 58).mode, mode);
        EXPECT_EQ(pro_film_mode, mode);
    }
}

TEST_F(ToCamera, ConvertsForModel2WhateverModelWasSet) {
    for (const int model : {0, 1, 2, 3, -1}) {
        gADE_PRO_model = model;
        EXPECT_EQ(converted_in_mode(4, 13, 0).av_index, 11) << model; // f/1.3 to f/1.2, position 4 to 3
        EXPECT_EQ(gADE_PRO_model, 2);
    }
}

// ---- Modes ----------------------------------------------------------------------------------------------------------
TEST_F(ToCamera, Mode1CarriesNeitherApertureNorShutterTimeAndLogsNoSearch) {
    const tag_custom_info camera = converted_in_mode(1, 28, 73);
    EXPECT_EQ(camera.av_index, 0);
    EXPECT_EQ(camera.tv_index, 0);
    for (const std::string& line : host.log()) {
        EXPECT_EQ(line.find("search_val"), std::string::npos) << line;
    }
}

TEST_F(ToCamera, Mode2CarriesTheApertureAlone) {
    const tag_custom_info camera = converted_in_mode(2, 28, 73);
    EXPECT_EQ(camera.av_index, 48);
    EXPECT_EQ(camera.tv_index, 0);
}

TEST_F(ToCamera, OtherModesCarryApertureAndShutterTime) {
    for (const int32_t mode : {0, 3, 4, 5, -1}) {
        const tag_custom_info camera = converted_in_mode(mode, 28, 73);
        EXPECT_EQ(camera.av_index, 48) << mode;
        EXPECT_EQ(camera.tv_index, 53) << mode;
    }
}

TEST_F(ToCamera, SystemMode3LeftOverFromAConversionToThePhoneSuppressesTheApertureInEveryMode) {
    tag_custom_info earlier = preset(1);
    earlier.mode = 3;
    sm_tag_custom_info phone{};
    ADE_PRO_CreateProFilm(&earlier, &phone);
    for (const int32_t mode : {0, 1, 2, 3, 4}) {
        host.forget();
        EXPECT_EQ(converted_in_mode(mode, 28, 73).av_index, 0) << mode;
        EXPECT_EQ(pro_sys_mode, 3);
        for (const std::string& line : host.log()) {
            EXPECT_EQ(line.find("search_val"), std::string::npos) << line;
        }
    }
    EXPECT_EQ(converted_in_mode(4, 28, 73).tv_index, 53) << "the shutter time does not depend on it";
}

TEST_F(ToCamera, AnotherSystemModeLeftOverDoesNotMatter) {
    for (const int sys_mode : {0, 1, 2, 4, 5, -1}) {
        pro_sys_mode = sys_mode;
        EXPECT_EQ(converted_in_mode(2, 28, 73).av_index, 48) << sys_mode;
    }
}

TEST_F(ToCamera, SensitivityIsCarriedInEveryMode) {
    sm_tag_custom_info phone = plain_phone();
    phone.iso = 100;
    phone.iso_1_3 = 4;
    for (int32_t mode = -1; mode <= 6; ++mode) {
        phone.mode = mode;
        const tag_custom_info camera = converted(phone);
        EXPECT_EQ(camera.iso, 1) << mode;
        EXPECT_EQ(camera.iso_1_3, 2) << mode;
    }
}

} // namespace
