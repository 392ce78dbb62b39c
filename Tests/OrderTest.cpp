// The order of effects that a host can see: what the library holds at the moment it logs a line, calls a service or
// hands a reply over. A service must not call back into the library, but it may look at the state that the library
// exports.
#include <cstdlib>
#include <fstream>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CommandLines.h"
#include "Lab/LibraryHeap.h"

namespace {

// What a host can see at one event.
struct Moment {
    std::string event;
    int total;
    int sum;
    bool has_request;
    const unsigned char* reply; // the current one
    int queued;
    const unsigned char* oldest; // in slot 0, whatever the count says
    size_t blocks;               // that the library owns
    int files;                   // open beyond those at the start
    bt_msg_info sent;            // the send record
};

class Order : public testing::Test {
  protected:
    Order() {
        const int files = open_files();
        host.watch = [this, files](const std::string& event) {
            moments.push_back({event, sm_BT_total_length, sm_BT_combine_length, shotmentor_p_ReceiveData != nullptr,
                               shotmentor_p_FullData, shotmentor_p_Full_Q_NUM, shotmentor_p_Full_Q[0],
                               library_heap::blocks(), open_files() - files, shotmentor_BT_info});
        };
    }

    // The last moment whose event has this text.
    Moment at(const std::string& text) const {
        for (size_t index = moments.size(); index-- > 0;) {
            if (moments[index].event.find(text) != std::string::npos) {
                return moments[index];
            }
        }
        ADD_FAILURE() << "nothing happened that has the text " << text;
        return {};
    }

    // All moments of such an event.
    std::vector<Moment> all_at(const std::string& text) const {
        std::vector<Moment> found;
        std::copy_if(moments.begin(), moments.end(), std::back_inserter(found),
                     [&text](const Moment& moment) { return moment.event.find(text) != std::string::npos; });
        EXPECT_FALSE(found.empty()) << text;
        return found;
    }

    void expect_reassembly(const Moment& moment, int total, int sum, bool has_request) {
        SCOPED_TRACE(moment.event);
        EXPECT_EQ(moment.total, total);
        EXPECT_EQ(moment.sum, sum);
        EXPECT_EQ(moment.has_request, has_request);
    }

    std::vector<Moment> moments;
    FakeHost host;
};

// ---- The intake -----------------------------------------------------------------------------------------------------

TEST_F(Order, AFirstPacketsTotalIsKnownFirstThenItsBufferThenItsBytes) {
    host.receive(state_off_request(SM_RETURN_TRUE));
    expect_reassembly(at("Receive_Manager funcN=0"), -1, 0, false);
    expect_reassembly(at("sm_total_length=12"), 12, 0, false);
    expect_reassembly(at("shotmentor_p_ReceiveData add="), 12, 0, true);
    expect_reassembly(at("Combine_BTData length=12"), 12, 12, true);
}

TEST_F(Order, ANewBuffersFirstBytesAreClearedBeforeItsAddressIsLogged) {
    Bytes seen;
    host.watch = [&seen](const std::string& event) {
        if (event.find("shotmentor_p_ReceiveData add=") != std::string::npos) {
            seen.assign(shotmentor_p_ReceiveData, shotmentor_p_ReceiveData + 760);
        }
    };
    host.receive(header(SM_FUNCTION_UPDATE_PRESET, 700));
    EXPECT_EQ(seen, zeros(760));
}

TEST_F(Order, ARequestIsInReassemblyUntilItsCommandHasReturned) {
    host.presets = presets_from_100(2);
    for (const NamedRequest& entry : every_request()) {
        const int size = static_cast<int>(entry.bytes.size());
        moments.clear();
        host.receive(entry.bytes);
        // Four lines of the intake come first; the last line tells that the buffer is freed.
        ASSERT_GT(moments.size(), 5u) << entry.name;
        for (size_t index = 4; index + 1 < moments.size(); ++index) {
            expect_reassembly(moments[index], size, size, true);
        }
        host.settle();
        if (HasFailure()) {
            return;
        }
        host.forget();
    }
}

TEST_F(Order, TheIntakeIsIdleBeforeTheRequestsBufferIsFreed) {
    for (const NamedRequest& entry : every_request()) {
        host.receive(entry.bytes);
        EXPECT_NE(moments.back().event.find("free Receive add=#"), std::string::npos) << entry.name;
        expect_reassembly(moments.back(), -1, 0, true);
        EXPECT_EQ(moments.back().blocks, 1 + entry.replies) << entry.name;
        host.settle();
        host.forget();
    }
}

TEST_F(Order, ARefusedTotalIsLoggedBeforeTheIntakeIsIdle) {
    host.receive(header(SM_FUNCTION_SEND_LIST, -5));
    expect_reassembly(at("ERR : RESULT"), -5, 0, false);
    moments.clear();
    host.receive(request(SM_FUNCTION_STATE_ON, Bytes(599993)));
    expect_reassembly(at("ERR : RESULT"), 600001, 600001, true);
}

TEST_F(Order, BytesThatDoNotFitAreCountedBeforeThatIsReported) {
    host.receive(request_announcing(700000, SM_FUNCTION_SEND_LIST, Bytes(599990)));
    host.receive(Bytes(5));
    expect_reassembly(at("ERR ADE_ShotMentor_Combine_BTData"), 700000, 600003, true);
}

// ---- Replies --------------------------------------------------------------------------------------------------------

TEST_F(Order, AnUnconfirmedReplyIsParkedBeforeTheNextIsAllocated) {
    host.receive(delete_request({}));
    const unsigned char* const first = shotmentor_p_FullData;
    host.receive(delete_request({}));
    const Moment parking = at("at QUEUE");
    EXPECT_EQ(parking.reply, nullptr);
    EXPECT_EQ(parking.oldest, first);
    EXPECT_EQ(parking.queued, 0) << "it is counted once the line is written";
    EXPECT_EQ(parking.blocks, 2u) << "the request and the first reply";
    const Moment allocated = at("malloc(SM_MALLOC_SIZE) add=");
    EXPECT_NE(allocated.reply, nullptr);
    EXPECT_EQ(allocated.queued, 1);
    EXPECT_EQ(allocated.blocks, 3u);
}

TEST_F(Order, AFullQueuesCountIsTakenBackBeforeTheReplyIsParked) {
    for (int number = 1; number <= 12; ++number) {
        host.receive(delete_request({}));
    }
    EXPECT_EQ(at("sum # of QUEUE=10").queued, 9);
    std::free(host.replies[9].message.data);
}

TEST_F(Order, ANewReplyIsClearedBeforeItsAddressIsLogged) {
    Bytes seen;
    host.watch = [&seen](const std::string& event) {
        if (event.find("malloc(SM_MALLOC_SIZE) add=") != std::string::npos) {
            seen.assign(shotmentor_p_FullData, shotmentor_p_FullData + 30000);
        }
    };
    host.receive(delete_request({}));
    EXPECT_TRUE(seen == zeros(30000));
}

TEST_F(Order, AReplyIsWholeBeforeItsSendIsLogged) {
    host.presets = presets_from_100(2);
    host.linked[1] = 1;
    for (const char* const name : {"list", "store", "update", "deletion of one", "deletion of nothing"}) {
        SCOPED_TRACE(name);
        Bytes seen;
        host.watch = [&seen](const std::string& event) {
            if (event.find("ADE_ShotMentor_SEND") != std::string::npos) {
                seen.assign(shotmentor_p_FullData, shotmentor_p_FullData + 30000);
            }
        };
        host.receive(request_named(name));
        EXPECT_TRUE(seen == host.replies.back().buffer);
        host.confirm();
    }
}

TEST_F(Order, TheSendRecordStaysAsItWasUntilTheReplyIsHandedOver) {
    host.receive(list_request());
    const Bytes first = image(shotmentor_BT_info);
    host.receive(delete_request({}));
    EXPECT_EQ(image(at("ADE_ShotMentor_SEND").sent), first);
    const Moment sending = at("bt_send_msgs(20)");
    EXPECT_EQ(sending.sent.data, shotmentor_p_FullData);
    EXPECT_EQ(sending.sent.length, 20);
}

TEST_F(Order, AReplyIsStillOwnedWhenItsConfirmationIsLogged) {
    host.receive(delete_request({}));
    host.receive(delete_request({}));
    const unsigned char* const first = shotmentor_p_Full_Q[0];
    const unsigned char* const second = shotmentor_p_FullData;
    host.confirm();
    const Moment late = at("late receive");
    EXPECT_EQ(late.queued, 0) << "it is counted out before the line is written";
    EXPECT_EQ(late.oldest, first);
    EXPECT_EQ(late.blocks, 2u);
    host.confirm();
    const Moment current = at("free shotmentor_p_FullData");
    EXPECT_EQ(current.reply, second);
    EXPECT_EQ(current.blocks, 1u);
}

TEST_F(Order, AnErrorReplyToAPictureTakesTheCurrentOnesPlaceBeforeTheErrorIsLogged) {
    host.receive(list_request());
    const unsigned char* const list = shotmentor_p_FullData;
    for (const char* const name : {"picture of identity 0", "picture of an unknown preset"}) {
        SCOPED_TRACE(name);
        Bytes seen;
        const auto watch = host.watch;
        host.watch = [&](const std::string& event) {
            if (event.find("ERROR ALG_SMM SM_RETURN_") == 0) {
                seen.assign(shotmentor_p_FullData, shotmentor_p_FullData + 20);
            }
            watch(event);
        };
        host.receive(request_named(name));
        host.watch = watch;
        EXPECT_EQ(seen, host.replies.back().buffer);
        EXPECT_NE(at("ERROR ALG_SMM SM_RETURN_").reply, list);
        host.confirm();
    }
    std::free(host.replies[0].message.data);
}

// ---- The commands ---------------------------------------------------------------------------------------------------

TEST_F(Order, TheLinkStateIsSetBeforeTheCommandsFirstLine) {
    host.receive(list_request());
    host.receive(state_off_request(SM_RETURN_TRUE));
    const Transcript shown = lines_with("ADE_SM_", host.transcript);
    EXPECT_EQ(shown,
              (Transcript{"CYAN ALG_SMM ADE_SM_Send_List()", "CYAN ALG_SMM ADE_SM_Off() length=4, return_BT=1"}));
    for (size_t index = 1; index < host.transcript.size(); ++index) {
        if (host.transcript[index].find("ADE_SM_") != std::string::npos) {
            EXPECT_EQ(host.transcript[index - 1].rfind("__ui_set_shotmentor_state(", 0), 0u);
        }
    }
}

TEST_F(Order, BothWorkingArraysOfAListAreThereFromTheQuestionForThePresetsToTheSend) {
    host.presets = presets_from_100(2);
    host.receive(list_request());
    EXPECT_EQ(at("__ui_get_bt_state_for_phone").blocks, 1u) << "the request alone";
    EXPECT_EQ(at("__ui_get_custom_mode_list_info()").blocks, 3u);
    EXPECT_EQ(at("__ui_get_linked_preseet_num_for_phone(1)").blocks, 3u);
    EXPECT_EQ(at("bt_send_msgs").blocks, 4u) << "and the reply";
    EXPECT_EQ(at("free Receive").blocks, 2u) << "the request and the reply";
}

TEST_F(Order, AListIsAskedForBeforeAnUnconfirmedReplyIsParked) {
    host.receive(list_request());
    const unsigned char* const first = shotmentor_p_FullData;
    host.receive(list_request());
    const Moment asked = at("__ui_get_linked_preseet_num_for_phone(1)");
    EXPECT_EQ(asked.reply, first);
    EXPECT_EQ(asked.queued, 0);
}

TEST_F(Order, ADeletionTakesMemoryOnlyWhenItHasBeenDone) {
    host.presets = presets_from_100(3);
    host.receive(delete_request({{0, 100}}));
    EXPECT_EQ(at("__ui_preset_delete_form_phone").blocks, 1u) << "the request alone";
    EXPECT_EQ(at("__ui_get_custom_mode_list_info()").blocks, 3u);
    EXPECT_EQ(at("bt_send_msgs").blocks, 4u);
    const std::vector<Moment> links = all_at("__ui_get_linked_preseet_num_for_phone");
    ASSERT_EQ(links.size(), 4u);
    EXPECT_EQ(links[1].blocks, 1u);
    EXPECT_EQ(links[2].blocks, 3u);
}

TEST_F(Order, AStoreAndAnUpdateReachTheServiceBeforeAnUnconfirmedReplyIsParked) {
    host.receive(list_request());
    const unsigned char* const first = shotmentor_p_FullData;
    host.receive(request_named("store"));
    EXPECT_EQ(at("__ui_save_downloaded_preset").reply, first);
    EXPECT_EQ(at("__ui_save_downloaded_preset").queued, 0);
    const unsigned char* const second = shotmentor_p_FullData;
    host.receive(request_named("update"));
    EXPECT_EQ(at("__ui_preset_update_comfirm").reply, second);
    EXPECT_EQ(at("__ui_preset_update_comfirm").queued, 1);
}

// ---- The picture file -----------------------------------------------------------------------------------------------

class PictureOrder : public Order {
  protected:
    PictureOrder() {
        char name[] = "/tmp/nail-XXXXXX";
        const int descriptor = mkstemp(name);
        EXPECT_GE(descriptor, 0);
        close(descriptor);
        path = host.folder = name;
        std::ofstream(path, std::ios::binary) << "a picture";
        host.presets = {preset(7)};
        put_text(host.presets[0].screennail_path, path);
    }
    ~PictureOrder() override { unlink(path.c_str()); }

    std::string path;
};

TEST_F(PictureOrder, TheFileIsOpenFromItsLookUpUntilItHasBeenReadAndClosedBeforeTheReplyIsMadeUp) {
    host.receive(picture_request(7, 5));
    EXPECT_EQ(at("PLAIN ALG_SMM __ui_get_preset_info()").files, 0);
    EXPECT_EQ(at("malloc(SM_MALLOC_SIZE) size=59").files, 1);
    EXPECT_EQ(at("open file: ").files, 1);
    EXPECT_EQ(at("trim screennail image size : 9").files, 0);
    EXPECT_EQ(at("bt_send_msgs(21)").files, 0);
}

TEST_F(PictureOrder, TheFileIsSizedBeforeAnUnconfirmedReplyIsParked) {
    host.receive(delete_request({}));
    host.receive(picture_request(7, 5));
    EXPECT_EQ(at("at QUEUE").files, 1);
    EXPECT_EQ(at("at QUEUE").reply, nullptr);
    EXPECT_EQ(at("at QUEUE").blocks, 2u) << "the request and the first reply";
}

TEST_F(PictureOrder, ThePictureIsInTheReplyBeforeItsFileIsReportedAndItsHeadBeforeTheSendIs) {
    Bytes read;
    Bytes finished;
    host.watch = [&](const std::string& event) {
        if (event.find("open file: ") != std::string::npos) {
            read.assign(shotmentor_p_FullData, shotmentor_p_FullData + 21);
        } else if (event.find("ADE_ShotMentor_SEND") != std::string::npos) {
            finished.assign(shotmentor_p_FullData, shotmentor_p_FullData + 21);
        }
    };
    host.receive(picture_request(7, 5));
    const std::string content = "a picture";
    EXPECT_EQ(read, zeros(12) + Bytes(content.begin(), content.end()));
    EXPECT_EQ(finished, words({0x1002, 21, 7}) + Bytes(content.begin(), content.end()));
}

TEST_F(PictureOrder, TheFileIsClosedWhenTheReplyIsRefused) {
    host.refuse_allocation(2);
    host.receive(picture_request(7, 5));
    EXPECT_EQ(at("malloc ERR size=59").files, 1);
    EXPECT_EQ(at("free Receive").files, 0);
}

// ---- The conversions ------------------------------------------------------------------------------------------------

// The state that a conversion leaves behind, at each event.
struct ConversionMoment {
    std::string event;
    std::vector<int> state; // model, system mode, film mode, custom style C4
};

std::vector<ConversionMoment> converted(FakeHost& host, const std::function<void()>& conversion) {
    std::vector<ConversionMoment> moments;
    host.watch = [&moments](const std::string& event) {
        moments.push_back({event, {gADE_PRO_model, pro_sys_mode, pro_film_mode, pro_custom04_state}});
    };
    conversion();
    return moments;
}

TEST(ConversionOrder, TowardsThePhoneTheStateIsSetBehindTheCopyAndBeforeTheFirstQuestion) {
    FakeHost host;
    pro_film_mode = 7;
    pro_custom04_state = 1;
    tag_custom_info camera = preset(1);
    camera.mode = 5;
    sm_tag_custom_info phone = {};
    const auto moments = converted(host, [&] { ADE_PRO_CreateProFilm(&camera, &phone); });
    EXPECT_EQ(moments[0].state, (std::vector<int>{0, 0, 7, 1})) << moments[0].event;
    EXPECT_EQ(moments[1].state, (std::vector<int>{0, 0, 7, 1})) << moments[1].event;
    EXPECT_EQ(moments[2].event, "User_Spec_Get_Value(272)");
    for (size_t index = 2; index < moments.size(); ++index) {
        EXPECT_EQ(moments[index].state, (std::vector<int>{2, 4, 7, 0})) << moments[index].event;
    }
}

TEST(ConversionOrder, TowardsTheCameraTheStateIsSetBehindTheCopyAndC4OnceTheOriginIsKnown) {
    FakeHost host;
    pro_sys_mode = 2;
    pro_custom04_state = 1;
    sm_tag_custom_info phone = {};
    phone.mode = 3;
    phone.made_id = 0x24; // made elsewhere, so put into C4
    tag_custom_info camera = {};
    const auto moments = converted(host, [&] { ADE_PRO_CreateSysCustom(&phone, &camera); });
    EXPECT_EQ(moments[0].state, (std::vector<int>{0, 2, 0, 1})) << moments[0].event;
    EXPECT_EQ(moments[1].state, (std::vector<int>{0, 2, 0, 1})) << moments[1].event;
    EXPECT_EQ(moments[2].state, (std::vector<int>{2, 2, 3, 0})) << moments[2].event;
    EXPECT_EQ(moments[3].state, (std::vector<int>{2, 2, 3, 0})) << moments[3].event;
    for (size_t index = 4; index < moments.size(); ++index) {
        EXPECT_EQ(moments[index].state, (std::vector<int>{2, 2, 3, 1})) << moments[index].event;
    }
}

TEST(ConversionOrder, TowardsThePhoneAllButTheIsoNumberIsConvertedWhenTheIsoStepsAreAskedFor) {
    FakeHost host;
    host.iso_step_value = 0; // thirds
    tag_custom_info camera = preset(1);
    camera.mode = 4;
    camera.av_index = 48;
    camera.tv_index = 53;
    camera.iso = 4;
    camera.iso_1_3 = 11;
    camera.ev_step = 22;
    camera.cs_info.cs_color[12].cs_color_b = 100;
    sm_tag_custom_info phone = {};
    sm_tag_custom_info when_asked = {};
    host.watch = [&](const std::string& event) {
        if (event == "User_Spec_Get_Value(272)") {
            when_asked = phone;
        }
    };
    ADE_PRO_CreateProFilm(&camera, &phone);
    EXPECT_EQ(when_asked.iso, 800);
    when_asked.iso = 1000;
    EXPECT_EQ(image(when_asked), image(phone));
}

// The words of a camera's record that are searched for, and the white-balance type, which is set behind them.
std::vector<int32_t> converted_words(const tag_custom_info& camera) {
    return {camera.av_index, camera.tv_index, camera.iso, camera.iso_1_3, camera.ev_step, camera.type};
}

TEST(ConversionOrder, TowardsTheCameraEachValueIsInTheRecordBeforeTheNextIsSearchedFor) {
    FakeHost host;
    sm_tag_custom_info phone = {};
    phone.mode = 4;
    phone.av_index = 41; // approximated to code 64
    phone.tv_index = 86; // to code 117
    phone.iso = 125;     // to automatic
    phone.iso_1_3 = 2;   // to code 1
    phone.ev_step = 52;  // to step 16
    phone.type = 3;
    phone.made_id = 0x20; // made elsewhere: the colour temperature makes the type 10
    phone.k_value = 5500;
    tag_custom_info camera = {};
    std::vector<std::vector<int32_t>> seen;
    tag_custom_info when_traced = {};
    host.watch = [&](const std::string& event) {
        const bool searched = event.find("(AV)search_val") != std::string::npos;
        if (searched || event.find("[TV]converted") != std::string::npos ||
            event.find("Converted ") != std::string::npos) {
            seen.push_back(converted_words(camera));
        } else if (event.find("ADE_PRO_CreateSysCustom") != std::string::npos) {
            when_traced = camera;
        }
    };
    ADE_PRO_CreateSysCustom(&phone, &camera);
    EXPECT_EQ(seen, (std::vector<std::vector<int32_t>>{{41, 86, 125, 2, 52, 3},
                                                       {64, 86, 125, 2, 52, 3},
                                                       {64, 117, 125, 2, 52, 3},
                                                       {64, 117, 0, 2, 52, 3},
                                                       {64, 117, 0, 1, 52, 3}}));
    EXPECT_EQ(converted_words(camera), (std::vector<int32_t>{64, 117, 0, 1, 16, 10}));
    EXPECT_EQ(image(when_traced), image(camera));
}

} // namespace
