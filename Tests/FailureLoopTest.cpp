// Whatever a service answers and whichever allocation is refused, in the middle of any conversation: no reply is lost
// that a phone's own requests do not lose, every reply says how long it is, results stay within their numbers, and the
// library is ready for the next request.
#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

// ---- The conversations ----------------------------------------------------------------------------------------------

const Bytes confirmation; // in the place of a request: the host confirms one send

struct Conversation {
    std::string name;
    std::vector<Bytes> steps;
};

void PrintTo(const Conversation& conversation, std::ostream* out) {
    *out << conversation.name;
}

std::vector<Conversation> conversations() {
    std::vector<Conversation> all;
    for (const NamedRequest& entry : every_request()) {
        all.push_back({entry.name, {entry.bytes, confirmation}});
    }
    const Bytes list = request_named("list");
    const Bytes picture = request_named("picture");
    const Bytes no_picture = request_named("picture of identity 0");
    const Bytes unknown_picture = request_named("picture of an unknown preset");
    const Bytes update = request_named("update");
    const Bytes deletion = request_named("deletion of all");
    all.push_back({"two lists", {list, list, confirmation, confirmation}});
    all.push_back({"an error reply that takes the place of a list", {list, no_picture, confirmation}});
    all.push_back({"an error reply behind a queued list",
                   {list, update, unknown_picture, confirmation, confirmation, confirmation}});
    all.push_back({"a visit",
                   {request_named("link state on"), list, confirmation, picture, confirmation, request_named("store"),
                    confirmation, deletion, confirmation, request_named("link state off")}});
    all.push_back({"late confirmations",
                   {picture, deletion, list, confirmation, request_named("store"), confirmation, confirmation,
                    confirmation, confirmation}});
    all.push_back({"two deletions", {request_named("deletion of one"), deletion, confirmation, confirmation}});
    Conversation overflow = {"more replies than the queue holds", std::vector<Bytes>(12, update)};
    overflow.steps.push_back(unknown_picture);
    overflow.steps.insert(overflow.steps.end(), 12, confirmation);
    all.push_back(overflow);
    return all;
}

// ---- The promises ---------------------------------------------------------------------------------------------------

// A service or the allocator that fails at one step of a conversation.
struct Fault {
    std::string name;
    size_t step = 0;
    std::function<void(FakeHost&)> plant;
    bool refuses_memory = false;
};

void mend(FakeHost& host) {
    EXPECT_TRUE(host.linked_answers.empty()) << "nobody asked for the impossible answer";
    host.linked_answers.clear();
    host.reported_count.reset();
    host.preset_info_answer.reset();
    host.fill_preset_info = nullptr;
    host.save = nullptr;
    host.update_answer = 1;
}

// The replies that a confirmation can still free, the oldest first.
std::vector<const void*> waiting_replies() {
    std::vector<const void*> waiting(shotmentor_p_Full_Q, shotmentor_p_Full_Q + shotmentor_p_Full_Q_NUM);
    if (shotmentor_p_FullData != nullptr) {
        waiting.push_back(shotmentor_p_FullData);
    }
    return waiting;
}

bool is_idle() {
    return sm_BT_total_length == -1 && sm_BT_combine_length == 0 && shotmentor_p_ReceiveData == nullptr;
}

const std::set<int>& possible_results(int32_t function) {
    static const std::set<int> nothing_done = {SM_RETURN_FAIL};
    static const std::map<int32_t, std::set<int>> results = {
        {SM_FUNCTION_STATE_OFF, {SM_RETURN_TRUE, SM_RETURN_FAIL}},
        {SM_FUNCTION_SEND_LIST, {SM_RETURN_TRUE, SM_RETURN_FAIL}},
        {SM_FUNCTION_SEND_PRESET, {SM_RETURN_TRUE}},
        // what the service answers, too
        {SM_FUNCTION_RECEIVE_PRESET, {SM_RETURN_TRUE, SM_RETURN_JPG_ERR, INT_MIN, INT_MAX}},
        {SM_FUNCTION_UPDATE_PRESET, {SM_RETURN_TRUE, SM_RETURN_DATA_ERR, SM_RETURN_STRUCT_ERR, INT_MIN, INT_MAX}},
        {SM_FUNCTION_DELETE_PRESET,
         {SM_RETURN_TRUE, SM_RETURN_SYSTEM_DATA_ERR, SM_RETURN_DATA_ERR, SM_RETURN_STRUCT_ERR, SM_RETURN_OPENED_ERR,
          SM_RETURN_OPENED_BOTH_ERR}},
    };
    const auto found = results.find(function);
    return found != results.end() ? found->second : nothing_done;
}

void expect_whole_records(int32_t rest, int32_t count) {
    EXPECT_GE(count, 0);
    EXPECT_LE(count, 40);
    EXPECT_EQ(rest, count * 744);
}

// The reply belongs to the request, and its header tells its length.
void expect_sound(const Reply& reply, int32_t function, int result) {
    ASSERT_GE(reply.buffer.size(), 12u);
    EXPECT_EQ(word_at(reply.buffer, 0), 0x1000 + function);
    const int32_t total = word_at(reply.buffer, 4);
    if (reply.message.length == 0) {
        EXPECT_EQ(function, SM_FUNCTION_SEND_PRESET);
        EXPECT_EQ(total, 12);
        EXPECT_TRUE(word_at(reply.buffer, 8) == SM_RETURN_PRESETN_ERR ||
                    word_at(reply.buffer, 8) == SM_RETURN_LOCALN_ERR);
        return;
    }
    ASSERT_EQ(static_cast<size_t>(total), reply.bytes.size());
    EXPECT_LE(reply.bytes.size(), reply.buffer.size());
    const auto word = [&reply](size_t offset) { return word_at(reply.bytes, offset); };
    switch (function) {
    case SM_FUNCTION_SEND_LIST:
        EXPECT_EQ(result, SM_RETURN_TRUE);
        expect_whole_records(total - 28, word(24));
        return;
    case SM_FUNCTION_SEND_PRESET:
        EXPECT_EQ(total, 12) << "these presets have no picture";
        return;
    case SM_FUNCTION_RECEIVE_PRESET:
    case SM_FUNCTION_UPDATE_PRESET:
        EXPECT_EQ(total, function == SM_FUNCTION_RECEIVE_PRESET ? 24 : 12);
        EXPECT_EQ(word(8), result);
        return;
    default:
        ASSERT_EQ(function, SM_FUNCTION_DELETE_PRESET);
        EXPECT_EQ(word(8), result);
        const int32_t rest = total - 20 - word(16) * 744;
        EXPECT_TRUE(rest == 0 || rest == 8 || rest == 16) << rest;
        expect_whole_records(total - 20 - rest, word(16));
    }
}

// One conversation with one fault.
class Encounter {
  public:
    explicit Encounter(const Fault& fault) : fault_(fault) { store_presets_of_every_request(host_); }

    void hold(const Conversation& conversation) {
        for (size_t step = 0; step < conversation.steps.size(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step + 1));
            const bool fails_here = step == fault_.step && fault_.plant;
            if (fails_here) {
                fault_.plant(host_);
            }
            if (conversation.steps[step].empty()) {
                confirm();
            } else {
                ask(conversation.steps[step]);
            }
            EXPECT_EQ(host_.blocks_owned(), waiting_replies().size() + lost_.size());
            if (fails_here) {
                mend(host_);
            }
        }
        expect_nothing_lost_for_good();
        expect_the_usual_list();
    }

  private:
    void confirm() {
        const std::vector<const void*> before = waiting_replies();
        const bool was_current = shotmentor_p_FullData != nullptr;
        EXPECT_EQ(host_.confirm(), was_current ? SM_RETURN_TRUE : SM_RETURN_FAIL);
        EXPECT_EQ(waiting_replies(), std::vector(before.begin() + (was_current ? 1 : 0), before.end()));
    }

    void ask(const Bytes& whole) {
        const int32_t function = word_at(whole, 0);
        const std::vector<const void*> before = waiting_replies();
        const bool was_current = shotmentor_p_FullData != nullptr;
        host_.replies.clear();
        const int result = host_.receive(whole);
        if (!is_idle()) { // without memory for the request: it stays incomplete, until the host ends it
            EXPECT_TRUE(fault_.refuses_memory);
            EXPECT_EQ(shotmentor_p_ReceiveData, nullptr);
            EXPECT_EQ(result, SM_RETURN_FAIL);
            EXPECT_TRUE(host_.replies.empty());
            ADE_ShotMentor_Return_To_Idle();
        } else {
            EXPECT_TRUE(possible_results(function).contains(result)) << result;
            expect_sound_replies(function, result);
        }
        note_lost(before, function == SM_FUNCTION_SEND_PRESET && was_current);
    }

    void expect_sound_replies(int32_t function, int result) {
        EXPECT_LE(host_.replies.size(), 1u);
        for (const Reply& reply : host_.replies) {
            EXPECT_EQ(reply.message.data, shotmentor_p_FullData);
            expect_sound(reply, function, result);
        }
        // Only a command that has a reply and the memory for it sends one.
        const bool has_reply = function >= SM_FUNCTION_SEND_LIST && function <= SM_FUNCTION_DELETE_PRESET;
        if (!fault_.refuses_memory) {
            EXPECT_EQ(host_.replies.size(), has_reply ? 1u : 0u);
        }
    }

    // Replies are lost in two ways: to an error reply, and to a queue that is full.
    void note_lost(const std::vector<const void*>& before, bool may_be_replaced) {
        const std::vector<const void*> after = waiting_replies();
        for (const void* const reply : before) {
            if (std::find(after.begin(), after.end(), reply) == after.end()) {
                EXPECT_TRUE(may_be_replaced || before.size() == SM_REPLY_QUEUE + 1);
                lost_.push_back(const_cast<void*>(reply));
            }
        }
    }

    void expect_nothing_lost_for_good() {
        host_.refuse_allocation(0);
        host_.settle();
        EXPECT_EQ(host_.blocks_owned(), lost_.size());
        for (void* const reply : lost_) {
            std::free(reply);
        }
        EXPECT_EQ(host_.blocks_owned(), 0u);
    }

    void expect_the_usual_list() {
        host_.presets = {preset(7, 0), preset(8, 1)};
        host_.linked[0] = -1;
        host_.linked[1] = 1;
        host_.replies.clear();
        EXPECT_EQ(host_.receive(list_request()), SM_RETURN_TRUE);
        ASSERT_EQ(host_.replies.size(), 1u);
        Bytes expected = words({0x1001, 28 + 2 * 744});
        expected = expected + Bytes({'K', 'T', '7'}) + zeros(9) + words({1, 2});
        expected = expected + phone_record(preset(7, 0)) + phone_record(preset(8, 1), 2);
        EXPECT_EQ(host_.replies[0].bytes, expected);
        EXPECT_EQ(host_.confirm(), SM_RETURN_TRUE);
        EXPECT_EQ(host_.blocks_owned(), 0u);
    }

    const Fault& fault_;
    std::vector<void*> lost_;
    FakeHost host_;
};

// ---- The faults -----------------------------------------------------------------------------------------------------

// How often each service is asked in one step when nothing fails, and what it truthfully answers.
struct StepRecord {
    int lists = 0;
    int look_ups = 0;
    int saves = 0;
    int updates = 0;
    size_t links = 0;
    std::array<int, 4> true_links = {}; // before and after the step, as a deletion asks for them
};

int count_of(const FakeHost& host, const std::string& service) {
    return static_cast<int>(
        std::count_if(host.transcript.begin(), host.transcript.end(),
                      [&service](const std::string& event) { return event.rfind(service + "(", 0) == 0; }));
}

// Holds a conversation in which nothing fails. Returns the allocations that it takes.
int record(const Conversation& conversation, std::vector<StepRecord>& steps) {
    FakeHost host;
    store_presets_of_every_request(host);
    host.refuse_allocation(0);
    std::vector<void*> lost;
    for (const Bytes& step : conversation.steps) {
        StepRecord entry;
        host.transcript.clear();
        entry.true_links = {host.linked[0], host.linked[1], 0, 0};
        const std::vector<const void*> before = waiting_replies();
        if (step.empty()) {
            host.confirm();
        } else {
            host.receive(step);
            const std::vector<const void*> after = waiting_replies();
            for (const void* const reply : before) {
                if (std::find(after.begin(), after.end(), reply) == after.end()) {
                    lost.push_back(const_cast<void*>(reply));
                }
            }
        }
        entry.true_links[2] = host.linked[0];
        entry.true_links[3] = host.linked[1];
        entry.lists = count_of(host, "__ui_get_custom_mode_list_info");
        entry.look_ups = count_of(host, "__ui_get_preset_info");
        entry.saves = count_of(host, "__ui_save_downloaded_preset");
        entry.updates = count_of(host, "__ui_preset_update_comfirm");
        entry.links = static_cast<size_t>(count_of(host, "__ui_get_linked_preseet_num_for_phone"));
        steps.push_back(entry);
    }
    const int allocations = host.allocations_asked();
    host.settle();
    for (void* const reply : lost) {
        std::free(reply);
    }
    return allocations;
}

void add_list_faults(std::vector<Fault>& faults, size_t step, const StepRecord& entry) {
    EXPECT_LE(entry.lists, 1);
    for (const int count : {INT_MIN, -1, 41, INT_MAX}) {
        if (entry.lists > 0) {
            faults.push_back(
                {"a list of " + std::to_string(count), step, [count](FakeHost& host) { host.reported_count = count; }});
        }
    }
}

void add_link_faults(std::vector<Fault>& faults, size_t step, const StepRecord& entry) {
    EXPECT_LE(entry.links, entry.true_links.size());
    for (size_t call = 0; call < entry.links; ++call) {
        for (const int link : {INT_MIN, -2, 40, 41, INT_MAX}) {
            std::deque<int> answers(entry.true_links.begin(),
                                    entry.true_links.begin() + static_cast<std::ptrdiff_t>(call));
            answers.push_back(link);
            faults.push_back({"link " + std::to_string(link) + " at question " + std::to_string(call + 1), step,
                              [answers](FakeHost& host) { host.linked_answers = answers; }});
        }
    }
}

// The n-th look-up and those behind it in the same request fail; `n` counts from 0.
void fail_look_ups_from(FakeHost& host, int n) {
    if (n == 0) {
        host.preset_info_answer = false;
        return;
    }
    host.fill_preset_info = [&host, left = n](tag_custom_info&) mutable {
        if (--left == 0) {
            host.preset_info_answer = false;
        }
    };
}

void add_look_up_faults(std::vector<Fault>& faults, size_t step, const StepRecord& entry) {
    for (int n = 0; n < entry.look_ups; ++n) {
        faults.push_back({"no preset from look-up " + std::to_string(n + 1) + " on", step,
                          [n](FakeHost& host) { fail_look_ups_from(host, n); }});
    }
    if (entry.look_ups > 0) {
        faults.push_back({"every preset is there, and unfilled where it is not", step,
                          [](FakeHost& host) { host.preset_info_answer = true; }});
    }
}

void add_answer_faults(std::vector<Fault>& faults, size_t step, const StepRecord& entry) {
    for (const int answer : {INT_MIN, INT_MAX}) {
        if (entry.saves > 0) {
            faults.push_back({"saving answers " + std::to_string(answer), step,
                              [answer](FakeHost& host) { host.save = [answer](tag_custom_info&) { return answer; }; }});
        }
        if (entry.updates > 0) {
            faults.push_back({"updating answers " + std::to_string(answer), step,
                              [answer](FakeHost& host) { host.update_answer = answer; }});
        }
    }
}

std::vector<Fault> faults_of(const Conversation& conversation) {
    std::vector<StepRecord> steps;
    const int allocations = record(conversation, steps);
    std::vector<Fault> faults = {{"no fault", 0, nullptr}};
    for (size_t step = 0; step < steps.size(); ++step) {
        add_list_faults(faults, step, steps[step]);
        add_link_faults(faults, step, steps[step]);
        add_look_up_faults(faults, step, steps[step]);
        add_answer_faults(faults, step, steps[step]);
    }
    for (int n = 1; n <= allocations; ++n) {
        for (const bool for_good : {false, true}) {
            faults.push_back({"allocation " + std::to_string(n) + (for_good ? " and all behind it" : ""), 0,
                              [n, for_good](FakeHost& host) { host.refuse_allocation(n, for_good); }, true});
        }
    }
    return faults;
}

class FailureLoop : public testing::TestWithParam<Conversation> {};

TEST_P(FailureLoop, KeepsItsPromisesWhicheverAnswerOrAllocationFails) {
    const std::vector<Fault> faults = faults_of(GetParam());
    EXPECT_GE(faults.size(), 3u) << "at least the request's own memory can be refused";
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.name);
        Encounter(fault).hold(GetParam());
        if (HasFailure()) {
            return;
        }
    }
}

std::string test_name(const testing::TestParamInfo<Conversation>& info) {
    return with_underscores(info.param.name);
}

INSTANTIATE_TEST_SUITE_P(In, FailureLoop, testing::ValuesIn(conversations()), test_name);

} // namespace
