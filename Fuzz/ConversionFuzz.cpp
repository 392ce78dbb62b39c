// Any record in both directions, under every model code and whatever an earlier conversion left behind. What is
// promised of every field is checked against rules of its own.

#include <climits>

#include "FuzzHost.h"

namespace {

using fuzz::Input;

template<size_t count>
bool holds(const int32_t (&table)[count], int32_t value) {
    return std::find(std::begin(table), std::end(table), value) != std::end(table);
}

// Colours by their rules, in 32 bits that wrap.
int32_t color_for_phone(int32_t camera) {
    const auto scaled = static_cast<int32_t>(static_cast<uint32_t>(camera) << 8);
    return scaled <= 198 ? 0 : scaled >= 256 * 199 ? 255 : scaled / 199;
}

int32_t color_for_camera(int32_t phone) {
    const auto scaled = static_cast<int32_t>(200U * static_cast<uint32_t>(phone)) >> 8;
    return std::clamp(scaled, 0, 200);
}

void check_colors(const sm_color (&from)[SM_COLOR_TRIPLES], const sm_color (&to)[SM_COLOR_TRIPLES],
                  int32_t (*rule)(int32_t), int32_t highest) {
    const auto check = [&](int32_t source, int32_t result) {
        PROMISE(result == rule(source));
        PROMISE(result >= 0 && result <= highest);
    };
    for (size_t style = 0; style < SM_COLOR_TRIPLES; ++style) {
        check(from[style].cs_color_r, to[style].cs_color_r);
        check(from[style].cs_color_g, to[style].cs_color_g);
        check(from[style].cs_color_b, to[style].cs_color_b);
    }
}

// All bytes of both records but those of the fields that a conversion re-encodes.
template<class Record>
tag_custom_info common_part(const Record& record) {
    tag_custom_info common;
    std::memcpy(&common, &record, sizeof common);
    common.mode = common.av_index = common.tv_index = common.iso = common.iso_1_3 = common.ev_step = 0;
    std::memset(common.cs_info.cs_color, 0, sizeof common.cs_info.cs_color);
    return common;
}

void check_state() {
    PROMISE(gADE_PRO_model == SM_CAMERA_KT7 && ADE_PRO_GetModel() == SM_CAMERA_KT7);
    PROMISE(pro_custom04_state == 0 || pro_custom04_state == 1);
    PROMISE(ADE_PRO_GetEnable_Custom04() == pro_custom04_state);
}

// What an exposure field of the phone may hold in a mode.
void check_phone_exposure(const tag_custom_info& camera, const sm_tag_custom_info& phone) {
    const int mode = camera.mode == 5 ? 4 : camera.mode < 0 || camera.mode > 5 ? 1 : camera.mode;
    PROMISE(phone.mode == mode && pro_sys_mode == mode);
    PROMISE(holds(tPRO_COMMON_AV, phone.av_index));
    PROMISE(mode == 2 || mode == 4 || phone.av_index == 0);
    PROMISE(phone.tv_index >= 0 && phone.tv_index < SM_TV_STEPS);
    PROMISE(mode == 3 || mode == 4 || phone.tv_index == 0);
    PROMISE(phone.tv_index == 0 || tKT7_APEX_TV[phone.tv_index] == camera.tv_index);
    PROMISE(holds(tPRO_COMMON_SV, phone.iso) && holds(tPRO_COMMON_SV, phone.iso_1_3));
    PROMISE(fuzz::script.iso_step == 1 || phone.iso == phone.iso_1_3);
    const bool in_scale = camera.ev_step >= 0 && camera.ev_step <= 30;
    PROMISE(phone.ev_step == (mode == 4 ? 15 : in_scale ? tPRO_COMMON_EV[camera.ev_step] : 50));
}

void to_phone(const tag_custom_info& camera, sm_tag_custom_info& phone) {
    const tag_custom_info before = camera;
    const int32_t linked = phone.linked_custom_mode;
    const int film_mode = pro_film_mode;
    ADE_PRO_CreateProFilm(&camera, &phone);
    PROMISE(std::memcmp(&before, &camera, sizeof camera) == 0);
    PROMISE(phone.linked_custom_mode == linked);
    PROMISE(pro_film_mode == film_mode && pro_custom04_state == 0);
    check_state();
    const tag_custom_info source = common_part(camera);
    const tag_custom_info result = common_part(phone);
    PROMISE(std::memcmp(&source, &result, sizeof source) == 0);
    check_phone_exposure(camera, phone);
    check_colors(camera.cs_info.cs_color, phone.cs_info.cs_color, color_for_phone, 255);
}

// The fields that the preset's origin changes on the way to the camera.
void apply_origin(const sm_tag_custom_info& phone, tag_custom_info& expected) {
    const bool kt = (phone.made_id & 0xF0) == 0x40;
    const bool korvel = (phone.made_id & 0xF00) == 0x100;
    if (kt && korvel && phone.smart_filter != 0) {
        expected.made_id = phone.made_id & 0xFFF0;
    } else if (!kt || korvel) {
        expected.cs_info.color_style = 13;
        expected.cs_info.cs_color_off_color = -1;
    }
    if (!kt && phone.k_value != 0) {
        expected.type = 10;
    }
}

void check_camera_exposure(const sm_tag_custom_info& phone, const tag_custom_info& camera) {
    PROMISE(camera.mode == phone.mode && pro_film_mode == phone.mode);
    PROMISE(holds(tKT7_APEX_AV, camera.av_index) && camera.av_index != SM_STEP_MISSING);
    PROMISE((phone.mode != 1 && pro_sys_mode != 3) || camera.av_index == 0);
    PROMISE(holds(tPRO_COMMON_AV, phone.av_index) || camera.av_index == 0);
    PROMISE((phone.mode == 1 || phone.mode == 2)
                ? camera.tv_index == 0
                : holds(tKT7_APEX_TV, camera.tv_index) && camera.tv_index != SM_STEP_MISSING);
    PROMISE(holds(tKT7_APEX_SV, camera.iso) && camera.iso != SM_STEP_MISSING_SIGNED);
    PROMISE(holds(tKT7_APEX_SV_1_3, camera.iso_1_3) && camera.iso_1_3 != SM_STEP_MISSING_SIGNED);
    PROMISE(camera.ev_step >= 0 && camera.ev_step <= 30);
}

void to_camera(const sm_tag_custom_info& phone, tag_custom_info& camera) {
    const sm_tag_custom_info before = phone;
    const int sys_mode = pro_sys_mode;
    ADE_PRO_CreateSysCustom(&phone, &camera);
    PROMISE(std::memcmp(&before, &phone, sizeof phone) == 0);
    PROMISE(pro_sys_mode == sys_mode);
    check_state();
    tag_custom_info expected = common_part(phone);
    apply_origin(phone, expected);
    const tag_custom_info result = common_part(camera);
    PROMISE(std::memcmp(&expected, &result, sizeof result) == 0);
    PROMISE(pro_custom04_state == ((camera.made_id & 0xF) == 4 && camera.cs_info.color_style == 13 ? 1 : 0));
    check_camera_exposure(phone, camera);
    check_colors(phone.cs_info.cs_color, camera.cs_info.cs_color, color_for_camera, 200);
}

bool in_scale(int position, int count) {
    return position >= 0 && position < count;
}

// The approximations and searches, called directly under any model code.
void approximate(Input& input) {
    gADE_PRO_model = input.flag() ? input.below(4) - 1 : input.word();
    const bool known = gADE_PRO_model >= 0 && gADE_PRO_model <= 2;
    const int value = input.number();
    const int tv = ADE_PRO_ConvertApproxTV(value);
    const int av = ADE_PRO_ConvertApproxAV(value);
    const int ev = ADE_PRO_ConvertApproxEV(value);
    const bool fixed = value >= 103 && value <= 107; // whatever the model
    PROMISE(known || fixed ? in_scale(tv, SM_TV_STEPS) : tv == -1);
    PROMISE(known ? in_scale(av, SM_AV_LUT_STEPS) : av == -1);
    PROMISE(known ? in_scale(ev, SM_EV_CODES) : ev == -1);
    for (const int sv : {ADE_PRO_ConvertApproxSV(value), ADE_PRO_ConvertApproxSV_1_3step(value)}) {
        PROMISE(in_scale(sv, SM_SV_STEPS));
        PROMISE((known && in_scale(value, SM_SV_STEPS)) || sv == 0);
    }
    const int first = input.number();
    const int last = input.number();
    const int found_av = ADE_PRO_SearchCommonAV(value, first, last);
    const int found_sv = ADE_PRO_SearchCommonSV(value, first, last);
    PROMISE(found_av == 0 || (found_av >= first && found_av <= last && tPRO_COMMON_AV[found_av] == value));
    PROMISE(found_sv == 0 || (found_sv >= first && found_sv <= last && tPRO_COMMON_SV[found_sv] == value));
    pro_film_mode = input.number();
    pro_sys_mode = input.number();
    PROMISE(holds(tKT7_APEX_AV, ADE_PRO_Convert2SysCustomAV(value)));
    const int tv_code = ADE_PRO_Convert2SysCustomTV(value);
    PROMISE(tv_code == 0 || holds(tKT7_APEX_TV, tv_code));
    PROMISE(holds(tKT7_APEX_SV, ADE_PRO_Convert2SysCustomSV(value)));
    PROMISE(holds(tKT7_APEX_SV_1_3, ADE_PRO_Convert2SysCustomSV_1_3(value)));
    PROMISE(holds(tKT7_APEX_EV_1_3, ADE_PRO_Convert2SysCustomEV(value)));
}

// Exposure fields near the values of their scales; the rest of the record as it came.
template<class Record>
void tune(Input& input, Record& record) {
    const auto entry = [&](const auto& table) {
        return input.flag() ? table[static_cast<size_t>(input.byte()) % std::size(table)] : input.number();
    };
    record.mode = input.flag() ? input.below(7) - 1 : input.number();
    record.av_index = input.flag() ? entry(tPRO_COMMON_AV) : entry(tKT7_APEX_AV);
    record.tv_index = input.flag() ? input.below(112) - 1 : entry(tKT7_APEX_TV);
    record.iso = input.flag() ? entry(tPRO_COMMON_SV) : entry(tKT7_APEX_SV);
    record.iso_1_3 = input.flag() ? input.below(33) - 1 : entry(tKT7_APEX_SV_1_3);
    record.ev_step = input.flag() ? input.below(103) - 1 : input.number();
    const int maker = 0x100 * input.below(3);
    record.made_id = input.flag() ? maker + input.byte() : input.word();
    record.smart_filter = input.below(3);
    record.k_value = input.flag() ? 0 : input.number();
    for (sm_color& color : record.cs_info.cs_color) {
        color.cs_color_r = input.number();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::silence_standard_error();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    fuzz::start_over();
    constexpr int most_conversions = 8;
    for (int count = 0; count < most_conversions && !input.empty(); ++count) {
        gADE_PRO_model = input.number();
        pro_custom04_state = input.number();
        fuzz::script.iso_step = input.number();
        const int kind = input.below(4);
        if (kind == 3) {
            pro_film_mode = input.number();
            pro_sys_mode = input.number();
        }
        sm_tag_custom_info phone = {};
        tag_custom_info camera = {};
        if (kind == 0) {
            tune(input, camera);
            phone.linked_custom_mode = input.number();
            to_phone(camera, phone);
        } else if (kind == 1) {
            tune(input, phone);
            to_camera(phone, camera);
        } else if (kind == 2) {
            phone = input.record<sm_tag_custom_info>();
            to_camera(phone, camera);
            to_phone(camera, phone);
        } else {
            approximate(input);
        }
    }
    return 0;
}
