#include "Lab.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <fmt/format.h>
#include <optional>
#include <sstream>
#include <string_view>

#include "ADE_ShotMentor_Records.h"
#include "AllocationFaults.h"
#include "Budgets.h"
#include "CommandLine/Nearest.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "LabTalk.h"

namespace desk::camera {
namespace {

// ---- Values of knobs ------------------------------------------------------------------------------------------------

std::optional<int> number_in(std::string_view text, int first, int last) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool is_number = !text.empty() && error == std::errc() && end == text.data() + text.size();
    return is_number && number >= first && number <= last ? std::optional(number) : std::nullopt;
}

// Each of these sets a knob from what follows the command's name. False for what is no value of it.
template<std::optional<int> Knobs::*knob, int first, int last>
bool set_number(Knobs& knobs, const std::string& value) {
    knobs.*knob = number_in(value, first, last);
    return knobs.*knob || value == "off";
}

bool set_link_down(Knobs& knobs, const std::string& value) {
    knobs.link_down = value == "on";
    return value == "on" || value == "off";
}

bool set_refused_allocation(Knobs& knobs, const std::string& value) {
    knobs.refuse_for_good = value.ends_with('+');
    const std::string number = knobs.refuse_for_good ? value.substr(0, value.size() - 1) : value;
    return set_number<&Knobs::refuse_allocation, 1, INT_MAX>(knobs, number) && (number != "off" || value == "off");
}

bool set_iso_step(Knobs& knobs, const std::string& value) {
    knobs.full_iso_steps = value == "full";
    return value == "full" || value == "third";
}

// What the model sets stays: it is no fault.
bool clear_faults(Knobs& knobs, const std::string& value) {
    const bool full_iso_steps = knobs.full_iso_steps;
    knobs = Knobs();
    knobs.full_iso_steps = full_iso_steps;
    return value.empty();
}

// The answer to a phone is no knob.
bool check_yes_or_no(Knobs&, const std::string& value) {
    return value == "yes" || value == "no";
}

// And each of these gives the value back.
template<std::optional<int> Knobs::*knob>
std::string show_number(const Knobs& knobs) {
    return knobs.*knob ? std::to_string(*(knobs.*knob)) : "off";
}

std::string show_link_down(const Knobs& knobs) {
    return knobs.link_down ? "on" : "off";
}

std::string show_refused_allocation(const Knobs& knobs) {
    return show_number<&Knobs::refuse_allocation>(knobs) + (knobs.refuse_for_good ? "+" : "");
}

std::string show_iso_step(const Knobs& knobs) {
    return knobs.full_iso_steps ? "full" : "third";
}

// ---- The table ------------------------------------------------------------------------------------------------------

struct Command {
    const char* name; // one or two words
    const char* values;
    const char* help;
    bool (*set)(Knobs&, const std::string& value); // null for a question
    std::string (*show)(const Knobs&);             // null for what is no knob
};

constexpr int shortest_request = sizeof(sm_frame);

// A number of `first` to `last`, or off.
template<std::optional<int> Knobs::*knob, int first, int last>
constexpr Command number_command(const char* name, const char* values, const char* help) {
    return {name, values, help, set_number<knob, first, last>, show_number<knob>};
}

constexpr std::array<Command, 17> commands = {{
    number_command<&Knobs::confirm_delay, 0, INT_MAX>("confirm-delay", "MS|off", "confirm each send after this time"),
    number_command<&Knobs::drop_every, 1, INT_MAX>("drop-confirmations", "N|off", "never confirm every N-th send"),
    number_command<&Knobs::drop_next, 1, INT_MAX>("drop-next", "N|off", "never confirm the next N sends"),
    number_command<&Knobs::duplicate_next, 1, INT_MAX>("duplicate-next", "N|off", "confirm the next N sends twice"),
    {"link-down", "on|off", "report the phone link as down", set_link_down, show_link_down},
    number_command<&Knobs::save_result, INT_MIN, INT_MAX>("save-result", "N|off",
                                                          "answer N to each store, and store nothing"),
    number_command<&Knobs::update_result, INT_MIN, INT_MAX>("update-result", "N|off",
                                                            "answer N to each rename, and change nothing"),
    {"refuse-allocation", "N|N+|off", "refuse the library's N-th allocation from now, with + all from then on",
     set_refused_allocation, show_refused_allocation},
    number_command<&Knobs::pull_request, shortest_request, SM_REQUEST_LIMIT>(
        "pull request", "BYTE|off", "lose the link once, behind this byte of the next request that has more"),
    number_command<&Knobs::pull_reply, 0, INT_MAX>(
        "pull reply", "BYTE|off", "lose the link once, behind this byte of the next reply that has more"),
    number_command<&Knobs::link_rate, 1, INT_MAX>("link-rate", "N|off", "carry N bytes a second at most, each way"),
    number_command<&Knobs::packet_delay, 1, INT_MAX>("packet-delay", "MS|off", "delay each packet, each way"),
    {"iso-step", "full|third", "ISO steps that the model sets", set_iso_step, show_iso_step},
    {"clear", "", "turn all faults off", clear_faults, nullptr},
    {"pair", "yes|no", "answer a phone that wants to pair", check_yes_or_no, nullptr},
    {"status", "", "print all knobs", nullptr, nullptr},
    {"phone", "", "print whether a phone is there", nullptr, nullptr},
}};

std::vector<std::string> command_names() {
    std::vector<std::string> names(commands.size());
    std::ranges::transform(commands, names.begin(), &Command::name);
    return names;
}

// ---- Reading a line -------------------------------------------------------------------------------------------------

// A line's words with one blank in between.
std::string trimmed(const std::string& line) {
    std::istringstream input(line);
    std::string words;
    for (std::string word; input >> word;) {
        words += (words.empty() ? "" : " ") + word;
    }
    return words;
}

struct Line {
    const Command& command;
    std::string value;
};

[[noreturn]] void throw_unknown(const std::string& words) {
    const std::string first = words.substr(0, words.find(' '));
    const std::optional<std::string> near = command_line::nearest(first, command_names());
    throw Failure(exit_usage, fmt::format("there is no command \"{}\"{}", printable(first),
                                          near ? fmt::format("; did you mean \"{}\"?", *near)
                                               : "; shotmentor-camera --help shows all"));
}

Line parse(const std::string& line) {
    if (line.size() > budget::longest_command) {
        throw Failure(exit_usage, fmt::format("a command has at most {} bytes, and this one {}; shorten it",
                                              +budget::longest_command, line.size()));
    }
    const std::string words = trimmed(line);
    if (words.empty()) {
        throw Failure(exit_usage, "the command is missing; shotmentor-camera --help shows all");
    }
    for (const Command& command : commands) {
        const std::string name = command.name;
        if (words == name || words.starts_with(name + " ")) {
            return {command, words.substr(std::min(words.size(), name.size() + 1))};
        }
    }
    throw_unknown(words);
}

// The knobs as the command would turn them.
Knobs turned(Knobs knobs, const Line& line) {
    const Command& command = line.command;
    if (command.set != nullptr ? command.set(knobs, line.value) : line.value.empty()) {
        return knobs;
    }
    const std::string given = line.value.empty() ? "nothing" : '"' + printable(line.value) + '"';
    throw Failure(exit_usage, *command.values == '\0'
                                  ? fmt::format("{} takes no value, and {} is given", command.name, given)
                                  : fmt::format("{} takes {}, not {}", command.name, command.values, given));
}

bool is_about_allocations(const Command& command) {
    return command.set == set_refused_allocation;
}

std::string status_of(const Knobs& knobs) {
    std::string status;
    for (const Command& command : commands) {
        if (command.show != nullptr) {
            status += fmt::format("{}{} {}", status.empty() ? "" : "; ", command.name, command.show(knobs));
        }
    }
    return status;
}

} // namespace

// ---- The lab --------------------------------------------------------------------------------------------------------

std::string Lab::run(const std::string& line, const std::string& who) {
    const Line read = parse(line);
    const Knobs changed = turned(knobs_, read);
    if (read.command.set == nullptr) {
        return answer(read.command.name);
    }
    if (read.command.set == check_yes_or_no) {
        return answer_pairing(read.value == "yes");
    }
    if (is_about_allocations(read.command) && changed.refuse_allocation && !can_refuse_allocations()) {
        throw Failure(exit_usage, "this camera has no allocator that can refuse; start shotmentor-camera-lab, which "
                                  "lies beside it, in its place");
    }
    const bool counts_anew = is_about_allocations(read.command) || read.command.set == clear_faults;
    knobs_ = changed;
    if (counts_anew) {
        start_refusing_allocations(knobs_);
    }
    tell_of_command(trimmed(line), who);
    return "";
}

std::string Lab::answer_pairing(bool accepts) const {
    if (!pairing_) {
        throw Failure(exit_usage, "the camera listens on no Bluetooth link, so that no phone can pair");
    }
    return pairing_(accepts);
}

std::string Lab::answer(const std::string& question) const {
    if (question == "phone") {
        return phone_ ? phone_() : "no phone is there";
    }
    return status_of(knobs_);
}

void check_lab_command(const std::string& line) {
    turned(Knobs(), parse(line));
}

bool refuses_allocations(const std::string& line) {
    return is_about_allocations(parse(line).command);
}

std::vector<command_line::Row> lab_commands() {
    std::vector<command_line::Row> rows(commands.size());
    std::ranges::transform(commands, rows.begin(), [](const Command& command) {
        const char* const space = *command.values == '\0' ? "" : " ";
        return command_line::Row{fmt::format("{}{}{}", command.name, space, command.values), command.help};
    });
    return rows;
}

} // namespace desk::camera
