#include "Log.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "ADE_ShotMentor_Services.h"
#include "Colors.h"
#include "Common/Descriptor.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "StandardError.h"
#include "Talk.h"

namespace desk::camera {

class Log::Sink {
  public:
    virtual ~Sink() = default;
    virtual void write(const LogLine& line) = 0;
};

namespace {

Log* current = nullptr;

char letter_of(alg_log_level level) {
    return level == ALG_LOG_LEVEL_ERROR ? 'E' : level == ALG_LOG_LEVEL_WARN ? 'W' : 'I';
}

// The library copies errors to standard error by itself, so this sink leaves them out.
class StderrSink : public Log::Sink {
  public:
    explicit StderrSink(const LogOptions& options) {
        if (options.is_choice_given && !options.choice.is_nothing()) {
            StandardError::lift_limit_of_library();
        }
    }
    void write(const LogLine& line) override {
        if (line.level != ALG_LOG_LEVEL_ERROR) {
            StandardError::log(line);
        }
    }
};

[[noreturn]] void throw_file_failure(const std::string& path, const std::string& why) {
    throw Failure(exit_machine, "cannot write the log file " + path + ": " + why);
}

// Without waiting: a pipe would keep the camera until somebody reads it.
Descriptor open_log_file(const std::string& path) {
    constexpr const char* no_file = "it is no regular file; name one that is, or a new one";
    Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (file.get() < 0) {
        throw_file_failure(path, errno == ENXIO ? no_file : std::strerror(errno));
    }
    struct stat kind = {};
    if (::fstat(file.get(), &kind) != 0 || !(S_ISREG(kind.st_mode) || S_ISCHR(kind.st_mode))) {
        throw_file_failure(path, no_file);
    }
    return file;
}

// A line at a time, so that each is there when the process dies.
class FileSink : public Log::Sink {
  public:
    explicit FileSink(const std::string& path) : file_(open_log_file(path)) {}
    void write(const LogLine& line) override {
        const std::string text = fmt::format("{} [{:<10}] {}\n", letter_of(line.level), line.tag, line.message);
        // What the file does not take is lost: there is nobody to tell of each line.
        [[maybe_unused]] const ssize_t length = ::write(file_.get(), text.data(), text.size());
    }

  private:
    Descriptor file_;
};

class SyslogSink : public Log::Sink {
  public:
    SyslogSink() { openlog(program_name, LOG_PID, LOG_USER); }
    ~SyslogSink() override { closelog(); }
    void write(const LogLine& line) override {
        syslog(priority_of(line.level), "[%s] %s", line.tag.c_str(), line.message.c_str());
    }

  private:
    static int priority_of(alg_log_level level) {
        return level == ALG_LOG_LEVEL_ERROR ? LOG_ERR : level == ALG_LOG_LEVEL_WARN ? LOG_WARNING : LOG_DEBUG;
    }
};

std::unique_ptr<Log::Sink> sink_for(const LogOptions& options) {
    const std::string& destination = options.destination;
    constexpr const char* file_scheme = "file:";
    if (destination == "stderr") {
        return std::make_unique<StderrSink>(options);
    }
    if (destination == "syslog") {
        return std::make_unique<SyslogSink>();
    }
    if (destination.rfind(file_scheme, 0) == 0 && destination.size() > std::strlen(file_scheme)) {
        return std::make_unique<FileSink>(destination.substr(std::strlen(file_scheme)));
    }
    throw Failure(exit_usage, "--log takes stderr, syslog or file:PATH, not \"" + destination + "\"");
}

// By the first colour, which is the library's own: what a phone has sent stands behind it. Errors share theirs with
// warnings, and are told by their priority.
alg_log_level level_of(int priority, std::string_view text) {
    if (priority >= ALG_LOG_PRIORITY_ERROR) {
        return ALG_LOG_LEVEL_ERROR;
    }
    const size_t color = text.find('\033');
    return color == std::string_view::npos ? ALG_LOG_LEVEL_PLAIN : level_of_color(text.substr(color));
}

// The level of a line where it can be told without formatting. A list causes some 3,000 lines: the library's have their
// text, which begins with its colour, as the last argument of one format.
std::optional<alg_log_level> level_before_formatting(int priority, const char* format, va_list arguments) {
    if (priority >= ALG_LOG_PRIORITY_ERROR) {
        return ALG_LOG_LEVEL_ERROR;
    }
    if (std::strcmp(format, "%s: %s(%d) > %s") != 0) {
        return std::nullopt;
    }
    (void)va_arg(arguments, const char*);
    (void)va_arg(arguments, const char*);
    (void)va_arg(arguments, int);
    return level_of_color(va_arg(arguments, const char*));
}

void drop_ending(std::string& text, const std::string& ending) {
    if (text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0) {
        text.resize(text.size() - ending.size());
    }
}

} // namespace

Log::Log(const LogOptions& options) : choice_(options.choice), sink_(sink_for(options)) {
    current = this;
}

Log::~Log() {
    current = nullptr;
}

// The level is asked for first: a phone can cause hundreds of thousands of lines in a second.
void Log::write(int priority, const char* tag, const std::string& text) {
    if (choice_.of_tag(tag).test(level_of(priority, text))) {
        sink_->write(parse_log_line(priority, tag, text));
    }
}

LogLine parse_log_line(int priority, const char* tag, const std::string& text) {
    LogLine line;
    line.message = text;
    line.color = take_colors(line.message);
    drop_ending(line.message, "\n");
    line.message = printable(line.message);
    line.tag = printable(tag != nullptr ? tag : "");
    line.level = level_of(priority, text);
    return line;
}

} // namespace desk::camera

// Lines that nobody wants are dropped before they are formatted: most of them, unless all are wanted.
extern "C" int __dlog_print(int, int priority, const char* tag, const char* format, ...) {
    using namespace desk::camera;
    const LogLevels kept = current != nullptr ? current->choice().of_tag(tag) : LogLevels();
    if (format == nullptr || kept.none()) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::optional<alg_log_level> level = level_before_formatting(priority, format, arguments);
    va_end(arguments);
    if (level && !kept.test(*level)) {
        return 0;
    }
    std::array<char, 1024> text; // the library's lines are shorter, others are cut
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    try {
        if (length >= 0) {
            current->write(priority, tag, text.data());
        }
    } catch (...) { // a line that finds no memory is lost; nothing may escape into the library
    }
    return length;
}
