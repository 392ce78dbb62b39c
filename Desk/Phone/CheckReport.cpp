#include "CheckReport.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <glib.h>
#include <memory>
#include <nlohmann/json.hpp>

#include "Common/Text.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;
using Kind = Outcome::Kind;

constexpr size_t id_width = 22; // the longest id has 21 characters
constexpr auto detail = "                              ";

const char* word_for(Kind kind) {
    switch (kind) {
    case Kind::passed:
        return "ok";
    case Kind::failed:
        return "FAILED";
    case Kind::skipped:
        break;
    }
    return "skipped";
}

const char* name_of(Kind kind) {
    return kind == Kind::passed ? "passed" : kind == Kind::failed ? "failed" : "skipped";
}

// What stands below the line of a check, each with its label.
std::vector<std::array<std::string, 2>> details_of(const Outcome& outcome) {
    switch (outcome.kind) {
    case Kind::passed:
        return {};
    case Kind::failed:
        return {{"found", outcome.finding.found},
                {"expected", outcome.finding.expected},
                {"blame", outcome.finding.blame},
                {"guide", reference_to(outcome.check->heading)}};
    case Kind::skipped:
        break;
    }
    return {{"why", outcome.why}};
}

Json json_of(const Outcome& outcome) {
    Json json = {{"id", outcome.check->id}, {"sentence", outcome.check->sentence}, {"result", name_of(outcome.kind)}};
    for (const auto& [label, text] : details_of(outcome)) {
        json[label] = text;
    }
    json["guide"] = reference_to(outcome.check->heading);
    json["seconds"] = outcome.seconds;
    return json;
}

// Text for XML. It has no place for two of the characters that UTF-8 can hold.
std::string xml(const std::string& text) {
    std::string clean = printable_lines(text);
    for (const std::string_view odd : {"\uFFFE", "\uFFFF"}) {
        for (size_t at = clean.find(odd); at != std::string::npos; at = clean.find(odd, at)) {
            clean.replace(at, odd.size(), "\uFFFD");
        }
    }
    const std::unique_ptr<gchar, decltype(&g_free)> escaped(
        g_markup_escape_text(clean.data(), static_cast<gssize>(clean.size())), g_free);
    return escaped.get();
}

std::string junit_of(const Outcome& outcome) {
    std::string inside;
    if (outcome.kind == Kind::failed) {
        std::string text;
        for (const auto& [label, line] : details_of(outcome)) {
            text += fmt::format("{}: {}\n", label, line);
        }
        inside = fmt::format(R"(<failure message="{}">{}</failure>)", xml(outcome.finding.found),
                             xml(fmt::format("{}\n{}", outcome.check->sentence, text)));
    } else if (outcome.kind == Kind::skipped) {
        inside = fmt::format(R"(<skipped message="{}"/>)", xml(outcome.why));
    }
    return fmt::format("    <testcase classname=\"shotmentor.check\" name=\"{}\" time=\"{:.3f}\">{}</testcase>\n",
                       xml(outcome.check->id), outcome.seconds, inside);
}

} // namespace

size_t CheckReport::count(Kind kind) const {
    return static_cast<size_t>(
        std::ranges::count_if(outcomes, [=](const Outcome& outcome) { return outcome.kind == kind; }));
}

namespace {

std::string delete_command(const CheckReport& report, const std::vector<size_t>& numbers) {
    return fmt::format("shotmentor-phone --connect {} delete {}", printable(report.camera), fmt::join(numbers, " "));
}

std::string state_of_presets(const Cleanup& cleanup) {
    if (!cleanup.done) {
        return "the camera's presets were not looked at again: " + printable(cleanup.why);
    }
    return cleanup.left.empty() && cleanup.harm.empty() ? "the camera's presets are as they were"
                                                        : "the camera's presets are NOT as they were";
}

} // namespace

std::string lines_of(const Outcome& outcome) {
    std::string lines =
        fmt::format("{:<8}{:<{}}{}", word_for(outcome.kind), outcome.check->id, id_width, outcome.check->sentence);
    if (outcome.kind == Kind::skipped) {
        return lines + fmt::format(" ({})\n", printable(outcome.why));
    }
    lines += "\n";
    for (const auto& [label, text] : details_of(outcome)) {
        lines += fmt::format("{}{:<10}{}\n", detail, label + ":", printable(text));
    }
    return lines;
}

std::string summary_of(const CheckReport& report) {
    std::string text;
    if (!report.leftovers.empty()) {
        text += fmt::format("\nThe camera holds presets of a check that was ended before its end. They are left alone; "
                            "this deletes them:\n  {}\n",
                            delete_command(report, report.leftovers));
    }
    if (!report.cleanup.left.empty()) {
        text += fmt::format("\nPRESETS OF THIS RUN ARE LEFT in the camera: {}. This deletes them:\n  {}\n",
                            printable(report.cleanup.why), delete_command(report, report.cleanup.left));
    }
    if (!report.cleanup.harm.empty()) {
        text += fmt::format("\nPRESETS THAT ARE NOT THIS RUN'S HAVE CHANGED: {}\n", printable(report.cleanup.harm));
    }
    return text + fmt::format("\n{}{} passed, {} failed, {} skipped; {}\n", report.stopped ? "stopped: " : "",
                              report.count(Kind::passed), report.count(Kind::failed), report.count(Kind::skipped),
                              state_of_presets(report.cleanup));
}

nlohmann::ordered_json json_of(const CheckReport& report) {
    Json checks = Json::array();
    for (const Outcome& outcome : report.outcomes) {
        checks.push_back(json_of(outcome));
    }
    return {{"camera", report.camera},
            {"model", report.model},
            {"presets", report.presets},
            {"passed", report.count(Kind::passed)},
            {"failed", report.count(Kind::failed)},
            {"skipped", report.count(Kind::skipped)},
            {"stopped", report.stopped},
            {"leftovers", report.leftovers},
            {"cleanup",
             {{"done", report.cleanup.done},
              {"left", report.cleanup.left},
              {"harm", report.cleanup.harm},
              {"why", report.cleanup.why}}},
            {"checks", checks}};
}

std::string junit_of(const CheckReport& report) {
    double seconds = 0;
    std::string cases;
    for (const Outcome& outcome : report.outcomes) {
        seconds += outcome.seconds;
        cases += junit_of(outcome);
    }
    const std::string counts =
        fmt::format(R"(tests="{}" failures="{}" errors="0" skipped="{}" time="{:.3f}")", report.outcomes.size(),
                    report.count(Kind::failed), report.count(Kind::skipped), seconds);
    return fmt::format("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<testsuites {0}>\n  <testsuite name=\"{1}\" {0}>\n{2}  </testsuite>\n</testsuites>\n",
                       counts, xml("shotmentor-phone check " + report.camera), cases);
}

std::string lines_of_all_checks() {
    std::string lines;
    for (const Check& check : all_checks()) {
        lines += fmt::format("{:<{}}{}\n", check.id, id_width, check.sentence);
    }
    return lines;
}

} // namespace desk::phone
