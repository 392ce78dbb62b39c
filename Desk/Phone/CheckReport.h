// What has come out of the checks, for people and for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "CheckSession.h"
#include "CheckTable.h"

namespace desk::phone {

struct Outcome {
    enum class Kind { passed, failed, skipped };
    const Check* check;
    Kind kind;
    Finding finding; // failed
    std::string why; // skipped
    double seconds;
};

struct CheckReport {
    std::string camera; // its URL
    std::string model;
    size_t presets = 0;            // that it held before
    std::vector<size_t> leftovers; // numbers of presets of a run that was ended before its end
    std::vector<Outcome> outcomes;
    Cleanup cleanup;
    bool stopped = false; // by a signal

    size_t count(Outcome::Kind kind) const;
};

// One check: a line, and further ones for what was found.
std::string lines_of(const Outcome& outcome);
// What stands below all of them.
std::string summary_of(const CheckReport& report);
nlohmann::ordered_json json_of(const CheckReport& report);
std::string junit_of(const CheckReport& report);
// Id and sentence of every check.
std::string lines_of_all_checks();

} // namespace desk::phone
