// How a phone's preset becomes a camera's: which fields are carried as they are, how exposure values, white balance and
// colours are converted, what a preset's origin decides, what the conversion writes to the log and which state it reads
// and leaves behind.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <map>

#include "ADE_ShotMentor.h"
#include "FakeHost.h"
#include "Message.h"

namespace {

// A phone record titled "Harbour" whose word at byte offset n holds 1000 + n.
sm_tag_custom_info numbered_phone() {
    Bytes bytes = words({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    for (int32_t offset = 52; offset < 744; offset += 4) {
        bytes = bytes + words({1000 + offset});
    }
    sm_tag_custom_info phone;
    std::memcpy(&phone, bytes.data(), sizeof phone);
    std::strcpy(phone.title, "Harbour");
    return phone;
}

// A preset that the camera itself made, without a smart filter, in the mode that sets everything.
sm_tag_custom_info plain_phone() {
    sm_tag_custom_info phone{};
    std::strcpy(phone.title, "Plain");
    phone.mode = 4;
    phone.tv_index = 58; // code 0
    phone.custom_id = 1;
    phone.made_id = 0x44;
    return phone;
}

// The 39 colour words of either record, in record order.
template<class Record>
std::vector<int32_t*> colour_words(Record& record) {
    std::vector<int32_t*> all;
    for (sm_color& color : record.cs_info.cs_color) {
        all.insert(all.end(), {&color.cs_color_r, &color.cs_color_g, &color.cs_color_b});
    }
    return all;
}

// One call of a conversion and what it logged.
struct Outcome {
    int result;
    Transcript log;

    bool operator==(const Outcome&) const = default;
};

Outcome gives(int result, const Transcript& log) {
    return {result, log};
}

void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << outcome.result << " after " << testing::PrintToString(outcome.log);
}

class ToCamera : public testing::Test {
  protected:
    void SetUp() override { set_state(2, 0, 0, 0); }
    void TearDown() override { set_state(0, 0, 0, 0); }

    static void set_state(int model, int sys_mode, int film_mode, int custom04) {
        gADE_PRO_model = model;
        pro_sys_mode = sys_mode;
        pro_film_mode = film_mode;
        pro_custom04_state = custom04;
    }

    static tag_custom_info converted(const sm_tag_custom_info& phone) {
        tag_custom_info camera;
        std::memset(&camera, 0xA5, sizeof camera);
        ADE_PRO_CreateSysCustom(&phone, &camera);
        return camera;
    }

    static tag_custom_info converted_in_mode(int32_t mode, int32_t av_index, int32_t tv_index) {
        sm_tag_custom_info phone = plain_phone();
        phone.mode = mode;
        phone.av_index = av_index;
        phone.tv_index = tv_index;
        return converted(phone);
    }

    static int32_t converted_colour(int32_t phone_value) {
        sm_tag_custom_info phone = plain_phone();
        phone.cs_info.cs_color[7].cs_color_b = phone_value;
        return converted(phone).cs_info.cs_color[7].cs_color_b;
    }

    static tag_custom_info converted_origin(int32_t made_id, int32_t smart_filter = 0, int32_t color_style = 5) {
        sm_tag_custom_info phone = plain_phone();
        phone.made_id = made_id;
        phone.smart_filter = smart_filter;
        phone.cs_info.color_style = color_style;
        phone.cs_info.cs_color_off_color = 8;
        return converted(phone);
    }

    Outcome outcome_of(int (*conversion)(int), int value) {
        host.forget();
        const int result = conversion(value);
        return {result, host.log()};
    }

    FakeHost host;
};

// ---- The whole conversion

// A record that holds a different value in every field, each exposure value one that the camera can set. It was made
// elsewhere and names a colour temperature, so origin and white balance change it.
sm_tag_custom_info phone_with_distinct_fields() {
    sm_tag_custom_info phone = numbered_phone();
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

// ---- The copy that it starts with

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
    set_state(7, 3, 5, 1);
    const sm_tag_custom_info phone = plain_phone();
    tag_custom_info camera{};
    ADE_ShotMentor_Conv2SysCustomStruct(&phone, &camera);
    EXPECT_EQ(gADE_PRO_model, 7);
    EXPECT_EQ(pro_sys_mode, 3);
    EXPECT_EQ(pro_film_mode, 5);
    EXPECT_EQ(pro_custom04_state, 1);
}

// ---- State

TEST_F(ToCamera, LeavesModel2AndThePresetsModeBehindAndTheSystemModeAlone) {
    set_state(0, 4, 1, 1);
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

// ---- Modes

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

// ---- Aperture

struct Aperture {
    int phone;
    int position; // in the table of phone apertures
    int code;
};

// The apertures of the phone that the camera has a code for.
const Aperture coded_apertures[] = {
    {0, 0, 0},       {10, 1, 0},      {11, 2, 5},      {12, 3, 11},     {14, 5, 16},     {16, 7, 21},
    {18, 9, 27},     {20, 11, 32},    {22, 13, 37},    {25, 16, 43},    {28, 19, 48},    {32, 23, 53},
    {35, 26, 59},    {40, 31, 64},    {45, 36, 69},    {50, 41, 75},    {56, 47, 80},    {63, 54, 85},
    {71, 62, 91},    {80, 71, 96},    {90, 81, 101},   {100, 91, 107},  {110, 101, 112}, {130, 104, 117},
    {140, 106, 123}, {160, 109, 128}, {180, 113, 133}, {200, 114, 139}, {220, 115, 144}, {250, 116, 149},
    {290, 117, 155}, {320, 118, 160}, {360, 119, 165}, {400, 120, 171}, {450, 121, 176},
};

// Those that it has none for, with the code of the step that is set instead. From 120 on the approximation's answer is
// a position among the apertures of all models, and is read as one among the phone's: these codes are not the nearest
// ones. Where the answer lies behind the phone's scale (164, 170, 178, 500 to 900) the nearest code is taken.
const Aperture approximated_apertures[] = {
    {13, 4, 11},     {15, 6, 16},     {17, 8, 21},     {19, 10, 27},    {21, 12, 32},    {23, 14, 37},
    {24, 15, 43},    {26, 17, 43},    {27, 18, 48},    {29, 20, 48},    {30, 21, 48},    {31, 22, 53},
    {33, 24, 53},    {34, 25, 59},    {36, 27, 59},    {37, 28, 59},    {38, 29, 64},    {39, 30, 64},
    {41, 32, 64},    {42, 33, 64},    {43, 34, 69},    {44, 35, 69},    {46, 37, 69},    {47, 38, 69},
    {48, 39, 75},    {49, 40, 75},    {51, 42, 75},    {52, 43, 75},    {53, 44, 75},    {54, 45, 80},
    {55, 46, 80},    {57, 48, 80},    {58, 49, 80},    {59, 50, 80},    {60, 51, 85},    {61, 52, 85},
    {62, 53, 85},    {64, 55, 85},    {65, 56, 85},    {66, 57, 85},    {67, 58, 85},    {68, 59, 91},
    {69, 60, 91},    {70, 61, 91},    {72, 63, 91},    {73, 64, 91},    {74, 65, 91},    {75, 66, 91},
    {76, 67, 96},    {77, 68, 96},    {78, 69, 96},    {79, 70, 96},    {81, 72, 96},    {82, 73, 96},
    {83, 74, 96},    {84, 75, 96},    {85, 76, 96},    {86, 77, 101},   {87, 78, 101},   {88, 79, 101},
    {89, 80, 101},   {91, 82, 101},   {92, 83, 101},   {93, 84, 101},   {94, 85, 101},   {95, 86, 101},
    {96, 87, 107},   {97, 88, 107},   {98, 89, 107},   {99, 90, 107},   {101, 92, 107},  {102, 93, 107},
    {103, 94, 107},  {104, 95, 107},  {105, 96, 107},  {106, 97, 112},  {107, 98, 112},  {108, 99, 112},
    {109, 100, 112}, {120, 102, 117}, {124, 103, 123}, {139, 105, 144}, {150, 107, 171}, {153, 108, 176},
    {164, 110, 128}, {170, 111, 128}, {178, 112, 133}, {500, 122, 176}, {570, 123, 176}, {640, 124, 176},
    {720, 125, 176}, {800, 126, 176}, {900, 127, 176},
};

std::string search_line(int position) {
    return "PLAIN ALG_SM (AV)search_val:(" + std::to_string(position) + ")";
}

TEST_F(ToCamera, AnApertureThatTheCameraHasACodeForIsLookedUp) {
    for (const Aperture& row : coded_apertures) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, row.phone), gives(row.code, {search_line(row.position)}))
            << row.phone;
    }
}

TEST_F(ToCamera, AnApertureThatTheCameraHasNoCodeForIsApproximated) {
    EXPECT_EQ(std::size(coded_apertures) + std::size(approximated_apertures), 128u);
    for (const Aperture& row : approximated_apertures) {
        const Outcome outcome = outcome_of(ADE_PRO_Convert2SysCustomAV, row.phone);
        EXPECT_EQ(outcome.result, row.code) << row.phone;
        ASSERT_GE(outcome.log.size(), 4u) << row.phone;
        EXPECT_EQ(outcome.log[0], search_line(row.position)) << row.phone;
        EXPECT_EQ(outcome.log[1], "YELLOW ALG_SM (AV_LUT)arr_size :(151)") << row.phone;
    }
}

TEST_F(ToCamera, AnApertureThatThePhonesTableDoesNotHoldBecomesCode0WithoutAnApproximation) {
    std::map<int, bool> known;
    for (const Aperture& row : coded_apertures) {
        known[row.phone] = true;
    }
    for (const Aperture& row : approximated_apertures) {
        known[row.phone] = true;
    }
    const Outcome nothing_found = {0, {search_line(0)}};
    for (int aperture = 0; aperture <= 1000; ++aperture) {
        if (!known[aperture]) {
            EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, aperture), nothing_found) << aperture;
        }
    }
    for (const int aperture : {-1, -28, 65535, 1 << 16, INT_MAX, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, aperture), nothing_found) << aperture;
    }
}

TEST_F(ToCamera, Aperture115BecomesCode0NeverAnApproximation) {
    EXPECT_EQ(converted_in_mode(2, 115, 0).av_index, 0);
}

TEST_F(ToCamera, Aperture28IsFoundAtPosition19InMode3) {
    EXPECT_EQ(converted_in_mode(3, 28, 0).av_index, 48);
    EXPECT_EQ(host.log()[3], search_line(19));
}

TEST_F(ToCamera, AperturesAtTheBordersOfTheSearchRangesAreFound) {
    const std::map<int, int> positions = {{24, 15},  {25, 16},  {40, 31},   {41, 32},   {56, 47},
                                          {57, 48},  {72, 63},  {73, 64},   {88, 79},   {89, 80},
                                          {104, 95}, {105, 96}, {170, 111}, {178, 112}, {900, 127}};
    for (const auto& [aperture, position] : positions) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, aperture).log.at(0), search_line(position)) << aperture;
    }
}

TEST_F(ToCamera, Aperture171IsSearchedAndNotFound) {
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 171), gives(0, {search_line(0)}));
}

TEST_F(ToCamera, AFilmModeOf1OrASystemModeOf3GivesApertureCode0AtOnce) {
    const Outcome at_once = {0, {}};
    set_state(2, 0, 1, 0);
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), at_once);
    set_state(2, 3, 2, 0);
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), at_once);
    set_state(2, 1, 3, 0); // the other way round neither matters
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), gives(48, {search_line(19)}));
}

TEST_F(ToCamera, AnApertureApproximatedForAnotherModelIsReadFromTheSameCodes) {
    struct Row {
        int model;
        int aperture;
        int code;
    };
    const Row rows[] = {
        {SM_CAMERA_ZE, 13, 65535}, // that model has the step, this one has no code for it
        {SM_CAMERA_ZE, 106, 112},  // position 101
        {SM_CAMERA_ZE, 150, 123},  // position 137, behind the scale: f/14 and f/16 are equally near to f/15
        {SM_CAMERA_ZE, 153, 128},  // likewise, f/16 is nearer
        {SM_CAMERA_ZE, 900, 176},  // position 150
        {SM_CAMERA_RH, 17, 0},     // position 0
        {SM_CAMERA_RH, 36, 59},    // position 26
        {SM_CAMERA_RH, 150, 165},  // position 119
        {SM_CAMERA_RH, 170, 128},  // position 128, behind the scale
        {SM_CAMERA_RH, 178, 133},  // position 131
        {SM_CAMERA_RH, 900, 176},  // position 136
    };
    for (const Row& row : rows) {
        gADE_PRO_model = row.model;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomAV(row.aperture), row.code) << row.model << ' ' << row.aperture;
    }
}

TEST_F(ToCamera, AnApertureThatCannotBeApproximatedForAnUnknownModelBecomesCode0) {
    for (const int model : {3, -1, INT_MAX}) {
        gADE_PRO_model = model;
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 13), gives(0, {search_line(4)}));
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 900), gives(0, {search_line(127)}));
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomAV, 28), gives(48, {search_line(19)}));
    }
}

// ---- Shutter time

const int shutter_codes[] = {
    65440, 65440, 65456, 65456, 65456, 65461, 65461, 65461, 65461, 65461, // 0
    65467, 65467, 65467, 65467, 65467, 65472, 65472, 65472, 65472, 65477, // 10
    65477, 65483, 65483, 65483, 65488, 65488, 65493, 65499, 65504, 65504, // 20
    65504, 65504, 65504, 65504, 65509, 65509, 65509, 65509, 65509, 65509, // 30
    65509, 65515, 65515, 65515, 65515, 65515, 65520, 65520, 65520, 65520, // 40
    65520, 65525, 65525, 65525, 65531, 65531, 65531, 0,     0,     0,     // 50
    5,     5,     11,    16,    21,    27,    27,    27,    32,    32,    // 60
    37,    43,    48,    53,    59,    64,    69,    75,    80,    85,    // 70
    91,    96,    101,   107,   112,   117,   117,   123,   128,   133,   // 80
    139,   144,   149,   155,   160,   165,   171,   176,   181,   187,   // 90
    192,   197,   203,   91,    107,   133,   155,   171,   208,   213,   // 100; 103 to 107 have fixed answers
};

TEST_F(ToCamera, EveryShutterPositionGivesItsCodeOrTheNearestOne) {
    ASSERT_EQ(std::size(shutter_codes), 110u);
    for (int position = 0; position < 110; ++position) {
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(position), shutter_codes[position]) << position;
    }
}

TEST_F(ToCamera, OnlyAShutterPositionWithoutACodeIsApproximated) {
    for (int position = 0; position < 110; ++position) {
        const bool approximated = !outcome_of(ADE_PRO_Convert2SysCustomTV, position).log.empty();
        const bool fixed_answer = position >= 103 && position <= 107;
        EXPECT_EQ(approximated, tKT7_APEX_TV[position] == 65535 && !fixed_answer) << position;
    }
}

TEST_F(ToCamera, AShutterPositionOutsideTheScaleGivesItsNearestEnd) {
    for (const int position : {-1, -100, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomTV, position),
                  outcome_of(ADE_PRO_Convert2SysCustomTV, 0)) // which is not supported: 1 is set
            << position;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(position), 65440) << position;
    }
    for (const int position : {110, 111, 65535, INT_MAX}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomTV, position),
                  gives(213, {"CYAN ALG_SM [TV]convertedIndex::(109)"}))
            << position;
    }
}

TEST_F(ToCamera, AShutterApproximationOf0OrLessGivesTheFirstEntry) {
    gADE_PRO_model = SM_CAMERA_ZE; // supports position 0
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(0), 65535);
    gADE_PRO_model = 3; // the approximation answers -1
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(0), 65535);
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(68), 65535);
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(110), 65535);
}

TEST_F(ToCamera, AShutterApproximationOf109GivesTheLastEntry) {
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(110), 213);
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(109), 213);
}

TEST_F(ToCamera, ShutterTimesBehindTheScaleOfAnotherModelStartAtItsEnd) {
    gADE_PRO_model = SM_CAMERA_ZE; // 102
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(1000), 203);
    gADE_PRO_model = SM_CAMERA_RH; // 107, which has no code
    EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(1000), 65535);
}

TEST_F(ToCamera, FilmModes1And2GiveShutterCode0AtOnce) {
    for (const int film_mode : {1, 2}) {
        pro_film_mode = film_mode;
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomTV, 68), gives(0, {})) << film_mode;
    }
    pro_sys_mode = 3; // does not matter
    for (const int film_mode : {0, 3, 4, 5, -1}) {
        pro_film_mode = film_mode;
        EXPECT_EQ(ADE_PRO_Convert2SysCustomTV(73), 53) << film_mode;
    }
}

// ---- Sensitivity

TEST_F(ToCamera, EveryIsoNumberOfAFullStepGivesItsCode) {
    const std::map<int, int> codes = {{0, 0},    {100, 1},  {200, 2},   {400, 3},   {800, 4},   {1600, 5},
                                      {3200, 6}, {6400, 7}, {12800, 8}, {25600, 9}, {51200, 10}};
    for (const auto& [iso, code] : codes) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, iso), gives(code, {})) << iso;
    }
}

TEST_F(ToCamera, IsoNumbersBetweenFullStepsAreHandedOnAndBecomeAutomatic) {
    const int numbers[] = {50,   80,   125,  160,  250,  320,   500,   640,   1000,  1250,
                           2000, 2500, 4000, 5000, 8000, 10000, 16000, 20000, 32000, 40000};
    for (const int iso : numbers) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, iso), gives(0, {"CYAN ALG_SM Converted SV :(0)"})) << iso;
    }
}

TEST_F(ToCamera, EveryNumberThatIsNoFullStepBecomesAutomatic) {
    const std::map<int, int> codes = {{100, 1},  {200, 2},  {400, 3},   {800, 4},   {1600, 5},
                                      {3200, 6}, {6400, 7}, {12800, 8}, {25600, 9}, {51200, 10}};
    for (int iso = -40; iso <= 52000; ++iso) {
        const int expected = codes.contains(iso) ? codes.at(iso) : 0;
        ASSERT_EQ(ADE_PRO_Convert2SysCustomSV(iso), expected) << iso;
    }
    for (const int iso : {-100, 102400, 65535, INT_MAX, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, iso), gives(0, {})) << iso;
    }
}

TEST_F(ToCamera, EveryThirdStepPositionGivesItsCodeOrTheNearestOne) {
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 0), gives(0, {}));
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 1), // next to 0
              gives(0, {"CYAN ALG_SM Converted SV :(0)"}));
    EXPECT_EQ(ADE_PRO_Convert2SysCustomSV_1_3(2), 1); // next to 3
    for (int position = 3; position <= 30; ++position) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, position), gives(position - 2, {})) << position;
    }
}

TEST_F(ToCamera, AThirdStepPositionOutsideTheScaleBecomesAutomatic) {
    for (const int position : {-1, 31, 32, 100, 125, 51200, INT_MAX, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, position), gives(0, {"CYAN ALG_SM Converted SV :(0)"}))
            << position;
    }
}

TEST_F(ToCamera, AnIsoNumberInTheThirdStepFieldIsReadAsAPosition) {
    // What the camera sent as ISO 100 comes back as position 100.
    sm_tag_custom_info phone = plain_phone();
    phone.iso_1_3 = 100;
    EXPECT_EQ(converted(phone).iso_1_3, 0);
    phone.iso_1_3 = 3;
    EXPECT_EQ(converted(phone).iso_1_3, 1);
}

TEST_F(ToCamera, SensitivitiesOfAnUnknownModelBecomeAutomaticWithoutALine) {
    gADE_PRO_model = 3;
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, 125), gives(0, {}));
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV_1_3, 2), gives(0, {}));
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomSV, 400), gives(3, {}));
}

// ---- Compensation

TEST_F(ToCamera, EveryCompensationCodeGivesItsStepOrTheNearestOne) {
    const int steps[] = {
        0,  0,  0,  1,  1,  1,  2,  2,  2,  3,  // 0
        3,  3,  3,  4,  4,  4,  5,  5,  5,  6,  // 10
        6,  6,  6,  7,  7,  7,  8,  8,  8,  9,  // 20
        9,  9,  9,  10, 10, 10, 11, 11, 11, 12, // 30
        12, 12, 12, 13, 13, 13, 14, 14, 14, 15, // 40
        15, 15, 16, 16, 16, 17, 17, 17, 17, 18, // 50
        18, 18, 19, 19, 19, 20, 20, 20, 20, 21, // 60
        21, 21, 22, 22, 22, 23, 23, 23, 23, 24, // 70
        24, 24, 25, 25, 25, 26, 26, 26, 26, 27, // 80
        27, 27, 28, 28, 28, 29, 29, 29, 29, 30, // 90
        30,
    };
    ASSERT_EQ(std::size(steps), 101u);
    for (int code = 0; code <= 100; ++code) {
        EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(code), steps[code]) << code;
    }
}

TEST_F(ToCamera, OnlyACompensationWithoutAStepIsApproximated) {
    for (int code = 0; code <= 100; ++code) {
        const bool approximated = !outcome_of(ADE_PRO_Convert2SysCustomEV, code).log.empty();
        EXPECT_EQ(approximated, tKT7_APEX_EV_1_3[code] == -1) << code;
    }
}

TEST_F(ToCamera, ACompensationOutsideTheScaleGivesItsNearestEnd) {
    for (const int code : {-1, -2, -10, -50, INT_MIN}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomEV, code), gives(0, {"CYAN ALG_SM Converted EV :(0)"})) << code;
    }
    for (const int code : {101, 102, 110, 1000, INT_MAX}) {
        EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomEV, code), gives(30, {"CYAN ALG_SM Converted EV :(100)"}))
            << code;
    }
}

TEST_F(ToCamera, EveryCompensationFromMinus10To110IsAStepOfTheCamera) {
    for (int code = -10; code <= 110; ++code) {
        const int step = ADE_PRO_Convert2SysCustomEV(code);
        EXPECT_TRUE(step >= 0 && step <= 30) << code << " gives " << step;
    }
}

TEST_F(ToCamera, ACompensationApproximatedForAnotherModelIsReadFromTheSameCodes) {
    gADE_PRO_model = SM_CAMERA_RH;
    EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(99), 21); // 70
    EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(32), -1); // 33, a step that this model has no code for
    gADE_PRO_model = SM_CAMERA_ZE;
    EXPECT_EQ(ADE_PRO_Convert2SysCustomEV(1), 6); // 20
    gADE_PRO_model = 3;
    EXPECT_EQ(outcome_of(ADE_PRO_Convert2SysCustomEV, 99), gives(0, {}));
}

// ---- Search

TEST_F(ToCamera, TheApertureSearchGivesTheFirstPositionOfTheRangeThatHoldsTheValue) {
    struct Row {
        int value;
        int first;
        int last;
        int position;
    };
    const Row rows[] = {
        {0, 0, 127, 0},
        {10, 0, 127, 1},
        {24, 0, 15, 15},      // the last position belongs to the range
        {24, 15, 31, 15},     // and the first one
        {24, 16, 31, 0},      // not found
        {24, 0, 14, 0},       // not found
        {115, 0, 127, 0},     // in no range
        {900, 127, 127, 127}, // a range of one
        {900, 111, 126, 0},
        {900, 127, 111, 0},   // an empty range
        {900, 100, 128, 127}, // across the end of the table
        {900, 0, INT_MAX, 127},
        {901, 0, INT_MAX, 0},
        {900, 128, 200, 0}, // beyond it
        {900, INT_MAX, INT_MAX, 0},
        {10, -5, 5, 1}, // across its start
        {10, INT_MIN, INT_MAX, 1},
        {10, -5, -1, 0},
        {10, INT_MIN, INT_MIN, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(ADE_PRO_SearchCommonAV(row.value, row.first, row.last), row.position)
            << row.value << " from " << row.first << " to " << row.last;
    }
    EXPECT_EQ(host.transcript, Transcript{});
}

TEST_F(ToCamera, TheSensitivitySearchGivesTheFirstPositionOfTheRangeThatHoldsTheValue) {
    struct Row {
        int value;
        int first;
        int last;
        int position;
    };
    const Row rows[] = {
        {0, 0, 30, 0},
        {100, 0, 7, 3},
        {250, 0, 7, 7},
        {250, 7, 15, 7},
        {250, 8, 15, 0},
        {250, 0, 6, 0},
        {1600, 7, 15, 15},
        {10000, 15, 23, 23},
        {51200, 23, 30, 30},
        {51200, 30, 30, 30},
        {51200, 30, 23, 0},
        {51200, 20, 31, 30},
        {51200, 0, INT_MAX, 30},
        {51200, 31, 100, 0},
        {65535, 0, 30, 0},
        {50, -3, 1, 1},
        {50, INT_MIN, INT_MAX, 1},
        {50, -3, -1, 0},
        {-1, 0, 30, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(ADE_PRO_SearchCommonSV(row.value, row.first, row.last), row.position)
            << row.value << " from " << row.first << " to " << row.last;
    }
    EXPECT_EQ(host.transcript, Transcript{});
}

// ---- White balance

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

// ---- Colours

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

// ---- Origin

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
    set_state(1, 2, 0, 1);
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
