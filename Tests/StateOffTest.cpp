// Request 0, with which the phone leaves the feature: it carries the phone's own result code, which is logged and never
// answered.
#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "FakeHost.h"

namespace {

// The whole conversation of one request 0 in one packet; `code_line` is the log line for the phone's code, if any.
Transcript leaving(int payload_length, int code, const std::string& code_line = "") {
    const std::string total = std::to_string(payload_length + 8);
    Transcript expected = {
        "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=0",
        "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=" + total,
        "PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1",
        "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=" + total + ", sm_BT_combine_length=" + total,
        "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=0, length=" + total,
        "__ui_set_shotmentor_state(0)",
        "CYAN ALG_SMM ADE_SM_Off() length=" + std::to_string(payload_length) + ", return_BT=" + std::to_string(code),
    };
    if (!code_line.empty()) {
        expected.push_back(code_line);
    }
    expected.push_back("PLAIN ALG_SMM free Receive add=#1");
    return expected;
}

TEST(StateOff, LogsEachCodeThatThePhoneMayReportAndReturns1) {
    struct Case {
        int code;
        const char* line;
    };
    const Case cases[] = {
        {SM_RETURN_TRUE, "PLAIN ALG_SMM SM_RETURN_TRUE"},
        {SM_RETURN_BT_RES_ERR, "ERROR ALG_SMM SM_RETURN_BT_RES_ERR"},
        {SM_RETURN_BT_DATA_ERR, "ERROR ALG_SMM SM_RETURN_BT_DATA_ERR"},
        {SM_RETURN_BT_STRUCT_ERR, "ERROR ALG_SMM SM_RETURN_BT_STRUCT_ERR"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.code);
        FakeHost host;
        EXPECT_EQ(host.receive(state_off_request(each.code)), SM_RETURN_TRUE);
        EXPECT_EQ(host.transcript, leaving(4, each.code, each.line));
    }
}

TEST(StateOff, RefusesEveryOtherCodeWithoutAFurtherLine) {
    for (const int code : {0, 2, -1, -2, -3, -4, -5, -6, -7, -8, -9, -13, 10, 11, 12, 255, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(code);
        FakeHost host;
        EXPECT_EQ(host.receive(state_off_request(code)), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, leaving(4, code));
    }
}

TEST(StateOff, ReadsAnAbsentCodeAsZeroAndReturnsMinus1) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_OFF)), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, leaving(0, 0));
}

TEST(StateOff, LogsAnIncompleteCodeButDoesNotBelieveIt) {
    FakeHost host;
    // The fourth byte is missing and reads as zero.
    EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_OFF, {1, 0, 0})), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, leaving(3, 1));
}

TEST(StateOff, IgnoresWhatFollowsTheCode) {
    for (const size_t behind : {1u, 4u, 1000u}) {
        SCOPED_TRACE(behind);
        FakeHost host;
        EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_OFF, words({SM_RETURN_BT_RES_ERR}) + pattern(behind))),
                  SM_RETURN_TRUE);
        EXPECT_EQ(host.transcript, leaving(static_cast<int>(4 + behind), -10, "ERROR ALG_SMM SM_RETURN_BT_RES_ERR"));
    }
}

TEST(StateOff, SendsNoReplyAndLeavesAnUnconfirmedOneAlone) {
    FakeHost host;
    host.receive(list_request());
    const unsigned char* const unconfirmed = shotmentor_p_FullData;
    ASSERT_NE(unconfirmed, nullptr);
    EXPECT_EQ(host.receive(state_off_request(SM_RETURN_TRUE)), SM_RETURN_TRUE);
    EXPECT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(shotmentor_p_FullData, unconfirmed);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
}

TEST(StateOff, RecordsTheLinkStateAsOffEvenForACodeThatItRefuses) {
    FakeHost host;
    host.receive(state_on_request());
    host.forget();
    EXPECT_EQ(host.receive(state_off_request(SM_RETURN_DATA_ERR)), SM_RETURN_FAIL);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_set_shotmentor_state(0)"}));
}

// ---- Called directly ------------------------------------------------------------------------------------------------

TEST(StateOff, ComparesTheLengthAsASignedNumberWhenCalledDirectly) {
    struct Case {
        int length;
        int result;
    };
    const Case cases[] = {{INT_MIN, -1}, {-8, -1}, {-1, -1}, {0, -1}, {3, -1}, {4, 1}, {5, 1}, {INT_MAX, 1}};
    const Bytes payload = words({SM_RETURN_TRUE});
    for (const Case& each : cases) {
        SCOPED_TRACE(each.length);
        FakeHost host;
        const int result = ADE_SM_State_Off(payload.data(), each.length);
        EXPECT_EQ(result, each.result);
        Transcript expected = {"CYAN ALG_SMM ADE_SM_Off() length=" + std::to_string(each.length) + ", return_BT=1"};
        if (each.result == 1) {
            expected.push_back("PLAIN ALG_SMM SM_RETURN_TRUE");
        }
        EXPECT_EQ(host.transcript, expected); // the link state is the dispatcher's business
    }
}

// ---- Numbers that need more than 16 bits ----------------------------------------------------------------------------

TEST(StateOff, ShowsALongPayloadAndALargeCodeWholeInTheLog) {
    for (const int code : {0x12345678, -0x12345678}) {
        FakeHost host;
        EXPECT_EQ(host.receive(request(SM_FUNCTION_STATE_OFF, words({code}) + Bytes(100000))), SM_RETURN_FAIL);
        EXPECT_EQ(host.transcript, leaving(100004, code));
    }
}

} // namespace
