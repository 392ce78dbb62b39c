// Hands each request over in three packets, cut at every pair of positions, and expects what it leads to as one packet.
// These are some hundred thousand conversations: too many for a host that writes a transcript.
#include <initializer_list>
#include <string>

#include "FuzzHost.h"
#include "Lab/LibraryHeap.h"

namespace {

using fuzz::Bytes;
using fuzz::heard;
using fuzz::script;

constexpr size_t filled_size = 32768; // of a new block: every reply, not all of a request's 600000

void append(Bytes& to, const void* data, size_t size) {
    const auto* const first = static_cast<const uint8_t*>(data);
    to.insert(to.end(), first, first + size);
}

void append(Bytes& to, std::initializer_list<int32_t> words) {
    for (const int32_t word : words) {
        append(to, &word, sizeof word);
    }
}

Bytes request(int32_t function, const Bytes& payload = {}) {
    Bytes bytes;
    append(bytes, {function, 8 + static_cast<int32_t>(payload.size())});
    append(bytes, payload.data(), payload.size());
    return bytes;
}

Bytes words(std::initializer_list<int32_t> values) {
    Bytes bytes;
    append(bytes, values);
    return bytes;
}

// Bytes that are told apart by their position, with a preset of custom id 3 in front.
Bytes preset_with(size_t behind) {
    sm_tag_custom_info preset = {};
    std::strcpy(preset.title, "Evening at the sea");
    preset.mode = 2;
    preset.av_index = 56;
    preset.custom_id = 3;
    preset.made_id = 0x44;
    Bytes bytes;
    append(bytes, &preset, sizeof preset);
    for (size_t position = 0; position < behind; ++position) {
        bytes.push_back(static_cast<uint8_t>(position % 251));
    }
    return bytes;
}

struct Named {
    const char* name;
    Bytes request;
};

std::vector<Named> requests() {
    return {{"link state off", request(0, words({-10}))},
            {"list", request(1)},
            {"picture", request(2, words({3, 8}))},
            {"store", request(3, preset_with(100))},
            {"store with too short a picture", request(3, preset_with(99))},
            {"update", request(4, preset_with(0))},
            {"deletion", request(5, words({0, 101, 2, 103}))},
            {"link state on", request(255, Bytes(5, 7))},
            {"a number that nobody serves", request(200, words({1}))}};
}

void set_up() {
    fuzz::start_over();
    script.stored = script.reported_count = 3;
    for (int number = 0; number < script.stored; ++number) {
        script.records[number].preset_num = number;
        script.records[number].custom_id = 101 + number;
    }
    script.known = fuzz::Script::all;
    script.found.custom_id = 3;
}

// All that the last request has led to, in one piece.
Bytes outcome(int result) {
    Bytes all = words({result, heard.dispatches, heard.listed, heard.linked_asked});
    append(all, heard.dispatched.data(), heard.dispatched.size());
    for (const std::vector<int>* const numbers : {&heard.states, &heard.asked_ids}) {
        append(all, numbers->data(), numbers->size() * sizeof(int));
    }
    for (const fuzz::Sent& sent : heard.sent) {
        append(all, {sent.length});
        append(all, sent.bytes.data(), sent.bytes.size());
    }
    for (const fuzz::Saved& saved : heard.saved) {
        append(all, {saved.length});
        append(all, &saved.record, sizeof saved.record);
        append(all, saved.bytes.data(), saved.bytes.size());
    }
    for (const fuzz::Updated& updated : heard.updated) {
        append(all, {updated.custom_id, updated.server_id});
        append(all, updated.title.data(), updated.title.size());
    }
    for (const std::vector<int>& flags : heard.deleted) {
        append(all, flags.data(), flags.size() * sizeof(int));
    }
    return all;
}

// What a request leads to when its packets end at these positions.
Bytes converse(const Bytes& request, std::initializer_list<size_t> ends) {
    heard = {};
    size_t first = 0;
    int result = SM_RETURN_FAIL;
    for (const size_t end : ends) {
        PROMISE(heard.dispatches == 0);
        result = ADE_ShotMentor_Receive_Manager(request.data() + first, static_cast<int>(end - first));
        first = end;
    }
    PROMISE(sm_BT_total_length == -1 && shotmentor_p_ReceiveData == nullptr);
    PROMISE(library_heap::blocks() == heard.sent.size());
    for (size_t left = heard.sent.size(); left > 0; --left) {
        PROMISE(ADE_ShotMentor_Result_Manager(nullptr, 0) == SM_RETURN_TRUE);
    }
    PROMISE(library_heap::blocks() == 0 && library_heap::overruns() == 0);
    return outcome(result);
}

int split(const Bytes& request) {
    int splits = 0;
    const size_t size = request.size();
    const Bytes whole = converse(request, {size});
    PROMISE(heard.dispatches == 1);
    for (size_t second = 1; second < size; ++second) {
        for (size_t first = 1; first < second; ++first) {
            PROMISE(converse(request, {first, second, size}) == whole);
            ++splits;
        }
    }
    return splits;
}

} // namespace

int main() {
    fuzz::silence_standard_error();
    library_heap::fill_at_most(filled_size);
    for (const Named& entry : requests()) {
        set_up();
        std::printf("%s: %d splits\n", entry.name, split(entry.request));
    }
    return 0;
}
