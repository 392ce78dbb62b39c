#include "CheckSession.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

#include "CheckPictures.h"
#include "Options.h"
#include "Words/Results.h"

namespace desk::phone {
namespace {

// Rounds of deleting: a camera that has stored more than its list has room for shows the rest one after another.
constexpr int most_rounds = 3;

std::string seconds(std::chrono::milliseconds time) {
    return fmt::format("{:g} s", static_cast<double>(time.count()) / 1000);
}

// Whether preset number `number` is ours, whether the camera takes it for a position of the list or for the number that
// it keeps with each preset.
bool names_own(int number, const Presets& list, const std::vector<size_t>& own) {
    const auto is_own = [&](size_t position) { return std::ranges::find(own, position) != own.end(); };
    bool names_any = false;
    for (size_t position = 0; position < list.size(); ++position) {
        if (static_cast<int>(position) == number || list[position].preset_num == number) {
            names_any = true;
            if (!is_own(position)) {
                return false;
            }
        }
    }
    return names_any && number >= 0 && number < SM_PRESET_LIMIT;
}

// What to put into a deletion's request. A camera that does not renumber may take a number for either.
std::vector<sm_delete_pair> pairs_of(const Presets& list, const std::vector<size_t>& positions,
                                     const std::vector<size_t>& own, NamedBy named_by) {
    std::vector<sm_delete_pair> pairs;
    for (const size_t position : positions) {
        const int told = list[position].preset_num;
        const int counted = static_cast<int>(position);
        const bool by_told = named_by == NamedBy::told_number;
        for (const int number : {by_told ? told : counted, by_told ? counted : told}) {
            if (names_own(number, list, own)) {
                pairs.push_back({number, list[position].custom_id});
                break;
            }
        }
    }
    return pairs;
}

std::optional<CameraLog> log_of(const Options& options) {
    return options.camera_log.empty() ? std::nullopt : std::make_optional<CameraLog>(options.camera_log);
}

} // namespace

// ---- Requests -------------------------------------------------------------------------------------------------------

Question list_question() {
    return {request(SM_FUNCTION_SEND_LIST), "a list", blame::list, Question::Unanswered::link_state, true};
}

Question shortest_question() {
    return {request(SM_FUNCTION_UPDATE_PRESET), "an update without a record", blame::delivery,
            Question::Unanswered::no_memory, true};
}

Question picture_question(int32_t custom_id) {
    return {request(SM_FUNCTION_SEND_PRESET, picture_payload(custom_id, 0)),
            fmt::format("the picture of the preset with id {}", custom_id), blame::info,
            Question::Unanswered::no_preset, true};
}

Question store_question(const sm_tag_custom_info& record, std::span<const uint8_t> picture) {
    return {request(SM_FUNCTION_RECEIVE_PRESET, store_payload(record, picture)),
            fmt::format("storing a preset with a picture of {} bytes", picture.size()), blame::save};
}

Question update_question(const sm_tag_custom_info& record) {
    return {request(SM_FUNCTION_UPDATE_PRESET, encode(record)), "an update", blame::update,
            Question::Unanswered::no_memory, true};
}

Question delete_question(std::span<const sm_delete_pair> pairs) {
    return {request(SM_FUNCTION_DELETE_PRESET, delete_payload(pairs)), fmt::format("deleting {} presets", pairs.size()),
            blame::remove};
}

bool is_answer_to_shortest(std::span<const uint8_t> frame) {
    Bytes expected = request(SM_REPLY + SM_FUNCTION_UPDATE_PRESET, Bytes(sizeof(int32_t)));
    put_word(expected, sizeof(sm_frame), SM_RETURN_STRUCT_ERR);
    return std::ranges::equal(frame, expected);
}

std::string result_text(int32_t result) {
    return fmt::format("result {}, {}: {}", result, name_of_result(result), meaning_of_result(result));
}

std::string frame_text(std::span<const uint8_t> frame) {
    if (frame.empty()) {
        return "bytes that are no frame";
    }
    return fmt::format("a frame of function {:#x} with {} bytes", static_cast<uint32_t>(get_word(frame, 0)),
                       frame.size());
}

sm_tag_custom_info plain_record(int32_t mode) {
    sm_tag_custom_info record = {};
    record.mode = mode;
    record.made_id = SM_MADE_FAMILY_KT;
    record.ev_step = 50;
    record.preset_num = -1; // what the camera is to write is told from what was sent
    return record;
}

// ---- The conversation -----------------------------------------------------------------------------------------------

CheckSession::CheckSession(const Options& options) : log(log_of(options)), probe(options) {}

Bytes CheckSession::answer_to(const Question& question) {
    try {
        probe.send(question.bytes);
        Bytes frame = probe.receive();
        has_answered_ = true;
        return frame;
    } catch (const Failure& failure) {
        if (failure.code() == exit_busy && !has_answered_) {
            throw Busy{};
        }
        throw finding_of(question, failure);
    }
}

void CheckSession::send(std::span<const uint8_t> bytes, const Cut& cut) {
    try {
        probe.send(bytes, cut);
    } catch (const Failure& failure) {
        throw Finding{failure.what(), fmt::format("that the camera takes all {} bytes", bytes.size()), blame::delivery};
    }
}

void CheckSession::connect() {
    try {
        probe.connect();
    } catch (const Failure& failure) {
        throw Finding{failure.what(), "that the phone can connect again", "listening on"};
    }
}

template<class Parse>
auto CheckSession::parsed(const Question& question, Parse parse) {
    Bytes frame = answer_to(question);
    try {
        return parse(std::move(frame));
    } catch (const Failure& failure) {
        throw Finding{failure.what(), fmt::format("the reply to {}", question.what), blame::send};
    }
}

ListReply CheckSession::list() {
    return parsed(list_question(), parse_list_reply);
}

PictureReply CheckSession::picture(int32_t custom_id) {
    return parsed(picture_question(custom_id), parse_picture_reply);
}

StoreReply CheckSession::store(const sm_tag_custom_info& record, std::span<const uint8_t> picture) {
    return parsed(store_question(record, picture), parse_store_reply);
}

int32_t CheckSession::update_preset(const sm_tag_custom_info& record) {
    return parsed(update_question(record), parse_update_reply);
}

DeleteReply CheckSession::remove(std::span<const sm_delete_pair> pairs) {
    return parsed(delete_question(pairs), parse_delete_reply);
}

void CheckSession::ask_shortest() {
    const Bytes frame = answer_to(shortest_question());
    if (!is_answer_to_shortest(frame)) {
        throw Finding{frame_text(frame),
                      "the reply to an update without a record: function 0x1004, 12 bytes, result -3", blame::delivery};
    }
}

void CheckSession::expect_silence(const std::string& what, const char* blame_for_reply) {
    Question next = shortest_question();
    next.what = fmt::format("the next request after {}", what);
    next.may_repeat = false; // without a reply it is not clear which of the two has none
    const Bytes frame = answer_to(next);
    if (!is_answer_to_shortest(frame)) {
        throw Finding{fmt::format("{} came after {}", frame_text(frame), what),
                      "no reply to it, and one to the next request", blame_for_reply};
    }
}

// ---- Why there is no reply ------------------------------------------------------------------------------------------

Finding CheckSession::finding_of(const Question& question, const Failure& failure) {
    const std::string expected = fmt::format("the reply to {}", question.what);
    if (dynamic_cast<const Silence*>(&failure) != nullptr) {
        return silence_finding(question, fmt::format("{} within {}", failure.what(), seconds(probe.timeout())));
    }
    if (dynamic_cast<const LinkClosed*>(&failure) != nullptr) {
        return {failure.what(), expected, "keeping the link open while the phone does"};
    }
    return {failure.what(), expected, blame::send};
}

std::optional<Bytes> CheckSession::try_to_ask(const Bytes& bytes) {
    try {
        probe.send(bytes);
        return probe.receive();
    } catch (const Failure&) {
        return std::nullopt;
    }
}

// The camera may take a moment to see that the last link is gone.
std::optional<Bytes> CheckSession::first_reply_on_new_link() {
    const Clock::time_point deadline = Clock::now() + probe.timeout();
    while (true) {
        try {
            probe.connect();
            probe.send(shortest_question().bytes);
            return probe.receive();
        } catch (const LinkClosed&) {
            return std::nullopt;
        } catch (const Failure& failure) {
            if (failure.code() == exit_protocol) {
                return Bytes(); // bytes came, and they are no frame
            }
            if (failure.code() != exit_busy || Clock::now() >= deadline) {
                return std::nullopt;
            }
        }
    }
}

bool CheckSession::answers_on_new_link() {
    const std::optional<Bytes> reply = first_reply_on_new_link();
    return reply && is_answer_to_shortest(*reply);
}

// Does the camera go on, and if it does, from where?
Finding CheckSession::silence_finding(const Question& question, const std::string& what_came) {
    const std::optional<Bytes> next = try_to_ask(shortest_question().bytes);
    if (next && !is_answer_to_shortest(*next)) {
        return {
            fmt::format("{}, but later {}", what_came, frame_text(*next)),
            fmt::format("the reply to {} in time; give a longer --timeout if the camera is that slow", question.what),
            question.blame};
    }
    return next ? unanswered_finding(question, what_came) : stalled_finding(question, what_came);
}

bool CheckSession::is_answered_again(const Question& question) {
    return question.may_repeat && try_to_ask(question.bytes).has_value();
}

// It goes on with the next request: this one alone has no reply.
Finding CheckSession::unanswered_finding(const Question& question, const std::string& what_came) {
    const std::string found = fmt::format("{}, while the next request is answered", what_came);
    const std::string expected = fmt::format("the reply to {}", question.what);
    if (is_answered_again(question)) {
        refused_memory.push_back(expected);
        return {found + ", and so is this one the second time: the camera refused memory for the reply", expected,
                blame::memory};
    }
    switch (question.unanswered) {
    case Question::Unanswered::link_state:
        return {found + ", and this one not the second time either: the camera takes its link state for down", expected,
                blame::link_state};
    case Question::Unanswered::no_preset:
        return {found + ", and this one not the second time either: the camera does not find the preset that it lists",
                expected, blame::info};
    case Question::Unanswered::no_memory:
        break;
    }
    return {found + ": the camera refused memory for the reply, or did not send it", expected,
            fmt::format("{}, or {}", blame::memory, blame::send)};
}

// It answers nothing more on this link.
Finding CheckSession::stalled_finding(const Question& question, const std::string& what_came) {
    const std::string expected = fmt::format("the reply to {}", question.what);
    if (!answers_on_new_link()) {
        silence = "the camera answers nothing any more";
        return {fmt::format("{}, and nothing after connecting again either: the camera has no memory for requests, "
                            "hands none to the library, sends no reply, or did not return to idle",
                            what_came),
                expected, fmt::format("{}, {}, {}, or {}", blame::memory, blame::delivery, blame::send, blame::idle)};
    }
    const std::string found =
        fmt::format("{}, and nothing more was answered until the phone had connected again", what_came);
    if (is_answered_again(question)) {
        refused_memory.push_back("the request of " + question.what);
        return {found + ", and then this one is: the camera refused memory for the request", expected, blame::memory};
    }
    return {found + ": the camera counted other bytes than were sent, or refused memory for the request", expected,
            fmt::format("{}, or {}", blame::delivery, blame::memory)};
}

bool CheckSession::recover() {
    for (int round = 0; round < 2; ++round) { // one of the requests may be what it has no memory for
        if (answers_on_new_link()) {
            silence.clear();
            take_first_list();
            return true;
        }
    }
    silence = "the camera answers nothing any more";
    return false;
}

void CheckSession::take_first_list() {
    if (presets.has_begun()) {
        return;
    }
    try {
        if (!first_list) {
            first_list = answer_to(list_question());
        }
        const ListReply reply = parse_list_reply(*first_list);
        model = reply.model;
        presets.begin(reply.presets);
    } catch (const Finding&) { // the check that asked first has told
    } catch (const Failure&) {
    }
}

// ---- Presets of our own ---------------------------------------------------------------------------------------------

SentPreset CheckSession::store_own(sm_tag_custom_info record, Bytes picture) {
    presets.next_title().copy(record.title, sizeof record.title - 1);
    SentPreset sent = {record, std::move(picture), {}};
    sent.reply = store(sent.record, sent.picture);
    if (sent.reply.result != SM_RETURN_TRUE) {
        throw Finding{
            fmt::format("{} to {}", result_text(sent.reply.result), store_question(sent.record, sent.picture).what),
            "result 1", blame::save};
    }
    presets.claim(sent.reply.custom_id);
    return sent;
}

CheckSession::Own CheckSession::own(size_t least) {
    Own own = {list().presets, {}};
    own.positions = presets.sorted(own.list).own;
    for (size_t have = own.positions.size(); have < least; ++have) {
        store_own(plain_record(SM_MODE_PROGRAM), picture_of(400, static_cast<int>(have)));
    }
    if (own.positions.size() < least) {
        own.list = list().presets;
        own.positions = presets.sorted(own.list).own;
    }
    if (own.positions.size() < least) {
        throw Finding{fmt::format("{} presets in the list", own.positions.size()),
                      fmt::format("the {} that the camera answered to have stored", least),
                      fmt::format("{}, {}", blame::save, blame::list)};
    }
    return own;
}

DeletionRecord CheckSession::delete_own(const Presets& list, const std::vector<size_t>& positions, NamedBy named_by) {
    const std::vector<sm_delete_pair> pairs = pairs_of(list, positions, presets.sorted(list).own, named_by);
    if (pairs.size() < positions.size()) {
        deletion_fault = "the numbers in the list do not tell this run's presets from others";
        throw Skip{deletion_fault};
    }
    DeletionRecord record = {positions, list, remove(pairs), {}};
    const std::vector<std::string> gone = gone_presets(list, positions, record.reply.presets);
    if (!gone.empty() && record.reply.result == SM_RETURN_TRUE) {
        deletion_fault = "the camera deletes other presets than those that are named";
        const std::string harm = presets.harm_in(record.reply.presets);
        throw Finding{fmt::format("the camera has deleted what was not named: {}{}", fmt::join(gone, ", "),
                                  harm.empty() ? "" : "; THIS IS NO PRESET OF THIS RUN, AND IT IS LOST"),
                      fmt::format("that only {} goes", name_of(list[positions.front()], positions.front())),
                      blame::remove};
    }
    deletion_is_proven_ = deletion_is_proven_ || record.reply.result == SM_RETURN_TRUE;
    return record;
}

// A camera that has deleted nothing yet is given the one in the middle first: a neighbour that goes in its place is
// nobody's loss.
void CheckSession::delete_all_own() {
    if (const Own first = own(0); !deletion_is_proven_ && first.positions.size() >= 3) {
        delete_own(first.list, {first.positions[1]});
    }
    for (int round = 0; round < most_rounds && deletion_fault.empty(); ++round) {
        const Presets now = list().presets;
        const std::vector<size_t> positions = presets.sorted(now).own;
        if (positions.empty()) {
            return;
        }
        delete_own(now, positions, round == 0 ? NamedBy::told_number : NamedBy::position);
    }
    if (deletion_fault.empty() && !presets.sorted(list().presets).own.empty()) {
        deletion_fault = "the camera does not delete what is named";
        throw Skip{deletion_fault};
    }
}

// Deletes what it can. Returns why that may not be all.
std::string CheckSession::delete_what_is_left() {
    try {
        delete_all_own();
    } catch (const Finding& finding) {
        recover();
        return finding.found;
    } catch (const Skip& skip) {
        return skip.why;
    }
    return deletion_fault;
}

Cleanup CheckSession::clean_up() {
    Cleanup result;
    if (!presets.has_begun()) {
        result.why = "the camera gave no list, and nothing was stored";
        return result;
    }
    try {
        if (!recover()) {
            throw Finding{silence, "", ""};
        }
        result.why = delete_what_is_left();
        const Presets now = list().presets;
        result.done = true;
        result.left = presets.sorted(now).own;
        result.harm = presets.harm_in(now);
    } catch (const Finding& finding) {
        result.why =
            fmt::format("{}; presets called \"{}...\" may be left in it", finding.found, presets.title_begin());
    }
    return result;
}

} // namespace desk::phone
