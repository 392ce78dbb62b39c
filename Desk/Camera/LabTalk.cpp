#include "LabTalk.h"

#include <fmt/format.h>

#include "AllocationFaults.h"
#include "Knobs.h"
#include "Talk.h"

namespace desk::camera {
namespace {

// "1st", "2nd", "11th".
std::string ordinal(int number) {
    const int last = number % 10;
    const bool is_teen = number / 10 % 10 == 1;
    return std::to_string(number) + (is_teen ? "th" : last == 1 ? "st" : last == 2 ? "nd" : last == 3 ? "rd" : "th");
}

void say_of_lab(const char* event, const std::string& fault, const std::string& what) {
    say({"lab", {{"event", event}, {"fault", fault}}, "lab: " + what});
}

void announce(const char* fault, const std::string& what) {
    say_of_lab("announced", fault, what);
}

void announce_confirmations(const Knobs& knobs) {
    if (knobs.confirm_delay.value_or(0) > 0) {
        announce("confirm-delay", fmt::format("each send is confirmed after {} ms", *knobs.confirm_delay));
    }
    if (knobs.drop_every) {
        announce("drop-confirmations", *knobs.drop_every == 1
                                           ? "no send is confirmed"
                                           : fmt::format("every {} send is not confirmed", ordinal(*knobs.drop_every)));
    }
}

void announce_results(const Knobs& knobs) {
    if (knobs.save_result) {
        announce("save-result",
                 fmt::format("each store is answered with {}, and nothing is stored", *knobs.save_result));
    }
    if (knobs.update_result) {
        announce("update-result",
                 fmt::format("each rename is answered with {}, and nothing is changed", *knobs.update_result));
    }
}

int told_refusals = 0; // of those since allocations were last counted from

} // namespace

void announce_lab(const Knobs& knobs) {
    announce_confirmations(knobs);
    if (knobs.link_down) {
        announce("link-down", "the link state is reported as down");
    }
    announce_results(knobs);
    if (knobs.refuse_allocation) {
        announce("refuse-allocation",
                 fmt::format("the library's {} allocation is refused{}", ordinal(*knobs.refuse_allocation),
                             knobs.refuse_for_good ? ", and all from then on" : ""));
    }
}

void tell_of_fault(const std::string& fault, const std::string& what) {
    say_of_lab("struck", fault, what);
}

void tell_of_command(const std::string& command, const std::string& who) {
    say({"lab", {{"event", "command"}, {"command", command}}, fmt::format("lab: {}: {}", who, command)});
}

void tell_of_refused_command(const std::string& command, const std::string& who, const std::string& why) {
    say({"lab",
         {{"event", "refused command"}, {"command", command}},
         fmt::format("lab: {}: {} is refused: {}", who, command, why)});
}

void start_refusing_allocations(const Knobs& knobs) {
    told_refusals = 0;
    refuse_allocations(knobs.refuse_allocation.value_or(0), knobs.refuse_for_good);
}

void tell_refused_allocations(const Knobs& knobs) {
    for (; told_refusals < refused_allocations(); ++told_refusals) {
        tell_of_fault("refuse-allocation", fmt::format("the library's {} allocation was refused",
                                                       ordinal(knobs.refuse_allocation.value_or(0) + told_refusals)));
    }
}

} // namespace desk::camera
