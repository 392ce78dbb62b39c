#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace desk {
namespace {

constexpr size_t usual_width = 80;

} // namespace

std::optional<TerminalSize> terminal_size(int descriptor) {
    winsize size = {};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return std::nullopt;
    }
    return TerminalSize{size.ws_col, size.ws_row, size.ws_xpixel, size.ws_ypixel};
}

size_t width_of_lines(int descriptor) {
    if (isatty(descriptor) != 1) {
        return 0;
    }
    const std::optional<TerminalSize> size = terminal_size(descriptor);
    return size ? size->columns : usual_width;
}

} // namespace desk
