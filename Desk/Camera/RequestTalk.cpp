#include "RequestTalk.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include "ADE_ShotMentor.h"
#include "Common/Text.h"
#include "Intake.h"
#include "RequestLines.h"
#include "Services.h"
#include "Talk.h"
#include "Wire/Record.h"
#include "Words/Functions.h"

namespace desk::camera {
namespace {

constexpr std::chrono::milliseconds moment{100}; // what takes longer is told

// A request's bytes, which lie in two places when its last packet is delivered. Behind them there are zeros.
struct RequestBytes {
    std::span<const uint8_t> held; // by the library
    std::span<const uint8_t> packet;

    size_t size() const { return held.size() + packet.size(); }
    uint8_t at(size_t offset) const {
        return offset < held.size() ? held[offset] : offset < size() ? packet[offset - held.size()] : uint8_t{0};
    }
    int32_t word(size_t offset) const {
        const std::array<uint8_t, sizeof(int32_t)> bytes = {at(offset), at(offset + 1), at(offset + 2), at(offset + 3)};
        return get_word(bytes, 0);
    }
};

std::span<const uint8_t> held_by_library() {
    if (!Intake::is_in_reassembly() || shotmentor_p_ReceiveData == nullptr) {
        return {};
    }
    return {shotmentor_p_ReceiveData, static_cast<size_t>(std::min<int>(sm_BT_combine_length, SM_REQUEST_LIMIT))};
}

std::bitset<SM_PRESET_LIMIT> numbers_in(const RequestBytes& deletion) {
    std::bitset<SM_PRESET_LIMIT> numbers;
    for (size_t pair = sizeof(sm_frame); pair + sizeof(sm_delete_pair) <= deletion.size();
         pair += sizeof(sm_delete_pair)) {
        const int32_t number = deletion.word(pair + offsetof(sm_delete_pair, del_preset));
        if (number >= 0 && number < SM_PRESET_LIMIT) {
            numbers.set(static_cast<size_t>(number));
        }
    }
    return numbers;
}

// What every request has.
nlohmann::ordered_json head_of(const DoneRequest& request) {
    return {{"request", name_of_function(request.function)}, {"function", request.function}, {"bytes", request.total}};
}

// The request in reassembly, when its phone has left.
RequestLine line_of_broken(const DoneRequest& request) {
    const std::string name = name_of_function(request.function);
    nlohmann::ordered_json fields = head_of(request);
    fields["received"] = sm_BT_combine_length;
    switch (Intake::stuck()) {
    case Intake::Stuck::no:
        fields["no_reply"] = "cut off";
        return {fmt::format("{} cut off: {} of {} bytes", name, sm_BT_combine_length, request.total), fields};
    case Intake::Stuck::too_many_bytes:
        fields["no_reply"] = "more bytes came than were announced";
        return {fmt::format("{}: no reply, {} came of {} bytes", name, sm_BT_combine_length, request.total), fields};
    case Intake::Stuck::no_memory:
        break;
    }
    fields["no_reply"] = "there was no memory for the request";
    return {fmt::format("{} of {} bytes: no reply, there was no memory for the request", name, request.total), fields};
}

} // namespace

void RequestTalk::before(std::span<const uint8_t> packet) {
    if (!Intake::is_in_reassembly()) {
        begin(packet);
    }
    is_packet_empty_ = packet.empty();
    const int64_t received = int64_t{sm_BT_combine_length} + static_cast<int64_t>(packet.size());
    if (!is_quiet_ && received == request_.total && received <= SM_REQUEST_LIMIT) {
        read(packet);
    }
}

// The library takes what a short packet lacks of its header for zeros, too.
void RequestTalk::begin(std::span<const uint8_t> packet) {
    std::array<uint8_t, sizeof(sm_frame)> header = {};
    std::copy_n(packet.begin(), std::min(packet.size(), header.size()), header.begin());
    request_ = {};
    request_.function = get_word(header, offsetof(sm_frame, function));
    request_.total = get_word(header, offsetof(sm_frame, total_length));
    began_ = Clock::now();
    services_.calls = {};
}

// Before the library runs the request: it frees its bytes then.
void RequestTalk::read(std::span<const uint8_t> packet) {
    const RequestBytes bytes = {held_by_library(), packet};
    for (size_t byte = 0; byte < request_.start.size(); ++byte) {
        request_.start[byte] = bytes.at(sizeof(sm_frame) + byte);
    }
    if (request_.function == SM_FUNCTION_DELETE_PRESET) {
        request_.named = numbers_in(bytes);
    }
}

// An empty packet is no request, and a part of one is told of with the rest.
void RequestTalk::after(int result) {
    if (Intake::is_in_reassembly() || is_packet_empty_) {
        return;
    }
    ++done_;
    if (is_quiet_) {
        return;
    }
    request_.result = result;
    const RequestLine done = line_of(request_, services_);
    const std::chrono::milliseconds taken = time_taken();
    nlohmann::ordered_json fields = head_of(request_);
    fields["milliseconds"] = taken.count();
    fields.update(done.fields);
    tell({taken > moment ? fmt::format("{} ({} ms)", done.text, taken.count()) : done.text, std::move(fields)});
}

void RequestTalk::phone_left(size_t unread) const {
    if (Intake::is_in_reassembly()) {
        tell(line_of_broken(request_));
    }
    if (unread > 0) {
        tell({fmt::format("{} cut off before a request was read of them", counted(unread, "byte")),
              {{"received", unread}, {"no_reply", "cut off"}}});
    }
}

void RequestTalk::tell(const RequestLine& line) const {
    if (!is_quiet_) {
        say({kind_request, line.fields, line.text});
    }
}

std::chrono::milliseconds RequestTalk::time_taken() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began_);
}

} // namespace desk::camera
