// The end of a run, and what the camera's log tells of it.
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <thread>

#include "CheckSession.h"
#include "CheckSteps.h"

namespace desk::phone {
namespace {

using std::chrono::milliseconds;

// Replies that a camera can hold unconfirmed, and one more.
constexpr int replies_in_a_row = 12;
// A confirmation that comes at all has come after so long.
constexpr milliseconds longest_confirmation{1500};
// The camera's next lines are written after so long.
constexpr milliseconds moment{50};

const CameraLog::Counts& lines_of(CheckSession& session) {
    std::this_thread::sleep_for(moment);
    return session.log->read_on();
}

// Whether confirmations come before the next request, later, or never. A reply that is still unconfirmed when all has
// been quiet for a while will stay so: the next request's line tells.
CheckSession::Confirmations find_confirmations(CheckSession& session) {
    for (int number = 0; number < replies_in_a_row; ++number) {
        session.ask_shortest();
    }
    if (lines_of(session).parked == 0) {
        return CheckSession::Confirmations::in_time;
    }
    std::this_thread::sleep_for(longest_confirmation);
    const int64_t parked = lines_of(session).parked;
    session.ask_shortest();
    return lines_of(session).parked > parked ? CheckSession::Confirmations::missing : CheckSession::Confirmations::late;
}

void need_lines(CheckSession& session) {
    if (lines_of(session).refused_records == 0) {
        throw Skip{"the log has none of this run's lines (log-written)"};
    }
}

void find_confirmations_once(CheckSession& session) {
    need_lines(session);
    if (session.confirmations == CheckSession::Confirmations::unknown) {
        session.confirmations = find_confirmations(session);
    }
}

} // namespace

void check_store_as_before(CheckSession& session) {
    session.cleanup = session.clean_up();
    const Cleanup& cleanup = *session.cleanup;
    if (!cleanup.done || !cleanup.left.empty()) {
        throw Finding{cleanup.left.empty()
                          ? cleanup.why
                          : fmt::format("still there: presets {}; {}", fmt::join(cleanup.left, ", "), cleanup.why),
                      "that all presets of this run are gone", blame::remove};
    }
    if (!cleanup.harm.empty()) {
        throw Finding{"PRESETS THAT ARE NOT THIS RUN'S HAVE CHANGED: " + cleanup.harm,
                      "the presets that were there before, as they were", blame::remove};
    }
    const Presets now = session.list().presets;
    const Presets& before = session.presets.foreign();
    for (size_t position = 0; position < before.size(); ++position) {
        const std::vector<std::string> changed = differing_fields(before[position], now.at(position));
        if (!changed.empty()) {
            throw Finding{
                fmt::format("{} has other values in {}", name_of(before[position], position), fmt::join(changed, ", ")),
                "the values that it had before", fmt::format("{}, {}", blame::remove, blame::links)};
        }
    }
    if (now.size() != before.size()) {
        throw Finding{fmt::format("{} presets instead of {}", now.size(), before.size()),
                      "as many as before, unless somebody else has stored one", blame::remove};
    }
}

void check_log_written(CheckSession& session) {
    session.ask_shortest(); // of which the library writes a line
    if (lines_of(session).refused_records == 0) {
        throw Finding{"none of the lines that this run has caused",
                      "the library's lines: give the file that the camera writes them to", blame::log};
    }
}

void check_confirm_all(CheckSession& session) {
    find_confirmations_once(session);
    if (session.confirmations == CheckSession::Confirmations::missing) {
        throw Finding{fmt::format("confirmations are missing: {} times a reply was still unconfirmed at the next "
                                  "request, and after {} ms without any",
                                  lines_of(session).parked, longest_confirmation.count()),
                      "one confirmation for each send", blame::confirmation};
    }
}

void check_confirm_in_time(CheckSession& session) {
    find_confirmations_once(session);
    if (session.confirmations == CheckSession::Confirmations::missing) {
        throw Skip{"confirmations are missing altogether (confirm-all)"};
    }
    if (session.confirmations == CheckSession::Confirmations::late) {
        throw Finding{fmt::format("confirmations are late: {} times a reply was still unconfirmed at the next request",
                                  lines_of(session).parked),
                      "a confirmation before the next request is handed to the library", blame::confirmation};
    }
}

void check_confirm_once(CheckSession& session) {
    find_confirmations_once(session);
    const int64_t twice = lines_of(session).confirmed_twice;
    if (twice > 0 && session.confirmations != CheckSession::Confirmations::in_time) {
        throw Skip{"confirmations are late or missing, and may have been made up for"};
    }
    if (twice > 0) {
        throw Finding{fmt::format("{} confirmations came when no reply was waiting for one", twice),
                      "one confirmation for each send, and none besides", blame::confirmation};
    }
}

void check_memory(CheckSession& session) {
    const int64_t refused = session.log ? lines_of(session).refused_memory : 0;
    if (refused > 0 || !session.refused_memory.empty()) {
        throw Finding{fmt::format("the camera refused memory: {}{}{}", fmt::join(session.refused_memory, ", "),
                                  refused > 0 && !session.refused_memory.empty() ? "; " : "",
                                  refused > 0 ? fmt::format("lines of its log that say so: {}", refused) : ""),
                      "600000 bytes for a request, and what its reply needs", blame::memory};
    }
    if (!session.silence.empty()) {
        throw Skip{session.silence};
    }
    if (!session.log) {
        throw Skip{"every request was answered; --camera-log FILE shows what memory was refused nevertheless"};
    }
    need_lines(session);
}

void check_pictures_opened(CheckSession& session) {
    need_lines(session);
    const int64_t unread = lines_of(session).unread_pictures;
    if (unread > 0) {
        throw Finding{fmt::format("{} times the library could not open or read the file at screennail_path", unread),
                      "a plain file that the process may read", fmt::format("{}, {}", blame::info, blame::save)};
    }
}

} // namespace desk::phone
