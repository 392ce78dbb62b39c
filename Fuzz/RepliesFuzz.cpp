// Any bytes as the camera's answers: the frames do not depend on the pieces that they arrive in, and a reply that is
// taken apart has nothing that its bytes do not hold.

#include <optional>
#include <string>

#include "Common/Failure.h"
#include "Input.h"
#include "Wire/Frames.h"

namespace {

using desk::Bytes;
using fuzz::Input;

// What a reader gives out for one stream: its frames, and the line of the failure that ended it.
struct Outcome {
    std::vector<Bytes> frames;
    std::string failure;
    size_t arrived = 0, expected = 0;

    bool operator==(const Outcome&) const = default;
};

constexpr size_t longest_frame = size_t{1} << 20;

void take_frames(desk::FrameReader& reader, std::span<const uint8_t> bytes, Outcome& outcome) {
    while (std::optional<Bytes> frame = reader.take(bytes, longest_frame)) {
        PROMISE(frame->size() >= sizeof(sm_frame) && frame->size() <= longest_frame);
        PROMISE(frame->size() == static_cast<size_t>(desk::get_word(*frame, 4)));
        outcome.frames.push_back(std::move(*frame));
    }
    PROMISE(bytes.empty());
}

// `cuts` decides on the pieces; without any the stream arrives as a whole.
Outcome read(const Bytes& stream, Input cuts) {
    desk::FrameReader reader;
    Outcome outcome;
    try {
        for (size_t first = 0; first < stream.size();) {
            const size_t asked = cuts.empty() ? stream.size() : size_t{cuts.byte()} % 32;
            const size_t size = std::min(asked, stream.size() - first);
            take_frames(reader, std::span(stream).subspan(first, size), outcome);
            first += size;
        }
    } catch (const desk::Failure& failure) {
        PROMISE(failure.code() == desk::exit_protocol);
        outcome.failure = failure.what();
        PROMISE(!outcome.failure.empty());
        return outcome;
    }
    PROMISE(reader.expected() == 0 ? reader.arrived() < sizeof(sm_frame) : reader.arrived() < reader.expected());
    outcome.arrived = reader.arrived();
    outcome.expected = reader.expected();
    return outcome;
}

// Runs a parser; a refusal is one line about the protocol.
template<class Parser>
auto accepted(Parser parse, const Bytes& frame) -> std::optional<decltype(parse(frame))> {
    try {
        return parse(frame);
    } catch (const desk::Failure& failure) {
        PROMISE(failure.code() == desk::exit_protocol);
        PROMISE(*failure.what() != '\0' && std::string(failure.what()).find('\n') == std::string::npos);
        return std::nullopt;
    }
}

void check_records(const std::vector<sm_tag_custom_info>& presets, const Bytes& frame, size_t offset) {
    PROMISE(presets.size() <= 40 && offset + presets.size() * 744 <= frame.size());
    for (size_t number = 0; number < presets.size(); ++number) {
        const auto first = frame.begin() + static_cast<std::ptrdiff_t>(offset + 744 * number);
        PROMISE(desk::encode(presets[number]) == Bytes(first, first + 744));
    }
}

// Every parser takes every frame; at most the one that it belongs to accepts it.
void parse(const Bytes& frame) {
    const auto is_reply = [&](int32_t function) {
        PROMISE(frame.size() >= 8 && desk::get_word(frame, 0) == function);
        PROMISE(desk::get_word(frame, 4) == static_cast<int32_t>(frame.size()));
    };
    if (const auto reply = accepted(desk::parse_list_reply, frame)) {
        is_reply(0x1001);
        PROMISE(reply->layout == 1 && frame.size() == 28 + 744 * reply->presets.size());
        check_records(reply->presets, frame, 28);
    }
    if (const auto reply = accepted(desk::parse_picture_reply, frame)) {
        is_reply(0x1002);
        PROMISE(reply->custom_id == desk::get_word(frame, 8));
        PROMISE(reply->picture == Bytes(frame.begin() + 12, frame.end()));
    }
    if (const auto reply = accepted(desk::parse_store_reply, frame)) {
        is_reply(0x1003);
        PROMISE(frame.size() == 24 && reply->result == desk::get_word(frame, 8));
        PROMISE(reply->preset_num == desk::get_word(frame, 12) && reply->custom_id == desk::get_word(frame, 16));
        PROMISE(reply->applocal_id == desk::get_word(frame, 20));
    }
    if (const auto result = accepted(desk::parse_update_reply, frame)) {
        is_reply(0x1004);
        PROMISE(frame.size() == 12 && *result == desk::get_word(frame, 8));
    }
    if (const auto reply = accepted(desk::parse_delete_reply, frame)) {
        is_reply(0x1005);
        PROMISE(reply->layout == 1 && reply->result == desk::get_word(frame, 8));
        const size_t records_end = 20 + 744 * reply->presets.size();
        PROMISE(frame.size() >= records_end && frame.size() - records_end <= 16);
        check_records(reply->presets, frame, 20);
    }
}

// Frames that are nearly right, or plain bytes.
Bytes make_stream(Input& input) {
    constexpr int most_parts = 6;
    Bytes stream;
    for (int parts = input.below(most_parts); parts > 0; --parts) {
        Bytes part;
        if (input.below(8) == 0) {
            part = input.bytes(input.size_below(100));
        } else {
            const int presets = input.below(3);
            const size_t extra = 4 * static_cast<size_t>(input.below(16));
            part = Bytes(8 + static_cast<size_t>(presets) * 744 + extra, input.byte());
            const Bytes head = input.bytes(20);
            std::copy_n(head.begin(), std::min(head.size(), part.size() - 8), part.begin() + 8);
            desk::put_word(part, 0, 0x1000 + input.below(8));
            desk::put_word(part, 4, input.below(16) == 0 ? input.number() : static_cast<int32_t>(part.size()));
            if (input.flag() && part.size() >= 28) { // the layout and the number of presets, of a list or what is left
                const size_t offset = input.flag() ? 20 : 12;
                desk::put_word(part, offset, 1);
                desk::put_word(part, offset + 4, input.below(16) == 0 ? input.number() : presets);
            }
        }
        stream.insert(stream.end(), part.begin(), part.end());
    }
    return stream;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const Bytes stream = make_stream(input);
    const Outcome whole = read(stream, Input(nullptr, 0));
    PROMISE(read(stream, input) == whole);
    for (const Bytes& frame : whole.frames) {
        parse(frame);
    }
    parse(input.bytes(input.size_below(64)));
    return 0;
}
