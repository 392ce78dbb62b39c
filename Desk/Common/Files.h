// Whole files in and out.
#pragma once

#include <span>
#include <string>

#include "Wire/Record.h"

namespace desk {

// Throws Failure (exit_machine).
Bytes read_file(const std::string& path);

// Writes a file so that its name always stands for a whole one: the old, or the new. Throws Failure
// (exit_machine).
void write_file(const std::string& path, std::span<const uint8_t> bytes);

} // namespace desk
