// A scenario in a file: commands of the lab that run at a time, or after a number of requests.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace desk::camera {

class Lab;

struct ScriptStep {
    std::string place; // "scenario.txt:3"
    std::string command;
    std::chrono::milliseconds at{0};   // from the camera's start
    std::optional<int64_t> requests{}; // or when so many have been answered
};

// Throws Failure: exit_usage with the place of what is wrong, exit_machine for a file that cannot be read.
std::vector<ScriptStep> read_script(const std::string& path);

class Script {
  public:
    Script(asio::io_context& loop, std::vector<ScriptStep> steps, Lab& lab);

    // The time counts from here on; what is due at once has run when this returns.
    void start();
    // So many requests have been answered since the start.
    void requests_done(int64_t count);

  private:
    using Clock = std::chrono::steady_clock;

    void run_due();
    void run(const ScriptStep& step);

    asio::steady_timer timer_;
    Lab& lab_;
    std::vector<ScriptStep> timed_;   // in the order of their times
    std::vector<ScriptStep> counted_; // in the order of their counts
    size_t next_timed_ = 0;
    size_t next_counted_ = 0;
    Clock::time_point start_;
};

} // namespace desk::camera
