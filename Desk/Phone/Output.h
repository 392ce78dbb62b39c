// Data goes to standard output, talk to standard error.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace desk::phone {

// Whoever read our standard output has gone. There is nothing to say, and nobody to say it to.
struct OutputClosed {};

// Writes data and makes sure that it has arrived. A text comes out as it is, as the drawing of a picture has to: what
// others have written has passed `printable`. Throws OutputClosed, or Failure (exit_machine).
void print(std::string_view text);
void print_json(const nlohmann::ordered_json& json);

// Keeps the link to the camera from becoming standard output where we were started with that one closed. To be called
// before anything is opened.
void occupy_standard_descriptors();

// Talk of our own, as it is; one line of it, and a complaint of one line or more, which may quote others: what could do
// something to a terminal is replaced. Nobody has to be listening.
void talk(std::string_view text);
void say(std::string_view line);
void complain(std::string_view lines);

// A line whose place the next one takes, whoever writes it, as that of a progress bar; and its end.
void show_passing_line(std::string_view text);
void clear_passing_line();

bool output_is_terminal();
bool talk_is_terminal();
bool color_is_unwanted();   // NO_COLOR, https://no-color.org
bool terminal_can_redraw(); // the terminal of this process moves its cursor

} // namespace desk::phone
