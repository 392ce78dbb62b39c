// Whole conversations: packets cut anywhere, confirmations, services that answer anything, refused allocations and
// dropped links, made up from the input's bytes. The model says before each step what must come out of it.
#include <string>

#include "ConversationModel.h"
#include "Lab/LibraryHeap.h"
#include "Pictures.h"

namespace {

using fuzz::Input;
using fuzz::Model;
using fuzz::script;

constexpr int most_steps = 30;
constexpr int32_t unserved_function = 6;
constexpr int64_t most_bytes_of_a_run = 1000000; // keeps a run short
constexpr size_t filled_size = 32768; // of a new block: every reply without a picture, not all of a request's 600000

// ---- One run --------------------------------------------------------------------------------------------------------

class Conversation {
  public:
    explicit Conversation(Input& input) : input_(input) {}

    void run() {
        for (int step = 0; step < most_steps && bytes_ < most_bytes_of_a_run && !input_.empty(); ++step) {
            take_step();
        }
        model_.give_back();
    }

  private:
    void take_step() {
        switch (input_.below(16)) {
        default:
            return send_request(payload());
        case 8:
            return send_announcing();
        case 9:
            return packet(input_.bytes(input_.size_below(2000)));
        case 10:
            return model_.confirm();
        case 11:
            return answer_list();
        case 12:
            return answer_others();
        case 13: {
            const int nth = input_.below(8);
            return model_.refuse(nth, input_.flag());
        }
        case 14:
            return rarely();
        case 15:
            return set_pictures();
        }
    }

    void rarely() {
        switch (input_.below(5)) {
        case 0:
            return model_.drop_link();
        case 1: { // a length that no packet has
            const int32_t length = input_.number();
            return model_.receive(memory({}), length < 0 ? length : 0);
        }
        case 2:
            return combine();
        case 3:
            return flood();
        default:
            for (int confirmations = input_.below(16); confirmations > 0; --confirmations) {
                model_.confirm();
            }
        }
    }

    // At least 8 bytes are readable, and not one more than the packet has.
    static Bytes memory(const Bytes& packet) {
        Bytes exact(std::max<size_t>(packet.size(), 8));
        std::copy(packet.begin(), packet.end(), exact.begin());
        exact.shrink_to_fit();
        return exact;
    }

    void packet(const Bytes& packet) {
        bytes_ += static_cast<int64_t>(packet.size());
        model_.receive(memory(packet), static_cast<int>(packet.size()));
    }

    void combine() {
        const int32_t length = input_.number();
        const int bounded = std::min(length, 3000);
        model_.combine(memory(input_.bytes(static_cast<size_t>(std::max(bounded, 0)))), bounded);
    }

    // Long packets, as many as it takes to reach the end of the buffer.
    void flood() {
        const int count = 1 + input_.below(3);
        const uint8_t value = input_.byte();
        for (int k = 0; k < count; ++k) {
            packet(Bytes(200000 + static_cast<size_t>(input_.byte()), value));
        }
    }

    // Cut where the input says; an empty piece is refused and disturbs nothing.
    void send_in_pieces(const Bytes& request) {
        size_t first = 0;
        for (int cuts = input_.below(4); cuts > 0; --cuts) {
            const size_t size = std::min(input_.size_below(1024), request.size() - first);
            packet(slice(request, first, size));
            first += size;
        }
        packet(slice(request, first, request.size() - first));
    }

    void send_request(const Bytes& payload) { send_in_pieces(request(function_, payload)); }

    void send_announcing() {
        const int32_t function = input_.number();
        const int32_t total = input_.number();
        send_in_pieces(request_announcing(total, function, input_.bytes(input_.size_below(900))));
    }

    Bytes payload() {
        static constexpr int32_t functions[] = {
            SM_FUNCTION_SEND_LIST,     SM_FUNCTION_SEND_PRESET, SM_FUNCTION_RECEIVE_PRESET, SM_FUNCTION_UPDATE_PRESET,
            SM_FUNCTION_DELETE_PRESET, SM_FUNCTION_STATE_OFF,   SM_FUNCTION_STATE_ON,       SM_FUNCTION_LAST,
            unserved_function,         SM_FUNCTION_SEND_PRESET, SM_FUNCTION_DELETE_PRESET,  SM_FUNCTION_RECEIVE_PRESET};
        function_ = functions[input_.below(std::size(functions))];
        switch (function_) {
        case SM_FUNCTION_STATE_OFF:
            return input_.bytes(input_.size_below(9));
        case SM_FUNCTION_SEND_PRESET:
            return words({input_.number(), input_.number()});
        case SM_FUNCTION_RECEIVE_PRESET: {
            const Bytes preset = record();
            return preset + picture();
        }
        case SM_FUNCTION_UPDATE_PRESET:
            return record();
        case SM_FUNCTION_DELETE_PRESET:
            return pairs();
        default:
            return input_.bytes(input_.size_below(12));
        }
    }

    // A whole record, mostly, from a few bytes that are repeated: the fields matter more than their number.
    Bytes record() {
        const bool whole = input_.below(8) != 0;
        Bytes bytes(whole ? 744 : input_.size_below(744));
        const Bytes seed = input_.bytes(1 + input_.size_below(64));
        for (size_t k = 0; k < bytes.size(); ++k) {
            bytes[k] = seed[k % seed.size()];
        }
        for (int changes = input_.below(8); changes > 0 && bytes.size() >= 4; --changes) {
            const size_t offset = input_.size_below(bytes.size() - 3);
            const int32_t value = input_.number();
            std::memcpy(bytes.data() + offset, &value, sizeof value);
        }
        return bytes;
    }

    // One whose first bytes are made up; a short one leaves the rest as it was.
    tag_custom_info camera_record(tag_custom_info changed) {
        const Bytes bytes = record();
        std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof changed), reinterpret_cast<uint8_t*>(&changed));
        return changed;
    }

    Bytes picture() {
        const Bytes seed = input_.bytes(input_.size_below(32));
        Bytes bytes = seed;
        bytes.resize(input_.below(4) == 0 ? input_.size_below(50000) : 90 + input_.size_below(20));
        return bytes;
    }

    Bytes pairs() {
        Bytes bytes;
        for (int count = input_.below(6); count > 0; --count) {
            const int32_t number = input_.flag() ? input_.below(42) : input_.number();
            const int32_t id = input_.flag() ? 2 * input_.below(8) + 1 : input_.number();
            bytes = std::move(bytes) + words({number, id});
        }
        const Bytes rest = input_.bytes(input_.size_below(8));
        return bytes + rest;
    }

    // Long lists are rare: each record costs two traces.
    void answer_list() {
        script.link_up = input_.below(8) != 0;
        script.reports_count = input_.below(8) != 0;
        script.stored = input_.below(16) == 0 ? input_.below(41) : input_.below(3);
        script.reported_count = input_.below(8) == 0 ? input_.number() : script.stored;
        tag_custom_info changed = camera_record({});
        for (int number = 0; number < script.stored; ++number) {
            changed.preset_num = input_.empty() ? number : input_.number();
            changed.custom_id = input_.empty() ? number : input_.number();
            script.records[number] = changed;
        }
        for (int& linked : script.linked) {
            linked = input_.flag() ? input_.below(43) - 1 : input_.number();
        }
        script.iso_step = input_.below(4) == 0 ? input_.number() : input_.below(3);
    }

    void answer_others() {
        script.known = static_cast<fuzz::Script::Known>(input_.below(3));
        script.found = camera_record(script.found);
        set_path();
        script.found.custom_id = input_.number();
        script.save_result = input_.number();
        script.save_writes_identities = input_.flag();
        script.saved_preset_num = input_.number();
        script.saved_custom_id = input_.number();
        script.saved_applocal_id = input_.number();
        script.update_result = input_.number();
    }

    void set_path() {
        const std::string path = fuzz::path_of(input_.below(8));
        std::memset(script.found.screennail_path, 0, sizeof script.found.screennail_path);
        std::memcpy(script.found.screennail_path, path.data(), path.size());
    }

    // Bytes and beginnings of JPEG streams, in any order, whole or cut off.
    void set_pictures() {
        static constexpr uint8_t start[] = {0xFF, 0xD8, 0xFF, 0xDB};
        Bytes content;
        for (int parts = input_.below(8); parts > 0; --parts) {
            const size_t kept = 1 + static_cast<size_t>(input_.below(6));
            content.insert(content.end(), start, start + std::min(kept, sizeof start));
            content = content + input_.bytes(input_.size_below(24));
        }
        fuzz::set_picture(content);
        script.known = fuzz::Script::all;
        set_path();
    }

    Input& input_;
    Model model_;
    int32_t function_ = 0;
    int64_t bytes_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::silence_standard_error();
    library_heap::fill_at_most(filled_size);
    fuzz::create_picture();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    fuzz::set_picture({});
    fuzz::start_over();
    Conversation(input).run();
    return 0;
}
