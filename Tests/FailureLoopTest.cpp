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

// The camera stores the custom ids 100 to 102 under the numbers 0 to 2; CUSTOM1 uses number 1.
void start(FakeHost& host) {
    host.presets = presets_from_100(3);
    host.linked[0] = 1;
    host.linked[1] = -1;
}

sm_tag_custom_info record_of(int32_t custom_id) {
    sm_tag_custom_info record = {};
    put_text(record.title, fifty_two_characters);
    record.mode = 4;
    record.av_index = 900;
    record.custom_id = custom_id;
    return record;
}

struct Named {
    const char* name;
    Bytes request;
};

// Each kind of request, in the forms that are served and in those that are refused.
const std::vector<Named>& requests() {
    static const std::vector<Named> all = {
        {"link state off", state_off_request(SM_RETURN_TRUE)},
        {"link state off with an error", state_off_request(SM_RETURN_BT_RES_ERR)},
        {"link state off with an unknown code", state_off_request(7)},
        {"link state off without a code", request(SM_FUNCTION_STATE_OFF)},
        {"link state on", state_on_request()},
        {"a number that nobody serves", request(200, words({1}))},
        {"list", list_request()},
        {"picture", picture_request(100, 5)},
        {"picture of identity 0", picture_request(0, 5)},
        {"picture of identity -1", picture_request(-1, 5)},
        {"picture of an unknown preset", picture_request(77, 5)},
        {"picture without an identity", request(SM_FUNCTION_SEND_PRESET)},
        {"store", store_request(record_of(6), pattern(100))},
        {"store with too short a picture", store_request(record_of(6), pattern(99))},
        {"store with too short a record", request(SM_FUNCTION_RECEIVE_PRESET, pattern(20))},
        {"update", update_request(record_of(100))},
        {"update of a negative identity", update_request(record_of(-1))},
        {"update with too short a record", request(SM_FUNCTION_UPDATE_PRESET, pattern(20))},
        {"deletion of one", delete_request({{0, 100}})},
        {"deletion of a preset in use", delete_request({{1, 101}})},
        {"deletion of all", delete_request({{2, 102}, {1, 101}, {0, 100}})},
        {"deletion of nothing", delete_request({})},
        {"deletion of number 40", delete_request({{0, 100}, {40, 101}})},
        {"deletion of number -1", delete_request({{-1, 100}})},
        {"deletion of identity 0", delete_request({{0, 0}})},
        {"deletion of an unknown identity", delete_request({{0, 100}, {1, 77}})},
    };
    return all;
}

const Bytes& named(const std::string& name) {
    const auto found =
        std::find_if(requests().begin(), requests().end(), [&name](const Named& entry) { return entry.name == name; });
    EXPECT_NE(found, requests().end()) << name;
    return found->request;
}

std::vector<Conversation> conversations() {
    std::vector<Conversation> all;
    for (const Named& entry : requests()) {
        all.push_back({entry.name, {entry.request, confirmation}});
    }
    const Bytes list = named("list");
    const Bytes picture = named("picture");
    const Bytes no_picture = named("picture of identity 0");
    const Bytes unknown_picture = named("picture of an unknown preset");
    const Bytes update = named("update");
    const Bytes deletion = named("deletion of all");
    all.push_back({"two lists", {list, list, confirmation, confirmation}});
    all.push_back({"an error reply that takes the place of a list", {list, no_picture, confirmation}});
    all.push_back({"an error reply behind a queued list",
                   {list, update, unknown_picture, confirmation, confirmation, confirmation}});
    all.push_back({"a visit",
                   {named("link state on"), list, confirmation, picture, confirmation, named("store"), confirmation,
                    deletion, confirmation, named("link state off")}});
    all.push_back({"late confirmations",
                   {picture, deletion, list, confirmation, named("store"), confirmation, confirmation, confirmation,
                    confirmation}});
    all.push_back({"two deletions", {named("deletion of one"), deletion, confirmation, confirmation}});
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
    static const std::set<int> nothing_done = {-1};
    static const std::map<int32_t, std::set<int>> results = {
        {0, {1, -1}},
        {1, {1, -1}},
        {2, {1}},
        {3, {1, -4, INT_MIN, INT_MAX}}, // what the service answers, too
        {4, {1, -2, -3, INT_MIN, INT_MAX}},
        {5, {1, 0, -2, -3, -7, -8}},
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
        EXPECT_EQ(function, 2);
        EXPECT_EQ(total, 12);
        EXPECT_TRUE(word_at(reply.buffer, 8) == -5 || word_at(reply.buffer, 8) == -6);
        return;
    }
    ASSERT_EQ(static_cast<size_t>(total), reply.bytes.size());
    EXPECT_LE(reply.bytes.size(), reply.buffer.size());
    const auto word = [&reply](size_t offset) { return word_at(reply.bytes, offset); };
    switch (function) {
    case 1:
        EXPECT_EQ(result, 1);
        expect_whole_records(total - 28, word(24));
        return;
    case 2:
        EXPECT_EQ(total, 12) << "these presets have no picture";
        return;
    case 3:
    case 4:
        EXPECT_EQ(total, function == 3 ? 24 : 12);
        EXPECT_EQ(word(8), result);
        return;
    default:
        ASSERT_EQ(function, 5);
        EXPECT_EQ(word(8), result);
        const int32_t rest = total - 20 - word(16) * 744;
        EXPECT_TRUE(rest == 0 || rest == 8 || rest == 16) << rest;
        expect_whole_records(total - 20 - rest, word(16));
    }
}

// One conversation with one fault.
class Encounter {
  public:
    explicit Encounter(const Fault& fault) : fault_(fault) { start(host_); }

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
        EXPECT_EQ(host_.confirm(), was_current ? 1 : -1);
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
            EXPECT_EQ(result, -1);
            EXPECT_TRUE(host_.replies.empty());
            ADE_ShotMentor_Return_To_Idle();
        } else {
            EXPECT_TRUE(possible_results(function).contains(result)) << result;
            expect_sound_replies(function, result);
        }
        note_lost(before, function == 2 && was_current);
    }

    void expect_sound_replies(int32_t function, int result) {
        EXPECT_LE(host_.replies.size(), 1u);
        for (const Reply& reply : host_.replies) {
            EXPECT_EQ(reply.message.data, shotmentor_p_FullData);
            expect_sound(reply, function, result);
        }
        // Only a command that has a reply and the memory for it sends one.
        const bool has_reply = function >= 1 && function <= 5;
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
    start(host);
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
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](char letter) { return std::isalnum(static_cast<unsigned char>(letter)) == 0; },
        '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(In, FailureLoop, testing::ValuesIn(conversations()), test_name);

// ---- Three packets --------------------------------------------------------------------------------------------------

struct Answer {
    int result;
    Transcript calls;
    std::vector<Bytes> buffers; // the replies, each in its whole buffer
    bool operator==(const Answer&) const = default;
};

// Hands bytes from `first` to `end` over. A first packet lies in memory that holds the whole header.
int hand_over(FakeHost& host, const Bytes& whole, size_t first, size_t end) {
    const size_t readable = first == 0 ? std::max(end, sizeof(sm_frame)) : end;
    return host.receive_with_length(slice(whole, first, readable - first), static_cast<int>(end - first));
}

Answer answer_in_packets(const Bytes& whole, const std::vector<size_t>& cuts) {
    FakeHost host;
    start(host);
    size_t first = 0;
    for (const size_t cut : cuts) {
        EXPECT_EQ(hand_over(host, whole, first, cut), -1);
        EXPECT_TRUE(host.replies.empty());
        first = cut;
    }
    Answer answer = {hand_over(host, whole, first, whole.size()), host.calls(), {}};
    EXPECT_TRUE(is_idle());
    for (const Reply& reply : host.replies) {
        answer.buffers.push_back(reply.buffer);
    }
    EXPECT_EQ(host.blocks_owned(), host.replies.size());
    return answer;
}

// Every position of a short request, and of a long one those around which something of it begins or ends.
std::vector<size_t> cut_positions(size_t size) {
    std::set<size_t> positions;
    if (size <= 40) {
        for (size_t position = 1; position < size; ++position) {
            positions.insert(position);
        }
    } else {
        for (const size_t border : {size_t{0}, size_t{4}, size_t{8}, size_t{60}, size_t{748}, size_t{752}, size}) {
            for (const size_t position : {border - 1, border, border + 1}) {
                if (position > 0 && position < size) { // border 0 less 1 is huge
                    positions.insert(position);
                }
            }
        }
    }
    return {positions.begin(), positions.end()};
}

TEST(ThreePackets, GiveTheSameAnswerAsOneWhereverARequestIsCut) {
    for (const Named& entry : requests()) {
        const Answer whole = answer_in_packets(entry.request, {});
        const std::vector<size_t> cuts = cut_positions(entry.request.size());
        EXPECT_GE(cuts.size(), 7u);
        for (size_t first = 0; first < cuts.size(); ++first) {
            for (size_t second = first + 1; second < cuts.size(); ++second) {
                ASSERT_TRUE(answer_in_packets(entry.request, {cuts[first], cuts[second]}) == whole)
                    << entry.name << ", cut at " << cuts[first] << " and " << cuts[second];
            }
        }
    }
}

} // namespace
