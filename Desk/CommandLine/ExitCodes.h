// The exit codes of both tools in words.
#pragma once

#include <vector>

#include "Manual.h"

namespace desk::command_line {

std::vector<Row> exit_codes_of_camera();
std::vector<Row> exit_codes_of_phone();

} // namespace desk::command_line
