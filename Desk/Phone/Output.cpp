#include "Output.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "Common/Failure.h"
#include "Common/Text.h"
#include "PresetFiles/JsonText.h"

namespace desk::phone {
namespace {

bool passing_line_shows = false;

} // namespace

void print(std::string_view text) {
    clear_passing_line();
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (written && std::fflush(stdout) == 0) {
        return;
    }
    const int error = errno;
    if (error == EPIPE || error == EBADF) {
        throw OutputClosed{};
    }
    throw Failure(exit_machine, fmt::format("cannot write to standard output: {}", std::strerror(error)));
}

void print_json(const nlohmann::ordered_json& json) {
    print(escaped_json(text_of_json(json)));
}

void occupy_standard_descriptors() {
    for (int expected = STDIN_FILENO; expected <= STDERR_FILENO; ++expected) {
        if (fcntl(expected, F_GETFD) < 0) {
            // Takes the lowest number, and cannot be written to: output stays closed.
            static_cast<void>(open("/dev/null", O_RDONLY));
        }
    }
}

void talk(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

void say(std::string_view line) {
    clear_passing_line();
    talk(printable(line) + "\n");
}

void complain(std::string_view lines) {
    clear_passing_line();
    talk(fmt::format("shotmentor-phone: {}\n", printable_lines(lines)));
}

// The cursor waits at the start of the line. A terminal that is made narrower may break the line, but the cursor stays
// in front of all of it, so that everything behind the cursor is ours to erase.
void show_passing_line(std::string_view text) {
    passing_line_shows = true;
    talk(std::string(text) + "\x1b[J\r");
}

void clear_passing_line() {
    if (passing_line_shows) {
        talk("\x1b[J");
    }
    passing_line_shows = false;
}

bool output_is_terminal() {
    return isatty(STDOUT_FILENO) == 1;
}

bool talk_is_terminal() {
    return isatty(STDERR_FILENO) == 1;
}

bool color_is_unwanted() {
    const char* wish = std::getenv("NO_COLOR");
    return wish != nullptr && *wish != '\0';
}

bool terminal_can_redraw() {
    const char* terminal = std::getenv("TERM");
    return terminal != nullptr && *terminal != '\0' && std::string_view(terminal) != "dumb";
}

} // namespace desk::phone
