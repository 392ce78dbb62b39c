#include "Check.h"

#include <atomic>
#include <csignal>
#include <exception>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <utility>

#include "CheckReport.h"
#include "CheckSession.h"
#include "CheckTable.h"
#include "Common/Files.h"
#include "Common/Text.h"
#include "Options.h"
#include "Output.h"

namespace desk::phone {
namespace {

std::atomic<int> stop_signal{0};

void note_signal(int number) {
    stop_signal = number;
}

// Where packets have boundaries, a header, and one with a word too many, have to fit into one.
void require_large_packets(const Options& options) {
    constexpr size_t least = sizeof(sm_frame) + sizeof(int32_t);
    if (options.camera.keeps_message_boundaries() && options.mtu < least) {
        throw Failure(exit_usage,
                      fmt::format("--mtu {} is too small to check this link; give {} or more", options.mtu, least));
    }
}

// The first signal ends the run in order, the second one at once.
void heed_signals() {
    struct sigaction action = {};
    action.sa_handler = note_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM}) {
        sigaction(number, &action, nullptr);
    }
}

bool has_room(const CheckSession& session) {
    return session.presets.foreign().size() + room_of_checks <= SM_PRESET_LIMIT;
}

// Why a check cannot be made, empty when it can.
std::string obstacle(const Check& check, const CheckSession& session, const Options& options) {
    const auto needs = [&](CheckNeeds need) { return (check.needs & need) != 0; };
    if (!session.silence.empty() && check.heading != guide::memory) {
        return session.silence;
    }
    if (needs(needs_list) && !session.presets.has_begun()) {
        return "the camera gives no list";
    }
    if (needs(needs_room) && !has_room(session)) {
        return fmt::format("the camera holds {} presets, and there has to be room for {} more; delete some",
                           session.presets.foreign().size(), room_of_checks);
    }
    if (needs(needs_stored) && !session.store_fault.empty()) {
        return session.store_fault;
    }
    if (needs(needs_deletion) && !session.deletion_fault.empty()) {
        return session.deletion_fault;
    }
    if (needs(needs_boundaries) && !session.probe.keeps_message_boundaries()) {
        return "this link keeps no message boundaries";
    }
    if (needs(needs_stream) && session.probe.keeps_message_boundaries()) {
        return "this link keeps message boundaries";
    }
    if (needs(needs_time) && options.quick) {
        return "--quick was given";
    }
    if (needs(needs_log) && !session.log) {
        return "--camera-log FILE shows it";
    }
    return "";
}

void run_one(const Check& check, CheckSession& session, Outcome& outcome) {
    try {
        check.run(session);
        outcome.kind = Outcome::Kind::passed;
        outcome.note = std::exchange(session.note, "");
    } catch (const Finding& finding) {
        outcome.kind = Outcome::Kind::failed;
        outcome.finding = finding;
    } catch (const Skip& skip) {
        outcome.why = skip.why;
    } catch (const Failure& failure) { // a reply that is none, a log that cannot be read
        outcome.kind = Outcome::Kind::failed;
        outcome.finding = {failure.what(), "what Docs/protocol.md promises", blame::send};
    }
}

Outcome outcome_of(const Check& check, CheckSession& session, const Options& options) {
    Outcome outcome = {&check, Outcome::Kind::skipped, {}, obstacle(check, session, options), "", 0};
    if (!outcome.why.empty()) {
        return outcome;
    }
    const Clock::time_point begin = Clock::now();
    run_one(check, session, outcome);
    if (outcome.kind == Outcome::Kind::failed && session.silence.empty()) {
        session.recover();
    }
    outcome.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    return outcome;
}

void add(CheckReport& report, Outcome outcome, const Options& options) {
    if (!options.json) {
        print(lines_of(outcome));
    }
    report.outcomes.push_back(std::move(outcome));
}

void run_checks(CheckSession& session, CheckReport& report, const Options& options) {
    for (const Check& check : all_checks()) {
        if (!report.stopped) {
            try {
                add(report, outcome_of(check, session, options), options);
                continue;
            } catch (const Interrupted&) { // what was under way shows as the first that was stopped
                report.stopped = true;
                session.probe.heed(nullptr);
            }
        }
        add(report, {&check, Outcome::Kind::skipped, {}, "a signal stopped the run", "", 0}, options);
    }
}

void finish(CheckSession& session, CheckReport& report) {
    session.probe.heed(nullptr);
    report.cleanup = session.cleanup && !report.stopped ? *session.cleanup : session.clean_up();
    report.model = session.model;
    if (session.presets.has_begun()) {
        report.presets = session.presets.foreign().size();
        report.leftovers = session.presets.leftovers();
    }
}

void tell(const CheckReport& report, const Options& options) {
    if (options.json) {
        print_json(json_of(report));
    } else {
        print(summary_of(report));
    }
    if (!options.junit_file.empty()) {
        const std::string text = junit_of(report);
        write_file(options.junit_file, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    }
}

int exit_code_of(const CheckReport& report) {
    if (report.stopped) {
        return exit_stopped;
    }
    const bool is_as_before = report.cleanup.left.empty() && report.cleanup.harm.empty();
    return report.count(Outcome::Kind::failed) == 0 && is_as_before ? exit_done : exit_faulty_camera;
}

} // namespace

int check(const Options& options) {
    if (options.list_checks) {
        print(lines_of_all_checks());
        return exit_done;
    }
    require_large_packets(options);
    heed_signals();
    CheckSession session(options);
    session.probe.heed(&stop_signal);
    CheckReport report;
    report.camera = options.camera.url();
    try {
        run_checks(session, report, options);
    } catch (const Busy&) {
        throw Failure(exit_busy, "the camera is busy with another phone");
    } catch (...) { // nobody reads what is printed, or this machine fails
        finish(session, report);
        throw;
    }
    finish(session, report);
    tell(report, options);
    return exit_code_of(report);
}

} // namespace desk::phone
