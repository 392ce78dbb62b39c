#include "LabTalk.h"

#include <fmt/format.h>

#include "AllocationFaults.h"
#include "Options.h"
#include "Talk.h"

namespace desk::camera {
namespace {

// "1st", "2nd", "11th".
std::string ordinal(int number) {
    const int last = number % 10;
    const bool is_teen = number / 10 % 10 == 1;
    return std::to_string(number) + (is_teen ? "th" : last == 1 ? "st" : last == 2 ? "nd" : last == 3 ? "rd" : "th");
}

void announce_confirmations(const LabOptions& lab) {
    if (lab.confirm_delay.count() > 0) {
        tell_of_lab(fmt::format("each send is confirmed after {} ms", lab.confirm_delay.count()));
    }
    if (lab.drop_every > 0) {
        tell_of_lab(lab.drop_every == 1 ? "no send is confirmed"
                                        : fmt::format("every {} send is not confirmed", ordinal(lab.drop_every)));
    }
}

void announce_results(const LabOptions& lab) {
    if (lab.save_result) {
        tell_of_lab(fmt::format("each store is answered with {}, and nothing is stored", *lab.save_result));
    }
    if (lab.update_result) {
        tell_of_lab(fmt::format("each rename is answered with {}, and nothing is changed", *lab.update_result));
    }
}

} // namespace

void announce_lab(const LabOptions& lab) {
    announce_confirmations(lab);
    if (lab.link_down) {
        tell_of_lab("the link state is reported as down");
    }
    announce_results(lab);
    if (lab.refuse_allocation > 0) {
        tell_of_lab(fmt::format("the library's {} allocation is refused{}", ordinal(lab.refuse_allocation),
                                lab.refuse_for_good ? ", and all from then on" : ""));
    }
}

void tell_of_lab(const std::string& what) {
    say("lab: " + what);
}

void tell_refused_allocations(const LabOptions& lab) {
    static int told = 0;
    for (; told < refused_allocations(); ++told) {
        tell_of_lab(fmt::format("the library's {} allocation was refused", ordinal(lab.refuse_allocation + told)));
    }
}

} // namespace desk::camera
