// How large the terminal is that something is written to.
#pragma once

#include <cstddef>
#include <optional>

namespace desk {

struct TerminalSize {
    size_t columns = 0;
    size_t rows = 0;
    size_t pixels_across = 0; // 0 where the terminal does not tell
    size_t pixels_down = 0;
};
std::optional<TerminalSize> terminal_size(int descriptor);

// The columns that a line has room for: the terminal's, 80 where it does not tell them, and 0, for no limit, where
// there is none: what no person reads is left whole.
size_t width_of_lines(int descriptor);

} // namespace desk
