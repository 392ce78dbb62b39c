// The requests of a phone, by name.
#pragma once

#include <vector>

#include "Message.h"

Bytes state_off_request(int32_t code);
Bytes list_request();
Bytes picture_request(int32_t custom_id, int32_t applocal_id);
Bytes store_request(const sm_tag_custom_info& preset, const Bytes& picture);
Bytes update_request(const sm_tag_custom_info& preset);
Bytes delete_request(const std::vector<sm_delete_pair>& pairs);
Bytes state_on_request();
