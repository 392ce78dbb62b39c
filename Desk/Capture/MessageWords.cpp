#include "MessageWords.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "Boundaries.h"
#include "Common/Text.h"
#include "Wire/Frames.h"
#include "Words/Describe.h"
#include "Words/Functions.h"

namespace desk::capture {
namespace {

constexpr size_t header_size = sizeof(sm_frame);
constexpr size_t record_size = sizeof(sm_tag_custom_info);

using Payload = std::span<const uint8_t>;

std::string leaving_in_words(const std::string& name, Payload payload) {
    return payload.size() < sizeof(int32_t) ? name : fmt::format("{}, code {}", name, get_word(payload, 0));
}

std::string picture_in_words(const std::string& name, Payload payload) {
    return payload.size() < sizeof(int32_t) ? name : fmt::format("{} of id {}", name, get_word(payload, 0));
}

std::string storing_in_words(const std::string& name, Payload payload) {
    if (payload.size() < record_size) {
        return fmt::format("{} of {}", name, counted(payload.size(), "byte"));
    }
    return fmt::format("{} \"{}\", picture of {}", name, title_text(decode_phone_record(payload)),
                       counted(payload.size() - record_size, "byte"));
}

std::string renaming_in_words(const std::string& name, Payload payload) {
    if (payload.size() < record_size) {
        return fmt::format("{} of {}", name, counted(payload.size(), "byte"));
    }
    const sm_tag_custom_info record = decode_phone_record(payload);
    return fmt::format("{} id {} to \"{}\"", name, record.custom_id, title_text(record));
}

std::string deletion_in_words(const std::string& name, Payload payload) {
    return fmt::format("{} {}", name, counted(payload.size() / sizeof(sm_delete_pair), "preset"));
}

struct Wording {
    int32_t function;
    std::string (*in_words)(const std::string& name, Payload payload);
};
constexpr std::array<Wording, 5> wordings{{{SM_FUNCTION_STATE_OFF, leaving_in_words},
                                           {SM_FUNCTION_SEND_PRESET, picture_in_words},
                                           {SM_FUNCTION_RECEIVE_PRESET, storing_in_words},
                                           {SM_FUNCTION_UPDATE_PRESET, renaming_in_words},
                                           {SM_FUNCTION_DELETE_PRESET, deletion_in_words}}};

bool is_known(int32_t function) {
    return (function >= SM_FUNCTION_STATE_OFF && function <= SM_FUNCTION_DELETE_PRESET) ||
           function == SM_FUNCTION_STATE_ON;
}

} // namespace

std::string name_of_message(int32_t function) {
    if (function == busy_function) {
        return "busy";
    }
    return name_of_function(function);
}

std::string request_in_words(std::span<const uint8_t> request) {
    if (request.size() < header_size) {
        return fmt::format("the first {} of a request", counted(request.size(), "byte"));
    }
    const int32_t function = function_of(request);
    if (!is_known(function)) {
        return fmt::format("function {} of {} bytes", function, total_of(request));
    }
    const auto* const wording = std::ranges::find(wordings, function, &Wording::function);
    return wording == wordings.end() ? name_of_function(function)
                                     : wording->in_words(name_of_function(function), request.subspan(header_size));
}

} // namespace desk::capture
