// The dispatcher: which command serves which function number, how the link state follows, what the numbers that nobody
// serves lead to, and the values of the two vocabularies that phone and camera share.
#include <climits>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "CommandLines.h"
#include "FakeHost.h"

namespace {

std::string hexadecimal(int number) {
    char text[16];
    std::snprintf(text, sizeof text, "%X", static_cast<unsigned>(number));
    return text;
}

// A request that arrives in one packet, with what the dispatcher does in between.
Transcript request_of(int function, int total, const Transcript& dispatched) {
    const std::string length = std::to_string(total);
    return joined({
        {
            "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=" + std::to_string(function),
            "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=" + length,
            "PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1",
            "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=" + length + ", sm_BT_combine_length=" + length,
            "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=" + hexadecimal(function) + ", length=" + length,
        },
        dispatched,
        {"PLAIN ALG_SMM free Receive add=#1"},
    });
}

// Runs the dispatcher on memory as large as it asks for, which holds the request's bytes and then zeros.
int dispatch(Bytes request_bytes, int length) {
    request_bytes.resize(760);
    return ADE_ShotMentor_Receive_Function(request_bytes.data(), length);
}

// ---- The numbers that are served ------------------------------------------------------------------------------------

TEST(Dispatch, SetsTheLinkStateOffAndHandsThePayloadOfFunction0ToTheCommand) {
    FakeHost host;
    EXPECT_EQ(host.receive(state_off_request(SM_RETURN_TRUE)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), Transcript{"__ui_set_shotmentor_state(0)"});
    EXPECT_EQ(host.transcript[6], "CYAN ALG_SMM ADE_SM_Off() length=4, return_BT=1");
    EXPECT_TRUE(host.replies.empty());
}

TEST(Dispatch, SetsTheLinkStateOnAndRunsTheListCommandForFunction1) {
    FakeHost host;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_set_shotmentor_state(1)", "__ui_get_bt_state_for_phone()",
                                        "__ui_get_custom_mode_list_info()", "__ui_get_linked_preseet_num_for_phone(0)",
                                        "__ui_get_linked_preseet_num_for_phone(1)", "bt_send_msgs(28)"}));
}

TEST(Dispatch, SetsTheLinkStateOnEvenWhenTheListThenFails) {
    FakeHost host;
    host.link_up = false;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_set_shotmentor_state(1)", "__ui_get_bt_state_for_phone()"}));
    EXPECT_TRUE(host.replies.empty());
}

TEST(Dispatch, HandsTheTwoWordsOfFunction2ToThePictureCommand) {
    FakeHost host;
    EXPECT_EQ(host.receive(picture_request(7, 5)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_get_preset_info(7, 5)", "bt_send_msgs(0)"}));
}

TEST(Dispatch, HandsThePayloadOfFunction3ToTheStoreCommand) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_RECEIVE_PRESET, pattern(5))), SM_RETURN_JPG_ERR);
    EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(24)"});
    EXPECT_EQ(host.transcript[5], "CYAN ALG_SMM ADE_SM_Receive_Preset() length=5, sizeof(sm_tag_custom_info)=744");
}

TEST(Dispatch, HandsThePayloadOfFunction4ToTheUpdateCommand) {
    sm_tag_custom_info record{};
    record.title[0] = 'S';
    record.title[1] = 'u';
    record.title[2] = 'n';
    record.custom_id = 3;
    record.server_id = 9;
    FakeHost host;
    host.update_answer = 77;
    EXPECT_EQ(host.receive(update_request(record)), 77);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_preset_update_comfirm(3, 9, \"Sun\")", "bt_send_msgs(12)"}));
}

TEST(Dispatch, HandsThePayloadOfFunction5ToTheDeleteCommand) {
    FakeHost host;
    EXPECT_EQ(host.receive(delete_request({{2, 7}})), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_get_preset_info(7, -1)", "bt_send_msgs(20)"}));
    EXPECT_EQ(host.transcript[6], "PLAIN ALG_SMM 0: del_preset = 2, del_id = 7");
}

TEST(Dispatch, SetsTheLinkStateOnForFunction255AndDoesNothingElse) {
    for (const size_t payload : {0u, 1u, 4u, 744u, 1000u}) {
        SCOPED_TRACE(payload);
        FakeHost host;
        EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_ON, pattern(payload))), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, request_of(255, static_cast<int>(8 + payload), {"__ui_set_shotmentor_state(1)"}));
        EXPECT_TRUE(host.replies.empty());
    }
}

TEST(Dispatch, TouchesTheLinkStateForNoOtherNumber) {
    for (const int function : {2, 3, 4, 5, 6, 200, 254, 256}) {
        SCOPED_TRACE(function);
        FakeHost host;
        host.receive(request(function, words({0, 0})));
        for (const std::string& call : host.calls()) {
            EXPECT_EQ(call.find("__ui_set_shotmentor_state"), std::string::npos) << call;
        }
    }
}

// ---- The numbers that nobody serves ---------------------------------------------------------------------------------

TEST(Dispatch, RefusesANumberThatNoCommandServes) {
    for (const int function : {6, 7, 128, 200, 254, 256}) {
        SCOPED_TRACE(function);
        FakeHost host;
        EXPECT_EQ(host.receive(request(function, words({1}))), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, request_of(function, 12,
                                              {"ERROR ALG_SMM ERROR ADE_ShotMentor_Receive_Function funcN=" +
                                               std::to_string(function)}));
        EXPECT_TRUE(host.replies.empty());
    }
}

TEST(Dispatch, RefusesNegativeAndLargeNumbersWhenCalledDirectly) {
    struct Case {
        int function;
        const char* hexadecimal;
    };
    const Case cases[] = {
        {-1, "FFFFFFFF"},
        {-255, "FFFFFF01"},
        {INT_MIN, "80000000"},
        {6, "6"},
        {254, "FE"},
        {256, "100"},
        {257, "101"},
        {0x1001, "1001"},
        {0x10001, "10001"},
        {INT_MAX, "7FFFFFFF"},
        {0x01000000, "1000000"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.function);
        FakeHost host;
        EXPECT_EQ(dispatch(request(each.function), 8), SM_RETURN_FAIL);
        EXPECT_EQ(
            host.transcript,
            (Transcript{
                std::string("GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=") + each.hexadecimal + ", length=8",
                "ERROR ALG_SMM ERROR ADE_ShotMentor_Receive_Function funcN=" + std::to_string(each.function),
            }));
    }
}

// ---- Called directly ------------------------------------------------------------------------------------------------

TEST(Dispatch, ShowsTheLengthThatItWasHandedNotTheOneInTheHeader) {
    FakeHost host;
    EXPECT_EQ(dispatch(header(SM_FUNCTION_STATE_ON, 8), 1234), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{
                                   "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=FF, length=1234",
                                   "__ui_set_shotmentor_state(1)",
                               }));
}

TEST(Dispatch, ReadsTheIdentifiersOfFunction2WithoutLookingAtTheLength) {
    for (const int length : {8, 12, 15, 16, 0, -1}) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(dispatch(picture_request(11, -22), length), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), (Transcript{"__ui_get_preset_info(11, -22)", "bt_send_msgs(0)"}));
    }
}

TEST(Dispatch, HandsALengthThatIsShorterThanTheHeaderOnAsANegativeOne) {
    FakeHost host;
    EXPECT_EQ(dispatch(state_off_request(SM_RETURN_TRUE), 3), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{
                                   "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=0, length=3",
                                   "__ui_set_shotmentor_state(0)",
                                   "CYAN ALG_SMM ADE_SM_Off() length=-5, return_BT=1",
                               }));
}

TEST(Dispatch, LeavesTheRequestsBufferToItsCaller) {
    for (const int function : {0, 1, 2, 3, 4, 5, 255, 6}) {
        SCOPED_TRACE(function);
        FakeHost host;
        Bytes bytes = request(function, pattern(1000));
        const Bytes before = bytes;
        const int length = static_cast<int>(bytes.size());
        ADE_ShotMentor_Receive_Function(bytes.data(), length);
        EXPECT_EQ(bytes, before);
        EXPECT_EQ(shotmentor_p_ReceiveData, nullptr);
        EXPECT_EQ(sm_BT_total_length, -1);
    }
}

// ---- The two vocabularies -------------------------------------------------------------------------------------------

TEST(Vocabulary, NumbersTheFunctionsAsThePhoneDoes) {
    EXPECT_EQ(SM_FUNCTION_STATE_OFF, 0);
    EXPECT_EQ(SM_FUNCTION_SEND_LIST, 1);
    EXPECT_EQ(SM_FUNCTION_SEND_PRESET, 2);
    EXPECT_EQ(SM_FUNCTION_RECEIVE_PRESET, 3);
    EXPECT_EQ(SM_FUNCTION_UPDATE_PRESET, 4);
    EXPECT_EQ(SM_FUNCTION_DELETE_PRESET, 5);
    EXPECT_EQ(SM_FUNCTION_STATE_ON, 255);
    EXPECT_EQ(SM_REPLY, 0x1000);
}

TEST(Vocabulary, GivesTheResultCodesTheValuesThatThePhoneKnows) {
    EXPECT_EQ(SM_RETURN_TRUE, 1);
    EXPECT_EQ(SM_RETURN_SYSTEM_DATA_ERR, 0);
    EXPECT_EQ(SM_RETURN_FAIL, -1);
    EXPECT_EQ(SM_RETURN_DATA_ERR, -2);
    EXPECT_EQ(SM_RETURN_STRUCT_ERR, -3);
    EXPECT_EQ(SM_RETURN_JPG_ERR, -4);
    EXPECT_EQ(SM_RETURN_PRESETN_ERR, -5);
    EXPECT_EQ(SM_RETURN_LOCALN_ERR, -6);
    EXPECT_EQ(SM_RETURN_OPENED_ERR, -7);
    EXPECT_EQ(SM_RETURN_OPENED_BOTH_ERR, -8);
    EXPECT_EQ(SM_RETURN_BT_RES_ERR, -10);
    EXPECT_EQ(SM_RETURN_BT_DATA_ERR, -11);
    EXPECT_EQ(SM_RETURN_BT_STRUCT_ERR, -12);
}

} // namespace
