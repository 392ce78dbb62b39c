// The system log behind the library's __dlog_print: which lines are kept, and where they go.
#pragma once

#include <memory>
#include <string>

namespace desk::camera {

// Each level takes in the ones before it.
enum class LogLevel { off, error, warn, all };

struct LogOptions {
    std::string destination = "stderr"; // or "syslog", or "file:PATH"
    LogLevel level = LogLevel::warn;
    bool is_level_given = false; // standard error then takes as many lines as there are
};

// One line of the library, taken apart.
struct LogLine {
    LogLevel level = LogLevel::all;
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

    LogLevel level() const { return level_; }
    // A line as the library composes it.
    void write(int priority, const char* tag, const std::string& text);

  private:
    LogLevel level_;
    std::unique_ptr<Sink> sink_;
};

// Takes such a line apart: call site, colour, message, colour reset.
LogLine parse_log_line(int priority, const char* tag, const std::string& text);

} // namespace desk::camera
