// The preset list: what the phone gets for function 1, how the presets of the custom modes are marked, and what the
// library makes of impossible answers of the UI service.
#include <climits>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

Bytes list_head(int32_t presets) {
    const Bytes model = {'K', 'T', '7', 0, 0, 0, 0, 0, 0, 0, 0, 0};
    return words({0x1001, 28 + 744 * presets}) + model + words({1, presets});
}

// What a list of so many presets asks the services, to send so many bytes.
Transcript list_calls(int presets, int length) {
    return joined(
        {{"__ui_set_shotmentor_state(1)", "__ui_get_bt_state_for_phone()", "__ui_get_custom_mode_list_info()"},
         Transcript(static_cast<size_t>(presets), "User_Spec_Get_Value(272)"),
         {"__ui_get_linked_preseet_num_for_phone(0)", "__ui_get_linked_preseet_num_for_phone(1)",
          "bt_send_msgs(" + std::to_string(length) + ")"}});
}

// The word behind each record of a list reply.
std::vector<int32_t> marks(const Bytes& reply) {
    std::vector<int32_t> found;
    for (size_t record = 28; record + 744 <= reply.size(); record += 744) {
        found.push_back(word_at(reply, record + 740));
    }
    return found;
}

TEST(PresetList, OfNoPresetsIsTheHeadAlone) {
    FakeHost host;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(0));
    EXPECT_EQ(host.replies[0].bytes.size(), 28u);
}

TEST(PresetList, IsOneConversationFromThePacketToTheSend) {
    FakeHost host;
    host.presets = {preset(7, 0), preset(8, 1)};
    host.linked[0] = 1;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    EXPECT_EQ(
        without_conversions(host.transcript),
        (Transcript{
            "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=1",
            "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=8",
            "PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1",
            "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=8, sm_BT_combine_length=8",
            "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=1, length=8",
            "__ui_set_shotmentor_state(1)",
            "CYAN ALG_SMM ADE_SM_Send_List()",
            "__ui_get_bt_state_for_phone()",
            "__ui_get_custom_mode_list_info()",
            "PLAIN ALG_SMM __ui_get_custom_mode_list_info() - list number: 2",
            "PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : Preset 7 custom_id : 7 server_id : 0",
            "User_Spec_Get_Value(272)",
            "PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : Preset 8 custom_id : 8 server_id : 0",
            "User_Spec_Get_Value(272)",
            "__ui_get_linked_preseet_num_for_phone(0)",
            "PLAIN ALG_SMM LIST- CUSTOM1 MODE index: 1",
            "__ui_get_linked_preseet_num_for_phone(1)",
            "PLAIN ALG_SMM LIST- CUSTOM2 MODE index: -1",
            "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=#2",
            "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1001, length=1516, SM_MODEL=KT7, SM_STRUCT_VER=1, num_Preset=2",
            "bt_send_msgs(1516)",
            "PLAIN ALG_SMM free Receive add=#1",
        }));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(2) + phone_record(preset(7, 0)) + phone_record(preset(8, 1), 1));
}

TEST(PresetList, OfFortyPresetsFills29788Bytes) {
    FakeHost host;
    host.presets = presets_from_100(40);
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    Bytes expected = list_head(40);
    for (const tag_custom_info& stored : host.presets) {
        expected = expected + phone_record(stored);
    }
    ASSERT_EQ(expected.size(), 29788u);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, expected);
}

TEST(PresetList, MarksThePresetsOfBothCustomModes) {
    FakeHost host;
    host.presets = presets_from_100(5);
    host.linked[0] = 3;
    host.linked[1] = 0;
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(marks(host.replies[0].bytes), (std::vector<int32_t>{2, 0, 0, 1, 0}));
}

TEST(PresetList, MarksAPresetOfBothCustomModesWithTwo) {
    FakeHost host;
    host.presets = presets_from_100(3);
    host.linked[0] = host.linked[1] = 1;
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(marks(host.replies[0].bytes), (std::vector<int32_t>{0, 2, 0}));
}

TEST(PresetList, MarksTheLastOfFortyPresets) {
    FakeHost host;
    host.presets = presets_from_100(40);
    host.linked[0] = 39;
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    std::vector<int32_t> expected(40);
    expected[39] = 1;
    EXPECT_EQ(marks(host.replies[0].bytes), expected);
}

TEST(PresetList, ShowsALinkThatMarksNothingInTheLogOnly) {
    for (const int link : {-1, -2, INT_MIN, 39, 40, 41, INT_MAX}) {
        SCOPED_TRACE(link);
        FakeHost host;
        host.presets = {preset(1)};
        host.linked[0] = host.linked[1] = link;
        EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
        EXPECT_EQ(lines_with("LIST- CUSTOM", host.log()),
                  (Transcript{"PLAIN ALG_SMM LIST- CUSTOM1 MODE index: " + std::to_string(link),
                              "PLAIN ALG_SMM LIST- CUSTOM2 MODE index: " + std::to_string(link)}));
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, list_head(1) + phone_record(preset(1)));
        EXPECT_EQ(host.replies[0].buffer, host.replies[0].bytes + zeros(30000 - 772));
    }
}

TEST(PresetList, IsNotSentWhileThePhoneLinkIsDown) {
    FakeHost host;
    host.link_up = false;
    host.presets = {preset(1)};
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_FAIL);
    EXPECT_EQ(command_lines(host.transcript),
              (Transcript{"CYAN ALG_SMM ADE_SM_Send_List()", "__ui_get_bt_state_for_phone()",
                          "WARN ALG_SMM BT state : off"}));
    EXPECT_EQ(host.calls(), (Transcript{"__ui_set_shotmentor_state(1)", "__ui_get_bt_state_for_phone()"}));
    EXPECT_TRUE(host.replies.empty());
}

TEST(PresetList, AllocatesNothingWhileThePhoneLinkIsDown) {
    FakeHost host;
    host.link_up = false;
    EXPECT_EQ(ADE_SM_Send_List(), SM_RETURN_FAIL);
    EXPECT_EQ(host.allocations_asked(), 0);
}

TEST(PresetList, LeavesAnUnconfirmedReplyCurrentWhileThePhoneLinkIsDown) {
    FakeHost host;
    host.receive(list_request());
    host.link_up = false;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_FAIL);
    EXPECT_EQ(shotmentor_p_FullData, host.replies[0].message.data);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
}

TEST(PresetList, IgnoresAPayload) {
    FakeHost host;
    host.presets = {preset(1)};
    EXPECT_EQ(host.receive(request(SM_FUNCTION_SEND_LIST, pattern(500))), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(1) + phone_record(preset(1)));
}

TEST(PresetList, ParksAListThatIsStillUnconfirmed) {
    FakeHost host;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    expect_first_parked(host);
}

TEST(PresetList, OwnsNothingButTheReplyWhenItHasBeenSent) {
    FakeHost host;
    host.presets = presets_from_100(40);
    host.receive(list_request());
    EXPECT_EQ(host.blocks_owned(), 1u);
    EXPECT_EQ(host.bytes_owned(), 30000u);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.blocks_owned(), 0u);
}

TEST(PresetList, IsHandedToTheBluetoothServiceInARecordThatIsOtherwiseZero) {
    FakeHost host;
    std::memset(&shotmentor_BT_info, 0xA5, sizeof shotmentor_BT_info);
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    bt_msg_info expected;
    std::memset(&expected, 0, sizeof expected);
    expected.message_kind = 9;
    expected.data = shotmentor_p_FullData;
    expected.length = 28;
    EXPECT_EQ(image(host.replies[0].message), image(expected));
}

TEST(PresetList, TakesAnImpossibleCountForTheNearestPossibleOne) {
    const struct {
        int reported;
        int taken;
    } cases[] = {{-1, 0}, {INT_MIN, 0}, {41, 40}, {INT_MAX, 40}};
    for (const auto& [reported, taken] : cases) {
        SCOPED_TRACE(reported);
        FakeHost host;
        host.presets = presets_from_100(40);
        host.reported_count = reported;
        EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);

        Bytes records;
        for (int number = 0; number < taken; ++number) {
            const int id = 100 + number;
            records = records + phone_record(preset(id, number));
        }
        EXPECT_EQ(
            lines_with("list number", host.log()),
            Transcript{"PLAIN ALG_SMM __ui_get_custom_mode_list_info() - list number: " + std::to_string(reported)});
        EXPECT_EQ(host.calls(), list_calls(taken, 28 + 744 * taken));
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, list_head(taken) + records);
    }
}

TEST(PresetList, SendsZerosForAPresetThatTheServiceCountedWithoutWritingIt) {
    FakeHost host;
    host.presets = {preset(1)};
    host.reported_count = 3;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(3) + phone_record(preset(1)) + zeros(2 * 744));
}

TEST(PresetList, KeepsTheOrderOfTheService) {
    FakeHost host;
    host.presets = {preset(30, 2), preset(10, 0), preset(20, 1)};
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes,
              list_head(3) + phone_record(preset(30, 2)) + phone_record(preset(10, 0)) + phone_record(preset(20, 1)));
}

// A preset whose exposure and colours read differently on the two sides.
tag_custom_info manual_preset() {
    tag_custom_info camera = preset(1);
    camera.mode = 5;
    camera.av_index = 48;
    camera.tv_index = 65520;
    camera.iso = 3;
    camera.iso_1_3 = 8;
    camera.ev_step = 7;
    camera.cs_info.cs_color[9].cs_color_r = 100;
    camera.cs_info.cs_color[12].cs_color_b = 199;
    camera.server_id = -12;
    put_text(camera.screennail_path, "/nail/1.jpg");
    return camera;
}

// The same preset as the phone reads it.
sm_tag_custom_info manual_preset_of_phone() {
    const tag_custom_info camera = manual_preset();
    sm_tag_custom_info phone{};
    std::memcpy(&phone, &camera, sizeof camera);
    phone.mode = 4;
    phone.av_index = 28;
    phone.tv_index = 48;
    phone.iso = 400;
    phone.iso_1_3 = 500;
    phone.ev_step = 15;
    phone.cs_info.cs_color[9].cs_color_r = 128;
    phone.cs_info.cs_color[12].cs_color_b = 255;
    return phone;
}

TEST(PresetList, CarriesThePhonesCodesOfAPreset) {
    FakeHost host;
    host.presets = {manual_preset()};
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(1) + image(manual_preset_of_phone()));
}

TEST(PresetList, CarriesTheThirdStepSensitivityOfACameraThatSetsThirdSteps) {
    FakeHost host;
    host.presets = {manual_preset()};
    host.iso_step_value = 0;
    host.receive(list_request());
    sm_tag_custom_info expected = manual_preset_of_phone();
    expected.iso = 500;
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(1) + image(expected));
}

TEST(PresetList, CarriesATitleWithoutANulAndLogs52CharactersOfIt) {
    FakeHost host;
    tag_custom_info stored = preset(1);
    put_text(stored.title, fifty_two_characters);
    stored.mode = 1; // the byte behind the title is not a NUL
    host.presets = {stored};
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(1) + phone_record(stored));
    const Transcript lines = command_lines(host.transcript);
    ASSERT_GT(lines.size(), 5u);
    EXPECT_EQ((Transcript{lines[4], lines[5]}), converted_to_phone(fifty_two_characters, 1));
}

TEST(PresetList, IsEmptyWhenTheServiceWritesNoCount) {
    FakeHost host;
    host.presets = {preset(1)};
    host.reports_count = false;
    host.receive(list_request());
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(0));
}

TEST(PresetList, MayBeAskedForDirectly) {
    FakeHost host;
    host.presets = {preset(1)};
    EXPECT_EQ(ADE_SM_Send_List(), SM_RETURN_TRUE);
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, list_head(1) + phone_record(preset(1)));
}

// ---- Numbers, places and identities that are not the same; borders --------------------------------------------------

TEST(PresetList, MarksTheRecordAtThePlaceThatTheLinkNamesWhateverItsNumberIs) {
    FakeHost host;
    host.presets = {preset(207, 5), preset(203, 9), preset(-11, 2)};
    host.linked[0] = 2;
    host.linked[1] = 1;
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    EXPECT_EQ(host.replies.back().bytes, list_head(3) + phone_record(preset(207, 5)) + phone_record(preset(203, 9), 2) +
                                             phone_record(preset(-11, 2), 1));
}

TEST(PresetList, MarksNothingForALinkThatOnlyItsLowerBitsMakePossible) {
    for (const int link : {-2, -3, -255, -256, -65535, -65536, INT_MIN, INT_MIN + 1, 40, 41, 42, 127, 128, 256, 257,
                           65536, 65537, 1 << 24, INT_MAX}) {
        SCOPED_TRACE(link);
        FakeHost host;
        host.presets = presets_from_100(40);
        host.linked[0] = host.linked[1] = link;
        EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
        EXPECT_EQ(marks(host.replies.back().bytes), std::vector<int32_t>(40));
    }
}

TEST(PresetList, MarksTheFirstAndTheLastPresetForCustom2) {
    for (const int link : {0, 39}) {
        FakeHost host;
        host.presets = presets_from_100(40);
        host.linked[1] = link;
        EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
        std::vector<int32_t> expected(40);
        expected[static_cast<size_t>(link)] = 2;
        EXPECT_EQ(marks(host.replies.back().bytes), expected);
    }
}

TEST(PresetList, TakesCountsFrom39To41AndBeyond16BitsAsTheyAre) {
    for (const auto& [reported, taken] : {std::pair{0, 0},
                                          {1, 1},
                                          {39, 39},
                                          {40, 40},
                                          {41, 40},
                                          {256, 40},
                                          {65536, 40},
                                          {65538, 40},
                                          {-65534, 0},
                                          {-256, 0}}) {
        SCOPED_TRACE(reported);
        FakeHost host;
        host.presets = presets_from_100(40);
        host.reported_count = reported;
        EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
        EXPECT_EQ(host.replies.back().message.length, 28 + 744 * taken);
        EXPECT_EQ(slice(host.replies.back().bytes, 0, 28), list_head(taken));
    }
}

TEST(PresetList, LeavesRecordsBehindTheCountUnread) {
    FakeHost host;
    host.presets = presets_from_100(3);
    host.reported_count = 2;
    host.linked[0] = 2; // marks a record that is not sent
    EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), list_calls(2, 28 + 2 * 744));
    EXPECT_EQ(host.replies.back().bytes, list_head(2) + phone_record(preset(100, 0)) + phone_record(preset(101, 1)));
    EXPECT_TRUE(host.replies.back().buffer == host.replies.back().bytes + zeros(30000 - 28 - 2 * 744));
}

} // namespace
