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
#include "Words/Functions.h"

namespace desk::camera {
namespace {

using Fields = nlohmann::ordered_json;

constexpr const char* no_memory_for_reply = "there was no memory for it";

std::string quoted(const std::string& title) {
    return '"' + printable(title) + '"';
}

std::string done_or_refused(int result) {
    return result == SM_RETURN_TRUE ? "done" : fmt::format("refused with {}", result);
}

// What the request has done may never be told to the phone.
std::string unless_replied(const ServiceCalls& calls) {
    return calls.reply ? "" : fmt::format(", but no reply, {}", no_memory_for_reply);
}

// "list: no reply, the link state is down".
RequestLine without_reply(const std::string& asked, const std::string& why, Fields fields = Fields::object()) {
    fields["no_reply"] = why;
    return {fmt::format("{}: no reply, {}", asked, why), std::move(fields)};
}

// The result is what the phone gets to know, if it gets anything.
Fields with_result(Fields fields, const DoneRequest& request, const ServiceCalls& calls) {
    fields["result"] = request.result;
    if (!calls.reply) {
        fields["no_reply"] = no_memory_for_reply;
    }
    return fields;
}

bool holds_record(const DoneRequest& request) {
    return payload_size(request) >= sizeof(sm_tag_custom_info);
}

// ---- Each request ---------------------------------------------------------------------------------------------------

RequestLine line_of_leaving(const DoneRequest& request, const Services&) {
    if (payload_size(request) < sizeof(int32_t)) {
        return {"leave without a code", Fields::object()};
    }
    const int32_t code = get_word(request.start, 0);
    return {fmt::format("leave, code {}", code), {{"code", code}}};
}

RequestLine line_of_arriving(const DoneRequest& request, const Services&) {
    return {name_of_function(request.function), Fields::object()};
}

RequestLine line_of_list(const DoneRequest&, const Services& services) {
    const ServiceCalls& calls = services.calls;
    if (calls.link_is_down) {
        return without_reply("list", "the link state is down");
    }
    if (!calls.reply) {
        return without_reply("list", no_memory_for_reply);
    }
    const int32_t count = get_word(*calls.reply, offsetof(sm_list_reply, num_Preset));
    return {"list: " + counted(static_cast<size_t>(count), "preset"), {{"count", count}}};
}

RequestLine line_of_picture(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    const int32_t custom_id = get_word(request.start, 0);
    if (!calls.found) {
        return without_reply(fmt::format("picture of id {}", custom_id),
                             custom_id <= 0     ? "ids are above 0"
                             : !calls.looked_up ? "the preset could not be looked up"
                                                : "there is no such preset",
                             {{"id", custom_id}});
    }
    const std::string title = text_of(calls.found->title, SM_TITLE_SIZE);
    const std::string asked = fmt::format("picture of {} (id {})", quoted(title), custom_id);
    const Fields fields = {{"id", custom_id}, {"title", title}};
    if (!calls.reply) {
        return without_reply(asked, no_memory_for_reply, fields);
    }
    const size_t size = calls.reply->size() - sizeof(sm_screennail_reply);
    RequestLine line = {fmt::format("{}: {}", asked, counted(size, "byte")), fields};
    line.fields["picture_bytes"] = size;
    return line;
}

RequestLine asked_without_record(const DoneRequest& request) {
    return {fmt::format("{} of {} bytes", name_of_function(request.function), request.total), Fields::object()};
}

RequestLine asked_to_store(const DoneRequest& request) {
    const size_t picture = payload_size(request) - sizeof(sm_tag_custom_info);
    const sm_tag_custom_info record = decode_phone_record(request.start);
    return {fmt::format("store \"{}\", picture of {}", title_text(record), counted(picture, "byte")),
            {{"title", text_of(record.title, SM_TITLE_SIZE)}, {"picture_bytes", picture}}};
}

RequestLine line_of_store(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    RequestLine line = holds_record(request) ? asked_to_store(request) : asked_without_record(request);
    line.fields = with_result(std::move(line.fields), request, calls);
    if (request.result != SM_RETURN_TRUE || !calls.reply) {
        line.text += fmt::format(": {}{}", done_or_refused(request.result), unless_replied(calls));
        return line;
    }
    const StoreReply reply = parse_store_reply(*calls.reply);
    line.text += fmt::format(": preset {}, id {}", reply.preset_num, reply.custom_id);
    line.fields.update({{"preset", reply.preset_num}, {"id", reply.custom_id}});
    return line;
}

RequestLine asked_to_rename(const DoneRequest& request) {
    const sm_tag_custom_info record = decode_phone_record(request.start);
    return {fmt::format("rename id {} to \"{}\"", record.custom_id, title_text(record)),
            {{"id", record.custom_id}, {"title", text_of(record.title, SM_TITLE_SIZE)}}};
}

RequestLine line_of_rename(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    RequestLine line = holds_record(request) ? asked_to_rename(request) : asked_without_record(request);
    line.text += fmt::format(": {}{}", done_or_refused(request.result), unless_replied(calls));
    line.fields = with_result(std::move(line.fields), request, calls);
    return line;
}

bool names(const DoneRequest& request, int number) {
    return number >= 0 && static_cast<size_t>(number) < request.named.size() &&
           request.named[static_cast<size_t>(number)];
}

Fields named_presets(const DoneRequest& request) {
    Fields numbers = Fields::array();
    for (size_t number = 0; number < request.named.size(); ++number) {
        if (request.named[number]) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

// The presets that were asked for and are still there, because custom modes use them.
RequestLine kept_presets(const DoneRequest& request, const Services& services) {
    const std::vector<tag_custom_info> presets = services.store.presets();
    std::vector<std::string> kept;
    Fields fields = Fields::array();
    for (int mode = 0; mode < SM_CUSTOM_MODES; ++mode) {
        const int number = services.store.linked(mode); // as the deletion has renumbered it
        if (number >= 0 && names(request, services.calls.linked[static_cast<size_t>(mode)])) {
            const std::string title = text_of(presets.at(static_cast<size_t>(number)).title, SM_TITLE_SIZE);
            kept.push_back(fmt::format("{}, which {} uses", quoted(title), custom_mode_text(mode + 1)));
            fields.push_back({{"title", title}, {"used_by", custom_mode_text(mode + 1)}});
        }
    }
    return {fmt::format("kept {}", fmt::join(kept, ", and ")), {{"kept", fields}}};
}

RequestLine outcome_of_deletion(const DoneRequest& request, const Services& services) {
    const int stored = services.calls.deletion.value_or(SM_RETURN_TRUE);
    if (stored != SM_RETURN_TRUE) {
        return {fmt::format("refused with {}, which the phone is not told", stored), {{"store_result", stored}}};
    }
    const bool has_kept = request.result == SM_RETURN_OPENED_ERR || request.result == SM_RETURN_OPENED_BOTH_ERR;
    return has_kept ? kept_presets(request, services) : RequestLine{done_or_refused(request.result), Fields::object()};
}

// The reply to a deletion that was refused unread has no list.
RequestLine line_of_deletion(const DoneRequest& request, const Services& services) {
    const ServiceCalls& calls = services.calls;
    const RequestLine outcome = outcome_of_deletion(request, services);
    const size_t pairs = payload_size(request) / sizeof(sm_delete_pair);
    RequestLine line = {
        fmt::format("delete {}: {}{}", counted(pairs, "preset"), outcome.text, unless_replied(calls)),
        with_result({{"pairs", pairs}, {"presets", named_presets(request)}}, request, calls),
    };
    line.fields.update(outcome.fields);
    if (calls.reply && calls.deletion) {
        const int32_t left = get_word(*calls.reply, offsetof(sm_delete_reply, num_Preset));
        line.text += fmt::format(", {} left", left);
        line.fields["left"] = left;
    }
    return line;
}

// ---- All requests ---------------------------------------------------------------------------------------------------

struct Function {
    int32_t number;
    RequestLine (*line)(const DoneRequest&, const Services&);
};
constexpr std::array<Function, 7> functions{{{SM_FUNCTION_STATE_OFF, line_of_leaving},
                                             {SM_FUNCTION_SEND_LIST, line_of_list},
                                             {SM_FUNCTION_SEND_PRESET, line_of_picture},
                                             {SM_FUNCTION_RECEIVE_PRESET, line_of_store},
                                             {SM_FUNCTION_UPDATE_PRESET, line_of_rename},
                                             {SM_FUNCTION_DELETE_PRESET, line_of_deletion},
                                             {SM_FUNCTION_STATE_ON, line_of_arriving}}};

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

RequestLine line_of(const DoneRequest& request, const Services& services) {
    const std::string fault = fault_of(request);
    RequestLine line = fault.empty() ? find_function(request.function)->line(request, services)
                                     : without_reply(asked_without_record(request).text, fault);
    if (services.calls.reply) {
        line.fields["reply_bytes"] = services.calls.reply->size();
    }
    return line;
}

} // namespace desk::camera
