#include "MessageWords.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iterator>
#include <utility>

#include "Common/Failure.h"
#include "Common/Text.h"
#include "PresetFiles/Forms.h"
#include "Wire/Frames.h"
#include "Words/Describe.h"
#include "Words/Functions.h"
#include "Words/Results.h"

namespace desk::phone {
namespace {

using capture::Message;
using Fields = nlohmann::ordered_json;

constexpr size_t header = sizeof(sm_frame);
constexpr size_t word = sizeof(int32_t);
constexpr size_t record = sizeof(sm_tag_custom_info);

size_t payload_size(const Message& message) {
    return message.total > static_cast<int32_t>(header) ? static_cast<size_t>(message.total) - header : 0;
}

// A word of the payload; what is not there is 0, as it is to the camera.
int32_t word_at(const Message& message, size_t offset) {
    return message.bytes.size() >= header + offset + word ? get_word(message.bytes, header + offset) : 0;
}

bool holds_record(const Message& message) {
    return message.bytes.size() >= header + record;
}

std::string result_text(int32_t result) {
    return result == SM_RETURN_TRUE
               ? "done"
               : fmt::format("refused with {}, {}: {}", result, name_of_result(result), meaning_of_result(result));
}

Fields result_fields(int32_t result) {
    return {{"result", result}, {"result_name", name_of_result(result)}};
}

// ---- Requests -------------------------------------------------------------------------------------------------------

MessageWords words_of_leaving(const Message& message, Form) {
    if (payload_size(message) < word) {
        return {"leave without a code", {}, Fields::object()};
    }
    return {fmt::format("leave, code {}", word_at(message, 0)), {}, {{"code", word_at(message, 0)}}};
}

MessageWords words_of_arriving(const Message&, Form) {
    return {"link state on", {}, Fields::object()};
}

MessageWords words_of_list(const Message&, Form) {
    return {"list", {}, Fields::object()};
}

MessageWords words_of_picture(const Message& message, Form) {
    return {fmt::format("picture of id {}", word_at(message, 0)),
            {},
            {{"custom_id", word_at(message, 0)}, {"applocal_id", word_at(message, word)}}};
}

MessageWords without_record(const Message& message, const char* name) {
    return {fmt::format("{} of {} bytes", name, message.total), {}, Fields::object()};
}

MessageWords words_of_store(const Message& message, Form form) {
    if (!holds_record(message)) {
        return without_record(message, "store");
    }
    const sm_tag_custom_info preset = decode_phone_record(std::span(message.bytes).subspan(header));
    const size_t picture = payload_size(message) - record;
    return {fmt::format("store \"{}\", picture of {}", title_text(preset), counted(picture, "byte")),
            {},
            {{"preset", json_of_preset(preset, form)}, {"picture_bytes", picture}}};
}

MessageWords words_of_rename(const Message& message, Form) {
    if (!holds_record(message)) {
        return without_record(message, "rename");
    }
    const auto bytes = std::span(message.bytes).subspan(header);
    const sm_tag_custom_info preset = decode_phone_record(bytes);
    return {fmt::format("rename id {} to \"{}\"", preset.custom_id, title_text(preset)),
            {},
            {{"custom_id", preset.custom_id},
             {"server_id", preset.server_id},
             {"title", text_to_json(bytes.first(SM_TITLE_SIZE))}}};
}

MessageWords words_of_deletion(const Message& message, Form) {
    std::vector<std::string> named;
    Fields pairs = Fields::array();
    for (size_t at = 0; at + 2 * word <= payload_size(message); at += 2 * word) {
        const int32_t number = word_at(message, at);
        const int32_t id = word_at(message, at + word);
        pairs.push_back({{"number", number}, {"custom_id", id}});
        named.push_back(fmt::format("{} (id {})", number, id));
    }
    constexpr size_t most_shown = SM_PRESET_LIMIT;
    const std::string more = named.size() > most_shown ? ", ..." : "";
    const std::string count = counted(named.size(), "preset");
    named.resize(std::min(named.size(), most_shown));
    return {fmt::format("delete {}{}{}{}", count, named.empty() ? "" : ": ", fmt::join(named, ", "), more),
            {},
            {{"presets", pairs}}};
}

// ---- Replies --------------------------------------------------------------------------------------------------------

void add_presets(MessageWords& words, const std::vector<sm_tag_custom_info>& presets, Form form) {
    Fields list = Fields::array();
    for (size_t number = 0; number < presets.size(); ++number) {
        words.more.push_back(
            fmt::format("{:>2} \"{}\" (id {})", number, title_text(presets[number]), presets[number].custom_id));
        list.push_back(json_of_preset(presets[number], form));
    }
    words.fields["presets"] = std::move(list);
}

MessageWords words_of_listing(const Message& message, Form form) {
    const ListReply reply = parse_list_reply(message.bytes);
    MessageWords words = {fmt::format("list: {} of a {}", counted(reply.presets.size(), "preset"),
                                      reply.model.empty() ? "camera without a name" : printable(reply.model)),
                          {},
                          {{"model", reply.model}}};
    add_presets(words, reply.presets, form);
    return words;
}

MessageWords words_of_found_picture(const Message& message, Form) {
    constexpr size_t head = sizeof(sm_screennail_reply) - header;
    const size_t size = payload_size(message);
    if (size < head) {
        throw Failure(exit_protocol,
                      fmt::format("the picture has at least {} bytes, got {}", header + head, header + size));
    }
    const int32_t id = word_at(message, 0);
    return {fmt::format("picture of id {}: {}", id, counted(size - head, "byte")),
            {},
            {{"custom_id", id}, {"picture_bytes", size - head}}};
}

MessageWords words_of_stored(const Message& message, Form) {
    const StoreReply reply = parse_store_reply(message.bytes);
    Fields fields = result_fields(reply.result);
    fields.update(
        {{"preset_num", reply.preset_num}, {"custom_id", reply.custom_id}, {"applocal_id", reply.applocal_id}});
    const std::string text = reply.result == SM_RETURN_TRUE
                                 ? fmt::format("store: preset {}, id {}", reply.preset_num, reply.custom_id)
                                 : fmt::format("store: {}", result_text(reply.result));
    return {text, {}, fields};
}

MessageWords words_of_renamed(const Message& message, Form) {
    const int32_t result = parse_update_reply(message.bytes);
    return {fmt::format("rename: {}", result_text(result)), {}, result_fields(result)};
}

MessageWords words_of_deleted(const Message& message, Form form) {
    const DeleteReply reply = parse_delete_reply(message.bytes);
    MessageWords words = {fmt::format("delete: {}", result_text(reply.result)), {}, result_fields(reply.result)};
    // A deletion that was refused unread shows no presets, whatever there are.
    if (reply.result != SM_RETURN_DATA_ERR && reply.result != SM_RETURN_STRUCT_ERR) {
        words.text += fmt::format(", {} left", reply.presets.size());
    }
    add_presets(words, reply.presets, form);
    return words;
}

MessageWords words_of_busy(const Message&, Form) {
    return {"busy with another phone", {}, Fields::object()};
}

// ---- All messages ---------------------------------------------------------------------------------------------------

struct Function {
    int32_t number;
    MessageWords (*words)(const Message&, Form);
};

constexpr Function functions[] = {
    {SM_FUNCTION_STATE_OFF, words_of_leaving},
    {SM_FUNCTION_SEND_LIST, words_of_list},
    {SM_FUNCTION_SEND_PRESET, words_of_picture},
    {SM_FUNCTION_RECEIVE_PRESET, words_of_store},
    {SM_FUNCTION_UPDATE_PRESET, words_of_rename},
    {SM_FUNCTION_DELETE_PRESET, words_of_deletion},
    {SM_FUNCTION_STATE_ON, words_of_arriving},
    {SM_REPLY + SM_FUNCTION_SEND_LIST, words_of_listing},
    {SM_REPLY + SM_FUNCTION_SEND_PRESET, words_of_found_picture},
    {SM_REPLY + SM_FUNCTION_RECEIVE_PRESET, words_of_stored},
    {SM_REPLY + SM_FUNCTION_UPDATE_PRESET, words_of_renamed},
    {SM_REPLY + SM_FUNCTION_DELETE_PRESET, words_of_deleted},
    {busy_function, words_of_busy},
};

const Function* find_function(int32_t number) {
    const Function* const found = std::ranges::find(functions, number, &Function::number);
    return found == std::end(functions) ? nullptr : found;
}

// What a message says that is there as a whole.
MessageWords said_in(const Message& message, Form form) {
    const Function* const function = find_function(message.function);
    if (function == nullptr) {
        return {fmt::format("{} of {} bytes", name_of_function(message.function), message.total), {}, Fields::object()};
    }
    try {
        return function->words(message, form);
    } catch (const Failure& failure) { // a reply that breaks the protocol
        return {fmt::format("{}: faulty: {}", name_of_function(message.function), printable(failure.what())),
                {},
                {{"fault", failure.what()}}};
    }
}

std::string size_text(const Message& message) {
    const std::string packets = message.packets > 1 ? fmt::format(" in {} packets", message.packets) : "";
    const std::string waited =
        message.waited ? fmt::format(", after {:.3f} s", static_cast<double>(*message.waited) / 1e6) : "";
    return fmt::format(" ({}{}{})", counted(message.arrived, "byte"), packets, waited);
}

void add_remark(MessageWords& words, const char* name, const std::string& text) {
    words.text += fmt::format("; {}", text);
    words.fields[name] = text;
}

// What the protocol has to say of a message.
void add_remarks(MessageWords& words, const Message& message) {
    if (!message.fault.empty()) {
        add_remark(words, "fault", message.fault);
    }
    if (message.sender == capture::Side::camera) {
        if (!capture::is_reply(message.function)) {
            add_remark(words, "fault", "no camera sends this");
        }
        return;
    }
    const std::string why = capture::why_unanswered(message);
    if (message.is_unheard) {
        add_remark(words, "no_reply", "no reply, the camera answers nothing until the phone disconnects");
    } else if (!why.empty()) {
        add_remark(words, "no_reply",
                   fmt::format("no reply, {}{}", why,
                               message.jams_camera ? ", and none to what follows until the phone disconnects" : ""));
    }
}

MessageWords words_of_whole(const Message& message, Form form) {
    MessageWords words = said_in(message, form);
    words.text += size_text(message);
    add_remarks(words, message);
    return words;
}

// One that is thrown away says nothing.
MessageWords words_of_refused(const Message& message) {
    MessageWords words = {
        fmt::format("{} of {} bytes", name_of_function(message.function), message.total), {}, Fields::object()};
    words.text += size_text(message);
    add_remarks(words, message);
    return words;
}

MessageWords words_of_cut(const Message& message) {
    const bool has_header = message.arrived >= header;
    MessageWords words;
    words.fields["cut_off"] = message.fault;
    words.text = has_header ? fmt::format("{}: cut off after {} of {} bytes, {}", name_of_function(message.function),
                                          message.arrived, message.total, message.fault)
                            : fmt::format("cut off within a header, after {}: {}", counted(message.arrived, "byte"),
                                          message.fault);
    return words;
}

MessageWords words_of_unanswered(const Message& message, Form form) {
    const bool is_picture = message.function == SM_FUNCTION_SEND_PRESET; // the others are too long to be said again
    return {fmt::format("{}: no reply", is_picture ? said_in(message, form).text : name_of_function(message.function)),
            {},
            {{"request_record", message.last_record}}};
}

MessageWords words_by_fate(const Message& message, Form form) {
    switch (message.fate) {
    case Message::Fate::whole:
        return words_of_whole(message, form);
    case Message::Fate::too_long:
    case Message::Fate::lost_with_packet:
    case Message::Fate::too_short:
        return words_of_refused(message);
    case Message::Fate::cut_off:
        return words_of_cut(message);
    case Message::Fate::unanswered:
        return words_of_unanswered(message, form);
    case Message::Fate::uncertain:
        break;
    }
    return {fmt::format("{} in {} that cannot be read: {}", counted(message.arrived, "byte"),
                        counted(message.packets, "packet"), message.fault),
            {},
            {{"fault", message.fault}}};
}

const char* kind_of(const Message& message) {
    switch (message.fate) {
    case Message::Fate::uncertain:
        return "uncertain";
    case Message::Fate::unanswered:
        return "unanswered";
    default:
        return capture::is_reply(message.function) ? "reply" : "request";
    }
}

} // namespace

MessageWords words_of(const Message& message, Form form) {
    MessageWords words = words_by_fate(message, form);
    Fields fields = {
        {"kind", kind_of(message)},        {"sender", message.sender == capture::Side::phone ? "phone" : "camera"},
        {"function", message.function},    {"name", name_of_function(message.function)},
        {"total", message.total},          {"bytes", message.arrived},
        {"packets", message.packet_sizes}, {"record", message.last_record}};
    if (message.waited) {
        fields["request_record"] = message.request_record;
        fields["response_microseconds"] = *message.waited;
    }
    fields.update(words.fields);
    words.fields = std::move(fields);
    return words;
}

} // namespace desk::phone
