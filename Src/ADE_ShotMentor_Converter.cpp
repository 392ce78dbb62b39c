// Conversion of presets between the camera's record and the phone's. Both directions copy the common 740 bytes and then
// rewrite the words that the two sides encode differently.

#define LOG_SOURCE kConverterSource

#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_LogLine.h"
#include "ADE_ShotMentor_Steps.h"
#include "ADE_ShotMentor_Words.h"

#include <string.h>

// Bounds every read of a title, which may fill its field without a NUL.
#define TITLE_FORMAT "%.52s"
static_assert(SM_TITLE_SIZE == 52);

namespace {

constexpr int kNoCompensation = 50;
constexpr int kNoCompensationManual = 15; // the bare step, where the other modes give the phone's code for it

// Returns the entry at a position, or entry 0 for the failure value of an approximation.
template<size_t count>
int entry_or_first(const int32_t (&table)[count], int position) {
    return table[position < 0 ? 0 : position];
}

// Whether a table has no code at a position. A position outside the table is missing, too.
template<size_t count>
bool is_missing(const int32_t (&table)[count], int position, int mark) {
    return position < 0 || position >= static_cast<int>(count) || table[position] == mark;
}

// Arithmetic on colour words wraps around: a phone may send any word.
int32_t wrapping_product(int32_t left, uint32_t right) {
    return static_cast<int32_t>(static_cast<uint32_t>(left) * right);
}

// Camera 0 to 200 to phone 0 to 255. Dividing by 199 lets every camera value from 199 on reach 255.
int32_t color_to_phone(int32_t camera) {
    constexpr int32_t divisor = 199;
    const int32_t scaled = wrapping_product(camera, 256);
    if (scaled < divisor) {
        return 0;
    }
    return scaled >= 256 * divisor ? 255 : scaled / divisor;
}

// Phone 0 to 255 to camera 0 to 200.
int32_t color_to_camera(int32_t phone) {
    constexpr int32_t limit = 200;
    const int32_t scaled = wrapping_product(phone, limit) >> 8;
    if (scaled <= 0) {
        return 0;
    }
    return scaled < limit ? scaled : limit;
}

void scale_colors(const sm_color (&from)[SM_COLOR_TRIPLES], sm_color (&to)[SM_COLOR_TRIPLES],
                  int32_t (*scale)(int32_t)) {
    for (int style = 0; style < SM_COLOR_TRIPLES; ++style) {
        to[style].cs_color_r = scale(from[style].cs_color_r);
        to[style].cs_color_g = scale(from[style].cs_color_g);
        to[style].cs_color_b = scale(from[style].cs_color_b);
    }
}

// ---- The trace that ends each conversion ----------------------------------------------------------------------------

// What one line shows of a field: `source` is the record converted from, `result` the record converted to.
enum TraceForm : uint8_t {
    kBoth,       // source and result
    kStepCode,   // both, the camera's side in hexadecimal
    kColor,      // both, of a colour triple
    kSource,     // the source alone
    kResult,     // the result alone
    kCameraOnly, // the camera's value; the phone has no use for the field
    kTraceForms
};

enum Direction { kToPhone, kToCamera, kDirections };

enum TraceNumber : uint8_t { kNoNumber, kDecimal, kHexadecimal };

// What a line shows behind its label: at most two numbers, with text around them.
struct TraceFormat {
    ShortText before;
    TraceNumber first;
    ShortText between;
    TraceNumber second;
    ShortText behind;
    bool result_first;
};

// clang-format off
constexpr TraceFormat kTraceFormats[kTraceForms][kDirections] = { // first to the phone, then to the camera
    /* kBoth */       {{" :(",          kDecimal,     ")\t =>(",   kDecimal,     ")\n",         false},
                       {" :(",          kDecimal,     ")\t =>(",   kDecimal,     ")\n",         false}},
    /* kStepCode */   {{" :(0x",        kHexadecimal, ")\t =>(",   kDecimal,     ")\n",         false},
                       {" :(",          kDecimal,     ")\t =>(0x", kHexadecimal, ")\n",         false}},
    /* kColor */      {{" :(",          kDecimal,     ")\t =>(",   kDecimal,     ")\n",         false},
                       {" :(",          kDecimal,     ")\t => (",  kDecimal,     ")\n",         false}},
    /* kSource */     {{":(",           kDecimal,     "",          kNoNumber,    ")\n",         false},
                       {":(",           kDecimal,     "",          kNoNumber,    ")\n",         false}},
    /* kResult */     {{" :(",          kDecimal,     "",          kNoNumber,    ")\n",         true},
                       {" :(",          kDecimal,     "",          kNoNumber,    ")\n",         true}},
    /* kCameraOnly */ {{" :(",          kDecimal,     "",          kNoNumber,    ")\t =>(-)\n", false},
                       {" :(-)\t =>(", kDecimal,     "",          kNoNumber,    ")\n",         true}},
};
// clang-format on

// One line of the trace. No pointers, so that the table needs no relocation.
struct TraceLine {
    char label[32];
    uint16_t offset; // of the field in both records
    TraceForm form;
    alg_log_level to_phone_level; // to the camera all lines are plain
};

#define TRACE(field, form, level)                                                                                      \
    { #field, offsetof(tag_custom_info, field), form, level }
#define TRACE_STYLE(label, field, form, level)                                                                         \
    { label, offsetof(tag_custom_info, cs_info.field), form, level }

// The lines of one custom colour style. A triple has no entry for style 0.
#define TRACE_COLOR_STYLE(label, style, level)                                                                         \
    TRACE_STYLE(label "cs_color_r", cs_color[(style)-1].cs_color_r, kColor, level),                                    \
        TRACE_STYLE(label "cs_color_g", cs_color[(style)-1].cs_color_g, kColor, level),                                \
        TRACE_STYLE(label "cs_color_b", cs_color[(style)-1].cs_color_b, kColor, level),                                \
        TRACE_STYLE(label "cs_saturation", cs_saturation[style], kResult, level),                                      \
        TRACE_STYLE(label "cs_sharpness", cs_sharpness[style], kResult, level),                                        \
        TRACE_STYLE(label "cs_contrast", cs_contrast[style], kResult, level),                                          \
        TRACE_STYLE(label "cs_hue", cs_hue[style], kResult, level)

constexpr TraceLine kTrace[] = {
    TRACE(mode, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(av_index, kStepCode, ALG_LOG_LEVEL_PLAIN),
    TRACE(tv_index, kStepCode, ALG_LOG_LEVEL_PLAIN),
    TRACE(iso, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(iso_1_3, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(ev_step, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(metering, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(drive, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(hdr, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(drive, kBoth, ALG_LOG_LEVEL_PLAIN), // drive and hdr are logged twice
    TRACE(hdr, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(type, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(k_value, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(cwb_red, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(cwb_green, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(cwb_blue, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(auto_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(auto_tungsten_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(daylight_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(cloudy_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(flu_w_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(flu_n_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(flu_d_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(tungsten_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(flash_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(cwb_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE(k_xy, kSource, ALG_LOG_LEVEL_YELLOW),
    TRACE_STYLE("color_style", color_style, kResult, ALG_LOG_LEVEL_CYAN),
    TRACE_STYLE("(off_color)cs_color_off_color", cs_color_off_color, kResult, ALG_LOG_LEVEL_CYAN),
    TRACE_COLOR_STYLE("(C1)", SM_COLOR_STYLE_C1, ALG_LOG_LEVEL_YELLOW),
    TRACE_COLOR_STYLE("(C4)", SM_COLOR_STYLE_C4, ALG_LOG_LEVEL_CYAN),
    TRACE(smart_filter, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(flash, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(flash_ev, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(af_mode, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(af_area, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(photosize, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(touch_af, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(selection_af_pos_x, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(selection_af_pos_y, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(selection_af_width, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(selection_af_height, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(selection_af_box_size, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(multi_af_pos_x, kCameraOnly, ALG_LOG_LEVEL_PLAIN),
    TRACE(multi_af_pos_y, kCameraOnly, ALG_LOG_LEVEL_PLAIN),
    TRACE(multi_af_width, kCameraOnly, ALG_LOG_LEVEL_PLAIN),
    TRACE(multi_af_height, kCameraOnly, ALG_LOG_LEVEL_PLAIN),
    TRACE(multi_af_box_size, kCameraOnly, ALG_LOG_LEVEL_PLAIN),
    TRACE(timer_time, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(timer_count, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(timer_interval, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(counti_h_frame, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(counti_n_frame, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(burst_frame, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(drive_set_conti, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(quality, kBoth, ALG_LOG_LEVEL_PLAIN),
    TRACE(bulb, kBoth, ALG_LOG_LEVEL_PLAIN),
};
static_assert(sizeof kTrace / sizeof kTrace[0] == 69, "each trace has 71 lines, two of them before the table");

// The same table as it is kept: what a line needs in four bytes, and the labels back to back.
constexpr size_t packed_labels_size() {
    size_t size = 0;
    for (const TraceLine& line : kTrace) {
        size += __builtin_strlen(line.label) + 1;
    }
    return size;
}

struct PackedTrace {
    struct Line {
        uint16_t offset;
        TraceForm form;
        uint8_t to_phone_level;
    };
    Line lines[sizeof kTrace / sizeof kTrace[0]];
    char labels[packed_labels_size()]; // in the order of the lines, with their NULs
};

constexpr PackedTrace packed(const TraceLine (&trace)[sizeof kTrace / sizeof kTrace[0]]) {
    PackedTrace packed = {};
    PackedTrace::Line* to = packed.lines;
    char* label = packed.labels;
    for (const TraceLine& line : trace) {
        *to++ = {line.offset, line.form, static_cast<uint8_t>(line.to_phone_level)};
        for (const char* from = line.label; *from != '\0'; ++from) {
            *label++ = *from;
        }
        ++label;
    }
    return packed;
}

constexpr PackedTrace kPackedTrace = packed(kTrace);

char* put_number(char* at, TraceNumber form, int32_t number) {
    if (form == kDecimal) {
        return put_decimal(at, number);
    }
    return form == kHexadecimal ? put_hexadecimal(at, static_cast<uint32_t>(number)) : at;
}

// Logs the trace of a conversion.
void log_trace(Direction direction, const void* source, const void* result) {
    const char* label = kPackedTrace.labels;
    for (const PackedTrace::Line& line : kPackedTrace.lines) {
        const TraceFormat& format = kTraceFormats[line.form][direction];
        const auto level = static_cast<alg_log_level>(direction == kToPhone ? line.to_phone_level : uint8_t{0});
        const int32_t second = word_at(result, line.offset);
        const int32_t first = format.result_first ? second : word_at(source, line.offset);
        char text[ALG_LOG_LINE_SIZE];
        char* const message = alg_log_begin(text, level);
        char* at = put_text(message, label);
        label += at - message + 1;
        at = put_number(format.before.put(at), format.first, first);
        at = put_number(format.between.put(at), format.second, second);
        alg_log_end(format.behind.put(at));
        print_line(log_site(LOG_SOURCE, level, __LINE__), __func__, text);
    }
}

void log_conversion_to_phone(const tag_custom_info& camera, const sm_tag_custom_info& phone) {
    ALG_LOG_YELLOW("*ShotMentor*\t  ADE_PRO_CreateProFilm \n");
    ALG_LOG_CYAN("*made_id :(0x%x)\n", static_cast<unsigned>(phone.made_id));
    log_trace(kToPhone, &camera, &phone);
}

void log_conversion_to_camera(const sm_tag_custom_info& phone, const tag_custom_info& camera) {
    ALG_LOG_GREEN("*ShotMentor*\t  ADE_PRO_CreateSysCustom \n");
    ALG_LOG_CYAN("*made_id :(0x%x)\n", static_cast<unsigned>(camera.made_id));
    log_trace(kToCamera, &phone, &camera);
}

template<class Record>
void log_identities(const Record& record) {
    ALG_LOG_PLAIN(
        "title : " TITLE_FORMAT " preset_num : %d custom_id : %d applocal_id : %d server_id : %d made_id : %d\n",
        record.title, record.preset_num, record.custom_id, record.applocal_id, record.server_id, record.made_id);
}

} // namespace

// ---- Camera to phone ------------------------------------------------------------------------------------------------

int ADE_ShotMentor_Conv2ProFilmStruct(const tag_custom_info* camera, sm_tag_custom_info* phone) {
    memcpy(phone, camera, sizeof *camera);
    LOG_LINE(kConverterSourceForManager, ALG_LOG_LEVEL_PLAIN,
             "tag_custom : %d => sm_tag_custom : %d title : " TITLE_FORMAT " custom_id : %d server_id : %d\n",
             static_cast<int>(sizeof *camera), static_cast<int>(sizeof *phone), phone->title, phone->custom_id,
             phone->server_id);
    log_identities(*phone);
    return SM_RETURN_TRUE;
}

void ADE_PRO_InitializeProFilm(const tag_custom_info* camera) {
    pro_sys_mode = ADE_PRO_GetSysMode(camera);
    pro_custom04_state = 0;
}

int ADE_PRO_Convert2ProFilmAV(int camera_code) {
    if (pro_sys_mode != SM_MODE_APERTURE && pro_sys_mode != SM_MODE_MANUAL) {
        return 0;
    }
    const int position = find(tKT7_APEX_AV, camera_code);
    return position < 0 ? 0 : tPRO_COMMON_AV[position];
}

int ADE_PRO_Convert2ProFilmTV(int camera_code) {
    if (pro_sys_mode != SM_MODE_SHUTTER && pro_sys_mode != SM_MODE_MANUAL) {
        return 0;
    }
    const int position = find(tKT7_APEX_TV, camera_code);
    return position < 0 ? 0 : position;
}

int ADE_PRO_Convert2ProFilmSV(int camera_code) {
    const int position = find(tKT7_APEX_SV, camera_code);
    return position < 0 ? 0 : tPRO_COMMON_SV[position];
}

int ADE_PRO_Convert2ProFilmSV_1_3(int camera_code) {
    const int position = find(tKT7_APEX_SV_1_3, camera_code);
    return position < 0 ? 0 : tPRO_COMMON_SV[position];
}

int ADE_PRO_Convert2ProFilmEV(int camera_index) {
    if (pro_sys_mode == SM_MODE_MANUAL) {
        return kNoCompensationManual;
    }
    if (camera_index < 0 || camera_index >= SM_EV_STEPS) {
        return kNoCompensation;
    }
    return tPRO_COMMON_EV[camera_index];
}

int ADE_PRO_Convert2ProFilmIsoStep(int iso, int iso_1_3) {
    const int third_steps = ADE_PRO_GetSysIsoStep();
    ALG_LOG_YELLOW("*IsoStep-state* : %d \n", third_steps);
    return third_steps == 1 ? iso_1_3 : iso;
}

void ADE_PRO_CreateProFilm(const tag_custom_info* camera, sm_tag_custom_info* phone) {
    ADE_ShotMentor_Conv2ProFilmStruct(camera, phone);
    ADE_PRO_SetModel();
    ADE_PRO_InitializeProFilm(camera);
    phone->mode = pro_sys_mode;
    phone->av_index = ADE_PRO_Convert2ProFilmAV(camera->av_index);
    phone->tv_index = ADE_PRO_Convert2ProFilmTV(camera->tv_index);
    phone->iso = ADE_PRO_Convert2ProFilmSV(camera->iso);
    phone->iso_1_3 = ADE_PRO_Convert2ProFilmSV_1_3(camera->iso_1_3);
    phone->ev_step = ADE_PRO_Convert2ProFilmEV(camera->ev_step);
    scale_colors(camera->cs_info.cs_color, phone->cs_info.cs_color, color_to_phone);
    phone->iso = ADE_PRO_Convert2ProFilmIsoStep(phone->iso, phone->iso_1_3);
    log_conversion_to_phone(*camera, *phone);
}

// ---- Phone to camera ------------------------------------------------------------------------------------------------

namespace {

// Up to which value of a phone scale to look in which part of its table. Neighbouring parts share a position.
struct SearchRange {
    int value_limit;
    int first;
    int last;
};

constexpr SearchRange kApertureRanges[] = {
    {24, 0, 15},  {40, 15, 31},  {56, 31, 47},   {72, 47, 63},
    {88, 63, 79}, {104, 79, 95}, {170, 95, 111}, {INT32_MAX, 111, 127},
};

constexpr SearchRange kSensitivityRanges[] = {
    {250, 0, 7},
    {1600, 7, 15},
    {10000, 15, 23},
    {INT32_MAX, 23, 30},
};

// The last range takes every value.
template<size_t count>
const SearchRange& range_of(const SearchRange (&ranges)[count], int value) {
    const SearchRange* range = ranges;
    while (value > range->value_limit) {
        ++range;
    }
    return *range;
}

// Returns the position that find_in_range finds, or 0: a failed search cannot be told from a match at position 0.
template<size_t count>
int search(const int32_t (&table)[count], int value, int first, int last) {
    const int position = find_in_range(table, value, first, last);
    return position < 0 ? 0 : position;
}

// Returns the position of tPRO_COMMON_AV that the camera has a code for and whose f-number is nearest.
int nearest_coded_aperture(int aperture) {
    return find_nearest(tPRO_COMMON_AV, aperture,
                        [](int position) { return tKT7_APEX_AV[position] != SM_STEP_MISSING; });
}

bool is_kt_made(int made_id) {
    return (made_id & SM_MADE_FAMILY) == SM_MADE_FAMILY_KT;
}

bool is_korvel_made(int made_id) {
    return (made_id & SM_MADE_MAKER) == SM_MADE_MAKER_KORVEL;
}

// Puts a preset into custom colour style C4, where its own colours cannot change a style of the camera's.
void force_style_c4(sm_cs_info& style) {
    style.color_style = SM_COLOR_STYLE_C4;
    style.cs_color_off_color = -1;
}

} // namespace

int ADE_ShotMentor_Conv2SysCustomStruct(const sm_tag_custom_info* phone, tag_custom_info* camera) {
    memcpy(camera, phone, sizeof *camera);
    LOG_LINE(kConverterSourceForManager, ALG_LOG_LEVEL_PLAIN,
             "sm_tag_custom : %d => tag_custom : %d title : " TITLE_FORMAT " custom_id : %d server_id : %d\n",
             static_cast<int>(sizeof *phone), static_cast<int>(sizeof *camera), camera->title, camera->custom_id,
             camera->server_id);
    log_identities(*camera);
    return SM_RETURN_TRUE;
}

void ADE_PRO_SetCustom04State(int color_style, int made_id) {
    const int kind = made_id & SM_MADE_KIND;
    if (kind < SM_MADE_KIND_C4) {
        pro_custom04_state = 0;
    } else if (kind == SM_MADE_KIND_C4 && color_style == SM_COLOR_STYLE_C4) {
        pro_custom04_state = 1;
    }
}

void ADE_PRO_InitializeSysCustom(tag_custom_info* camera) {
    pro_film_mode = camera->mode;
    pro_custom04_state = 0;
    ALG_LOG_YELLOW("*curSysInfo->made_id* : 0x%x \n", static_cast<unsigned>(camera->made_id));
    if (!is_kt_made(camera->made_id)) {
        force_style_c4(camera->cs_info);
        ALG_LOG_YELLOW("no KT => curSysInfo->cs_info.color_style : %d \n", camera->cs_info.color_style);
    } else if (is_korvel_made(camera->made_id) && camera->smart_filter != 0) {
        camera->made_id &= SM_MADE_LESS_KIND;
        ALG_LOG_YELLOW("korvel&smartfilter => *curSysInfo->made_id* : 0x%x \n", static_cast<unsigned>(camera->made_id));
    } else if (is_korvel_made(camera->made_id)) {
        force_style_c4(camera->cs_info);
        ALG_LOG_YELLOW("korvel made => curSysInfo->cs_info.color_style : %d \n", camera->cs_info.color_style);
    }
    ADE_PRO_SetCustom04State(camera->cs_info.color_style, camera->made_id);
}

int ADE_PRO_SearchCommonAV(int value, int first, int last) {
    return search(tPRO_COMMON_AV, value, first, last);
}

int ADE_PRO_SearchCommonSV(int value, int first, int last) {
    return search(tPRO_COMMON_SV, value, first, last);
}

int ADE_PRO_Convert2SysCustomAV(int phone_aperture) {
    if (pro_film_mode == SM_MODE_PROGRAM || pro_sys_mode == SM_MODE_SHUTTER) {
        return 0;
    }
    const SearchRange& range = range_of(kApertureRanges, phone_aperture);
    int position = ADE_PRO_SearchCommonAV(phone_aperture, range.first, range.last);
    ALG_LOG_PLAIN("(AV)search_val:(%d)\n", position);
    if (is_missing(tKT7_APEX_AV, position, SM_STEP_MISSING)) {
        // A position of AV_LUT, taken as one of tPRO_COMMON_AV. The two scales part at 102, and AV_LUT is longer.
        position = ADE_PRO_ConvertApproxAV(phone_aperture);
    }
    if (position >= SM_AV_STEPS) {
        position = nearest_coded_aperture(phone_aperture);
    }
    return entry_or_first(tKT7_APEX_AV, position);
}

int ADE_PRO_Convert2SysCustomTV(int phone_position) {
    if (pro_film_mode == SM_MODE_PROGRAM || pro_film_mode == SM_MODE_APERTURE) {
        return 0;
    }
    int position = phone_position;
    if (is_missing(tKT7_APEX_TV, position, SM_STEP_MISSING)) {
        position = ADE_PRO_ConvertApproxTV(position);
    }
    return tKT7_APEX_TV[clamped(position, SM_TV_STEPS)];
}

int ADE_PRO_Convert2SysCustomSV(int phone_iso) {
    const SearchRange& range = range_of(kSensitivityRanges, phone_iso);
    int position = ADE_PRO_SearchCommonSV(phone_iso, range.first, range.last);
    if (is_missing(tKT7_APEX_SV, position, SM_STEP_MISSING_SIGNED)) {
        // The approximation is asked with the ISO number, not with its position, and answers automatic.
        position = ADE_PRO_ConvertApproxSV(phone_iso);
    }
    return tKT7_APEX_SV[clamped(position, SM_SV_STEPS)];
}

int ADE_PRO_Convert2SysCustomSV_1_3(int phone_position) {
    int position = phone_position;
    if (is_missing(tKT7_APEX_SV_1_3, position, SM_STEP_MISSING_SIGNED)) {
        position = ADE_PRO_ConvertApproxSV_1_3step(position);
    }
    return entry_or_first(tKT7_APEX_SV_1_3, position);
}

int ADE_PRO_Convert2SysCustomEV(int phone_code) {
    int position = phone_code;
    if (is_missing(tKT7_APEX_EV_1_3, position, SM_STEP_MISSING_SIGNED)) {
        position = ADE_PRO_ConvertApproxEV(position);
    }
    return entry_or_first(tKT7_APEX_EV_1_3, position);
}

void ADE_PRO_CreateSysCustom(const sm_tag_custom_info* phone, tag_custom_info* camera) {
    ADE_ShotMentor_Conv2SysCustomStruct(phone, camera);
    ADE_PRO_SetModel();
    ADE_PRO_InitializeSysCustom(camera);
    camera->av_index = ADE_PRO_Convert2SysCustomAV(phone->av_index);
    camera->tv_index = ADE_PRO_Convert2SysCustomTV(phone->tv_index);
    camera->iso = ADE_PRO_Convert2SysCustomSV(phone->iso);
    camera->iso_1_3 = ADE_PRO_Convert2SysCustomSV_1_3(phone->iso_1_3);
    camera->ev_step = ADE_PRO_Convert2SysCustomEV(phone->ev_step);
    if (!is_kt_made(phone->made_id) && phone->k_value != 0) {
        camera->type = SM_WHITE_BALANCE_KELVIN;
    }
    scale_colors(phone->cs_info.cs_color, camera->cs_info.cs_color, color_to_camera);
    log_conversion_to_camera(*phone, *camera);
}
