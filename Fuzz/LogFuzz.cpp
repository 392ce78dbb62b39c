// One line of the log for each message that the input holds, at every level and under every kind of tag: what reaches
// the system log and standard error, to the byte.

#include <cstring>
#include <string>

#include "ADE_ShotMentor_Log.h"
#include "FuzzHost.h"

namespace {

using fuzz::Input;
using fuzz::last_line;

constexpr size_t longest_message_tried = 700;
constexpr const char* tags[] = {"ALG_SMM", "ALG_SM",     "",     "PERF",        "BTLOG",
                                "xPERFx",  "PERF_BTLOG", "BTLO", "a long tag !"};

char on_standard_error[2 * longest_message_tried];

struct Level {
    const char* color;
    int priority;
    size_t longest_message;
};

constexpr Level levels[ALG_LOG_LEVELS] = {
    {"\033[m", 4, 247},   {"\033[32m", 4, 245}, {"\033[33m", 4, 245},
    {"\033[36m", 4, 245}, {"\033[31m", 4, 245}, {"\033[31m", 6, 245},
};

bool contains(const char* tag, const char* word) {
    return std::string(tag).find(word) != std::string::npos;
}

// Cut to the longest message first; then one newline goes, and one comes back behind the colour reset.
std::string finished(const Level& level, std::string message) {
    message.resize(std::min(message.size(), level.longest_message));
    if (!message.empty() && message.back() == '\n') {
        message.pop_back();
    }
    return level.color + message + "\033[m\n";
}

void check_standard_error(bool is_error, const char* tag, const std::string& text) {
    std::fflush(stderr);
    char label[32];
    std::snprintf(label, sizeof label, "[%-10s] ", tag);
    PROMISE(on_standard_error == (is_error ? label + text : std::string()));
}

void log_message(Input& input) {
    const auto level = static_cast<alg_log_level>(input.below(ALG_LOG_LEVELS));
    const char* const tag = tags[input.below(std::size(tags))];
    const size_t length =
        input.flag() ? 240 + static_cast<size_t>(input.below(16)) : input.size_below(longest_message_tried - 1);
    std::string message(length, 'x');
    for (char& character : message) {
        const uint8_t byte = input.empty() ? uint8_t{'x'} : input.byte();
        character = byte == 0 ? '\n' : static_cast<char>(byte);
    }
    for (int newlines = input.below(3); newlines > 0 && message.size() < longest_message_tried; --newlines) {
        message += '\n';
    }

    std::memset(on_standard_error, 0, sizeof on_standard_error);
    std::rewind(stderr);
    fuzz::log_lines = 0;
    const int line = __LINE__ + 1;
    ALG_LOG(level, tag, "%s", message.c_str());

    const Level& expected = levels[level];
    const bool is_error = level == ALG_LOG_LEVEL_ERROR;
    const bool is_bare = !is_error && contains(tag, "BTLOG");
    const bool has_site = !contains(tag, "BTLOG") && !contains(tag, "PERF");
    const std::string text = is_bare ? message : finished(expected, message);
    PROMISE(fuzz::log_lines == 1);
    PROMISE(last_line.buffer == 3 && last_line.priority == expected.priority);
    PROMISE(std::string(last_line.tag) == tag);
    PROMISE(last_line.has_site == has_site);
    PROMISE(std::string(last_line.format) == (has_site ? "%s: %s(%d) > %s" : "%s"));
    PROMISE(!has_site || (std::string(last_line.file) == "LogFuzz.cpp" && last_line.line == line));
    PROMISE(last_line.length == text.size() && last_line.text == text);
    PROMISE(is_bare || last_line.length <= 255);
    check_standard_error(is_error, tag, text);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    stderr = fmemopen(on_standard_error, sizeof on_standard_error, "w");
    PROMISE(stderr != nullptr);
    fuzz::keeps_lines = true;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    constexpr int most_lines = 8;
    for (int count = 0; count < most_lines && !input.empty(); ++count) {
        log_message(input);
    }
    return 0;
}
