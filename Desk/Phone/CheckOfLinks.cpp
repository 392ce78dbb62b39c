// What becomes of a camera when a link drops, or when a phone has sent bytes that it did not announce.
#include <fmt/format.h>

#include "CheckSession.h"
#include "CheckSteps.h"

namespace desk::phone {
namespace {

constexpr size_t sent_half = 100;
constexpr int lists_in_a_row = 12;

// An update that the library refuses by itself, in case it is completed.
Bytes harmless_update() {
    sm_tag_custom_info record = plain_record(SM_MODE_PROGRAM);
    record.custom_id = -1;
    return update_question(record).bytes;
}

// Sends what a camera still waits for that has not forgotten the last link's request, so that it can be asked on.
void complete_request(CheckSession& session, size_t missing) {
    try {
        session.send(Bytes(missing, 0xFF));
        session.probe.receive();
    } catch (const Finding&) { // it was something else
    } catch (const Failure&) {
    }
}

void drop_in_request(CheckSession& session, size_t sent) {
    const Bytes bytes = harmless_update();
    session.send(std::span(bytes).first(sent));
    if (const std::optional<Bytes> reply = session.first_reply_on_new_link(); reply && is_answer_to_shortest(*reply)) {
        return;
    }
    session.idle_fault = "the camera does not return to idle when the link drops (drop-in-request)";
    complete_request(session, bytes.size() - sent - shortest_question().bytes.size());
    throw Finding{fmt::format("no reply to the first request of a new link, after {} of a request's {} bytes on the "
                              "last one",
                              sent, bytes.size()),
                  "its reply: what a link cut off is forgotten", blame::idle};
}

// Sends bytes after which nothing is answered, and sees that nothing is.
void expect_stall(CheckSession& session, const Bytes& bytes, const std::string& what) {
    session.connect();
    session.send(bytes);
    session.send(shortest_question().bytes);
    if (const std::optional<Bytes> reply = session.probe.last_words()) {
        throw Finding{fmt::format("{} after {}", frame_text(*reply), what),
                      "no reply until the phone has connected again", blame::delivery};
    }
    const std::optional<Bytes> reply = session.first_reply_on_new_link();
    if (!reply || !is_answer_to_shortest(*reply)) {
        session.silence = "the camera answers nothing any more";
        throw Finding{fmt::format("no reply to the first request of a new link, after {} on the last one", what),
                      "its reply", blame::idle};
    }
}

Bytes list_with_total(int32_t total, size_t more) {
    Bytes bytes;
    append_word(bytes, SM_FUNCTION_SEND_LIST);
    append_word(bytes, total);
    bytes.resize(bytes.size() + more);
    return bytes;
}

} // namespace

void check_drop_in_request(CheckSession& session) {
    drop_in_request(session, sent_half);
    if (!session.probe.keeps_message_boundaries()) {
        drop_in_request(session, sizeof(sm_frame) / 2);
    }
}

void check_drop_in_reply(CheckSession& session) {
    for (int number = 0; number < lists_in_a_row; ++number) {
        session.send(list_question().bytes);
    }
    const std::optional<Bytes> reply = session.first_reply_on_new_link();
    if (!reply) {
        throw Finding{"no reply to the first request of a new link, after a link on which no reply was taken",
                      "its reply", blame::confirmation};
    }
    if (!is_answer_to_shortest(*reply)) {
        throw Finding{fmt::format("{} comes first on a new link", frame_text(*reply)),
                      "the reply to the first request of this link: those of the last one are forgotten", blame::send};
    }
}

namespace {

// A camera that stays stalled would answer nothing more.
void need_idle(const CheckSession& session) {
    if (!session.idle_fault.empty()) {
        throw Skip{session.idle_fault};
    }
}

} // namespace

void check_stall_short_total(CheckSession& session) {
    need_idle(session);
    for (int32_t total = 0; total < static_cast<int32_t>(sizeof(sm_frame)); ++total) {
        expect_stall(session, list_with_total(total, 0), fmt::format("a total of {}", total));
    }
}

void check_stall_too_many_bytes(CheckSession& session) {
    need_idle(session);
    constexpr size_t more = 4;
    expect_stall(session, list_with_total(sizeof(sm_frame), more), fmt::format("{} bytes beyond the total", more));
}

} // namespace desk::phone
