// Reads frames and records by the library's own structs, for tests that compare this with what generated parsers read.
// Standard input: a JSON list of objects with a "type", frames, phone_record or camera_record, and hexadecimal "bytes".
// Standard output: a JSON list of what was read: of frames a list, which ends with "refused" at the first that is none.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ADE_ShotMentor_Records.h"

namespace {

using nlohmann::json;
using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

constexpr int32_t busy_reply = 0x10FF; // only the desk's camera sends it

std::string hex(View bytes) {
    std::string digits;
    for (const uint8_t byte : bytes) {
        digits += fmt::format("{:02x}", byte);
    }
    return digits;
}

std::string hex(const char* text, size_t size) {
    return hex({reinterpret_cast<const uint8_t*>(text), size});
}

Bytes from_hex(const std::string& digits) {
    Bytes bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

// What is left to read of a frame or a stream.
class Source {
  public:
    explicit Source(View bytes) : left_(bytes) {}

    size_t size() const { return left_.size(); }
    std::string rest() { return hex(bytes(left_.size())); }

    View bytes(size_t count) {
        const View taken = left_.first(count);
        left_ = left_.subspan(count);
        return taken;
    }

    // The struct that the next bytes are; nothing when there are too few.
    template<typename Struct>
    std::optional<Struct> next() {
        if (left_.size() < sizeof(Struct)) {
            return std::nullopt;
        }
        Struct read;
        std::memcpy(&read, bytes(sizeof(Struct)).data(), sizeof(Struct));
        return read;
    }

  private:
    View left_;
};

// ---- Records --------------------------------------------------------------------------------------------------------

json colors_of(std::span<const sm_color> colors) {
    json all = json::array();
    for (const sm_color& color : colors) {
        all.push_back(
            {{"cs_color_r", color.cs_color_r}, {"cs_color_g", color.cs_color_g}, {"cs_color_b", color.cs_color_b}});
    }
    return all;
}

#define READ_TEXT(name, offset, size) fields[#name] = hex(record.name, sizeof record.name);
#define READ_WORD(name, offset) fields[#name] = record.name;
#define READ_WORDS(name, offset, count) fields[#name] = record.name;
#define READ_COLORS(name, offset, count) fields[#name] = colors_of(record.name);
#define READ_BLOCK(name, offset, type) fields[#name] = fields_of(record.name);

json fields_of(const sm_cs_info& record) {
    json fields;
    SM_CS_INFO_FIELDS(READ_WORD, READ_COLORS, READ_WORDS)
    return fields;
}

json fields_of(const tag_custom_info& record) {
    json fields;
    SM_CUSTOM_INFO_FIELDS(READ_TEXT, READ_WORD, READ_WORDS, READ_BLOCK)
    return fields;
}

json fields_of(const sm_tag_custom_info& record) {
    json fields;
    SM_CUSTOM_INFO_FIELDS(READ_TEXT, READ_WORD, READ_WORDS, READ_BLOCK)
    fields["linked_custom_mode"] = record.linked_custom_mode;
    return fields;
}

// ---- Requests: what is too short for its words or its record has none -----------------------------------------------

void add_word(json& body, Source& source, const char* name) {
    if (const auto word = source.next<int32_t>()) {
        body[name] = *word;
    }
}

void add_record(json& body, Source& source) {
    if (const auto record = source.next<sm_tag_custom_info>()) {
        body["preset"] = fields_of(*record);
    }
}

json pairs_in(Source& source) {
    json pairs = json::array();
    while (const auto pair = source.next<sm_delete_pair>()) {
        pairs.push_back({{"del_preset", pair->del_preset}, {"del_id", pair->del_id}});
    }
    return pairs;
}

json request_body(int32_t function, Source& source) {
    json body;
    const char* rest = "unread";
    switch (function) {
    case SM_FUNCTION_STATE_OFF:
        add_word(body, source, "code");
        break;
    case SM_FUNCTION_SEND_PRESET:
        add_word(body, source, "custom_id");
        add_word(body, source, "applocal_id");
        break;
    case SM_FUNCTION_RECEIVE_PRESET:
        add_record(body, source);
        rest = "picture";
        break;
    case SM_FUNCTION_UPDATE_PRESET:
        add_record(body, source);
        break;
    case SM_FUNCTION_DELETE_PRESET:
        body["pairs"] = pairs_in(source);
        break;
    case SM_FUNCTION_SEND_LIST:
    case SM_FUNCTION_STATE_ON:
        break;
    default:
        rest = "raw";
    }
    body[rest] = source.rest();
    return body;
}

// ---- Replies: nothing when they end too early or count what no camera has -------------------------------------------

// The head of a reply, of which the frame has been read.
template<typename Head>
std::optional<Head> head_of(const sm_frame& frame, Source& source) {
    Head head = {};
    head.frame = frame;
    if (source.size() < sizeof head - sizeof frame) {
        return std::nullopt;
    }
    const View bytes = source.bytes(sizeof head - sizeof frame);
    std::memcpy(reinterpret_cast<uint8_t*>(&head) + sizeof frame, bytes.data(), bytes.size());
    return head;
}

template<typename Head>
std::optional<json> presets_behind(const Head& head, Source& source) {
    if (head.SM_STRUCT_VER != SM_LAYOUT_VERSION || head.num_Preset < 0 || head.num_Preset > SM_PRESET_LIMIT) {
        return std::nullopt;
    }
    json presets = json::array();
    for (int32_t number = 0; number < head.num_Preset; ++number) {
        const auto record = source.next<sm_tag_custom_info>();
        if (!record) {
            return std::nullopt;
        }
        presets.push_back(fields_of(*record));
    }
    return presets;
}

std::optional<json> list_body(const sm_frame& frame, Source& source) {
    const auto head = head_of<sm_list_reply>(frame, source);
    const auto presets = head ? presets_behind(*head, source) : std::nullopt;
    if (!presets) {
        return std::nullopt;
    }
    return json{{"SM_MODEL", hex(head->SM_MODEL, sizeof head->SM_MODEL)},
                {"SM_STRUCT_VER", head->SM_STRUCT_VER},
                {"num_Preset", head->num_Preset},
                {"presets", *presets}};
}

std::optional<json> picture_body(const sm_frame& frame, Source& source) {
    const auto head = head_of<sm_screennail_reply>(frame, source);
    if (!head) {
        return std::nullopt;
    }
    return json{{"custom_id", head->custom_id}, {"picture", source.rest()}};
}

std::optional<json> receive_body(const sm_frame& frame, Source& source) {
    const auto reply = head_of<sm_receive_reply>(frame, source);
    if (!reply) {
        return std::nullopt;
    }
    return json{{"result", reply->result},
                {"preset_num", reply->preset_num},
                {"custom_id", reply->custom_id},
                {"applocal_id", reply->applocal_id}};
}

std::optional<json> update_body(const sm_frame& frame, Source& source) {
    const auto reply = head_of<sm_update_reply>(frame, source);
    if (!reply) {
        return std::nullopt;
    }
    return json{{"result", reply->result}};
}

std::optional<json> delete_body(const sm_frame& frame, Source& source) {
    const auto head = head_of<sm_delete_reply>(frame, source);
    const auto presets = head ? presets_behind(*head, source) : std::nullopt;
    if (!presets) {
        return std::nullopt;
    }
    return json{{"result", head->result},
                {"SM_STRUCT_VER", head->SM_STRUCT_VER},
                {"num_Preset", head->num_Preset},
                {"presets", *presets},
                {"kept", source.rest()}};
}

std::optional<json> busy_body(Source& source) {
    const auto busy = source.next<int32_t>();
    return busy ? std::optional(json{{"busy", *busy}}) : std::nullopt;
}

std::optional<json> body_of(const sm_frame& frame, Source& source) {
    switch (frame.function) {
    case SM_REPLY + SM_FUNCTION_SEND_LIST:
        return list_body(frame, source);
    case SM_REPLY + SM_FUNCTION_SEND_PRESET:
        return picture_body(frame, source);
    case SM_REPLY + SM_FUNCTION_RECEIVE_PRESET:
        return receive_body(frame, source);
    case SM_REPLY + SM_FUNCTION_UPDATE_PRESET:
        return update_body(frame, source);
    case SM_REPLY + SM_FUNCTION_DELETE_PRESET:
        return delete_body(frame, source);
    case busy_reply:
        return busy_body(source);
    default:
        return request_body(frame.function, source);
    }
}

// ---- Streams --------------------------------------------------------------------------------------------------------

std::optional<json> next_frame(Source& stream) {
    const auto frame = stream.next<sm_frame>();
    if (!frame || frame->total_length < static_cast<int32_t>(sizeof *frame) ||
        static_cast<size_t>(frame->total_length) - sizeof *frame > stream.size()) {
        return std::nullopt;
    }
    Source payload(stream.bytes(static_cast<size_t>(frame->total_length) - sizeof *frame));
    const auto body = body_of(*frame, payload);
    if (!body) {
        return std::nullopt;
    }
    return json{{"function", frame->function}, {"total_length", frame->total_length}, {"body", *body}};
}

json frames_in(Source stream) {
    json frames = json::array();
    while (stream.size() > 0) {
        const auto frame = next_frame(stream);
        frames.push_back(frame.value_or("refused"));
        if (!frame) {
            break;
        }
    }
    return frames;
}

template<typename Record>
json record_in(Source source) {
    const auto record = source.next<Record>();
    return record ? fields_of(*record) : json("refused");
}

json read(const std::string& type, View bytes) {
    if (type == "camera_record") {
        return record_in<tag_custom_info>(Source(bytes));
    }
    return type == "phone_record" ? record_in<sm_tag_custom_info>(Source(bytes)) : frames_in(Source(bytes));
}

json read_all(const json& items) {
    json all = json::array();
    for (const json& item : items) {
        all.push_back(read(item["type"], from_hex(item["bytes"])));
    }
    return all;
}

} // namespace

int main() {
    try {
        std::cout << read_all(json::parse(std::cin)) << '\n';
        return std::cout.flush() ? 0 : 1;
    } catch (const std::exception& fault) {
        std::fprintf(stderr, "library_reader: %s\n", fault.what());
        return 1;
    }
}
