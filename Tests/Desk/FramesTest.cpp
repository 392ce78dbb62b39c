// Requests, replies, and frames put together from pieces.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <random>

#include "Common/Failure.h"
#include "Wire/Frames.h"

namespace desk {
namespace {

Bytes words(std::initializer_list<int32_t> values) {
    Bytes bytes;
    for (const int32_t value : values)
        append_word(bytes, value);
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
    for (int32_t id = 1; id <= number; ++id)
        body = body + record_with_id(id);
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

// ---- Requests ---------------------------------------------------------------------------------------------

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

// ---- Frames from pieces -----------------------------------------------------------------------------------

TEST(FrameReader, GivesAFrameOnceItsLastByteHasArrived) {
    const Bytes whole = frame(0x1004, words({1}));
    FrameReader reader;
    for (size_t k = 0; k + 1 < whole.size(); ++k) {
        reader.feed(std::span(whole).subspan(k, 1));
        EXPECT_FALSE(reader.next()) << k;
    }
    reader.feed(std::span(whole).last(1));
    EXPECT_EQ(reader.next(), whole);
    EXPECT_FALSE(reader.next());
}

TEST(FrameReader, GivesAFrameOfAHeaderAlone) {
    FrameReader reader;
    reader.feed(words({255, 8}));
    EXPECT_EQ(reader.next(), words({255, 8}));
}

TEST(FrameReader, TakesSeveralFramesOutOfOnePiece) {
    const Bytes first = frame(0x1004, words({1}));
    const Bytes second = frame(0x1001, Bytes(100, 7));
    FrameReader reader;
    reader.feed(first + second + words({0x1002}));
    EXPECT_EQ(reader.next(), first);
    EXPECT_EQ(reader.next(), second);
    EXPECT_FALSE(reader.next());
    reader.feed(words({8}));
    EXPECT_EQ(reader.next(), words({0x1002, 8}));
}

TEST(FrameReader, TellsHowMuchHasArrivedOfHowMuch) {
    FrameReader reader;
    EXPECT_EQ(reader.arrived(), 0u);
    EXPECT_EQ(reader.expected(), 0u);
    reader.feed(Bytes{0x02, 0x10, 0, 0, 20, 0, 0});
    EXPECT_EQ(reader.arrived(), 7u);
    EXPECT_EQ(reader.expected(), 0u); // the length is not complete
    reader.feed(Bytes{0, 9, 9});
    EXPECT_EQ(reader.arrived(), 10u);
    EXPECT_EQ(reader.expected(), 20u);
    reader.feed(Bytes(15, 9)); // five of them belong to the frame that follows
    EXPECT_EQ(reader.arrived(), 20u);
    EXPECT_EQ(reader.expected(), 20u);
    ASSERT_TRUE(reader.next());
    EXPECT_EQ(reader.arrived(), 5u);
    EXPECT_EQ(reader.expected(), 0u);
}

TEST(FrameReader, RefusesALengthThatNoFrameHas) {
    for (const int32_t total : {7, 0, -1, INT32_MIN, (1 << 30) + 1, INT32_MAX}) {
        FrameReader reader;
        reader.feed(words({0x1001, total}));
        const std::string line = failure_of([&] { reader.next(); });
        EXPECT_NE(line.find("announces " + std::to_string(total) + " bytes"), std::string::npos) << line;
        EXPECT_EQ(reader.expected(), 0u);
    }
}

TEST(FrameReader, WaitsForTheLongestFrame) {
    FrameReader reader;
    reader.feed(words({0x1002, 1 << 30}));
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(reader.expected(), size_t{1} << 30);
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
            const size_t piece = std::min<size_t>(1 + random() % 100, stream.size() - at);
            reader.feed(std::span(stream).subspan(at, piece));
            at += piece;
            while (const auto next = reader.next())
                got.push_back(*next);
        }
        ASSERT_EQ(got, sent);
    }
}

// ---- Replies ----------------------------------------------------------------------------------------------

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
        [](const Bytes& bytes) { parse_list_reply(bytes); },
        [](const Bytes& bytes) { parse_picture_reply(bytes); },
        [](const Bytes& bytes) { parse_store_reply(bytes); },
        [](const Bytes& bytes) { parse_update_reply(bytes); },
        [](const Bytes& bytes) { parse_delete_reply(bytes); },
    };
    std::mt19937 random(11);
    for (int32_t round = 0; round < 20000; ++round) {
        const auto kind = static_cast<size_t>(round) % std::size(parsers);
        Bytes bytes = list_reply(2);
        bytes.resize(random() % bytes.size());
        for (int k = 0; k < 3 && !bytes.empty(); ++k)
            bytes[random() % std::min<size_t>(bytes.size(), 32)] = static_cast<uint8_t>(random());
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
