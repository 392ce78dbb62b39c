#include "Requests.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

Bytes state_off_request(int32_t code) {
    return request(SM_FUNCTION_STATE_OFF, words({code}));
}

Bytes list_request() {
    return request(SM_FUNCTION_SEND_LIST);
}

Bytes picture_request(int32_t custom_id, int32_t applocal_id) {
    return request(SM_FUNCTION_SEND_PRESET, words({custom_id, applocal_id}));
}

Bytes store_request(const sm_tag_custom_info& preset, const Bytes& picture) {
    return request(SM_FUNCTION_RECEIVE_PRESET, image(preset) + picture);
}

Bytes update_request(const sm_tag_custom_info& preset) {
    return request(SM_FUNCTION_UPDATE_PRESET, image(preset));
}

Bytes delete_request(const std::vector<sm_delete_pair>& pairs) {
    Bytes payload;
    for (const sm_delete_pair& pair : pairs) {
        payload = std::move(payload) + image(pair);
    }
    return request(SM_FUNCTION_DELETE_PRESET, payload);
}

Bytes state_on_request() {
    return request(SM_FUNCTION_STATE_ON);
}

namespace {

sm_tag_custom_info preset_of_phone(int32_t custom_id) {
    constexpr char title[] = "A title of fifty-two characters, which has no NUL...";
    sm_tag_custom_info preset = {};
    static_assert(sizeof title == sizeof preset.title + 1);
    std::memcpy(preset.title, title, sizeof preset.title);
    preset.mode = 4;
    preset.av_index = 900;
    preset.custom_id = custom_id;
    return preset;
}

const Bytes too_short = pattern(20); // for a record

} // namespace

const std::vector<NamedRequest>& every_request() {
    static const std::vector<NamedRequest> all = {
        {"link state off", state_off_request(SM_RETURN_TRUE), SM_RETURN_TRUE, 1, 0},
        {"link state off with an error", state_off_request(SM_RETURN_BT_RES_ERR), SM_RETURN_TRUE, 1, 0},
        {"link state off with an unknown code", state_off_request(7), SM_RETURN_FAIL, 1, 0},
        {"link state off without a code", request(SM_FUNCTION_STATE_OFF), SM_RETURN_FAIL, 1, 0},
        {"link state on", state_on_request(), SM_RETURN_FAIL, 1, 0},
        {"a number that nobody serves", request(200, words({1})), SM_RETURN_FAIL, 0, 0},
        {"list", list_request(), SM_RETURN_TRUE, 6, 1},
        {"picture", picture_request(100, 5), SM_RETURN_TRUE, 2, 1},
        {"picture of identity 0", picture_request(0, 5), SM_RETURN_TRUE, 1, 1},
        {"picture of identity -1", picture_request(-1, 5), SM_RETURN_TRUE, 1, 1},
        {"picture of an unknown preset", picture_request(77, 5), SM_RETURN_TRUE, 2, 1},
        {"picture without an identity", request(SM_FUNCTION_SEND_PRESET), SM_RETURN_TRUE, 1, 1},
        {"store", store_request(preset_of_phone(6), pattern(100)), SM_RETURN_TRUE, 2, 1},
        {"store with too short a picture", store_request(preset_of_phone(6), pattern(99)), SM_RETURN_JPG_ERR, 1, 1},
        {"store with too short a record", request(SM_FUNCTION_RECEIVE_PRESET, too_short), SM_RETURN_JPG_ERR, 1, 1},
        {"update", update_request(preset_of_phone(100)), SM_RETURN_TRUE, 2, 1},
        {"update of a negative identity", update_request(preset_of_phone(-1)), SM_RETURN_DATA_ERR, 1, 1},
        {"update with too short a record", request(SM_FUNCTION_UPDATE_PRESET, too_short), SM_RETURN_STRUCT_ERR, 1, 1},
        {"deletion of one", delete_request({{0, 100}}), SM_RETURN_TRUE, 8, 1},
        {"deletion of a preset in use", delete_request({{1, 101}}), SM_RETURN_OPENED_ERR, 8, 1},
        {"deletion of all", delete_request({{2, 102}, {1, 101}, {0, 100}}), SM_RETURN_OPENED_ERR, 10, 1},
        {"deletion of nothing", delete_request({}), SM_RETURN_DATA_ERR, 1, 1},
        {"deletion of number 40", delete_request({{0, 100}, {40, 101}}), SM_RETURN_STRUCT_ERR, 3, 1},
        {"deletion of number -1", delete_request({{-1, 100}}), SM_RETURN_STRUCT_ERR, 2, 1},
        {"deletion of identity 0", delete_request({{0, 0}}), SM_RETURN_STRUCT_ERR, 2, 1},
        {"deletion of an unknown identity", delete_request({{0, 100}, {1, 77}}), SM_RETURN_STRUCT_ERR, 3, 1},
    };
    return all;
}

const Bytes& request_named(const char* name) {
    for (const NamedRequest& entry : every_request()) {
        if (std::strcmp(entry.name, name) == 0) {
            return entry.bytes;
        }
    }
    std::fprintf(stderr, "no request is named %s\n", name);
    std::abort();
}
