#include "Requests.h"

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
