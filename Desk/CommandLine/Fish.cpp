// Completions for fish.
#include <fmt/format.h>

#include "Reference.h"
#include "Words.h"

namespace desk::command_line {
namespace {

// In all of it @ is the name that the functions begin with, and a word in angle brackets what the table gives.
constexpr const char* script = R"(# Completes <tool> in fish. Made from the program's own table of options.

# Prints the command before the cursor and the number of its arguments so far, as "store/1"; "/0" before a command.
function @_place
    set -l command ''
    set -l arguments 0
    set -l is_value false
    for word in (commandline -opc)[2..]
        if $is_value
            set is_value false
            continue
        end
        switch $word
            case <options with a value>
                set is_value true
            case '-*'
            case '*'
                if test -n "$command"
                    set arguments (math $arguments + 1)
                else
                    set command $word
                end
        end
    end
    echo "$command/$arguments"
end

# Whether the cursor is in one of these places.
function @_at
    set -l place (@_place)
    for pattern in $argv
        string match -q -- $pattern $place; and return 0
    end
    return 1
end

# Prints what a value may be, of which the arguments are the choices; behind a colon may follow a PATH.
function @_choose
    set -l value (string replace -r '^--[^=]*=' '' -- (commandline -ct))
    for choice in $argv
        set -l start (string replace -r '(:)PATH$' '$1' -- $choice)
        if test $start != $choice; and string match -q -- "$start*" $value
            string replace -r '^' $start -- (__fish_complete_path (string replace -- $start '' $value))
            return
        end
    end
    string replace -r ':PATH$' ':' -- $argv
end

complete -c <tool> -f
)";

std::string quoted(std::string text) {
    return "'" + replaced(replaced(std::move(text), "\\", "\\\\"), "'", "\\'") + "'";
}

// What completes an argument. Files are fish's own, which -f has turned off.
std::string value_flags(const Values& values) {
    switch (values.kind) {
    case Values::Kind::file:
        return " -F";
    case Values::Kind::folder:
        return " -a '(__fish_complete_directories)'";
    case Values::Kind::choices:
        return " -a '(@_choose " + joined(values.choices, " ") + ")'";
    default:
        return "";
    }
}

std::string value_of(const Entry& option) {
    if (option.value.empty()) {
        return "";
    }
    return (option.values.kind == Values::Kind::file ? " -r" : " -x") + value_flags(option.values);
}

std::string option_lines(const std::vector<Entry>& options, const std::string& condition) {
    std::string lines;
    for (const Entry& option : options) {
        std::string names;
        for (const std::string& name : option.names) {
            names += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
        }
        lines +=
            fmt::format("complete -c <tool>{}{}{} -d {}\n", condition, names, value_of(option), quoted(option.help));
    }
    return lines;
}

std::string at(const std::string& place) {
    return " -n '@_at " + place + "'";
}

std::string lines_of(const Command& command) {
    std::string lines =
        fmt::format("\ncomplete -c <tool>{} -a {} -d {}\n", at("/0"), command.name, quoted(command.help));
    const std::string anywhere = fmt::format("\"{}/*\"", command.name);
    lines += option_lines(command.options, at(anywhere));
    size_t position = 0;
    for (const Entry& argument : command.arguments) {
        const std::string place = argument.is_repeated ? anywhere : fmt::format("{}/{}", command.name, position++);
        const std::string flags = value_flags(argument.values);
        lines += flags.empty() ? "" : fmt::format("complete -c <tool>{}{}\n", at(place), flags);
    }
    return lines;
}

void add_names_with_value(const std::vector<Entry>& options, std::vector<std::string>& names) {
    for (const Entry& option : options) {
        if (!option.value.empty()) {
            names.insert(names.end(), option.names.begin(), option.names.end());
        }
    }
}

} // namespace

std::string fish_completion(const Table& table) {
    std::vector<std::string> valued;
    add_names_with_value(table.tool.options, valued);
    std::string lines = script + option_lines(table.tool.options, "");
    for (const Command& command : table.commands) {
        add_names_with_value(command.options, valued);
        lines += lines_of(command);
    }
    return filled(lines, {{"<options with a value>", joined(valued, " ")},
                          {"<tool>", table.tool.name},
                          {"@_", "_" + function_of(table.tool.name) + "_"}});
}

} // namespace desk::command_line
