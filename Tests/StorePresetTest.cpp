// Function 3: the phone stores a preset, record and picture. Which lengths are converted and saved, what the UI service
// is handed, and how the new preset's identity travels back.
#include <climits>

#include <gtest/gtest.h>

#include "CommandLines.h"
#include "Conversion.h"

namespace {

// An automatic preset of a KT camera of another maker: its conversion leaves every word but `ev_step` as it is.
sm_tag_custom_info automatic_preset() {
    sm_tag_custom_info phone{};
    put_text(phone.title, "Harbour");
    phone.mode = 1;
    phone.ev_step = 50;
    phone.preset_num = 5;
    phone.custom_id = 6;
    phone.applocal_id = 7;
    phone.server_id = 8;
    phone.made_id = 0x44;
    put_text(phone.screennail_path, "/phone/7.jpg");
    phone.linked_custom_mode = 2;
    return phone;
}

// The same preset as the camera reads it.
tag_custom_info automatic_preset_of_camera() {
    const sm_tag_custom_info phone = automatic_preset();
    tag_custom_info camera{};
    std::memcpy(&camera, &phone, sizeof camera);
    camera.ev_step = 15;
    return camera;
}

Bytes store_request_of(size_t payload_length) {
    const Bytes whole = image(automatic_preset()) + pattern(payload_length);
    return request(SM_FUNCTION_RECEIVE_PRESET, slice(whole, 0, payload_length));
}

Bytes store_reply(int32_t result, int32_t preset_num, int32_t custom_id, int32_t applocal_id) {
    return words({0x1003, 24, result, preset_num, custom_id, applocal_id});
}

std::string begins(int length) {
    return "CYAN ALG_SMM ADE_SM_Receive_Preset() length=" + std::to_string(length) + ", sizeof(sm_tag_custom_info)=744";
}

const std::string converted =
    "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : Harbour custom_id : 6 server_id : 8";
const std::string too_short = "ERROR ALG_SMM SM_RETURN_STRUCT_ERR";
const std::string no_picture = "ERROR ALG_SMM SM_RETURN_JPG_ERR";
const std::string allocated = "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=#1";
const std::string send_call = "bt_send_msgs(24)";

std::string send_line(int result, int preset_num, int custom_id, int applocal_id) {
    return "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1003, sendlength=24, return=" + std::to_string(result) +
           ", preset_num=" + std::to_string(preset_num) + ", custom_id=" + std::to_string(custom_id) +
           ", applocal_id=" + std::to_string(applocal_id);
}

// What a store that is not refused asks the services: to save a picture of so many bytes, and to send the reply.
Transcript store_calls(int picture_length) {
    return {"__ui_save_downloaded_preset(" + std::to_string(picture_length) + ")", send_call};
}

TEST(StorePreset, IsOneConversationFromThePacketToTheSend) {
    FakeHost host;
    EXPECT_EQ(host.receive(store_request_of(844)), SM_RETURN_TRUE);
    EXPECT_EQ(without_conversions(host.transcript),
              (Transcript{
                  "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=3",
                  "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=852",
                  "PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1",
                  "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=852, sm_BT_combine_length=852",
                  "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=3, length=852",
                  "CYAN ALG_SMM ADE_SM_Receive_Preset() length=844, sizeof(sm_tag_custom_info)=744",
                  "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : Harbour custom_id : 6 server_id : 8",
                  "__ui_save_downloaded_preset(100)",
                  "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=#2",
                  "PLAIN ALG_SMM ADE_ShotMentor_SEND funcNum=1003, sendlength=24, return=1, "
                  "preset_num=5, custom_id=6, applocal_id=7",
                  "bt_send_msgs(24)",
                  "PLAIN ALG_SMM free Receive add=#1",
              }));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, store_reply(SM_RETURN_TRUE, 5, 6, 7));
    EXPECT_EQ(host.replies[0].buffer, store_reply(SM_RETURN_TRUE, 5, 6, 7) + zeros(30000 - 24));
}

TEST(StorePreset, HandsTheConvertedRecordAndThePictureToTheService) {
    FakeHost host;
    host.receive(store_request_of(844));
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(image(host.saved[0].record), image(automatic_preset_of_camera()));
    EXPECT_EQ(host.saved[0].length, 100);
    EXPECT_EQ(host.saved[0].image, pattern(100));
}

TEST(StorePreset, HandsEveryByteOfTheRecordOver) {
    FakeHost host;
    sm_tag_custom_info phone = numbered_record<sm_tag_custom_info>();
    put_text(phone.title, fifty_two_characters);
    put_text(phone.screennail_path, fifty_two_characters);
    phone.mode = 1;
    phone.av_index = phone.tv_index = phone.iso = phone.iso_1_3 = 0;
    phone.ev_step = 50;
    phone.made_id = 0x44;
    for (int32_t* const colour : colour_words(phone)) {
        *colour = 256; // the camera's 200
    }

    tag_custom_info camera{};
    std::memcpy(&camera, &phone, sizeof camera);
    camera.ev_step = 15;
    for (int32_t* const colour : colour_words(camera)) {
        *colour = 200;
    }

    host.receive(store_request(phone, pattern(100)));
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(image(host.saved[0].record), image(camera));
    EXPECT_EQ(host.saved[0].image, pattern(100));
}

TEST(StorePreset, Of743BytesLogsBothErrorsAndReportsTheMissingPicture) {
    FakeHost host;
    EXPECT_EQ(host.receive(store_request_of(743)), SM_RETURN_JPG_ERR);
    // The conversion's own trace would show that it ran; there is none.
    const Transcript all = host.transcript;
    EXPECT_EQ(all, without_conversions(all));
    EXPECT_EQ(command_lines(all), (Transcript{begins(743), too_short, no_picture, allocated,
                                              send_line(SM_RETURN_JPG_ERR, 0, 0, 0), send_call}));
    EXPECT_TRUE(host.saved.empty());
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, store_reply(SM_RETURN_JPG_ERR, 0, 0, 0));
}

TEST(StorePreset, WithoutAPayloadLogsBothErrorsAndReportsTheMissingPicture) {
    FakeHost host;
    EXPECT_EQ(host.receive(request(SM_FUNCTION_RECEIVE_PRESET)), SM_RETURN_JPG_ERR);
    EXPECT_EQ(command_lines(host.transcript), (Transcript{begins(0), too_short, no_picture, allocated,
                                                          send_line(SM_RETURN_JPG_ERR, 0, 0, 0), send_call}));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, store_reply(SM_RETURN_JPG_ERR, 0, 0, 0));
}

TEST(StorePreset, WithFewerThan100BytesOfPictureIsConvertedButNotSaved) {
    for (const int length : {744, 843}) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(host.receive(store_request_of(static_cast<size_t>(length))), SM_RETURN_JPG_ERR);
        EXPECT_EQ(command_lines(host.transcript), (Transcript{begins(length), converted, no_picture, allocated,
                                                              send_line(SM_RETURN_JPG_ERR, 5, 6, 7), send_call}));
        EXPECT_TRUE(host.saved.empty());
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, store_reply(SM_RETURN_JPG_ERR, 5, 6, 7));
        EXPECT_EQ(host.replies[0].buffer, store_reply(SM_RETURN_JPG_ERR, 5, 6, 7) + zeros(30000 - 24));
    }
}

TEST(StorePreset, ReportsTheIdentityThatTheServiceGaveThePreset) {
    FakeHost host;
    host.save = [](tag_custom_info& record) {
        record.preset_num = 12;
        record.custom_id = -34;
        record.applocal_id = 56;
        return 1;
    };
    EXPECT_EQ(host.receive(store_request_of(844)), SM_RETURN_TRUE);
    EXPECT_EQ(lines_with("ADE_ShotMentor_SEND", host.log()), Transcript{send_line(SM_RETURN_TRUE, 12, -34, 56)});
    EXPECT_EQ(host.calls(), store_calls(100));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, store_reply(SM_RETURN_TRUE, 12, -34, 56));
}

TEST(StorePreset, CarriesWhateverTheServiceAnswersToThePhone) {
    for (const int answer : {1, 0, -1, -9, 4711, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(answer);
        FakeHost host;
        host.save = [answer](tag_custom_info&) { return answer; };
        EXPECT_EQ(host.receive(store_request_of(900)), answer);
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, store_reply(answer, 5, 6, 7));
        EXPECT_EQ(host.calls(), store_calls(156));
    }
}

TEST(StorePreset, ConvertsThePhonesCodesToTheCameras) {
    FakeHost host;
    sm_tag_custom_info phone = automatic_preset();
    phone.mode = 4;
    phone.av_index = 28;
    phone.tv_index = 48;
    phone.iso = 400;
    phone.iso_1_3 = 10;
    phone.ev_step = 60;
    phone.cs_info.color_style = 5;
    phone.cs_info.cs_color_off_color = 3;
    phone.cs_info.cs_color[0].cs_color_g = -5;
    phone.cs_info.cs_color[9].cs_color_r = 128;
    phone.cs_info.cs_color[12].cs_color_b = 255;

    tag_custom_info camera{};
    std::memcpy(&camera, &phone, sizeof camera);
    camera.av_index = 48;
    camera.tv_index = 65520;
    camera.iso = 3;
    camera.iso_1_3 = 8;
    camera.ev_step = 18;
    camera.cs_info.cs_color[0].cs_color_g = 0;
    camera.cs_info.cs_color[9].cs_color_r = 100;
    camera.cs_info.cs_color[12].cs_color_b = 199;

    pro_sys_mode = 4; // 3, from a list before, would leave the aperture to the camera
    host.receive(store_request(phone, pattern(100)));
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(image(host.saved[0].record), image(camera));
}

TEST(StorePreset, HandsATitleWithoutANulOverAndLogs52CharactersOfIt) {
    FakeHost host;
    sm_tag_custom_info phone = automatic_preset();
    put_text(phone.title, fifty_two_characters);
    host.receive(store_request(phone, pattern(100)));
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(slice(image(host.saved[0].record), 0, 56), slice(image(phone), 0, 56));
    EXPECT_EQ(command_lines(host.transcript)[1], "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : " +
                                                     fifty_two_characters + " custom_id : 6 server_id : 8");
}

TEST(StorePreset, TakesALongPictureInManyPackets) {
    FakeHost host;
    const Bytes long_request = store_request(automatic_preset(), pattern(5000));
    EXPECT_EQ(host.receive_in_packets(long_request, {8, 708, 752, 753, 3753}),
              (std::vector<int>{SM_RETURN_FAIL, SM_RETURN_FAIL, SM_RETURN_FAIL, SM_RETURN_FAIL, SM_RETURN_FAIL,
                                SM_RETURN_TRUE}));
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(host.saved[0].length, 5000);
    EXPECT_EQ(host.saved[0].image, pattern(5000));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, store_reply(SM_RETURN_TRUE, 5, 6, 7));
}

TEST(StorePreset, TakesThePictureOfTheLongestRequest) {
    FakeHost host;
    EXPECT_EQ(host.receive(store_request(automatic_preset(), pattern(599248))), SM_RETURN_TRUE);
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(host.saved[0].length, 599248);
    EXPECT_TRUE(host.saved[0].image == pattern(599248));
}

TEST(StorePreset, ThatAnnouncesLessThanItsHeaderHandsANegativePictureLengthOver) {
    FakeHost host;
    host.save = [](tag_custom_info&) { return -2; };
    // Four bytes are the whole request: the payload's length is -4, that of the picture -4 - 744.
    EXPECT_EQ(host.receive_with_length(header(SM_FUNCTION_RECEIVE_PRESET, 4), 4), -2);
    EXPECT_EQ(host.calls(), store_calls(-748));
    ASSERT_EQ(host.saved.size(), 1u);
    EXPECT_EQ(host.saved[0].length, -748);
}

TEST(StorePreset, CalledWithANegativeLengthCountsItAsLong) {
    const Bytes payload = image(automatic_preset());
    const struct {
        int length;
        int picture;
    } cases[] = {{-1, -745}, {-8, -752}, {INT_MIN + 744, INT_MIN}};
    for (const auto& [length, picture] : cases) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(ADE_SM_Receive_Preset(payload.data(), length), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), store_calls(picture));
        ASSERT_EQ(host.saved.size(), 1u);
        EXPECT_EQ(host.saved[0].length, picture);
        EXPECT_EQ(image(host.saved[0].record), image(automatic_preset_of_camera()));
    }
}

TEST(StorePreset, CalledWithATooShortPayloadReadsNothingBeyondIt) {
    FakeHost host;
    const Bytes payload = slice(image(automatic_preset()), 0, 743);
    EXPECT_EQ(ADE_SM_Receive_Preset(payload.data(), 743), SM_RETURN_JPG_ERR);
    EXPECT_EQ(host.calls(), Transcript{send_call});
}

TEST(StorePreset, ParksAReplyThatIsStillUnconfirmed) {
    FakeHost host;
    host.receive(store_request_of(844));
    host.receive(store_request_of(743));
    expect_first_parked(host);
}

// ---- Borders --------------------------------------------------------------------------------------------------------

TEST(StorePreset, IsConvertedFrom744BytesOnAndSavedFrom844OnWhateverTheBufferHoldsBehind) {
    for (int length = 730; length <= 860; ++length) {
        SCOPED_TRACE(length);
        FakeHost host;
        const bool is_whole = length >= 744;
        const bool is_saved = length >= 844;
        const int result = is_saved ? SM_RETURN_TRUE : SM_RETURN_JPG_ERR;
        EXPECT_EQ(host.receive(store_request_of(static_cast<size_t>(length))), result);
        EXPECT_EQ(host.calls(), is_saved ? store_calls(length - 744) : Transcript{send_call});
        EXPECT_EQ(host.replies.back().bytes, is_whole ? store_reply(result, 5, 6, 7) : store_reply(result, 0, 0, 0));
        EXPECT_EQ(lines_with(too_short, host.log()).size(), is_whole ? 0u : 1u);
        EXPECT_EQ(lines_with(no_picture, host.log()).size(), is_saved ? 0u : 1u);
    }
}

TEST(StorePreset, TakesPicturesWhoseLengthReachesBeyond16Bits) {
    for (const size_t length : {65435u, 65436u, 65535u, 65536u, 65537u, 131072u}) {
        SCOPED_TRACE(length);
        FakeHost host;
        EXPECT_EQ(host.receive(store_request(automatic_preset(), pattern(length))), SM_RETURN_TRUE);
        ASSERT_EQ(host.saved.size(), 1u);
        EXPECT_EQ(host.saved[0].length, static_cast<int>(length));
        EXPECT_TRUE(host.saved[0].image == pattern(length));
    }
}

TEST(StorePreset, ReportsIdentitiesBeyond16BitsAndNegativeOnes) {
    FakeHost host;
    host.save = [](tag_custom_info& record) {
        record.preset_num = 65536 + 12;
        record.custom_id = INT_MIN;
        record.applocal_id = -65536;
        return -65537;
    };
    EXPECT_EQ(host.receive(store_request_of(844)), -65537);
    EXPECT_EQ(host.replies.back().bytes, store_reply(-65537, 65536 + 12, INT_MIN, -65536));
}

TEST(StorePreset, ReportsTheRecordAsItCameWhereTheServiceWritesNothingIntoIt) {
    FakeHost host;
    host.save = [](tag_custom_info&) { return -9; };
    EXPECT_EQ(host.receive(store_request_of(844)), -9);
    EXPECT_EQ(host.replies.back().bytes, store_reply(-9, 5, 6, 7));
}

TEST(StorePreset, ShowsLargeNumbersWholeInTheLog) {
    FakeHost host;
    host.save = [](tag_custom_info& record) {
        record.preset_num = 0x12345678;
        record.custom_id = -0x12345678;
        record.applocal_id = 0x7654321;
        return -0x7654321;
    };
    sm_tag_custom_info phone = automatic_preset();
    phone.custom_id = 0x11111111;
    phone.server_id = -0x11111111;
    host.receive(store_request(phone, pattern(131072)));
    EXPECT_EQ(command_lines(host.transcript),
              (Transcript{begins(131816),
                          "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : Harbour "
                          "custom_id : 286331153 server_id : -286331153",
                          "__ui_save_downloaded_preset(131072)", allocated,
                          send_line(-0x7654321, 0x12345678, -0x12345678, 0x7654321), send_call}));
}

} // namespace
