// The reference of a tool, made from its own table of options: its man page, and completions for shells.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "Manual.h"
#include "Table.h"

namespace desk::command_line {

// What the option --reference throws while the command line is parsed; `what` is the text.
class CallForReference : public CLI::Success {
  public:
    explicit CallForReference(const std::string& text) : CLI::Success("CallForReference", text, 0) {}
};

// Adds --reference man|bash|zsh|fish, of which the help is silent.
void add_reference(CLI::App& app, const Manual& manual);

std::string man_page(const Table& table, const Manual& manual);
std::string bash_completion(const Table& table);
std::string zsh_completion(const Table& table);
std::string fish_completion(const Table& table);

} // namespace desk::command_line
