// How a camera's preset becomes a phone's: which fields are carried as they are, how mode, exposure values and colours
// are converted, what the conversion writes to the log and which state it leaves behind.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <map>

#include "Conversion.h"

namespace {

class ToPhone : public testing::Test {
  protected:
    void SetUp() override { set_conversion_state(2, 0, 0, 0); }
    void TearDown() override { set_conversion_state(0, 0, 0, 0); }

    static sm_tag_custom_info converted(const tag_custom_info& camera) {
        sm_tag_custom_info phone{};
        ADE_PRO_CreateProFilm(&camera, &phone);
        return phone;
    }

    static sm_tag_custom_info converted_in_mode(int32_t mode, int32_t av_index = 53, int32_t tv_index = 53,
                                                int32_t ev_step = 15) {
        tag_custom_info camera = preset(1);
        camera.mode = mode;
        camera.av_index = av_index;
        camera.tv_index = tv_index;
        camera.ev_step = ev_step;
        return converted(camera);
    }

    static int32_t converted_colour(int32_t camera_value) {
        tag_custom_info camera = preset(1);
        camera.cs_info.cs_color[4].cs_color_g = camera_value;
        return converted(camera).cs_info.cs_color[4].cs_color_g;
    }

    FakeHost host;
};

// ---- The whole conversion -------------------------------------------------------------------------------------------
// A record that holds a different value in every field, each exposure value one that the camera can set.
tag_custom_info camera_with_distinct_fields() {
    tag_custom_info camera = numbered_record<tag_custom_info>();
    camera.mode = 5;
    camera.av_index = 53;    // position 23, f/3.2
    camera.tv_index = 65483; // position 22
    camera.iso = 4;          // position 12, ISO 800
    camera.iso_1_3 = 11;     // position 13, ISO 1000
    camera.ev_step = 22;
    int32_t colour = 4;
    for (int32_t* const word : colour_words(camera)) {
        *word = colour;
        colour += 5; // up to 194
    }
    return camera;
}

TEST_F(ToPhone, WritesBothRecordsToTheLogLineByLine) {
    (void)converted(camera_with_distinct_fields());
    const Transcript expected = {
        "PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : Harbour custom_id : 1672 server_id : 1680",
        "PLAIN ALG_SM title : Harbour preset_num : 1668 custom_id : 1672 applocal_id : 1676 "
        "server_id : 1680 made_id : 1684",
        "User_Spec_Get_Value(272)",
        "YELLOW ALG_SM *IsoStep-state* : 0 ",
        "YELLOW ALG_SM *ShotMentor*\t  ADE_PRO_CreateProFilm ",
        "CYAN ALG_SM *made_id :(0x694)",
        "PLAIN ALG_SM mode :(5)\t =>(4)",
        "PLAIN ALG_SM av_index :(0x35)\t =>(32)",
        "PLAIN ALG_SM tv_index :(0xffcb)\t =>(22)",
        "PLAIN ALG_SM iso :(4)\t =>(800)",
        "PLAIN ALG_SM iso_1_3 :(11)\t =>(1000)",
        "PLAIN ALG_SM ev_step :(22)\t =>(15)",
        "PLAIN ALG_SM metering :(1076)\t =>(1076)",
        "PLAIN ALG_SM drive :(1080)\t =>(1080)",
        "PLAIN ALG_SM hdr :(1084)\t =>(1084)",
        "PLAIN ALG_SM drive :(1080)\t =>(1080)",
        "PLAIN ALG_SM hdr :(1084)\t =>(1084)",
        "YELLOW ALG_SM type:(1088)",
        "YELLOW ALG_SM k_value:(1092)",
        "YELLOW ALG_SM cwb_red:(1096)",
        "YELLOW ALG_SM cwb_green:(1100)",
        "YELLOW ALG_SM cwb_blue:(1104)",
        "YELLOW ALG_SM auto_xy:(1108)",
        "YELLOW ALG_SM auto_tungsten_xy:(1112)",
        "YELLOW ALG_SM daylight_xy:(1116)",
        "YELLOW ALG_SM cloudy_xy:(1120)",
        "YELLOW ALG_SM flu_w_xy:(1124)",
        "YELLOW ALG_SM flu_n_xy:(1128)",
        "YELLOW ALG_SM flu_d_xy:(1132)",
        "YELLOW ALG_SM tungsten_xy:(1136)",
        "YELLOW ALG_SM flash_xy:(1140)",
        "YELLOW ALG_SM cwb_xy:(1144)",
        "YELLOW ALG_SM k_xy:(1148)",
        "CYAN ALG_SM color_style :(1152)",
        "CYAN ALG_SM (off_color)cs_color_off_color :(1156)",
        "YELLOW ALG_SM (C1)cs_color_r :(139)\t =>(178)",
        "YELLOW ALG_SM (C1)cs_color_g :(144)\t =>(185)",
        "YELLOW ALG_SM (C1)cs_color_b :(149)\t =>(191)",
        "YELLOW ALG_SM (C1)cs_saturation :(1356)",
        "YELLOW ALG_SM (C1)cs_sharpness :(1412)",
        "YELLOW ALG_SM (C1)cs_contrast :(1468)",
        "YELLOW ALG_SM (C1)cs_hue :(1524)",
        "CYAN ALG_SM (C4)cs_color_r :(184)\t =>(236)",
        "CYAN ALG_SM (C4)cs_color_g :(189)\t =>(243)",
        "CYAN ALG_SM (C4)cs_color_b :(194)\t =>(249)",
        "CYAN ALG_SM (C4)cs_saturation :(1368)",
        "CYAN ALG_SM (C4)cs_sharpness :(1424)",
        "CYAN ALG_SM (C4)cs_contrast :(1480)",
        "CYAN ALG_SM (C4)cs_hue :(1536)",
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
        "PLAIN ALG_SM multi_af_pos_x :(1588)\t =>(-)",
        "PLAIN ALG_SM multi_af_pos_y :(1592)\t =>(-)",
        "PLAIN ALG_SM multi_af_width :(1596)\t =>(-)",
        "PLAIN ALG_SM multi_af_height :(1600)\t =>(-)",
        "PLAIN ALG_SM multi_af_box_size :(1604)\t =>(-)",
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
    EXPECT_EQ(expected.size(), 4u + 71u);
    EXPECT_EQ(host.transcript, expected);
}

TEST_F(ToPhone, LogsFromTheConvertersSourceFile) {
    (void)converted(camera_with_distinct_fields());
    ASSERT_EQ(host.lines.size(), 74u);
    for (const LogLine& line : host.lines) {
        EXPECT_EQ(line.file.substr(0, line.file.rfind('.')), "ADE_ShotMentor_Converter") << line.text;
    }
}

TEST_F(ToPhone, LogsNegativeWordsSignedAndNegativeCodesAsHexadecimalPatterns) {
    tag_custom_info camera = preset(1);
    camera.av_index = -1;
    camera.tv_index = -96;
    camera.iso = -2;
    camera.made_id = INT_MIN;
    (void)converted(camera);
    const Transcript log = host.log();
    ASSERT_EQ(log.size(), 74u);
    EXPECT_EQ(log[4], "CYAN ALG_SM *made_id :(0x80000000)");
    EXPECT_EQ(log[6], "PLAIN ALG_SM av_index :(0xffffffff)\t =>(0)");
    EXPECT_EQ(log[7], "PLAIN ALG_SM tv_index :(0xffffffa0)\t =>(0)");
    EXPECT_EQ(log[8], "PLAIN ALG_SM iso :(-2)\t =>(0)");
}

TEST_F(ToPhone, CarriesEveryFieldThatItDoesNotConvert) {
    const tag_custom_info camera = camera_with_distinct_fields();
    sm_tag_custom_info expected{};
    std::memcpy(&expected, &camera, sizeof camera);
    expected.mode = 4;
    expected.av_index = 32;
    expected.tv_index = 22;
    expected.iso = 800;
    expected.iso_1_3 = 1000;
    expected.ev_step = 15;
    const int32_t colours[] = {5,   11,  18,  24,  30,  37,  43,  50,  56,  63,  69,  75,  82,
                               88,  95,  101, 108, 114, 120, 127, 133, 140, 146, 153, 159, 165,
                               172, 178, 185, 191, 198, 204, 210, 217, 223, 230, 236, 243, 249};
    const int32_t* colour = colours;
    for (int32_t* const word : colour_words(expected)) {
        *word = *colour++;
    }
    EXPECT_EQ(colour, std::end(colours));
    EXPECT_EQ(image(converted(camera)), image(expected));
}

TEST_F(ToPhone, LeavesTheCameraRecordAsItWas) {
    const tag_custom_info camera = camera_with_distinct_fields();
    const Bytes before = image(camera);
    (void)converted(camera);
    EXPECT_EQ(image(camera), before);
}

TEST_F(ToPhone, LeavesTheLastFourBytesOfThePhoneRecordAsTheCallerHeldThem) {
    const tag_custom_info camera = camera_with_distinct_fields();
    sm_tag_custom_info phone;
    std::memset(&phone, 0xA5, sizeof phone);
    ADE_PRO_CreateProFilm(&camera, &phone);
    EXPECT_EQ(slice(image(phone), 740, 4), Bytes(4, 0xA5));
}

TEST_F(ToPhone, OverwritesWhateverThePhoneRecordHeldBefore) {
    const tag_custom_info camera = camera_with_distinct_fields();
    sm_tag_custom_info phone;
    std::memset(&phone, 0xA5, sizeof phone);
    ADE_PRO_CreateProFilm(&camera, &phone);
    EXPECT_EQ(slice(image(phone), 0, 740), slice(image(converted(camera)), 0, 740));
}

TEST_F(ToPhone, AsksNoServiceButTheModelSpecification) {
    (void)converted(camera_with_distinct_fields());
    EXPECT_EQ(host.calls(), Transcript{"User_Spec_Get_Value(272)"});
}

// ---- The copy that it starts with -----------------------------------------------------------------------------------
TEST_F(ToPhone, TheCopyTakes740BytesAsTheyAre) {
    const tag_custom_info camera = camera_with_distinct_fields();
    sm_tag_custom_info phone;
    std::memset(&phone, 0xA5, sizeof phone);
    EXPECT_EQ(ADE_ShotMentor_Conv2ProFilmStruct(&camera, &phone), 1);
    EXPECT_EQ(image(phone), image(camera) + Bytes(4, 0xA5));
}

TEST_F(ToPhone, TheCopyLogsTwoLinesTheFirstUnderTheManagersTag) {
    tag_custom_info camera = preset(31, 7);
    camera.applocal_id = -5;
    camera.server_id = 90210;
    sm_tag_custom_info phone{};
    ADE_ShotMentor_Conv2ProFilmStruct(&camera, &phone);
    EXPECT_EQ(
        host.transcript,
        (Transcript{
            "PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : Preset 31 custom_id : 31 server_id : 90210",
            "PLAIN ALG_SM title : Preset 31 preset_num : 7 custom_id : 31 applocal_id : -5 "
            "server_id : 90210 made_id : 324",
        }));
}

TEST_F(ToPhone, TheCopyChangesNoState) {
    set_conversion_state(7, 3, 5, 1);
    const tag_custom_info camera = preset(1);
    sm_tag_custom_info phone{};
    ADE_ShotMentor_Conv2ProFilmStruct(&camera, &phone);
    EXPECT_EQ(gADE_PRO_model, 7);
    EXPECT_EQ(pro_sys_mode, 3);
    EXPECT_EQ(pro_film_mode, 5);
    EXPECT_EQ(pro_custom04_state, 1);
}

// ---- State ----------------------------------------------------------------------------------------------------------
TEST_F(ToPhone, LeavesModel2TheSystemModeAndAClearedCustom04StateBehind) {
    set_conversion_state(0, 1, 5, 1);
    (void)converted_in_mode(5);
    EXPECT_EQ(gADE_PRO_model, 2);
    EXPECT_EQ(pro_sys_mode, 4);
    EXPECT_EQ(pro_custom04_state, 0);
    EXPECT_EQ(pro_film_mode, 5) << "belongs to the other direction";
}

TEST_F(ToPhone, ConvertsAsModel2WhateverModelWasSet) {
    for (const int model : {0, 1, 2, 3, -1}) {
        gADE_PRO_model = model;
        const sm_tag_custom_info phone = converted_in_mode(4);
        EXPECT_EQ(phone.av_index, 32);
        EXPECT_EQ(phone.tv_index, 73);
        EXPECT_EQ(gADE_PRO_model, 2);
    }
}

TEST_F(ToPhone, InitializingTakesTheSystemModeFromTheRecordAndClearsTheCustom04State) {
    set_conversion_state(1, 0, 5, 1);
    tag_custom_info camera = preset(1);
    camera.mode = 3;
    ADE_PRO_InitializeProFilm(&camera);
    EXPECT_EQ(pro_sys_mode, 3);
    EXPECT_EQ(pro_custom04_state, 0);
    EXPECT_EQ(gADE_PRO_model, 1);
    EXPECT_EQ(pro_film_mode, 5);
    EXPECT_EQ(host.transcript, Transcript{});
}

TEST_F(ToPhone, EachConversionReplacesTheStateOfTheOneBefore) {
    (void)converted_in_mode(4);
    const sm_tag_custom_info phone = converted_in_mode(2);
    EXPECT_EQ(pro_sys_mode, 2);
    EXPECT_EQ(phone.tv_index, 0);
    EXPECT_EQ(phone.ev_step, 50);
}

// ---- Modes ----------------------------------------------------------------------------------------------------------
TEST_F(ToPhone, Modes0And1CarryNeitherApertureNorShutterTime) {
    for (const int32_t mode : {0, 1}) {
        const sm_tag_custom_info phone = converted_in_mode(mode, 53, 53, 16);
        EXPECT_EQ(phone.mode, mode);
        EXPECT_EQ(phone.av_index, 0);
        EXPECT_EQ(phone.tv_index, 0);
        EXPECT_EQ(phone.ev_step, 53);
    }
}

TEST_F(ToPhone, UnknownModesBecomeMode1) {
    for (const int32_t mode : {6, 7, 100, -1, INT_MAX, INT_MIN}) {
        const sm_tag_custom_info phone = converted_in_mode(mode, 53, 53, 16);
        EXPECT_EQ(phone.mode, 1) << mode;
        EXPECT_EQ(phone.av_index, 0) << mode;
        EXPECT_EQ(phone.tv_index, 0) << mode;
        EXPECT_EQ(phone.ev_step, 53) << mode;
    }
}

TEST_F(ToPhone, Mode2CarriesTheApertureAlone) {
    const sm_tag_custom_info phone = converted_in_mode(2);
    EXPECT_EQ(phone.mode, 2);
    EXPECT_EQ(phone.av_index, 32);
    EXPECT_EQ(phone.tv_index, 0);
    EXPECT_EQ(phone.ev_step, 50);
}

TEST_F(ToPhone, Mode3CarriesTheShutterTimeAlone) {
    const sm_tag_custom_info phone = converted_in_mode(3);
    EXPECT_EQ(phone.mode, 3);
    EXPECT_EQ(phone.av_index, 0);
    EXPECT_EQ(phone.tv_index, 73);
    EXPECT_EQ(phone.ev_step, 50);
}

TEST_F(ToPhone, Modes4And5CarryBothAndTheBareCompensation15) {
    for (const int32_t mode : {4, 5}) {
        for (const int32_t ev_step : {0, 15, 22, 30, 31, -1}) {
            const sm_tag_custom_info phone = converted_in_mode(mode, 53, 53, ev_step);
            EXPECT_EQ(phone.mode, 4);
            EXPECT_EQ(phone.av_index, 32);
            EXPECT_EQ(phone.tv_index, 73);
            EXPECT_EQ(phone.ev_step, 15);
        }
    }
}

TEST_F(ToPhone, SensitivityIsCarriedInEveryMode) {
    tag_custom_info camera = preset(1);
    camera.iso = 4;
    camera.iso_1_3 = 11;
    for (int32_t mode = -1; mode <= 6; ++mode) {
        camera.mode = mode;
        const sm_tag_custom_info phone = converted(camera);
        EXPECT_EQ(phone.iso, 800) << mode;
        EXPECT_EQ(phone.iso_1_3, 1000) << mode;
    }
}

// ---- Aperture -------------------------------------------------------------------------------------------------------
// The camera's aperture codes and what they are on the phone, f-number times ten. 65535 marks a missing step and is
// taken for the first that is missing.
const std::map<int, int> apertures = {
    {0, 0},     {5, 11},    {11, 12},   {16, 14},   {21, 16},   {27, 18},   {32, 20},   {37, 22},    {43, 25},
    {48, 28},   {53, 32},   {59, 35},   {64, 40},   {69, 45},   {75, 50},   {80, 56},   {85, 63},    {91, 71},
    {96, 80},   {101, 90},  {107, 100}, {112, 110}, {117, 130}, {123, 140}, {128, 160}, {133, 180},  {139, 200},
    {144, 220}, {149, 250}, {155, 290}, {160, 320}, {165, 360}, {171, 400}, {176, 450}, {65535, 13},
};

TEST_F(ToPhone, EveryApertureCodeGivesItsFNumberAndEveryOtherNumberGives0) {
    pro_sys_mode = 2;
    for (int code = -300; code <= 300; ++code) {
        EXPECT_EQ(ADE_PRO_Convert2ProFilmAV(code), apertures.contains(code) ? apertures.at(code) : 0) << code;
    }
    for (const int code : {65534, 65535, 65536, 65536 + 53, INT_MAX, INT_MIN}) {
        EXPECT_EQ(ADE_PRO_Convert2ProFilmAV(code), apertures.contains(code) ? apertures.at(code) : 0) << code;
    }
}

TEST_F(ToPhone, ApertureCode0IsAutomaticNotFNumber1) {
    // Positions 0 (none) and 1 (f/1.0) share the code; the first one counts.
    EXPECT_EQ(converted_in_mode(2, 0).av_index, 0);
}

TEST_F(ToPhone, TheMarkOfAMissingApertureGivesTheFirstMissingStep) {
    EXPECT_EQ(converted_in_mode(2, 65535).av_index, 13);
    EXPECT_EQ(converted_in_mode(4, 65535).av_index, 13);
}

TEST_F(ToPhone, TheApertureIsConvertedInModes2And4Only) {
    const std::map<int, int> expected = {{-1, 0}, {0, 0}, {1, 0}, {2, 28}, {3, 0}, {4, 28}, {5, 0}};
    for (const auto& [mode, aperture] : expected) {
        pro_sys_mode = mode;
        EXPECT_EQ(ADE_PRO_Convert2ProFilmAV(48), aperture) << mode;
    }
}

// ---- Shutter time ---------------------------------------------------------------------------------------------------
// The camera's shutter codes and the phone's positions. The mark of a missing step, 65535, stands at position 0 first.
const std::map<int, int> shutter_times = {
    {65440, 1},  {65456, 2},  {65461, 7},  {65467, 12}, {65472, 17}, {65477, 19}, {65483, 22}, {65488, 24}, {65493, 26},
    {65499, 27}, {65504, 28}, {65509, 38}, {65515, 43}, {65520, 48}, {65525, 52}, {65531, 55}, {0, 58},     {5, 60},
    {11, 62},    {16, 63},    {21, 64},    {27, 65},    {32, 69},    {37, 70},    {43, 71},    {48, 72},    {53, 73},
    {59, 74},    {64, 75},    {69, 76},    {75, 77},    {80, 78},    {85, 79},    {91, 80},    {96, 81},    {101, 82},
    {107, 83},   {112, 84},   {117, 85},   {123, 87},   {128, 88},   {133, 89},   {139, 90},   {144, 91},   {149, 92},
    {155, 93},   {160, 94},   {165, 95},   {171, 96},   {176, 97},   {181, 98},   {187, 99},   {192, 100},  {197, 101},
    {203, 102},  {208, 108},  {213, 109},  {65535, 0},
};

TEST_F(ToPhone, EveryShutterCodeGivesItsPositionAndEveryOtherNumberGives0) {
    pro_sys_mode = 3;
    const auto expected = [](int code) { return shutter_times.contains(code) ? shutter_times.at(code) : 0; };
    for (int code = -300; code <= 300; ++code) {
        EXPECT_EQ(ADE_PRO_Convert2ProFilmTV(code), expected(code)) << code;
    }
    for (int code = 65400; code <= 65536 + 300; ++code) {
        EXPECT_EQ(ADE_PRO_Convert2ProFilmTV(code), expected(code)) << code;
    }
    EXPECT_EQ(ADE_PRO_Convert2ProFilmTV(INT_MAX), 0);
    EXPECT_EQ(ADE_PRO_Convert2ProFilmTV(INT_MIN), 0);
}

TEST_F(ToPhone, NegativeShutterCodesAreComparedAsWordsAndMatchNothing) {
    EXPECT_EQ(converted_in_mode(3, 0, 65440).tv_index, 1);
    EXPECT_EQ(converted_in_mode(3, 0, -96).tv_index, 0);
}

TEST_F(ToPhone, TheMarkOfAMissingShutterTimeAndAnUnmatchedCodeBothGivePosition0) {
    EXPECT_EQ(converted_in_mode(3, 0, 65535).tv_index, 0);
    EXPECT_EQ(converted_in_mode(3, 0, 1).tv_index, 0);
}

TEST_F(ToPhone, TheShutterTimeIsConvertedInModes3And4Only) {
    const std::map<int, int> expected = {{-1, 0}, {0, 0}, {1, 0}, {2, 0}, {3, 58}, {4, 58}, {5, 0}};
    for (const auto& [mode, position] : expected) {
        pro_sys_mode = mode;
        EXPECT_EQ(ADE_PRO_Convert2ProFilmTV(0), position) << mode;
    }
}

// ---- Sensitivity ----------------------------------------------------------------------------------------------------
TEST_F(ToPhone, EveryFullIsoStepGivesItsNumberAndEveryOtherCodeGives0) {
    // -1 marks a missing step and is taken for the first that is missing.
    const std::map<int, int> numbers = {{0, 0},    {1, 100},  {2, 200},   {3, 400},   {4, 800},    {5, 1600},
                                        {6, 3200}, {7, 6400}, {8, 12800}, {9, 25600}, {10, 51200}, {-1, 50}};
    for (int code = -50; code <= 200; ++code) {
        EXPECT_EQ(ADE_PRO_Convert2ProFilmSV(code), numbers.contains(code) ? numbers.at(code) : 0) << code;
    }
    EXPECT_EQ(ADE_PRO_Convert2ProFilmSV(65535), 0);
    EXPECT_EQ(ADE_PRO_Convert2ProFilmSV(INT_MAX), 0);
    EXPECT_EQ(ADE_PRO_Convert2ProFilmSV(INT_MIN), 0);
}

TEST_F(ToPhone, EveryThirdIsoStepGivesItsNumberAndEveryOtherCodeGives0) {
    const std::map<int, int> numbers = {{0, 0},      {1, 100},    {2, 125},    {3, 160},    {4, 200},    {5, 250},
                                        {6, 320},    {7, 400},    {8, 500},    {9, 640},    {10, 800},   {11, 1000},
                                        {12, 1250},  {13, 1600},  {14, 2000},  {15, 2500},  {16, 3200},  {17, 4000},
                                        {18, 5000},  {19, 6400},  {20, 8000},  {21, 10000}, {22, 12800}, {23, 16000},
                                        {24, 20000}, {25, 25600}, {26, 32000}, {27, 40000}, {28, 51200}, {-1, 50}};
    for (int code = -50; code <= 200; ++code) {
        EXPECT_EQ(ADE_PRO_Convert2ProFilmSV_1_3(code), numbers.contains(code) ? numbers.at(code) : 0) << code;
    }
    EXPECT_EQ(ADE_PRO_Convert2ProFilmSV_1_3(65535), 0);
    EXPECT_EQ(ADE_PRO_Convert2ProFilmSV_1_3(INT_MAX), 0);
    EXPECT_EQ(ADE_PRO_Convert2ProFilmSV_1_3(INT_MIN), 0);
}

TEST_F(ToPhone, ThirdStepsInForceReplaceTheIsoNumber) {
    tag_custom_info camera = preset(1);
    camera.iso = 4;      // ISO 800
    camera.iso_1_3 = 11; // ISO 1000
    host.iso_step_value = 0;
    const sm_tag_custom_info phone = converted(camera);
    EXPECT_EQ(phone.iso, 1000);
    EXPECT_EQ(phone.iso_1_3, 1000);
    const Transcript log = host.log();
    ASSERT_EQ(log.size(), 74u);
    EXPECT_EQ(log[2], "YELLOW ALG_SM *IsoStep-state* : 1 ");
    EXPECT_EQ(log[8], "PLAIN ALG_SM iso :(4)\t =>(1000)");
}

TEST_F(ToPhone, FullStepsInForceKeepBothIsoNumbers) {
    tag_custom_info camera = preset(1);
    camera.iso = 4;
    camera.iso_1_3 = 11;
    host.iso_step_value = 1;
    const sm_tag_custom_info phone = converted(camera);
    EXPECT_EQ(phone.iso, 800);
    EXPECT_EQ(phone.iso_1_3, 1000);
}

TEST_F(ToPhone, ThirdStepsInForceReplaceTheIsoNumberByAutomaticToo) {
    tag_custom_info camera = preset(1);
    camera.iso = 4;
    camera.iso_1_3 = 29; // no such step
    host.iso_step_value = 3;
    EXPECT_EQ(converted(camera).iso, 0);
}

TEST_F(ToPhone, ChoosingTheIsoNumberLogsWhichStepsAreInForce) {
    host.iso_step_value = 1;
    EXPECT_EQ(ADE_PRO_Convert2ProFilmIsoStep(800, 1000), 800);
    host.iso_step_value = -1;
    EXPECT_EQ(ADE_PRO_Convert2ProFilmIsoStep(800, 1000), 1000);
    EXPECT_EQ(host.transcript, (Transcript{
                                   "User_Spec_Get_Value(272)",
                                   "YELLOW ALG_SM *IsoStep-state* : 0 ",
                                   "User_Spec_Get_Value(272)",
                                   "YELLOW ALG_SM *IsoStep-state* : 1 ",
                               }));
}

// ---- Compensation ---------------------------------------------------------------------------------------------------
TEST_F(ToPhone, EveryCompensationStepGivesItsPhoneCodeOutsideMode4) {
    const int codes[] = {0,  4,  7,  10, 14, 17, 20, 24, 27, 30, 34, 37, 40, 44, 47, 50,
                         53, 56, 60, 63, 66, 70, 73, 76, 80, 83, 86, 90, 93, 96, 100};
    for (const int mode : {0, 1, 2, 3}) {
        pro_sys_mode = mode;
        for (int step = 0; step <= 30; ++step) {
            EXPECT_EQ(ADE_PRO_Convert2ProFilmEV(step), codes[step]) << step;
        }
    }
}

TEST_F(ToPhone, ACompensationOutsideTheStepsMeansNone) {
    for (const int mode : {0, 1, 2, 3}) {
        pro_sys_mode = mode;
        for (const int step : {-1, 31, 50, 100, 1000000, -1000000, INT_MAX, INT_MIN}) {
            EXPECT_EQ(ADE_PRO_Convert2ProFilmEV(step), 50) << step;
        }
    }
    EXPECT_EQ(converted_in_mode(2, 53, 53, 31).ev_step, 50);
}

TEST_F(ToPhone, Mode4AlwaysGivesTheBareCompensation15) {
    pro_sys_mode = 4;
    for (const int step : {0, 1, 15, 30, 31, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(ADE_PRO_Convert2ProFilmEV(step), 15) << step;
    }
}

TEST_F(ToPhone, SingleValuesAreConvertedWithoutALine) {
    pro_sys_mode = 4;
    (void)ADE_PRO_Convert2ProFilmAV(48);
    (void)ADE_PRO_Convert2ProFilmTV(48);
    (void)ADE_PRO_Convert2ProFilmSV(4);
    (void)ADE_PRO_Convert2ProFilmSV_1_3(4);
    (void)ADE_PRO_Convert2ProFilmEV(4);
    EXPECT_EQ(host.transcript, Transcript{});
}

// ---- Colours --------------------------------------------------------------------------------------------------------
TEST_F(ToPhone, ColoursAreScaledFrom200To255) {
    const std::map<int, int> expected = {{-1000, 0}, {-1, 0},    {0, 0},     {1, 1},     {2, 2},     {3, 3},
                                         {50, 64},   {99, 127},  {100, 128}, {101, 129}, {150, 192}, {196, 252},
                                         {197, 253}, {198, 254}, {199, 255}, {200, 255}, {201, 255}, {1000, 255}};
    for (const auto& [camera, phone] : expected) {
        EXPECT_EQ(converted_colour(camera), phone) << camera;
    }
}

TEST_F(ToPhone, EveryColourOfTheCamerasScaleIsRoundedDown) {
    tag_custom_info camera = preset(1);
    const std::vector<int32_t*> fields = colour_words(camera);
    for (int first = 1; first <= 198; first += 39) {
        for (int k = 0; k < 39; ++k) {
            *fields[static_cast<size_t>(k)] = first + k;
        }
        sm_tag_custom_info phone = converted(camera);
        const std::vector<int32_t*> results = colour_words(phone);
        for (int k = 0; k < 39 && first + k <= 198; ++k) {
            // The largest number of 199ths that fits into the value times 256.
            const int scaled = *results[static_cast<size_t>(k)];
            EXPECT_LE(scaled * 199, (first + k) * 256);
            EXPECT_GT((scaled + 1) * 199, (first + k) * 256);
        }
    }
}

TEST_F(ToPhone, All39ColourWordsAreScaledTheLastOneToo) {
    tag_custom_info camera = preset(1);
    for (int32_t* const word : colour_words(camera)) {
        *word = 100;
    }
    const Bytes phone = image(converted(camera));
    for (size_t offset = 160; offset <= 312; offset += 4) {
        EXPECT_EQ(word_at(phone, offset), 128) << offset;
    }
}

TEST_F(ToPhone, NeighboursOfTheColoursAreNotScaled) {
    tag_custom_info camera = preset(1);
    camera.cs_info.color_style = 100;
    camera.cs_info.cs_color_off_color = 100;
    for (size_t style = 0; style < 14; ++style) {
        camera.cs_info.cs_saturation[style] = 100;
        camera.cs_info.cs_sharpness[style] = 100;
        camera.cs_info.cs_contrast[style] = 100;
        camera.cs_info.cs_hue[style] = 100;
    }
    EXPECT_EQ(image(converted(camera).cs_info), image(camera.cs_info));
}

TEST_F(ToPhone, HugeColoursWrapAroundAt32Bits) {
    const std::pair<int32_t, int32_t> rows[] = {
        {0x007FFFFF, 255},                       // the largest value whose product is not negative
        {0x00800000, 0},                         // times 256: the most negative word
        {0x00FFFFFF, 0},                         // times 256: -256
        {0x01000000, 0},                         // times 256: nothing is left
        {0x01000064, 128},                       // times 256: as 100
        {0x7FFFFFFF, 0},                         // times 256: -256
        {static_cast<int32_t>(0xFF000064), 128}, // negative, but times 256 as 100
        {static_cast<int32_t>(0xFF0000C8), 255}, // negative, but times 256 as 200
        {INT_MIN, 0},
    };
    for (const auto& [camera, phone] : rows) {
        EXPECT_EQ(converted_colour(camera), phone) << std::hex << camera;
    }
}

// ---- Numbers whose lower 8 or 16 bits mean something ----------------------------------------------------------------

TEST_F(ToPhone, NoCodeIsTakenForItsLowerBits) {
    pro_sys_mode = 4;
    for (const int above : {256 * 50, 65536, -65536, 3 * 65536, 1 << 24, -(1 << 24)}) {
        SCOPED_TRACE(above);
        EXPECT_EQ(ADE_PRO_Convert2ProFilmAV(48 + above), 0);
        EXPECT_EQ(ADE_PRO_Convert2ProFilmTV(53 + above), 0);
        EXPECT_EQ(ADE_PRO_Convert2ProFilmSV(4 + above), 0);
        EXPECT_EQ(ADE_PRO_Convert2ProFilmSV_1_3(11 + above), 0);
        pro_sys_mode = 2;
        EXPECT_EQ(ADE_PRO_Convert2ProFilmEV(22 + above), 50);
        pro_sys_mode = 4;
    }
}

TEST_F(ToPhone, NoModeIsTakenForItsLowerBits) {
    for (const int32_t above : {256, 65536, -65536, 1 << 24}) {
        for (const int32_t mode : {0, 2, 3, 4, 5}) {
            EXPECT_EQ(converted_in_mode(mode + above).mode, 1) << mode + above;
            EXPECT_EQ(pro_sys_mode, 1);
        }
        pro_sys_mode = 4 + above;
        EXPECT_EQ(ADE_PRO_Convert2ProFilmAV(48), 0);
        EXPECT_EQ(ADE_PRO_Convert2ProFilmTV(53), 0);
        EXPECT_EQ(ADE_PRO_Convert2ProFilmEV(15), 50);
    }
}

TEST_F(ToPhone, OnlyAModelSpecificationOf1MeansFullSteps) {
    for (const int answer : {257, 65537, 1 + (1 << 24), -65535, -255}) {
        host.iso_step_value = answer;
        EXPECT_EQ(ADE_PRO_Convert2ProFilmIsoStep(70000, -70001), -70001) << answer;
    }
    host.iso_step_value = 1;
    EXPECT_EQ(ADE_PRO_Convert2ProFilmIsoStep(70000, -70001), 70000) << "whole words";
}

} // namespace
