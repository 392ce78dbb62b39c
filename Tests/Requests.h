// The requests of a phone, by name; one of each kind for every test that cuts or fails them; and the cutting.
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

// A request and what comes of it at a camera that stores the custom ids 100 to 102 under the numbers 0 to 2, of which
// CUSTOM1 uses number 1.
struct NamedRequest {
    const char* name;
    Bytes bytes;
    int result;
    size_t service_calls; // but for the question for the ISO steps, which each record of a list asks once
    size_t replies;
};

// Each kind of request, in the forms that are served and in those that are refused.
const std::vector<NamedRequest>& every_request();

// The bytes of one of them.
const Bytes& request_named(const char* name);

// Cuts a request into packets that end at these positions, and a last one: calls hand_over(first, end) for each.
template<class HandOver>
void in_packets(const Bytes& request, const std::vector<size_t>& ends, HandOver hand_over) {
    size_t first = 0;
    for (const size_t end : ends) {
        hand_over(first, end);
        first = end;
    }
    hand_over(first, request.size());
}
