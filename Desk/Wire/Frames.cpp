#include "Frames.h"

#include <algorithm>
#include <fmt/format.h>
#include <initializer_list>
#include <limits>
#include <utility>

#include "Common/Failure.h"

namespace desk {

namespace {

constexpr size_t word = sizeof(int32_t);
constexpr size_t header = sizeof(sm_frame);
constexpr size_t record = sizeof(sm_tag_custom_info);

void append(Bytes& bytes, std::span<const uint8_t> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes words(std::initializer_list<int32_t> values) {
    Bytes bytes;
    for (const int32_t value : values) {
        append_word(bytes, value);
    }
    return bytes;
}

Failure protocol_failure(const std::string& line) {
    return {exit_protocol, line};
}

// Holds a reply against its function number, its announced length and the least bytes that it has.
void check_reply(std::span<const uint8_t> frame, int32_t function, const char* what, size_t least) {
    if (frame.size() < header) {
        throw protocol_failure(fmt::format("{}: expected a header of 8 bytes, got {} bytes", what, frame.size()));
    }
    const int32_t got = get_word(frame, 0);
    if (got != function) {
        throw protocol_failure(
            fmt::format("expected {} (reply {:#x}), got function {:#x}", what, function, static_cast<uint32_t>(got)));
    }
    const int32_t total = get_word(frame, word);
    if (total < 0 || static_cast<size_t>(total) != frame.size()) {
        throw protocol_failure(fmt::format("{} announces {} bytes, got {}", what, total, frame.size()));
    }
    if (frame.size() < least) {
        throw protocol_failure(fmt::format("{} has at least {} bytes, got {}", what, least, frame.size()));
    }
}

// A reply that is its head alone.
void check_short_reply(std::span<const uint8_t> frame, int32_t function, const char* what, size_t size) {
    check_reply(frame, function, what, size);
    if (frame.size() != size) {
        throw protocol_failure(fmt::format("{} has {} bytes, got {}", what, size, frame.size()));
    }
}

// The layout and the number of presets at `offset`, the records behind them, and at most `slack` bytes more.
std::vector<sm_tag_custom_info> records_at(std::span<const uint8_t> frame, size_t offset, const char* what,
                                           std::initializer_list<size_t> slack) {
    const int32_t layout = get_word(frame, offset);
    if (layout != SM_LAYOUT_VERSION) {
        throw protocol_failure(fmt::format("{} has record layout {}, expected {}", what, layout, +SM_LAYOUT_VERSION));
    }
    const int32_t number = get_word(frame, offset + word);
    if (number < 0 || number > SM_PRESET_LIMIT) {
        throw protocol_failure(fmt::format("{} names {} presets, expected 0 to {}", what, number, +SM_PRESET_LIMIT));
    }
    const size_t first = offset + 2 * word;
    const size_t expected = first + static_cast<size_t>(number) * record;
    const bool fits =
        std::any_of(slack.begin(), slack.end(), [&](size_t more) { return frame.size() == expected + more; });
    if (!fits) {
        throw protocol_failure(
            fmt::format("{} with {} presets has {} bytes, got {}", what, number, expected, frame.size()));
    }
    std::vector<sm_tag_custom_info> presets;
    for (size_t at = first; at < expected; at += record) {
        presets.push_back(decode_phone_record(frame.subspan(at, record)));
    }
    return presets;
}

} // namespace

Bytes request(int32_t function, std::span<const uint8_t> payload) {
    if (payload.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max()) - header) {
        throw Failure(exit_usage, fmt::format("a request of {} bytes cannot be sent", payload.size()));
    }
    Bytes bytes = words({function, static_cast<int32_t>(header + payload.size())});
    append(bytes, payload);
    return bytes;
}

Bytes picture_payload(int32_t custom_id, int32_t applocal_id) {
    return words({custom_id, applocal_id});
}

Bytes store_payload(const sm_tag_custom_info& preset, std::span<const uint8_t> picture) {
    Bytes bytes = encode(preset);
    append(bytes, picture);
    return bytes;
}

Bytes delete_payload(std::span<const sm_delete_pair> pairs) {
    Bytes bytes;
    for (const sm_delete_pair& pair : pairs) {
        append(bytes, words({pair.del_preset, pair.del_id}));
    }
    return bytes;
}

std::optional<Bytes> FrameReader::take(std::span<const uint8_t>& bytes, size_t longest) {
    fill(bytes, header);
    if (frame_.size() < header) {
        return std::nullopt;
    }
    read_header(longest);
    fill(bytes, expected_);
    if (frame_.size() < expected_) {
        return std::nullopt;
    }
    expected_ = 0;
    return std::exchange(frame_, {});
}

// Moves bytes over until the frame in progress has `size` of them.
void FrameReader::fill(std::span<const uint8_t>& bytes, size_t size) {
    const size_t missing = size - std::min(size, frame_.size());
    const auto taken = bytes.first(std::min(missing, bytes.size()));
    append(frame_, taken);
    bytes = bytes.subspan(taken.size());
}

void FrameReader::read_header(size_t longest) {
    const int32_t total = get_word(frame_, word);
    if (total < static_cast<int32_t>(header) || static_cast<size_t>(total) > longest) {
        throw protocol_failure(fmt::format("function {:#x} announces {} bytes in all, expected {} to {}",
                                           static_cast<uint32_t>(get_word(frame_, 0)), total, header, longest));
    }
    expected_ = static_cast<size_t>(total);
    frame_.reserve(expected_); // a frame that grows piece by piece would be held twice
}

Bytes busy_frame() {
    return words({busy_function, 12, 1});
}

ListReply parse_list_reply(std::span<const uint8_t> frame) {
    constexpr auto what = "the preset list";
    check_reply(frame, SM_REPLY + SM_FUNCTION_SEND_LIST, what, sizeof(sm_list_reply));
    ListReply reply;
    reply.model = text_of(reinterpret_cast<const char*>(frame.data()) + header, SM_MODEL_SIZE);
    reply.layout = get_word(frame, header + SM_MODEL_SIZE);
    reply.presets = records_at(frame, header + SM_MODEL_SIZE, what, {0});
    return reply;
}

PictureReply parse_picture_reply(Bytes frame) {
    check_reply(frame, SM_REPLY + SM_FUNCTION_SEND_PRESET, "the picture", sizeof(sm_screennail_reply));
    const int32_t custom_id = get_word(frame, header);
    frame.erase(frame.begin(), frame.begin() + sizeof(sm_screennail_reply));
    return {custom_id, std::move(frame)};
}

StoreReply parse_store_reply(std::span<const uint8_t> frame) {
    check_short_reply(frame, SM_REPLY + SM_FUNCTION_RECEIVE_PRESET, "the answer to storing", sizeof(sm_receive_reply));
    return {get_word(frame, header), get_word(frame, header + word), get_word(frame, header + 2 * word),
            get_word(frame, header + 3 * word)};
}

int32_t parse_update_reply(std::span<const uint8_t> frame) {
    check_short_reply(frame, SM_REPLY + SM_FUNCTION_UPDATE_PRESET, "the answer to renaming", sizeof(sm_update_reply));
    return get_word(frame, header);
}

DeleteReply parse_delete_reply(std::span<const uint8_t> frame) {
    constexpr auto what = "the answer to deleting";
    check_reply(frame, SM_REPLY + SM_FUNCTION_DELETE_PRESET, what, sizeof(sm_delete_reply));
    DeleteReply reply;
    reply.result = get_word(frame, header);
    reply.layout = get_word(frame, header + word);
    reply.presets = records_at(frame, header + word, what,
                               {0, longest_delete_tail / 2, longest_delete_tail}); // half for each preset that was kept
    return reply;
}

} // namespace desk
