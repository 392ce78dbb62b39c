// What --help prints: of the whole tool, or of one of its commands.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Manual.h"
#include "Table.h"

namespace desk::command_line {

// Lines are broken at `width` columns, 0 for no limit. A command line that is broken can be typed as it stands.
std::string help_of(const Table& table, const Manual& manual, size_t width);

// The command's usage, arguments and examples, its own options, and those of the tool that do something for it.
std::string help_of(const Command& command, const Table& table, const Manual& manual, size_t width);

// The words of the command line behind the tool's name, with "help COMMAND" as "COMMAND --help".
std::vector<std::string> words_of(int argc, char** argv);

} // namespace desk::command_line
