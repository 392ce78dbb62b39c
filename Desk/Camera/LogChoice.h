// Which lines of the library are wanted: by their tag and by their level, which the library shows as a colour.
#pragma once

#include <bitset>
#include <map>
#include <string>
#include <string_view>

#define ALG_LOG_TAG "CAMERA"
#include "ADE_ShotMentor_Log.h"

namespace desk::camera {

using LogLevels = std::bitset<ALG_LOG_LEVELS>;

// "plain", "green", "yellow", "cyan", "warn", "error".
const char* name_of_level(alg_log_level level);
// The level whose lines begin with this colour, other than errors; plain where none does.
alg_log_level level_of_color(std::string_view text);

class LogChoice {
  public:
    // Warnings and errors of all tags.
    LogChoice();

    // From "warn", "all,ALG_SM=off" or "ALG_SMM=yellow+warn". Throws Failure (exit_usage) that says what there is.
    static LogChoice parse(const std::string& text);

    // The tag may be null.
    const LogLevels& of_tag(const char* tag) const;
    bool is_nothing() const;

  private:
    void take(std::string_view item);

    LogLevels all_tags_;
    std::map<std::string, LogLevels, std::less<>> of_tag_;
};

} // namespace desk::camera
