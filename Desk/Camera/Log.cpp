#include "Log.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

#include "ADE_ShotMentor_Services.h"
#include "Talk.h"
#include "Common/Failure.h"

namespace desk {

class Log::Sink {
  public:
    virtual ~Sink() = default;
    virtual void write(const LogLine& line) = 0;
};

namespace {

constexpr int error_priority = 6;
constexpr const char* warning_color = "\033[31m"; // errors share it, and are told by their priority
constexpr const char* color_reset = "\033[m";

Log* current = nullptr;

char letter_of(LogLevel level) {
    switch (level) {
    case LogLevel::error:
        return 'E';
    case LogLevel::warn:
        return 'W';
    default:
        return 'I';
    }
}

// The library copies errors to standard error by itself, so this sink leaves them out.
class StderrSink : public Log::Sink {
  public:
    void write(const LogLine& line) override {
        if (line.level == LogLevel::error) {
            return;
        }
        const bool colored = in_color_ && !line.color.empty();
        std::fprintf(stderr, "%s[%-10s] %s%s\n", colored ? line.color.c_str() : "", line.tag.c_str(),
                     line.message.c_str(), colored ? color_reset : "");
    }

  private:
    bool in_color_ = isatty(STDERR_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
};

class FileSink : public Log::Sink {
  public:
    explicit FileSink(const std::string& path) : file_(std::fopen(path.c_str(), "ae"), &std::fclose) {
        if (file_ == nullptr) {
            throw Failure(exit_machine, "cannot write the log file " + path + ": " + std::strerror(errno));
        }
        std::setvbuf(file_.get(), nullptr, _IOLBF, BUFSIZ);
    }
    void write(const LogLine& line) override {
        std::fprintf(file_.get(), "%c [%-10s] %s\n", letter_of(line.level), line.tag.c_str(),
                     line.message.c_str());
    }

  private:
    std::unique_ptr<FILE, int (*)(FILE*)> file_;
};

class SyslogSink : public Log::Sink {
  public:
    SyslogSink() { openlog(program_name, LOG_PID, LOG_USER); }
    ~SyslogSink() override { closelog(); }
    void write(const LogLine& line) override {
        syslog(priority_of(line.level), "[%s] %s", line.tag.c_str(), line.message.c_str());
    }

  private:
    static int priority_of(LogLevel level) {
        return level == LogLevel::error ? LOG_ERR : level == LogLevel::warn ? LOG_WARNING : LOG_DEBUG;
    }
};

std::unique_ptr<Log::Sink> sink_for(const std::string& destination) {
    constexpr const char* file_scheme = "file:";
    if (destination == "stderr") {
        return std::make_unique<StderrSink>();
    }
    if (destination == "syslog") {
        return std::make_unique<SyslogSink>();
    }
    if (destination.rfind(file_scheme, 0) == 0 && destination.size() > std::strlen(file_scheme)) {
        return std::make_unique<FileSink>(destination.substr(std::strlen(file_scheme)));
    }
    throw Failure(exit_usage, "--log takes stderr, syslog or file:PATH, not \"" + destination + "\"");
}

LogLevel level_of(int priority, const std::string& color) {
    if (priority >= error_priority) {
        return LogLevel::error;
    }
    return color == warning_color ? LogLevel::warn : LogLevel::all;
}

// Cuts the colour out of the text and returns it: the first escape sequence up to its 'm'.
std::string take_color(std::string& text) {
    const size_t first = text.find('\033');
    const size_t end = first == std::string::npos ? first : text.find('m', first);
    if (end == std::string::npos) {
        return {};
    }
    const std::string color = text.substr(first, end + 1 - first);
    text.erase(first, color.size());
    return color;
}

void drop_ending(std::string& text, const std::string& ending) {
    if (text.size() >= ending.size() &&
        text.compare(text.size() - ending.size(), ending.size(), ending) == 0) {
        text.resize(text.size() - ending.size());
    }
}

} // namespace

Log::Log(const LogOptions& options) : level_(options.level), sink_(sink_for(options.destination)) {
    current = this;
}

Log::~Log() {
    current = nullptr;
}

void Log::write(const LogLine& line) {
    if (line.level <= level_) {
        sink_->write(line);
    }
}

LogLine parse_log_line(int priority, const char* tag, const std::string& text) {
    LogLine line;
    line.message = text;
    line.color = take_color(line.message);
    drop_ending(line.message, "\n");
    drop_ending(line.message, color_reset);
    line.message = without_controls(line.message);
    line.tag = without_controls(tag != nullptr ? tag : "");
    line.level = level_of(priority, line.color);
    return line;
}

} // namespace desk

// Lines that no level keeps are dropped before they are formatted: most of them, unless all are wanted.
extern "C" int __dlog_print(int, int priority, const char* tag, const char* format, ...) {
    using namespace desk;
    const LogLevel kept = current != nullptr ? current->level() : LogLevel::off;
    const bool is_error = priority >= error_priority;
    if (format == nullptr || kept == LogLevel::off || (kept == LogLevel::error && !is_error)) {
        return 0;
    }
    std::array<char, 1024> text; // the library's lines are shorter, others are cut
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    try {
        if (length >= 0) {
            current->write(parse_log_line(priority, tag, text.data()));
        }
    } catch (...) { // a line that finds no memory is lost; nothing may escape into the library
    }
    return length;
}
