// It does not matter how a request is cut into packets: every cut gives the same result, the same calls of the camera's
// services and the same replies, byte for byte. The log differs in the lines that report the appended packets, and in
// nothing else.
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

using Positions = std::vector<size_t>;

// All that a request leads to.
struct Outcome {
    std::vector<int> results; // one for each packet
    Transcript transcript;
    std::vector<Bytes> replies; // each in its whole buffer
    std::vector<int> lengths;
    std::vector<Bytes> saved;
    std::vector<Bytes> titles;
    std::vector<Bytes> presets;
};

Outcome converse(const Bytes& request, const Positions& ends) {
    FakeHost host;
    store_presets_of_every_request(host);
    Outcome outcome;
    outcome.results = host.receive_in_packets(request, ends);
    outcome.transcript = host.transcript;
    for (const Reply& reply : host.replies) {
        outcome.replies.push_back(reply.buffer);
        outcome.lengths.push_back(reply.message.length);
    }
    for (const SavedPreset& saved : host.saved) {
        outcome.saved.push_back(image(saved.record) + saved.image);
    }
    outcome.titles = host.updated_titles;
    for (const tag_custom_info& preset : host.presets) {
        outcome.presets.push_back(image(preset));
    }
    return outcome;
}

const std::string append_line_start = "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=";

bool is_append_line(const std::string& line) {
    return line.rfind(append_line_start, 0) == 0;
}

Transcript append_lines_of(Transcript transcript) {
    std::erase_if(transcript, [](const std::string& line) { return !is_append_line(line); });
    return transcript;
}

Transcript without_append_lines(Transcript transcript) {
    std::erase_if(transcript, is_append_line);
    return transcript;
}

// The append lines of packets that end at these positions.
Transcript append_lines_for(const Bytes& request, const Positions& ends) {
    Transcript expected;
    in_packets(request, ends, [&expected](size_t first, size_t end) {
        expected.push_back(append_line_start + std::to_string(end - first) +
                           ", sm_BT_combine_length=" + std::to_string(end));
    });
    return expected;
}

class PacketCut : public testing::TestWithParam<NamedRequest> {
  protected:
    const Bytes& request = GetParam().bytes;
    // The conversation in one packet, which all others are compared with.
    const Outcome whole = converse(request, {});

    void compare(const Positions& ends) {
        const Outcome cut = converse(request, ends);
        std::vector<int> results(ends.size(), SM_RETURN_FAIL);
        results.push_back(GetParam().result);
        EXPECT_EQ(cut.results, results);
        EXPECT_EQ(append_lines_of(cut.transcript), append_lines_for(request, ends));
        EXPECT_EQ(without_append_lines(cut.transcript), without_append_lines(whole.transcript));
        EXPECT_TRUE(cut.replies == whole.replies);
        EXPECT_EQ(cut.lengths, whole.lengths);
        EXPECT_TRUE(cut.saved == whole.saved);
        EXPECT_EQ(cut.titles, whole.titles);
        EXPECT_TRUE(cut.presets == whole.presets);
    }

    void compare_in_packets_of(size_t size) {
        Positions ends;
        for (size_t end = size; end < request.size(); end += size) {
            ends.push_back(end);
        }
        compare(ends);
    }
};

TEST_P(PacketCut, HasARequestToCompareWithThatDoesWhatItIsMeantTo) {
    EXPECT_EQ(whole.results, (std::vector<int>{GetParam().result}));
    EXPECT_EQ(append_lines_of(whole.transcript), append_lines_for(request, {}));
    EXPECT_EQ(whole.replies.size(), GetParam().replies);
    size_t calls = 0;
    for (const std::string& line : whole.transcript) {
        const bool is_log_line = line.find(" ALG_S") != std::string::npos;
        calls += is_log_line || line == "User_Spec_Get_Value(272)" ? 0u : 1u;
    }
    EXPECT_EQ(calls, GetParam().service_calls);
}

TEST_P(PacketCut, MakesNoDifferenceInTwoPacketsAtAnyPosition) {
    for (size_t position = 1; position < request.size() && !HasFailure(); ++position) {
        SCOPED_TRACE("first packet of " + std::to_string(position) + " bytes");
        compare({position});
    }
}

TEST_P(PacketCut, MakesNoDifferenceInPacketsOfOneByte) {
    compare_in_packets_of(1);
}

TEST_P(PacketCut, MakesNoDifferenceInPacketsOfTheLinksUsualSizes) {
    for (const size_t size : {2u, 3u, 7u, 8u, 20u, 100u, 400u}) {
        SCOPED_TRACE("packets of " + std::to_string(size) + " bytes");
        compare_in_packets_of(size);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, PacketCut, testing::ValuesIn(every_request()), name_of_request);

// ---- Three packets --------------------------------------------------------------------------------------------------

// Every position of a short request, and of a long one those around which something of it begins or ends.
Positions cut_positions(size_t size) {
    std::set<size_t> positions;
    const auto add = [&](size_t position) {
        if (position > 0 && position < size) {
            positions.insert(position);
        }
    };
    if (size <= 40) {
        for (size_t position = 1; position < size; ++position) {
            add(position);
        }
    } else {
        add(1);
        for (const size_t border : {size_t{4}, size_t{8}, size_t{60}, size_t{748}, size_t{752}, size}) {
            add(border - 1);
            add(border);
            add(border + 1);
        }
    }
    return {positions.begin(), positions.end()};
}

void expect_same_answer(const Outcome& cut, const Outcome& whole) {
    EXPECT_EQ(cut.results.back(), whole.results.back());
    EXPECT_EQ(without_append_lines(cut.transcript), without_append_lines(whole.transcript));
    EXPECT_TRUE(cut.replies == whole.replies);
    EXPECT_TRUE(cut.saved == whole.saved);
}

TEST(ThreePackets, GiveTheSameAnswerAsOneWhereverARequestIsCut) {
    for (const NamedRequest& entry : every_request()) {
        const Outcome whole = converse(entry.bytes, {});
        const Positions cuts = cut_positions(entry.bytes.size());
        EXPECT_GE(cuts.size(), 7u);
        for (size_t first = 0; first < cuts.size(); ++first) {
            for (size_t second = first + 1; second < cuts.size(); ++second) {
                SCOPED_TRACE(std::string(entry.name) + ", cut at " + std::to_string(cuts[first]) + " and " +
                             std::to_string(cuts[second]));
                expect_same_answer(converse(entry.bytes, {cuts[first], cuts[second]}), whole);
                ASSERT_FALSE(HasFailure());
            }
        }
    }
}

} // namespace
