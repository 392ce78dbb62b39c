// What every command does when the allocator refuses it memory: it says how much it asked for, sends nothing, gives
// back what it has, and serves the next request as if nothing had happened.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

const std::string no_buffer = "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) add=null";

std::string refused(int size) {
    return "ERROR ALG_SMM malloc ERR size=" + std::to_string(size);
}

// What a command does when one of its allocations is refused.
struct Refusal {
    Transcript lines;
    int result;
};

struct Command {
    std::string name;
    std::function<void(FakeHost&)> set_up;
    int function;
    Bytes payload;
    int result;                    // when nothing is refused
    size_t replies;                // sent then
    std::vector<Refusal> refusals; // one for each allocation that the command makes, in order
};

int run(const Command& command) {
    const Bytes whole = request(command.function, command.payload) + zeros(760); // the dispatcher may read 760 bytes
    return ADE_ShotMentor_Receive_Function(whole.data(), static_cast<int>(8 + command.payload.size()));
}

void store_nothing(FakeHost&) {}

void store_one_preset(FakeHost& host) {
    host.presets = {preset(100)};
}

void store_two_presets(FakeHost& host) {
    host.presets = presets_from_100(2);
}

void use_the_second_of_two_presets(FakeHost& host) {
    host.presets = presets_from_100(2);
    host.linked[0] = 1;
}

Command list() {
    const Transcript asked = {"CYAN ALG_SMM ADE_SM_Send_List()", "__ui_get_bt_state_for_phone()"};
    const Transcript read =
        joined({asked,
                {"__ui_get_custom_mode_list_info()", "PLAIN ALG_SMM __ui_get_custom_mode_list_info() - list number: 1"},
                converted_to_phone("Preset 100", 100),
                {"__ui_get_linked_preseet_num_for_phone(0)", "PLAIN ALG_SMM LIST- CUSTOM1 MODE index: -1",
                 "__ui_get_linked_preseet_num_for_phone(1)", "PLAIN ALG_SMM LIST- CUSTOM2 MODE index: -1"}});
    return {"list",
            store_one_preset,
            1,
            {},
            1,
            1,
            {{joined({asked, {refused(29600)}}), -1},
             {joined({asked, {refused(29760)}}), -1},
             {joined({read, {no_buffer, refused(30000)}}), -1}}};
}

Command screennail() {
    const Transcript asked = {"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=100, applocal_ID=5",
                              "__ui_get_preset_info(100, 5)", "PLAIN ALG_SMM __ui_get_preset_info() "};
    const Transcript sized = {"PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) size=50, add=null", refused(50)};
    return {"screennail", store_one_preset, 2, words({100, 5}), 1, 1, {{joined({asked, sized}), 1}}};
}

Command screennail_of_a_refused_identity() {
    const Transcript asked = {"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=0, applocal_ID=5"};
    return {"screennail of identity 0", store_nothing, 2, words({0, 5}), 1, 1, {{joined({asked, {refused(20)}}), 1}}};
}

Command screennail_of_an_unknown_preset() {
    const Transcript asked = {"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=9, applocal_ID=5",
                              "__ui_get_preset_info(9, 5)"};
    return {"screennail of an unknown preset",    store_nothing, 2, words({9, 5}), 1, 1,
            {{joined({asked, {refused(20)}}), 1}}};
}

Command store() {
    sm_tag_custom_info record{};
    record.mode = 1;
    record.made_id = 0x44;
    record.custom_id = 6;
    put_text(record.title, "Dusk");
    return {"store",
            [](FakeHost& host) { host.save = [](tag_custom_info&) { return 77; }; },
            3,
            image(record) + zeros(100),
            77,
            1,
            {{{"CYAN ALG_SMM ADE_SM_Receive_Preset() length=844, sizeof(sm_tag_custom_info)=744",
               "PLAIN ALG_SMM sm_tag_custom : 744 => tag_custom : 740 title : Dusk custom_id : 6 server_id : 0",
               "__ui_save_downloaded_preset(100)", no_buffer, refused(30000)},
              77}}};
}

Command refused_store() {
    return {"refused store",
            store_nothing,
            3,
            {},
            -4,
            1,
            {{{"CYAN ALG_SMM ADE_SM_Receive_Preset() length=0, sizeof(sm_tag_custom_info)=744",
               "ERROR ALG_SMM SM_RETURN_STRUCT_ERR", "ERROR ALG_SMM SM_RETURN_JPG_ERR", no_buffer, refused(30000)},
              -4}}};
}

Command update() {
    sm_tag_custom_info record{};
    record.custom_id = 6;
    record.server_id = 8;
    put_text(record.title, "Dusk");
    return {"update",
            [](FakeHost& host) { host.update_answer = 78; },
            4,
            image(record),
            78,
            1,
            {{{"CYAN ALG_SMM ADE_SM_Update_Preset() custom_id=6, server_id=8, title=Dusk",
               "__ui_preset_update_comfirm(6, 8, \"Dusk\")", no_buffer, refused(30000)},
              78}}};
}

Command refused_update() {
    return {"refused update",
            store_nothing,
            4,
            {},
            -3,
            1,
            {{{"CYAN ALG_SMM ADE_SM_Update_Preset() custom_id=0, server_id=0, title=",
               "ERROR ALG_SMM SM_RETURN_STRUCT_ERR", no_buffer, refused(30000)},
              -3}}};
}

// A deletion of both presets, the second of which CUSTOM1 uses.
Command deletion() {
    const Transcript deleted = {"CYAN ALG_SMM ADE_SM_Delete_Preset() del_num=2",
                                "PLAIN ALG_SMM 0: del_preset = 0, del_id = 100",
                                "PLAIN ALG_SMM 2: del_preset = 1, del_id = 101",
                                "__ui_get_preset_info(100, -1)",
                                "__ui_get_preset_info(101, -1)",
                                "__ui_get_linked_preseet_num_for_phone(0)",
                                "ERROR ALG_SMM CUSTOM1 DEL FAIL - BT del index: 1",
                                "__ui_get_linked_preseet_num_for_phone(1)",
                                "PLAIN ALG_SMM CUSTOM2 DEL SUCCESS - NOT OPENED: -1",
                                "__ui_preset_delete_form_phone(0)"};
    const Transcript read =
        joined({deleted,
                {"__ui_get_custom_mode_list_info()", "PLAIN ALG_SMM __ui_get_custom_mode_list_info() - list number: 1"},
                converted_to_phone("Preset 101", 101),
                {"__ui_get_linked_preseet_num_for_phone(0)", "PLAIN ALG_SMM LIST- CUSTOM1 MODE index: 0",
                 "__ui_get_linked_preseet_num_for_phone(1)", "PLAIN ALG_SMM LIST- CUSTOM2 MODE index: -1"}});
    return {"deletion",
            use_the_second_of_two_presets,
            5,
            words({0, 100, 1, 101}),
            -7,
            1,
            {{joined({deleted, {refused(29600)}}), -7},
             {joined({deleted, {refused(29760)}}), -7},
             {joined({read, {no_buffer, refused(30000)}}), -7}}};
}

Command refused_deletion() {
    return {"refused deletion",
            store_two_presets,
            5,
            words({40, 100}),
            -3,
            1,
            {{{"CYAN ALG_SMM ADE_SM_Delete_Preset() del_num=1", "PLAIN ALG_SMM 0: del_preset = 40, del_id = 100",
               "ERROR ALG_SMM SM_RETURN_STRUCT_ERR", "__ui_get_preset_info(100, -1)", no_buffer, refused(30000)},
              -3}}};
}

// Commands that need no memory of their own.
Command link_state_off() {
    return {"link state off", store_nothing, 0, words({1}), 1, 0, {}};
}

Command link_state_on() {
    return {"link state on", store_nothing, 255, {}, -1, 0, {}};
}

Command list_while_the_link_is_down() {
    return {"list while the link is down", [](FakeHost& host) { host.link_up = false; }, 1, {}, -1, 0, {}};
}

std::vector<Command> all_commands() {
    return {list(),
            screennail(),
            screennail_of_a_refused_identity(),
            screennail_of_an_unknown_preset(),
            store(),
            refused_store(),
            update(),
            refused_update(),
            deletion(),
            refused_deletion(),
            link_state_off(),
            link_state_on(),
            list_while_the_link_is_down()};
}

void expect_nothing_owned(const FakeHost& host) {
    EXPECT_TRUE(host.replies.empty());
    EXPECT_EQ(shotmentor_p_FullData, nullptr);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
    EXPECT_EQ(host.blocks_owned(), 0u);
}

void expect_idle() {
    EXPECT_EQ(sm_BT_total_length, -1);
    EXPECT_EQ(sm_BT_combine_length, 0);
    EXPECT_EQ(shotmentor_p_ReceiveData, nullptr);
}

// Runs the command once more, with memory for everything.
void expect_success(FakeHost& host, const Command& command) {
    host.refuse_allocation(0);
    command.set_up(host);
    host.forget();
    EXPECT_EQ(host.receive(request(command.function, command.payload)), command.result);
    EXPECT_EQ(host.replies.size(), command.replies);
    EXPECT_EQ(host.blocks_owned(), command.replies);
}

TEST(Allocation, IsNeededAsOftenAsTheseTestsRefuseIt) {
    for (const Command& command : all_commands()) {
        SCOPED_TRACE(command.name);
        FakeHost host;
        command.set_up(host);
        EXPECT_EQ(run(command), command.result);
        EXPECT_EQ(host.allocations_asked(), static_cast<int>(command.refusals.size()));
        EXPECT_EQ(host.replies.size(), command.replies);
    }
}

TEST(Allocation, RefusedToACommandIsReportedAndNothingIsSent) {
    for (const Command& command : all_commands()) {
        for (size_t index = 0; index < command.refusals.size(); ++index) {
            for (const bool for_good : {false, true}) {
                SCOPED_TRACE(command.name + ", allocation " + std::to_string(index + 1) + (for_good ? " on" : ""));
                FakeHost host;
                command.set_up(host);
                host.refuse_allocation(static_cast<int>(index) + 1, for_good);
                const Refusal& refusal = command.refusals[index];
                EXPECT_EQ(run(command), refusal.result);
                EXPECT_EQ(command_lines(host.transcript), refusal.lines);
                expect_nothing_owned(host);
                expect_success(host, command);
            }
        }
    }
}

TEST(Allocation, RefusedToACommandEndsTheWholeRequest) {
    for (const Command& command : all_commands()) {
        for (size_t index = 0; index < command.refusals.size(); ++index) {
            for (const bool for_good : {false, true}) {
                SCOPED_TRACE(command.name + ", allocation " + std::to_string(index + 2) + (for_good ? " on" : ""));
                FakeHost host;
                command.set_up(host);
                host.refuse_allocation(static_cast<int>(index) + 2, for_good); // the first is the request's
                const Refusal& refusal = command.refusals[index];
                EXPECT_EQ(host.receive(request(command.function, command.payload)), refusal.result);
                EXPECT_EQ(command_lines(host.transcript), refusal.lines);
                EXPECT_EQ(host.transcript.back(), "PLAIN ALG_SMM free Receive add=#1");
                expect_nothing_owned(host);
                expect_idle();
                expect_success(host, command);
            }
        }
    }
}

TEST(Allocation, RefusedToARequestLeavesItIncompleteUntilTheHostRecovers) {
    for (const Command& command : all_commands()) {
        for (const bool for_good : {false, true}) {
            SCOPED_TRACE(command.name + (for_good ? ", for good" : ""));
            FakeHost host;
            command.set_up(host);
            host.refuse_allocation(1, for_good);
            const Bytes whole = request(command.function, command.payload);
            EXPECT_EQ(host.receive(whole), SM_RETURN_FAIL);
            EXPECT_EQ(
                host.transcript,
                (Transcript{
                    "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=" + std::to_string(command.function),
                    "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=" + std::to_string(whole.size()),
                    "PLAIN ALG_SMM shotmentor_p_ReceiveData add=null",
                    "ERROR ALG_SMM ERR ADE_ShotMentor_Combine_BTData ",
                }));
            expect_nothing_owned(host);
            host.settle();
            expect_success(host, command);
        }
    }
}

TEST(Allocation, RefusedToAReplyLeavesNothingToConfirm) {
    FakeHost host;
    host.refuse_allocation(2);
    host.receive(delete_request({}));
    host.forget();
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.transcript, (Transcript{"GREEN ALG_SMM ADE_ShotMentor_Result_Manager result",
                                           "ERROR ALG_SMM ERR ADE_ShotMentor_Result_Manager NULL pointer "}));
}

TEST(Allocation, RefusedToAReplyKeepsTheParkedReplyUntilALaterOneIsCurrent) {
    FakeHost host;
    host.receive(delete_request({}));
    const Transcript send = command_lines(host.transcript);
    host.refuse_allocation(2);
    host.receive(delete_request({}));
    EXPECT_EQ(command_lines(host.transcript),
              joined({send,
                      {"CYAN ALG_SMM ADE_SM_Delete_Preset() del_num=0", "ERROR ALG_SMM SM_RETURN_DATA_ERR",
                       "ERROR ALG_SMM not receive EVT_BT_APP_SEND_RESULT => save add=#1 at QUEUE, sum # of QUEUE=1",
                       no_buffer, refused(30000)}}));
    EXPECT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(shotmentor_p_FullData, nullptr);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 1);
    EXPECT_EQ(host.blocks_owned(), 1u);
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);

    host.receive(delete_request({}));
    EXPECT_EQ(host.replies.size(), 2u);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.freed, (std::vector<int>{0, 1}));
    EXPECT_EQ(host.blocks_owned(), 0u);
}

TEST(Allocation, RefusedToALaterListLeavesAnUnconfirmedReplyCurrent) {
    FakeHost host;
    host.receive(list_request());
    for (const int array : {2, 3}) {
        host.refuse_allocation(array);
        EXPECT_EQ(host.receive(list_request()), SM_RETURN_FAIL);
        EXPECT_EQ(shotmentor_p_FullData, host.replies[0].message.data);
        EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
    }
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.freed, std::vector<int>{0});
}

} // namespace
