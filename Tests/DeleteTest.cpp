// Function 5: the phone deletes presets. How the entries are checked, which presets a custom mode keeps, what the UI
// service is handed, and what the reply says about the presets that are left.
#include <climits>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

constexpr int nothing = -1; // a link of no custom mode, a kept preset that is none

// The four words about the kept presets, as the log shows them and as they lie in the reply's buffer.
struct Kept {
    int first_number = nothing;
    int first_id = nothing;
    int second_number = nothing;
    int second_id = nothing;
};

Bytes kept_words(const Kept& kept) {
    return words({kept.first_number, kept.first_id, kept.second_number, kept.second_id});
}

// Where they lie, for a reply of `presets` records: far behind what is sent.
size_t kept_position(size_t presets) {
    return 80 + 2976 * presets;
}

Bytes head(int32_t length, int32_t result, int32_t presets) {
    return words({0x1005, length, result, 1, presets});
}

// The whole reply buffer: what is sent, the words about the kept presets where they fit, and otherwise zeros.
Bytes whole_buffer(const Bytes& sent, size_t presets, const Kept& kept) {
    Bytes buffer = sent + zeros(30000 - sent.size());
    const Bytes numbers = kept_words(kept);
    if (kept_position(presets) + numbers.size() <= buffer.size()) {
        std::copy(numbers.begin(), numbers.end(), buffer.begin() + static_cast<long>(kept_position(presets)));
    }
    return buffer;
}

// The lines from the reply buffer to the send, for a reply that goes out while none is unconfirmed.
Transcript sent(int length, int result, int presets, const Kept& kept = {}) {
    return {"PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=#1",
            "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1005, return=" + std::to_string(result) +
                ", SM_STRUCT_VER=1, num_Preset=" + std::to_string(presets),
            "PLAIN ALG_SMM sendlength=" + std::to_string(length) + ", open_preset_num1=" +
                std::to_string(kept.first_number) + ", open_custom_id1=" + std::to_string(kept.first_id) +
                ", open_preset_num2=" + std::to_string(kept.second_number) +
                ", open_custom_id2=" + std::to_string(kept.second_id),
            "bt_send_msgs(" + std::to_string(length) + ")"};
}

const std::string faulty = "ERROR ALG_SMM SM_RETURN_STRUCT_ERR";

std::string begins(unsigned entries) {
    return "CYAN ALG_SMM ADE_SM_Delete_Preset() del_num=" + std::to_string(entries);
}

std::string entry(int word, int number, int id) {
    return "PLAIN ALG_SMM " + std::to_string(word) + ": del_preset = " + std::to_string(number) +
           ", del_id = " + std::to_string(id);
}

std::string looked_up(int id) {
    return "__ui_get_preset_info(" + std::to_string(id) + ", -1)";
}

// How the command settles one custom mode: its question and what it makes of the answer.
Transcript settled(int custom_mode, const std::string& verdict, int link) {
    return {"__ui_get_linked_preseet_num_for_phone(" + std::to_string(custom_mode - 1) + ")",
            verdict + ": " + std::to_string(link)};
}

std::string not_opened(int custom_mode) {
    return "PLAIN ALG_SMM CUSTOM" + std::to_string(custom_mode) + " DEL SUCCESS - NOT OPENED";
}

std::string not_included(int custom_mode) {
    const std::string mode = std::to_string(custom_mode);
    return "PLAIN ALG_SMM CUSTOM" + mode + " DEL SUCCESS - not including custom" + mode;
}

std::string kept_index(int custom_mode) {
    return "ERROR ALG_SMM CUSTOM" + std::to_string(custom_mode) + " DEL FAIL - BT del index";
}

std::string impossible(int custom_mode) {
    return "ERROR ALG_SMM CUSTOM" + std::to_string(custom_mode) + " DEL FAIL - SYSTEM DATA_ERR";
}

// The lines from the question for the list to the marking of the custom modes' presets.
Transcript listed(const std::vector<int>& ids, int link1 = nothing, int link2 = nothing) {
    Transcript lines = {"__ui_get_custom_mode_list_info()",
                        "PLAIN ALG_SMM __ui_get_custom_mode_list_info() - list number: " + std::to_string(ids.size())};
    for (const int id : ids) {
        lines = joined({lines, converted_to_phone("Preset " + std::to_string(id), id)});
    }
    return joined({lines,
                   {"__ui_get_linked_preseet_num_for_phone(0)",
                    "PLAIN ALG_SMM LIST- CUSTOM1 MODE index: " + std::to_string(link1),
                    "__ui_get_linked_preseet_num_for_phone(1)",
                    "PLAIN ALG_SMM LIST- CUSTOM2 MODE index: " + std::to_string(link2)}});
}

// What a deletion without a fault asks the services: for each entry, for both custom modes' presets, to delete the
// marked numbers, for the list of so many presets, for both custom modes again, and to send so many bytes.
Transcript deletion_calls(const std::vector<int>& ids, const std::string& marked, int presets, int length) {
    const Transcript links = {"__ui_get_linked_preseet_num_for_phone(0)", "__ui_get_linked_preseet_num_for_phone(1)"};
    Transcript entries;
    std::transform(ids.begin(), ids.end(), std::back_inserter(entries), looked_up);
    return joined({entries,
                   links,
                   {"__ui_preset_delete_form_phone(" + marked + ")", "__ui_get_custom_mode_list_info()"},
                   Transcript(static_cast<size_t>(presets), "User_Spec_Get_Value(272)"),
                   links,
                   {"bt_send_msgs(" + std::to_string(length) + ")"}});
}

// What a refused one asks: for each entry, and to send the head alone.
Transcript refused_calls(const std::vector<int>& ids) {
    Transcript entries;
    std::transform(ids.begin(), ids.end(), std::back_inserter(entries), looked_up);
    return joined({entries, {"bt_send_msgs(20)"}});
}

// The words about the kept presets in the buffer of the last reply, which has so many presets.
Bytes kept_words_of(const FakeHost& host, size_t presets) {
    return slice(host.replies.back().buffer, kept_position(presets), 16);
}

// ---- Which entries are acted on -------------------------------------------------------------------------------------

TEST(Delete, IsOneConversationFromThePacketToTheSend) {
    FakeHost host;
    host.presets = presets_from_100(3);
    EXPECT_EQ(host.receive(delete_request({{1, 101}})), SM_RETURN_TRUE);
    EXPECT_EQ(
        without_conversions(host.transcript),
        (Transcript{
            "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=5",
            "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=16",
            "PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1",
            "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=16, sm_BT_combine_length=16",
            "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=5, length=16",
            "CYAN ALG_SMM ADE_SM_Delete_Preset() del_num=1",
            "PLAIN ALG_SMM 0: del_preset = 1, del_id = 101",
            "__ui_get_preset_info(101, -1)",
            "__ui_get_linked_preseet_num_for_phone(0)",
            "PLAIN ALG_SMM CUSTOM1 DEL SUCCESS - NOT OPENED: -1",
            "__ui_get_linked_preseet_num_for_phone(1)",
            "PLAIN ALG_SMM CUSTOM2 DEL SUCCESS - NOT OPENED: -1",
            "__ui_preset_delete_form_phone(1)",
            "__ui_get_custom_mode_list_info()",
            "PLAIN ALG_SMM __ui_get_custom_mode_list_info() - list number: 2",
            "PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : Preset 100 custom_id : 100 server_id : 0",
            "User_Spec_Get_Value(272)",
            "PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : Preset 102 custom_id : 102 server_id : 0",
            "User_Spec_Get_Value(272)",
            "__ui_get_linked_preseet_num_for_phone(0)",
            "PLAIN ALG_SMM LIST- CUSTOM1 MODE index: -1",
            "__ui_get_linked_preseet_num_for_phone(1)",
            "PLAIN ALG_SMM LIST- CUSTOM2 MODE index: -1",
            "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=#2",
            "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1005, return=1, SM_STRUCT_VER=1, num_Preset=2",
            "PLAIN ALG_SMM sendlength=1508, open_preset_num1=-1, open_custom_id1=-1, "
            "open_preset_num2=-1, open_custom_id2=-1",
            "bt_send_msgs(1508)",
            "PLAIN ALG_SMM free Receive add=#1",
        }));
    const Bytes reply = head(1508, SM_RETURN_TRUE, 2) + phone_record(preset(100, 0)) + phone_record(preset(102, 1));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, reply);
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 2, Kept{}));
}

TEST(Delete, OfNothingIsOneConversation) {
    FakeHost host;
    EXPECT_EQ(host.receive(delete_request({})), SM_RETURN_DATA_ERR);
    EXPECT_EQ(command_lines(host.transcript),
              joined({{begins(0), "ERROR ALG_SMM SM_RETURN_DATA_ERR"}, sent(20, SM_RETURN_DATA_ERR, 0)}));
}

TEST(Delete, OfFaultyEntriesIsOneConversation) {
    FakeHost host;
    host.presets = presets_from_100(3);
    const Bytes deletion = delete_request({{1, 101}, {2, 0}, {40, 102}, {0, 999}});
    EXPECT_EQ(host.receive(deletion), SM_RETURN_STRUCT_ERR);
    // Every entry is shown before the first is checked, and every fault is reported.
    EXPECT_EQ(command_lines(host.transcript),
              joined({{begins(4), entry(0, 1, 101), entry(2, 2, 0), entry(4, 40, 102), entry(6, 0, 999), looked_up(101),
                       faulty, looked_up(0), faulty, faulty, looked_up(102), looked_up(999), faulty},
                      sent(20, SM_RETURN_STRUCT_ERR, 0)}));
}

TEST(Delete, OfSevenBytesHasNoEntryAndIsRefusedAsFaultyData) {
    FakeHost host;
    host.presets = presets_from_100(3);
    EXPECT_EQ(host.receive(request(SM_FUNCTION_DELETE_PRESET, slice(words({1, 101}), 0, 7))), SM_RETURN_DATA_ERR);
    EXPECT_EQ(host.calls(), refused_calls({}));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, head(20, SM_RETURN_DATA_ERR, 0));
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(head(20, SM_RETURN_DATA_ERR, 0), 0, Kept{}));
}

TEST(Delete, WithoutAPayloadIsRefusedAsFaultyData) {
    FakeHost host;
    EXPECT_EQ(host.receive(delete_request({})), SM_RETURN_DATA_ERR);
    EXPECT_EQ(host.calls(), (Transcript{"bt_send_msgs(20)"}));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, head(20, SM_RETURN_DATA_ERR, 0));
}

TEST(Delete, OfFifteenBytesHasOneEntry) {
    FakeHost host;
    host.presets = presets_from_100(3);
    EXPECT_EQ(host.receive(request(SM_FUNCTION_DELETE_PRESET, slice(words({1, 101, 2, 102}), 0, 15))), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), deletion_calls({101}, "1", 2, 1508));
    ASSERT_EQ(host.presets.size(), 2u);
    EXPECT_EQ(host.presets[1].custom_id, 102);
}

TEST(Delete, CountsItsEntriesInWordsInTheLog) {
    FakeHost host;
    host.presets = presets_from_100(4);
    EXPECT_EQ(host.receive(delete_request({{3, 103}, {0, 100}, {2, 102}})), SM_RETURN_TRUE);
    EXPECT_EQ(command_lines(host.transcript), joined({{begins(3), entry(0, 3, 103), entry(2, 0, 100), entry(4, 2, 102),
                                                       looked_up(103), looked_up(100), looked_up(102)},
                                                      settled(1, not_opened(1), -1),
                                                      settled(2, not_opened(2), -1),
                                                      {"__ui_preset_delete_form_phone(0 2 3)"},
                                                      listed({101}),
                                                      sent(764, SM_RETURN_TRUE, 1)}));
}

TEST(Delete, OfIdentity0FailsAndDeletesNothingEvenAmongGoodEntries) {
    FakeHost host;
    host.presets = presets_from_100(3);
    EXPECT_EQ(host.receive(delete_request({{1, 101}, {2, 0}, {0, 100}})), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.calls(), refused_calls({101, 0, 100}));
    EXPECT_EQ(host.presets.size(), 3u);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, head(20, SM_RETURN_STRUCT_ERR, 0));
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(head(20, SM_RETURN_STRUCT_ERR, 0), 0, Kept{}));
}

TEST(Delete, OfIdentity0FailsEvenWhereTheServiceKnowsIt) {
    FakeHost host;
    host.presets = {preset(0)};
    EXPECT_EQ(host.receive(delete_request({{0, 0}})), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.calls(), refused_calls({0}));
    EXPECT_EQ(host.presets.size(), 1u);
}

TEST(Delete, OfAPresetThatTheCameraDoesNotHaveFails) {
    FakeHost host;
    host.presets = presets_from_100(3);
    EXPECT_EQ(host.receive(delete_request({{1, 999}})), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.calls(), refused_calls({999}));
    EXPECT_EQ(host.presets.size(), 3u);
}

TEST(Delete, OfANumberOutside0To39FailsAndDeletesNothing) {
    for (const int number : {-1, -2, INT_MIN, 40, 41, 42, 43, 1000000, INT_MAX}) {
        SCOPED_TRACE(number);
        FakeHost host;
        host.presets = presets_from_100(3);
        EXPECT_EQ(host.receive(delete_request({{number, 100}, {1, 101}})), SM_RETURN_STRUCT_ERR);
        EXPECT_EQ(host.calls(), refused_calls({100, 101}));
        EXPECT_EQ(host.presets.size(), 3u);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, head(20, SM_RETURN_STRUCT_ERR, 0));
    }
}

TEST(Delete, ReportsEveryFaultOfAnEntry) {
    FakeHost host;
    EXPECT_EQ(host.receive(delete_request({{40, 0}})), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(command_lines(host.transcript),
              joined({{begins(1), entry(0, 40, 0), faulty, faulty, looked_up(0), faulty},
                      sent(20, SM_RETURN_STRUCT_ERR, 0)}));
}

TEST(Delete, RunsAfterAFaultyRequestAsIfThatHadNeverBeen) {
    FakeHost host;
    host.presets = presets_from_100(3);
    host.receive(delete_request({{2, 102}, {0, 0}}));
    host.forget();
    EXPECT_EQ(host.receive(delete_request({{1, 101}})), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls()[3], "__ui_preset_delete_form_phone(1)");
}

TEST(Delete, AsksForTheExistenceOfEachPresetWithAFreshLocalIdentity) {
    FakeHost host;
    host.presets = presets_from_100(2);
    host.fill_preset_info = [](tag_custom_info& record) { record.applocal_id = 77; };
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}})), SM_RETURN_TRUE);
    const Transcript calls = host.calls();
    EXPECT_EQ((Transcript{calls[0], calls[1]}), (Transcript{looked_up(100), looked_up(101)}));
}

TEST(Delete, TakesTheSamePresetTwice) {
    FakeHost host;
    host.presets = presets_from_100(2);
    EXPECT_EQ(host.receive(delete_request({{1, 101}, {1, 101}})), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls()[4], "__ui_preset_delete_form_phone(1)");
    EXPECT_EQ(host.presets.size(), 1u);
}

TEST(Delete, OfAllPresetsLeavesAnEmptyList) {
    FakeHost host;
    host.presets = presets_from_100(1);
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, head(20, SM_RETURN_TRUE, 0));
}

TEST(Delete, OfFortyPresetsMarksThemAll) {
    FakeHost host;
    host.presets = presets_from_100(40);
    std::vector<sm_delete_pair> all;
    std::string numbers;
    for (int number = 0; number < 40; ++number) {
        all.push_back({number, 100 + number});
        numbers += (number == 0 ? "" : " ") + std::to_string(number);
    }
    EXPECT_EQ(host.receive(delete_request(all)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls()[42], "__ui_preset_delete_form_phone(" + numbers + ")");
    EXPECT_TRUE(host.presets.empty());
}

// ---- Lengths that no request has ------------------------------------------------------------------------------------

TEST(Delete, CalledWithANegativeLengthIsRefusedUnread) {
    const struct {
        int length;
        unsigned entries;
    } cases[] = {{-1, 536870911}, {-8, 536870911}, {-9, 536870910}, {INT_MIN, 268435456}};
    for (const auto& [length, entries] : cases) {
        SCOPED_TRACE(length);
        FakeHost host;
        host.presets = presets_from_100(3);
        const Bytes payload = words({1, 101});
        EXPECT_EQ(ADE_SM_Delete_Preset(payload.data(), length), SM_RETURN_STRUCT_ERR);
        EXPECT_EQ(host.transcript, joined({{begins(entries), faulty}, sent(20, SM_RETURN_STRUCT_ERR, 0)}));
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, head(20, SM_RETURN_STRUCT_ERR, 0));
        EXPECT_EQ(host.replies[0].buffer, whole_buffer(head(20, SM_RETURN_STRUCT_ERR, 0), 0, Kept{}));
    }
}

TEST(Delete, ThatAnnouncesLessThanItsHeaderIsRefusedUnread) {
    FakeHost host;
    EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_DELETE_PRESET, 4), 4), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.calls(), refused_calls({}));
}

TEST(Delete, CalledWith75000EntriesIsRefusedUnread) {
    FakeHost host;
    const Bytes payload = zeros(600000);
    EXPECT_EQ(ADE_SM_Delete_Preset(payload.data(), 600000), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.calls(), refused_calls({}));
}

TEST(Delete, OfTheLongestRequestReadsAll74999Entries) {
    FakeHost host;
    host.presets = presets_from_100(2);
    const std::vector<sm_delete_pair> all(74999, {1, 101});
    EXPECT_EQ(host.receive(delete_request(all)), SM_RETURN_TRUE);
    const Transcript lines = command_lines(host.transcript);
    ASSERT_GT(lines.size(), 2u * 74999u);
    EXPECT_EQ(lines[0], begins(74999));
    EXPECT_EQ(lines[74999], entry(149996, 1, 101));
    EXPECT_EQ(lines[2 * 74999], looked_up(101));
    EXPECT_EQ(host.presets.size(), 1u);
}

TEST(Delete, ReadsEachEntryOfTheLongestRequestAtItsOwnPlace) {
    FakeHost host;
    host.presets = presets_from_100(40);
    host.preset_info_answer = true;
    std::vector<sm_delete_pair> all;
    for (int index = 0; index < 74999; ++index) {
        all.push_back({index % 40, 1 + index});
    }
    EXPECT_EQ(host.receive(delete_request(all)), SM_RETURN_TRUE);
    const Transcript lines = command_lines(host.transcript);
    ASSERT_GT(lines.size(), 2u * 74999u);
    for (int index = 0; index < 74999; ++index) {
        ASSERT_EQ(lines[1 + static_cast<size_t>(index)], entry(2 * index, index % 40, 1 + index));
        ASSERT_EQ(lines[1 + 74999 + static_cast<size_t>(index)], looked_up(1 + index));
    }
    EXPECT_TRUE(host.presets.empty());
}

// ---- Presets that a custom mode keeps -------------------------------------------------------------------------------

TEST(Delete, KeepsThePresetOfCustom1AndDeletesTheOthers) {
    FakeHost host;
    host.presets = presets_from_100(4);
    host.linked[0] = 3;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}, {3, 103}})), SM_RETURN_OPENED_ERR);
    const Kept kept = {1, 103, nothing, nothing}; // number 3 has become number 1
    EXPECT_EQ(command_lines(host.transcript), joined({{begins(3), entry(0, 0, 100), entry(2, 1, 101), entry(4, 3, 103),
                                                       looked_up(100), looked_up(101), looked_up(103)},
                                                      settled(1, kept_index(1), 3),
                                                      settled(2, not_opened(2), -1),
                                                      {"__ui_preset_delete_form_phone(0 1)"},
                                                      listed({102, 103}, 1),
                                                      sent(1516, SM_RETURN_OPENED_ERR, 2, kept)}));
    const Bytes reply =
        head(1516, SM_RETURN_OPENED_ERR, 2) + phone_record(preset(102, 0)) + phone_record(preset(103, 1), 1) + zeros(8);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, reply);
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 2, kept));
}

TEST(Delete, KeepsThePresetOfCustom2AndDeletesTheOthers) {
    FakeHost host;
    host.presets = presets_from_100(4);
    host.linked[0] = 2;
    host.linked[1] = 3;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {3, 103}})), SM_RETURN_OPENED_ERR);
    const Kept kept = {2, 103, 2, 103}; // with none kept for CUSTOM1 both pairs tell of CUSTOM2
    EXPECT_EQ(command_lines(host.transcript),
              joined({{begins(2), entry(0, 0, 100), entry(2, 3, 103), looked_up(100), looked_up(103)},
                      settled(1, not_included(1), 2),
                      settled(2, kept_index(2), 3),
                      {"__ui_preset_delete_form_phone(0)"},
                      listed({101, 102, 103}, 1, 2),
                      sent(2260, SM_RETURN_OPENED_ERR, 3, kept)}));
    const Bytes reply = head(2260, SM_RETURN_OPENED_ERR, 3) + phone_record(preset(101, 0)) +
                        phone_record(preset(102, 1), 1) + phone_record(preset(103, 2), 2) + zeros(8);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, reply);
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 3, kept));
}

TEST(Delete, KeepsThePresetsOfBothCustomModes) {
    FakeHost host;
    host.presets = presets_from_100(4);
    host.linked[0] = 3;
    host.linked[1] = 1;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}, {3, 103}})), SM_RETURN_OPENED_BOTH_ERR);
    const Kept kept = {2, 103, 0, 101};
    EXPECT_EQ(host.calls(), deletion_calls({100, 101, 103}, "0", 3, 2268));
    EXPECT_EQ(lines_with("sendlength=", host.log()), Transcript{sent(2268, SM_RETURN_OPENED_BOTH_ERR, 3, kept)[2]});
    const Bytes reply = head(2268, SM_RETURN_OPENED_BOTH_ERR, 3) + phone_record(preset(101, 0), 2) +
                        phone_record(preset(102, 1)) + phone_record(preset(103, 2), 1) + zeros(16);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, reply);
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 3, kept));
}

TEST(Delete, KeepsThePresetThatBothCustomModesUseOnBehalfOfCustom1) {
    FakeHost host;
    host.presets = presets_from_100(3);
    host.linked[0] = host.linked[1] = 1;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(host.calls(), deletion_calls({100, 101}, "0", 2, 1516));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(kept_words_of(host, 2), kept_words({0, 101, nothing, nothing}));
    EXPECT_EQ(host.replies[0].bytes, head(1516, SM_RETURN_OPENED_ERR, 2) + phone_record(preset(101, 0), 2) +
                                         phone_record(preset(102, 1)) + zeros(8));
}

TEST(Delete, HandsAnEmptyTableOverWhenEveryPresetIsKept) {
    FakeHost host;
    host.presets = presets_from_100(1);
    host.linked[0] = 0;
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(host.calls()[3], "__ui_preset_delete_form_phone()");
    const Bytes reply = head(772, SM_RETURN_OPENED_ERR, 1) + phone_record(preset(100, 0), 1) + zeros(8);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, reply);
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 1, Kept{0, 100, nothing, nothing}));
}

TEST(Delete, LooksAKeptPresetUpByTheIdentityThatThePhoneGave) {
    FakeHost host;
    host.presets = presets_from_100(4);
    host.linked[0] = 3;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {3, 102}})), SM_RETURN_OPENED_ERR);
    // Number 3 is kept, but the phone called it 102, and preset 102 is number 1 now.
    EXPECT_EQ(host.calls(), deletion_calls({100, 102}, "0", 3, 2260));
    EXPECT_EQ(kept_words_of(host, 3), kept_words({1, 102, nothing, nothing}));
}

TEST(Delete, TakesTheIdentityOfTheLastEntryThatNamesAKeptPreset) {
    FakeHost host;
    host.presets = presets_from_100(4);
    host.linked[1] = 2;
    EXPECT_EQ(host.receive(delete_request({{2, 100}, {2, 103}, {2, 101}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(kept_words_of(host, 4), kept_words({1, 101, 1, 101}));
}

TEST(Delete, TakesTheIdentityOfTheLastOf74999Entries) {
    FakeHost host;
    host.presets = presets_from_100(4);
    host.linked[0] = 3;
    std::vector<sm_delete_pair> all(74999, {0, 100});
    all[74998 - 65536] = {3, 102};
    all[74998] = {3, 103};
    EXPECT_EQ(host.receive(delete_request(all)), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(kept_words_of(host, 3), kept_words({2, 103, nothing, nothing}));
}

TEST(Delete, KeepsTheOldNumberOfAPresetThatTheListNoLongerNames) {
    FakeHost host;
    host.presets = presets_from_100(4);
    host.linked[0] = 3;
    // The phone calls number 3 by the identity of number 0, which is deleted.
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {3, 100}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(kept_words_of(host, 3), kept_words({3, 100, nothing, nothing}));
}

TEST(Delete, ReportsAStoredPresetWithIdentityMinus1AsKeptForBothCustomModes) {
    FakeHost host;
    host.presets = {preset(100, 0), preset(101, 1), preset(-1, 2)};
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
    const Kept kept = {1, -1, 1, -1};
    EXPECT_EQ(host.calls(), deletion_calls({100}, "0", 2, 1524));
    const Bytes reply =
        head(1524, SM_RETURN_TRUE, 2) + phone_record(preset(101, 0)) + phone_record(preset(-1, 1)) + zeros(16);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, reply);
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 2, kept));
}

// ---- What the UI service may answer ---------------------------------------------------------------------------------

TEST(Delete, ReportsAnImpossibleLinkAndStillDeletes) {
    for (const int link : {41, INT_MAX, -2, INT_MIN}) {
        SCOPED_TRACE(link);
        FakeHost host;
        host.presets = presets_from_100(2);
        host.linked_answers = {link, -1, -1, -1};
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_SYSTEM_DATA_ERR);
        const Kept kept = {link, nothing, nothing, nothing};
        EXPECT_EQ(command_lines(host.transcript), joined({{begins(1), entry(0, 0, 100), looked_up(100)},
                                                          settled(1, impossible(1), link),
                                                          settled(2, not_opened(2), -1),
                                                          {"__ui_preset_delete_form_phone(0)"},
                                                          listed({101}),
                                                          sent(772, SM_RETURN_SYSTEM_DATA_ERR, 1, kept)}));
        const Bytes reply = head(772, SM_RETURN_SYSTEM_DATA_ERR, 1) + phone_record(preset(101, 0)) + zeros(8);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, reply);
        EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 1, kept));
    }
}

TEST(Delete, ReportsAnImpossibleLinkOfCustom2InBothPairs) {
    for (const int link : {41, INT_MAX, -2, INT_MIN}) {
        SCOPED_TRACE(link);
        FakeHost host;
        host.presets = presets_from_100(1);
        host.linked_answers = {-1, link, -1, -1};
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_SYSTEM_DATA_ERR);
        const Kept kept = {link, nothing, link, nothing};
        EXPECT_EQ(command_lines(host.transcript), joined({{begins(1), entry(0, 0, 100), looked_up(100)},
                                                          settled(1, not_opened(1), -1),
                                                          settled(2, impossible(2), link),
                                                          {"__ui_preset_delete_form_phone(0)"},
                                                          listed({}),
                                                          sent(28, SM_RETURN_SYSTEM_DATA_ERR, 0, kept)}));
        const Bytes reply = head(28, SM_RETURN_SYSTEM_DATA_ERR, 0) + zeros(8);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, reply);
        EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 0, kept));
    }
}

TEST(Delete, TakesLink40ForAPresetThatWasNotAskedFor) {
    FakeHost host;
    host.presets = presets_from_100(2);
    host.linked_answers = {40, 40, 40, 40};
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), deletion_calls({100}, "0", 1, 764));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, head(764, SM_RETURN_TRUE, 1) + phone_record(preset(101, 0)));
}

TEST(Delete, ShowsEveryLinkToAPresetThatWasNotAskedForInTheLog) {
    for (int link = 1; link <= 40; ++link) {
        SCOPED_TRACE(link);
        FakeHost host;
        host.presets = presets_from_100(1);
        host.linked_answers = {link, link, -1, -1};
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
        EXPECT_EQ(lines_with(" DEL ", host.log()),
                  (Transcript{settled(1, not_included(1), link)[1], settled(2, not_included(2), link)[1]}));
    }
}

TEST(Delete, MarksNoPresetForALinkOutside0To39) {
    for (const int link : {-2, INT_MIN, 39, 40, 41, INT_MAX}) {
        SCOPED_TRACE(link);
        FakeHost host;
        host.presets = presets_from_100(2);
        host.linked_answers = {-1, -1, link, link};
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, head(764, SM_RETURN_TRUE, 1) + phone_record(preset(101, 0)));
        EXPECT_EQ(host.replies[0].buffer, whole_buffer(host.replies[0].bytes, 1, Kept{}));
    }
}

TEST(Delete, MarksTheLastOfFortyPresets) {
    FakeHost host;
    host.presets = presets_from_100(40);
    host.deletes = false;
    host.linked[1] = 39;
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    ASSERT_EQ(host.replies[0].bytes.size(), 29780u);
    EXPECT_EQ(slice(host.replies[0].bytes, 20 + 39 * 744, 744), phone_record(preset(139, 39), 2));
}

// What an answer about a custom mode's preset means for a deletion of the presets 0 and 1.
enum class Answer { harmless, impossible, asked_for };

struct LinkAnswer {
    int link;
    Answer meaning;
};

int result_of(Answer custom1, Answer custom2) {
    const int results[3][3] = {
        // CUSTOM2: harmless, impossible, asked for
        {1, 0, -7},  // CUSTOM1: harmless
        {0, 0, -7},  // impossible
        {-7, 0, -8}, // asked for
    };
    return results[static_cast<int>(custom1)][static_cast<int>(custom2)];
}

TEST(Delete, WeighsTheLinksOfBothCustomModes) {
    using enum Answer;
    const LinkAnswer of_custom1[] = {{-1, harmless},   {2, harmless},    {39, harmless}, {40, harmless},
                                     {-2, impossible}, {41, impossible}, {0, asked_for}};
    const LinkAnswer of_custom2[] = {{-1, harmless},   {2, harmless},    {39, harmless}, {40, harmless},
                                     {-2, impossible}, {41, impossible}, {1, asked_for}};
    for (const LinkAnswer& first : of_custom1) {
        for (const LinkAnswer& second : of_custom2) {
            SCOPED_TRACE(std::to_string(first.link) + " and " + std::to_string(second.link));
            FakeHost host;
            host.presets = presets_from_100(3);
            host.deletes = false;
            host.linked_answers = {first.link, second.link, -1, -1};
            const int result = result_of(first.meaning, second.meaning);
            EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}})), result);

            std::string marked = first.meaning == asked_for ? "" : "0";
            if (second.meaning != asked_for) {
                marked += marked.empty() ? "1" : " 1";
            }
            EXPECT_EQ(host.calls()[4], "__ui_preset_delete_form_phone(" + marked + ")");

            const int reported = (first.meaning != harmless ? 1 : 0) + (second.meaning != harmless ? 1 : 0);
            const int length = 20 + 3 * 744 + 8 * reported;
            ASSERT_EQ(host.replies.size(), 1u);
            EXPECT_EQ(host.replies[0].bytes, head(length, result, 3) + phone_record(preset(100, 0)) +
                                                 phone_record(preset(101, 1)) + phone_record(preset(102, 2)) +
                                                 zeros(static_cast<size_t>(8 * reported)));
        }
    }
}

TEST(Delete, TakesAnImpossibleCountForTheNearestPossibleOne) {
    const struct {
        int reported;
        int taken;
    } cases[] = {{-1, 0}, {INT_MIN, 0}, {41, 40}, {INT_MAX, 40}};
    for (const auto& [reported, taken] : cases) {
        SCOPED_TRACE(reported);
        FakeHost host;
        host.presets = presets_from_100(40);
        host.deletes = false;
        host.reported_count = reported;
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
        Bytes records;
        for (int number = 0; number < taken; ++number) {
            records = records + phone_record(preset(100 + number, number));
        }
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, head(20 + 744 * taken, SM_RETURN_TRUE, taken) + records);
    }
}

TEST(Delete, SendsZerosForAPresetThatTheServiceCountedWithoutWritingIt) {
    FakeHost host;
    host.presets = presets_from_100(2);
    host.reported_count = 2;
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, head(1508, SM_RETURN_TRUE, 2) + phone_record(preset(101, 0)) + zeros(744));
}

// ---- The reply ------------------------------------------------------------------------------------------------------

TEST(Delete, PlacesTheWordsAboutKeptPresetsFarBehindTheReplyWhileTheyFitTheBuffer) {
    for (const int presets : {1, 2, 9, 10, 11, 12, 40}) {
        SCOPED_TRACE(presets);
        FakeHost host;
        host.presets = presets_from_100(presets);
        host.linked[0] = 0;
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_OPENED_ERR);
        const Kept kept = {0, 100, nothing, nothing};
        const int length = 20 + 744 * presets + 8;
        const Transcript lines = command_lines(host.transcript);
        EXPECT_EQ(Transcript(lines.end() - 4, lines.end()), sent(length, SM_RETURN_OPENED_ERR, presets, kept));

        Bytes reply = head(length, SM_RETURN_OPENED_ERR, presets) + phone_record(preset(100, 0), 1);
        for (int number = 1; number < presets; ++number) {
            reply = reply + phone_record(preset(100 + number, number));
        }
        reply = reply + zeros(8);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, reply);
        EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, static_cast<size_t>(presets), kept));
    }
}

TEST(Delete, PlacesTheWordsAboutKeptPresetsOfTenAtTheBytes29840To29855) {
    FakeHost host;
    host.presets = presets_from_100(10);
    host.linked[0] = 4;
    host.linked[1] = 7;
    EXPECT_EQ(host.receive(delete_request({{4, 104}, {7, 107}})), SM_RETURN_OPENED_BOTH_ERR);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes.size(), 7476u);
    EXPECT_EQ(slice(host.replies[0].buffer, 29840, 16), words({4, 104, 7, 107}));
    EXPECT_EQ(slice(host.replies[0].buffer, 29856, 144), zeros(144));
}

TEST(Delete, SendsZerosInTheTrailingBytes) {
    FakeHost host;
    host.presets = presets_from_100(2);
    host.linked[0] = 0;
    host.linked[1] = 1;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}})), SM_RETURN_OPENED_BOTH_ERR);
    const Bytes reply = head(1524, SM_RETURN_OPENED_BOTH_ERR, 2) + phone_record(preset(100, 0), 1) +
                        phone_record(preset(101, 1), 2) + zeros(16);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, reply);
    EXPECT_EQ(host.replies[0].buffer, whole_buffer(reply, 2, Kept{0, 100, 1, 101}));
}

TEST(Delete, ReportsEveryPresetWhenTheServiceDeletesNone) {
    FakeHost host;
    host.presets = presets_from_100(2);
    host.deletes = false;
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes,
              head(1508, SM_RETURN_TRUE, 2) + phone_record(preset(100, 0)) + phone_record(preset(101, 1)));
}

TEST(Delete, OwnsNothingButTheReplyWhenItHasBeenSent) {
    FakeHost host;
    host.presets = presets_from_100(40);
    host.receive(delete_request({{0, 100}}));
    EXPECT_EQ(host.blocks_owned(), 1u);
    EXPECT_EQ(host.bytes_owned(), 30000u);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.blocks_owned(), 0u);
}

TEST(Delete, AllocatesTheReplyAloneWhenItIsRefused) {
    FakeHost host;
    const Bytes payload = words({0, 0});
    EXPECT_EQ(ADE_SM_Delete_Preset(payload.data(), 8), SM_RETURN_STRUCT_ERR);
    EXPECT_EQ(host.allocations_asked(), 1);
}

TEST(Delete, ParksAReplyThatIsStillUnconfirmed) {
    FakeHost host;
    host.receive(delete_request({}));
    host.receive(delete_request({}));
    EXPECT_EQ(host.calls(), (Transcript{"bt_send_msgs(20)", "bt_send_msgs(20)"}));
    expect_first_parked(host);
}

TEST(Delete, DoesNotAskWhetherThePhoneLinkIsUp) {
    FakeHost host;
    host.link_up = false;
    host.presets = presets_from_100(1);
    EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
    EXPECT_EQ(host.replies.size(), 1u);
}

// ---- Numbers, places and identities that are not the same -----------------------------------------------------------

// Three presets whose numbers are neither their places in the list nor their identities, in another order.
std::vector<tag_custom_info> scattered_presets() {
    return {preset(207, 5), preset(203, 9), preset(-11, 2)};
}

TEST(Delete, MarksTheRecordAtThePlaceThatTheLinkNames) {
    FakeHost host;
    host.presets = scattered_presets();
    host.deletes = false;
    host.linked[0] = 2;
    host.linked[1] = 0;
    EXPECT_EQ(host.receive(delete_request({{1, 203}})), SM_RETURN_TRUE);
    EXPECT_EQ(host.replies.back().bytes, head(20 + 3 * 744, SM_RETURN_TRUE, 3) + phone_record(preset(207, 5), 2) +
                                             phone_record(preset(203, 9)) + phone_record(preset(-11, 2), 1));
}

TEST(Delete, TellsOfAKeptPresetByTheNumberInItsRecord) {
    FakeHost host;
    host.presets = scattered_presets();
    host.deletes = false;
    host.linked[0] = 1;
    EXPECT_EQ(host.receive(delete_request({{0, 207}, {1, 203}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(host.calls()[4], "__ui_preset_delete_form_phone(0)");
    EXPECT_EQ(kept_words_of(host, 3), kept_words({9, 203, nothing, nothing}));
}

TEST(Delete, TellsOfBothKeptPresetsByTheirOwnNumbersAndIdentities) {
    FakeHost host;
    host.presets = scattered_presets();
    host.deletes = false;
    host.linked[0] = 2;
    host.linked[1] = 1;
    EXPECT_EQ(host.receive(delete_request({{1, 203}, {2, -11}})), SM_RETURN_OPENED_BOTH_ERR);
    EXPECT_EQ(kept_words_of(host, 3), kept_words({2, -11, 9, 203}));
    EXPECT_EQ(lines_with("sendlength=", host.log()),
              Transcript{sent(20 + 3 * 744 + 16, SM_RETURN_OPENED_BOTH_ERR, 3, Kept{2, -11, 9, 203})[2]});
}

TEST(Delete, TellsOfThePresetOfCustom2AloneInBothPairsByItsOwnNumberAndIdentity) {
    FakeHost host;
    host.presets = scattered_presets();
    host.deletes = false;
    host.linked[1] = 1;
    EXPECT_EQ(host.receive(delete_request({{1, 203}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(kept_words_of(host, 3), kept_words({9, 203, 9, 203}));
}

TEST(Delete, OfANegativeIdentityIsLikeAnyOther) {
    for (const int id : {-1, -2, -7, -65536, INT_MIN}) {
        SCOPED_TRACE(id);
        FakeHost host;
        host.presets = {preset(100, 0), preset(id, 1)};
        EXPECT_EQ(host.receive(delete_request({{1, id}})), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), deletion_calls({id}, "1", 1, 764));
        ASSERT_EQ(host.presets.size(), 1u);
        EXPECT_EQ(host.presets[0].custom_id, 100);
    }
}

TEST(Delete, KeepsAPresetOfANegativeIdentity) {
    FakeHost host;
    host.presets = {preset(100, 0), preset(-7, 1)};
    host.linked[1] = 1;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, -7}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(kept_words_of(host, 1), kept_words({0, -7, 0, -7}));
}

TEST(Delete, TellsIdentitiesApartThatAgreeInTheirLower16Bits) {
    FakeHost host;
    host.presets = {preset(65636, 0), preset(100, 1), preset(-65436, 2)};
    host.linked[0] = 1;
    EXPECT_EQ(host.receive(delete_request({{1, 100}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(kept_words_of(host, 3), kept_words({1, 100, nothing, nothing}));
    host.settle();
    host.forget();
    EXPECT_EQ(host.receive(delete_request({{0, 65636}})), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls()[0], looked_up(65636));
}

// ---- Borders --------------------------------------------------------------------------------------------------------

TEST(Delete, KeepsThePresetAtTheListsLastNumberOnBothPaths) {
    for (const int mode : {0, 1}) {
        SCOPED_TRACE(mode);
        FakeHost host;
        host.presets = presets_from_100(40);
        host.linked[mode] = 39;
        EXPECT_EQ(host.receive(delete_request({{38, 138}, {39, 139}})), SM_RETURN_OPENED_ERR);
        EXPECT_EQ(host.calls()[4], "__ui_preset_delete_form_phone(38)");
        ASSERT_EQ(host.presets.size(), 39u);
        const Kept kept = mode == 0 ? Kept{38, 139, nothing, nothing} : Kept{38, 139, 38, 139};
        EXPECT_EQ(lines_with("sendlength=", host.log()),
                  Transcript{sent(20 + 39 * 744 + 8, SM_RETURN_OPENED_ERR, 39, kept)[2]});
        // The last record of the list carries the mark.
        EXPECT_EQ(slice(host.replies.back().bytes, 20 + 38 * 744, 744), phone_record(preset(139, 38), mode + 1));
    }
}

TEST(Delete, KeepsThePresetAtTheFirstNumberForCustom2) {
    FakeHost host;
    host.presets = presets_from_100(2);
    host.linked[1] = 0;
    EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}})), SM_RETURN_OPENED_ERR);
    EXPECT_EQ(kept_words_of(host, 1), kept_words({0, 100, 0, 100}));
}

TEST(Delete, OfThePresetAtTheLastNumberIsDone) {
    FakeHost host;
    host.presets = presets_from_100(40);
    EXPECT_EQ(host.receive(delete_request({{39, 139}})), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls()[3], "__ui_preset_delete_form_phone(39)");
}

TEST(Delete, OfANumberThatOnlyItsLowerBitsMakePossibleFails) {
    for (const int number :
         {128, 255, 256, 257, 32768, 40000, 65535, 65536, 65537, 1 << 24, -256, -32768, -65535, INT_MIN + 1}) {
        SCOPED_TRACE(number);
        FakeHost host;
        host.presets = presets_from_100(2);
        EXPECT_EQ(host.receive(delete_request({{number, 101}})), SM_RETURN_STRUCT_ERR);
        EXPECT_EQ(host.calls(), refused_calls({101}));
    }
}

TEST(Delete, TakesEveryLinkFromMinus2DownAndFrom41UpForImpossible) {
    for (const int link : {-2, -3, -40, -41, -128, -255, -256, -257,  -32768, -65535, -65536, INT_MIN, INT_MIN + 1, 41,
                           42, 43, 127, 128, 255,  256,  257,  32768, 65535,  65536,  65537,  1 << 24, INT_MAX}) {
        for (const size_t mode : {0u, 1u}) {
            SCOPED_TRACE(std::to_string(link) + " of CUSTOM" + std::to_string(mode + 1));
            FakeHost host;
            host.presets = presets_from_100(3);
            host.deletes = false;
            host.linked_answers = {-1, -1, link, link};
            host.linked_answers[mode] = link;
            EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, 101}})), SM_RETURN_SYSTEM_DATA_ERR);
            EXPECT_EQ(host.calls()[4], "__ui_preset_delete_form_phone(0 1)");
            const Bytes presets =
                phone_record(preset(100, 0)) + phone_record(preset(101, 1)) + phone_record(preset(102, 2));
            EXPECT_EQ(host.replies.back().bytes,
                      head(20 + 3 * 744 + 8, SM_RETURN_SYSTEM_DATA_ERR, 3) + presets + zeros(8));
            EXPECT_EQ(kept_words_of(host, 3), mode == 0 ? kept_words({link, nothing, nothing, nothing})
                                                        : kept_words({link, nothing, link, nothing}));
        }
    }
}

TEST(Delete, TakesCountsBeyond16BitsAsTheyAre) {
    for (const auto& [reported, taken] : {std::pair{256, 40}, {65536, 40}, {65538, 40}, {-65534, 0}, {-256, 0}}) {
        SCOPED_TRACE(reported);
        FakeHost host;
        host.presets = presets_from_100(40);
        host.deletes = false;
        host.reported_count = reported;
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_TRUE);
        EXPECT_EQ(slice(host.replies.back().bytes, 0, 20), head(20 + 744 * taken, SM_RETURN_TRUE, taken));
    }
}

TEST(Delete, NeverWritesTheKeptWordsWhereTheyWouldReachTheBuffersEnd) {
    // Ten records leave room for them, eleven do not: 80 + 2976 * 11 + 16 is more than 30000.
    for (const int presets : {10, 11}) {
        SCOPED_TRACE(presets);
        FakeHost host;
        host.presets = presets_from_100(presets);
        EXPECT_EQ(host.receive(delete_request({{0, 999}})), SM_RETURN_STRUCT_ERR); // a refused one always has room
        EXPECT_EQ(slice(host.replies.back().buffer, 80, 16), kept_words({}));
        host.confirm();
        host.linked[0] = 0;
        EXPECT_EQ(host.receive(delete_request({{0, 100}})), SM_RETURN_OPENED_ERR);
        const Bytes behind = slice(host.replies.back().buffer, 20 + 744 * static_cast<size_t>(presets),
                                   30000 - 20 - 744 * static_cast<size_t>(presets));
        const bool has_words = std::any_of(behind.begin(), behind.end(), [](unsigned char byte) { return byte != 0; });
        EXPECT_EQ(has_words, presets == 10);
    }
}

TEST(Delete, KeepsAPresetOfAnyIdentity) {
    for (const int id : {256, 32768, 65536, 65636, 0x12345678, -0x12345678, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(id);
        FakeHost host;
        host.presets = {preset(100, 0), preset(id, 1)};
        host.linked[0] = 1;
        EXPECT_EQ(host.receive(delete_request({{0, 100}, {1, id}})), SM_RETURN_OPENED_ERR);
        EXPECT_EQ(kept_words_of(host, 1), kept_words({0, id, nothing, nothing}));
        EXPECT_EQ(lines_with("sendlength=", host.log()),
                  Transcript{sent(772, SM_RETURN_OPENED_ERR, 1, {0, id, nothing, nothing})[2]});
    }
}

TEST(Delete, TellsOfKeptPresetsOfBothCustomModesByAnyNumberAndIdentity) {
    FakeHost host;
    host.presets = {preset(0x12345678, 65536), preset(-0x7654321, -0x7654321)};
    host.deletes = false; // a deletion would renumber them
    host.linked[0] = 0;
    host.linked[1] = 1;
    EXPECT_EQ(host.receive(delete_request({{0, 0x12345678}, {1, -0x7654321}})), SM_RETURN_OPENED_BOTH_ERR);
    const Kept kept = {65536, 0x12345678, -0x7654321, -0x7654321};
    EXPECT_EQ(kept_words_of(host, 2), kept_words(kept));
    EXPECT_EQ(lines_with("sendlength=", host.log()), Transcript{sent(1524, SM_RETURN_OPENED_BOTH_ERR, 2, kept)[2]});
}

TEST(Delete, ShowsLargeNumbersWholeInTheLog) {
    FakeHost host;
    host.preset_info_answer = true;
    host.receive(delete_request({{0x12345678, -0x12345678}, {-0x7654321, 0x7654321}}));
    EXPECT_EQ(command_lines(host.transcript),
              joined({{begins(2), entry(0, 0x12345678, -0x12345678), entry(2, -0x7654321, 0x7654321), faulty,
                       looked_up(-0x12345678), faulty, looked_up(0x7654321)},
                      sent(20, SM_RETURN_STRUCT_ERR, 0)}));
}

} // namespace
