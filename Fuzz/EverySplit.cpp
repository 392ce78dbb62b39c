// Hands each request over in three packets, cut at every pair of positions, and expects what it leads to as one packet.
// These are over a million conversations: too many for a host that writes a transcript.
#include "FuzzHost.h"
#include "Lab/LibraryHeap.h"
#include "Requests.h"

namespace {

using fuzz::heard;
using fuzz::script;

constexpr size_t filled_size = 32768; // of a new block: every reply, not all of a request's 600000

// The camera that every_request() speaks of.
void set_up() {
    fuzz::start_over();
    script.stored = script.reported_count = 3;
    for (int number = 0; number < script.stored; ++number) {
        script.records[number].preset_num = number;
        script.records[number].custom_id = 100 + number;
    }
    script.linked[0] = script.linked[2] = 1;
    script.known = fuzz::Script::stored_ids;
    script.found = script.records[0];
}

template<class Values>
void append_all(Bytes& to, const Values& values) {
    const auto* const first = reinterpret_cast<const unsigned char*>(values.data());
    to.insert(to.end(), first, first + values.size() * sizeof *values.data());
}

// All that the last request has led to, in one piece.
Bytes outcome(int result) {
    Bytes all = words({result, heard.dispatches, heard.listed, heard.linked_asked});
    append_all(all, heard.dispatched);
    append_all(all, heard.states);
    append_all(all, heard.asked_ids);
    for (const fuzz::Sent& sent : heard.sent) {
        append_all(all, words({sent.length}));
        append_all(all, sent.bytes);
    }
    for (const fuzz::Saved& saved : heard.saved) {
        append_all(all, words({saved.length}));
        append_all(all, image(saved.record));
        append_all(all, saved.bytes);
    }
    for (const fuzz::Updated& updated : heard.updated) {
        append_all(all, words({updated.custom_id, updated.server_id}));
        append_all(all, updated.title);
    }
    for (const std::vector<int>& flags : heard.deleted) {
        append_all(all, flags);
    }
    return all;
}

// What a request leads to when its packets end at these positions.
Bytes converse(const Bytes& request, const std::vector<size_t>& ends) {
    heard = {};
    int result = SM_RETURN_FAIL;
    in_packets(request, ends, [&](size_t first, size_t end) {
        PROMISE(heard.dispatches == 0);
        result = ADE_ShotMentor_Receive_Manager(request.data() + first, static_cast<int>(end - first));
    });
    PROMISE(sm_BT_total_length == -1 && shotmentor_p_ReceiveData == nullptr);
    PROMISE(library_heap::blocks() == heard.sent.size());
    for (size_t left = heard.sent.size(); left > 0; --left) {
        PROMISE(ADE_ShotMentor_Result_Manager(nullptr, 0) == SM_RETURN_TRUE);
    }
    PROMISE(library_heap::blocks() == 0 && library_heap::overruns() == 0);
    return outcome(result);
}

int split(const NamedRequest& entry) {
    int splits = 0;
    const Bytes whole = converse(entry.bytes, {});
    PROMISE(heard.dispatches == 1 && heard.sent.size() == entry.replies && word_at(whole, 0) == entry.result);
    for (size_t second = 1; second < entry.bytes.size(); ++second) {
        for (size_t first = 1; first < second; ++first) {
            PROMISE(converse(entry.bytes, {first, second}) == whole);
            ++splits;
        }
    }
    return splits;
}

} // namespace

int main() {
    fuzz::silence_standard_error();
    library_heap::fill_at_most(filled_size);
    for (const NamedRequest& entry : every_request()) {
        set_up();
        std::printf("%s: %d splits\n", entry.name, split(entry));
    }
    return 0;
}
