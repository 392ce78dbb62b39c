// How replies are sent and how long they live: the frame and the send record, the queue of replies whose confirmation
// is late, and what a confirmation frees.
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandLines.h"
#include "FakeHost.h"

namespace {

// ---- Helpers --------------------------------------------------------------------------------------------------------

const std::string confirmation_line = "GREEN ALG_SMM ADE_ShotMentor_Result_Manager result";
const std::string nothing_to_confirm = "ERROR ALG_SMM ERR ADE_ShotMentor_Result_Manager NULL pointer ";

std::string parked(const std::string& address, int count) {
    return "ERROR ALG_SMM not receive EVT_BT_APP_SEND_RESULT => save add=" + address +
           " at QUEUE, sum # of QUEUE=" + std::to_string(count);
}

std::string freed_late(const std::string& address, int count) {
    return "ERROR ALG_SMM late receive EVT_BT_APP_SEND_RESULT => add=" + address +
           ", sum # of QUEUE=" + std::to_string(count);
}

std::string freed_current(const std::string& address) {
    return "PLAIN ALG_SMM free shotmentor_p_FullData add=" + address;
}

std::string allocated(const std::string& address) {
    return "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=" + address;
}

// Sends one reply whose result word is `number`: 0x1004, 12, number. No other buffer is involved, so that the addresses
// in the log are those of replies alone, "#1" for the first.
void send_reply(FakeHost& host, int number) {
    sm_tag_custom_info record{};
    record.custom_id = 3;
    host.update_answer = number;
    const int result = ADE_SM_Update_Preset(&record, sizeof record);
    EXPECT_EQ(result, number);
}

void send_replies(FakeHost& host, int count) {
    for (int number = 1; number <= count; ++number) {
        send_reply(host, number);
    }
}

// What send_reply leaves in the transcript; `park_line` where an unconfirmed reply had to be parked.
Transcript sending(int number, const std::string& address, const Transcript& park_line = {}) {
    return joined({
        {"CYAN ALG_SMM ADE_SM_Update_Preset() custom_id=3, server_id=0, title=",
         "__ui_preset_update_comfirm(3, 0, \"\")"},
        park_line,
        {allocated(address), "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1004, return=" + std::to_string(number),
         "bt_send_msgs(12)"},
    });
}

// The log lines of a transcript.
Transcript without_calls(Transcript transcript) {
    std::erase_if(transcript, [](const std::string& event) { return event.find(" ALG_SMM ") == std::string::npos; });
    return transcript;
}

// The number of the reply that lies in a buffer; 0 without a buffer.
int number_in(const unsigned char* buffer) {
    int32_t number = 0;
    if (buffer != nullptr) {
        std::memcpy(&number, buffer + 8, sizeof number);
    }
    return number;
}

// The numbers of the queued replies, as the count bounds them.
std::vector<int> queued() {
    std::vector<int> numbers;
    for (int index = 0; index < shotmentor_p_Full_Q_NUM; ++index) {
        numbers.push_back(number_in(shotmentor_p_Full_Q[index]));
    }
    return numbers;
}

// Frees a reply that the library let go of without freeing it.
void free_lost(const FakeHost& host, size_t index) {
    std::free(host.replies.at(index).message.data);
}

// ---- At the start ---------------------------------------------------------------------------------------------------

// The state as the library is loaded, taken before the first host of the tests touches it.
const unsigned char* const current_at_load = shotmentor_p_FullData;
const int32_t count_at_load = shotmentor_p_Full_Q_NUM;
const std::vector<const unsigned char*> queue_at_load(std::begin(shotmentor_p_Full_Q), std::end(shotmentor_p_Full_Q));

TEST(ReplyQueue, IsEmptyWhenTheLibraryIsLoaded) {
    EXPECT_EQ(current_at_load, nullptr);
    EXPECT_EQ(count_at_load, 0);
    EXPECT_EQ(queue_at_load, std::vector<const unsigned char*>(10, nullptr));
}

TEST(ReplyQueue, HasNothingToConfirmAtTheStart) {
    FakeHost host;
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{confirmation_line, nothing_to_confirm}));
    EXPECT_EQ(shotmentor_p_FullData, nullptr);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
}

// ---- One reply ------------------------------------------------------------------------------------------------------

TEST(ReplyQueue, KeepsAReplyUntilItIsConfirmed) {
    FakeHost host;
    send_reply(host, 1);
    EXPECT_EQ(host.blocks_owned(), 1u);
    EXPECT_EQ(number_in(shotmentor_p_FullData), 1);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);

    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.blocks_owned(), 0u);
    EXPECT_EQ(shotmentor_p_FullData, nullptr);
    EXPECT_EQ(host.transcript, joined({sending(1, "#1"), {confirmation_line, freed_current("#1")}}));

    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.freed, (std::vector<int>{0}));
}

TEST(ReplyQueue, IgnoresTheEventsData) {
    FakeHost host;
    send_reply(host, 1);
    const Bytes data = {1, 2, 3};
    EXPECT_EQ(ADE_ShotMentor_Result_Manager(data.data(), -7), SM_RETURN_TRUE);
    EXPECT_EQ(host.freed, (std::vector<int>{0}));
}

TEST(ReplyQueue, PutsAReplyIntoAClearedBufferOf30000Bytes) {
    FakeHost host;
    send_reply(host, 1);
    ASSERT_EQ(host.replies.at(0).buffer.size(), 30000u);
    std::memset(shotmentor_p_FullData, 0xEE, 30000); // the heap hands this block out again
    host.confirm();
    send_reply(host, 77);
    EXPECT_EQ(SM_MALLOC_SIZE, 30000);
    EXPECT_EQ(host.replies.at(1).bytes, words({0x1004, 12, 77}));
    EXPECT_TRUE(host.replies.at(1).buffer == words({0x1004, 12, 77}) + Bytes(30000 - 12));
}

TEST(ReplyQueue, StartsEveryReplyWithTheRequestsNumberPlus0x1000AndItsLength) {
    struct Case {
        Bytes request;
        int32_t function;
        int length;
    };
    const Case cases[] = {
        {list_request(), 0x1001, 28 + 744},
        {picture_request(7, 5), 0x1002, 12},
        {request(SM_FUNCTION_RECEIVE_PRESET), 0x1003, 24},
        {request(SM_FUNCTION_UPDATE_PRESET), 0x1004, 12},
        {delete_request({}), 0x1005, 20},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.function);
        FakeHost host;
        host.presets = {preset(7)};
        host.receive(each.request);
        ASSERT_EQ(host.replies.size(), 1u);
        const Reply& reply = host.replies[0];
        EXPECT_EQ(reply.message.length, each.length);
        ASSERT_GE(reply.bytes.size(), 8u);
        EXPECT_EQ(word_at(reply.bytes, 0), each.function);
        EXPECT_EQ(word_at(reply.bytes, 4), each.length);
    }
}

// ---- The send record ------------------------------------------------------------------------------------------------

TEST(SendRecord, Has100BytesWherePointersHave4) {
    EXPECT_EQ(sizeof(bt_msg_info), 96 + sizeof(void*));
    EXPECT_EQ(offsetof(bt_msg_info, message_kind), 0u);
    EXPECT_EQ(offsetof(bt_msg_info, data), 80u);
    EXPECT_EQ(offsetof(bt_msg_info, length), 80 + sizeof(void*));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(bt_msg_info), 100u);
        EXPECT_EQ(offsetof(bt_msg_info, length), 84u);
    }
}

TEST(SendRecord, HoldsTheKindTheReplyAndItsLengthAndIsZeroElsewhere) {
    FakeHost host;
    for (int round = 1; round <= 2; ++round) {
        SCOPED_TRACE(round);
        std::memset(&shotmentor_BT_info, 0xEE,
                    sizeof shotmentor_BT_info); // what an earlier send may have left
        send_reply(host, round);

        Bytes expected(sizeof(bt_msg_info));
        const int32_t kind = 9;
        const void* const data = shotmentor_p_FullData;
        const int32_t length = 12;
        std::memcpy(expected.data(), &kind, sizeof kind);
        std::memcpy(&expected[80], &data, sizeof data);
        std::memcpy(&expected[80 + sizeof data], &length, sizeof length);
        EXPECT_EQ(image(host.replies.back().message), expected);
        EXPECT_EQ(image(shotmentor_BT_info), expected);
    }
}

TEST(SendRecord, StaysAsItWasWhenItsReplyIsConfirmedOrAnotherOne) {
    FakeHost host;
    send_reply(host, 1);
    send_reply(host, 2);
    for (int confirmation = 1; confirmation <= 3; ++confirmation) { // the third one too many
        host.confirm();
        EXPECT_EQ(image(shotmentor_BT_info), image(host.replies[1].message)) << confirmation;
    }
}

TEST(SendRecord, StaysAsItWasWhenARequestGetsNoReply) {
    const Bytes requests[] = {
        state_off_request(SM_RETURN_TRUE), state_on_request(), list_request(), request(6), request(257),
        header(SM_FUNCTION_SEND_LIST, -1)};
    for (const Bytes& unanswered : requests) {
        FakeHost host;
        send_reply(host, 1);
        host.link_up = false; // so that the list gets none either
        host.receive(unanswered);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(image(shotmentor_BT_info), image(host.replies[0].message)) << word_at(unanswered, 0);
    }
}

TEST(SendRecord, IsRewrittenByTheNextSendWhileTheFirstReplyStaysUntouched) {
    FakeHost host;
    send_reply(host, 1);
    const auto* const first = static_cast<const unsigned char*>(host.replies[0].message.data);
    send_reply(host, 2);
    EXPECT_NE(shotmentor_BT_info.data, first);
    EXPECT_EQ(shotmentor_BT_info.data, shotmentor_p_FullData);
    EXPECT_EQ(Bytes(first, first + 30000), host.replies[0].buffer);
}

// ---- Late confirmations ---------------------------------------------------------------------------------------------

TEST(ReplyQueue, FreesTwoRepliesInTheOrderInWhichTheyWereSent) {
    FakeHost host;
    send_replies(host, 2);
    EXPECT_EQ(queued(), (std::vector<int>{1}));
    EXPECT_EQ(number_in(shotmentor_p_FullData), 2);

    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.freed, (std::vector<int>{0}));
    EXPECT_EQ(queued(), std::vector<int>{});
    EXPECT_EQ(number_in(shotmentor_p_FullData), 2);

    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.freed, (std::vector<int>{0, 1}));
    EXPECT_EQ(shotmentor_p_FullData, nullptr);

    EXPECT_EQ(host.transcript, joined({
                                   sending(1, "#1"),
                                   sending(2, "#2", {parked("#1", 1)}),
                                   {confirmation_line, freed_late("#1", 0)},
                                   {confirmation_line, freed_current("#2")},
                               }));
}

TEST(ReplyQueue, ParksTheUnconfirmedReplyBeforeItAllocatesTheNext) {
    FakeHost host;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    host.forget();
    EXPECT_EQ(host.receive(delete_request({})), SM_RETURN_DATA_ERR);
    EXPECT_EQ(lines_with(" add=#", command_lines(host.transcript)), (Transcript{parked("#1", 1), allocated("#2")}));
}

TEST(ReplyQueue, TakesALateConfirmationForTheOldestReply) {
    FakeHost host;
    send_replies(host, 4);
    EXPECT_EQ(queued(), (std::vector<int>{1, 2, 3}));
    host.confirm();
    EXPECT_EQ(queued(), (std::vector<int>{2, 3}));
    send_reply(host, 5);
    EXPECT_EQ(queued(), (std::vector<int>{2, 3, 4}));
    for (int left = 4; left > 0; --left) {
        EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    }
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.freed, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(host.blocks_owned(), 0u);
}

TEST(ReplyQueue, CountsTheParkedRepliesInTheLog) {
    FakeHost host;
    send_replies(host, 3);
    host.confirm();
    host.confirm();
    EXPECT_EQ(host.log(), joined({
                              without_calls(sending(1, "#1")),
                              without_calls(sending(2, "#2", {parked("#1", 1)})),
                              without_calls(sending(3, "#3", {parked("#2", 2)})),
                              {confirmation_line, freed_late("#1", 1)},
                              {confirmation_line, freed_late("#2", 0)},
                          }));
}

TEST(ReplyQueue, HoldsTenRepliesBesideTheCurrentOne) {
    FakeHost host;
    send_replies(host, 11);
    EXPECT_EQ(queued(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(number_in(shotmentor_p_FullData), 11);
    for (int left = 11; left > 0; --left) {
        EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    }
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.freed, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

// ---- The queue overflows --------------------------------------------------------------------------------------------

TEST(ReplyQueue, LosesTheTenthOfTwelveUnconfirmedReplies) {
    FakeHost host;
    send_replies(host, 12);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 10);
    EXPECT_EQ(queued(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 11}));
    EXPECT_EQ(number_in(shotmentor_p_FullData), 12);
    EXPECT_EQ(host.freed, std::vector<int>{}); // the tenth is not freed: the service may still be sending it
    EXPECT_EQ(host.blocks_owned(), 12u);
    free_lost(host, 9);
}

TEST(ReplyQueue, ReportsAnOverflowLikeAnyOtherParkedReply) {
    FakeHost host;
    send_replies(host, 13);
    Transcript expected = sending(1, "#1");
    for (int number = 2; number <= 13; ++number) {
        const std::string previous = "#" + std::to_string(number - 1);
        const Transcript park_line = {parked(previous, number < 12 ? number - 1 : 10)};
        expected = joined({expected, sending(number, "#" + std::to_string(number), park_line)});
    }
    EXPECT_EQ(host.transcript, expected);
    EXPECT_EQ(queued(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 12}));
    free_lost(host, 9);
    free_lost(host, 10);
}

TEST(ReplyQueue, FreesWhatIsLeftAfterAnOverflowInTheOrderOfTheSends) {
    FakeHost host;
    send_replies(host, 12);
    for (int left = 11; left > 0; --left) {
        EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    }
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL); // twelve were sent, one was lost
    EXPECT_EQ(host.freed, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11}));
    EXPECT_EQ(host.blocks_owned(), 1u);
    free_lost(host, 9);
}

TEST(ReplyQueue, KeepsThePointerOfItsLastSlotWhenItShifts) {
    FakeHost host;
    send_replies(host, 11);
    const unsigned char* const tenth = shotmentor_p_Full_Q[9];
    EXPECT_EQ(number_in(tenth), 10);

    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 9);
    EXPECT_EQ(shotmentor_p_Full_Q[8], tenth);
    EXPECT_EQ(shotmentor_p_Full_Q[9], tenth);

    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 8);
    EXPECT_EQ(shotmentor_p_Full_Q[7], tenth);
    EXPECT_EQ(shotmentor_p_Full_Q[8], tenth);
    EXPECT_EQ(shotmentor_p_Full_Q[9], tenth);
}

TEST(ReplyQueue, ShiftsAllOfItsSlotsThoseBehindTheCountToo) {
    FakeHost host;
    send_replies(host, 5);
    const auto slots = [] { return std::vector<const unsigned char*>(shotmentor_p_Full_Q, shotmentor_p_Full_Q + 10); };
    std::vector<const unsigned char*> expected = slots();
    while (shotmentor_p_Full_Q_NUM > 0) {
        EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
        expected.erase(expected.begin());
        expected.push_back(nullptr); // the last slot was empty, and keeps what it holds
        EXPECT_EQ(slots(), expected);
    }
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE); // the current one: no slot is touched
    EXPECT_EQ(slots(), expected);
}

TEST(ReplyQueue, TellsByItsCountAloneWhatItHolds) {
    FakeHost host;
    send_replies(host, 11);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    send_reply(host, 12); // slot 9 still shows the tenth reply, but is free: nothing is lost
    EXPECT_EQ(queued(), (std::vector<int>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    for (int left = 11; left > 0; --left) {
        EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    }
    EXPECT_EQ(host.freed, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(host.blocks_owned(), 0u);
}

// ---- No current reply, but a queue ----------------------------------------------------------------------------------

// Two replies in the queue and none current: what a third reply leaves for which there was no memory.
void queue_two_without_a_current_reply(FakeHost& host) {
    send_replies(host, 2);
    host.refuse_allocation(1);
    send_reply(host, 3);
    ASSERT_EQ(host.replies.size(), 2u);
    EXPECT_EQ(shotmentor_p_FullData, nullptr);
    EXPECT_EQ(queued(), (std::vector<int>{1, 2}));
}

TEST(ReplyQueue, ParksTheCurrentReplyEvenWhenThereIsNoMemoryForTheNext) {
    FakeHost host;
    queue_two_without_a_current_reply(host);
    EXPECT_EQ(host.transcript, joined({
                                   sending(1, "#1"),
                                   sending(2, "#2", {parked("#1", 1)}),
                                   {
                                       "CYAN ALG_SMM ADE_SM_Update_Preset() custom_id=3, server_id=0, title=",
                                       "__ui_preset_update_comfirm(3, 0, \"\")",
                                       parked("#2", 2),
                                       allocated("null"),
                                       "ERROR ALG_SMM malloc ERR size=30000",
                                   },
                               }));
}

TEST(ReplyQueue, RefusesAConfirmationWithoutACurrentReplyAndLeavesTheQueueAlone) {
    FakeHost host;
    queue_two_without_a_current_reply(host);
    host.transcript.clear();
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{confirmation_line, nothing_to_confirm}));
    EXPECT_EQ(queued(), (std::vector<int>{1, 2}));
    EXPECT_EQ(host.freed, std::vector<int>{});
}

TEST(ReplyQueue, FreesTheQueueOnceALaterReplyIsCurrent) {
    FakeHost host;
    queue_two_without_a_current_reply(host);
    send_reply(host, 4);
    EXPECT_EQ(queued(), (std::vector<int>{1, 2})); // nothing was current, so nothing was parked
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.freed, (std::vector<int>{0, 1, 2})); // the third that was sent is number 4
}

} // namespace
