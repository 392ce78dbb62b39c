// The table of a tool's options and commands, as CLI11 holds it.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace desk::command_line {

// What a shell can offer for a value. `choices` are whole words, or starts that end in a colon; where a path follows
// the colon, the choice ends in ":PATH".
struct Values {
    enum class Kind { unknown, file, folder, choices };
    Kind kind = Kind::unknown;
    std::vector<std::string> choices;
};

// An option, or an argument.
struct Entry {
    std::vector<std::string> names; // of an option, short ones first, "-o", "--output"; of an argument its one name
    std::string value;              // what the value is called, "FILE"; nothing for a flag
    std::string help;
    std::string group;
    std::string variable; // of the environment, that stands for it
    bool is_required = false;
    bool is_repeated = false;
    Values values;
};

// What an option does, and whether it must be given.
std::string text_of_option(const Entry& entry);

// A command without its help option, which is the tool's.
struct Command {
    std::string name;
    std::string help;
    std::string group;
    std::vector<Entry> options;
    std::vector<Entry> arguments;
};

struct Table {
    Command tool; // the options may stand before or behind a command
    std::vector<Command> commands;
    std::string version;
    bool needs_command = false;
};

// Leaves out what the help leaves out.
Table table_of(const CLI::App& app);

} // namespace desk::command_line
