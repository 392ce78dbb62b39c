#include "Script.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <sstream>
#include <string_view>

#include "Budgets.h"
#include "Common/Failure.h"
#include "Common/Files.h"
#include "Lab.h"
#include "LabTalk.h"

namespace desk::camera {
namespace {

// ---- Reading --------------------------------------------------------------------------------------------------------

constexpr double longest_time = 1e6; // seconds

// "2.5s" or "300ms".
std::optional<std::chrono::milliseconds> time_in(const std::string& text) {
    double number = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, std::chars_format::fixed);
    const std::string_view unit(end, static_cast<size_t>(last - end));
    const double seconds = unit == "ms" ? number / 1000 : number;
    const bool is_time =
        error == std::errc() && (unit == "s" || unit == "ms") && seconds >= 0 && seconds <= longest_time;
    return is_time ? std::optional(std::chrono::milliseconds(std::llround(seconds * 1000))) : std::nullopt;
}

std::optional<int64_t> count_in(const std::string& text) {
    int count = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, count);
    return error == std::errc() && end == last && count > 0 ? std::optional<int64_t>(count) : std::nullopt;
}

// What stands in front of a command: when it is to run.
void read_time(std::istream& words, ScriptStep& step) {
    std::string first;
    std::string second;
    words >> first >> second;
    if (first == "at") {
        const auto time = time_in(second);
        if (!time) {
            throw Failure(exit_usage, "the time is no number of s or ms up to 1000000s, such as 2.5s or 300ms");
        }
        step.at = *time;
        return;
    }
    std::string count;
    if (first == "after" && second == "request") {
        words >> count;
        step.requests = count_in(count);
        if (!step.requests) {
            throw Failure(exit_usage, "the number of requests is none from 1, such as after request 3");
        }
        return;
    }
    throw Failure(exit_usage, "a line begins with \"at TIME\" or \"after request N\"");
}

ScriptStep step_of(const std::string& line, const std::string& place) {
    std::istringstream words(line);
    ScriptStep step = {place, "", {}, {}};
    read_time(words, step);
    std::getline(words >> std::ws, step.command);
    check_lab_command(step.command);
    return step;
}

} // namespace

std::vector<ScriptStep> read_script(const std::string& path) {
    const Bytes bytes = read_file(path, budget::longest_script, "make several scripts of it");
    std::istringstream input(std::string(bytes.begin(), bytes.end()));
    std::vector<ScriptStep> steps;
    int number = 0;
    for (std::string line; std::getline(input, line);) {
        const std::string place = fmt::format("{}:{}", path, ++number);
        line.resize(std::min(line.find('#'), line.size()));
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        try {
            steps.push_back(step_of(line, place));
        } catch (const Failure& failure) {
            throw Failure(exit_usage, place + ": " + failure.what());
        }
    }
    return steps;
}

// ---- Running --------------------------------------------------------------------------------------------------------

Script::Script(asio::io_context& loop, std::vector<ScriptStep> steps, Lab& lab) : timer_(loop), lab_(lab) {
    for (ScriptStep& step : steps) {
        (step.requests ? counted_ : timed_).push_back(std::move(step));
    }
    std::ranges::stable_sort(timed_, {}, &ScriptStep::at);
    std::ranges::stable_sort(counted_, {}, &ScriptStep::requests);
}

void Script::start() {
    start_ = Clock::now();
    run_due();
}

void Script::run_due() {
    for (; next_timed_ < timed_.size() && start_ + timed_[next_timed_].at <= Clock::now(); ++next_timed_) {
        run(timed_[next_timed_]);
    }
    if (next_timed_ == timed_.size()) {
        return;
    }
    timer_.expires_at(start_ + timed_[next_timed_].at);
    timer_.async_wait([this](const asio::error_code& error) {
        if (!error) {
            run_due();
        }
    });
}

void Script::requests_done(int64_t count) {
    for (; next_counted_ < counted_.size() && *counted_[next_counted_].requests <= count; ++next_counted_) {
        run(counted_[next_counted_]);
    }
}

void Script::run(const ScriptStep& step) {
    try {
        if (const std::string answer = lab_.run(step.command, step.place); !answer.empty()) {
            tell_of_command(step.command + ": " + answer, step.place);
        }
    } catch (const Failure& failure) {
        tell_of_refused_command(step.command, step.place, failure.what());
    }
}

} // namespace desk::camera
