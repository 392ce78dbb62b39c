// What the camera can be made to do wrong, and what its model sets. There is one set of knobs: whoever they concern
// reads them when it matters, so that they can be turned while the camera serves.
#pragma once

#include <optional>

namespace desk::camera {

// Off unless set.
struct Knobs {
    std::optional<int> confirm_delay;  // milliseconds
    std::optional<int> drop_every;     // of so many sends one is never confirmed
    std::optional<int> drop_next;      // so many sends from now on are never confirmed
    std::optional<int> duplicate_next; // so many sends from now on are confirmed twice
    bool link_down = false;
    std::optional<int> save_result;
    std::optional<int> update_result;
    std::optional<int> refuse_allocation;
    bool refuse_for_good = false;
    std::optional<int> pull_request; // the link is lost behind so many bytes of a request
    std::optional<int> pull_reply;   // and of a reply
    std::optional<int> link_rate;    // bytes a second, each way
    std::optional<int> packet_delay; // milliseconds, each way

    bool full_iso_steps = true; // no fault: what the model sets
};

// Whether one more of a count is left, which is then used up.
inline bool use_up(std::optional<int>& count) {
    if (!count) {
        return false;
    }
    if (--*count == 0) {
        count.reset();
    }
    return true;
}

} // namespace desk::camera
