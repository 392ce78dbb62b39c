// What every command does when the allocator refuses it memory: it says how much it asked for, sends nothing, gives
// back what it has, and serves the next request as if nothing had happened.
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

std::string refused(int size) {
    return "ERROR ALG_SMM malloc ERR size=" + std::to_string(size);
}

// What a command does when one of its allocations is refused.
struct Refusal {
    Transcript calls; // of services, up to there
    int size;         // that it asked for, and reports last
    int result;
};

struct Command {
    std::string name;
    std::function<void(FakeHost&)> set_up;
    Bytes request;
    int result;                    // when nothing is refused
    size_t replies;                // sent then
    std::vector<Refusal> refusals; // one for each allocation that the command makes, in order
};

// Runs a request without the intake, which has an allocation of its own.
int run(const Command& command) {
    const Bytes readable = command.request + zeros(760); // the dispatcher may read 760 bytes
    return ADE_ShotMentor_Receive_Function(readable.data(), static_cast<int>(command.request.size()));
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

// How a list of one preset is read.
const Transcript one_preset_read = {"__ui_get_custom_mode_list_info()", "User_Spec_Get_Value(272)",
                                    "__ui_get_linked_preseet_num_for_phone(0)",
                                    "__ui_get_linked_preseet_num_for_phone(1)"};

Command list() {
    const Transcript asked = {"__ui_set_shotmentor_state(1)", "__ui_get_bt_state_for_phone()"};
    return {"list",
            store_one_preset,
            list_request(),
            SM_RETURN_TRUE,
            1,
            {{asked, 29600, SM_RETURN_FAIL},
             {asked, 29760, SM_RETURN_FAIL},
             {joined({asked, one_preset_read}), 30000, SM_RETURN_FAIL}}};
}

Command screennail() {
    return {"screennail",
            store_one_preset,
            picture_request(100, 5),
            SM_RETURN_TRUE,
            1,
            {{{"__ui_get_preset_info(100, 5)"}, 50, SM_RETURN_TRUE}}};
}

Command screennail_of_a_refused_identity() {
    return {"screennail of identity 0", store_nothing, picture_request(0, 5), SM_RETURN_TRUE, 1,
            {{{}, 20, SM_RETURN_TRUE}}};
}

Command screennail_of_an_unknown_preset() {
    return {"screennail of an unknown preset",
            store_nothing,
            picture_request(9, 5),
            SM_RETURN_TRUE,
            1,
            {{{"__ui_get_preset_info(9, 5)"}, 20, SM_RETURN_TRUE}}};
}

Command store() {
    sm_tag_custom_info record{};
    record.mode = 1;
    record.made_id = 0x44;
    record.custom_id = 6;
    put_text(record.title, "Dusk");
    return {"store",
            [](FakeHost& host) { host.save = [](tag_custom_info&) { return 77; }; },
            store_request(record, zeros(100)),
            77,
            1,
            {{{"__ui_save_downloaded_preset(100)"}, 30000, 77}}};
}

Command refused_store() {
    return {"refused store",
            store_nothing,
            request(SM_FUNCTION_RECEIVE_PRESET),
            SM_RETURN_JPG_ERR,
            1,
            {{{}, 30000, SM_RETURN_JPG_ERR}}};
}

Command update() {
    sm_tag_custom_info record{};
    record.custom_id = 6;
    record.server_id = 8;
    put_text(record.title, "Dusk");
    return {"update",
            [](FakeHost& host) { host.update_answer = 78; },
            update_request(record),
            78,
            1,
            {{{"__ui_preset_update_comfirm(6, 8, \"Dusk\")"}, 30000, 78}}};
}

Command refused_update() {
    return {"refused update",
            store_nothing,
            request(SM_FUNCTION_UPDATE_PRESET),
            SM_RETURN_STRUCT_ERR,
            1,
            {{{}, 30000, SM_RETURN_STRUCT_ERR}}};
}

// A deletion of both presets, the second of which CUSTOM1 uses.
Command deletion() {
    const Transcript deleted = {"__ui_get_preset_info(100, -1)", "__ui_get_preset_info(101, -1)",
                                "__ui_get_linked_preseet_num_for_phone(0)", "__ui_get_linked_preseet_num_for_phone(1)",
                                "__ui_preset_delete_form_phone(0)"};
    return {"deletion",
            use_the_second_of_two_presets,
            delete_request({{0, 100}, {1, 101}}),
            SM_RETURN_OPENED_ERR,
            1,
            {{deleted, 29600, SM_RETURN_OPENED_ERR},
             {deleted, 29760, SM_RETURN_OPENED_ERR},
             {joined({deleted, one_preset_read}), 30000, SM_RETURN_OPENED_ERR}}};
}

Command refused_deletion() {
    return {"refused deletion",
            store_two_presets,
            delete_request({{40, 100}}),
            SM_RETURN_STRUCT_ERR,
            1,
            {{{"__ui_get_preset_info(100, -1)"}, 30000, SM_RETURN_STRUCT_ERR}}};
}

// Commands that need no memory of their own.
Command link_state_off() {
    return {"link state off", store_nothing, state_off_request(SM_RETURN_TRUE), SM_RETURN_TRUE, 0, {}};
}

Command link_state_on() {
    return {"link state on", store_nothing, state_on_request(), SM_RETURN_FAIL, 0, {}};
}

Command list_while_the_link_is_down() {
    return {"list while the link is down",
            [](FakeHost& host) { host.link_up = false; },
            list_request(),
            SM_RETURN_FAIL,
            0,
            {}};
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
    EXPECT_EQ(host.receive(command.request), command.result);
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
                EXPECT_EQ(host.calls(), refusal.calls);
                EXPECT_EQ(host.transcript.back(), refused(refusal.size));
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
                EXPECT_EQ(host.receive(command.request), refusal.result);
                EXPECT_EQ(host.calls(), refusal.calls);
                EXPECT_EQ(command_lines(host.transcript).back(), refused(refusal.size));
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
            EXPECT_EQ(host.receive(command.request), SM_RETURN_FAIL);
            EXPECT_EQ(host.calls(), Transcript{});
            EXPECT_EQ(host.transcript.back(), "ERROR ALG_SMM ERR ADE_ShotMentor_Combine_BTData ");
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
    EXPECT_EQ(shotmentor_p_FullData, nullptr);
    EXPECT_EQ(host.calls(), Transcript{});
}

TEST(Allocation, RefusedToAReplyKeepsTheParkedReplyUntilALaterOneIsCurrent) {
    FakeHost host;
    host.receive(delete_request({}));
    host.refuse_allocation(2);
    host.receive(delete_request({}));
    EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(20)"}); // the first alone
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

// ---- Behind a reply that is still unconfirmed -----------------------------------------------------------------------

// Sends reply number 0, which nobody confirms, and runs a command behind it whose n-th allocation (from 1) is refused.
void run_behind_a_reply(FakeHost& host, const Command& command, size_t n) {
    SCOPED_TRACE(command.name + ", allocation " + std::to_string(n));
    host.receive(delete_request({}));
    command.set_up(host);
    host.refuse_allocation(static_cast<int>(n));
    EXPECT_EQ(run(command), command.refusals[n - 1].result);
    EXPECT_EQ(host.replies.size(), 1u);
}

// The commands whose last allocation is that of an ordinary reply, or else of an error reply to a picture.
std::vector<Command> commands_with_a_reply(bool of_an_error) {
    constexpr int error_reply = 20;
    std::vector<Command> commands = all_commands();
    std::erase_if(commands, [of_an_error](const Command& command) {
        return command.refusals.empty() || (command.refusals.back().size == error_reply) != of_an_error;
    });
    return commands;
}

TEST(Allocation, RefusedToAReplyParksTheUnconfirmedOneAndLeavesNoneCurrent) {
    for (const Command& command : commands_with_a_reply(false)) {
        FakeHost host;
        run_behind_a_reply(host, command, command.refusals.size());
        SCOPED_TRACE(command.name);
        EXPECT_EQ(shotmentor_p_FullData, nullptr);
        EXPECT_EQ(shotmentor_p_Full_Q_NUM, 1);
        EXPECT_EQ(shotmentor_p_Full_Q[0], host.replies[0].message.data);
        EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
        EXPECT_EQ(host.freed, std::vector<int>{});
        EXPECT_EQ(host.blocks_owned(), 1u);
    }
}

TEST(Allocation, RefusedToAnErrorReplyReplacesTheUnconfirmedOneWhichIsNeverFreed) {
    const std::vector<Command> commands = commands_with_a_reply(true);
    EXPECT_EQ(commands.size(), 2u);
    for (const Command& command : commands) {
        FakeHost host;
        run_behind_a_reply(host, command, command.refusals.size());
        SCOPED_TRACE(command.name);
        EXPECT_EQ(shotmentor_p_FullData, nullptr);
        EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
        EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
        EXPECT_EQ(host.freed, std::vector<int>{});
        EXPECT_EQ(host.blocks_owned(), 1u);

        std::free(host.replies[0].message.data);
    }
}

TEST(Allocation, RefusedToAWorkingArrayLeavesAnUnconfirmedReplyCurrent) {
    for (const Command& command : all_commands()) {
        for (size_t array = 1; array < command.refusals.size(); ++array) {
            FakeHost host;
            run_behind_a_reply(host, command, array);
            SCOPED_TRACE(command.name + ", array " + std::to_string(array));
            EXPECT_EQ(shotmentor_p_FullData, host.replies[0].message.data);
            EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
            EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
            EXPECT_EQ(host.freed, std::vector<int>{0});
            EXPECT_EQ(host.blocks_owned(), 0u);
        }
    }
}

TEST(Allocation, RefusedToACommandLeavesTheRecordOfTheLastSendAsItWas) {
    for (const Command& command : all_commands()) {
        for (size_t n = 1; n <= command.refusals.size(); ++n) {
            FakeHost host;
            run_behind_a_reply(host, command, n);
            EXPECT_EQ(image(shotmentor_BT_info), image(host.replies[0].message)) << command.name << ", " << n;

            host.settle();
            if (host.blocks_owned() > 0) { // replaced by an error reply
                std::free(host.replies[0].message.data);
            }
        }
    }
}

TEST(Allocation, RefusedToAReplyPutsTheUnconfirmedOneIntoTheLastSlotOfAFullQueue) {
    for (const Command& command : commands_with_a_reply(false)) {
        SCOPED_TRACE(command.name);
        FakeHost host;
        for (int reply = 0; reply < SM_REPLY_QUEUE + 1; ++reply) {
            host.receive(delete_request({}));
        }
        command.set_up(host);
        host.refuse_allocation(static_cast<int>(command.refusals.size()));
        run(command);
        EXPECT_EQ(shotmentor_p_FullData, nullptr);
        EXPECT_EQ(shotmentor_p_Full_Q_NUM, 10);
        EXPECT_EQ(shotmentor_p_Full_Q[8], host.replies[8].message.data);
        EXPECT_EQ(shotmentor_p_Full_Q[9], host.replies[10].message.data);
        EXPECT_EQ(host.blocks_owned(), 11u);

        std::free(host.replies[9].message.data);
    }
}

} // namespace
