#include "Progress.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <utility>

#include "Output.h"

namespace desk::phone {
namespace {

constexpr size_t worth_showing = size_t{64} * 1024; // what is smaller is through before it can be read
constexpr size_t bar_length = 30;
constexpr size_t step_bar_length = 10; // leaves room for a title
constexpr size_t never_shown = SIZE_MAX;

std::string kilobytes(size_t bytes) {
    return fmt::format("{}", (bytes + 999) / 1000);
}

std::string bar_of(size_t done, size_t all, size_t length) {
    const size_t full = done * length / all;
    const std::string bar = std::string(full, '=') + std::string(length - full, ' ');
    return color_is_unwanted() ? bar : "\x1b[36m" + bar + "\x1b[0m";
}

std::string line_of(const std::string& label, size_t done, size_t all) {
    return fmt::format("{} [{}] {:>3} %  {} of {} kB", label, bar_of(done, all, bar_length), done * 100 / all,
                       kilobytes(done), kilobytes(all));
}

} // namespace

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
    show_passing_line(line_of(label_, done, all));
}

void Progress::show_step(size_t number, size_t all, const std::string& name) {
    if (!wanted_) {
        return;
    }
    visible_ = true;
    show_passing_line(fmt::format("[{}] {} of {} {}", bar_of(number - 1, all, step_bar_length), number, all, name));
}

} // namespace desk::phone
