// Function 4: the phone changes a preset's title and server identity. Which requests reach the UI service, what it is
// handed, and what the phone hears.
#include <climits>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

sm_tag_custom_info update_of(int custom_id, int server_id, const std::string& title) {
    sm_tag_custom_info record{};
    record.custom_id = custom_id;
    record.server_id = server_id;
    put_text(record.title, title);
    return record;
}

Bytes update_reply(int32_t result) {
    return words({0x1004, 12, result});
}

// From the reply buffer to the send, for a reply that goes out while none is unconfirmed.
Transcript sent(int result) {
    return {"PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=#1",
            "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1004, return=" + std::to_string(result), "bt_send_msgs(12)"};
}

// The command's first line.
std::string begins(int custom_id, int server_id, const std::string& title) {
    return "CYAN ALG_SMM ADE_SM_Update_Preset() custom_id=" + std::to_string(custom_id) +
           ", server_id=" + std::to_string(server_id) + ", title=" + title;
}

// What an update that is not refused asks the services.
Transcript update_calls(int custom_id, int server_id, const std::string& title) {
    return {"__ui_preset_update_comfirm(" + std::to_string(custom_id) + ", " + std::to_string(server_id) + ", \"" +
                title + "\")",
            "bt_send_msgs(12)"};
}

TEST(Update, IsOneConversationFromThePacketToTheSend) {
    FakeHost host;
    EXPECT_EQ(host.receive(update_request(update_of(3, 9, "Dusk"))), SM_RETURN_TRUE);
    EXPECT_EQ(host.transcript, (Transcript{
                                   "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=4",
                                   "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=752",
                                   "PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1",
                                   "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=752, sm_BT_combine_length=752",
                                   "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=4, length=752",
                                   "CYAN ALG_SMM ADE_SM_Update_Preset() custom_id=3, server_id=9, title=Dusk",
                                   "__ui_preset_update_comfirm(3, 9, \"Dusk\")",
                                   "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=#2",
                                   "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1004, return=1",
                                   "bt_send_msgs(12)",
                                   "PLAIN ALG_SMM free Receive add=#1",
                               }));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, update_reply(SM_RETURN_TRUE));
    EXPECT_EQ(host.replies[0].buffer, update_reply(SM_RETURN_TRUE) + zeros(30000 - 12));
}

TEST(Update, OfTitleAndIdentityAloneIgnoresAllOtherFields) {
    FakeHost host;
    Bytes payload = pattern(744);
    const Bytes fields = image(update_of(3, 9, "Dusk"));
    std::copy_n(fields.begin(), 52, payload.begin());
    std::copy_n(fields.begin() + 672, 4, payload.begin() + 672);
    std::copy_n(fields.begin() + 680, 4, payload.begin() + 680);
    EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET, payload)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), update_calls(3, 9, "Dusk"));
}

TEST(Update, Of743BytesIsRefusedAsTooShort) {
    FakeHost host;
    const Bytes short_payload = slice(image(update_of(3, 9, "Dusk")), 0, 743);
    EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET, short_payload)), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(command_lines(host.transcript),
              joined({{begins(3, 9, "Dusk"), "ERROR ALG_SMM SM_RETURN_STRUCT_ERR"}, sent(SM_RETURN_STRUCT_ERR)}));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, update_reply(SM_RETURN_STRUCT_ERR));
}

TEST(Update, OfANegativeIdIsRefusedAsFaultyData) {
    for (const int id : {-1, INT_MIN}) {
        SCOPED_TRACE(id);
        FakeHost host;
        EXPECT_EQ(host.receive(update_request(update_of(id, 9, "Dusk"))), SM_RETURN_DATA_ERR);
        EXPECT_EQ(command_lines(host.transcript),
                  joined({{begins(id, 9, "Dusk"), "ERROR ALG_SMM SM_RETURN_DATA_ERR"}, sent(SM_RETURN_DATA_ERR)}));
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, update_reply(SM_RETURN_DATA_ERR));
    }
}

TEST(Update, OfId0ReachesTheService) {
    FakeHost host;
    EXPECT_EQ(host.receive(update_request(update_of(0, 9, "Dusk"))), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), update_calls(0, 9, "Dusk"));
}

TEST(Update, ThatIsTooShortAndHasANegativeIdIsRefusedAsTooShort) {
    FakeHost host;
    const Bytes short_payload = slice(image(update_of(-1, 9, "Dusk")), 0, 743);
    EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET, short_payload)), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(12)"});
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, update_reply(SM_RETURN_STRUCT_ERR));
}

TEST(Update, MayHaveMoreBytesThanARecord) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET, image(update_of(3, 9, "Dusk")) + pattern(300))),
              SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), update_calls(3, 9, "Dusk"));
}

TEST(Update, CarriesWhateverTheServiceAnswersToThePhone) {
    for (const int answer : {1, 0, -1, -9, 4711, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(answer);
        FakeHost host;
        host.update_answer = answer;
        EXPECT_EQ(host.receive(update_request(update_of(3, 9, "Dusk"))), answer);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, update_reply(answer));
    }
}

TEST(Update, PassesAnyServerIdentityOn) {
    for (const int server_id : {0, -1, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(server_id);
        FakeHost host;
        EXPECT_EQ(host.receive(update_request(update_of(INT_MAX, server_id, "Dusk"))), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), update_calls(INT_MAX, server_id, "Dusk"));
    }
}

TEST(Update, HandsATitleWithoutANulOverWithANulBehindIt) {
    FakeHost host;
    sm_tag_custom_info record = update_of(3, 9, fifty_two_characters);
    record.mode = 0x41414141; // the bytes behind the title are not NULs
    EXPECT_EQ(host.receive(update_request(record)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), update_calls(3, 9, fifty_two_characters));
    EXPECT_EQ(command_lines(host.transcript)[0], begins(3, 9, fifty_two_characters));
    ASSERT_EQ(host.updated_titles.size(), 1u);
    EXPECT_EQ(host.updated_titles[0], Bytes(fifty_two_characters.begin(), fifty_two_characters.end()) + Bytes{0});
}

TEST(Update, HandsAll52BytesOfATitleOver) {
    FakeHost host;
    sm_tag_custom_info record = update_of(3, 9, "");
    put_text(record.title, std::string("Dusk\0behind the end", 19));
    EXPECT_EQ(host.receive(update_request(record)), SM_RETURN_TRUE);
    ASSERT_EQ(host.updated_titles.size(), 1u);
    EXPECT_EQ(host.updated_titles[0], slice(image(record), 0, 52) + Bytes{0});
}

TEST(Update, WithoutAPayloadReadsZerosAndNotTheRequestBefore) {
    FakeHost host;
    host.receive(update_request(update_of(3, 9, "Dusk")));
    host.confirm();
    host.forget();
    EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET)), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(command_lines(host.transcript)[0], begins(0, 0, ""));
    EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(12)"});
}

TEST(Update, ThatAnnouncesLessThanItsHeaderCountsAsLongAndReadsZeros) {
    FakeHost host;
    // Four bytes are the whole request: the payload's length is -4.
    EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_UPDATE_PRESET, 4), 4), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), update_calls(0, 0, ""));
}

TEST(Update, CalledWithANegativeLengthCountsItAsLong) {
    const Bytes payload = image(update_of(3, 9, "Dusk"));
    for (const int length : {-1, -8, INT_MIN}) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(ADE_SM_Update_Preset(payload.data(), length), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), update_calls(3, 9, "Dusk"));
    }
}

TEST(Update, CalledWithoutLengthReadsTheRecordAllTheSame) {
    FakeHost host;
    const Bytes payload = image(update_of(3, 9, "Dusk"));
    EXPECT_EQ(ADE_SM_Update_Preset(payload.data(), 0), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.transcript[0], begins(3, 9, "Dusk"));
    EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(12)"});
}

TEST(Update, ParksAReplyThatIsStillUnconfirmed) {
    FakeHost host;
    const Bytes update = update_request(update_of(3, 9, "Dusk"));
    host.receive(update);
    host.receive(update);
    expect_first_parked(host);
}

// ---- Borders --------------------------------------------------------------------------------------------------------

TEST(Update, IsRefusedBelow744BytesAndReadAlikeFromThereToBeyondTheClearedPart) {
    const Bytes payload = image(update_of(3, 9, "Dusk")) + pattern(32);
    for (size_t length = 700; length <= payload.size(); ++length) {
        SCOPED_TRACE(length);
        FakeHost host;
        const bool is_whole = length >= 744;
        EXPECT_EQ(host.receive(request(SM_FUNCTION_UPDATE_PRESET, slice(payload, 0, length))),
                  is_whole ? SM_RETURN_TRUE : SM_RETURN_STRUCT_ERR);
        EXPECT_EQ(host.calls(), is_whole ? update_calls(3, 9, "Dusk") : Transcript{"bt_send_msgs(12)"});
    }
}

TEST(Update, PassesIdentitiesBeyond16BitsOn) {
    for (const int id : {255, 256, 32767, 32768, 65535, 65536, 65539, 1 << 24, INT_MAX}) {
        SCOPED_TRACE(id);
        FakeHost host;
        EXPECT_EQ(host.receive(update_request(update_of(id, -id, "Dusk"))), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), update_calls(id, -id, "Dusk"));
    }
}

TEST(Update, OfANegativeIdThatOnlyItsUpperBitsMakeNegativeIsRefused) {
    for (const int id : {-65536, -65533, INT_MIN + 3, -256}) {
        SCOPED_TRACE(id);
        FakeHost host;
        EXPECT_EQ(host.receive(update_request(update_of(id, 9, "Dusk"))), SM_RETURN_DATA_ERR);
        EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(12)"});
    }
}

TEST(Update, HandsATitleOf51CharactersOverWithItsNul) {
    FakeHost host;
    const std::string title = fifty_two_characters.substr(0, 51);
    EXPECT_EQ(host.receive(update_request(update_of(3, 9, title))), SM_RETURN_TRUE);
    EXPECT_EQ(host.updated_titles.at(0), Bytes(title.begin(), title.end()) + zeros(2));
}

TEST(Update, ShowsLargeNumbersWholeInTheLog) {
    FakeHost host;
    host.update_answer = -0x7654321;
    host.receive(update_request(update_of(0x12345678, -0x12345678, "Dusk")));
    EXPECT_EQ(command_lines(host.transcript), joined({{begins(0x12345678, -0x12345678, "Dusk")},
                                                      {update_calls(0x12345678, -0x12345678, "Dusk")[0]},
                                                      sent(-0x7654321)}));
}

} // namespace
