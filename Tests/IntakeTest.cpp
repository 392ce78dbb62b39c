// The intake of packets: how a request is put together from packets, which packets and requests are refused and how
// that is told, what happens to requests that never end, and what a host can do about them.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "CommandLines.h"
#include "FakeHost.h"

namespace {

// ---- Helpers --------------------------------------------------------------------------------------------------------

const std::string append_error = "ERROR ALG_SMM ERR ADE_ShotMentor_Combine_BTData ";
const std::string request_freed = "PLAIN ALG_SMM free Receive add=#1";

std::string function_line(int function) {
    return "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=" + std::to_string(function);
}

std::string total_line(int total) {
    return "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=" + std::to_string(total);
}

std::string buffer_line(const std::string& address = "#1") {
    return "PLAIN ALG_SMM shotmentor_p_ReceiveData add=" + address;
}

std::string append_line(int length, int sum) {
    return "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=" + std::to_string(length) +
           ", sm_BT_combine_length=" + std::to_string(sum);
}

std::string refused_length_line(int length) {
    return "ERROR ALG_SMM ERR : RESULT ADE_ShotMentor_Receive_Manager length=" + std::to_string(length);
}

std::string refused_function_line(int function) {
    return "ERROR ALG_SMM ERR : RESULT ADE_ShotMentor_Receive_Manager funcN=" + std::to_string(function);
}

std::string refused_total_line(int total) {
    return "ERROR ALG_SMM ERR : RESULT ADE_ShotMentor_Receive_Manager sm_total_length=" + std::to_string(total);
}

// The lines of a first packet whose buffer was allocated, before anything is appended.
Transcript first_packet(int function, int total) {
    return {function_line(function), total_line(total), buffer_line()};
}

void expect_idle() {
    EXPECT_EQ(sm_BT_total_length, -1);
    EXPECT_EQ(sm_BT_combine_length, 0);
    EXPECT_EQ(shotmentor_p_ReceiveData, nullptr);
}

void expect_in_reassembly(int total, int sum) {
    EXPECT_EQ(sm_BT_total_length, total);
    EXPECT_EQ(sm_BT_combine_length, sum);
    EXPECT_NE(shotmentor_p_ReceiveData, nullptr);
}

// The next packet is read as a first packet, and its request runs.
void expect_next_request_runs(FakeHost& host) {
    host.forget();
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_set_shotmentor_state(1)", "__ui_get_bt_state_for_phone()",
                                        "__ui_get_custom_mode_list_info()", "__ui_get_linked_preseet_num_for_phone(0)",
                                        "__ui_get_linked_preseet_num_for_phone(1)", "bt_send_msgs(28)"}));
    expect_idle();
}

// The bytes of the request in reassembly that have been stored so far.
Bytes stored(size_t first, size_t count) {
    return {shotmentor_p_ReceiveData + first, shotmentor_p_ReceiveData + first + count};
}

// ---- Requests that complete -----------------------------------------------------------------------------------------

// The state as the library is loaded, taken before the first host of the tests touches it.
const int32_t total_at_load = sm_BT_total_length;
const int32_t sum_at_load = sm_BT_combine_length;
const unsigned char* const buffer_at_load = shotmentor_p_ReceiveData;

TEST(Intake, IsIdleWhenTheLibraryIsLoaded) {
    EXPECT_EQ(total_at_load, -1);
    EXPECT_EQ(sum_at_load, 0);
    EXPECT_EQ(buffer_at_load, nullptr);
}

TEST(Intake, RunsARequestThatFitsInOnePacketBeforeTheCallReturns) {
    FakeHost host;
    EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, 8)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_set_shotmentor_state(1)", "__ui_get_bt_state_for_phone()",
                                        "__ui_get_custom_mode_list_info()", "__ui_get_linked_preseet_num_for_phone(0)",
                                        "__ui_get_linked_preseet_num_for_phone(1)", "bt_send_msgs(28)"}));
    expect_idle();
}

TEST(Intake, FreesTheBufferOfACompletedRequest) {
    FakeHost host;
    host.receive(state_on_request());
    EXPECT_EQ(host.allocations_asked(), 1);
    EXPECT_EQ(host.blocks_owned(), 0u);
    expect_idle();
}

TEST(Intake, AllocatesOneBufferOf600000BytesWhateverTheTotal) {
    for (const int total : {9, 1000, 599999, 600000, 600001, INT_MAX}) {
        SCOPED_TRACE(total);
        FakeHost host;
        EXPECT_EQ(host.receive(header(SM_FUNCTION_STATE_ON, total)), SM_RETURN_FAIL);
        EXPECT_EQ(host.allocations_asked(), 1);
        EXPECT_EQ(host.blocks_owned(), 1u);
        EXPECT_EQ(host.bytes_owned(), 600000u);
    }
}

TEST(Intake, PutsARequestOf1000BytesTogetherFromThreePackets) {
    sm_tag_custom_info record{};
    std::strcpy(record.title, "Sea");
    record.metering = 3;
    const Bytes picture = pattern(1000 - 8 - 744);
    const Bytes all = store_request(record, picture);
    ASSERT_EQ(all.size(), 1000u);

    FakeHost host;
    host.save = [](tag_custom_info&) { return 42; };
    EXPECT_EQ(host.receive(slice(all, 0, 400)), SM_RETURN_FAIL);
    expect_in_reassembly(1000, 400);
    EXPECT_EQ(host.receive(slice(all, 400, 400)), SM_RETURN_FAIL);
    expect_in_reassembly(1000, 800);
    EXPECT_EQ(stored(0, 800), slice(all, 0, 800));
    EXPECT_EQ(host.calls(), Transcript{});

    host.forget();
    EXPECT_EQ(host.receive(slice(all, 800, 200)), 42);
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_STREQ(host.saved[0].record.title, "Sea");
    EXPECT_EQ(host.saved[0].record.metering, 3);
    EXPECT_EQ(host.saved[0].image, picture);
    expect_idle();
}

TEST(Intake, RunsTheLongestRequestThatFits) {
    const Bytes picture = pattern(600000 - 8 - 744);
    const Bytes all = request(SM_FUNCTION_RECEIVE_PRESET, Bytes(744) + picture);
    ASSERT_EQ(all.size(), 600000u);
    FakeHost host;
    EXPECT_EQ(host.receive(slice(all, 0, 300000)), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(slice(all, 300000, 299999)), SM_RETURN_FAIL);
    expect_in_reassembly(600000, 599999);
    EXPECT_EQ(host.receive(slice(all, 599999, 1)), SM_RETURN_TRUE);
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(host.saved[0].length, 599248);
    EXPECT_TRUE(host.saved[0].image == picture);
    expect_idle();
}

TEST(Intake, RunsTheLongestRequestInOnePacket) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_ON, Bytes(599992))), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), Transcript{"__ui_set_shotmentor_state(1)"});
    expect_idle();
}

TEST(Intake, PassesTheCommandsResultBackWhateverItIs) {
    for (const int answer : {0, -1, -77, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(answer);
        FakeHost host;
        host.update_answer = answer;
        EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET, Bytes(744))), answer);
        expect_idle();
    }
}

TEST(Intake, RunsRequestsOneAfterAnother) {
    FakeHost host;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        host.forget();
        EXPECT_EQ(host.receive(header(SM_FUNCTION_STATE_OFF, 12)), SM_RETURN_FAIL);
        EXPECT_EQ(host.receive(words({SM_RETURN_TRUE})), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), (Transcript{"__ui_set_shotmentor_state(0)"}));
        expect_idle();
    }
}

TEST(Intake, BelievesATotalBelowTheHeadersOwnLength) {
    struct Case {
        int total;
        const char* off_line;
    };
    const Case cases[] = {
        {4, "CYAN ALG_SMM ADE_SM_Off() length=-4, return_BT=0"},
        {7, "CYAN ALG_SMM ADE_SM_Off() length=-1, return_BT=0"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.total);
        FakeHost host;
        EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_STATE_OFF, each.total), each.total), SM_RETURN_FAIL);
        EXPECT_EQ(host.calls(), Transcript{"__ui_set_shotmentor_state(0)"});
        EXPECT_EQ(host.transcript[6], each.off_line);
        expect_idle();
    }
}

// ---- First packets that are shorter than the header -----------------------------------------------------------------

TEST(Intake, ReadsBothHeaderWordsFromAFirstPacketOfAnyLength) {
    for (int length = 1; length < 8; ++length) {
        SCOPED_TRACE(length);
        const Bytes all = state_on_request();
        FakeHost host;
        EXPECT_EQ(host.receive_with_length(all, length), SM_RETURN_FAIL);
        EXPECT_EQ(host.calls(), Transcript{});
        expect_in_reassembly(8, length);
        EXPECT_EQ(stored(0, static_cast<size_t>(length)), slice(all, 0, static_cast<size_t>(length)));

        host.forget();
        const auto rest = static_cast<size_t>(8 - length);
        EXPECT_EQ(host.receive(slice(all, static_cast<size_t>(length), rest)), SM_RETURN_FAIL);
        EXPECT_EQ(host.calls(), Transcript{"__ui_set_shotmentor_state(1)"});
        expect_idle();
    }
}

TEST(Intake, RunsWhatArrivedNotWhatLayBehindTheFirstPacket) {
    FakeHost host;
    EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_STATE_ON, 8), 1), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive({1, 0, 0, 8, 0, 0, 0}), SM_RETURN_FAIL); // together FF 01 00 00: function 511
    EXPECT_EQ(host.transcript.at(6), "ERROR ALG_SMM ERROR ADE_ShotMentor_Receive_Function funcN=511");
    expect_idle();
}

// ---- Packets that are refused ---------------------------------------------------------------------------------------

TEST(Intake, RefusesAPacketWithoutALengthWhileIdle) {
    for (const int length : {0, -1, -8, INT_MIN}) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_SEND_LIST, 8), length), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{refused_length_line(length)}));
        EXPECT_EQ(host.allocations_asked(), 0);
        expect_idle();
    }
}

TEST(Intake, DoesNotLookAtThePacketOfARefusedLength) {
    FakeHost host;
    EXPECT_EQ(ADE_ShotMentor_Receive_Manager(nullptr, 0), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{refused_length_line(0)}));
}

TEST(Intake, IsNotDisturbedByAPacketWithoutALengthInTheMiddleOfARequest) {
    for (const int length : {0, -1, INT_MIN}) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(host.receive(slice(state_off_request(SM_RETURN_TRUE), 0, 10)), SM_RETURN_FAIL);
        const Bytes before = stored(0, 10);
        host.forget();
        EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_SEND_LIST, 8), length), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{refused_length_line(length)}));
        expect_in_reassembly(12, 10);
        EXPECT_EQ(stored(0, 10), before);
        EXPECT_EQ(host.receive({0, 0}), SM_RETURN_TRUE);
        expect_idle();
    }
}

TEST(Intake, RefusesAFirstPacketWithAFunctionNumberOutside0To256) {
    for (const int function : {257, -1, 1000, 0x1001, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(function);
        FakeHost host;
        EXPECT_EQ(host.receive(request(function)), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{refused_function_line(function)}));
        EXPECT_EQ(host.allocations_asked(), 0);
        expect_idle();
        expect_next_request_runs(host);
    }
}

TEST(Intake, AcceptsAFirstPacketWithAFunctionNumberThatNobodyServesUpTo256) {
    for (const int function : {256, 200, 6}) {
        SCOPED_TRACE(function);
        FakeHost host;
        const Bytes all = request(function, words({0}));
        EXPECT_EQ(host.receive(slice(all, 0, 8)), SM_RETURN_FAIL);
        expect_in_reassembly(12, 8);
        EXPECT_EQ(host.receive(slice(all, 8, 4)), SM_RETURN_FAIL);
        EXPECT_EQ(host.calls(), Transcript{});
        expect_idle();
    }
}

// ---- Requests that never complete -----------------------------------------------------------------------------------

TEST(Intake, NeverCompletesARequestWhoseFirstPacketOvershootsItsTotal) {
    for (const int total : {0, 1, 4, 7}) {
        SCOPED_TRACE(total);
        FakeHost host;
        EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, total)), SM_RETURN_FAIL);
        EXPECT_EQ(host.receive(state_on_request()), SM_RETURN_FAIL);
        EXPECT_EQ(host.receive({9, 9, 9}), SM_RETURN_FAIL);
        EXPECT_EQ(host.calls(), Transcript{});
        expect_in_reassembly(total, 19);
        EXPECT_EQ(stored(0, 19), header(SM_FUNCTION_SEND_LIST, total) + state_on_request() + Bytes({9, 9, 9}));
    }
}

TEST(Intake, NeverCompletesARequestWhoseLaterPacketOvershootsItsTotal) {
    FakeHost host;
    EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, 12)), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive({1, 2, 3, 4, 5}), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), Transcript{});
    expect_in_reassembly(12, 21);
}

TEST(Intake, NeverReadsAFunctionNumberInTheMiddleOfARequest) {
    FakeHost host;
    EXPECT_EQ(host.receive(header(SM_FUNCTION_STATE_OFF, 16)), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(words({SM_RETURN_BT_RES_ERR, 257})),
              SM_RETURN_TRUE); // 257 is payload here, not a function number
    expect_idle();
}

// ---- Announced totals that are refused ------------------------------------------------------------------------------

TEST(Intake, RefusesANegativeTotalAtOnceWithoutAllocating) {
    for (const int total : {-1, -2, -8, -600000, INT_MIN}) {
        SCOPED_TRACE(total);
        FakeHost host;
        EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, total)), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{function_line(1), total_line(total), refused_total_line(total)}));
        EXPECT_EQ(host.allocations_asked(), 0);
        expect_idle();
        expect_next_request_runs(host);
    }
}

TEST(Intake, CountsTheBytesOfATooLongRequestAndRefusesItAtItsEnd) {
    FakeHost host;
    EXPECT_EQ(host.receive(request_announcing(600001, SM_FUNCTION_SEND_LIST, Bytes(599992))), SM_RETURN_FAIL);
    expect_in_reassembly(600001, 600000);
    EXPECT_EQ(host.receive({7}), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, joined({first_packet(SM_FUNCTION_SEND_LIST, 600001),
                                       {
                                           append_line(600000, 600000),
                                           append_error,
                                           refused_total_line(600001),
                                           request_freed,
                                       }}));
    expect_idle();
    EXPECT_EQ(host.blocks_owned(), 0u);
    expect_next_request_runs(host);
}

TEST(Intake, RefusesATooLongRequestThatArrivesInOnePacket) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_ON, Bytes(599993))), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), Transcript{});
    expect_idle();
    expect_next_request_runs(host);
}

TEST(Intake, StaysInStepWithATooLongRequestUntilItsLastByte) {
    FakeHost host;
    EXPECT_EQ(host.receive(request_announcing(600020, SM_FUNCTION_SEND_LIST, Bytes(599992))), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(state_on_request()), SM_RETURN_FAIL); // bytes of the long request, not a request
    expect_in_reassembly(600020, 600008);
    EXPECT_EQ(host.receive(pattern(11)), SM_RETURN_FAIL);
    expect_in_reassembly(600020, 600019);
    EXPECT_EQ(host.receive({0}), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), Transcript{});
    expect_idle();
    expect_next_request_runs(host);
}

TEST(Intake, NeverCompletesATooLongRequestThatOvershoots) {
    FakeHost host;
    EXPECT_EQ(host.receive(request_announcing(600001, SM_FUNCTION_SEND_LIST, Bytes(599992))), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive({1, 2}), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), Transcript{});
    expect_in_reassembly(600001, 600010);
}

TEST(Intake, RefusesATotalOfTheLargestIntAtItsEnd) {
    FakeHost host;
    EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, INT_MAX)), SM_RETURN_FAIL);
    expect_in_reassembly(INT_MAX, 8);
    sm_BT_combine_length = INT_MAX - 10;
    EXPECT_EQ(host.receive(pattern(9)), SM_RETURN_FAIL);
    expect_in_reassembly(INT_MAX, INT_MAX - 1);
    EXPECT_EQ(host.receive({0}), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), Transcript{});
    expect_idle();
    expect_next_request_runs(host);
}

// ---- Packets that do not fit ----------------------------------------------------------------------------------------

TEST(Intake, StoresWhatFitsOfAPacketAndCountsAllOfIt) {
    for (const int total : {600000, 600001, 700000, INT_MAX}) {
        SCOPED_TRACE(total);
        FakeHost host;
        EXPECT_EQ(host.receive(request_announcing(total, SM_FUNCTION_SEND_LIST, Bytes(599996 - 8, 0xEE))),
                  SM_RETURN_FAIL);
        host.forget();
        EXPECT_EQ(host.receive({1, 2, 3, 4, 5, 6, 7, 8}), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{append_error}));
        expect_in_reassembly(total, 600004);
        EXPECT_EQ(stored(599994, 6), (Bytes{0xEE, 0xEE, 1, 2, 3, 4}));
    }
}

TEST(Intake, StoresNothingOnceTheBufferIsFull) {
    FakeHost host;
    EXPECT_EQ(host.receive(request_announcing(700000, SM_FUNCTION_SEND_LIST, Bytes(599992, 0xEE))), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive({1, 2, 3}), SM_RETURN_FAIL);
    expect_in_reassembly(700000, 600003);
    sm_BT_combine_length = 650000;
    EXPECT_EQ(host.receive({4, 5, 6}), SM_RETURN_FAIL);
    expect_in_reassembly(700000, 650003);
    EXPECT_EQ(stored(599990, 10), Bytes(10, 0xEE));
}

TEST(Intake, FillsTheBufferToItsLastByteWithoutAnError) {
    FakeHost host;
    EXPECT_EQ(host.receive(request_announcing(700000, SM_FUNCTION_SEND_LIST, Bytes(599991, 0xEE))), SM_RETURN_FAIL);
    host.forget();
    EXPECT_EQ(host.receive({0xAB}), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{append_line(1, 600000)}));
    EXPECT_EQ(stored(599998, 2), (Bytes{0xEE, 0xAB}));
}

TEST(Intake, StaysInReassemblyForGoodWhenALongestRequestOvershootsTheBuffer) {
    FakeHost host;
    EXPECT_EQ(host.receive(request_announcing(600000, SM_FUNCTION_SEND_LIST, Bytes(599990 - 8))), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(pattern(20)), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), Transcript{});
    expect_in_reassembly(600000, 600018);
}

TEST(Intake, DropsAPacketThatWouldCarryTheSumPastTheLargestInt) {
    for (const int total : {4, 600000, 600001, INT_MAX}) {
        SCOPED_TRACE(total);
        FakeHost host;
        EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, total)), SM_RETURN_FAIL);
        sm_BT_combine_length = INT_MAX - 3;
        host.forget();
        EXPECT_EQ(host.receive({1, 2, 3, 4}), SM_RETURN_FAIL);
        EXPECT_EQ(host.receive(pattern(100)), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{append_error, append_error}));
        expect_in_reassembly(total, INT_MAX - 3);
        EXPECT_EQ(stored(0, 8), header(SM_FUNCTION_SEND_LIST, total));
    }
}

TEST(Intake, CountsAPacketThatCarriesTheSumToTheLargestInt) {
    FakeHost host;
    EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, 4)), SM_RETURN_FAIL);
    sm_BT_combine_length = INT_MAX - 3;
    EXPECT_EQ(host.receive({1, 2, 3}), SM_RETURN_FAIL);
    expect_in_reassembly(4, INT_MAX);
    EXPECT_EQ(host.receive({1}), SM_RETURN_FAIL);
    expect_in_reassembly(4, INT_MAX);
}

// ---- A buffer that the allocator refuses ----------------------------------------------------------------------------

TEST(Intake, AppendsNothingToABufferThatWasRefused) {
    for (const int total : {1, 8, 12, 600000, 600001, INT_MAX}) {
        SCOPED_TRACE(total);
        FakeHost host;
        host.refuse_allocation(1);
        EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, total)), SM_RETURN_FAIL);
        EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, 8)), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{
                                       function_line(1),
                                       total_line(total),
                                       buffer_line("null"),
                                       append_error,
                                       append_error,
                                   }));
        EXPECT_EQ(host.allocations_asked(), 1);
        EXPECT_EQ(sm_BT_total_length, total);
        EXPECT_EQ(sm_BT_combine_length, 0);
        EXPECT_EQ(shotmentor_p_ReceiveData, nullptr);
    }
}

TEST(Intake, DoesNotRunARequestOfTotal0WhoseBufferWasRefused) {
    FakeHost host;
    host.refuse_allocation(1);
    EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, 0)), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{
                                   function_line(1),
                                   total_line(0),
                                   buffer_line("null"),
                                   append_error,
                                   refused_total_line(0),
                               }));
    expect_idle();
    expect_next_request_runs(host);
}

// ---- Bytes that no packet wrote: new memory is full of others -------------------------------------------------------

TEST(Intake, ClearsTheBuffersFirst760Bytes) {
    FakeHost host;
    EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_UPDATE_PRESET, 9), 8), SM_RETURN_FAIL);
    EXPECT_EQ(stored(0, 8), header(SM_FUNCTION_UPDATE_PRESET, 9));
    EXPECT_EQ(stored(8, 752), Bytes(752));
}

TEST(Intake, ClearsTheBufferOfEveryRequestAnew) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_ON, Bytes(2000, 0xEE))), SM_RETURN_FAIL);
    EXPECT_EQ(host.receive(header(SM_FUNCTION_UPDATE_PRESET, 9)), SM_RETURN_FAIL);
    EXPECT_EQ(stored(8, 752), Bytes(752));
}

TEST(Intake, ReadsTheMissingIdentifiersOfAPictureRequestAsZero) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_SEND_PRESET)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(0)"}); // identity 0 is refused without a look-up
    EXPECT_EQ(host.transcript[5], "CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=0, applocal_ID=0");
}

TEST(Intake, ReadsTheMissingRecordOfAnUpdateRequestAsZeros) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET)), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.transcript.at(5), "CYAN ALG_SMM ADE_SM_Update_Preset() custom_id=0, server_id=0, title=");
}

TEST(Intake, ReadsTheMissingCodeOfALeavingPhoneAsZero) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_OFF)), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript.at(6), "CYAN ALG_SMM ADE_SM_Off() length=0, return_BT=0");
}

// ---- The append step, called directly -------------------------------------------------------------------------------

int combine(const Bytes& packet, int length) {
    return ADE_ShotMentor_Combine_BTData(packet.data(), length);
}

TEST(Combine, ReturnsMinus1WithoutABufferWhateverTheLength) {
    for (const int length : {8, 1, 0, -1, INT_MIN}) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(combine(header(SM_FUNCTION_SEND_LIST, 8), length), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{append_error}));
        expect_idle();
    }
}

TEST(Combine, AppendsAPacketAndReturns1) {
    FakeHost host;
    host.receive(header(SM_FUNCTION_SEND_LIST, 100));
    host.forget();
    EXPECT_EQ(combine({5, 6, 7}, 3), SM_RETURN_TRUE);
    EXPECT_EQ(host.transcript, (Transcript{append_line(3, 11)}));
    expect_in_reassembly(100, 11);
    EXPECT_EQ(stored(0, 11), header(SM_FUNCTION_SEND_LIST, 100) + Bytes({5, 6, 7}));
}

TEST(Combine, DoesNotRunTheRequestThatItCompletes) {
    FakeHost host;
    host.receive(header(SM_FUNCTION_SEND_LIST, 12));
    host.forget();
    EXPECT_EQ(combine(words({0}), 4), SM_RETURN_TRUE);
    EXPECT_EQ(host.transcript, (Transcript{append_line(4, 12)}));
    expect_in_reassembly(12, 12);
}

TEST(Combine, AppendsNothingForLength0) {
    FakeHost host;
    host.receive(header(SM_FUNCTION_SEND_LIST, 100));
    host.forget();
    EXPECT_EQ(combine(words({7}), 0), SM_RETURN_TRUE);
    EXPECT_EQ(host.transcript, (Transcript{append_line(0, 8)}));
    expect_in_reassembly(100, 8);
}

TEST(Combine, RefusesANegativeLength) {
    for (const int length : {-1, -8, -100, INT_MIN}) {
        SCOPED_TRACE(length);
        FakeHost host;
        host.receive(header(SM_FUNCTION_SEND_LIST, 100));
        host.forget();
        EXPECT_EQ(combine(words({7}), length), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, (Transcript{append_error}));
        expect_in_reassembly(100, 8);
        EXPECT_EQ(stored(0, 8), header(SM_FUNCTION_SEND_LIST, 100));
    }
}

TEST(Combine, ReturnsMinus1ForAPacketThatDoesNotFit) {
    FakeHost host;
    host.receive(header(SM_FUNCTION_SEND_LIST, 700000));
    sm_BT_combine_length = 599998;
    host.forget();
    EXPECT_EQ(combine({1, 2, 3}, 3), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{append_error}));
    expect_in_reassembly(700000, 600001);
    EXPECT_EQ(stored(599998, 2), (Bytes{1, 2}));
}

TEST(Combine, ReturnsMinus1ForAPacketThatWouldCarryTheSumPastTheLargestInt) {
    FakeHost host;
    host.receive(header(SM_FUNCTION_SEND_LIST, 700000));
    sm_BT_combine_length = INT_MAX;
    host.forget();
    EXPECT_EQ(combine({1}, 1), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{append_error}));
    expect_in_reassembly(700000, INT_MAX);
}

// ---- Recovery by the host -------------------------------------------------------------------------------------------

TEST(HostRecovery, EndsARequestThatBrokeOff) {
    FakeHost host;
    host.receive(slice(request(SM_FUNCTION_RECEIVE_PRESET, pattern(2000)), 0, 500));
    expect_in_reassembly(2008, 500);
    ADE_ShotMentor_Return_To_Idle();
    EXPECT_EQ(host.blocks_owned(), 0u);
    expect_next_request_runs(host);
}

TEST(HostRecovery, EndsARequestThatOvershot) {
    FakeHost host;
    host.receive(header(SM_FUNCTION_SEND_LIST, 4));
    expect_in_reassembly(4, 8);
    ADE_ShotMentor_Return_To_Idle();
    expect_next_request_runs(host);
}

TEST(HostRecovery, EndsARequestWhoseBufferWasRefused) {
    FakeHost host;
    host.refuse_allocation(1);
    host.receive(header(SM_FUNCTION_SEND_LIST, 8));
    EXPECT_EQ(sm_BT_total_length, 8);
    ADE_ShotMentor_Return_To_Idle();
    expect_next_request_runs(host);
}

// ---- Lengths and numbers beyond 16 bits -----------------------------------------------------------------------------

TEST(Intake, RunsRequestsWhoseLengthReachesBeyond16Bits) {
    for (const size_t payload : {65527u, 65528u, 65529u, 65536u, 131064u}) {
        SCOPED_TRACE(payload);
        FakeHost host;
        const Bytes all = request(SM_FUNCTION_STATE_ON, Bytes(payload));
        EXPECT_EQ(host.receive(slice(all, 0, all.size() - 1)), SM_RETURN_FAIL);
        expect_in_reassembly(static_cast<int>(all.size()), static_cast<int>(all.size() - 1));
        EXPECT_EQ(host.calls(), Transcript{});
        EXPECT_EQ(host.receive({0}), SM_RETURN_FAIL);
        EXPECT_EQ(host.calls(), Transcript{"__ui_set_shotmentor_state(1)"});
        expect_idle();
    }
}

TEST(Intake, RefusesFunctionNumbersThatOnlyTheirLowerBitsMakePossible) {
    for (const int function : {258, 511, 65536, 65537, 1 << 24, -256, -255, -65535, INT_MIN + 1}) {
        SCOPED_TRACE(function);
        FakeHost host;
        EXPECT_EQ(host.receive(request(function)), SM_RETURN_FAIL);
        EXPECT_EQ(host.allocations_asked(), 0);
        expect_idle();
    }
}

TEST(Intake, RefusesTotalsThatOnlyTheirUpperBitsMakeNegative) {
    for (const int total : {-65536, -65528, -256, INT_MIN + 8}) {
        SCOPED_TRACE(total);
        FakeHost host;
        EXPECT_EQ(host.receive(header(SM_FUNCTION_SEND_LIST, total)), SM_RETURN_FAIL);
        EXPECT_EQ(host.allocations_asked(), 0);
        expect_idle();
    }
}

TEST(Intake, StoresBytesBeyondTheClearedPartWhereTheyBelong) {
    FakeHost host;
    host.receive(request_announcing(70000, SM_FUNCTION_STATE_ON, pattern(750)));
    for (const size_t size : {1u, 1u, 1u, 300u, 64700u}) {
        host.receive(pattern(size));
    }
    EXPECT_TRUE(stored(8, 750) == pattern(750));
    EXPECT_TRUE(stored(758, 3) == zeros(3));
    EXPECT_TRUE(stored(761, 300) == pattern(300));
    EXPECT_TRUE(stored(1061, 64700) == pattern(64700));
}

TEST(Intake, ShowsTheLengthsOfALongRequestWholeInTheLog) {
    FakeHost host;
    const Bytes all = request(SM_FUNCTION_STATE_ON, Bytes(131064));
    host.receive(slice(all, 0, 65537));
    host.receive(slice(all, 65537, 65535));
    EXPECT_EQ(host.log(),
              joined({first_packet(255, 131072),
                      {append_line(65537, 65537), append_line(65535, 131072),
                       "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=FF, length=131072", request_freed}}));
}

TEST(Intake, ShowsALargeNumberThatItRefusesWholeInTheLog) {
    FakeHost host;
    host.receive_with_length(list_request(), -0x12345678);
    host.receive(request(0x12345678));
    host.receive(header(SM_FUNCTION_SEND_LIST, -0x12345678));
    EXPECT_EQ(lines_with("ERR : RESULT", host.log()),
              (Transcript{refused_length_line(-0x12345678), refused_function_line(0x12345678),
                          refused_total_line(-0x12345678)}));
}

} // namespace
