// The system log behind the library's __dlog_print: which lines are kept, and where they go.
#pragma once

#include <memory>
#include <string>

#include "LogChoice.h"

namespace desk::camera {

struct LogOptions {
    std::string destination = "stderr"; // or "syslog", or "file:PATH"
    LogChoice choice;
    bool is_choice_given = false; // standard error then takes as many lines as there are
};

// One line of the library, taken apart.
struct LogLine {
    alg_log_level level = ALG_LOG_LEVEL_PLAIN;
    std::string tag;
    std::string color;   // the escape sequence that it begins with; may be empty
    std::string message; // without colour and line end, and fit for a terminal
};

// While one exists, the library's lines go to its destination; without one they are dropped. Throws Failure (exit_usage
// for an unknown destination, exit_machine for a file that cannot be written).
class Log {
  public:
    class Sink;

    explicit Log(const LogOptions& options);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    const LogChoice& choice() const { return choice_; }
    // A line as the library composes it.
    void write(int priority, const char* tag, const std::string& text);

  private:
    LogChoice choice_;
    std::unique_ptr<Sink> sink_;
};

// Takes such a line apart: call site, colour, message, colour reset.
LogLine parse_log_line(int priority, const char* tag, const std::string& text);

} // namespace desk::camera
