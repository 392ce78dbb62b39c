// What every request leaves behind, whatever it is and whatever comes of it: an idle intake that says what it has
// freed, and the replies that still wait where they were.
#include <algorithm>
#include <cstdlib>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

using Slots = std::vector<const unsigned char*>;

Slots slots() {
    return {shotmentor_p_Full_Q, shotmentor_p_Full_Q + 10};
}

class EveryRequest : public testing::TestWithParam<NamedRequest> {
  protected:
    EveryRequest() { store_presets_of_every_request(host); }

    // Leaves so many replies behind that nobody has confirmed, the last one current.
    void leave_unconfirmed(int replies) {
        for (int number = 0; number < replies; ++number) {
            host.receive(delete_request({}));
        }
        host.forget();
        before = slots();
        current_before = shotmentor_p_FullData;
        count_before = shotmentor_p_Full_Q_NUM;
    }

    void ask() { EXPECT_EQ(host.receive(GetParam().bytes), GetParam().result); }

    bool is_replied() const { return GetParam().replies > 0; }
    // An error reply to a picture takes the place of the current one, and has no length.
    bool is_error_reply() const { return is_replied() && host.replies.back().message.length == 0; }

    // The slots, the count and the current reply are as before, but for one reply that was parked in `slot`.
    void expect_queue(int slot) {
        Slots expected = before;
        int count = count_before;
        if (is_replied() && !is_error_reply()) {
            expected[static_cast<size_t>(slot)] = current_before;
            count = slot + 1;
        }
        EXPECT_EQ(slots(), expected);
        EXPECT_EQ(shotmentor_p_Full_Q_NUM, count);
        EXPECT_EQ(shotmentor_p_FullData, is_replied() ? host.replies.back().message.data : current_before);
    }

    // Frees what the library has let go of without freeing it: a replaced reply, or one that the full queue lost.
    void free_lost(const unsigned char* lost) { std::free(const_cast<unsigned char*>(lost)); }

    FakeHost host;
    Slots before;
    const unsigned char* current_before = nullptr;
    int count_before = 0;
};

TEST_P(EveryRequest, LeavesTheIntakeIdleAndSaysWhichBufferItFreed) {
    ask();
    EXPECT_EQ(sm_BT_total_length, -1);
    EXPECT_EQ(sm_BT_combine_length, 0);
    EXPECT_EQ(shotmentor_p_ReceiveData, nullptr);
    EXPECT_EQ(lines_with("shotmentor_p_ReceiveData add=", host.log()),
              Transcript{"PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1"});
    EXPECT_EQ(host.transcript.back(), "PLAIN ALG_SMM free Receive add=#1");
    EXPECT_EQ(host.blocks_owned(), GetParam().replies);
}

TEST_P(EveryRequest, ParksNothingWhereNoReplyWaits) {
    leave_unconfirmed(0);
    ask();
    EXPECT_EQ(slots(), Slots(10, nullptr));
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
    EXPECT_EQ(shotmentor_p_FullData, is_replied() ? host.replies.back().message.data : nullptr);
}

TEST_P(EveryRequest, ParksTheCurrentReplyBehindThoseThatWaitOrNone) {
    leave_unconfirmed(3);
    ask();
    expect_queue(2);
    if (is_error_reply()) {
        free_lost(current_before);
    }
}

TEST_P(EveryRequest, PutsTheCurrentReplyIntoTheLastSlotOfAFullQueue) {
    leave_unconfirmed(11);
    ask();
    expect_queue(9);
    if (is_replied()) {
        free_lost(is_error_reply() ? current_before : before[9]);
    }
}

TEST_P(EveryRequest, LeavesTheSlotsBehindTheCountAlone) {
    leave_unconfirmed(11);
    host.confirm();
    host.confirm(); // slots 8 and 9 still show the tenth reply
    before = slots();
    count_before = shotmentor_p_Full_Q_NUM;
    ASSERT_EQ(count_before, 8);
    ask();
    expect_queue(8);
    if (is_error_reply()) {
        free_lost(current_before);
    }
}

TEST_P(EveryRequest, RunsTheSameWhenItRunsAgain) {
    ask();
    const Transcript first = renumbered(host.transcript);
    host.settle();
    host.forget();
    if (GetParam().bytes != request_named("deletion of one") && GetParam().bytes != request_named("deletion of all")) {
        ask(); // a deletion has left another camera behind
        EXPECT_EQ(renumbered(host.transcript), first);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, EveryRequest, testing::ValuesIn(every_request()), name_of_request);

} // namespace
