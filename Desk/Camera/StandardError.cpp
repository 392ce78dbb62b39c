#include "StandardError.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "Budgets.h"
#include "Colors.h"
#include "Common/Descriptor.h"
#include "Common/Text.h"
#include "Log.h"
#include "Talk.h"

namespace desk::camera {
namespace {

using Clock = std::chrono::steady_clock;

// ---- Where the lines go ---------------------------------------------------------------------------------------------

bool is_same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_rdev == other.st_rdev;
}

// Pipes and terminals are opened once more, so that writing does not wait: the caller's own way to them is shared with
// others, and has to stay as it is.
Descriptor open_without_waiting() {
    struct stat given = {};
    struct stat opened = {};
    if (::fstat(STDERR_FILENO, &given) != 0 || !(S_ISFIFO(given.st_mode) || S_ISCHR(given.st_mode))) {
        return Descriptor();
    }
    Descriptor own(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const bool is_same = own.get() >= 0 && ::fstat(own.get(), &opened) == 0 && is_same_file(given, opened);
    return is_same ? std::move(own) : Descriptor();
}

bool is_socket(int descriptor) {
    struct stat file = {};
    return ::fstat(descriptor, &file) == 0 && S_ISSOCK(file.st_mode);
}

bool has_room(int descriptor) {
    pollfd state = {};
    state.fd = descriptor;
    state.events = POLLOUT;
    return ::poll(&state, 1, 0) > 0 && (state.revents & POLLOUT) != 0;
}

// Takes a line at once or not at all.
class Outlet {
  public:
    Outlet() : own_(open_without_waiting()), is_socket_(is_socket(STDERR_FILENO)) {}

    bool write(std::string_view line) {
        if (!write_rest()) {
            return false;
        }
        const ssize_t length = write_some(line);
        if (length < 0) {
            return false;
        }
        rest_ = line.substr(static_cast<size_t>(length));
        return true;
    }

    // A terminal may take a line in half.
    bool write_rest() {
        if (!rest_.empty()) {
            const ssize_t length = write_some(rest_);
            rest_.erase(0, length > 0 ? static_cast<size_t>(length) : 0);
        }
        return rest_.empty();
    }

  private:
    ssize_t write_some(std::string_view text) const {
        if (is_socket_) {
            return ::send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (own_.get() >= 0) {
            return ::write(own_.get(), text.data(), text.size());
        }
        return has_room(STDERR_FILENO) ? ::write(STDERR_FILENO, text.data(), text.size()) : -1;
    }

    Descriptor own_;
    bool is_socket_;
    std::string rest_;
};

// ---- How many they are ----------------------------------------------------------------------------------------------

// Fills with time up to a number of lines. Once empty it gives none until it holds those of a second, so that what is
// left out makes one gap a second, not one behind every line.
class LineBudget {
  public:
    bool take() {
        if (!gives()) {
            return false;
        }
        lines_ -= 1;
        is_exhausted_ = lines_ < 1;
        return true;
    }

    bool gives() {
        refill();
        is_exhausted_ = is_exhausted_ && lines_ < budget::lines_a_second;
        return !is_exhausted_;
    }

  private:
    void refill() {
        const Clock::time_point now = Clock::now();
        const std::chrono::duration<double> passed = now - filled_;
        lines_ = std::min<double>(lines_ + passed.count() * budget::lines_a_second, budget::lines_at_once);
        filled_ = now;
    }

    double lines_ = budget::lines_at_once;
    Clock::time_point filled_ = Clock::now();
    bool is_exhausted_ = false;
};

// ---- What they are --------------------------------------------------------------------------------------------------

constexpr size_t bytes_of_a_replacement = 3;
constexpr size_t bytes_of_colors_and_end = 16;
static_assert(bytes_of_a_replacement * budget::longest_line + bytes_of_colors_and_end <= PIPE_BUF);
static_assert(bytes_of_a_replacement * budget::longest_message + budget::longest_fields <= PIPE_BUF);

// The longest start of a text that has `most` bytes, without cutting a character of UTF-8 in two.
size_t length_of_start(std::string_view text, size_t most) {
    if (text.size() <= most) {
        return text.size();
    }
    size_t length = most;
    const auto continues = [&](size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80; };
    for (int back = 0; back < 3 && continues(length); ++back) {
        --length;
    }
    return continues(length) ? most : length;
}

size_t length_of_line(std::string_view text) {
    return length_of_start(text, budget::longest_line);
}

template<class Take>
void break_up(std::string_view text, size_t most, Take take) {
    do {
        const size_t length = length_of_start(text, most);
        take(text.substr(0, length));
        text.remove_prefix(length);
    } while (!text.empty());
}

// Cuts what is written in any pieces into lines.
class LineCutter {
  public:
    template<class Take>
    void cut(std::string_view text, Take take) {
        partial_ += text;
        size_t start = 0;
        for (size_t end = 0; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
            break_up(std::string_view(partial_).substr(start, end - start), budget::longest_line, take);
        }
        while (partial_.size() - start > budget::longest_line) {
            const std::string_view rest = std::string_view(partial_).substr(start);
            take(rest.substr(0, length_of_line(rest)));
            start += length_of_line(rest);
        }
        partial_.erase(0, start);
    }

    // What has no end yet is a line, too.
    template<class Take>
    void finish(Take take) {
        if (!partial_.empty()) {
            cut("\n", take);
        }
    }

  private:
    std::string partial_;
};

// A line that the library has written to standard error itself, which it does with errors alone: "[tag       ] text".
// What has no tag is somebody else's.
Said said_by_library(std::string_view line) {
    const size_t end = line.find("] ");
    if (!line.starts_with('[') || end == std::string_view::npos) {
        return {kind_log, nlohmann::ordered_json::object(), std::string(line)};
    }
    const std::string_view padded = line.substr(1, end - 1);
    const std::string tag(padded.substr(0, padded.find_last_not_of(' ') + 1));
    return {kind_log, {{"level", "error"}, {"tag", tag}}, std::string(line.substr(end + 2))};
}

} // namespace

// ---- All of it ------------------------------------------------------------------------------------------------------

struct StandardError::State {
    static ssize_t take_written(void* state, const char* text, size_t length);

    void take_from_library(std::string_view line);
    bool leave_out_if_too_many(bool is_limited);
    void take_log_line(const LogLine& line);
    void put(const Said& said, bool is_limited);
    void put_text(std::string_view line, const std::string& color);
    void put_line(const std::string& line);
    bool write(const std::string& line) { return tell_missing() && outlet.write(line); }
    bool tell_missing();
    bool tell_missing(size_t& missing, const std::string& why);
    bool is_complete() const { return too_many == 0 && untaken == 0; }
    void fall_behind();

    FILE* stream = nullptr;
    FILE* original = stderr;
    Outlet outlet;
    LineBudget lines;
    LineCutter cutter;
    bool is_library_limited = true;
    bool speaks_json = false;
    bool shows_colors = isatty(STDERR_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
    size_t too_many = 0; // lines that the budget has left out
    size_t untaken = 0;  // lines that nobody took
    std::function<void()> when_behind;
    bool is_behind = false;

    static State* current;
};

StandardError::State* StandardError::State::current = nullptr;

// Whoever writes is told that all went well, and finds errno as it was: there is nobody to complain to.
ssize_t StandardError::State::take_written(void* state, const char* text, size_t length) {
    const int error = errno;
    auto& self = *static_cast<State*>(state);
    try {
        self.cutter.cut({text, length}, [&](std::string_view line) { self.take_from_library(line); });
    } catch (...) { // no memory: the line is lost; nothing may escape into the library
    }
    errno = error;
    return static_cast<ssize_t>(length);
}

// The budget is asked first: a phone can cause hundreds of thousands of lines in a second.
void StandardError::State::take_from_library(std::string_view line) {
    if (leave_out_if_too_many(is_library_limited)) {
        return;
    }
    std::string plain(line);
    const std::string color = take_colors(plain);
    if (speaks_json) {
        put(said_by_library(plain), false);
    } else {
        put_text(plain, color);
    }
}

void StandardError::State::take_log_line(const LogLine& line) {
    if (leave_out_if_too_many(is_library_limited)) {
        return;
    }
    if (speaks_json) {
        put({kind_log, {{"level", name_of_level(line.level)}, {"tag", line.tag}}, line.message}, false);
    } else {
        put_text(fmt::format("[{:<10}] {}", line.tag, line.message), line.color);
    }
}

bool StandardError::State::leave_out_if_too_many(bool is_limited) {
    if (!is_limited || lines.take()) {
        return false;
    }
    ++too_many;
    fall_behind();
    return true;
}

// What is too long for one line is broken. Of several JSON objects the first one has the fields.
void StandardError::State::put(const Said& said, bool is_limited) {
    if (!speaks_json) {
        break_up(text_of(said), budget::longest_line, [&](std::string_view piece) {
            if (!leave_out_if_too_many(is_limited)) {
                put_text(piece, {});
            }
        });
        return;
    }
    Said part = said;
    break_up(said.message, budget::longest_message, [&](std::string_view piece) {
        if (!leave_out_if_too_many(is_limited)) {
            part.message = piece;
            put_line(json_of(part) + "\n");
        }
        part.fields = {{"continued", true}};
    });
}

void StandardError::State::put_text(std::string_view line, const std::string& color) {
    const bool is_colored = shows_colors && !color.empty();
    const std::string text = printable(line);
    put_line(is_colored ? color + text + color_reset + "\n" : text + "\n");
}

void StandardError::State::put_line(const std::string& line) {
    if (!write(line)) {
        ++untaken;
        fall_behind();
    }
}

bool StandardError::State::tell_missing() {
    if (!tell_missing(untaken, "nobody took them in time")) {
        return false;
    }
    return !lines.gives() ||
           tell_missing(too_many, fmt::format("more than {} came in a second", +budget::lines_a_second));
}

bool StandardError::State::tell_missing(size_t& missing, const std::string& why) {
    if (missing == 0) {
        return true;
    }
    const Said said = {
        "missing", {{"lines", missing}, {"reason", why}}, fmt::format("{} lines are missing here: {}", missing, why)};
    if (outlet.write((speaks_json ? json_of(said) : text_of(said)) + "\n")) {
        missing = 0;
    }
    return missing == 0;
}

void StandardError::State::fall_behind() {
    if (when_behind && !std::exchange(is_behind, true)) {
        when_behind();
    }
}

// Not buffered: a line that ends the process must not wait for another one.
StandardError::StandardError() : state_(std::make_unique<State>()) {
    State::current = state_.get();
    state_->stream = ::fopencookie(state_.get(), "w", {nullptr, &State::take_written, nullptr, nullptr});
    if (state_->stream != nullptr) {
        std::setvbuf(state_->stream, nullptr, _IONBF, 0);
        stderr = state_->stream;
    }
}

StandardError::~StandardError() {
    stderr = state_->original;
    if (state_->stream != nullptr) {
        std::fclose(state_->stream);
    }
    state_->when_behind = nullptr;
    try {
        state_->cutter.finish([&](std::string_view line) { state_->take_from_library(line); });
        state_->lines = LineBudget();
        catch_up();
    } catch (...) { // no memory: what is left stays untold
    }
    State::current = nullptr;
}

void StandardError::speak_json() {
    if (State::current != nullptr) {
        State::current->speaks_json = true;
    }
}

void StandardError::tell(const Said& said) {
    if (State::current == nullptr) {
        std::fprintf(stderr, "%s\n", printable(text_of(said)).c_str());
        return;
    }
    State::current->put(said, true);
}

void StandardError::log(const LogLine& line) {
    if (State::current != nullptr) {
        State::current->take_log_line(line);
    }
}

void StandardError::lift_limit_of_library() {
    if (State::current != nullptr) {
        State::current->is_library_limited = false;
    }
}

void StandardError::when_behind(std::function<void()> handler) {
    if (State::current != nullptr) {
        State::current->when_behind = std::move(handler);
        State::current->is_behind = false;
        if (!State::current->is_complete()) {
            State::current->fall_behind();
        }
    }
}

bool StandardError::catch_up() {
    State* const state = State::current;
    if (state == nullptr) {
        return true;
    }
    state->is_behind = !(state->outlet.write_rest() && state->tell_missing() && state->is_complete());
    return !state->is_behind;
}

} // namespace desk::camera
