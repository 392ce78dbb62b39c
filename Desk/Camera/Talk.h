// What the camera tells its user: one line on standard error for each thing that happened. Standard output is for data
// alone.
#pragma once

#include <string>

namespace desk::camera {

constexpr const char* program_name = "shotmentor-camera";

void say(const std::string& line);

} // namespace desk::camera
