// Requests, replies, and frames put together from pieces.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <optional>
#include <random>
#include <utility>

#include "Common/Failure.h"
#include "Wire/Frames.h"

namespace desk {
namespace {

Bytes words(std::initializer_list<int32_t> values) {
    Bytes bytes;
    for (const int32_t value : values) {
        append_word(bytes, value);
    }
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes record_with_id(int32_t id) {
    Bytes bytes(744);
    put_word(bytes, 672, id);
    return bytes;
}

// A frame whose header announces what it has.
Bytes frame(int32_t function, const Bytes& body) {
    return words({function, static_cast<int32_t>(8 + body.size())}) + body;
}

const Bytes model = {'K', 'T', '7', 0, 0, 0, 0, 0, 0, 0, 0, 0};

Bytes list_reply(int32_t number) {
    Bytes body = model + words({1, number});
    for (int32_t id = 1; id <= number; ++id) {
        body = body + record_with_id(id);
    }
    return frame(0x1001, body);
}

std::string failure_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), exit_protocol);
        return failure.what();
    }
    ADD_FAILURE() << "no failure";
    return {};
}

// ---- Requests -------------------------------------------------------------------------------------------------------

TEST(Requests, BeginWithFunctionNumberAndTotalLength) {
    EXPECT_EQ(request(1), words({1, 8}));
    EXPECT_EQ(request(7, Bytes{9, 10, 11}), words({7, 11}) + Bytes({9, 10, 11}));
}

TEST(Requests, ForAPictureNameBothIds) {
    EXPECT_EQ(picture_payload(1000001, -3), words({1000001, -3}));
}

TEST(Requests, ToStoreCarryTheRecordAndThePicture) {
    sm_tag_custom_info preset{};
    preset.custom_id = 5;
    EXPECT_EQ(store_payload(preset, Bytes{0xFF, 0xD8}), record_with_id(5) + Bytes({0xFF, 0xD8}));
}

TEST(Requests, ToDeleteNameEachPresetByNumberAndId) {
    const sm_delete_pair pairs[] = {{0, 11}, {39, 12}};
    EXPECT_EQ(delete_payload(pairs), words({0, 11, 39, 12}));
}

// ---- Frames from pieces ---------------------------------------------------------------------------------------------

constexpr size_t plenty = 1000; // more than the frames of these tests have

// Gives a reader one piece of a stream. Returns the frame that it completes, and holds that to all of its bytes.
std::optional<Bytes> take(FrameReader& reader, const Bytes& piece, size_t longest = plenty) {
    std::span<const uint8_t> bytes = piece;
    std::optional<Bytes> frame = reader.take(bytes, longest);
    EXPECT_TRUE(bytes.empty());
    return frame;
}

TEST(FrameReader, GivesAFrameOnceItsLastByteHasArrived) {
    const Bytes whole = frame(0x1004, words({1}));
    FrameReader reader;
    for (size_t k = 0; k + 1 < whole.size(); ++k) {
        EXPECT_FALSE(take(reader, {whole[k]})) << k;
    }
    EXPECT_EQ(take(reader, {whole.back()}), whole);
    EXPECT_FALSE(take(reader, {}));
}

TEST(FrameReader, GivesAFrameOfAHeaderAlone) {
    FrameReader reader;
    EXPECT_EQ(take(reader, words({255, 8})), words({255, 8}));
}

TEST(FrameReader, LeavesWhatFollowsAFrameInThePiece) {
    const Bytes first = frame(0x1004, words({1}));
    const Bytes second = frame(0x1001, Bytes(100, 7));
    const Bytes stream = first + second + words({0x1002});
    std::span<const uint8_t> bytes = stream;
    FrameReader reader;
    EXPECT_EQ(reader.take(bytes, plenty), first);
    EXPECT_EQ(bytes.size(), second.size() + 4);
    EXPECT_EQ(reader.take(bytes, plenty), second);
    EXPECT_EQ(bytes.size(), 4u);
    EXPECT_FALSE(reader.take(bytes, plenty));
    EXPECT_TRUE(bytes.empty());
    EXPECT_EQ(take(reader, words({8})), words({0x1002, 8}));
}

TEST(FrameReader, HoldsNoMoreThanTheFrameInProgress) {
    const Bytes flood(1 << 20, 0); // words of 0: no frame announces that
    Bytes stream = frame(0x1004, Bytes(92, 9)) + flood;
    std::span<const uint8_t> bytes = stream;
    FrameReader reader;
    EXPECT_EQ(reader.take(bytes, plenty)->capacity(), 100u);
    EXPECT_EQ(bytes.size(), flood.size());
    EXPECT_THROW(reader.take(bytes, plenty), Failure);
    EXPECT_EQ(bytes.size(), flood.size() - 8);
    EXPECT_EQ(reader.arrived(), 8u);
}

TEST(FrameReader, TellsHowMuchHasArrivedOfHowMuch) {
    FrameReader reader;
    EXPECT_EQ(reader.arrived(), 0u);
    EXPECT_EQ(reader.expected(), 0u);
    EXPECT_FALSE(take(reader, Bytes{0x02, 0x10, 0, 0, 20, 0, 0}));
    EXPECT_EQ(reader.arrived(), 7u);
    EXPECT_EQ(reader.expected(), 0u); // the length is not complete
    EXPECT_FALSE(take(reader, Bytes{0, 9, 9}));
    EXPECT_EQ(reader.arrived(), 10u);
    EXPECT_EQ(reader.expected(), 20u);
    EXPECT_TRUE(take(reader, Bytes(10, 9)));
    EXPECT_EQ(reader.arrived(), 0u);
    EXPECT_EQ(reader.expected(), 0u);
}

TEST(FrameReader, RefusesALengthThatNoFrameHas) {
    for (const int32_t total : {7, 0, -1, INT32_MIN}) {
        FrameReader reader;
        const std::string line = failure_of([&] { take(reader, words({0x1001, total})); });
        EXPECT_NE(line.find("announces " + std::to_string(total) + " bytes"), std::string::npos) << line;
        EXPECT_EQ(reader.expected(), 0u);
    }
}

TEST(FrameReader, RefusesAtItsHeaderAFrameBeyondTheLongestThatItsReaderTakes) {
    for (const int32_t total : {1001, 1 << 30, INT32_MAX}) {
        FrameReader reader;
        const std::string line = failure_of([&] { take(reader, words({0x1002, total})); });
        EXPECT_NE(line.find("0x1002 announces " + std::to_string(total) + " bytes"), std::string::npos) << line;
        EXPECT_NE(line.find("to 1000"), std::string::npos) << line;
    }
}

TEST(FrameReader, TakesTheLongestFrame) {
    FrameReader reader;
    EXPECT_FALSE(take(reader, words({0x1002, 1000})));
    EXPECT_EQ(reader.expected(), 1000u);
    EXPECT_EQ(take(reader, Bytes(992))->size(), 1000u);
}

TEST(FrameReader, HoldsAFrameInProgressToTheLimitOfWhoReadsItsRest) {
    FrameReader reader;
    EXPECT_FALSE(take(reader, words({0x1002, 1000})));
    failure_of([&] { take(reader, Bytes(1), 999); });
}

TEST(FrameReader, PutsFramesTogetherWhateverThePieces) {
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        std::vector<Bytes> sent;
        Bytes stream;
        for (int32_t k = 0; k < 20; ++k) {
            sent.push_back(frame(k, Bytes(random() % 50, static_cast<uint8_t>(k))));
            stream = stream + sent.back();
        }
        std::vector<Bytes> got;
        FrameReader reader;
        for (size_t at = 0; at < stream.size();) {
            const size_t size = std::min<size_t>(1 + random() % 100, stream.size() - at);
            auto piece = std::span<const uint8_t>(stream).subspan(at, size);
            at += size;
            while (const auto next = reader.take(piece, plenty)) {
                got.push_back(*next);
            }
        }
        ASSERT_EQ(got, sent);
    }
}

TEST(LongestReplies, HaveRoomForFortyPresetsAndNoMore) {
    EXPECT_EQ(longest_list_reply, 28u + 40 * 744);
    EXPECT_EQ(longest_store_reply, 24u);
    EXPECT_EQ(longest_update_reply, 12u);
    EXPECT_EQ(longest_delete_reply, 20u + 40 * 744 + 16);
    EXPECT_EQ(longest_picture_reply, 16u * 1024 * 1024);
}

// ---- Replies --------------------------------------------------------------------------------------------------------

TEST(Replies, ListHoldsModelLayoutAndPresets) {
    const ListReply reply = parse_list_reply(list_reply(2));
    EXPECT_EQ(reply.model, "KT7");
    EXPECT_EQ(reply.layout, 1);
    ASSERT_EQ(reply.presets.size(), 2u);
    EXPECT_EQ(reply.presets[0].custom_id, 1);
    EXPECT_EQ(reply.presets[1].custom_id, 2);
}

TEST(Replies, ListHoldsNoneToFortyPresets) {
    EXPECT_TRUE(parse_list_reply(list_reply(0)).presets.empty());
    EXPECT_EQ(parse_list_reply(list_reply(40)).presets.size(), 40u);
}

TEST(Replies, ListTakesAModelThatFillsItsTwelveBytes) {
    EXPECT_EQ(parse_list_reply(frame(0x1001, Bytes(12, 'M') + words({1, 0}))).model, "MMMMMMMMMMMM");
}

TEST(Replies, PictureHoldsItsIdAndBytes) {
    const PictureReply reply = parse_picture_reply(frame(0x1002, words({12}) + Bytes({0xFF, 0xD8, 3})));
    EXPECT_EQ(reply.custom_id, 12);
    EXPECT_EQ(reply.picture, (Bytes{0xFF, 0xD8, 3}));
}

TEST(Replies, PictureStaysInTheMemoryOfItsFrame) {
    Bytes whole = frame(0x1002, words({12}) + Bytes(100, 5));
    const uint8_t* const memory = whole.data();
    EXPECT_EQ(parse_picture_reply(std::move(whole)).picture.data(), memory);
}

TEST(Replies, PictureMayBeEmpty) {
    EXPECT_TRUE(parse_picture_reply(frame(0x1002, words({12}))).picture.empty());
}

TEST(Replies, StoreHoldsResultAndIdentity) {
    const StoreReply reply = parse_store_reply(frame(0x1003, words({-4, 1, 2, 3})));
    EXPECT_EQ(reply.result, -4);
    EXPECT_EQ(reply.preset_num, 1);
    EXPECT_EQ(reply.custom_id, 2);
    EXPECT_EQ(reply.applocal_id, 3);
}

TEST(Replies, UpdateHoldsAResult) {
    EXPECT_EQ(parse_update_reply(frame(0x1004, words({-3}))), -3);
}

TEST(Replies, DeleteHoldsResultAndWhatIsLeft) {
    const DeleteReply reply = parse_delete_reply(frame(0x1005, words({1, 1, 1}) + record_with_id(8)));
    EXPECT_EQ(reply.result, 1);
    EXPECT_EQ(reply.layout, 1);
    ASSERT_EQ(reply.presets.size(), 1u);
    EXPECT_EQ(reply.presets[0].custom_id, 8);
}

TEST(Replies, DeleteMayEndInEightBytesForEachPresetThatWasKept) {
    for (const size_t slack : {size_t{8}, size_t{16}}) {
        const DeleteReply reply =
            parse_delete_reply(frame(0x1005, words({-7, 1, 1}) + record_with_id(8) + Bytes(slack)));
        EXPECT_EQ(reply.result, -7);
        EXPECT_EQ(reply.presets.size(), 1u);
    }
}

TEST(Replies, OfABusyCameraAreFramesOfTheirOwn) {
    EXPECT_EQ(busy_frame(), (Bytes{0xFF, 0x10, 0, 0, 12, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(busy_function, 0x10FF);
}

struct Broken {
    const char* what;
    std::function<void()> parse;
    const char* line;
};

TEST(Replies, ThatBreakTheProtocolAreNamedWithWhatWasExpectedAndWhatCame) {
    const Broken broken[] = {
        {"no header", [] { parse_list_reply(Bytes(7)); }, "expected a header of 8 bytes, got 7 bytes"},
        {"other function", [] { parse_list_reply(frame(0x1002, {})); },
         "expected the preset list (reply 0x1001), got function 0x1002"},
        {"negative function", [] { parse_update_reply(frame(-1, words({1}))); },
         "expected the answer to renaming (reply 0x1004), got function 0xffffffff"},
        {"false total",
         [] {
             parse_update_reply(words({0x1004, 13, 1}));
         },
         "announces 13 bytes, got 12"},
        {"negative total",
         [] {
             parse_update_reply(words({0x1004, -12, 1}));
         },
         "announces -12 bytes, got 12"},
        {"short list", [] { parse_list_reply(frame(0x1001, Bytes(19))); }, "at least 28 bytes, got 27"},
        {"layout",
         [] {
             parse_list_reply(frame(0x1001, model + words({2, 0})));
         },
         "layout 2, expected 1"},
        {"41 presets", [] { parse_list_reply(list_reply(41)); }, "41 presets, expected 0 to 40"},
        {"-1 presets",
         [] {
             parse_list_reply(frame(0x1001, model + words({1, -1})));
         },
         "-1 presets, expected 0 to 40"},
        {"fewer records than named",
         [] {
             parse_list_reply(frame(0x1001, model + words({1, 1})));
         },
         "with 1 presets has 772 bytes, got 28"},
        {"bytes behind the list",
         [] {
             parse_list_reply(frame(0x1001, model + words({1, 0, 0, 0})));
         },
         "with 0 presets has 28 bytes, got 36"},
        {"short picture", [] { parse_picture_reply(frame(0x1002, Bytes(3))); }, "at least 12 bytes, got 11"},
        {"short store", [] { parse_store_reply(frame(0x1003, Bytes(15))); }, "at least 24 bytes, got 23"},
        {"long store", [] { parse_store_reply(frame(0x1003, Bytes(17))); }, "has 24 bytes, got 25"},
        {"long update", [] { parse_update_reply(frame(0x1004, Bytes(5))); }, "has 12 bytes, got 13"},
        {"short delete", [] { parse_delete_reply(frame(0x1005, Bytes(11))); }, "at least 20 bytes, got 19"},
        {"delete layout",
         [] {
             parse_delete_reply(frame(0x1005, words({1, 0, 0})));
         },
         "layout 0, expected 1"},
        {"delete slack",
         [] {
             parse_delete_reply(frame(0x1005, words({1, 1, 0}) + Bytes(4)));
         },
         "with 0 presets has 20 bytes, got 24"},
        {"delete slack of three",
         [] {
             parse_delete_reply(frame(0x1005, words({1, 1, 0}) + Bytes(24)));
         },
         "with 0 presets has 20 bytes, got 44"},
    };
    for (const Broken& line : broken) {
        const std::string failure = failure_of(line.parse);
        EXPECT_NE(failure.find(line.line), std::string::npos) << line.what << ": " << failure;
    }
}

TEST(Replies, OfAnyBytesAreTakenOrRefusedButNothingElse) {
    const std::function<void(const Bytes&)> parsers[] = {
        [](const Bytes& bytes) { parse_list_reply(bytes); },   [](const Bytes& bytes) { parse_picture_reply(bytes); },
        [](const Bytes& bytes) { parse_store_reply(bytes); },  [](const Bytes& bytes) { parse_update_reply(bytes); },
        [](const Bytes& bytes) { parse_delete_reply(bytes); },
    };
    std::mt19937 random(11);
    for (int32_t round = 0; round < 20000; ++round) {
        const auto kind = static_cast<size_t>(round) % std::size(parsers);
        Bytes bytes = list_reply(2);
        bytes.resize(random() % bytes.size());
        for (int k = 0; k < 3 && !bytes.empty(); ++k) {
            bytes[random() % std::min<size_t>(bytes.size(), 32)] = static_cast<uint8_t>(random());
        }
        if (bytes.size() >= 8 && round % 3 != 0) { // past the first two checks
            put_word(bytes, 0, 0x1001 + static_cast<int32_t>(kind));
            put_word(bytes, 4, static_cast<int32_t>(bytes.size()));
        }
        try {
            parsers[kind](bytes);
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.code(), exit_protocol);
        }
    }
}

} // namespace
} // namespace desk
