// Requests that are refused or have no reply, and requests that arrive in pieces.
#include <algorithm>
#include <fmt/format.h>
#include <initializer_list>
#include <limits>

#include "CheckPictures.h"
#include "CheckSession.h"
#include "CheckSteps.h"
#include "CheckTable.h"

namespace desk::phone {
namespace {

constexpr size_t header = sizeof(sm_frame);

// A request with any function and any total, which need not be true.
Bytes faulty_request(int32_t function, int32_t total, size_t payload = 0) {
    Bytes bytes;
    append_word(bytes, function);
    append_word(bytes, total);
    bytes.resize(header + payload);
    return bytes;
}

// An id that no preset of the list has.
int32_t unknown_id(const Presets& list) {
    int32_t custom_id = std::numeric_limits<int32_t>::max();
    while (std::ranges::any_of(list, [=](const auto& preset) { return preset.custom_id == custom_id; })) {
        --custom_id;
    }
    return custom_id;
}

void expect_refusal(int32_t result, int32_t expected, const char* blamed) {
    if (result != expected) {
        throw Finding{result_text(result), fmt::format("result {}", expected), blamed};
    }
}

// The list is what it was.
void expect_no_change(CheckSession& session, const Presets& before, const char* blamed) {
    const Presets after = session.list().presets;
    const std::vector<std::string> lost = lost_presets(before, {}, after);
    if (!lost.empty() || after.size() != before.size()) {
        throw Finding{lost.empty() ? fmt::format("{} presets instead of {}", after.size(), before.size())
                                   : fmt::format("gone, or with other values: {}", fmt::join(lost, ", ")),
                      "that a refused request changes nothing", blamed};
    }
}

} // namespace

// ---- Refusals -------------------------------------------------------------------------------------------------------

void check_refuse_short_picture(CheckSession& session) {
    const Presets before = session.list().presets;
    sm_tag_custom_info record = plain_record(SM_MODE_PROGRAM);
    session.presets.next_title().copy(record.title, sizeof record.title - 1);
    Bytes picture = picture_of(smallest_picture, 0);
    picture.pop_back();
    expect_refusal(session.store(record, picture).result, SM_RETURN_JPG_ERR, blame::delivery);
    expect_no_change(session, before, blame::save);
}

void check_refuse_short_update(CheckSession& session) {
    for (const size_t missing : {size_t{1}, sizeof(sm_tag_custom_info)}) {
        Question question = update_question(plain_record(SM_MODE_PROGRAM));
        question.bytes.resize(question.bytes.size() - missing);
        put_word(question.bytes, sizeof(int32_t), static_cast<int32_t>(question.bytes.size()));
        const Bytes frame = session.answer_to(question);
        if (!is_answer_to_shortest(frame)) {
            throw Finding{frame_text(frame), "function 0x1004, 12 bytes, result -3", blame::delivery};
        }
    }
}

void check_refuse_negative_id(CheckSession& session) {
    const Presets before = session.list().presets;
    for (const int32_t custom_id : {-1, std::numeric_limits<int32_t>::min()}) {
        sm_tag_custom_info record = plain_record(SM_MODE_PROGRAM);
        record.custom_id = custom_id;
        expect_refusal(session.update_preset(record), SM_RETURN_DATA_ERR, blame::delivery);
    }
    expect_no_change(session, before, blame::update);
}

void check_refuse_unknown_id(CheckSession& session) {
    const Presets before = session.list().presets;
    sm_tag_custom_info record = plain_record(SM_MODE_PROGRAM);
    record.custom_id = unknown_id(before);
    if (session.update_preset(record) == SM_RETURN_TRUE) {
        throw Finding{fmt::format("result 1 for id {}, which no preset has", record.custom_id),
                      "any other result; -6 says that there is no such preset", blame::update};
    }
    expect_no_change(session, before, blame::update);
}

void check_refuse_empty_delete(CheckSession& session) {
    const Presets before = session.list().presets;
    expect_refusal(session.remove({}).result, SM_RETURN_DATA_ERR, blame::delivery);
    expect_no_change(session, before, blame::remove);
}

void check_refuse_faulty_delete(CheckSession& session) {
    const CheckSession::Own own = session.own(room_of_checks);
    const sm_tag_custom_info& named = own.list[own.positions[1]];
    if (named.preset_num != static_cast<int>(own.positions[1])) {
        throw Skip{"the numbers in the list do not tell this run's presets from others"};
    }
    const sm_delete_pair good = {named.preset_num, named.custom_id};
    const std::initializer_list<sm_delete_pair> faulty = {{SM_PRESET_LIMIT, named.custom_id},
                                                          {-1, named.custom_id},
                                                          {named.preset_num, 0},
                                                          {named.preset_num, unknown_id(own.list)}};
    for (const sm_delete_pair& one : faulty) {
        const sm_delete_pair pairs[] = {good, one};
        const int32_t result = session.remove(pairs).result;
        if (result != SM_RETURN_STRUCT_ERR) {
            throw Finding{fmt::format("{}, to an entry with number {} and id {}", result_text(result), one.del_preset,
                                      one.del_id),
                          "result -3", blame::info};
        }
        expect_no_change(session, own.list, blame::remove);
    }
}

// ---- Silence --------------------------------------------------------------------------------------------------------

void check_silent_picture(CheckSession& session) {
    for (const int32_t custom_id : {unknown_id(session.list().presets), 0, -1}) {
        session.send(picture_question(custom_id).bytes);
        session.expect_silence(fmt::format("asking for the picture of id {}", custom_id), blame::send);
    }
}

void check_silent_functions(CheckSession& session) {
    for (const int32_t function : {6, 254, 256, +SM_FUNCTION_STATE_ON}) {
        for (const size_t payload : {size_t{0}, sizeof(int32_t)}) {
            session.send(request(function, Bytes(payload)));
            session.expect_silence(fmt::format("function {} with {} bytes of payload", function, payload),
                                   blame::delivery);
        }
    }
}

void check_leave(CheckSession& session) {
    for (const int32_t code : {+SM_RETURN_TRUE, +SM_RETURN_BT_RES_ERR, 77}) {
        Bytes payload;
        append_word(payload, code);
        session.send(request(SM_FUNCTION_STATE_OFF, payload));
        session.expect_silence(fmt::format("function 0 with code {}", code), blame::delivery);
    }
    if (session.presets.has_begun()) {
        session.list(); // the phone may change its mind
    }
}

void check_refuse_functions(CheckSession& session) {
    for (const int32_t function : {-1, 257, std::numeric_limits<int32_t>::min()}) {
        session.send(faulty_request(function, header));
        session.expect_silence(fmt::format("function {}", function), blame::delivery);
    }
}

void check_refuse_negative_total(CheckSession& session) {
    for (const int32_t total : {-1, std::numeric_limits<int32_t>::min()}) {
        session.send(faulty_request(SM_FUNCTION_SEND_LIST, total));
        session.expect_silence(fmt::format("a total of {}", total), blame::delivery);
    }
}

void check_refuse_too_long(CheckSession& session) {
    constexpr int32_t total = SM_REQUEST_LIMIT + 1;
    session.send(faulty_request(SM_FUNCTION_RECEIVE_PRESET, total, total - header));
    session.expect_silence(fmt::format("a request of {} bytes", total), blame::delivery);
}

// ---- Packets --------------------------------------------------------------------------------------------------------

namespace {

// The least bytes of a request's first packet.
size_t least_first(const CheckSession& session) {
    return session.probe.keeps_message_boundaries() ? header : 1;
}

Cut packets_of(const CheckSession& session, size_t size) {
    return {std::max(size, least_first(session)), size};
}

// An update that the library refuses by itself: nothing is written, however often it is sent.
Bytes harmless_update() {
    sm_tag_custom_info record = plain_record(SM_MODE_PROGRAM);
    record.custom_id = -1;
    return update_question(record).bytes;
}

void expect_harmless_answer(CheckSession& session, const Bytes& bytes, const std::string& how) {
    const Bytes frame = session.answer_to({{}, "an update " + how, blame::delivery});
    const int32_t result = parse_update_reply(frame);
    if (result != SM_RETURN_DATA_ERR) {
        throw Finding{fmt::format("{}, to an update {}", result_text(result), how),
                      fmt::format("result -2: all {} bytes arrive, in order", bytes.size()), blame::delivery};
    }
}

} // namespace

void check_cut_list(CheckSession& session) {
    session.send(list_question().bytes, packets_of(session, 1));
    const Bytes frame = session.answer_to({{}, "a list in packets of one byte", blame::delivery});
    parse_list_reply(frame);
}

void check_cut_update(CheckSession& session) {
    const Bytes bytes = harmless_update();
    for (size_t first = least_first(session); first < bytes.size(); ++first) {
        session.send(bytes, {first});
        expect_harmless_answer(session, bytes, fmt::format("that is cut behind {} bytes", first));
    }
    session.send(bytes, packets_of(session, 1));
    expect_harmless_answer(session, bytes, "in packets of one byte");
}

namespace {

constexpr size_t cut_picture = 20000;
constexpr size_t cut_sizes[] = {1, 7, 100, 512, 4096, 65000};

// Stores a preset in packets of one size, and compares all of it with what comes back.
void expect_cut_store(CheckSession& session, size_t size) {
    sm_tag_custom_info record = plain_record(SM_MODE_PROGRAM);
    const std::string title = session.presets.next_title();
    title.copy(record.title, sizeof record.title - 1);
    const Bytes picture = picture_of(size == 1 ? smallest_picture : cut_picture, static_cast<int>(size));
    session.send(store_question(record, picture).bytes, packets_of(session, size));
    const std::string what = fmt::format("a preset in packets of {} bytes", size);
    const StoreReply reply = parse_store_reply(session.answer_to({{}, what, blame::delivery}));
    expect_refusal(reply.result, SM_RETURN_TRUE, blame::save);
    session.presets.claim(reply.custom_id);
    for (const sm_tag_custom_info& preset : session.list().presets) {
        if (text_of(preset.title, SM_TITLE_SIZE) != title) {
            continue;
        }
        if (session.picture(preset.custom_id).picture != picture) {
            throw Finding{fmt::format("another picture after storing {}", what), "the one that was sent",
                          blame::delivery};
        }
        return;
    }
    throw Finding{fmt::format("no preset \"{}\" after storing {}", title, what), "the title that was sent",
                  blame::delivery};
}

} // namespace

void check_cut_store(CheckSession& session) {
    for (const size_t size : cut_sizes) {
        session.delete_all_own();
        expect_cut_store(session, size);
    }
}

namespace {

void expect_answer_to_shortest(CheckSession& session, const std::string& what) {
    const Bytes frame = session.answer_to({{}, what, blame::delivery});
    if (!is_answer_to_shortest(frame)) {
        throw Finding{frame_text(frame), "the reply to " + what, blame::delivery};
    }
}

} // namespace

void check_requests_together(CheckSession& session) {
    const Bytes list = list_question().bytes;
    const Bytes shortest = shortest_question().bytes;
    Bytes together;
    for (const Bytes* one : {&shortest, &list, &shortest}) {
        together.insert(together.end(), one->begin(), one->end());
    }
    session.send(together);
    expect_answer_to_shortest(session, "the first of three requests in one piece");
    parse_list_reply(session.answer_to({{}, "the second of three requests in one piece", blame::delivery}));
    expect_answer_to_shortest(session, "the last of three requests in one piece");
}

void check_pipelined(CheckSession& session) {
    constexpr int requests = 12; // one more than a camera can hold unconfirmed replies
    for (int number = 0; number < requests; ++number) {
        session.send(list_question().bytes);
    }
    const Bytes first = session.answer_to({{}, "the first of twelve lists", blame::delivery});
    parse_list_reply(first);
    for (int number = 1; number < requests; ++number) {
        const std::string what = fmt::format("list {} of {} in a row", number + 1, requests);
        const Bytes next = session.answer_to({{}, what, blame::delivery});
        if (next != first) {
            throw Finding{fmt::format("{}, other than the first", frame_text(next)),
                          fmt::format("the reply to {}", what),
                          fmt::format("{}, and keeping a reply's bytes until they have gone", blame::send)};
        }
    }
}

void check_replies_apart(CheckSession& session) {
    if (session.probe.mixed_packets() > 0) {
        throw Finding{fmt::format("{} packets with bytes of two replies", session.probe.mixed_packets()),
                      "each reply in packets of its own", blame::send};
    }
}

} // namespace desk::phone
