// What the camera tells its user: one line on standard error for each thing that happened. Standard output is
// for data alone.
#pragma once

#include <string>

namespace desk {

constexpr const char* program_name = "shotmentor-camera";

void say(const std::string& line);

// The text with everything that would steer a terminal (control characters, also those of UTF-8) replaced, so
// that what a phone sends can neither colour the screen nor forge a line.
std::string without_controls(std::string text);

} // namespace desk
