// Files that the command line names, of which "-" is standard input or standard output. A file of that name is "./-".
#pragma once

#include <span>
#include <string>

#include "Common/Files.h"

namespace desk::phone {

bool is_standard(const std::string& path);

// As messages call it; clean text.
std::string name_of_input(const std::string& path);
std::string name_of_output(const std::string& path);

// As read_file and write_file of Common/Files.h; standard output throws what `print` throws.
Bytes read_input(const std::string& path, size_t most, const std::string& remedy = "give a smaller file");
void write_output(const std::string& path, std::span<const uint8_t> bytes);

} // namespace desk::phone
