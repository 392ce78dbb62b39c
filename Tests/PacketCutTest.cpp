// It does not matter how a request is cut into packets: every cut gives the same result, the same calls of the camera's
// services and the same replies, byte for byte. The log differs in the lines that report the appended packets, and in
// nothing else.
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakeHost.h"

namespace {

using Sizes = std::vector<size_t>;

struct Request {
    const char* name;
    Bytes bytes;
    int result;           // what the camera answers to it
    size_t service_calls; // how many calls it leads to, so that no comparison is between nothing and nothing
    size_t replies;
};

void PrintTo(const Request& request, std::ostream* out) {
    *out << request.name;
}

tag_custom_info stored_preset(int id, int number) {
    tag_custom_info record = preset(id, number);
    record.mode = 4;
    record.metering = 2;
    return record;
}

sm_tag_custom_info phone_record() {
    sm_tag_custom_info record{};
    std::strcpy(record.title, "Evening at the sea");
    record.mode = 2;
    record.av_index = 56;
    record.iso = 400;
    record.custom_id = 3;
    record.server_id = 0x01020304;
    record.made_id = 0x44;
    return record;
}

// One request of each kind. The camera stores presets with the custom ids 1 to 3.
std::vector<Request> requests() {
    return {
        {"0, link state off", state_off_request(SM_RETURN_BT_RES_ERR), 1, 1, 0},
        {"1, preset list", list_request(), 1, 6, 1},
        {"2, picture", picture_request(3, 8), 1, 2, 1},
        {"2, picture of a preset that does not exist", picture_request(77, 8), 1, 2, 1},
        {"3, store", store_request(phone_record(), pattern(100)), 1, 2, 1},
        {"3, store with too short a picture", store_request(phone_record(), pattern(99)), -4, 1, 1},
        {"4, update", update_request(phone_record()), 1, 2, 1},
        {"5, delete", delete_request({{0, 1}, {2, 3}}), 1, 9, 1},
        {"255, link state on", request(SM_FUNCTION_STATE_ON, pattern(5)), -1, 1, 0},
        {"200, a number that nobody serves", request(200, words({1})), -1, 0, 0},
    };
}

// All that a request leads to.
struct Outcome {
    std::vector<int> results; // one for each packet
    Transcript transcript;
    std::vector<Bytes> replies; // each in its whole buffer
    std::vector<int> lengths;
    std::vector<Bytes> saved;
    std::vector<Bytes> titles;
    std::vector<tag_custom_info> presets;
};

// Hands one packet over. The header words of a first packet are read in any case, so a shorter one lies in memory that
// holds the rest of the header behind it.
int hand_over(FakeHost& host, const Bytes& all, size_t first, size_t size) {
    if (first == 0 && size < sizeof(sm_frame)) {
        return host.receive_with_length(slice(all, 0, sizeof(sm_frame)), static_cast<int>(size));
    }
    return host.receive(slice(all, first, size));
}

Outcome converse(const Bytes& all, const Sizes& sizes) {
    FakeHost host;
    host.presets = {stored_preset(1, 0), stored_preset(2, 1), stored_preset(3, 2)};
    Outcome outcome;
    size_t first = 0;
    for (const size_t size : sizes) {
        outcome.results.push_back(hand_over(host, all, first, size));
        first += size;
    }
    outcome.transcript = host.transcript;
    for (const Reply& reply : host.replies) {
        outcome.replies.push_back(reply.buffer);
        outcome.lengths.push_back(reply.message.length);
    }
    for (const SavedPreset& saved : host.saved) {
        outcome.saved.push_back(image(saved.record) + saved.image);
    }
    outcome.titles = host.updated_titles;
    outcome.presets = host.presets;
    return outcome;
}

const std::string append_line_start = "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=";

bool is_append_line(const std::string& line) {
    return line.rfind(append_line_start, 0) == 0;
}

Transcript append_lines_of(const Transcript& transcript) {
    Transcript found;
    for (const std::string& line : transcript) {
        if (is_append_line(line)) {
            found.push_back(line);
        }
    }
    return found;
}

Transcript without_append_lines(Transcript transcript) {
    std::erase_if(transcript, is_append_line);
    return transcript;
}

// The append lines of packets of these sizes.
Transcript append_lines_for(const Sizes& sizes) {
    Transcript expected;
    size_t sum = 0;
    for (const size_t size : sizes) {
        sum += size;
        expected.push_back(append_line_start + std::to_string(size) + ", sm_BT_combine_length=" + std::to_string(sum));
    }
    return expected;
}

std::vector<Bytes> images(const std::vector<tag_custom_info>& records) {
    std::vector<Bytes> all;
    for (const tag_custom_info& record : records) {
        all.push_back(image(record));
    }
    return all;
}

void expect_same(const Outcome& whole, const Outcome& cut, const Sizes& sizes, int result) {
    std::vector<int> results(sizes.size(), -1);
    results.back() = result;
    EXPECT_EQ(cut.results, results);
    EXPECT_EQ(append_lines_of(cut.transcript), append_lines_for(sizes));
    EXPECT_EQ(without_append_lines(cut.transcript), without_append_lines(whole.transcript));
    EXPECT_TRUE(cut.replies == whole.replies);
    EXPECT_EQ(cut.lengths, whole.lengths);
    EXPECT_TRUE(cut.saved == whole.saved);
    EXPECT_EQ(cut.titles, whole.titles);
    EXPECT_TRUE(images(cut.presets) == images(whole.presets));
}

class PacketCut : public testing::TestWithParam<Request> {
  protected:
    // The conversation in one packet, which all others are compared with.
    const Outcome whole = converse(GetParam().bytes, {GetParam().bytes.size()});

    void compare(const Sizes& sizes) {
        expect_same(whole, converse(GetParam().bytes, sizes), sizes, GetParam().result);
    }
};

TEST_P(PacketCut, HasARequestToCompareWithThatDoesWhatItIsMeantTo) {
    const Request& request = GetParam();
    EXPECT_EQ(whole.results, (std::vector<int>{request.result}));
    EXPECT_EQ(append_lines_of(whole.transcript), append_lines_for({request.bytes.size()}));
    EXPECT_EQ(whole.replies.size(), request.replies);
    size_t calls = 0;
    for (const std::string& line : whole.transcript) {
        calls += line.find(" ALG_S") == std::string::npos ? 1u : 0u;
    }
    // The conversions of a list ask for the model's ISO steps, once for each record.
    for (const std::string& line : whole.transcript) {
        calls -= line == "User_Spec_Get_Value(272)" ? 1u : 0u;
    }
    EXPECT_EQ(calls, request.service_calls);
}

TEST_P(PacketCut, MakesNoDifferenceInTwoPacketsAtAnyPosition) {
    const size_t size = GetParam().bytes.size();
    for (size_t position = 1; position < size && !HasFailure(); ++position) {
        SCOPED_TRACE("first packet of " + std::to_string(position) + " bytes");
        compare({position, size - position});
    }
}

TEST_P(PacketCut, MakesNoDifferenceInPacketsOfOneByte) {
    compare(Sizes(GetParam().bytes.size(), 1));
}

TEST_P(PacketCut, MakesNoDifferenceInPacketsOfTheLinksUsualSizes) {
    for (const size_t packet : {2u, 3u, 7u, 8u, 20u, 100u, 400u}) {
        SCOPED_TRACE("packets of " + std::to_string(packet) + " bytes");
        Sizes sizes(GetParam().bytes.size() / packet, packet);
        if (const size_t rest = GetParam().bytes.size() % packet; rest > 0) {
            sizes.push_back(rest);
        }
        compare(sizes);
    }
}

std::string test_name(const testing::TestParamInfo<Request>& info) {
    std::string name;
    for (const char letter : std::string(info.param.name)) {
        name += std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Of, PacketCut, testing::ValuesIn(requests()), test_name);

} // namespace
