#include "Progress.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <unistd.h>
#include <utility>

#include "Common/Terminal.h"
#include "Common/Text.h"
#include "Output.h"

namespace desk::phone {
namespace {

constexpr size_t worth_showing = size_t{64} * 1024; // what is smaller is through before it can be read
constexpr size_t longest_bar = 30;
constexpr size_t shortest_bar = 8;   // below it numbers alone tell more
constexpr size_t brackets = 3;       // those of the bar, and the blank before them
constexpr size_t shortest_label = 6; // below it there is none
constexpr size_t usual_width = 80;
constexpr size_t step_bar = 10; // of several things; leaves room for a name
constexpr size_t never_shown = SIZE_MAX;

std::string kilobytes(size_t bytes) {
    return fmt::format("{}", (bytes + 999) / 1000);
}

std::string bar_of(size_t done, size_t all, size_t length) {
    const size_t full = done * length / all;
    const std::string bar = std::string(full, '=') + std::string(length - full, ' ');
    return fmt::format(" [{}]", color_is_unwanted() ? bar : "\x1b[36m" + bar + "\x1b[0m");
}

// The columns that may be written to. In the last one a terminal may begin a new line.
size_t room_on_terminal() {
    const std::optional<TerminalSize> size = terminal_size(STDERR_FILENO);
    return (size ? size->columns : usual_width) - 1;
}

} // namespace

std::string progress_line(const std::string& label, size_t done, size_t all, size_t room) {
    const std::string percent = fmt::format(" {:>3} %", done * 100 / all);
    const std::string end = kilobytes(all);
    const std::string bytes = fmt::format("  {:>{}} of {} kB", kilobytes(done), end.size(), end);
    if (room < percent.size() + shortest_label) {
        return room < percent.size() ? "" : percent;
    }
    // What tells most is given its room first.
    size_t left = room - percent.size();
    const bool has_bytes = bytes.size() + shortest_label <= left;
    left -= has_bytes ? bytes.size() : 0;
    const std::string name = shortened(printable(label), left);
    left -= display_width(name);
    const size_t bar = left < brackets + shortest_bar ? 0 : std::min(left - brackets, longest_bar);
    return name + (bar > 0 ? bar_of(done, all, bar) : "") + percent + (has_bytes ? bytes : "");
}

std::string step_line(size_t number, size_t all, const std::string& name, size_t room) {
    const std::string count = fmt::format("{} of {} ", number, all);
    const size_t needed = count.size() + shortest_label;
    if (room < needed) {
        return "";
    }
    const bool has_bar = room >= needed + brackets + step_bar;
    const std::string text =
        count + shortened(printable(name), room - count.size() - (has_bar ? brackets + step_bar : 0));
    return text + (has_bar ? bar_of(number - 1, all, step_bar) : "");
}

Progress::Progress(std::string label, bool is_wanted)
    : label_(std::move(label)), wanted_(is_wanted && talk_is_terminal() && terminal_can_redraw()),
      shown_permille_(never_shown) {}

Progress::~Progress() {
    clear();
}

void Progress::clear() {
    if (visible_) {
        clear_passing_line();
    }
    visible_ = false;
}

void Progress::show(size_t done, size_t all) {
    if (!wanted_ || all < worth_showing) {
        return;
    }
    done = std::min(done, all);
    const size_t permille = done * 1000 / all;
    if (permille == shown_permille_) {
        return;
    }
    shown_permille_ = permille;
    visible_ = true;
    show_passing_line(progress_line(label_, done, all, room_on_terminal()));
}

void Progress::show_step(size_t number, size_t all, const std::string& name) {
    if (wanted_) {
        visible_ = true;
        show_passing_line(step_line(number, all, name, room_on_terminal()));
    }
}

} // namespace desk::phone
