#include "Identities.h"

#include <cstddef>
#include <utility>

#include "Boundaries.h"
#include "Wire/Frames.h"

namespace desk::capture {
namespace {

// Many times what a camera holds at a time: presets that are gone are still asked for.
constexpr size_t most_known = 4096;

constexpr size_t header_size = sizeof(sm_frame);

} // namespace

void Identities::learn(int32_t id_before, Known known) {
    if (const auto old = known_.find(id_before); old != known_.end()) {
        if (known.title.empty()) {
            known.title = old->second.title;
        }
        old->second = std::move(known);
        return;
    }
    if (order_.size() == most_known) {
        known_.erase(order_.front());
        order_.pop_front();
    }
    known_.emplace(id_before, std::move(known));
    order_.push_back(id_before);
}

const Identities::Known* Identities::find(int32_t id_before) const {
    const auto known = known_.find(id_before);
    return known == known_.end() ? nullptr : &known->second;
}

int32_t Identities::now(int32_t id_before) const {
    const Known* const known = find(id_before);
    return known == nullptr ? id_before : known->id_now;
}

Bytes Identities::translated(std::span<const uint8_t> request) const {
    Bytes bytes(request.begin(), request.end());
    if (bytes.size() < header_size) {
        return bytes;
    }
    switch (function_of(bytes)) {
    case SM_FUNCTION_SEND_PRESET:
        translate_word(bytes, header_size);
        break;
    case SM_FUNCTION_UPDATE_PRESET:
        translate_word(bytes, header_size + offsetof(sm_tag_custom_info, custom_id));
        break;
    case SM_FUNCTION_DELETE_PRESET:
        translate_pairs(std::span(bytes).subspan(header_size));
        break;
    default:
        break;
    }
    return bytes;
}

// One that a request was cut off before stays away.
void Identities::translate_word(std::span<uint8_t> request, size_t offset) const {
    if (request.size() >= offset + sizeof(int32_t)) {
        put_word(request, offset, now(get_word(request, offset)));
    }
}

// A number that was not the preset's is sent as it was: the camera may be meant to find that out.
void Identities::translate_pairs(std::span<uint8_t> pairs) const {
    constexpr size_t pair = sizeof(sm_delete_pair);
    constexpr size_t id_in_pair = offsetof(sm_delete_pair, del_id);
    for (size_t at = 0; at + pair <= pairs.size(); at += pair) {
        const Known* const known = find(get_word(pairs, at + id_in_pair));
        if (known == nullptr) {
            continue;
        }
        put_word(pairs, at + id_in_pair, known->id_now);
        if (get_word(pairs, at) == known->number_before) {
            put_word(pairs, at, known->number_now);
        }
    }
}

} // namespace desk::capture
