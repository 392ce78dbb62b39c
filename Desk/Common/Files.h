// Whole files in and out. A file may be anything that has a name: one without an end, a pipe that nobody writes or
// reads, a symbolic link to a file that is not there yet.
#pragma once

#include <chrono>
#include <span>
#include <string>

#include "Wire/Record.h"

namespace desk {

// How long a pipe may give or take no byte, counted anew with each. Slow programs stand at the other end of pipes, so
// it is generous.
constexpr std::chrono::seconds patience_with_pipes{5};

// A preset file with every field has 5 kB; this leaves room for any indentation.
constexpr size_t longest_preset_file = size_t{1} << 20;

// The bytes of a file that has `most` of them at most; never are more than one beyond that read. Throws Failure:
// exit_usage for a longer file, exit_machine for one that cannot be read, a folder, or a pipe beyond all patience.
// `remedy` is what mends a file that is too long.
Bytes read_file(const std::string& path, size_t most, const std::string& remedy = "give a smaller file");

// The same of what comes on standard input.
Bytes read_standard_input(size_t most, const std::string& remedy);

// Writes a file so that its name always stands for a whole one: the old, or the new. Symbolic links stay, and what they
// lead to is written. What is no ordinary file is written as it is. Throws Failure (exit_machine).
void write_file(const std::string& path, std::span<const uint8_t> bytes);

} // namespace desk
