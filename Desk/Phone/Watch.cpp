#include "Watch.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <unistd.h>

#include "CameraClient.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "LiveTable.h"
#include "Output.h"
#include "PresetChanges.h"

namespace desk::phone {
namespace {

using Presets = std::vector<sm_tag_custom_info>;

// ---- Signals --------------------------------------------------------------------------------------------------------

constexpr int ending_signals[] = {SIGINT, SIGTERM};

std::atomic<bool> echoes_keys{false}; // the terminal has shown ^C, and the next prompt needs a line of its own

// Nothing is under way that would be left in half: the signals are let in only where nothing is written.
void end_now(int number) {
    if (number == SIGINT && echoes_keys) {
        static_cast<void>(!write(STDOUT_FILENO, "\n", 1));
    }
    _exit(exit_done);
}

sigset_t set_of_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : ending_signals) {
        sigaddset(&set, number);
    }
    return set;
}

// What our caller has us ignore stays ignored.
void heed_signals() {
    echoes_keys = output_is_terminal();
    const sigset_t set = set_of_signals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    for (const int number : ending_signals) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            action = {};
            action.sa_handler = end_now;
            sigaction(number, &action, nullptr);
        }
    }
}

// While it lives, a signal ends the program.
class SignalsLetIn {
  public:
    SignalsLetIn() { sigprocmask(SIG_UNBLOCK, &set_, nullptr); }
    SignalsLetIn(const SignalsLetIn&) = delete;
    SignalsLetIn& operator=(const SignalsLetIn&) = delete;
    ~SignalsLetIn() { sigprocmask(SIG_BLOCK, &set_, nullptr); }

  private:
    sigset_t set_ = set_of_signals();
};

// ---- Time -----------------------------------------------------------------------------------------------------------

std::string time_text(const char* format, std::tm* (*parts_of)(const std::time_t*, std::tm*)) {
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    parts_of(&now, &parts);
    char text[40] = {};
    return {text, std::strftime(text, sizeof text, format, &parts)};
}

std::string local_time() {
    return time_text("%H:%M:%S", localtime_r);
}

std::string universal_time() {
    return time_text("%Y-%m-%dT%H:%M:%SZ", gmtime_r);
}

// Ends early when whoever read our output has gone.
void pause(std::chrono::milliseconds interval) {
    const SignalsLetIn signals;
    const Clock::time_point end = Clock::now() + interval;
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        pollfd output = {STDOUT_FILENO, 0, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        if (poll(&output, 1, static_cast<int>(left.count())) > 0) {
            throw OutputClosed{};
        }
    }
}

// ---- Looks ----------------------------------------------------------------------------------------------------------

class Watch {
  public:
    explicit Watch(const Options& options)
        : options_(options),
          is_live_(output_is_terminal() && terminal_can_redraw() && !options.json && !options.verbose),
          interval_(fmt::format("{:g} s", std::chrono::duration<double>(*options.watch).count())) {}

    void look() {
        try {
            take(presets());
        } catch (const Failure& failure) {
            if (!is_worth_another_look(failure)) {
                throw;
            }
            has_answered_ = true;
            tell_trouble(failure.what());
        }
    }

  private:
    Presets presets() const {
        const SignalsLetIn signals;
        return CameraClient(options_).list().presets;
    }

    // A camera that has answered once, if only that it is busy, is there.
    bool is_worth_another_look(const Failure& failure) const {
        const bool is_of_camera =
            failure.code() == exit_link || failure.code() == exit_timeout || failure.code() == exit_protocol;
        return failure.code() == exit_busy || (has_answered_ && is_of_camera);
    }

    void take(Presets now) {
        const std::vector<PresetChange> changes = has_presets_ ? changes_between(presets_, now) : listed(now);
        const bool is_back = !trouble_.empty();
        has_answered_ = true;
        trouble_.clear();
        if (!is_live_) {
            mention(is_back ? "the camera answers again" : "");
            tell(changes);
        } else if (!has_presets_ || !changes.empty()) {
            changed_at_ = local_time();
        }
        has_presets_ = true;
        presets_ = std::move(now);
        draw();
    }

    void tell_trouble(const std::string& trouble) {
        if (trouble == trouble_) {
            return;
        }
        trouble_ = trouble;
        if (is_live_) {
            draw(fmt::format("{} {}; trying again every {}", local_time(), printable(trouble), interval_));
        } else {
            mention(fmt::format("{} {}; trying again every {}", local_time(), trouble, interval_));
        }
    }

    void mention(const std::string& line) const {
        if (!options_.quiet && !line.empty()) {
            say(line);
        }
    }

    void tell(const std::vector<PresetChange>& changes) const {
        for (const PresetChange& change : changes) {
            if (options_.json) {
                nlohmann::ordered_json json = {{"time", universal_time()}};
                json.update(json_of(change, options_.raw ? Form::raw : Form::words));
                print(escaped_json(json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)) + "\n");
            } else {
                print(fmt::format("{} {}\n", local_time(), line_of(change)));
            }
        }
    }

    void draw() {
        draw(fmt::format("{} preset{}, changed at {}; a look every {}, Ctrl-C ends", presets_.size(),
                         presets_.size() == 1 ? "" : "s", changed_at_, interval_));
    }

    void draw(const std::string& below) {
        if (is_live_) {
            table_.show(rows_of(presets_, options_.raw), below, options_.width.value_or(0));
        }
    }

    const Options& options_;
    bool is_live_;
    std::string interval_;
    LiveTable table_;
    Presets presets_;
    bool has_presets_ = false;
    bool has_answered_ = false;
    std::string trouble_; // that was told last; nothing when the last look went well
    std::string changed_at_;
};

} // namespace

int watch(const Options& options) {
    heed_signals();
    Watch watch(options);
    while (true) {
        watch.look();
        pause(*options.watch);
    }
}

} // namespace desk::phone
