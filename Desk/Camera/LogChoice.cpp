#include "LogChoice.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "Common/Failure.h"
#include "Common/Text.h"

namespace desk::camera {
namespace {

constexpr std::array<const char*, ALG_LOG_LEVELS> level_names = {"plain", "green", "yellow", "cyan", "warn", "error"};
constexpr std::array<const char*, 2> tags = {"ALG_SM", "ALG_SMM"}; // all that the library has

struct NamedLevels {
    std::string_view name;
    unsigned long levels;
};
constexpr unsigned long bit_of(alg_log_level level) {
    return 1UL << level;
}
constexpr unsigned long warnings = bit_of(ALG_LOG_LEVEL_WARN) | bit_of(ALG_LOG_LEVEL_ERROR);
constexpr std::array<NamedLevels, 8> named_levels = {{{"off", 0},
                                                      {"error", bit_of(ALG_LOG_LEVEL_ERROR)},
                                                      {"warn", warnings},
                                                      {"all", (1UL << ALG_LOG_LEVELS) - 1},
                                                      {"plain", bit_of(ALG_LOG_LEVEL_PLAIN)},
                                                      {"green", bit_of(ALG_LOG_LEVEL_GREEN)},
                                                      {"yellow", bit_of(ALG_LOG_LEVEL_YELLOW)},
                                                      {"cyan", bit_of(ALG_LOG_LEVEL_CYAN)}}};

[[noreturn]] void throw_unknown(const char* what, std::string_view word, const std::string& known) {
    throw Failure(exit_usage,
                  fmt::format("--log-level: there is no {} \"{}\"; there are {}", what, printable(word), known));
}

LogLevels levels_named(std::string_view name) {
    const auto* const found = std::ranges::find(named_levels, name, &NamedLevels::name);
    if (found == named_levels.end()) {
        std::string known;
        for (const NamedLevels& named : named_levels) {
            known += (known.empty() ? "" : ", ") + std::string(named.name);
        }
        throw_unknown("level", name, known);
    }
    return found->levels;
}

// Calls `take` with each part of a text between separators, which may be empty.
template<class Take>
void for_each_part(std::string_view text, char separator, Take take) {
    for (size_t end = 0; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1)) {
        take(text.substr(0, end));
    }
    take(text);
}

LogLevels levels_in(std::string_view names) {
    LogLevels levels;
    for_each_part(names, '+', [&](std::string_view name) { levels |= levels_named(name); });
    return levels;
}

} // namespace

const char* name_of_level(alg_log_level level) {
    return level_names.at(level);
}

alg_log_level level_of_color(std::string_view text) {
    for (int level = ALG_LOG_LEVEL_GREEN; level < ALG_LOG_LEVEL_ERROR; ++level) {
        if (text.starts_with(alg_log_color(static_cast<alg_log_level>(level)))) {
            return static_cast<alg_log_level>(level);
        }
    }
    return ALG_LOG_LEVEL_PLAIN;
}

LogChoice::LogChoice() : all_tags_(warnings) {}

LogChoice LogChoice::parse(const std::string& text) {
    LogChoice choice;
    for_each_part(text, ',', [&](std::string_view item) { choice.take(item); });
    return choice;
}

void LogChoice::take(std::string_view item) {
    const size_t equals = item.find('=');
    if (equals == std::string_view::npos) {
        all_tags_ = levels_in(item);
        return;
    }
    const std::string tag(item.substr(0, equals));
    if (std::ranges::find(tags, tag) == tags.end()) {
        throw_unknown("tag", tag, fmt::format("{}", fmt::join(tags, ", ")));
    }
    of_tag_[tag] = levels_in(item.substr(equals + 1));
}

const LogLevels& LogChoice::of_tag(const char* tag) const {
    const auto found = of_tag_.find(std::string_view(tag != nullptr ? tag : ""));
    return found != of_tag_.end() ? found->second : all_tags_;
}

bool LogChoice::is_nothing() const {
    return all_tags_.none() && std::ranges::all_of(of_tag_, [](const auto& tag) { return tag.second.none(); });
}

} // namespace desk::camera
