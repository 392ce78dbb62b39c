#include "MessageWords.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "Boundaries.h"
#include "Common/Text.h"
#include "Wire/Frames.h"
#include "Words/Describe.h"

namespace desk::capture {
namespace {

constexpr size_t header_size = sizeof(sm_frame);
constexpr size_t record_size = sizeof(sm_tag_custom_info);

using Payload = std::span<const uint8_t>;

std::string leaving_in_words(const char* name, Payload payload) {
    return payload.size() < sizeof(int32_t) ? name : fmt::format("{}, code {}", name, get_word(payload, 0));
}

std::string name_alone(const char* name, Payload /*payload*/) {
    return name;
}

std::string picture_in_words(const char* name, Payload payload) {
    return payload.size() < sizeof(int32_t) ? name : fmt::format("{} of id {}", name, get_word(payload, 0));
}

std::string storing_in_words(const char* name, Payload payload) {
    if (payload.size() < record_size) {
        return fmt::format("{} of {}", name, counted(payload.size(), "byte"));
    }
    return fmt::format("{} \"{}\", picture of {}", name, title_text(decode_phone_record(payload)),
                       counted(payload.size() - record_size, "byte"));
}

std::string renaming_in_words(const char* name, Payload payload) {
    if (payload.size() < record_size) {
        return fmt::format("{} of {}", name, counted(payload.size(), "byte"));
    }
    const sm_tag_custom_info record = decode_phone_record(payload);
    return fmt::format("{} id {} to \"{}\"", name, record.custom_id, title_text(record));
}

std::string deletion_in_words(const char* name, Payload payload) {
    return fmt::format("{} {}", name, counted(payload.size() / sizeof(sm_delete_pair), "preset"));
}

struct Function {
    int32_t number;
    const char* name;
    std::string (*in_words)(const char* name, Payload payload);
};
constexpr std::array<Function, 7> functions{{{SM_FUNCTION_STATE_OFF, "leave", leaving_in_words},
                                             {SM_FUNCTION_SEND_LIST, "list", name_alone},
                                             {SM_FUNCTION_SEND_PRESET, "picture", picture_in_words},
                                             {SM_FUNCTION_RECEIVE_PRESET, "store", storing_in_words},
                                             {SM_FUNCTION_UPDATE_PRESET, "rename", renaming_in_words},
                                             {SM_FUNCTION_DELETE_PRESET, "delete", deletion_in_words},
                                             {SM_FUNCTION_STATE_ON, "link state on", name_alone}}};

const Function* find_function(int32_t number) {
    const auto* const found = std::ranges::find(functions, number, &Function::number);
    return found == functions.end() ? nullptr : found;
}

} // namespace

std::string name_of_message(int32_t function) {
    if (function == busy_function) {
        return "busy";
    }
    const bool is_reply = function >= SM_REPLY && function <= SM_REPLY + SM_FUNCTION_LAST;
    const Function* const known = find_function(is_reply ? function - SM_REPLY : function);
    return known != nullptr ? known->name : fmt::format("function {}", function);
}

std::string request_in_words(std::span<const uint8_t> request) {
    if (request.size() < header_size) {
        return fmt::format("the first {} of a request", counted(request.size(), "byte"));
    }
    const Function* const known = find_function(function_of(request));
    return known != nullptr ? known->in_words(known->name, request.subspan(header_size))
                            : fmt::format("function {} of {} bytes", function_of(request), total_of(request));
}

std::string counted(size_t count, const char* what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

} // namespace desk::capture
