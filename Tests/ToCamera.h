// What the tests of the conversion to the camera share: presets of the phone, and their conversion under a known state.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Conversion.h"

// A preset that the camera itself made, without a smart filter, in the mode that sets everything.
inline sm_tag_custom_info plain_phone() {
    sm_tag_custom_info phone{};
    std::strcpy(phone.title, "Plain");
    phone.mode = 4;
    phone.tv_index = 58; // code 0
    phone.custom_id = 1;
    phone.made_id = 0x44;
    return phone;
}

class ToCamera : public testing::Test {
  protected:
    void SetUp() override { set_conversion_state(2, 0, 0, 0); }
    void TearDown() override { set_conversion_state(0, 0, 0, 0); }

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

// The line with which the conversion of an aperture begins.
inline std::string search_line(int position) {
    return "PLAIN ALG_SM (AV)search_val:(" + std::to_string(position) + ")";
}
