#include "RequestLines.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <vector>

#include "ADE_ShotMentor_Records.h"
#include "Common/Text.h"
#include "Services.h"
#include "Wire/Frames.h"
#include "Words/Describe.h"

namespace desk::camera {
namespace {

constexpr const char* no_memory_for_reply = "no reply, there was no memory for it";

std::string quoted(const std::string& title) {
    return '"' + printable(title) + '"';
}

std::string done_or_refused(int result) {
    return result == SM_RETURN_TRUE ? "done" : fmt::format("refused with {}", result);
}

// What the request has done may never be told to the phone.
std::string unless_replied(const ServiceCalls& calls) {
    return calls.reply ? "" : fmt::format(", but {}", no_memory_for_reply);
}

bool holds_record(const DoneRequest& request) {
    return payload_size(request) >= sizeof(sm_tag_custom_info);
}

// ---- Each request ---------------------------------------------------------------------------------------------------

std::string line_of_leaving(const DoneRequest& request, const Services&) {
    return payload_size(request) < sizeof(int32_t) ? "leave without a code"
                                                   : fmt::format("leave, code {}", get_word(request.start, 0));
}

std::string line_of_arriving(const DoneRequest& request, const Services&) {
    return name_of_function(request.function);
}

std::string line_of_list(const DoneRequest&, const Services& services) {
    const ServiceCalls& calls = services.calls;
    if (calls.link_is_down) {
        return "list: no reply, the link state is down";
    }
    if (!calls.reply) {
        return fmt::format("list: {}", no_memory_for_reply);
    }
    return "list: " +
           counted(static_cast<size_t>(get_word(*calls.reply, offsetof(sm_list_reply, num_Preset))), "preset");
}

std::string line_of_picture(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    const int32_t custom_id = get_word(request.start, 0);
    if (!calls.found) {
        return fmt::format("picture of id {}: no reply, {}", custom_id,
                           custom_id <= 0     ? "ids are above 0"
                           : !calls.looked_up ? "the preset could not be looked up"
                                              : "there is no such preset");
    }
    const std::string preset =
        fmt::format("picture of {} (id {})", quoted(text_of(calls.found->title, SM_TITLE_SIZE)), custom_id);
    return calls.reply
               ? fmt::format("{}: {}", preset, counted(calls.reply->size() - sizeof(sm_screennail_reply), "byte"))
               : fmt::format("{}: {}", preset, no_memory_for_reply);
}

std::string asked_without_record(const DoneRequest& request) {
    return fmt::format("{} of {} bytes", name_of_function(request.function), request.total);
}

std::string asked_to_store(const DoneRequest& request) {
    const size_t picture = payload_size(request) - sizeof(sm_tag_custom_info);
    return fmt::format("store \"{}\", picture of {}", title_text(decode_phone_record(request.start)),
                       counted(picture, "byte"));
}

std::string line_of_store(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    const std::string asked = holds_record(request) ? asked_to_store(request) : asked_without_record(request);
    if (request.result != SM_RETURN_TRUE || !calls.reply) {
        return fmt::format("{}: {}{}", asked, done_or_refused(request.result), unless_replied(calls));
    }
    const StoreReply reply = parse_store_reply(*calls.reply);
    return fmt::format("{}: preset {}, id {}", asked, reply.preset_num, reply.custom_id);
}

std::string asked_to_rename(const DoneRequest& request) {
    const sm_tag_custom_info record = decode_phone_record(request.start);
    return fmt::format("rename id {} to \"{}\"", record.custom_id, title_text(record));
}

std::string line_of_rename(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    const std::string asked = holds_record(request) ? asked_to_rename(request) : asked_without_record(request);
    return fmt::format("{}: {}{}", asked, done_or_refused(request.result), unless_replied(calls));
}

bool names(const DoneRequest& request, int number) {
    return number >= 0 && static_cast<size_t>(number) < request.named.size() &&
           request.named[static_cast<size_t>(number)];
}

// The presets that were asked for and are still there, because custom modes use them.
std::string kept_presets(const DoneRequest& request, const Services& services) {
    const std::vector<tag_custom_info> presets = services.store.presets();
    std::vector<std::string> kept;
    for (int mode = 0; mode < SM_CUSTOM_MODES; ++mode) {
        const int number = services.store.linked(mode); // as the deletion has renumbered it
        if (number >= 0 && names(request, services.calls.linked[static_cast<size_t>(mode)])) {
            kept.push_back(fmt::format("{}, which {} uses",
                                       quoted(text_of(presets.at(static_cast<size_t>(number)).title, SM_TITLE_SIZE)),
                                       custom_mode_text(mode + 1)));
        }
    }
    return fmt::format("kept {}", fmt::join(kept, ", and "));
}

std::string outcome_of_deletion(const DoneRequest& request, const Services& services) {
    const int stored = services.calls.deletion.value_or(SM_RETURN_TRUE);
    if (stored != SM_RETURN_TRUE) {
        return fmt::format("refused with {}, which the phone is not told", stored);
    }
    const bool has_kept = request.result == SM_RETURN_OPENED_ERR || request.result == SM_RETURN_OPENED_BOTH_ERR;
    return has_kept ? kept_presets(request, services) : done_or_refused(request.result);
}

// The reply to a deletion that was refused unread has no list.
std::string line_of_deletion(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    const bool has_list = calls.reply && calls.deletion;
    return fmt::format(
        "delete {}: {}{}{}", counted(payload_size(request) / sizeof(sm_delete_pair), "preset"),
        outcome_of_deletion(request, services), unless_replied(calls),
        has_list ? fmt::format(", {} left", get_word(*calls.reply, offsetof(sm_delete_reply, num_Preset))) : "");
}

// ---- All requests ---------------------------------------------------------------------------------------------------

struct Function {
    int32_t number;
    const char* name;
    std::string (*line)(const DoneRequest&, const Services&);
};
constexpr std::array<Function, 7> functions{{{SM_FUNCTION_STATE_OFF, "leave", line_of_leaving},
                                             {SM_FUNCTION_SEND_LIST, "list", line_of_list},
                                             {SM_FUNCTION_SEND_PRESET, "picture", line_of_picture},
                                             {SM_FUNCTION_RECEIVE_PRESET, "store", line_of_store},
                                             {SM_FUNCTION_UPDATE_PRESET, "rename", line_of_rename},
                                             {SM_FUNCTION_DELETE_PRESET, "delete", line_of_deletion},
                                             {SM_FUNCTION_STATE_ON, "link state on", line_of_arriving}}};

const Function* find_function(int32_t number) {
    const auto* const found = std::ranges::find(functions, number, &Function::number);
    return found != functions.end() ? found : nullptr;
}

// Why the library did nothing for a request, or nothing. One of total 0 is complete without a buffer only.
std::string fault_of(const DoneRequest& request) {
    if (find_function(request.function) == nullptr) {
        return "there is no such function";
    }
    if (request.total < 0) {
        return "its length is negative";
    }
    if (request.total > SM_REQUEST_LIMIT) {
        return fmt::format("a request has at most {} bytes", +SM_REQUEST_LIMIT);
    }
    return request.total == 0 ? "there was no memory for the request" : "";
}

} // namespace

size_t payload_size(const DoneRequest& request) {
    constexpr auto header = static_cast<int32_t>(sizeof(sm_frame));
    return request.total < header ? 0 : static_cast<size_t>(request.total - header);
}

std::string name_of_function(int32_t function) {
    const Function* const found = find_function(function);
    return found != nullptr ? found->name : fmt::format("function {}", function);
}

std::string counted(size_t count, const char* what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string line_of(const DoneRequest& request, const Services& services) {
    const std::string fault = fault_of(request);
    return fault.empty()
               ? find_function(request.function)->line(request, services)
               : fmt::format("{} of {} bytes: no reply, {}", name_of_function(request.function), request.total, fault);
}

} // namespace desk::camera
